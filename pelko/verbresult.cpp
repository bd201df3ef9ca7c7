// The answer of a verb that succeeds with a value.
#include "verbresult.h"

#include "pelkoerr.h"

PAA RcValue(PAA value) {
  PAA r = VANested({VAInt(0), value});
  return r ? r : VARc(ERR_MEMORY_ALLOC);
}
