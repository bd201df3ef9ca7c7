// Verbs that are not built yet. Each stands in the dispatch table and answers
// ERR_NONCE until its own file takes its place.
#include "pelkoerr.h"
#include "verbs.h"

PAA AWaitZ(PHIERAKI, UI4**, PAA) { return VARc(ERR_NONCE); }
PAA ASendZ(PHIERAKI, UI4**, PAA) { return VARc(ERR_NONCE); }
PAA ARespondZ(PHIERAKI, UI4**, PAA) { return VARc(ERR_NONCE); }
PAA AClose(PHIERAKI, PAA) { return VARc(ERR_NONCE); }
PAA ATree(PHIERAKI, PAA) { return VARc(ERR_NONCE); }
PAA ASetProp(PHIERAKI, PAA) { return VARc(ERR_NONCE); }
PAA AGetProp(PHIERAKI, PAA) { return VARc(ERR_NONCE); }
PAA ASrv(PHIERAKI, PAA) { return VARc(ERR_NONCE); }
PAA AClt(PHIERAKI, PAA) { return VARc(ERR_NONCE); }
PAA ASetRelay(PHIERAKI, PAA) { return VARc(ERR_NONCE); }
PAA ACerts(PHIERAKI, PAA) { return VARc(ERR_NONCE); }

// Exports whose machinery is not built yet.
#include "aplrpc.h"

void* Zuno2Init(void*) { return nullptr; }
