// What is not built yet. Verbs here stand in the dispatch table and answer
// ERR_NONCE; the functions below them stand in for parts the engine calls
// into, until their own files take their place.
#include "aplrpc.h"
#include "certdata.h"
#include "options.h"
#include "pelkoerr.h"
#include "root.h"
#include "verbs.h"

// Exports whose machinery is not built yet.
void* Zuno2Init(void*) { return nullptr; }

