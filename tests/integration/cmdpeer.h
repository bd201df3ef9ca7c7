// Command mode as a host program drives it: opening, sending, answering and
// waiting through the exports, each call reduced to what a test checks.
#pragma once

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "harness.h"
#include "host/zblock.h"

namespace cmdtest {

using host::Value;
using pelkotest::Lib;

// The wire of command mode, as a plain peer writes and reads it.
inline void PutBE(std::string& s, size_t at, uint32_t v) {
  for (int i = 0; i < 4; i++) s[at + i] = (char)(v >> (24 - 8 * i));
}

inline uint32_t GetBE(const std::string& s, size_t at) {
  uint32_t v = 0;
  for (int i = 0; i < 4; i++) v = v << 8 | (uint8_t)s[at + i];
  return v;
}

inline std::string Field(const std::string& text) { return (text + std::string(32, ' ')).substr(0, 32); }

// One message as a peer writes it: the 115-byte header and the payload.
inline std::string Message(uint32_t type, const std::string& name, const std::string& sub, const std::string& payload,
                    const char* magic = "Pelko000") {
  std::string m(115, '\0');
  PutBE(m, 0, (uint32_t)(115 + payload.size()));
  PutBE(m, 4, type);
  memcpy(&m[8], magic, 8);
  m.replace(16, 32, Field(""));
  m.replace(48, 32, Field(name));
  m.replace(80, 32, Field(sub));
  return m + payload;
}

inline std::string Payload(const Value& v) {
  std::vector<uint8_t> b = host::Encode(v).bytes();
  return std::string(b.begin(), b.end());
}

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

// The port of an object's "LocalAddr", or 0.
inline int LocalPort(const std::string& root, const std::string& name) {
  host::CallResult a = Lib().Call(root, "AGetProp", Value::Nested({Value::Text(name), Value::Text("LocalAddr")}));
  return Code(a) == 0 ? (int)a.result[1][3].intAt(0) : 0;
}

// Opens a command server on an ephemeral loopback port; gives its port.
inline int Serve(const std::string& root, const std::string& name, std::vector<Value> extra = {}) {
  std::vector<Value> opts = {Opt("Name", Value::Text(name)), Opt("Address", Value::Text("127.0.0.1")),
                             Opt("Port", Value::Text("0"))};
  for (Value& v : extra) opts.push_back(std::move(v));
  host::CallResult r = Lib().Call(root, "ASrv", Value::Nested(opts));
  EXPECT_EQ(Code(r), 0) << r.result.Format();
  return LocalPort(root, name);
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
