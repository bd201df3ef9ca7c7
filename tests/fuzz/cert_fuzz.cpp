// Certificate bytes from a peer or a file, decoded into their parts with
// details and without.
#include <cstdlib>

#include "pelkossl.h"
#include "rootcerts.h"
#include "securesocket.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // The companion is found by PELKOSSL_LIBRARY, which scripts/fuzz sets.
  LoadPelkossl();
  SslLoad();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (!PelkosslLoaded()) abort();  // a run without the companion tests nothing
  for (int verbose = 0; verbose < 2; verbose++) {
    PAA info = nullptr;
    DecodeCertGNU((PCH1)data, (UI4)size, verbose, &info);
    VAFree(info);
  }
  char text[64];
  FmtIntBig((UI1*)data, size < 64 ? (UI4)size : 64, text, sizeof text, 1);
  return 0;
}
