// WebSocket against plain socket peers: both ways of upgrading on both
// sides, the frame bytes the library sends, the frames it takes, control
// frames, and the closes.
#include <gtest/gtest.h>

#include <cstring>

#include "servepeer.h"
#include "streampeer.h"

namespace {

using namespace streamtest;

const char kKey[] = "dGhlIHNhbXBsZSBub25jZQ==";
const char kAnswer[] =
    "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
    "Sec-Websocket-Accept: s3pPLMBiTxaQ9kYGzzhZRbK+xOo=\r\n\r\n";

std::string Request(const std::string& connection = "Upgrade", const std::string& version = "13") {
  return "GET /chat HTTP/1.1\r\nHost: localhost\r\nUpgrade: websocket\r\nConnection: " + connection +
         "\r\nSec-WebSocket-Key: " + kKey + "\r\nSec-WebSocket-Version: " + version + "\r\n\r\n";
}

// A frame as a peer writes it: masked with key when key is not empty.
std::string Frame(int b0, const std::string& payload, const std::string& key = "\x01\x02\x03\x04") {
  std::string f(1, (char)b0);
  int mask = key.empty() ? 0 : 0x80;
  uint64_t n = payload.size();
  if (n <= 125) {
    f += (char)(mask | (int)n);
  } else if (n <= 0xFFFF) {
    f += (char)(mask | 126);
    f += (char)(n >> 8);
    f += (char)n;
  } else {
    f += (char)(mask | 127);
    for (int i = 7; i >= 0; i--) f += (char)(n >> (8 * i));
  }
  f += key;
  for (size_t i = 0; i < payload.size(); i++) f += key.empty() ? payload[i] : (char)(payload[i] ^ key[i % 4]);
  return f;
}

// One frame read from the peer's side: first byte, payload (unmasked), and
// whether it was masked.
struct Got {
  int b0 = -1;
  std::string payload;
  bool masked = false;
};

Got ReadFrame(Tcp& peer) {
  Got g;
  std::string h = peer.Read(2);
  if (h.size() < 2) return g;
  g.b0 = (unsigned char)h[0];
  g.masked = (h[1] & 0x80) != 0;
  uint64_t n = h[1] & 0x7F;
  if (n >= 126) {
    std::string ext = peer.Read(n == 126 ? 2 : 8);
    n = 0;
    for (char c : ext) n = n << 8 | (unsigned char)c;
  }
  std::string key = g.masked ? peer.Read(4) : "";
  g.payload = peer.Read(n);
  for (size_t i = 0; g.masked && i < g.payload.size(); i++) g.payload[i] ^= key[i % 4];
  return g;
}

// A server "S" that upgrades by itself, and a peer that has upgraded.
struct Upgraded {
  Roots r;
  Tcp peer;
  std::string conn;
  int port;
  explicit Upgraded(const char* stem, std::vector<Value> opts = {}) : r(stem) {
    port = Serve(r.root, "S", "http", std::move(opts));
    EXPECT_EQ(cmdtest::SetProp(r.root, "S", "WSFeatures", Value::Int(1)), 0);
    peer = Tcp::To(port);
    conn = Wait(r.root, "S", 3000).name;
    peer.Write(Request());
    Event e = Wait(r.root, conn, 3000);
    EXPECT_EQ(e.event, "WSUpgrade");
    EXPECT_EQ(e.data.text(), Request());
    EXPECT_EQ(peer.Read(strlen(kAnswer)), kAnswer);
  }
  // The next message: (data, fin, opcode).
  Event Next() { return Wait(r.root, conn, 3000); }
  int32_t Send(const Value& v) { return Code(cmdtest::Send(r.root, conn, v)); }
};

Value Msg(Value data, int fin, int opcode = -1) {
  std::vector<Value> items = {std::move(data), Value::Int(fin)};
  if (opcode >= 0) items.push_back(Value::Int(opcode));
  return Value::Nested(items);
}

TEST(WsServer, FramesTheHostReceives) {
  // A frame may be as long as the connection's buffer size.
  Upgraded u("WsRecv", {Opt("BufferSize", Value::Int(100000))});
  struct Case {
    const char* what;
    std::string wire;
    Value data;
    int fin, opcode;
  } cases[] = {
      {"masked text", Frame(0x81, "hello"), Value::Text("hello"), 1, 1},
      {"an unmasked frame to a server is taken", Frame(0x81, "plain", ""), Value::Text("plain"), 1, 1},
      {"UTF-8 becomes characters", Frame(0x81, "h\xc3\xa9llo"), Value::Text("h\xc3\xa9llo"), 1, 1},
      {"an empty text frame", Frame(0x81, ""), Value::Text(""), 1, 1},
      {"binary as integers from -128", Frame(0x82, "\x80\x7f\x01"), Value::Int8s({-128, 127, 1}), 1, 2},
      {"a first fragment", Frame(0x01, "abc"), Value::Text("abc"), 0, 1},
      {"its continuation is text too", Frame(0x80, "def"), Value::Text("def"), 1, 0},
      {"a 16-bit length", Frame(0x81, std::string(300, 'x')), Value::Text(std::string(300, 'x')), 1, 1},
      {"a 64-bit length", Frame(0x82, std::string(70000, 'y')), Value::Int8s(std::vector<int8_t>(70000, 'y')), 1, 2},
      // A short frame with the next one behind it in the same read takes
      // opcode, fin and key from the bytes that follow it.
      {"a short binary frame followed by text", Frame(0x02, "abc") + Frame(0x81, "next"), Value::Text("abc"), 1, 1},
      {"the frame behind it", "", Value::Text("next"), 1, 1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    u.peer.Write(c.wire);
    Event e = u.Next();
    ASSERT_EQ(e.event, "WSReceive");
    EXPECT_EQ(e.name, u.conn);
    EXPECT_EQ(e.data[0], c.data);
    EXPECT_EQ(e.data[1].intAt(0), c.fin);
    EXPECT_EQ(e.data[2].intAt(0), c.opcode);
  }
}

// A frame joins the tree before it is unmasked and checked; a wait that
// looks at it then must not take it, nor take it twice.
TEST(WsServer, EachFrameReachesTheHostOnce) {
  Upgraded u("WsOnce");
  for (int i = 0; i < 300; i++) {
    std::string text = "m" + std::to_string(i);
    u.peer.Write(Frame(0x81, text));
    Event e = u.Next();
    ASSERT_EQ(e.event, "WSReceive") << i;
    ASSERT_EQ(e.data[0], Value::Text(text)) << i;
  }
  EXPECT_EQ(Wait(u.r.root, u.conn, 200).rc, 100);
}

TEST(WsServer, FrameBytesTheLibrarySends) {
  Upgraded u("WsSend", {Opt("BufferSize", Value::Int(100000))});
  struct Case {
    const char* what;
    Value value;
    int b0;
    std::string payload;
  } cases[] = {
      {"text, unmasked from a server", Msg(Value::Text("hi"), 1), 0x81, "hi"},
      {"binary", Msg(Value::Int16s({1, 255}), 1), 0x82, "\x01\xff"},
      {"a 16-bit length", Msg(Value::Text(std::string(200, 'a')), 1), 0x81, std::string(200, 'a')},
      {"a 64-bit length", Msg(Value::Text(std::string(70000, 'b')), 1), 0x81, std::string(70000, 'b')},
      {"a ping of nothing", Msg(Value::Text(""), 1, 9), 0x89, ""},
      {"a first fragment", Msg(Value::Text("abc"), 0), 0x01, "abc"},
      {"the next carries the first one's opcode", Msg(Value::Text("def"), 1, 0), 0x81, "def"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    ASSERT_EQ(u.Send(c.value), 0);
    Got g = ReadFrame(u.peer);
    EXPECT_EQ(g.b0, c.b0);
    EXPECT_FALSE(g.masked);
    EXPECT_TRUE(g.payload == c.payload) << g.payload.size();
  }
  // Binary can't follow text within a message, which stays open.
  ASSERT_EQ(u.Send(Msg(Value::Text("abc"), 0)), 0);
  EXPECT_EQ(u.Send(Msg(Value::Ints({1, 2, 3}), 1)), 1004);
  ASSERT_EQ(u.Send(Msg(Value::Text("end"), 1)), 0);
  EXPECT_EQ(ReadFrame(u.peer).b0, 0x01);
  EXPECT_EQ(ReadFrame(u.peer).b0, 0x81);
  // Refused values.
  EXPECT_EQ(u.Send(Value::Text("x")), 1004);
  EXPECT_EQ(u.Send(Value::Nested({Value::Text("x")})), 1001);
  EXPECT_EQ(u.Send(Msg(Value::Doubles({1.5}), 1)), 1004);
}

TEST(WsServer, PingsAreAnsweredLongControlFramesAndBadTextClose) {
  {
    Upgraded u("WsPing");
    u.peer.Write(Frame(0x89, std::string(125, 'p')));
    Got pong = ReadFrame(u.peer);
    EXPECT_EQ(pong.b0, 0x8A);
    EXPECT_EQ(pong.payload, std::string(125, 'p'));
    // A pong isn't reported; the next data frame is.
    u.peer.Write(Frame(0x8A, "x"));
    usleep(20000);
    u.peer.Write(Frame(0x81, "after"));
    EXPECT_EQ(u.Next().data[0], Value::Text("after"));
    u.peer.Write(Frame(0x89, std::string(126, 'p')));
    Got close = ReadFrame(u.peer);
    EXPECT_EQ(close.b0, 0x88);
    EXPECT_EQ(close.payload, std::string("\x03\xea" "Protocol Error", 16) + '\0');
    EXPECT_TRUE(u.peer.Closed());
  }
  {
    Upgraded u("WsUtf8");
    u.peer.Write(Frame(0x81, "ab\xff"));
    Got close = ReadFrame(u.peer);
    EXPECT_EQ(close.b0, 0x88);
    EXPECT_EQ(close.payload, "\x03\xef" "Invalid UTF-8");
    EXPECT_TRUE(u.peer.Closed());
  }
}

TEST(WsServer, ClosesBegunByEitherSide) {
  const std::string over = "\x03\xe8" "Pelko Over and Out";
  {
    Upgraded u("WsPeerClose");
    u.peer.Write(Frame(0x88, "\x03\xe8"));
    Got g = ReadFrame(u.peer);
    EXPECT_EQ(g.b0, 0x88);
    EXPECT_EQ(g.payload, over);
    u.peer.Close();
    Event e = u.Next();
    EXPECT_EQ(e.event, "Error");
    EXPECT_EQ(e.data.intAt(0), 1119);  // ERR_CLOSED
  }
  {
    Upgraded u("WsHostClose");
    EXPECT_EQ(cmdtest::Close(u.r.root, u.conn), 0);
    Got g = ReadFrame(u.peer);
    EXPECT_EQ(g.b0, 0x88);
    EXPECT_EQ(g.payload, over);
    // The object goes on receiving until the peer's close arrives.
    u.peer.Write(Frame(0x81, "late"));
    EXPECT_EQ(u.Next().data[0], Value::Text("late"));
    u.peer.Write(Frame(0x88, "\x03\xe8"));
    EXPECT_TRUE(u.peer.Closed());
  }
}

TEST(WsServer, AnOversizeFrameEndsOnlyItsConnection) {
  Upgraded u("WsBig", {Opt("BufferSize", Value::Int(1000))});
  // 2^32 + 1 must not pass the limit as 1.
  u.peer.Write(std::string("\x82\xff\x00\x00\x00\x01\x00\x00\x00\x01", 10) + "\x01\x02\x03\x04" + "z");
  Event e = u.Next();
  EXPECT_EQ(e.event, "Error");
  EXPECT_EQ(e.data.intAt(0), 1135);
  Tcp other = Tcp::To(u.port);
  std::string conn = Wait(u.r.root, "S", 3000).name;
  other.Write(Request());
  EXPECT_EQ(Wait(u.r.root, conn, 3000).event, "WSUpgrade");
  other.Write(Frame(0x81, "fine"));
  EXPECT_EQ(Wait(u.r.root, conn, 3000).data[0], Value::Text("fine"));
}

// The accept value for a key, as an independent implementation finds it.
std::string AcceptFor(const std::string& key) {
  std::string s = servetest::Shell("python3 -c \"import base64,hashlib,sys;print(base64.b64encode(hashlib.sha1("
                                   "(sys.argv[1]+'258EAFA5-E914-47DA-95CA-C5AB0DC85B11').encode()).digest()).decode())\" " +
                                   key);
  return s.substr(0, s.find('\n'));
}

// Reads a header from the peer's side, up to its blank line.
std::string ReadHeader(Tcp& peer) {
  std::string h;
  while (h.size() < 4096 && (h.size() < 4 || h.compare(h.size() - 4, 4, "\r\n\r\n") != 0)) {
    std::string c = peer.Read(1);
    if (c.empty()) break;
    h += c;
  }
  return h;
}

std::string Between(const std::string& s, const std::string& from, const std::string& to) {
  size_t a = s.find(from);
  if (a == std::string::npos) return "";
  a += from.size();
  return s.substr(a, s.find(to, a) - a);
}

// A client "C" and the plain peer it connected to, the upgrade request sent.
struct ClientUp {
  Roots r;
  Listener l;
  Tcp peer;
  std::string name, request, key;
  ClientUp(const char* stem, int features) : r(stem) {
    name = Open(r.root, "C", "http", l.port());
    peer = l.Accept();
    EXPECT_EQ(cmdtest::SetProp(r.root, name, "WSFeatures", Value::Int(features)), 0);
    EXPECT_EQ(cmdtest::SetProp(r.root, name, "WSUpgrade", Value::Nested({Value::Text("/chat"), Value::Text("example.org")})), 0);
    request = ReadHeader(peer);
    key = Between(request, "Sec-WebSocket-Key: ", "\r\n");
  }
  std::string Answer(const std::string& connection = "Upgrade") {
    return "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: " + connection +
           "\r\nSec-WebSocket-Accept: " + AcceptFor(key) + "\r\n\r\n";
  }
};

void ExchangeFrames(const std::string& root, const std::string& name, Tcp& peer, bool masked) {
  ASSERT_EQ(Code(cmdtest::Send(root, name, Msg(Value::Text("hi"), 1))), 0);
  Got g = ReadFrame(peer);
  EXPECT_EQ(g.b0, 0x81);
  EXPECT_EQ(g.masked, masked);
  EXPECT_EQ(g.payload, "hi");
  peer.Write(Frame(0x81, "yo", masked ? "" : "\x01\x02\x03\x04"));
  Event e = Wait(root, name, 3000);
  EXPECT_EQ(e.event, "WSReceive");
  EXPECT_EQ(e.data[0], Value::Text("yo"));
}

TEST(WsClient, AutomaticUpgradeThenMaskedFrames) {
  ClientUp c("WsClientAuto", 1);
  EXPECT_EQ(c.request.rfind("GET /chat HTTP/1.1\r\nHost: example.org\r\nUpgrade: websocket\r\n"
                            "Connection: Upgrade\r\nSec-WebSocket-Version: 13\r\nSec-WebSocket-Key: ", 0),
            0u)
      << c.request;
  EXPECT_EQ(c.key.size(), 24u);
  c.peer.Write(c.Answer());
  Event e = Wait(c.r.root, c.name, 3000);
  EXPECT_EQ(e.event, "WSUpgrade");
  EXPECT_EQ(e.data.text(), c.Answer());
  ExchangeFrames(c.r.root, c.name, c.peer, true);
}

TEST(WsClient, TheHostAcceptsTheAnswerOrARefusalEndsIt) {
  {
    ClientUp c("WsClientHost", 0);
    c.peer.Write(c.Answer());
    Event e = Wait(c.r.root, c.name, 3000);
    ASSERT_EQ(e.event, "WSResponse");
    EXPECT_EQ(e.data.text(), c.Answer());
    // Text that is no answer to our key changes nothing.
    EXPECT_EQ(cmdtest::SetProp(c.r.root, c.name, "WSAccept", Value::Nested({Value::Text("HTTP/1.1 200 OK\r\n\r\n")})), 0);
    EXPECT_EQ(cmdtest::SetProp(c.r.root, c.name, "WSAccept", Value::Nested({e.data})), 0);
    ExchangeFrames(c.r.root, c.name, c.peer, true);
  }
  {
    // A client admits no list in Connection:.
    ClientUp c("WsClientRefused", 1);
    c.peer.Write(c.Answer("keep-alive, Upgrade"));
    Event e = Wait(c.r.root, c.name, 3000);
    EXPECT_EQ(e.event, "Error");
    EXPECT_EQ(e.data.intAt(0), 1140);
  }
}

TEST(WsServer, TheHostAcceptsARequestOrARefusalEndsIt) {
  struct Case {
    std::string request;
    bool upgrades;
  } cases[] = {{Request("keep-alive, Upgrade"), true}, {Request("Upgrade", "8"), false}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.request);
    Roots r("WsSrvHost");
    Tcp peer = Tcp::To(Serve(r.root, "S", "http"));
    std::string conn = Wait(r.root, "S", 3000).name;
    peer.Write(c.request);
    Event e = Wait(r.root, conn, 3000);
    if (!c.upgrades) {
      EXPECT_EQ(e.event, "Error");
      EXPECT_EQ(e.data.intAt(0), 1140);
      EXPECT_EQ(peer.Read(1, 200), "");  // no answer
      continue;
    }
    ASSERT_EQ(e.event, "WSUpgradeReq");
    EXPECT_EQ(e.data.text(), c.request);
    EXPECT_EQ(cmdtest::SetProp(r.root, conn, "WSAccept", Value::Nested({e.data, Value::Text("X-Extra: 1\r\n")})), 0);
    std::string answer = kAnswer;
    EXPECT_EQ(peer.Read(answer.size() + 12), answer.substr(0, answer.size() - 2) + "X-Extra: 1\r\n\r\n");
    ExchangeFrames(r.root, conn, peer, false);
  }
}

}  // namespace
