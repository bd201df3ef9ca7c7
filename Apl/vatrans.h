// Transliteration: the two 256-byte tables between the host's character set
// and ASCII, and translations between named character sets read from an ini
// file.
#pragma once

#include "taltypes.h"

typedef struct TRANSLITERATION* PTRANS;
typedef struct TRANSLITERATION {
  PTRANS pNextTrans;
  char FromName[7];  // six characters, blank padded, and a zero
  char ToName[7];
  char Trans[256];   // byte of the target set for each byte of the source set
} TRANSLITERATION;

extern char av2asc[256];
extern char asc2av[256];
extern char isav2asc;
extern char isasc2av;
// The ini file that holds the character sets. When null, "pelkotrans.ini"
// in the configuration directory is read.
extern PCH1 pAPLUnicodeFile;

void ClrChar2av();
void ClrChar2asc();
void SetChar2av(PCH1 pcCharSet);
void SetChar2asc(PCH1 pcCharSet);
PCH1 VA2avn(PCH1 pcAsc, UI4 b);
PCH1 VA2ascn(PCH1 pszAv, UI4 b);
SI4 ReadTrans(TRANSLITERATION* pTrans);
SI4 FindTrans(PCH1 FromName, PCH1 ToName, void** ppRoot, PCH1* ppTrans);
