// WebSocket frames: reading each into a WSMSG child, answering pings and
// closes, checking text, and making frames of what the host sends.
#include "websocket.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "log.h"
#include "orvanenaz.h"
#include "pelkoerr.h"
#include "root.h"
#include "work.h"

#define MODULE 0x00000100

// Control frames carry at most this much.
#define WSMAXCONTROL 125

static const char* const wsopcode[16] = {"Cont", "Text", "Bin", "", "", "",     "", "",
                                         "Close", "Ping", "Pong", "", "", "", "", ""};

static const char CloseOver[] = "Pelko Over and Out";
static const char CloseProtocol[] = "Protocol Error";  // sent with its terminator
static const char CloseUtf8[] = "Invalid UTF-8";

WEBSOCKET::WEBSOCKET(PHTTPCONNECTION http, PBUFFER accept)
    : CONNECTION(http->pCon), MaxBlockSize(http->MaxBlockSize), Count(0), pHttp(http),
      lastOpcode(0), firstOpcode(0), pWSAccept(accept) {
  Type = http->Type;
  delete pHeader;
  pHeader = new BUFFER(WSMAXHEADER);
  Mode = MWebSocket;
  pWaiting = http->pWaiting.load();
  State = accept ? SIncoming : SConnected;
  lErrorObj = 0;
  // Host threads may still read the old object's socket field: it keeps
  // the pointer, and only gives up owning the socket.
  http->fUpgraded = true;
  pOOSfn = http->pOOSfn;
  pCert = http->pCert;
}

WEBSOCKET::~WEBSOCKET() {
  // A host thread parked on the connection was handed over with it.
  if (pHttp) pHttp->pWaiting = nullptr;
  delete pHttp;
  pHttp = nullptr;
  delete pWSAccept.exchange(nullptr);
}

SI4 WEBSOCKET::ComposeBuffer(UI1 fin, UI1 opcode, PUI1 data, UI4 length, PBUFFER* ppBuf) {
  bool masked = Type == TClient;
  UI1 header[WSMAXHEADER];
  UI4 n = 2;
  header[0] = (UI1)((fin ? 0x80 : 0) | (opcode & 15));
  if (length <= WSMAXCONTROL) {
    header[1] = (UI1)length;
  } else if (length <= 0xFFFF) {
    header[1] = 126;
    header[2] = (UI1)(length >> 8);
    header[3] = (UI1)length;
    n = 4;
  } else {
    header[1] = 127;
    memset(header + 2, 0, 4);
    PutBE32(header + 6, length);
    n = 10;
  }
  UI4 key = n;
  if (masked) {
    header[1] |= 0x80;
    n += 4;
  }
  if (length > 0xFFFFFFFFu - n) return ERR_SIZE;
  PBUFFER b = BUFFER::TryNew(n + length);
  if (!b) return ERR_MEMORY_ALLOC;
  // The masking key is the buffer's own address: no random source.
  UI4 mask = (UI4)(uintptr_t)b;
  if (masked) memcpy(header + key, &mask, 4);
  b->Append((PCH1)header, n);
  if (length) b->Append((PCH1)data, length);
  if (masked) XorMask((PUI1)b->Start() + n, length, header + key, 4);
  b->Rewind();
  *ppBuf = b;
  return 0;
}

SI4 WEBSOCKET::ComposeBuffer(PUI1 data, UI4 length, int fd, PBUFFER* ppBuf) {
  *ppBuf = nullptr;
  if (fd != -1) return ERR_FILE;
  return ComposeBuffer(1, WSText, data, length, ppBuf);
}

// The data of a send: bytes for integers, UTF-8 for characters.
static SI4 FrameData(PAA item, UI1 open, PUI1* data, PUI4 length, UI1* opcode) {
  switch (VAType(item)) {
    case VAI1:
    case VAI2:
      if (open == WSText) return ERR_DOMAIN;
      *opcode = WSBin;
      if (VAGetBytes(item, nullptr, length)) return ERR_DOMAIN;
      *data = (PUI1)calloc(1, *length ? *length : 1);
      if (!*data) return ERR_MEMORY_ALLOC;
      return VAGetBytes(item, *data, length);
    case VAC1:
    case VAC2:
    case VAC4: {
      if (open == WSBin) return ERR_DOMAIN;
      *opcode = WSText;
      SI4 rc = VAGetUnicodeLen(item, 0, length, UTF8, 0);
      if (rc) return rc;
      *data = (PUI1)calloc(1, *length ? *length : 1);
      if (!*data) return ERR_MEMORY_ALLOC;
      return VAGetUnicode(item, 0, (PCH1)*data, *length, UTF8, 0);
    }
    default:
      return ERR_DOMAIN;
  }
}

SI4 WEBSOCKET::ComposeBuffer(PUI4 pZ, UI4 size, PBUFFER* ppBuf) {
  *ppBuf = nullptr;
  PAA value = UnpackZ(pZ, size);
  if (!value) return ERR_ARCHITECTURE;
  SI4 rc = 0, fin = 1, code = 0;
  PAA item = nullptr;
  PUI1 data = nullptr;
  UI4 length = 0;
  UI1 opcode = 0;
  UI1 open = firstOpcode;
  if (VARank(value) != 1) rc = ERR_RANK;
  else if (VAType(value) != VAPntr && VAType(value) != VAHet) rc = ERR_DOMAIN;
  else if (VAElems(value) < 2 || VAElems(value) > 3) rc = ERR_LENGTH;
  if (!rc) rc = VAGetSI4(value, 1, &fin);
  if (!rc) rc = VAGetpAA(value, 0, &item);
  if (!rc) rc = FrameData(item, open, &data, &length, &opcode);
  if (!rc && VAElems(value) == 3) {
    rc = VAGetSI4(value, 2, &code);
    opcode = (UI1)code;
  }
  if (!rc) {
    // Every fragment carries the first fragment's opcode.
    if (open) opcode = open;
    firstOpcode = fin ? 0 : opcode;
    rc = ComposeBuffer((UI1)(fin != 0), opcode, data, length, ppBuf);
  }
  free(data);
  VAFree(item);
  VAFree(value);
  return rc;
}

SI4 WEBSOCKET::SendFrame(PHIERAKI pItem, UI1 opcode, const char* data, UI4 length, UI4 flag) {
  PBUFFER b = nullptr;
  SI4 rc = ComposeBuffer(1, opcode, (PUI1)data, length, &b);
  if (rc) return rc;
  char name[MAXNAMELENGTH + 1];
  snprintf(name, sizeof(name), "WSMsg%08u", NameCnt++);
  return SendBuffer(pItem, name, b, flag);
}

SI4 WEBSOCKET::SendClose(PHIERAKI pItem, UI2 status, const char* text, UI4 length, UI4 flag) {
  char payload[2 + WSMAXCONTROL];
  payload[0] = (char)(status >> 8);
  payload[1] = (char)status;
  memcpy(payload + 2, text, length);
  return SendFrame(pItem, WSClose, payload, 2 + length, flag);
}

SI4 WEBSOCKET::Close(PHIERAKI pItem) {
  OBJSTATE s = State;
  if (s == SReceiving || s == SSending) return ERR_OBJECT_ACTIVITY;
  if (s == SConnected) {
    ActiveClose = Micros();
    SI4 rc = SendClose(pItem, 1000, CloseOver, sizeof(CloseOver) - 1, 0);
    if (rc) return rc;
  } else {
    State = SFinished;
  }
  PROOT root = RootObj(pItem);
  return root ? root->Dirty() : ERR_ROOT_NOT_FOUND;
}

SI4 WEBSOCKET::GetWaitReturns(PHIERAKI pItem, PCH1 name, PCH1 event, OBJSTATE* pNewState,
                              PUI4* ppZ) {
  if (LastState != SIncoming) return RPCOBJS::GetWaitReturns(pItem, name, event, pNewState, ppZ);
  pItem->FullName(name, 198);
  strcpy(event, eventname[EWSUpgrade]);
  PBUFFER accept = pWSAccept.exchange(nullptr);
  PAA text = accept ? Data2pAA(accept->Start(), accept->SizeProcessed(), VAC1) : VANewVector(VAC1, 0);
  delete accept;
  *pNewState = SConnected;
  *ppZ = text ? PackZ(text) : nullptr;
  return *ppZ ? 0 : ERR_MEMORY_ALLOC;
}

SI4 WEBSOCKET::HeaderRecv(PFDSETS fds, PHIERAKI) {
  while (State == SConnected) {
    UI4 have = pHeader->SizeProcessed();
    if (have < WSHEADERSIZE) return 0;
    PUI1 h = (PUI1)pHeader->Start();
    bool fmask = (h[1] & 0x80) != 0;
    UI1 code = h[1] & 0x7F;
    UI4 extra = code == 126 ? 2 : code == 127 ? 8 : 0;
    UI4 headerSize = WSHEADERSIZE + extra + (fmask ? 4 : 0);
    if (have < headerSize) return 0;
    UI8 length = code;
    if (extra) {
      length = 0;
      for (UI4 i = 0; i < extra; i++) length = length << 8 | h[2 + i];
    }
    // The whole 64-bit length is compared: none can wrap past the limit.
    if (length > MaxBlockSize) return ERR_MAX_BLOCK_SIZE;
    UI4 n = have - headerSize < length ? have - headerSize : (UI4)length;
    PBUFFER b = BUFFER::TryNew((UI4)length);
    if (!b) return ERR_MEMORY_ALLOC;
    b->Append((PCH1)h + headerSize, n);
    pHeader->Drop(n + headerSize);
    // Opcode, fin and key are read only now, from the start of the held
    // bytes: behind a short frame, the next frame's bytes stand there.
    UI1 opcode = h[0] & 15;
    if (opcode) lastOpcode = opcode;
    // Still the work thread's when it joins the tree: a host's wait may
    // look at it at once, and it is ready only once unmasked and checked.
    PWSMSG m = new WSMSG(b, SReceiving);
    m->Opcode = opcode;
    m->Fin = (h[0] & 0x80) != 0;
    m->Text = lastOpcode == WSText;
    if (fmask) memcpy(m->Mask, h + WSHEADERSIZE + extra, 4);
    m->NextState = SFinished;
    m->Mode = Mode;
    char name[MAXNAMELENGTH + 1];
    snprintf(name, sizeof(name), "WS%c%s%08u", m->Fin ? 'F' : 'C', wsopcode[opcode], Count++);
    PHIERAKI node = fds->pItem->AddNew(name, m);
    if (!node) {
      delete m;
      return ERR_NAME_IN_USE;
    }
    if (n == length) {
      SI4 rc = ReadComplete(fds, node);
      if (rc) return rc;
    }
  }
  return 0;
}

SI4 WEBSOCKET::HeaderComplete(PFDSETS fds, PHIERAKI pItem) { return HeaderRecv(fds, pItem); }

SI4 WEBSOCKET::ReadComplete(PFDSETS fds, PHIERAKI pItem) {
  PWSMSG msg = (PWSMSG)(PRPCOBJS)pItem->pObj;
  PHIERAKI conn = pItem->Parent();
  msg->MaskBuf(pItem);
  PBUFFER buf = msg->pBuf;
  buf->Rewind();
  UI4 size = buf->Remaining();
  PCH1 data = buf->Next();
  if (msg->Opcode > 7 && size > WSMAXCONTROL) {
    LOG(1, ("Control frame >125 %.*s", (int)size, data));
    SendClose(conn, 1002, CloseProtocol, sizeof(CloseProtocol), 1);
    msg->State = SFinished;
    return 0;
  }
  switch (msg->Opcode) {
    case WSPing:
      LOG(1, ("WSPing %.*s", (int)size, data));
      SendFrame(conn, WSPong, data, size, 0);
      msg->State = SFinished;
      return 0;
    case WSPong:
      LOG(1, ("WSPong %.*s", (int)size, data));
      msg->State = SFinished;
      return 0;
    case WSClose:
      LOG(1, ("WSClose %.*s", (int)size, data));
      if (ActiveClose > 0)
        PassiveClose(fds, conn);
      else
        SendClose(conn, 1000, CloseOver, sizeof(CloseOver) - 1, 0);
      msg->State = SFinished;
      return 0;
    default:
      break;
  }
  UI1 elemsize = 1;
  if (lastOpcode == WSText && utf8_lenStrict((UI1*)data, size, &elemsize) == (UI8)-1) {
    ActiveClose = Micros();
    SendClose(conn, 1007, CloseUtf8, sizeof(CloseUtf8) - 1, 1);
    msg->State = SError;
    msg->lErrorObj = ERR_UTF8;
    msg->Ready4Apl(pItem);
    return 0;
  }
  LOG(1, ("WS msg %d %.*s", (int)msg->Opcode, (int)size, data));
  msg->State = SAPL;
  msg->Ready4Apl(pItem);
  return 0;
}

SI4 WSMSG::MaskBuf(PHIERAKI pItem) {
  PHIERAKI parent = pItem->Parent();
  if (parent && parent->pObj && parent->pObj->Type == TConnection) pBuf->Mask(Mask, 4);
  return 0;
}

SI4 WSMSG::GetWaitReturns(PHIERAKI pItem, PCH1 name, PCH1 event, OBJSTATE*, PUI4* ppZ) {
  pItem->FullName(name, 198);
  strcpy(event, eventname[EWSReceive]);
  pBuf->Rewind();
  PAA r = VANewVector(VAPntr, 3);
  if (!r) return ERR_MEMORY_ALLOC;
  SI4 rc;
  if (Text) {
    rc = VASetUnicode(r, 0, pBuf->Next(), pBuf->Remaining(), UTF8);
  } else {
    rc = VASetCH1(r, 0, pBuf->Next(), pBuf->Remaining(), VABIN);
    // The bytes go up as integers from -128 to 127.
    if (!rc) VASlot(r, 0)->type = VAI1;
  }
  if (!rc) rc = VASetSI4(r, 1, Fin ? 1 : 0);
  if (!rc) rc = VASetSI4(r, 2, Opcode);
  if (rc) {
    VAFree(r);
    return rc;
  }
  *ppZ = PackZ(r);
  PCH1 dot = strrchr(name, '.');
  if (dot) *dot = 0;
  return *ppZ ? 0 : ERR_MEMORY_ALLOC;
}
