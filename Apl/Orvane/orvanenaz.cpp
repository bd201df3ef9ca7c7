// Packing and unpacking host records. Marshalling is a straight copy: the
// element data of a simple array move with one memcpy each way.
#include "orvanenaz.h"

#include <fcntl.h>
#include <strings.h>

#include <cassert>
#ifdef __SSE2__
#include <emmintrin.h>
#endif
#include <cstdlib>
#include <cstring>

#include "log.h"
#include "pelkoerr.h"
#include "talplat.h"
#include "vatrans.h"
#include "vaunicod.h"

#define MODULE 0x20000000

SI2 Orvane2VA[15] = {
    VAC1,     // 0: classic characters
    VABit,    // 1
    VAI1,     // 2
    VAI2,     // 3
    VAI4,     // 4
    VAF8,     // 5
    VAPntr,   // 6: nested
    VAC1,     // 7: one-byte Unicode
    VAC2,     // 8
    VAC4,     // 9
    VA2F8,    // 10: complex
    VANoType, // 11
    VADpd,    // 12
    VANoType, // 13
    VABid,    // 14
};

SI2 VA2Orvane[18] = {
    0,  // VANoType
    1,  // VABit
    2,  // VAI1
    3,  // VAI2
    4,  // VAI4
    5,  // VAF8
    5,  // VA2F8
    4,  // VAApvI4
    5,  // VAApvF8
    7,  // VAC1: rewritten by every call, 7 for Unicode callers, 0 for classic
    8,  // VAC2
    9,  // VAC4
    6,  // VAPntr
    6,  // VAHet
    6,  // VABoxd
    5,  // VAI8
    12, // VADpd
    14, // VABid
};

// The packed integer scalar, ZHEADER without the Unicode bit.
static const UI1 scalarZ[32] = {
    0x00, 0x00, 0x00, 0x20, 0x00, 0x00, 0x00, 0xA0, 0x04, 0, 0, 0, 0, 0, 0, 0,
    0x0F, 0x04, 0,    0,    0,    0,    0,    0,    0,    0, 0, 0, 0, 0, 0, 0};

UI4 GetBE32(const void* p) {
  const UI1* b = (const UI1*)p;
  return ((UI4)b[0] << 24) | ((UI4)b[1] << 16) | ((UI4)b[2] << 8) | b[3];
}

void PutBE32(void* p, UI4 v) {
  UI1* b = (UI1*)p;
  b[0] = (UI1)(v >> 24);
  b[1] = (UI1)(v >> 16);
  b[2] = (UI1)(v >> 8);
  b[3] = (UI1)v;
}

// The character row is process-wide and rewritten from any calling thread;
// callers in one process agree on Unicode, so a relaxed store is enough.
void SetUnicode(bool unicode) {
  __atomic_store_n(&VA2Orvane[VAC1], (SI2)(unicode ? 7 : 0), __ATOMIC_RELAXED);
}

SI4 isUnicode() { return __atomic_load_n(&VA2Orvane[VAC1], __ATOMIC_RELAXED) == 7; }

static SI2 HostType(UI4 type) {
  return type == VAC1 ? (SI2)__atomic_load_n(&VA2Orvane[VAC1], __ATOMIC_RELAXED)
                      : VA2Orvane[type];
}

static bool IsSimple(UI4 type) {
  switch (type) {
    case VABit: case VAI1: case VAI2: case VAI4: case VAF8:
    case VAC1: case VAC2: case VAC4: case VADpd: case VABid:
      return true;
    default:
      return false;
  }
}

static UI4 Pad8(UI4 n) { return (n + 7) & ~7u; }

UI4 SizeAA(PAA pAA) {
  assert(pAA!=__null);
  UI4 size = pAA->rank * 8 + ORVANE_HEADER;
  if (pAA->type > VABid) return size;
  if (IsSimple(pAA->type)) return size + Pad8(VADataLength(pAA));
  if (pAA->type == VAPntr) {
    UI4 n = VAElems(pAA);
    for (UI4 i = 0; i < n; i++) size += SizeAA(VASlot(pAA, i));
  }
  return size;
}

UI4 Pack(PAA pAA, PCH1 pCur) {
  assert(pAA!=__null);
  assert(pCur!=__null);
  PORVANE p = (PORVANE)pCur;
  UI4 rank = pAA->rank;
  UI8 length = rank + (VADataLength(pAA) + 7) / 8 + 3;
  memcpy(&p->length, &length, 8);
  SI2 host = HostType(pAA->type);
  memset(pCur + 8, 0, 8);
  p->typerank = (UI1)((rank << 4) | (host == 6 ? 7 : 15));
  p->eltype = (UI1)host;
  for (UI4 i = 0; i < rank; i++) {
    UI8 axis = pAA->shape[i];
    memcpy(pCur + ORVANE_HEADER + 8 * i, &axis, 8);
  }
  UI4 header = ORVANE_HEADER + rank * 8;
  if (IsSimple(pAA->type)) {
    memcpy(pCur + header, VADATA(pAA), VADataLength(pAA));
    return header + Pad8(VADataLength(pAA));
  }
  assert(VAType(pAA)==VAPntr);
  UI4 n = VAElems(pAA);
  UI4 at = header;
  for (UI4 i = 0; i < n; i++) at += Pack(VASlot(pAA, i), pCur + at);
  return at;
}

// Data bytes an array of this type and element count needs, or ~0 when the
// count is past what any array may hold.
static UI8 DataBytes(UI4 type, UI8 count) {
  UI8 bits = (UI8)VAsize[type] * count;
  return (bits + 7) / 8;
}

// What a walk that only checks gives for a record that would unpack.
static VARRAY checkedRecord;

// With build false nothing is allocated or copied: the walk proves that the
// records would unpack, and gives &checkedRecord for each.
static PAA UnpackAt(PCH1 pData, PUI4 pSize, UI4 limit, UI4 depth, bool build) {
  assert(pData!=__null);
  if (depth > ORVANE_MAX_DEPTH) return nullptr;
  UI4 at = *pSize;
  if (limit < ORVANE_HEADER || at > limit - ORVANE_HEADER) return nullptr;
  PORVANE p = (PORVANE)(pData + at);
  UI8 length;
  memcpy(&length, &p->length, 8);
  UI4 rank = p->typerank >> 4;
  UI4 eltype = p->eltype;
  UI4 header = ORVANE_HEADER + rank * 8;
  if (header > limit - at) return nullptr;
  if (eltype > 14 || Orvane2VA[eltype] == VANoType) return nullptr;
  UI4 shape[15];
  UI8 count = 1;
  for (UI4 i = 0; i < rank; i++) {
    UI8 axis;
    memcpy(&axis, pData + at + ORVANE_HEADER + 8 * i, 8);
    shape[i] = (UI4)axis;
    count *= shape[i];
    if (count > 0xFFFFFFFFull) return nullptr;
  }
  VATYPES type = (VATYPES)Orvane2VA[eltype];
  UI4 room = limit - at - header;
  if (type == VAPntr) {
    // Every element record takes at least a header: refuse a count that the
    // rest of the block can't hold before allocating for it.
    if (count * ORVANE_HEADER > room) return nullptr;
    PAA pRes = build ? VANew(type, (UI2)rank, shape) : &checkedRecord;
    if (!pRes) return nullptr;
    *pSize = at + header;
    // An empty nested array still carries one record, its prototype.
    UI4 n = count ? (UI4)count : 1;
    for (UI4 i = 0; i < n; i++) {
      PAA child = UnpackAt(pData, pSize, limit, depth + 1, build);
      if (!child) return build ? VAFree(pRes) : nullptr;
      if (build) memcpy((PCH1)VADATA(pRes) + i * sizeof(PAA), &child, sizeof(PAA));
    }
    return pRes;
  }
  // A simple record: its length word sizes it, and the data must lie within
  // what remains of the block.
  if (length < 1 || (length - 1) * 8 < header || (length - 1) * 8 > (UI8)(limit - at))
    return nullptr;
  UI4 stored = (UI4)((length - 1) * 8) - header;
  if (type != VAApvI4 && type != VAApvF8 && DataBytes(type, count) > stored) return nullptr;
  if (!build) {
    *pSize = at + (UI4)((length - 1) * 8);
    return &checkedRecord;
  }
  PAA pRes = VANew(type, (UI2)rank, shape);
  if (!pRes) return nullptr;
  UI4 n = stored < VADataLength(pRes) ? stored : VADataLength(pRes);
  memcpy(VADATA(pRes), pData + at + header, n);
  *pSize = at + (UI4)((length - 1) * 8);
  return pRes;
}

PAA Unpack(PCH1 pData, PUI4 pSize, UI4 limit) { return UnpackAt(pData, pSize, limit, 0, true); }

static bool ArchOk(UI4 word) { return word <= 255 && (word & 0xE9) == 0xA0; }

static PAA UnpackZAt(PUI4 pZ, UI4 blockSize, bool build) {
  if (blockSize < 8) return nullptr;
  UI4 stated = GetBE32(pZ);
  if (!ArchOk(GetBE32((PCH1)pZ + 4))) return nullptr;
  if (stated > blockSize || stated < 8) return nullptr;
  UI4 offset = 0;
  PAA pAA = UnpackAt((PCH1)pZ + 8, &offset, stated - 8, 0, build);
  if (!pAA) return nullptr;
  if (offset + 8 != stated) return build ? VAFree(pAA) : nullptr;
  return pAA;
}

PAA UnpackZ(PUI4 pZ, UI4 blockSize) { return UnpackZAt(pZ, blockSize, true); }

bool CheckZ(PUI4 pZ, UI4 blockSize) { return UnpackZAt(pZ, blockSize, false) != nullptr; }

PAA UnpackZ(PUI4 pZ) { return UnpackZ(pZ, GetBE32(pZ)); }

PUI4 PackZ(PAA pAA) {
  UI4 size = SizeAA(pAA) + 8;
  PCH1 block = (PCH1)calloc(1, size);
  if (!block) {
    VAFree(pAA);
    return nullptr;
  }
  PutBE32(block, size);
  PutBE32(block + 4, RETZHEADER);
  Pack(pAA, block + 8);
  VAFree(pAA);
  return (PUI4)block;
}

PUI4 VectorZ(PCH1 data, UI4 n, VATYPES type) {
  if (type != VAI2 && type != VAC1) return nullptr;
  UI8 bytes = type == VAI2 ? 2ull * n : n;
  UI8 padded = (bytes + 7) & ~7ull;
  UI4 header = ORVANE_HEADER + 8;
  UI8 total = 8 + header + padded;
  if (total > 0xFFFFFFFFull) return nullptr;
  PCH1 block = (PCH1)BigAlloc(total);
  if (!block) return nullptr;
  PutBE32(block, (UI4)total);
  PutBE32(block + 4, RETZHEADER);
  PCH1 rec = block + 8;
  UI8 length = 1 + padded / 8 + 3;
  memcpy(rec, &length, 8);
  memset(rec + 8, 0, 8);
  SI2 host = HostType(type);
  ((PORVANE)rec)->typerank = (UI1)(1 << 4 | 15);
  ((PORVANE)rec)->eltype = (UI1)host;
  UI8 axis = n;
  memcpy(rec + ORVANE_HEADER, &axis, 8);
  PCH1 out = rec + header;
  if (type == VAC1) {
    memcpy(out, data, n);
    if (!isUnicode()) VA2avn(out, n);
  } else {
    // The data start 32 bytes into the block, so 2-byte stores are aligned.
    SI2* e = (SI2*)out;
    const UI1* b = (const UI1*)data;
    UI4 i = 0;
#ifdef __SSE2__
    // Sixteen bytes at a time, each widened with a zero high byte.
    const __m128i zero = _mm_setzero_si128();
    for (; i + 16 <= n; i += 16) {
      __m128i v = _mm_loadu_si128((const __m128i*)(b + i));
      _mm_storeu_si128((__m128i*)(e + i), _mm_unpacklo_epi8(v, zero));
      _mm_storeu_si128((__m128i*)(e + i + 8), _mm_unpackhi_epi8(v, zero));
    }
#endif
    for (; i < n; i++) e[i] = (SI2)b[i];
  }
  memset(out + bytes, 0, padded - bytes);
  return (PUI4)block;
}

PUI4 ScalarZ(UI4 v) {
  PCH1 block = (PCH1)malloc(32);
  if (!block) return nullptr;
  memcpy(block, scalarZ, 32);
  memcpy(block + 24, &v, 4);
  return (PUI4)block;
}

static UI4 RecordRank(PCH1 pOrvane) { return ((PORVANE)pOrvane)->typerank >> 4; }

static UI8 RecordAxis(PCH1 pOrvane, UI4 i) {
  UI8 axis;
  memcpy(&axis, pOrvane + ORVANE_HEADER + 8 * i, 8);
  return axis;
}

bool SimpleVectorZ(PUI4 pZ, UI4 blockSize, ZVECTOR* v) {
  if (!CheckZ(pZ, blockSize)) return false;
  PCH1 rec = (PCH1)pZ + 8;
  UI4 rank = RecordRank(rec);
  UI4 el = ((PORVANE)rec)->eltype;
  if ((((PORVANE)rec)->typerank & 15) != 15 || (el != 0 && el != 2 && el != 3 && el != 7) || rank > 1)
    return false;
  v->eltype = el;
  v->rank = rank;
  v->count = rank ? (UI4)RecordAxis(rec, 0) : 1;
  v->data = rec + ORVANE_HEADER + rank * 8;
  return true;
}

SI4 GetVector(bool, PCH1 pOrvane, PUI4 pLen, PCH1* ppData) {
  UI4 rank = RecordRank(pOrvane);
  UI4 eltype = ((PORVANE)pOrvane)->eltype;
  PCH1 data = pOrvane + ORVANE_HEADER + rank * 8;
  *ppData = data;
  UI4 n = 1;
  for (UI4 i = 0; i < rank; i++) n *= (UI4)RecordAxis(pOrvane, i);
  if (eltype == 6 && n == 0) n = 1;
  *pLen = n;
  switch (eltype) {
    case 0: VA2ascn(data, n); return 0;
    case 2:
    case 7: return 0;
    case 3: return VANarrowI2(data, n, (UI1*)data);  // in place
    default: return ERR_DOMAIN;
  }
}

// The encoding of one text element of a "filename" request.
static SI4 FileTextType(PCH1 pRec, UNICODETYPES* pFrom) {
  switch (((PORVANE)pRec)->eltype) {
    case 0: *pFrom = C1AV; return 0;
    case 7: *pFrom = UCS1; return 0;
    case 8: *pFrom = UCS2; return 0;
    case 9: *pFrom = UCS4; return 0;
    default: return ERR_DOMAIN;
  }
}

static SI4 FileText(PCH1 pRec, UNICODETYPES from, UNICODETYPES to, PCH1 out, UI4 size) {
  UI4 bytes = (UI4)RecordAxis(pRec, 0) * MinUSize[from];
  if (ConvUnicode(to, (UI1*)out, size, from, (UI1*)pRec + ORVANE_HEADER + 8, bytes, 1))
    return ERR_DOMAIN;
  return 0;
}

SI4 GetFileHandle(PCH1 pOrvane, int* pFile) {
  if (!pFile) return ERR_MEMORY_ALLOC;
  *pFile = -1;
  if (RecordRank(pOrvane) != 1) return ERR_RANK;
  if (((PORVANE)pOrvane)->eltype != 6) return ERR_DOMAIN;
  if (RecordAxis(pOrvane, 0) != 2) return ERR_LENGTH;
  PCH1 first = pOrvane + ORVANE_HEADER + 8;
  UI8 words;
  memcpy(&words, first, 8);
  // A record is at least its header and one axis: a smaller length word
  // would put the second element in front of the first.
  if (words < 4) return ERR_LENGTH;
  PCH1 second = first + (words - 1) * 8;
  if (RecordRank(first) != 1 || RecordRank(second) != 1) return ERR_RANK;
  if (RecordAxis(first, 0) != 8 || RecordAxis(second, 0) == 0) return ERR_LENGTH;
  UNICODETYPES fromKey, fromPath;
  if (FileTextType(first, &fromKey) || FileTextType(second, &fromPath)) return ERR_DOMAIN;
  char keyword[1024], path[1024];
  SI4 rc = FileText(first, fromKey, UCS1, keyword, sizeof(keyword));
  if (rc) return rc;
  if (strcasecmp(keyword, "filename") != 0) return ERR_OPTION;
  rc = FileText(second, fromPath, UTF8, path, sizeof(path));
  if (rc) return rc;
  int fd = open(path, O_RDONLY);
  if (fd < 0) return ERR_FILE;
  *pFile = fd;
  return 0;
}
