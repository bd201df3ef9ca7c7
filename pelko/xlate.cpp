// The host's character translation exports. SetXLate installs a pair of
// tables; GetXLate reads a pair from the transliteration file without
// installing it.
#include <cstring>
#include <mutex>

#include "aplrpc.h"
#include "vatrans.h"

char AplName[7] = "NONAME";
char HostName[7] = "      ";

// Translations read so far, kept for the life of the process.
static void* pTransRoot = nullptr;
static std::mutex transLock;

// Six characters, blank padded, and a terminator.
static void CopyPadded(char* dst, const char* src) {
  size_t len = strnlen(src, 6);
  memcpy(dst, src, len);
  memset(dst + len, ' ', 6 - len);
  dst[6] = 0;
}

SI4 SetXLate(char* aAplName, char* aHostName, char* pAv2Asc, char* pAsc2Av) {
  CopyPadded(AplName, aAplName);
  CopyPadded(HostName, aHostName);
  SetChar2asc(pAv2Asc);
  SetChar2av(pAsc2Av);
  return 0;
}

// The table of one direction; two names that need no translation give the
// identity.
static SI4 OneWay(char* from, char* to, char* out) {
  PCH1 trans;
  SI4 rc = FindTrans(from, to, &pTransRoot, &trans);
  if (rc) return rc;
  for (int i = 0; i < 256; i++) out[i] = trans ? trans[i] : (char)i;
  return 0;
}

SI4 GetXLate(char* aAplName, char* aHostName, char* pAv2Asc, char* pAsc2Av) {
  char apl[7], host[7];
  CopyPadded(apl, aAplName);
  CopyPadded(host, aHostName);
  std::lock_guard<std::mutex> hold(transLock);
  SI4 rc = OneWay(apl, host, pAv2Asc);
  if (!rc) rc = OneWay(host, apl, pAsc2Av);
  return rc;
}
