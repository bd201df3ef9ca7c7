// TLS between the library and independent peers: openssl, gnutls-cli and
// Python's ssl as clients of a library server, openssl s_server,
// gnutls-serv and Python's ssl as servers for a library client. Each peer
// is a child process on loopback, bounded by `timeout`, killed and reaped.
#include "host/link.h"
#include "servepeer.h"
#include "streampeer.h"
#include "tlscerts.h"

namespace {

using namespace streamtest;
using tlstest::Anonymous;
using tlstest::Certs;
using tlstest::Presenting;
using tlstest::With;

std::string File(const char* name) { return Certs::Get().File(name); }

// A peer program under `timeout 60`, in its own process group (timeout
// makes one).
std::vector<std::string> Timed(std::vector<std::string> args) {
  args.insert(args.begin(), {"timeout", "60"});
  return args;
}
struct Child : servetest::HostProcess {
  explicit Child(std::vector<std::string> args) : HostProcess("/usr/bin/timeout", Timed(args)) {}
  std::string output() { return ReadUntil("", 0); }
  bool Await(const std::string& text) { return Saw(text, 5000); }
  bool Exited(int ms) { return Wait(ms) != -2; }
};

// The first certificate of a connection's "PeerCert" or "OwnCert" as
// bytes, "" for none.
std::string Cert(const std::string& root, const std::string& name, const char* which = "PeerCert") {
  host::CallResult r = Lib().Call(root, "AGetProp", Value::Nested({Value::Text(name), Value::Text(which)}));
  if (Code(r) != 0 || r.result.count() < 2 || !r.result[1].isNested() || r.result[1].count() == 0) return "";
  return Bytes(r.result[1][0]);
}

// Python's ssl as a client: sends each line of its input, shows each answer.
const char* kPythonClient = R"(import socket, ssl, sys
ctx = ssl.create_default_context(cafile=sys.argv[2])
s = ctx.wrap_socket(socket.create_connection(('127.0.0.1', int(sys.argv[1]))), server_hostname='localhost')
f = s.makefile('rwb')
for line in iter(sys.stdin.readline, ''):
    f.write(line.encode()); f.flush()
    sys.stdout.write(f.readline().decode()); sys.stdout.flush()
s.unwrap()
)";

// Python's ssl as a server: shows the first line it gets and answers with
// the first line of its input.
const char* kPythonServer = R"(import socket, ssl, sys
ctx = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
ctx.load_cert_chain(sys.argv[2], sys.argv[3])
l = socket.socket()
l.bind(('127.0.0.1', int(sys.argv[1])))
l.listen(1)
print('READY', flush=True)
f = ctx.wrap_socket(l.accept()[0], server_side=True).makefile('rwb')
sys.stdout.write(f.readline().decode()); sys.stdout.flush()
f.write(sys.stdin.readline().encode()); f.flush()
f.read()
)";

std::vector<std::string> ClientArgs(const std::string& tool, int port, const std::vector<std::string>& extra) {
  std::string p = std::to_string(port);
  std::vector<std::string> a;
  if (tool == "openssl")
    a = {"openssl", "s_client", "-connect", "127.0.0.1:" + p, "-CAfile", File("ca.pem"), "-verify_return_error",
         "-verify_hostname", "localhost", "-servername", "localhost", "-nocommands"};
  else if (tool == "gnutls")
    a = {"gnutls-cli", "127.0.0.1", "-p", p, "--x509cafile", File("ca.pem"), "--verify-hostname", "localhost",
         "--sni-hostname", "localhost"};
  else
    a = {"/usr/bin/python3", "-c", kPythonClient, p, File("ca.pem")};
  a.insert(a.end(), extra.begin(), extra.end());
  return a;
}

// A library TLS server in text mode, lines cut at "\n", trusting the CA.
struct LineServer : Roots {
  int port;
  explicit LineServer(int flags) : Roots("TlsPeersS") {
    EXPECT_EQ(cmdtest::SetProp(root, "", "RootCertDir", Value::Text(Certs::Get().Roots())), 0);
    port = Serve(root, "S", "text",
                 With({Opt("EOM", Strings({"\n"})), Opt("SSLValidation", Value::Int(flags))}, Presenting("srv")));
  }
  // Serves one client: its line comes up and the answer goes back to it.
  // Gives the connection's name.
  std::string Converse(Child& peer, const std::string& line, const std::string& answer) {
    Event e = Wait(root, "S", 10000);
    EXPECT_EQ(e.event, "Connect") << peer.output();
    if (e.event != "Connect") return "";
    EXPECT_TRUE(peer.Write(line));
    EXPECT_EQ(Block(root, e.name), line) << peer.output();
    EXPECT_EQ(Code(cmdtest::Send(root, e.name, Value::Text(answer))), 0);
    EXPECT_TRUE(peer.Await(answer)) << peer.output();
    return e.name;
  }
};

// One listener serves each kind of client twice in turn: after its first
// two accepts the listener asks its clients for certificates, which
// clients without one answer with none.
TEST(TlsPeersClients, EachClientSendsALineAndGetsTheAnswer) {
  if (!Certs::Get().ok()) GTEST_SKIP() << "certtool made no certificates";
  LineServer server(0);
  for (const char* tool : {"openssl", "gnutls", "python", "openssl", "gnutls", "python"}) {
    SCOPED_TRACE(tool);
    Child peer(ClientArgs(tool, server.port, {}));
    std::string conn = server.Converse(peer, std::string("hello from ") + tool + "\n", std::string("served ") + tool + "\n");
    if (conn.empty()) continue;
    peer.CloseInput();
    EXPECT_TRUE(peer.Exited(10000)) << peer.output();
    // The peer's close ends the stream as a plain close does, with nothing held.
    Event end = Wait(server.root, conn, 5000);
    EXPECT_EQ(end.event, "BlockLast");
    EXPECT_EQ(Bytes(end.data), "");
  }
}

// Whether a server that requires (flags 128) or requests (64) client
// certificates serves a client that presents one or none.
TEST(TlsPeersClients, ClientCertificatesRequiredOrRequested) {
  if (!Certs::Get().ok()) GTEST_SKIP() << "certtool made no certificates";
  const struct {
    const char* what;
    int serverFlags;
    bool clientPresents, served;
  } cases[] = {
      {"required and given", 128, true, true},
      {"required and absent", 128, false, false},
      {"requested and absent", 64, false, true},
      {"requested and given", 64, true, true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    LineServer server(c.serverFlags);
    std::vector<std::string> cert = {"-cert", File("client.pem"), "-key", File("client.key")};
    Child peer(ClientArgs("openssl", server.port, c.clientPresents ? cert : std::vector<std::string>{}));
    if (!c.served) {
      // The server drops the connection once the client's empty
      // certificate comes (a close, or a reset when the client's last
      // handshake bytes are left unread), which ends the client.
      EXPECT_TRUE(peer.Exited(10000)) << peer.output();
      EXPECT_NE(Wait(server.root, "S", 1000).event, "Connect");
      continue;
    }
    std::string conn = server.Converse(peer, "with or without\n", "served\n");
    EXPECT_EQ(Cert(server.root, conn), c.clientPresents ? Certs::Get().Read("client.der") : "");
    EXPECT_EQ(Cert(server.root, conn, "OwnCert"), Certs::Get().Read("srv.der"));
  }
}

std::vector<std::string> ServerArgs(const std::string& tool, int port, const char* cert, bool verifies) {
  std::string p = std::to_string(port), pem = File(cert) + ".pem", key = File(cert) + ".key";
  if (tool == "gnutls")
    return {"gnutls-serv", "--echo", "-p", p, "--x509certfile", pem, "--x509keyfile", key};
  if (tool == "python") return {"/usr/bin/python3", "-c", kPythonServer, p, pem, key};
  std::vector<std::string> a = {"openssl", "s_server", "-accept", "127.0.0.1:" + p, "-cert", pem, "-key", key, "-naccept", "1"};
  if (verifies) a.insert(a.end(), {"-Verify", "1", "-verify_return_error", "-CAfile", File("ca.pem")});
  return a;
}

// A refused connect: the plain socket says so; a TLS socket goes on to its
// handshake all the same, on no connection, and reports the handshake's
// failure.
TEST(TlsPeersServers, ARefusedConnectAsTheHandshakeReportsIt) {
  int port = host::FreeLoopbackPort();
  for (bool tls : {false, true}) {
    SCOPED_TRACE(tls ? "tls" : "plain");
    Roots client("TlsPeersRefused");
    std::vector<Value> opts = {Opt("Name", Value::Text("C")), Opt("Address", Value::Text("127.0.0.1")),
                               Opt("Port", Value::Text(std::to_string(port))), Opt("Mode", Value::Text("text"))};
    host::CallResult r = Lib().Call(client.root, "AClt", Value::Nested(With(opts, tls ? Anonymous() : std::vector<Value>{})));
    EXPECT_EQ(Code(r), tls ? 1201 : 1111) << r.result.Format();
  }
}

TEST(TlsPeersServers, TheLibraryClientAgainstEachServer) {
  if (!Certs::Get().ok()) GTEST_SKIP() << "certtool made no certificates";
  struct Case {
    const char* what;
    const char* tool;
    const char* cert;   // what the server presents
    bool verifies;      // the server requires a client certificate
    bool presents;      // the library client presents client.pem
    int flags;          // the client's "SSLValidation"
    int32_t rc;
    const char* answer; // what the server's operator types back; "" for an echo
  } cases[] = {
      {"openssl", "openssl", "srv", false, false, 0, 0, "pong from openssl\n"},
      {"gnutls, echoing", "gnutls", "srv", false, false, 0, 0, ""},
      {"python", "python", "srv", false, false, 0, 0, "pong from python\n"},
      {"openssl, expired", "openssl", "expired", false, false, 0, 1202, ""},
      {"gnutls, expired", "gnutls", "expired", false, false, 0, 1202, ""},
      {"openssl, expired, forgiven", "openssl", "expired", false, false, 8, 0, "late pong\n"},
      {"openssl, requiring a client certificate", "openssl", "srv", true, true, 0, 0, "pong to a known client\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    Roots client("TlsPeersC");
    ASSERT_EQ(cmdtest::SetProp(client.root, "", "RootCertDir", Value::Text(Certs::Get().Roots())), 0);
    int port = host::FreeLoopbackPort();
    Child peer(ServerArgs(c.tool, port, c.cert, c.verifies));
    ASSERT_TRUE(peer.Await(std::string(c.tool) == "openssl" ? "ACCEPT" : std::string(c.tool) == "gnutls" ? "...done" : "READY"))
        << peer.output();
    std::vector<Value> opts = {Opt("Name", Value::Text("C")), Opt("Address", Value::Text("localhost")),
                               Opt("Port", Value::Text(std::to_string(port))), Opt("Mode", Value::Text("text")),
                               Opt("EOM", Strings({"\n"})), Opt("SSLValidation", Value::Int(c.flags))};
    host::CallResult r = Lib().Call(client.root, "AClt", Value::Nested(With(opts, c.presents ? Presenting("client") : Anonymous())));
    ASSERT_EQ(Code(r), c.rc) << r.result.Format() << peer.output();
    if (c.rc) continue;
    EXPECT_EQ(Cert(client.root, "C"), Certs::Get().Read(std::string(c.cert) + ".der"));
    EXPECT_EQ(Cert(client.root, "C", "OwnCert"), c.presents ? Certs::Get().Read("client.der") : "");
    const std::string line = std::string("ping from the library to ") + c.what + "\n";
    ASSERT_EQ(Code(cmdtest::Send(client.root, "C", Value::Text(line))), 0);
    std::string answer = *c.answer ? c.answer : line;
    if (*c.answer) {
      EXPECT_TRUE(peer.Await(line)) << peer.output();
      peer.Write(answer);
    }
    EXPECT_EQ(Block(client.root, "C"), answer) << peer.output();
  }
}

}  // namespace
