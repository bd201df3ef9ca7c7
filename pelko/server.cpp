// The server base: listening and pausing, one accept a round with the
// address ranges applied, the FIFO ready ring, and the properties.
#include "server.h"

#include <unistd.h>

#include <cassert>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <strings.h>

#include "certdata.h"
#include "log.h"
#include "pelkoerr.h"
#include "root.h"
#include "verbresult.h"
#include "work.h"

#define MODULE 0x00000100

SERVER::SERVER()
    : RPCOBJS(TServer), Prot(PAny), Port(nullptr), Address(nullptr), pSocket(nullptr), NameCnt(0),
      timeKeepAlive(0), intevalKeepAlive(0), OnlyNewReadyConnections(false), Paused(0),
      FIFO(false), pAllow(nullptr), pDeny(nullptr), pCert(nullptr), Ready(nullptr),
      pOOSfn(nullptr), SemReady(new TALSEMA(1, 100)) {}

SERVER::~SERVER() {
  LOG(1, ("Deleting Server"));
  delete pSocket;
  pSocket = nullptr;
  delete pAllow;
  pAllow = nullptr;
  delete pDeny;
  pDeny = nullptr;
  free(Address);
  Address = nullptr;
  free(Port);
  Port = nullptr;
  FreeCert(pCert);
  pCert = nullptr;
  while (Ready) Ready->Pop(&Ready);
  delete SemReady;
  SemReady = nullptr;
}

SI4 SERVER::Bind(PHIERAKI root, PCH10 port, PCH10 address, PROTOCOL prot) {
  if (State == SListen) return ERR_STATE;
  SI4 err = 0;
  delete pSocket;
  pSocket = NewSock(root, address, port, true, pCert, prot, &err);
  if (!pSocket) return err ? err : ERR_NEW_DATA_SOCKET;
  if (pSocket->lError) return pSocket->lError;
  Prot = prot;
  State = SListen;
  return 0;
}

SI4 SERVER::Listen(PHIERAKI root, PCH10 port, PCH10 address, PROTOCOL prot) {
  SI4 rc = Bind(root, port, address, prot);
  if (rc) return rc;
  if (address) Address = strdup(address);
  if (port) Port = strdup(port);
  return 0;
}

SI4 SERVER::ReListen(PHIERAKI root) { return Bind(root, Port, Address, Prot); }

SI4 SERVER::Check(PFDSETS fds) {
  if (State == SListen && pSocket) pSocket->Wait4R(&fds->ss);
  return 0;
}

SI4 SERVER::Setinfo(PFDSETS) { return 0; }

SI4 SERVER::Execute(PFDSETS fds) {
  if (fds->closeAllSockets) {
    if (pSocket) pSocket->CloseSocket();
    return 0;
  }
  if (State == SGotoPause) {
    if (pSocket) pSocket->SaveCred();
    delete pSocket;
    pSocket = nullptr;
    State = SListenPaused;
    return 0;
  }
  if (State == SListen && pSocket && pSocket->Ready4R(&fds->ss)) return Accept(fds);
  return 0;
}

SI4 SERVER::Accept(PFDSETS fds) {
  PRPCSOCK sock = nullptr;
  SI4 rc = pSocket->Accept(&sock);
  char name[MAXNAMELENGTH + 1];
  snprintf(name, sizeof(name), "CON%08u", NameCnt++);
  LOG(1, ("Server Accept %s", name));
  // A failed accept leaves no socket to look at.
  if (!sock) return rc ? rc : ERR_ACCEPT;
  if (pAllow || pDeny) {
    TALSOCKADDR peer = {};
    sock->Addr(false, &peer);
    if ((pAllow && pAllow->IsValid(&peer) == 0) || (pDeny && pDeny->IsValid(&peer) != 0)) {
      delete sock;
      return ERR_ENDPOINT;
    }
  }
  NoDelay(sock);
  if (timeKeepAlive && intevalKeepAlive) sock->SetKeepalive(timeKeepAlive, intevalKeepAlive);
  if (rc == 0 || rc == ERR_HANDSHAKE_NOT_COMPLETED) return NewConnection(fds, name, sock);
  delete sock;
  return rc;
}

SI4 SERVER::NewConnection(PFDSETS, PCH1, PRPCSOCK sock) {
  delete sock;
  return ERR_NEW;
}

SI4 SERVER::AdoptConnection(PFDSETS fds, PCH1 name, PCONNECTION pConn) {
  if (!pConn) return ERR_NEW;
  SI4 rc = pConn->lErrorObj;
  if (rc == 0) {
    pConn->pOOSfn = pOOSfn;
    PHIERAKI h = fds->pItem->AddNew(name, pConn);
    if (h) {
      Ready4Apl(h);
      return 0;
    }
    rc = ERR_NAME_IN_USE;
  }
  delete pConn;
  return rc;
}

SI4 SERVER::ReadyFn(PHIERAKI pItem) {
  SemReady->wait();
  LOG(1, ("ReadyFn pReady %p ph %p", (void*)Ready, (void*)pItem));
  Ready = Ready ? Ready->Push(pItem) : new RING(pItem);
  pItem->CleanUpCount++;
  pItem->CleanUpLevel = TServer;
  SemReady->release(1);
  return 0;
}

PHIERAKI SERVER::PopReady() {
  PHIERAKI res = nullptr;
  SemReady->wait();
  while (Ready) {
    res = Ready->Pop(&Ready);
    assert(res->CleanUpCount > 0);
    res->CleanUpCount--;
    LOG(1, ("PopReady pReady %p ph %p", (void*)Ready, (void*)res));
    OBJSTATE s = res->pObj ? res->pObj->State.load() : SNew;
    if (!Ready || !res->pObj || (s != SFinished && s != SMarkedForDeletion)) break;
    res = nullptr;
  }
  SemReady->release(1);
  return res;
}

SI4 SERVER::CleanUp(PHIERAKI pItem) {
  if (!Ready || pItem->CleanUpCount < 1) return 0;
  SemReady->wait();
  LOG(1, ("Cleanup pReady %p ph %p", (void*)Ready, (void*)pItem));
  LOG(2, ("Cleanup pReady %p ph %p", (void*)Ready, (void*)pItem));
  if (Ready) Ready = Ready->Remove(pItem);
  SemReady->release(1);
  return 0;
}

bool ServerIsFifo(PRPCOBJS pServer) {
  PSERVER s = dynamic_cast<PSERVER>(pServer);
  return s && s->FIFO;
}

SI4 ServerReadyFn(PRPCOBJS pServer, PHIERAKI pItem) {
  PSERVER s = dynamic_cast<PSERVER>(pServer);
  return s ? s->ReadyFn(pItem) : 0;
}

SI4 SERVER::SetPause(PHIERAKI root, SI4 v) {
  if (v < 0 || v > 2) return ERR_OPTION;
  SI4 rc = 0;
  OBJSTATE s = State;
  if (v == 1 && s == SListen) {
    State = SListenPaused;
  } else if (v == 2 && s == SListen) {
    State = SGotoPause;
  } else if (v == 0) {
    if (s != SListenPaused) return ERR_STATE;
    if (pSocket) State = SListen;
    else rc = ReListen(root);
  }
  Paused = v;
  SI4 d = Dirty(root);
  return rc ? rc : d;
}

// Element i of a property value as a number.
static SI4 PropInt(PAA value, UI4 i, PSI4 out) {
  *out = 0;
  return value ? VAGetSI4(value, i, out) : ERR_VALUE;
}

SI4 SERVER::SetRPCProp(PHIERAKI root, PCH1 name, PAA value) {
  SI4 v = 0;
  if (strcasecmp(name, "KeepAlive") == 0) {
    SI4 interval = 1000;
    SI4 rc = PropInt(value, 0, &v);
    if (rc) return rc;
    if (VAElems(value) > 1) rc = PropInt(value, 1, &interval);
    if (rc) return rc;
    timeKeepAlive = (UI4)v;
    intevalKeepAlive = (UI4)interval;
    return 0;
  }
  SI4 rc = PropInt(value, 0, &v);
  if (strcasecmp(name, "ConnectionOnly") == 0) {
    if (rc) return rc;
    OnlyNewReadyConnections = v > 0;
    PROOT pRoot = RootObj(root);
    if (v > 0 && pRoot) pRoot->UseFnsReady = 4;
    return 0;
  }
  if (strcasecmp(name, "FIFOMode") == 0) return rc;
  if (strcasecmp(name, "Pause") == 0) return rc ? rc : SetPause(root, v);
  return ERR_OPTION;
}

SI4 SERVER::GetRPCProp(PCH1 name, PAA, PPAA ppOut) {
  *ppOut = nullptr;
  SI4 rc = 0;
  if (strcasecmp(name, "KeepAlive") == 0) {
    SI4 v[2] = {(SI4)timeKeepAlive, (SI4)intevalKeepAlive};
    *ppOut = VAIntVector(v, 2);
  } else if (strcasecmp(name, "ConnectionOnly") == 0) {
    SI4 v = OnlyNewReadyConnections ? 1 : 0;
    *ppOut = VAIntVector(&v, 1);
  } else if (strcasecmp(name, "FIFOMode") == 0) {
    SI4 v = 0;
    *ppOut = VAIntVector(&v, 1);
  } else if (strcasecmp(name, "Pause") == 0) {
    *ppOut = VAIntVector(&Paused, 1);
  } else if (strcasecmp(name, "HostName") == 0) {
    char host[256] = "";
    if (gethostname(host, 255) != 0) host[0] = 0;
    host[255] = 0;
    *ppOut = VAText(host);
  } else if (strcasecmp(name, "OwnCert") == 0) {
    *ppOut = pSocket ? pSocket->paaCert(true) : VANewVector(VAC1, 0);
  } else if (strcasecmp(name, "LocalAddr") == 0) {
    rc = pSocket ? pSocket->Info(true, ppOut) : ERR_STATE;
  } else if (strcasecmp(name, "PropList") == 0) {
    *ppOut = VANested({VAText("LocalAddr"), VAText("OnlyConnections"),
                          VAText("OwnCert"), VAText("PropList")});
  } else {
    return ERR_OPTION;
  }
  if (!rc && !*ppOut) rc = ERR_MEMORY_ALLOC;
  if (rc) *ppOut = VAFree(*ppOut);
  return rc;
}
