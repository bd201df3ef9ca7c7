// The listener of raw and text modes: its stop list and block size pass to
// every connection it accepts.
#pragma once

#include <atomic>

#include "server.h"

class RAWSERVER : public SERVER {
 public:
  RAWSERVER(UI4 size, OBJMODE mode);
  ~RAWSERVER() override;

  SI4 SetStop(PLIST list, bool ignoreCase);
  SI4 NewConnection(PFDSETS fds, PCH1 name, PRPCSOCK sock) override;

  UI4 MaxBlockSize;
  std::atomic<PLIST> pStop;
  std::atomic<bool> IgnoreCase;
};
typedef RAWSERVER* PRAWSERVER;
