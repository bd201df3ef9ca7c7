// A command server as a host program sees it: the opening verbs' answers,
// allowed and denied peers, and pausing. Many clients at once: soak_test.cpp.
#include <gtest/gtest.h>

#include <thread>

#include "cmdpeer.h"

namespace {

using namespace cmdtest;

Value Range(const char* kind, const char* list) {
  return Value::Nested({Value::Nested({Value::Text(kind), Value::Text(list)})});
}

// Whether a client from 127.0.0.1 gets through a server with these ranges:
// the server reports "Connect", or the client sees its connection closed.
bool Admitted(std::vector<Value> ranges) {
  pelkotest::Root srv("RANGES");
  pelkotest::Root clt("RANGEC");
  int port = Serve(srv, "S", std::move(ranges));
  EXPECT_EQ(Code(Connect(clt, "C", port)), 0);
  Event s = Wait(srv, "", 150);
  bool in = s.event == "Connect";
  if (!in) {
    Event c = Wait(clt, "", 2000);
    EXPECT_EQ(c.name, "C");
    EXPECT_EQ(c.data, Value::Int(1119));
  }
  return in;
}

TEST(CommandServer, AllowAndDenyRanges) {
  EXPECT_TRUE(Admitted({}));
  EXPECT_TRUE(Admitted({Opt("AllowEndpoints", Range("ipv4", "127.0.0.0/8"))}));
  EXPECT_FALSE(Admitted({Opt("AllowEndpoints", Range("ipv4", "10.0.0.0/8,192.168.0.1"))}));
  EXPECT_FALSE(Admitted({Opt("DenyEndpoints", Range("ipv4", "127.0.0.1"))}));
  EXPECT_TRUE(Admitted({Opt("DenyEndpoints", Range("IPv4", "127.0.0.2/32"))}));
  // In both lists: refused.
  EXPECT_FALSE(Admitted({Opt("AllowEndpoints", Range("ipv4", "127.0.0.1")),
                         Opt("DenyEndpoints", Range("ipv4", "127.0.0.0/24"))}));

  pelkotest::Root r("RANGEBAD");
  auto open = [&](Value range) {
    return Code(Lib().Call(r, "ASrv", Value::Nested({Opt("Name", Value::Text("")), Opt("Port", Value::Text("0")),
                                                     Opt("AllowEndpoints", std::move(range))})));
  };
  EXPECT_EQ(open(Range("ipx", "1.2.3.4")), 1037);
  EXPECT_EQ(open(Value::Ints({1, 2})), 1037);
  EXPECT_EQ(open(Range("ipv4", "1.2.3.x")), 1132);
}

TEST(CommandServer, OpeningVerbs) {
  pelkotest::Root r("OPEN");
  auto srv = [&](std::vector<Value> opts) { return Lib().Call(r, "ASrv", Value::Nested(opts)); };
  // Generated names share the root's counter with clients.
  host::CallResult a = srv({Opt("Name", Value::Text("")), Opt("Port", Value::Text("0"))});
  ASSERT_EQ(Code(a), 0);
  std::string first = a.result[1].text();
  EXPECT_EQ(first.substr(0, 3), "SRV");
  host::CallResult c = Connect(r, "", LocalPort(r, first));
  ASSERT_EQ(Code(c), 0);
  host::CallResult b = srv({Opt("Name", Value::Text("")), Opt("Port", Value::Text("0"))});
  unsigned n1 = std::stoul(first.substr(3)), n2 = std::stoul(c.result[1].text().substr(3)),
           n3 = std::stoul(b.result[1].text().substr(3));
  EXPECT_EQ(c.result[1].text().substr(0, 3), "CLT");
  EXPECT_EQ(n2, n1 + 1);
  EXPECT_EQ(n3, n1 + 2);

  EXPECT_EQ(Code(srv({Opt("Name", Value::Text("a.b")), Opt("Port", Value::Text("0"))})), 1008);
  EXPECT_EQ(Code(srv({Opt("Name", Value::Text(first)), Opt("Port", Value::Text("0"))})), 1009);
  EXPECT_EQ(Code(srv({Opt("Port", Value::Text("0"))})), 1046);
  EXPECT_EQ(Code(srv({Opt("Name", Value::Text("W")), Opt("Mode", Value::Text("websocket"))})), 1125);
  EXPECT_EQ(Code(srv({Opt("Name", Value::Text("M")), Opt("Mode", Value::Text("nomode"))})), 1045);
  EXPECT_EQ(Code(srv({Opt("Name", Value::Text("X")), Opt("Colour", Value::Text("red"))})), 1045);
  // An end-of-message list belongs to raw and text modes: the verb fails,
  // and the listener stays.
  EXPECT_EQ(Code(srv({Opt("Name", Value::Text("E")), Opt("Port", Value::Text("0")),
                      Opt("EOM", Value::Text("\r\n"))})),
            1008);
  EXPECT_EQ(Code(Lib().Call(r, "AGetProp", Value::Nested({Value::Text("E"), Value::Text("Pause")}))), 0);
  // A port nobody listens on: the connect fails in the verb.
  EXPECT_NE(Code(Connect(r, "nobody", 1)), 0);
  EXPECT_EQ(Code(Lib().Call(r, "ATree", Value::Text("nobody"))), 1010);
}

TEST(CommandServer, PauseAndResume) {
  pelkotest::Root srv("PAUSES");
  pelkotest::Root clt("PAUSEC");
  int port = Serve(srv, "S");
  EXPECT_EQ(SetProp(srv, "S", "Pause", Value::Int(0)), 1103);  // not paused
  EXPECT_EQ(SetProp(srv, "S", "Pause", Value::Int(3)), 1037);
  // 1: the listener stays, peers queue in its backlog and come in later.
  ASSERT_EQ(SetProp(srv, "S", "Pause", Value::Int(1)), 0);
  ASSERT_EQ(Code(Connect(clt, "A", port)), 0);
  EXPECT_EQ(Wait(srv, "", 150).rc, 100);
  ASSERT_EQ(SetProp(srv, "S", "Pause", Value::Int(0)), 0);
  EXPECT_EQ(Wait(srv, "", 2000).event, "Connect");

  // 2: the listener goes away; resuming binds a new one.
  ASSERT_EQ(SetProp(srv, "S", "Pause", Value::Int(2)), 0);
  host::CallResult g = Lib().Call(srv, "AGetProp", Value::Nested({Value::Text("S"), Value::Text("Pause")}));
  EXPECT_EQ(g.result[1], Value::Ints({2}));
  // The old port refuses connections once the work thread has closed it.
  bool refused = false;
  for (int i = 0; i < 100 && !(refused = Code(Connect(clt, "probe" + std::to_string(i), port)) != 0); i++)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  EXPECT_TRUE(refused);
  EXPECT_EQ(SetProp(srv, "S", "Pause", Value::Int(2)), 0);  // stays paused
  ASSERT_EQ(SetProp(srv, "S", "Pause", Value::Int(0)), 0);
  ASSERT_EQ(Code(Connect(clt, "B", LocalPort(srv, "S"))), 0);
  Event e = Wait(srv, "", 2000);
  while (e.rc == 0 && e.event != "Connect") e = Wait(srv, "", 2000);
  EXPECT_EQ(e.event, "Connect");
}

}  // namespace
