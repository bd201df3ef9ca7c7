// Thin wrappers over the decimal floating-point library, built with values
// passed by value and the rounding mode and flags passed explicitly.
#include "cdecf.h"

#include <cstring>

#include <bid_conf.h>
#include <bid_functions.h>

// Round to nearest, ties to even.
#define DECF_ROUND 0

static BID_UINT128 Load(const F16* p) {
  BID_UINT128 x;
  memcpy(&x, p, sizeof(x));
  return x;
}

static void Store(BID_UINT128 x, F16* p) { memcpy(p, &x, sizeof(x)); }

UI4 MaxDecfStrLen() { return 42; }

// The text is made in a buffer of its own and cut to len, so a short buffer
// is never overrun.
static SI4 ToText(BID_UINT128 x, PCH1 s, UI4 len) {
  char text[64];
  _IDEC_flags flags = 0;
  bid128_to_string(text, x, &flags);
  if (len == 0) return 0;
  size_t n = strlen(text);
  if (n >= len) n = len - 1;
  memcpy(s, text, n);
  s[n] = 0;
  return 0;
}

static SI4 ToF8(BID_UINT128 x, F8* d) {
  _IDEC_flags flags = 0;
  *d = bid128_to_binary64(x, DECF_ROUND, &flags);
  return 0;
}

static SI4 ToSI4(BID_UINT128 x, SI4* i) {
  _IDEC_flags flags = 0;
  *i = bid128_to_int32_xint(x, &flags);
  return 0;
}

static BID_UINT128 FromF8(F8 d) {
  _IDEC_flags flags = 0;
  return binary64_to_bid128(d, DECF_ROUND, &flags);
}

static BID_UINT128 FromSI4(SI4 i) { return bid128_from_int32(i); }

static BID_UINT128 DpdToBid(const F16* p) { return bid_dpd_to_bid128(Load(p)); }

SI4 dpdToCH1(F16* p, PCH1 s, UI4 len) { return ToText(DpdToBid(p), s, len); }
SI4 dpdToF8(F16* p, F8* d) { return ToF8(DpdToBid(p), d); }
SI4 dpdToSI4(F16* p, SI4* i) { return ToSI4(DpdToBid(p), i); }

SI4 F8Todpd(F8 d, F16* p) {
  Store(bid_to_dpd128(FromF8(d)), p);
  return 0;
}

SI4 SI4Todpd(SI4 i, F16* p) {
  Store(bid_to_dpd128(FromSI4(i)), p);
  return 0;
}

SI4 bidToCH1(F16* p, PCH1 s, UI4 len) { return ToText(Load(p), s, len); }
SI4 bidToF8(F16* p, F8* d) { return ToF8(Load(p), d); }
SI4 bidToSI4(F16* p, SI4* i) { return ToSI4(Load(p), i); }

SI4 F8Tobid(F8 d, F16* p) {
  Store(FromF8(d), p);
  return 0;
}

SI4 SI4Tobid(SI4 i, F16* p) {
  Store(FromSI4(i), p);
  return 0;
}
