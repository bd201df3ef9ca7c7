// Host array marshalling: the Z block (big-endian total length, big-endian
// architecture word, one ORVANE record) to and from VARRAY. The same block is
// command mode's body on the wire.
#pragma once

#include "taltypes.h"
#include "vapl.h"

#define ARCH_SPARE 0x01
#define ARCH_IALIGN 0x02
#define ARCH_UNICODE 0x04
#define ARCH_MACH 0x08
#define ARCH_DALIGN 0x10
#define ARCH_64BIT 0x20
#define ARCH_DEXTEND 0x40
#define ARCH_LITTLE 0x80
#define ZHEADER (ARCH_LITTLE | ARCH_64BIT)
#define RETZHEADER (ZHEADER | ARCH_UNICODE)

// Deepest nesting accepted from a block. Unpacking and release recurse once
// per level, and the work thread runs on a 64 KB stack.
#define ORVANE_MAX_DEPTH 256

// The host's record. All numbers little-endian; rank and type share byte 8.
typedef struct ORVANE {
  UI8 length;   // record size in 8-byte words, plus 1
  UI1 typerank; // low 4 bits type (15 simple, 7 nested), high 4 bits rank
  UI1 eltype;   // host element type
  SI2 d;
  UI4 dummy2;
  UI8 shape[1]; // rank long; the data follow
} ORVANE;
typedef ORVANE* PORVANE;

#define ORVANE_HEADER 16

extern SI2 Orvane2VA[15];
extern SI2 VA2Orvane[18];

UI4 SizeAA(PAA pAA);
UI4 Pack(PAA pAA, PCH1 pCur);
// Reads the record at pData + *pSize and advances *pSize past it. Records
// that would reach past byte `limit` of pData, nest deeper than
// ORVANE_MAX_DEPTH, or name an unknown element type give null.
PAA Unpack(PCH1 pData, PUI4 pSize, UI4 limit = 0xFFFFFFFFu);
PUI4 PackZ(PAA pAA);
PAA UnpackZ(PUI4 pZ);
// The same for a block that came from a peer: blockSize is what was really
// received, whatever the block's own length word claims.
PAA UnpackZ(PUI4 pZ, UI4 blockSize);
// Whether UnpackZ(pZ, blockSize) would succeed, found without allocating
// or copying anything.
bool CheckZ(PUI4 pZ, UI4 blockSize);
// A simple vector or scalar in a packed block, read in place.
struct ZVECTOR {
  PCH1 data;   // its first element, in the block
  UI4 count;   // elements
  UI4 eltype;  // the record's element type
  UI4 rank;    // 0 or 1
};
// Whether a block holds one simple vector (or scalar) of 1-byte integers
// (element type 2), 1-byte characters (0 or 7) or 2-byte integers (3).
bool SimpleVectorZ(PUI4 pZ, UI4 blockSize, ZVECTOR* v);
PUI4 ScalarZ(UI4 v);
// The block PackZ would give for a vector of received bytes, as 2-byte
// integers (VAI2) or as text (VAC1, translated for classic callers),
// written straight from the bytes: one pass, no array between.
PUI4 VectorZ(PCH1 data, UI4 n, VATYPES type);
// A byte view of a host record, in place: classic characters are translated
// to ASCII and 2-byte integers narrowed to bytes, both in the record itself.
SI4 GetVector(bool flag, PCH1 pOrvane, PUI4 pLen, PCH1* ppData);
// Opens read-only the file that a record ("filename" path) names; the caller
// owns the descriptor.
SI4 GetFileHandle(PCH1 pOrvane, int* pFile);
SI4 isUnicode();
// Sets the character row of VA2Orvane from a caller's architecture word.
void SetUnicode(bool unicode);

// Big-endian words of the block header.
UI4 GetBE32(const void* p);
void PutBE32(void* p, UI4 v);
