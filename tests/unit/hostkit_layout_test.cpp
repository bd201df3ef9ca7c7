// The host toolkit's Z blocks, byte for byte, and against the library's own
// marshalling: what the toolkit encodes, UnpackZ takes and PackZ gives back
// unchanged.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <vector>

#include "host/zblock.h"
#include "orvanenaz.h"

namespace {

using host::Type;
using host::Value;
using host::ZBlock;

uint64_t Word(const ZBlock& b, size_t at) {
  uint64_t v;
  memcpy(&v, b.data() + at, 8);
  return v;
}

// Record bytes start at 8 in the block.
constexpr size_t R = 8;

TEST(HostKitLayout, IntegerScalarAndEmptyVector) {
  ZBlock b = host::Encode(Value::Int(5), host::kZHeader);
  const uint8_t expected[32] = {0x00, 0x00, 0x00, 0x20, 0x00, 0x00, 0x00, 0xA0, 0x04, 0, 0, 0, 0, 0, 0, 0,
                                0x0F, 0x04, 0,    0,    0,    0,    0,    0,    0x05, 0, 0, 0, 0, 0, 0, 0};
  ASSERT_EQ(b.size(), 32u);
  EXPECT_EQ(memcmp(b.data(), expected, 32), 0);

  b = host::Encode(Value::Ints({}));
  ASSERT_EQ(b.size(), 8u + 24u);
  EXPECT_EQ(Word(b, R), 4u);      // rank 1 + no data + 3
  EXPECT_EQ(b[R + 8], 0x1F);      // rank 1, simple
  EXPECT_EQ(b[R + 9], 4);
  EXPECT_EQ(Word(b, R + 16), 0u);  // the axis
  EXPECT_EQ(b.arch(), 0xA4u);
}

TEST(HostKitLayout, NestedVectorOfTwoTexts) {
  ZBlock b = host::Encode(Value::Nested({Value::Text("ab"), Value::Text("xyz")}));
  ASSERT_EQ(b.size(), 8u + 24 + 32 + 32);
  EXPECT_EQ(Word(b, R), 6u);  // rank 1 + 2 items + 3
  EXPECT_EQ(b[R + 8], 0x17);
  EXPECT_EQ(b[R + 9], 6);
  EXPECT_EQ(Word(b, R + 16), 2u);
  // The first child at record byte 24, the second after its 32 bytes.
  EXPECT_EQ(Word(b, R + 24), 5u);
  EXPECT_EQ(b[R + 24 + 9], 7);
  EXPECT_EQ(Word(b, R + 24 + 16), 2u);
  EXPECT_EQ(memcmp(b.data() + R + 24 + 24, "ab\0\0\0\0\0\0", 8), 0);
  EXPECT_EQ(Word(b, R + 56 + 16), 3u);
  EXPECT_EQ(memcmp(b.data() + R + 56 + 24, "xyz\0\0\0\0\0", 8), 0);

  // An empty nested vector counts and carries one record, its prototype.
  b = host::Encode(Value::EmptyNested(Value::Ints({})));
  ASSERT_EQ(b.size(), 8u + 24 + 24);
  EXPECT_EQ(Word(b, R), 5u);
  EXPECT_EQ(Word(b, R + 16), 0u);
  EXPECT_EQ(b[R + 24 + 9], 4);
}

TEST(HostKitLayout, BitsMostSignificantFirstAndRankThree) {
  std::vector<bool> bits(33, false);
  bits[0] = bits[8] = bits[31] = bits[32] = true;
  ZBlock b = host::Encode(Value::Bits(bits));
  ASSERT_EQ(b.size(), 8u + 24 + 8);
  EXPECT_EQ(Word(b, R), 5u);
  const uint8_t data[8] = {0x80, 0x80, 0x00, 0x01, 0x80, 0, 0, 0};
  EXPECT_EQ(memcmp(b.data() + R + 24, data, 8), 0);
  EXPECT_EQ(host::Encode(Value::Bits(std::vector<bool>(9, true)))[R + 25], 0x80);

  std::vector<int32_t> n;
  for (int i = 1; i <= 24; i++) n.push_back(i);
  b = host::Encode(Value::Ints(n).Reshape({2, 3, 4}));
  ASSERT_EQ(b.size(), 8u + 16 + 24 + 96);
  EXPECT_EQ(Word(b, R), 3u + 12 + 3);
  EXPECT_EQ(b[R + 8], 0x3F);
  EXPECT_EQ(Word(b, R + 16), 2u);
  EXPECT_EQ(Word(b, R + 24), 3u);
  EXPECT_EQ(Word(b, R + 32), 4u);
  int32_t last;
  memcpy(&last, b.data() + R + 40 + 23 * 4, 4);
  EXPECT_EQ(last, 24);
}

host::Decimal128 Dec(uint8_t low, uint8_t high) {
  host::Decimal128 d{};
  d[0] = low;
  d[15] = high;
  return d;
}

// One value of every host type, simple and nested, several ranks.
std::vector<Value> EveryType() {
  return {
      Value::Classic("classic"),
      Value::Bits({true, false, true, true, false, false, false, true, true}),
      Value::Int8s({-128, 0, 127}),
      Value::Int16s({-32768, 1, 32767}).Reshape({3, 1}),
      Value::Int(-7),
      Value::Ints({1, 2, 3, 4, 5, 6}).Reshape({2, 3}),
      Value::Doubles({1.5, -2.25, 1e300}),
      Value::Double(3.25),
      Value::Text("naïve"),
      Value::Text("λx"),
      Value::Text("a😀"),
      Value::Char(U'z'),
      Value::Complexes({{1, 2}, {-3, 0.5}}),
      Value::Decimals(Type::Dpd, {Dec(1, 0x22), Dec(7, 0x22)}),
      Value::Decimals(Type::Bid, {Dec(1, 0x30)}),
      Value::Nested({Value::Text("ab"), Value::Ints({1, 2, 3}), Value::Int(4)}),
      Value::Nested({Value::Nested({Value::Text("deep"), Value::EmptyNested(Value::Int(0))}), Value::Ints({})}),
      Value::EmptyNested(Value::Text("")),
      Value::Nested({Value::Text("x"), Value::Text("y"), Value::Text("z"), Value::Text("w")}).Reshape({2, 2}),
      Value::Ints({}).Reshape({0, 3}),
  };
}

bool HasClassic(const Value& v) {
  if (v.type() == Type::Char) return true;
  for (const Value& item : v.items())
    if (HasClassic(item)) return true;
  return false;
}

TEST(HostKitLayout, RoundTripThroughTheLibrary) {
  for (const Value& v : EveryType()) {
    SCOPED_TRACE(v.Describe());
    ZBlock in = host::Encode(v, host::kRetZHeader);
    std::string why;
    std::optional<Value> back = host::Decode(in, &why);
    ASSERT_TRUE(back) << why;
    EXPECT_EQ(*back, v);

    // The library tells the two one-byte character types apart only by the
    // caller's Unicode bit.
    SetUnicode(!HasClassic(v));
    PAA pAA = UnpackZ(in.words());
    ASSERT_NE(pAA, nullptr);
    if (v.type() == Type::Complex) {
      // Complex unpacks to pairs of doubles, a type that only goes back to
      // the host after conversion to host type 5.
      EXPECT_EQ(VAType(pAA), VA2F8);
      ASSERT_EQ(VADataLength(pAA), 32u);
      EXPECT_EQ(memcmp(VADATA(pAA), v.bytes().data(), 32), 0);
      pAA = VAFree(pAA);
      continue;
    }
    PUI4 out = PackZ(pAA);
    ASSERT_NE(out, nullptr);
    ZBlock outBlock(out, GetBE32(out));
    free(out);
    EXPECT_EQ(outBlock.bytes(), in.bytes());
  }
  SetUnicode(true);
}

// A copy of a block in a heap block of exactly `size` bytes, so that any
// read past it is an error the sanitizer build reports. The library's own
// refusals: Unpack.RefusesMalformedBlocks.
struct Exact {
  explicit Exact(const ZBlock& b, size_t size) : p((uint8_t*)malloc(size)), n(size) {
    memcpy(p, b.data(), size < b.size() ? size : b.size());
  }
  ~Exact() { free(p); }
  PUI4 words() { return (PUI4)p; }
  uint8_t* p;
  size_t n;
};

TEST(HostKitLayout, DecodeRefusesMalformedBlocks) {
  Value v = Value::Nested({Value::Text("abc"), Value::Ints({1, 2, 3})});
  const ZBlock good = host::Encode(v);
  ASSERT_TRUE(host::Decode(good));
  auto refused = [](ZBlock b) {
    std::string why;
    bool r = !host::Decode(b, &why);
    EXPECT_FALSE(why.empty());
    return r;
  };
  auto patched = [&good](size_t at, uint8_t byte) {
    ZBlock b = good;
    b[at] = byte;
    return b;
  };
  EXPECT_TRUE(refused(patched(7, 0xA8)));          // big-endian machine
  EXPECT_TRUE(refused(patched(2, 0x01)));          // stated length
  EXPECT_TRUE(refused(patched(R, 5)));             // outer length word one short
  EXPECT_TRUE(refused(patched(R, 7)));             // one over
  EXPECT_TRUE(refused(patched(R + 24, 4)));        // an item's length word
  EXPECT_TRUE(refused(patched(R + 8, 0x1F)));      // nested marked simple
  EXPECT_TRUE(refused(patched(R + 9, 11)));        // no such element type
  EXPECT_TRUE(refused(patched(R + 9, 0x16)));      // high bits of the type byte
  EXPECT_TRUE(refused(patched(R + 12, 1)));        // reserved bytes
  EXPECT_TRUE(refused(patched(R + 8, 0xF7)));      // rank 15: shape past the end
  EXPECT_TRUE(refused(patched(R + 16, 200)));      // more items than bytes
  EXPECT_TRUE(refused(patched(R + 24 + 16, 100))); // text longer than the block
  ZBlock huge = good;
  memset(huge.data() + R + 24 + 16, 0xFF, 8);      // an axis of 2^64-1
  EXPECT_TRUE(refused(huge));
  ZBlock trailing = good;
  trailing.resize(good.size() + 8);
  trailing.setStatedLength((uint32_t)trailing.size());
  EXPECT_TRUE(refused(trailing));

  for (size_t n = 0; n < good.size(); n++) {
    Exact cut(good, n);
    if (n >= 4) PutBE32(cut.p, (UI4)n);
    EXPECT_FALSE(host::Decode(cut.p, n)) << n;
  }

  // Nesting deeper than the limit is refused, not followed.
  Value deep = Value::Int(1);
  for (unsigned i = 0; i <= host::kMaxDepth; i++) deep = Value::Nested({deep});
  EXPECT_TRUE(refused(host::Encode(deep)));
}

}  // namespace
