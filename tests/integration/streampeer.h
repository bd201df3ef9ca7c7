// Plain socket peers for the stream-mode tests: a TCP end that the test
// drives byte by byte, a listener, and a datagram end.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "cmdpeer.h"

namespace streamtest {

using cmdtest::Code;
using cmdtest::Event;
using cmdtest::Opt;
using cmdtest::Wait;
using host::Value;
using pelkotest::Lib;

inline sockaddr_in Loopback(int port) {
  sockaddr_in a = {};
  a.sin_family = AF_INET;
  a.sin_port = htons((uint16_t)port);
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return a;
}

inline int BoundPort(int fd) {
  sockaddr_in a = {};
  socklen_t n = sizeof a;
  getsockname(fd, (sockaddr*)&a, &n);
  return ntohs(a.sin_port);
}

// One end of a TCP stream.
class Tcp {
 public:
  explicit Tcp(int fd = -1) : fd_(fd) {}
  static Tcp To(int port) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a = Loopback(port);
    EXPECT_EQ(connect(fd, (sockaddr*)&a, sizeof a), 0);
    return Tcp(fd);
  }
  Tcp(Tcp&& o) : fd_(o.fd_) { o.fd_ = -1; }
  Tcp& operator=(Tcp&& o) {
    std::swap(fd_, o.fd_);
    return *this;
  }
  ~Tcp() { Close(); }
  void Close() {
    if (fd_ >= 0) close(fd_);
    fd_ = -1;
  }
  int fd() const { return fd_; }
  bool Write(const std::string& bytes) {
    size_t done = 0;
    while (done < bytes.size()) {
      ssize_t r = write(fd_, bytes.data() + done, bytes.size() - done);
      if (r <= 0) return false;
      done += (size_t)r;
    }
    return true;
  }
  // Exactly n bytes, or what came before a pause of ms milliseconds.
  std::string Read(size_t n, int ms = 2000) {
    std::string s;
    std::vector<char> buf(1 << 16);
    while (s.size() < n) {
      pollfd p = {fd_, POLLIN, 0};
      if (poll(&p, 1, ms) != 1) break;
      ssize_t r = read(fd_, buf.data(), std::min(buf.size(), n - s.size()));
      if (r <= 0) break;
      s.append(buf.data(), (size_t)r);
    }
    return s;
  }
  // Whether the other side has gone within ms: a close, or a reset when it
  // left bytes unread.
  bool Closed(int ms = 2000) {
    pollfd p = {fd_, POLLIN, 0};
    char c;
    return poll(&p, 1, ms) == 1 && read(fd_, &c, 1) <= 0;
  }

 private:
  int fd_;
};

// A root for one test, closed with it.
struct Roots {
  std::string root;
  explicit Roots(const char* stem) : root(pelkotest::NewRoot(stem)) {}
  ~Roots() { Lib().Call(root, "AClose", Value::Text(".")); }
};

// A socket of the type bound to a loopback port, an ephemeral one by
// default.
inline int Bound(int type, int port = 0) {
  int fd = socket(AF_INET, type, 0);
  int one = 1;
  if (port) setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  sockaddr_in a = Loopback(port);
  EXPECT_EQ(bind(fd, (sockaddr*)&a, sizeof a), 0);
  return fd;
}

// A loopback listener on the port given, or an ephemeral one.
class Listener {
 public:
  explicit Listener(int port = 0) : fd_(Bound(SOCK_STREAM, port)) { EXPECT_EQ(listen(fd_, 4), 0); }
  ~Listener() { close(fd_); }
  int port() const { return BoundPort(fd_); }
  Tcp Accept(int ms = 2000) {
    pollfd p = {fd_, POLLIN, 0};
    if (poll(&p, 1, ms) != 1) return Tcp();
    return Tcp(accept(fd_, nullptr, nullptr));
  }

 private:
  int fd_;
};

// A datagram end bound to an ephemeral loopback port.
class Udp {
 public:
  Udp() : fd_(Bound(SOCK_DGRAM)) {}
  ~Udp() { close(fd_); }
  int port() const { return BoundPort(fd_); }
  void SendTo(int port, const std::string& bytes) {
    sockaddr_in a = Loopback(port);
    ASSERT_EQ(sendto(fd_, bytes.data(), bytes.size(), 0, (sockaddr*)&a, sizeof a), (ssize_t)bytes.size());
  }
  // One datagram, or "" after two seconds.
  std::string Recv() {
    pollfd p = {fd_, POLLIN, 0};
    if (poll(&p, 1, 2000) != 1) return "";
    char buf[65536];
    ssize_t r = recv(fd_, buf, sizeof buf, 0);
    return r > 0 ? std::string(buf, (size_t)r) : "";
  }

 private:
  int fd_;
};

// Opens a listener of the mode on an ephemeral loopback port; gives its port.
inline int Serve(const std::string& root, const std::string& name, const char* mode, std::vector<Value> extra = {}) {
  extra.push_back(Opt("Mode", Value::Text(mode)));
  return cmdtest::Serve(root, name, std::move(extra));
}

// Opens a client of the mode; gives its full name, or "" with the code
// reported.
inline std::string Open(const std::string& root, const std::string& name, const char* mode, int port,
                        std::vector<Value> extra = {}) {
  std::vector<Value> opts = {Opt("Name", Value::Text(name)), Opt("Address", Value::Text("127.0.0.1")),
                             Opt("Port", Value::Text(std::to_string(port))), Opt("Mode", Value::Text(mode))};
  for (Value& v : extra) opts.push_back(std::move(v));
  host::CallResult r = Lib().Call(root, "AClt", Value::Nested(opts));
  EXPECT_EQ(Code(r), 0) << r.result.Format();
  return Code(r) == 0 ? r.result[1].text() : "";
}

// A received block's bytes: integers in the raw modes, characters in the
// text modes.
inline std::string Bytes(const Value& v) {
  if (v.isText() || v.count() == 0) return v.isText() ? v.text() : "";
  std::string s;
  for (int64_t i : v.ints()) s.push_back((char)i);
  return s;
}

// Waits for one block on name and gives its bytes, with the event checked.
inline std::string Block(const std::string& root, const std::string& name, const char* event = "Block") {
  Event e = Wait(root, name, 3000);
  EXPECT_EQ(e.rc, 0);
  EXPECT_EQ(e.event, event) << e.data.Format();
  return Bytes(e.data);
}

// A matrix of (name value) rows, as HTTP headers are given and decoded.
inline Value Rows(std::vector<std::pair<std::string, std::string>> rows) {
  std::vector<Value> cells;
  for (auto& r : rows) {
    cells.push_back(Value::Text(r.first));
    cells.push_back(Value::Text(r.second));
  }
  if (cells.empty()) cells.push_back(Value::Text(""));
  Value m;
  EXPECT_TRUE(Value::Nested({rows.size(), 2}, cells, &m));
  return m;
}

inline Value Strings(std::vector<std::string> texts) {
  std::vector<Value> items;
  for (auto& t : texts) items.push_back(Value::Text(t));
  return Value::Nested(items);
}

}  // namespace streamtest
