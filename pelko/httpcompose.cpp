// The send side of HTTP: the host's arrays become wire bytes. Each send is
// formatted on its own: a header, a chunk, the last chunk with its trailer,
// a whole message, a text with a file behind it, or bytes as they stand.
// Nothing checks that the sends make a well-formed message together.
#include <fcntl.h>
#include <unistd.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <strings.h>

#include "httpconnection.h"
#include "log.h"
#include "orvanenaz.h"
#include "pelkoerr.h"

#define MODULE 0x00000100

// Rows of a header matrix double their buffer up to this size.
#define FMT_MAX_DOUBLE 262144
// Room for a Content-Length line.
#define CONTENT_LENGTH_ROOM 50
// Room for a file's name.
#define FILENAME_ROOM 512

PLIST GenStopList(int count, const char* const* strings) {
  size_t size = offsetof(LIST, items) + sizeof(PITEM) * (count > 0 ? count : 1);
  for (int i = 0; i < count; i++) {
    size = (size + alignof(ITEM) - 1) & ~(alignof(ITEM) - 1);
    size += offsetof(ITEM, pc) + strlen(strings[i]);
  }
  PCH1 block = (PCH1)calloc(1, size);
  if (!block) return nullptr;
  PLIST list = (PLIST)block;
  list->Count = count;
  size_t at = offsetof(LIST, items) + sizeof(PITEM) * (count > 0 ? count : 1);
  for (int i = 0; i < count; i++) {
    at = (at + alignof(ITEM) - 1) & ~(alignof(ITEM) - 1);
    PITEM item = (PITEM)(block + at);
    item->len = (SI4)strlen(strings[i]);
    memcpy(item->pc, strings[i], (size_t)item->len);
    list->items[i] = item;
    at += offsetof(ITEM, pc) + (size_t)item->len;
  }
  return list;
}

bool HeaderField(PBUFFER header, const char* name, PCH1* field, UI4* length) {
  SI4 at = header->FindAsc((PCH10)name, true, true);
  if (at < 0) return false;
  UI4 end = header->SizeProcessed();
  PCH1 p = header->Start();
  UI4 i = (UI4)at;
  while (i < end && (p[i] == ' ' || p[i] == '\t')) i++;
  UI4 j = i;
  while (j < end && p[j] != '\r' && p[j] != '\n') j++;
  *field = p + i;
  *length = j - i;
  return true;
}

static bool SameText(PCH1 p, UI4 n, const char* value) {
  return n == strlen(value) && strncasecmp(p, value, n) == 0;
}

bool isHdr(PBUFFER header, const char* name, const char* value) {
  PCH1 f;
  UI4 n;
  return HeaderField(header, name, &f, &n) && SameText(f, n, value);
}

bool isHdrM(PBUFFER header, const char* name, const char* value) {
  PCH1 f;
  UI4 n;
  if (!HeaderField(header, name, &f, &n) || n == 0) return false;
  UI4 i = 0;
  while (i <= n) {
    while (i < n && f[i] == ' ') i++;
    UI4 j = i;
    while (j < n && f[j] != ',') j++;
    if (SameText(f + i, j - i, value)) return true;
    i = j + 1;
  }
  return false;
}

UI4 HttpDate(PCH1 out, UI4 size) {
  time_t now = time(nullptr);
  struct tm tm;
  gmtime_r(&now, &tm);
  return (UI4)strftime(out, size, "%a, %d %b %Y %X GMT", &tm);
}

SI4 GetBytes(PAA a, PUI1* ppData, PUI4 pLength) {
  *ppData = nullptr;
  *pLength = 0;
  SI4 rc = VAGetBytes(a, nullptr, pLength);
  if (rc) return rc;
  *ppData = (PUI1)calloc(1, *pLength ? *pLength : 1);
  if (!*ppData) return ERR_MEMORY_ALLOC;
  rc = VAGetBytes(a, *ppData, pLength);
  if (rc) {
    free(*ppData);
    *ppData = nullptr;
  }
  return rc;
}

SI4 GetFilehandle(PAA pair, PUI1* ppData, PUI4 pLength, int* pFd, PUI4 pFileSize) {
  *ppData = nullptr;
  *pLength = 0;
  *pFd = -1;
  if (VAElems(pair) >= 3) return ERR_LENGTH;
  PAA text = nullptr;
  SI4 rc = VAGetpAA(pair, 0, &text);
  if (!rc) rc = GetBytes(text, ppData, pLength);
  VAFree(text);
  char file[FILENAME_ROOM];
  if (!rc) rc = VAGetUnicode(pair, 1, file, sizeof(file), UTF8, 1);
  if (!rc) {
    int fd = open(file, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
      rc = ERR_FILE;
    } else {
      off_t size = lseek(fd, 0, SEEK_END);
      if (size < 0 || (uint64_t)size + *pLength > 0xFFFFFFFFu) {
        close(fd);
        rc = ERR_SIZE;
      } else {
        *pFd = fd;
        *pFileSize = (UI4)size;
      }
    }
  }
  if (rc) {
    free(*ppData);
    *ppData = nullptr;
  }
  return rc;
}

// One cell of a matrix, or an element of a vector, as text.
static bool AppendCell(PAA a, UI4 index, PBUFFER out, SI4* rc) {
  PCH1 text = nullptr;
  *rc = VAGetCH1m(a, index, &text, VACHAR);
  if (*rc) return true;
  bool full = out->AppendP(text, (UI4)strlen(text));
  free(text);
  return full;
}

static bool AppendText(const char* text, PBUFFER out) { return out->AppendP((PCH1)text, (UI4)strlen(text)); }

// A 2-column matrix of cells, or empty; checked before rows are written.
static SI4 CheckMatrix(PAA m) {
  if (!m || VARank(m) != 2) return ERR_RANK;
  if (VAType(m) != VAPntr && VAShapeProduct(m) != 0) return ERR_DOMAIN;
  if (VAShape(m)[1] != 2) return ERR_INDEX;
  return 0;
}

// Whether the cell at index holds any elements.
static bool CellHasElements(PAA m, UI4 index) {
  if (VAType(m) != VAPntr) return false;
  PAA cell = VASlot(m, index);
  return cell && VAElems(cell) > 0 && !(VAType(cell) == VAPntr && VAShapeProduct(cell) == 0);
}

SI4 FmtMat(PAA matrix, const char* before, const char* between, const char* after, PBUFFER out) {
  SI4 rc = CheckMatrix(matrix);
  if (rc) return rc;
  UI4 rows = VAShape(matrix)[0];
  SI4 result = 0;
  for (UI4 r = 0; r < rows; r++) {
    UI4 start = out->SizeProcessed();
    SI4 cell = 0;
    bool full = AppendText(before, out) || AppendCell(matrix, 2 * r, out, &cell);
    if (!full && CellHasElements(matrix, 2 * r + 1))
      full = AppendText(between, out) || AppendCell(matrix, 2 * r + 1, out, &cell);
    if (!full) full = AppendText(after, out);
    if (cell) return cell;
    result = full ? ERR_APL_LENGTH : 0;
    if (!full) continue;
    // The row that met the end of the buffer is dropped; the buffer grows
    // for the rows after it, up to a limit.
    out->Offset = start;
    if (out->TotalSize() > FMT_MAX_DOUBLE) break;
    out->Resize(out->TotalSize() * 2);
  }
  return result;
}

SI4 FmtHeader(PAA elements, PBUFFER out, UI4 contentLength) {
  SI4 rc = 0;
  bool full = false;
  for (UI4 i = 0; i < 3 && !full; i++) {
    if (i) full = AppendText(" ", out);
    if (!full) full = AppendCell(elements, i, out, &rc);
    if (rc) return rc;
  }
  if (full || AppendText("\r\n", out)) return ERR_APL_LENGTH;
  PAA headers = nullptr;
  rc = VAGetpAA(elements, 3, &headers);
  if (!rc) rc = CheckMatrix(headers);
  if (!rc) rc = FmtMat(headers, "", ": ", "\r\n", out);
  VAFree(headers);
  if (rc) return rc;
  if (contentLength) {
    if (out->Remaining() < CONTENT_LENGTH_ROOM) out->Resize(out->TotalSize() + CONTENT_LENGTH_ROOM);
    char line[CONTENT_LENGTH_ROOM];
    snprintf(line, sizeof(line), "Content-Length: %u\r\n", contentLength);
    if (AppendText(line, out)) return ERR_APL_LENGTH;
  }
  return AppendText("\r\n", out) ? ERR_APL_LENGTH : 0;
}

// One chunk: its size in hex, the extensions, the data, line ends.
static SI4 Chunk(PAA data, PAA extensions, PBUFFER* ppBuf) {
  PUI1 bytes = nullptr;
  UI4 length = 0;
  SI4 rc = GetBytes(data, &bytes, &length);
  if (!rc && length > 0xFFFFFFFFu - STARTSIZE) rc = ERR_SIZE;
  if (rc) {
    free(bytes);
    return rc;
  }
  PBUFFER out = new BUFFER(length + STARTSIZE);
  char size[16];
  snprintf(size, sizeof(size), "%x", length);
  AppendText(size, out);
  rc = FmtMat(extensions, ";", "=", "", out);
  if (!rc) {
    AppendText("\r\n", out);
    out->AppendP((PCH1)bytes, length);
    AppendText("\r\n", out);
  }
  free(bytes);
  out->Resize(out->SizeProcessed());
  out->Rewind();
  *ppBuf = out;
  return rc;
}

// The last chunk, "0", and the trailer's rows.
static SI4 LastChunk(PAA trailer, PBUFFER* ppBuf) {
  PBUFFER out = new BUFFER(STARTSIZE);
  AppendText("0\r\n", out);
  SI4 rc = FmtMat(trailer, "", ": ", "\r\n", out);
  AppendText("\r\n", out);
  out->Resize(out->SizeProcessed());
  out->Rewind();
  *ppBuf = out;
  return rc;
}

// A whole message: start line, headers, Content-Length, then the body,
// which may be a (text filename) pair for a file streamed behind the text.
static SI4 Message(PAA value, PBUFFER* ppBuf) {
  PAA body = nullptr;
  SI4 rc = VAGetpAA(value, 4, &body);
  if (rc) return rc;
  PUI1 data = nullptr;
  UI4 length = 0, fileSize = 0;
  int fd = -1;
  rc = VAType(body) == VAPntr ? GetFilehandle(body, &data, &length, &fd, &fileSize)
                              : GetBytes(body, &data, &length);
  VAFree(body);
  if (rc) return rc;
  PBUFFER out = new BUFFER(STARTSIZE);
  // A header that can't be formatted leaves the file open: the host gets
  // the code and the send never happens.
  rc = FmtHeader(value, out, length + fileSize);
  if (rc) {
    free(data);
    delete out;
    return rc;
  }
  out->Resize(out->SizeProcessed() + length);
  out->AppendP((PCH1)data, length);
  free(data);
  if (fd >= 0) {
    PBUFFER file = new BUFFERFILE(out->SizeProcessed(), out->Start(), fd);
    delete out;
    out = file;
  }
  out->Rewind();
  *ppBuf = out;
  return 0;
}

// The nested values: by their element count, and for pairs by the rank of
// the second element.
static SI4 ComposeNested(PHTTPCONNECTION c, PAA value, PBUFFER* ppBuf) {
  UI4 n = VAElems(value);
  if (n == 5) return Message(value, ppBuf);
  if (n != 2) return ERR_INDEX;
  PAA first = nullptr, second = nullptr;
  SI4 rc = VAGetpAA(value, 0, &first);
  if (!rc) rc = VAGetpAA(value, 1, &second);
  if (!rc && VARank(first) != 1) rc = ERR_RANK;
  if (!rc) {
    if (VARank(second) == 1) {
      PUI1 data = nullptr;
      UI4 length = 0, fileSize = 0;
      int fd = -1;
      rc = GetFilehandle(value, &data, &length, &fd, &fileSize);
      if (!rc) rc = c->ComposeBuffer(data, length, fd, ppBuf);
      free(data);
    } else if (VARank(second) == 2) {
      rc = VAElems(first) > 0 ? Chunk(first, second, ppBuf) : LastChunk(second, ppBuf);
    } else {
      rc = ERR_RANK;
    }
  }
  VAFree(first);
  VAFree(second);
  return rc;
}

SI4 HTTPCONNECTION::ComposeBuffer(PUI4 pZ, UI4 size, PBUFFER* ppBuf) {
  *ppBuf = nullptr;
  SI4 rc;
  if (ComposeVector(pZ, size, false, &rc, ppBuf)) return rc;
  PAA value = UnpackZ(pZ, size);
  if (!value) return ERR_ARCHITECTURE;
  if (VARank(value) != 1) {
    rc = ERR_RANK;
  } else if (VAType(value) == VAPntr || VAType(value) == VAHet) {
    rc = ComposeNested(this, value, ppBuf);
  } else {
    PUI1 data = nullptr;
    UI4 length = 0;
    rc = GetBytes(value, &data, &length);
    if (!rc) rc = ComposeBuffer(data, length, -1, ppBuf);
    free(data);
  }
  VAFree(value);
  return rc;
}

// The plain form: bytes, or a header block with a file behind it. The
// block's blank line gives way to the Content-Length of the file.
SI4 HTTPCONNECTION::ComposeBuffer(PUI1 data, UI4 length, int fd, PBUFFER* ppBuf) {
  *ppBuf = nullptr;
  if (fd == -1) {
    *ppBuf = new BUFFER(length, (PCH1)data);
    return 0;
  }
  off_t size = lseek(fd, 0, SEEK_END);
  lseek(fd, 0, SEEK_SET);
  if (size < 0 || (uint64_t)size + length > 0xFFFFFFFFu) {
    close(fd);
    return ERR_SIZE;
  }
  char text[CONTENT_LENGTH_ROOM];
  int n = snprintf(text, sizeof(text), "Content-Length: %u\r\n\r\n", (UI4)size);
  // A text shorter than its blank line has nothing to keep.
  UI4 keep = length >= 2 ? length - 2 : 0;
  *ppBuf = new BUFFERFILE(keep, (PCH1)data, (UI4)n, text, fd);
  return 0;
}
