// Host arrays in the toolkit: construction, comparison and how they show.
#include <gtest/gtest.h>

#include "host/value.h"

namespace {

using host::Type;
using host::Value;

TEST(HostKitValue, ConstructionAndEquality) {
  EXPECT_EQ(Value::Text("abc").type(), Type::Uni8);
  EXPECT_EQ(Value::Text("aλ").type(), Type::Uni16);
  EXPECT_EQ(Value::Text("a😀").type(), Type::Uni32);
  EXPECT_EQ(Value::Text("a😀").charAt(1), U'😀');
  EXPECT_EQ(Value::Text("aλ😀").text(), "aλ😀");
  EXPECT_EQ(Value::Classic("ab").type(), Type::Char);
  EXPECT_NE(Value::Classic("ab"), Value::Text("ab"));    // types differ
  EXPECT_NE(Value::Int8s({1, 2}), Value::Int16s({1, 2}));
  EXPECT_NE(Value::Int(1), Value::Ints({1}));            // rank differs
  EXPECT_EQ(Value::Int(1), Value::Ints({1}).Reshape({}));
  EXPECT_NE(Value::EmptyNested(Value::Int(0)), Value::EmptyNested(Value::Text("")));

  Value m = Value::Ints({1, 2, 3}).Reshape({2, 4});
  EXPECT_EQ(m.ints(), (std::vector<int64_t>{1, 2, 3, 1, 2, 3, 1, 2}));
  EXPECT_EQ(Value::Bits({true, false, true}).Reshape({5}).ints(), (std::vector<int64_t>{1, 0, 1, 1, 0}));
  Value n = Value::Nested({Value::Int(1), Value::Text("a")}).Reshape({3});
  EXPECT_EQ(n[2], Value::Int(1));
  EXPECT_EQ(Value::EmptyNested(Value::Int(0)).Reshape({2})[1], Value::Int(0));  // filled with the prototype
  EXPECT_EQ(Value::Nested({}).prototype(), Value::Text(""));
  Value bad;
  EXPECT_FALSE(Value::Nested({2, 2}, {Value::Int(1)}, &bad));
}

TEST(HostKitValue, ShowsAsASessionWould) {
  EXPECT_EQ(Value::Ints({1, -2, 30}).Format(), "1 ¯2 30");
  EXPECT_EQ(Value::Text("abc").Format(), "abc");
  EXPECT_EQ(Value::Ints({1, 22, 3, 4}).Reshape({2, 2}).Format(), "1 22\n3  4");
  EXPECT_EQ(Value::Text("abcd").Reshape({2, 2}).Format(), "ab\ncd");
  EXPECT_EQ(Value::Ints({1, 2}).Reshape({2, 1, 1}).Format(), "1\n\n2");
  EXPECT_EQ(Value::Doubles({1.5, -0.25}).Format(), "1.5 ¯0.25");
  EXPECT_EQ(Value::Doubles({1e300, -1e-5}).Format(), "1E300 ¯1E¯5");
  EXPECT_EQ(Value::Nested({Value::Text("ab"), Value::EmptyNested(Value::Int(0))}).Format(), "┌──┐ ┌⊖┐\n│ab│ │0│\n└──┘ └─┘");
  EXPECT_EQ(Value::Complex({1, -2}).Format(), "1J¯2");
  EXPECT_EQ(Value::Nested({Value::Text("ab"), Value::Int(7)}).Format(), "┌──┐ 7\n│ab│\n└──┘");
  EXPECT_EQ(Value::EmptyNested(Value::Ints({})).Format(), "┌⊖┐\n│ │\n└─┘");

  // Decimal one, and minus twelve and a half, in both encodings.
  host::Decimal128 bidOne{}, bidMinus{}, dpdOne{}, dpdMinus{};
  bidOne[0] = 1;
  bidOne[14] = 0x40;
  bidOne[15] = 0x30;  // exponent 6176 << 113
  bidMinus[0] = 125;
  bidMinus[14] = 0x3E;
  bidMinus[15] = 0xB0;  // sign, exponent 6175
  EXPECT_EQ(Value::Decimals(Type::Bid, {bidOne, bidMinus}).Format(), "1 ¯12.5");
  dpdOne[0] = 1;
  dpdOne[14] = 0x08;
  dpdOne[15] = 0x22;  // combination 01000, exponent continuation 0x820
  dpdMinus[0] = 0xA5;   // declet 125
  dpdMinus[13] = 0xC0;
  dpdMinus[14] = 0x07;
  dpdMinus[15] = 0xA2;  // sign, exponent 6175
  EXPECT_EQ(Value::Decimals(Type::Dpd, {dpdOne, dpdMinus}).Format(), "1 ¯12.5");
}

}  // namespace
