// Loads the library the way the host does and reports, by exit code,
// whether its zlib works, that is whether it found the companion:
//   0  companion loaded and cflate compressed and restored a text
//   2  cflate answered ERR_NO_SSL_SUPPORT: no companion
//   3  any other answer, 4  the library didn't load, 5  Init failed
// With "twice" as second argument, the library goes through unload and load
// a second time in the same process before the check.
#include <dlfcn.h>

#include <cstdio>
#include <cstring>

typedef int (*CFLATE)(int, void**, unsigned char*, unsigned*, unsigned char*, unsigned*, int);
typedef void (*HOOK)();
typedef int (*INIT)(char*, char*);

static int Check(CFLATE cflate) {
  unsigned char text[] = "companion probe companion probe companion probe";
  unsigned char packed[256], back[256];
  void* ctx = nullptr;
  unsigned inLength = sizeof(text), outLength = sizeof(packed);
  int rc = cflate(2, &ctx, text, &inLength, packed, &outLength, 6);
  if (rc == 1205) return 2;
  if (rc != 0 || ctx) return 3;
  unsigned packedLength = outLength;
  inLength = packedLength;
  outLength = sizeof(back);
  rc = cflate(3, &ctx, packed, &inLength, back, &outLength, 0);
  if (rc != 0 || ctx || outLength != sizeof(text) || memcmp(text, back, sizeof(text))) return 3;
  return 0;
}

int main(int argc, char** argv) {
  if (argc < 2) return 4;
  void* lib = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
  if (!lib) {
    fprintf(stderr, "%s\n", dlerror());
    return 4;
  }
  CFLATE cflate = (CFLATE)dlsym(lib, "cflate");
  HOOK onLoad = (HOOK)dlsym(lib, "onLoad");
  HOOK onUnload = (HOOK)dlsym(lib, "onUnload");
  INIT init = (INIT)dlsym(lib, "Init");
  if (!cflate || !onLoad || !onUnload || !init) return 4;
  if (argc > 2 && strcmp(argv[2], "twice") == 0) {
    int first = Check(cflate);
    onUnload();
    onUnload();
    onLoad();
    onLoad();
    if (Check(cflate) != first) return 3;
  }
  // Plain work goes on with or without the companion.
  if (init((char*)"probe", argv[1]) != 0) return 5;
  int rc = Check(cflate);
  dlclose(lib);
  return rc;
}
