// The stream modes as a peer drives them, in reads of random sizes: raw
// and text cut by a stop list the input chooses, length-prefixed blocks
// with and without a magic word, and command mode's message headers and
// bodies. Every block or message that reaches the host is taken.
#include <cstdlib>

#include "blkconnection.h"
#include "cmdconnection.h"
#include "command.h"
#include "fuzzkit.h"
#include "rawconnection.h"
#include "work.h"

namespace {

// A stop list of up to three short texts from the input, each item and the
// list in a block of its own, as the option reader makes them.
PLIST StopList(fuzzkit::Input& in) {
  int count = 1 + in.Byte() % 3;
  PLIST list = (PLIST)calloc(1, sizeof(LIST) + sizeof(PITEM) * count);
  list->Count = count;
  for (int i = 0; i < count; i++) {
    std::string text = in.Read(in.Byte() % 4);
    PITEM item = (PITEM)calloc(1, sizeof(ITEM) + text.size());
    item->len = (SI4)text.size();
    memcpy(item->pc, text.data(), text.size());
    list->items[i] = item;
  }
  return list;
}

PHIERAKI Pending(PHIERAKI h, void* out) {
  if (h->pObj && h->pObj->State == SReceiving) *(PHIERAKI*)out = h;
  return nullptr;
}

PHIERAKI Take(PHIERAKI h, void*) {
  PRPCOBJS o = h->pObj;
  if (!o || (o->State != SAPL && o->State != SAPLLast)) return nullptr;
  char name[256], event[64];
  OBJSTATE next = SFinished;
  PUI4 z = nullptr;
  o->LastState = o->State.load();
  o->GetWaitReturns(h, name, event, &next, &z);
  free(z);
  o->State = SFinished;
  return nullptr;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzzkit::Input in(data, size);
  UI4 choice = in.Byte();
  UI4 bufferSize = 4 + in.Byte();
  PCONNECTION c;
  switch (choice % 4) {
    case 0:
    case 1: {
      PRAWCONNECTION r = new RAWCONNECTION(bufferSize, choice % 4 ? MAscii : MRaw);
      if (choice & 0x10) r->SetStop(StopList(in), choice & 0x20);
      c = r;
      break;
    }
    case 2:
      c = new BLKCONNECTION(choice & 0x10 ? in.Word() : 0, bufferSize * 64, choice & 0x20 ? MBlkAscii : MBlkRaw);
      break;
    default:
      c = new CMDCONNECTION();
      break;
  }
  c->State = SConnected;
  c->Type = TConnection;
  PHIERAKI node = new HIERAKI("C", c);
  FDSETS fds = {};
  fds.pItem = node;
  SI4 rc = 0;
  while (in.left() && !rc && c->State == SConnected) {
    std::string bytes = in.Read(1 + in.Byte() % 48);
    PHIERAKI part = nullptr;
    node->LoopSub(Pending, &part);
    PBUFFER b = part ? part->pObj->GetBuffer() : nullptr;
    if (part && b) {
      fuzzkit::Arrive(b, bytes);
      if (b->Complete()) rc = c->ReadComplete(&fds, part);
    } else {
      fuzzkit::Arrive(c->pHeader, bytes);
      rc = c->pHeader->Complete() ? c->HeaderComplete(&fds, node) : c->HeaderRecv(&fds, node);
    }
    node->LoopSub(Take, nullptr);
  }
  if (!rc && c->State == SConnected) c->PassiveClose(&fds, node);
  node->LoopSub(Take, nullptr);
  delete node;
  return 0;
}
