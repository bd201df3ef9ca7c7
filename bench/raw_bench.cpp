// Raw mode through the real exports against plain TCP moving the same bytes
// in the same run: 64 MB sent by the library to a plain reader, and 64 MB
// written by a plain peer and taken up block by block by the host. Prints
// the ratios; 1 means as fast as plain TCP.
#include <cstdio>
#include <cstdlib>
#include <thread>
#include <vector>

#include "barewait.h"
#include "host/library.h"
#include "host/zblock.h"
#include "loopback.h"

namespace {

using namespace loopback;

const size_t kBytes = 64u << 20;
const int kRuns = 3;
const int kBlock = 1 << 20;

// Megabytes a second of the best of kRuns, each timing one transfer.
template <class F>
double Best(F transfer) {
  return kBytes / Seconds(kRuns, transfer)[0] / 1e6;
}

// The library, opened as the interpreter opens it, and one root.
struct Session {
  std::unique_ptr<host::Library> owned;
  host::Library& lib;
  std::string root = "RAWBENCH";
  explicit Session(std::unique_ptr<host::Library> l) : owned(std::move(l)), lib(*owned) {
    if (lib.Init(root, lib.path())) abort();
  }
  ~Session() { lib.Call(root, "AClose", Value::Text(".")); }
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
  if (Code(r)) abort();
  int peer = accept(l, nullptr, nullptr);
  std::vector<uint8_t> bytes(kBytes, 7);
  host::ZBlock big = host::Encode(Value::Raw(host::Type::Int8, {kBytes}, bytes));
  double mb = Best([&] {
    SendBlock(s.lib, s.root, "OUT", big);
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
  if (Code(r)) abort();
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
