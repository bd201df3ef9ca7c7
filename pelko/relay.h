// A relay joins two connections: what one receives is sent out on the
// other, and the host never sees the bytes. It stands as the child "RELAY"
// of the receiving connection and takes that connection's read position.
#pragma once

#include "rpcobjs.h"

#define RELAY_BLOCKSIZE 16384

class RELAY : public RPCOBJS {
 public:
  RELAY(PHIERAKI to, PBUFFER buf, OBJSTATE state);
  ~RELAY() override;

  // What the connection took in before the relay stood (extra), then what
  // the relay's own buffer received, each as a piece for the target.
  SI4 RelayBuf(PBUFFER extra);
  PBUFFER GetBuffer() override { return pBuf; }
  SI4 Check(PFDSETS fds) override;
  SI4 Setinfo(PFDSETS fds) override;
  SI4 Execute(PFDSETS fds) override;

  UI4 Bytes;
  UI4 Blocks;
  // The target may go while the relay lives: only its name is used once
  // the relay stands, looked up from the root.
  PHIERAKI pRelayTo;
  PHIERAKI pRootNode;
  PBUFFER pBuf;
  PCH1 pToName;

 private:
  SI4 RelayBufferInt(PBUFFER buf);
};
typedef RELAY* PRELAY;

SI4 SetRelay(PHIERAKI pRoot, PCH10 pFromName, PCH10 pToName, UI4 BlockSize, SI4 OneWay);
