// Minimal element readers for the engine's verbs; see argread.h.
#include "argread.h"

#include <cmath>
#include <cstdio>
#include <cstring>
#include <strings.h>

#include "pelkoerr.h"

static PAA Child(PAA p, UI4 i) {
  PAA c;
  memcpy(&c, (PCH1)VADATA(p) + i * sizeof(PAA), sizeof(PAA));
  return c;
}

SI4 ArgSI4(PAA arg, UI4 index, PSI4 out) {
  *out = 0;
  if (!arg) return ERR_APL_VALUE;
  if (index >= VAElems(arg)) return ERR_APL_LENGTH;
  PVOID d = VADATA(arg);
  switch (VAType(arg)) {
    case VABit: *out = (((PUI1)d)[index / 8] >> (7 - index % 8)) & 1; return 0;
    case VAI1: *out = ((PSI1)d)[index]; return 0;
    case VAI2: *out = ((PSI2)d)[index]; return 0;
    case VAI4: *out = ((PSI4)d)[index]; return 0;
    case VAF8: {
      F8 ip, x = ((PF8)d)[index];
      if (modf(x, &ip) != 0.0 || std::isnan(x) || fabs(ip) > 9.223372036854776e18)
        return ERR_APL_DOMAIN;
      *out = (SI4)(int64_t)ip;
      return 0;
    }
    case VAPntr: {
      PAA c = Child(arg, index);
      if (!c || VAElems(c) != 1) return ERR_APL_INDEX;
      return ArgSI4(c, 0, out);
    }
    default: return ERR_APL_DOMAIN;
  }
}

SI4 ArgText(PAA arg, UI4 index, PCH1 buf, UI4 len) {
  if (!arg || !len) return ERR_APL_VALUE;
  buf[0] = 0;
  switch (VAType(arg)) {
    case VAC1: {
      if (VARank(arg) > 1) return ERR_APL_RANK;
      if (index) return ERR_APL_DOMAIN;
      UI4 n = VAElems(arg);
      if (len - 1 < n) return ERR_APL_LENGTH;
      memcpy(buf, VADATA(arg), n);
      buf[n] = 0;
      return 0;
    }
    case VAPntr: {
      if (index >= VAElems(arg)) return ERR_APL_LENGTH;
      PAA c = Child(arg, index);
      if (!c) return ERR_APL_VALUE;
      if (VAType(c) != VAC1 && VAElems(c) != 1) return ERR_APL_LENGTH;
      return ArgText(c, 0, buf, len);
    }
    default: {
      SI4 v;
      SI4 rc = ArgSI4(arg, index, &v);
      if (rc) return rc;
      if ((UI4)snprintf(buf, len, "%d", v) >= len) return ERR_APL_LENGTH;
      return 0;
    }
  }
}

SI4 ArgElement(PAA arg, UI4 index, PPAA out) {
  *out = nullptr;
  if (!arg) return ERR_APL_VALUE;
  if (index >= VAElems(arg)) return ERR_APL_LENGTH;
  if (VAType(arg) == VAPntr) {
    PAA c = Child(arg, index);
    if (!c) return ERR_APL_VALUE;
    VAIncRef(c);
    *out = c;
    return 0;
  }
  SI4 v;
  SI4 rc = ArgSI4(arg, index, &v);
  if (rc) return ERR_APL_DOMAIN;
  *out = NewInt(v);
  return *out ? 0 : ERR_APL_ALLOC;
}

SI4 ArgBytes(PAA arg, PUI1 pb, PUI4 plen) {
  VATYPES t = VAType(arg);
  UI4 n = VAElems(arg);
  if (t != VAC1 && t != VAI1 && t != VAI2) return ERR_DOMAIN;
  if (!pb) {
    *plen = n;
    return 0;
  }
  if (*plen < n) return ERR_LENGTH;
  if (t != VAI2) {
    memcpy(pb, VADATA(arg), n);
    return 0;
  }
  for (UI4 i = 0; i < n; i++) {
    SI2 v = ((PSI2)VADATA(arg))[i];
    if (v < -128 || v > 255) return ERR_DOMAIN;
    pb[i] = (UI1)v;
  }
  return 0;
}

PAA NewText(const char* text) {
  UI4 n = (UI4)strlen(text);
  PAA p = VANewVector(VAC1, n);
  if (p && n) memcpy(VADATA(p), text, n);
  return p;
}

PAA NewInt(SI4 value) {
  PAA p = VANewScalar(VAI4);
  if (p) *(PSI4)VADATA(p) = value;
  return p;
}

PAA NewNested(UI4 n) { return VANewVector(VAPntr, n); }

void PutNested(PAA nested, UI4 index, PAA child) {
  PAA old = Child(nested, index);
  VAFree(old);
  memcpy((PCH1)VADATA(nested) + index * sizeof(PAA), &child, sizeof(PAA));
}

PAA NestedOf(std::initializer_list<PAA> items) {
  bool ok = true;
  for (PAA p : items) ok = ok && p;
  PAA r = ok ? NewNested((UI4)items.size()) : nullptr;
  UI4 i = 0;
  for (PAA p : items) {
    if (r) PutNested(r, i++, p);
    else VAFree(p);
  }
  return r;
}
