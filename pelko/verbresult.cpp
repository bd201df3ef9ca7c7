// Result values of verbs and properties.

#include "verbresult.h"

#include <cstring>

#include "pelkoerr.h"

PAA IntScalar(SI4 v) {
  PAA p = VANewScalar(VAI4);
  if (p) VASetSI4(p, 0, v);
  return p;
}

PAA TextVector(const char* text) {
  UI4 n = (UI4)strlen(text);
  PAA p = VANewVector(VAC1, n);
  if (p) VASetCH1(p, 0, (PCH1)text, n, VABIN);
  return p;
}

PAA NestedItems(std::initializer_list<PAA> items) {
  bool whole = true;
  for (PAA p : items) whole = whole && p;
  PAA r = whole ? VANewVector(VAPntr, (UI4)items.size()) : nullptr;
  UI4 i = 0;
  for (PAA p : items) {
    if (r) VASetpAA(r, i++, p);
    else VAFree(p);
  }
  return r;
}

PAA RcValue(PAA value) {
  PAA r = NestedItems({IntScalar(0), value});
  return r ? r : VARc(ERR_MEMORY_ALLOC);
}
