// HTTP against plain socket peers: where the received stream is cut into
// parts, what each part gives the host with its decode flag on and off, and
// the exact bytes each form of send puts on the wire.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/resource.h>

#include <cstdio>
#include <thread>
#include <utility>

#include "streampeer.h"

namespace {

using namespace streamtest;

// An HTTP listener "S" and one peer it accepted.
struct Served {
  Roots r;
  Tcp peer;
  std::string conn;
  explicit Served(const char* stem, std::vector<Value> opts = {}) : r(stem) {
    int port = Serve(r.root, "S", "http", std::move(opts));
    peer = Tcp::To(port);
    Event e = Wait(r.root, "S", 3000);
    EXPECT_EQ(e.event, "Connect");
    conn = e.name;
  }
  // The next part: its event and text.
  std::pair<std::string, std::string> Part(int ms = 3000) {
    Event e = Wait(r.root, conn, ms);
    return {e.rc ? "rc " + std::to_string(e.rc) : e.event, Bytes(e.data)};
  }
  // Whether the listener still takes a new peer and its request.
  bool StillServes() {
    Tcp next = Tcp::To(cmdtest::LocalPort(r.root, "S"));
    Event c = Wait(r.root, "S", 3000);
    next.Write("GET / HTTP/1.1\r\n\r\n");
    return c.event == "Connect" && Wait(r.root, c.name, 3000).event == "HTTPHeader";
  }
};

using Parts = std::vector<std::pair<std::string, std::string>>;

struct BoundaryCase {
  const char* what;
  std::vector<std::string> writes;
  bool closeAfter;
  Parts parts;
};

TEST(HttpReceive, PartsFollowTheBoundaryRules) {
  const std::string big(0xabc, 'a');
  const BoundaryCase cases[] = {
      {"header and body in one read",
       {"POST /a HTTP/1.1\r\nContent-Length: 5\r\n\r\nhello"},
       false,
       {{"HTTPHeader", "POST /a HTTP/1.1\r\nContent-Length: 5\r\n\r\n"}, {"HTTPBody", "hello"}}},
      {"two pipelined messages in one read",
       {"PUT /1 HTTP/1.1\r\ncontent-length:2\r\n\r\nabGET /2 HTTP/1.1\r\n\r\nPUT /3 HTTP/1.1\r\nContent-Length: 1\r\n\r\nz"},
       false,
       {{"HTTPHeader", "PUT /1 HTTP/1.1\r\ncontent-length:2\r\n\r\n"},
        {"HTTPBody", "ab"},
        {"HTTPHeader", "GET /2 HTTP/1.1\r\n\r\n"},
        {"HTTPHeader", "PUT /3 HTTP/1.1\r\nContent-Length: 1\r\n\r\n"},
        {"HTTPBody", "z"}}},
      {"chunked with an extension and a trailer, the coding in any case",
       {"POST / HTTP/1.1\r\nTransfer-Encoding: Chunked\r\n\r\n5;ext=1\r\nhello\r\n", "3\r\nabc\r\n0\r\nX: 1\r\n\r\n"},
       false,
       {{"HTTPHeader", "POST / HTTP/1.1\r\nTransfer-Encoding: Chunked\r\n\r\n"},
        {"HTTPChunk", "5;ext=1\r\nhello\r\n"},
        {"HTTPChunk", "3\r\nabc\r\n"},
        {"HTTPTrailer", "0\r\nX: 1\r\n\r\n"}}},
      {"a bare LF ends a size line, and counts once for the data's line end",
       {"POST / HTTP/1.1\nTransfer-Encoding: chunked\n\nabc\n" + big + "\n0\n\n"},
       false,
       {{"HTTPHeader", "POST / HTTP/1.1\nTransfer-Encoding: chunked\n\n"},
        {"HTTPChunk", "abc\n" + big + "\n"},
        {"HTTPTrailer", "0\n\n"}}},
      {"the last chunk alone waits for the trailer",
       {"POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n", "\r\n"},
       false,
       {{"HTTPHeader", "POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n"}, {"HTTPTrailer", "0\r\n\r\n"}}},
      {"LF LF ends a header", {"HTTP/1.1 200 OK\n\n"}, false, {{"HTTPHeader", "HTTP/1.1 200 OK\n\n"}}},
      {"Content-Length wraps at 32 bits",
       {"POST / HTTP/1.1\r\nContent-Length: 4294967297\r\n\r\nxy"},
       true,
       {{"HTTPHeader", "POST / HTTP/1.1\r\nContent-Length: 4294967297\r\n\r\n"}, {"HTTPBody", "x"}, {"BlkLast", "y"}}},
      {"a length from 2^31 up is no body",
       {"POST / HTTP/1.1\r\nContent-Length: 2147483648\r\n\r\n"},
       false,
       {{"HTTPHeader", "POST / HTTP/1.1\r\nContent-Length: 2147483648\r\n\r\n"}}},
      {"gzip, chunked is not chunked: what follows stays until the close",
       {"POST / HTTP/1.1\r\nTransfer-Encoding: gzip, chunked\r\n\r\n5\r\nhello"},
       true,
       {{"HTTPHeader", "POST / HTTP/1.1\r\nTransfer-Encoding: gzip, chunked\r\n\r\n"}, {"BlkLast", "5\r\nhello"}}},
      {"bytes that never made a part come at the close", {"hello"}, true, {{"Blk-Last", "hello"}}},
  };
  for (const BoundaryCase& c : cases) {
    SCOPED_TRACE(c.what);
    Served s("HttpCut");
    for (const std::string& w : c.writes) {
      ASSERT_TRUE(s.peer.Write(w));
      usleep(20000);  // separate reads
    }
    if (c.closeAfter) s.peer.Close();
    Parts got;
    for (size_t i = 0; i < c.parts.size(); i++) got.push_back(s.Part());
    EXPECT_EQ(got, c.parts);
    // Nothing more: the wait times out, or the connection ended with its
    // last block.
    Event after = Wait(s.r.root, s.conn, 100);
    EXPECT_TRUE(after.rc == 100 || after.rc == 1010 || after.event == "Closed") << after.rc << after.event;
  }
}

TEST(HttpReceive, LargeBodyIsOnePartFilledFromTheSocket) {
  Served s("HttpBig", {Opt("BufferSize", Value::Int(16384))});
  std::string body(1 << 20, 0);
  for (size_t i = 0; i < body.size(); i++) body[i] = (char)('a' + i % 26);
  std::string all = "POST / HTTP/1.1\r\nContent-Length: 1048576\r\n\r\n" + body + "GET / HTTP/1.1\r\n\r\n";
  std::thread writer([&] { s.peer.Write(all); });
  EXPECT_EQ(s.Part().first, "HTTPHeader");
  std::pair<std::string, std::string> p = s.Part(10000);
  writer.join();
  EXPECT_EQ(p.first, "HTTPBody");
  EXPECT_TRUE(p.second == body) << p.second.size();
  EXPECT_EQ(s.Part().first, "HTTPHeader");
}

// Input that ends a connection with a code leaves the listener and its
// other connections as they were.
TEST(HttpReceive, RefusedInputEndsOnlyItsConnection) {
  const std::pair<std::string, int32_t> cases[] = {
      {std::string(300, 'x'), 1135},                                          // no stop in MaxSize bytes
      {"GET / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n" + std::string(200, '1'), 1135},
      {"GET / HTTP/1.1\r\nUpgrade: websocket\r\n\r\n", 1140},
  };
  for (const auto& c : cases) {
    Served s("HttpRefuse", {Opt("BufferSize", Value::Int(128))});
    s.peer.Write(c.first);
    // A header that was cut before the refusal may reach the host first.
    Event e = Wait(s.r.root, s.conn, 3000);
    if (e.event == "HTTPHeader") e = Wait(s.r.root, s.conn, 3000);
    EXPECT_EQ(e.event, "Error");
    EXPECT_EQ(e.data.intAt(0), c.second);
    EXPECT_TRUE(s.peer.Closed());
    EXPECT_TRUE(s.StillServes());
  }
}

// The rows of a decoded matrix, whatever its type.
std::vector<std::pair<std::string, std::string>> RowsOf(const Value& m) {
  EXPECT_EQ(m.rank(), 2u) << m.Describe();
  std::vector<std::pair<std::string, std::string>> rows;
  if (m.rank() != 2 || !m.isNested() || m.shape()[0] == 0) return rows;
  for (uint64_t i = 0; i < m.shape()[0]; i++) rows.push_back({m[2 * i].text(), m[2 * i + 1].text()});
  return rows;
}

struct DecodeCase {
  const char* what;
  int32_t flags;
  std::string input;
  size_t part;  // which part of the input is looked at
  std::vector<std::string> words;  // the start line, or a chunk's data
  std::vector<std::pair<std::string, std::string>> rows;  // neither: the raw text
};

TEST(HttpDecode, EachKindByItsFlag) {
  const std::string post = "POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n";
  const DecodeCase cases[] = {
      {"a start line and no rows", 1, "GET / HTTP/1.1\r\n\r\n", 0, {"GET", "/", "HTTP/1.1"}, {}},
      {"the third word is only a word; blanks and tabs after colons go, trailing ones stay", 1,
       "HTTP/1.1 404 Not Found\r\nA:b\r\nB: \t c \r\nC: d\n\n", 0, {"HTTP/1.1", "404", "Not"},
       {{"A", "b"}, {"B", "c "}, {"C", "d"}}},
      {"two blanks make an empty word", 1, "GET  / HTTP/1.1\r\n\r\n", 0, {"GET", "", "/"}, {}},
      {"a line without a colon takes the next line into its name", 1,
       "GET / HTTP/1.1\r\nOdd\r\nX: 1\r\n\r\n", 0, {"GET", "/", "HTTP/1.1"}, {{"Odd\r\nX", "1"}, {"", ""}}},
      {"a chunk's data, its extensions dropped", 4, post + "5;x=y\r\nhello\r\n", 1, {"hello"}, {}},
      {"a semicolon in the data is no extension", 4, post + "5\r\nhe;lo\r\n", 1, {"he;lo"}, {}},
      {"a trailer's rows", 2, post + "0\r\nX: 1\r\n\r\n", 1, {}, {{"X", "1"}}},
      {"a header whose flag is off", 8, "GET / HTTP/1.1\r\n\r\n", 0, {}, {}},
      {"DecodeChars alone", 0x02000000, "GET / HTTP/1.1\r\n\r\n", 0, {}, {}},
      {"a trailer line without a colon", 2, post + "0\r\nodd\r\n\r\n", 1, {}, {}},
      {"a chunk size that wrapped when its part was sized", 4, post + "fffffffe\r\n", 1, {}, {}},
  };
  for (const DecodeCase& c : cases) {
    SCOPED_TRACE(c.what);
    Served s("HttpDecode");
    EXPECT_EQ(cmdtest::SetProp(s.r.root, s.conn, "DecodeBuffers", Value::Int(c.flags)), 0);
    s.peer.Write(c.input);
    Event e;
    for (size_t i = 0; i <= c.part; i++) e = Wait(s.r.root, s.conn, 3000);
    ASSERT_EQ(e.rc, 0);
    if (c.words.empty() && c.rows.empty()) {
      EXPECT_TRUE(e.data.isText() && e.data.rank() == 1) << e.event << e.data.Describe();
    } else if (e.event == "HTTPTrailer") {
      EXPECT_EQ(RowsOf(e.data), c.rows);
    } else if (e.event == "HTTPChunk") {
      ASSERT_EQ(e.data.count(), 2u) << e.data.Describe();
      EXPECT_EQ(e.data[0].text(), c.words[0]);
      EXPECT_EQ(e.data[1].shape(), (host::Shape{0, 2}));
    } else {
      ASSERT_EQ(e.data.count(), 4u) << e.data.Describe();
      for (size_t w = 0; w < 3; w++) EXPECT_EQ(e.data[w].text(), c.words[w]) << w;
      EXPECT_EQ(RowsOf(e.data[3]), c.rows);
      EXPECT_EQ(e.data[3].shape()[0], c.rows.size());
    }
  }
}

TEST(HttpDecode, BodiesAsIntegersOrCharactersAndEmptyTrailers) {
  Served s("HttpBody");
  // Flags set on the listener reach the connection it already has.
  EXPECT_EQ(cmdtest::SetProp(s.r.root, "S", "DecodeBuffers", Value::Int(0x01000000 | 8 | 2)), 0);
  s.peer.Write("PUT / HTTP/1.1\r\nContent-Length: 2\r\n\r\n\xc8\n");
  EXPECT_EQ(Wait(s.r.root, s.conn, 3000).event, "HTTPHeader");
  Event body = Wait(s.r.root, s.conn, 3000);
  EXPECT_EQ(body.data.ints(), (std::vector<int64_t>{200, 10}));
  s.peer.Write("PUT / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n");
  EXPECT_EQ(Wait(s.r.root, s.conn, 3000).event, "HTTPHeader");
  Event trailer = Wait(s.r.root, s.conn, 3000);
  EXPECT_EQ(trailer.event, "HTTPTrailer");
  EXPECT_EQ(trailer.data.shape(), (host::Shape{0, 2})) << trailer.data.Describe();
  EXPECT_TRUE(trailer.data.isText()) << trailer.data.Describe();
  // A part that arrived before the flags changed follows the new ones.
  s.peer.Write("PUT / HTTP/1.1\r\nContent-Length: 3\r\n\r\nabc");
  usleep(100000);
  EXPECT_EQ(cmdtest::SetProp(s.r.root, "S", "DecodeBuffers", Value::Int(8)), 0);
  EXPECT_TRUE(Wait(s.r.root, s.conn, 3000).data.isText());
  EXPECT_EQ(Wait(s.r.root, s.conn, 3000).data, Value::Text("abc"));
}

// A client "C" connected to a plain listener; gives the peer.
struct Client {
  Roots r;
  Listener l;
  Tcp peer;
  std::string name;
  explicit Client(const char* stem) : r(stem) {
    name = Open(r.root, "C", "http", l.port());
    peer = l.Accept();
  }
  int32_t Send(const Value& v, int flag = 0) { return Code(cmdtest::Send(r.root, name, v, flag)); }
};

TEST(HttpCompose, EachFormGivesItsWireBytes) {
  pelkotest::TempDir dir;
  const std::string file = dir.Add("file", "0123456789");
  const Value none = Rows({});
  struct Case {
    const char* what;
    Value value;
    std::string wire;
  } cases[] = {
      {"a request with no headers and no body", Value::Nested({Value::Text("GET"), Value::Text("/"), Value::Text("HTTP/1.1"), none, Value::Text("")}),
       "GET / HTTP/1.1\r\n\r\n"},
      {"a row with an empty value has no colon; a body brings its length; numbers are text",
       Value::Nested({Value::Text("HTTP/1.1"), Value::Int(200), Value::Text("OK"), Rows({{"X", ""}, {"A", "b"}}), Value::Text("abc")}),
       "HTTP/1.1 200 OK\r\nX\r\nA: b\r\nContent-Length: 3\r\n\r\nabc"},
      {"a whole message with a file behind its text",
       Value::Nested({Value::Text("HTTP/1.1"), Value::Text("200"), Value::Text("OK"), none,
                      Value::Nested({Value::Text("ab"), Value::Text(file)})}),
       "HTTP/1.1 200 OK\r\nContent-Length: 12\r\n\r\nab0123456789"},
      {"a chunk with extensions", Value::Nested({Value::Text("hello world!"), Rows({{"a", "b"}, {"c", ""}})}),
       "c;a=b;c\r\nhello world!\r\n"},
      {"the last chunk", Value::Nested({Value::Text(""), none}), "0\r\n\r\n"},
      {"the last chunk with a trailer", Value::Nested({Value::Text(""), Rows({{"X", "1"}})}), "0\r\nX: 1\r\n\r\n"},
      {"text and a file: the length goes in before the blank line",
       Value::Nested({Value::Text("HTTP/1.1 200 OK\r\n\r\n"), Value::Text(file)}),
       "HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\n0123456789"},
      {"text too short for its blank line is left out", Value::Nested({Value::Text("x"), Value::Text(file)}),
       "Content-Length: 10\r\n\r\n0123456789"},
      {"bytes as they stand", Value::Text("anything\n"), "anything\n"},
  };
  Client c("HttpCompose");
  for (const Case& k : cases) {
    SCOPED_TRACE(k.what);
    EXPECT_EQ(c.Send(k.value), 0);
    EXPECT_EQ(c.peer.Read(k.wire.size()), k.wire);
  }
}

TEST(HttpCompose, RefusedValuesSendNothing) {
  Value matrix3;
  ASSERT_TRUE(Value::Nested({1, 3}, {Value::Text("a"), Value::Text("b"), Value::Text("c")}, &matrix3));
  auto msg = [](Value headers) {
    return Value::Nested({Value::Text("GET"), Value::Text("/"), Value::Text("HTTP/1.1"), std::move(headers), Value::Text("")});
  };
  const std::pair<Value, int32_t> cases[] = {
      {Value::Text("ab").Reshape({1, 2}), 1002},  // ERR_RANK
      {Value::Char(U'x'), 1002},
      {Value::Nested({Value::Text("a"), Value::Text("b"), Value::Text("c")}), 1038},  // ERR_INDEX
      {msg(Value::Text("Host: x")), 1002},
      {msg(Value::Ints({1, 2, 3, 4}).Reshape({2, 2})), 1004},  // ERR_DOMAIN
      {msg(matrix3), 1038},
      {Value::Nested({Value::Text("x"), Value::Text("/no/such/file")}), 1039},  // ERR_FILE
      {Value::Nested({Value::Text("x"), Value::Int(3)}), 1002},
  };
  Client c("HttpRefused");
  for (const auto& k : cases) {
    SCOPED_TRACE(k.first.Describe());
    EXPECT_EQ(c.Send(k.first), k.second);
  }
  EXPECT_EQ(c.Send(Value::Text("after")), 0);
  EXPECT_EQ(c.peer.Read(5), "after");
}

// 20 rows of 300 bytes pass the first 4096 bytes of the buffer: the row that
// meets the limit is lost, every other row is sent.
TEST(HttpCompose, TheRowAtTheLimitIsDropped) {
  std::vector<std::pair<std::string, std::string>> rows;
  for (int i = 0; i < 20; i++) rows.push_back({"H" + std::to_string(100 + i), std::string(292, 'v')});
  Client c("HttpFmtMat");
  ASSERT_EQ(c.Send(Value::Nested({Value::Text("GET"), Value::Text("/"), Value::Text("HTTP/1.1"), Rows(rows), Value::Text("")})), 0);
  std::string wire = "GET / HTTP/1.1\r\n";
  size_t lost = 0;
  for (int i = 0; i < 20; i++) {
    std::string row = rows[i].first + ": " + rows[i].second + "\r\n";
    if (!lost && wire.size() + row.size() >= 4096) {
      lost = (size_t)i;
      continue;
    }
    wire += row;
  }
  wire += "\r\n";
  ASSERT_GT(lost, 0u);
  EXPECT_EQ(c.peer.Read(wire.size()), wire);
}

}  // namespace

namespace {

// A length the process can't reserve ends only the connection that named
// it. The address space is capped in a child process, where nothing else
// runs; the sanitizers need the address space they reserve, so they skip.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
void UnallocatableBody() {
  struct rlimit lim;
  getrlimit(RLIMIT_AS, &lim);
  long pages = 0;
  FILE* f = fopen("/proc/self/statm", "r");
  if (!f || fscanf(f, "%ld", &pages) != 1) _exit(2);
  fclose(f);
  lim.rlim_cur = (rlim_t)pages * 4096 + (512u << 20);
  if (setrlimit(RLIMIT_AS, &lim) != 0) _exit(3);
  const char* heads[] = {"POST / HTTP/1.1\r\nContent-Length: 2000000000\r\n\r\n",
                         "POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\nfffffff0\r\n"};
  for (const char* head : heads) {
    Served s("HttpAlloc");
    s.peer.Write(head);
    Event e = Wait(s.r.root, s.conn, 3000);
    if (e.event == "HTTPHeader") e = Wait(s.r.root, s.conn, 3000);
    if (e.event != "Error" || e.data.intAt(0) != 1012 || !s.peer.Closed()) _exit(4);
    if (!s.StillServes()) _exit(5);
  }
  _exit(0);
}

TEST(HttpReceiveDeathTest, UnallocatableSizeEndsOnlyItsConnection) {
  EXPECT_EXIT(UnallocatableBody(), testing::ExitedWithCode(0), "");
}
#endif

}  // namespace
