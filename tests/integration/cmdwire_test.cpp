// Command mode on the wire, against a plain socket peer: the
// exact bytes of the header both ways, and what a misbehaving peer gets.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstring>

#include "host/zblock.h"
#include "streampeer.h"

namespace {

using namespace cmdtest;
using streamtest::Listener;
using Peer = streamtest::Tcp;

void ExpectHeader(const std::string& h, uint32_t length, uint32_t type, const std::string& name,
                  const std::string& sub) {
  ASSERT_GE(h.size(), 115u);
  EXPECT_EQ(GetBE(h, 0), length);
  EXPECT_EQ(GetBE(h, 4), type);
  EXPECT_EQ(h.substr(8, 8), "Pelko000");
  EXPECT_EQ(h.substr(16, 32), std::string(32, ' '));
  EXPECT_EQ(h.substr(48, 32), Field(name));
  EXPECT_EQ(h.substr(80, 32), Field(sub));
}

TEST(CommandWire, ToTheServerAndBack) {
  pelkotest::Root srv("WIRES");
  int port = Serve(srv, "S");
  Peer peer = Peer::To(port);
  Event c = Wait(srv, "", 2000);
  ASSERT_EQ(c.event, "Connect");

  Value v = Value::Nested({Value::Text("wire"), Value::Ints({1, 2, 3})});
  ASSERT_TRUE(peer.Write(Message(1, "wire", "", Payload(v))));
  Event e = Wait(srv, "", 2000);
  EXPECT_EQ(e.event, "Receive");
  EXPECT_EQ(e.name, c.name + ".wire");
  EXPECT_EQ(e.data, v);

  EXPECT_EQ(Respond(srv, e.name, Value::Int(5), 0), 0);
  std::string p5 = Payload(Value::Int(5));
  std::string got = peer.Read(115 + p5.size());
  ExpectHeader(got, (uint32_t)(115 + p5.size()), 2, "wire", "Progress00000000");
  EXPECT_EQ(got.substr(115), p5);

  EXPECT_EQ(Respond(srv, e.name, Value::Text("ok"), 1), 0);
  std::string ok = Payload(Value::Text("ok"));
  got = peer.Read(115 + ok.size());
  ExpectHeader(got, (uint32_t)(115 + ok.size()), 3, "wire", "");
  // The host's block goes to the wire as it is.
  EXPECT_EQ(got.substr(115), ok);
}

TEST(CommandWire, FromTheClient) {
  pelkotest::Root clt("WIREC");
  Listener l;
  ASSERT_EQ(Code(Connect(clt, "C", l.port())), 0);
  Peer peer = l.Accept();
  ASSERT_GE(peer.fd(), 0);
  std::string z = Payload(Value::Ints({7, 8}));
  ASSERT_EQ(Code(Send(clt, "C.abc", Value::Ints({7, 8}))), 0);
  std::string got = peer.Read(115 + z.size());
  ExpectHeader(got, (uint32_t)(115 + z.size()), 1, "abc", "");
  EXPECT_EQ(got.substr(115), z);

  ASSERT_EQ(Code(Send(clt, "C.nope", Value::Ints({7, 8}), 2)), 0);
  got = peer.Read(115 + z.size());
  ExpectHeader(got, (uint32_t)(115 + z.size()), 4, "nope", "");

  // A name of 33 goes out cut to 32, and the answer finds it under that.
  std::string longName = "n23456789012345678901234567890123";
  ASSERT_EQ(Code(Send(clt, "C." + longName, Value::Int(1))), 0);
  got = peer.Read(115 + Payload(Value::Int(1)).size());
  ExpectHeader(got, (uint32_t)(115 + Payload(Value::Int(1)).size()), 1, longName.substr(0, 32), "");
  ASSERT_TRUE(peer.Write(Message(2, longName.substr(0, 32), "Progress00000007", Payload(Value::Text("half")))));
  Event e = Wait(clt, "", 2000);
  EXPECT_EQ(e.event, "Progress");
  EXPECT_EQ(e.name, "C." + longName.substr(0, 32) + ".Progress00000007");
  EXPECT_EQ(e.data, Value::Text("half"));
  ASSERT_TRUE(peer.Write(Message(3, longName.substr(0, 32), "", Payload(Value::Text("yes")))));
  e = Wait(clt, "", 2000);
  EXPECT_EQ(e.event, "Receive");
  EXPECT_EQ(e.name, "C." + longName.substr(0, 32));
  EXPECT_EQ(e.data, Value::Text("yes"));
}

// What a server host sees from a peer that sends these bytes: the error
// code of the event that ends that connection, or -1 if none came.
int32_t Refusal(const std::string& srv, int port, const std::vector<std::string>& writes,
                bool thenClose = false) {
  Peer peer = Peer::To(port);
  Event c = Wait(srv, "", 2000);
  EXPECT_EQ(c.event, "Connect");
  for (const std::string& w : writes) {
    EXPECT_TRUE(peer.Write(w));
    usleep(20000);
  }
  if (thenClose) Peer gone(std::move(peer));
  for (Event e = Wait(srv, "", 2000); e.rc == 0; e = Wait(srv, "", 2000)) {
    if (e.name == c.name) {
      EXPECT_EQ(e.event, "Error");
      return (int32_t)e.data.intAt(0);
    }
  }
  return -1;
}

TEST(CommandWire, AMisbehavingPeerEndsOnlyItsOwnConnection) {
  pelkotest::Root srv("SAFES");
  pelkotest::Root clt("SAFEC");
  int port = Serve(srv, "S");
  ASSERT_EQ(Code(Connect(clt, "good", port)), 0);
  ASSERT_EQ(Wait(srv, "", 2000).event, "Connect");

  std::string z = Payload(Value::Int(1));
  std::string shortLength = Message(1, "x", "", z);
  PutBE(shortLength, 0, 100);
  EXPECT_EQ(Refusal(srv, port, {shortLength}), 1042);
  EXPECT_EQ(Refusal(srv, port, {Message(1, "x", "", z, "Pelko001")}), 1130);
  EXPECT_EQ(Refusal(srv, port, {Message(1, "twice", "", z), Message(1, "twice", "", z)}), 1009);
  EXPECT_EQ(Refusal(srv, port, {Message(3, "stranger", "", z)}), 1126);
  EXPECT_EQ(Refusal(srv, port, {Message(2, "stranger", "Progress00000000", z)}), 1126);
  EXPECT_EQ(Refusal(srv, port, {Message(1, "a.b", "", z)}), 1009);
  EXPECT_EQ(Refusal(srv, port, {Message(1, "", "", z)}), 1009);
  EXPECT_EQ(Refusal(srv, port, {Message(1, "junk", "", std::string(40, 'j'))}), 1131);
  std::string lying = z;
  PutBE(lying, 0, 4096);  // the block claims more than the message holds
  EXPECT_EQ(Refusal(srv, port, {Message(1, "lying", "", lying)}), 1131);
  // A header must come in one write: the magic test holds byte 16 against
  // the terminator when a part of 17 to 114 bytes has come.
  std::string m = Message(1, "split", "", z);
  EXPECT_EQ(Refusal(srv, port, {m.substr(0, 50), m.substr(50)}), 1130);
  // A length nobody can hold: refused, or held until the peer goes.
  std::string huge = Message(1, "huge", "", "");
  PutBE(huge, 0, 0xFFFFFFF0u);
  int32_t code = Refusal(srv, port, {huge}, true);
  EXPECT_TRUE(code == 1012 || code == 1119) << code;

  // The well-behaved client is still served.
  ASSERT_EQ(Code(Send(clt, "good.q", Value::Text("still?"))), 0);
  Event e = Wait(srv, "", 2000);
  ASSERT_EQ(e.event, "Receive");
  EXPECT_EQ(Respond(srv, e.name, Value::Text("yes"), 1), 0);
  Event a = Wait(clt, "", 2000);
  EXPECT_EQ(a.event, "Receive");
  EXPECT_EQ(a.data, Value::Text("yes"));
}

}  // namespace
