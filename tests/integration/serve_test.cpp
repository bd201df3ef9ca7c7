// `pelkohost serve` driven by curl, wrk and a browser: files byte for byte
// with their types, no file from outside its directory, kept-alive
// connections, a large file with flat memory, a load of 50 connections, and
// a page whose script talks to the WebSocket echo.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <fstream>

#include "servepeer.h"
#include "streampeer.h"
#include "tlscerts.h"

namespace {

using servetest::Have;
using servetest::Shell;
using servetest::Curl;
using servetest::Chromium;
using servetest::StartBrowser;
using servetest::EndBrowser;
using servetest::ServeProcess;
using streamtest::Tcp;

// A directory to serve, with a file outside it that must never be served.
struct Site : pelkotest::TempDir {
  const std::string& top = path;
  std::string dir = path + "/www";
  Site() {
    Shell("mkdir -p '" + dir + "/sub' && printf 'hello\\n' > '" + dir + "/a.txt' && printf '<p>x</p>' > '" + dir +
        "/sub/index.html' && head -c 5000 /dev/urandom > '" + dir + "/bin.png' && printf secret > '" + top +
        "/secret.txt' && ln -s '" + top + "/secret.txt' '" + dir + "/out' && ln -s a.txt '" + dir + "/in'");
  }
  void Add(const std::string& name, const std::string& text) const { TempDir::Add("www/" + name, text); }
};

// Two GETs by one curl; the connections each one opened, one a line.
std::string TwoRequests(const ServeProcess& s, const std::string& args) {
  return Curl(args + " -o /dev/null -o /dev/null -w '%{num_connects}\\n' '" + s.Url("/a.txt") + "' '" + s.Url("/in") + "'");
}

TEST(Serve, FilesTypesAndNothingFromOutside) {
  if (!Have("curl")) GTEST_SKIP() << "no curl";
  Site site;
  ServeProcess s(site.dir);
  ASSERT_GT(s.port(), 0) << s.ReadUntil("\n", 0);
  struct Case {
    const char* path;
    const char* code;
    const char* type;
  } cases[] = {
      {"/a.txt", "200", "text/plain; charset=utf-8"},
      {"/bin.png", "200", "image/png"},
      {"/sub/", "200", "text/html; charset=utf-8"},  // its index.html
      {"/in", "200", "text/plain; charset=utf-8"},  // a link that stays inside: its file's type
      {"/a.txt?x=1", "200", "text/plain; charset=utf-8"},
      {"/nothing", "404", nullptr},
      {"/../secret.txt", "404", nullptr},
      {"/%2e%2e/secret.txt", "404", nullptr},
      {"/sub/%2E%2E/%2E%2E/secret.txt", "404", nullptr},
      {"//etc/passwd", "404", nullptr},
      {"/out", "404", nullptr},  // a link to a file outside
      {"/a.txt%00.png", "404", nullptr},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.path);
    std::string got = Curl("--path-as-is -o /dev/null -w '%{http_code} %{content_type}' '" + s.Url(c.path) + "'");
    EXPECT_EQ(got.substr(0, 3), c.code);
    if (c.type) {
      EXPECT_EQ(got.substr(4), c.type);
    }
  }
  EXPECT_EQ(Curl("'" + s.Url("/a.txt") + "'"), "hello\n");
  Shell("curl -s --max-time 20 -o '" + site.top + "/got.png' '" + s.Url("/bin.png") + "'");
  EXPECT_EQ(Shell("cmp '" + site.top + "/got.png' '" + site.dir + "/bin.png' && echo same"), "same\n");
  // HEAD: the length, no body.
  std::string head = Curl("-I '" + s.Url("/bin.png") + "'");
  EXPECT_NE(head.find("Content-Length: 5000\r\n"), std::string::npos) << head;
  // Two requests on one connection, kept alive or closed as asked: the
  // connections opened by the first request, then by the second.
  for (auto [args, connects] : {std::make_pair("", "1\n0\n"), std::make_pair("-H 'Connection: close'", "1\n1\n"),
                                std::make_pair("-0", "1\n1\n"), std::make_pair("-0 -H 'Connection: keep-alive'", "1\n0\n")}) {
    SCOPED_TRACE(args);
    EXPECT_EQ(TwoRequests(s, args), connects);
  }
  // One access-log line a request, and a clean end on Ctrl-C.
  std::string log = s.ReadUntil("\"GET /in HTTP/1.1\" 200 6", 3000);
  EXPECT_NE(log.find("\"GET /nothing HTTP/1.1\" 404"), std::string::npos) << log;
  EXPECT_EQ(s.Stop(), 0);
}

// Requests written byte for byte: the answer's status line, a line its
// header must hold, and whether the connection ends after it.
TEST(Serve, RequestsOfEveryShapeGetAnAnswer) {
  Site site;
  ServeProcess s(site.dir);
  ASSERT_GT(s.port(), 0);
  struct Case {
    const char* request;
    const char* status;
    const char* line;
    bool closes;
  } cases[] = {
      {"GET /a.txt HTTP/1.1\r\nHost: x\r\n\r\n", "HTTP/1.1 200 OK", "Content-Length: 6", false},
      {"GET /a.txt HTTP/1.0\r\n\r\n", "HTTP/1.1 200 OK", "Connection: close", true},
      {"GET /a.txt HTTP/1.0\r\nConnection: Keep-Alive\r\n\r\n", "HTTP/1.1 200 OK", "Connection: keep-alive", false},
      {"POST /a.txt HTTP/1.1\r\nContent-Length: 1\r\n\r\nx", "HTTP/1.1 405 Method Not Allowed", "Allow: GET, HEAD", true},
      {"DELETE /a.txt HTTP/1.1\r\n\r\n", "HTTP/1.1 405 Method Not Allowed", "Connection: close", true},
      {"HELLO\r\n\r\n", "HTTP/1.1 400 Bad Request", "Connection: close", true},
      {"GET /a.txt\r\n\r\n", "HTTP/1.1 400 Bad Request", "Connection: close", true},
      {"GET /a.txt XTTP/1.1\r\n\r\n", "HTTP/1.1 400 Bad Request", "Connection: close", true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.request);
    Tcp t = Tcp::To(s.port());
    ASSERT_TRUE(t.Write(c.request));
    std::string got = t.Read(1 << 16, 1000);
    EXPECT_EQ(got.substr(0, got.find("\r\n")), c.status) << got << "\nserve's log:\n" << s.ReadUntil("\x01", 100);
    EXPECT_NE(got.find(std::string("\r\n") + c.line + "\r\n"), std::string::npos) << got;
    EXPECT_EQ(t.Closed(500), c.closes) << got;
  }
}

TEST(Serve, AListingAndAFileTooLargeToSend) {
  if (!Have("curl")) GTEST_SKIP() << "no curl";
  Site site;
  ASSERT_EQ(mkdir((site.dir + "/list").c_str(), 0755), 0);
  site.Add("list/a b#c.txt", "spaced");
  site.Add("list/<i>&.txt", "marked");
  // Sparse, past what one answer can carry.
  Shell("truncate -s 5G '" + site.dir + "/huge.bin'");
  ServeProcess s(site.dir);
  ASSERT_GT(s.port(), 0);
  // Names are escaped in the text and encoded in the links, which work.
  std::string list = Curl("'" + s.Url("/list/") + "'");
  EXPECT_NE(list.find("href=\"/list/a%20b%23c.txt\""), std::string::npos) << list;
  EXPECT_NE(list.find(">&lt;i&gt;&amp;.txt<"), std::string::npos) << list;
  EXPECT_EQ(list.find("<i>"), std::string::npos) << list;
  EXPECT_EQ(Curl("'" + s.Url("/list/a%20b%23c.txt") + "'"), "spaced");
  EXPECT_EQ(Curl("'" + s.Url("/list/%3Ci%3E%26.txt") + "'"), "marked");
  // The library refuses a file this large: the client still has an answer.
  EXPECT_EQ(Curl("-o /dev/null -w '%{http_code}' '" + s.Url("/huge.bin") + "'"), "500");
  EXPECT_NE(s.ReadUntil("\"GET /huge.bin HTTP/1.1\" 500", 3000).find("\"GET /huge.bin HTTP/1.1\" 500"),
            std::string::npos);
  EXPECT_EQ(s.Stop(), 0);
}

// pelkohost serve run to its end; what it wrote, then "rc=" and its status.
std::string ServeOnce(const std::string& args) {
  return Shell("PELKO_LIBRARY='" PELKO_LIBRARY_PATH "' timeout 20 '" PELKOHOST_PATH "' serve " + args +
               " 2>&1; echo \"rc=$?\"");
}

TEST(Serve, WhatKeepsItFromStartingEndsItWithOne) {
  Site site;
  site.Add("file", "x");
  ServeProcess busy(site.dir);
  ASSERT_GT(busy.port(), 0);
  struct Case {
    std::string args, says, rc;
  } cases[] = {
      {"'" + site.top + "/none'", "no such directory", "rc=1"},
      {"'" + site.dir + "/file'", "not a directory", "rc=1"},
      {"'" + site.dir + "' --port " + std::to_string(busy.port()), "cannot listen on 127.0.0.1:", "rc=1"},
      {"'" + site.dir + "' --address 127.0.0.1 --port", "usage:", "rc=2"},
      {"'" + site.dir + "' --verbose", "usage:", "rc=2"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.args);
    std::string out = ServeOnce(c.args);
    EXPECT_NE(out.find(c.says), std::string::npos) << out;
    EXPECT_EQ(out.substr(out.rfind("rc=")), c.rc + "\n") << out;
  }
}

TEST(Serve, ALargeFileStreamsWithFlatMemoryAndWrkSeesNoErrors) {
  if (!Have("curl")) GTEST_SKIP() << "no curl";
  Site site;
  Shell("head -c 100000000 /dev/urandom > '" + site.dir + "/big.bin'");
  ServeProcess s(site.dir);
  ASSERT_GT(s.port(), 0);
  Curl("-o /dev/null '" + s.Url("/a.txt") + "'");
  long before = s.PeakKb();
  Shell("curl -s --max-time 60 -o '" + site.top + "/big.got' '" + s.Url("/big.bin") + "'");
  long after = s.PeakKb();
  EXPECT_EQ(Shell("cmp '" + site.top + "/big.got' '" + site.dir + "/big.bin' && echo same"), "same\n");
  // The file went through a window, never into memory whole.
  EXPECT_LT(after - before, 8 * 1024) << before << " kB before, " << after << " kB after";
  if (!Have("wrk")) return;
  std::string out = Shell("wrk -t2 -c50 -d2s '" + s.Url("/a.txt") + "' 2>&1");
  EXPECT_NE(out.find("Requests/sec"), std::string::npos) << out;
  EXPECT_EQ(out.find("Socket errors"), std::string::npos) << out;
  EXPECT_EQ(out.find("Non-2xx"), std::string::npos) << out;
}

// The page opens a WebSocket to the server it came from, sends 100 text
// and 100 binary messages, checks every echo, and reports its verdict by
// fetching a path the access log shows.
const char kPage[] = R"(<!DOCTYPE html>
<script>
const ws = new WebSocket(new URLSearchParams(location.search).get('ws') || 'ws://' + location.host + '/echo');
ws.binaryType = 'arraybuffer';
let sent = 0, good = 0;
function next() {
  if (sent === 200) { fetch('/verdict-' + (good === 200 ? 'pass' : 'fail-' + good)); return; }
  const i = sent++;
  if (i < 100) ws.send('message ' + i + ' \u00e9t\u00e9!');
  else ws.send(new Uint8Array([i & 255, 0, 255, (i * 7) & 255]).buffer);
}
ws.onopen = next;
ws.onmessage = (e) => {
  const i = sent - 1;
  if (i < 100) good += e.data === 'message ' + i + ' \u00e9t\u00e9!' ? 1 : 0;
  else { const b = new Uint8Array(e.data); good += b.length === 4 && b[0] === (i & 255) && b[2] === 255 && b[3] === ((i * 7) & 255) ? 1 : 0; }
  next();
};
ws.onerror = () => fetch('/verdict-error');
</script>)";

// The page comes from a plain server; its socket goes to echo, which may be
// another server.
void BrowserEcho(const std::string& echo, const std::string& browserArgs) {
  Site site;
  site.Add("index.html", kPage);
  ServeProcess s(site.dir);
  ASSERT_GT(s.port(), 0);
  std::string profile = StartBrowser(site.top, s.Url("/") + (echo.empty() ? "" : "?ws=" + echo), browserArgs);
  std::string log = s.ReadUntil("/verdict-", 45000);
  EndBrowser(profile);
  EXPECT_NE(log.find("/verdict-pass"), std::string::npos) << log;
}

TEST(Serve, ABrowserTalksToTheWebSocketEcho) {
  if (Chromium().empty()) GTEST_SKIP() << "no chromium";
  BrowserEcho("", "");
}

TEST(Serve, ABrowserOverWssAndCurlOverHttps) {
  if (Chromium().empty() || !tlstest::Certs::Get().ok()) GTEST_SKIP() << "no chromium or no certificates";
  const tlstest::Certs& c = tlstest::Certs::Get();
  Site site;
  ServeProcess s(site.dir, {"--cert", c.File("srv.pem"), "--key", c.File("srv.key")});
  ASSERT_GT(s.port(), 0);
  // The socket is the secure server's first connection: from its third on,
  // the library asks for a client certificate, which a headless browser
  // can't give.
  BrowserEcho(s.Url("/echo", "wss"), "--ignore-certificate-errors");
  // curl trusts the test CA and fetches over HTTPS.
  EXPECT_EQ(Curl("--cacert '" + c.File("ca.pem") + "' '" + s.Url("/a.txt", "https") + "'"), "hello\n");
}

}  // namespace
