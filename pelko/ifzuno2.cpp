// The debug link's session. One session at most exists: its connection's
// name in pCurrentConnection is what makes it exist. The handshake is the
// same from both sides: each sends "SupportedProtocols=2", answers a peer's
// offer with "UsingProtocol=2", and is connected on receiving that.
//
// Host threads (Zuno2Enable, Zuno2Send, Zuno2GetBuffer, Zuno2Free), the
// poll thread and the work thread (OOSfn2) all touch the session: the
// connection's name is kept under a lock and copied out, and the state and
// the enable word are read and written whole.
#include "ifzuno2.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "aplrpc.h"
#include "certdata.h"
#include "connection.h"
#include "log.h"
#include "pelkoerr.h"
#include "rootcerts.h"
#include "talplat.h"
#include "verbs.h"
#include "websocket.h"

#define MODULE 0x00001000

#define ZUNO_ROOTNAME "\t\tZUNO"
#define ZUNO_NAME_ROOM 128
#define ZUNO_DIR_ROOM 1024
#define ZUNO_INIT_ROOM 220
#define ZUNO_POLL_MS 5000
// How long a disable waits for the poll thread to see it.
#define ZUNO_POLL_END_MICROS 3e7
#define ZUNO_CLOSE_MICROS 100000.0
#define DefaultAddr "::1"

static const char kOffer[] = "SupportedProtocols=2";
static const char kSupported[] = "SupportedProtocols=";
static const char kUsing[] = "UsingProtocol=2";
// A message that would end the session behind it: a text never begins with
// the terminator and the letter behind the word, so this never matches.
static const char kDisconnect[13] = {'[', 'D', 'i', 's', 'c', 'o', 'n', 'n', 'e', 'c', 't', 0, 'P'};

TPELKOFNS fns2;
static std::mutex CurrentLock;
// Our offer goes out before our answer to the peer's, whichever thread
// gets there first: the peer takes "UsingProtocol=2" as the end of its
// handshake, and would take an offer behind it as a message of the session.
static std::mutex OfferLock;
static bool OfferSent = false;
// Wakes the poll thread early when the link is disabled.
static PTALSEMATO pPollWake = nullptr;

static TZuno2State State() { return __atomic_load_n(&fns2.Zuno2State, __ATOMIC_ACQUIRE); }
static void SetState(TZuno2State s) { __atomic_store_n(&fns2.Zuno2State, s, __ATOMIC_RELEASE); }
static SI4 Enabled() { return __atomic_load_n(&fns2.Zuno2Enabled, __ATOMIC_ACQUIRE); }
static void SetEnabled(SI4 e) { __atomic_store_n(&fns2.Zuno2Enabled, e, __ATOMIC_RELEASE); }

// The session's connection name into out (ZUNO_NAME_ROOM); false with none.
static bool CurrentName(char* out) {
  std::lock_guard<std::mutex> g(CurrentLock);
  PZuno2Config cfg = fns2.pZuno2Config;
  if (!cfg || !cfg->pCurrentConnection) return false;
  snprintf(out, ZUNO_NAME_ROOM, "%s", cfg->pCurrentConnection);
  return true;
}

static void SetCurrent(const char* name) {
  std::lock_guard<std::mutex> g(CurrentLock);
  PZuno2Config cfg = fns2.pZuno2Config;
  free(cfg->pCurrentConnection);
  cfg->pCurrentConnection = name ? strdup(name) : nullptr;
}

// The state without a session, by direction.
static TZuno2State IdleState(TDirection d) {
  return d == DIRListen ? Zuno2Listening : d == DIRHttp ? Zuno2HttpSrv : Zuno2Idle;
}

// Holds the link's tree still for a host thread. The root's read lock
// keeps Zuno2Enable(0) from taking the tree down under the caller, and
// being inside the root keeps the work thread from freeing a node the
// caller found. The mark goes before the lock: once the lock is free, the
// root may be gone.
class TreeHold {
 public:
  TreeHold() : root_(fns2.pZunoRoot), inside_(root_) {
    if (root_) root_->LockRead();
  }
  ~TreeHold() {
    inside_.Leave();
    if (root_) root_->ReleaseRead();
  }

 private:
  PHIERAKI root_;
  HOSTINSIDE inside_;
};

static PHIERAKI Node(const char* name) {
  PHIERAKI root = fns2.pZunoRoot;
  return root ? root->FindLeaf(name) : nullptr;
}

// item, when it is a node of the link's tree with an object.
static PHIERAKI OwnItem(PVOID item) {
  PHIERAKI root = fns2.pZunoRoot;
  PHIERAKI h = item && root ? root->LoopSub(cmpptr1, item) : nullptr;
  return h && h->pObj ? h : nullptr;
}

RootCerts* ZunoRootCerts() {
  PHIERAKI root = fns2.pZunoRoot;
  return root && root->pObj ? ((PROOT)(PRPCOBJS)root->pObj)->pRootCerts : nullptr;
}

static SI4 Zuno2Send(PCH1 data, UI4 length) {
  char name[ZUNO_NAME_ROOM];
  if (!fns2.pZuno2Config || !CurrentName(name)) return ERR_INVALID_OBJECT;
  if (!data && length) return ERR_INVALID_OBJECT;
  TreeHold hold;
  PHIERAKI h = Node(name);
  PRPCOBJS obj = h ? (PRPCOBJS)h->pObj : nullptr;
  if (!obj) return ERR_INVALID_OBJECT;
  PBUFFER b = nullptr;
  SI4 rc = obj->ComposeBuffer((PUI1)data, length, -1, &b);
  if (rc) return rc;
  bool last = length >= sizeof(kDisconnect) && memcmp(data, kDisconnect, sizeof(kDisconnect)) == 0;
  return obj->SendBuffer(h, nullptr, b, last ? 1 : 0);
}

static void NewSession(const char* name) {
  std::lock_guard<std::mutex> g(OfferLock);
  SetCurrent(name);
  OfferSent = false;
}

static void SendOffer() {
  std::lock_guard<std::mutex> g(OfferLock);
  if (!OfferSent) Zuno2Send((PCH1)kOffer, sizeof(kOffer) - 1);
  OfferSent = true;
}

static SI4 Zuno2GetBuffer(PVOID item, PCH1* data, PUI4 length) {
  if (data) *data = nullptr;
  if (length) *length = 0;
  TreeHold hold;
  PHIERAKI h = OwnItem(item);
  if (!h || !data || !length) return 0;
  PRPCOBJS obj = h->pObj;
  if (obj->State != SAPL && obj->State != SAPLLast) return 0;
  PBUFFER b = obj->GetBuffer();
  if (!b) return 0;
  b->Rewind();
  LOG(2, ("Passing %d %.*s", (int)b->Remaining(), (int)b->Remaining(), b->Next()));
  *length = b->Remaining();
  *data = b->Next();
  return 0;
}

static SI4 Zuno2Free(PVOID item) {
  TreeHold hold;
  PHIERAKI h = OwnItem(item);
  if (!h) return 0;
  PRPCOBJS obj = h->pObj;
  switch (obj->State.load()) {
    case SError:
    case SSocketClosed:
    case SSent:
      obj->State = SFinished;
      break;
    case SAPL:
    case SAPLLast: {
      obj->State = SFinished;
      // The last message of a closed connection takes the connection along.
      PHIERAKI parent = h->Parent();
      PRPCOBJS p = parent ? (PRPCOBJS)parent->pObj : nullptr;
      if (p && p->State == SSocketClosed && parent->CountChildren() == 1) p->State = SFinished;
      break;
    }
    default:
      break;
  }
  Dirty(fns2.pZunoRoot);
  return 0;
}

// Closes the node of a name by its own close; false when there is none.
static bool CloseNode(const char* name) {
  TreeHold hold;
  PHIERAKI h = Node(name);
  PRPCOBJS obj = h ? (PRPCOBJS)h->pObj : nullptr;
  if (!obj) return false;
  obj->Close(h);
  return true;
}

// Wakes the poll thread and waits until it has seen that the link is off.
static void EndPollThread(PZuno2Config cfg) {
  PTALTHREAD t = cfg->pConnectThread;
  if (!t) return;
  if (pPollWake) pPollWake->release(1);
  F8 until = Micros() + ZUNO_POLL_END_MICROS;
  while (!t->Ended && Micros() < until) TALSleep(10000.0);
  if (t->Ended) delete t;  // a thread still in a connect is left to end alone
  cfg->pConnectThread = nullptr;
}

static SI4 Disable(PZuno2Config cfg) {
  bool found = false;
  switch (cfg->Direction) {
    case DIRListen: {
      char name[ZUNO_NAME_ROOM];
      if (CurrentName(name)) CloseNode(name);
      CloseNode("ZunoServer4");
      found = CloseNode("ZunoServer");
      break;
    }
    case DIRConnect:
    case DIRPoll:
      EndPollThread(cfg);
      found = CloseNode("ZunoClient");
      break;
    case DIRHttp:
      CloseNode("HttpServer4");
      found = CloseNode("HttpServer");
      break;
    default:
      break;
  }
  if (found) TALSleep(ZUNO_CLOSE_MICROS);
  SetCurrent(nullptr);
  SetState(Zuno2Idle);
  return found ? 0 : ERR_INVALID_OBJECT;
}

// One attempt to reach the peer; on success the offer is on its way.
static SI4 TryConnect() {
  PZuno2Config cfg = fns2.pZuno2Config;
  char port[16];
  snprintf(port, sizeof(port), "%u", cfg->Port);
  // The session exists before the client can take a message, so the
  // peer's first one finds it.
  NewSession("ZunoClient");
  SetState(Zuno2Negotiate);
  SI4 rc = ERR_INVALID_OBJECT;
  PROTOCOL tries[2] = {cfg->Protocol == PIPv4 ? PIPv4 : PIPv6, PIPv4};
  int n = cfg->Protocol == PAny ? 2 : 1;
  for (int i = 0; i < n && rc; i++) {
    char name[] = "ZunoClient";
    PCERTDATA cert = nullptr;
    rc = cfg->pCert ? Zuno2NewCert(cfg, &cert) : 0;
    if (!rc)
      rc = Client(fns2.pZunoRoot, name, cfg->pAddress, port, (PCH10) "", MBlkRaw, cfg->MaxBlockSize, cfg->Magic,
                  cert, tries[i], OOSfn2);
    FreeCert(cert);  // the socket holds its own reference
  }
  if (rc) {
    SetCurrent(nullptr);
    SetState(Zuno2Idle);
    return rc;
  }
  SendOffer();
  return 0;
}

static UI4 Zuno2ConnectThread(PVOID) {
  PZuno2Config cfg = fns2.pZuno2Config;
  SI4 rc = 0;
  while (cfg->Direction == DIRPoll && Enabled() >= 1) {
    char name[ZUNO_NAME_ROOM];
    if (!CurrentName(name) && State() == Zuno2Idle) rc = TryConnect();
    pPollWake->wait(ZUNO_POLL_MS);
  }
  return (UI4)rc;
}

static PRANGES CopyRanges(PRANGES r) {
  if (!r) return nullptr;
  PRANGES c = new RANGES();
  c->c4 = r->c4;
  c->c6 = r->c6;
  if (r->paddr4 && r->c4) {
    c->paddr4 = (sockaddr_in*)malloc((size_t)r->c4 * sizeof(sockaddr_in));
    if (c->paddr4) memcpy(c->paddr4, r->paddr4, (size_t)r->c4 * sizeof(sockaddr_in));
  }
  if (r->paddr6 && r->c6) {
    c->paddr6 = (sockaddr_in6*)malloc((size_t)r->c6 * sizeof(sockaddr_in6));
    if (c->paddr6) memcpy(c->paddr6, r->paddr6, (size_t)r->c6 * sizeof(sockaddr_in6));
  }
  return c;
}

// One listener of the link; each takes its own copies of the ranges.
static SI4 Listen(PZuno2Config cfg, const char* name, OBJMODE mode, PCH1 address, PROTOCOL prot) {
  char port[16], node[ZUNO_NAME_ROOM];
  snprintf(port, sizeof(port), "%u", cfg->Port);
  snprintf(node, sizeof(node), "%s", name);
  PCERTDATA cert = nullptr;
  SI4 rc = cfg->pCert ? Zuno2NewCert(cfg, &cert) : 0;
  if (rc) return rc;
  PRANGES allow = CopyRanges(cfg->pAllow), deny = CopyRanges(cfg->pDeny);
  rc = Server(fns2.pZunoRoot, node, port, mode, cfg->MaxBlockSize, cfg->Magic, cert, address, prot, allow, deny,
              OOSfn2, mode == MHttp ? (UI4)WSAutoUpgrade : 0u);
  FreeCert(cert);  // the listener holds its own reference
  if (rc) {
    delete allow;
    delete deny;
  }
  return rc;
}

// The listeners of a direction: with a local address an IPv4 one on
// 127.0.0.1 first, then the main one.
static SI4 ListenAll(PZuno2Config cfg, bool local, OBJMODE mode, const char* name4, const char* name,
                     TZuno2State up) {
  SI4 rc4 = local ? Listen(cfg, name4, mode, (PCH1) "127.0.0.1", PIPv4) : -1;
  if (!rc4) SetState(up);
  PCH1 a = cfg->pAddress;
  PCH1 address = !a || !*a ? (PCH1)DefaultAddr : strcmp(a, "*") == 0 ? nullptr : a;
  SI4 rc = Listen(cfg, name, mode, address, local ? PIPv6 : cfg->Protocol);
  if (!rc) {
    SetState(up);
    return 0;
  }
  if (rc4 == 0) return rc;
  cfg->lError = rc;
  return ERR_ZUNO_LISTEN;
}

static SI4 Zuno2Enable(SI4 enable) {
  PZuno2Config cfg = fns2.pZuno2Config;
  if (!cfg) return ERR_INVALID_OBJECT;
  if (enable == Enabled()) return 0;
  SetEnabled(enable);
  if (!enable) return Disable(cfg);
  SI4 rc = cfg->Direction == DIRUndefined ? Zuno2ReadConfigfile(cfg) : 0;
  PCH1 a = cfg->pAddress;
  bool local = !a || !*a || strcmp(a, DefaultAddr) == 0;
  if (cfg->pLogfilename) InitLog(cfg->pLogfilename);
  if (cfg->Trace) LOGSet(cfg->Trace);
  LOG(1, ("ConfigFile: %s", cfg->ConfigFile));
  LOG(1, ("LogFile: %s, %d ", cfg->pLogfilename ? cfg->pLogfilename : "", (int)cfg->Trace));
  LOG(1, ("Version: %s", "3.1.1479.0"));
  if (rc) {
    SetEnabled(0);
    return rc;
  }
  if (cfg->Direction == DIRConnect) {
    rc = TryConnect();
    if (rc) {
      cfg->lError = rc;
      rc = ERR_ZUNO_CONNECT;
    } else {
      cfg->Direction = DIRPoll;
    }
  }
  switch (cfg->Direction) {
    case DIRPoll:
      if (!pPollWake) pPollWake = new TALSEMATO(0, 1);
      cfg->pConnectThread = new TALTHREAD(Zuno2ConnectThread, nullptr);
      break;
    case DIRListen:
      rc = ListenAll(cfg, local, MBlkRaw, "ZunoServer4", "ZunoServer", Zuno2Listening);
      break;
    case DIRHttp:
      rc = ListenAll(cfg, local, MHttp, "HttpServer4", "HttpServer", Zuno2HttpSrv);
      break;
    default:
      break;
  }
  return rc;
}

static SI4 Zuno2Errortext(SI4 code, PCH1 text, UI4 size) {
  if (!text) return -1;
  PZuno2Config cfg = fns2.pZuno2Config;
  char out[ZUNO_DIR_ROOM + 64], value[ZUNO_INIT_ROOM] = "";
  SI4 lError = cfg ? cfg->lError : 0;
  switch (code) {
    case ERR_PARSE_ZUNO_INIT:
      if (cfg && cfg->CommConfig) cfg->CommConfig((PCH1) "ZUNO\\INIT", value, sizeof(value));
      value[sizeof(value) - 1] = 0;
      snprintf(out, sizeof(out), "ZUNO_INIT setting (%s) is invalid ", value);
      break;
    case ERR_ZUNO_CONNECT:
      snprintf(out, sizeof(out), "it cannot connect to specified ZUNO instance (%d) ", (int)lError);
      break;
    case ERR_ZUNO_LISTEN:
      if (lError == 98)
        snprintf(out, sizeof(out), "the specified port (%d) is not available", cfg ? (int)cfg->Port : 0);
      else
        snprintf(out, sizeof(out), "it is unable to receive connections from ZUNO instances (%d) ", (int)lError);
      break;
    case ERR_ZUNO_INI_NOT_FOUND:
      snprintf(out, sizeof(out), "cannot find configuration file (%s)", cfg ? cfg->ConfigFile : "");
      break;
    default:
      snprintf(out, sizeof(out), "Error %d from Zuno Communication", (int)code);
  }
  // The caller's room bounds every text.
  if (!size) return 0;
  snprintf(text, size, "%s", out);
  return (SI4)strlen(text);
}

// A new connection: the first becomes the session; page connections of the
// web server are served; anything else is dropped.
static void Incoming(PZuno2Config cfg, PHIERAKI pItem, PCONNECTION conn) {
  char name[ZUNO_NAME_ROOM];
  TZuno2State s = State();
  LOG(1, ("New Connection %.32s", pItem->Name));
  conn->pOOSfn = OOSfn2;
  if (s == Zuno2HttpSrv && conn->Mode != MWebSocket) {
    conn->State = SConnected;  // a page connection, never the session
    return;
  }
  bool accepted = !cfg->pAcceptCertList || (conn->pCon && conn->pCon->IsIn(cfg->pAcceptCertList));
  if (CurrentName(name) || conn->Type != TConnection || !accepted || (s != Zuno2Listening && s != Zuno2HttpSrv)) {
    conn->State = SFinished;  // a second peer is dropped without a word
    return;
  }
  pItem->FullName(name, sizeof(name));
  NewSession(name);
  if (cfg->KAtime && cfg->KAint && conn->pCon) conn->pCon->SetKeepalive(cfg->KAtime, cfg->KAint);
  SetState(Zuno2Negotiate);
  conn->State = SConnected;
  SendOffer();
}

// The session has ended or was refused: the state falls back by direction.
static void EndSession(PZuno2Config cfg) {
  SetCurrent(nullptr);
  SetState(IdleState(cfg->Direction));
}

// The first number of a list of protocols, or -1 when it isn't one.
static SI4 FirstProtocol(const char* p, const char* end) {
  if (p == end || *p == ',') return -1;
  SI4 v = 0;
  for (; p < end && *p != ','; p++) {
    if (*p < '0' || *p > '9' || v > 100000) return -1;
    v = v * 10 + (*p - '0');
  }
  return v;
}

ZUNOMSG Zuno2Classify(const char* data, UI4 len) {
  if (len >= sizeof(kOffer) - 1 && memcmp(data, kSupported, sizeof(kSupported) - 1) == 0) {
    // Only the first number counts, whatever follows its comma. A list
    // that doesn't begin with our version is refused.
    return FirstProtocol(data + sizeof(kSupported) - 1, data + len) == ZUNOPROTOCOLVERSION ? ZMOffer : ZMRefused;
  }
  return len == sizeof(kUsing) - 1 && memcmp(data, kUsing, len) == 0 ? ZMUsing : ZMRefused;
}

// A handshake message of the session.
static void Negotiate(PZuno2Config cfg, PHIERAKI pItem, PHIERAKI parent) {
  PBUFFER b = pItem->pObj->GetBuffer();
  PCH1 data = b ? (b->Rewind(), b->Next()) : nullptr;
  UI4 len = b ? b->Remaining() : 0;
  LOG(5, ("%.*s", (int)(len < 50 ? len : 50), data ? data : ""));
  switch (data ? Zuno2Classify(data, len) : ZMRefused) {
    case ZMOffer: {
      LOG(1, ("Supported protocol received"));
      SendOffer();
      SI4 rc = Zuno2Send((PCH1)kUsing, sizeof(kUsing) - 1);
      LOG(3, ("Error %d sending %s", (int)rc, kUsing));
      Zuno2Free(pItem);
      return;
    }
    case ZMUsing:
      SetState(Zuno2Connected);
      LOG(1, ("UsingProtocol received"));
      Zuno2Free(pItem);
      return;
    case ZMRefused:
      // The session's connection ends.
      if (parent && parent->pObj) parent->pObj->State = SFinished;
      EndSession(cfg);
      Zuno2Free(pItem);
      return;
  }
}

// A part on a page connection: its answer goes back on the same connection.
static void Serve(PHIERAKI pItem, PHIERAKI parent) {
  PRPCOBJS conn = parent ? (PRPCOBJS)parent->pObj : nullptr;
  PBUFFER b = pItem->pObj->GetBuffer();
  if (conn && b) {
    PBUFFER answer = HandleHttpRequest(parent, b);
    if (answer) conn->SendBuffer(parent, nullptr, answer, 0);
  }
  Zuno2Free(pItem);
}

SI4 OOSfn2(PHIERAKI pItem) {
  PZuno2Config cfg = fns2.pZuno2Config;
  PRPCOBJS obj = pItem ? (PRPCOBJS)pItem->pObj : nullptr;
  if (!cfg || !obj) return 0;
  char name[ZUNO_NAME_ROOM * 2], current[ZUNO_NAME_ROOM];
  switch (obj->State.load()) {
    case SIncoming:
      if (obj->Type == TConnection || obj->Type == TClient) Incoming(cfg, pItem, (PCONNECTION)obj);
      else obj->State = SFinished;
      break;
    case SAPL:
    case SAPLLast: {
      pItem->FullName(name, sizeof(name));
      if (CurrentName(current) && strncmp(name, current, strlen(current)) == 0) {
        TZuno2State s = State();
        if (s == Zuno2Connected) {
          if (cfg->CommNotify) cfg->CommNotify(3, pItem);
          break;
        }
        if (s == Zuno2Negotiate) Negotiate(cfg, pItem, pItem->Parent());
        if (s == Zuno2HttpSrv) Serve(pItem, pItem->Parent());
        break;
      }
      Serve(pItem, pItem->Parent());
      break;
    }
    case SError:
    case SSocketClosed:
      pItem->FullName(name, sizeof(name));
      if (!CurrentName(current) || strcmp(name, current) != 0) {
        Zuno2Free(pItem);
        break;
      }
      EndSession(cfg);
      if (cfg->CommNotify) cfg->CommNotify(4, pItem);
      break;
    case SSent:
      Zuno2Free(pItem);
      break;
    default:
      break;
  }
  return 0;
}

void* Zuno2Init(void* pConfig) {
  PZuno2Config caller = (PZuno2Config)pConfig;
  PZuno2Config cfg = fns2.pZuno2Config;
  bool first = !cfg;
  if (first) {
    cfg = (PZuno2Config)calloc(1, sizeof(tZuno2Config));
    if (!cfg) return nullptr;
  }
  cfg->CommNotify = caller ? caller->CommNotify : nullptr;
  cfg->CommConfig = caller ? caller->CommConfig : nullptr;
  if (!first) return &fns2;  // a second call only takes the new callbacks
  fns2.pZuno2Config = cfg;
  char dir[ZUNO_DIR_ROOM] = "";
  if (cfg->CommConfig) cfg->CommConfig((PCH1) "ORVANE", dir, sizeof(dir));
  dir[sizeof(dir) - 1] = 0;
  Init((char*)ZUNO_ROOTNAME, dir);
  SetState(Zuno2Idle);
  fns2.pZunoRoot = Root(ZUNO_ROOTNAME);
  SetEnabled(0);
  fns2.pZuno2Enable = Zuno2Enable;
  fns2.pZuno2GetBuffer = Zuno2GetBuffer;
  fns2.pZuno2Free = Zuno2Free;
  fns2.pZuno2Send = Zuno2Send;
  fns2.pZuno2Errortext = Zuno2Errortext;
  if (fns2.pZunoRoot) ((PROOT)(PRPCOBJS)fns2.pZunoRoot->pObj)->UseFnsReady = -1;
  return &fns2;
}

void Zuno2Unload() {
  PZuno2Config cfg = fns2.pZuno2Config;
  if (!cfg) return;
  if (Enabled()) {
    SetEnabled(0);
    Disable(cfg);
  }
  EndPollThread(cfg);
  FreeZuno2Config(cfg);
  fns2 = TPELKOFNS();
  delete pPollWake;
  pPollWake = nullptr;
}
