// Big numbers as decimal text, as certificate serial numbers are shown.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "rootcerts.h"

namespace {

TEST(FmtIntBig, SignedBigEndianNumbers) {
  const std::pair<std::vector<UI1>, const char*> cases[] = {
      {{0x00, 0xFF}, "255"}, {{0xFF}, "-1"},         {{0x00}, "0"},
      {{0x80}, "-128"},      {{0x01, 0x00}, "256"}, {{0xFF, 0x00}, "-256"},
      {{0x7F, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}, "9223372036854775807"},
      {{0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00}, "4722366482869645213696"},
  };
  for (const auto& c : cases) {
    std::vector<UI1> src = c.first;
    char out[64];
    UI4 n = FmtIntBig(src.data(), (UI4)src.size(), out, sizeof out, 1);
    EXPECT_STREQ(out, c.second);
    EXPECT_EQ(n, strlen(c.second));
    EXPECT_EQ(FmtIntBig(src.data(), (UI4)src.size(), nullptr, 0, 1), n);  // the length alone
  }
}

TEST(FmtIntBig, ACutTextStillGivesTheFullLength) {
  UI1 src[] = {0x01, 0x00, 0x00};  // 65536
  char out[4];
  EXPECT_EQ(FmtIntBig(src, 3, out, sizeof out, 1), 5u);
  EXPECT_STREQ(out, "655");
  // The source may be the destination.
  char same[16] = {(char)0xFF, (char)0xFE};
  FmtIntBig((UI1*)same, 2, same, sizeof same, 1);
  EXPECT_STREQ(same, "-2");
}

}  // namespace
