// Normal form: the simplest type of mixed nested arrays, conversions, and
// the result path of Call (normalise, then pack) checked on packed types.
#include <gtest/gtest.h>

#include <cstdlib>
#include <vector>

#include "aplrpc.h"
#include "arraybuild.h"
#include "orvanenaz.h"
#include "pelkoerr.h"

using namespace testarrays;

namespace {

PAA Het(std::initializer_list<std::pair<SI4, SI4>> cells) {
  PAA p = VANewVector(VAHet, (UI4)cells.size());
  UI4 i = 0;
  for (auto c : cells) VASetHetCell(p, i++, c.first, &c.second, 4);
  return p;
}

TEST(VAConvTest, CheckType) {
  struct Case {
    PAA p;
    SI4 type;
  } cases[] = {
      {Nested({VAInt(1), F8Scalar(2.5)}), VAF8},
      {Nested({VAInt(1), VAInt(2)}), VAI4},
      {Nested({CharScalar('a'), CharScalar('b')}), VAC1},
      {Nested({CharScalar('a'), VAInt(1)}), VAHet},
      {Nested({Vector<SI4>(VAI4, {1, 2}), Vector<SI4>(VAI4, {3, 4})}), VAPntr},
      {Nested({Vector<SI4>(VAI4, {1, 2}), VAInt(3)}), VAHet},
      {Nested({VANewScalar(VABit), VANewScalar(VABit)}), VAPntr},
      {Nested({VANewScalar(VAC2), VANewScalar(VAI8)}), VAF8},
      {Nested({Enclose(Enclose(VAInt(5)))}), VAI4},  // enclosed scalars are seen through
      {Nested({Nested({VAInt(5)})}), VAPntr},        // an enclosed vector is not
      {Nested({nullptr}), VAPntr},
      {Het({{VAI4, 1}, {VAI2, 2}}), VAI4},
      {Het({{VAC1, 'x'}, {VAI4, 2}}), VAHet},
      {Vector<SI4>(VAI4, {1}), VAI4},
  };
  for (auto& c : cases) {
    EXPECT_EQ(VACheckType(c.p), c.type);
    VAFree(c.p);
  }
  // A scalar's end type is found through pointer slots and pointer cells.
  PAA deep = Enclose(F8Scalar(1.0));
  EXPECT_EQ(VAEndType(deep), VAF8);
  deep = VAFree(deep);
  PAA child = CharScalar('q');
  PAA cell = VANewScalar(VAHet);
  VASetHetCell(cell, 0, VAPntr, &child, sizeof(PAA));
  EXPECT_EQ(VAEndType(cell), VAC1);
  cell = VAFree(cell);
  PAA vec = Het({{VAI4, 1}});
  EXPECT_EQ(VAEndType(vec), VAPntr);  // a vector
  vec = VAFree(vec);
}

TEST(VAConvTest, Conv) {
  PAA res = (PAA)1;
  PAA v = Vector<SI4>(VAI4, {1, 2});
  EXPECT_EQ(VAConv(v, VAI4, &res), 0);
  EXPECT_EQ(res, v);
  EXPECT_EQ(VARefCount(v), 2u);
  VAFree(res);
  EXPECT_EQ(VAConv(v, VAC1, &res), ERR_APL_CONVERSION);
  EXPECT_EQ(res, nullptr);
  EXPECT_EQ(VAConv(v, VAF8, &res), 0);
  EXPECT_EQ(At<F8>(res, 1), 2.0);
  res = VAFree(res);
  v = VAFree(v);

  PAA text = Text("\x01\xFFz");
  EXPECT_EQ(VAConv(text, VAI1, &res), 0);
  EXPECT_EQ(memcmp(VADATA(res), "\x01\xFFz", 3), 0);
  res = VAFree(res);
  text = VAFree(text);

  PAA f = F8Scalar(2.5);
  EXPECT_EQ(VAConv(f, VAI4, &res), ERR_APL_CONVERSION);
  EXPECT_EQ(res, nullptr);
  f = VAFree(f);

  // Into pointers: each slot owns its scalar, and a shared child gains a
  // reference of its own.
  PAA simple = Vector<SI4>(VAI4, {7, 8});
  EXPECT_EQ(VAConv(simple, VAPntr, &res), 0);
  EXPECT_EQ(VARefCount(VASlot(res, 0)), 1u);
  SI4 x;
  EXPECT_EQ(VAGetSI4(res, 1, &x), 0);
  EXPECT_EQ(x, 8);
  res = VAFree(res);
  simple = VAFree(simple);
  PAA shared = Text("s");
  PAA het = VANewVector(VAHet, 1);
  VASetHetCell(het, 0, VAPntr, &shared, sizeof(PAA));
  EXPECT_EQ(VAConv(het, VAPntr, &res), 0);
  EXPECT_EQ(VASlot(res, 0), shared);
  EXPECT_EQ(VARefCount(shared), 2u);
  het = VAFree(het);
  EXPECT_EQ(VARefCount(shared), 1u);
  res = VAFree(res);

  // Pointer to heterogeneous, cell by cell.
  PAA nest = Nested({VAInt(4), F8Scalar(0.5), CharScalar('c'), Text("long")});
  EXPECT_EQ(VAConv(nest, VAHet, &res), 0);
  EXPECT_EQ(VAHetType(res, 0), VAI4);
  EXPECT_EQ(VAHetType(res, 1), VAF8);
  EXPECT_EQ(VAHetType(res, 2), VAC1);
  EXPECT_EQ(((char*)VAHetData(res, 2))[0], 'c');
  EXPECT_EQ(VAHetType(res, 3), VAPntr);
  EXPECT_EQ(VARefCount(VASlot(nest, 3)), 2u);
  res = VAFree(res);
  nest = VAFree(nest);
  nest = Nested({VANewScalar(VAI8)});
  EXPECT_EQ(VAConv(nest, VAHet, &res), ERR_APL_CONVERSION);
  nest = VAFree(nest);
}

// Walks a packed record and collects (depth, eltype) in order.
UI4 Walk(PCH1 rec, UI4 depth, std::vector<std::pair<UI4, UI4>>& out) {
  PORVANE p = (PORVANE)rec;
  UI4 rank = p->typerank >> 4;
  out.push_back({depth, p->eltype});
  UI4 at = ORVANE_HEADER + rank * 8;
  if (p->eltype != 6) return (UI4)((p->length - 1) * 8);
  UI4 n = 1;
  for (UI4 i = 0; i < rank; i++) n *= (UI4)p->shape[i];
  if (n == 0) n = 1;
  for (UI4 i = 0; i < n; i++) at += Walk(rec + at, depth + 1, out);
  return at;
}

std::vector<std::pair<UI4, UI4>> NormAndPack(PAA* pp, SI4* rc) {
  std::vector<std::pair<UI4, UI4>> types;
  *rc = NormResult(pp);
  if (*rc) return types;
  UI4 size = SizeAA(*pp);
  std::vector<char> block(size, 0);
  EXPECT_EQ(Pack(*pp, block.data()), size);
  EXPECT_EQ(Walk(block.data(), 0, types), size);
  return types;
}

TEST(VAConvTest, NormalFormThroughPack) {
  SetUnicode(true);
  UI4 five = 5;
  PAA apv = VANew(VAApvI4, 1, &five);
  SI4 ss[2] = {1, 1};
  memcpy(VADATA(apv), ss, 8);
  PAA mixedHet = VANewVector(VAHet, 3);
  VASetHetCell(mixedHet, 0, VAC1, "a", 1);
  SI4 n = 5;
  VASetHetCell(mixedHet, 1, VAI4, &n, 4);
  PAA xy = Text("xy");
  VASetHetCell(mixedHet, 2, VAPntr, &xy, sizeof(PAA));
  PAA shared = Vector<SI4>(VAI4, {9});
  VAIncRef(shared);
  PAA result = Nested({VAInt(0), mixedHet, apv, Nested({VAInt(1), F8Scalar(2.5)}),
                       shared, shared,
                       VANewVector(VAPntr, 0)});
  SI4 rc;
  auto types = NormAndPack(&result, &rc);
  ASSERT_EQ(rc, 0);
  std::vector<std::pair<UI4, UI4>> want = {
      {0, 6},
      {1, 4},                          // 0
      {1, 6}, {2, 7}, {2, 4}, {2, 7},  // het: 'a' 5 'xy'
      {1, 4},                          // progression made plain
      {1, 5},                          // 1 2.5
      {1, 4}, {1, 4},                  // the shared child twice
      {1, 6}, {2, 4},                  // empty nested: its prototype filled
  };
  EXPECT_EQ(types, want);
  EXPECT_EQ(VAType(VASlot(result, 2)), VAI4);
  SI4 v;
  EXPECT_EQ(VAGetSI4(VASlot(result, 2), 4, &v), 0);
  EXPECT_EQ(v, 5);
  EXPECT_EQ(VARefCount(shared), 2u);
  result = VAFree(result);

  // A 64-bit integer goes to the host as a float and can't be read as one;
  // a complex with an imaginary part neither. The result is released.
  PAA bad = Nested({VAInt(1), Nested({VANewScalar(VAI8), VAInt(2)})});
  NormAndPack(&bad, &rc);
  EXPECT_EQ(rc, ERR_APL_CONVERSION);
  EXPECT_EQ(bad, nullptr);
  UI4 one = 1;
  PAA cx = VANew(VA2F8, 1, &one);
  F8 imag = 1.0;
  memcpy((char*)VADATA(cx) + 8, &imag, 8);
  NormAndPack(&cx, &rc);
  EXPECT_EQ(rc, ERR_APL_CONVERSION);

  // Character scalars in pointers have no conversion to a text.
  PAA chars = Nested({CharScalar('o'), CharScalar('k')});
  NormAndPack(&chars, &rc);
  EXPECT_EQ(rc, ERR_APL_CONVERSION);

  // Booleans stay Boolean, boxed arrays can't go.
  PAA bits = Nested({VANewScalar(VABit), VANewScalar(VABit)});
  types = NormAndPack(&bits, &rc);
  want = {{0, 6}, {1, 1}, {1, 1}};
  EXPECT_EQ(types, want);
  bits = VAFree(bits);
  PAA boxed = VANewVector(VABoxd, 1);
  NormAndPack(&boxed, &rc);
  EXPECT_EQ(rc, ERR_APL_CONVERSION);
}

}  // namespace
