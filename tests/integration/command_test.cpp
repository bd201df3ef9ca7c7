// Two roots talking in command mode through the loaded library: arrays as
// requests, progress and answers, the send flags, closes from either side,
// timeouts, the ready strategies, address ranges, pausing, many clients.
#include <gtest/gtest.h>

#include <complex>
#include <thread>

#include "cmdpeer.h"

namespace {

using namespace cmdtest;

std::vector<Value> EveryType() {
  std::vector<Value> v = {
      Value::Int(42),
      Value::Ints({1, -2, 3}),
      Value::Int8s({-1, 2}),
      Value::Int16s({-300, 300}),
      Value::Bits({true, false, true}),
      Value::Doubles({1.5, -2.25}),
      Value::Complexes({{1, 2}}),
      Value::Text("abc"),
      Value::Text("äöü"),
      Value::Text(u8"€uro"),
      Value::Text(U"\U0001F600x", host::Type::Uni32),
      Value::Classic("classic"),
      Value::Decimals(host::Type::Bid, {host::Decimal128{}}),
      Value::Ints({}),
      Value::Text(""),
      Value::Nested({}),
      Value::EmptyNested(Value::Int(0)),
      Value::Nested({Value::Text("deep"), Value::Nested({Value::Int(1), Value::Nested({Value::Doubles({2.5})})})}),
      Value::Ints({1, 2, 3, 4, 5, 6}).Reshape({2, 3}),
  };
  std::vector<int32_t> big(300000);
  for (size_t i = 0; i < big.size(); i++) big[i] = (int32_t)(i * 7);
  v.push_back(Value::Ints(big));
  return v;
}

TEST(Command, ArraysOfEveryTypeTravelWithProgressAndAnswers) {
  Pair p("ARR");
  std::vector<Value> values = EveryType();
  for (size_t i = 0; i < values.size(); i++) {
    SCOPED_TRACE(values[i].Describe().substr(0, 80));
    std::string cmd = "C.q" + std::to_string(i);
    host::CallResult s = Send(p.clt, cmd, values[i]);
    ASSERT_EQ(Code(s), 0);
    EXPECT_EQ(s.result[1].text(), cmd);

    Event e = Wait(p.srv, "", 2000);
    ASSERT_EQ(e.rc, 0);
    EXPECT_EQ(e.event, "Receive");
    EXPECT_EQ(e.name, p.conn + ".q" + std::to_string(i));
    EXPECT_EQ(e.data, values[i]);
    ASSERT_EQ(e.times.size(), 4u);
    EXPECT_LE(e.times[0], e.times[1]);
    EXPECT_LE(e.times[1], e.times[2]);

    // A progress report, then the answer: the request's own value back.
    // A command that is ready comes before what it holds, so the client
    // takes the report before the answer is sent.
    EXPECT_EQ(Respond(p.srv, e.name, Value::Int((int)i), 0), 0);
    Event pr = Wait(p.clt, "C", 2000);
    EXPECT_EQ(pr.event, "Progress");
    EXPECT_EQ(pr.name, cmd + ".Progress00000000");
    EXPECT_EQ(pr.data, Value::Int((int)i));
    EXPECT_EQ(Respond(p.srv, e.name, values[i], 1), 0);
    Event a = Wait(p.clt, "C", 2000);
    EXPECT_EQ(a.event, "Receive");
    EXPECT_EQ(a.name, cmd);
    EXPECT_EQ(a.data, values[i]);
  }
  // Answered and received commands are gone on both sides.
  EXPECT_EQ(Wait(p.srv, "", 0).rc, 100);
  EXPECT_EQ(Wait(p.clt, "", 0).rc, 100);
}

// The side that closed hears no event for the connection itself; its
// commands still in flight may end with ERR_CLOSED.
void ExpectNoCloseEvent(const std::string& root, const std::string& conn) {
  for (Event e = Wait(root, "", 100); e.rc == 0; e = Wait(root, "", 100)) {
    EXPECT_NE(e.name, conn);
    EXPECT_EQ(e.data, Value::Int(1119)) << e.name;
  }
}

TEST(Command, SendFlagsAndGeneratedNames) {
  Pair p("FLAG");
  // An empty sub-name is generated, and comes back to the host.
  host::CallResult s = Send(p.clt, "C", Value::Int(1));
  ASSERT_EQ(Code(s), 0);
  EXPECT_EQ(s.result[1].text(), "C.Auto00000000");
  EXPECT_EQ(Send(p.clt, "C", Value::Int(2)).result[1].text(), "C.Auto00000001");
  for (int i = 0; i < 2; i++) {
    Event e = Wait(p.srv, "", 2000);
    EXPECT_EQ(e.event, "Receive");
    EXPECT_EQ(e.name, p.conn + ".Auto0000000" + std::to_string(i));
    EXPECT_EQ(Respond(p.srv, e.name, Value::Int(i), 1), 0);
    EXPECT_EQ(Wait(p.clt, "C", 2000).name, "C.Auto0000000" + std::to_string(i));
  }

  // Flag 2: no answer wanted; the request is gone once received, and the
  // sender hears nothing.
  ASSERT_EQ(Code(Send(p.clt, "C.fire", Value::Text("x"), 2)), 0);
  Event e = Wait(p.srv, "", 2000);
  EXPECT_EQ(e.event, "Receive");
  EXPECT_EQ(Respond(p.srv, e.name, Value::Int(0), 1), 1010);
  EXPECT_EQ(Wait(p.clt, "", 50).rc, 100);

  // Flag 3: "Sent" first, then the answer.
  ASSERT_EQ(Code(Send(p.clt, "C.told", Value::Text("y"), 3)), 0);
  Event sent = Wait(p.clt, "C", 2000);
  EXPECT_EQ(sent.event, "Sent");
  EXPECT_EQ(sent.name, "C.told");
  EXPECT_EQ(sent.data, Value::Int(0));
  e = Wait(p.srv, "", 2000);
  EXPECT_EQ(Respond(p.srv, e.name, Value::Text("done"), 1), 0);
  Event a = Wait(p.clt, "C", 2000);
  EXPECT_EQ(a.event, "Receive");
  EXPECT_EQ(a.data, Value::Text("done"));

  // Answers go only to requests received: not to a missing name, and not
  // from the client end.
  EXPECT_EQ(Respond(p.srv, p.conn + ".nothing", Value::Int(0), 1), 1010);
  EXPECT_EQ(Code(Send(p.clt, "C.x.y", Value::Int(0))), 1007);
  EXPECT_EQ(Code(Send(p.srv, p.conn + ".back", Value::Int(0))), 1008);
  ASSERT_EQ(Code(Send(p.clt, "C.dup", Value::Int(0))), 0);
  EXPECT_EQ(Code(Send(p.clt, "C.dup", Value::Int(0))), 1008);  // the name is the command's now

  // Flag 1: sent, then this side closes without an event of its own. The
  // server gets the pending C.dup and the last request, each ends with the
  // peer's close, and then the connection reports the close.
  ASSERT_EQ(Code(Send(p.clt, "C.last", Value::Text("bye"), 1)), 0);
  e = Wait(p.srv, "", 2000);
  EXPECT_EQ(e.name, p.conn + ".dup");
  e = Wait(p.srv, "", 2000);
  EXPECT_EQ(e.name, p.conn + ".last");
  EXPECT_EQ(e.data, Value::Text("bye"));
  for (const char* name : {".dup", ".last", ""}) {
    Event c = Wait(p.srv, "", 2000);
    EXPECT_EQ(c.event, "Error");
    EXPECT_EQ(c.name, p.conn + name);
    EXPECT_EQ(c.data, Value::Int(1119));
  }
  ExpectNoCloseEvent(p.clt, "C");
  // Closed, or already gone once the drain has seen the server's close.
  int32_t after = Code(Send(p.clt, "C.after", Value::Int(0)));
  EXPECT_TRUE(after == 1119 || after == 1007) << after;
}

TEST(Command, ClientClosesInTheMiddleOfATransfer) {
  Pair p("CCLOSE");
  ASSERT_EQ(SetProp(p.srv, "", "EventMode", Value::Int(1)), 0);
  std::vector<double> big(4 << 20, 1.25);  // 32 MB
  ASSERT_EQ(Code(Send(p.clt, "C.big", Value::Doubles(big))), 0);
  EXPECT_EQ(Close(p.clt, "C"), 0);
  // The request never completes: the peer's close ends it ("Closed" for
  // ERR_CLOSED under EventMode 1), then the connection reports the close.
  Event e = Wait(p.srv, "", 5000);
  EXPECT_EQ(e.event, "Closed");
  EXPECT_EQ(e.name, p.conn + ".big");
  EXPECT_EQ(e.data, Value::Int(1119));
  e = Wait(p.srv, "", 5000);
  EXPECT_EQ(e.event, "Closed");
  EXPECT_EQ(e.name, p.conn);
  EXPECT_EQ(Wait(p.srv, "", 50).event, "Timeout");
  ExpectNoCloseEvent(p.clt, "C");
}

TEST(Command, ServerClosesWhileTheClientWaitsForAnAnswer) {
  Pair p("SCLOSE");
  ASSERT_EQ(Code(Send(p.clt, "C.q", Value::Text("?"))), 0);
  Event e = Wait(p.srv, "", 2000);
  EXPECT_EQ(e.event, "Receive");
  EXPECT_EQ(Close(p.srv, p.conn), 0);
  // Closed, or gone with the connection once the drain saw the peer go.
  int32_t late = Respond(p.srv, e.name, Value::Int(0), 1);
  EXPECT_TRUE(late == 1119 || late == 1010) << late;
  e = Wait(p.clt, "", 2000);
  EXPECT_EQ(e.event, "Error");
  EXPECT_EQ(e.name, "C.q");
  EXPECT_EQ(e.data, Value::Int(1119));
  e = Wait(p.clt, "", 2000);
  EXPECT_EQ(e.event, "Error");
  EXPECT_EQ(e.name, "C");
  EXPECT_EQ(e.data, Value::Int(1119));
  ExpectNoCloseEvent(p.srv, p.conn);
  EXPECT_EQ(Close(p.clt, "C"), 1010);  // gone with its close event
}

TEST(Command, Timeouts) {
  pelkotest::Root r("TIMEOUT");
  ASSERT_EQ(Serve(r, "S") > 0, true);
  EXPECT_EQ(Wait(r, "S", 30).rc, 100);
  EXPECT_EQ(Wait(r, "nothere", 30).rc, 1010);
  ASSERT_EQ(SetProp(r, "", "EventMode", Value::Int(1)), 0);
  Event e = Wait(r, "S", 30);
  EXPECT_EQ(e.rc, 0);
  EXPECT_EQ(e.event, "Timeout");
  EXPECT_EQ(e.name, "S");
  EXPECT_EQ(e.data, Value::Int(100));
  ASSERT_EQ(SetProp(r, "", "EventMode", Value::Int(0)), 0);
  // A strategy out of the table is stored, and the wait still works.
  ASSERT_EQ(SetProp(r, "", "ReadyStrategy", Value::Int(-3)), 0);
  EXPECT_EQ(Wait(r, "", 10).rc, 100);
}

// Requests that have arrived whole under the server S, as its tree shows
// them: the children of its connections that wait for the host (SAPL).
size_t Arrived(const std::string& srv) {
  host::CallResult r = Lib().Call(srv, "ATree", Value::Text("S"));
  if (!r.result.isNested()) return 0;
  const Value& conns = r.result[1][1];
  size_t n = 0;
  for (uint64_t i = 0; conns.isNested() && i < conns.count(); i++) {
    const Value& cmds = conns[i][1];
    for (uint64_t j = 0; cmds.isNested() && j < cmds.count(); j++) n += cmds[j][0][2].intAt(0) == 5;
  }
  return n;
}

// Connections CON0 and CON1 of one server, each with the requests named
// in sent; gives the order in which the server's waits hand them over.
std::vector<std::string> WaitOrder(int strategy, const std::vector<std::vector<std::string>>& sent) {
  pelkotest::Root srv("ORDERS");
  pelkotest::Root clt("ORDERC");
  EXPECT_EQ(SetProp(srv, "", "ReadyStrategy", Value::Int(strategy)), 0);
  int port = Serve(srv, "S");
  size_t total = 0;
  for (size_t c = 0; c < sent.size(); c++) {
    EXPECT_EQ(Code(Connect(clt, "K" + std::to_string(c), port)), 0);
    EXPECT_EQ(Wait(srv, "", 2000).event, "Connect");
    total += sent[c].size();
  }
  // Sent last connection first, so that time and ring order differ; each
  // arrives before the next is sent, so their ages are in sending order.
  size_t count = 0;
  for (size_t c = sent.size(); c-- > 0;) {
    for (const std::string& name : sent[c]) {
      EXPECT_EQ(Code(Send(clt, "K" + std::to_string(c) + "." + name, Value::Text(name))), 0);
      count++;
      for (int i = 0; i < 400 && Arrived(srv) < count; i++) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
  }
  std::vector<std::string> order;
  for (size_t i = 0; i < total; i++) {
    Event e = Wait(srv, "", 1000);
    order.push_back(e.name.substr(e.name.find('.') + 1));
  }
  return order;
}

TEST(Command, ReadyStrategies) {
  std::vector<std::vector<std::string>> sent = {{"a0", "a1"}, {"b0", "b1"}};
  const std::vector<std::string> oldest = {"CON00000001.b0", "CON00000001.b1", "CON00000000.a0", "CON00000000.a1"};
  const std::pair<int, std::vector<std::string>> orders[] = {
      {2, oldest},  // the oldest first, whatever the ring order
      {3, oldest},  // as 2, limited by type; commands are searched
      {0, {"CON00000000.a0", "CON00000000.a1", "CON00000001.b0", "CON00000001.b1"}},  // ring order
      {1, {"CON00000000.a0", "CON00000001.b0", "CON00000000.a1", "CON00000001.b1"}},  // connections take turns
      {4, oldest},  // each connection's first ready child competes; the older wins
  };
  for (const auto& o : orders) EXPECT_EQ(WaitOrder(o.first, sent), o.second) << "strategy " << o.first;
}

}  // namespace
