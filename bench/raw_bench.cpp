// Raw and block mode through the real exports against plain TCP moving the
// same bytes in the same run: 64 MB sent by the library to a plain reader,
// and 64 MB written by a plain peer and taken up block by block by the
// host; and plain TCP sending under the library's rule of one select and at
// most 16 KB a send. Prints the ratios of the medians; 1 means as fast as
// plain TCP.
#include <arpa/inet.h>
#include <sys/select.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
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
const int kRuns = 5;
const int kBlock = 1 << 20;
// Block mode's header: the length, this header included, and the magic.
const uint32_t kMagic = 0x424C4B21;
const size_t kHeader = 8;

// Megabytes a second of the median of kRuns, each timing one transfer.
template <class F>
double Median(F transfer) {
  return kBytes / Seconds(kRuns, transfer)[kRuns / 2] / 1e6;
}

bool IsBlock(const char* mode) { return mode[0] == 'b'; }

std::vector<Value> ModeOptions(const char* mode) {
  std::vector<Value> o = {Opt("Mode", Value::Text(mode))};
  if (IsBlock(mode)) o.push_back(Opt("Magic", Value::Int((int32_t)kMagic)));
  return o;
}

// What a block-mode peer writes: kBytes in blocks of kBlock, headers
// included.
std::vector<char> Blocks() {
  std::vector<char> src(kBytes, 'z');
  for (size_t at = 0; at < kBytes; at += kBlock) {
    uint32_t words[2] = {htonl(kBlock), htonl(kMagic)};
    memcpy(&src[at], words, sizeof words);
  }
  return src;
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

// The library sends: one send of the whole block to a plain reader.
double LibrarySends(Session& s, const char* mode) {
  int port;
  int l = Listen(&port);
  std::string name = std::string("OUT") + mode;
  std::vector<Value> opts = {Opt("Name", Value::Text(name)), Opt("Address", Value::Text("127.0.0.1")),
                             Opt("Port", Value::Text(std::to_string(port)))};
  for (Value& v : ModeOptions(mode)) opts.push_back(v);
  host::CallResult r = s.lib.Call(s.root, "AClt", Value::Nested(opts));
  if (Code(r)) abort();
  int peer = accept(l, nullptr, nullptr);
  std::vector<uint8_t> bytes(kBytes, 7);
  // Text mode sends characters, as a host's text is; the others bytes.
  bool text = std::string(mode) == "text";
  host::ZBlock big = host::Encode(Value::Raw(text ? host::Type::Uni8 : host::Type::Int8, {kBytes}, bytes));
  double mb = Median([&] {
    SendBlock(s.lib, s.root, name.c_str(), big);
    Drain(peer, kBytes + (IsBlock(mode) ? kHeader : 0));
  });
  close(peer);
  close(l);
  return mb;
}

// The library receives: a plain writer pours into a connection whose
// blocks the host takes as they come.
double LibraryReceives(Session& s, const char* mode) {
  std::string name = std::string("IN") + mode;
  std::vector<Value> opts = {Opt("Name", Value::Text(name)), Opt("Address", Value::Text("127.0.0.1")),
                             Opt("Port", Value::Text("0")), Opt("BufferSize", Value::Int(kBlock))};
  for (Value& v : ModeOptions(mode)) opts.push_back(v);
  host::CallResult r = s.lib.Call(s.root, "ASrv", Value::Nested(opts));
  if (Code(r)) abort();
  r = s.lib.Call(s.root, "AGetProp", Value::Nested({Value::Text(name), Value::Text("LocalAddr")}));
  int peer = Dial((int)r.result[1][3].intAt(0));
  uint64_t n = 0;
  if (s.Event(name, &n) != "Connect") abort();
  std::vector<char> src = IsBlock(mode) ? Blocks() : std::vector<char>(kBytes, 'z');
  double mb = Median([&] {
    std::thread writer([&] { Pour(peer, src); });
    for (uint64_t got = 0; got < kBytes; got += n + (IsBlock(mode) ? kHeader : 0))
      if (s.Event(name, &n) != "Block") abort();
    writer.join();
  });
  close(peer);
  return mb;
}

// Plain TCP: a writer thread pours kBytes with `write`, the reader drains.
template <class W>
double PlainWith(W write) {
  int port;
  int l = Listen(&port);
  int a = Dial(port);
  int b = accept(l, nullptr, nullptr);
  std::vector<char> src(kBytes, 'y');
  double mb = Median([&] {
    std::thread writer([&] { write(a, src); });
    Drain(b, kBytes);
    writer.join();
  });
  close(a);
  close(b);
  close(l);
  return mb;
}

double Plain() { return PlainWith(Pour); }

// Plain TCP under the rule the library keeps for a socket: a select before
// each send, and at most 16 KB a send. The cost of that rule alone.
double PlainRuled() {
  return PlainWith([](int fd, const std::vector<char>& src) {
    for (size_t done = 0; done < src.size();) {
      fd_set out;
      FD_ZERO(&out);
      FD_SET(fd, &out);
      if (select(fd + 1, nullptr, &out, nullptr, nullptr) != 1) abort();
      ssize_t r = write(fd, src.data() + done, std::min<size_t>(16384, src.size() - done));
      if (r <= 0) abort();
      done += (size_t)r;
    }
  });
}

}  // namespace

int main() {
  std::string error;
  std::unique_ptr<host::Library> lib = host::Library::Open(host::FindLibrary(PELKO_BUILT_LIBRARY), &error);
  if (!lib) return fprintf(stderr, "%s\n", error.c_str()), 1;
  Session s(std::move(lib));
  double plain = Plain();
  double ruled = PlainRuled();
  printf("plain TCP             %8.0f MB/s\n", plain);
  printf("plain TCP, a select and at most 16 KB a send %8.0f MB/s  ratio %.2f\n", ruled, ruled / plain);
  for (const char* mode : {"raw", "blkraw", "text"}) {
    double sends = LibrarySends(s, mode);
    printf("%-6s mode, sending   %8.0f MB/s  ratio %.2f\n", mode, sends, sends / plain);
    if (std::string(mode) == "text") continue;  // receives as raw mode does, translated
    double receives = LibraryReceives(s, mode);
    printf("%-6s mode, receiving %8.0f MB/s  ratio %.2f\n", mode, receives, receives / plain);
  }
  return 0;
}
