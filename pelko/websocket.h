// WebSocket on one connection. It begins as HTTP: when the upgrade
// exchange succeeds, a WEBSOCKET takes the socket over and the place of the
// HTTPCONNECTION in the same tree node, so the host keeps the name. Each
// received frame is one WSMSG child; fragments stay apart, and control
// frames are answered here without reaching the host.
#pragma once

#include <atomic>

#include "command.h"
#include "httpconnection.h"

// Features of an HTTP connection or server.
enum WSFEATURES : UI4 {
  WSAutoUpgrade = 1,  // make the upgrade without the host
  WSReturnAccept = 2
};

#define WSHEADERSIZE 2   // the fixed part of a frame header
#define WSMAXHEADER 14   // with an 8-byte length and a masking key
#define WSKEYLENGTH 28   // a Sec-WebSocket-Accept value

enum WSOPCODE : UI1 { WSCont = 0, WSText = 1, WSBin = 2, WSClose = 8, WSPing = 9, WSPong = 10 };

class WEBSOCKET : public CONNECTION {
 public:
  // Takes over the socket of http; accept is the handshake text the host
  // is to see, or null when the host made the exchange itself.
  WEBSOCKET(PHTTPCONNECTION http, PBUFFER accept);
  ~WEBSOCKET() override;

  SI4 Close(PHIERAKI pItem) override;
  SI4 ComposeBuffer(PUI4 pZ, UI4 size, PBUFFER* ppBuf) override;
  SI4 ComposeBuffer(PUI1 data, UI4 length, int fd, PBUFFER* ppBuf) override;
  SI4 GetWaitReturns(PHIERAKI pItem, PCH1 name, PCH1 event, OBJSTATE* pNewState,
                     PUI4* ppZ) override;
  SI4 HeaderRecv(PFDSETS fds, PHIERAKI pItem) override;
  SI4 HeaderComplete(PFDSETS fds, PHIERAKI pItem) override;
  SI4 ReadComplete(PFDSETS fds, PHIERAKI pItem) override;
  // One frame: the header, then the data, masked when this is a client.
  SI4 ComposeBuffer(UI1 fin, UI1 opcode, PUI1 data, UI4 length, PBUFFER* ppBuf);

  UI4 MaxBlockSize;
  UI4 Count;  // numbers received frames
  PHTTPCONNECTION pHttp;
  UI1 lastOpcode;  // the last non-zero opcode received
  // The opcode of the fragmented message being sent, 0 when none is open.
  std::atomic<UI1> firstOpcode;
  std::atomic<PBUFFER> pWSAccept;

 private:
  // A frame the library sends by itself, as "WSMsg%08d".
  SI4 SendFrame(PHIERAKI pItem, UI1 opcode, const char* data, UI4 length, UI4 flag);
  SI4 SendClose(PHIERAKI pItem, UI2 status, const char* text, UI4 length, UI4 flag);
};
typedef WEBSOCKET* PWEBSOCKET;

class WSMSG : public MESSAGE {
 public:
  WSMSG(PBUFFER pBuf, OBJSTATE state) : MESSAGE(pBuf, state), Opcode(0), Text(false), Fin(false), Mask{} {}

  SI4 GetWaitReturns(PHIERAKI pItem, PCH1 name, PCH1 event, OBJSTATE* pNewState,
                     PUI4* ppZ) override;
  // Unmasks the payload on a server's connection.
  SI4 MaskBuf(PHIERAKI pItem);

  UI1 Opcode;
  bool Text;
  bool Fin;
  UI1 Mask[4];
};
typedef WSMSG* PWSMSG;

// The accept value for a client's key: base 64 of the SHA-1 of the key and
// the protocol's GUID. Gives its length, 28.
SI4 WebSocketKey(const char* key, PCH1 accept);
// Whether header is an upgrade request; on true, host and key are copies
// from calloc for the caller.
bool isWSUpgradeReq(PBUFFER header, PCH1* ppHost, PCH1* ppKey);
// Whether header is the answer to an upgrade request sent with key.
bool isWSUpgradeAns(PBUFFER header, const char* key);
// The change-over: a WEBSOCKET takes the socket and the node of the HTTP
// connection at pItem; answer, if any, is the first thing it sends.
SI4 DoWebSocketUpgrade(PHIERAKI pItem, PBUFFER pAnswer, PBUFFER pAccept);
// The 101 answer for a request's key, with extra header text.
PBUFFER WSAnswer(const char* key, const char* extra);
