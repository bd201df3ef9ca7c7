// A wait through the bare export, as a host that only counts would make
// it: the event and object name are decoded, the data block goes back
// unread. Shared by the benchmarks, so that they time the library and not
// the decoding of what it hands over.
#pragma once

#include <optional>
#include <string>

#include "host/library.h"
#include "host/zblock.h"

struct BareEvent {
  std::string event;
  std::string name;
  uint64_t count = 0;  // elements of a vector's data
};

inline BareEvent BareWait(host::Library& lib, const std::string& root, const std::string& name) {
  host::ZBlock right = host::Encode(host::Value::Nested({host::Value::Text(name), host::Value::Int(10000)}));
  host::ZBlock left = host::Encode(host::Value::Int(0));
  uint32_t* pr = right.words();
  uint32_t* pl = left.words();
  lib.raw().Call((char*)root.c_str(), (char*)"AWaitZ", &pr, &pl);
  std::optional<host::Value> v = host::Decode(pr, host::ZBlock(pr, 8).statedLength());
  lib.raw().FreeUsedOrvaneResult(pr);
  BareEvent e;
  if (pl != left.words()) {
    // A vector's record: its one axis stands at byte 24 of the block.
    e.count = (uint64_t)pl[6] | (uint64_t)pl[7] << 32;
    lib.raw().FreeUsedOrvaneResult(pl);
  }
  if (v && v->isNested()) {
    e.event = (*v)[2].text();
    e.name = (*v)[1].text();
  }
  return e;
}
