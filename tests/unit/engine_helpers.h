// Small helpers shared by the engine tests: a countable tree object, a verb
// run on a root, and readers for the arrays the verbs give back.
#pragma once

#include <atomic>
#include <cstring>
#include <string>

#include "vapl.h"
#include "rpcobjs.h"

// A plain tree object that counts its own destruction and its clean-ups.
class CountedObj : public RPCOBJS {
 public:
  explicit CountedObj(OBJTYPE type, std::atomic<int>* deleted = nullptr,
                      std::atomic<int>* cleaned = nullptr)
      : RPCOBJS(type), pDeleted(deleted), pCleaned(cleaned) {}
  ~CountedObj() override {
    if (pDeleted) ++*pDeleted;
  }
  SI4 CleanUp(PHIERAKI) override {
    if (pCleaned) ++*pCleaned;
    return 0;
  }
  std::atomic<int>* pDeleted;
  std::atomic<int>* pCleaned;
};

inline std::string TextOf(PAA p) {
  if (!p || VAType(p) != VAC1) return "<not text>";
  return std::string((const char*)VADATA(p), VAElems(p));
}

inline PAA Elem(PAA p, UI4 i) {
  PAA c;
  memcpy(&c, (char*)VADATA(p) + i * sizeof(PAA), sizeof(PAA));
  return c;
}

inline SI4 IntOf(PAA p, UI4 i = 0) {
  SI4 v = -12345;
  VAGetSI4(p, i, &v);
  return v;
}

// Runs a monadic verb on a root and gives its result, the argument freed.
inline PAA RunVerb(PAA (*verb)(PHIERAKI, PAA), PHIERAKI root, PAA arg) {
  PAA r = verb(root, arg);
  VAFree(arg);
  return r;
}

inline std::string NodeName(PHIERAKI h) { return std::string(h->Name, strnlen(h->Name, 32)); }
