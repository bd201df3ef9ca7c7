// The debug link between separate processes: `pelkohost link` on each end,
// or on one end with the test as a raw peer that reads and writes the block
// bytes itself. One test drives the table in this process.
#include <arpa/inet.h>
#include <dirent.h>


#include "harness.h"
#include "host/link.h"
#include "servepeer.h"
#include "streampeer.h"
#include "tlscerts.h"

namespace {

using servetest::HostProcess;
using servetest::Shell;

using Dir = pelkotest::TempDir;

std::string Loop(int port) { return "127.0.0.1:" + std::to_string(port); }

// A raw TCP peer of the link, with every read bounded.
struct Peer : streamtest::Tcp {
  explicit Peer(int port) : Tcp(Tcp::To(port)) {}
  bool ok() const { return fd() >= 0; }
  void Send(const std::string& text, uint32_t magic = 0x5A554E4F) { ASSERT_TRUE(Write(Block(text, magic))); }
  // n bytes, or fewer when the link closes or 5 seconds pass.
  std::string Read(size_t n) { return Tcp::Read(n, 5000); }
  bool Closed() { return Tcp::Closed(5000); }
  static std::string Word(uint32_t v) {
    uint32_t n = htonl(v);
    return std::string((const char*)&n, 4);
  }
  static std::string Block(const std::string& text, uint32_t magic = 0x5A554E4F) {
    return Word((uint32_t)text.size() + 8) + Word(magic) + text;
  }
};

// `pelkohost link` with a HOME of its own, so no user's zuno.ini is read.
struct Link : HostProcess {
  Link(const Dir& home, std::vector<std::string> args) : HostProcess(std::move(args), home.path) {}
};

TEST(LinkWire, BlocksOfTheHandshakeAndTheSession) {
  struct Case {
    const char* ini;
    uint32_t magic;
  } cases[] = {{"", 0x5A554E4F}, {"[Zuno]\nMagic=7\n", 7}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.magic);
    Dir d;
    int port = host::FreeLoopbackPort();
    Link link(d, {"link", "serve:" + Loop(port), "--config", d.Add("zuno.ini", c.ini)});
    ASSERT_TRUE(link.Saw("state: Listening", 10000)) << link.ReadUntil("", 0);
    Peer p(port);
    ASSERT_TRUE(p.ok());
    // 00 00 00 1C, the magic, and the 20 bytes of the offer.
    EXPECT_EQ(p.Read(28), Peer::Block("SupportedProtocols=2", c.magic));
    p.Send("SupportedProtocols=2,3", c.magic);
    EXPECT_EQ(p.Read(23), Peer::Block("UsingProtocol=2", c.magic));
    p.Send("UsingProtocol=2", c.magic);
    EXPECT_TRUE(link.Saw("state: Connected", 5000));
    p.Send("hello there", c.magic);
    EXPECT_TRUE(link.Saw("received: hello there\n", 5000));
    link.Write("typed line\n");
    EXPECT_EQ(p.Read(18), Peer::Block("typed line", c.magic));
    {
      // A second peer is accepted by the socket layer and dropped.
      Peer second(port);
      EXPECT_TRUE(second.Closed());
    }
    p.Send("still here", c.magic);
    EXPECT_TRUE(link.Saw("received: still here\n", 5000));
  }
}

TEST(LinkWire, RefusedOffersEndOnlyTheirConnection) {
  Dir d;
  int port = host::FreeLoopbackPort();
  Link link(d, {"link", "serve:" + Loop(port)});
  ASSERT_TRUE(link.Saw("state: Listening", 10000)) << link.ReadUntil("", 0);
  // The two lists that don't begin with 2 would keep the work thread
  // scanning for ever; they are refused like any other.
  const char* offers[] = {"SupportedProtocols=1", "SupportedProtocols=", "SupportedProtocols=1,2",
                          "SupportedProtocols=,2", "SupportedProtocols=2x", "Bonjour"};
  for (const char* offer : offers) {
    SCOPED_TRACE(offer);
    Peer p(port);
    ASSERT_EQ(p.Read(28), Peer::Block("SupportedProtocols=2"));
    p.Send(offer);
    EXPECT_TRUE(p.Closed());
  }
  // A block with another magic ends the connection, too.
  Peer wrong(port);
  ASSERT_EQ(wrong.Read(28).size(), 28u);
  wrong.Send("SupportedProtocols=2", 0x41424344);
  EXPECT_TRUE(wrong.Closed());
  // And the link still takes a session.
  Peer p(port);
  ASSERT_EQ(p.Read(28), Peer::Block("SupportedProtocols=2"));
  p.Send("SupportedProtocols=2");
  EXPECT_EQ(p.Read(23), Peer::Block("UsingProtocol=2"));
}

// Two `pelkohost link` processes hold a session and pass lines both ways.
void TwoEnds(const Dir& d, const std::string& serveIni, const std::string& clientIni, const std::string& how,
             bool lateServer) {
  int port = host::FreeLoopbackPort();
  std::vector<std::string> serveArgs = {"link", "serve:" + Loop(port)};
  std::vector<std::string> clientArgs = {"link", how + ":" + Loop(port)};
  if (!serveIni.empty()) serveArgs.insert(serveArgs.end(), {"--config", d.Add("serve.ini", serveIni)});
  if (!clientIni.empty()) clientArgs.insert(clientArgs.end(), {"--config", d.Add("client.ini", clientIni)});
  std::unique_ptr<Link> server, client;
  if (!lateServer) {
    server.reset(new Link(d, serveArgs));
    ASSERT_TRUE(server->Saw("state: Listening", 10000)) << server->ReadUntil("", 0);
  }
  client.reset(new Link(d, clientArgs));
  if (lateServer) {
    // The poll thread finds nobody, and tries again every 5 seconds.
    usleep(1000000);
    server.reset(new Link(d, serveArgs));
  }
  ASSERT_TRUE(server->Saw("state: Connected", 15000)) << server->ReadUntil("", 0);
  ASSERT_TRUE(client->Saw("state: Connected", 15000)) << client->ReadUntil("", 0);
  client->Write("from the client\n");
  server->Write("from the server\n");
  EXPECT_TRUE(server->Saw("received: from the client\n", 5000)) << server->ReadUntil("", 0);
  EXPECT_TRUE(client->Saw("received: from the server\n", 5000)) << client->ReadUntil("", 0);
  EXPECT_EQ(server->Stop(), 0) << server->ReadUntil("\x01", 2000);
  EXPECT_TRUE(client->Saw("session ended", 5000)) << client->ReadUntil("", 0);
  EXPECT_EQ(client->Stop(), 0) << client->ReadUntil("\x01", 2000);
}

TEST(LinkSession, TwoProcessesEachWay) {
  Dir d;
  TwoEnds(d, "", "", "connect", false);
  TwoEnds(d, "", "", "poll", true);
}

TEST(LinkSession, TwoProcessesOverTls) {
  const tlstest::Certs& c = tlstest::Certs::Get();
  if (!c.ok()) GTEST_SKIP() << "no certificates";
  Dir d;
  // A secure link requires the peer's certificate on both sides.
  auto ini = [&c](const std::string& cert) {
    return "[Zuno]\nSecure=secure\nSSLValidation=1\nRootCertDir=" + c.Roots() + "\nPublicCertFile=" +
           c.File(cert + ".pem") + "\nPrivateKeyFile=" + c.File(cert + ".key") + "\n";
  };
  const std::string serveIni = ini("srv");
  TwoEnds(d, serveIni, ini("client"), "connect", false);
  // The bytes on the wire are TLS: a plain peer gets no offer.
  int port = host::FreeLoopbackPort();
  Link server(d, {"link", "serve:" + Loop(port), "--config", d.Add("s.ini", serveIni)});
  ASSERT_TRUE(server.Saw("state: Listening", 10000));
  Peer plain(port);
  plain.Send("SupportedProtocols=2");
  EXPECT_EQ(plain.Read(28).find("ZUNO"), std::string::npos);
}

TEST(LinkSession, StartErrorsAndTheirTexts) {
  Dir d;
  int busy = host::FreeLoopbackPort();
  Link holder(d, {"link", "serve:" + Loop(busy)});
  ASSERT_TRUE(holder.Saw("state: Listening", 10000));
  int none = host::FreeLoopbackPort();
  struct Case {
    std::vector<std::string> args;
    std::string text;
  } cases[] = {
      {{"link", "bogus:1"}, "ZUNO_INIT setting (bogus:1) is invalid"},
      {{"link", "serve,connect::1"}, "ZUNO_INIT setting (serve,connect::1) is invalid"},
      {{"link", "connect:" + Loop(none)}, "it cannot connect to specified ZUNO instance ("},
      {{"link", "serve:" + Loop(busy)}, "the specified port (" + std::to_string(busy) + ") is not available"},
      {{"link", "config:" + d.path + "/none.ini"}, "cannot find configuration file (" + d.path + "/none.ini)"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.args[1]);
    Link l(d, c.args);
    EXPECT_EQ(l.Wait(10000), 1);
    EXPECT_NE(l.ReadUntil("", 0).find(c.text), std::string::npos) << l.ReadUntil("", 0);
  }
}

// A page directory with a file of each kind, a secret beside it and a link
// out of it.
struct Pages : Dir {
  std::string www;
  Pages() {
    www = path + "/www";
    Shell("mkdir -p '" + www + "' && printf secret > '" + path + "/secret.txt' && ln -s '" + path +
          "/secret.txt' '" + www + "/out.js'");
    for (const char* f : {"x.PNG", "a.js", "a.svg", "a.css", "f.woff"}) Add("www/" + std::string(f), f);
  }
};

TEST(LinkWeb, PagesWithTheirTypesAndNothingFromOutside) {
  if (!servetest::Have("curl")) GTEST_SKIP() << "no curl";
  Pages site;
  site.Add("www/index.html", "<p>index</p>");
  int port = host::FreeLoopbackPort();
  std::string ini = site.Add("zuno.ini", "[Zuno]\nHttpDir=" + site.www + "\n[ContentTypes]\nsvg=image/svg+xml\n"
                                         "js=application/x-test\n");
  Link link(site, {"link", "http:" + Loop(port), "--config", ini});
  ASSERT_TRUE(link.Saw("state: HttpSrv", 10000)) << link.ReadUntil("", 0);
  std::string url = "http://" + Loop(port);
  // Each answer's body, then its status and type.
  struct Case {
    std::string args;
    std::string want;
  } cases[] = {
      {"'" + url + "/'", "<p>index</p>200 text/html"},
      {"'" + url + "/x.PNG'", "x.PNG200 image/png"},
      {"'" + url + "/a.svg'", "a.svg200 image/svg+xml"},
      {"'" + url + "/a.js'", "a.js200 application/x-test"},
      {"'" + url + "/a.css'", "a.css200 text/css"},
      {"'" + url + "/f.woff'", "f.woff200 application/font-woff"},
      {"--request-target 'http://h/a.css' '" + url + "/'", "a.css200 text/css"},
      {"'" + url + "/missing'", "Ooops 404404 text/html"},
      {"-X POST '" + url + "/a.css'", "Ooops 404404 "},
      {"--path-as-is '" + url + "/../secret.txt'", "Ooops 404404 text/html"},
      {"'" + url + "/out.js'", "Ooops 404404 application/x-test"},
      {"'" + url + "//etc/passwd'", "Ooops 404404 text/html"},
      {"'" + url + "/" + std::string(600, 'a') + ".css'", "Ooops 404404 text/css"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.args);
    EXPECT_EQ(servetest::Curl("-w '%{http_code} %{content_type}' " + c.args), c.want);
  }
  EXPECT_EQ(servetest::Curl("-D - -o /dev/null '" + url + "/missing' | grep -i content-length"),
            "Content-Length: 9\r\n");
}

const char kLinkPage[] = R"(<!doctype html><script>
const ws = new WebSocket('ws://' + location.host + '/');
ws.onopen = () => {};
ws.onmessage = (e) => {
  if (e.data.startsWith('SupportedProtocols=')) ws.send('UsingProtocol=2');
  else if (e.data === 'UsingProtocol=2') ws.send('page says hi');
  else ws.send('echo:' + e.data);
};
ws.onopen = () => ws.send('SupportedProtocols=2');
</script>)";

TEST(LinkWeb, ABrowserHoldsTheSession) {
  if (servetest::Chromium().empty()) GTEST_SKIP() << "no chromium";
  Pages site;
  site.Add("www/index.html", kLinkPage);
  int port = host::FreeLoopbackPort();
  Link link(site, {"link", "http:" + Loop(port), "--config", site.Add("zuno.ini", "[Zuno]\nHttpDir=" + site.www + "\n")});
  ASSERT_TRUE(link.Saw("state: HttpSrv", 10000)) << link.ReadUntil("", 0);
  std::string profile = servetest::StartBrowser(site.path, "http://" + Loop(port) + "/");
  EXPECT_TRUE(link.Saw("state: Connected", 45000)) << link.ReadUntil("", 0);
  EXPECT_TRUE(link.Saw("received: page says hi\n", 10000)) << link.ReadUntil("", 0);
  link.Write("to the page\n");
  EXPECT_TRUE(link.Saw("received: echo:to the page\n", 10000)) << link.ReadUntil("", 0);
  servetest::EndBrowser(profile);
  EXPECT_TRUE(link.Saw("session ended", 10000)) << link.ReadUntil("", 0);
}

int Threads() {
  int n = 0;
  DIR* d = opendir("/proc/self/task");
  while (d && readdir(d)) n++;
  if (d) closedir(d);
  return n - 2;
}

// The table in this process: the calls without a session, and the poll
// thread, which reaches a late listener and ends when the link is off.
TEST(LinkInProcess, TheTableAndThePollThread) {
  Dir d;
  int port = host::FreeLoopbackPort();
  std::unique_ptr<host::LinkHost> link(host::LinkHost::Open(
      pelkotest::Lib(), {{"ZUNO\\INIT", "poll:" + Loop(port)}, {"ORVANEUSERDIR", d.path}}, nullptr, nullptr));
  ASSERT_TRUE(link);
  int before = Threads();
  EXPECT_EQ(link->Enable(1), 0);
  EXPECT_EQ(link->Enable(1), 0);  // already on
  EXPECT_EQ(Threads(), before + 1);
  EXPECT_EQ(link->Send("nobody"), 1008);  // no session
  int bogus = 0;
  char* data = (char*)&bogus;
  uint32_t length = 7;
  EXPECT_EQ(link->table().GetBuffer(&bogus, &data, &length), 0);
  EXPECT_EQ(data, nullptr);
  EXPECT_EQ(length, 0u);
  EXPECT_EQ(link->table().Free(&bogus), 0);
  EXPECT_EQ(link->Errortext(1234), "Error 1234 from Zuno Communication");
  EXPECT_EQ(link->table().Errortext(1234, nullptr, 10), -1);
  char small[8];
  EXPECT_EQ(link->table().Errortext(1234, small, sizeof small), 7);
  EXPECT_STREQ(small, "Error 1");
  // A listener that comes up late gets the offer.
  streamtest::Listener late(port);
  streamtest::Tcp c = late.Accept(10000);
  ASSERT_GE(c.fd(), 0);
  EXPECT_EQ(c.Read(28, 5000), Peer::Block("SupportedProtocols=2"));
  EXPECT_EQ(link->State(), 1);  // negotiating
  EXPECT_EQ(link->Enable(0), 0);
  EXPECT_EQ(link->State(), 0);
  EXPECT_EQ(Threads(), before);
}

}  // namespace
