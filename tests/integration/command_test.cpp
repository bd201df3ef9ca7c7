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

}  // namespace
