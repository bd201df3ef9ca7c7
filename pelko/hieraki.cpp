// The name tree: rings of siblings, dotted-name lookup, creation under the
// parent's write lock, and destruction that takes the sub-tree with it.
#include "hieraki.h"

#include <cassert>
#include <cstdlib>
#include <cstring>

#include "log.h"
#include "rpcobjs.h"

#define MODULE 0x00000040

// A failed semaphore operation is logged and the protocol carries on: there
// is nothing better to do inside a lock.
#define RWCHECK(expr)                                                                    \
  do {                                                                                   \
    if ((expr) == SemError)                                                              \
      LOG2File("ERROR Mutex %s FAILED in file %s line %d", #expr, "MutexRW", __LINE__); \
  } while (0)

CMutexRW::CMutexRW()
    : psemReaders(new TALSEMA(1, 1)), psemWriters(new TALSEMA(1, 1)), m_nReaders(0) {
  if (psemReaders->lError || psemWriters->lError)
    LOG2File("Failed to create semaphores for RW mutex");
}

CMutexRW::~CMutexRW() {
  delete psemReaders;
  delete psemWriters;
}

void CMutexRW::Lock_DataRead() {
  RWCHECK(psemReaders->wait());
  if (++m_nReaders == 1) RWCHECK(psemWriters->wait());
  RWCHECK(psemReaders->release(1) == SemOk ? SemOk : SemError);
}

void CMutexRW::Unlock_DataRead() {
  RWCHECK(psemReaders->wait());
  if (--m_nReaders == 0) RWCHECK(psemWriters->release(1) == SemOk ? SemOk : SemError);
  RWCHECK(psemReaders->release(1) == SemOk ? SemOk : SemError);
}

void CMutexRW::Lock_DataWrite() { RWCHECK(psemWriters->wait()); }

void CMutexRW::Unlock_DataWrite() {
  RWCHECK(psemWriters->release(1) == SemOk ? SemOk : SemError);
}

CWriteLock::CWriteLock(CMutexRW* p, bool lockNow) : m_pMutexRW(p), m_bIsLocked(false) {
  if (lockNow) Lock();
}

CWriteLock::~CWriteLock() { Unlock(); }

void CWriteLock::Lock() {
  if (m_bIsLocked) return;
  m_pMutexRW->Lock_DataWrite();
  m_bIsLocked = true;
}

void CWriteLock::Unlock() {
  if (!m_bIsLocked) return;
  m_pMutexRW->Unlock_DataWrite();
  m_bIsLocked = false;
}

// Whether a node's name equals the len characters at s. Name holds no
// terminator when it is 32 long, so the comparison stops at 32 and a longer
// piece can never match.
static bool NameEq(PHIERAKI h, const char* s, size_t len) {
  if (len > MAXNAMELENGTH) return false;
  return strncmp(h->Name, s, len) == 0 && (len == MAXNAMELENGTH || h->Name[len] == 0);
}

PHIERAKI cmp(PHIERAKI h, void* name) {
  const char* s = (const char*)name;
  return NameEq(h, s, strlen(s)) ? h : nullptr;
}

PHIERAKI cmpdot(PHIERAKI h, void* sname) {
  SNAME* p = (SNAME*)sname;
  return NameEq(h, p->name, p->len) ? h : nullptr;
}

PHIERAKI cmpptr1(PHIERAKI h, void* p) {
  if (h == (PHIERAKI)p) return h;
  return h->LoopSub(cmpptr1, p);
}

PHIERAKI cmpobj(PHIERAKI h, void* obj) {
  if (h->pObj == (PRPCOBJS)obj) return h;
  return h->LoopSub(cmpobj, obj);
}

HIERAKI::HIERAKI(const char* name, PRPCOBJS obj)
    : pRW(nullptr), pNext(this), pSub(nullptr), pParent(nullptr), Name(), Magic(),
      pObj(obj), CleanUpLevel(ENDTYPE), CleanUpCount(0), Detached(false) {
  strncpy(Name, name ? name : "", MAXNAMELENGTH);
  memcpy(Magic, HIERAKI_MAGIC, 9);
}

// The lock is made on first use, and two threads may get there at once: a
// host thread adding a child and the work thread deleting one. Only one
// lock may win, or the two would exclude nobody.
CMutexRW* HIERAKI::RW() {
  CMutexRW* p = pRW;
  if (p) return p;
  CMutexRW* fresh = new CMutexRW();
  if (pRW.compare_exchange_strong(p, fresh)) return fresh;
  delete fresh;
  return p;
}

void HIERAKI::LockRead() { RW()->Lock_DataRead(); }
void HIERAKI::ReleaseRead() { RW()->Unlock_DataRead(); }
void HIERAKI::LockWrite() { RW()->Lock_DataWrite(); }
void HIERAKI::ReleaseWrite() { RW()->Unlock_DataWrite(); }

PHIERAKI HIERAKI::Add(PHIERAKI ring, PHIERAKI p) {
  if (!ring) return p;
  if (!p) return ring;
  PHIERAKI t = ring->pNext;
  ring->pNext = p->pNext;
  p->pNext = t;
  return p;
}

static PHIERAKI IsPredecessor(PHIERAKI h, void* p) { return h->pNext == (PHIERAKI)p ? h : nullptr; }

PHIERAKI HIERAKI::Remove(PHIERAKI p) {
  PHIERAKI pred = Loop(IsPredecessor, p);
  if (!pred) return this;
  if (pred == p) return nullptr;
  pred->pNext = p->pNext;
  p->pNext = p;
  return p == this ? pred : this;
}

static PHIERAKI CountOne(PHIERAKI, void* n) {
  ++*(SI4*)n;
  return nullptr;
}

SI4 HIERAKI::Count(PHIERAKI ring) {
  SI4 n = 0;
  if (ring) ring->Loop(CountOne, &n);
  return n;
}

SI4 HIERAKI::CountChildren() {
  SI4 n = 0;
  LoopSub(CountOne, &n);
  return n;
}

PHIERAKI HIERAKI::FirstChild() {
  if (!pSub) return nullptr;
  LockRead();
  PHIERAKI p = pSub ? pSub->pNext : nullptr;
  ReleaseRead();
  return p;
}

PHIERAKI HIERAKI::PopChild() {
  if (!pSub) return nullptr;
  LockWrite();
  PHIERAKI p = nullptr;
  if (pSub) {
    p = pSub->pNext;
    if (p == pSub) {
      pSub = nullptr;
    } else {
      pSub->pNext = p->pNext;
      p->pNext = p;
    }
    // Off the ring, the node no longer has a parent that could hold it.
    p->pParent = nullptr;
  }
  ReleaseWrite();
  return p;
}

PHIERAKI HIERAKI::SetSub(PHIERAKI p) {
  LockWrite();
  PHIERAKI old = pSub;
  pSub = p;
  ReleaseWrite();
  return old;
}

// Links p in as the new tail, so it comes last in walking order. The caller
// holds this node's write lock.
static void LinkTail(PHIERAKI parent, PHIERAKI p) {
  p->pParent = parent;
  if (parent->pSub) {
    PHIERAKI t = parent->pSub->pNext;
    parent->pSub->pNext = p->pNext;
    p->pNext = t;
  }
  parent->pSub = p;
}

void HIERAKI::AddSub(PHIERAKI p) {
  LockWrite();
  LinkTail(this, p);
  ReleaseWrite();
}

PHIERAKI HIERAKI::Loop(PFNH fn, void* arg) {
  PHIERAKI t = this;
  for (;;) {
    CHECKMAGIC(t);
    t = t->pNext;
    CHECKMAGIC(t);
    PHIERAKI r = fn(t, arg);
    if (r) return r;
    if (t == this) return nullptr;
  }
}

PHIERAKI HIERAKI::LoopSub(PFNH fn, void* arg) {
  CHECKMAGIC(this);
  if (!pSub) return nullptr;
  LockRead();
  PHIERAKI r = nullptr;
  if (pSub) {
    CHECKMAGIC(pSub);
    r = pSub->Loop(fn, arg);
  }
  ReleaseRead();
  return r;
}

PHIERAKI HIERAKI::Find(const char* name) { return Loop(cmp, (void*)name); }

PHIERAKI HIERAKI::Findptr(PHIERAKI p) { return Loop(cmpptr1, p); }

PHIERAKI HIERAKI::FindObj(PRPCOBJS obj) { return Loop(cmpobj, obj); }

PHIERAKI HIERAKI::Down(const char* piece, size_t len) {
  SNAME s = {(char*)piece, len};
  return LoopSub(cmpdot, &s);
}

PHIERAKI HIERAKI::FindParent(const char* name) {
  PHIERAKI h = this;
  const char* p = name;
  for (const char* dot = strchr(p, '.'); dot && h; dot = strchr(p, '.')) {
    h = h->Down(p, (size_t)(dot - p));
    p = dot + 1;
  }
  return h;
}

PHIERAKI HIERAKI::FindLeaf(const char* name) {
  PHIERAKI h = this;
  const char* p = name;
  while (h) {
    const char* dot = strchr(p, '.');
    size_t len = dot ? (size_t)(dot - p) : strlen(p);
    if (len > MAXNAMELENGTH) return nullptr;
    if (len == 0) return h;
    if (!dot) return h->LoopSub(cmp, (void*)p);
    h = h->Down(p, len);
    p = dot + 1;
  }
  return nullptr;
}

PHIERAKI HIERAKI::AddNew(const char* name, PRPCOBJS obj) {
  LOG(1, ("This %p %s", (void*)this, name));
  const char* last = strrchr(name, '.');
  PHIERAKI parent = last ? FindParent(name) : this;
  const char* part = last ? last + 1 : name;
  if (!parent) {
    LOG(1, ("%s (%s)", "Parent not found", name));
    return nullptr;
  }
  size_t len = strlen(part);
  // The test and the link happen under one write lock, so two threads
  // adding one name can't both get through.
  parent->LockWrite();
  bool clash = len == 0 || (len <= MAXNAMELENGTH && parent->pSub &&
                            parent->pSub->Loop(cmp, (void*)part));
  PHIERAKI h = nullptr;
  if (clash) {
    LOG(1, ("%s (%s)", "Name exists", part));
  } else {
    h = new HIERAKI(part, obj);
    LinkTail(parent, h);
  }
  parent->ReleaseWrite();
  return h;
}

SI4 HIERAKI::FullName(char* buf, SI4 max) {
  if (!pParent) {
    if (max < 0 || !buf) return -1;
    buf[0] = 0;
    return 0;
  }
  SI4 r = pParent->FullName(buf, max);
  SI4 n = (SI4)strnlen(Name, MAXNAMELENGTH);
  SI4 l = n;
  if (r != 0) l++;
  if (r < 0) return r - l;
  if (max < r + l) return -(r + l);
  char* p = buf + r;
  if (buf[0]) *p++ = '.';
  memcpy(p, Name, (size_t)n);
  p[n] = 0;
  return r + l;
}

// Off the parent's ring; the caller holds the parent's write lock.
void HIERAKI::Unlink() {
  PHIERAKI pred = pParent->pSub ? pParent->pSub->Loop(IsPredecessor, this) : nullptr;
  if (!pred) return;
  if (pred == this) {
    pParent->pSub = nullptr;
  } else {
    pred->pNext = pNext;
    if (pParent->pSub == this) pParent->pSub = pred;
  }
  pNext = this;
}

// Off the ready list of the server above that holds this node.
void HIERAKI::CleanUpOne() {
  if (CleanUpLevel == ENDTYPE || CleanUpCount < 1) return;
  for (PHIERAKI h = this; h; h = h->pParent) {
    if (h->pObj && h->pObj->Type == CleanUpLevel) {
      h->pObj->CleanUp(this);
      break;
    }
  }
}

PHIERAKI HIERAKI::CleanUpBelow(PHIERAKI h, void*) {
  h->LoopSub(CleanUpBelow, nullptr);
  h->CleanUpOne();
  h->CleanUpCount = 0;
  return nullptr;
}

void HIERAKI::Detach() {
  CleanUpBelow(this, nullptr);
  if (pParent) Unlink();
  Detached = true;
}

HIERAKI::~HIERAKI() {
  LOG(1, ("Deleting: %.32s", Name));
  LockWrite();
  // Each child unlinks itself from this ring and moves pSub on; the
  // write lock taken here is the one it relies on.
  while (pSub) delete pSub->pNext;
  ReleaseWrite();
  // A detached node is off every ring already.
  if (!Detached) {
    if (pParent)
      Unlink();
    else
      Remove(this);
  }
  CleanUpOne();
  delete pRW.exchange(nullptr);
  delete pObj;
  pObj = nullptr;
  MarkDead(Magic, "Nakket-- ");
}

RING::RING(PHIERAKI h) : pNext(this), ph(h) {}

PRING RING::Push(PHIERAKI h) {
  PRING p = new RING(h);
  p->pNext = pNext;
  pNext = p;
  return p;
}

PHIERAKI RING::Pop(PRING* pHeld) {
  PRING oldest = pNext;
  PHIERAKI h = oldest->ph;
  if (oldest == this) {
    *pHeld = nullptr;
  } else {
    pNext = oldest->pNext;
  }
  delete oldest;
  return h;
}

// Unlinked elements are freed here; nothing else holds them.
PRING RING::Remove(PHIERAKI h) {
  PRING held = this;
  PRING prev = this;
  PRING cur = pNext;
  bool last = false;
  while (!last) {
    last = cur == this;
    PRING next = cur->pNext;
    if (cur->ph == h) {
      if (cur == prev) {  // the only element left
        delete cur;
        return nullptr;
      }
      prev->pNext = next;
      if (cur == held) held = prev;
      delete cur;
    } else {
      prev = cur;
    }
    cur = next;
  }
  return held;
}
