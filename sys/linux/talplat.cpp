// Threads, semaphores, time, dynamic loading and interface listing on Linux.
#include "talplat.h"

#include <arpa/inet.h>
#include <dlfcn.h>
#include <netinet/in.h>
#include <pthread.h>
#include <sys/mman.h>
#include <signal.h>
#include <unistd.h>

#include <malloc.h>

#include <atomic>
#include <mutex>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <sys/time.h>

#include "log.h"
#include "pelkoerr.h"

#define MODULE 0x00000010

// The library's exported initialiser: its address tells dladdr which file
// this library was loaded from.
extern "C" SI4 Init(char* rootname, char* path);

void block_sigs() {
  static const int sigs[] = {SIGPWR, SIGALRM, SIGQUIT, SIGINT, SIGHUP, SIGPIPE};
  for (int s : sigs) {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, s);
    sigprocmask(SIG_BLOCK, &set, nullptr);
  }
}

void* execthreadspec(void* p) {
  THREADSPEC* spec = (THREADSPEC*)p;
  block_sigs();
  TALTHREAD* pt = spec->pt;
  PTHREADFN pf = spec->pf;
  PVOID arg = spec->pArg;
  free(spec);
  pt->lError = pf(arg);
  pt->Ended = 1;
  return nullptr;
}

TALTHREAD::TALTHREAD(PTHREADFN fn, PVOID arg)
    : thread(), threadAttr(), lError(0), pArg(arg), Ended(0), bStarted(false) {
  THREADSPEC* spec = (THREADSPEC*)calloc(1, sizeof(THREADSPEC));
  if (!spec) {
    // Nothing was started: say so, so that no one waits for it or cancels it.
    lError = ERR_MEMORY_ALLOC;
    Ended = 1;
    return;
  }
  spec->pf = fn;
  spec->pArg = arg;
  spec->pt = this;
  pthread_attr_init(&threadAttr);
  pthread_attr_setstacksize(&threadAttr, 65536);
  pthread_attr_setdetachstate(&threadAttr, PTHREAD_CREATE_DETACHED);
  // The new thread may end and set Ended before create returns, so Ended
  // is written only on failure here, never reset after the start.
  if (pthread_create(&thread, &threadAttr, execthreadspec, spec) != 0) {
    lError = ERR_NEW_THREAD;
    free(spec);
    Ended = 1;
  } else {
    bStarted = true;
  }
  pthread_attr_destroy(&threadAttr);
}

TALTHREAD::~TALTHREAD() {
  if (bStarted && !Ended) pthread_cancel(thread);
}

TALSEMA::TALSEMA(UI4 initial, UI4 /*max: no limit is placed*/) : count(initial), sem(), lError(0) {
  if (sem_init(&sem, 0, initial) == -1) lError = ERR_NEW_SEMAPHORE;
}

TALSEMA::~TALSEMA() { sem_destroy(&sem); }

SEMRETURN TALSEMA::wait() {
  if (sem_wait(&sem) != 0) return SemError;
  count--;
  return SemReleased;
}

SEMRETURN TALSEMA::release(UI4 n) {
  for (SI4 left = (SI4)n; left > 0; left--) {
    if (sem_post(&sem) != 0) return SemError;
    count++;
  }
  return SemOk;
}

TALSEMATO::TALSEMATO(UI4 initial, UI4 max) : TALSEMA(initial, max) {}

SEMRETURN TALSEMATO::wait(UI4 ms) {
  struct timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  ts.tv_sec += ms / 1000;
  ts.tv_nsec += (long)(ms % 1000) * 1000000L;
  while (ts.tv_nsec >= 1000000000L) {
    ts.tv_nsec = (long)((F8)ts.tv_nsec - 1e9);
    ts.tv_sec += 1;
  }
  if (sem_timedwait(&sem, &ts) != 0) return errno == ETIMEDOUT ? SemTimeout : SemError;
  count--;
  return SemReleased;
}

F8 Micros() {
  struct timeval tv;
  gettimeofday(&tv, nullptr);
  return (F8)tv.tv_sec * 1e6 + (F8)tv.tv_usec;
}

void TALSleep(F8 micros) {
  struct timespec ts;
  ts.tv_sec = (time_t)floor(micros / 1e6);
  ts.tv_nsec = (long)((F8)(UI4)fmod(micros, 1e6) * 1000.0);
  nanosleep(&ts, nullptr);
}

void InitTimer() {}

SI4 InitSocket(void** p) {
  *p = nullptr;
  return 0;
}

SI4 WSAGetLastError() { return errno; }

static const char DLLBANNER[] =
    "Pelko version 3.1.1479.0 network library for APL, x86-64 ";

SI4 GetDLLVersion(char* buf, int /*size: callers give at least 58 bytes*/) {
  memcpy(buf, DLLBANNER, sizeof(DLLBANNER));
  return 0;
}

TALLIB::TALLIB(SI4 ownDir, PCH1 name, PCH1 error) : hLib(nullptr) {
  char path[512];
  memset(path, 0, sizeof(path));
  if (ownDir) {
    LOG(1, ("Loading %s ", name));
    Dl_info info;
    int ret = dladdr((void*)&Init, &info);
    if (ret && info.dli_fname) {
      LOG(2, ("Path=%s", info.dli_fname));
      strncpy(path, info.dli_fname, sizeof(path) - 1);
      char* slash = strrchr(path, '/');
      if (slash)
        slash[1] = 0;
      else
        path[0] = 0;
    }
    LOG(3, ("ret %d ", ret));
    LOG(3, ("%p %p  ", info.dli_fname, info.dli_fbase));
  }
  strncat(path, name, sizeof(path) - strlen(path) - 1);
  LOG(1, ("Trying to load %s", path));
  // The object stays mapped after dlclose: the companion's libraries keep
  // thread-local data and exit handlers that must not point into unmapped
  // code once it is closed.
  hLib = dlopen(path, RTLD_LAZY | RTLD_NODELETE);
  if (hLib) {
    error[0] = 0;
  } else {
    strncpy(error, dlerror(), 1023);
    error[1023] = 0;
  }
}

TALLIB::~TALLIB() {
  if (hLib) dlclose(hLib);
  hLib = nullptr;
}

TALFPTR TALLIB::fptr(PCH1 name) { return (TALFPTR)dlsym(hLib, name); }

static bool IsIpv4(struct ifaddrs* p) {
  return p->ifa_addr && p->ifa_addr->sa_family == AF_INET;
}

TALIpv4::TALIpv4()
    : iflist(nullptr), ifcurr(nullptr), addr(), pError(nullptr), error(0), count(0),
      IfName(nullptr), ip(nullptr), IpAddr(nullptr), mask(0) {
  if (getifaddrs(&iflist) < 0) {
    error = errno;
    iflist = nullptr;
    pError = strdup("Error on getting available IP!\n");
    return;
  }
  for (struct ifaddrs* p = iflist; p; p = p->ifa_next) {
    if (!IsIpv4(p)) continue;
    if (!ifcurr) ifcurr = p;
    count++;
  }
}

TALIpv4::~TALIpv4() {
  free(pError);
  if (iflist) freeifaddrs(iflist);
}

int TALIpv4::Next() {
  struct ifaddrs* p = ifcurr ? ifcurr->ifa_next : iflist;
  for (; p; p = p->ifa_next) {
    if (IsIpv4(p)) {
      ifcurr = p;
      return 0;
    }
  }
  ifcurr = nullptr;
  return ERR_NO_DATA;
}

int TALIpv4::Extract() {
  if (!ifcurr) return 0;
  IfName = ifcurr->ifa_name;
  ip = (TALSOCKADDR*)ifcurr->ifa_addr;
  IpAddr = addr;
  const void* src = ifcurr->ifa_addr->sa_family == AF_INET6
                        ? (const void*)&((sockaddr_in6*)ifcurr->ifa_addr)->sin6_addr
                        : (const void*)&((sockaddr_in*)ifcurr->ifa_addr)->sin_addr;
  inet_ntop(ifcurr->ifa_addr->sa_family, src, addr, sizeof(addr));
  UI4 word = 0;
  if (ifcurr->ifa_netmask) word = ntohl(((sockaddr_in*)ifcurr->ifa_netmask)->sin_addr.s_addr);
  mask = 0;
  while (word) {
    word <<= 1;
    mask++;
  }
  return 0;
}

// The process id, kept up to date by a fork handler: the work thread asks
// for it after every select, and a system call each round would be its
// most frequent one.
static std::atomic<pid_t> processId{0};

static void ForkedChild() { processId.store(getpid(), std::memory_order_relaxed); }

pid_t CurrentPid() {
  static const bool registered = [] {
    processId.store(getpid(), std::memory_order_relaxed);
    return pthread_atfork(nullptr, nullptr, ForkedChild) == 0;
  }();
  return registered ? processId.load(std::memory_order_relaxed) : getpid();
}

// Blocks of 2 MB and more lie on 2 MB boundaries and are offered huge pages:
// a bulk transfer's buffer is touched once from end to end and then given
// back, and with 4 KB pages the faults of that first touch cost more than
// the copy of the bytes.
#define HUGE_BLOCK (2u << 20)

// A bulk transfer that repeats takes a fresh block each time, and a fresh
// block's pages are cleared by the system on their first touch: as costly
// as copying the bytes. So the last few large blocks given back are kept,
// and a block that fits, without wasting more than half of it, is handed
// out again with its pages in place. The system may still take the pages
// of a kept block when it runs short (MADV_FREE); they come back cleared.
#define KEPT_BLOCKS 4
#define KEPT_MAX (256u << 20)

namespace {
struct Kept {
  void* p;
  size_t size;
};
std::mutex keptLock;
Kept kept[KEPT_BLOCKS];
}  // namespace

static void* TakeKept(size_t n) {
  std::lock_guard<std::mutex> g(keptLock);
  for (Kept& k : kept) {
    if (!k.p || k.size < n || k.size / 2 > n) continue;
    void* p = k.p;
    k = Kept{nullptr, 0};
    return p;
  }
  return nullptr;
}

void* BigAlloc(size_t n) {
  if (n == 0) n = 1;
  if (n < HUGE_BLOCK) return malloc(n);
  void* p = TakeKept(n);
  if (p) return p;
  if (posix_memalign(&p, HUGE_BLOCK, n) != 0) return nullptr;
  madvise(p, n, MADV_HUGEPAGE);
  return p;
}

void BigFree(void* p) {
  size_t size = p ? malloc_usable_size(p) : 0;
  if (size < HUGE_BLOCK || size > KEPT_MAX || ((uintptr_t)p & (HUGE_BLOCK - 1)) != 0) {
    free(p);
    return;
  }
  madvise(p, size, MADV_FREE);
  void* out = p;
  {
    std::lock_guard<std::mutex> g(keptLock);
    // An empty place, else the smallest kept block gives way.
    Kept* slot = &kept[0];
    for (Kept& k : kept) {
      if (!k.p || k.size < slot->size) slot = &k;
      if (!k.p) break;
    }
    if (!slot->p || slot->size < size) {
      out = slot->p;
      *slot = Kept{p, size};
    }
  }
  free(out);
}

void BigRelease() {
  std::lock_guard<std::mutex> g(keptLock);
  for (Kept& k : kept) {
    free(k.p);
    k = Kept{nullptr, 0};
  }
}
