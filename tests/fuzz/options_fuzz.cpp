// Option lists as a host gives them: a packed array read against the
// opening verbs' option table and the certificate verb's, every option by
// every reader.
#include <cstdlib>
#include <cstring>

#include "options.h"
#include "orvanenaz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 8) return 0;
  PUI4 z = (PUI4)malloc(size);
  memcpy(z, data, size);
  PAA arg = UnpackZ(z, (UI4)size);
  free(z);
  if (!arg) return 0;
  CheckArgList(arg, COMAX, PelkoOptionNames);
  for (SI4 i = 0; i < COMAX; i++) {
    PAA p = nullptr;
    GetOptionpAA(arg, i, COMAX, PelkoOptionNames, &p);
    VAFree(p);
    SI4 v = 0, err = 0;
    SI1 b = 0;
    GetSI4(arg, i, COMAX, PelkoOptionNames, 0, &v);
    GetBool(arg, i, COMAX, PelkoOptionNames, 0, &b);
    GetEnum(arg, i, COMAX, PelkoOptionNames, 6, certname, 0, &err);
    free(GetPCH10(arg, i, COMAX, PelkoOptionNames, nullptr, 0));
    char room[16];
    GetPCH10(arg, i, COMAX, PelkoOptionNames, room, sizeof room);
    LIST* list = nullptr;
    if (GetList(arg, i, COMAX, PelkoOptionNames, i & 1, &list) == 0) FreeList(list);
  }
  VAFree(arg);
  return 0;
}
