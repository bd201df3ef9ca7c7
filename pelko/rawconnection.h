// Raw and text modes: an unframed byte stream, collected in the stream
// buffer and cut into blocks by a stop list, or handed up as it arrives.
// The two modes differ only in how the host sees the bytes.
#pragma once

#include "connection.h"

class RAWCONNECTION : public CONNECTION {
 public:
  RAWCONNECTION(UI4 size, OBJMODE mode);
  RAWCONNECTION(UI4 size, OBJMODE mode, PRPCSOCK s);
  ~RAWCONNECTION() override;

  SI4 SetStop(PLIST list, bool ignoreCase);
  SI4 HeaderRecv(PFDSETS fds, PHIERAKI pItem) override;
  SI4 HeaderComplete(PFDSETS fds, PHIERAKI pItem) override;
  SI4 PassiveClose(PFDSETS fds, PHIERAKI pItem) override;

  UI4 MaxBlockSize;
  UI4 Count;
  // Set by a host thread while the work thread cuts: the case goes in
  // before the list is published.
  std::atomic<PLIST> pStop;
  std::atomic<bool> IgnoreCase;

 private:
  // The list of the server this connection was accepted by, if it has none.
  void GetParentStop(PHIERAKI pItem, PLIST* list, bool* ignoreCase);
  // The first n bytes of the stream go up as the next "Blk%08d".
  void Deliver(PFDSETS fds, UI4 n, OBJSTATE state);
};
typedef RAWCONNECTION* PRAWCONNECTION;

// Takes list over in place of the one held, which is freed; a null list
// leaves the case as it was. Empty stop texts are dropped from the list: one
// would match at every place and never consume a byte.
void ReplaceStop(std::atomic<PLIST>* held, std::atomic<bool>* heldCase, PLIST list,
                 bool ignoreCase);
