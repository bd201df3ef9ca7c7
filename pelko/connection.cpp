// The connection base: the read and write steps of one round, the close in
// both directions, sending a finished buffer, and the properties.
#include "connection.h"

#include <cstdio>
#include <cstring>
#include <strings.h>

#include "command.h"
#include "log.h"
#include "pelkoerr.h"
#include "relay.h"
#include "root.h"
#include "security.h"
#include "verbresult.h"
#include "work.h"

#define MODULE 0x00000100

CONNECTION::CONNECTION()
    : RPCOBJS(TClient), pHeader(nullptr), pRead(nullptr), pWrite(nullptr), phRead(nullptr),
      phWrite(nullptr), ActiveClose(0), fShutdown(false), pCon(nullptr), pCert(nullptr), NameCnt(0),
      pOOSfn(nullptr), pCred(nullptr), pContext(nullptr) {}

CONNECTION::CONNECTION(PRPCSOCK s) : CONNECTION() {
  Type = TConnection;
  pCon = s;
  SI4 err = s ? s->lError : ERR_NEW_DATA_SOCKET;
  if (err == 0) {
    State = SIncoming;
  } else if (err == ERR_HANDSHAKE_NOT_COMPLETED) {
    State = SSSL;
    NextState = SIncoming;
    s->lError = 0;
  } else {
    State = SFinished;
    lErrorObj = err;
  }
}

CONNECTION::~CONNECTION() {
  LOG(1, ("Deleting Connection/Client"));
  delete pHeader;
  pHeader = nullptr;
  delete pCon;
  pCon = nullptr;
  FreeAuth(this);
}

// Every piece goes out whole in its round, at most 16 KB, which is less
// than a loopback segment: waiting to fill one would hold each piece for
// the peer's acknowledgement of the last, a round trip per piece. Command
// turns, HTTP answers and WebSocket frames all move at that pace without
// this (a 1 MB WebSocket echo took three times as long).
void NoDelay(PRPCSOCK s) {
  if (s && s->isValid()) s->SetNoDelay();
}

SI4 CONNECTION::Connect(PHIERAKI root, PCH10 host, PCH10 port, PROTOCOL prot) {
  SI4 err = 0;
  pCon = NewSock(root, host, port, false, pCert, prot, &err);
  if (!pCon) return err ? err : ERR_NEW_DATA_SOCKET;
  NoDelay(pCon);
  if (pCon->lError == 0) State = SConnected;
  return pCon->lError;
}

SI4 CONNECTION::GetStatus(PUI4 received, PUI4 remaining) {
  *received = 0;
  *remaining = 0;
  PBUFFER b = pRead;
  if (b) {
    *received = b->Offset;
    *remaining = b->Size - b->Offset;
  }
  return 0;
}

bool CONNECTION::isAscii() { return Mode == MAscii || Mode == MBlkAscii || Mode == MHttp; }

SI4 CONNECTION::HeaderRecv(PFDSETS, PHIERAKI) { return 0; }
SI4 CONNECTION::HeaderComplete(PFDSETS, PHIERAKI) { return 0; }
SI4 CONNECTION::ReadRecv(PFDSETS, PHIERAKI) { return 0; }
SI4 CONNECTION::WriteSend(PFDSETS, PHIERAKI) { return 0; }

SI4 CONNECTION::ReadComplete(PFDSETS, PHIERAKI pItem) {
  pItem->pObj->State = SAPL;
  pItem->pObj->Ready4Apl(pItem);
  return 0;
}

SI4 CONNECTION::WriteComplete(PFDSETS, PHIERAKI pItem) {
  PRPCOBJS child = pItem->pObj;
  child->State = child->NextState.load();
  OBJSTATE p = child->NextPState;
  if (p != SDoNotChange && pItem->Parent() && pItem->Parent()->pObj) pItem->Parent()->pObj->State = p;
  if (child->State == SSent) child->Ready4Apl(pItem);
  phWrite = nullptr;
  pWrite = nullptr;
  return 0;
}

// The peer's close. A last block handed up just before may already have
// been taken, and its taking finished the connection: that state stands,
// or the host would get an "Error" for a connection it has seen end.
void CONNECTION::SocketClosed() {
  OBJSTATE expected = SConnected;
  State.compare_exchange_strong(expected, SSocketClosed);
  if (pCon) pCon->CloseSocket();
}

SI4 CONNECTION::PassiveClose(PFDSETS, PHIERAKI pItem) {
  SocketClosed();
  if (ActiveClose == 0 && pItem->pObj) pItem->pObj->Ready4Apl(pItem);
  return 0;
}

SI4 CONNECTION::Close(PHIERAKI pItem) {
  PROOT pRoot = RootObj(pItem);
  OBJSTATE s = State;
  if (s == SReceiving || s == SSending) return ERR_OBJECT_ACTIVITY;
  if (s == SFinished || s == SMarkedForDeletion) return 0;
  if (s != SSocketClosed) {
    fShutdown = true;
    ActiveClose = Micros();
    lErrorObj = ERR_ACTIVECLOSE;
    State = SSocketClosed;
  } else if (!(ActiveClose > 0)) {
    State = SFinished;
  }
  return pRoot ? pRoot->Dirty() : ERR_ROOT_NOT_FOUND;
}

PCH10 CONNECTION::AutoName(PCH10 name, PCH10 spare) {
  if (name && *name) return name;
  // The caller's buffer holds the full name and name points at its end, so
  // the generated part reaches the caller through it.
  PCH10 at = name ? name : spare;
  sprintf(at, ".Auto%08u", NameCnt++);
  return at + 1;
}

// The buffer is the message's from here on, also when it is refused: once
// the message is in the tree, a failed wake-up must not hand it back.
SI4 CONNECTION::SendBuffer(PHIERAKI pItem, PCH10 name, PBUFFER pBuffer, UI4 flag) {
  if (State != SConnected) {
    delete pBuffer;
    return ERR_CLOSED;
  }
  char spare[AUTONAME_ROOM];
  name = AutoName(name, spare);
  PMESSAGE m = new MESSAGE(pBuffer, SReadyToSend);
  m->Mode = Mode;
  m->NextState = flag == 3 ? SSent : SFinished;
  if (flag == 1) m->NextPState = SShutdown;
  if (!pItem->AddNew(name, m)) {
    delete m;
    return ERR_NAME_IN_USE;
  }
  return Dirty(pItem);
}

SI4 CONNECTION::SendZ(PHIERAKI pItem, PCH10 name, PUI4 z, UI4 size, UI4 flag) {
  if (State != SConnected) return ERR_CLOSED;
  PBUFFER b = nullptr;
  // A compose step may leave a buffer behind with its failure.
  SI4 rc = ComposeBuffer(z, size, &b);
  if (rc) {
    delete b;
    return rc;
  }
  return SendBuffer(pItem, name, b, flag);
}

SI4 CONNECTION::Setinfo(PFDSETS fds) {
  fds->pRead = nullptr;
  fds->pWrite = nullptr;
  fds->phRead = nullptr;
  fds->phWrite = nullptr;
  fds->fConnectionClosed = State == SSocketClosed;
  return 0;
}

SI4 CONNECTION::Check(PFDSETS fds) {
  switch (State) {
    case SConnected:
      pRead = fds->pRead;
      pWrite = fds->pWrite;
      phRead = fds->phRead;
      phWrite = fds->phWrite;
      if (pRead || pHeader) {
        LOG(1, ("Receiving, %s on socket %d", phRead ? phRead->Name : "Header", pCon->RawSocket()));
        pCon->Wait4R(&fds->ss);
      }
      if (pWrite) {
        LOG(1, ("Sending, %s", phWrite->Name));
        pCon->Wait4W(&fds->ss);
      }
      return 0;
    case SSSL:
      pCon->Wait4R(&fds->ss);
      return 0;
    case SSocketClosed:
      if (fShutdown.exchange(false) && pCon) pCon->Shutdown();
      if (ActiveClose > 0) {
        if (Micros() - ActiveClose < CLOSE_DRAIN_MICROS && pCon && pCon->isValid())
          pCon->Wait4R(&fds->ss);
        else
          State = SFinished;
      }
      return 0;
    default:
      pRead = pWrite = nullptr;
      phRead = phWrite = nullptr;
      return 0;
  }
}

// A close from a host thread may have come between the round's look at
// the state and the failure it caused: that close stands, silently.
void CONNECTION::Fail(PHIERAKI self, SI4 rc) {
  if (State != SConnected) return;
  lErrorObj = rc;
  OBJSTATE expected = SConnected;
  if (State.compare_exchange_strong(expected, SError)) Ready4Apl(self);
}

// One recv for the current child, or for the mode's header when no child
// reads. Gives the code of a hook; a socket failure is dealt with here and
// stops the round for this connection (-1).
SI4 CONNECTION::ReadStep(PFDSETS fds, PHIERAKI self) {
  PHIERAKI target = pRead ? phRead : self;
  PBUFFER b = pRead ? pRead : pHeader;
  if (pRead) phRead->pObj->State = SReceiving;
  SI4 rc = pCon->Read(b);
  if (rc == ERR_CLOSED) {
    lErrorObj = rc;
    PassiveClose(fds, target);
    return -1;
  }
  if (rc) {
    Fail(self, rc);
    return -1;
  }
  LOG(1, ("Receiving %s bytes remaining %d", pRead ? phRead->Name : "Header", b->Remaining()));
  if (!pRead) return b->Complete() ? HeaderComplete(fds, self) : HeaderRecv(fds, self);
  if (phRead->pObj->Type == TRelay) {
    SI4 relayed = ((PRELAY)(PRPCOBJS)phRead->pObj)->RelayBuf(pHeader);
    if (relayed) return relayed;
  }
  if (!b->Complete()) return ReadRecv(fds, phRead);
  LOG(1, ("Command received, %s", phRead->Name));
  return ReadComplete(fds, phRead);
}

SI4 CONNECTION::WriteStep(PFDSETS fds) {
  PRPCOBJS child = phWrite->pObj;
  child->State = SSending;
  SI4 rc = pCon->Write(pWrite);
  if (rc) return rc;
  LOG(1, ("Sending %s bytes remaining %d", phWrite->Name, pWrite->Remaining()));
  if (!pWrite->Complete()) return WriteSend(fds, phWrite);
  LOG(1, ("Command sent, %s", phWrite->Name));
  if (child->NextPState == SShutdown) {
    ActiveClose = Micros();
    State = SSocketClosed;
    pCon->Shutdown();
    child->NextPState = SDoNotChange;
  }
  return WriteComplete(fds, phWrite);
}

SI4 CONNECTION::ExecuteConnected(PFDSETS fds, PHIERAKI self) {
  SI4 rc = 0;
  if (pCon->Ready4R(&fds->ss) && (pRead || pHeader)) {
    rc = ReadStep(fds, self);
    // After an upgrade the node holds this connection's successor, which
    // has the socket: nothing more of this round is ours.
    if (rc < 0 || rc == ERR_WSUPGRADED) return 0;
  }
  if (!rc && pWrite && State == SConnected && pCon->Ready4W(&fds->ss)) rc = WriteStep(fds);
  if (rc) Fail(self, rc);
  return 0;
}

SI4 CONNECTION::Execute(PFDSETS fds) {
  PHIERAKI self = fds->pItem;
  if (fds->closeAllSockets) {
    if (pCon) pCon->CloseSocket();
    return 0;
  }
  switch (State) {
    case SSSL: {
      SI4 rc = pCon->Handshake(true);
      if (rc == 0) {
        State = NextState.load();
        NextState = SDoNotChange;
        Ready4Apl(self);
      } else if (rc != ERR_HANDSHAKE_NOT_COMPLETED || Micros() - timeCreate > CLOSE_DRAIN_MICROS) {
        lErrorObj = rc;
        State = SFinished;
      }
      return State == SConnected ? ExecuteConnected(fds, self) : 0;
    }
    case SSocketClosed:
      if (ActiveClose > 0 && pCon && pCon->Ready4R(&fds->ss)) {
        BUFFER drain(CLOSE_DRAIN_BYTES);
        if (pCon->Read(&drain)) State = SFinished;
      }
      return 0;
    case SConnected:
      return ExecuteConnected(fds, self);
    default:
      return 0;
  }
}

bool ClosedIsReady(PRPCOBJS obj) {
  if (obj->State != SSocketClosed) return false;
  PCONNECTION c = dynamic_cast<PCONNECTION>(obj);
  return !c || !(c->ActiveClose > 0);
}

TPOOSFN ConnectionOOSfn(PRPCOBJS pConn) {
  PCONNECTION c = dynamic_cast<PCONNECTION>(pConn);
  return c ? c->pOOSfn : nullptr;
}

// Element i of a property value as a number.
static SI4 ValueInt(PAA value, UI4 i, PSI4 out) {
  *out = 0;
  return value ? VAGetSI4(value, i, out) : ERR_VALUE;
}

SI4 CONNECTION::SetRPCProp(PHIERAKI, PCH1 name, PAA value) {
  SI4 a = 0, b = 0;
  if (strcasecmp(name, "KeepAlive") == 0) {
    SI4 rc = ValueInt(value, 0, &a);
    if (!rc) rc = ValueInt(value, 1, &b);
    if (rc) return rc;
    return pCon ? pCon->SetKeepalive((UI4)a, (UI4)b) : 0;
  }
  // Block modes keep a magic of their own; the others read and drop it.
  if (strcasecmp(name, "Magic") == 0) return ValueInt(value, 0, &a);
  if (strcasecmp(name, "IWA") == 0) return StartAuthentication(this, value);
  if (strcasecmp(name, "Token") == 0) return SetToken(this, value);
  if (strcasecmp(name, "Impersonate") == 0) return Impersonate(this, value);
  if (strcasecmp(name, "MakeFile") == 0) return MakeFileAs(this, value);
  return ERR_OPTION;
}

// A certificate array of the socket, or the allocation failure.
static SI4 Cert(PRPCSOCK s, bool own, PPAA out) {
  *out = s ? s->paaCert(own) : VANewVector(VAC1, 0);
  return *out ? 0 : ERR_MEMORY_ALLOC;
}

SI4 CONNECTION::GetRPCProp(PCH1 name, PAA, PPAA ppOut) {
  *ppOut = nullptr;
  SI4 rc;
  if (strcasecmp(name, "Magic") == 0) {
    *ppOut = VAInt(0);
    rc = *ppOut ? 0 : ERR_MEMORY_ALLOC;
  } else if (strcasecmp(name, "IWA") == 0) {
    rc = GetName(this, ppOut);
  } else if (strcasecmp(name, "Token") == 0) {
    rc = GetToken(this, ppOut);
  } else if (strcasecmp(name, "PeerCert") == 0) {
    rc = Cert(pCon, false, ppOut);
  } else if (strcasecmp(name, "OwnCert") == 0) {
    rc = Cert(pCon, true, ppOut);
  } else if (strcasecmp(name, "LocalAddr") == 0 || strcasecmp(name, "PeerAddr") == 0) {
    rc = pCon ? pCon->Info(strcasecmp(name, "LocalAddr") == 0, ppOut) : ERR_CLOSED;
  } else if (strcasecmp(name, "PropList") == 0) {
    *ppOut = VANested({VAText("LocalAddr"), VAText("Magic"), VAText("OwnCert"),
                          VAText("PeerAddr"), VAText("PeerCert"), VAText("PropList")});
    rc = *ppOut ? 0 : ERR_MEMORY_ALLOC;
  } else {
    rc = ERR_OPTION;
  }
  if (rc) *ppOut = VAFree(*ppOut);
  return rc;
}
