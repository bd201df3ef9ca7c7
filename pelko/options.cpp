// Option lists. Two styles stand side by side: GetBool, GetSI4 and GetEnum
// fall back to a default and report a bad value, GetPCH10 reports nothing.
#include "options.h"

#include <strings.h>

#include <cctype>
#include <cstdlib>

#include "pelkoerr.h"

PCH1 PelkoOptionNames[COMAX] = {
    (PCH1) "Name",           (PCH1) "Address",        (PCH1) "Port",
    (PCH1) "Mode",           (PCH1) "BufferSize",     (PCH1) "SSLValidation",
    (PCH1) "EOM",            (PCH1) "IgnoreCase",     (PCH1) "Protocol",
    (PCH1) "PublicCertData", (PCH1) "PrivateKeyFile", (PCH1) "PrivateKeyPass",
    (PCH1) "PublicCertFile", (PCH1) "PublicCertPass", (PCH1) "PrivateKeyData",
    (PCH1) "Priority",       (PCH1) "Magic",          (PCH1) "AllowEndpoints",
    (PCH1) "DenyEndpoints"};
PCH1 CertOptionNames[7] = {(PCH1) "Type",    (PCH1) "Source",    (PCH1) "Issuer",
                           (PCH1) "Subject", (PCH1) "Details",   (PCH1) "DecodeApi",
                           (PCH1) "Password"};
PCH1 CertTypeOptionNames[5] = {(PCH1) "Folder", (PCH1) "DER", (PCH1) "PK#12",
                               (PCH1) "Decode", (PCH1) "URLs"};
PCH1 CertInfoOptionNames[5] = {(PCH1) "Name", (PCH1) "Prop", (PCH1) "Cert", (PCH1) "Info",
                               (PCH1) "Api"};
PCH1 certname[6] = {(PCH1) "No",    (PCH1) "RAW",     (PCH1) "DER",
                    (PCH1) "PK#12", (PCH1) "MSStore", (PCH1) "URL"};
PCH1 apiname[1] = {(PCH1) "gnu"};

SI4 Lookup(PCH1 name, SI4 n, PCH1* names) {
  for (SI4 i = 0; i < n; i++)
    if (strcasecmp(name, names[i]) == 0) return i;
  return n;
}

static bool IsPair(PAA p) { return p && p->type == VAPntr && p->rank == 1 && VAElems(p) == 2; }

SI4 GetOptionpAA(PAA pAA, SI4 index, SI4 n, PCH1* names, PPAA out) {
  *out = nullptr;
  if (!pAA) return ERR_ARG_MISSING;  // no argument at all
  if (pAA->type != VAPntr) {
    if (index != 0) return ERR_ARG_MISSING;
    VAIncRef(pAA);
    *out = pAA;
    return 0;
  }
  UI4 count = VAShapeProduct(pAA);
  UI4 i = 0;
  for (; i < count && !IsPair(VASlot(pAA, i)); i++)
    if ((SI4)i == index) return VAGetpAA(pAA, i, out);
  // From the first pair on every element is taken for a pair: positional
  // values after a keyword can't be had.
  for (; i < count; i++) {
    PAA pair = VASlot(pAA, i);
    if (!pair) return ERR_ARG_INVALID;
    char name[1025];
    SI4 rc = VAGetCH1(pair, 0, name, sizeof(name), VACHAR);
    if (rc) return rc;
    SI4 option = Lookup(name, n, names);
    if (n < 1 || option == n) return ERR_ARG_INVALID;
    if (option == index) return VAGetpAA(pair, 1, out);
  }
  return ERR_ARG_MISSING;
}

SI4 CheckArgList(PAA pAA, SI4 n, PCH1* names) {
  PAA p;
  SI4 rc = GetOptionpAA(pAA, n, n, names, &p);
  VAFree(p);
  return rc == ERR_ARG_MISSING ? 0 : rc;
}

SI4 GetBool(PAA pAA, SI4 index, SI4 n, PCH1* names, SI1 def, PSI1 out) {
  PAA p;
  if (GetOptionpAA(pAA, index, n, names, &p) || !p) {
    *out = def;
    return 0;
  }
  char text[51];
  SI4 rc = VAGetCH1(p, 0, text, sizeof(text), VACHAR);
  VAFree(p);
  if (rc) {
    *out = def;
    return ERR_ARG_INVALID;
  }
  const char* c = text;
  while (*c == ' ') c++;
  char first = (char)toupper((unsigned char)*c);
  *out = (first == '1' || first == 'T' || first == 'Y') ? 1 : 0;
  return 0;
}

SI4 GetSI4(PAA pAA, SI4 index, SI4 n, PCH1* names, SI4 def, PSI4 out) {
  PAA p;
  if (GetOptionpAA(pAA, index, n, names, &p) || !p) {
    *out = def;
    return 0;
  }
  SI4 rc = VAGetSI4(p, 0, out);
  VAFree(p);
  if (rc) {
    *out = def;
    return ERR_ARG_INVALID;
  }
  return 0;
}

PCH10 GetPCH10(PAA pAA, SI4 index, SI4 n, PCH1* names, PCH10 buf, SI4 size) {
  PAA p;
  if (GetOptionpAA(pAA, index, n, names, &p) || !p) return nullptr;
  PCH10 text = buf;
  SI4 rc = size ? VAGetCH1(p, 0, buf, (UI4)size, VACHAR) : VAGetCH1m(p, 0, &text, VACHAR);
  VAFree(p);
  return rc ? nullptr : text;
}

SI4 GetEnum(PAA pAA, SI4 index, SI4 n, PCH1* names, SI4 count, PCH1* poptionlist, SI4 def,
            PSI4 err) {
  *err = 0;
  PAA p;
  if (GetOptionpAA(pAA, index, n, names, &p) || !p) return def;
  PCH1 text;
  SI4 rc = VAGetCH1m(p, 0, &text, VACHAR);
  VAFree(p);
  SI4 found = rc ? count : Lookup(text, count, poptionlist);
  free(text);
  if (found == count) {
    *err = ERR_ARG_INVALID;
    return def;
  }
  return found;
}

SI4 FreeList(LIST* pList) {
  if (!pList) return 0;
  for (SI4 i = 0; i < pList->Count; i++) free(pList->items[i]);
  free(pList);
  return 0;
}

// One entry of a stop list. The item's room has a margin past the length,
// which also holds a float's terminator.
static ITEM* ReadItem(PAA p, UI4 i, SI2 Translate) {
  UI4 len;
  if (VAGetLen(p, i, &len, Translate)) return nullptr;
  ITEM* item = (ITEM*)calloc(1, sizeof(ITEM) + len + 7);
  if (!item) return nullptr;
  item->len = (SI4)len - (Translate >= 1 ? 1 : 0);
  if (VAGetCH1(p, i, item->pc, len + 7, Translate)) {
    free(item);
    return nullptr;
  }
  return item;
}

SI4 GetList(PAA pAA, SI4 index, SI4 n, PCH1* names, SI2 Translate, LIST** ppList) {
  *ppList = nullptr;
  PAA p;
  SI4 rc = GetOptionpAA(pAA, index, n, names, &p);
  if (rc) return rc == ERR_ARG_MISSING ? 0 : rc;
  if (!p) return 0;
  UI4 count = p->type == VAPntr ? VAElems(p) : 1;
  LIST* list = (LIST*)calloc(1, sizeof(LIST) + count * sizeof(ITEM*));
  if (!list) {
    VAFree(p);
    return ERR_MEMORY_ALLOC;
  }
  list->Translate = Translate;
  list->Count = (SI4)count;
  for (UI4 i = 0; i < count && !rc; i++) {
    list->items[i] = ReadItem(p, i, Translate);
    if (!list->items[i]) rc = ERR_ARG_STOPLIST;
  }
  VAFree(p);
  if (rc) {
    FreeList(list);
    return rc;
  }
  *ppList = list;
  return 0;
}
