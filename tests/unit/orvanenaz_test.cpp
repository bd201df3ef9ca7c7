// The library's side of the Z block: record layouts it writes, and blocks it
// refuses, whole and malformed.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "orvanenaz.h"

namespace {

typedef std::vector<UI1> Bytes;

Bytes Block(PAA pAA) {  // consumes the array
  PUI4 z = PackZ(pAA);
  Bytes b((UI1*)z, (UI1*)z + GetBE32(z));
  free(z);
  return b;
}

UI8 Word(const Bytes& b, size_t at) {
  UI8 w;
  memcpy(&w, &b[at], 8);
  return w;
}

void PutWord(Bytes& b, size_t at, UI8 w) { memcpy(&b[at], &w, 8); }

PAA Text(const char* s) {
  PAA p = VANewVector(VAC1, (UI4)strlen(s));
  memcpy(VADATA(p), s, strlen(s));
  return p;
}

TEST(Pack, ScalarsEmptiesNestedAndBits) {
  PAA s = VANewScalar(VAI4);
  *(SI4*)VADATA(s) = -2;
  Bytes b = Block(s);
  ASSERT_EQ(b.size(), 32u);
  EXPECT_EQ(GetBE32(&b[0]), 32u);
  EXPECT_EQ(GetBE32(&b[4]), 0xA4u);
  EXPECT_EQ(Word(b, 8), 4u);
  EXPECT_EQ(b[16], 0x0F);  // simple, rank 0
  EXPECT_EQ(b[17], 4);     // host type 4
  EXPECT_EQ(Word(b, 24), 0xFFFFFFFEu);

  b = Block(VANewVector(VAI4, 0));
  ASSERT_EQ(b.size(), 8u + 24u);
  EXPECT_EQ(Word(b, 8), 4u);
  EXPECT_EQ(b[16], 0x1F);
  EXPECT_EQ(Word(b, 24), 0u);

  PAA n = VANewVector(VAPntr, 2);
  PAA kids[2] = {Text("ab"), Text("cde")};
  memcpy(VADATA(n), kids, sizeof kids);
  SetUnicode(true);
  b = Block(n);
  EXPECT_EQ(Word(b, 8), 6u);
  EXPECT_EQ(b[16], 0x17);
  EXPECT_EQ(b[17], 6);
  EXPECT_EQ(Word(b, 8 + 24), 5u);  // first child at byte 24 of the record
  EXPECT_EQ(b[8 + 24 + 9], 7);     // Unicode caller: host type 7
  EXPECT_EQ(memcmp(&b[8 + 24 + 24], "ab", 2), 0);
  SetUnicode(false);
  EXPECT_FALSE(isUnicode());
  b = Block(Text("x"));
  EXPECT_EQ(b[17], 0);  // classic caller: host type 0
  SetUnicode(true);
  EXPECT_TRUE(isUnicode());

  UI4 nine = 9;
  PAA bits = VANew(VABit, 1, &nine);
  ((UI1*)VADATA(bits))[0] = 0x81;
  ((UI1*)VADATA(bits))[1] = 0x80;
  b = Block(bits);
  EXPECT_EQ(b[17], 1);
  EXPECT_EQ(Word(b, 8), 5u);
  EXPECT_EQ(b[32], 0x81);
  EXPECT_EQ(b[33], 0x80);
}

TEST(Pack, ScalarTemplate) {
  PUI4 z = ScalarZ(1005);
  static const UI1 want[32] = {0, 0, 0, 0x20, 0, 0, 0, 0xA0, 4, 0, 0, 0, 0, 0, 0, 0,
                               0x0F, 4, 0, 0, 0, 0, 0, 0, 0xED, 0x03, 0, 0, 0, 0, 0, 0};
  EXPECT_EQ(memcmp(z, want, 32), 0);
  free(z);
}

TEST(Unpack, RoundTripOfEveryType) {
  static const VATYPES types[] = {VABit, VAI1, VAI2, VAI4, VAF8, VAC1, VAC2, VAC4, VADpd, VABid};
  for (VATYPES t : types) {
    UI4 shape[3] = {2, 3, 5};
    PAA a = VANew(t, 3, shape);
    for (UI4 i = 0; i < VADataLength(a); i++) ((UI1*)VADATA(a))[i] = (UI1)(i * 7 + t);
    PUI4 z = PackZ(a);
    PAA back = UnpackZ(z);
    ASSERT_NE(back, nullptr) << t;
    PUI4 again = PackZ(back);
    ASSERT_EQ(GetBE32(z), GetBE32(again));
    EXPECT_EQ(memcmp(z, again, GetBE32(z)), 0) << t;
    free(z);
    free(again);
  }
  // An empty nested vector carries its prototype both ways.
  UI4 zero = 0;
  PAA e = VANew(VAPntr, 1, &zero);
  PAA proto = VANewVector(VAI4, 0);
  memcpy(VADATA(e), &proto, sizeof proto);
  PUI4 z = PackZ(e);
  PAA back = UnpackZ(z);
  ASSERT_NE(back, nullptr);
  EXPECT_EQ(VAType(back), VAPntr);
  EXPECT_EQ(VAShape(back)[0], 0u);
  free(z);
  VAFree(back);
}

Bytes TwoTexts() {
  PAA n = VANewVector(VAPntr, 2);
  PAA kids[2] = {Text("ab"), Text("cde")};
  memcpy(VADATA(n), kids, sizeof kids);
  return Block(n);
}

PAA Try(Bytes b) { return UnpackZ((PUI4)b.data(), (UI4)b.size()); }

TEST(Unpack, RefusesMalformedBlocks) {
  Bytes good = TwoTexts();
  PAA ok = Try(good);
  ASSERT_NE(ok, nullptr);
  VAFree(ok);

  Bytes b = good;
  PutBE32(&b[0], (UI4)b.size() + 8);  // stated 8 too big
  EXPECT_EQ(UnpackZ((PUI4)b.data()), nullptr);
  PutBE32(&b[0], (UI4)b.size() - 8);  // 8 too small
  EXPECT_EQ(UnpackZ((PUI4)b.data()), nullptr);

  b = good;
  PutBE32(&b[4], 0xA8);  // machine bit
  EXPECT_EQ(Try(b), nullptr);
  PutBE32(&b[4], 0x1A0);
  EXPECT_EQ(Try(b), nullptr);
  PutBE32(&b[4], 0xB6);  // the optional bits may be either
  ok = Try(b);
  EXPECT_NE(ok, nullptr);
  VAFree(ok);

  b = good;  // a child's length word reaching past the block
  PutWord(b, 8 + 24, 1000);
  EXPECT_EQ(Try(b), nullptr);
  PutWord(b, 8 + 24, 0);
  EXPECT_EQ(Try(b), nullptr);

  b = good;  // a child shape larger than its data
  PutWord(b, 8 + 24 + 16, 1u << 30);
  EXPECT_EQ(Try(b), nullptr);

  b = good;  // an unknown element type
  b[8 + 24 + 9] = 11;
  EXPECT_EQ(Try(b), nullptr);
  b[8 + 24 + 9] = 15;
  EXPECT_EQ(Try(b), nullptr);

  b = good;  // a nested count the block can't hold
  PutWord(b, 8 + 16, 100000000);
  EXPECT_EQ(Try(b), nullptr);

  for (size_t cut = 0; cut < good.size(); cut += 4) {  // truncation anywhere
    Bytes t(good.begin(), good.begin() + cut);
    if (t.size() >= 4) PutBE32(&t[0], (UI4)t.size());
    EXPECT_EQ(UnpackZ((PUI4)t.data(), (UI4)t.size()), nullptr) << cut;
  }
}

TEST(Unpack, RefusesNestingDeeperThanTheLimit) {
  auto nest = [](int depth) {
    PAA p = VANewScalar(VAI4);
    for (int i = 0; i < depth; i++) {
      PAA outer = VANewVector(VAPntr, 1);
      memcpy(VADATA(outer), &p, sizeof p);
      p = outer;
    }
    return Block(p);
  };
  PAA ok = Try(nest(ORVANE_MAX_DEPTH));
  EXPECT_NE(ok, nullptr);
  VAFree(ok);
  EXPECT_EQ(Try(nest(ORVANE_MAX_DEPTH + 1)), nullptr);
}

}  // namespace
