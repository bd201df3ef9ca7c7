// The units of data in flight on a connection, each a child object of it:
// a command-mode request or answer (COMMAND), and any other unit (MESSAGE
// and its kin). They own no socket; each round they tell the connection
// which buffer to read into and which to write from.
#pragma once

#include "rpcobjs.h"

class COMMAND : public RPCOBJS {
 public:
  COMMAND(PBUFFER pBuf, OBJSTATE state);
  ~COMMAND() override;

  SI4 GetWaitReturns(PHIERAKI pItem, PCH1 name, PCH1 event, OBJSTATE* pNext, PUI4* ppZ) override;
  PBUFFER GetBuffer() override;
  SI4 Check(PFDSETS fds) override;
  SI4 Setinfo(PFDSETS fds) override;
  SI4 Execute(PFDSETS fds) override;

  PBUFFER pRecv;  // payload of the request or answer received
  PBUFFER pSend;  // what goes out, header included
  UI4 ProgressCnt;
};
typedef COMMAND* PCOMMAND;

class MESSAGE : public RPCOBJS {
 public:
  MESSAGE(PBUFFER pBuf, OBJSTATE state);
  ~MESSAGE() override;

  SI4 GetWaitReturns(PHIERAKI pItem, PCH1 name, PCH1 event, OBJSTATE* pNext, PUI4* ppZ) override;
  PBUFFER GetBuffer() override;
  SI4 Check(PFDSETS fds) override;
  SI4 Setinfo(PFDSETS fds) override;
  SI4 Execute(PFDSETS fds) override;

  PBUFFER pBuf;
  PVOID pExtra;
};
typedef MESSAGE* PMESSAGE;

// A progress report of command mode, received under its command.
class PROGRESS : public MESSAGE {
 public:
  PROGRESS(PBUFFER pBuf, OBJSTATE state);
  ~PROGRESS() override;

  SI4 GetWaitReturns(PHIERAKI pItem, PCH1 name, PCH1 event, OBJSTATE* pNext, PUI4* ppZ) override;
};

// A vector of length elements from raw bytes: VAC1 copies (translated for a
// host without Unicode), VAI2 widens each byte. Other types give null.
PAA Data2pAA(char* data, UI4 length, VATYPES type);

// The event of an HTTP part: its node's name up to the first digit, with
// "Last" behind it for the last block of a connection.
void PartEvent(PHIERAKI pItem, PCH1 event, bool last);

// A received payload as a block from malloc, which passes to the host:
// the buffer's own block when it can be handed over, else a copy.
PUI4 PayloadZ(PBUFFER pBuf);
