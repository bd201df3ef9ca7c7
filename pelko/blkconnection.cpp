// Block modes on one connection: composing a block, with a file behind its
// data if need be, and reading each block's header into a child that the
// next rounds fill.
#include "blkconnection.h"

#include <unistd.h>

#include <cstdio>
#include <strings.h>

#include "command.h"
#include "log.h"
#include "orvanenaz.h"
#include "pelkoerr.h"
#include "verbresult.h"
#include "work.h"

#define MODULE 0x00000100

BLKCONNECTION::BLKCONNECTION(UI4 magic, UI4 maxBlock, OBJMODE mode)
    : CONNECTION(), Count(0), Magic(magic), MaxBlockSize(maxBlock) {
  Mode = mode;
  pHeader = new BUFFER(BLK_HEADER(magic));
}

BLKCONNECTION::BLKCONNECTION(UI4 magic, UI4 maxBlock, OBJMODE mode, PRPCSOCK s)
    : CONNECTION(s), Count(0), Magic(magic), MaxBlockSize(maxBlock) {
  Mode = mode;
  pHeader = new BUFFER(BLK_HEADER(magic));
}

SI4 BLKCONNECTION::ComposeBuffer(PUI1 data, UI4 length, int file, PBUFFER* out) {
  *out = nullptr;
  UI4 magic = Magic;
  UI4 head = BLK_HEADER(magic);
  UI1 header[8];
  PutBE32(header + 4, magic);
  if (file == -1) {
    if (length > 0xFFFFFFFFu - head) return ERR_SIZE;
    PBUFFER b = BUFFER::TryNew(head + length);
    if (!b) return ERR_MEMORY_ALLOC;
    PutBE32(header, head + length);
    b->Append((PCH1)header, head);
    if (length) b->Append((PCH1)data, length);
    b->Rewind();
    *out = b;
    return 0;
  }
  TALoff_t fsize = lseek(file, 0, SEEK_END);
  lseek(file, 0, SEEK_SET);
  if (fsize < 0 || (uint64_t)head + (uint64_t)fsize + length > 0xFFFFFFFFu) {
    close(file);
    return ERR_SIZE;
  }
  PutBE32(header, head + length + (UI4)fsize);
  *out = new BUFFERFILE(head, (PCH1)header, length, (PCH1)data, file);
  return 0;
}

SI4 BLKCONNECTION::HeaderComplete(PFDSETS fds, PHIERAKI pItem) {
  pHeader->Rewind();
  PUI1 h = (PUI1)pHeader->Start();
  UI4 size = GetBE32(h);
  // The header was sized when the connection was made; a magic set later
  // has no second word to read when there was none then.
  UI4 magic = Magic && pHeader->Size >= 8 ? GetBE32(h + 4) : 0;
  LOG(1, ("Connection %s received block size %d %d ", pItem->Name, (int)size, (int)magic));
  if (magic && magic != Magic) return ERR_WRONG_MAGIC;
  if (size > MaxBlockSize) return ERR_MAX_BLOCK_SIZE;
  if (size < pHeader->Size) return ERR_SIZE;
  PBUFFER b = BUFFER::TryNew(size - pHeader->Size);
  if (!b) return ERR_MEMORY_ALLOC;
  PMESSAGE m = new MESSAGE(b, SReceiving);
  m->NextState = SFinished;
  m->Mode = Mode;
  char name[MAXNAMELENGTH + 1];
  snprintf(name, sizeof(name), "Blk%08u", Count++);
  if (!fds->pItem->AddNew(name, m)) {
    delete m;
    return ERR_NAME_IN_USE;
  }
  return 0;
}

SI4 BLKCONNECTION::SetRPCProp(PHIERAKI pItem, PCH1 name, PAA value) {
  if (strcasecmp(name, "Magic") != 0) return CONNECTION::SetRPCProp(pItem, name, value);
  SI4 v = 0;
  SI4 rc = value ? VAGetSI4(value, 0, &v) : ERR_VALUE;
  if (!rc) Magic = (UI4)v;
  return rc;
}

SI4 BLKCONNECTION::GetRPCProp(PCH1 name, PAA arg, PPAA ppOut) {
  if (strcasecmp(name, "Magic") != 0) return CONNECTION::GetRPCProp(name, arg, ppOut);
  *ppOut = VAInt((SI4)Magic);
  return *ppOut ? 0 : ERR_MEMORY_ALLOC;
}
