// Buffers with one cursor for both directions, the file window, and the
// stop-list searches that cut streams.
#include "buffer.h"

#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>
#include <strings.h>

#include "log.h"
#include "orvanenaz.h"
#include "talplat.h"

#define MODULE 0x00000080

// Every block of a buffer goes back by BigFree, so a BLOCKBUFFER's can go
// to the host, which gives it back through FreeUsedOrvaneResult. A block
// that is filled whole (a copy of the host's bytes, a received block of a
// stated length, a grown one) comes from BigAlloc, which offers large ones
// huge pages. An empty buffer that the socket fills piece by piece and
// seldom to its end (a header, a stream's window of BufferSize bytes) is
// plain memory: with huge pages, each idle connection's would cost 2 MB.
static PCH1 Block(UI4 size, bool whole) {
  PCH1 p = (PCH1)(whole ? BigAlloc(size) : malloc(size ? size : 1));
  if (!p) throw std::bad_alloc();
  return p;
}

BUFFER::BUFFER(UI4 size)
    : Size(size), Offset(0), Blksize(BUFFERBLKSIZE), pBuf(Block(size, false)), Alloc(size) {}

BUFFER::BUFFER(UI4 size, PCH1 data)
    : Size(size), Offset(0), Blksize(BUFFERBLKSIZE), pBuf(Block(size, true)), Alloc(size) {
  if (size) memcpy(pBuf, data, size);
}

BUFFER* BUFFER::TryNew(UI4 size) {
  PCH1 p = (PCH1)BigAlloc(size);
  if (!p) return nullptr;
  BUFFER* b = new BUFFER(0);
  free(b->pBuf);
  b->pBuf = p;
  b->Size = b->Alloc = size;
  return b;
}

BLOCKBUFFER* BLOCKBUFFER::TryNew(UI4 size) {
  PCH1 p = (PCH1)BigAlloc(size);
  if (!p) return nullptr;
  BLOCKBUFFER* b = new BLOCKBUFFER();
  free(b->pBuf);
  b->pBuf = p;
  b->Size = b->Alloc = size;
  return b;
}

PCH1 BLOCKBUFFER::Release() {
  PCH1 p = pBuf;
  pBuf = nullptr;
  Size = Offset = Alloc = 0;
  return p;
}

BUFFER::~BUFFER() {
  BigFree(pBuf);
  pBuf = nullptr;
}

UI4 BUFFER::NextSize() const {
  UI4 left = Size - Offset;
  return left < Blksize ? left : Blksize;
}

BOOL BUFFER::NextProcessed(UI4 n) {
  Offset += n;
  return Offset == Size;
}

// Callers size the buffer before they append. Should one get it wrong, the
// copy still stops at the end of the block rather than run past it.
BOOL BUFFER::Append(PCH1 p, UI4 n) {
  UI4 room = Alloc > Offset ? Alloc - Offset : 0;
  memcpy(Next(), p, n < room ? n : room);
  Offset += n < room ? n : room;
  return Offset == Size;
}

BOOL BUFFER::AppendP(PCH1 p, UI4 n) {
  UI4 room = Size > Offset ? Size - Offset : 0;
  return Append(p, n < room ? n : room);
}

UI4 BUFFER::Resize(UI4 n) {
  if (n >= Size) {
    PCH1 p = Block(n, true);
    if (Size) memcpy(p, pBuf, Size);
    BigFree(pBuf);
    pBuf = p;
    Alloc = n;
  }
  Size = n;
  return n;
}

void BUFFER::Drop(UI4 n) {
  if (Offset >= n) {
    Offset -= n;
    memmove(pBuf, pBuf + n, Offset);
  } else {
    Offset = 0;
  }
}

PBUFFER BUFFER::Take(UI4 n) {
  PBUFFER p = new BUFFER(n, pBuf);
  p->NextProcessed(n);
  return p;
}

void XorMask(PUI1 p, UI4 n, const UI1* key, UI4 keylen) {
  if (!keylen) return;  // no key, nothing to mask with
  UI4 i = 0;
  // A 4-byte key (every WebSocket frame's) repeats within a word of 8,
  // so the bulk of a payload goes a word at a time; the key's place
  // after them is where a byte loop from the start would have it.
  if (keylen == 4) {
    UI8 k;
    memcpy(&k, key, 4);
    memcpy((PUI1)&k + 4, key, 4);
    for (; i + 8 <= n; i += 8) {
      UI8 w;
      memcpy(&w, p + i, 8);
      w ^= k;
      memcpy(p + i, &w, 8);
    }
  }
  for (; i < n; i++) p[i] ^= key[i % keylen];
}

void BUFFER::Mask(PUI1 key, UI4 keylen) { XorMask((PUI1)pBuf, Size, key, keylen); }

static bool SameFirst(CH1 a, CH1 b, bool ignoreCase) {
  return a == b || (ignoreCase && toupper((UI1)a) == toupper((UI1)b));
}

SI4 BUFFER::FindAsc(PCH10 text, bool after, bool ignoreCase) {
  if (!text || !*text) return -1;
  UI4 n = (UI4)strlen(text);
  UI4 end = Offset;
  if (end < n) return -1;
  for (UI4 i = 0; i + n <= end; i++) {
    if (!SameFirst(pBuf[i], text[0], ignoreCase)) continue;
    bool hit = ignoreCase ? strncasecmp(pBuf + i, text, n) == 0 : strncmp(pBuf + i, text, n) == 0;
    if (hit) return (SI4)(i + (after ? n : 0));
  }
  return -1;
}

SI4 BUFFER::FindBin1(PCH1 data, SI4 len, bool after) {
  if (!data || len < 0) return -1;
  SI4 from = (SI4)Offset;
  for (SI4 i = from; i <= (SI4)Size - len; i++) {
    if (len && pBuf[i] != data[0]) continue;
    if (memcmp(pBuf + i, data, (size_t)len) == 0) return i - from + (after ? len : 0);
  }
  return -1;
}

static bool ItemAt(PCH1 p, PITEM item, bool ignoreCase) {
  if (item->len <= 0) return true;
  for (SI4 k = 0; k < item->len; k++)
    if (!SameFirst(p[k], item->pc[k], ignoreCase)) return false;
  return true;
}

// The earliest position wins; at one position, the first item in the list.
static SI4 StopSearch(PCH1 buf, UI4 from, UI4 to, UI4 bound, PLIST list, bool ignoreCase,
                      PITEM* found) {
  for (UI4 i = from; i < to; i++) {
    for (SI4 k = 0; k < list->Count; k++) {
      PITEM item = list->items[k];
      if ((int64_t)i + (item->len > 0 ? item->len : 0) > (int64_t)bound) continue;
      if (!ItemAt(buf + i, item, ignoreCase)) continue;
      if (found) *found = item;
      return (SI4)i + (item->len > 0 ? item->len : 0);
    }
  }
  return -1;
}

SI4 BUFFER::FindStop(PLIST list, bool ignoreCase, PITEM* found) {
  if (!pBuf || !list || list->Count == 0 || Offset == 0) return -1;
  return StopSearch(pBuf, 0, Offset, Offset, list, ignoreCase, found);
}

// Positions run from the cursor to the end, while the bound stays the
// cursor: only an empty item can match. Its caller relies on exactly that.
SI4 BUFFER::FindStop1(PLIST list, bool ignoreCase, PITEM* found) {
  if (!pBuf || !list || list->Count == 0 || Offset == 0 || Offset >= Size) return -1;
  SI4 r = StopSearch(pBuf, Offset, Size, Offset, list, ignoreCase, found);
  return r < 0 ? r : r - (SI4)Offset;
}

BUFFERFILE::BUFFERFILE(int f) : BUFFER(BUFFERBLKSIZE), file(f), foff(0), fsize(0), Off2(0) {
  Open(0, nullptr, 0, nullptr);
}

BUFFERFILE::BUFFERFILE(UI4 len, PCH1 head, int f)
    : BUFFER(len > BUFFERBLKSIZE ? len : BUFFERBLKSIZE), file(f), foff(0), fsize(0), Off2(0) {
  Open(len, head, 0, nullptr);
}

BUFFERFILE::BUFFERFILE(UI4 len1, PCH1 head1, UI4 len2, PCH1 head2, int f)
    : BUFFER(len1 + len2 > BUFFERBLKSIZE ? len1 + len2 : BUFFERBLKSIZE), file(f), foff(0),
      fsize(0), Off2(0) {
  Open(len1, head1, len2, head2);
}

void BUFFERFILE::Open(UI4 len1, PCH1 head1, UI4 len2, PCH1 head2) {
  Blksize = BUFFERBLKSIZE;
  fsize = lseek(file, 0, SEEK_END);
  if (fsize < 0) fsize = 0;
  lseek(file, 0, SEEK_SET);
  if (len1) memcpy(pBuf, head1, len1);
  if (len2) memcpy(pBuf + len1, head2, len2);
  Off2 = len1 + len2;
  if ((TALoff_t)Off2 + fsize < (TALoff_t)Size) Size = (UI4)(Off2 + fsize);
  Offset = 0;
  NextProcessed(0);
}

BUFFERFILE::~BUFFERFILE() {
  if (file >= 0) close(file);
}

BOOL BUFFERFILE::NextProcessed(UI4 n) {
  UI4 O = Offset + n;
  Offset = O;
  TALoff_t left = fsize - foff;
  if (left <= 0) return O == Size;
  if (left < (TALoff_t)Size - Off2 + O) {
    Off2 -= (UI4)left;
    if ((TALoff_t)O >= left) {
      Offset = O - (UI4)left;
      memmove(pBuf, pBuf + left, O - (UI4)left);
    } else {
      Offset = 0;
    }
  } else {
    Off2 -= O;
    Offset = 0;
  }
  while (Off2 < Size) {
    ssize_t r = read(file, pBuf + Off2, Size - Off2);
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) {
      // The file shrank or can't be read: the window ends with what it
      // holds instead of waiting for bytes that never come.
      LOG(1, ("BUFFERFILE read %zd at %lld of %lld", r, (long long)foff, (long long)fsize));
      fsize = foff;
      Size = Off2 > Offset ? Off2 : Offset.load();
      break;
    }
    Off2 += (UI4)r;
    foff += r;
  }
  return Offset == Size;
}

// Blank-padded, cut at the field's width, never terminated.
static void PutName(PCH1 field, PCH1 text) {
  memset(field, ' ', IPMSG_NAMELEN);
  if (text) memcpy(field, text, strnlen(text, IPMSG_NAMELEN));
}

PBUFFER IPmsg(MSGTYPE type, PCH1 name, PCH1 subname, PCH1 security, PCH1 data, UI4 length) {
  if (length > 0xFFFFFFFFu - IPMSG_HEADER) return nullptr;
  UI4 total = length + IPMSG_HEADER;
  PBUFFER b = BUFFER::TryNew(total);
  if (!b) return nullptr;
  PIPMSG h = (PIPMSG)b->Start();
  PutBE32(h->Length, total);
  PutBE32(h->MessageType, type);
  memcpy(h->Magic, MAGIC, 8);
  PutName(h->Security, security);
  PutName(h->Name, name);
  PutName(h->Subname, subname);
  memset(h->Filler, 0, sizeof(h->Filler));
  if (length) memcpy(h->Data, data, length);
  return b;
}
