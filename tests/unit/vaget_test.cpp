// Element access: every getter against the types it serves and the codes
// for those it refuses, and the setters' targets.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>

#include "arraybuild.h"
#include "cdecf.h"
#include "orvanenaz.h"
#include "pelkoerr.h"
#include "vatrans.h"

using namespace testarrays;

namespace {

PAA HetVector(UI4 n) { return VANewVector(VAHet, n); }

void SetHet(PAA het, UI4 i, SI4 tag, const void* v, UI4 size) { VASetHetCell(het, i, tag, v, size); }

// Element i reads as the 32-bit integer want.
void ExpectSI4(PAA p, UI4 i, SI4 want) {
  SI4 v = 0;
  EXPECT_EQ(VAGetSI4(p, i, &v), 0) << i;
  EXPECT_EQ(v, want) << i;
}

// What element i of an array gives VAGetSI4 and VAGetF8: each one's code,
// and its value where the code is 0; kUnasked: VAGetF8 is not asked.
const SI4 kUnasked = -1;
struct NumberRead {
  const char* what;
  PAA p;
  UI4 i;
  SI4 rc4, v4, rc8;
  F8 v8;
};

TEST(VAGet, NumbersFromEveryTypeThroughPointersAndCells) {
  UI4 n = 10, two = 2;
  PAA bits = VANewVector(VABit, 10);
  ((UI1*)VADATA(bits))[1] = 0x40;  // element 9
  PAA apv = VANew(VAApvI4, 1, &n), fapv = VANew(VAApvF8, 1, &n), cx = VANew(VA2F8, 1, &two);
  SI4 ss[2] = {2147483647, 1};
  F8 fs[2] = {1.0, 0.5}, cv[4] = {2.0, 1.0, 3.0, 0.0};
  memcpy(VADATA(apv), ss, 8);
  memcpy(VADATA(fapv), fs, 16);
  memcpy(VADATA(cx), cv, 32);
  PAA f = Vector<F8>(VAF8, {2.5, 2.0, 3000000000.0, NAN, INFINITY, -0.0});
  PAA i1 = Vector<SI1>(VAI1, {-5, 7}), i2 = Vector<SI2>(VAI2, {-300});
  PAA nest = Nested({Vector<SI4>(VAI4, {42}), Vector<SI4>(VAI4, {1, 2}), VANewVector(VAI4, 0),
                     VANewVector(VAPntr, 0), nullptr});
  PAA het = HetVector(7), child = Vector<SI4>(VAI4, {11});
  UI1 bit = 0x80;
  SI1 b = -3;
  SI2 s2 = 1000;
  F8 four = 4.0, fourAndAHalf = 4.5;
  SetHet(het, 0, VABit, &bit, 1);
  SetHet(het, 1, VAI1, &b, 1);
  SetHet(het, 2, VAI2, &s2, 2);
  SetHet(het, 3, VAF8, &four, 8);
  SetHet(het, 4, VAF8, &fourAndAHalf, 8);
  SetHet(het, 5, VAPntr, &child, sizeof(PAA));
  SetHet(het, 6, VAC1, "z", 1);
  const SI4 dom = ERR_APL_DOMAIN, idx = ERR_APL_INDEX;
  const NumberRead reads[] = {
      {"a bit", bits, 9, 0, 1, 0, 1.0},
      {"a bit", bits, 8, 0, 0, 0, 0.0},
      {"past the end", bits, 10, ERR_APL_LENGTH, 0, kUnasked, 0},
      {"1-byte", i1, 0, 0, -5, 0, -5.0},
      {"2-byte", i2, 0, 0, -300, 0, -300.0},
      {"a progression wraps in 32 bits", apv, 1, 0, INT32_MIN, kUnasked, 0},
      {"a fraction", f, 0, dom, 0, 0, 2.5},
      {"a whole double", f, 1, 0, 2, 0, 2.0},
      {"64-bit bounds, 32-bit store", f, 2, 0, INT32_MIN, kUnasked, 0},
      {"not a number", f, 3, dom, 0, kUnasked, 0},
      {"infinity", f, 4, dom, 0, kUnasked, 0},
      {"minus zero", f, 5, 0, 0, kUnasked, 0},
      {"a float progression", fapv, 2, 0, 2, 0, 2.0},
      {"a float progression", fapv, 1, dom, 0, 0, 1.5},
      {"a float progression", fapv, 3, dom, 0, 0, 2.5},
      {"a complex number", cx, 0, dom, 0, dom, 0},
      {"a real complex number", cx, 1, 0, 3, 0, 3.0},
      {"an enclosed scalar", nest, 0, 0, 42, 0, 42.0},
      {"an enclosed vector", nest, 1, idx, 0, idx, 0},
      {"an empty vector", nest, 2, idx, 0, kUnasked, 0},
      // An empty nested child passes the one-element test; its null
      // prototype then has nothing to give.
      {"an empty nested child", nest, 3, idx, 0, kUnasked, 0},
      {"a null child", nest, 4, idx, 0, kUnasked, 0},
      {"a bit cell", het, 0, 0, 1, 0, 1.0},
      {"a 1-byte cell", het, 1, 0, -3, 0, -3.0},
      {"a 2-byte cell", het, 2, 0, 1000, 0, 1000.0},
      {"a whole double cell", het, 3, 0, 4, 0, 4.0},
      {"a fraction cell", het, 4, dom, 0, 0, 4.5},
      {"a pointer cell", het, 5, 0, 11, kUnasked, 0},
      {"a character cell", het, 6, dom, 0, dom, 0},
  };
  for (const NumberRead& r : reads) {
    SCOPED_TRACE(std::string(r.what) + " at " + std::to_string(r.i));
    SI4 v = 99;
    F8 d = 99;
    EXPECT_EQ(VAGetSI4(r.p, r.i, &v), r.rc4);
    EXPECT_EQ(v, r.v4);  // cleared on failure
    if (r.rc8 == kUnasked) continue;
    EXPECT_EQ(VAGetF8(r.p, r.i, &d), r.rc8);
    if (!r.rc8) {
      EXPECT_EQ(d, r.v8);
    }
  }
  for (PAA p : {bits, apv, fapv, cx, f, i1, i2, nest, het}) VAFree(p);
  for (VATYPES t : {VAC1, VAC2, VAC4, VAI8, VABoxd}) {
    SI4 v;
    F8 d;
    PAA p = VANewVector(t, 1);
    EXPECT_EQ(VAGetSI4(p, 0, &v), ERR_APL_DOMAIN) << t;
    EXPECT_EQ(VAGetF8(p, 0, &d), ERR_APL_DOMAIN) << t;
    VAFree(p);
  }
}

TEST(VAGet, LenAndText) {
  PAA i = VAInt(123), f = F8Scalar(1.5), abc = Text("abc"), empty = Text("");
  UI4 shape[2] = {2, 2};
  PAA mat = VANew(VAC1, 2, shape);
  PAA nest = Nested({Text("hello"), Vector<SI4>(VAI4, {1, 2}), VAInt(-7)});
  PAA het = HetVector(3);
  SetHet(het, 0, VAC1, "q", 1);
  SI4 n = 5;
  SetHet(het, 1, VAI4, &n, 4);
  PAA sub = Text("sub");
  SetHet(het, 2, VAPntr, &sub, sizeof(PAA));
  PAA bid = VANewVector(VABid, 1);
  SI4Tobid(-17, (F16*)VADATA(bid));
  // The room VAGetLen asks for, then the text read into exactly that room;
  // where that room is tight, one byte less is refused, not overrun. A
  // refused measure is refused by the reader too.
  struct Case {
    PAA p;
    UI4 i;
    SI4 tr;
    SI4 rc;
    UI4 len;
    const char* text;
  } cases[] = {
      {i, 0, 1, 0, 4, "123"},          {i, 0, 0, ERR_APL_DOMAIN, 0, ""},
      {f, 0, 1, 0, 3, nullptr},        // no room counted for the terminator
      {f, 0, 0, ERR_APL_DOMAIN, 0, ""},
      {abc, 0, 0, 0, 3, "abc"},        {abc, 0, 1, 0, 4, "abc"},
      {abc, 1, 1, ERR_APL_DOMAIN, 0, ""},
      {mat, 0, 1, ERR_APL_RANK, 0, ""},
      {empty, 0, 1, 0, 1, ""},         // element 0 although its count is 0
      {nest, 0, 1, 0, 6, "hello"},     {nest, 1, 1, ERR_APL_LENGTH, 0, ""},
      {nest, 2, 1, 0, 3, "-7"},        {nest, 3, 1, ERR_APL_LENGTH, 0, ""},
      {het, 0, 1, 0, 2, "q"},          {het, 0, 0, 0, 1, "q"},
      {het, 1, 1, 0, 30, "5"},         {het, 1, 0, ERR_APL_DOMAIN, 0, ""},
      {het, 2, 1, 0, 4, "sub"},
      {bid, 0, 1, 0, 42, "-17E+0"},    {bid, 0, 0, ERR_APL_DOMAIN, 0, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::to_string(VAType(c.p)) + " " + std::to_string(c.i) + " " + std::to_string(c.tr));
    UI4 len = 0;
    char buf[64];
    memset(buf, 'x', sizeof(buf));
    EXPECT_EQ(VAGetLen(c.p, c.i, &len, c.tr), c.rc);
    if (c.rc) {
      EXPECT_EQ(VAGetCH1(c.p, c.i, buf, sizeof(buf), c.tr), c.rc);
      continue;
    }
    EXPECT_EQ(len, c.len);
    if (!c.text) continue;
    EXPECT_EQ(VAGetCH1(c.p, c.i, buf, len, c.tr), 0);
    if (c.tr) {
      EXPECT_STREQ(buf, c.text);
      if (strlen(c.text) + 1 == len) {
        EXPECT_EQ(VAGetCH1(c.p, c.i, buf, len - 1, c.tr), ERR_APL_LENGTH);
      }
    } else {
      EXPECT_EQ(std::string(buf, len + 1), std::string(c.text) + "x");  // unterminated
    }
  }
  char buf[8];
  EXPECT_EQ(VAGetCH1(f, 0, buf, sizeof(buf), 1), 0);
  EXPECT_STREQ(buf, "1.5");
  PCH1 m;
  EXPECT_EQ(VAGetCH1m(f, 0, &m, 1), 0);
  EXPECT_STREQ(m, "1.5");
  free(m);
  EXPECT_EQ(VAGetCH1m(f, 0, &m, 0), ERR_APL_DOMAIN);
  EXPECT_EQ(m, nullptr);
  for (PAA p : {i, f, abc, empty, mat, nest, het, bid}) VAFree(p);
}

TEST(VAGet, Bytes) {
  UI1 out[4] = {0, 0, 0, 0};
  UI4 len = 0;
  PAA i2 = Vector<SI2>(VAI2, {255, -128, 256});
  EXPECT_EQ(VAGetBytes(i2, nullptr, &len), 0);
  EXPECT_EQ(len, 3u);
  len = 2;
  EXPECT_EQ(VAGetBytes(i2, out, &len), ERR_LENGTH);
  len = 3;
  EXPECT_EQ(VAGetBytes(i2, out, &len), ERR_DOMAIN);
  EXPECT_EQ(out[0], 0xFF);  // stored before the bad one
  EXPECT_EQ(out[1], 0x80);
  i2 = VAFree(i2);

  PAA c = Text("ab");
  len = 4;
  EXPECT_EQ(VAGetBytes(c, out, &len), 0);
  EXPECT_EQ(out[0], 'a');
  EXPECT_EQ(len, 4u);  // the caller knows the size
  c = VAFree(c);

  PAA i4 = Vector<SI4>(VAI4, {1});
  EXPECT_EQ(VAGetBytes(i4, out, &len), ERR_DOMAIN);
  i4 = VAFree(i4);
}

TEST(VAGet, Unicode) {
  SetUnicode(true);
  UI4 len = 7;
  char buf[32];
  PAA c4 = VANewVector(VAC4, 2);
  UI4 cps[2] = {0x20AC, 0x41};
  memcpy(VADATA(c4), cps, 8);
  EXPECT_EQ(VAGetUnicodeLen(c4, 0, &len, UTF8, 1), 0);
  EXPECT_EQ(len, 5u);
  EXPECT_EQ(VAGetUnicode(c4, 0, buf, sizeof(buf), UTF8, 1), 0);
  EXPECT_STREQ(buf, "\xE2\x82\xAC" "A");
  EXPECT_EQ(VAGetUnicode(c4, 1, buf, sizeof(buf), UTF8, 1), ERR_APL_DOMAIN);
  // The euro sign doesn't fit one byte.
  EXPECT_EQ(VAGetUnicode(c4, 0, buf, sizeof(buf), UCS1, 1), ERR_APL_DOMAIN);
  PAA nest = Nested({c4, VAInt(12), Vector<SI4>(VAI4, {1, 2})});
  EXPECT_EQ(VAGetUnicodeLen(nest, 0, &len, UCS2, 0), 0);
  EXPECT_EQ(len, 4u);
  EXPECT_EQ(VAGetUnicodeLen(nest, 1, &len, UTF16, 1), 0);
  EXPECT_EQ(len, 6u);  // "12" through its narrow text
  EXPECT_EQ(VAGetUnicode(nest, 1, buf, sizeof(buf), UTF16, 1), 0);
  EXPECT_EQ(memcmp(buf, "1\0" "2\0\0", 6), 0);
  EXPECT_EQ(VAGetUnicodeLen(nest, 2, &len, UTF8, 1), ERR_APL_LENGTH);
  EXPECT_EQ(len, 0u);
  nest = VAFree(nest);

  PAA het = HetVector(2);
  SI4 n = 77;
  SetHet(het, 0, VAI4, &n, 4);
  SetHet(het, 1, VAC1, "k", 1);
  EXPECT_EQ(VAGetUnicodeLen(het, 0, &len, UCS4, 1), 0);
  EXPECT_EQ(len, 2u);
  // Narrow text, whatever encoding was asked for.
  EXPECT_EQ(VAGetUnicode(het, 0, buf, sizeof(buf), UCS4, 1), 0);
  EXPECT_STREQ(buf, "77");
  EXPECT_EQ(VAGetUnicode(het, 1, buf, sizeof(buf), UCS4, 1), 0);
  EXPECT_STREQ(buf, "k");
  het = VAFree(het);

  // Classic hosts read one-byte characters through the classic table.
  SetUnicode(false);
  PAA av = VANewVector(VAC1, 2);
  ((UI1*)VADATA(av))[0] = 17;  // 'a' in the classic order
  ((UI1*)VADATA(av))[1] = 14;  // U+237A
  EXPECT_EQ(VAGetUnicode(av, 0, buf, sizeof(buf), UTF8, 1), 0);
  EXPECT_STREQ(buf, "a\xE2\x8D\xBA");
  av = VAFree(av);
  SetUnicode(true);
}

TEST(VAGet, PAA) {
  PAA out = (PAA)1;
  PAA v = Vector<SI4>(VAI4, {3, 4});
  EXPECT_EQ(VAGetpAA(v, 1, &out), 0);
  EXPECT_EQ(VAType(out), VAI4);
  EXPECT_EQ(VARank(out), 0);
  EXPECT_EQ(VARefCount(out), 1u);
  SI4 x;
  VAGetSI4(out, 0, &x);
  EXPECT_EQ(x, 4);
  out = VAFree(out);
  EXPECT_EQ(VAGetpAA(v, 2, &out), ERR_APL_LENGTH);
  EXPECT_EQ(out, nullptr);
  v = VAFree(v);

  PAA child = Text("x");
  PAA nest = Nested({child, nullptr});
  EXPECT_EQ(VAGetpAA(nest, 0, &out), 0);
  EXPECT_EQ(out, child);
  EXPECT_EQ(VARefCount(child), 2u);
  out = VAFree(out);
  EXPECT_EQ(VAGetpAA(nest, 1, &out), ERR_APL_VALUE);
  nest = VAFree(nest);

  PAA f = Vector<F8>(VAF8, {0.25});
  EXPECT_EQ(VAGetpAA(f, 0, &out), 0);
  EXPECT_EQ(VAType(out), VAF8);
  out = VAFree(out);
  f = VAFree(f);

  PAA het = HetVector(1);
  SetHet(het, 0, VAC1, "c", 1);
  EXPECT_EQ(VAGetpAA(het, 0, &out), 0);
  EXPECT_EQ(VAType(out), VAC1);
  EXPECT_EQ(*(char*)VADATA(out), 'c');
  out = VAFree(out);
  het = VAFree(het);

  PAA text = Text("ab");
  EXPECT_EQ(VAGetpAA(text, 0, &out), ERR_APL_DOMAIN);
  text = VAFree(text);
}

TEST(VASet, Numbers) {
  PAA i4 = VANewVector(VAI4, 1);
  EXPECT_EQ(VASetSI4(i4, 0, -9), 0);
  EXPECT_EQ(At<SI4>(i4, 0), -9);
  EXPECT_EQ(VASetSI4(i4, 1, 0), ERR_APL_LENGTH);
  EXPECT_EQ(VASetF8(i4, 0, 1.0), ERR_APL_DOMAIN);
  i4 = VAFree(i4);

  for (VATYPES t : {VABit, VAI1, VAI2, VAC1, VAI8}) {
    PAA p = VANewVector(t, 1);
    EXPECT_EQ(VASetSI4(p, 0, 1), ERR_APL_DOMAIN) << t;
    VAFree(p);
  }

  PAA f = VANewVector(VAF8, 1);
  EXPECT_EQ(VASetSI4(f, 0, 5), 0);
  EXPECT_EQ(At<F8>(f, 0), 5.0);
  EXPECT_EQ(VASetF8(f, 0, 0.5), 0);
  EXPECT_EQ(At<F8>(f, 0), 0.5);
  f = VAFree(f);

  PAA cx = VANewVector(VA2F8, 1);
  F8 imag = 9.0;
  memcpy((char*)VADATA(cx) + 8, &imag, 8);
  EXPECT_EQ(VASetF8(cx, 0, 1.5), 0);
  EXPECT_EQ(At<F8>(cx, 0), 1.5);
  EXPECT_EQ(At<F8>(cx, 1), 0.0);
  cx = VAFree(cx);

  // An empty nested array's prototype is a slot like any other.
  PAA empty = VANewVector(VAPntr, 0);
  EXPECT_EQ(VASetSI4(empty, 0, 8), 0);
  SI4 v;
  ExpectSI4(empty, 0, 8);
  empty = VAFree(empty);

  // Cells take the tag of what is stored; decimals hold both exactly.
  for (VATYPES t : {VAHet, VADpd, VABid}) {
    PAA p = VANewVector(t, 2);
    EXPECT_EQ(VASetSI4(p, 0, 12), 0);
    EXPECT_EQ(VASetF8(p, 1, 0.75), 0);
    if (t == VAHet) {
      EXPECT_EQ(VAHetType(p, 0), VAI4);
      EXPECT_EQ(VAHetType(p, 1), VAF8);
    }
    F8 d;
    ExpectSI4(p, 0, 12);
    EXPECT_EQ(VAGetSI4(p, 1, &v), ERR_APL_DOMAIN) << t;
    EXPECT_EQ(VAGetF8(p, 1, &d), 0);
    EXPECT_EQ(d, 0.75);
    VAFree(p);
  }
}

TEST(VASet, TextAndChildren) {
  PAA c = VANewVector(VAC1, 5);
  EXPECT_EQ(VASetCH1(c, 0, (PCH1) "ab", 2, 0), 0);
  EXPECT_EQ(Str(c), "ab   ");
  EXPECT_EQ(VASetCH1(c, 0, (PCH1) "abcdef", 6, 0), ERR_APL_LENGTH);
  EXPECT_EQ(VASetCH1(c, 1, (PCH1) "a", 1, 0), ERR_APL_DOMAIN);
  c = VAFree(c);

  PAA nest = VANewVector(VAPntr, 2);
  EXPECT_EQ(VASetCH1(nest, 0, (PCH1) "", 0, 1), 0);
  PAA slot = VASlot(nest, 0);
  EXPECT_EQ(VARank(slot), 1);
  EXPECT_EQ(VAElems(slot), 0u);
  EXPECT_EQ(VASetCH1(nest, 2, (PCH1) "x", 1, 1), ERR_APL_LENGTH);
  EXPECT_EQ(VASetUnicode(nest, 1, (PCH1) "\xE2\x82\xAC", VAZEROTERM, UTF8), 0);
  slot = VASlot(nest, 1);
  EXPECT_EQ(VAType(slot), VAC2);
  EXPECT_EQ(VAElems(slot), 1u);
  EXPECT_EQ(At<UI2>(slot, 0), 0x20AC);
  nest = VAFree(nest);

  PAA het = VANewVector(VAHet, 1);
  EXPECT_EQ(VASetCH1(het, 0, (PCH1) "hi", 2, 0), 0);
  EXPECT_EQ(VAHetType(het, 0), VAPntr);
  EXPECT_EQ(Str(VAHetChild(het, 0)), "hi");
  het = VAFree(het);

  PAA i4 = VANewVector(VAI4, 1);
  EXPECT_EQ(VASetCH1(i4, 0, (PCH1) "x", 1, 0), ERR_APL_DOMAIN);
  EXPECT_EQ(VASetUnicode(i4, 0, (PCH1) "x", 1, UTF8), ERR_APL_DOMAIN);
  EXPECT_EQ(VASetpAA(i4, 0, nullptr), ERR_APL_DOMAIN);
  i4 = VAFree(i4);

  PAA c2 = VANewVector(VAC2, 3);
  EXPECT_EQ(VASetUnicode(c2, 0, (PCH1) "a\xC3\xA9", 3, UTF8), 0);
  EXPECT_EQ(At<UI2>(c2, 1), 0xE9);
  EXPECT_EQ(At<UI2>(c2, 2), 0);
  EXPECT_EQ(VASetUnicode(c2, 1, (PCH1) "a", 1, UTF8), ERR_APL_DOMAIN);
  c2 = VAFree(c2);

  // The slot takes over the reference it is given.
  PAA child = Text("own");
  PAA holder = VANewVector(VAPntr, 1);
  EXPECT_EQ(VASetpAA(holder, 0, child), 0);
  EXPECT_EQ(VARefCount(child), 1u);
  EXPECT_EQ(VASetpAA(holder, 1, child), ERR_APL_LENGTH);
  holder = VAFree(holder);
}

TEST(VASet, TranslatesText) {
  char up[256], down[256];
  for (int i = 0; i < 256; i++) up[i] = down[i] = (char)i;
  up['a'] = 'A';      // host to ASCII
  down['b'] = 'B';    // ASCII to host
  SetChar2asc(up);
  SetChar2av(down);
  PAA c = VANewVector(VAC1, 3);
  EXPECT_EQ(VASetCH1(c, 0, (PCH1) "ba", 2, 1), 0);
  EXPECT_EQ(Str(c), "Ba ");
  EXPECT_EQ(VASetCH1(c, 0, (PCH1) "ba", 2, 0), 0);
  EXPECT_EQ(Str(c), "ba ");
  char buf[8];
  EXPECT_EQ(VAGetCH1(c, 0, buf, sizeof(buf), 1), 0);
  EXPECT_STREQ(buf, "bA ");
  EXPECT_EQ(VAGetCH1(c, 0, buf, 3, 0), 0);
  EXPECT_EQ(std::string(buf, 3), "ba ");
  c = VAFree(c);
  ClrChar2asc();
  ClrChar2av();
}

}  // namespace

// A verb called without a right argument hands its readers a null array:
// every reader says so with a code instead of following the null.
TEST(VAGet, AbsentArrayIsAValueError) {
  SI4 i;
  F8 d;
  UI4 n = 5;
  char buf[8];
  PCH1 text = buf;
  PAA child = nullptr;
  EXPECT_EQ(VAGetSI4(nullptr, 0, &i), ERR_APL_VALUE);
  EXPECT_EQ(VAGetF8(nullptr, 0, &d), ERR_APL_VALUE);
  EXPECT_EQ(VAGetLen(nullptr, 0, &n, VACHAR), ERR_APL_VALUE);
  EXPECT_EQ(VAGetCH1(nullptr, 0, buf, sizeof buf, VACHAR), ERR_APL_VALUE);
  EXPECT_EQ(VAGetCH1m(nullptr, 0, &text, VACHAR), ERR_APL_VALUE);
  EXPECT_EQ(text, nullptr);
  EXPECT_EQ(VAGetBytes(nullptr, nullptr, &n), ERR_APL_VALUE);
  EXPECT_EQ(VAGetUnicodeLen(nullptr, 0, &n, UTF8, 1), ERR_APL_VALUE);
  EXPECT_EQ(VAGetUnicode(nullptr, 0, buf, sizeof buf, UTF8, 1), ERR_APL_VALUE);
  EXPECT_EQ(VAGetpAA(nullptr, 0, &child), ERR_APL_VALUE);
  EXPECT_EQ(child, nullptr);
}
