// The array record: the one value type of the library. A record is a header
// (length, reference count, type, rank, shape) with the data straight behind
// the shape, all in one block.
#pragma once

#include "taltypes.h"

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
