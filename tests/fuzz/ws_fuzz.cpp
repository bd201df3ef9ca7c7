// WebSocket frames from a peer, on a server's or a client's connection,
// in reads of random sizes; every frame that reaches the host is taken.
#include "fuzzkit.h"
#include "websocket.h"
#include "work.h"

namespace {

PHIERAKI Pending(PHIERAKI h, void* out) {
  if (h->pObj && h->pObj->Type == TMessage && h->pObj->State == SReceiving) *(PHIERAKI*)out = h;
  return nullptr;
}

PHIERAKI Take(PHIERAKI h, void*) {
  PWSMSG m = dynamic_cast<PWSMSG>((PRPCOBJS)h->pObj);
  if (!m || (m->State != SAPL && m->State != SError)) return nullptr;
  char name[256], event[64];
  OBJSTATE next = SFinished;
  PUI4 z = nullptr;
  m->GetWaitReturns(h, name, event, &next, &z);
  free(z);
  m->State = SFinished;
  return nullptr;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzzkit::Input in(data, size);
  UI4 choice = in.Byte();
  PHTTPCONNECTION http = new HTTPCONNECTION(64 + (choice & 0x3F) * 64, MHttp);
  http->State = SConnected;
  http->Type = choice & 0x80 ? TClient : TConnection;
  PHIERAKI node = new HIERAKI("C", http);
  DoWebSocketUpgrade(node, nullptr, nullptr);
  PWEBSOCKET ws = (PWEBSOCKET)(PRPCOBJS)node->pObj;
  if (choice & 0x40) ws->ActiveClose = 1;
  FDSETS fds = {};
  fds.pItem = node;
  SI4 rc = 0;
  while (in.left() && !rc && ws->State == SConnected) {
    std::string bytes = in.Read(1 + in.Byte() % 32);
    PHIERAKI part = nullptr;
    node->LoopSub(Pending, &part);
    if (part) {
      PBUFFER b = ((PMESSAGE)(PRPCOBJS)part->pObj)->pBuf;
      fuzzkit::Arrive(b, bytes);
      if (b->Complete()) rc = ws->ReadComplete(&fds, part);
    } else {
      fuzzkit::Arrive(ws->pHeader, bytes);
      rc = ws->pHeader->Complete() ? ws->HeaderComplete(&fds, node) : ws->HeaderRecv(&fds, node);
    }
    node->LoopSub(Take, nullptr);
  }
  delete node;
  return 0;
}
