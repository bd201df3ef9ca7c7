// Decimal128 in both encodings against integers, doubles and text.
#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <string>

#include "cdecf.h"

namespace {

TEST(Decimal, IntegersRoundTrip) {
  EXPECT_EQ(MaxDecfStrLen(), 42u);
  for (SI4 v : {0, -1, 1, 123456789, INT_MAX, INT_MIN}) {
    F16 d, b;
    SI4 back = 7;
    EXPECT_EQ(SI4Todpd(v, &d), 0);
    EXPECT_EQ(dpdToSI4(&d, &back), 0);
    EXPECT_EQ(back, v);
    EXPECT_EQ(SI4Tobid(v, &b), 0);
    EXPECT_EQ(bidToSI4(&b, &back), 0);
    EXPECT_EQ(back, v);
    F8 f;
    EXPECT_EQ(dpdToF8(&d, &f), 0);
    EXPECT_EQ(f, (F8)v);
  }
  // The two encodings differ on the wire: -7 in DPD has the sign and a
  // biased exponent of 6176 on top, and the digit below.
  F16 d;
  SI4Todpd(-7, &d);
  UI8 hi, lo;
  memcpy(&lo, d.b, 8);
  memcpy(&hi, d.b + 8, 8);
  EXPECT_EQ(hi, 0xA208000000000000ull);
  EXPECT_EQ(lo, 7ull);
  F16 b;
  SI4Tobid(-7, &b);
  memcpy(&hi, b.b + 8, 8);
  EXPECT_EQ(hi, 0xB040000000000000ull);
}

TEST(Decimal, DoublesAndText) {
  F16 b, d;
  F8 back = 0;
  EXPECT_EQ(F8Tobid(0.5, &b), 0);
  EXPECT_EQ(bidToF8(&b, &back), 0);
  EXPECT_EQ(back, 0.5);
  EXPECT_EQ(F8Todpd(-2.25, &d), 0);
  EXPECT_EQ(dpdToF8(&d, &back), 0);
  EXPECT_EQ(back, -2.25);
  char text[64];
  EXPECT_EQ(bidToCH1(&b, text, sizeof(text)), 0);
  EXPECT_STREQ(text, "+5E-1");
  EXPECT_EQ(dpdToCH1(&d, text, sizeof(text)), 0);
  EXPECT_STREQ(text, "-225E-2");
  // Truncation toward zero.
  SI4 i;
  EXPECT_EQ(dpdToSI4(&d, &i), 0);
  EXPECT_EQ(i, -2);
  // The widest text fits the stated room; a short buffer is cut, not overrun.
  F8Tobid(-1.2345678901234567e-300, &b);
  EXPECT_EQ(bidToCH1(&b, text, sizeof(text)), 0);
  EXPECT_LT(strlen(text), 42u);
  char small[6];
  memset(small, 'x', sizeof(small));
  EXPECT_EQ(bidToCH1(&b, small, 4), 0);
  EXPECT_EQ(std::string(small, 6), std::string("-12\0xx", 6));
}

}  // namespace
