// The command protocol on one connection: composing requests, and reading
// each header into a child that the next rounds fill.
#include "cmdconnection.h"

#include <cstring>

#include "command.h"
#include "log.h"
#include "orvanenaz.h"
#include "pelkoerr.h"
#include "root.h"
#include "work.h"

#define MODULE 0x00000100

CMDCONNECTION::CMDCONNECTION() : CONNECTION() { pHeader = new BUFFER(IPMSG_HEADER); }

CMDCONNECTION::CMDCONNECTION(PRPCSOCK s) : CONNECTION(s) { pHeader = new BUFFER(IPMSG_HEADER); }

CMDCONNECTION::~CMDCONNECTION() {}

RPCOBJS* NewSendCommand(PCH1 name, PUI4 z, UI4 size, UI4 flag) {
  PBUFFER b = IPmsg(flag == 2 ? IPMCommandNoAnswer : IPMCommand, name, (PCH1) "", (PCH1) "",
                    (PCH1)z, size);
  if (!b) return nullptr;
  PCOMMAND c = new COMMAND(b, SReadyToSend);
  switch (flag) {
    case 1:
      c->NextPState = SShutdown;
      c->NextState = SFinished;
      break;
    case 2: c->NextState = SFinished; break;
    case 3: c->NextState = SSent; break;
    default: c->NextState = SProcessing; break;
  }
  return c;
}

SI4 CMDCONNECTION::SendZ(PHIERAKI pItem, PCH10 name, PUI4 z, UI4 size, UI4 flag) {
  if (Type == TConnection) return ERR_INVALID_OBJECT;
  if (State != SConnected) return ERR_CLOSED;
  char spare[AUTONAME_ROOM];
  name = AutoName(name, spare);
  RPCOBJS* c = NewSendCommand(name, z, size, flag);
  if (!c) return ERR_MEMORY_ALLOC;
  if (!pItem->AddNew(name, c)) {
    delete c;
    return ERR_NAME_IN_USE;
  }
  return Dirty(pItem);
}

static const char MagicZ[9] = MAGIC;

SI4 CMDCONNECTION::HeaderRecv(PFDSETS, PHIERAKI) {
  UI4 got = pHeader->Offset;
  if (got <= 8) return 0;
  UI4 n = got - 8 < 9 ? got - 8 : 9;
  return memcmp(pHeader->Start() + 8, MagicZ, n) ? ERR_WRONG_MAGIC : 0;
}

// A name field without its trailing blanks, terminated in out.
static void FieldName(PCH1 field, PCH1 out) {
  UI4 n = IPMSG_NAMELEN;
  while (n > 0 && field[n - 1] == ' ') field[--n] = 0;
  memcpy(out, field, n);
  out[n] = 0;
}

// A name a peer gives must be one node's name under this connection.
static bool NodeName(PCH1 name) { return *name && !strchr(name, '.'); }

// The command an answer belongs to: one of ours, sent and not yet answered.
static PCOMMAND Awaiting(PHIERAKI pItem, PCH1 name) {
  PHIERAKI h = NodeName(name) ? pItem->FindLeaf(name) : nullptr;
  if (!h || !h->pObj || h->pObj->Type != TCommand) return nullptr;
  PCOMMAND c = (PCOMMAND)(PRPCOBJS)h->pObj;
  OBJSTATE s = c->State;
  return c->pSend && !c->pRecv && (s == SProcessing || s == SSent) ? c : nullptr;
}

SI4 CMDCONNECTION::HeaderComplete(PFDSETS, PHIERAKI pItem) {
  pHeader->Rewind();
  PIPMSG h = (PIPMSG)pHeader->Start();
  char name[IPMSG_NAMELEN + 1], sub[IPMSG_NAMELEN + 1];
  FieldName(h->Name, name);
  FieldName(h->Subname, sub);
  UI4 length = GetBE32(h->Length);
  UI4 type = GetBE32(h->MessageType);
  LOG(1, ("Connection %s received %d named %s.%s", pItem->Name, (int)type, name, sub));
  if (memcmp(h->Magic, MAGIC, 8) != 0) return ERR_WRONG_MAGIC;
  if (length < IPMSG_HEADER) return ERR_SIZE;
  if (type != IPMCommand && type != IPMCommandNoAnswer && type != IPMAnswer && type != IPMMessage)
    return 0;
  // The payload alone: once read, its block goes to the host as it is.
  PBUFFER b = BLOCKBUFFER::TryNew(length - IPMSG_HEADER);
  if (!b) return ERR_MEMORY_ALLOC;
  if (type == IPMAnswer) {
    PCOMMAND c = Awaiting(pItem, name);
    if (!c) {
      delete b;
      return ERR_UNKNOWN_ANSWER;
    }
    c->pRecv = b;
    c->NextState = SFinished;
    c->timeCreate = c->timeReady = Micros();
    c->State = SReceiving;
    return 0;
  }
  PHIERAKI parent = pItem;
  RPCOBJS* child;
  PCH1 childName = name;
  if (type == IPMMessage) {
    parent = NodeName(name) ? pItem->FindLeaf(name) : nullptr;
    if (!parent || !parent->pObj || parent->pObj->Type != TCommand) {
      delete b;
      return ERR_UNKNOWN_ANSWER;
    }
    child = new PROGRESS(b, SReceiving);
    childName = sub;
  } else {
    child = new COMMAND(b, SReceiving);
  }
  child->NextState = type == IPMCommand ? SProcessing : SFinished;
  // A second request under a name in use, or a name that is no single
  // node's, ends the connection: it can't be told apart from the first.
  if (!NodeName(childName) || !parent->AddNew(childName, child)) {
    delete child;
    return ERR_NAME_IN_USE;
  }
  return 0;
}

// A body that doesn't unpack would reach the host as an array it can't
// read: the connection ends instead.
SI4 CMDCONNECTION::ReadComplete(PFDSETS fds, PHIERAKI pItem) {
  PBUFFER b = pItem->pObj->GetBuffer();
  if (b && !CheckZ((PUI4)b->Start(), b->Size)) return ERR_ARCHITECTURE;
  return CONNECTION::ReadComplete(fds, pItem);
}

SI4 CMDSERVER::NewConnection(PFDSETS fds, PCH1 name, PRPCSOCK sock) {
  PCMDCONNECTION c = new CMDCONNECTION(sock);
  c->Mode = MCommand;
  return AdoptConnection(fds, name, c);
}
