// The opening verbs: an option list becomes a listening or an outgoing
// object of its mode, added under the root. The client's connect blocks in
// the host thread, before the object joins the tree.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <strings.h>

#include "certdata.h"
#include "blkconnection.h"
#include "blkserver.h"
#include "cmdconnection.h"
#include "httpconnection.h"
#include "httpserver.h"
#include "log.h"
#include "options.h"
#include "pelkoerr.h"
#include "rawconnection.h"
#include "rawserver.h"
#include "root.h"
#include "udp.h"
#include "verbresult.h"
#include "verbs.h"

#define MODULE 0x00000080

#define OPEN_NAMELEN 65
#define RANGE_KINDLEN 20
#define RANGE_LISTLEN 1024

// The classes by mode. UDP has its own path in Server and Client.
static PSERVER NewServerOfMode(OBJMODE mode, UI4 size, UI4 magic, SI4* rc) {
  *rc = 0;
  switch (mode) {
    case MCommand: return new CMDSERVER();
    case MRaw: case MAscii: return new RAWSERVER(size, mode);
    case MBlkRaw: case MBlkAscii: return new BLKSERVER(magic, size, mode);
    case MHttp: return new HTTPSERVER(size, mode);
    case MWebSocket: *rc = ERR_NEW; return nullptr;
    default: *rc = ERR_NONCE; return nullptr;
  }
}

static PCONNECTION NewClientOfMode(OBJMODE mode, UI4 size, UI4 magic, SI4* rc) {
  *rc = 0;
  switch (mode) {
    case MRaw: case MAscii: return new RAWCONNECTION(size, mode);
    case MBlkRaw: case MBlkAscii: return new BLKCONNECTION(magic, size, mode);
    case MHttp: return new HTTPCONNECTION(size, mode);
    default:
      return new CMDCONNECTION();
  }
}

// An empty name takes the next generated one; others must name a free
// place directly under the root.
static SI4 OpenName(PHIERAKI root, PCH10 name, const char* form) {
  PROOT pRoot = (PROOT)(PRPCOBJS)root->pObj;
  if (!*name) snprintf(name, OPEN_NAMELEN, form, pRoot->NameCnt++);
  if (strchr(name, '.')) return ERR_INVALID_OBJECT;
  return root->FindLeaf(name) ? ERR_NAME_IN_USE : 0;
}

static PROTOCOL Protocol(PHIERAKI root, PROTOCOL prot) {
  return prot == PAny ? ((PROOT)(PRPCOBJS)root->pObj)->DefProt : prot;
}

// A UDP object takes the place of a listener; its bind may fail and leave
// it without a socket, which only its LocalAddr shows.
static SI4 UdpServer(PHIERAKI root, PCH10 name, PCH10 port, UI4 size, PCH10 address,
                     PROTOCOL prot) {
  PUDP u = new UDP(size);
  u->Bind(address, port, Protocol(root, prot));
  if (!root->AddNew(name, u)) {
    delete u;
    return ERR_NAME_IN_USE;
  }
  LOG(1, ("UDP added"));
  Dirty(root);
  LOG(1, ("Worker notified"));
  return 0;
}

// The client side of UDP: an unbound socket, and the one peer named, whose
// node name is added to the caller's name.
static SI4 UdpClient(PHIERAKI root, PCH10 name, PCH10 address, PCH10 port, UI4 size,
                     PROTOCOL prot) {
  PUDP u = new UDP(size);
  prot = Protocol(root, prot);
  SI4 rc = u->Init(prot);
  PHIERAKI h = rc ? nullptr : root->AddNew(name, u);
  if (!h) {
    delete u;
    return rc ? rc : ERR_NAME_IN_USE;
  }
  PUDPADDR peer = new UDPADDR();
  rc = peer->SetAddr(address, port, prot);
  char part[UDP_NAMELEN];
  UDP::Name(part, peer->GetAddr());
  if (!h->AddNew(part, peer)) {
    delete peer;
    if (!rc) rc = ERR_NAME_IN_USE;
  }
  // The caller's buffer has room behind a name of a node's length.
  if (strlen(name) + 1 + strlen(part) < OPEN_NAMELEN + AUTONAME_ROOM) {
    strcat(name, ".");
    strcat(name, part);
  }
  LOG(1, ("UDP added"));
  Dirty(root);
  LOG(1, ("Worker notified"));
  return rc;
}

SI4 Server(PHIERAKI root, PCH10 name, PCH10 port, OBJMODE mode, UI4 size, UI4 magic,
           PCERTDATA cert, PCH10 address, PROTOCOL prot, PRANGES allow, PRANGES deny, TPOOSFN oosfn,
           UI4 features) {
  LOG(1, ("Server called %s %s", name, port ? port : ""));
  if (!root) return ERR_ROOT_NOT_FOUND;
  SI4 rc = OpenName(root, name, "SRV%08u");
  if (rc) return rc;
  if (mode == MUdp) {
    rc = UdpServer(root, name, port, size, address, prot);
    // Datagrams are taken from anyone: the ranges have no place to go. On
    // failure they stay the caller's.
    if (!rc) {
      delete allow;
      delete deny;
    }
    return rc;
  }
  PSERVER s = NewServerOfMode(mode, size, magic, &rc);
  if (!s) return rc;
  LOG(1, ("Server New %p", (void*)s));
  s->Mode = mode;
  // With a certificate the listener is a TLS one; it holds a reference of
  // its own, given back when it goes.
  if (cert) {
    cert->pRootCerts = ((PROOT)(PRPCOBJS)root->pObj)->pRootCerts;
    cert->refs++;
  }
  s->pCert = cert;
  s->pAllow = allow;
  s->pDeny = deny;
  // Set before the listener can accept, so no connection misses them.
  s->pOOSfn = oosfn;
  if (mode == MHttp) ((PHTTPSERVER)s)->Features = features;
  rc = s->Listen(root, port, address, Protocol(root, prot));
  LOG(1, ("Server Listen %d", rc));
  if (!rc && !root->AddNew(name, s)) rc = ERR_NAME_IN_USE;
  if (rc) {
    // The caller still owns the ranges.
    s->pAllow = s->pDeny = nullptr;
    delete s;
    return rc;
  }
  LOG(1, ("Server added"));
  rc = Dirty(root);
  LOG(1, ("Worker notified"));
  LOG(1, ("Server returned %d", rc));
  return rc;
}

SI4 Client(PHIERAKI root, PCH10 name, PCH10 address, PCH10 port, PCH10, OBJMODE mode, UI4 size,
           UI4 magic, PCERTDATA cert, PROTOCOL prot, TPOOSFN oosfn) {
  LOG(1, ("Client called %s %s %s", name, address ? address : "", port ? port : ""));
  if (!root) return ERR_ROOT_NOT_FOUND;
  SI4 rc = OpenName(root, name, "CLT%08u");
  if (rc) return rc;
  if (mode == MUdp) return UdpClient(root, name, address, port, size, prot);
  PCONNECTION c = NewClientOfMode(mode, size, magic, &rc);
  if (!c) return rc;
  c->Mode = mode == MWebSocket ? MCommand : mode;
  // The socket holds the connection's reference to the certificate.
  if (cert) cert->pRootCerts = ((PROOT)(PRPCOBJS)root->pObj)->pRootCerts;
  c->pCert = cert;
  c->pOOSfn = oosfn;
  rc = c->Connect(root, address, port, Protocol(root, prot));
  if (!rc && !root->AddNew(name, c)) rc = ERR_NAME_IN_USE;
  if (rc) {
    c->pCert = nullptr;
    delete c;
    return rc;
  }
  return Dirty(root);
}

// One (kind list) pair of a range option into the ranges.
static SI4 RangePair(PAA pair, PRANGES r) {
  if (!pair || pair->type != VAPntr || pair->rank != 1 || VAElems(pair) != 2) return ERR_OPTION;
  char kind[RANGE_KINDLEN + 1], list[RANGE_LISTLEN + 1];
  SI4 rc = VAGetCH1(pair, 0, kind, sizeof(kind), VACHAR);
  if (!rc) rc = VAGetCH1(pair, 1, list, sizeof(list), VACHAR);
  if (rc) return rc;
  if (strcasecmp(kind, "ipv4") == 0) return r->SetAddr4(list);
  if (strcasecmp(kind, "ipv6") == 0) return r->SetAddr6(list);
  return ERR_OPTION;
}

SI4 GetRanges(PAA arg, SI4 index, SI4 n, PCH1* names, SI2, PRANGES* out) {
  *out = nullptr;
  PAA p = nullptr;
  if (GetOptionpAA(arg, index, n, names, &p) || !p) return 0;
  SI4 rc = 0;
  if (p->type != VAPntr) rc = VAElems(p) > 1 ? ERR_OPTION : 0;
  PRANGES r = rc ? nullptr : new RANGES();
  for (UI4 i = 0; r && !rc && i < VAElems(p); i++) {
    PAA pair = nullptr;
    rc = p->type == VAPntr ? VAGetpAA(p, i, &pair) : ERR_OPTION;
    if (!rc) rc = RangePair(pair, r);
    VAFree(pair);
  }
  VAFree(p);
  if (rc) delete r;
  else *out = r;
  return rc;
}

// The options both opening verbs read alike.
struct OPENARGS {
  char name[OPEN_NAMELEN + AUTONAME_ROOM];
  PCH10 address;
  PCH10 port;
  OBJMODE mode;
  SI4 size;
  SI4 magic;
  PROTOCOL prot;
  PCERTDATA cert;
};

static SI4 ReadOpenArgs(PAA arg, OPENARGS* a) {
  memset(a, 0, sizeof(*a));
  if (!arg) return ERR_ARG_MISSING;
  SI4 rc = CheckArgList(arg, COMAX, PelkoOptionNames);
  if (rc) return rc;
  if (!GetPCH10(arg, COName, COMAX, PelkoOptionNames, a->name, OPEN_NAMELEN)) return ERR_ARG_MISSING;
  a->address = GetPCH10(arg, COAddress, COMAX, PelkoOptionNames, nullptr, 0);
  if (a->address && !*a->address) {
    free(a->address);
    a->address = nullptr;
  }
  a->port = GetPCH10(arg, COPort, COMAX, PelkoOptionNames, nullptr, 0);
  a->mode = (OBJMODE)GetEnum(arg, COMode, COMAX, PelkoOptionNames, MMAX, modename, MCommand, &rc);
  if (!rc) rc = GetSI4(arg, COMaxSize, COMAX, PelkoOptionNames, 16384, &a->size);
  if (!rc) rc = GetSI4(arg, COMagic, COMAX, PelkoOptionNames, 0, &a->magic);
  if (!rc) rc = GetCert(arg, &a->cert);
  SI4 err = 0;
  a->prot = (PROTOCOL)GetEnum(arg, COProtocol, COMAX, PelkoOptionNames, PMAX, protocolname, PAny, &err);
  return rc ? rc : err;
}

static void FreeOpenArgs(OPENARGS* a) {
  free(a->address);
  free(a->port);
  FreeCert(a->cert);
}

// A stop list belongs to the raw and text family alone. The object stays
// open when the list is refused.
static SI4 StopList(PHIERAKI root, PAA arg, OPENARGS* a) {
  LIST* list = nullptr;
  SI4 rc = GetList(arg, COStopList, COMAX, PelkoOptionNames, a->mode == MAscii ? 1 : 0, &list);
  SI1 ignoreCase = 1;
  if (!rc) rc = GetBool(arg, COIgnoreCase, COMAX, PelkoOptionNames, 1, &ignoreCase);
  if (!rc && list) {
    PHIERAKI h = root->FindLeaf(a->name);
    PRPCOBJS o = h ? (PRPCOBJS)h->pObj : nullptr;
    if (!o) {
      rc = ERR_OBJECT_NOT_FOUND;
    } else if (a->mode != MRaw && a->mode != MAscii) {
      rc = ERR_INVALID_OBJECT;
    } else if (o->Type == TServer) {
      rc = ((PRAWSERVER)o)->SetStop(list, ignoreCase != 0);
      list = nullptr;
    } else if (o->Type == TClient || o->Type == TConnection) {
      rc = ((PRAWCONNECTION)o)->SetStop(list, ignoreCase != 0);
      list = nullptr;
    } else {
      rc = ERR_INVALID_OBJECT;
    }
  }
  FreeList(list);
  return rc;
}

PAA ASrv(PHIERAKI root, PAA arg) {
  OPENARGS a;
  PRANGES allow = nullptr, deny = nullptr;
  HOSTINSIDE inside(root);
  SI4 rc = ReadOpenArgs(arg, &a);
  if (!rc) rc = GetRanges(arg, COAllowEndpoint, COMAX, PelkoOptionNames, 0, &allow);
  if (!rc) rc = GetRanges(arg, CODenyEndpoint, COMAX, PelkoOptionNames, 0, &deny);
  if (!rc) {
    rc = Server(root, a.name, a.port, a.mode, (UI4)a.size, (UI4)a.magic, a.cert, a.address, a.prot,
                allow, deny);
    if (!rc) allow = deny = nullptr;
  }
  delete allow;
  delete deny;
  if (!rc) rc = StopList(root, arg, &a);
  FreeOpenArgs(&a);
  return rc ? VARc(rc) : RcValue(VAText(a.name));
}

PAA AClt(PHIERAKI root, PAA arg) {
  OPENARGS a;
  HOSTINSIDE inside(root);
  SI4 rc = ReadOpenArgs(arg, &a);
  if (!rc) rc = Client(root, a.name, a.address, a.port, nullptr, a.mode, (UI4)a.size, (UI4)a.magic,
                       a.cert, a.prot);
  if (!rc) rc = StopList(root, arg, &a);
  // A refused peer leaves what the verification found on the record.
  PAA found = rc && a.cert && a.cert->paaInfo ? a.cert->paaInfo : nullptr;
  if (found) VAIncRef(found);
  FreeOpenArgs(&a);
  if (found) return VANested({VAInt(rc), found});
  return rc ? VARc(rc) : RcValue(VAText(a.name));
}
