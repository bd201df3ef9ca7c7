// The host door, reached as the interpreter reaches it: through the exports
// of the loaded shared object, with packed blocks.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <set>
#include <vector>
#include <sys/time.h>

#include "harness.h"
#include "host/zblock.h"

namespace {

using host::CallResult;
using host::Door;
using host::Value;
using host::ZBlock;
using pelkotest::Lib;

// A monadic verb that refuses the arguments these tests give it: a text is
// ERR_ARG_INVALID, and no argument asks for no type it knows (ERR_NONCE).
const char* const kMonadicVerb = "ACerts";

// Every block the door hands back is a well-formed block saying Unicode.
void ExpectAnswerBlock(const CallResult& r) {
  EXPECT_EQ(r.error, "");
  EXPECT_EQ(r.resultBlock.arch(), 0xA4u);
  EXPECT_EQ(r.resultBlock.statedLength(), r.resultBlock.size());
}

TEST(HostDoorDeathTest, CallBeforeInitIsNotInitialized) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  // Initialized holds for the whole process, so this runs in a fresh one.
  EXPECT_EXIT(
      {
        CallResult a = Lib().Call("NOROOT", "ATree", Value::Text(""));
        CallResult b = Lib().Call("NOROOT", "NoSuchVerb", Value::Int(0));
        ZBlock bad = host::Encode(Value::Int(0), 0xA8);
        CallResult c = Lib().CallBlocks(Door::Call, "NOROOT", "ATree", &bad, nullptr);
        bool same = b.result == a.result && c.result == a.result && b.rc == a.rc && c.rc == a.rc;
        fprintf(stderr, "rc %d result %s same %d\n", a.rc, a.result.Format().c_str(), same);
        exit(0);
      },
      testing::ExitedWithCode(0), "rc 1044 result 20 1044 same 1");
}

// Refusals by the door itself come back as 20 and the code; a verb's own
// refusal as its code. The door's syntax test is a bare bit test: a
// monadic verb called dyadically runs, and a left argument alone counts as
// one argument, still tested for root and verb.
TEST(HostDoor, RefusalsComeBackAsErrorVectors) {
  std::string root = pelkotest::NewRoot("REFUSE");
  const Value x = Value::Text("x"), left = Value::Text("left");
  const struct {
    const char* what;
    Door door;
    std::string root;
    const char* verb;
    const Value *right, *left;
    int32_t rc;
    Value result;
  } cases[] = {
      {"no such verb", Door::Call, root, "NoSuchVerb", &x, nullptr, 1003, Value::Ints({20, 1003})},
      {"no such root", Door::Call, "NOSUCHROOT", "ATree", &x, nullptr, 1006, Value::Ints({20, 1006})},
      {"verb names compare with case", Door::Call, root, "atree", &x, nullptr, 1003, Value::Ints({20, 1003})},
      {"Call2 is the same door", Door::Call2, root, "NoSuchVerb", &x, nullptr, 1003, Value::Ints({20, 1003})},
      {"the verb's refusal", Door::Call, root, kMonadicVerb, &x, nullptr, 0, Value::Ints({1045})},
      {"a monadic verb called dyadically", Door::Call, root, kMonadicVerb, &x, &left, 0, Value::Ints({1045})},
      {"a left argument alone", Door::Call, root, kMonadicVerb, nullptr, &left, 0, Value::Ints({1005})},
      {"a left argument alone, no such verb", Door::Call, root, "NoSuchVerb", nullptr, &left, 1003, Value::Ints({20, 1003})},
      {"a left argument alone, no such root", Door::Call, "NOSUCHROOT", kMonadicVerb, nullptr, &left, 1006, Value::Ints({20, 1006})},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    ZBlock r = c.right ? host::Encode(*c.right) : ZBlock(), l = c.left ? host::Encode(*c.left) : ZBlock();
    CallResult res = Lib().CallBlocks(c.door, c.root, c.verb, c.right ? &r : nullptr, c.left ? &l : nullptr);
    EXPECT_EQ(res.rc, c.rc);
    EXPECT_EQ(res.result, c.result);
    ExpectAnswerBlock(res);
  }
}

TEST(HostDoor, ArchitectureWord) {
  std::string root = pelkotest::NewRoot("ARCH");
  // Big-endian machine, spare bit, extended doubles, 32-bit, big-endian
  // data, bits above the low byte: each is refused before unpacking.
  for (uint32_t word : {0xA8u, 0xA1u, 0xE0u, 0x80u, 0x20u, 0x1A0u, 0xA00000A0u}) {
    ZBlock block = host::Encode(Value::Text("abc"), word);
    CallResult r = Lib().CallBlocks(Door::Call, root, "ATree", &block, nullptr);
    EXPECT_EQ(r.rc, 1131) << std::hex << word;
    EXPECT_EQ(r.result, Value::Ints({20, 1131})) << std::hex << word;
    ExpectAnswerBlock(r);
  }
  // Alignment bits and the Unicode bit may be either.
  for (uint32_t word : {0xA0u, 0xA4u, 0xA2u, 0xB0u, 0xB6u}) {
    ZBlock block = host::Encode(Value::Text("abc"), word);
    CallResult r = Lib().CallBlocks(Door::Call, root, kMonadicVerb, &block, nullptr);
    EXPECT_EQ(r.rc, 0) << std::hex << word;
    EXPECT_EQ(r.resultBlock.arch(), 0xA4u);
  }
}

TEST(HostDoor, TheHostsBlocksStayTheHosts) {
  std::string root = pelkotest::NewRoot("OWN");
  Value arg = Value::Nested({Value::Text("abc"), Value::Ints({1, 2, 3}), Value::EmptyNested(Value::Int(0))});
  ZBlock right = host::Encode(arg);
  ZBlock left = host::Encode(Value::Text("left"));
  std::vector<uint8_t> rightBefore = right.bytes(), leftBefore = left.bytes();
  CallResult r = Lib().CallBlocks(Door::Call, root, kMonadicVerb, &right, &left);
  EXPECT_EQ(r.rc, 0);
  EXPECT_EQ(right.bytes(), rightBefore);
  EXPECT_EQ(left.bytes(), leftBefore);
  EXPECT_FALSE(r.left.has_value());  // a stub leaves the left slot alone
}

TEST(HostDoor, VersionKickStartAndClock) {
  EXPECT_EQ(Lib().raw().Version(nullptr), 30101479);
  uint32_t v[4] = {0, 0, 0, 0xDEADBEEF};
  EXPECT_EQ(Lib().raw().Version(v), 30101479);
  EXPECT_EQ(v[0], 3u);
  EXPECT_EQ(v[1], 1u);
  EXPECT_EQ(v[2], 1479u);
  EXPECT_EQ(v[3], 0xDEADBEEFu);
  EXPECT_EQ(Lib().VersionText(), "3.1.1479");

  std::string root = pelkotest::NewRoot("KICK");
  EXPECT_EQ(Lib().KickStart(root), 0);
  EXPECT_EQ(Lib().KickStart("NOSUCHROOT"), 1006);

  timeval tv;
  gettimeofday(&tv, nullptr);
  double now = tv.tv_sec * 1e6 + tv.tv_usec;
  EXPECT_NEAR(Lib().Micros(), now, 60e6);  // the same wall clock, in microseconds
}

TEST(HostDoor, Call1HandsTheCodeBackThroughTheLeftSlot) {
  std::string root = pelkotest::NewRoot("CALLONE");
  CallResult r = Lib().Call1(root, "NoSuchVerb", Value::Int(7));
  EXPECT_EQ(r.rc, 1003);
  EXPECT_EQ(r.result, Value::Ints({20, 1003}));
  ASSERT_TRUE(r.left.has_value());
  EXPECT_EQ(*r.left, Value::Int(1003));
  // The packed integer scalar, classic header, code in the first four
  // bytes of the value word.
  const uint8_t expected[32] = {0x00, 0x00, 0x00, 0x20, 0x00, 0x00, 0x00, 0xA0, 0x04, 0, 0, 0, 0, 0, 0, 0,
                                0x0F, 0x04, 0,    0,    0,    0,    0,    0,    0xEB, 0x03, 0, 0, 0, 0, 0, 0};
  ASSERT_EQ(r.leftBlock.size(), 32u);
  EXPECT_EQ(memcmp(r.leftBlock.data(), expected, 32), 0);

  r = Lib().Call1(root, kMonadicVerb, Value::Int(7));
  EXPECT_EQ(r.rc, 0);
  ASSERT_TRUE(r.left.has_value());
  EXPECT_EQ(*r.left, Value::Int(0));

  // A left slot already filled is left as it is.
  ZBlock right = host::Encode(Value::Int(7)), left = host::Encode(Value::Int(9));
  r = Lib().CallBlocks(Door::Call1, root, "NoSuchVerb", &right, &left);
  EXPECT_EQ(r.rc, 1003);
  EXPECT_FALSE(r.left.has_value());
}

// Whatever arguments a host passes, or leaves out, every verb answers with a
// well-formed block and the process lives on. The wait verb is left out: with
// no argument it may wait, which is its job.
TEST(HostDoor, EveryVerbSurvivesMissingAndOddArguments) {
  std::string root = pelkotest::NewRoot("ODDARGS");
  const char* verbs[] = {"ASendZ", "ARespondZ", "AClose", "ATree", "ASetProp", "AGetProp",
                         "ASrv", "AClt", "ASetRelay", "ACerts"};
  ZBlock left = host::Encode(Value::Text("left"));
  std::vector<Value> odd = {Value::Ints({}), Value::Text(""),
                            Value::Nested({Value::Int(7), Value::Nested({})})};
  for (const char* verb : verbs) {
    SCOPED_TRACE(verb);
    ExpectAnswerBlock(Lib().CallBlocks(Door::Call, root, verb, nullptr, nullptr));
    ExpectAnswerBlock(Lib().CallBlocks(Door::Call, root, verb, nullptr, &left));
    for (const Value& v : odd) {
      ZBlock right = host::Encode(v);
      ExpectAnswerBlock(Lib().CallBlocks(Door::Call, root, verb, &right, nullptr));
      ExpectAnswerBlock(Lib().CallBlocks(Door::Call, root, verb, &right, &left));
    }
  }
}

TEST(HostDoor, ExactlyTheFourteenExports) {
  std::string command = std::string("nm -D --defined-only ") + PELKO_LIBRARY_PATH;
  FILE* p = popen(command.c_str(), "r");
  ASSERT_NE(p, nullptr);
  std::set<std::string> seen;
  char line[512];
  while (fgets(line, sizeof line, p)) {
    char address[64], kind[8], name[256];
    if (sscanf(line, "%63s %7s %255s", address, kind, name) == 3) seen.insert(name);
  }
  ASSERT_EQ(pclose(p), 0);
  std::set<std::string> wanted(std::begin(host::kExportNames), std::end(host::kExportNames));
  EXPECT_EQ(seen, wanted);
}

}  // namespace
