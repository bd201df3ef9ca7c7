// Text encodings: the host's classic character set and five Unicode forms,
// converted one code point at a time through a code-point pivot.
#pragma once

#include "taltypes.h"

enum UNICODETYPES { C1AV = 0, UCS1 = 1, UCS2 = 2, UCS4 = 3, UTF8 = 4, UTF16 = 5 };

// Bytes of one code unit, by UNICODETYPES.
extern const UI1 MinUSize[6];
// Character VATYPES for an element size in bytes (0 to 4).
extern const UI2 es2va[5];
// Code point of each byte of the classic character set.
extern const UI4 AVU[256];

// One code point at byte i of a text of l bytes: bytes used, or -1.
SI4 GetUnicodeC(UNICODETYPES t, UI1* p, UI4 l, UI4 i, UI4* pc);
// Writes *pc at byte i of a buffer of l bytes: bytes written, -1 for no room
// or no encoding, -2 for a code point the target can't hold. With p null it
// only gives the size.
SI4 PutUnicodeC(UNICODETYPES t, UI1* p, UI4 l, UI4 i, UI4* pc);
// Converts; with pto null it only measures, into *plto.
SI4 ConvUnicodeM(UNICODETYPES tto, UI1* pto, UI4* plto, UNICODETYPES tfrom, UI1* pfrom,
                 UI4 lfrom, SI2 term);
SI4 ConvUnicode(UNICODETYPES tto, UI1* pto, UI4 lto, UNICODETYPES tfrom, UI1* pfrom, UI4 lfrom,
                SI2 term);
// Element count of an array for a text of len bytes, and the smallest
// element size in bytes that holds it.
UI8 ToVAPL(UI1* p, UI8 len, UNICODETYPES type, UI1* pelemsize);
// Code units before the first zero unit.
SI4 ZeroLength(UI1* p, UNICODETYPES type);
// Code points of a UTF-8 text, strictly checked; (UI8)-1 when it is bad.
UI8 utf8_lenStrict(UI1* s, UI8 len, UI1* elemsize);
