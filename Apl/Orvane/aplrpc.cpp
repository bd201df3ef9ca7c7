// Load, unload, root start and dispatch. One call by name goes: architecture
// test, unpack, root, verb table, syntax test, handler, pack into a fresh
// block that the host gives back with FreeUsedOrvaneResult.
#include "aplrpc.h"

#include <cstdlib>
#include <cstring>

#include "ifzuno2.h"
#include "log.h"
#include "orvanenaz.h"
#include "pelkoerr.h"
#include "pelkossl.h"
#include "root.h"
#include "securesocket.h"
#include "talplat.h"
#include "vatrans.h"
#include "verbs.h"

#define MODULE 0x00000010

SI4 Initialized = 0;
static PTALSEMA pSem = nullptr;
char cLoadPath[2048];

const NAFUNCTION functions[] = {
    {(PSZ) "AWaitZ", RSLT | RLEF | MONA, (PVOID)&AWaitZ},
    {(PSZ) "ASendZ", RSLT | DYAD, (PVOID)&ASendZ},
    {(PSZ) "ARespondZ", RSLT | DYAD, (PVOID)&ARespondZ},
    {(PSZ) "AClose", RSLT | MONA, (PVOID)&AClose},
    {(PSZ) "ATree", RSLT | MONA, (PVOID)&ATree},
    {(PSZ) "ASetProp", RSLT | MONA, (PVOID)&ASetProp},
    {(PSZ) "AGetProp", RSLT | MONA, (PVOID)&AGetProp},
    {(PSZ) "ASrv", RSLT | MONA, (PVOID)&ASrv},
    {(PSZ) "AClt", RSLT | MONA, (PVOID)&AClt},
    {(PSZ) "ASetRelay", RSLT | MONA, (PVOID)&ASetRelay},
    {(PSZ) "ACerts", RSLT | MONA, (PVOID)&ACerts},
};
const UI4 functionCount = sizeof(functions) / sizeof(functions[0]);

// Logging as "pelko.ini" sets it: the file's name, then the trace word.
static void ReadLogSettings() {
  PCH1 path = PrependConfigDir((PCH1) "pelko.ini");
  if (!path) return;
  char text[100];
  if (PLATIni((PCH1) "Logging", (PCH1) "File", (PCH1) "", text, sizeof(text), path) > 0) {
    text[sizeof(text) - 1] = 0;
    InitLog(text);
  }
  if (PLATIni((PCH1) "Logging", (PCH1) "Option", (PCH1) "", text, sizeof(text), path) > 0) {
    text[sizeof(text) - 1] = 0;
    LOGSet(LOGOption(text));
    LOG(1, ("Logging is initialy set to %d from %s", (int)LOGGet(), text));
  }
  free(path);
}

void onLoad() {
  ReadLogSettings();
  if (!pSem) pSem = new TALSEMA(1, 1);
  RPCLoad();
  LOG(1, ("Pelko loaded"));
}

void onUnload() {
  Zuno2Unload();
  while (pRoots) RPCUnload(pRoots->pNext);
  BigRelease();
  if (pSem) {
    delete pSem;
    pSem = nullptr;
  }
  TALSleep(1000.0);
  LOG(1, ("Pelko Unloaded"));
  if (PelkosslLoaded() && !pRoots) {
    SslUnload();
    UnloadPelkos();
  }
}

// The loader runs these when the object is mapped and unmapped.
__attribute__((constructor)) static void LoadHook() { onLoad(); }
__attribute__((destructor)) static void UnloadHook() { onUnload(); }

SI4 Version(UI4* ver) {
  if (ver) {
    ver[0] = 3;
    ver[1] = 1;
    ver[2] = 1479;
  }
  return 30101479;
}

// Keeps the directory of the load path, with its trailing slash. The first
// character always stays, so a path without a slash keeps its first letter.
static void SetLoadPath(const char* path) {
  strncpy(cLoadPath, path ? path : "", sizeof(cLoadPath) - 1);
  cLoadPath[sizeof(cLoadPath) - 1] = 0;
  for (size_t i = strlen(cLoadPath); i > 1; i--) {
    if (cLoadPath[i - 1] == '/') break;
    cLoadPath[i - 1] = 0;
  }
}

SI4 Init(char* rootname, char* path) {
  LOG(1, ("Build %s at %s", __DATE__, __TIME__));
  pSem->wait();
  if (!Initialized) {
    Initialized = 1;
  } else if (Root(rootname)) {
    ClrChar2asc();
    ClrChar2av();
    pSem->release(1);
    return ERR_ALLREADY_INITIALIZED;
  }
  SetLoadPath(path);
  SI4 rc = CreateRoot(rootname);
  // Both translation tables return to their defaults on every start.
  ClrChar2asc();
  ClrChar2av();
  pSem->release(1);
  return rc;
}

// The error result: the vector 20 rc.
static PAA ErrorResult(SI4 rc) {
  SI4 v[2] = {20, rc};
  return VAIntVector(v, 2);
}

// Finds the verb and checks that the argument count fits its syntax bits.
// The tests are bare bit tests, weaker than the declared syntax: the host's
// foreign-function layer keeps verb and arguments in step.
static SI4 FindVerb(const char* pName, SI4 nargs, const NAFUNCTION** ppFn) {
  for (UI4 i = 0; i < functionCount; i++) {
    if (strcmp(pName, functions[i].name) != 0) continue;
    UI4 syntax = functions[i].syntax;
    if (nargs == 2 && (syntax & 023) == 0) return ERR_DOMAIN;
    if (nargs == 1 && (syntax & MONA) == 0) return ERR_DOMAIN;
    *ppFn = &functions[i];
    return 0;
  }
  return ERR_VALUE;
}

// Calls the handler with the arguments its signature declares. The syntax
// test above is weaker than the declared syntax, so a handler can be reached
// with fewer or more arguments than it takes: an absent argument arrives as
// null, and a left argument a monadic handler doesn't take is not passed.
// Verbs that give data back through the left slot (RLEF) and dyadic verbs
// take the host's left pointer.
static PAA RunVerb(const NAFUNCTION* fn, PHIERAKI pRoot, SI4 nargs, UI4** ppLeft, PAA pRight) {
  if (fn->syntax & (RLEF | 002))
    return ((PFNDYADIC)fn->pointer)(pRoot, nargs == 2 ? ppLeft : nullptr, pRight);
  return ((PFNMONADIC)fn->pointer)(pRoot, pRight);
}

// Brings a verb's result to host types. A result that can't be brought is
// released, and its code becomes the call's.
SI4 NormResult(PPAA ppResult) {
  SI4 rc = VANorm(ppResult, Orvane2VA, VA2Orvane);
  if (rc) *ppResult = VAFree(*ppResult);
  return rc;
}

SI4 Call(char* rootname, char* pName, UI4** ppRight, UI4** ppLeft) {
  SI4 rc = 0;
  SI4 nargs;
  PAA pRight = nullptr;
  PAA pResult = nullptr;
  bool hasLeft = ppLeft && *ppLeft;
  LOG(1, ("Call %s", pName));
  if (!ppRight || !*ppRight) {
    nargs = hasLeft ? 1 : 0;
  } else {
    UI4 arch = GetBE32((PCH1)*ppRight + 4);
    if (((arch ^ ZHEADER) & ~0x16u) != 0) {
      rc = ERR_ARCHITECTURE;
      nargs = hasLeft ? 1 : 0;
    } else {
      SetUnicode(arch & ARCH_UNICODE);
      UI4 offset = 0;
      pRight = Unpack((PCH1)*ppRight + 8, &offset);
      if (!pRight) rc = ERR_ARCHITECTURE;
      nargs = hasLeft ? 2 : 1;
    }
  }
  PHIERAKI pRoot = rc ? nullptr : Root(rootname);
  if (!rc && !pRoot) rc = ERR_ROOT_NOT_FOUND;
  const NAFUNCTION* fn = nullptr;
  if (!rc) {
    LOG(2, ("One byte Function name %s", pName));
    rc = FindVerb(pName, nargs, &fn);
  }
  if (rc) {
    if (!Initialized) rc = ERR_NOT_INITIALIZED;
  } else if (!Initialized) {
    rc = ERR_NOT_INITIALIZED;
  } else if (!fn->pointer) {
    rc = ERR_VALUE;
  } else {
    pResult = RunVerb(fn, pRoot, nargs, ppLeft, pRight);
    if (!pResult) rc = ERR_MEMORY_ALLOC;
    else rc = NormResult(&pResult);
  }
  if (rc) pResult = ErrorResult(rc);
  UI4 size = SizeAA(pResult) + 8;
  PCH1 block = (PCH1)calloc(1, size);
  PutBE32(block, size);
  PutBE32(block + 4, RETZHEADER);
  Pack(pResult, block + 8);
  LOG(4, ("After pack"));
  pResult = VAFree(pResult);
  pRight = VAFree(pRight);
  *ppRight = (UI4*)block;
  return rc;
}

SI4 Call1(char* rootname, char* pName, UI4** ppRight, UI4** ppLeft) {
  SI4 rc = Call(rootname, pName, ppRight, ppLeft);
  if (!ppLeft || *ppLeft) return rc;
  *ppLeft = ScalarZ((UI4)rc);
  return rc;
}

SI4 Call2(char* rootname, char* pName, UI4** ppRight, UI4** ppLeft) {
  return Call(rootname, pName, ppRight, ppLeft);
}

void FreeUsedOrvaneResult(void* p) { BigFree(p); }

SI4 KickStart(char* rootname) {
  PHIERAKI pRoot = Root(rootname);
  if (!pRoot) return ERR_ROOT_NOT_FOUND;
  return Dirty(pRoot);
}
