// Text and numbers as the host and peers give them: every Unicode encoding
// into every other, the strict UTF-8 count WebSocket text is checked with,
// and decimals from text and bytes.
#include <cstdlib>
#include <cstring>
#include <vector>

#include "cdecf.h"
#include "fuzzkit.h"
#include "vaunicod.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzzkit::Input in(data, size);
  UNICODETYPES from = (UNICODETYPES)(in.Byte() % 6), to = (UNICODETYPES)(in.Byte() % 6);
  std::string src = in.Read(4096);
  UI1 elemsize = 0;
  utf8_lenStrict((UI1*)src.data(), src.size(), &elemsize);
  std::vector<UI1> out(src.size() * 4 + 8);
  ConvUnicode(to, out.data(), (UI4)out.size(), from, (UI1*)src.data(), (UI4)src.size(), 0);
  // Sixteen bytes as a decimal in both encodings, into text, a double and
  // an integer.
  std::string d = in.Read(sizeof(F16));
  d.resize(sizeof(F16), 0);
  F16 v;
  memcpy(&v, d.data(), sizeof v);
  char text[128];
  F8 f;
  SI4 i;
  dpdToCH1(&v, text, sizeof text);
  bidToCH1(&v, text, sizeof text);
  dpdToF8(&v, &f);
  bidToF8(&v, &f);
  dpdToSI4(&v, &i);
  bidToSI4(&v, &i);
  return 0;
}
