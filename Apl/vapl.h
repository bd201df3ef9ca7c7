// The array record: the one value type of the library. A record is a header
// (length, reference count, type, rank, shape) with the data straight behind
// the shape, all in one block.
#pragma once

#include <initializer_list>

#include "taltypes.h"
#include "vaunicod.h"

#define VAPL_VERSION 0x010000

enum VATYPES : UI2 {
  VANoType = 0,
  VABit = 1,
  VAI1 = 2,
  VAI2 = 3,
  VAI4 = 4,
  VAF8 = 5,
  VA2F8 = 6,
  VAApvI4 = 7,
  VAApvF8 = 8,
  VAC1 = 9,
  VAC2 = 10,
  VAC4 = 11,
  VAPntr = 12,
  VAHet = 13,
  VABoxd = 14,
  VAI8 = 15,
  VADpd = 16,
  VABid = 17,
  VATypeCount = 18
};

typedef struct VARRAY {
  UI4 length;    // header plus data in bytes, whole 32-bit words
  UI4 refcount;  // owners; 1 on creation
  UI2 type;      // VATYPES
  UI2 rank;
  UI4 shape[1];  // really rank long; the data follow shape[rank]
} VARRAY;
typedef VARRAY* PAA;
typedef PAA* PPAA;

// Element sizes in bits, indexed by type.
extern const UI2 VAsize[VATypeCount];

#define VABIN 0
#define VACHAR 1
#define VAZEROTERM ((UI4)-1)

#define VADATA(pAA) ((PVOID)(&(pAA)->shape[(pAA)->rank]))
#define VAADD(pAA, off) ((PVOID)(((PCH1)(pAA)) + (off)))
#define VAELEMS(pAA) VAElems(pAA)
#define VALENGHT(pAA) ((pAA)->length)
#define VARANK(pAA) ((pAA)->rank)
#define VAREFCOUNT(pAA) ((pAA)->refcount)
#define VASHAPE(pAA) ((pAA)->shape)
#define VATYPE(pAA) ((pAA)->type)

PAA VANew(VATYPES type, UI2 rank, UI4* pShape);
PAA VAFree(PAA pAA);

PVOID VAData(PAA pAA);
VATYPES VAType(PAA pAA);
UI2 VARank(PAA pAA);
PUI4 VAShape(PAA pAA);
UI4 VAElems(PAA pAA);
UI4 VALength(PAA pAA);
UI4 VADataLength(PAA pAA);
SI4 VAHetType(PAA pAA, UI4 index);
PVOID VAHetData(PAA pAA, UI4 index);
UI4 VAIncRef(PAA pAA);
UI4 VARefCount(PAA pAA);

// Convenience constructors used across the library.
PAA VANewVector(VATYPES type, UI4 n);   // rank 1
PAA VANewScalar(VATYPES type);          // rank 0
PAA VAIntVector(const SI4* p, UI4 n);   // VAI4 vector holding p[0..n)
PAA VARc(SI4 rc);                       // one-element VAI4 vector: a verb's code
PAA VAText(const char* text);           // VAC1 vector of a zero-terminated text
PAA VAInt(SI4 value);                   // VAI4 scalar
// A nested vector of the elements given, each reference taken over. Null if
// any of them is null or allocation fails; then all of them are released.
PAA VANested(std::initializer_list<PAA> items);

// Element access (vaget.cpp, vaset.cpp). Each returns 0 or an ERR_ code.
// index is a flat index in ravel order; a character vector counts as one
// element for the text functions, at index 0. With text (VACHAR) numbers may
// be read as text, and texts are zero-terminated and translated.
SI4 VAGetSI4(PAA pAA, UI4 index, SI4* plVal);
SI4 VAGetF8(PAA pAA, UI4 index, F8* pdVal);
SI4 VAGetLen(PAA pAA, UI4 index, UI4* pLen, SI2 text);
SI4 VAGetCH1(PAA pAA, UI4 index, PCH1 pBuf, UI4 len, SI2 text);
SI4 VAGetCH1m(PAA pAA, UI4 index, PCH1* ppStr, SI2 text);
SI4 VAGetBytes(PAA pAA, UI1* pb, UI4* plen);
// 2-byte integers as bytes: each must lie in -128..255, else ERR_DOMAIN.
// out may be src itself: each byte lands at or before the pair it came from.
SI4 VANarrowI2(const char* src, UI4 n, UI1* out);
SI4 VAGetUnicodeLen(PAA pAA, UI4 index, UI4* plen, UNICODETYPES type, SI2 term);
SI4 VAGetUnicode(PAA pAA, UI4 index, PCH1 pBuf, UI4 len, UNICODETYPES type, SI2 term);
SI4 VAGetpAA(PAA pAA, UI4 index, PPAA ppAA);
SI4 VASetSI4(PAA pAA, UI4 index, SI4 val);
SI4 VASetF8(PAA pAA, UI4 index, F8 val);
SI4 VASetCH1(PAA pAA, UI4 index, PCH1 pBuf, UI4 len, SI2 text);
SI4 VASetUnicode(PAA pAA, UI4 index, PCH1 pBuf, UI4 len, UNICODETYPES type);
// The slot takes over the caller's reference to pSub.
SI4 VASetpAA(PAA pAA, UI4 index, PAA pSub);

// Slots of pointer arrays and pointer cells of heterogeneous arrays, read
// and written unaligned.
PAA VASlot(PAA pAA, UI4 index);
void VASetSlot(PAA pAA, UI4 index, PAA pSub);
PAA VAHetChild(PAA pAA, UI4 index);
void VASetHetCell(PAA pAA, UI4 index, SI4 tag, const void* payload, UI4 size);
bool VAHoldsPointers(UI4 type);
// Product of the shape, with no raise for a prototype.
UI4 VAShapeProduct(PAA pAA);

// Conversion and normal form (vaconv.cpp).
SI4 VAEndType(PAA pAA);
SI4 VACheckType(PAA pAA);
SI4 VAConv(PAA pSrc, VATYPES newType, PPAA ppRes);
SI4 convdata(PAA pDest, PAA pSrc);
// Replaces *ppNorm by its normal form for the host, recursively. p2VA and
// p2APL are the host type maps Orvane2VA and VA2Orvane.
SI4 VANorm(PPAA ppNorm, SI2* p2VA, SI2* p2APL);
