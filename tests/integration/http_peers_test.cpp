// HTTP with real peers: curl against a library server (a body, a chunked
// upload, a chunked answer, two requests on one connection), and the
// library's client against Python's http.server with a chunked response.
#include <gtest/gtest.h>

#include <fstream>
#include <thread>

#include "servepeer.h"
#include "streampeer.h"

namespace {

using namespace streamtest;
using servetest::Have;
using servetest::Shell;


// A request as the library server saw it, and how it answered.
struct Seen {
  std::string conn, method, target, body;
  int connects = 0, chunks = 0;
};

// A library server that answers each request on its own thread until
// stopped: the body it got, back, chunked when the target asks for it.
class EchoServer {
 public:
  EchoServer() : r_("HttpPeers") {
    port_ = Serve(r_.root, "S", "http");
    EXPECT_EQ(cmdtest::SetProp(r_.root, "S", "DecodeBuffers", Value::Int(1 | 2 | 4 | 8)), 0);
    thread_ = std::thread([this] { Loop(); });
  }
  ~EchoServer() { Stop(); }
  // Ends the answering thread; what it recorded is read after this.
  void Stop() {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
  }
  int port() const { return port_; }
  std::vector<Seen> seen;

 private:
  void Loop() {
    Seen cur;
    while (!stop_) {
      Event e = Wait(r_.root, "S", 200);
      if (e.rc) continue;
      if (e.event == "Connect") {
        cur.connects++;
      } else if (e.event == "HTTPHeader") {
        cur.conn = e.name;
        cur.method = e.data[0].text();
        cur.target = e.data[1].text();
        cur.body.clear();
        bool chunked = false, sized = false;
        for (uint64_t i = 0; i < e.data[3].shape()[0]; i++) {
          std::string n = e.data[3][2 * i].text();
          chunked |= strcasecmp(n.c_str(), "Transfer-Encoding") == 0;
          sized |= strcasecmp(n.c_str(), "Content-Length") == 0;
        }
        if (!chunked && !sized) Answer(cur);
      } else if (e.event == "HTTPBody") {
        cur.body = e.data.text();
        Answer(cur);
      } else if (e.event == "HTTPChunk") {
        cur.body += e.data[0].text();
        cur.chunks++;
      } else if (e.event == "HTTPTrailer") {
        Answer(cur);
      }
    }
  }
  void Answer(Seen& cur) {
    seen.push_back(cur);
    std::string body = cur.method + " " + cur.target + " " + cur.body;
    if (cur.target != "/chunked") {
      cmdtest::Send(r_.root, cur.conn, Value::Nested({Value::Text("HTTP/1.1"), Value::Text("200"), Value::Text("OK"),
                                                      Rows({{"Content-Type", "text/plain"}}), Value::Text(body)}));
      return;
    }
    cmdtest::Send(r_.root, cur.conn, Value::Text("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n"));
    for (size_t at = 0; at < body.size(); at += 4)
      cmdtest::Send(r_.root, cur.conn, Value::Nested({Value::Text(body.substr(at, 4)), Rows({})}));
    cmdtest::Send(r_.root, cur.conn, Value::Nested({Value::Text(""), Rows({{"X-Done", "yes"}})}));
  }

  Roots r_;
  int port_;
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

std::string Curl(const std::string& args) { return Shell("curl -s --max-time 10 " + args + " 2>&1"); }

TEST(HttpPeers, CurlAgainstALibraryServer) {
  if (!Have("curl")) GTEST_SKIP() << "no curl";
  EchoServer s;
  std::string url = "http://127.0.0.1:" + std::to_string(s.port());
  EXPECT_EQ(Curl("'" + url + "/a?x=1'"), "GET /a?x=1 ");
  EXPECT_EQ(Curl("--data-binary 'name=value&more' '" + url + "/form'"), "POST /form name=value&more");
  std::string file = "/tmp/pelkochunked.txt";
  std::ofstream(file) << std::string(3000, 'z');
  EXPECT_EQ(Curl("-H 'Transfer-Encoding: chunked' --data-binary @" + file + " '" + url + "/up'"),
            "POST /up " + std::string(3000, 'z'));
  unlink(file.c_str());
  // curl reads a chunked answer; a second request reuses the connection.
  EXPECT_EQ(Curl("-w '%{num_connects}' '" + url + "/chunked' '" + url + "/again'"), "GET /chunked 1GET /again 0");
  s.Stop();
  ASSERT_EQ(s.seen.size(), 5u);
  EXPECT_GE(s.seen[2].chunks, 1);
  EXPECT_EQ(s.seen[3].conn, s.seen[4].conn);
}

// A Python server on loopback: plain answers with a length, a chunked one
// with a trailer, and an echo of a posted body, all on one connection.
const char kPython[] = R"(
import http.server, sys
class H(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    def log_message(self, *a): pass
    def do_GET(self):
        if self.path == "/chunked":
            self.send_response(200); self.send_header("Transfer-Encoding", "chunked"); self.end_headers()
            for part in (b"hello ", b"chunked world"):
                self.wfile.write(b"%x\r\n%s\r\n" % (len(part), part))
            self.wfile.write(b"0\r\nX-Trailer: done\r\n\r\n")
        else:
            body = b"plain answer"
            self.send_response(200); self.send_header("Content-Length", str(len(body))); self.end_headers()
            self.wfile.write(body)
    def do_POST(self):
        body = self.rfile.read(int(self.headers["Content-Length"]))
        self.send_response(201); self.send_header("Content-Length", str(len(body))); self.end_headers()
        self.wfile.write(body)
s = http.server.HTTPServer(("127.0.0.1", 0), H)
print(s.server_address[1], flush=True)
s.serve_forever()
)";

TEST(HttpPeers, TheLibraryClientAgainstPythonsServer) {
  if (!Have("/usr/bin/python3")) GTEST_SKIP() << "no python3";
  servetest::HostProcess python("/usr/bin/timeout", {"timeout", "60", "/usr/bin/python3", "-c", kPython});
  int port = atoi(python.Line(10000).c_str());
  ASSERT_GT(port, 0) << python.ReadUntil("", 0);
  Roots r("HttpPyClient");
  std::string c = Open(r.root, "C", "http", port);
  EXPECT_EQ(cmdtest::SetProp(r.root, c, "DecodeBuffers", Value::Int(1 | 2 | 4 | 8)), 0);
  auto get = [&](const std::string& method, const std::string& path, const std::string& body) {
    cmdtest::Send(r.root, c, Value::Nested({Value::Text(method), Value::Text(path), Value::Text("HTTP/1.1"),
                                            Rows({{"Host", "localhost"}}), Value::Text(body)}));
    return Wait(r.root, c, 3000);
  };
  Event h = get("GET", "/plain", "");
  ASSERT_EQ(h.event, "HTTPHeader");
  EXPECT_EQ(h.data[0].text() + " " + h.data[1].text() + " " + h.data[2].text(), "HTTP/1.1 200 OK");
  EXPECT_EQ(Wait(r.root, c, 3000).data, Value::Text("plain answer"));
  h = get("GET", "/chunked", "");
  ASSERT_EQ(h.event, "HTTPHeader");
  std::string body;
  Event e = Wait(r.root, c, 3000);
  for (; e.event == "HTTPChunk"; e = Wait(r.root, c, 3000)) body += e.data[0].text();
  EXPECT_EQ(body, "hello chunked world");
  ASSERT_EQ(e.event, "HTTPTrailer");
  EXPECT_EQ(e.data[0].text() + "=" + e.data[1].text(), "X-Trailer=done");
  h = get("POST", "/echo", "posted bytes");
  EXPECT_EQ(h.data[1].text(), "201");
  EXPECT_EQ(Wait(r.root, c, 3000).data, Value::Text("posted bytes"));
}

}  // namespace
