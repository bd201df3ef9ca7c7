// The object base: default operations, the hand-over to the host side
// (Ready4Apl) and the parking of host threads.
#include "rpcobjs.h"

#include <fcntl.h>

#include <cstdlib>
#include <cstring>

#include "log.h"
#include "orvanenaz.h"
#include "pelkoerr.h"
#include "root.h"
#include "vatrans.h"

#define MODULE 0x00000080

PCH1 modename[MMAX] = {(PCH1) "command", (PCH1) "raw",  (PCH1) "text", (PCH1) "blkraw",
                       (PCH1) "blktext", (PCH1) "http", (PCH1) "udp",  (PCH1) "websocket"};
PCH1 eventname[12] = {(PCH1) "Receive",   (PCH1) "Progress", (PCH1) "Block",
                      (PCH1) "Error",     (PCH1) "BlockLast", (PCH1) "Connect",
                      (PCH1) "Receive",   (PCH1) "Sent",     (PCH1) "Timeout",
                      (PCH1) "Closed",    (PCH1) "WSUpgrade", (PCH1) "WSReceive"};
PCH1 protocolname[PMAX] = {(PCH1) "ipv4", (PCH1) "ipv6", (PCH1) "ip"};

RPCOBJS::RPCOBJS(OBJTYPE type)
    : Type(type), State(SNew), NextState(SDoNotChange), NextPState(SDoNotChange),
      LastState(SDoNotChange), Mode(MCommand), pWaiting(nullptr), timeReady(0),
      timeCreate(Micros()), lErrorObj(0), Magic() {
  timeReady = timeCreate;
  memcpy(Magic, HIERAKI_MAGIC, 9);
}

// A thread parked on this object is woken; its search then finds the node
// gone. The short sleep lets it leave the semaphore before anyone reuses it.
RPCOBJS::~RPCOBJS() {
  LOG(1, ("Deleting RpcObject"));
  MarkDead(Magic, "         ");
  PTHREADSEM p = pWaiting.exchange(nullptr);
  if (p) {
    p->ReleaseSem();
    p->Return();
    TALSleep(1000.0);
  }
}

SI4 RPCOBJS::Close(PHIERAKI pItem) {
  // The root is found first: once the state says finished, the work thread
  // may delete this object at any moment.
  PROOT pRoot = RootObj(pItem);
  OBJSTATE s = State;
  if (s == SReceiving || s == SSending) return ERR_OBJECT_ACTIVITY;
  if (Type != TRoot && s != SMarkedForDeletion) State = SFinished;
  return pRoot ? pRoot->Dirty() : ERR_ROOT_NOT_FOUND;
}

SI4 RPCOBJS::CleanUp(PHIERAKI) { return 0; }

SI4 RPCOBJS::SendBuffer(PHIERAKI, PCH10, PBUFFER pBuffer, UI4) {
  delete pBuffer;
  return ERR_INVALID_OBJECT;
}

SI4 RPCOBJS::SendZ(PHIERAKI, PCH10, PUI4, UI4, UI4) { return ERR_INVALID_OBJECT; }

SI4 RPCOBJS::ComposeBuffer(PUI1 data, UI4 size, int file, PBUFFER* ppOut) {
  if (file == -1)
    *ppOut = new BUFFER(size, (PCH1)data);
  else if (data && size)
    *ppOut = new BUFFERFILE(size, (PCH1)data, file);
  else
    *ppOut = new BUFFERFILE(file);
  return 0;
}

// Reads the bytes of a simple array into a fresh block; an empty array
// gives no block.
static SI4 ArrayBytes(PAA p, PUI1* ppData, PUI4 pSize) {
  *ppData = nullptr;
  SI4 rc = VAGetBytes(p, nullptr, pSize);
  if (rc || *pSize == 0) return rc;
  *ppData = (PUI1)calloc(1, *pSize);
  if (!*ppData) return ERR_MEMORY_ALLOC;
  return VAGetBytes(p, *ppData, pSize);
}

// Bytes, and characters with no table to translate them by, go from the
// host's block straight into the buffer: the one copy they make before
// the socket. 2-byte integers (what raw mode hands the host) are narrowed
// on the way, once. False leaves anything else, and a scalar when only
// vectors are taken, to be unpacked first, with the same result as this.
bool RPCOBJS::ComposeVector(PUI4 z, UI4 size, bool scalars, PSI4 rc, PBUFFER* ppOut) {
  ZVECTOR v;
  if (!SimpleVectorZ(z, size, &v) || (!scalars && v.rank == 0)) return false;
  if (v.eltype == 2 || (v.eltype != 3 && !isav2asc)) {
    *rc = ComposeBuffer((PUI1)v.data, v.count, -1, ppOut);
    return true;
  }
  if (v.eltype != 3) return false;
  PUI1 narrow = (PUI1)malloc(v.count ? v.count : 1);
  *rc = narrow ? VANarrowI2(v.data, v.count, narrow) : ERR_MEMORY_ALLOC;
  if (!*rc) *rc = ComposeBuffer(v.count ? narrow : nullptr, v.count, -1, ppOut);
  free(narrow);
  return true;
}

SI4 RPCOBJS::ComposeBuffer(PUI4 z, UI4 size, PBUFFER* ppOut) {
  *ppOut = nullptr;
  SI4 rc;
  if (ComposeVector(z, size, true, &rc, ppOut)) return rc;
  PAA pAA = UnpackZ(z);
  if (!pAA) return ERR_ARCHITECTURE;
  rc = ComposeArray(pAA, ppOut);
  VAFree(pAA);
  return rc;
}

SI4 RPCOBJS::ComposeArray(PAA pAA, PBUFFER* ppOut) {
  *ppOut = nullptr;
  PUI1 data = nullptr;
  UI4 size = 0;
  SI4 rc = 0;
  if (VARank(pAA) >= 2) {
    rc = ERR_RANK;
  } else if (VAType(pAA) == VAPntr) {
    PAA first = nullptr;
    char file[513];
    if (VAElems(pAA) >= 3) rc = ERR_LENGTH;
    if (!rc) rc = VAGetpAA(pAA, 0, &first);
    if (!rc) rc = ArrayBytes(first, &data, &size);
    first = VAFree(first);
    if (!rc) rc = VAGetCH1(pAA, 1, file, sizeof(file), VACHAR);
    if (!rc) {
      int fd = open(file, O_RDONLY);
      rc = fd < 0 ? ERR_FILE : ComposeBuffer(data, size, fd, ppOut);
    }
  } else {
    rc = ArrayBytes(pAA, &data, &size);
    if (!rc) rc = ComposeBuffer(data, size, -1, ppOut);
  }
  free(data);
  return rc;
}

SI4 RPCOBJS::SetRPCProp(PHIERAKI, PCH1, PAA) { return ERR_OPTION; }

SI4 RPCOBJS::GetRPCProp(PCH1 name, PAA, PPAA ppOut) {
  *ppOut = nullptr;
  if (strcasecmp(name, "PropList") != 0) return ERR_OPTION;
  *ppOut = VANested({VAText("PropList")});
  return *ppOut ? 0 : ERR_MEMORY_ALLOC;
}

SI4 RPCOBJS::GetWaitReturns(PHIERAKI pItem, PCH1 name, PCH1 event, OBJSTATE* pNext,
                            PUI4* ppZ) {
  pItem->FullName(name, 198);
  *ppZ = nullptr;
  PROOT pRoot = RootObj(pItem);
  switch (LastState) {
    case SError:
      strcpy(event, lErrorObj == ERR_CLOSED && pRoot && pRoot->EventMode == 1 ? "Closed"
                                                                              : "Error");
      *pNext = SFinished;
      break;
    case SSent:
      strcpy(event, "Sent");
      *pNext = Mode != MCommand ? SFinished : SProcessing;
      break;
    case SIncoming:
      strcpy(event, Mode == MWebSocket ? "WSUpgrade" : "Connect");
      *pNext = SConnected;
      break;
    default:
      return ERR_INVALID_OBJECT;
  }
  *ppZ = ScalarZ((UI4)lErrorObj.load());
  return 0;
}

PBUFFER RPCOBJS::GetBuffer() { return nullptr; }
SI4 RPCOBJS::Check(PFDSETS) { return 0; }
SI4 RPCOBJS::Setinfo(PFDSETS) { return 0; }
SI4 RPCOBJS::Execute(PFDSETS) { return 0; }

SI4 RPCOBJS::Ready4Apl(PHIERAKI pItem) {
  timeReady = Micros();
  PROOT pRoot = RootObj(pItem);
  if (pRoot && pRoot->UseFnsReady < 0) {
    // The debug link is driven by a callback on its connection, not by a
    // parked thread.
    for (PHIERAKI h = pItem; h && h->pObj && h->pObj->Type != TRoot; h = h->pParent) {
      if (h->pObj->Type != TClient && h->pObj->Type != TConnection) continue;
      TPOOSFN fn = ConnectionOOSfn(h->pObj);
      if (fn) fn(pItem);
      break;
    }
    return 0;
  }
  // Only the lowest parked thread on the way up is woken.
  for (PHIERAKI h = pItem; h; h = h->pParent) {
    PRPCOBJS obj = h->pObj;
    if (!obj) continue;
    if (obj->Type == TServer && ServerIsFifo(obj)) ServerReadyFn(obj, pItem);
    PTHREADSEM p = obj->pWaiting;
    if (p) {
      p->ReleaseSem();
      return (SI4)p->count;
    }
  }
  return 0;
}

SI4 RPCOBJS::AplWaitInit(PHIERAKI pRootNode) {
  if (pWaiting) return ERR_SOMEBODY_WAITING;
  PROOT pRoot = (PROOT)(PRPCOBJS)pRootNode->pObj;
  // The thread's code is final only once Ended says so.
  PTALTHREAD t = pRoot->pTalThread;
  if (t && t->Ended && t->lError) return t->lError;
  pRoot->pThreadSem->wait();
  PTHREADSEM p = pRoot->pThreadList ? pRoot->pThreadList->FindFree() : nullptr;
  if (!p) {
    pRoot->pThreadList = new THREADSEM(pRoot->pThreadList, 0);
    p = pRoot->pThreadList->FindFree();
  }
  pRoot->pThreadSem->release(1);
  if (!p) return ERR_THREAD_NOT_FOUND;
  pWaiting = p;
  // Pairs with a connection's hand-over to its successor: the search that
  // follows sees the successor, or the hand-over sees this semaphore.
  std::atomic_thread_fence(std::memory_order_seq_cst);
  return 0;
}

SI4 RPCOBJS::AplWait(UI4 ms, HOSTINSIDE* inside) {
  PTHREADSEM p = pWaiting;
  if (!p) return ERR_WAIT_SEM;
  if (inside) inside->Leave();
  SEMRETURN r = p->WaitSem(ms);
  if (inside) inside->Enter();
  switch (r) {
    case SemReleased: return 0;
    case SemTimeout: return WAIT_TIMEOUT_RC;
    default: return ERR_WAIT_SEM;
  }
}

SI4 RPCOBJS::AplWaitClear() {
  PTHREADSEM p = pWaiting.exchange(nullptr);
  if (p) p->Return();
  return 0;
}
