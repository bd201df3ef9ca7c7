// The answer of a verb that succeeds with a value.
#pragma once

#include "vapl.h"

// The nested vector 0 and the value; the code ERR_MEMORY_ALLOC when it
// can't be built.
PAA RcValue(PAA value);
