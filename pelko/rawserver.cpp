// The raw and text listener.
#include "rawserver.h"

#include "options.h"
#include "rawconnection.h"

RAWSERVER::RAWSERVER(UI4 size, OBJMODE mode)
    : SERVER(), MaxBlockSize(size), pStop(nullptr), IgnoreCase(true) {
  Mode = mode;
}

RAWSERVER::~RAWSERVER() { FreeList(pStop.exchange(nullptr)); }

SI4 RAWSERVER::SetStop(PLIST list, bool ignoreCase) {
  ReplaceStop(&pStop, &IgnoreCase, list, ignoreCase);
  return 0;
}

// The connection reads the server's list through its parent at each cut,
// so it holds no copy of its own.
SI4 RAWSERVER::NewConnection(PFDSETS fds, PCH1 name, PRPCSOCK sock) {
  return AdoptConnection(fds, name, new RAWCONNECTION(MaxBlockSize, Mode, sock));
}
