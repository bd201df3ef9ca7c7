// The packed form in which the host hands arrays to the library and gets
// them back: a big-endian total length, a big-endian architecture word, then
// one little-endian record with the records of nested items after it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "host/value.h"

namespace host {

// Architecture bits, the low byte of the architecture word.
constexpr uint32_t kArchSpare = 0x01;
constexpr uint32_t kArchIAlign = 0x02;
constexpr uint32_t kArchUnicode = 0x04;
constexpr uint32_t kArchMach = 0x08;
constexpr uint32_t kArchDAlign = 0x10;
constexpr uint32_t kArch64Bit = 0x20;
constexpr uint32_t kArchDExtend = 0x40;
constexpr uint32_t kArchLittle = 0x80;
// A 64-bit little-endian host with classic characters, and with Unicode:
// the library answers with the second.
constexpr uint32_t kZHeader = kArchLittle | kArch64Bit;
constexpr uint32_t kRetZHeader = kZHeader | kArchUnicode;

// Nesting deeper than this is refused when decoding.
constexpr unsigned kMaxDepth = 256;

// A Z block in host memory. The storage is 8-byte aligned, as the host's is.
class ZBlock {
 public:
  ZBlock() = default;
  explicit ZBlock(const void* p, size_t n);

  size_t size() const { return bytes_; }
  uint8_t* data() { return reinterpret_cast<uint8_t*>(words_.data()); }
  const uint8_t* data() const { return reinterpret_cast<const uint8_t*>(words_.data()); }
  // The form the library's entry points take.
  uint32_t* words() { return reinterpret_cast<uint32_t*>(words_.data()); }
  std::vector<uint8_t> bytes() const { return {data(), data() + bytes_}; }
  uint8_t& operator[](size_t i) { return data()[i]; }
  uint8_t operator[](size_t i) const { return data()[i]; }
  // The big-endian words of the header.
  uint32_t statedLength() const;
  uint32_t arch() const;
  void setStatedLength(uint32_t n);
  void setArch(uint32_t word);
  void resize(size_t n);

 private:
  std::vector<uint64_t> words_;
  size_t bytes_ = 0;
};

// Bytes the record of this value takes, with the records of its items.
size_t RecordSize(const Value& v);
// The whole block: 8 header bytes and the record.
ZBlock Encode(const Value& v, uint32_t arch = kRetZHeader);

// Decodes a block of `size` bytes. Refuses (null, with the reason in
// *error) a block shorter than its header, a stated length that isn't
// `size`, an architecture word the library wouldn't take, and any record
// that is malformed or reaches past the block; never reads outside it.
std::optional<Value> Decode(const void* block, size_t size, std::string* error = nullptr);
std::optional<Value> Decode(const ZBlock& block, std::string* error = nullptr);

uint32_t GetBE32(const void* p);
void PutBE32(void* p, uint32_t v);

}  // namespace host
