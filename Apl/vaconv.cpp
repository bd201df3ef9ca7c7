// Conversion to a given type and the normal form: the simplest type that
// holds an array's values, applied through a whole nested array before it
// leaves for the host or the wire.
#include <cassert>
#include <cstring>

#include "log.h"
#include "pelkoerr.h"
#include "vapl.h"

#define MODULE 0x08000000

SI4 VAEndType(PAA pAA) {
  for (;;) {
    // An empty slot holds no scalar: it counts as a pointer.
    if (!pAA || pAA->rank != 0 || VAElems(pAA) != 1) return VAPntr;
    if (pAA->type == VAPntr) {
      pAA = VASlot(pAA, 0);
    } else if (pAA->type == VAHet && VAHetType(pAA, 0) == VAPntr) {
      pAA = VAHetChild(pAA, 0);
    } else {
      return pAA->type;
    }
  }
}

SI4 VACheckType(PAA pAA) {
  LOG(1, ("VACheckType"));
  if (pAA->type != VAPntr && pAA->type != VAHet) return pAA->type;
  UI4 numbers = 0, floats = 0, chars = 0, others = 0;
  UI4 n = VAElems(pAA);
  for (UI4 i = 0; i < n; i++) {
    SI4 t;
    if (pAA->type == VAPntr) t = VAEndType(VASlot(pAA, i));
    else if ((t = VAHetType(pAA, i)) == VAPntr) t = VAEndType(VAHetChild(pAA, i));
    switch (t) {
      case VAI1: case VAI2: case VAI4: case VAC2: case VAC4: numbers++; break;
      case VAF8: case VAI8: numbers++; floats++; break;
      case VAC1: chars++; break;
      default: others++; break;
    }
  }
  if ((numbers > 0) + (chars > 0) + (others > 0) != 1) return VAHet;
  if (numbers) return floats ? VAF8 : VAI4;
  if (chars) return VAC1;
  return VAPntr;
}

SI4 VAConv(PAA pSrc, VATYPES newType, PPAA ppRes) {
  assert(pSrc!=__null);
  LOGAA(9, pSrc);
  *ppRes = nullptr;
  if (pSrc->type == newType) {
    VAIncRef(pSrc);
    *ppRes = pSrc;
    return 0;
  }
  PAA pRes = VANew(newType, pSrc->rank, pSrc->shape);
  if (!pRes) return ERR_APL_ALLOC;
  SI4 rc = convdata(pRes, pSrc);
  if (rc) {
    VAFree(pRes);
    return rc;
  }
  *ppRes = pRes;
  return 0;
}

// Moves element i into pointer slot or cell i of pDest. The slot keeps the
// reference that VAGetpAA hands out, so a shared child is counted once more
// and a scalar built for a simple element lives as long as its slot.
static SI4 MoveChild(PAA pDest, PAA pSrc, UI4 i) {
  PAA child;
  if (VAGetpAA(pSrc, i, &child) != 0) return ERR_APL_CONVERSION;
  if (VASetpAA(pDest, i, child) != 0) {
    VAFree(child);
    return ERR_APL_CONVERSION;
  }
  return 0;
}

static SI4 ToHetCell(PAA pDest, PAA pSrc, UI4 i) {
  PAA child = VASlot(pSrc, i);
  if (!child) return ERR_APL_CONVERSION;
  if (child->rank > 0 || child->type == VAPntr) return MoveChild(pDest, pSrc, i);
  switch (child->type) {
    case VABit: case VAI1: case VAI2: case VAI4: {
      SI4 v;
      if (VAGetSI4(pSrc, i, &v) || VASetSI4(pDest, i, v)) return ERR_APL_CONVERSION;
      return 0;
    }
    case VAF8: case VAI8: {
      F8 v;
      if (VAGetF8(pSrc, i, &v) || VASetF8(pDest, i, v)) return ERR_APL_CONVERSION;
      return 0;
    }
    case VAC1: {
      VASetHetCell(pDest, i, VAC1, "", 0);
      if (VAGetCH1(pSrc, i, (PCH1)VAHetData(pDest, i), 2, 1)) return ERR_APL_CONVERSION;
      return 0;
    }
    default:
      assert(0==1);
      return ERR_APL_CONVERSION;
  }
}

static SI4 EachToF8(PAA pDest, PAA pSrc, UI4 n) {
  for (UI4 i = 0; i < n; i++) {
    F8 v;
    if (VAGetF8(pSrc, i, &v) || VASetF8(pDest, i, v)) return ERR_APL_CONVERSION;
  }
  return 0;
}

static SI4 EachToSI4(PAA pDest, PAA pSrc, UI4 n) {
  for (UI4 i = 0; i < n; i++) {
    SI4 v;
    if (VAGetSI4(pSrc, i, &v) || VASetSI4(pDest, i, v)) return ERR_APL_CONVERSION;
  }
  return 0;
}

SI4 convdata(PAA pDest, PAA pSrc) {
  UI4 n = VAElems(pSrc);
  UI4 from = pSrc->type, to = pDest->type;
  if ((from == VAC1 && to == VAI1) || (from == VAC2 && to == VAI2) ||
      (from == VAC4 && to == VAI4)) {
    memcpy(VADATA(pDest), VADATA(pSrc), VADataLength(pSrc));
    return 0;
  }
  if (to == VAF8) return EachToF8(pDest, pSrc, n);
  if (to == VAPntr) {
    SI4 rc = 0;
    for (UI4 i = 0; i < n; i++)
      if (MoveChild(pDest, pSrc, i)) rc = ERR_APL_CONVERSION;
    return rc;
  }
  if (to == VAHet) {
    if (from != VAPntr) assert(0==1);
    for (UI4 i = 0; i < n; i++)
      if (ToHetCell(pDest, pSrc, i)) return ERR_APL_CONVERSION;
    return 0;
  }
  if (to == VAI4) return EachToSI4(pDest, pSrc, n);
  return ERR_APL_CONVERSION;
}

// An empty slot gets an empty numeric vector, so that no slot of a result
// reaches the packer without an array.
static SI4 FillEmpty(PPAA ppSlot) {
  if (*ppSlot) return 0;
  *ppSlot = VANewVector(VAI4, 0);
  return *ppSlot ? 0 : ERR_APL_ALLOC;
}

SI4 VANorm(PPAA ppNorm, SI2* p2VA, SI2* p2APL) {
  SI4 rc = FillEmpty(ppNorm);
  if (rc) return rc;
  SI4 t = VACheckType(*ppNorm);
  // The character row is rewritten by concurrent calls: read it as they write it.
  SI2 host = __atomic_load_n(&p2APL[t], __ATOMIC_RELAXED);
  VATYPES target = (VATYPES)p2VA[host];
  PAA pRes;
  rc = VAConv(*ppNorm, target, &pRes);
  if (!rc) {
    VAFree(*ppNorm);
    *ppNorm = pRes;
  }
  PAA p = *ppNorm;
  if (rc) return rc;
  UI4 n = VAElems(p);
  if (p->type == VAHet) {
    for (UI4 i = 0; i < n && !rc; i++) {
      if (VAHetType(p, i) != VAPntr) continue;
      PAA child = VAHetChild(p, i);
      rc = VANorm(&child, p2VA, p2APL);
      VASetHetCell(p, i, VAPntr, &child, sizeof(PAA));
    }
  } else if (p->type == VAPntr || p->type == VABoxd) {
    for (UI4 i = 0; i < n && !rc; i++) {
      PAA child = VASlot(p, i);
      rc = VANorm(&child, p2VA, p2APL);
      VASetSlot(p, i, child);
    }
  }
  return rc;
}
