// The work thread of a root: it alone does the socket work of the tree.
// One round walks the tree to learn what to watch, sleeps in select, walks
// again to do the work, and removes finished objects on the way.
#pragma once

#include "hieraki.h"
#include "socket.h"

// One round's state, handed to every object the round calls.
struct FDSETS {
  SOCKETSETS ss;
  SI4 lError;
  class ROOT* pRoot;  // the root whose round this is
  PHIERAKI pItem;  // node of the object being called
  PBUFFER pRead;
  PBUFFER pWrite;
  PHIERAKI phRead;
  PHIERAKI phWrite;
  bool endWorkThread;
  bool handled;
  bool closeAllSockets;
  UI4 cntReady;
  UI4 cntFinished;
  UI4 fConnectionClosed;
};

// An idle round sleeps this long in select.
#define WORK_SELECT_SECONDS 300

SI4 WorkThread(PHIERAKI root);
PHIERAKI CheckSub(PHIERAKI h, void* fds);
PHIERAKI ExecSub(PHIERAKI h, void* fds);
PHIERAKI FindState(PHIERAKI h, void*);
