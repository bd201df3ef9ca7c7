// Raw, text and block modes against plain socket peers: how the stream is
// cut, what the host receives, and the block header byte for byte.
#include <gtest/gtest.h>
#include <netinet/tcp.h>

#include "streampeer.h"

namespace {

using namespace streamtest;

// A peer accepted by server S, and the connection's name.
std::string Accept(const std::string& root, Tcp* peer, int port) {
  *peer = Tcp::To(port);
  Event e = Wait(root, "S", 3000);
  EXPECT_EQ(e.event, "Connect");
  return e.name;
}

// A listener "S" of the mode, and a peer it accepted.
std::string Served(const std::string& root, const char* mode, std::vector<Value> opts, Tcp* peer) {
  return Accept(root, peer, Serve(root, "S", mode, std::move(opts)));
}

// The peer writes, and the host's next block on conn is expected.
void Cut(const std::string& root, const std::string& conn, Tcp& peer, const std::string& write,
         const std::string& block) {
  peer.Write(write);
  EXPECT_EQ(Block(root, conn), block);
}

TEST(Raw, StopListsCutTheStreamInOrder) {
  Roots r("RawStop");
  Tcp peer;
  std::string conn = Served(r.root, "raw", {Opt("EOM", Strings({"\r\n", "END"}))}, &peer);
  peer.Write("ab\r");
  peer.Write("\ncd");
  EXPECT_EQ(Block(r.root, conn), "ab\r\n");
  // Ignore-case by default: "end" ends a block; two stop texts in one read
  // give two blocks in stream order, and "cd" was held for the first.
  peer.Write("xxend\r\nzz");
  EXPECT_EQ(Block(r.root, conn), "cdxxend");
  EXPECT_EQ(Block(r.root, conn), "\r\n");
  // The peer's close hands up what was held.
  peer.Close();
  EXPECT_EQ(Block(r.root, conn, "BlockLast"), "zz");
  // No "Closed" follows: the connection ends with its last block (the wait
  // times out, or finds it gone).
  Event after = Wait(r.root, conn, 300);
  EXPECT_TRUE(after.rc == 100 || after.rc == 1010) << after.rc << " " << after.event;
}

// The host takes a peer's last block while the work thread is still
// closing the connection: however the two meet, the connection ends there,
// and no "Error" for it reaches a wait on the listener later.
TEST(Raw, APeersCloseEndsWithTheLastBlockAlone) {
  Roots r("RawLast");
  int port = Serve(r.root, "S", "raw", {});
  for (int i = 0; i < 100; i++) {
    Tcp peer;
    std::string conn = Accept(r.root, &peer, port);
    peer.Close();
    ASSERT_EQ(Wait(r.root, conn, 3000).event, "BlockLast") << i;
  }
  Event after = Wait(r.root, "S", 300);
  EXPECT_EQ(after.rc, 100) << after.name << " " << after.event;
}

TEST(Raw, RawGivesIntegersTextGivesCharacters) {
  Roots r("RawTypes");
  Tcp peer;
  std::string conn = Served(r.root, "raw", {}, &peer);
  peer.Write(std::string("\x00\xff\x41", 3));
  Event e = Wait(r.root, conn, 3000);
  EXPECT_EQ(e.event, "Block");
  EXPECT_FALSE(e.data.isText());
  EXPECT_EQ(e.data.ints(), (std::vector<int64_t>{0, 255, 65}));
  // Without a stop list each read is a block of its own.
  Cut(r.root, conn, peer, "de", "de");
  peer.Close();
  e = Wait(r.root, conn, 3000);
  EXPECT_EQ(e.event, "BlockLast");
  EXPECT_EQ(e.data.count(), 0u);

  int text = Serve(r.root, "T", "text", {Opt("EOM", Strings({"\n"}))});
  Tcp tpeer = Tcp::To(text);
  Event c = Wait(r.root, "T", 3000);
  ASSERT_EQ(c.event, "Connect");
  tpeer.Write("hello\nwor");
  e = Wait(r.root, c.name, 3000);
  EXPECT_EQ(e.event, "Block");
  EXPECT_TRUE(e.data.isText());
  EXPECT_EQ(e.data.text(), "hello\n");
  // Text goes out as it stands.
  EXPECT_EQ(Code(cmdtest::Send(r.root, c.name, Value::Text("ok\n"))), 0);
  EXPECT_EQ(tpeer.Read(3), "ok\n");
}

// Each kind of array a raw-mode send takes, byte for byte on the wire, and
// the codes of those it refuses; a refused send leaves nothing behind.
TEST(Raw, WhatASendPutsOnTheWire) {
  Roots r("RawSend");
  Tcp peer;
  std::string conn = Served(r.root, "raw", {}, &peer);
  struct Case {
    const char* what;
    Value value;
    int code;
    std::string wire;
  } cases[] = {
      {"bytes", Value::Int8s({0, -1, 65}), 0, std::string("\x00\xff\x41", 3)},
      {"2-byte integers as bytes", Value::Int16s({0, 255, -128, 66}), 0, std::string("\x00\xff\x80\x42", 4)},
      {"a 2-byte integer past a byte", Value::Int16s({1, 256}), 1004, ""},
      {"classic characters", Value::Classic("ok"), 0, "ok"},
      {"one-byte Unicode characters", Value::Text("h\xc3\xa9"), 0, "h\xe9"},
      {"a character scalar", Value::Char(U'z'), 0, "z"},
      {"wider characters", Value::Text("\xe2\x82\xac"), 1001, ""},  // ERR_LENGTH, as sized
      {"4-byte integers", Value::Ints({1, 2}), 1001, ""},
      {"a matrix", Value::Text("ab").Reshape({1, 2}), 1002, ""},
      {"a file that isn't there", Value::Nested({Value::Text("x"), Value::Text("/no/such/file")}), 1039, ""},
      {"three items", Value::Nested({Value::Text("a"), Value::Text("b"), Value::Text("c")}), 1001, ""},
      {"an empty vector", Value::Int8s({}), 0, ""},
  };
  for (const Case& k : cases) {
    SCOPED_TRACE(k.what);
    EXPECT_EQ(Code(cmdtest::Send(r.root, conn, k.value)), k.code);
    if (!k.wire.empty()) {
      EXPECT_EQ(peer.Read(k.wire.size()), k.wire);
    }
  }
  // With a table installed, classic characters are translated on the way.
  char av2asc[256], asc2av[256];
  for (int i = 0; i < 256; i++) av2asc[i] = asc2av[i] = (char)i;
  av2asc[(unsigned char)'a'] = 'b';
  ASSERT_EQ(Lib().raw().SetXLate((char*)"APL", (char*)"HOST", av2asc, asc2av), 0);
  EXPECT_EQ(Code(cmdtest::Send(r.root, conn, Value::Classic("aha"))), 0);
  EXPECT_EQ(peer.Read(3), "bhb");
}

// The library's socket in this process whose other end is ours.
int LibraryEnd(int ours) {
  sockaddr_in mine = {}, peer = {};
  socklen_t n = sizeof mine;
  getsockname(ours, (sockaddr*)&mine, &n);
  for (int fd = 0; fd < 1024; fd++) {
    n = sizeof peer;
    if (fd != ours && getpeername(fd, (sockaddr*)&peer, &n) == 0 && peer.sin_port == mine.sin_port) return fd;
  }
  return -1;
}

bool NoDelay(int fd) {
  int on = 0;
  socklen_t n = sizeof on;
  return getsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, &n) == 0 && on;
}

// Pieces leave as they are sent, on accepted and on connected sockets: a
// piece smaller than a segment must not wait for the last one's ACK.
TEST(Raw, StreamSocketsSendWithoutDelay) {
  Roots r("RawNoDelay");
  Tcp peer;
  Served(r.root, "raw", {}, &peer);
  int accepted = LibraryEnd(peer.fd());
  ASSERT_GE(accepted, 0);
  EXPECT_TRUE(NoDelay(accepted));
  Listener l;
  ASSERT_NE(Open(r.root, "C", "http", l.port()), "");
  Tcp ours = l.Accept();
  int connected = LibraryEnd(ours.fd());
  ASSERT_GE(connected, 0);
  EXPECT_TRUE(NoDelay(connected));
}

TEST(Raw, CaseAndInheritedListsAndBlockSize) {
  Roots r("RawCase");
  Listener l;
  // A client's own list, matched with case, and a buffer of 10: a full
  // buffer is still cut at its stop text.
  std::string c = Open(r.root, "C", "raw", l.port(),
                       {Opt("EOM", Strings({"X"})), Opt("IgnoreCase", Value::Int(0)), Opt("BufferSize", Value::Int(10))});
  Tcp peer = l.Accept();
  peer.Write("axaXbbbbbb");
  EXPECT_EQ(Block(r.root, c), "axaX");
  // 25 bytes with no stop text: blocks of 10 and 10, and 5 held.
  peer.Write("bbbb" + std::string(15, 'c'));
  EXPECT_EQ(Block(r.root, c), "bbbbbbbbbb");
  EXPECT_EQ(Block(r.root, c), "cccccccccc");
  EXPECT_EQ(Wait(r.root, c, 300).rc, 100);
  peer.Close();
  EXPECT_EQ(Block(r.root, c, "BlockLast"), "ccccc");

  // A list inherited from the server: a full buffer goes up uncut.
  Tcp in;
  std::string conn = Served(r.root, "raw", {Opt("EOM", Strings({"X"})), Opt("BufferSize", Value::Int(10))}, &in);
  Cut(r.root, conn, in, "aaXaaaaaaa", "aaXaaaaaaa");
  Cut(r.root, conn, in, "bX", "bX");
}

TEST(Raw, EmptyStopTextsAreDropped) {
  Roots r("RawEmpty");
  // An empty text would match everywhere and consume nothing.
  Tcp peer;
  std::string conn = Served(r.root, "raw", {Opt("EOM", Strings({"", "\n"}))}, &peer);
  Cut(r.root, conn, peer, "a\nb", "a\n");
  Cut(r.root, conn, peer, "\n", "b\n");
}

// A block as a peer writes it.
std::string BlockBytes(const std::string& data, uint32_t magic, uint32_t length = 0) {
  size_t head = magic ? 8 : 4;
  std::string s(head, '\0');
  uint32_t total = length ? length : (uint32_t)(head + data.size());
  for (int i = 0; i < 4; i++) s[i] = (char)(total >> (24 - 8 * i));
  for (int i = 0; magic && i < 4; i++) s[4 + i] = (char)(magic >> (24 - 8 * i));
  return s + data;
}

TEST(Blk, HeadersByteForByte) {
  Roots r("BlkHead");
  Listener l;
  const uint32_t magic = 0x5A554E4F;
  std::string m = Open(r.root, "M", "blkraw", l.port(), {Opt("Magic", Value::Int((int32_t)magic))});
  Tcp pm = l.Accept();
  std::string n = Open(r.root, "N", "blktext", l.port());
  Tcp pn = l.Accept();

  EXPECT_EQ(Code(cmdtest::Send(r.root, m, Value::Text("hello"))), 0);
  EXPECT_EQ(pm.Read(13), BlockBytes("hello", magic));
  EXPECT_EQ(Code(cmdtest::Send(r.root, n, Value::Text("hi"))), 0);
  EXPECT_EQ(pn.Read(6), std::string("\0\0\0\x06hi", 6));
  // The empty block is a header alone.
  EXPECT_EQ(Code(cmdtest::Send(r.root, m, Value::Text(""))), 0);
  EXPECT_EQ(pm.Read(8), BlockBytes("", magic));

  // Received: raw gives integers, text characters; a magic of 0 passes.
  std::string zeroMagic = BlockBytes("xyz", magic);
  zeroMagic.replace(4, 4, std::string(4, '\0'));
  pm.Write(BlockBytes("\x01\x02", magic) + zeroMagic);
  Event e = Wait(r.root, m, 3000);
  EXPECT_EQ(e.event, "Block");
  EXPECT_EQ(e.data.ints(), (std::vector<int64_t>{1, 2}));
  EXPECT_EQ(Block(r.root, m), "xyz");
  pn.Write(BlockBytes("text", 0));
  e = Wait(r.root, n, 3000);
  EXPECT_EQ(e.event, "Block");
  EXPECT_EQ(e.data.text(), "text");
  EXPECT_EQ(Code(Lib().Call(r.root, "AGetProp", Value::Nested({Value::Text(m), Value::Text("Magic")}))), 0);
}

// A connection that a refused header ends: "Error" with the code, then the
// peer sees the socket go.
void ExpectRefused(const std::string& root, const std::string& conn, Tcp& peer, const std::string& bytes, int code) {
  peer.Write(bytes);
  Event e = Wait(root, conn, 3000);
  EXPECT_EQ(e.event, "Error");
  EXPECT_EQ(e.data.intAt(0), code);
  EXPECT_TRUE(peer.Closed(3000));
}

TEST(Blk, WrongMagicOversizeAndShortLengthEndOnlyTheirConnection) {
  Roots r("BlkBad");
  const uint32_t magic = 77;
  int port = Serve(r.root, "S", "blkraw", {Opt("Magic", Value::Int((int32_t)magic)), Opt("BufferSize", Value::Int(20))});
  Tcp a, b, c, good;
  std::string ca = Accept(r.root, &a, port);
  std::string cb = Accept(r.root, &b, port);
  std::string cc = Accept(r.root, &c, port);
  std::string cg = Accept(r.root, &good, port);
  ExpectRefused(r.root, ca, a, BlockBytes("x", 78), 1130);
  // The limit is on the length field, header included: 20 passes, 21 not.
  good.Write(BlockBytes(std::string(12, 'g'), magic));
  EXPECT_EQ(Wait(r.root, cg, 3000).data.count(), 12u);
  ExpectRefused(r.root, cb, b, BlockBytes(std::string(13, 'g'), magic), 1135);
  ExpectRefused(r.root, cc, c, BlockBytes("", magic, 3), 1042);
  // The others' trouble didn't touch this one.
  good.Write(BlockBytes("ok", magic));
  EXPECT_EQ(Bytes(Wait(r.root, cg, 3000).data), "ok");
}

TEST(Blk, MagicSetLaterReadsNoSecondWordItWasNotMadeFor) {
  Roots r("BlkLate");
  Listener l;
  std::string c = Open(r.root, "C", "blkraw", l.port());
  Tcp peer = l.Accept();
  EXPECT_EQ(cmdtest::SetProp(r.root, c, "Magic", Value::Int(5)), 0);
  host::CallResult m = Lib().Call(r.root, "AGetProp", Value::Nested({Value::Text(c), Value::Text("Magic")}));
  // 0 and a scalar come back as one simple vector.
  EXPECT_EQ(m.result.ints(), (std::vector<int64_t>{0, 5}));
  // The header stays 4 bytes: the block is read as one without a magic.
  peer.Write(BlockBytes("abc", 0));
  EXPECT_EQ(Block(r.root, c), "abc");
  // Sent blocks carry the new magic.
  EXPECT_EQ(Code(cmdtest::Send(r.root, c, Value::Text("z"))), 0);
  EXPECT_EQ(peer.Read(9), BlockBytes("z", 5));
}

}  // namespace
