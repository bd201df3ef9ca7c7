// The exported entry points: the door through which the interpreter reaches
// the library. Everything the host calls is declared here.
#pragma once

#include "taltypes.h"

// Syntax bits of a verb (octal, as the host's foreign-function layer has them).
#define NILA 0000
#define MONA 0001
#define DYAD 0003
#define OPTL 0007
#define RSLT 0010
#define RLEF 0020
#define RRIG 0040

typedef struct NAFUNCTION {
  PSZ name;
  UI4 syntax;
  PVOID pointer;
} NAFUNCTION;

extern const NAFUNCTION functions[];
extern const UI4 functionCount;
extern SI4 Initialized;
extern char cLoadPath[2048];

struct VARRAY;
// Normalises a verb's result for the host as Call does before packing; on
// failure the result is released and the code returned.
SI4 NormResult(VARRAY** ppResult);

struct aplses;
typedef aplses* paplses;

PELKO_EXPORT void onLoad();
PELKO_EXPORT void onUnload();
PELKO_EXPORT SI4 Version(UI4* ver);
PELKO_EXPORT SI4 Init(char* rootname, char* path);
PELKO_EXPORT SI4 Call(char* rootname, char* pName, UI4** ppRight, UI4** ppLeft);
PELKO_EXPORT SI4 Call1(char* rootname, char* pName, UI4** ppRight, UI4** ppLeft);
PELKO_EXPORT SI4 Call2(char* rootname, char* pName, UI4** ppRight, UI4** ppLeft);
PELKO_EXPORT void FreeUsedOrvaneResult(void* p);
PELKO_EXPORT SI4 KickStart(char* rootname);
PELKO_EXPORT SI4 SetXLate(char* aAplName, char* aHostName, char* pAv2Asc, char* pAsc2Av);
PELKO_EXPORT SI4 GetXLate(char* aAplName, char* aHostName, char* pAv2Asc, char* pAsc2Av);
PELKO_EXPORT SI4 cflate(int flags, paplses* ctx, unsigned char* in, unsigned* inLength,
                        unsigned char* out, unsigned* outLength, int level);
PELKO_EXPORT void* Zuno2Init(void* pZuno2Config);
