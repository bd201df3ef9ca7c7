// The library's side of the Z block: blocks it refuses, malformed and nested
// too deep. The layouts it writes are checked byte for byte against the
// host toolkit's in hostkit_layout_test.cpp.
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

void PutWord(Bytes& b, size_t at, UI8 w) { memcpy(&b[at], &w, 8); }

PAA Text(const char* s) {
  PAA p = VANewVector(VAC1, (UI4)strlen(s));
  memcpy(VADATA(p), s, strlen(s));
  return p;
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
  b.resize(good.size() + 8);  // 8 bytes behind the record, counted
  PutBE32(&b[0], (UI4)b.size());
  EXPECT_EQ(Try(b), nullptr);

  // The architecture word: HostDoor.ArchitectureWord, bit by bit.
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

  // Truncation anywhere, in a heap block of exactly the bytes received:
  // the length word cut to match, or as sent with only part received.
  for (size_t cut = 0; cut < good.size(); cut += 4) {
    Bytes t(good.begin(), good.begin() + cut);
    if (t.size() >= 4) PutBE32(&t[0], (UI4)t.size());
    EXPECT_EQ(UnpackZ((PUI4)t.data(), (UI4)t.size()), nullptr) << cut;
    if (t.size() >= 4) PutBE32(&t[0], (UI4)good.size());
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
