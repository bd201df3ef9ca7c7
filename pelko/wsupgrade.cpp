// The WebSocket upgrade: an HTTP exchange that hands the connection over
// to a WEBSOCKET in the same node. The library makes the exchange itself
// with WSAutoUpgrade; otherwise the host sees the request or answer as an
// event and carries the upgrade out with "WSAccept".
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <strings.h>

#include "base64.h"
#include "log.h"
#include "pelkoerr.h"
#include "root.h"
#include "sha1.h"
#include "websocket.h"
#include "work.h"

#define MODULE 0x00000100

#define WSUPGRADEREQ                                                                      \
  "GET %s HTTP/1.1\r\nHost: %s\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n" \
  "Sec-WebSocket-Version: 13\r\nSec-WebSocket-Key: %s\r\n%s\r\n"
#define WSUPGRADEANS                                                                 \
  "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n" \
  "Sec-Websocket-Accept: %s\r\n%s\r\n"
#define WSGUID "258EAFA5-E914-47DA-95CA-C5AB0DC85B11"
// Room of the templates beside what fills them.
#define WSUPGRADEREQ_ROOM 134
#define WSUPGRADEANS_ROOM 111
// How long a host thread waits for the work thread to make a change-over.
#define HANDOVER_WAIT_MS 60000
// Bytes of a client's key before base 64.
#define WSKEYBYTES 16

SI4 WebSocketKey(const char* key, PCH1 accept) {
  SHA1Context sha;
  uint8_t digest[SHA1HashSize];
  SHA1Reset(&sha);
  SHA1Input(&sha, (const uint8_t*)key, (unsigned)strlen(key));
  SHA1Input(&sha, (const uint8_t*)WSGUID, (unsigned)strlen(WSGUID));
  SHA1Result(&sha, digest);
  return (SI4)encode64(accept, digest, SHA1HashSize);
}

// A header field's value as a text from calloc, or null when it is absent.
static PCH1 FieldCopy(PBUFFER header, const char* name) {
  PCH1 f;
  UI4 n;
  if (!HeaderField(header, name, &f, &n)) return nullptr;
  PCH1 copy = (PCH1)calloc(1, n + 1);
  if (copy) memcpy(copy, f, n);
  return copy;
}

// "GET" anywhere, and its line ending in "HTTP/1.1".
static bool GetLine(PBUFFER header) {
  SI4 at = header->FindAsc((PCH10) "GET", true, true);
  if (at < 0) return false;
  UI4 end = (UI4)at, held = header->SizeProcessed();
  PCH1 p = header->Start();
  while (end < held && p[end] != '\r' && p[end] != '\n') end++;
  return end >= (UI4)at + 8 && strncasecmp(p + end - 8, "HTTP/1.1", 8) == 0;
}

bool isWSUpgradeReq(PBUFFER header, PCH1* ppHost, PCH1* ppKey) {
  PCH1 host = nullptr, key = nullptr;
  bool ok = GetLine(header) && (host = FieldCopy(header, "host:")) != nullptr &&
            isHdr(header, "Upgrade:", "websocket") && isHdrM(header, "Connection:", "upgrade") &&
            (key = FieldCopy(header, "sec-websocket-key:")) != nullptr &&
            isHdr(header, "sec-websocket-version:", "13") && ppHost;
  if (!ok) {
    free(host);
    free(key);
    return false;
  }
  *ppHost = host;
  *ppKey = key;
  return true;
}

bool isWSUpgradeAns(PBUFFER header, const char* key) {
  SI4 at = header->FindAsc((PCH10) "HTTP/1.1 ", true, true);
  if (at < 0) return false;
  char accept[WSKEYLENGTH + 2];
  WebSocketKey(key, accept);
  return header->SizeProcessed() >= (UI4)at + 3 && strncmp(header->Start() + at, "101", 3) == 0 &&
         isHdr(header, "Upgrade:", "websocket") && isHdr(header, "Connection:", "upgrade") &&
         isHdr(header, "Sec-WebSocket-Accept:", accept);
}

PBUFFER WSAnswer(const char* key, const char* extra) {
  char accept[WSKEYLENGTH + 2];
  SI4 n = WebSocketKey(key, accept);
  UI4 room = (UI4)n + (UI4)strlen(extra) + WSUPGRADEANS_ROOM;
  PBUFFER b = new BUFFER(room);
  int len = snprintf(b->Start(), room, WSUPGRADEANS, accept, extra);
  b->Resize(len < 0 ? 0 : (UI4)len < room ? (UI4)len : room - 1);
  return b;
}

SI4 DoWebSocketUpgrade(PHIERAKI pItem, PBUFFER pAnswer, PBUFFER pAccept) {
  PHTTPCONNECTION http = (PHTTPCONNECTION)(PRPCOBJS)pItem->pObj;
  PWEBSOCKET ws = new WEBSOCKET(http, pAccept);
  if (pAnswer) {
    PMESSAGE m = new MESSAGE(pAnswer, SReadyToSend);
    m->NextState = SFinished;
    m->Mode = http->Mode;
    if (!pItem->AddNew("WSUpgradeAns", m)) delete m;
  }
  LOG(1, ("WebSocket upgrade of %.32s", pItem->Name));
  pItem->pObj = ws;
  // A host thread may have begun its wait on the old object after the new
  // one took its semaphore over, and searched before the node changed: it
  // parks on the old object's semaphore, which goes over too. Either that
  // thread's search sees the new object, or this read sees its semaphore.
  std::atomic_thread_fence(std::memory_order_seq_cst);
  if (!ws->pWaiting) ws->pWaiting = http->pWaiting.load();
  ws->Ready4Apl(pItem);
  return ERR_WSUPGRADED;
}

SI4 HTTPCONNECTION::Upgrade(PFDSETS fds, PBUFFER copy, UI4 pos) {
  bool automatic = (Features & WSAutoUpgrade) != 0;
  if (Type == TConnection) {
    PCH1 host = nullptr, key = nullptr;
    if (!isWSUpgradeReq(copy, &host, &key)) return ERR_WSUPGRADE_FAILED;
    free(host);
    if (!automatic) {
      free(key);
      return ReturnBuffer(fds->pItem, pHeader, pos, "WSUpgradeReq%08d");
    }
    PBUFFER answer = WSAnswer(key, "");
    free(key);
    return DoWebSocketUpgrade(fds->pItem, answer, copy);
  }
  if (Type == TClient) {
    if (!isWSUpgradeAns(copy, pWSUpgradeKey)) return ERR_WSUPGRADE_FAILED;
    if (!automatic) return ReturnBuffer(fds->pItem, pHeader, pos, "WSResponse%08d");
    return DoWebSocketUpgrade(fds->pItem, nullptr, copy);
  }
  return ERR_WSUPGRADE_FAILED;
}

// The work thread's side of a change-over the host asked for.
SI4 HTTPCONNECTION::Setinfo(PFDSETS fds) {
  HANDOVER* h = pHandover.exchange(nullptr);
  if (!h) return CONNECTION::Setinfo(fds);
  PBUFFER answer = h->pAnswer;
  h->pAnswer = nullptr;
  PHIERAKI self = fds->pItem;
  if (State != SConnected) {
    delete answer;
    h->Made();
    return CONNECTION::Setinfo(fds);
  }
  DoWebSocketUpgrade(self, answer, nullptr);
  h->Made();
  return self->pObj->Setinfo(fds);
}

// The host's side: one change-over at a time, made by the work thread's
// next round, which the wake-up starts at once. A root whose thread has
// ended takes the hand-over back untouched.
SI4 HTTPCONNECTION::HandOver(PHIERAKI pItem, PBUFFER answer) {
  HANDOVER* h = new HANDOVER();
  h->pAnswer = answer;
  HANDOVER* none = nullptr;
  if (!pHandover.compare_exchange_strong(none, h)) {
    delete answer;
    delete h;
    return ERR_OBJECT_ACTIVITY;
  }
  PROOT root = RootObj(pItem);
  SI4 rc = root ? root->Dirty() : ERR_ROOT_NOT_FOUND;
  if (rc == 0 && h->done.wait(HANDOVER_WAIT_MS) == SemReleased) {
    h->Drop();
    return 0;
  }
  if (pHandover.exchange(nullptr) == h) {  // never taken: withdrawn
    delete h->pAnswer;
    delete h;
    return rc;
  }
  h->done.wait();  // taken: it is being made
  h->Drop();
  return rc;
}

// Element i of a value as a text from malloc; "" when the value has fewer
// elements and that is allowed.
static SI4 TextAt(PAA value, UI4 i, PCH1* out) {
  *out = nullptr;
  if (value && VAType(value) != VAC1 && i >= VAElems(value)) {
    *out = (PCH1)calloc(1, 1);
    return *out ? 0 : ERR_MEMORY_ALLOC;
  }
  return VAGetCH1m(value, i, out, VACHAR);
}

// The client's upgrade request, with a fresh key.
static SI4 UpgradeRequest(PHTTPCONNECTION c, PHIERAKI self, PAA value) {
  c->pWSUpgradeKey[0] = 0;
  UI1 bytes[WSKEYBYTES];
  for (UI1& b : bytes) b = (UI1)(rand() & 0xFF);
  PCH1 path = nullptr, extra = nullptr;
  free(c->pWSHost);
  c->pWSHost = nullptr;
  SI4 rc = VAGetCH1m(value, 0, &path, VACHAR);
  if (!rc) rc = VAGetCH1m(value, 1, &c->pWSHost, VACHAR);
  if (!rc) rc = TextAt(value, 2, &extra);
  if (!rc) {
    encode64(c->pWSUpgradeKey, bytes, WSKEYBYTES);
    UI4 room = (UI4)(strlen(path) + strlen(c->pWSHost) + strlen(extra) + strlen(c->pWSUpgradeKey)) +
               WSUPGRADEREQ_ROOM;
    PBUFFER b = new BUFFER(room);
    int n = snprintf(b->Start(), room, WSUPGRADEREQ, path, c->pWSHost, c->pWSUpgradeKey, extra);
    b->Resize(n < 0 ? 0 : (UI4)n < room ? (UI4)n : room - 1);
    PMESSAGE m = new MESSAGE(b, SReadyToSend);
    m->NextState = SFinished;
    m->Mode = c->Mode;
    if (!self->AddNew("WSUpgradeReq", m)) {
      delete m;
      rc = ERR_NAME_IN_USE;
    }
  }
  free(path);
  free(extra);
  return rc ? rc : Dirty(self);
}

SI4 HTTPCONNECTION::SetUpgradeProp(PHIERAKI pItem, PCH1 name, PAA value) {
  PHIERAKI self = OwnNode(pItem, this);
  if (strcasecmp(name, "WSFeatures") == 0) {
    SI4 v = 0;
    SI4 rc = value ? VAGetSI4(value, 0, &v) : ERR_VALUE;
    if (!rc) Features = (UI4)v;
    return rc;
  }
  if (strcasecmp(name, "UpgradeHeader") == 0) {
    PCH1 text = nullptr;
    SI4 rc = VAGetCH1m(value, 3, &text, VACHAR);
    if (rc) return rc;
    free(pUserHeaders);
    pUserHeaders = text;
    return 0;
  }
  if (strcasecmp(name, "WSUpgrade") == 0 && Mode == MHttp) {
    if (!self) return ERR_OBJECT_NOT_FOUND;
    return UpgradeRequest(this, self, value);
  }
  if (strcasecmp(name, "WSAccept") != 0) return CONNECTION::SetRPCProp(pItem, name, value);
  // The host accepts the handshake it was shown: a request on a server, an
  // answer on a client. A text that isn't one changes nothing.
  PCH1 text = nullptr, extra = nullptr;
  SI4 rc = VAGetCH1m(value, 0, &text, VACHAR);
  if (!rc) rc = TextAt(value, 1, &extra);
  if (!rc) {
    BUFFER header((UI4)strlen(text), text);
    header.Offset = header.Size;
    PBUFFER answer = nullptr;
    bool ok = false;
    if (Type == TConnection) {
      PCH1 host = nullptr, key = nullptr;
      ok = isWSUpgradeReq(&header, &host, &key);
      if (ok) answer = WSAnswer(key, extra);
      free(host);
      free(key);
    } else if (Type == TClient) {
      ok = isWSUpgradeAns(&header, pWSUpgradeKey);
    }
    if (ok && self) {
      rc = HandOver(pItem, answer);
    } else {
      delete answer;
      PROOT root = RootObj(pItem);
      rc = root ? root->Dirty() : ERR_ROOT_NOT_FOUND;
    }
  }
  free(text);
  free(extra);
  return rc;
}
