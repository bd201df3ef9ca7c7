// CPU time of an idle root's work thread, against a plain thread that
// sleeps in select for the same time in the same run. Usage:
// idle_bench [seconds], default 10.
#include <dirent.h>
#include <sys/select.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>
#include <thread>

#include "aplrpc.h"
#include "root.h"

static std::set<int> Tasks() {
  std::set<int> s;
  DIR* d = opendir("/proc/self/task");
  while (dirent* e = readdir(d))
    if (e->d_name[0] != '.') s.insert(atoi(e->d_name));
  closedir(d);
  return s;
}

// CPU time one thread has run, in nanoseconds, from the scheduler's count.
static long long RunNs(int tid) {
  char path[64];
  snprintf(path, sizeof(path), "/proc/self/task/%d/schedstat", tid);
  FILE* f = fopen(path, "r");
  if (!f) return -1;
  long long ns = -1;
  if (fscanf(f, "%lld", &ns) != 1) ns = -1;
  fclose(f);
  return ns;
}

int main(int argc, char** argv) {
  int seconds = argc > 1 ? atoi(argv[1]) : 10;
  std::set<int> before = Tasks();
  if (Init((char*)"idle", (char*)"./") != 0) return 1;
  int work = 0;
  for (int t : Tasks())
    if (!before.count(t)) work = t;
  std::set<int> withWork = Tasks();
  std::thread base([seconds] {
    timeval tv = {seconds + 1, 0};
    select(0, nullptr, nullptr, nullptr, &tv);
  });
  usleep(100000);
  int baseTid = 0;
  for (int t : Tasks())
    if (!withWork.count(t)) baseTid = t;
  long long w0 = RunNs(work), b0 = RunNs(baseTid);
  sleep((unsigned)seconds);
  long long w1 = RunNs(work), b1 = RunNs(baseTid);
  base.join();
  double workUs = (double)(w1 - w0) / 1e3, baseUs = (double)(b1 - b0) / 1e3;
  printf("idle %d s: work thread %.1f us CPU, select baseline %.1f us CPU", seconds, workUs,
         baseUs);
  if (baseUs > 0) printf(", ratio %.2f", workUs / baseUs);
  printf("\n");
  RPCUnload(Root("idle"));
  return 0;
}
