// The HTTP listener: it hands its block size, decode flags and features
// to each connection it accepts.
#pragma once

#include <atomic>

#include "server.h"

class HTTPSERVER : public SERVER {
 public:
  HTTPSERVER(UI4 maxBlockSize, OBJMODE mode);

  SI4 SetRPCProp(PHIERAKI pItem, PCH1 name, PAA value) override;
  SI4 NewConnection(PFDSETS fds, PCH1 name, PRPCSOCK sock) override;

  UI4 MaxBlockSize;
  std::atomic<UI4> DecodeBuffers;
  std::atomic<UI4> Features;
};
typedef HTTPSERVER* PHTTPSERVER;
