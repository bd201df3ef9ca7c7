// The array record: sizes, alignment, element counts, release.
#include <gtest/gtest.h>

#include <cstdint>

#include "vapl.h"

namespace {

UI4 Align(PAA p, UI4 boundary) { return (UI4)((uintptr_t)VADATA(p) % boundary); }

TEST(VArray, SizesAndCounts) {
  UI4 zero = 0;
  PAA p = VANew(VAI4, 1, &zero);
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(VALength(p), 16u);
  EXPECT_EQ(VAElems(p), 0u);
  EXPECT_EQ(VARefCount(p), 1u);
  p = VAFree(p);
  EXPECT_EQ(p, nullptr);

  p = VANew(VAPntr, 1, &zero);
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(VALength(p), 24u);
  EXPECT_EQ(VAShape(p)[0], 0u);
  EXPECT_EQ(VAElems(p), 1u);
  p = VAFree(p);  // releases the null prototype slot without harm

  UI4 n33 = 33;
  p = VANew(VABit, 1, &n33);
  EXPECT_EQ(VALength(p), 24u);
  EXPECT_EQ(VADataLength(p), 8u);
  p = VAFree(p);

  UI4 million = 1000000;
  p = VANew(VAApvI4, 1, &million);
  EXPECT_EQ(VADataLength(p), 8u);
  EXPECT_EQ(VAElems(p), 1000000u);
  p = VAFree(p);

  UI4 tooMany = 536870912;
  EXPECT_EQ(VANew(VAI1, 1, &tooMany), nullptr);
  UI4 wrap[2] = {65536, 65536};
  p = VANew(VAI4, 2, wrap);
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(VAElems(p), 0u);
  p = VAFree(p);
  EXPECT_EQ(VANew(VANoType, 0, nullptr), nullptr);
  EXPECT_EQ(VAFree(nullptr), nullptr);
}

TEST(VArray, DataAlignment) {
  for (UI2 rank = 0; rank <= 5; rank++) {
    UI4 shape[5] = {1, 1, 1, 1, 1};
    PAA f = VANew(VAF8, rank, shape);
    PAA d = VANew(VABid, rank, shape);
    ASSERT_NE(f, nullptr);
    ASSERT_NE(d, nullptr);
    EXPECT_EQ(Align(f, 8), 0u) << "rank " << rank;
    EXPECT_EQ(Align(d, 16), 0u) << "rank " << rank;
    VAFree(f);
    VAFree(d);
  }
  UI4 shape[8] = {1, 1, 1, 1, 1, 1, 1, 1};
  PAA d = VANew(VADpd, 7, shape);  // beyond the alignment rule: still usable
  ASSERT_NE(d, nullptr);
  VAFree(d);
}

TEST(VArray, SharedChildrenAndHetCells) {
  PAA child = VANewScalar(VAI4);
  PAA a = VANewVector(VAPntr, 1);
  PAA b = VANewVector(VAPntr, 1);
  memcpy(VADATA(a), &child, sizeof(PAA));
  VAIncRef(child);
  memcpy(VADATA(b), &child, sizeof(PAA));
  EXPECT_EQ(VARefCount(child), 2u);
  VAFree(b);
  EXPECT_EQ(VARefCount(child), 1u);
  VAFree(a);  // the last owner releases the child; ASan catches a leak or double free

  PAA het = VANewVector(VAHet, 3);
  ((SI1*)VADATA(het))[0] = VAI4;
  SI4 v = -7;
  memcpy(VAHetData(het, 0), &v, 4);
  ((SI1*)VADATA(het))[10] = VAPntr;  // null payload
  ((SI1*)VADATA(het))[20] = VAPntr;
  PAA inner = VANewVector(VAC1, 4);
  memcpy(VAHetData(het, 2), &inner, sizeof(PAA));
  EXPECT_EQ(VAHetType(het, 0), VAI4);
  EXPECT_EQ(VAHetType(het, 2), VAPntr);
  VAFree(het);
}

TEST(VArrayDeath, FreeOfDeadRecordStops) {
  PAA p = VANewScalar(VAI4);
  p->refcount = 0;
  EXPECT_DEATH(VAFree(p), "VARefCount\\(pAA\\)!=0");
  p->refcount = 1;
  VAFree(p);
}

}  // namespace
