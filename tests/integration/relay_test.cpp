// The relay between two connections with a plain echo server behind it,
// and files sent without being read into memory.
#include <gtest/gtest.h>


#include <cstdlib>
#include <fstream>
#include <thread>

#include "streampeer.h"

namespace {

using namespace streamtest;

// Bytes that show where they stand in the stream.
char PatternAt(uint64_t i) { return (char)((i * 2654435761u) >> 13); }

std::string Pattern(uint64_t from, size_t n) {
  std::string s(n, '\0');
  for (size_t i = 0; i < n; i++) s[i] = PatternAt(from + i);
  return s;
}

// Reads n bytes and checks them against the pattern as they come, into one
// buffer, so that the reading side itself allocates nothing as it goes.
uint64_t ReadPattern(Tcp& t, uint64_t n) {
  static char buf[1 << 16];
  uint64_t got = 0;
  while (got < n) {
    pollfd p = {t.fd(), POLLIN, 0};
    if (poll(&p, 1, 5000) != 1) break;
    ssize_t r = read(t.fd(), buf, std::min<uint64_t>(n - got, sizeof buf));
    if (r <= 0) break;
    for (ssize_t i = 0; i < r; i++)
      if (buf[i] != PatternAt(got + (uint64_t)i)) return got + (uint64_t)i;
    got += (uint64_t)r;
  }
  return got;
}

TEST(Relay, TenMegabytesEachWayThroughARelayPair) {
  pelkotest::Root root("Relay");
  Listener echo;
  std::thread echoer([&] {
    Tcp t = echo.Accept(5000);
    char buf[65536];
    for (;;) {
      ssize_t r = read(t.fd(), buf, sizeof buf);
      if (r <= 0) break;
      if (!t.Write(std::string(buf, (size_t)r))) break;
    }
  });
  std::string x = Open(root, "X", "raw", echo.port());
  int port = Serve(root, "S", "raw");
  Tcp c = Tcp::To(port);
  Event e = Wait(root, "S", 3000);
  ASSERT_EQ(e.event, "Connect");

  EXPECT_EQ(Code(Lib().Call(root, "ASetRelay", Value::Nested({Value::Text("nobody"), Value::Text(x)}))), 1010);
  EXPECT_EQ(Code(Lib().Call(root, "ASetRelay", Value::Nested({Value::Text("S"), Value::Text(x)}))), 1008);
  EXPECT_EQ(Code(Lib().Call(root, "ASetRelay", Value::Nested({Value::Text(e.name), Value::Text(x)}))), 0);

  const uint64_t total = 10u << 20;
  std::thread writer([&] {
    for (uint64_t at = 0; at < total; at += 1 << 20) c.Write(Pattern(at, 1 << 20));
  });
  EXPECT_EQ(ReadPattern(c, total), total);
  writer.join();
  // Each connection holds its one relay, and nothing reached the host.
  host::CallResult tree = Lib().Call(root, "ATree", Value::Text(x));
  EXPECT_NE(tree.result.Format().find("RELAY"), std::string::npos);
  EXPECT_EQ(Wait(root, "", 100).rc, 100);
  c.Close();
  Lib().Call(root, "AClose", Value::Text("."));  // X goes, and the echo's read ends
  echoer.join();
}

TEST(Relay, PiecesForATargetThatWentEndTheSource) {
  pelkotest::Root root("RelayGone");
  Listener far;
  std::string x = Open(root, "X", "raw", far.port());
  Tcp px = far.Accept();
  int port = Serve(root, "S", "raw");
  Tcp c = Tcp::To(port);
  Event e = Wait(root, "S", 3000);
  ASSERT_EQ(e.event, "Connect");
  // A piece needs room for a byte.
  EXPECT_EQ(Code(Lib().Call(root, "ASetRelay", Value::Nested({Value::Text(e.name), Value::Text(x), Value::Int(0)}))), 1042);
  EXPECT_EQ(Code(Lib().Call(root, "ASetRelay", Value::Nested({Value::Text(e.name), Value::Text(x), Value::Int(10), Value::Int(1)}))), 0);
  c.Write("0123456789abc");
  EXPECT_EQ(px.Read(13), "0123456789abc");
  // The target goes; the next piece has nowhere to go.
  px.Close();
  Event gone = Wait(root, x, 3000);
  EXPECT_EQ(gone.event, "BlockLast");
  Event after = Wait(root, x, 300);
  EXPECT_TRUE(after.rc == 100 || after.rc == 1010) << after.rc << " " << after.event;
  c.Write("more");
  Event err = Wait(root, e.name, 3000);
  EXPECT_EQ(err.event, "Error");
  EXPECT_EQ(err.data.intAt(0), 1104);  // ERR_SEND
}

// Peak resident size of this process in kB, since the last reset.
long PeakKb() {
  std::ifstream f("/proc/self/status");
  std::string line;
  while (std::getline(f, line))
    if (line.rfind("VmHWM:", 0) == 0) return atol(line.c_str() + 6);
  return -1;
}

void ResetPeak() { std::ofstream("/proc/self/clear_refs") << "5"; }

// A file of the pattern, of the size given, in a directory of its own.
struct TempFile : pelkotest::TempDir {
  std::string path = TempDir::path + "/data";
  explicit TempFile(uint64_t size) {
    std::ofstream f(path, std::ios::binary);
    for (uint64_t at = 0; at < size; at += 1 << 20) f << Pattern(at, std::min<uint64_t>(1 << 20, size - at));
  }
};

TEST(File, HundredMegabytesInRawModeWithFlatMemory) {
  const uint64_t size = 100u << 20;
  TempFile f(size);
  pelkotest::Root root("File");
  Listener l;
  std::string x = Open(root, "X", "raw", l.port());
  Tcp peer = l.Accept();
  ResetPeak();
  long before = PeakKb();
  EXPECT_EQ(Code(cmdtest::Send(root, x, Value::Nested({Value::Text(""), Value::Text(f.path)}), 3)), 0);
  EXPECT_EQ(ReadPattern(peer, size), size);
  EXPECT_EQ(Wait(root, x, 3000).event, "Sent");
  long after = PeakKb();
  printf("[ peak RSS ] before %ld kB, after sending 100 MB %ld kB\n", before, after);
  EXPECT_LT(after - before, 16 * 1024);
}

TEST(File, FilenameFormAndBlockHeaderAndAShrinkingFile) {
  TempFile f(300000);
  pelkotest::Root root("FileBlk");
  Listener l;
  std::string b = Open(root, "B", "blkraw", l.port(), {Opt("Magic", Value::Int(9))});
  Tcp pb = l.Accept();
  // ("filename" path) through the answer verb of a data connection: a
  // header for the whole file, then the file.
  EXPECT_EQ(cmdtest::Respond(root, b, Strings({"filename", f.path}), 1), 0);
  std::string head = pb.Read(8);
  EXPECT_EQ(head, std::string("\0\x04\x93\xe8\0\0\0\x09", 8));  // 300008, magic 9
  EXPECT_EQ(ReadPattern(pb, 300000), 300000u);

  // Data and a file behind it, in one raw send; the file shrinks while it
  // goes (it is larger than what the socket buffers hold, so the peer's
  // not reading yet keeps most of it back), and what follows still gets
  // through.
  TempFile big(16u << 20);
  std::string x = Open(root, "X", "raw", l.port());
  Tcp px = l.Accept();
  EXPECT_EQ(Code(cmdtest::Send(root, x, Value::Nested({Value::Text("hd"), Value::Text(big.path)}))), 0);
  usleep(50000);
  EXPECT_EQ(truncate(big.path.c_str(), 20000), 0);
  EXPECT_EQ(Code(cmdtest::Send(root, x, Value::Text("after"))), 0);
  std::string all;
  for (std::string s; (s = px.Read(1 << 20, 300)).size();) all += s;
  EXPECT_EQ(all.substr(0, 2), "hd");
  EXPECT_LT(all.size(), 8u << 20);
  EXPECT_EQ(all.substr(all.size() - 5), "after");
}

}  // namespace
