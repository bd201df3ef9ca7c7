// Raw and text modes on one connection: the stream buffer, its cutting by
// stop texts, and the last block when the peer closes.
#include "rawconnection.h"

#include <cstdio>
#include <cstdlib>

#include "command.h"
#include "log.h"
#include "options.h"
#include "rawserver.h"
#include "relay.h"
#include "work.h"

#define MODULE 0x00000100

RAWCONNECTION::RAWCONNECTION(UI4 size, OBJMODE mode)
    : CONNECTION(), MaxBlockSize(size), Count(0), pStop(nullptr), IgnoreCase(true) {
  Mode = mode;
  pHeader = new BUFFER(size);
}

RAWCONNECTION::RAWCONNECTION(UI4 size, OBJMODE mode, PRPCSOCK s)
    : CONNECTION(s), MaxBlockSize(size), Count(0), pStop(nullptr), IgnoreCase(true) {
  Mode = mode;
  pHeader = new BUFFER(size);
}

RAWCONNECTION::~RAWCONNECTION() { FreeList(pStop.exchange(nullptr)); }

void ReplaceStop(std::atomic<PLIST>* held, std::atomic<bool>* heldCase, PLIST list,
                 bool ignoreCase) {
  if (list) {
    SI4 kept = 0;
    for (SI4 i = 0; i < list->Count; i++) {
      if (list->items[i]->len > 0)
        list->items[kept++] = list->items[i];
      else
        free(list->items[i]);
    }
    list->Count = kept;
    *heldCase = ignoreCase;
  }
  FreeList(held->exchange(list));
}

SI4 RAWCONNECTION::SetStop(PLIST list, bool ignoreCase) {
  ReplaceStop(&pStop, &IgnoreCase, list, ignoreCase);
  return 0;
}

void RAWCONNECTION::GetParentStop(PHIERAKI pItem, PLIST* list, bool* ignoreCase) {
  PHIERAKI parent = pItem->Parent();
  if (!parent || !parent->pObj || parent->pObj->Type != TServer) return;
  PRAWSERVER s = dynamic_cast<PRAWSERVER>((PRPCOBJS)parent->pObj);
  if (!s) return;
  *list = s->pStop;
  *ignoreCase = s->IgnoreCase;
}

void RAWCONNECTION::Deliver(PFDSETS fds, UI4 n, OBJSTATE state) {
  PBUFFER b = pHeader->Take(n);
  pHeader->Drop(n);
  PMESSAGE m = new MESSAGE(b, state);
  m->NextState = SFinished;
  if (state == SAPLLast) m->NextPState = SFinished;
  m->Mode = Mode;
  char name[MAXNAMELENGTH + 1];
  snprintf(name, sizeof(name), "Blk%08u", Count++);
  LOG(1, ("New block received %s size %d remaining Header %d", name, (int)n, (int)pHeader->Offset));
  PHIERAKI h = fds->pItem->AddNew(name, m);
  if (h)
    m->Ready4Apl(h);
  else
    delete m;
}

// A relay set up while this round was under way: the round read into the
// stream buffer before the relay could take the read position. Those bytes
// belong to the relay's target, not to the host.
static PRELAY NewRelay(PHIERAKI pItem) {
  PHIERAKI r = pItem->FindLeaf("RELAY");
  return r && r->pObj && r->pObj->Type == TRelay ? (PRELAY)(PRPCOBJS)r->pObj : nullptr;
}

SI4 RAWCONNECTION::HeaderRecv(PFDSETS fds, PHIERAKI pItem) {
  PRELAY relay = NewRelay(pItem);
  if (relay) return relay->RelayBuf(pHeader);
  PLIST list = pStop;
  bool ignoreCase = IgnoreCase;
  if (!list) GetParentStop(pItem, &list, &ignoreCase);
  if (!list) return HeaderComplete(fds, pItem);
  for (;;) {
    SI4 n = pHeader->FindStop(list, ignoreCase, nullptr);
    if (n <= 0) return 0;
    Deliver(fds, (UI4)n, SAPL);
  }
}

SI4 RAWCONNECTION::HeaderComplete(PFDSETS fds, PHIERAKI pItem) {
  PRELAY relay = NewRelay(pItem);
  if (relay) return relay->RelayBuf(pHeader);
  if (pStop) {
    SI4 rc = HeaderRecv(fds, pItem);
    if (rc || !pHeader->Complete()) return rc;
  }
  // A wake-up with nothing read is no block.
  if (pHeader->Offset == 0) return 0;
  Deliver(fds, pHeader->Offset, SAPL);
  return 0;
}

SI4 RAWCONNECTION::PassiveClose(PFDSETS fds, PHIERAKI) {
  Deliver(fds, pHeader->Offset, SAPLLast);
  SocketClosed();
  return 0;
}
