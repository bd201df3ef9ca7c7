// Decoding a received HTTP part for the host. Decoding never fails a wait:
// a part that can't be split as its flag asks reaches the host as its raw
// text. The buffer's cursor serves as the read position while decoding.
#include "httpmsg.h"

#include <cstring>

#include "httpconnection.h"
#include "log.h"
#include "orvanenaz.h"
#include "pelkoerr.h"

#define MODULE 0x00000100

// Lines of the part: its line feeds, counted from the start.
static UI4 CountLines(PBUFFER b) {
  b->Rewind();
  UI4 lines = 0;
  for (;;) {
    SI4 r = b->FindBin1((PCH1) "\n", 1, true);
    if (r <= 0) break;
    lines++;
    b->Offset += (UI4)r;
  }
  b->Rewind();
  return lines;
}

// Text from p to the line feed at p + n - 1, less the CR before it.
static UI4 LineLength(PCH1 p, UI4 n) {
  UI4 len = n - 1;
  if (len > 0 && p[len - 1] == '\r') len--;
  return len;
}

// One (name value) row from the cursor on, into cells 2*row and 2*row+1.
// The colon is sought in the whole rest of the part, so a line without one
// takes the following lines into its name; with no colon left, the line is
// the name (when lineWithoutColon allows it).
static SI4 DecodeRow(PBUFFER b, PAA matrix, UI4 row, bool lineWithoutColon) {
  PCH1 start = b->Next();
  SI4 p = b->FindBin1((PCH1) ":", 1, true);
  if (p > 0) {
    SI4 rc = VASetCH1(matrix, 2 * row, start, (UI4)p - 1, VACHAR);
    if (rc) return rc;
    b->Offset += (UI4)p;
    while (b->Offset < b->Size && (*b->Next() == ' ' || *b->Next() == '\t')) b->Offset++;
    SI4 q = b->FindBin1((PCH1) "\n", 1, true);
    if (q <= 0) return ERR_HTTPDECODE;
    rc = VASetCH1(matrix, 2 * row + 1, b->Next(), LineLength(b->Next(), (UI4)q), VACHAR);
    b->Offset += (UI4)q;
    return rc;
  }
  if (!lineWithoutColon) return ERR_HTTPDECODE;
  SI4 q = b->FindBin1((PCH1) "\n", 1, true);
  if (q <= 0) return ERR_HTTPDECODE;
  SI4 rc = VASetCH1(matrix, 2 * row, start, LineLength(start, (UI4)q), VACHAR);
  if (!rc) rc = VASetCH1(matrix, 2 * row + 1, start, 0, VACHAR);
  b->Offset += (UI4)q;
  return rc;
}

static SI4 DecodeRows(PBUFFER b, PAA matrix, UI4 rows, bool lineWithoutColon) {
  SI4 rc = 0;
  for (UI4 r = 0; r < rows && !rc; r++) rc = DecodeRow(b, matrix, r, lineWithoutColon);
  return rc;
}

static PAA NewMatrix(VATYPES type, UI4 rows) {
  UI4 shape[2] = {rows, 2};
  return VANew(type, 2, shape);
}

// The start line's words: each ends at a blank, CR or LF, and one blank at
// most is skipped between them, so two blanks give an empty word.
static SI4 StartLine(PCH1 p, UI4 end, PAA result) {
  UI4 i = 0;
  for (UI4 w = 0; w < 3; w++) {
    UI4 from = i;
    while (i < end && p[i] != ' ' && p[i] != '\r' && p[i] != '\n') i++;
    SI4 rc = VASetCH1(result, w, p + from, i - from, VACHAR);
    if (rc) return rc;
    if (i < end && p[i] == ' ') i++;
  }
  return 0;
}

static SI4 DecodeHeaderPart(PBUFFER b, PAA result) {
  UI4 lines = CountLines(b);
  if (lines < 2) return ERR_HTTPDECODE;
  UI4 first = (UI4)b->FindBin1((PCH1) "\n", 1, true);
  SI4 rc = StartLine(b->Start(), first, result);
  if (rc) return rc;
  b->Offset = first;
  PAA headers = NewMatrix(VAPntr, lines - 2);
  if (!headers) return ERR_MEMORY_ALLOC;
  VASetpAA(result, 3, headers);
  // An empty matrix still has its prototype: an empty text.
  if (lines == 2) return VASetCH1(headers, 0, b->Start(), 0, VACHAR);
  UI4 at = b->Offset;
  rc = DecodeRows(b, headers, lines - 2, true);
  if (rc) return rc;
  for (UI4 i = 0; i < 2 * (lines - 2); i++) {
    if (VASlot(headers, i)) continue;
    LOG(1, ("Item %d of the http headers is NULL", (int)i));
    rc = ERR_HTTPDECODE;
  }
  if (rc) {
    LOG(1, ("Http Header %*s", (int)b->Size, b->Start()));
    b->Offset = at;
  }
  return rc;
}

static SI4 DecodeChunkPart(PBUFFER b, PAA result, VATYPES t) {
  UI4 size = GetChunkSize(b->Start(), b->Size);
  SI4 pos = b->FindBin1((PCH1) "\n", 1, true);
  // A size line whose number doesn't fit the part (it wrapped when the
  // part was sized) has no data to show.
  if (pos <= 0 || size > b->Size - (UI4)pos) return ERR_HTTPDECODE;
  PAA data = Data2pAA(b->Start() + pos, size, t);
  if (!data) return ERR_MEMORY_ALLOC;
  VASetpAA(result, 0, data);
  // Extensions of the size line are the sender's business: the host gets
  // an empty list of them.
  PAA extensions = NewMatrix(VAC1, 0);
  if (!extensions) return ERR_MEMORY_ALLOC;
  VASetpAA(result, 1, extensions);
  return 0;
}

static PAA DecodeTrailerPart(PBUFFER b, SI4* error) {
  UI4 lines = CountLines(b);
  UI4 rows = lines >= 3 ? lines - 2 : 0;
  PAA result = NewMatrix(rows ? VAPntr : VAC1, rows);
  if (!result) {
    *error = ERR_MEMORY_ALLOC;
    return nullptr;
  }
  b->Offset = (UI4)b->FindBin1((PCH1) "\n", 1, true);
  *error = DecodeRows(b, result, rows, false);
  return result;
}

SI4 HTTPMSG::GetWaitReturns(PHIERAKI pItem, PCH1 name, PCH1 event, OBJSTATE* pNewState,
                            PUI4* ppZ) {
  UI4 flags = decode;
  if (!flags || LastState == SError || LastState == SSent)
    return MESSAGE::GetWaitReturns(pItem, name, event, pNewState, ppZ);
  pItem->FullName(name, 198);
  PartEvent(pItem, event, LastState == SAPLLast);
  pBuf->Rewind();
  VATYPES t = flags & DecodeInts ? VAI2 : VAC1;
  PAA result = nullptr;
  SI4 error = 0;
  if (strcmp(event, "HTTPBody") == 0 && (flags & DecodeBody)) {
    result = Data2pAA(pBuf->Next(), pBuf->Remaining(), t);
  } else if (strcmp(event, "HTTPHeader") == 0 && (flags & DecodeHeader)) {
    result = VANewVector(VAPntr, 4);
    error = result ? DecodeHeaderPart(pBuf, result) : ERR_MEMORY_ALLOC;
  } else if (strcmp(event, "HTTPChunk") == 0 && (flags & DecodeChunk)) {
    result = VANewVector(VAPntr, 2);
    error = result ? DecodeChunkPart(pBuf, result, t) : ERR_MEMORY_ALLOC;
  } else if (strcmp(event, "HTTPTrailer") == 0 && (flags & DecodeTrailer)) {
    result = DecodeTrailerPart(pBuf, &error);
  }
  // What couldn't be decoded goes up raw.
  if (result && error) {
    result = VAFree(result);
    error = 0;
  }
  if (!result) {
    pBuf->Rewind();
    result = Data2pAA(pBuf->Next(), pBuf->Remaining(), VAC1);
  }
  if (!result) return error ? error : ERR_MEMORY_ALLOC;
  *ppZ = PackZ(result);
  PCH1 dot = strrchr(name, '.');
  if (dot) *dot = 0;
  return *ppZ ? 0 : ERR_MEMORY_ALLOC;
}
