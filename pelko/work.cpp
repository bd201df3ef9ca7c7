// The work thread. Host threads never touch a socket of the tree: they set
// a state and write a wake-up word; this thread does the rest. It runs on a
// 64 KB stack, so the walks keep their frames small.
#include "work.h"

#include <unistd.h>

#include <cstring>

#include "log.h"
#include "pelkoerr.h"
#include "root.h"

#define MODULE 0x00000020

PHIERAKI FindState(PHIERAKI h, void*) {
  return h && h->pObj && h->pObj->State == SMarkedForDeletion ? h : nullptr;
}

// Takes marked children of h out of the tree while the round still owes
// deletions. The search and the unlinking share one write lock, so no host
// thread can pop or add a child in between; a host thread may still hold
// the node it found before, so the root frees it once none is inside.
static void DeleteMarked(PHIERAKI h, PFDSETS fds) {
  while (fds->cntFinished) {
    h->LockWrite();
    PHIERAKI d = h->pSub ? h->pSub->Loop(FindState, nullptr) : nullptr;
    if (d) {
      d->Detach();
      fds->cntFinished--;
    }
    h->ReleaseWrite();
    if (!d) break;
    fds->pRoot->Bury(d);
  }
}

// The check pass for one node: a connection sets up its selection before
// its children are looked at, parents are checked after their children,
// and finished children go on the way back up.
static void CheckNode(PHIERAKI h, PFDSETS fds) {
  PRPCOBJS obj = h->pObj;
  if (obj->Type > TUdpPeer) return;
  if (obj->Type == TClient || obj->Type == TConnection || obj->Type == TUdp) {
    fds->pItem = h;
    obj->Setinfo(fds);
    // A connection may have handed its node to a successor.
    obj = h->pObj;
  }
  h->LoopSub(CheckSub, fds);
  fds->pItem = h;
  obj->Check(fds);
  DeleteMarked(h, fds);
}

PHIERAKI CheckSub(PHIERAKI h, void* arg) {
  PFDSETS fds = (PFDSETS)arg;
  if (!h->pObj) return nullptr;
  if (h->pObj->State == SFinished) {
    // Counted once here; the parent deletes it once its own check is done.
    fds->cntFinished++;
    h->pObj->State = SMarkedForDeletion;
    return nullptr;
  }
  CheckNode(h, fds);
  return nullptr;
}

PHIERAKI ExecSub(PHIERAKI h, void* arg) {
  PFDSETS fds = (PFDSETS)arg;
  PRPCOBJS obj = h->pObj;
  if (!obj || obj->Type > TUdp) return nullptr;
  switch (obj->Type) {
    case TRoot:
    case TServer:
    case TUdp:
      fds->pItem = h;
      obj->Setinfo(fds);
      h->LoopSub(ExecSub, fds);
      fds->pItem = h;
      obj->Execute(fds);
      break;
    case TClient:
    case TConnection:
      // A connection deals with its commands and messages itself.
      fds->pItem = h;
      obj->Execute(fds);
      break;
    default:
      break;
  }
  return nullptr;
}

// Clears the round's state: the sets, and every other field.
static void NewRound(PFDSETS fds) {
  memset(fds, 0, sizeof(*fds));
  Clear(&fds->ss);
}

SI4 WorkThread(PHIERAKI root) {
  PROOT pRoot = (PROOT)(PRPCOBJS)root->pObj;
  pRoot->pid = CurrentPid();
  FDSETS fds;
  for (;;) {
    LOG(5, ("Work thread activated"));
    NewRound(&fds);
    fds.pRoot = pRoot;
    pRoot->FreeGraves(false);
    // From here on a host's change is seen by this round's walks, or its
    // wake-up word starts another round.
    pRoot->WakePending = false;
    if (pRoot->State == SFinished) fds.cntFinished = 1;
    CheckNode(root, &fds);
    SI4 count = 0;
    fds.lError = SfWait(&fds.ss, WORK_SELECT_SECONDS, &count);
    LOG(2, ("After wait lError: %d cnt: %d", fds.lError, count));
    if (pRoot->pid != CurrentPid()) {
      // Carried across a fork: this thread belongs to another process.
      fds.lError = ERR_FORK;
    } else {
      if (!fds.lError && count > 0 && pRoot->Type < TUdpPeer) ExecSub(root, &fds);
      if (!fds.endWorkThread) {
        if (!fds.lError) continue;
        break;  // select itself failed: no closing pass
      }
    }
    // The closing pass: every connection, server and the root see the flag
    // and close their sockets.
    fds.closeAllSockets = true;
    ExecSub(root, &fds);
    if (!fds.endWorkThread && !fds.lError) continue;
    break;
  }
  LOG(1, ("Worker thread have ended! ErrorCode =%d ", fds.lError));
  pRoot->lErrorObj = ERR_WORKTHREADENDED;
  pRoot->CloseComWork();
  return fds.lError ? fds.lError : ERR_WORKSYNC_RECV;
}
