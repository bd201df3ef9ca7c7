// Command mode through the real exports against plain TCP doing the same
// exchange in the same run: round trips (send, wait, respond, wait) against
// a C++ ping-pong, and against the same ping-pong with each socket in a
// thread of its own, as the library keeps it; one 64 MB array against a
// bulk copy. Prints the ratios; a ratio of 1 means as fast as plain TCP.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <semaphore.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

#include "barewait.h"
#include "host/library.h"
#include "host/zblock.h"

namespace {

using host::Value;
using Clock = std::chrono::steady_clock;

int kTrips = 3000;
// A command's header on the wire.
const size_t kHeader = 115;
const size_t kBulk = 64u << 20;
const int kBulkRuns = 3;
const int kIdle = 400;

double Seconds(Clock::time_point a, Clock::time_point b) { return std::chrono::duration<double>(b - a).count(); }

Value Opt(const char* name, Value v) { return Value::Nested({Value::Text(name), std::move(v)}); }

// Two connected loopback TCP sockets, with no delay on either.
void TcpPair(int* a, int* b) {
  int l = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr = {};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bind(l, (sockaddr*)&addr, sizeof addr);
  listen(l, 1);
  socklen_t len = sizeof addr;
  getsockname(l, (sockaddr*)&addr, &len);
  *a = socket(AF_INET, SOCK_STREAM, 0);
  if (connect(*a, (sockaddr*)&addr, sizeof addr) != 0) abort();
  *b = accept(l, nullptr, nullptr);
  close(l);
  int on = 1;
  setsockopt(*a, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  setsockopt(*b, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

bool ReadAll(int fd, char* p, size_t n) {
  while (n) {
    ssize_t r = read(fd, p, n);
    if (r <= 0) return false;
    p += r;
    n -= (size_t)r;
  }
  return true;
}

void WriteAll(int fd, const char* p, size_t n) {
  while (n) {
    ssize_t r = write(fd, p, n);
    if (r <= 0) abort();
    p += r;
    n -= (size_t)r;
  }
}

// The plain exchange: a request of the same size as ours, header included,
// and the same answer back.
double PlainTrips(size_t size) {
  int a, b;
  TcpPair(&a, &b);
  std::thread server([&] {
    std::vector<char> buf(size);
    while (ReadAll(b, buf.data(), size)) WriteAll(b, buf.data(), size);
  });
  std::vector<char> buf(size, 'x');
  auto t0 = Clock::now();
  for (int i = 0; i < kTrips; i++) {
    WriteAll(a, buf.data(), size);
    ReadAll(a, buf.data(), size);
  }
  double s = Seconds(t0, Clock::now());
  close(a);
  server.join();
  close(b);
  return kTrips / s;
}

// The same exchange with the rule the library keeps: only one thread per
// side touches the socket. The host thread hands each message to it with a
// word on a socket pair (the wake-up), and gets each answer back through a
// semaphore; the socket thread selects over both. This is the least any
// design with that rule pays; the library's figure is set against it too.
struct Side {
  int sock = -1;
  int pair[2] = {-1, -1};
  std::vector<int> idle;  // sockets watched in every select that never speak
  sem_t ready;
  Side() {
    socketpair(AF_UNIX, SOCK_STREAM, 0, pair);
    sem_init(&ready, 0, 0);
  }
  ~Side() {
    close(pair[0]);
    close(pair[1]);
    for (int fd : idle) close(fd);
    sem_destroy(&ready);
  }
  // The socket's thread: sends on a wake-up, hands over what arrives.
  // With rounds it keeps the library's rounds: a message goes out in the
  // round after its wake-up, once a select has found the socket writable,
  // and one comes in by two reads in two rounds, its 115-byte header into
  // a buffer of that size and then its body; and the host wakes the
  // thread once more after taking each message, as a wait does to hand the
  // taken object back (word 1: nothing to send).
  void Run(size_t size, bool rounds) {
    std::vector<char> buf(size, 'x');
    bool pending = false;
    size_t got = 0;
    for (;;) {
      fd_set in, out;
      FD_ZERO(&in);
      FD_ZERO(&out);
      FD_SET(pair[0], &in);
      FD_SET(sock, &in);
      int top = std::max(pair[0], sock);
      for (int fd : idle) {
        FD_SET(fd, &in);
        top = std::max(top, fd);
      }
      if (pending) FD_SET(sock, &out);
      if (select(top + 1, &in, &out, nullptr, nullptr) <= 0) return;
      if (FD_ISSET(sock, &out)) {
        WriteAll(sock, buf.data(), size);
        pending = false;
      }
      if (FD_ISSET(pair[0], &in)) {
        int word;
        if (read(pair[0], &word, sizeof word) != sizeof word || word < 0) return;
        if (word == 0 && rounds) pending = true;
        else if (word == 0) WriteAll(sock, buf.data(), size);
      }
      if (!FD_ISSET(sock, &in)) continue;
      if (!rounds) {
        if (!ReadAll(sock, buf.data(), size)) return;
        sem_post(&ready);
        continue;
      }
      size_t want = got < kHeader ? kHeader - got : size - got;
      ssize_t r = read(sock, buf.data() + got, want);
      if (r <= 0) return;
      got += (size_t)r;
      if (got == size) {
        got = 0;
        sem_post(&ready);
      }
    }
  }
  void Wake(int word) {
    if (write(pair[1], &word, sizeof word) != sizeof word) abort();
  }
};

double HandedTrips(size_t size, bool rounds, int idle = 0) {
  Side client, server;
  TcpPair(&client.sock, &server.sock);
  for (int i = 0; i < idle; i++) {
    client.idle.push_back(-1);
    server.idle.push_back(-1);
    TcpPair(&client.idle.back(), &server.idle.back());
  }
  std::thread ioC([&] { client.Run(size, rounds); }), ioS([&] { server.Run(size, rounds); });
  std::thread answerer([&] {
    for (int i = 0; i < kTrips; i++) {
      sem_wait(&server.ready);
      if (rounds) server.Wake(1);
      server.Wake(0);
    }
  });
  auto t0 = Clock::now();
  for (int i = 0; i < kTrips; i++) {
    client.Wake(0);
    sem_wait(&client.ready);
    if (rounds) client.Wake(1);
  }
  double s = Seconds(t0, Clock::now());
  answerer.join();
  client.Wake(-1);
  server.Wake(-1);
  ioC.join();
  ioS.join();
  close(client.sock);
  close(server.sock);
  return kTrips / s;
}

// The plain exchange receives into a fresh block each time, as a host
// receives a new array.
double PlainBulk() {
  double best = 1e9;
  std::vector<char> src(kBulk, 'y');
  for (int run = 0; run < kBulkRuns; run++) {
    int a, b;
    TcpPair(&a, &b);
    auto t0 = Clock::now();
    std::thread writer([&] { WriteAll(a, src.data(), kBulk); });
    char* dst = (char*)malloc(kBulk);
    ReadAll(b, dst, kBulk);
    free(dst);
    best = std::min(best, Seconds(t0, Clock::now()));
    writer.join();
    close(a);
    close(b);
  }
  return kBulk / best / 1e6;
}

struct Roots {
  host::Library& lib;
  std::string srv = "BENCHSRV", clt = "BENCHCLT", port;
  explicit Roots(host::Library& l) : lib(l) {
    if (lib.Init(srv, lib.path()) || lib.Init(clt, lib.path())) abort();
    lib.Call(srv, "ASrv", Value::Nested({Opt("Name", Value::Text("S")), Opt("Address", Value::Text("127.0.0.1")),
                                         Opt("Port", Value::Text("0"))}));
    host::CallResult r = lib.Call(srv, "AGetProp", Value::Nested({Value::Text("S"), Value::Text("LocalAddr")}));
    port = std::to_string((int)r.result[1][3].intAt(0));
    lib.Call(clt, "AClt", Value::Nested({Opt("Name", Value::Text("C")), Opt("Address", Value::Text("127.0.0.1")),
                                         Opt("Port", Value::Text(port))}));
    if (Event(srv, "").first != "Connect") abort();
  }
  ~Roots() {
    lib.Call(clt, "AClose", Value::Text("."));
    lib.Call(srv, "AClose", Value::Text("."));
  }
  // One more client that stays idle; it waits for the server's accept, as
  // the listener's backlog is short.
  void Idle(int i) {
    lib.Call(clt, "AClt", Value::Nested({Opt("Name", Value::Text("I" + std::to_string(i))),
                                         Opt("Address", Value::Text("127.0.0.1")), Opt("Port", Value::Text(port))}));
    if (Event(srv, "").first != "Connect") abort();
  }
  std::pair<std::string, std::string> Event(const std::string& root, const std::string& name) {
    BareEvent e = BareWait(lib, root, name);
    return {e.event, e.name};
  }
  void Dyadic(const std::string& root, const char* verb, host::ZBlock& left, const std::string& name, int flag) {
    host::ZBlock right = host::Encode(Value::Nested({Value::Text(name), Value::Int(flag)}));
    uint32_t* pr = right.words();
    uint32_t* pl = left.words();
    lib.raw().Call((char*)root.c_str(), (char*)verb, &pr, &pl);
    lib.raw().FreeUsedOrvaneResult(pr);
  }
};

double CommandTrips(Roots& r, host::ZBlock& value) {
  std::thread server([&] {
    for (int i = 0; i < kTrips; i++) {
      auto e = r.Event(r.srv, "");
      if (e.first != "Receive") abort();
      r.Dyadic(r.srv, "ARespondZ", value, e.second, 1);
    }
  });
  auto t0 = Clock::now();
  for (int i = 0; i < kTrips; i++) {
    r.Dyadic(r.clt, "ASendZ", value, "C", 0);
    if (r.Event(r.clt, "C").first != "Receive") abort();
  }
  double s = Seconds(t0, Clock::now());
  server.join();
  return kTrips / s;
}

double CommandBulk(Roots& r) {
  std::vector<uint8_t> bytes(kBulk, 7);
  host::ZBlock big = host::Encode(Value::Raw(host::Type::Int8, {kBulk}, bytes));
  double best = 1e9;
  for (int run = 0; run < kBulkRuns; run++) {
    auto t0 = Clock::now();
    r.Dyadic(r.clt, "ASendZ", big, "C", 2);  // no answer wanted
    if (r.Event(r.srv, "").first != "Receive") abort();
    best = std::min(best, Seconds(t0, Clock::now()));
  }
  return kBulk / best / 1e6;
}

}  // namespace

int main(int argc, char** argv) {
  std::string error;
  std::unique_ptr<host::Library> lib = host::Library::Open(host::FindLibrary(PELKO_BUILT_LIBRARY), &error);
  if (!lib) {
    fprintf(stderr, "cannot load the library: %s\n", error.c_str());
    return 1;
  }
  Roots roots(*lib);
  host::ZBlock small = host::Encode(Value::Ints({1, 2, 3, 4}));
  size_t wire = kHeader + small.size();
  // "command_bench trips N" times only N command round trips, and
  // "command_bench rounds N" only the plain ones in the library's rounds,
  // each alone for a profile; a third word "crowded" puts the idle
  // connections beside them.
  if (argc >= 3) {
    kTrips = atoi(argv[2]);
    bool rounds = std::string(argv[1]) == "rounds", crowded = argc > 3;
    if (crowded && !rounds)
      for (int i = 0; i < kIdle; i++) roots.Idle(i);
    printf("round trips/s   %s %10.0f\n", rounds ? "in rounds" : "command mode",
           rounds ? HandedTrips(wire, true, crowded ? kIdle : 0) : CommandTrips(roots, small));
    return 0;
  }

  double plainTrips = PlainTrips(wire);
  double handedTrips = HandedTrips(wire, false);
  double roundTrips = HandedTrips(wire, true);
  double cmdTrips = CommandTrips(roots, small);
  printf("round trips/s   plain TCP %10.0f   command mode %10.0f   plain/command %.2f\n", plainTrips, cmdTrips,
         plainTrips / cmdTrips);
  printf("round trips/s   plain TCP, socket in its own thread %10.0f   plain/that %.2f   that/command %.2f\n",
         handedTrips, plainTrips / handedTrips, handedTrips / cmdTrips);
  printf("round trips/s   plain TCP, socket in its own thread, in the library's rounds %10.0f   plain/that %.2f   "
         "that/command %.2f\n",
         roundTrips, plainTrips / roundTrips, roundTrips / cmdTrips);
  // The same in rounds with idle connections: each select hands the
  // kernel every socket, as the library's does. Before the library's idle
  // connections, to stay below select's limit of descriptors.
  double crowdedRounds = HandedTrips(wire, true, kIdle);
  double plainBulk = PlainBulk();
  double cmdBulk = CommandBulk(roots);
  printf("64 MB, MB/s     plain TCP %10.0f   command mode %10.0f   plain/command %.2f\n", plainBulk, cmdBulk,
         plainBulk / cmdBulk);
  // The same round trips with idle connections beside the busy one: each
  // pass of both work threads walks and selects over all of them.
  for (int i = 0; i < kIdle; i++) roots.Idle(i);
  double crowdedTrips = CommandTrips(roots, small);
  printf("round trips/s   command mode with %d idle connections %10.0f   alone/crowded %.2f\n", kIdle,
         crowdedTrips, cmdTrips / crowdedTrips);
  printf("round trips/s   plain TCP in the library's rounds with %d idle connections %10.0f   alone/crowded %.2f   "
         "that/command %.2f\n",
         kIdle, crowdedRounds, roundTrips / crowdedRounds, crowdedRounds / crowdedTrips);
  return 0;
}
