#include "base64.h"

const char BASE64[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

UI4 encode64(PCH1 out, PUI1 in, UI4 length) {
  UI4 size = (length + 2) / 3 * 4;
  if (!out) return size;
  UI4 i = 0;
  for (; i + 3 <= length; i += 3) {
    UI4 v = (UI4)in[i] << 16 | (UI4)in[i + 1] << 8 | in[i + 2];
    *out++ = BASE64[v >> 18];
    *out++ = BASE64[v >> 12 & 63];
    *out++ = BASE64[v >> 6 & 63];
    *out++ = BASE64[v & 63];
  }
  if (i < length) {
    bool two = i + 1 < length;
    UI4 v = (UI4)in[i] << 16 | (two ? (UI4)in[i + 1] << 8 : 0);
    *out++ = BASE64[v >> 18];
    *out++ = BASE64[v >> 12 & 63];
    *out++ = two ? BASE64[v >> 6 & 63] : '=';
    *out++ = '=';
  }
  *out = 0;
  return size;
}

UI4 encodeHex(PCH1 out, PUI1 in, UI4 length) {
  static const char digits[] = "0123456789abcdef";
  if (out) {
    for (UI4 i = 0; i < length; i++) {
      out[2 * i] = digits[in[i] >> 4];
      out[2 * i + 1] = digits[in[i] & 15];
    }
  }
  return length * 2;
}
