// UDP: receiving datagrams under a node per peer, sending one datagram per
// message, and the send verb's (host port data) form.
#include "udp.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdio>
#include <cstring>
#include <strings.h>

#include "base64.h"
#include "command.h"
#include "connection.h"
#include "log.h"
#include "orvanenaz.h"
#include "pelkoerr.h"
#include "root.h"
#include "verbresult.h"
#include "work.h"

#define MODULE 0x00000100

UDPADDR::UDPADDR() : RPCOBJS(TUdpPeer), paaInfo(nullptr), addr(), NameCnt(0) { Mode = MUdp; }

UDPADDR::UDPADDR(TALSOCKADDR a) : UDPADDR() { addr = a; }

UDPADDR::~UDPADDR() { paaInfo = VAFree(paaInfo); }

SI4 UDPADDR::SetAddr(PCH10 host, PCH10 port, PROTOCOL prot) {
  SI4 rc = GetIPAddr(host, port, SOCK_DGRAM, prot, false, &addr);
  State = SConnected;
  return rc;
}

// A buffer composing left behind with its failure is dropped here;
// SendBuffer owns the buffer it is given.
SI4 UDPADDR::SendZ(PHIERAKI pItem, PCH10 name, PUI4 z, UI4 size, UI4 flag) {
  PBUFFER b = nullptr;
  SI4 rc = State == SConnected ? ComposeBuffer(z, size, &b) : ERR_CLOSED;
  if (rc) {
    delete b;
    return rc;
  }
  return SendBuffer(pItem, name, b, flag);
}

SI4 UDPADDR::SendBuffer(PHIERAKI pItem, PCH10 name, PBUFFER pBuffer, UI4) {
  if (State != SConnected) {
    delete pBuffer;
    return ERR_CLOSED;
  }
  char spare[AUTONAME_ROOM];
  if (!name || !*name) {
    PCH10 at = name ? name : spare;
    snprintf(at, AUTONAME_ROOM, ".Udp%08u", NameCnt++);
    name = at + 1;
  }
  PMESSAGE m = new MESSAGE(pBuffer, SReadyToSend);
  m->NextState = SFinished;
  m->Mode = pItem->pObj->Mode;
  if (!pItem->AddNew(name, m)) {
    delete m;
    return ERR_NAME_IN_USE;
  }
  return Dirty(pItem);
}

SI4 UDPADDR::GetRPCProp(PCH1 name, PAA, PPAA ppOut) {
  *ppOut = nullptr;
  if (strcasecmp(name, "LocalAddr") == 0) {
    if (!paaInfo) {
      SI4 rc = SockAddr2pAA(&addr, &paaInfo);
      if (rc) return rc;
    }
    VAIncRef(paaInfo);
    *ppOut = paaInfo;
    return 0;
  }
  if (strcasecmp(name, "PropList") != 0) return ERR_OPTION;
  *ppOut = VANested({VAText("LocalAddr"), VAText("PropList")});
  return *ppOut ? 0 : ERR_MEMORY_ALLOC;
}

UDP::UDP(UI4 size)
    : RPCOBJS(TUdp), MaxBlockSize(size), pSocket(nullptr), pBuf(new BUFFER(size)), pWrite(nullptr),
      phWrite(nullptr), Prot(PAny), MaxOld(0) {
  Mode = MUdp;
  State = SListen;
  pBuf->AllInOne();
}

UDP::~UDP() {
  delete pSocket;
  pSocket = nullptr;
  delete pBuf;
  pBuf = nullptr;
}

SI4 UDP::Bind(PCH10 host, PCH10 port, PROTOCOL prot) {
  delete pSocket;
  pSocket = new RPCSOCK(host, port, true, prot, SOCK_DGRAM);
  State = SListen;
  Prot = prot;
  return 0;
}

SI4 UDP::Init(PROTOCOL prot) {
  Prot = prot;
  delete pSocket;
  pSocket = new RPCSOCK((PCH10) "", (PCH10) "", false, prot, SOCK_DGRAM);
  State = SListen;
  return pSocket->lError;
}

SI4 UDP::Name(PCH1 out, TALSOCKADDR* a) {
  PUI1 bytes;
  UI4 n;
  UI2 port;
  if (a->ss_family == AF_INET6) {
    sockaddr_in6* s = (sockaddr_in6*)a;
    bytes = s->sin6_addr.s6_addr;
    n = 16;
    port = s->sin6_port;
  } else {
    sockaddr_in* s = (sockaddr_in*)a;
    bytes = (PUI1)&s->sin_addr;
    n = 4;
    port = s->sin_port;
  }
  UI4 len = encode64(out, bytes, n);
  out[len++] = ':';
  len += encodeHex(out + len, (PUI1)&port, 2);
  out[len] = 0;
  return 0;
}

// The peer's node under the UDP node, made when it is new.
static PHIERAKI PeerNode(PHIERAKI udp, TALSOCKADDR* a, PCH1 name) {
  UDP::Name(name, a);
  PHIERAKI h = udp->FindLeaf(name);
  if (h) return h;
  PUDPADDR p = new UDPADDR(*a);
  p->State = SConnected;
  h = udp->AddNew(name, p);
  if (!h) delete p;
  return h;
}

SI4 UDP::SendZ(PHIERAKI pItem, PCH10 name, PUI4 z, UI4, UI4 flag) {
  if (Type != TUdp) return ERR_INVALID_OBJECT;
  PAA arg = UnpackZ(z);
  if (!arg) return ERR_ARCHITECTURE;
  SI4 rc = 0;
  if (VARank(arg) > 1) rc = ERR_RANK;
  else if (VAType(arg) != VAPntr) rc = ERR_DOMAIN;
  else if (VAElems(arg) >= 4) rc = ERR_LENGTH;
  char host[256], port[33];
  if (!rc) rc = VAGetCH1(arg, 0, host, sizeof(host), VACHAR);
  if (!rc) rc = VAGetCH1(arg, 1, port, sizeof(port), VACHAR);
  TALSOCKADDR a = {};
  if (!rc) rc = GetIPAddr(host, port, SOCK_DGRAM, Prot == PIPv4 ? PIPv4 : PIPv6, false, &a);
  PHIERAKI peer = nullptr;
  if (!rc) {
    // The full name reaches the caller through its buffer: a sub-name the
    // caller gave is replaced by the peer's.
    if (!*name) *name++ = '.';
    peer = PeerNode(pItem, &a, name);
    LOG(2, ("UDPAddr added"));
    if (!peer) rc = ERR_NAME_IN_USE;
  }
  if (!rc && VAElems(arg) == 3) {
    PAA data = nullptr;
    PBUFFER b = nullptr;
    rc = VAGetpAA(arg, 2, &data);
    if (!rc) rc = ComposeArray(data, &b);
    VAFree(data);
    if (rc)
      delete b;
    else
      rc = peer->pObj->SendBuffer(peer, nullptr, b, flag);
  }
  VAFree(arg);
  if (rc) return rc;
  rc = Dirty(pItem);
  LOG(2, ("Worker notified"));
  return rc;
}

SI4 UDP::SetRPCProp(PHIERAKI, PCH1 name, PAA value) {
  if (strcasecmp(name, "MaxOld") != 0) return ERR_OPTION;
  SI4 v = 0;
  SI4 rc = value ? VAGetSI4(value, 0, &v) : ERR_VALUE;
  if (!rc) MaxOld = v;
  return rc;
}

SI4 UDP::GetRPCProp(PCH1 name, PAA, PPAA ppOut) {
  *ppOut = nullptr;
  if (strcasecmp(name, "LocalAddr") == 0) return pSocket ? pSocket->Info(true, ppOut) : ERR_CLOSED;
  if (strcasecmp(name, "PropList") != 0) return ERR_OPTION;
  *ppOut = VANested({VAText("LocalAddr"), VAText("PropList")});
  return *ppOut ? 0 : ERR_MEMORY_ALLOC;
}

SI4 UDP::Setinfo(PFDSETS fds) {
  fds->pRead = nullptr;
  fds->pWrite = nullptr;
  fds->phRead = nullptr;
  fds->phWrite = nullptr;
  fds->fConnectionClosed = 0;
  return 0;
}

SI4 UDP::Check(PFDSETS fds) {
  if (State == SListen && pSocket) {
    pSocket->Wait4R(&fds->ss);
    pWrite = fds->pWrite;
    phWrite = fds->phWrite;
    if (pWrite) {
      LOG(1, ("Sending, %s", phWrite->Name));
      pSocket->Wait4W(&fds->ss);
    }
  } else {
    pWrite = nullptr;
    phWrite = nullptr;
  }
  return 0;
}

static PHIERAKI CountUnclaimed(PHIERAKI h, void* count) {
  if (h->pObj && h->pObj->State == SAPL) ++*(SI4*)count;
  return nullptr;
}

// Datagrams the host hasn't taken yet. Taken ones stay children until the
// next round deletes them, and don't count.
static SI4 Unclaimed(PHIERAKI peer) {
  SI4 n = 0;
  peer->LoopSub(CountUnclaimed, &n);
  return n;
}

bool UDP::Receive(PFDSETS fds) {
  TALSOCKADDR from = {};
  UI4 before = pBuf->Offset;
  if (pSocket->RecvFrom(pBuf, &from)) return false;
  if (pBuf->Offset == before) return true;
  char name[UDP_NAMELEN];
  PHIERAKI peer = PeerNode(fds->pItem, &from, name);
  if (!peer) return true;
  PUDPADDR p = (PUDPADDR)(PRPCOBJS)peer->pObj;
  SI4 old = MaxOld;
  if (old && Unclaimed(peer) > old) {
    // The dropped datagram stays in the buffer and goes up with the next
    // one; a buffer filled that way starts again, so it never stalls.
    if (pBuf->Complete()) pBuf->Rewind();
    return true;
  }
  PBUFFER b = pBuf->Take(pBuf->Offset);
  pBuf->Rewind();
  PMESSAGE m = new MESSAGE(b, SAPL);
  m->NextState = SFinished;
  m->Mode = p->Mode;
  char mname[MAXNAMELENGTH + 1];
  snprintf(mname, sizeof(mname), "Udp%08u", p->NameCnt++);
  PHIERAKI h = peer->AddNew(mname, m);
  if (h)
    m->Ready4Apl(h);
  else
    delete m;
  return true;
}

void UDP::SendStep() {
  PRPCOBJS child = phWrite->pObj;
  PHIERAKI peer = phWrite->Parent();
  child->State = SSending;
  SI4 rc = pSocket->SendTo(pWrite, ((PUDPADDR)(PRPCOBJS)peer->pObj)->GetAddr());
  LOG(1, ("Sending %s bytes remaining %d", phWrite->Name, pWrite->Remaining()));
  if (!rc && !pWrite->Complete()) rc = ERR_SEND;
  if (rc) {
    child->lErrorObj = rc;
    child->State = SError;
    child->Ready4Apl(phWrite);
  } else {
    LOG(1, ("Command sent, %s", phWrite->Name));
    child->State = child->NextState.load();
    OBJSTATE ps = child->NextPState;
    if (ps != SDoNotChange) peer->pObj->State = ps;
    if (child->State == SSent) child->Ready4Apl(phWrite);
  }
  pWrite = nullptr;
  phWrite = nullptr;
}

SI4 UDP::Execute(PFDSETS fds) {
  if (fds->closeAllSockets) {
    if (pSocket) pSocket->CloseSocket();
    return 0;
  }
  if (!pSocket) return 0;
  // A failed receive ends the round for this socket.
  if (pSocket->Ready4R(&fds->ss) && !Receive(fds)) return 0;
  if (pWrite && phWrite && pSocket->Ready4W(&fds->ss)) SendStep();
  return 0;
}
