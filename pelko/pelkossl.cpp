// Loader of the companion and the local functions that stand for its entry
// points. Each local function is a single jump through its slot.
#include "pelkossl.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

PELKOSSL pelkossl;

#define PELKOSSL_LOCAL(R, N, AT, AN) \
  R N AT { return pelkossl.N AN; }
DYNAMIC_FUNCTION(PELKOSSL_LOCAL)
#undef PELKOSSL_LOCAL

#define PELKOSSL_TAL(R, N, AT, AN) \
  R TAL_##N AT { return (*pelkossl.i##N) AN; }
DYNAMIC_VARIABLE(PELKOSSL_TAL)
#undef PELKOSSL_TAL

// Stands in every slot the companion couldn't fill. A call through an empty
// slot would jump to address zero; this stops the process with a message
// instead, at no cost to the calls through filled slots.
[[noreturn]] static void PelkosslMissing() {
  fprintf(stderr, "pelko: call to a function the TLS companion does not provide\n");
  abort();
}

// dlsym gives every entry one type; void (*)() is the neutral one to pass
// through on the way to the slot's own.
template <typename F>
static F Entry(TALFPTR p) {
  typedef void (*ANYFN)();
  return reinterpret_cast<F>(p ? reinterpret_cast<ANYFN>(p) : &PelkosslMissing);
}

// PELKOSSL_LIBRARY names the companion. The default name is looked for beside
// this library only; any other name goes to dlopen as it stands, full path or
// bare name for the system search, with no fallback from one way to the other.
static PTALLIB OpenCompanion() {
  char name[1024];
  PLATEnvironment((PCH1) "PELKOSSL_LIBRARY", (PCH1)PELKOSSL_LIBRARY_DEFAULT, name, sizeof(name));
  char error[1024];
  SI4 ownDir = strcmp(name, PELKOSSL_LIBRARY_DEFAULT) == 0 ? -1 : 0;
  return new TALLIB(ownDir, name, error);
}

int LoadPelkossl() {
  if (pelkossl.ipelkossl) return 0;
  pelkossl.ipelkossl = OpenCompanion();
  TALLIB* lib = pelkossl.ipelkossl;
  // A failed open leaves no handle, and dlsym on a null handle would search
  // the whole process instead.
  TALFPTR version = lib->hLib ? lib->fptr((PCH1) "pelkosslversion") : nullptr;
  if (!version) {
    delete lib;
    pelkossl.ipelkossl = nullptr;
    return 1;
  }
  char text[1024];
  // A companion that reports no version stays open with nothing usable in
  // its table.
  bool usable = Entry<Tpelkosslversion>(version)(text, sizeof(text)) > 0;
#define PELKOSSL_FILL(R, N, AT, AN) \
  pelkossl.N = Entry<T##N>(usable ? lib->fptr((PCH1) #N) : nullptr);
  DYNAMIC_FUNCTION(PELKOSSL_FILL)
#undef PELKOSSL_FILL
  if (!usable) return 0;
#define PELKOSSL_VARFILL(R, N, AT, AN) pelkossl.i##N = (T##N*)lib->fptr((PCH1) #N);
  DYNAMIC_VARIABLE(PELKOSSL_VARFILL)
#undef PELKOSSL_VARFILL
  return 0;
}

int UnloadPelkossl() {
  if (!pelkossl.ipelkossl) return 0;
  TALLIB* lib = pelkossl.ipelkossl;
  pelkossl = PELKOSSL{};
  delete lib;
  return 0;
}

int PelkosslLoaded() { return pelkossl.ipelkossl != nullptr; }
