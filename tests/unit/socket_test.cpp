// Sockets, addressing, ranges, select and the wake-up pair.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <unistd.h>

#include <string>
#include <thread>

#include "engine_helpers.h"
#include "pelkoerr.h"
#include "socket.h"

namespace {

TALSOCKADDR Sa(int family, const char* text, UI2 port) {
  TALSOCKADDR a = {};
  a.ss_family = (sa_family_t)family;
  // Port and address sit where each family keeps them.
  if (family == AF_INET) {
    ((sockaddr_in*)&a)->sin_port = htons(port);
    inet_pton(AF_INET, text, &((sockaddr_in*)&a)->sin_addr);
  } else {
    ((sockaddr_in6*)&a)->sin6_port = htons(port);
    inet_pton(AF_INET6, text, &((sockaddr_in6*)&a)->sin6_addr);
  }
  return a;
}

TALSOCKADDR V4(const char* text, UI2 port = 0) { return Sa(AF_INET, text, port); }
TALSOCKADDR V6(const char* text, UI2 port = 0) { return Sa(AF_INET6, text, port); }

std::string Ntop6(const char* text) {
  TALSOCKADDR a = V6(text);
  char buf[64];
  return inet_ntop6((const unsigned char*)&((sockaddr_in6*)&a)->sin6_addr, buf, sizeof(buf));
}

TEST(Address, DescriptionsAndText) {
  TALSOCKADDR a = V4("127.0.0.1", 80);
  PAA d = nullptr;
  ASSERT_EQ(SockAddr2pAA(&a, &d), 0);
  EXPECT_EQ(TextOf(Elem(d, 0)), "IPv4");
  EXPECT_EQ(TextOf(Elem(d, 1)), "127.0.0.1:80");
  PAA bytes = Elem(d, 2);
  ASSERT_EQ(VAElems(bytes), 4u);
  EXPECT_EQ(IntOf(bytes, 0), 127);
  EXPECT_EQ(IntOf(bytes, 3), 1);
  EXPECT_EQ(IntOf(Elem(d, 3)), 80);
  d = VAFree(d);

  a = V6("fe80::1", 443);
  ASSERT_EQ(SockAddr2pAA(&a, &d), 0);
  EXPECT_EQ(TextOf(Elem(d, 0)), "IPv6");
  EXPECT_EQ(TextOf(Elem(d, 1)), "[fe80::1]:443");
  EXPECT_EQ(VAElems(Elem(d, 2)), 16u);
  d = VAFree(d);

  TALSOCKADDR unix_ = {};
  unix_.ss_family = AF_UNIX;
  EXPECT_EQ(SockAddr2pAA(&unix_, &d), ERR_INVALID_ADDR);
  EXPECT_EQ(d, nullptr);
  EXPECT_EQ(SockAddr2pAA(nullptr, &d), ERR_INVALID_HOST);

  EXPECT_EQ(Ntop6("::"), "::");
  EXPECT_EQ(Ntop6("::1"), "::1");
  EXPECT_EQ(Ntop6("1::"), "1::");
  EXPECT_EQ(Ntop6("2001:db8:0:0:1:0:0:1"), "2001:db8::1:0:0:1");  // first of equal runs
  EXPECT_EQ(Ntop6("1:0:2:3:4:5:6:7"), "1:0:2:3:4:5:6:7");         // a single zero stays
  EXPECT_EQ(Ntop6("::ffff:10.1.2.3"), "::ffff:10.1.2.3");
  EXPECT_EQ(Ntop6("::10.1.2.3"), "::10.1.2.3");
}

TEST(Address, Ranges) {
  RANGES r;
  TALSOCKADDR v4 = V4("192.168.1.1"), v6 = V6("2001:db8::5");
  EXPECT_EQ(r.IsValid(&v4), 1);  // empty passes everything
  EXPECT_EQ(r.IsValid(&v6), 1);

  char text[] = "10.0.0.0/8,192.168.1.1";
  ASSERT_EQ(r.SetAddr4(text), 0);
  EXPECT_STREQ(text, "10.0.0.0/8,192.168.1.1");  // the text is restored
  ASSERT_EQ(r.c4, 2);
  EXPECT_EQ(r.paddr4[0].sin_port, 8);
  EXPECT_EQ(r.paddr4[1].sin_port, 32);
  TALSOCKADDR in = V4("10.200.3.4"), out = V4("11.0.0.1"), mapped = V6("::ffff:10.1.2.3");
  EXPECT_EQ(r.IsValid(&in), 1);
  EXPECT_EQ(r.IsValid(&v4), 1);
  EXPECT_EQ(r.IsValid(&out), 0);
  EXPECT_EQ(r.IsValid(&mapped), 1);  // judged by the IPv4 list
  EXPECT_EQ(r.IsValid(&v6), 1);      // the IPv6 list is empty

  char twelve[] = "10.16.0.0/12";
  ASSERT_EQ(r.SetAddr4(twelve), 0);
  TALSOCKADDR t1 = V4("10.31.255.255"), t2 = V4("10.32.0.0");
  EXPECT_EQ(r.IsValid(&t1), 1);
  EXPECT_EQ(r.IsValid(&t2), 0);
  char zero[] = "1.2.3.4/0";
  ASSERT_EQ(r.SetAddr4(zero), 0);
  EXPECT_EQ(r.IsValid(&out), 1);

  char six[] = "2001:db8::/32";
  ASSERT_EQ(r.SetAddr6(six), 0);
  TALSOCKADDR o6 = V6("2001:db9::1");
  EXPECT_EQ(r.IsValid(&v6), 1);
  EXPECT_EQ(r.IsValid(&o6), 0);

  // A bad piece: the array goes, the count so far stays, and nothing passes.
  char bad[] = "10.0.0.1,nonsense";
  EXPECT_EQ(r.SetAddr4(bad), ERR_INVALID_ADDR);
  EXPECT_EQ(r.paddr4, nullptr);
  EXPECT_EQ(r.c4, 1);
  EXPECT_EQ(r.IsValid(&in), 0);
}

TEST(Socket, PlainSocketOperations) {
  PRPCSOCK srv = new RPCSOCK((PCH10) "127.0.0.1", (PCH10) "0", true, PIPv4, SOCK_STREAM);
  ASSERT_EQ(srv->lError, 0);
  EXPECT_EQ(srv->IpAddr(), 0x7f000001u);
  char port[8];
  snprintf(port, sizeof(port), "%u", srv->Port());
  SI4 err = -1;
  PRPCSOCK clt = NewSock(nullptr, (PCH1) "127.0.0.1", port, false, nullptr, PIPv4, &err);
  ASSERT_EQ(err, 0);
  EXPECT_TRUE(clt->isConnected());

  SOCKETSETS sets;
  SI4 ready = -1;
  Clear(&sets);
  srv->Wait4R(&sets);
  ASSERT_EQ(SfWait(&sets, 2, &ready), 0);
  ASSERT_EQ(ready, 1);
  PRPCSOCK acc = nullptr;
  ASSERT_EQ(srv->Accept(&acc), 0);
  ASSERT_NE(acc, nullptr);

  BUFFER out(5, (PCH1) "hello");
  EXPECT_EQ(clt->Write(&out), 0);
  EXPECT_TRUE(out.Complete());
  BUFFER in(5);
  Clear(&sets);
  acc->Wait4R(&sets);
  SfWait(&sets, 2, &ready);
  EXPECT_EQ(acc->Ready4R(&sets), 1);
  EXPECT_EQ(acc->Read(&in), 0);
  EXPECT_EQ(std::string(in.pBuf, in.Offset), "hello");
  BUFFER more(4);
  EXPECT_EQ(acc->Read(&more), 0);  // nothing there: EAGAIN is no error
  EXPECT_EQ(more.Offset, 0u);

  PAA peer = nullptr;
  ASSERT_EQ(acc->Info(false, &peer), 0);
  EXPECT_EQ(TextOf(Elem(peer, 0)), "IPv4");
  delete clt;  // the peer goes; the description stays cached
  PAA again = nullptr;
  ASSERT_EQ(acc->Info(false, &again), 0);
  EXPECT_EQ(again, peer);
  VAFree(peer);
  VAFree(again);
  EXPECT_EQ(acc->Read(&more), ERR_CLOSED);

  EXPECT_EQ(acc->SetKeepalive(1500, 1000), 0);
  int v = 0;
  socklen_t len = sizeof(v);
  getsockopt(acc->sock, IPPROTO_TCP, TCP_KEEPIDLE, &v, &len);
  EXPECT_EQ(v, 2);
  getsockopt(acc->sock, IPPROTO_TCP, TCP_KEEPINTVL, &v, &len);
  EXPECT_EQ(v, 1);
  EXPECT_EQ(acc->SetKeepalive(0, 5000), 0);
  getsockopt(acc->sock, SOL_SOCKET, SO_KEEPALIVE, &v, &len);
  EXPECT_EQ(v, 0);

  acc->CloseSocket();
  EXPECT_FALSE(acc->isValid());
  acc->CloseSocket();  // twice is harmless
  FD_SET(0, &sets.sRead);
  EXPECT_EQ(acc->Ready4R(&sets), 0);
  char subj[4] = "x";
  EXPECT_EQ(acc->Subject(subj, sizeof(subj)), 0);
  EXPECT_STREQ(subj, "");
  EXPECT_EQ(acc->Subject(subj, 0), ERR_LENGTH);
  delete acc;
  delete srv;

  PRPCSOCK tls = NewSock(nullptr, (PCH1) "127.0.0.1", port, false, (PCERTDATA)&sets, PIPv4, &err);
  EXPECT_EQ(tls, nullptr);
  EXPECT_EQ(err, ERR_NO_SSL_SUPPORT);
}

TEST(Socket, LookupsAndCreationErrors) {
  PAA out = nullptr;
  ASSERT_EQ(IPLookup((PCH1) "localhost", (PCH1) "80", PIPv4, &out), 0);
  ASSERT_GE(VAElems(out), 1u);
  EXPECT_EQ(TextOf(Elem(Elem(out, 0), 1)), "127.0.0.1:80");
  out = VAFree(out);
  EXPECT_EQ(IPLookup(nullptr, (PCH1) "80", PAny, &out), ERR_INVALID_HOST);
  EXPECT_EQ(IPLookup((PCH1) "no.such.host.invalid", (PCH1) "80", PAny, &out), ERR_INVALID_HOST);

  ASSERT_EQ(IPv4Addrs(&out), 0);
  ASSERT_EQ(VARank(out), 2);
  EXPECT_EQ(VAShape(out)[1], 3u);
  bool loopback = false;
  for (UI4 r = 0; r < VAShape(out)[0]; r++)
    loopback = loopback || TextOf(Elem(out, r * 3 + 1)) == "127.0.0.1";
  EXPECT_TRUE(loopback);
  out = VAFree(out);

  // A refused connection: nothing listens on the port just freed.
  SOCKET s;
  ASSERT_EQ(CreateSocket(&s, SOCK_STREAM, nullptr), 0);
  sockaddr_in a = {};
  socklen_t len = sizeof(a);
  getsockname(s, (sockaddr*)&a, &len);
  close(s);
  char port[8];
  snprintf(port, sizeof(port), "%u", ntohs(a.sin_port));
  EXPECT_EQ(CreateSocketNew(&s, (PCH1) "127.0.0.1", port, SOCK_STREAM, PIPv4, false),
            ERR_CONNECT_DATA);
  EXPECT_EQ(s, INVALID_SOCKET);
  EXPECT_EQ(CreateSocketNew(&s, (PCH1) "127.0.0.1", (PCH1) "nosuchservice", SOCK_STREAM, PIPv4,
                            false),
            ERR_INVALID_SERVICE);
  ASSERT_EQ(CreateSocketNew(&s, nullptr, nullptr, SOCK_DGRAM, PIPv4, false), 0);
  close(s);
  TALSOCKADDR got;
  EXPECT_EQ(GetIPAddr((PCH1) "127.0.0.1", (PCH1) "7", SOCK_STREAM, PIPv4, false, &got), 0);
  EXPECT_EQ(got.ss_family, AF_INET);
}

// curl, as a real IPv4 peer, reaches a listener on "*" with no protocol
// given; with IPv6 present that is one dual-stack socket, and the peer
// shows as a mapped address.
TEST(Socket, DualStackListenerTakesCurl) {
  ProbeIPv6();
  PRPCSOCK srv = new RPCSOCK((PCH10) "*", (PCH10) "0", true, PAny, SOCK_STREAM);
  ASSERT_EQ(srv->lError, 0);
  std::string cmd = "curl -s -o /dev/null --max-time 5 http://127.0.0.1:" +
                    std::to_string(srv->Port()) + "/probe";
  std::thread peer([cmd] { EXPECT_NE(system(cmd.c_str()), -1); });
  SOCKETSETS sets;
  SI4 ready = 0;
  Clear(&sets);
  srv->Wait4R(&sets);
  ASSERT_EQ(SfWait(&sets, 5, &ready), 0);
  PRPCSOCK acc = nullptr;
  ASSERT_EQ(srv->Accept(&acc), 0);
  BUFFER req(256);
  for (int i = 0; i < 50 && req.FindAsc((PCH10) "\r\n\r\n", true, false) < 0; i++) {
    Clear(&sets);
    acc->Wait4R(&sets);
    SfWait(&sets, 1, &ready);
    ASSERT_EQ(acc->Read(&req), 0);
  }
  EXPECT_EQ(std::string(req.pBuf, 15), "GET /probe HTTP");
  PAA peerInfo = nullptr;
  ASSERT_EQ(acc->Info(false, &peerInfo), 0);
  std::string text = TextOf(Elem(peerInfo, 1));
  if (IPV6Available)
    EXPECT_EQ(text.rfind("[::ffff:127.0.0.1]:", 0), 0u) << text;
  else
    EXPECT_EQ(text.rfind("127.0.0.1:", 0), 0u) << text;
  VAFree(peerInfo);
  delete acc;  // curl sees the close and ends
  peer.join();
  delete srv;
}

TEST(Select, BufferedCountAndSockPair) {
  SOCKETSETS sets;
  SI4 ready = 0;
  Clear(&sets);
  sets.cntBuffered = 1;
  EXPECT_EQ(SfWait(&sets, 300, &ready), 0);  // returns at once
  EXPECT_EQ(ready, 1);

  PRPCSOCK work = nullptr, clt = nullptr;
  ASSERT_EQ(RPCSockPair(&work, &clt), 0);
  ASSERT_TRUE(work && clt);
  // Each end's peer is the other end.
  TALSOCKADDR a, b;
  work->Addr(false, &a);
  clt->Addr(true, &b);
  EXPECT_EQ(((sockaddr_in*)&a)->sin_port, ((sockaddr_in*)&b)->sin_port);
  int nodelay = 0;
  socklen_t len = sizeof(nodelay);
  getsockopt(clt->sock, IPPROTO_TCP, TCP_NODELAY, &nodelay, &len);
  EXPECT_EQ(nodelay, 1);

  UI4 word = 0x01020304;
  BUFFER w(4, (PCH1)&word);
  ASSERT_EQ(clt->Write(&w), 0);
  Clear(&sets);
  work->Wait4R(&sets);
  ASSERT_EQ(SfWait(&sets, 2, &ready), 0);
  EXPECT_EQ(ready, 1);
  BUFFER r(4);
  ASSERT_EQ(work->Read(&r), 0);
  EXPECT_TRUE(r.Complete());
  EXPECT_EQ(memcmp(r.pBuf, &word, 4), 0);
  delete work;
  delete clt;
}

}  // namespace
