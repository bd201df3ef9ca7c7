// The relay: pieces received on one connection become messages to send on
// another, named by the running byte count.
#include "relay.h"

#include <cassert>
#include <cstdio>
#include <cstdlib>

#include "command.h"
#include "log.h"
#include "pelkoerr.h"
#include "root.h"
#include "verbs.h"
#include "work.h"

#define MODULE 0x00000080

RELAY::RELAY(PHIERAKI to, PBUFFER buf, OBJSTATE state)
    : RPCOBJS(TRelay), Bytes(0), Blocks(0), pRelayTo(to), pRootNode(Root(to)), pBuf(buf),
      pToName(nullptr) {
  State = state;
  SI4 n = to->FullName(nullptr, 100);
  pToName = (PCH1)calloc(1, (size_t)(3 - n));
  to->FullName(pToName, 2 - n);
}

RELAY::~RELAY() {
  delete pBuf;
  pBuf = nullptr;
  free(pToName);
  pToName = nullptr;
}

SI4 RELAY::Setinfo(PFDSETS) { return 0; }

// A state outside the relay's life is a programming error.
static bool Quiet(OBJSTATE s) {
  switch (s) {
    case SNew: case SRootInit: case SListen: case SConnected: case SAPL: case SReadyToSend:
    case SSending: case SProcessing: case SFinished: case SError: case SSocketClosed:
    case SAPLLast: case SSent:
      return true;
    default:
      assert(s < -1 && "State<-1");
      return s < -1;
  }
}

SI4 RELAY::Check(PFDSETS fds) {
  OBJSTATE s = State;
  if (s == SReceiving || (s == SReadyToRecv && !fds->phRead)) {
    fds->phRead = fds->pItem;
    fds->pRead = pBuf;
  } else if (s != SReadyToRecv) {
    Quiet(s);
  }
  return 0;
}

SI4 RELAY::Execute(PFDSETS) {
  OBJSTATE s = State;
  if (s != SReceiving && s != SReadyToRecv) Quiet(s);
  return 0;
}

// A target whose socket has closed, or that is on its way out, takes no
// more pieces: whether it is still in the tree then depends only on when
// the work thread gets to deleting it.
static bool CanTake(OBJSTATE s) {
  return s != SSocketClosed && s != SFinished && s != SMarkedForDeletion && s != SError;
}

SI4 RELAY::RelayBufferInt(PBUFFER buf) {
  UI4 n = buf->Offset;
  buf->Rewind();
  // A read that brought nothing is no piece: its name would clash.
  if (n == 0) return 0;
  Bytes += n;
  PBUFFER b = BUFFER::TryNew(n);
  if (!b) return ERR_MEMORY_ALLOC;
  b->Append(buf->Start(), n);
  b->Rewind();
  PMESSAGE m = new MESSAGE(b, SReadyToSend);
  m->NextState = SFinished;
  m->Mode = Mode;
  char name[MAXNAMELENGTH + 1];
  snprintf(name, sizeof(name), "Bytes%010u", Bytes);
  PHIERAKI target = pRootNode->FindLeaf(pToName);
  if (!target || !target->pObj || !CanTake(target->pObj->State)) {
    delete m;
    return ERR_SEND;
  }
  if (!target->AddNew(name, m)) delete m;
  return 0;
}

SI4 RELAY::RelayBuf(PBUFFER extra) {
  if (extra && extra->Offset) {
    SI4 rc = RelayBufferInt(extra);
    if (rc) return rc;
  }
  return RelayBufferInt(pBuf);
}

static bool Relays(PHIERAKI h) {
  return h->pObj->Type == TClient || h->pObj->Type == TConnection;
}

static void AddRelay(PHIERAKI from, PHIERAKI to, UI4 size) {
  PRELAY r = new RELAY(to, new BUFFER(size), SReadyToRecv);
  r->Mode = from->pObj->Mode;
  if (!from->AddNew("RELAY", r)) delete r;
}

SI4 SetRelay(PHIERAKI pRoot, PCH10 pFromName, PCH10 pToName, UI4 BlockSize, SI4 OneWay) {
  PHIERAKI from = pRoot->FindLeaf(pFromName);
  PHIERAKI to = pRoot->FindLeaf(pToName);
  if (!from || !from->pObj || !to || !to->pObj) return ERR_OBJECT_NOT_FOUND;
  if (!Relays(from) || !Relays(to)) return ERR_INVALID_OBJECT;
  AddRelay(from, to, BlockSize);
  if (OneWay == 0) AddRelay(to, from, BlockSize);
  Dirty(pRoot);
  return 0;
}

PAA ASetRelay(PHIERAKI root, PAA arg) {
  if (!root) return VARc(ERR_ROOT_NOT_FOUND);
  HOSTINSIDE inside(root);
  if (!arg) return VARc(ERR_ARG_MISSING);
  PCH1 from = nullptr, to = nullptr;
  SI4 size = RELAY_BLOCKSIZE, oneWay = 0;
  UI4 n = arg->type == VAPntr ? VAElems(arg) : 0;
  SI4 rc = n < 2 ? ERR_ARG_MISSING : VAGetCH1m(arg, 0, &from, VACHAR);
  if (!rc) rc = VAGetCH1m(arg, 1, &to, VACHAR);
  if (!rc && n > 2) rc = VAGetSI4(arg, 2, &size);
  if (!rc && n > 3) rc = VAGetSI4(arg, 3, &oneWay);
  // A piece needs room for at least one byte.
  if (!rc && size <= 0) rc = ERR_SIZE;
  if (!rc) rc = SetRelay(root, from, to, (UI4)size, oneWay);
  free(from);
  free(to);
  return VARc(rc);
}
