// Every byte sent or received passes through a BUFFER: a fixed block with
// one cursor. A send reads from the cursor and moves it on; a receive writes
// at the cursor and moves it on. BUFFERFILE streams a file through a 16 KB
// window of the same kind.
#pragma once

#include <atomic>

#include "stoplist.h"
#include "taltypes.h"

#define BUFFERBLKSIZE 0x4000
#define STARTSIZE 4096

// Each of n bytes XORed with the key's byte at its place, the key
// repeating (a WebSocket mask); no key leaves them as they are.
void XorMask(PUI1 p, UI4 n, const UI1* key, UI4 keylen);

class BUFFER {
 public:
  explicit BUFFER(UI4 size);
  BUFFER(UI4 size, PCH1 data);
  virtual ~BUFFER();
  // Null when the block can't be had: for sizes a peer names.
  static BUFFER* TryNew(UI4 size);

  PCH1 Next() { return pBuf + Offset; }
  PCH1 Start() { return pBuf; }
  UI4 NextSize() const;
  UI4 SizeProcessed() const { return Offset; }
  UI4 TotalSize() const { return Size; }
  UI4 Remaining() const { return Size - Offset; }
  virtual BOOL NextProcessed(UI4 n);
  BOOL Complete() const { return Offset == Size; }
  void Rewind() { Offset = 0; }
  void AllInOne() { Blksize = Size; }

  BOOL Append(PCH1 p, UI4 n);
  BOOL AppendP(PCH1 p, UI4 n);
  UI4 Resize(UI4 n);
  void Drop(UI4 n);
  BUFFER* Take(UI4 n);
  void Mask(PUI1 key, UI4 keylen);  // the whole block, as XorMask

  SI4 FindAsc(PCH10 text, bool after, bool ignoreCase);
  SI4 FindBin1(PCH1 data, SI4 len, bool after);
  SI4 FindStop(PLIST list, bool ignoreCase, PITEM* found);
  SI4 FindStop1(PLIST list, bool ignoreCase, PITEM* found);

  UI4 Size;
  // Moved by the work thread as bytes come and go; host threads read it to
  // describe a transfer in progress (ATree, "Status").
  std::atomic<UI4> Offset;
  UI4 Blksize;
  PCH1 pBuf;

 protected:
  UI4 Alloc;  // bytes really held in pBuf; Size may stand below it
};
typedef BUFFER* PBUFFER;

class BUFFERFILE : public BUFFER {
 public:
  explicit BUFFERFILE(int file);
  BUFFERFILE(UI4 len, PCH1 head, int file);
  BUFFERFILE(UI4 len1, PCH1 head1, UI4 len2, PCH1 head2, int file);
  ~BUFFERFILE() override;
  BOOL NextProcessed(UI4 n) override;
  UI4 Filesize() const { return (UI4)fsize; }

  int file;
  TALoff_t foff;
  TALoff_t fsize;
  UI4 Off2;

 private:
  void Open(UI4 len1, PCH1 head1, UI4 len2, PCH1 head2);
};
typedef BUFFERFILE* PBUFFERFILE;

// A buffer on a block from malloc that can be handed over whole: what is
// received into it becomes the host's block with no copy.
class BLOCKBUFFER : public BUFFER {
 public:
  // Null when the block can't be had.
  static BLOCKBUFFER* TryNew(UI4 size);
  // The block, now the caller's (to free); the buffer is left empty.
  PCH1 Release();

 private:
  BLOCKBUFFER() : BUFFER(0) {}
};
typedef BLOCKBUFFER* PBLOCKBUFFER;

// Command mode's message header: a big-endian length (header included) and
// type, the magic, three blank-padded names, three filler bytes; the payload
// follows at IPMSG_HEADER.
#define MAGIC "Pelko000"
#define IPMSG_HEADER 115
#define IPMSG_NAMELEN 32

enum MSGTYPE : UI4 {
  IPMConnect = 0,
  IPMCommand = 1,
  IPMMessage = 2,
  IPMAnswer = 3,
  IPMCommandNoAnswer = 4
};

typedef struct IPMSG {
  UI1 Length[4];
  UI1 MessageType[4];
  CH1 Magic[8];
  CH1 Security[IPMSG_NAMELEN];
  CH1 Name[IPMSG_NAMELEN];
  CH1 Subname[IPMSG_NAMELEN];
  CH1 Filler[3];
  CH1 Data[1];
} IPMSG;
typedef IPMSG* PIPMSG;
static_assert(sizeof(IPMSG) - 1 == IPMSG_HEADER, "the header is 115 bytes on the wire");

// A rewound buffer holding a header of that type and the length bytes of
// data behind it; null when the total doesn't fit or can't be allocated.
PBUFFER IPmsg(MSGTYPE type, PCH1 name, PCH1 subname, PCH1 security, PCH1 data, UI4 length);
