// A root is one engine instance: a top-level tree node, its work thread,
// its wake-up socket pair and its defaults. The host names a root in every
// call; all roots stand in one sibling ring, pRoots.
#pragma once

#include <ctime>
#include <sys/types.h>

#include <vector>

#include "rpcobjs.h"
#include "socket.h"

class RootCerts;
typedef RootCerts* PRootCerts;
class SessionCache2;

typedef PHIERAKI (*PFNREADY)(PHIERAKI, PHIERAKI*);

class ROOT : public RPCOBJS {
 public:
  ROOT();
  ~ROOT() override;

  SI4 RootInit(PHIERAKI pItem);
  SI4 Dirty();
  void Endwork();
  void CloseComWork();
  void WaitComClose();
  SOCKET GetSocket(SI4 which);

  SI4 Check(PFDSETS fds) override;
  SI4 Setinfo(PFDSETS fds) override;
  SI4 Execute(PFDSETS fds) override;
  SI4 SetRPCProp(PHIERAKI pItem, PCH1 name, PAA value) override;
  SI4 GetRPCProp(PCH1 name, PAA arg, PPAA ppOut) override;

  PVOID pSockData;
  PRPCSOCK pClt;   // host threads write wake-ups here
  PRPCSOCK pWork;  // the work thread reads them here
  PBUFFER pBuf;
  PROTOCOL DefProt;
  SI4 EventMode;
  std::atomic<UI4> NameCnt;
  std::atomic<pid_t> pid;
  SI4 UseFnsReady;
  void* pfnsReady[5];
  PTALTHREAD pTalThread;
  time_t LastChecked;
  // A wake-up word is on its way and the work thread has not yet begun the
  // round that will look at the tree: further wake-ups would only cost it
  // empty rounds.
  std::atomic<bool> WakePending;
  PCH1 pCertRootDir;
  PRootCerts pRootCerts;
  PTALSEMA pThreadSem;
  PTHREADSEM pThreadList;
  SessionCache2* pClientSessionDB;  // made with the first TLS client
  // Host threads inside a verb of this root. A node the work thread takes
  // out of the tree while one is inside may still be in that thread's
  // hands: it waits in Graves, the work thread's alone, until none is.
  std::atomic<SI4> HostsInside;
  std::atomic<bool> GravesWaiting;
  std::vector<PHIERAKI> Graves;

  // Frees a node taken out of the tree, now or once no host is inside.
  void Bury(PHIERAKI h);
  // Frees what waits, unless a host is inside; force frees it all.
  void FreeGraves(bool force);

 private:
  SI4 SendWord(UI4 word);
};
typedef ROOT* PROOT;

// A host thread inside a verb of a root for this object's life: nothing
// it finds in the tree is freed under it. A long wait steps out, and finds
// its nodes again after.
class HOSTINSIDE {
 public:
  explicit HOSTINSIDE(PHIERAKI root);
  ~HOSTINSIDE() { Leave(); }
  HOSTINSIDE(const HOSTINSIDE&) = delete;
  HOSTINSIDE& operator=(const HOSTINSIDE&) = delete;
  void Enter();
  void Leave();

 private:
  ROOT* pRoot;
  bool in;
};

extern PHIERAKI pRoots;

// The root node of that name, or null.
PHIERAKI Root(const char* name);
// The top of the tree a node stands in; null stays null.
PHIERAKI Root(PHIERAKI h);
// The ROOT object of the tree a node stands in.
PROOT RootObj(PHIERAKI h);
SI4 CreateRoot(const char* name);
SI4 RPCLoad();
SI4 RPCUnload(PHIERAKI pRoot);
// Wakes the root's work thread.
SI4 Dirty(PHIERAKI pRoot);

// The ready search strategies, in the order of "ReadyStrategy".
PHIERAKI FindReady(PHIERAKI h, PHIERAKI* out);
PHIERAKI FindReadyRR(PHIERAKI h, PHIERAKI* out);
PHIERAKI FindReadyTO(PHIERAKI h, PHIERAKI* out);
PHIERAKI FindReadyTS(PHIERAKI h, PHIERAKI* out);
PHIERAKI FindReadyTnc(PHIERAKI h, PHIERAKI* out);

// From the companion, the certificate store and the protocols that are
// built elsewhere; the root's properties reach them.
SI4 GetSecurity(PCH1 buf, SI4 size);
SI4 DecodeCert(PAA arg, PPAA out);
