// The name tree. Every live object sits in a HIERAKI node; siblings form a
// circular ring with no head, and each node guards its own child ring with a
// reader-writer lock. Every step of a walk checks the node's marker, so a
// freed or scribbled node stops the process instead of being followed.
#pragma once

#include <atomic>
#include <cassert>
#include <cstddef>
#include <cstring>

#include "talplat.h"
#include "taltypes.h"

#define MAXNAMELENGTH 32
#define HIERAKI_MAGIC "Talvera0"

enum OBJTYPE : UI8 {
  TRoot = 0,
  TServer = 1,
  TClient = 2,
  TConnection = 3,
  TCommand = 4,
  TMessage = 5,
  TRelay = 6,
  TUdp = 7,
  TUdpPeer = 8,
  ENDTYPE = 0x7fffffffffffffffull
};

class RPCOBJS;
typedef RPCOBJS* PRPCOBJS;
struct HIERAKI;
typedef HIERAKI* PHIERAKI;

// A name piece, not terminated at len.
typedef struct SNAME {
  char* name;
  size_t len;
} SNAME;

// Walk callback: a non-null return stops the walk and becomes its result.
typedef PHIERAKI (*PFNH)(PHIERAKI, void*);

// Readers as a group hold the writers' semaphore: the first reader takes it
// and the last gives it back, which may be another thread. That is why this
// is built on semaphores, which no thread owns, rather than on a mutex.
class CMutexRW {
 public:
  CMutexRW();
  virtual ~CMutexRW();
  void Lock_DataRead();
  void Unlock_DataRead();
  void Lock_DataWrite();
  void Unlock_DataWrite();

  PTALSEMA psemReaders;
  PTALSEMA psemWriters;
  int m_nReaders;
};

class CWriteLock {
 public:
  explicit CWriteLock(CMutexRW* p, bool lockNow = true);
  virtual ~CWriteLock();
  void Lock();
  void Unlock();
  bool IsLocked() const { return m_bIsLocked; }

  CMutexRW* m_pMutexRW;
  bool m_bIsLocked;
};

// A pointer that a thread may peek at without the lock that guards it,
// only to decide whether to take that lock. Reads under the lock are
// ordered by the lock itself, so relaxed order is enough.
template <typename T>
class PeekPtr {
 public:
  PeekPtr(T* v = nullptr) : p(v) {}
  PeekPtr& operator=(T* v) {
    p.store(v, std::memory_order_relaxed);
    return *this;
  }
  operator T*() const { return p.load(std::memory_order_relaxed); }
  T* operator->() const { return p.load(std::memory_order_relaxed); }

 private:
  std::atomic<T*> p;
};

// The object a node holds. A connection may hand its node over to the
// object that succeeds it while host threads look the node up: the store
// publishes the new object whole.
class ObjPtr {
 public:
  ObjPtr(PRPCOBJS v = nullptr) : p(v) {}
  ObjPtr& operator=(PRPCOBJS v) {
    p.store(v, std::memory_order_release);
    return *this;
  }
  operator PRPCOBJS() const { return p.load(std::memory_order_acquire); }
  PRPCOBJS operator->() const { return p.load(std::memory_order_acquire); }

 private:
  std::atomic<PRPCOBJS> p;
};

struct HIERAKI {
  HIERAKI(const char* name, PRPCOBJS obj);
  ~HIERAKI();

  PHIERAKI Next() { return pNext; }
  PHIERAKI Parent() { return pParent; }
  // Ring operations are called on any member. A ring held by a null
  // pointer is empty, so the two that accept one are static.
  static PHIERAKI Add(PHIERAKI ring, PHIERAKI p);
  PHIERAKI Remove(PHIERAKI p);
  static SI4 Count(PHIERAKI ring);
  SI4 CountChildren();
  PHIERAKI FirstChild();
  PHIERAKI PopChild();
  // Takes this node off its parent's ring, and it and all below it off
  // any ready list above: nothing leads to it afterwards, and it can be
  // freed whole later. The caller holds the parent's write lock. The
  // parent link stays as it was: a host thread that found the node before
  // may still follow it up to the root.
  void Detach();
  PHIERAKI SetSub(PHIERAKI p);
  void AddSub(PHIERAKI p);
  PHIERAKI Loop(PFNH fn, void* arg);
  PHIERAKI LoopSub(PFNH fn, void* arg);
  PHIERAKI Find(const char* name);
  PHIERAKI Findptr(PHIERAKI p);
  PHIERAKI FindObj(PRPCOBJS obj);
  PHIERAKI FindParent(const char* name);
  PHIERAKI FindLeaf(const char* name);
  PHIERAKI AddNew(const char* name, PRPCOBJS obj);
  SI4 FullName(char* buf, SI4 max);
  void LockRead();
  void ReleaseRead();
  void LockWrite();
  void ReleaseWrite();

 private:
  void Unlink();
  void CleanUpOne();
  static PHIERAKI CleanUpBelow(PHIERAKI h, void*);

 public:

  std::atomic<CMutexRW*> pRW;  // made on first use
  PHIERAKI pNext;
  PeekPtr<HIERAKI> pSub;  // child ring's tail, guarded by pRW
  PHIERAKI pParent;
  char Name[MAXNAMELENGTH];
  char Magic[9];
  ObjPtr pObj;
  OBJTYPE CleanUpLevel;
  int CleanUpCount;

 private:
  bool Detached;  // off its parent's ring already; only the work thread reads it
  CMutexRW* RW();
  PHIERAKI Down(const char* piece, size_t len);
};

// True while the 9 bytes are the live marker with its NUL. Every walk
// checks each node it steps over, twice, so this compares a word and a
// byte where strcmp went byte by byte through a call.
inline bool MagicAlive(const char* magic) {
  UI8 w, k;
  memcpy(&w, magic, 8);
  memcpy(&k, HIERAKI_MAGIC, 8);
  return w == k && magic[8] == 0;
}

// The magic check of every walk step. A mismatch is fatal, never an error,
// and stops the process with the text of the comparison it stands for.
#define CHECKMAGIC(t)                                                                  \
  (MagicAlive((t)->Magic) ? (void)0                                                     \
                          : __assert_fail("0==strcmp(" #t "->Magic,\"Talvera0\")", __FILE__, \
                                          __LINE__, __func__))

// Overwrites a marker of an object that is being destroyed. The barrier
// keeps the compiler from dropping the store as dead: the object's life
// ends right after, but a stale pointer may still read the memory.
inline void MarkDead(char* magic, const char* text) {
  memcpy(magic, text, 9);
  __asm__ volatile("" : : "r"(magic) : "memory");
}

PHIERAKI cmp(PHIERAKI h, void* name);
PHIERAKI cmpdot(PHIERAKI h, void* sname);
PHIERAKI cmpptr1(PHIERAKI h, void* p);
PHIERAKI cmpobj(PHIERAKI h, void* obj);

// The FIFO ready queue of a server: references to nodes, oldest first out.
// The owner holds the newest element.
struct RING;
typedef RING* PRING;
struct RING {
  explicit RING(PHIERAKI h);
  PRING Push(PHIERAKI h);
  PHIERAKI Pop(PRING* pHeld);
  PRING Remove(PHIERAKI h);

  PRING pNext;
  PHIERAKI ph;
};
