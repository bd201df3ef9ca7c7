// Writing elements. A setter stores into a slot of the target's own type;
// for pointer and heterogeneous arrays it builds the child that holds the
// value. A slot's former child is overwritten, not released: callers fill
// fresh arrays.
#include <cstring>

#include "cdecf.h"
#include "orvanenaz.h"
#include "pelkoerr.h"
#include "vapl.h"
#include "vatrans.h"

static F16* Decimal(PAA pAA, UI4 index) { return (F16*)((PCH1)VADATA(pAA) + 16 * index); }

static void StoreF8(PAA pAA, UI4 index, F8 val) {
  memcpy((PCH1)VADATA(pAA) + 8 * index, &val, 8);
}

static void StoreComplex(PAA pAA, UI4 index, F8 val) {
  F8 pair[2] = {val, 0.0};
  memcpy((PCH1)VADATA(pAA) + 16 * index, pair, 16);
}

// A scalar of the given type in the slot, with the value copied in.
static SI4 ScalarInSlot(PAA pAA, UI4 index, VATYPES type, const void* val, UI4 size) {
  PAA p = VANewScalar(type);
  if (!p) return ERR_MEMORY_ALLOC;
  memcpy(VADATA(p), val, size);
  VASetSlot(pAA, index, p);
  return 0;
}

SI4 VASetSI4(PAA pAA, UI4 index, SI4 val) {
  if (index >= VAElems(pAA)) return ERR_APL_LENGTH;
  switch (pAA->type) {
    case VAI4: memcpy((PCH1)VADATA(pAA) + 4 * index, &val, 4); return 0;
    case VAF8: StoreF8(pAA, index, val); return 0;
    case VA2F8: StoreComplex(pAA, index, val); return 0;
    case VAPntr: return ScalarInSlot(pAA, index, VAI4, &val, 4);
    case VAHet: VASetHetCell(pAA, index, VAI4, &val, 4); return 0;
    case VADpd: return SI4Todpd(val, Decimal(pAA, index));
    case VABid: return SI4Tobid(val, Decimal(pAA, index));
    default: return ERR_APL_DOMAIN;
  }
}

SI4 VASetF8(PAA pAA, UI4 index, F8 val) {
  if (index >= VAElems(pAA)) return ERR_APL_LENGTH;
  switch (pAA->type) {
    case VAF8: StoreF8(pAA, index, val); return 0;
    case VA2F8: StoreComplex(pAA, index, val); return 0;
    case VAPntr: return ScalarInSlot(pAA, index, VAF8, &val, 8);
    case VAHet: VASetHetCell(pAA, index, VAF8, &val, 8); return 0;
    case VADpd: return F8Todpd(val, Decimal(pAA, index));
    case VABid: return F8Tobid(val, Decimal(pAA, index));
    default: return ERR_APL_DOMAIN;
  }
}

// Puts a fresh child into a pointer slot or a heterogeneous cell.
static void PutChild(PAA pAA, UI4 index, PAA child) {
  if (pAA->type == VAPntr) VASetSlot(pAA, index, child);
  else VASetHetCell(pAA, index, VAPntr, &child, sizeof(PAA));
}

SI4 VASetCH1(PAA pAA, UI4 index, PCH1 pBuf, UI4 len, SI2 text) {
  UI4 count = VAElems(pAA);
  switch (pAA->type) {
    case VAC1: {
      if (pAA->rank > 1) return ERR_APL_RANK;
      if (len > count) return ERR_APL_LENGTH;
      if (index != 0) return ERR_APL_DOMAIN;
      PCH1 d = (PCH1)VADATA(pAA);
      memcpy(d, pBuf, len);
      memset(d + len, ' ', count - len);
      if (text) VA2avn(d, count);
      return 0;
    }
    case VAPntr:
    case VAHet: {
      if (index >= count) return ERR_APL_LENGTH;
      PAA child = VANewVector(VAC1, len);
      if (!child) return ERR_MEMORY_ALLOC;
      PutChild(pAA, index, child);
      return VASetCH1(child, 0, pBuf, len, text);
    }
    default: return ERR_APL_DOMAIN;
  }
}

SI4 VASetUnicode(PAA pAA, UI4 index, PCH1 pBuf, UI4 len, UNICODETYPES type) {
  UI4 count = VAElems(pAA);
  UI4 t = pAA->type;
  if (t != VAC1 && t != VAC2 && t != VAC4 && index >= count) return ERR_APL_LENGTH;
  if (len == VAZEROTERM) len = (UI4)ZeroLength((UI1*)pBuf, type) * MinUSize[type];
  switch (t) {
    case VAC1:
    case VAC2:
    case VAC4: {
      if (pAA->rank > 1) return ERR_APL_RANK;
      if (index != 0) return ERR_APL_DOMAIN;
      UNICODETYPES to = t == VAC2 ? UCS2 : t == VAC4 ? UCS4 : isUnicode() ? UCS1 : C1AV;
      UI4 bytes = count * (t == VAC2 ? 2 : t == VAC4 ? 4 : 1);
      return ConvUnicode(to, (UI1*)VADATA(pAA), bytes, type, (UI1*)pBuf, len, 0);
    }
    case VAPntr:
    case VAHet: {
      UI1 size;
      UI8 n = ToVAPL((UI1*)pBuf, len, type, &size);
      if (n > 0xFFFFFFFFull) return ERR_MEMORY_ALLOC;
      PAA child = VANewVector((VATYPES)es2va[size], (UI4)n);
      if (!child) return ERR_MEMORY_ALLOC;
      PutChild(pAA, index, child);
      return VASetUnicode(child, 0, pBuf, len, type);
    }
    default: return ERR_APL_DOMAIN;
  }
}

SI4 VASetpAA(PAA pAA, UI4 index, PAA pSub) {
  if (index >= VAElems(pAA)) return ERR_APL_LENGTH;
  if (pAA->type != VAPntr && pAA->type != VAHet) return ERR_APL_DOMAIN;
  PutChild(pAA, index, pSub);
  return 0;
}
