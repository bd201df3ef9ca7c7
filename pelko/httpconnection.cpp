// The receive side of HTTP: finding where each part of a message ends.
// Headers and chunk-size lines are found by their stops in the stream
// buffer; a body or chunk is a part of the size its header or size line
// names, filled by the connection straight from the socket.
#include "httpconnection.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <strings.h>

#include "httpmsg.h"
#include "log.h"
#include "pelkoerr.h"
#include "work.h"

#define MODULE 0x00000100

// A header ends at the first empty line, with or without CRs.
static const char* const SStopHttp[2] = {"\r\n\r\n", "\n\n"};
// A chunk-size line ends at its line end.
static const char* const SStopChunked[2] = {"\r\n", "\n"};

HTTPCONNECTION::HTTPCONNECTION(UI4 maxBlockSize, OBJMODE mode)
    : CONNECTION(), MaxBlockSize(maxBlockSize) {
  Mode = mode;
  Init();
}

HTTPCONNECTION::HTTPCONNECTION(UI4 maxBlockSize, OBJMODE mode, PRPCSOCK sock)
    : CONNECTION(sock), MaxBlockSize(maxBlockSize) {
  Mode = mode;
  Init();
}

void HTTPCONNECTION::Init() {
  delete pHeader;
  pHeader = new BUFFER(MaxBlockSize);
  Count = (UI4)-1;
  StopHttp = GenStopList(2, SStopHttp);
  StopChunked = GenStopList(2, SStopChunked);
  ReceivingChunks = false;
  Trailer = false;
  DecodeBuffers = 0;
  Features = 0;
  pWSUpgradeKey[0] = 0;
  pWSHost = nullptr;
  pUserHeaders = nullptr;
  pHandover = nullptr;
  fUpgraded = false;
}

HTTPCONNECTION::~HTTPCONNECTION() {
  free(StopHttp);
  StopHttp = nullptr;
  free(StopChunked);
  StopChunked = nullptr;
  free(pWSHost);
  pWSHost = nullptr;
  free(pUserHeaders);
  pUserHeaders = nullptr;
  // A host thread waits on a change-over this connection won't make now.
  HANDOVER* h = pHandover.exchange(nullptr);
  if (h) {
    delete h->pAnswer;
    h->pAnswer = nullptr;
    h->Made();
  }
  if (fUpgraded) pCon = nullptr;
}

SI4 HTTPCONNECTION::ReturnBuffer(PHIERAKI pItem, PBUFFER pBuf, UI4 Size, const char* Format) {
  UI4 have = pBuf->SizeProcessed();
  UI4 n = have < Size ? have : Size;
  // The size is the peer's word: the block is only reserved here, and its
  // pages are touched as the bytes arrive.
  PBUFFER b = BUFFER::TryNew(Size);
  if (!b) return ERR_MEMORY_ALLOC;
  b->Append(pBuf->Start(), n);
  pBuf->Drop(n);
  PHTTPMSG m = new HTTPMSG(b, n == Size ? SAPL : SReceiving);
  m->decode = DecodeBuffers.load();
  m->NextState = SFinished;
  m->Mode = Mode;
  char name[MAXNAMELENGTH + 1];
  snprintf(name, sizeof(name), Format, (int)++Count);
  PHIERAKI h = pItem->AddNew(name, m);
  if (!h) {
    delete m;
    return ERR_NAME_IN_USE;
  }
  LOG(1, ("New http part %s size %u, %u bytes at hand", name, Size, n));
  if (n == Size) m->Ready4Apl(h);
  return 0;
}

// Chunk-size lines: blanks, then hexadecimal digits in 32 bits, wrapping,
// up to the first other character (so an extension is ignored).
UI4 GetChunkSize(PCH1 line, UI4 length) {
  UI4 i = 0;
  while (i < length && (line[i] == ' ' || line[i] == '\t')) i++;
  UI4 size = 0;
  for (; i < length; i++) {
    char c = line[i];
    UI4 digit;
    if (c >= '0' && c <= '9') digit = (UI4)(c - '0');
    else if (c >= 'a' && c <= 'f') digit = (UI4)(c - 'a' + 10);
    else if (c >= 'A' && c <= 'F') digit = (UI4)(c - 'A' + 10);
    else break;
    size = size * 16 + digit;
  }
  return size;
}

// Content-Length of a header: the decimal digits behind it, in 32 bits,
// wrapping; no digit right behind the blanks gives 0.
static UI4 ContentLength(PBUFFER header) {
  SI4 at = header->FindAsc((PCH10) "Content-Length:", true, true);
  if (at < 0) return 0;
  UI4 end = header->SizeProcessed();
  PCH1 p = header->Start();
  UI4 i = (UI4)at;
  while (i < end && (p[i] == ' ' || p[i] == '\t')) i++;
  UI4 length = 0;
  for (; i < end && p[i] >= '0' && p[i] <= '9'; i++) length = length * 10 + (UI4)(p[i] - '0');
  return length;
}

SI4 HTTPCONNECTION::HeaderRecv(PFDSETS fds, PHIERAKI) {
  for (;;) {
    PITEM stop = nullptr;
    SI4 pos = pHeader->FindStop(ReceivingChunks ? StopChunked : StopHttp, false, &stop);
    if (pos < 0) return 0;
    SI4 rc = 0;
    if (ReceivingChunks) {
      UI4 size = GetChunkSize(pHeader->Start(), (UI4)pos);
      if (size) {
        // The part holds the size line, the data, and the data's line end,
        // taken to be as long as the size line's own.
        rc = ReturnBuffer(fds->pItem, pHeader, (UI4)stop->len + (UI4)pos + size, "HTTPChunk%08d");
      } else {
        // The "0" line stays: it begins the trailer part.
        ReceivingChunks = false;
        Trailer = true;
      }
      if (rc) return rc;
      continue;
    }
    PBUFFER copy = pHeader->Take((UI4)pos);
    if (Trailer) {
      pHeader->Drop((UI4)pos);
      rc = ReturnBuffer(fds->pItem, copy, (UI4)pos, "HTTPTrailer%08d");
      Trailer = false;
    } else if (isHdr(copy, "Upgrade:", "websocket")) {
      // The change-over ends this object's round: nothing of it may be
      // touched once the node holds its successor.
      rc = Upgrade(fds, copy, (UI4)pos);
      if (rc != ERR_WSUPGRADED) delete copy;
      return rc;
    } else if (isHdr(copy, "Transfer-Encoding:", "chunked")) {
      ReceivingChunks = true;
      rc = ReturnBuffer(fds->pItem, pHeader, (UI4)pos, "HTTPHeader%08d");
    } else {
      UI4 length = ContentLength(copy);
      rc = ReturnBuffer(fds->pItem, pHeader, (UI4)pos, "HTTPHeader%08d");
      if (!rc && (SI4)length > 0) rc = ReturnBuffer(fds->pItem, pHeader, length, "HTTPBody%08d");
    }
    delete copy;
    if (rc) return rc;
  }
}

SI4 HTTPCONNECTION::HeaderComplete(PFDSETS fds, PHIERAKI pItem) {
  if (pHeader->FindStop(ReceivingChunks ? StopChunked : StopHttp, false, nullptr) < 0)
    return ERR_MAX_BLOCK_SIZE;
  return HeaderRecv(fds, pItem);
}

SI4 HTTPCONNECTION::PassiveClose(PFDSETS fds, PHIERAKI pItem) {
  UI4 have = pHeader->SizeProcessed();
  if (have) {
    // What never made a part goes up as one last plain block, numbered
    // after the part before it.
    PMESSAGE m = new MESSAGE(pHeader->Take(have), SAPLLast);
    pHeader->Drop(have);
    m->NextState = SFinished;
    m->NextPState = SFinished;
    m->Mode = Mode;
    char name[MAXNAMELENGTH + 1];
    snprintf(name, sizeof(name), "Blk%08d", (int)Count);
    PHIERAKI h = fds->pItem->AddNew(name, m);
    if (h)
      m->Ready4Apl(h);
    else
      delete m;
  }
  return CONNECTION::PassiveClose(fds, pItem);
}

// Parts the host hasn't fetched yet follow the new flags too. Only parts
// carry the flags: a sent message of this mode has none.
static PHIERAKI SetDecodeCon(PHIERAKI h, void* flags) {
  PRPCOBJS o = h->pObj;
  if (o && o->Type == TMessage && o->Mode == MHttp) {
    PHTTPMSG m = dynamic_cast<PHTTPMSG>(o);
    if (m) m->decode = *(PUI4)flags;
  }
  return nullptr;
}

SI4 HTTPCONNECTION::SetDecodeBuffers(PHIERAKI pItem, UI4 flags) {
  DecodeBuffers = flags;
  PHIERAKI self = OwnNode(pItem, this);
  if (self) self->LoopSub(SetDecodeCon, &flags);
  return 0;
}

static PHIERAKI HoldsObject(PHIERAKI h, void* obj) {
  return h->pObj == obj ? h : h->LoopSub(HoldsObject, obj);
}

PHIERAKI OwnNode(PHIERAKI pItem, PRPCOBJS obj) {
  return pItem->pObj == obj ? pItem : pItem->LoopSub(HoldsObject, obj);
}

SI4 HTTPCONNECTION::SetRPCProp(PHIERAKI pItem, PCH1 name, PAA value) {
  if (strcasecmp(name, "DecodeBuffers") != 0) return SetUpgradeProp(pItem, name, value);
  SI4 flags = 0;
  SI4 rc = value ? VAGetSI4(value, 0, &flags) : ERR_VALUE;
  return rc ? rc : SetDecodeBuffers(pItem, (UI4)flags);
}
