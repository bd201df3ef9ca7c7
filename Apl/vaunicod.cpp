// Conversions between the six text encodings. Every conversion decodes one
// code point from the source and encodes it into the target, so any pair
// works without a table per pair.
#include "vaunicod.h"

#include <array>
#include <cstring>
#include <utility>

#include "pelkoerr.h"
#include "vapl.h"

const UI1 MinUSize[6] = {1, 1, 2, 4, 1, 2};
const UI2 es2va[5] = {VAC1, VAC1, VAC2, VAC4, VAC4};

// The host's own character order: a permutation of 256 code points with the
// one zero at index 0.
const UI4 AVU[256] = {
    0x0000, 0x0008, 0x000A, 0x000D, 0x0020, 0x0021, 0x0022, 0x0023,  // 0
    0x0024, 0x0025, 0x2336, 0x026B, 0x0026, 0x0027, 0x237A, 0x2375,  // 8
    0x0028, 0x0061, 0x0062, 0x0063, 0x0064, 0x0065, 0x0066, 0x0067,  // 16
    0x0068, 0x0069, 0x006A, 0x006B, 0x006C, 0x006D, 0x006E, 0x006F,  // 24
    0x0070, 0x0071, 0x0072, 0x0073, 0x0074, 0x0075, 0x0076, 0x0077,  // 32
    0x0078, 0x0079, 0x007A, 0x0030, 0x0031, 0x0032, 0x0033, 0x0034,  // 40
    0x0035, 0x0036, 0x0037, 0x0038, 0x0039, 0x0029, 0x002A, 0x002B,  // 48
    0x002C, 0x002D, 0x002E, 0x002F, 0x003A, 0x003B, 0x003C, 0x003D,  // 56
    0x2206, 0x0041, 0x0042, 0x0043, 0x0044, 0x0045, 0x0046, 0x0047,  // 64
    0x0048, 0x0049, 0x004A, 0x004B, 0x004C, 0x004D, 0x004E, 0x004F,  // 72
    0x0050, 0x0051, 0x0052, 0x0053, 0x0054, 0x0055, 0x0056, 0x0057,  // 80
    0x0058, 0x0059, 0x005A, 0x003E, 0x003F, 0x0040, 0x005B, 0x005C,  // 88
    0x005D, 0x00C1, 0x005E, 0x005F, 0x0060, 0x007B, 0x007C, 0x007D,  // 96
    0x007E, 0x2190, 0x2191, 0x2192, 0x2193, 0x2205, 0x2207, 0x2208,  // 104
    0x2209, 0x220A, 0x2218, 0x2228, 0x2227, 0x2229, 0x222A, 0x2223,  // 112
    0x2260, 0x2261, 0x2262, 0x2264, 0x2265, 0x2282, 0x2283, 0x2286,  // 120
    0x2287, 0x2296, 0x22A2, 0x22A3, 0x22A4, 0x22A5, 0x22C4, 0x2308,  // 128
    0x230A, 0x2337, 0x2339, 0x233A, 0x233F, 0x2340, 0x2342, 0x2347,  // 136
    0x2348, 0x2349, 0x234B, 0x234E, 0x2352, 0x2355, 0x2359, 0x235D,  // 144
    0x235E, 0x2360, 0x2361, 0x2362, 0x2364, 0x2365, 0x2368, 0x236A,  // 152
    0x2371, 0x2372, 0x2373, 0x2374, 0x2378, 0x25CB, 0x2395, 0x00A8,  // 160
    0x00AF, 0x00D7, 0x00F7, 0x2212, 0x00A3, 0x20AC, 0x00A7, 0x00B0,  // 168
    0x00A2, 0x00A5, 0x00B6, 0x00C0, 0x00C2, 0x00C3, 0x00C4, 0x00C5,  // 176
    0x00C6, 0x00C7, 0x00C8, 0x00C9, 0x00CA, 0x00CB, 0x00CC, 0x00CD,  // 184
    0x00CE, 0x00CF, 0x00D0, 0x00D1, 0x00D2, 0x00D3, 0x00D4, 0x00D5,  // 192
    0x233D, 0x00D6, 0x00D8, 0x00D9, 0x00DA, 0x00DB, 0x00DC, 0x00DD,  // 200
    0x00DE, 0x00DF, 0x00E0, 0x00E1, 0x00E2, 0x00E3, 0x00E4, 0x00E5,  // 208
    0x00E6, 0x00E7, 0x00E8, 0x00E9, 0x00EA, 0x00EB, 0x00EC, 0x00ED,  // 216
    0x00EE, 0x00EF, 0x00F0, 0x00F1, 0x00F2, 0x00F3, 0x00F4, 0x00F5,  // 224
    0x00F6, 0x00F8, 0x00F9, 0x00FA, 0x00FB, 0x00FC, 0x00FD, 0x00FE,  // 232
    0x00FF, 0x0001, 0x0002, 0x0003, 0x0004, 0x0005, 0x0006, 0x0007,  // 240
    0x0009, 0x000B, 0x000C, 0x000E, 0x000F, 0x0010, 0x0011, 0x2363,  // 248
};

// Lead-byte patterns of UTF-8 and the range of values each form may carry.
typedef struct UTF8TAB {
  UI4 cmask;
  UI4 cval;
  UI4 shift;
  UI4 lmask;
  UI4 lval;
} UTF8TAB;

static const UTF8TAB tab[] = {
    {0x80, 0x00, 0, 0x7F, 0},
    {0xE0, 0xC0, 6, 0x7FF, 0x80},
    {0xF0, 0xE0, 12, 0xFFFF, 0x800},
    {0xF8, 0xF0, 18, 0x1FFFFF, 0x10000},
    {0xFC, 0xF8, 24, 0x3FFFFFF, 0x200000},
    {0xFE, 0xFC, 30, 0x7FFFFFFF, 0x4000000},
    {0, 0, 0, 0, 0},
};

static inline __attribute__((always_inline)) SI4 GetUtf8(UI1* p, UI4 avail, UI4* pc) {
  UI4 c0 = p[0];
  UI4 value = c0;
  SI4 used = 0;
  for (const UTF8TAB* t = tab; t->cmask; t++) {
    used++;
    if ((c0 & t->cmask) == t->cval) {
      value &= t->lmask;
      if (value < t->lval) return -1;  // overlong
      *pc = value;
      return used;
    }
    // A form cut off by the end of the text is as bad as a broken one.
    if ((UI4)used >= avail) return -1;
    UI4 c = (p[used] ^ 0x80) & 0xFF;
    if (c & 0xC0) return -1;
    value = (value << 6) | c;
  }
  return -1;
}

// The conversion loop runs these once per character: they are inlined
// there, and the exported functions are thin doors to them.
#define CODEPOINT_INLINE static inline __attribute__((always_inline))

CODEPOINT_INLINE SI4 ReadCode(UNICODETYPES t, UI1* p, UI4 l, UI4 i, UI4* pc) {
  *pc = 0;
  if (i > l || l - i < MinUSize[t]) return -1;
  UI1* s = p + i;
  switch (t) {
    case C1AV: *pc = AVU[s[0]]; return 1;
    case UCS1: *pc = s[0]; return 1;
    case UCS2: {
      UI2 u;
      memcpy(&u, s, 2);
      *pc = u;
      return 2;
    }
    case UCS4: memcpy(pc, s, 4); return 4;
    case UTF16: {
      UI2 hi, lo;
      memcpy(&hi, s, 2);
      // A pair is combined only when more than its own 4 bytes remain.
      if (hi >= 0xD800 && hi <= 0xDBFF && l - i >= 5) {
        memcpy(&lo, s + 2, 2);
        if (lo >= 0xDC00 && lo <= 0xDFFF) {
          *pc = 0x10000 + (((UI4)hi - 0xD800) << 10) + ((UI4)lo - 0xDC00);
          return 4;
        }
      }
      *pc = hi;
      return 2;
    }
    case UTF8: return GetUtf8(s, l - i, pc);
  }
  return -1;
}

// Bytes the UTF-8 form of c takes, and the table row that writes it.
static const UTF8TAB* Utf8Row(UI4 c) {
  for (const UTF8TAB* t = tab; t->cmask; t++)
    if (t->lmask >= c) return t;
  return nullptr;
}

CODEPOINT_INLINE SI4 WriteCode(UNICODETYPES t, UI1* p, UI4 l, UI4 i, UI4* pc) {
  UI4 c = *pc;
  if (p && (i > l || l - i < MinUSize[t])) return -1;
  UI4 room = p ? l - i : 0;
  UI1* d = p ? p + i : nullptr;
  switch (t) {
    case C1AV:
      for (UI4 k = 0; k < 256; k++) {
        if (AVU[k] != c) continue;
        if (d) d[0] = (UI1)k;
        return 1;
      }
      if (d) d[0] = 0;
      return -2;
    case UCS1:
      if (c > 255) return -2;
      if (d) d[0] = (UI1)c;
      return 1;
    case UCS2: {
      if (c > 65535) return -2;
      UI2 u = (UI2)c;
      if (d) memcpy(d, &u, 2);
      return 2;
    }
    case UCS4:
      if (d) memcpy(d, &c, 4);
      return 4;
    case UTF16: {
      if (c < 0x10000) {
        UI2 u = (UI2)c;
        if (d) memcpy(d, &u, 2);
        return 2;
      }
      if (d && room < 4) return -1;
      UI4 v = c - 0x10000;
      UI2 u[2] = {(UI2)(0xD800 | ((v >> 10) & 0x3FF)), (UI2)(0xDC00 | (v & 0x3FF))};
      if (d) memcpy(d, u, 4);
      return 4;
    }
    case UTF8: {
      const UTF8TAB* row = Utf8Row(c);
      if (!row) return -1;
      SI4 n = (SI4)row->shift / 6 + 1;
      if (!d) return n;
      if (room < (UI4)n) return -1;
      *d++ = (UI1)(row->cval | (c >> row->shift));
      for (SI4 s = (SI4)row->shift - 6; s >= 0; s -= 6) *d++ = (UI1)(0x80 | ((c >> s) & 0x3F));
      return n;
    }
  }
  return -1;
}

SI4 GetUnicodeC(UNICODETYPES t, UI1* p, UI4 l, UI4 i, UI4* pc) { return ReadCode(t, p, l, i, pc); }

SI4 PutUnicodeC(UNICODETYPES t, UI1* p, UI4 l, UI4 i, UI4* pc) { return WriteCode(t, p, l, i, pc); }

// The character loop of one pair of encodings. Instantiated for every pair,
// so that the per-character tests of the encodings fold away. Stops at the
// end of the source, a zero, a full target, or a code; *pout holds where
// the output got to.
template <int From, int To>
static SI4 ConvLoop(UI1* pto, UI4 lto, UI1* pfrom, UI4 lfrom, UI4* pout) {
  UI4 in = 0, out = *pout;
  SI4 rc = 0;
  while (in < lfrom && (!pto || out < lto)) {
    UI4 c;
    SI4 n = ReadCode((UNICODETYPES)From, pfrom, lfrom, in, &c);
    // A zero ends the text, and so does a sequence that can't be read.
    if (c == 0) break;
    if (c > 0x10FFFF) {
      rc = ERR_UTF8;
      break;
    }
    // A character that can't be written stops the conversion: writing on
    // would step back over what was already written.
    SI4 m = WriteCode((UNICODETYPES)To, pto, lto, out, &c);
    if (m < 0) {
      rc = m == -1 ? ERR_APL_LENGTH : ERR_APL_DOMAIN;
      break;
    }
    in += (UI4)n;
    out += (UI4)m;
  }
  *pout = out;
  return rc;
}

typedef SI4 (*CONVLOOP)(UI1*, UI4, UI1*, UI4, UI4*);

template <int From, int... To>
static constexpr std::array<CONVLOOP, 6> LoopsFrom(std::integer_sequence<int, To...>) {
  return {{&ConvLoop<From, To>...}};
}

template <int... From>
static constexpr std::array<std::array<CONVLOOP, 6>, 6> AllLoops(std::integer_sequence<int, From...>) {
  return {{LoopsFrom<From>(std::make_integer_sequence<int, 6>())...}};
}

static constexpr std::array<std::array<CONVLOOP, 6>, 6> convLoops =
    AllLoops(std::make_integer_sequence<int, 6>());

SI4 ConvUnicodeM(UNICODETYPES tto, UI1* pto, UI4* plto, UNICODETYPES tfrom, UI1* pfrom,
                 UI4 lfrom, SI2 term) {
  UI4 out = 0;
  UI4 lto = pto ? *plto : 0;
  SI4 rc = convLoops[tfrom][tto](pto, lto, pfrom, lfrom, &out);
  if (rc == ERR_UTF8 && !pto) *plto = out;
  if (rc) return rc;
  if (term) {
    UI4 zero = 0;
    SI4 m = WriteCode(tto, pto, lto, out, &zero);
    if (m == -1) rc = ERR_APL_LENGTH;
    else if (m == -2) rc = ERR_APL_DOMAIN;
    else out += (UI4)m;
  }
  if (!pto) *plto = out;
  return rc;
}

SI4 ConvUnicode(UNICODETYPES tto, UI1* pto, UI4 lto, UNICODETYPES tfrom, UI1* pfrom, UI4 lfrom,
                SI2 term) {
  return ConvUnicodeM(tto, pto, &lto, tfrom, pfrom, lfrom, term);
}

// Element size needed once a UTF-8 lead byte b has been seen. Lead bytes
// 0xC0 to 0xC3 carry code points up to U+00FF and fit in one byte.
static UI1 RaiseUtf8Size(UI1 size, UI1 b) {
  if (size == 1 && b >= 0xC4) return b < 0xF0 ? 2 : 4;
  if (size == 2 && b >= 0xF0) return 4;
  return size;
}

UI8 ToVAPL(UI1* p, UI8 len, UNICODETYPES type, UI1* pelemsize) {
  UI8 count = 0;
  switch (type) {
    case C1AV:
    case UCS1: *pelemsize = 1; return len;
    // The byte length is the count: the array made from it is wider than
    // the text and its surplus stays zero.
    case UCS2: *pelemsize = 2; return len;
    case UCS4: *pelemsize = 4; return len;
    case UTF16: {
      *pelemsize = 2;
      for (UI8 i = 0; i + 2 <= len; i += 2) {
        UI2 u;
        memcpy(&u, p + i, 2);
        if (u == 0) break;
        if (u >= 0xDC00 && u <= 0xDFFF) *pelemsize = 4;
        else count++;
      }
      return count;
    }
    case UTF8: {
      UI1 size = 1;
      for (UI8 i = 0; i < len && p[i]; i++) {
        if ((p[i] & 0xC0) == 0x80) continue;
        count++;
        if ((p[i] & 0xC0) == 0xC0) size = RaiseUtf8Size(size, p[i]);
      }
      *pelemsize = size;
      return count;
    }
  }
  *pelemsize = 1;
  return 0;
}

SI4 ZeroLength(UI1* p, UNICODETYPES type) {
  if ((UI4)type > UTF16) return -1;
  SI4 n = 0;
  switch (MinUSize[type]) {
    case 1:
      while (p[n]) n++;
      return n;
    case 2: {
      UI2 u;
      for (memcpy(&u, p, 2); u; memcpy(&u, p + 2 * n, 2)) n++;
      return n;
    }
    case 4: {
      UI4 u;
      for (memcpy(&u, p, 4); u; memcpy(&u, p + 4 * n, 4)) n++;
      return n;
    }
  }
  return -1;
}

UI8 utf8_lenStrict(UI1* s, UI8 len, UI1* elemsize) {
  UI8 i = 0;
  while (i < len && s[i] && (s[i] & 0xC0) == 0x80) i++;
  if (i == len || s[i] == 0) {
    *elemsize = 1;
    return 0;
  }
  // Stray continuation bytes in front leave a count behind, which makes the
  // first real character fail.
  SI4 expect = i > 0 ? 1 : 0;
  UI8 count = 0;
  UI1 size = 1;
  for (; i < len && s[i]; i++) {
    UI1 b = s[i];
    if ((b & 0xC0) == 0x80) {
      expect--;
      continue;
    }
    count++;
    if (b == 0xC0 || b == 0xC1 || b > 0xF4 || expect != 0) return (UI8)-1;
    SI4 need = b < 0xC0 ? 0 : b < 0xE0 ? 1 : b < 0xF0 ? 2 : 3;
    // A sequence must end before the last of the len bytes.
    if (need && i + need >= len - 1) return (UI8)-1;
    size = RaiseUtf8Size(size, b);
    expect = need;
  }
  *elemsize = size;
  return count;
}
