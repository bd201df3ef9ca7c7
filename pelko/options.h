// Argument lists: positional values first, then (name value) pairs, read
// against a table of option names compared without case.
#pragma once

#include "taltypes.h"
#include "stoplist.h"
#include "vapl.h"

enum PelkoOptions {
  COName = 0,
  COAddress,
  COPort,
  COMode,
  COMaxSize,
  COSSLCheckFlags,
  COStopList,
  COIgnoreCase,
  COProtocol,
  COPubCertData,
  COPrivKeyFile,
  COPrivKeyPass,
  COPubCertFile,
  COPubCertPass,
  COPrivKeyData,
  COPriority,
  COMagic,
  COAllowEndpoint,
  CODenyEndpoint,
  COMAX
};

extern PCH1 PelkoOptionNames[COMAX];
extern PCH1 CertOptionNames[7];
extern PCH1 CertTypeOptionNames[5];
extern PCH1 CertInfoOptionNames[5];
extern PCH1 certname[6];
extern PCH1 apiname[1];


SI4 Lookup(PCH1 name, SI4 n, PCH1* names);
// The option's array, with a reference the caller gives back with VAFree.
SI4 GetOptionpAA(PAA pAA, SI4 index, SI4 n, PCH1* names, PPAA out);
// Validates the whole list, so a misspelt name fails before anything runs.
SI4 CheckArgList(PAA pAA, SI4 n, PCH1* names);
SI4 GetBool(PAA pAA, SI4 index, SI4 n, PCH1* names, SI1 def, PSI1 out);
SI4 GetSI4(PAA pAA, SI4 index, SI4 n, PCH1* names, SI4 def, PSI4 out);
// With size 0 the text is allocated and the caller frees it.
PCH10 GetPCH10(PAA pAA, SI4 index, SI4 n, PCH1* names, PCH10 buf, SI4 size);
SI4 GetEnum(PAA pAA, SI4 index, SI4 n, PCH1* names, SI4 count, PCH1* poptionlist, SI4 def,
            PSI4 err);
SI4 GetList(PAA pAA, SI4 index, SI4 n, PCH1* names, SI2 Translate, LIST** ppList);
SI4 FreeList(LIST* pList);
