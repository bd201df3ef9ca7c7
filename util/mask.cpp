#include "mask.h"

#include <cassert>

void mask(PCH1 data, UL length, PCH1 key, UI4 keyLength) {
  // Every caller passes the 4 bytes of a frame key; an empty key would have
  // nothing to cycle through.
  assert(keyLength != 0 || length == 0);
  for (UL i = 0; i < length; i++) data[i] ^= key[i % keyLength];
}
