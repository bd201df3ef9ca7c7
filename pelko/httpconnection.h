// HTTP on one connection, client or server side. The receive side cuts the
// stream into parts, each an HTTPMSG child: the header, the body, each
// chunk, the trailer. A header goes to the host as soon as it is complete;
// a body or chunk that hasn't fully arrived is read straight from the
// socket into its own buffer. The send side formats what the host gives
// (see httpcompose.cpp) and keeps no state between sends.
#pragma once

#include <atomic>

#include "connection.h"

// Flags of DecodeBuffers: which parts the host wants as arrays.
enum HTTPDECODE : UI4 {
  DecodeHeader = 1,
  DecodeTrailer = 2,
  DecodeChunk = 4,
  DecodeBody = 8,
  DecodeInts = 0x01000000,
  DecodeChars = 0x02000000
};

class HTTPCONNECTION : public CONNECTION {
 public:
  HTTPCONNECTION(UI4 maxBlockSize, OBJMODE mode);
  HTTPCONNECTION(UI4 maxBlockSize, OBJMODE mode, PRPCSOCK sock);
  ~HTTPCONNECTION() override;

  SI4 ComposeBuffer(PUI4 pZ, UI4 size, PBUFFER* ppBuf) override;
  SI4 ComposeBuffer(PUI1 data, UI4 length, int fd, PBUFFER* ppBuf) override;
  SI4 SetRPCProp(PHIERAKI pItem, PCH1 name, PAA value) override;
  SI4 HeaderRecv(PFDSETS fds, PHIERAKI pItem) override;
  SI4 HeaderComplete(PFDSETS fds, PHIERAKI pItem) override;
  SI4 PassiveClose(PFDSETS fds, PHIERAKI pItem) override;
  SI4 Setinfo(PFDSETS fds) override;

  // Makes the next part: Size bytes, of which pBuf holds the first ones
  // (they move out of it); the rest comes from the socket.
  SI4 ReturnBuffer(PHIERAKI pItem, PBUFFER pBuf, UI4 Size, const char* Format);
  // New flags for this connection and for the parts the host hasn't taken.
  SI4 SetDecodeBuffers(PHIERAKI pItem, UI4 flags);

  UI4 MaxBlockSize;
  UI4 Count;  // numbers the parts; starts at -1
  PLIST StopHttp;
  PLIST StopChunked;
  bool ReceivingChunks;
  bool Trailer;
  std::atomic<UI4> DecodeBuffers;  // set by host threads
  std::atomic<UI4> Features;
  char pWSUpgradeKey[26];  // the key of the upgrade request sent
  PCH10 pWSHost;
  PCH10 pUserHeaders;
  bool fUpgraded;  // the socket belongs to the WEBSOCKET that succeeded it

 private:
  void Init();
  // An upgrade header received: the change-over, or a part for the host.
  SI4 Upgrade(PFDSETS fds, PBUFFER copy, UI4 pos);
  // The upgrade properties, on the host's thread.
  SI4 SetUpgradeProp(PHIERAKI pItem, PCH1 name, PAA value);
  // A change-over the host asked for: the work thread makes it at the start
  // of its next round, so no round ever runs on a connection that has given
  // its socket away, and the host's thread waits until it is made. The
  // answer to send may be null.
  struct HANDOVER {
    PBUFFER pAnswer;
    TALSEMATO done{0, 1};
    std::atomic<int> refs{2};  // the two threads; the last one out frees it
    void Made() {
      done.release(1);
      Drop();
    }
    void Drop() {
      if (--refs == 0) delete this;
    }
  };
  std::atomic<HANDOVER*> pHandover;
  SI4 HandOver(PHIERAKI pItem, PBUFFER answer);
};
typedef HTTPCONNECTION* PHTTPCONNECTION;

// The node below pItem (or pItem itself) that holds obj. Properties are set
// with the root as the node, while their flags go to the object's own
// children.
PHIERAKI OwnNode(PHIERAKI pItem, PRPCOBJS obj);

// The field behind the first place name stands in the bytes held: blanks
// skipped, up to the line's end. False when the name isn't there.
bool HeaderField(PBUFFER header, const char* name, PCH1* field, UI4* length);

// The header tests: the first place the name stands, anywhere and in any
// case; blanks behind it skipped; the field is the rest of that line.
// isHdr: the whole field equals value, ignoring case. isHdrM: one of its
// comma-separated tokens does.
bool isHdr(PBUFFER header, const char* name, const char* value);
bool isHdrM(PBUFFER header, const char* name, const char* value);

// A stop list in one block from calloc, freed with free.
PLIST GenStopList(int count, const char* const* strings);

// The formatting steps of a send; each reports ERR_APL_LENGTH when the
// buffer is full.
SI4 FmtHeader(PAA elements, PBUFFER out, UI4 contentLength);
SI4 FmtMat(PAA matrix, const char* before, const char* between, const char* after, PBUFFER out);
// The bytes of a simple array in a block from calloc (at least 1 byte).
SI4 GetBytes(PAA a, PUI1* ppData, PUI4 pLength);
// A (text filename) pair: the text's bytes and the file opened for reading.
SI4 GetFilehandle(PAA pair, PUI1* ppData, PUI4 pLength, int* pFd, PUI4 pFileSize);
// The current time as an HTTP date; the number of bytes written.
UI4 HttpDate(PCH1 out, UI4 size);
