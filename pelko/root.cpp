// Roots: creation, the wake-up line from host threads to the work thread,
// ending, and the root's properties.
#include "root.h"

#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <mutex>

#include "httpconnection.h"
#include "options.h"
#include "log.h"
#include "pelkoerr.h"
#include "pelkossl.h"
#include "securesocket.h"
#include "work.h"

#define MODULE 0x00000080

PHIERAKI pRoots = nullptr;
// Host threads look roots up by name while others open and close them; the
// ring itself is guarded here.
static std::mutex rootsLock;

PHIERAKI Root(const char* name) {
  std::lock_guard<std::mutex> g(rootsLock);
  return pRoots && name ? pRoots->Find(name) : nullptr;
}

PHIERAKI Root(PHIERAKI h) {
  while (h && h->pParent) h = h->pParent;
  return h;
}

PROOT RootObj(PHIERAKI h) {
  h = Root(h);
  return h && h->pObj && h->pObj->Type == TRoot ? (PROOT)(PRPCOBJS)h->pObj : nullptr;
}

SI4 Dirty(PHIERAKI pRoot) {
  PROOT p = RootObj(pRoot);
  return p ? p->Dirty() : ERR_ROOT_NOT_FOUND;
}

SI4 RPCLoad() {
  LoadPelkossl();
  if (PelkosslLoaded()) SslLoad();
  InitTimer();
  return 0;
}

static void UnlinkRoot(PHIERAKI node) {
  std::lock_guard<std::mutex> g(rootsLock);
  pRoots = pRoots ? pRoots->Remove(node) : nullptr;
  // Remove hands back the member to keep holding; that is never the node
  // that left.
  if (pRoots == node) pRoots = nullptr;
}

SI4 CreateRoot(const char* name) {
  PROOT obj = new ROOT();
  PHIERAKI node = new HIERAKI(name, obj);
  {
    std::lock_guard<std::mutex> g(rootsLock);
    pRoots = HIERAKI::Add(pRoots, node);
  }
  obj->UseFnsReady = 2;
  PFNREADY fns[5] = {FindReady, FindReadyRR, FindReadyTO, FindReadyTS, FindReadyTnc};
  for (int i = 0; i < 5; i++) obj->pfnsReady[i] = (void*)fns[i];
  SI4 rc = obj->RootInit(node);
  if (rc) {
    UnlinkRoot(node);
    delete node;
  }
  return rc;
}

SI4 RPCUnload(PHIERAKI root) {
  LOG(1, ("RPCUnload %p", (void*)root));
  if (!root) return 0;
  // PopChild waits for the work thread's walk of the root to end, and once
  // off the ring a child can't be reached by that walk any more.
  for (PHIERAKI child = root->PopChild(); child; child = root->PopChild()) delete child;
  PROOT p = (PROOT)(PRPCOBJS)root->pObj;
  if (!p) return 0;
  // A forked child closing its copy of a root leaves the thread alone: it
  // is the parent's.
  if (p->pid == getpid()) {
    p->Endwork();
    p->WaitComClose();
  }
  UnlinkRoot(root);
  delete root;
  return 0;
}

ROOT::ROOT()
    : RPCOBJS(TRoot), pSockData(nullptr), pClt(nullptr), pWork(nullptr), pBuf(nullptr),
      DefProt(PAny), EventMode(0), NameCnt(0), pid(0), UseFnsReady(0), pfnsReady(),
      pTalThread(nullptr), LastChecked(time(nullptr)), WakePending(false), pCertRootDir(nullptr),
      pRootCerts(new RootCerts()), pThreadSem(new TALSEMA(1, 1)), pThreadList(nullptr),
      pClientSessionDB(nullptr), HostsInside(0), GravesWaiting(false) {}

ROOT::~ROOT() {
  LOG(1, ("Deleting Root"));
  FreeGraves(true);
  delete pClt;
  pClt = nullptr;
  delete pWork;
  pWork = nullptr;
  delete pBuf;
  pBuf = nullptr;
  // Nobody may stay asleep on a semaphore that is about to go.
  PTHREADSEM w = pWaiting.exchange(nullptr);
  if (w) {
    w->ReleaseSem();
    TALSleep(1000.0);
  }
  delete pTalThread;
  pTalThread = nullptr;
  pThreadSem->wait();
  if (pThreadList) pThreadList->Remove();
  delete pThreadList;
  pThreadList = nullptr;
  pThreadSem->release(1);
  delete pThreadSem;
  pThreadSem = nullptr;
  free(pCertRootDir);
  pCertRootDir = nullptr;
  ClearSessionDB(pClientSessionDB);
  pClientSessionDB = nullptr;
  delete pRootCerts;
  pRootCerts = nullptr;
}

static UI4 WorkThreadEntry(PVOID p) { return (UI4)WorkThread((PHIERAKI)p); }

SI4 ROOT::RootInit(PHIERAKI pItem) {
  SI4 rc = InitSocket(&pSockData);
  if (rc) {
    LOGStrL("WSAStartup Failed with error code: ", rc);
    return rc;
  }
  rc = RPCSockPair(&pWork, &pClt);
  if (rc) return rc;
  pBuf = new BUFFER(4);
  // Known before the thread runs, so that a root closed at once still
  // waits for its thread.
  pid = getpid();
  pTalThread = new TALTHREAD(WorkThreadEntry, pItem);
  if (pTalThread->Ended) return ERR_WORKSYNC_RECV;
  State = SRootInit;
  return 0;
}

// Words of 4 bytes must not be split, or every later word would be read
// out of step: a word that went out in part is finished here, a little
// at a time and for a bounded while.
SI4 ROOT::SendWord(UI4 word) {
  BUFFER b(4, (PCH1)&word);
  SI4 rc = pClt->Write(&b);
  for (int i = 0; !rc && b.SizeProcessed() > 0 && !b.Complete() && i < 1000; i++) {
    TALSleep(100.0);
    rc = pClt->Write(&b);
  }
  return rc;
}

SI4 ROOT::Dirty() {
  SI4 rc = lErrorObj;
  if (rc) return rc;
  // One word wakes the thread; the round it starts sees every change made
  // before the word's flag is cleared at that round's beginning.
  if (WakePending.exchange(true)) return 0;
  rc = SendWord(0);
  if (rc) WakePending = false;
  return rc == ERR_SEND ? 0 : rc;
}

void ROOT::Endwork() { SendWord((UI4)getpid()); }

void ROOT::CloseComWork() {
  delete pWork;
  pWork = nullptr;
}

// Reading the host's end fails once the work thread has closed its own;
// after that its Ended flag follows shortly. About a second at most.
void ROOT::WaitComClose() {
  BUFFER b(4);
  SI4 rc = 0;
  int sleeps = 0;
  for (int i = 0; i < 101; i++) {
    rc = pClt->Read(&b);
    if (rc) break;
    TALSleep(10000.0);
    sleeps++;
    b.Rewind();
  }
  while (!pTalThread->Ended && sleeps++ < 100) TALSleep(10000.0);
  LOG(1, ("WaitComClose %d", rc));
}

// The node is off the tree already. A host thread that entered before
// may hold it; one that enters after can't find it. The fence orders the
// unlinking before the count is read, as entering orders the count before
// the search.
void ROOT::Bury(PHIERAKI h) {
  Graves.push_back(h);
  GravesWaiting = true;
  FreeGraves(false);
}

void ROOT::FreeGraves(bool force) {
  if (Graves.empty()) return;
  std::atomic_thread_fence(std::memory_order_seq_cst);
  if (!force && HostsInside.load() > 0) return;
  GravesWaiting = false;
  // In the order buried: a node's children went before it.
  for (PHIERAKI h : Graves) delete h;
  Graves.clear();
}

HOSTINSIDE::HOSTINSIDE(PHIERAKI root) : pRoot(RootObj(root)), in(false) { Enter(); }

void HOSTINSIDE::Enter() {
  if (in || !pRoot) return;
  pRoot->HostsInside.fetch_add(1);
  in = true;
}

// The last one out wakes the work thread when nodes wait to be freed.
void HOSTINSIDE::Leave() {
  if (!in) return;
  in = false;
  if (pRoot->HostsInside.fetch_sub(1) == 1 && pRoot->GravesWaiting) pRoot->Dirty();
}

SOCKET ROOT::GetSocket(SI4 which) {
  PRPCSOCK s = which ? pWork : pClt;
  return s ? s->RawSocket() : INVALID_SOCKET;
}

SI4 ROOT::Check(PFDSETS fds) {
  pWork->Wait4R(&fds->ss);
  return 0;
}

SI4 ROOT::Setinfo(PFDSETS) { return 0; }

SI4 ROOT::Execute(PFDSETS fds) {
  if (fds->closeAllSockets) {
    // Only the work thread's own end closes here. The host end stays open
    // until the root is destroyed: host threads may be writing to it, and
    // closing it under them could hand its number to another descriptor.
    pWork->CloseSocket();
    return 0;
  }
  if (time(nullptr) > LastChecked + 60) {
    pThreadSem->wait();
    if (pThreadList) pThreadList = pThreadList->RemoveOld();
    pThreadSem->release(1);
    LastChecked = time(nullptr);
  }
  if (!pWork->Ready4R(&fds->ss)) return 0;
  if (pWork->Read(pBuf)) {
    fds->endWorkThread = true;
    return ERR_WORKSYNC_RECV;
  }
  if (!pBuf->Complete()) return ERR_WORKSYNC_RECV;
  pBuf->Rewind();
  UI4 word;
  memcpy(&word, pBuf->Start(), 4);
  if (word == (UI4)CurrentPid()) {
    fds->endWorkThread = true;
    LOG(1, ("endWorkThread %d %d", (int)word, (int)CurrentPid()));
  }
  return 0;
}

// Reads element 0 of a property value as a number; def when it can't be.
static SI4 ValueSI4(PAA value, SI4 def, PSI4 out) {
  SI4 rc = VAGetSI4(value, 0, out);
  if (rc) *out = def;
  return rc;
}

SI4 ROOT::SetRPCProp(PHIERAKI, PCH1 name, PAA value) {
  SI4 v = 0;
  char text[1025];
  if (strcasecmp(name, "crash") == 0) {
    // Exists to make the process fail on purpose.
    LOG(1, ("crash requested"));
    abort();
  }
  if (strcasecmp(name, "InvalidateCache") == 0) return ValueSI4(value, 0, &v);
  if (strcasecmp(name, "TraceGnuTLS") == 0) {
    SI4 rc = ValueSI4(value, 0, &v);
    if (!rc) SslTrace(v);
    return rc;
  }
  if (strcasecmp(name, "RootCertDir") == 0) {
    free(pCertRootDir);
    pCertRootDir = nullptr;
    SI4 rc = VAGetCH1(value, 0, text, sizeof(text), VACHAR);
    if (rc) return rc;
    pCertRootDir = strdup(text);
    if (!pCertRootDir) return ERR_MEMORY_ALLOC;
    return PelkosslLoaded() ? CacheNewRootDir(pRootCerts, pCertRootDir) : 0;
  }
  if (strcasecmp(name, "Trace") == 0) {
    ValueSI4(value, 0, &v);
    LOGSet((UI4)v);
    return 0;
  }
  if (strcasecmp(name, "ReadyStrategy") == 0) {
    SI4 rc = ValueSI4(value, UseFnsReady, &v);
    if (rc) return rc;
    UseFnsReady = v > 4 ? 0 : v;
    return 0;
  }
  if (strcasecmp(name, "EventMode") == 0) {
    ValueSI4(value, 0, &v);
    EventMode = v > 0 ? 1 : 0;
    return 0;
  }
  if (strcasecmp(name, "Protocol") == 0) {
    SI4 rc = VAGetCH1(value, 0, text, sizeof(text), VACHAR);
    if (rc) return rc;
    SI4 i = Lookup(text, PMAX, protocolname);
    if (i == PMAX) return ERR_OPTION;
    DefProt = (PROTOCOL)i;
    return 0;
  }
  return ERR_OPTION;
}

static PAA PropList() {
  return VANested({VAText("DecodeCert"), VAText("HttpDate"), VAText("PropList"),
                   VAText("Protocol"), VAText("ReadyStrategy"), VAText("RootCertDir"),
                   VAText("TCPLookup"), VAText("EventMode")});
}

// A property given as a fresh array: null means the allocation failed.
static SI4 Give(PAA p, PPAA out) {
  *out = p;
  return p ? 0 : ERR_MEMORY_ALLOC;
}

SI4 ROOT::GetRPCProp(PCH1 name, PAA arg, PPAA out) {
  *out = nullptr;
  char text[1025];
  SI4 rc;
  if (strcasecmp(name, "Security") == 0) {
    text[0] = 0;
    GetSecurity(text, 1024);
    rc = Give(VAText(text), out);
  } else if (strcasecmp(name, "HttpDate") == 0) {
    text[0] = 0;
    HttpDate(text, 80);
    rc = Give(VAText(text), out);
  } else if (strcasecmp(name, "RootCertDir") == 0) {
    rc = pCertRootDir ? Give(VAText(pCertRootDir), out) : ERR_OPTION;
  } else if (strcasecmp(name, "ReadyStrategy") == 0) {
    rc = Give(VAInt(UseFnsReady), out);
  } else if (strcasecmp(name, "EventMode") == 0) {
    rc = Give(VAInt(EventMode), out);
  } else if (strcasecmp(name, "Protocol") == 0) {
    rc = Give(VAText(protocolname[DefProt]), out);
  } else if (strcasecmp(name, "DecodeCert") == 0) {
    rc = DecodeCert(arg, out);
  } else if (strcasecmp(name, "TCPLookup") == 0) {
    char port[64];
    rc = VAGetCH1(arg, 2, text, sizeof(text), VACHAR);
    if (!rc) rc = VAGetCH1(arg, 3, port, sizeof(port), VACHAR);
    if (!rc) rc = IPLookup(text, port, PAny, out);
  } else if (strcasecmp(name, "IPV4Addrs") == 0) {
    rc = IPv4Addrs(out);
  } else if (strcasecmp(name, "PropList") == 0) {
    rc = Give(PropList(), out);
  } else {
    rc = ERR_OPTION;
  }
  if (rc) *out = VAFree(*out);
  return rc;
}
