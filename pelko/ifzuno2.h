// The debug link: the interpreter's second front door. Zuno2Init hands the
// interpreter a table of functions; with them it holds one session with its
// remote development environment, over a block connection (plain or TLS) or
// a WebSocket. The work thread drives everything through OOSfn2, the
// callback of the link's connections; no host thread waits in the library.
#pragma once

#include "buffer.h"
#include "hieraki.h"
#include "zuno2config.h"

#define ZUNOPROTOCOLVERSION 2

enum TZuno2State : SI4 {
  Zuno2Idle = 0,       // nothing going on
  Zuno2Negotiate = 1,  // handshake in progress
  Zuno2Listening = 2,  // server up, no session
  Zuno2Connected = 3,  // session up
  Zuno2Error = 4,      // declared, never set
  Zuno2HttpSrv = 5     // HTTP server up, no session
};

typedef PHIERAKI PZUNOROOT;

// The table the interpreter gets. Its layout is the interpreter's.
typedef struct functions {
  PZuno2Config pZuno2Config;
  TZuno2State Zuno2State;
  SI4 Zuno2Enabled;
  PZUNOROOT pZunoRoot;
  SI4 (*pZuno2Enable)(SI4 enable);
  SI4 (*pZuno2GetBuffer)(PVOID item, PCH1* data, PUI4 length);
  SI4 (*pZuno2Free)(PVOID item);
  SI4 (*pZuno2Send)(PCH1 data, UI4 length);
  SI4 (*pZuno2Errortext)(SI4 code, PCH1 text, UI4 size);
} TPELKOFNS;

extern TPELKOFNS fns2;

// What a handshake message is: our version offered first in the peer's
// list, the peer's choice of it, or anything else, which is refused.
enum ZUNOMSG { ZMOffer, ZMUsing, ZMRefused };
ZUNOMSG Zuno2Classify(const char* data, UI4 len);

// The callback of every connection of the link, on the work thread.
SI4 OOSfn2(PHIERAKI pItem);
// The answer to one received part of a page connection: a file of the
// page directory, or the 404 page. The caller sends it.
PBUFFER HandleHttpRequest(PHIERAKI pItem, PBUFFER pBuf);
// The store of root certificates of the link's root; null before Zuno2Init.
class RootCerts;
RootCerts* ZunoRootCerts();
// Ends the link at unload: the session, the listeners, the poll thread.
void Zuno2Unload();
