// Commands, messages and progress reports: their selections in the work
// thread's round, and what each hands to the host when a wait takes it.
#include "command.h"

#include <cassert>
#include <cstdlib>
#include <cstring>

#include "log.h"
#include "orvanenaz.h"
#include "pelkoerr.h"
#include "vatrans.h"
#include "work.h"

#define MODULE 0x00000100

COMMAND::COMMAND(PBUFFER pBuf, OBJSTATE state)
    : RPCOBJS(TCommand), pRecv(nullptr), pSend(nullptr), ProgressCnt(0) {
  if (state == SReadyToSend) {
    pSend = pBuf;
    State = SReadyToSend;
  } else if (state == SReceiving) {
    pRecv = pBuf;
    State = SReceiving;
  }
}

COMMAND::~COMMAND() {
  LOG(1, ("Deleting Command"));
  delete pRecv;
  pRecv = nullptr;
  delete pSend;
  pSend = nullptr;
}

PBUFFER COMMAND::GetBuffer() { return pRecv; }

// States in which a data object simply waits; anything else reaching
// Check or Execute is a programming error.
static bool Quiet(OBJSTATE s) {
  switch (s) {
    case SNew: case SRootInit: case SListen: case SConnected: case SAPL:
    case SProcessing: case SReadyToRecv: case SFinished: case SError:
    case SSocketClosed: case SAPLLast: case SSent:
      return true;
    default:
      return false;
  }
}

// The shared selection rule: a transfer begun goes on before any other;
// among waiting senders the first in child order wins.
static SI4 Select(PFDSETS fds, OBJSTATE State, PBUFFER pOut, PBUFFER pIn) {
  switch (State) {
    case SReadyToSend:
      if (fds->phWrite) return 0;
      [[fallthrough]];
    case SSending:
      fds->phWrite = fds->pItem;
      fds->pWrite = pOut;
      return 0;
    case SReceiving:
      fds->phRead = fds->pItem;
      fds->pRead = pIn;
      return 0;
    default:
      if (Quiet(State)) return 0;
      assert(State<-1);
      return 0;
  }
}

SI4 COMMAND::Check(PFDSETS fds) {
  OBJSTATE s = State;
  if (fds->fConnectionClosed &&
      (s == SReadyToSend || s == SSending || s == SProcessing || s == SReadyToRecv ||
       s == SReceiving)) {
    State = SError;
    lErrorObj = ERR_CLOSED;
    Ready4Apl(fds->pItem);
    return 0;
  }
  // Each buffer is read only in the states that use it: a host thread
  // sets pSend for an answer while the request waits, then the state that
  // hands it over.
  bool out = s == SReadyToSend || s == SSending;
  return Select(fds, s, out ? pSend : nullptr, s == SReceiving ? pRecv : nullptr);
}

SI4 COMMAND::Setinfo(PFDSETS) { return 0; }

// The work thread doesn't call Execute on data objects: a guard only.
static SI4 Guard(OBJSTATE State) {
  if (State == SReadyToSend || State == SSending || State == SReceiving || Quiet(State)) return 0;
  assert(State<-1);
  return 0;
}

SI4 COMMAND::Execute(PFDSETS) { return Guard(State); }

PUI4 PayloadZ(PBUFFER pBuf) {
  PBLOCKBUFFER b = dynamic_cast<PBLOCKBUFFER>(pBuf);
  if (b && b->Size) return (PUI4)b->Release();
  pBuf->Rewind();
  UI4 n = pBuf->Remaining();
  PUI4 z = (PUI4)malloc(n ? n : 1);
  if (z && n) memcpy(z, pBuf->Next(), n);
  return z;
}

SI4 COMMAND::GetWaitReturns(PHIERAKI pItem, PCH1 name, PCH1 event, OBJSTATE* pNext, PUI4* ppZ) {
  if (LastState == SError || LastState == SSent)
    return RPCOBJS::GetWaitReturns(pItem, name, event, pNext, ppZ);
  pItem->FullName(name, 198);
  PHIERAKI parent = pItem->Parent();
  bool connected = parent && parent->pObj && parent->pObj->State == SConnected;
  strcpy(event, eventname[connected ? EReceive : EReceiveLast]);
  *ppZ = pRecv ? PayloadZ(pRecv) : ScalarZ(0);
  if (NextState != SDoNotChange) {
    *pNext = NextState;
    NextState = SDoNotChange;
  }
  return *ppZ ? 0 : ERR_MEMORY_ALLOC;
}

MESSAGE::MESSAGE(PBUFFER buf, OBJSTATE state) : RPCOBJS(TMessage), pBuf(buf), pExtra(nullptr) {
  State = state;
}

MESSAGE::~MESSAGE() {
  LOG(1, ("Deleting Message"));
  delete pBuf;
  pBuf = nullptr;
  free(pExtra);
  pExtra = nullptr;
}

PBUFFER MESSAGE::GetBuffer() { return pBuf; }

SI4 MESSAGE::Check(PFDSETS fds) { return Select(fds, State, pBuf, pBuf); }

SI4 MESSAGE::Setinfo(PFDSETS) { return 0; }

SI4 MESSAGE::Execute(PFDSETS) { return Guard(State); }

PAA Data2pAA(char* data, UI4 length, VATYPES type) {
  if (type != VAI2 && type != VAC1) return nullptr;
  PAA p = VANewVector(type, length);
  if (!p) return nullptr;
  if (type == VAC1) {
    memcpy(VADATA(p), data, length);
    if (!isUnicode()) VA2avn((PCH1)VADATA(p), length);
  } else {
    SI2* e = (SI2*)VADATA(p);
    for (UI4 i = 0; i < length; i++) e[i] = (SI2)(UI1)data[i];
  }
  return p;
}

void PartEvent(PHIERAKI pItem, PCH1 event, bool last) {
  size_t i = 0;
  while (i < MAXNAMELENGTH && pItem->Name[i] && (pItem->Name[i] < '0' || pItem->Name[i] > '9')) i++;
  memcpy(event, pItem->Name, i);
  event[i] = 0;
  if (last) strcat(event, "Last");
}

SI4 MESSAGE::GetWaitReturns(PHIERAKI pItem, PCH1 name, PCH1 event, OBJSTATE*, PUI4* ppZ) {
  if (LastState == SError || LastState == SSent) {
    OBJSTATE next = SFinished;
    return RPCOBJS::GetWaitReturns(pItem, name, event, &next, ppZ);
  }
  pItem->FullName(name, 198);
  bool last = LastState == SAPLLast;
  if (Mode == MHttp) {
    PartEvent(pItem, event, last);
  } else {
    strcpy(event, eventname[last ? EBlockLast : EBlock]);
  }
  pBuf->Rewind();
  VATYPES t = Mode == MRaw || Mode == MBlkRaw ? VAI2 : VAC1;
  *ppZ = VectorZ(pBuf->Next(), pBuf->Remaining(), t);
  PCH1 dot = strrchr(name, '.');
  if (dot) *dot = 0;
  return *ppZ ? 0 : ERR_MEMORY_ALLOC;
}

PROGRESS::PROGRESS(PBUFFER buf, OBJSTATE state) : MESSAGE(buf, state) {}

PROGRESS::~PROGRESS() {}

SI4 PROGRESS::GetWaitReturns(PHIERAKI pItem, PCH1 name, PCH1 event, OBJSTATE*, PUI4* ppZ) {
  pItem->FullName(name, 198);
  strcpy(event, eventname[EProgress]);
  *ppZ = PayloadZ(pBuf);
  return *ppZ ? 0 : ERR_MEMORY_ALLOC;
}
