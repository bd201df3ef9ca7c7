// The listener of the block modes: every connection it accepts gets its
// magic word and block limit.
#pragma once

#include "server.h"

class BLKSERVER : public SERVER {
 public:
  BLKSERVER(UI4 magic, UI4 maxBlock, OBJMODE mode);

  SI4 NewConnection(PFDSETS fds, PCH1 name, PRPCSOCK sock) override;

  UI4 Magic;
  UI4 MaxBlockSize;
};
