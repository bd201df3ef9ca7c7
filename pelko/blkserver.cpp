// The block-mode listener.
#include "blkserver.h"

#include "blkconnection.h"

BLKSERVER::BLKSERVER(UI4 magic, UI4 maxBlock, OBJMODE mode)
    : SERVER(), Magic(magic), MaxBlockSize(maxBlock) {
  Mode = mode;
}

SI4 BLKSERVER::NewConnection(PFDSETS fds, PCH1 name, PRPCSOCK sock) {
  return AdoptConnection(fds, name, new BLKCONNECTION(Magic, MaxBlockSize, Mode, sock));
}
