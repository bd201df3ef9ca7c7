// Shared by the fuzz targets: the input read as a peer or a file would
// give it, a byte at a time from the front, and a connection's node with no
// socket behind it, so the receive code runs exactly as the work thread
// runs it after a read.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "hieraki.h"
#include "rpcobjs.h"

namespace fuzzkit {

// The input, taken from the front.
class Input {
 public:
  Input(const uint8_t* data, size_t size) : p_(data), n_(size) {}
  size_t left() const { return n_; }
  uint8_t Byte() { return n_ ? (n_--, *p_++) : 0; }
  uint32_t Word() { return (uint32_t)Byte() << 24 | (uint32_t)Byte() << 16 | (uint32_t)Byte() << 8 | Byte(); }
  // Up to max bytes, as one read from a socket.
  std::string Read(size_t max) {
    size_t k = max < n_ ? max : n_;
    std::string s((const char*)p_, k);
    p_ += k;
    n_ -= k;
    return s;
  }

 private:
  const uint8_t* p_;
  size_t n_;
};

// Appends what fits of bytes to a buffer's held bytes, as a recv would.
inline void Arrive(PBUFFER b, const std::string& bytes) {
  UI4 room = b->Remaining();
  UI4 k = (UI4)bytes.size() < room ? (UI4)bytes.size() : room;
  if (k) memcpy(b->Next(), bytes.data(), k);
  b->NextProcessed(k);
}

}  // namespace fuzzkit
