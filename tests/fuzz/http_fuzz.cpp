// HTTP receive and decoding: the bytes of a peer in reads of random sizes,
// cut into parts as the work thread cuts them, every part decoded with
// flags the input chooses.
#include "fuzzkit.h"
#include "httpconnection.h"
#include "httpmsg.h"
#include "orvanenaz.h"
#include "work.h"

namespace {

PHIERAKI ReadingPart(PHIERAKI conn) {
  PHIERAKI found = nullptr;
  conn->LoopSub(
      [](PHIERAKI h, void* out) -> PHIERAKI {
        if (h->pObj && h->pObj->State == SReceiving) *(PHIERAKI*)out = h;
        return nullptr;
      },
      &found);
  return found;
}

PHIERAKI Decode(PHIERAKI h, void* flags) {
  PHTTPMSG m = dynamic_cast<PHTTPMSG>((PRPCOBJS)h->pObj);
  if (!m || m->State != SAPL) return nullptr;
  m->decode = *(UI4*)flags;
  m->LastState = SAPL;
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
  UI4 bufferSize = 16 + in.Byte() * 4;
  UI4 choice = in.Byte();
  UI4 flags = (choice & 0x0F) | (choice & 0x10 ? DecodeInts : 0);
  PHTTPCONNECTION c = new HTTPCONNECTION(bufferSize, MHttp);
  c->State = SConnected;
  c->Type = choice & 0x40 ? TClient : TConnection;
  c->Features = choice & 0x20 ? 1 : 0;
  PHIERAKI node = new HIERAKI("C", c);
  FDSETS fds = {};
  fds.pItem = node;
  SI4 rc = 0;
  while (in.left() && !rc) {
    std::string bytes = in.Read(1 + in.Byte() % 64);
    PHIERAKI part = ReadingPart(node);
    if (part) {
      // A part still filling takes the read, as the connection's read does.
      PBUFFER b = ((PMESSAGE)(PRPCOBJS)part->pObj)->pBuf;
      fuzzkit::Arrive(b, bytes);
      if (b->Complete()) c->ReadComplete(&fds, part);
    } else {
      fuzzkit::Arrive(c->pHeader, bytes);
      rc = c->pHeader->Complete() ? c->HeaderComplete(&fds, node) : c->HeaderRecv(&fds, node);
    }
    node->LoopSub(Decode, &flags);
  }
  if (!rc) c->PassiveClose(&fds, node);
  node->LoopSub(Decode, &flags);
  delete node;
  return 0;
}
