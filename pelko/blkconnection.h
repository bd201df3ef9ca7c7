// Block modes: length-prefixed blocks, with a magic word that names the
// partner when the connection has one. Each block's payload is read into a
// child of its own.
#pragma once

#include "connection.h"

// Length word, then the magic word when there is one.
#define BLK_HEADER(magic) ((magic) ? 8u : 4u)

class BLKCONNECTION : public CONNECTION {
 public:
  BLKCONNECTION(UI4 magic, UI4 maxBlock, OBJMODE mode);
  BLKCONNECTION(UI4 magic, UI4 maxBlock, OBJMODE mode, PRPCSOCK s);

  void SetMagic(UI4 magic) { Magic = magic; }
  UI4 GetMagic() { return Magic; }
  SI4 ComposeBuffer(PUI1 data, UI4 length, int file, PBUFFER* out) override;
  using CONNECTION::ComposeBuffer;
  SI4 HeaderComplete(PFDSETS fds, PHIERAKI pItem) override;
  SI4 SetRPCProp(PHIERAKI pItem, PCH1 name, PAA value) override;
  SI4 GetRPCProp(PCH1 name, PAA arg, PPAA ppOut) override;

  UI4 Count;
  std::atomic<UI4> Magic;  // a host thread may set it while blocks arrive
  UI4 MaxBlockSize;
};
typedef BLKCONNECTION* PBLKCONNECTION;
