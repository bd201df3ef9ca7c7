// Reading elements. Every getter answers from the element's real type,
// looking through pointer slots and heterogeneous cells, and refuses the
// conversions that would lose or invent information.
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "cdecf.h"
#include "log.h"
#include "orvanenaz.h"
#include "pelkoerr.h"
#include "vapl.h"
#include "vatrans.h"

#define MODULE 0x08000000

template <typename T>
static T Read(const void* p) {
  T v;
  memcpy(&v, p, sizeof(T));
  return v;
}

static PCH1 Elem(PAA pAA, UI4 index, UI4 size) { return (PCH1)VADATA(pAA) + index * size; }

// A child that holds exactly one element. Containers pass with an empty
// shape too: their prototype is the element.
static bool OneElement(PAA child) {
  if (!child) return false;
  UI4 n = VAShapeProduct(child);
  return n == 1 || (n == 0 && VAHoldsPointers(child->type));
}

// The single-element test of the text functions: a character child of any
// length passes, since a text counts as one element.
static bool TextElement(PAA child) { return child && (child->type == VAC1 || OneElement(child)); }

static bool IsText(UI4 type) { return type == VAC1 || type == VAC2 || type == VAC4; }

// The integer test. The bounds are those of a 64-bit integer while the store
// is 32 bits wide: a value out of 32-bit range stores what the processor's
// truncating conversion gives for it, the indefinite integer.
static SI4 IntTest(F8 x, SI4* out) {
  F8 whole;
  F8 frac = modf(x, &whole);
  if (std::isnan(frac) || frac != 0.0) return ERR_APL_DOMAIN;
  if (whole < -9.223372036854776e18 || whole > 9.223372036854776e18) return ERR_APL_DOMAIN;
  if (out) *out = (whole >= -2147483648.0 && whole <= 2147483647.0) ? (SI4)whole : INT32_MIN;
  return 0;
}

static SI4 HetSI4(PAA pAA, UI4 index, SI4* plVal) {
  SI4 tag = VAHetType(pAA, index);
  PCH1 p = (PCH1)VAHetData(pAA, index);
  switch (tag) {
    case VABit: *plVal = ((UI1)p[0] >> 7) & 1; return 0;
    case VAI1: *plVal = (SI1)p[0]; return 0;
    case VAI2: *plVal = Read<SI2>(p); return 0;
    case VAI4: *plVal = Read<SI4>(p); return 0;
    case VAF8: return IntTest(Read<F8>(p), plVal);
    case VAPntr: {
      PAA child = Read<PAA>(p);
      if (!OneElement(child)) return ERR_APL_INDEX;
      return VAGetSI4(child, 0, plVal);
    }
    default: return ERR_APL_DOMAIN;
  }
}

static SI4 DecimalSI4(PAA pAA, UI4 index, SI4* plVal) {
  F16* p = (F16*)Elem(pAA, index, 16);
  bool dpd = pAA->type == VADpd;
  F8 d;
  if ((dpd ? dpdToF8(p, &d) : bidToF8(p, &d)) != 0) return ERR_APL_DOMAIN;
  SI4 rc = IntTest(d, nullptr);
  if (rc) return rc;
  return dpd ? dpdToSI4(p, plVal) : bidToSI4(p, plVal);
}

SI4 VAGetSI4(PAA pAA, UI4 index, SI4* plVal) {
  *plVal = 0;
  if (!pAA) return ERR_APL_VALUE;  // an absent argument
  if (index >= VAElems(pAA)) return ERR_APL_LENGTH;
  PCH1 d = (PCH1)VADATA(pAA);
  switch (pAA->type) {
    case VABit: *plVal = ((UI1)d[index / 8] >> (7 - index % 8)) & 1; return 0;
    case VAI1: *plVal = (SI1)d[index]; return 0;
    case VAI2: *plVal = Read<SI2>(d + 2 * index); return 0;
    case VAI4: *plVal = Read<SI4>(d + 4 * index); return 0;
    case VAApvI4:
      *plVal = (SI4)(index * (UI4)Read<SI4>(d + 4) + (UI4)Read<SI4>(d));
      return 0;
    case VAF8: return IntTest(Read<F8>(d + 8 * index), plVal);
    case VAApvF8: return IntTest((F8)index * Read<F8>(d + 8) + Read<F8>(d), plVal);
    case VA2F8:
      if (!(Read<F8>(d + 16 * index + 8) == 0.0)) return ERR_APL_DOMAIN;
      return IntTest(Read<F8>(d + 16 * index), plVal);
    case VAPntr: {
      PAA child = VASlot(pAA, index);
      if (!OneElement(child)) return ERR_APL_INDEX;
      return VAGetSI4(child, 0, plVal);
    }
    case VAHet: return HetSI4(pAA, index, plVal);
    case VADpd:
    case VABid: return DecimalSI4(pAA, index, plVal);
    default: return ERR_APL_DOMAIN;
  }
}

static SI4 WidenSI4(PAA pAA, UI4 index, F8* pdVal) {
  SI4 v;
  SI4 rc = VAGetSI4(pAA, index, &v);
  if (!rc) *pdVal = v;
  return rc;
}

static SI4 ChildF8(PAA child, F8* pdVal) {
  if (!OneElement(child)) return ERR_APL_INDEX;
  return VAGetF8(child, 0, pdVal);
}

SI4 VAGetF8(PAA pAA, UI4 index, F8* pdVal) {
  *pdVal = 0;
  if (!pAA) return ERR_APL_VALUE;  // an absent argument
  if (index >= VAElems(pAA)) return ERR_APL_LENGTH;
  PCH1 d = (PCH1)VADATA(pAA);
  switch (pAA->type) {
    case VABit:
    case VAI1:
    case VAI2:
    case VAI4:
    case VAApvI4: return WidenSI4(pAA, index, pdVal);
    case VAF8: *pdVal = Read<F8>(d + 8 * index); return 0;
    case VA2F8:
      if (!(Read<F8>(d + 16 * index + 8) == 0.0)) return ERR_APL_DOMAIN;
      *pdVal = Read<F8>(d + 16 * index);
      return 0;
    case VAApvF8: *pdVal = (F8)index * Read<F8>(d + 8) + Read<F8>(d); return 0;
    case VAPntr: return ChildF8(VASlot(pAA, index), pdVal);
    case VAHet: {
      SI4 tag = VAHetType(pAA, index);
      if (tag >= VABit && tag <= VAI4) return WidenSI4(pAA, index, pdVal);
      if (tag == VAF8) {
        *pdVal = Read<F8>(VAHetData(pAA, index));
        return 0;
      }
      if (tag == VAPntr) return ChildF8(VAHetChild(pAA, index), pdVal);
      return ERR_APL_DOMAIN;
    }
    case VADpd: return dpdToF8((F16*)Elem(pAA, index, 16), pdVal);
    case VABid: return bidToF8((F16*)Elem(pAA, index, 16), pdVal);
    default: return ERR_APL_DOMAIN;
  }
}

enum NumberKind { NotNumber, IntNumber, FloatNumber, DecNumber };

static NumberKind KindOf(UI4 type) {
  switch (type) {
    case VABit: case VAI1: case VAI2: case VAI4: case VAApvI4: return IntNumber;
    case VAF8: case VA2F8: case VAApvF8: return FloatNumber;
    case VADpd: case VABid: return DecNumber;
    default: return NotNumber;
  }
}

// Element index as a number of the given kind: printed into pBuf, which a
// text and its terminator must fit rather than overrun, or with pBuf null
// only measured into *pLen, the terminator counted for integers when
// intZero. A decimal always measures as the widest decimal text.
static SI4 FormatNumber(PAA pAA, UI4 index, NumberKind kind, PCH1 pBuf, UI4 len, UI4* pLen,
                        bool intZero) {
  char text[64];
  int n;
  if (kind == IntNumber) {
    SI4 v;
    SI4 rc = VAGetSI4(pAA, index, &v);
    if (rc) return rc;
    n = snprintf(text, sizeof(text), "%d", v);
  } else if (kind == FloatNumber) {
    F8 v;
    SI4 rc = VAGetF8(pAA, index, &v);
    if (rc) return rc;
    n = snprintf(text, sizeof(text), "%G", v);
  } else {
    if (!pBuf) {
      *pLen = MaxDecfStrLen();
      return 0;
    }
    F16* p = (F16*)Elem(pAA, index, 16);
    return pAA->type == VADpd ? dpdToCH1(p, pBuf, len) : bidToCH1(p, pBuf, len);
  }
  if (!pBuf) {
    *pLen = (UI4)n + (kind == IntNumber && intZero ? 1 : 0);
    return 0;
  }
  if ((UI4)n >= len) return ERR_APL_LENGTH;
  memcpy(pBuf, text, (size_t)n + 1);
  return 0;
}

static SI4 NumberLen(PAA pAA, UI4 index, NumberKind kind, UI4* pLen) {
  return FormatNumber(pAA, index, kind, nullptr, 0, pLen, true);
}

static SI4 NumberText(PAA pAA, UI4 index, NumberKind kind, PCH1 pBuf, UI4 len) {
  return FormatNumber(pAA, index, kind, pBuf, len, nullptr, false);
}

// The one character of a heterogeneous cell, with a terminator and
// translation when asked.
static SI4 HetChar(PAA pAA, UI4 index, PCH1 pBuf, UI4 len, SI2 text) {
  if (len < (text ? 2u : 1u)) return ERR_APL_LENGTH;
  pBuf[0] = *(PCH1)VAHetData(pAA, index);
  if (text) {
    pBuf[1] = 0;
    VA2ascn(pBuf, 1);
  }
  return 0;
}

static SI4 HetLen(PAA pAA, UI4 index, UI4* pLen, SI2 text) {
  SI4 tag = VAHetType(pAA, index);
  if (tag == VAC1) {
    *pLen = text ? 2 : 1;
    return 0;
  }
  if (tag >= VABit && tag <= VAF8) {
    if (!text) return ERR_APL_DOMAIN;
    *pLen = 30;
    return 0;
  }
  if (tag == VAPntr) {
    PAA child = VAHetChild(pAA, index);
    return child ? VAGetLen(child, 0, pLen, text) : ERR_APL_LENGTH;
  }
  return ERR_APL_DOMAIN;
}

SI4 VAGetLen(PAA pAA, UI4 index, UI4* pLen, SI2 text) {
  if (!pAA) return ERR_APL_VALUE;  // an absent argument
  UI4 count = VAElems(pAA);
  if (pAA->type != VAC1 && index >= count) return ERR_APL_LENGTH;
  if (pAA->type == VAC1) {
    if (pAA->rank > 1) return ERR_APL_RANK;
    if (index != 0) return ERR_APL_DOMAIN;
    *pLen = count + (text ? 1 : 0);
    return 0;
  }
  NumberKind kind = KindOf(pAA->type);
  if (kind != NotNumber) return text ? NumberLen(pAA, index, kind, pLen) : ERR_APL_DOMAIN;
  if (pAA->type == VAPntr) {
    PAA child = VASlot(pAA, index);
    if (!TextElement(child)) return ERR_APL_LENGTH;
    return VAGetLen(child, 0, pLen, text);
  }
  if (pAA->type == VAHet) return HetLen(pAA, index, pLen, text);
  return ERR_APL_DOMAIN;
}

static SI4 HetCH1(PAA pAA, UI4 index, PCH1 pBuf, UI4 len, SI2 text) {
  SI4 tag = VAHetType(pAA, index);
  if (tag == VAC1) return HetChar(pAA, index, pBuf, len, text);
  if (tag >= VABit && tag <= VAF8) {
    if (!text) return ERR_APL_DOMAIN;
    return NumberText(pAA, index, tag == VAF8 ? FloatNumber : IntNumber, pBuf, len);
  }
  if (tag == VAPntr) {
    PAA child = VAHetChild(pAA, index);
    return child ? VAGetCH1(child, 0, pBuf, len, text) : ERR_APL_LENGTH;
  }
  return ERR_APL_DOMAIN;
}

SI4 VAGetCH1(PAA pAA, UI4 index, PCH1 pBuf, UI4 len, SI2 text) {
  if (!pAA) return ERR_APL_VALUE;  // an absent argument
  UI4 count = VAElems(pAA);
  if (pAA->type != VAC1 && index >= count) return ERR_APL_LENGTH;
  if (pAA->type == VAC1) {
    if (pAA->rank > 1) return ERR_APL_RANK;
    if ((int64_t)len - (text ? 1 : 0) < (int64_t)count) return ERR_APL_LENGTH;
    if (index != 0) return ERR_APL_DOMAIN;
    memcpy(pBuf, VADATA(pAA), count);
    if (text) {
      pBuf[count] = 0;
      VA2ascn(pBuf, count);
    }
    return 0;
  }
  NumberKind kind = KindOf(pAA->type);
  if (kind != NotNumber) return text ? NumberText(pAA, index, kind, pBuf, len) : ERR_APL_DOMAIN;
  if (pAA->type == VAPntr) {
    PAA child = VASlot(pAA, index);
    if (!TextElement(child)) return ERR_APL_LENGTH;
    return VAGetCH1(child, 0, pBuf, len, text);
  }
  if (pAA->type == VAHet) return HetCH1(pAA, index, pBuf, len, text);
  return ERR_APL_DOMAIN;
}

SI4 VAGetCH1m(PAA pAA, UI4 index, PCH1* ppStr, SI2 text) {
  *ppStr = nullptr;
  UI4 len = 0;
  SI4 rc = VAGetLen(pAA, index, &len, text);
  if (!rc) {
    LOG(3, ("VAGetCH1m len %lu", (UL)len));
    // A float's length leaves out its terminator; the margin covers it.
    *ppStr = (PCH1)malloc((size_t)len + 5);
    if (!*ppStr) rc = ERR_APL_ALLOC;
  }
  if (!rc) rc = VAGetCH1(pAA, index, *ppStr, len + 5, text);
  if (rc) {
    LOG(2, ("VAGetCH1m error %ld", (long)rc));
    free(*ppStr);
    *ppStr = nullptr;
  }
  return rc;
}

SI4 VANarrowI2(const char* src, UI4 n, UI1* out) {
  for (UI4 i = 0; i < n; i++) {
    SI2 v = Read<SI2>(src + 2 * i);
    if (v < -128 || v > 255) return ERR_DOMAIN;
    out[i] = (UI1)v;
  }
  return 0;
}

SI4 VAGetBytes(PAA pAA, UI1* pb, UI4* plen) {
  if (!pAA) return ERR_APL_VALUE;  // an absent argument
  UI4 count = VAElems(pAA);
  UI4 type = pAA->type;
  if (!pb && (type == VAC1 || type == VAI1 || type == VAI2)) {
    *plen = count;
    return 0;
  }
  if (*plen < count) return ERR_LENGTH;
  if (!pb) return ERR_DOMAIN;
  if (type == VAI2) return VANarrowI2((PCH1)VADATA(pAA), count, pb);
  if (type == VAC1) {
    memcpy(pb, VADATA(pAA), count);
    VA2ascn((PCH1)pb, count);
    return 0;
  }
  if (type == VAI1) {
    memcpy(pb, VADATA(pAA), count);
    return 0;
  }
  return ERR_DOMAIN;
}

// The encoding a one-byte character array is read in: Unicode for Unicode
// hosts, the classic set otherwise.
static UNICODETYPES CharSet1() { return isUnicode() ? UCS1 : C1AV; }

// Source encoding and byte length of a character array's data.
static UNICODETYPES TextSource(PAA pAA, UI4 count, UI4* pBytes) {
  switch (pAA->type) {
    case VAC2: *pBytes = 2 * count; return UCS2;
    case VAC4: *pBytes = 4 * count; return UCS4;
    default: *pBytes = count; return CharSet1();
  }
}

static SI4 HetUnicodeLen(PAA pAA, UI4 index, UI4* plen, SI2 term) {
  SI4 tag = VAHetType(pAA, index);
  if (tag >= VABit && tag <= VAF8)
    return FormatNumber(pAA, index, tag == VAF8 ? FloatNumber : IntNumber, nullptr, 0, plen, false);
  if (tag == VAC1) {
    *plen = 1;
    return 0;
  }
  if (tag == VAPntr) {
    PAA child = VAHetChild(pAA, index);
    return child ? VAGetLen(child, 0, plen, term) : ERR_APL_LENGTH;
  }
  return ERR_APL_DOMAIN;
}

// Any other element goes through its narrow text.
static SI4 NarrowText(PAA pAA, UI4 index, SI2 term, char* buffer, UI4* pLen) {
  SI4 rc = VAGetCH1(pAA, index, buffer, 80, term);
  if (rc) return rc;
  *pLen = (UI4)strnlen(buffer, 80);
  return 0;
}

SI4 VAGetUnicodeLen(PAA pAA, UI4 index, UI4* plen, UNICODETYPES type, SI2 term) {
  *plen = 0;
  if (!pAA) return ERR_APL_VALUE;  // an absent argument
  UI4 count = VAElems(pAA);
  if (!IsText(pAA->type) && index >= count) return ERR_APL_LENGTH;
  if (IsText(pAA->type)) {
    if (pAA->rank > 1) return ERR_APL_RANK;
    UI4 bytes;
    UNICODETYPES from = TextSource(pAA, count, &bytes);
    return ConvUnicodeM(type, nullptr, plen, from, (UI1*)VADATA(pAA), bytes, term);
  }
  if (pAA->type == VAPntr) {
    PAA child = VASlot(pAA, index);
    if (!child || (!IsText(child->type) && !OneElement(child))) return ERR_APL_LENGTH;
    return VAGetUnicodeLen(child, 0, plen, type, term);
  }
  if (pAA->type == VAHet) return HetUnicodeLen(pAA, index, plen, term);
  char buffer[80] = {0};
  UI4 n;
  SI4 rc = NarrowText(pAA, index, term, buffer, &n);
  return rc ? rc : ConvUnicodeM(type, nullptr, plen, UCS1, (UI1*)buffer, n, term);
}

// What comes out of a heterogeneous cell is plain narrow text, whatever
// encoding was asked for.
static SI4 HetUnicode(PAA pAA, UI4 index, PCH1 pBuf, UI4 len, SI2 term) {
  SI4 tag = VAHetType(pAA, index);
  if (tag >= VABit && tag <= VAF8)
    return NumberText(pAA, index, tag == VAF8 ? FloatNumber : IntNumber, pBuf, len);
  if (tag == VAC1) return HetChar(pAA, index, pBuf, len, 1);
  if (tag == VAPntr) {
    PAA child = VAHetChild(pAA, index);
    return child ? VAGetCH1(child, 0, pBuf, len, term) : ERR_APL_LENGTH;
  }
  return ERR_APL_DOMAIN;
}

SI4 VAGetUnicode(PAA pAA, UI4 index, PCH1 pBuf, UI4 len, UNICODETYPES type, SI2 term) {
  if (!pAA) return ERR_APL_VALUE;  // an absent argument
  UI4 count = VAElems(pAA);
  if (!IsText(pAA->type) && index >= count) return ERR_APL_LENGTH;
  if (IsText(pAA->type)) {
    if (pAA->rank > 1) return ERR_APL_RANK;
    if (index != 0) return ERR_APL_DOMAIN;
    UI4 bytes;
    UNICODETYPES from = TextSource(pAA, count, &bytes);
    return ConvUnicode(type, (UI1*)pBuf, len, from, (UI1*)VADATA(pAA), bytes, term);
  }
  if (pAA->type == VAPntr) {
    PAA child = VASlot(pAA, index);
    if (!child || (!IsText(child->type) && !OneElement(child))) return ERR_APL_LENGTH;
    return VAGetUnicode(child, 0, pBuf, len, type, term);
  }
  if (pAA->type == VAHet) return HetUnicode(pAA, index, pBuf, len, term);
  char buffer[80] = {0};
  UI4 n;
  SI4 rc = NarrowText(pAA, index, term, buffer, &n);
  return rc ? rc : ConvUnicode(type, (UI1*)pBuf, len, UCS1, (UI1*)buffer, n, term);
}

static SI4 NewScalarSI4(SI4 v, PPAA ppAA) {
  PAA p = VANewScalar(VAI4);
  if (!p) return ERR_MEMORY_ALLOC;
  memcpy(VADATA(p), &v, 4);
  *ppAA = p;
  return 0;
}

static SI4 NewScalarF8(F8 v, PPAA ppAA) {
  PAA p = VANewScalar(VAF8);
  if (!p) return ERR_MEMORY_ALLOC;
  memcpy(VADATA(p), &v, 8);
  *ppAA = p;
  return 0;
}

static SI4 ShareChild(PAA child, PPAA ppAA) {
  // An empty slot has no value to hand out.
  if (!child) return ERR_APL_VALUE;
  VAIncRef(child);
  *ppAA = child;
  return 0;
}

static SI4 ScalarOf(PAA pAA, UI4 index, bool isFloat, PPAA ppAA) {
  if (isFloat) {
    F8 v;
    SI4 rc = VAGetF8(pAA, index, &v);
    return rc ? rc : NewScalarF8(v, ppAA);
  }
  SI4 v;
  SI4 rc = VAGetSI4(pAA, index, &v);
  return rc ? rc : NewScalarSI4(v, ppAA);
}

SI4 VAGetpAA(PAA pAA, UI4 index, PPAA ppAA) {
  *ppAA = nullptr;
  if (!pAA) return ERR_APL_VALUE;  // an absent argument
  if (index >= VAElems(pAA)) return ERR_APL_LENGTH;
  switch (pAA->type) {
    case VAPntr: return ShareChild(VASlot(pAA, index), ppAA);
    case VABit: case VAI1: case VAI2: case VAI4: case VAApvI4:
      return ScalarOf(pAA, index, false, ppAA);
    case VAF8: case VA2F8: case VAApvF8: return ScalarOf(pAA, index, true, ppAA);
    case VAHet: {
      SI4 tag = VAHetType(pAA, index);
      if (tag == VAPntr) return ShareChild(VAHetChild(pAA, index), ppAA);
      if (tag >= VABit && tag <= VAI4) return ScalarOf(pAA, index, false, ppAA);
      if (tag == VAF8) return ScalarOf(pAA, index, true, ppAA);
      if (tag != VAC1) return ERR_APL_DOMAIN;
      // The character passes through both translations.
      char c[2];
      SI4 rc = VAGetCH1(pAA, index, c, 2, 1);
      if (rc) return rc;
      PAA p = VANewScalar(VAC1);
      if (!p) return ERR_MEMORY_ALLOC;
      VASetCH1(p, 0, c, 1, 1);
      *ppAA = p;
      return 0;
    }
    default: return ERR_APL_DOMAIN;
  }
}
