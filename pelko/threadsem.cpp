// Reusable semaphores that park host threads, one list per root. The list
// is changed only under the root's pThreadSem.
#include "threadsem.h"

#include "log.h"

#define MODULE 0x00000100

THREADSEM::THREADSEM(PTHREADSEM next, TTHREADID owner)
    : pNext(next), pSem(new TALSEMATO(0, 1000)), pMutex(nullptr), ThreadId(owner),
      LastUsed(time(nullptr)), count(0), Waiting(0) {}

THREADSEM::~THREADSEM() { delete pSem; }

// Only the head's LastUsed is refreshed: the others keep their creation
// time, which is what ageing looks at.
PTHREADSEM THREADSEM::FindFree() {
  for (PTHREADSEM p = this; p; p = p->pNext) {
    if (p->ThreadId != 0) continue;
    p->ThreadId = pthread_self();
    LastUsed = time(nullptr);
    LOG(1, ("WAITSEM %p taken by %p ", (void*)p, (void*)p->ThreadId.load()));
    return p;
  }
  return nullptr;
}

SEMRETURN THREADSEM::WaitSem(UI4 ms) {
  Waiting++;
  SEMRETURN r = pSem->wait(ms);
  Waiting--;
  return r;
}

void THREADSEM::ReleaseSem() { pSem->release(1); }

// A release that nobody took stays pending: the next user may wake at once
// and find nothing, and its wait loop simply searches again.
void THREADSEM::Return() {
  LOG(1, ("WAITSEM %p return by %p ", (void*)this, (void*)pthread_self()));
  ThreadId = 0;
}

PTHREADSEM THREADSEM::RemoveOld() {
  time_t now = time(nullptr);
  PTHREADSEM prev = this;
  while (prev->pNext) {
    PTHREADSEM p = prev->pNext;
    if (now > p->LastUsed + 300 && p->ThreadId == 0) {
      prev->pNext = p->pNext;
      delete p;
    } else {
      prev = p;
    }
  }
  return this;
}

void THREADSEM::Remove() {
  while (pNext) {
    PTHREADSEM p = pNext;
    pNext = p->pNext;
    delete p;
  }
}

SI4 THREADSEM::Count() {
  SI4 n = 0;
  for (PTHREADSEM p = this; p; p = p->pNext) n++;
  return n;
}
