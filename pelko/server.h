// A listening socket in the tree: it accepts peers, filters them against
// address ranges, and makes a connection of its mode for each one.
#pragma once

#include "connection.h"

class SERVER : public RPCOBJS {
 public:
  SERVER();
  ~SERVER() override;

  SI4 CleanUp(PHIERAKI pItem) override;
  SI4 SetRPCProp(PHIERAKI pItem, PCH1 name, PAA value) override;
  SI4 GetRPCProp(PCH1 name, PAA arg, PPAA ppOut) override;
  SI4 Check(PFDSETS fds) override;
  SI4 Setinfo(PFDSETS fds) override;
  SI4 Execute(PFDSETS fds) override;
  // The connection of the mode for an accepted socket, added under the
  // server's node with that name.
  virtual SI4 NewConnection(PFDSETS fds, PCH1 name, PRPCSOCK sock);

  SI4 Listen(PHIERAKI root, PCH10 port, PCH10 address, PROTOCOL prot);
  SI4 ReListen(PHIERAKI root);
  SI4 Accept(PFDSETS fds);
  SI4 ReadyFn(PHIERAKI pItem);
  PHIERAKI PopReady();
  bool SearchStop() { return OnlyNewReadyConnections; }
  // The shared tail of every mode's NewConnection: the new object joins the
  // tree and the host hears of it, or it is deleted with its socket.
  SI4 AdoptConnection(PFDSETS fds, PCH1 name, PCONNECTION pConn);

  PROTOCOL Prot;
  PCH10 Port;
  PCH10 Address;
  PRPCSOCK pSocket;
  UI4 NameCnt;
  UI4 timeKeepAlive;
  UI4 intevalKeepAlive;
  bool OnlyNewReadyConnections;
  SI4 Paused;
  bool FIFO;
  PRANGES pAllow;
  PRANGES pDeny;
  PCERTDATA pCert;
  PRING Ready;
  TPOOSFN pOOSfn;
  PTALSEMA SemReady;

 private:
  SI4 Bind(PHIERAKI root, PCH10 port, PCH10 address, PROTOCOL prot);
  SI4 SetPause(PHIERAKI root, SI4 v);
};
typedef SERVER* PSERVER;
