// One stream socket in the tree, on the client or the server side. The
// work thread drives it: each round one child may read and one may write,
// and the modes fill in the hooks that cut the stream into children.
#pragma once

#include "rpcobjs.h"
#include "socket.h"

// This side's close drains the socket for this long before the object ends.
#define CLOSE_DRAIN_MICROS 6e7
// Room of the drain's throw-away buffer.
#define CLOSE_DRAIN_BYTES 10000
// Room a caller leaves behind a name for a generated ".Auto%08d".
#define AUTONAME_ROOM 16

// No waiting to fill a segment, on every stream connection's socket.
void NoDelay(PRPCSOCK s);

class CONNECTION : public RPCOBJS {
 public:
  CONNECTION();
  explicit CONNECTION(PRPCSOCK s);
  ~CONNECTION() override;

  SI4 Close(PHIERAKI pItem) override;
  SI4 SendBuffer(PHIERAKI pItem, PCH10 name, PBUFFER pBuffer, UI4 flag) override;
  SI4 SendZ(PHIERAKI pItem, PCH10 name, PUI4 z, UI4 size, UI4 flag) override;
  SI4 SetRPCProp(PHIERAKI pItem, PCH1 name, PAA value) override;
  SI4 GetRPCProp(PCH1 name, PAA arg, PPAA ppOut) override;
  SI4 Check(PFDSETS fds) override;
  SI4 Setinfo(PFDSETS fds) override;
  SI4 Execute(PFDSETS fds) override;

  virtual SI4 GetStatus(PUI4 received, PUI4 remaining);
  virtual bool isAscii();
  virtual SI4 HeaderRecv(PFDSETS fds, PHIERAKI pItem);
  virtual SI4 HeaderComplete(PFDSETS fds, PHIERAKI pItem);
  virtual SI4 ReadRecv(PFDSETS fds, PHIERAKI pItem);
  virtual SI4 ReadComplete(PFDSETS fds, PHIERAKI pItem);
  virtual SI4 WriteSend(PFDSETS fds, PHIERAKI pItem);
  virtual SI4 WriteComplete(PFDSETS fds, PHIERAKI pItem);
  virtual SI4 PassiveClose(PFDSETS fds, PHIERAKI pItem);
  // The peer's close seen: the socket goes, the state unless taken.
  void SocketClosed();

  SI4 Connect(PHIERAKI root, PCH10 host, PCH10 port, PROTOCOL prot);
  // The name to add a child under: ".Auto%08d" is written at name when it
  // is empty (at spare when null), and what follows the dot is returned.
  PCH10 AutoName(PCH10 name, PCH10 spare);

  PBUFFER pHeader;
  PBUFFER pRead;
  PBUFFER pWrite;
  PHIERAKI phRead;
  PHIERAKI phWrite;
  std::atomic<F8> ActiveClose;
  // A close from a host thread leaves the socket's shutdown to the work
  // thread, which alone touches the socket.
  std::atomic<bool> fShutdown;
  PRPCSOCK pCon;
  PCERTDATA pCert;
  std::atomic<UI4> NameCnt;
  TPOOSFN pOOSfn;
  PVOID pCred;
  PVOID pContext;

 private:
  SI4 ExecuteConnected(PFDSETS fds, PHIERAKI self);
  SI4 ReadStep(PFDSETS fds, PHIERAKI self);
  SI4 WriteStep(PFDSETS fds);
  void Fail(PHIERAKI self, SI4 rc);
};
typedef CONNECTION* PCONNECTION;

// Whether the ready search may report a closed connection: only a close
// that came from the peer is an event.
bool ClosedIsReady(PRPCOBJS obj);
