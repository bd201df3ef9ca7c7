// Results reach the host in its own simplest types: the library's answers are
// normalised before they are packed, whatever the verb built.
#include <gtest/gtest.h>

#include "harness.h"

namespace {

using host::CallResult;
using host::Type;
using host::Value;
using pelkotest::Lib;

// The element types found anywhere in a value, depth first.
void Collect(const Value& v, std::vector<Type>* out) {
  out->push_back(v.type());
  if (v.type() == Type::Nested)
    for (const Value& item : v.items()) Collect(item, out);
}

TEST(NormalForm, MixedNestedResultsComeBackInHostTypes) {
  std::string root = pelkotest::NewRoot("NORM");
  // Address descriptions: a nested vector holding texts and nested pairs,
  // built inside the library from 32-bit integers and one-byte texts.
  CallResult r = Lib().Call(root, "AGetProp",
                            Value::Nested({Value::Text(""), Value::Text("TCPLookup"),
                                           Value::Text("localhost"), Value::Text("80")}));
  ASSERT_TRUE(r.ok()) << r.error;
  ASSERT_EQ(r.result.type(), Type::Nested);
  ASSERT_EQ(r.result.items().at(0), Value::Int(0)) << r.result;
  std::vector<Type> types;
  Collect(r.result, &types);
  for (Type t : types) {
    // A Unicode caller gets its text as one-byte Unicode, never classic,
    // and no result carries a type the host doesn't hold.
    EXPECT_NE(t, Type::Char);
    EXPECT_NE(t, Type::Uni16);
    EXPECT_TRUE(host::IsHostType((unsigned)t));
  }
  // The code in front travels as the record of its own type, right behind
  // the nested header.
  EXPECT_EQ(r.resultBlock[8 + 24 + 9], (uint8_t)r.result.items().at(0).type());
  // Each description: family, address text, address bytes, port.
  const Value& first = r.result.items().at(1).items().at(0);
  ASSERT_EQ(first.items().size(), 4u) << r.result;
  EXPECT_EQ(first.items().at(0).type(), Type::Uni8);
  EXPECT_EQ(first.items().at(3), Value::Int(80));
}

TEST(NormalForm, ClassicCallerGetsClassicText) {
  std::string root = pelkotest::NewRoot("NORMC");
  host::ZBlock right = host::Encode(
      Value::Nested({Value::Classic(""), Value::Classic("PropList")}), 0xA0);
  CallResult r = Lib().CallBlocks(host::Door::Call, root, "AGetProp", &right, nullptr);
  ASSERT_EQ(r.rc, 0) << r.error;
  ASSERT_EQ(r.result.type(), Type::Nested);
  const Value& list = r.result.items().at(1);
  ASSERT_EQ(list.type(), Type::Nested) << r.result;
  for (const Value& name : list.items()) EXPECT_EQ(name.type(), Type::Char) << name;
}

}  // namespace
