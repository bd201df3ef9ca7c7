// TLS between library roots: which servers a client accepts by its flags,
// data both ways under every mode, and a listener that goes on serving
// while a peer's handshake hangs. A server's flags for client certificates
// are tested against openssl in tls_peers_test.cpp.
#include <gtest/gtest.h>

#include <map>

#include "servepeer.h"
#include "streampeer.h"
#include "tlscerts.h"

namespace {

using namespace streamtest;
using tlstest::Anonymous;
using tlstest::Certs;
using tlstest::Presenting;
using tlstest::With;

// A root whose trust store is the given directory.
struct Trusting : Roots {
  Trusting(const char* stem, const std::string& dir) : Roots(stem) {
    EXPECT_EQ(cmdtest::SetProp(root, "", "RootCertDir", Value::Text(dir)), dir == Certs::Get().NoRoots() ? 1208 : 0);
  }
};

host::CallResult Connect(const std::string& root, const char* mode, int port, const char* address,
                         std::vector<Value> extra) {
  std::vector<Value> opts = {Opt("Name", Value::Text("C")), Opt("Address", Value::Text(address)),
                             Opt("Port", Value::Text(std::to_string(port))), Opt("Mode", Value::Text(mode))};
  return Lib().Call(root, "AClt", Value::Nested(With(opts, extra)));
}

struct VerifyCase {
  const char* what;
  const char* served;  // the server's certificate
  bool trusted;        // the client's store holds the CA
  const char* address;
  int flags;
  int32_t rc;
};

TEST(TlsVerify, AClientAcceptsByItsFlags) {
  if (!Certs::Get().ok()) GTEST_SKIP() << "certtool made no certificates";
  const VerifyCase cases[] = {
      {"a good chain and name", "srv", true, "localhost", 0, 0},
      {"a numeric address in the certificate", "srv", true, "127.0.0.1", 0, 0},
      {"a wrong host name", "wrong", true, "localhost", 0, 1202},
      {"a wrong host name, forgiven", "wrong", true, "localhost", 16, 0},
      {"an unknown issuer", "srv", false, "localhost", 0, 1202},
      {"an unknown issuer, forgiven", "srv", false, "localhost", 1, 0},
      {"expired and unknown, only the issuer forgiven", "expired", false, "localhost", 1, 1202},
      {"expired and unknown, both forgiven", "expired", false, "localhost", 9, 0},
      {"expired with a known issuer", "expired", true, "localhost", 0, 1202},
      {"expired with a known issuer, forgiven", "expired", true, "localhost", 8, 0},
      {"anything, without validating", "wrong", false, "localhost", 32, 0},
  };
  Roots server("TlsVerifyS");
  std::map<std::string, int> ports;
  for (const char* cert : {"srv", "wrong", "expired"})
    ports[cert] = Serve(server.root, cert, "text", With({Opt("EOM", Strings({"\n"}))}, Presenting(cert)));
  for (const VerifyCase& c : cases) {
    SCOPED_TRACE(c.what);
    int port = ports[c.served];
    Trusting client("TlsVerifyC", c.trusted ? Certs::Get().Roots() : Certs::Get().NoRoots());
    host::CallResult r = Connect(client.root, "text", port, c.address,
                                 With(Anonymous(), {Opt("SSLValidation", Value::Int(c.flags))}));
    EXPECT_EQ(Code(r), c.rc) << r.result.Format();
    // A chain that failed leaves its verification status with the code.
    bool badChain = !c.trusted || std::string(c.served) == "expired";
    if (c.rc) {
      EXPECT_EQ(r.result.count(), badChain ? 2u : 1u) << r.result.Format();
    }
  }
}

// Data both ways between two library roots, in each mode.
TEST(TlsModes, DataBothWaysUnderEveryMode) {
  if (!Certs::Get().ok()) GTEST_SKIP() << "certtool made no certificates";
  struct Case {
    const char* mode;
    Value sent, reply;
    const char* event;
  } cases[] = {
      {"command", Value::Nested({Value::Text("sum"), Value::Ints({1, 2})}), Value::Int(3), "Receive"},
      {"raw", Value::Int16s({1, 2, 250}), Value::Int16s({3}), "Block"},
      {"text", Value::Text("line"), Value::Text("back"), "Block"},
      {"blkraw", Value::Int16s({7, 8}), Value::Int16s({9}), "Block"},
      {"blktext", Value::Text("a block"), Value::Text("its answer"), "Block"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.mode);
    Trusting server("TlsModeS", Certs::Get().Roots());
    int port = Serve(server.root, "S", c.mode, Presenting("srv"));
    Trusting client("TlsModeC", Certs::Get().Roots());
    ASSERT_EQ(Code(Connect(client.root, c.mode, port, "localhost", Anonymous())), 0);
    // A library server sends its own certificate alone.
    EXPECT_EQ(Lib().Call(client.root, "AGetProp", Value::Nested({Value::Text("C"), Value::Text("PeerCert")})).result[1],
              Value::Nested({Certs::Get().Bytes("srv.der")}));
    Event e = Wait(server.root, "S", 3000);
    ASSERT_EQ(e.event, "Connect");
    std::string conn = e.name;
    bool command = std::string(c.mode) == "command";
    ASSERT_EQ(Code(cmdtest::Send(client.root, command ? "C.q" : "C", c.sent)), 0);
    e = Wait(server.root, conn, 3000);
    EXPECT_EQ(e.event, c.event);
    EXPECT_EQ(e.data, c.sent);
    if (command)
      EXPECT_EQ(cmdtest::Respond(server.root, e.name, c.reply, 1), 0);
    else
      ASSERT_EQ(Code(cmdtest::Send(server.root, conn, c.reply)), 0);
    e = Wait(client.root, "C", 3000);
    EXPECT_EQ(e.event, c.event);
    EXPECT_EQ(e.data, c.reply);
  }
}

// HTTP, and a WebSocket upgraded from it, under TLS.
TEST(TlsModes, HttpAndWebSocket) {
  if (!Certs::Get().ok()) GTEST_SKIP() << "certtool made no certificates";
  Trusting server("TlsHttpS", Certs::Get().Roots());
  int port = Serve(server.root, "S", "http", Presenting("srv"));
  EXPECT_EQ(cmdtest::SetProp(server.root, "S", "WSFeatures", Value::Int(1)), 0);
  Trusting client("TlsHttpC", Certs::Get().Roots());
  ASSERT_EQ(Code(Connect(client.root, "http", port, "localhost", Anonymous())), 0);
  std::string conn = Wait(server.root, "S", 3000).name;
  ASSERT_EQ(Code(cmdtest::Send(client.root, "C", Value::Text("GET / HTTP/1.1\r\nHost: localhost\r\n\r\n"))), 0);
  Event e = Wait(server.root, conn, 3000);
  EXPECT_EQ(e.event, "HTTPHeader");
  ASSERT_EQ(Code(cmdtest::Send(server.root, conn, Value::Text("HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok"))), 0);
  EXPECT_EQ(Wait(client.root, "C", 3000).event, "HTTPHeader");
  EXPECT_EQ(Wait(client.root, "C", 3000).data, Value::Text("ok"));

  EXPECT_EQ(cmdtest::SetProp(client.root, "C", "WSFeatures", Value::Int(1)), 0);
  EXPECT_EQ(cmdtest::SetProp(client.root, "C", "WSUpgrade", Value::Nested({Value::Text("/"), Value::Text("localhost")})), 0);
  EXPECT_EQ(Wait(server.root, conn, 3000).event, "WSUpgrade");
  EXPECT_EQ(Wait(client.root, "C", 3000).event, "WSUpgrade");
  ASSERT_EQ(Code(cmdtest::Send(client.root, "C", Value::Nested({Value::Text("over tls"), Value::Int(1)}))), 0);
  e = Wait(server.root, conn, 3000);
  EXPECT_EQ(e.event, "WSReceive");
  EXPECT_EQ(e.data[0], Value::Text("over tls"));
  ASSERT_EQ(Code(cmdtest::Send(server.root, conn, Value::Nested({Value::Int16s({1, 2}), Value::Int(1)}))), 0);
  EXPECT_EQ(Wait(client.root, "C", 3000).data[0], Value::Int8s({1, 2}));
}

// A peer that connects and never speaks TLS: its handshake waits in the
// work thread's rounds while the listener's other clients are served. They
// close first, one after another: the descriptor of a closed connection is
// soon another's, and nothing of the old session may reach it.
TEST(TlsModes, ASilentPeerAndClosedConnectionsHoldUpNothing) {
  if (!Certs::Get().ok()) GTEST_SKIP() << "certtool made no certificates";
  Trusting server("TlsSeqS", Certs::Get().Roots());
  int port = Serve(server.root, "S", "text", With({Opt("EOM", Strings({"\n"}))}, Presenting("srv")));
  Tcp silent = Tcp::To(port);
  for (int i = 0; i < 4; i++) {
    SCOPED_TRACE(i);
    Trusting client("TlsSeqC", Certs::Get().Roots());
    ASSERT_EQ(Code(Connect(client.root, "text", port, "localhost", Anonymous())), 0);
    Event e = Wait(server.root, "S", 3000);
    ASSERT_EQ(e.event, "Connect") << e.name << " " << e.data.Format();
    cmdtest::Send(client.root, "C", Value::Text("ping\n"));
    EXPECT_EQ(Block(server.root, e.name), "ping\n");
    ASSERT_EQ(Code(cmdtest::Send(server.root, e.name, Value::Text("pong\n"))), 0);
    EXPECT_EQ(Block(client.root, "C"), "pong\n");
    Lib().Call(client.root, "AClose", Value::Text("."));
    EXPECT_EQ(Wait(server.root, e.name, 3000).event, "BlockLast");  // the peer's close
  }
}

// Every way to give a server its certificate and key: PEM files, DER files,
// bytes, and a PKCS #12 file with its password.
TEST(TlsCertificates, EveryWayToPresentOne) {
  if (!Certs::Get().ok()) GTEST_SKIP() << "certtool made no certificates";
  const Certs& c = Certs::Get();
  auto list = [](const char* type, const std::string& file) {
    return Value::Nested({Value::Text(type), Value::Text(file), Value::Int(0)});
  };
  const struct {
    const char* what;
    std::vector<Value> opts;
    int32_t rc;
  } ways[] = {
      {"PEM files", Presenting("srv"), 0},
      {"a DER certificate file", {Opt("PublicCertFile", list("DER", c.File("srv.der"))), Opt("PrivateKeyFile", list("DER", c.File("srv.key")))}, 0},
      // A key file is tried as DER only after two of GnuTLS's PEM answers,
      // and a DER key gets another one from this GnuTLS: not read.
      {"a DER key file", {Opt("PublicCertFile", list("DER", c.File("srv.der"))), Opt("PrivateKeyFile", list("DER", c.File("srv.key.der")))}, 1207},
      {"bytes", {Opt("PublicCertData", c.Bytes("srv.der")), Opt("PrivateKeyData", c.Bytes("srv.key.der"))}, 0},
      {"PKCS #12", {Opt("PublicCertFile", list("DER", "")), Opt("PrivateKeyFile", list("PK#12", c.File("srv.p12"))),
                    Opt("PrivateKeyPass", Value::Text("secret"))}, 0},
      {"PKCS #12 with a wrong password", {Opt("PublicCertFile", list("DER", "")), Opt("PrivateKeyFile", list("PK#12", c.File("srv.p12"))),
                                          Opt("PrivateKeyPass", Value::Text("wrong"))}, 1207},
  };
  Trusting server("TlsWaysS", c.Roots());
  int n = 0;
  for (const auto& way : ways) {
    SCOPED_TRACE(way.what);
    std::string name = "S" + std::to_string(n++);
    std::vector<Value> opts = {Opt("Name", Value::Text(name)), Opt("Address", Value::Text("127.0.0.1")),
                               Opt("Port", Value::Text("0")), Opt("Mode", Value::Text("text"))};
    host::CallResult s = Lib().Call(server.root, "ASrv", Value::Nested(With(opts, way.opts)));
    EXPECT_EQ(Code(s), way.rc) << s.result.Format();
    if (way.rc) continue;
    Trusting client("TlsWaysC", c.Roots());
    host::CallResult r = Connect(client.root, "text", cmdtest::LocalPort(server.root, name), "localhost", Anonymous());
    EXPECT_EQ(Code(r), 0) << r.result.Format();
  }
}

// A trust store is read from the files whose names end in ".cer", ".pem" or
// ".der", in any case; other files, and a file called just "pem", aren't.
TEST(TlsCertificates, RootDirectoriesReadTheirSuffixes) {
  if (!Certs::Get().ok()) GTEST_SKIP() << "certtool made no certificates";
  const Certs& c = Certs::Get();
  std::string dir = c.File("suffixes"), other = c.File("others");
  servetest::Shell("mkdir -p '" + dir + "' '" + other + "' && cp '" + c.File("ca.der") + "' '" + dir + "/c.Der' && cp '" +
                   c.File("ca.pem") + "' '" + other + "/d.txt' && cp '" + c.File("ca.pem") + "' '" + other + "/pem'");
  Roots server("TlsDirS");
  int port = Serve(server.root, "S", "text", With({Opt("EOM", Strings({"\n"}))}, Presenting("srv")));
  for (const auto& [d, trusted] : {std::make_pair(dir, true), std::make_pair(other, false)}) {
    SCOPED_TRACE(d);
    Roots client("TlsDirC");
    EXPECT_EQ(cmdtest::SetProp(client.root, "", "RootCertDir", Value::Text(d)), trusted ? 0 : 1208);
    EXPECT_EQ(Code(Connect(client.root, "text", port, "localhost", Anonymous())), trusted ? 0 : 1202);
  }
}

}  // namespace
