// UDP against plain datagram sockets: a node per peer, the names of what
// arrives, MaxOld, and both ways of sending.
#include <gtest/gtest.h>

#include "streampeer.h"

namespace {

using namespace streamtest;

TEST(Udp, DatagramsLandUnderOneNodePerPeer) {
  pelkotest::Root root("UdpPeers");
  int port = Serve(root, "U", "udp", {Opt("Protocol", Value::Text("ipv4"))});
  ASSERT_NE(port, 0);
  Udp a, b;
  a.SendTo(port, "one");
  Event e1 = Wait(root, "U", 3000);
  b.SendTo(port, "two");
  Event e2 = Wait(root, "U", 3000);
  a.SendTo(port, "three");
  Event e3 = Wait(root, "U", 3000);
  EXPECT_EQ(e1.event, "Block");
  EXPECT_EQ(Bytes(e1.data), "one");
  EXPECT_EQ(Bytes(e2.data), "two");
  EXPECT_EQ(Bytes(e3.data), "three");
  // The host sees the peer's node: one per address and port.
  EXPECT_EQ(e1.name.rfind("U.", 0), 0u) << e1.name;
  EXPECT_NE(e1.name, e2.name);
  EXPECT_EQ(e1.name, e3.name);
  // Base 64 of 127.0.0.1, ':', the port in hexadecimal.
  char hex[5];
  snprintf(hex, sizeof hex, "%04x", a.port());
  EXPECT_EQ(e1.name, std::string("U.fwAAAQ==:") + hex);
  // Its LocalAddr is the peer's address.
  EXPECT_EQ(cmdtest::LocalPort(root, e1.name), a.port());

  // The send verb names the peer and sends to it; the answer to a known
  // peer goes by its node name.
  host::CallResult s = cmdtest::Send(root, "U", Value::Nested({Value::Text("127.0.0.1"),
                                                            Value::Text(std::to_string(b.port())), Value::Text("back")}));
  EXPECT_EQ(Code(s), 0);
  EXPECT_EQ(s.result[1].text(), e2.name);
  EXPECT_EQ(b.Recv(), "back");
  EXPECT_EQ(Code(cmdtest::Send(root, e1.name, Value::Text("again"))), 0);
  EXPECT_EQ(a.Recv(), "again");
}

TEST(Udp, DroppedDatagramsThatFillTheBufferDontStallIt) {
  pelkotest::Root root("UdpFull");
  int port = Serve(root, "U", "udp", {Opt("Protocol", Value::Text("ipv4")), Opt("BufferSize", Value::Int(8))});
  EXPECT_EQ(cmdtest::SetProp(root, "U", "MaxOld", Value::Int(1)), 0);
  Udp a;
  // Longer than the buffer: the system cuts it.
  a.SendTo(port, "0123456789");
  EXPECT_EQ(Bytes(Wait(root, "U", 3000).data), "01234567");
  a.SendTo(port, "d1");
  a.SendTo(port, "d2");
  usleep(100000);
  // Two dropped datagrams fill the buffer; it starts again for the next.
  for (const char* d : {"aaaa", "bbbb", "cc"}) {
    a.SendTo(port, d);
    usleep(50000);
  }
  EXPECT_EQ(Bytes(Wait(root, "U", 3000).data), "d1");
  EXPECT_EQ(Bytes(Wait(root, "U", 3000).data), "d2");
  a.SendTo(port, "dd");
  EXPECT_EQ(Bytes(Wait(root, "U", 3000).data), "ccdd");
}

TEST(Udp, ClientNamesItsPeer) {
  pelkotest::Root root("UdpClt");
  Udp far;
  std::string name = Open(root, "C", "udp", far.port(), {Opt("Protocol", Value::Text("ipv4"))});
  char hex[5];
  snprintf(hex, sizeof hex, "%04x", far.port());
  EXPECT_EQ(name, std::string("C.fwAAAQ==:") + hex);
  EXPECT_EQ(Code(cmdtest::Send(root, name, Value::Text("ping"), 3)), 0);
  EXPECT_EQ(far.Recv(), "ping");
  // A datagram's send flag is ignored: no "Sent" follows.
  EXPECT_EQ(Wait(root, name, 200).rc, 100);
}

}  // namespace
