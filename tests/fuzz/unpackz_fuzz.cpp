// Packed host arrays from a peer: command mode's bodies and every verb's
// arguments. The bounded unpacking and the check must refuse what doesn't
// fit, and what they accept must pack back.
#include <cstdlib>
#include <cstring>

#include "orvanenaz.h"
#include "vapl.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 8) return 0;
  // A block's words are aligned; the library is handed them so.
  PUI4 z = (PUI4)malloc(size);
  memcpy(z, data, size);
  bool fits = CheckZ(z, (UI4)size);
  PAA a = UnpackZ(z, (UI4)size);
  if (a) {
    // The normal form a result takes before it is packed for the host.
    if (VANorm(&a, Orvane2VA, VA2Orvane) == 0) {
      free(PackZ(a));  // takes a over
    } else {
      VAFree(a);
    }
  }
  (void)fits;
  free(z);
  return 0;
}
