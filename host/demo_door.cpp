// The first scenes: the library loads, a root starts, one call goes through
// the door, and the door's refusals come back as error vectors.
#include <cstdio>

#include "host/demo.h"

namespace {

using host::Value;

void Loading(demo::Stage& s) {
  std::array<uint32_t, 3> parts{};
  int32_t number = s.lib.Version(&parts);
  s.Fact("library", s.lib.path());
  s.Fact("version", s.lib.VersionText() + "   (Version answers " + std::to_string(number) + ")");
  s.Fact("clock", std::to_string((long long)(s.lib.Micros() / 1e6)) + " s since the epoch, from Micros");
  s.Expect(number == 30101479 && parts[2] == 1479, "version 3.1.1479");
}

void Starting(demo::Stage& s) {
  s.Say("Init starts a root: one named tree with its own work thread.");
  int32_t rc = s.lib.Init(s.root, s.lib.path());
  s.Fact("Init", "'" + s.root + "' → " + std::to_string(rc));
  s.Expect(rc == 0, "Init to succeed");
  rc = s.lib.Init(s.root, s.lib.path());
  s.Fact("again", "'" + s.root + "' → " + std::to_string(rc) + "  " + host::ErrorName(rc));
  s.Expect(rc == 1043, "a second Init of one name to be refused");
}

void Calling(demo::Stage& s) {
  s.Say("A verb is called by name with a packed right argument; the answer");
  s.Say("comes back as a fresh block, which the host gives back when read.");
  host::CallResult r = s.Show("ATree", Value::Text(""));
  s.Expect(r.error.empty() && r.resultBlock.arch() == 0xA4, "a well-formed answer block");
}

void Refusing(demo::Stage& s) {
  s.Say("Failures before a verb runs come back as the vector 20 and the code.");
  host::CallResult r = s.Show("NoSuchVerb", Value::Int(1));
  s.Expect(r.result == Value::Ints({20, 1003}), "20 1003");
  r = s.Show("NOROOT", "ATree", Value::Text(""));
  s.Expect(r.result == Value::Ints({20, 1006}), "20 1006");
  printf("\n");
  s.Say("A block from a big-endian machine is turned away unread:");
  host::ZBlock block = host::Encode(Value::Text("abc"), host::kZHeader | host::kArchMach);
  printf("\n      Call '%s' 'ATree' (block with architecture word 0x%02X)\n", s.root.c_str(), block.arch());
  r = s.lib.CallBlocks(host::Door::Call, s.root, "ATree", &block, nullptr);
  s.ShowResult(r);
  s.Expect(r.result == Value::Ints({20, 1131}), "20 1131");
}

}  // namespace

PELKO_DEMO_SCENE(10, "load", "Loading the library", Loading);
PELKO_DEMO_SCENE(20, "root", "Starting a root", Starting);
PELKO_DEMO_SCENE(30, "call", "One call through the door", Calling);
PELKO_DEMO_SCENE(40, "errors", "What the door refuses", Refusing);
