// Command mode as a host program drives it: opening, sending, answering and
// waiting through the exports, each call reduced to what a test checks.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "harness.h"

namespace cmdtest {

using host::Value;
using pelkotest::Lib;

inline Value Opt(const char* name, Value v) { return Value::Nested({Value::Text(name), std::move(v)}); }

// What one wait gave: the code, and with 0 the object, event, data, times.
struct Event {
  int32_t rc = -1;
  std::string name;
  std::string event;
  Value data;
  std::vector<double> times;
};

inline Event Wait(const std::string& root, const std::string& name, int timeoutMs) {
  host::CallResult r = Lib().Call(root, "AWaitZ", Value::Int(0),
                                  Value::Nested({Value::Text(name), Value::Int(timeoutMs)}));
  Event e;
  EXPECT_EQ(r.error, "");
  if (r.left) e.data = *r.left;
  if (!r.result.isNested()) {
    e.rc = (int32_t)r.result.intAt(0);
    return e;
  }
  e.rc = (int32_t)r.result[0].intAt(0);
  e.name = r.result[1].text();
  e.event = r.result[2].text();
  for (uint64_t i = 0; i < r.result[3].count(); i++) e.times.push_back(r.result[3].doubleAt(i));
  return e;
}

// A verb's code: the first element of its result, nested or simple.
inline int32_t Code(const host::CallResult& r) {
  return (int32_t)(r.result.isNested() ? r.result[0].intAt(0) : r.result.intAt(0));
}

// Opens a command server on an ephemeral loopback port; gives its port.
inline int Serve(const std::string& root, const std::string& name, std::vector<Value> extra = {}) {
  std::vector<Value> opts = {Opt("Name", Value::Text(name)), Opt("Address", Value::Text("127.0.0.1")),
                             Opt("Port", Value::Text("0"))};
  for (Value& v : extra) opts.push_back(std::move(v));
  host::CallResult r = Lib().Call(root, "ASrv", Value::Nested(opts));
  EXPECT_EQ(Code(r), 0) << r.result.Format();
  host::CallResult a = Lib().Call(root, "AGetProp", Value::Nested({Value::Text(name), Value::Text("LocalAddr")}));
  if (Code(a) != 0) return 0;
  return (int)a.result[1][3].intAt(0);
}

// Opens a command client; gives the verb's result (0 and the name, or a code).
inline host::CallResult Connect(const std::string& root, const std::string& name, int port) {
  return Lib().Call(root, "AClt", Value::Nested({Opt("Name", Value::Text(name)),
                                                 Opt("Address", Value::Text("127.0.0.1")),
                                                 Opt("Port", Value::Text(std::to_string(port)))}));
}

inline host::CallResult Send(const std::string& root, const std::string& name, const Value& v, int flag = 0) {
  return Lib().Call(root, "ASendZ", v, Value::Nested({Value::Text(name), Value::Int(flag)}));
}

inline int32_t Respond(const std::string& root, const std::string& name, const Value& v, int flag) {
  return Code(Lib().Call(root, "ARespondZ", v, Value::Nested({Value::Text(name), Value::Int(flag)})));
}

inline int32_t SetProp(const std::string& root, const std::string& name, const char* prop, const Value& v) {
  return Code(Lib().Call(root, "ASetProp", Value::Nested({Value::Text(name), Value::Text(prop), v})));
}

inline int32_t Close(const std::string& root, const std::string& name) {
  return Code(Lib().Call(root, "AClose", Value::Text(name)));
}

// A server root and a client root with one connection between them; the
// server has seen the "Connect".
struct Pair {
  std::string srv, clt, conn;
  int port = 0;
  explicit Pair(const char* stem, std::vector<Value> extra = {}) {
    srv = pelkotest::NewRoot(std::string(stem) + "S");
    clt = pelkotest::NewRoot(std::string(stem) + "C");
    port = Serve(srv, "S", std::move(extra));
    EXPECT_EQ(Code(Connect(clt, "C", port)), 0);
    Event e = Wait(srv, "S", 2000);
    EXPECT_EQ(e.event, "Connect");
    conn = e.name;
  }
  ~Pair() {
    Lib().Call(clt, "AClose", Value::Text("."));
    Lib().Call(srv, "AClose", Value::Text("."));
  }
};

}  // namespace cmdtest
