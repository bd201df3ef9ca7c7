// What is not built yet. Verbs here stand in the dispatch table and answer
// ERR_NONCE; the functions below them stand in for parts the engine calls
// into, until their own files take their place.
#include "aplrpc.h"
#include "pelkoerr.h"
#include "root.h"
#include "verbs.h"

PAA AWaitZ(PHIERAKI, UI4**, PAA) { return VARc(ERR_NONCE); }
PAA ASendZ(PHIERAKI, UI4**, PAA) { return VARc(ERR_NONCE); }
PAA ARespondZ(PHIERAKI, UI4**, PAA) { return VARc(ERR_NONCE); }
PAA ASrv(PHIERAKI, PAA) { return VARc(ERR_NONCE); }
PAA AClt(PHIERAKI, PAA) { return VARc(ERR_NONCE); }
PAA ASetRelay(PHIERAKI, PAA) { return VARc(ERR_NONCE); }
PAA ACerts(PHIERAKI, PAA) { return VARc(ERR_NONCE); }

// Exports whose machinery is not built yet.
void* Zuno2Init(void*) { return nullptr; }

// The ready search: nothing is ever found until it is built.
PHIERAKI FindReady(PHIERAKI, PHIERAKI* out) { return *out = nullptr; }
PHIERAKI FindReadyRR(PHIERAKI, PHIERAKI* out) { return *out = nullptr; }
PHIERAKI FindReadyTO(PHIERAKI, PHIERAKI* out) { return *out = nullptr; }
PHIERAKI FindReadyTS(PHIERAKI, PHIERAKI* out) { return *out = nullptr; }
PHIERAKI FindReadyTnc(PHIERAKI, PHIERAKI* out) { return *out = nullptr; }

// The certificate store.
SI4 CacheNewRoot(PVOID, PCH1) { return ERR_NONCE; }
SI4 DecodeCert(PAA, PPAA out) {
  *out = nullptr;
  return ERR_NONCE;
}

// Integrated security has no counterpart on this platform.
SI4 GetSecurity(PCH1, SI4) { return ERR_NONCE; }

// The HTTP date of the compose side.
SI4 HttpDate(PCH1, SI4) { return ERR_NONCE; }

// Connections and servers: no callbacks and no FIFO queues yet.
TPOOSFN ConnectionOOSfn(PRPCOBJS) { return nullptr; }
bool ServerIsFifo(PRPCOBJS) { return false; }
SI4 ServerReadyFn(PRPCOBJS, PHIERAKI) { return 0; }
