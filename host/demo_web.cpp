// The web scenes: an HTTP request and its answer between two sessions, the
// same connection upgraded to a WebSocket, and both again under TLS with a
// certificate made for the tour.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>

#include "host/demo.h"

namespace {

using host::Value;

Value Opt(const char* name, Value v) { return Value::Nested({Value::Text(name), std::move(v)}); }

Value Rows(const std::vector<std::pair<std::string, std::string>>& rows) {
  std::vector<Value> cells;
  for (const auto& r : rows) {
    cells.push_back(Value::Text(r.first));
    cells.push_back(Value::Text(r.second));
  }
  Value m;
  Value::Nested({rows.size(), 2}, cells, &m);
  return m;
}

// Two roots, a listener in one and a client of it in the other; the
// listener has seen the Connect. Extra options go to both.
struct Sessions {
  demo::Stage& s;
  std::string srv, clt, conn;
  bool ok = false;
  Sessions(demo::Stage& stage, const char* stem, const std::vector<Value>& serverExtra,
           const std::vector<Value>& clientExtra, const std::string& trust = "")
      : s(stage), srv(std::string(stem) + "SRV"), clt(std::string(stem) + "CLT") {
    if (!s.Expect(s.lib.Init(srv, s.lib.path()) == 0 && s.lib.Init(clt, s.lib.path()) == 0, "two roots")) return;
    std::vector<Value> opts = {Opt("Name", Value::Text("WEB")), Opt("Address", Value::Text("127.0.0.1")),
                               Opt("Port", Value::Text("0")), Opt("Mode", Value::Text("http"))};
    opts.insert(opts.end(), serverExtra.begin(), serverExtra.end());
    host::CallResult r = s.Show(srv, "ASrv", Value::Nested(opts));
    if (!s.Expect(r.result.isNested(), "an HTTP listener")) return;
    r = s.lib.Call(srv, "AGetProp", Value::Nested({Value::Text("WEB"), Value::Text("LocalAddr")}));
    std::string port = std::to_string(r.result[1][3].intAt(0));
    std::vector<Value> copts = {Opt("Name", Value::Text("C")), Opt("Address", Value::Text("localhost")),
                                Opt("Port", Value::Text(port)), Opt("Mode", Value::Text("http"))};
    copts.insert(copts.end(), clientExtra.begin(), clientExtra.end());
    if (!trust.empty()) s.Show(clt, "ASetProp", Value::Nested({Value::Text(""), Value::Text("RootCertDir"), Value::Text(trust)}));
    r = s.Show(clt, "AClt", Value::Nested(copts));
    if (!s.Expect(r.result.isNested(), "a client")) return;
    r = s.Wait(srv, "WEB");
    if (!s.Expect(demo::IsEvent(r, "Connect"), "the Connect event")) return;
    conn = r.result[1].text();
    ok = true;
  }
  ~Sessions() {
    s.lib.Call(clt, "AClose", Value::Text("."));
    s.lib.Call(srv, "AClose", Value::Text("."));
  }
  host::CallResult Send(const std::string& root, const std::string& name, const Value& v) {
    return s.ShowDyadic(root, "ASendZ", v, Value::Nested({Value::Text(name), Value::Int(0)}));
  }
};

// A request, its decoded header, and a file sent back as the answer.
void Exchange(demo::Stage& s, Sessions& w) {
  s.Say("The server asks for headers as arrays; the client sends a request as (method target version headers body).");
  s.Show(w.srv, "ASetProp", Value::Nested({Value::Text("WEB"), Value::Text("DecodeBuffers"), Value::Int(1)}));
  w.Send(w.clt, "C", Value::Nested({Value::Text("GET"), Value::Text("/hello.txt"), Value::Text("HTTP/1.1"),
                                    Rows({{"Host", "localhost"}}), Value::Text("")}));
  host::CallResult r = s.Wait(w.srv, w.conn);
  if (!s.Expect(demo::IsEvent(r, "HTTPHeader") && r.left && r.left->count() == 4, "the decoded header")) return;
  char file[] = "/tmp/pelkodemoXXXXXX";
  int fd = mkstemp(file);
  const std::string text = "Hello from a file.\n";
  if (fd < 0 || write(fd, text.data(), text.size()) != (ssize_t)text.size()) s.Expect(false, "a file to send");
  if (fd >= 0) close(fd);
  s.Say("The answer is a header text and a file name: the library adds the length and streams the file.");
  w.Send(w.srv, w.conn, Value::Nested({Value::Text("HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\n\r\n"), Value::Text(file)}));
  r = s.Wait(w.clt, "C");
  s.Expect(demo::IsEvent(r, "HTTPHeader"), "the answer's header");
  r = s.Wait(w.clt, "C");
  s.Expect(demo::IsEvent(r, "HTTPBody") && r.left && r.left->text() == text, "the file as the body");
  unlink(file);
}

// The same connection upgraded, and a message each way.
void Upgrade(demo::Stage& s, Sessions& w) {
  s.Say("Both sides let the library make the WebSocket upgrade; the client asks for it on its connection.");
  s.Show(w.srv, "ASetProp", Value::Nested({Value::Text(w.conn), Value::Text("WSFeatures"), Value::Int(1)}));
  s.Show(w.clt, "ASetProp", Value::Nested({Value::Text("C"), Value::Text("WSFeatures"), Value::Int(1)}));
  s.Show(w.clt, "ASetProp", Value::Nested({Value::Text("C"), Value::Text("WSUpgrade"),
                                           Value::Nested({Value::Text("/chat"), Value::Text("localhost")})}));
  s.Expect(demo::IsEvent(s.Wait(w.srv, w.conn), "WSUpgrade"), "the server's WSUpgrade");
  s.Expect(demo::IsEvent(s.Wait(w.clt, "C"), "WSUpgrade"), "the client's WSUpgrade");
  s.Say("A text message from the client, binary bytes back: each arrives as (data fin opcode).");
  w.Send(w.clt, "C", Value::Nested({Value::Text("ping"), Value::Int(1)}));
  host::CallResult r = s.Wait(w.srv, w.conn);
  s.Expect(demo::IsEvent(r, "WSReceive") && r.left && (*r.left)[0] == Value::Text("ping"), "the text message");
  w.Send(w.srv, w.conn, Value::Nested({Value::Int16s({1, 2, 3}), Value::Int(1)}));
  r = s.Wait(w.clt, "C");
  s.Expect(demo::IsEvent(r, "WSReceive") && r.left && (*r.left)[0] == Value::Int8s({1, 2, 3}), "the bytes");
}

void Http(demo::Stage& s) {
  Sessions w(s, "HTTP", {}, {});
  if (w.ok) Exchange(s, w);
}

void WebSocket(demo::Stage& s) {
  Sessions w(s, "WS", {}, {});
  if (w.ok) Upgrade(s, w);
}

// A test CA and a certificate for localhost, made with certtool.
bool MakeCertificate(const std::string& dir) {
  std::ofstream(dir + "/ca.tmpl") << "cn = \"Demo CA\"\nca\ncert_signing_key\nexpiration_days = 2\n";
  std::ofstream(dir + "/srv.tmpl") << "cn = \"localhost\"\ndns_name = \"localhost\"\ntls_www_server\nsigning_key\n"
                                       "expiration_days = 2\nactivation_date = \"2020-01-01 00:00:00\"\n";
  std::string q = "'" + dir + "/";
  std::string cmd = "certtool --generate-privkey --key-type=ecdsa --no-text --outfile " + q + "ca.key' &&"
                    " certtool --generate-self-signed --no-text --load-privkey " + q + "ca.key' --template " + q +
                    "ca.tmpl' --outfile " + q + "roots/ca.pem' &&"
                    " certtool --generate-privkey --key-type=ecdsa --no-text --outfile " + q + "srv.key' &&"
                    " certtool --generate-certificate --no-text --load-privkey " + q + "srv.key' --load-ca-certificate " +
                    q + "roots/ca.pem' --load-ca-privkey " + q + "ca.key' --template " + q + "srv.tmpl' --outfile " + q +
                    "srv.pem'";
  return system(("(mkdir -p " + q + "roots' && " + cmd + ") >/dev/null 2>&1").c_str()) == 0;
}

void Tls(demo::Stage& s) {
  char tmpl[] = "/tmp/pelkodemotlsXXXXXX";
  std::string dir = mkdtemp(tmpl) ? tmpl : "";
  if (dir.empty() || !MakeCertificate(dir)) {
    s.Say("certtool isn't here to make a certificate: the scene is left out.");
    return;
  }
  s.Say("A certificate for localhost, signed by a CA made for the tour. The client's root trusts that CA.");
  auto file = [](const std::string& type, const std::string& path) {
    return Value::Nested({Value::Text(type), Value::Text(path), Value::Int(0)});
  };
  {
    Sessions w(s, "TLS", {Opt("PublicCertFile", file("DER", dir + "/srv.pem")), Opt("PrivateKeyFile", file("DER", dir + "/srv.key"))},
               {Opt("PublicCertFile", file("DER", ""))}, dir + "/roots");
    if (w.ok) {
      s.Say("The client verified the server's certificate during AClt. Its bytes, decoded by the root:");
      host::CallResult r = s.lib.Call(w.clt, "AGetProp", Value::Nested({Value::Text("C"), Value::Text("PeerCert")}));
      if (s.Expect(r.result.isNested() && r.result[1].count() == 1, "the server's certificate")) {
        host::CallResult d = s.lib.Call(w.clt, "AGetProp", Value::Nested({Value::Text(""), Value::Text("DecodeCert"), r.result[1][0], Value::Int(1)}));
        if (s.Expect(d.result.isNested(), "the certificate decoded")) {
          const Value& info = d.result[1][1];
          s.Fact("subject", info[5].text());
          s.Fact("issuer", info[3].text());
          s.Fact("key", info[6][0].text());
        }
      }
      Exchange(s, w);
      Upgrade(s, w);
    }
  }
  system(("rm -rf '" + dir + "'").c_str());
}

}  // namespace

PELKO_DEMO_SCENE(120, "http", "An HTTP request and its answer between two sessions", Http);
PELKO_DEMO_SCENE(130, "websocket", "The connection upgraded to a WebSocket", WebSocket);
PELKO_DEMO_SCENE(140, "tls", "HTTP and WebSocket under TLS", Tls);
