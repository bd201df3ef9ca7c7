// The ready search and the wait verb. A host thread names an object and a
// timeout; the root's strategy picks, under that object, the next object
// ready to hand over, claims it, and the object turns itself into the
// event, name and value that the wait returns.
#include <cmath>
#include <cstring>

#include "connection.h"
#include "log.h"
#include "orvanenaz.h"
#include "pelkoerr.h"
#include "root.h"
#include "server.h"
#include "talplat.h"
#include "verbresult.h"
#include "verbs.h"

#define MODULE 0x00000080

#define WAIT_NAMELEN 198
#define WAIT_EVENTLEN 64
// A timeout of -1 waits this long, and then times out as any other.
#define WAIT_DEFAULT_MS 20000
#define WAIT_ARGNAMELEN 1024

static bool ReadyState(OBJSTATE s) {
  return s == SIncoming || s == SAPL || s == SError || s == SAPLLast || s == SSent;
}

// From here on no other search sees the object, and the work thread
// leaves it alone.
static void Claim(PHIERAKI h) {
  PRPCOBJS o = h->pObj;
  o->LastState = o->State.load();
  o->State = SProcessing;
  LOG(2, ("%p %s %d %d %d", (void*)h, h->Name, (int)o->Type, (int)o->Mode, (int)o->LastState.load()));
}

// A connection the peer has closed, once nothing below it is ready.
static void ClaimClosed(PHIERAKI h) {
  PRPCOBJS o = h->pObj;
  o->LastState = SError;
  o->lErrorObj = ERR_CLOSED;
  o->State = SProcessing;
  LOG(2, ("%p %s %d %d %d", (void*)h, h->Name, (int)o->Type, (int)o->Mode, (int)SSocketClosed));
}

// A command still in a transfer on a connection that has closed: the work
// thread's next round turns it into an error, which comes first.
static PHIERAKI InTransfer(PHIERAKI h, void*) {
  PRPCOBJS o = h->pObj;
  if (!o || o->Type != TCommand) return nullptr;
  OBJSTATE s = o->State;
  bool busy = s == SReadyToSend || s == SSending || s == SProcessing || s == SReadyToRecv ||
              s == SReceiving;
  return busy ? h : nullptr;
}

// A closed connection is ready once the peer closed it and nothing below
// it waits to become an error.
static bool ClosedReady(PHIERAKI h) { return ClosedIsReady(h->pObj) && !h->LoopSub(InTransfer, nullptr); }

static PHIERAKI Walk(PHIERAKI h, PHIERAKI* out, bool rr);
static PHIERAKI WalkH(PHIERAKI h, void* out) { return Walk(h, (PHIERAKI*)out, false); }
static PHIERAKI WalkRRH(PHIERAKI h, void* out) { return Walk(h, (PHIERAKI*)out, true); }

// The child of h on the way up from the node found below it.
static PHIERAKI ChildOn(PHIERAKI h, PHIERAKI found) {
  while (found && found->Parent() != h) found = found->Parent();
  return found;
}

// First found in ring order claims and stops the walk; a parent that is
// ready comes before its children, a closed connection after them. With
// rr, the child of a root or server through which something was found goes
// last in its ring, so the next search starts with its successor.
static PHIERAKI Walk(PHIERAKI h, PHIERAKI* out, bool rr) {
  if (!h || !h->pObj) return *out;
  PRPCOBJS o = h->pObj;
  OBJSTATE s = o->State;
  PFNH next = rr ? WalkRRH : WalkH;
  if (ReadyState(s)) {
    Claim(h);
    return *out = h;
  }
  if (s == SFinished) return *out;
  if (s == SSocketClosed && ClosedIsReady(o)) {
    if (h->LoopSub(next, out)) return *out;
    if (!ClosedReady(h)) return *out;
    ClaimClosed(h);
    return *out = h;
  }
  PHIERAKI found = h->LoopSub(next, out);
  if (found && rr && (o->Type == TRoot || o->Type == TServer)) {
    PHIERAKI child = ChildOn(h, found);
    if (child) h->SetSub(child);
  }
  return *out;
}

PHIERAKI FindReady(PHIERAKI h, PHIERAKI* out) { return Walk(h, out, false); }
PHIERAKI FindReadyRR(PHIERAKI h, PHIERAKI* out) { return Walk(h, out, true); }

// The oldest ready object of a search that claims nothing.
struct OLDEST {
  PHIERAKI pReady;
  F8 time;
  SI4 depth;      // budget of levels for FindReadyTnc, shared by all branches
  bool limited;   // types below which the search doesn't look
  bool budget;
};

static void Offer(OLDEST* f, PHIERAKI h) {
  F8 t = h->pObj->timeReady;
  if (f->pReady && !(f->time > t)) return;
  f->pReady = h;
  f->time = t;
  LOG(2, ("%p %s %d %d %d", (void*)h, h->Name, (int)h->pObj->Type, (int)h->pObj->Mode,
          (int)h->pObj->State.load()));
}

static bool Searched(OBJTYPE t) {
  return t == TRoot || t == TServer || t == TClient || t == TConnection || t == TCommand ||
         t == TUdp || t == TUdpPeer;
}

static PHIERAKI Oldest(PHIERAKI h, void* arg) {
  OLDEST* f = (OLDEST*)arg;
  if (!h || !h->pObj) return nullptr;
  PRPCOBJS o = h->pObj;
  OBJSTATE s = o->State;
  if (ReadyState(s)) {
    Offer(f, h);
    // With a budget, children of one parent aren't compared past the first.
    return f->budget ? f->pReady : nullptr;
  }
  if (s == SSocketClosed && ClosedIsReady(o)) {
    OLDEST local = {nullptr, 0, f->depth - 1, f->limited, f->budget};
    if (f->budget && local.depth < 1) return nullptr;
    h->LoopSub(Oldest, &local);
    if (local.pReady && f->budget && local.pReady->pObj) local.pReady->pObj->NextState = SFinished;
    if (local.pReady) Offer(f, local.pReady);
    else if (ClosedReady(h)) Offer(f, h);
    return nullptr;
  }
  if (s == SFinished || s == SMarkedForDeletion) return nullptr;
  if (f->limited && !Searched(o->Type)) return nullptr;
  if (f->budget && f->depth-- < 1) return nullptr;
  h->LoopSub(Oldest, f);
  return nullptr;
}

// Search, then claim what was found; if it changed in between, search again.
static PHIERAKI ClaimOldest(PHIERAKI h, PHIERAKI* out, bool limited, SI4 depth) {
  for (;;) {
    OLDEST f = {nullptr, 0, depth, limited, depth > 0};
    Oldest(h, &f);
    *out = f.pReady;
    if (!*out || !(*out)->pObj) return *out;
    PRPCOBJS o = (*out)->pObj;
    OBJSTATE s = o->State;
    if (s >= SListenPaused) continue;
    if (ReadyState(s)) {
      Claim(*out);
      return *out;
    }
    if (s == SSocketClosed && ClosedReady(*out)) {
      ClaimClosed(*out);
      return *out;
    }
  }
}

PHIERAKI FindReadyTO(PHIERAKI h, PHIERAKI* out) { return ClaimOldest(h, out, false, 0); }
PHIERAKI FindReadyTS(PHIERAKI h, PHIERAKI* out) { return ClaimOldest(h, out, true, 0); }

PHIERAKI FindReadyTnc(PHIERAKI h, PHIERAKI* out) {
  PSERVER s = h ? dynamic_cast<PSERVER>((PRPCOBJS)h->pObj) : nullptr;
  bool onlyNew = s && s->SearchStop();
  return ClaimOldest(h, out, true, onlyNew ? 1 : 10);
}

static PHIERAKI PopReady(PHIERAKI h, PHIERAKI* out) {
  *out = dynamic_cast<PSERVER>((PRPCOBJS)h->pObj)->PopReady();
  if (!*out || !(*out)->pObj) return *out;
  if ((*out)->pObj->State == SSocketClosed) ClaimClosed(*out);
  else Claim(*out);
  return *out;
}

static bool FifoServer(PRPCOBJS o) { return o && ServerIsFifo(o); }

// The strategy of a root; a value outside the table falls back to the
// default, since "ReadyStrategy" stores what the host gives.
static PFNREADY Strategy(PROOT pRoot) {
  SI4 i = pRoot->UseFnsReady;
  return (PFNREADY)pRoot->pfnsReady[i >= 0 && i < 5 ? i : 2];
}

// Step 13 of a wait: nothing leaves a wait claimed.
static void Release(PROOT pRoot, PHIERAKI claimed, OBJSTATE next) {
  if (!claimed || !claimed->pObj) return;
  PRPCOBJS o = claimed->pObj;
  // Everything is read first: once the object is finished, the work thread
  // may delete it at any moment.
  OBJSTATE p = o->NextPState;
  PHIERAKI parent = claimed->Parent();
  PRPCOBJS po = parent ? (PRPCOBJS)parent->pObj : nullptr;
  // The work thread may have moved the object on while it was claimed (an
  // answer arriving for a command just reported "Sent", a connection
  // closing under a request): that state stands.
  OBJSTATE expected = SProcessing;
  o->State.compare_exchange_strong(expected, next);
  if (p != SDoNotChange && po) po->State = p;
  pRoot->Dirty();
}

SI4 WaitZ1(PHIERAKI pRoot, PCH1 Name, SI4 timeout, PCH1 ObjName, PCH1 Event, PUI4* ppPayload,
           F8* pTs) {
  ObjName[0] = 0;
  Event[0] = 0;
  *ppPayload = nullptr;
  OBJSTATE next = SFinished;
  LOG(1, ("WaitZ %s ", Name));
  PROOT root = (PROOT)(PRPCOBJS)pRoot->pObj;
  if (root->lErrorObj) return root->lErrorObj;
  HOSTINSIDE inside(pRoot);
  F8 start = Micros();
  PFNREADY fn = nullptr;
  PHIERAKI claimed = nullptr;
  SI4 rc = 0;
  for (;;) {
    PHIERAKI h = pRoot->FindLeaf(Name);
    if (!h) {
      rc = ERR_OBJECT_NOT_FOUND;
      break;
    }
    PRPCOBJS o = h->pObj;
    PHIERAKI parent = h->Parent();
    if (o && o->Type == TConnection && parent && FifoServer(parent->pObj)) {
      rc = ERR_FIFOMODE;
      break;
    }
    LOG(1, ("%s, pItem %p ", Name, (void*)h));
    CHECKMAGIC(h);
    if (!o) {
      rc = ERR_INVALID_OBJECT;
      break;
    }
    if (!o->pWaiting) rc = o->AplWaitInit(pRoot);
    if (!rc) {
      if (FifoServer(o)) fn = PopReady;
      else if (!fn) fn = Strategy(root);
      PHIERAKI found = nullptr;
      fn(h, &found);
      if (found) {
        claimed = found;
        PRPCOBJS fo = found->pObj;
        if (!fo) {
          rc = ERR_INVALID_OBJECT;
          break;
        }
        pTs[0] = fo->timeCreate;
        pTs[1] = fo->timeReady;
        pTs[2] = Micros();
        fo->GetWaitReturns(found, ObjName, Event, &next, ppPayload);
        LOG(1, ("Wait %s Success", Name));
        break;
      }
      SI4 wait = timeout == -1
                     ? WAIT_DEFAULT_MS
                     : timeout - (SI4)std::floor((Micros() - start) / 1000.0);
      rc = o->AplWait((UI4)(wait < 0 ? 0 : wait), &inside);
      if (rc == 0) continue;
    }
    if (root->EventMode > 0 && rc == WAIT_TIMEOUT_RC) {
      strcpy(Event, eventname[ETimeout]);
      *ppPayload = ScalarZ(WAIT_TIMEOUT_RC);
      PHIERAKI again = pRoot->FindLeaf(Name);
      if (again) again->FullName(ObjName, WAIT_NAMELEN);
      rc = 0;
    }
    break;
  }
  PHIERAKI h = pRoot->FindLeaf(Name);
  if (h && h->pObj) h->pObj->AplWaitClear();
  Release(root, claimed, next);
  return rc;
}

PAA AWaitZ(PHIERAKI pRoot, UI4** ppLeft, PAA arg) {
  F8 times[4] = {0, 0, 0, Micros()};
  if (ppLeft) *ppLeft = nullptr;
  if (!pRoot) return VARc(ERR_ROOT_NOT_FOUND);
  char name[WAIT_ARGNAMELEN + 1];
  SI4 timeout = 0;
  SI4 rc = arg ? VAGetCH1(arg, 0, name, sizeof(name), VACHAR) : ERR_ARG_MISSING;
  if (!rc) rc = VAGetSI4(arg, 1, &timeout);
  char objName[WAIT_NAMELEN + 2], event[WAIT_EVENTLEN];
  PUI4 payload = nullptr;
  if (!rc) rc = WaitZ1(pRoot, name, timeout, objName, event, &payload, times);
  PAA r = nullptr;
  if (!rc) {
    PAA t = VANewVector(VAF8, 4);
    for (UI4 i = 0; t && i < 4; i++) VASetF8(t, i, times[i]);
    r = VANested({VAInt(0), VAText(objName), VAText(event), t});
  }
  if (!payload) payload = ScalarZ(0);
  if (ppLeft) *ppLeft = payload;
  else BigFree(payload);
  if (rc) return VARc(rc);
  return r ? r : VARc(ERR_MEMORY_ALLOC);
}
