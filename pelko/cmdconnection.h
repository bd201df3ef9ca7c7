// Command mode: whole arrays travel as named requests, progress reports and
// answers, each behind one fixed IPMSG header.
#pragma once

#include "connection.h"
#include "server.h"

class CMDCONNECTION : public CONNECTION {
 public:
  CMDCONNECTION();
  explicit CMDCONNECTION(PRPCSOCK s);
  ~CMDCONNECTION() override;

  SI4 SendZ(PHIERAKI pItem, PCH10 name, PUI4 z, UI4 size, UI4 flag) override;
  SI4 HeaderRecv(PFDSETS fds, PHIERAKI pItem) override;
  SI4 HeaderComplete(PFDSETS fds, PHIERAKI pItem) override;
  SI4 ReadComplete(PFDSETS fds, PHIERAKI pItem) override;
};
typedef CMDCONNECTION* PCMDCONNECTION;

class CMDSERVER : public SERVER {
 public:
  SI4 NewConnection(PFDSETS fds, PCH1 name, PRPCSOCK sock) override;
};

// The command for an IPmsg of a send: its type and the states that follow
// by the send flag (0 ordinary, 1 close when sent, 2 no answer, 3 report
// "Sent"). Null when the buffer can't be had.
RPCOBJS* NewSendCommand(PCH1 name, PUI4 z, UI4 size, UI4 flag);
