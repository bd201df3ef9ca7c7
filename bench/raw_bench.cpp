// Raw mode through the real exports against plain TCP moving the same bytes
// in the same run: 64 MB sent by the library to a plain reader, and 64 MB
// written by a plain peer and taken up block by block by the host. Prints
// the ratios; 1 means as fast as plain TCP.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>
#include <vector>

#include "barewait.h"
#include "host/library.h"
#include "host/zblock.h"

namespace {

using host::Value;
using Clock = std::chrono::steady_clock;

const size_t kBytes = 64u << 20;
const int kRuns = 3;
const int kBlock = 1 << 20;

sockaddr_in Loopback(int port) {
  sockaddr_in a = {};
  a.sin_family = AF_INET;
  a.sin_port = htons((uint16_t)port);
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return a;
}

// A listening loopback socket and its port.
int Listen(int* port) {
  int l = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a = Loopback(0);
  bind(l, (sockaddr*)&a, sizeof a);
  listen(l, 4);
  socklen_t n = sizeof a;
  getsockname(l, (sockaddr*)&a, &n);
  *port = ntohs(a.sin_port);
  return l;
}

int Dial(int port) {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a = Loopback(port);
  if (connect(fd, (sockaddr*)&a, sizeof a) != 0) abort();
  return fd;
}

// Reads until n bytes have come, in pieces of at most one block.
void Drain(int fd, size_t n) {
  std::vector<char> buf(kBlock);
  while (n) {
    ssize_t r = read(fd, buf.data(), std::min(n, buf.size()));
    if (r <= 0) abort();
    n -= (size_t)r;
  }
}

void Pour(int fd, const std::vector<char>& src) {
  for (size_t done = 0; done < src.size();) {
    ssize_t r = write(fd, src.data() + done, src.size() - done);
    if (r <= 0) abort();
    done += (size_t)r;
  }
}

// Megabytes a second of the best of kRuns, each timing one transfer.
template <class F>
double Best(F transfer) {
  double best = 1e9;
  for (int run = 0; run < kRuns; run++) {
    auto t0 = Clock::now();
    transfer();
    best = std::min(best, std::chrono::duration<double>(Clock::now() - t0).count());
  }
  return kBytes / best / 1e6;
}

Value Opt(const char* name, Value v) { return Value::Nested({Value::Text(name), std::move(v)}); }

// The library, opened as the interpreter opens it, and one root.
struct Session {
  std::unique_ptr<host::Library> owned;
  host::Library& lib;
  std::string root = "RAWBENCH";
  explicit Session(std::unique_ptr<host::Library> l) : owned(std::move(l)), lib(*owned) {
    if (lib.Init(root, lib.path())) abort();
  }
  ~Session() { lib.Call(root, "AClose", Value::Text(".")); }
  int32_t Code(const host::CallResult& r) {
    return (int32_t)(r.result.isNested() ? r.result[0].intAt(0) : r.result.intAt(0));
  }
  std::string Event(const std::string& name, uint64_t* count) {
    BareEvent e = BareWait(lib, root, name);
    *count = e.count;
    return e.event;
  }
};

// The library sends: one raw send of the whole block to a plain reader.
double LibrarySends(Session& s) {
  int port;
  int l = Listen(&port);
  host::CallResult r = s.lib.Call(s.root, "AClt", Value::Nested({Opt("Name", Value::Text("OUT")), Opt("Address", Value::Text("127.0.0.1")),
                                                                 Opt("Port", Value::Text(std::to_string(port))), Opt("Mode", Value::Text("raw"))}));
  if (s.Code(r)) abort();
  int peer = accept(l, nullptr, nullptr);
  std::vector<uint8_t> bytes(kBytes, 7);
  host::ZBlock big = host::Encode(Value::Raw(host::Type::Int8, {kBytes}, bytes));
  double mb = Best([&] {
    host::ZBlock right = host::Encode(Value::Nested({Value::Text("OUT"), Value::Int(0)}));
    uint32_t* pr = right.words();
    uint32_t* pl = big.words();
    s.lib.raw().Call((char*)s.root.c_str(), (char*)"ASendZ", &pr, &pl);
    s.lib.raw().FreeUsedOrvaneResult(pr);
    Drain(peer, kBytes);
  });
  close(peer);
  close(l);
  return mb;
}

// The library receives: a plain writer pours into a raw connection whose
// blocks the host takes as they come.
double LibraryReceives(Session& s) {
  host::CallResult r = s.lib.Call(s.root, "ASrv", Value::Nested({Opt("Name", Value::Text("IN")), Opt("Address", Value::Text("127.0.0.1")),
                                                                 Opt("Port", Value::Text("0")), Opt("Mode", Value::Text("raw")),
                                                                 Opt("BufferSize", Value::Int(kBlock))}));
  if (s.Code(r)) abort();
  r = s.lib.Call(s.root, "AGetProp", Value::Nested({Value::Text("IN"), Value::Text("LocalAddr")}));
  int peer = Dial((int)r.result[1][3].intAt(0));
  uint64_t n = 0;
  if (s.Event("IN", &n) != "Connect") abort();
  std::vector<char> src(kBytes, 'z');
  double mb = Best([&] {
    std::thread writer([&] { Pour(peer, src); });
    for (uint64_t got = 0; got < kBytes; got += n)
      if (s.Event("IN", &n) != "Block") abort();
    writer.join();
  });
  close(peer);
  return mb;
}

double Plain() {
  int port;
  int l = Listen(&port);
  int a = Dial(port);
  int b = accept(l, nullptr, nullptr);
  std::vector<char> src(kBytes, 'y');
  double mb = Best([&] {
    std::thread writer([&] { Pour(a, src); });
    Drain(b, kBytes);
    writer.join();
  });
  close(a);
  close(b);
  close(l);
  return mb;
}

}  // namespace

int main() {
  std::string error;
  std::unique_ptr<host::Library> lib = host::Library::Open(host::FindLibrary(PELKO_BUILT_LIBRARY), &error);
  if (!lib) return fprintf(stderr, "%s\n", error.c_str()), 1;
  Session s(std::move(lib));
  double plain = Plain();
  double sends = LibrarySends(s);
  double receives = LibraryReceives(s);
  printf("plain TCP           %8.0f MB/s\n", plain);
  printf("raw mode, sending   %8.0f MB/s  ratio %.2f\n", sends, sends / plain);
  printf("raw mode, receiving %8.0f MB/s  ratio %.2f\n", receives, receives / plain);
  return 0;
}
