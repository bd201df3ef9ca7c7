// The verbs that work on the tree itself: closing objects (and whole
// roots), showing the tree, and reading and setting properties. None of
// them touches a socket; a close sets a state and wakes the work thread.
#include <cassert>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "log.h"
#include "pelkoerr.h"
#include "pelkossl.h"
#include "root.h"
#include "verbs.h"

#define MODULE 0x00000080

#define CLOSENAMELEN 1024
#define PROPNAMELEN 65

static SI4 Close(PHIERAKI root, const char* name) {
  if (!root) return ERR_ROOT_NOT_FOUND;
  if (!*name) return ERR_OBJECT_NOT_FOUND;
  if (name[0] == '.') return strcmp(name, ".") == 0 ? RPCUnload(root) : ERR_OBJECT_NOT_FOUND;
  HOSTINSIDE inside(root);
  PHIERAKI h = root->FindLeaf(name);
  if (!h || !h->pObj) return ERR_OBJECT_NOT_FOUND;
  LOG(1, ("Close object %s", name));
  return h->pObj->Close(h);
}

// The root may be gone once Close returns; it isn't touched afterwards.
PAA AClose(PHIERAKI root, PAA arg) {
  char name[CLOSENAMELEN + 1];
  SI4 rc = VAGetCH1(arg, 0, name, sizeof(name), VACHAR);
  return VARc(rc ? rc : Close(root, name));
}

static PHIERAKI Checktree(PHIERAKI i, void* arg) {
  CHECKMAGIC(i);
  i->LoopSub(Checktree, arg);
  return nullptr;
}

// A growing list of the items of one level of the tree.
typedef struct SUBITEM {
  UI4 Count;
  UI4 Max;
  PAA* ppAA;
} SUBITEM;

static void SubItemAdd(SUBITEM* s, PAA item) {
  if (s->Count == s->Max) {
    UI4 max = s->Max ? s->Max * 2 : 8;
    PAA* p = (PAA*)realloc(s->ppAA, max * sizeof(PAA));
    if (!p) {
      VAFree(item);
      return;
    }
    s->ppAA = p;
    s->Max = max;
  }
  s->ppAA[s->Count++] = item;
}

static PAA VersionText() {
  char text[2048];
  GetDLLVersion(text, sizeof(text));
  size_t n = strlen(text);
  n += snprintf(text + n, sizeof(text) - n, " built %s %s. ", __DATE__, __TIME__);
  if (PelkosslLoaded() && n < sizeof(text)) pelkossl.pelkosslversion(text + n, (int)(sizeof(text) - n));
  return VAText(text);
}

static SI4 ThreadSemCount(PROOT pRoot) {
  pRoot->pThreadSem->wait();
  SI4 count = pRoot->pThreadList ? pRoot->pThreadList->Count() : 0;
  pRoot->pThreadSem->release(1);
  return count;
}

// Name, type and state of a node, and what its kind adds: the version and
// the parking semaphores of a root, the progress of a data object.
static PAA Describe(PHIERAKI h) {
  char name[MAXNAMELENGTH + 1];
  memcpy(name, h->Name, MAXNAMELENGTH);
  name[MAXNAMELENGTH] = 0;
  PRPCOBJS obj = h->pObj;
  PAA n = VAText(name);
  PAA t = VAInt(obj ? (SI4)obj->Type : -1);
  PAA s = VAInt(obj ? (SI4)obj->State.load() : -1);
  if (obj && obj->Type == TRoot)
    return VANested({n, t, s, VersionText(), VAInt(ThreadSemCount((PROOT)obj))});
  PBUFFER b = obj && (obj->Type == TCommand || obj->Type == TMessage) ? obj->GetBuffer() : nullptr;
  if (b) return VANested({n, t, s, VAInt((SI4)b->SizeProcessed()), VAInt((SI4)b->Remaining())});
  return VANested({n, t, s});
}

static PHIERAKI SubTree(PHIERAKI h, void* arg);

static PAA Children(PHIERAKI h) {
  SI4 n = h->CountChildren();
  if (n == 0) return VANewVector(VAI4, 0);
  SUBITEM sub = {0, (UI4)n + 5, (PAA*)calloc((size_t)n + 5, sizeof(PAA))};
  if (!sub.ppAA) return VANewVector(VAI4, 0);
  h->LoopSub(SubTree, &sub);
  PAA r = VANewVector(VAPntr, sub.Count);
  for (UI4 i = 0; i < sub.Count; i++) {
    if (r) VASetpAA(r, i, sub.ppAA[i]);
    else VAFree(sub.ppAA[i]);
  }
  free(sub.ppAA);
  return r ? r : VANewVector(VAI4, 0);
}

// One pair, the node's description and its children, into the caller's list.
static PHIERAKI SubTree(PHIERAKI h, void* arg) {
  PAA pair = VANested({Describe(h), Children(h)});
  if (pair) SubItemAdd((SUBITEM*)arg, pair);
  return nullptr;
}

PAA ATree(PHIERAKI root, PAA arg) {
  char name[CLOSENAMELEN + 1];
  if (!root) return VARc(ERR_ROOT_NOT_FOUND);
  SI4 rc = VAGetCH1(arg, 0, name, sizeof(name), VACHAR);
  if (rc) return VARc(rc);
  HOSTINSIDE inside(root);
  PHIERAKI h = !*name || name[0] == '.' ? root : root->FindLeaf(name);
  if (!h) return VARc(ERR_OBJECT_NOT_FOUND);
  Checktree(root, nullptr);
  SUBITEM item = {0, 0, nullptr};
  SubTree(h, &item);
  Checktree(root, nullptr);
  PAA r = item.Count ? VANested({VAInt(0), item.ppAA[0]}) : nullptr;
  free(item.ppAA);
  return r ? r : VARc(ERR_MEMORY_ALLOC);
}

// Reads the name and the property of a property verb.
static SI4 PropArgs(PAA arg, PCH1 name, PCH1 prop) {
  SI4 rc = VAGetCH1(arg, 0, name, PROPNAMELEN + 1, VACHAR);
  return rc ? rc : VAGetCH1(arg, 1, prop, PROPNAMELEN + 1, VACHAR);
}

PAA ASetProp(PHIERAKI root, PAA arg) {
  char name[PROPNAMELEN + 1], prop[PROPNAMELEN + 1];
  if (!root) return VARc(ERR_ROOT_NOT_FOUND);
  PAA value = nullptr;
  SI4 rc = PropArgs(arg, name, prop);
  if (!rc) rc = VAGetpAA(arg, 2, &value);
  if (rc) return VARc(rc);
  HOSTINSIDE inside(root);
  PHIERAKI h = root->FindLeaf(name);
  rc = h && h->pObj ? h->pObj->SetRPCProp(root, prop, value) : ERR_OBJECT_NOT_FOUND;
  VAFree(value);
  return VARc(rc);
}

PAA AGetProp(PHIERAKI root, PAA arg) {
  char name[PROPNAMELEN + 1], prop[PROPNAMELEN + 1];
  if (!root) return VARc(ERR_ROOT_NOT_FOUND);
  SI4 rc = PropArgs(arg, name, prop);
  if (rc) return VARc(rc);
  HOSTINSIDE inside(root);
  PHIERAKI h = root->FindLeaf(name);
  OBJSTATE s = h && h->pObj ? h->pObj->State.load() : SMarkedForDeletion;
  if (s == SFinished || s == SMarkedForDeletion) return VARc(ERR_OBJECT_NOT_FOUND);
  PAA value = nullptr;
  rc = h->pObj->GetRPCProp(prop, arg, &value);
  if (rc) return VARc(rc);
  PAA r = VANested({VAInt(0), value});
  return r ? r : VARc(ERR_MEMORY_ALLOC);
}
