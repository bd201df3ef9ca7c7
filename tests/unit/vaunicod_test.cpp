// Text encodings: single code points, every encoding pair, and the bad
// inputs (overlong, truncated, surrogates, unrepresentable).
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "pelkoerr.h"
#include "vapl.h"
#include "vaunicod.h"

namespace {

typedef std::vector<UI1> Bytes;

Bytes Encode(UNICODETYPES t, const std::vector<UI4>& cps) {
  Bytes out(cps.size() * 4 + 4);
  UI4 at = 0;
  for (UI4 c : cps) {
    SI4 n = PutUnicodeC(t, out.data(), (UI4)out.size(), at, &c);
    EXPECT_GT(n, 0) << t << " " << c;
    at += (UI4)n;
  }
  out.resize(at);
  return out;
}

Bytes Convert(UNICODETYPES to, UNICODETYPES from, const Bytes& in, SI2 term, SI4* rc) {
  UI4 len = 0;
  *rc = ConvUnicodeM(to, nullptr, &len, from, (UI1*)in.data(), (UI4)in.size(), term);
  if (*rc) return {};
  Bytes out(len);
  *rc = ConvUnicode(to, out.data(), len, from, (UI1*)in.data(), (UI4)in.size(), term);
  return out;
}

// The classic table places every printable ASCII character, each code
// point once.
TEST(Unicode, Tables) {
  std::vector<UI4> seen(AVU, AVU + 256);
  std::sort(seen.begin(), seen.end());
  EXPECT_EQ(std::unique(seen.begin(), seen.end()), seen.end());
  for (UI4 c = 0x20; c < 0x7F; c++) EXPECT_TRUE(std::binary_search(seen.begin(), seen.end(), c)) << c;
}

TEST(Unicode, ReadOne) {
  const UI2 pair[3] = {0xD83D, 0xDE00, 0}, lone[1] = {0xDC00};
  const struct {
    const char* what;
    UNICODETYPES t;
    std::string bytes;
    SI4 rc;
    UI4 c;
  } cases[] = {
      {"overlong", UTF8, "\xC0\x80", -1, 0},
      {"past U+10FFFF", UTF8, "\xF4\x90\x80\x80", 4, 0x110000},
      {"three bytes", UTF8, "\xE2\x82\xAC", 3, 0x20AC},
      {"cut short by the end", UTF8, "\xE2\x82", -1, 0},
      {"cut short by a byte that doesn't continue", UTF8, "\xE2\x41\xAC", -1, 0},
      {"six bytes", UTF8, "\xFC\x84\x80\x80\x80\x80", 6, 0x4000000},
      {"a stray continuation", UTF8, "\x80", -1, 0},
      {"two bytes", UCS2, "\x34\x12", 2, 0x1234},
      {"one of two bytes", UCS2, "\x34", -1, 0},
      {"the classic set", C1AV, "\x11", 1, 'a'},
      // A pair is combined only when more than its 4 bytes remain.
      {"a pair", UTF16, std::string((const char*)pair, 6), 4, 0x1F600},
      {"a pair at the end", UTF16, std::string((const char*)pair, 4), 2, 0xD83D},
      {"a lone low surrogate", UTF16, std::string((const char*)lone, 2), 2, 0xDC00},
  };
  for (const auto& k : cases) {
    SCOPED_TRACE(k.what);
    UI4 c = 99;
    EXPECT_EQ(GetUnicodeC(k.t, (UI1*)k.bytes.data(), (UI4)k.bytes.size(), 0, &c), k.rc);
    if (k.rc > 0 || k.c == 0) {
      EXPECT_EQ(c, k.c);
    }
  }
}

TEST(Unicode, WriteOne) {
  UI1 buf[8] = {0};
  UI4 c = 0x10000;
  EXPECT_EQ(PutUnicodeC(UTF16, buf, 8, 0, &c), 4);
  UI2 units[2];
  memcpy(units, buf, 4);
  EXPECT_EQ(units[0], 0xD800);
  EXPECT_EQ(units[1], 0xDC00);
  // Only two bytes of room: refused rather than overrun.
  EXPECT_EQ(PutUnicodeC(UTF16, buf, 2, 0, &c), -1);
  c = 0x4E00;  // not in the classic set
  buf[0] = 9;
  EXPECT_EQ(PutUnicodeC(C1AV, buf, 8, 0, &c), -2);
  EXPECT_EQ(buf[0], 0);
  EXPECT_EQ(PutUnicodeC(C1AV, nullptr, 0, 0, &c), -2);
  c = 256;
  EXPECT_EQ(PutUnicodeC(UCS1, buf, 8, 0, &c), -2);
  c = 0x10000;
  EXPECT_EQ(PutUnicodeC(UCS2, buf, 8, 0, &c), -2);
  c = 0x20AC;
  EXPECT_EQ(PutUnicodeC(UTF8, nullptr, 0, 0, &c), 3);
  EXPECT_EQ(PutUnicodeC(UTF8, buf, 2, 0, &c), -1);
  EXPECT_EQ(PutUnicodeC(UTF8, buf, 8, 5, &c), 3);
  EXPECT_EQ(memcmp(buf + 5, "\xE2\x82\xAC", 3), 0);
  c = 0x80000000u;
  EXPECT_EQ(PutUnicodeC(UTF8, nullptr, 0, 0, &c), -1);
}

TEST(Unicode, EveryPairRoundTrips) {
  // Text that every encoding holds, and text that needs the wide ones.
  std::vector<UI4> narrow = {'a', 'Z', ' ', 0xC1};
  std::vector<UI4> wide = {'a', 0xE9, 0x20AC, 0x1F600, 0xFFFD};
  UNICODETYPES all[] = {C1AV, UCS1, UCS2, UCS4, UTF8, UTF16};
  for (UNICODETYPES from : all) {
    for (UNICODETYPES to : all) {
      Bytes in = Encode(from, narrow);
      SI4 rc;
      Bytes out = Convert(to, from, in, 0, &rc);
      ASSERT_EQ(rc, 0) << from << "->" << to;
      EXPECT_EQ(out, Encode(to, narrow)) << from << "->" << to;
    }
  }
  for (UNICODETYPES from : {UCS4, UTF8, UTF16}) {
    for (UNICODETYPES to : {UCS4, UTF8, UTF16}) {
      SI4 rc;
      Bytes out = Convert(to, from, Encode(from, wide), 1, &rc);
      ASSERT_EQ(rc, 0);
      Bytes want = Encode(to, wide);
      want.resize(want.size() + MinUSize[to], 0);  // terminator
      EXPECT_EQ(out, want) << from << "->" << to;
    }
  }
}

TEST(Unicode, ConversionEdges) {
  UI4 len = 0;
  EXPECT_EQ(ConvUnicodeM(UCS2, nullptr, &len, UTF8, (UI1*)"ab", 2, 1), 0);
  EXPECT_EQ(len, 6u);
  EXPECT_EQ(ConvUnicodeM(UCS2, nullptr, &len, UTF8, (UI1*)"ab", 2, 0), 0);
  EXPECT_EQ(len, 4u);
  // A zero ends the text; a bad sequence or cut tail ends it quietly.
  EXPECT_EQ(ConvUnicodeM(UTF8, nullptr, &len, UTF8, (UI1*)"ab\0cd", 5, 0), 0);
  EXPECT_EQ(len, 2u);
  EXPECT_EQ(ConvUnicodeM(UTF8, nullptr, &len, UTF8, (UI1*)"ab\xC0\x80z", 5, 0), 0);
  EXPECT_EQ(len, 2u);
  EXPECT_EQ(ConvUnicodeM(UTF8, nullptr, &len, UTF8, (UI1*)"ab\xE2\x82", 4, 0), 0);
  EXPECT_EQ(len, 2u);
  EXPECT_EQ(ConvUnicodeM(UCS4, nullptr, &len, UTF8, (UI1*)"a\xF4\x90\x80\x80", 5, 0), ERR_UTF8);
  EXPECT_EQ(len, 4u);
  // A lone low surrogate goes to UTF-8 as three bytes.
  UI2 lone[1] = {0xDC00};
  UI1 out[8] = {0};
  EXPECT_EQ(ConvUnicode(UTF8, out, 8, UTF16, (UI1*)lone, 2, 0), 0);
  EXPECT_EQ(memcmp(out, "\xED\xB0\x80", 3), 0);
  // A pair that is the text's last 4 bytes comes out as two halves.
  UI2 pair[2] = {0xD83D, 0xDE00};
  EXPECT_EQ(ConvUnicodeM(UCS4, nullptr, &len, UTF16, (UI1*)pair, 4, 0), 0);
  EXPECT_EQ(len, 8u);
  // Unrepresentable characters stop the conversion with a code.
  EXPECT_EQ(ConvUnicode(UCS1, out, 8, UTF8, (UI1*)"a\xE2\x82\xAC", 4, 0), ERR_APL_DOMAIN);
  EXPECT_EQ(ConvUnicode(C1AV, out, 8, UTF8, (UI1*)"\xE4\xB8\x80", 3, 0), ERR_APL_DOMAIN);
  // No room for the terminator, or for a character.
  EXPECT_EQ(ConvUnicode(UCS1, out, 2, UTF8, (UI1*)"ab", 2, 1), ERR_APL_LENGTH);
  EXPECT_EQ(ConvUnicode(UTF8, out, 2, UCS4, (UI1*)"\xAC\x20\x00\x00", 4, 0), ERR_APL_LENGTH);
  // Without a terminator a short target just takes what fits.
  memset(out, '-', sizeof(out));
  EXPECT_EQ(ConvUnicode(UCS1, out, 2, UTF8, (UI1*)"abc", 3, 0), 0);
  EXPECT_EQ(memcmp(out, "ab-", 3), 0);
}

TEST(Unicode, Measures) {
  UI1 size = 0;
  EXPECT_EQ(ToVAPL((UI1*)"\xC3\xA9", 2, UTF8, &size), 1u);
  EXPECT_EQ(size, 1);
  EXPECT_EQ(ToVAPL((UI1*)"\xE2\x82\xAC", 3, UTF8, &size), 1u);
  EXPECT_EQ(size, 2);
  EXPECT_EQ(ToVAPL((UI1*)"\xF0\x9F\x98\x80", 4, UTF8, &size), 1u);
  EXPECT_EQ(size, 4);
  EXPECT_EQ(ToVAPL((UI1*)"ab\0cd", 5, UTF8, &size), 2u);
  UI2 u16[3] = {'x', 0xD83D, 0xDE00};
  EXPECT_EQ(ToVAPL((UI1*)u16, 6, UTF16, &size), 2u);
  EXPECT_EQ(size, 4);
  EXPECT_EQ(ToVAPL((UI1*)u16, 6, UCS2, &size), 6u);  // the byte length
  EXPECT_EQ(size, 2);

  EXPECT_EQ(ZeroLength((UI1*)"", UTF8), 0);
  EXPECT_EQ(ZeroLength((UI1*)"abc", C1AV), 3);
  UI2 w[3] = {1, 2, 0};
  EXPECT_EQ(ZeroLength((UI1*)w, UTF16), 2);
  UI4 q[2] = {5, 0};
  EXPECT_EQ(ZeroLength((UI1*)q, UCS4), 1);

  EXPECT_EQ(utf8_lenStrict((UI1*)"\x80", 1, &size), 0u);
  EXPECT_EQ(size, 1);
  EXPECT_EQ(utf8_lenStrict((UI1*)"\x80\x41", 2, &size), (UI8)-1);
  EXPECT_EQ(utf8_lenStrict((UI1*)"a\xE2\x82\xAC!", 5, &size), 2u + 1u);
  EXPECT_EQ(size, 2);
  // A sequence ending on the last byte is refused; one cut by a zero isn't.
  EXPECT_EQ(utf8_lenStrict((UI1*)"a\xC3\xA9", 3, &size), (UI8)-1);
  EXPECT_EQ(utf8_lenStrict((UI1*)"a\xC3\0\0", 4, &size), 2u);
  EXPECT_EQ(utf8_lenStrict((UI1*)"\xC3\x41..", 4, &size), (UI8)-1);  // cut by a lead byte
  EXPECT_EQ(utf8_lenStrict((UI1*)"\xC3\xC3\xA9.", 4, &size), (UI8)-1);
  EXPECT_EQ(utf8_lenStrict((UI1*)"\xC0\x80..", 4, &size), (UI8)-1);
  EXPECT_EQ(utf8_lenStrict((UI1*)"\xF5\x80\x80\x80..", 6, &size), (UI8)-1);
  EXPECT_EQ(utf8_lenStrict((UI1*)"\xED\xA0\x80.", 4, &size), 2u);  // a surrogate passes
}

}  // namespace
