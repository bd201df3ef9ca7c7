// Raw-mode bulk transfer between two roots of the library over TLS against
// the same transfer over plain TCP in the same run: 64 MB sent by a client
// in one raw send and taken up block by block by the server's host. Prints
// the MB/s of the median of 5 runs for both and the ratio; 1 means TLS
// costs nothing.
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "barewait.h"
#include "host/library.h"
#include "host/zblock.h"
#include "loopback.h"
#include "tlscerts.h"

namespace {

using namespace loopback;
using tlstest::With;

const size_t kBytes = 64u << 20;
const int kRuns = 5;
const int kBlock = 1 << 20;

// Megabytes a second of the median run from a client root to a server
// root, each opened with the options given (certificates, or none); the
// blocks the server's host took up in a run in *blocks.
double Transfer(host::Library& lib, const std::string& tag, const std::vector<Value>& server,
                const std::vector<Value>& client, uint64_t* blocks) {
  std::string srv = "TLSBENCH" + tag + "S", clt = "TLSBENCH" + tag + "C";
  if (lib.Init(srv, lib.path()) || lib.Init(clt, lib.path())) abort();
  std::string roots = tlstest::Certs::Get().Roots();
  if (Code(lib.Call(clt, "ASetProp", Value::Nested({Value::Text(""), Value::Text("RootCertDir"), Value::Text(roots)}))))
    abort();
  std::vector<Value> opts = {Opt("Name", Value::Text("IN")), Opt("Address", Value::Text("127.0.0.1")),
                             Opt("Port", Value::Text("0")), Opt("Mode", Value::Text("raw")),
                             Opt("BufferSize", Value::Int(kBlock))};
  if (Code(lib.Call(srv, "ASrv", Value::Nested(With(opts, server))))) abort();
  host::CallResult r = lib.Call(srv, "AGetProp", Value::Nested({Value::Text("IN"), Value::Text("LocalAddr")}));
  opts = {Opt("Name", Value::Text("OUT")), Opt("Address", Value::Text("localhost")),
          Opt("Port", Value::Text(std::to_string(r.result[1][3].intAt(0)))), Opt("Mode", Value::Text("raw"))};
  if (Code(lib.Call(clt, "AClt", Value::Nested(With(opts, client))))) abort();
  if (BareWait(lib, srv, "IN").event != "Connect") abort();
  // The client holds the server's certificate exactly when TLS is on.
  r = lib.Call(clt, "AGetProp", Value::Nested({Value::Text("OUT"), Value::Text("PeerCert")}));
  if (Code(r) || (r.result[1].count() > 0 && r.result[1].isNested()) == client.empty()) abort();
  host::ZBlock big = host::Encode(Value::Raw(host::Type::Int8, {kBytes}, std::vector<uint8_t>(kBytes, 7)));
  std::vector<double> seconds = Seconds(kRuns, [&] {
    SendBlock(lib, clt, "OUT", big);
    *blocks = 0;
    for (uint64_t got = 0; got < kBytes; ++*blocks) {
      BareEvent e = BareWait(lib, srv, "IN");
      if (e.event != "Block") abort();
      got += e.count;
    }
  });
  lib.Call(clt, "AClose", Value::Text("."));
  lib.Call(srv, "AClose", Value::Text("."));
  return kBytes / seconds[kRuns / 2] / 1e6;
}

}  // namespace

int main() {
  std::string error;
  std::unique_ptr<host::Library> lib = host::Library::Open(host::FindLibrary(PELKO_BUILT_LIBRARY), &error);
  if (!lib) return fprintf(stderr, "%s\n", error.c_str()), 1;
  if (!tlstest::Certs::Get().ok()) return fprintf(stderr, "certtool made no certificates\n"), 1;
  uint64_t plainBlocks = 0, tlsBlocks = 0;
  double plain = Transfer(*lib, "PLAIN", {}, {}, &plainBlocks);
  double tls = Transfer(*lib, "TLS", tlstest::Presenting("srv"), tlstest::Anonymous(), &tlsBlocks);
  printf("raw mode, plain TCP %8.0f MB/s  (%llu blocks a run)\n", plain, (unsigned long long)plainBlocks);
  printf("raw mode, TLS       %8.0f MB/s  (%llu blocks a run)  ratio %.2f\n", tls, (unsigned long long)tlsBlocks,
         tls / plain);
  return 0;
}
