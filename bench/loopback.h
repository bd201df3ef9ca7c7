// Loopback sockets and run timing shared by the transfer benchmarks.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <string>
#include <vector>

#include "host/library.h"
#include "host/zblock.h"

namespace loopback {

using host::Value;

inline sockaddr_in Address(int port) {
  sockaddr_in a = {};
  a.sin_family = AF_INET;
  a.sin_port = htons((uint16_t)port);
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return a;
}

// A listening loopback socket and its port.
inline int Listen(int* port) {
  int l = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a = Address(0);
  bind(l, (sockaddr*)&a, sizeof a);
  listen(l, 4);
  socklen_t n = sizeof a;
  getsockname(l, (sockaddr*)&a, &n);
  *port = ntohs(a.sin_port);
  return l;
}

inline int Dial(int port) {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a = Address(port);
  if (connect(fd, (sockaddr*)&a, sizeof a) != 0) abort();
  return fd;
}

// Reads until n bytes have come, in pieces of at most a megabyte.
inline void Drain(int fd, size_t n) {
  std::vector<char> buf(1 << 20);
  while (n) {
    ssize_t r = read(fd, buf.data(), std::min(n, buf.size()));
    if (r <= 0) abort();
    n -= (size_t)r;
  }
}

inline void Pour(int fd, const std::vector<char>& src) {
  for (size_t done = 0; done < src.size();) {
    ssize_t r = write(fd, src.data() + done, src.size() - done);
    if (r <= 0) abort();
    done += (size_t)r;
  }
}

// The seconds of each of `runs` transfers, in increasing order.
template <class F>
std::vector<double> Seconds(int runs, F transfer) {
  std::vector<double> s;
  for (int run = 0; run < runs; run++) {
    auto t0 = std::chrono::steady_clock::now();
    transfer();
    s.push_back(std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count());
  }
  std::sort(s.begin(), s.end());
  return s;
}

inline Value Opt(const char* name, Value v) { return Value::Nested({Value::Text(name), std::move(v)}); }

// A verb's code: the first element of its result, nested or simple.
inline int32_t Code(const host::CallResult& r) {
  return (int32_t)(r.result.isNested() ? r.result[0].intAt(0) : r.result.intAt(0));
}

// One send of an encoded block through the bare export, its answer given
// back unread, so that a benchmark times the library and not the encoding.
inline void SendBlock(host::Library& lib, const std::string& root, const char* name, host::ZBlock& data) {
  host::ZBlock right = host::Encode(Value::Nested({Value::Text(name), Value::Int(0)}));
  uint32_t* pr = right.words();
  uint32_t* pl = data.words();
  lib.raw().Call((char*)root.c_str(), (char*)"ASendZ", &pr, &pl);
  lib.raw().FreeUsedOrvaneResult(pr);
}

}  // namespace loopback
