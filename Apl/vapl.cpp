// Allocation, release and read-only access of the array record.
#include "vapl.h"

#include <cassert>
#include <cstdlib>
#include <cstring>

#define MODULE 0x08000000

const UI2 VAsize[VATypeCount] = {
    0,   // VANoType
    1,   // VABit
    8,   // VAI1
    16,  // VAI2
    32,  // VAI4
    64,  // VAF8
    128, // VA2F8
    64,  // VAApvI4: start and step
    128, // VAApvF8: start and step
    8,   // VAC1
    16,  // VAC2
    32,  // VAC4
    64,  // VAPntr
    80,  // VAHet: 10-byte cells
    64,  // VABoxd
    64,  // VAI8
    128, // VADpd
    128, // VABid
};

// Words of padding in front of the record, so that floating data sit on 8
// bytes and decimal data on 16, given a 16-byte aligned block. Decimal ranks
// 6 to 8 would need a negative count by the same rule; they get none and
// stay 4-byte aligned, which is all an unaligned-safe reader needs.
static UI4 AlignWords(UI4 type, UI4 rank) {
  switch (type) {
    case VAF8:
    case VA2F8:
    case VAApvF8:
      return (rank % 2 == 0) ? 1 : 0;
    case VADpd:
    case VABid: {
      SI4 w = (5 - (SI4)rank) % 4;
      return w < 0 ? 0 : (UI4)w;
    }
    default:
      return 0;
  }
}

bool VAHoldsPointers(UI4 type) { return type == VAPntr || type == VAHet || type == VABoxd; }

PAA VANew(VATYPES type, UI2 rank, UI4* pShape) {
  UI4 t = (UI4)type & 0xFF;
  // No data to size for an untyped or unknown record: refuse it.
  if (t == VANoType || t >= VATypeCount) return nullptr;
  UI4 count = 1;
  for (UI4 i = 0; i < rank; i++) count *= pShape[i];
  if (count == 0 && VAHoldsPointers(t)) count = 1;
  UI4 bits = VAsize[t];
  if (0xFFFFFFFFu / bits < count) return nullptr;
  UI4 dataBits = (t == VAApvI4 || t == VAApvF8) ? bits : bits * count;
  // The record size is summed in 64 bits, so a size right at the limit can't
  // wrap into a record smaller than its shape.
  UI8 words = (32ull * (rank + 3) + dataBits + 31) / 32;
  if (words > 0xFFFFFFFFull / 4) return nullptr;
  UI4 align = AlignWords(t, rank);
  size_t bytes = (size_t)(words + align) * 4;
  PCH1 block = (PCH1)malloc(bytes);
  if (!block) return nullptr;
  memset(block, 0, bytes);
  PAA pAA = (PAA)(block + align * 4);
  pAA->refcount = 1;
  pAA->rank = rank;
  pAA->length = (UI4)(words * 4);
  pAA->type = (UI2)t;
  if (rank) memcpy(pAA->shape, pShape, rank * sizeof(UI4));
  return pAA;
}

PAA VAFree(PAA pAA) {
  if (!pAA) return nullptr;
  assert(VARefCount(pAA)!=0);
  if (--pAA->refcount != 0) return nullptr;
  UI4 n = VAElems(pAA);
  if (pAA->type == VAPntr) {
    for (UI4 i = 0; i < n; i++) VAFree(VASlot(pAA, i));
  } else if (pAA->type == VAHet) {
    for (UI4 i = 0; i < n; i++)
      if (VAHetType(pAA, i) == VAPntr) VAFree(VAHetChild(pAA, i));
  }
  free((PCH1)pAA - AlignWords(pAA->type, pAA->rank) * 4);
  return nullptr;
}

PVOID VAData(PAA pAA) { return VADATA(pAA); }
VATYPES VAType(PAA pAA) { return (VATYPES)pAA->type; }
UI2 VARank(PAA pAA) { return pAA->rank; }
PUI4 VAShape(PAA pAA) { return pAA->shape; }
UI4 VALength(PAA pAA) { return pAA->length; }
UI4 VADataLength(PAA pAA) { return pAA->length - (12 + 4 * pAA->rank); }
UI4 VAIncRef(PAA pAA) { return ++pAA->refcount; }
UI4 VARefCount(PAA pAA) { return pAA->refcount; }

UI4 VAShapeProduct(PAA pAA) {
  UI4 n = 1;
  for (UI4 i = 0; i < pAA->rank; i++) n *= pAA->shape[i];
  return n;
}

UI4 VAElems(PAA pAA) {
  UI4 n = VAShapeProduct(pAA);
  if (n == 0 && VAHoldsPointers(pAA->type)) n = 1;
  return n;
}

SI4 VAHetType(PAA pAA, UI4 index) {
  return (SI4)(SI1)((PCH1)VADATA(pAA))[10 * index];
}

PVOID VAHetData(PAA pAA, UI4 index) { return (PCH1)VADATA(pAA) + 10 * index + 2; }

PAA VASlot(PAA pAA, UI4 index) {
  PAA child;
  memcpy(&child, (PCH1)VADATA(pAA) + index * sizeof(PAA), sizeof(PAA));
  return child;
}

void VASetSlot(PAA pAA, UI4 index, PAA pSub) {
  memcpy((PCH1)VADATA(pAA) + index * sizeof(PAA), &pSub, sizeof(PAA));
}

PAA VAHetChild(PAA pAA, UI4 index) {
  PAA child;
  memcpy(&child, VAHetData(pAA, index), sizeof(PAA));
  return child;
}

// The payload is cleared first, so a narrow value leaves no trace of the
// cell's former contents.
void VASetHetCell(PAA pAA, UI4 index, SI4 tag, const void* payload, UI4 size) {
  PCH1 cell = (PCH1)VADATA(pAA) + 10 * index;
  memset(cell, 0, 10);
  cell[0] = (char)tag;
  memcpy(cell + 2, payload, size);
}

PAA VANewVector(VATYPES type, UI4 n) { return VANew(type, 1, &n); }

PAA VANewScalar(VATYPES type) { return VANew(type, 0, nullptr); }

PAA VAIntVector(const SI4* p, UI4 n) {
  PAA pAA = VANewVector(VAI4, n);
  if (pAA && n) memcpy(VADATA(pAA), p, n * sizeof(SI4));
  return pAA;
}

PAA VARc(SI4 rc) { return VAIntVector(&rc, 1); }

PAA VAText(const char* text) {
  UI4 n = (UI4)strlen(text);
  PAA p = VANewVector(VAC1, n);
  if (p && n) memcpy(VADATA(p), text, n);
  return p;
}

PAA VAInt(SI4 value) {
  PAA p = VANewScalar(VAI4);
  if (p) *(PSI4)VADATA(p) = value;
  return p;
}

PAA VANested(std::initializer_list<PAA> items) {
  bool ok = true;
  for (PAA p : items) ok = ok && p;
  PAA r = ok ? VANewVector(VAPntr, (UI4)items.size()) : nullptr;
  UI4 i = 0;
  for (PAA p : items) {
    if (r)
      VASetSlot(r, i++, p);
    else
      VAFree(p);
  }
  return r;
}
