// Encoding host arrays to Z blocks and back. The record's length word counts
// rank + data words + 3, one word more than the record holds; a nested
// record's length word counts one word per item (at least one) as if the
// items were pointers, while the item records simply follow it.
#include "host/zblock.h"

#include <cstring>
#include <utility>

namespace host {

uint32_t GetBE32(const void* p) {
  const uint8_t* b = static_cast<const uint8_t*>(p);
  return (uint32_t)b[0] << 24 | (uint32_t)b[1] << 16 | (uint32_t)b[2] << 8 | b[3];
}

void PutBE32(void* p, uint32_t v) {
  uint8_t* b = static_cast<uint8_t*>(p);
  b[0] = (uint8_t)(v >> 24);
  b[1] = (uint8_t)(v >> 16);
  b[2] = (uint8_t)(v >> 8);
  b[3] = (uint8_t)v;
}

ZBlock::ZBlock(const void* p, size_t n) {
  resize(n);
  if (n) memcpy(data(), p, n);
}

void ZBlock::resize(size_t n) {
  words_.resize((n + 7) / 8, 0);
  bytes_ = n;
}

uint32_t ZBlock::statedLength() const { return bytes_ >= 4 ? GetBE32(data()) : 0; }
uint32_t ZBlock::arch() const { return bytes_ >= 8 ? GetBE32(data() + 4) : 0; }
void ZBlock::setStatedLength(uint32_t n) { PutBE32(data(), n); }
void ZBlock::setArch(uint32_t word) { PutBE32(data() + 4, word); }

namespace {

constexpr size_t kHeader = 16;

size_t Pad8(size_t n) { return (n + 7) & ~(size_t)7; }

// Words the length word counts for the data: the padded data, or one per
// item of a nested array, the prototype counting for an empty one.
uint64_t DataWords(const Value& v) {
  if (v.isNested()) return v.items().size();
  return Pad8(v.bytes().size()) / 8;
}

void PutLE64(uint8_t* p, uint64_t v) { memcpy(p, &v, 8); }

uint64_t GetLE64(const uint8_t* p) {
  uint64_t v;
  memcpy(&v, p, 8);
  return v;
}

size_t Write(const Value& v, uint8_t* p) {
  size_t rank = v.rank();
  PutLE64(p, rank + DataWords(v) + 3);
  p[8] = (uint8_t)(rank << 4 | (v.isNested() ? 7 : 15));
  p[9] = (uint8_t)v.type();
  for (size_t i = 0; i < rank; i++) PutLE64(p + kHeader + 8 * i, v.shape()[i]);
  size_t at = kHeader + 8 * rank;
  if (!v.isNested()) {
    if (!v.bytes().empty()) memcpy(p + at, v.bytes().data(), v.bytes().size());
    return at + Pad8(v.bytes().size());
  }
  for (const Value& item : v.items()) at += Write(item, p + at);
  return at;
}

class Reader {
 public:
  Reader(const uint8_t* p, size_t size, std::string* error) : p_(p), size_(size), error_(error) {}

  std::optional<Value> Record(size_t* at, unsigned depth);

 private:
  std::optional<Value> Fail(size_t at, const std::string& why) {
    if (error_) *error_ = "record at byte " + std::to_string(at) + ": " + why;
    return std::nullopt;
  }

  const uint8_t* p_;
  size_t size_;
  std::string* error_;
};

std::optional<Value> Reader::Record(size_t* at, unsigned depth) {
  size_t start = *at;
  if (depth > kMaxDepth) return Fail(start, "nested too deep");
  if (size_ - start < kHeader) return Fail(start, "header runs past the block");
  const uint8_t* r = p_ + start;
  uint64_t length = GetLE64(r);
  unsigned rank = r[8] >> 4;
  unsigned eltype = r[9];
  if (!IsHostType(eltype)) return Fail(start, "unknown element type " + std::to_string(eltype));
  Type type = (Type)eltype;
  if ((r[8] & 15) != (type == Type::Nested ? 7u : 15u)) return Fail(start, "type nibble doesn't match the element type");
  for (int i = 10; i < 16; i++)
    if (r[i]) return Fail(start, "reserved bytes not zero");
  if (size_ - start - kHeader < 8 * (size_t)rank) return Fail(start, "shape runs past the block");
  Shape shape;
  uint64_t count = 1;
  for (unsigned i = 0; i < rank; i++) {
    uint64_t axis = GetLE64(r + kHeader + 8 * i);
    // No element takes less than a bit, so a count past 8 bits per block
    // byte can't be there; refusing it also keeps the product from wrapping.
    if (axis && count > (uint64_t)size_ * 8 / axis) return Fail(start, "shape larger than the block");
    count *= axis;
    shape.push_back(axis);
  }
  size_t headerBytes = kHeader + 8 * (size_t)rank;
  *at = start + headerBytes;
  if (type == Type::Nested) {
    uint64_t items = count ? count : 1;
    if (length != rank + items + 3) return Fail(start, "length word " + std::to_string(length) + " should be " + std::to_string(rank + items + 3));
    if (items > (size_ - *at) / kHeader) return Fail(start, "more items than the block can hold");
    std::vector<Value> list;
    for (uint64_t i = 0; i < items; i++) {
      std::optional<Value> item = Record(at, depth + 1);
      if (!item) return std::nullopt;
      list.push_back(std::move(*item));
    }
    Value v;
    Value::Nested(std::move(shape), std::move(list), &v);
    return v;
  }
  uint64_t dataBytes = (count * ElementBits(type) + 7) / 8;
  uint64_t padded = Pad8((size_t)dataBytes);
  if (padded > size_ - *at) return Fail(start, "data run past the block");
  if (length != rank + padded / 8 + 3) return Fail(start, "length word " + std::to_string(length) + " should be " + std::to_string(rank + padded / 8 + 3));
  std::vector<uint8_t> data(p_ + *at, p_ + *at + dataBytes);
  *at += padded;
  return Value::Raw(type, std::move(shape), std::move(data));
}

}  // namespace

size_t RecordSize(const Value& v) {
  size_t n = kHeader + 8 * v.rank();
  if (!v.isNested()) return n + Pad8(v.bytes().size());
  for (const Value& item : v.items()) n += RecordSize(item);
  return n;
}

ZBlock Encode(const Value& v, uint32_t arch) {
  ZBlock block;
  block.resize(8 + RecordSize(v));
  block.setStatedLength((uint32_t)block.size());
  block.setArch(arch);
  Write(v, block.data() + 8);
  return block;
}

std::optional<Value> Decode(const void* p, size_t size, std::string* error) {
  auto fail = [error](const std::string& why) -> std::optional<Value> {
    if (error) *error = why;
    return std::nullopt;
  };
  const uint8_t* b = static_cast<const uint8_t*>(p);
  if (!b || size < 8) return fail("block shorter than its header");
  if (GetBE32(b) != size) return fail("stated length " + std::to_string(GetBE32(b)) + " isn't the block's " + std::to_string(size));
  uint32_t arch = GetBE32(b + 4);
  if (((arch ^ kZHeader) & ~(kArchIAlign | kArchUnicode | kArchDAlign)) != 0) return fail("architecture word " + std::to_string(arch) + " refused");
  size_t at = 0;
  std::optional<Value> v = Reader(b + 8, size - 8, error).Record(&at, 0);
  if (v && at != size - 8) return fail("record ends at byte " + std::to_string(at + 8) + " of " + std::to_string(size));
  return v;
}

std::optional<Value> Decode(const ZBlock& block, std::string* error) { return Decode(block.data(), block.size(), error); }

}  // namespace host
