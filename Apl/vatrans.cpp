// The host-to-ASCII tables start as identities and stay out of the way until
// the host installs its own with SetXLate.
#include "vatrans.h"

#include <strings.h>

#include <cstdlib>
#include <cstring>

#include "log.h"
#include "pelkoerr.h"
#include "talplat.h"

#define MODULE 0x08000000

char av2asc[256];
char asc2av[256];
char isav2asc = 0;
char isasc2av = 0;
PCH1 pAPLUnicodeFile = nullptr;

static void Identity(char* table) {
  for (int i = 0; i < 256; i++) table[i] = (char)i;
}

// Identity until the first Init clears them.
__attribute__((constructor)) static void InitTables() {
  Identity(av2asc);
  Identity(asc2av);
}

void ClrChar2av() {
  Identity(asc2av);
  isasc2av = 0;
}

void ClrChar2asc() {
  Identity(av2asc);
  isav2asc = 0;
}

void SetChar2av(PCH1 pcCharSet) {
  memcpy(asc2av, pcCharSet, 256);
  isasc2av = 1;
}

void SetChar2asc(PCH1 pcCharSet) {
  memcpy(av2asc, pcCharSet, 256);
  isav2asc = 1;
}

static PCH1 Translate(const char* table, char flag, PCH1 p, UI4 b) {
  if (!flag || !b) return p;
  for (UI4 i = 0; i < b; i++) p[i] = table[(UI1)p[i]];
  return p;
}

PCH1 VA2avn(PCH1 pcAsc, UI4 b) { return Translate(asc2av, isasc2av, pcAsc, b); }
PCH1 VA2ascn(PCH1 pszAv, UI4 b) { return Translate(av2asc, isav2asc, pszAv, b); }

// Reads the 256 code points of one character set: keys "0", "1", ... each
// continue at the count reached so far.
static SI4 ReadTable(PCH1 section, PCH1 file, UI4* table) {
  UI4 count = 0;
  while (count < 256) {
    char key[16], line[133];
    snprintf(key, sizeof(key), "%u", count);
    UI4 n = PLATIni(section, key, (PCH1) "", line, sizeof(line) - 1, file);
    line[n] = 0;
    char* save = nullptr;
    UI4 before = count;
    for (char* tok = strtok_r(line, " ,\t", &save); tok && count < 256;
         tok = strtok_r(nullptr, " ,\t", &save))
      table[count++] = (UI4)strtoul(tok, nullptr, 0);
    // An incomplete table would be asked for the same key for ever.
    if (count == before) {
      LOG(1, ("Can't read key %s from section %s in file %s", key, section, file));
      return ERR_UNI_CONVERSION;
    }
  }
  return 0;
}

static SI4 DefaultChar(PCH1 section, PCH1 file, char* out) {
  UI4 n = PLATIni(section, (PCH1) "DefaultChar", (PCH1) "", out, 20, file);
  if (n == 0) {
    LOG(1, ("Can't read key %s from section %s in file %s", "DefaultChar", section, file));
    return ERR_UNI_CONVERSION;
  }
  out[n] = 0;
  return 0;
}

static void CutAtBlank(char* name) {
  char* blank = strchr(name, ' ');
  if (blank) *blank = 0;
}

static SI4 ReadTransFrom(TRANSLITERATION* pTrans, PCH1 file) {
  char from[7], to[7], def[21];
  memcpy(from, pTrans->FromName, 7);
  memcpy(to, pTrans->ToName, 7);
  CutAtBlank(from);
  CutAtBlank(to);
  SI4 rc = DefaultChar(from, file, def);
  if (!rc) rc = DefaultChar(to, file, def);
  if (rc) return rc;
  memset(pTrans->Trans, (int)strtol(def, nullptr, 10), 256);
  UI4 source[256], target[256];
  rc = ReadTable(from, file, source);
  if (!rc) rc = ReadTable(to, file, target);
  if (rc) return rc;
  for (UI4 i = 0; i < 256; i++) {
    for (UI4 j = 0; j < 256; j++) {
      if (target[j] != source[i]) continue;
      pTrans->Trans[i] = (char)j;
      break;
    }
  }
  return 0;
}

SI4 ReadTrans(TRANSLITERATION* pTrans) {
  pTrans->pNextTrans = nullptr;
  if (pAPLUnicodeFile) return ReadTransFrom(pTrans, pAPLUnicodeFile);
  PCH1 file = PrependConfigDir((PCH1) "pelkotrans.ini");
  if (!file) return ERR_UNI_CONVERSION;
  SI4 rc = ReadTransFrom(pTrans, file);
  free(file);
  return rc;
}

static bool SameName(const char* a, const char* b) { return strncasecmp(a, b, 6) == 0; }

static void CopyName(char* dst, const char* src) {
  strncpy(dst, src, 6);
  dst[6] = 0;
}

SI4 FindTrans(PCH1 FromName, PCH1 ToName, void** ppRoot, PCH1* ppTrans) {
  *ppTrans = nullptr;
  if (SameName(FromName, ToName)) return 0;
  PTRANS last = nullptr;
  for (PTRANS p = (PTRANS)*ppRoot; p; p = p->pNextTrans) {
    if (SameName(p->FromName, FromName) && SameName(p->ToName, ToName)) {
      *ppTrans = p->Trans;
      return 0;
    }
    last = p;
  }
  PTRANS pNew = (PTRANS)malloc(sizeof(TRANSLITERATION));
  if (!pNew) return ERR_UNI_MEMORY;
  CopyName(pNew->FromName, FromName);
  CopyName(pNew->ToName, ToName);
  SI4 rc = ReadTrans(pNew);
  if (rc) {
    free(pNew);
    return rc;
  }
  if (last) last->pNextTrans = pNew;
  else *ppRoot = pNew;
  *ppTrans = pNew->Trans;
  return 0;
}
