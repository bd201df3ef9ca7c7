// The parking places of host threads. A root keeps a list of reusable timed
// semaphores; a host thread that waits on an object takes a free one, parks
// on it, and gives it back. Old free ones are aged out by the work thread.
#pragma once

#include <atomic>
#include <ctime>

#include "talplat.h"

struct THREADSEM;
typedef THREADSEM* PTHREADSEM;

struct THREADSEM {
  THREADSEM(PTHREADSEM next, TTHREADID owner);
  ~THREADSEM();

  PTHREADSEM FindFree();
  SEMRETURN WaitSem(UI4 ms);
  void ReleaseSem();
  void Return();
  PTHREADSEM RemoveOld();
  void Remove();
  SI4 Count();

  PTHREADSEM pNext;
  PTALSEMATO pSem;
  PTALSEMA pMutex;  // unused
  std::atomic<TTHREADID> ThreadId;  // 0 when free; Return runs unlocked
  time_t LastUsed;
  UI4 count;
  std::atomic<SI4> Waiting;
};
