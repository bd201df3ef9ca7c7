// The registry of root names. A root is a name in a ring; the engine that
// lives behind each name grows from here.
#include "root.h"

#include <cstdlib>
#include <cstring>
#include <mutex>

#include "pelkoerr.h"
#include "pelkossl.h"
#include "securesocket.h"

struct HIERAKI {
  char name[33];
  HIERAKI* pNext;
};

PHIERAKI pRoots = nullptr;
static std::mutex rootsLock;

PHIERAKI Root(const char* name) {
  std::lock_guard<std::mutex> g(rootsLock);
  for (PHIERAKI p = pRoots; p; p = p->pNext)
    if (strcmp(p->name, name) == 0) return p;
  return nullptr;
}

SI4 CreateRoot(const char* name) {
  if (!name || strlen(name) > 32) return ERR_INVALID_NAME;
  PHIERAKI p = (PHIERAKI)calloc(1, sizeof(HIERAKI));
  if (!p) return ERR_MEMORY_ALLOC;
  strcpy(p->name, name);
  std::lock_guard<std::mutex> g(rootsLock);
  p->pNext = pRoots;
  pRoots = p;
  return 0;
}

void RPCLoad() {
  LoadPelkossl();
  if (PelkosslLoaded()) SslLoad();
}

void RPCUnload(PHIERAKI pRoot) {
  std::lock_guard<std::mutex> g(rootsLock);
  for (PHIERAKI* pp = &pRoots; *pp; pp = &(*pp)->pNext) {
    if (*pp == pRoot) {
      *pp = pRoot->pNext;
      free(pRoot);
      return;
    }
  }
}

SI4 Dirty(PHIERAKI) { return 0; }
