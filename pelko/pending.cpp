// What is not built yet. Verbs here stand in the dispatch table and answer
// ERR_NONCE; the functions below them stand in for parts the engine calls
// into, until their own files take their place.
#include "aplrpc.h"
#include "certdata.h"
#include "options.h"
#include "pelkoerr.h"
#include "root.h"
#include "verbs.h"

PAA ACerts(PHIERAKI, PAA) { return VARc(ERR_NONCE); }

// Exports whose machinery is not built yet.
void* Zuno2Init(void*) { return nullptr; }

// The certificate store.
SI4 CacheNewRoot(PVOID, PCH1) { return ERR_NONCE; }
SI4 DecodeCert(PAA, PPAA out) {
  *out = nullptr;
  return ERR_NONCE;
}

// Certificate arguments: any of them asks for TLS, which has no secure
// socket to run on yet.
SI4 GetCert(PAA arg, PCERTDATA* out) {
  *out = nullptr;
  for (SI4 option = COSSLCheckFlags; option <= COPriority; option++) {
    if (option == COStopList || option == COIgnoreCase || option == COProtocol) continue;
    PAA p = nullptr;
    if (GetOptionpAA(arg, option, COMAX, PelkoOptionNames, &p) == 0 && p) {
      VAFree(p);
      return ERR_NO_SSL_SUPPORT;
    }
  }
  return 0;
}

void FreeCert(PCERTDATA) {}
