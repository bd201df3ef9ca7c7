// Roots: one engine instance per name. The host names a root in every call.
#pragma once

#include "taltypes.h"

struct HIERAKI;
typedef HIERAKI* PHIERAKI;

extern PHIERAKI pRoots;

// The root node of that name, or null.
PHIERAKI Root(const char* name);
SI4 CreateRoot(const char* name);
void RPCLoad();
void RPCUnload(PHIERAKI pRoot);
// Wakes the root's work thread.
SI4 Dirty(PHIERAKI pRoot);
