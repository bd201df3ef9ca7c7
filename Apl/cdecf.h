// Decimal128 in its two encodings, densely packed (DPD) and binary integer
// (BID), to and from double, 32-bit integer and text. Exceptions of the
// decimal library are not reported: every wrapper returns 0.
#pragma once

#include "taltypes.h"

typedef union F16 {
  unsigned int w[4];
  unsigned char b[16];
} F16;
typedef F16* PF16;

UI4 MaxDecfStrLen();
SI4 dpdToCH1(F16* p, PCH1 s, UI4 len);
SI4 dpdToF8(F16* p, F8* d);
SI4 F8Todpd(F8 d, F16* p);
SI4 dpdToSI4(F16* p, SI4* i);
SI4 SI4Todpd(SI4 i, F16* p);
SI4 bidToCH1(F16* p, PCH1 s, UI4 len);
SI4 bidToF8(F16* p, F8* d);
SI4 F8Tobid(F8 d, F16* p);
SI4 bidToSI4(F16* p, SI4* i);
SI4 SI4Tobid(SI4 i, F16* p);
