// One received part of an HTTP message: a header, a body, a chunk or a
// trailer. Its text stays as it came; when the host asks for it, the part
// is decoded into an array by the flags it carries, or given raw.
#pragma once

#include <atomic>

#include "command.h"

class HTTPMSG : public MESSAGE {
 public:
  HTTPMSG(PBUFFER pBuf, OBJSTATE state) : MESSAGE(pBuf, state), decode(0) {}

  SI4 GetWaitReturns(PHIERAKI pItem, PCH1 name, PCH1 event, OBJSTATE* pNewState,
                     PUI4* ppZ) override;

  // The connection's DecodeBuffers when the part was made; a host thread
  // may change it until the part is fetched.
  std::atomic<UI4> decode;
};
typedef HTTPMSG* PHTTPMSG;

// A chunk-size line's number: blanks, then hexadecimal digits in 32 bits,
// wrapping, up to the first other character or length.
UI4 GetChunkSize(PCH1 line, UI4 length);
