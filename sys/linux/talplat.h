// The operating-system layer: threads, semaphores, the clock, dynamic
// loading and the list of local IPv4 interfaces. Nothing above this layer
// calls the system for these things itself.
#pragma once

#include <ifaddrs.h>
#include <pthread.h>
#include <semaphore.h>
#include <sys/types.h>

#include <atomic>
#include <cstdio>

#include "taltypes.h"

typedef pthread_t TTHREADID;
#define GETTHREADID pthread_self
#define GETLASTSOCKERROR errno

typedef UI4 (*PTHREADFN)(PVOID);

// A detached thread on a 64 KB stack with the host's signals blocked. It is
// never joined: others poll Ended.
class TALTHREAD {
 public:
  TALTHREAD(PTHREADFN fn, PVOID arg);
  ~TALTHREAD();

  pthread_t thread;
  pthread_attr_t threadAttr;
  SI4 lError;          // constructor's code, then the thread function's result
  PVOID pArg;
  std::atomic<UI4> Ended;  // non-zero once finished, or when it never started
  bool bStarted;       // the thread was created, so a cancel has a target
};
typedef TALTHREAD* PTALTHREAD;

typedef struct THREADSPEC {
  TALTHREAD* pt;
  PTHREADFN pf;
  PVOID pArg;
} THREADSPEC;

void block_sigs();
void* execthreadspec(void* spec);

enum SEMRETURN { SemOk = 0, SemReleased = 1, SemTimeout = 2, SemError = 3 };

class TALSEMA {
 public:
  TALSEMA(UI4 initial, UI4 max);
  ~TALSEMA();
  SEMRETURN wait();
  SEMRETURN release(UI4 n);

  std::atomic<UI4> count;  // informational only; no decision reads it
  sem_t sem;
  SI4 lError;
};
typedef TALSEMA* PTALSEMA;

// A semaphore whose wait gives up after a number of milliseconds.
class TALSEMATO : public TALSEMA {
 public:
  TALSEMATO(UI4 initial, UI4 max);
  using TALSEMA::wait;
  SEMRETURN wait(UI4 ms);
};
typedef TALSEMATO* PTALSEMATO;

// Wall clock in microseconds; the library's one clock. Exported.
PELKO_EXPORT F8 Micros();
void TALSleep(F8 micros);
// Memory for a block of any size, given back with BigFree (or free());
// null when there is none. Large blocks are placed for huge pages.
void* BigAlloc(size_t n);
// Gives a block back. A few large ones are kept for the next BigAlloc
// they fit, their pages still mapped; BigRelease lets them go.
void BigFree(void* p);
void BigRelease();
// getpid(), without a system call once the first call has run.
pid_t CurrentPid();
void InitTimer();
SI4 InitSocket(void** p);
SI4 WSAGetLastError();
SI4 GetDLLVersion(char* buf, int size);

// A shared object opened with dlopen, optionally from this library's own
// directory. Error text lands in the caller's 1024-byte buffer.
class TALLIB {
 public:
  TALLIB(SI4 ownDir, PCH1 name, PCH1 error);
  ~TALLIB();
  TALFPTR fptr(PCH1 name);

  void* hLib;
};
typedef TALLIB* PTALLIB;

// Walks the local interfaces that carry an IPv4 address.
class TALIpv4 {
 public:
  TALIpv4();
  ~TALIpv4();
  int Next();
  int Extract();

  struct ifaddrs* iflist;
  struct ifaddrs* ifcurr;
  char addr[46];
  char* pError;
  int error;
  int count;
  char* IfName;
  TALSOCKADDR* ip;
  char* IpAddr;
  int mask;
};

// Configuration reading. Each request opens and reads the file anew.
#define INISTRSIZE 132
#define MAXLINELEN 132
// One key of one section of an ini file into out, or def. With a null
// section the section names are listed, with a null key the section's keys.
UI4 PLATIni(PCH1 section, PCH1 key, PCH1 def, PCH1 out, UI4 size, PCH1 file);
UI4 GetKeys(FILE* file, PCH1 out, UI4 size);
UI4 PLATEnvironment(PCH1 name, PCH1 def, PCH1 out, UI4 size);
// The path of a configuration file: $HOME/.orvane/name, or name itself when
// it holds a '/'. Allocated; the caller frees it.
char* PrependConfigDir(char* name);
