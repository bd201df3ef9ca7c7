// The base of every object a tree node owns: the state words that host
// threads and the work thread share, the operations the work thread calls in
// each round, and the parking of a host thread until its object is ready.
#pragma once

#include <atomic>

#include "buffer.h"
#include "hieraki.h"
#include "threadsem.h"
#include "vapl.h"

enum OBJSTATE : SI4 {
  SNew = 0,
  SIncoming = 1,
  SRootInit = 2,
  SListen = 3,
  SConnected = 4,
  SAPL = 5,
  SReadyToSend = 6,
  SSending = 7,
  SProcessing = 8,
  SReadyToRecv = 9,
  SReceiving = 10,
  SFinished = 11,
  SMarkedForDeletion = 12,
  SError = 13,
  SDoNotChange = 14,
  SShutdown = 15,
  SSocketClosed = 16,
  SAPLLast = 17,
  SSSL = 18,
  SSent = 19,
  SListenPaused = 20,
  SGotoPause = 21
};

enum OBJMODE : SI4 {
  MCommand = 0,
  MRaw = 1,
  MAscii = 2,
  MBlkRaw = 3,
  MBlkAscii = 4,
  MHttp = 5,
  MUdp = 6,
  MWebSocket = 7,
  MMAX = 8
};

enum EVENTS : SI4 {
  EReceive = 0,
  EProgress = 1,
  EBlock = 2,
  EError = 3,
  EBlockLast = 4,
  EConnect = 5,
  EReceiveLast = 6,
  ESent = 7,
  ETimeout = 8,
  EClose = 9,
  EWSUpgrade = 10,
  EWSReceive = 11
};

enum PROTOCOL : SI4 { PIPv4 = 0, PIPv6 = 1, PAny = 2, PMAX = 3 };

extern PCH1 modename[MMAX];
extern PCH1 eventname[12];
extern PCH1 protocolname[PMAX];

// The wait verb's timeout code. No ERR_ name stands for it.
#define WAIT_TIMEOUT_RC 100

struct FDSETS;
typedef FDSETS* PFDSETS;
typedef SI4 (*TPOOSFN)(PHIERAKI);

class RPCOBJS {
 public:
  explicit RPCOBJS(OBJTYPE type);
  virtual ~RPCOBJS();

  virtual SI4 Close(PHIERAKI pItem);
  virtual SI4 CleanUp(PHIERAKI pItem);
  // Queues a buffer to be sent under the name; the buffer is taken over,
  // and freed when refused.
  virtual SI4 SendBuffer(PHIERAKI pItem, PCH10 name, PBUFFER pBuffer, UI4 flag);
  virtual SI4 SendZ(PHIERAKI pItem, PCH10 name, PUI4 z, UI4 size, UI4 flag);
  virtual SI4 ComposeBuffer(PUI4 z, UI4 size, PBUFFER* ppOut);
  virtual SI4 ComposeBuffer(PUI1 data, UI4 size, int file, PBUFFER* ppOut);
  bool ComposeVector(PUI4 z, UI4 size, bool scalars, PSI4 rc, PBUFFER* ppOut);
  // What a send's array stands for: its bytes, or (data filename) for a
  // file behind the data. The array stays the caller's.
  SI4 ComposeArray(PAA pAA, PBUFFER* ppOut);
  virtual SI4 SetRPCProp(PHIERAKI pItem, PCH1 name, PAA value);
  virtual SI4 GetRPCProp(PCH1 name, PAA arg, PPAA ppOut);
  virtual SI4 GetWaitReturns(PHIERAKI pItem, PCH1 name, PCH1 event, OBJSTATE* pNext,
                             PUI4* ppZ);
  virtual PBUFFER GetBuffer();
  virtual SI4 Check(PFDSETS fds);
  virtual SI4 Setinfo(PFDSETS fds);
  virtual SI4 Execute(PFDSETS fds);

  SI4 Ready4Apl(PHIERAKI pItem);
  // With inside, the caller steps out of the tree for the sleep: this
  // object may be freed meanwhile, and is not touched after.
  SI4 AplWait(UI4 ms, class HOSTINSIDE* inside = nullptr);
  SI4 AplWaitInit(PHIERAKI pRootNode);
  SI4 AplWaitClear();

  // Host threads and the work thread both read and write these words with
  // no lock; the claim on an object is a state such as SProcessing.
  OBJTYPE Type;
  std::atomic<OBJSTATE> State;
  std::atomic<OBJSTATE> NextState;
  std::atomic<OBJSTATE> NextPState;
  std::atomic<OBJSTATE> LastState;
  OBJMODE Mode;
  std::atomic<PTHREADSEM> pWaiting;
  std::atomic<F8> timeReady;
  F8 timeCreate;
  std::atomic<SI4> lErrorObj;
  char Magic[9];
};

// What the connection and server families supply to Ready4Apl: the debug
// link's callback of a connection, and the FIFO queue of a server.
TPOOSFN ConnectionOOSfn(PRPCOBJS pConn);
bool ServerIsFifo(PRPCOBJS pServer);
SI4 ServerReadyFn(PRPCOBJS pServer, PHIERAKI pItem);

