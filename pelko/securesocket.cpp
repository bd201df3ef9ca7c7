// TLS sockets, their verification of the peer, and the global start and
// stop of GnuTLS. The semaphore keeps a start and a stop from running into
// each other.
#include "securesocket.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "log.h"
#include "pelkoerr.h"
#include "pelkossl.h"
#include "talplat.h"

#define MODULE 0x00000400

// A client's handshake is waited for, a pause at a time, this long at most.
#define TLS_HANDSHAKE_PAUSE 100000.0
#define TLS_CLIENT_HANDSHAKE_MICROS 6e8

static SslControl* INSTANCE = nullptr;
static PTALSEMA initSemaphore = nullptr;

// GnuTLS text may hold anything, including '%', so it is never used as a
// format. Deeper levels are indented two blanks each.
void SslControl::logFunction(int level, const char* text) {
  if (!LOGif(0, MODULE, level + 3)) return;
  LOG2File("%*s%s", level > 0 ? 2 * level : 0, "", text ? text : "");
}

void SslLoad() {
  if (!PelkosslLoaded()) return;
  if (!initSemaphore) initSemaphore = new TALSEMA(1, 1);
  if (INSTANCE) return;
  SslControl* control = new SslControl();
  LOG(1, ("Create SslControl "));
  initSemaphore->wait();
  LOG(1, ("SslInitThreads - thread: "));
  gnutls_global_set_log_level(0);
  gnutls_global_set_log_function(SslControl::logFunction);
  gnutls_global_init();
  initSemaphore->release(1);
  INSTANCE = control;
}

void SslUnload() {
  if (!PelkosslLoaded()) return;
  if (INSTANCE) {
    LOG(1, ("Destroy SslControl "));
    initSemaphore->wait();
    gnutls_global_deinit();
    initSemaphore->release(1);
    delete INSTANCE;
    INSTANCE = nullptr;
  }
  delete initSemaphore;
  initSemaphore = nullptr;
}

SI4 SslTrace(SI4 level) {
  if (!PelkosslLoaded()) return 0;
  gnutls_global_set_log_function(SslControl::logFunction);
  gnutls_global_set_log_level(level);
  return 0;
}

gnutls_datum_t HashAddress(PCH10 address, PCH10 service, PCERTDATA pCert, UI4 flags) {
  gnutls_datum_t out = {nullptr, 0};
  gnutls_hash_hd_t h;
  if (gnutls_hash_init(&h, GNUTLS_DIG_SHA256) < 0) return out;
  int r = 0;
  if (address) r = gnutls_hash(h, address, strlen(address));
  if (r >= 0 && service) r = gnutls_hash(h, service, strlen(service));
  if (r >= 0) r = gnutls_hash(h, &flags, sizeof(flags));
  if (r >= 0 && pCert->certsCount && pCert->certs)
    r = gnutls_hash(h, pCert->certs[0].cert.data, pCert->certs[0].cert.size);
  unsigned len = gnutls_hash_get_len(GNUTLS_DIG_SHA256);
  out.data = (unsigned char*)TAL_gnutls_malloc(len);
  gnutls_hash_deinit(h, out.data);
  if (r < 0 || !out.data) {
    FREEGNUTLSDATUM(out);
    out.size = 0;
    return out;
  }
  out.size = len;
  return out;
}

// Certificates as the host sees them: a vector of their DER bytes, or an
// empty integer vector when there are none.
static PAA PopulateCertInfo(const gnutls_datum_t* der, UI4 count) {
  if (count == 0) return VANewVector(VAI1, 0);
  PAA v = VANewVector(VAPntr, count);
  for (UI4 i = 0; v && i < count; i++) {
    PAA one = nullptr;
    ReturnCert((PCH1)der[i].data, der[i].size, &one);
    VASetpAA(v, i, one);
  }
  return v;
}

static PAA OwnCertInfo(PCERTDATA c) {
  if (!c->certs || c->certsCount == 0) return VANewVector(VAI1, 0);
  gnutls_datum_t* der = new gnutls_datum_t[c->certsCount];
  for (UI4 i = 0; i < c->certsCount; i++) der[i] = c->certs[i].cert;
  PAA v = PopulateCertInfo(der, c->certsCount);
  delete[] der;
  return v;
}

RPCSECURE::RPCSECURE(PCH10 address, PCH10 service, bool listen, PCERTDATA cert, PROTOCOL protocol, int type,
                     SessionCache2* cache)
    : RPCSOCK(address, service, listen, protocol, type), hash{nullptr, 0}, Address(nullptr), session(nullptr),
      peerCertificate(nullptr), TlsInitialised(false), IsClient(false), IsListening(listen),
      OwnSessionDB(false), SessionDB(cache), xcred(nullptr), paaCerts(), flagOption(0), pCert(cert) {
  pCert->refs++;
  if (address) Address = strdup(address);
  hash = HashAddress(Address, service, pCert, pCert->flagOption);
  if (listen)
    InitSrv();
  else
    InitClt();
}

RPCSECURE::RPCSECURE(SOCKET s, PRPCSECURE parent, SessionCache2* cache)
    : RPCSOCK(s), hash{nullptr, 0}, Address(nullptr), session(nullptr), peerCertificate(nullptr),
      TlsInitialised(false), IsClient(false), IsListening(false), OwnSessionDB(false), SessionDB(cache),
      xcred(parent->xcred), paaCerts(), flagOption(0), pCert(parent->pCert) {
  pCert->refs++;
  paaCerts[0] = parent->paaCert(true);
  LOG(2, ("RPCSECURE::RPCSECURE thread "));
  InitCon();
}

RPCSECURE::~RPCSECURE() {
  LOG(1, ("RPCSECURE::~RPCSECURE thread "));
  if (TlsInitialised) {
    // Only on its own socket: once the descriptor is closed its number may
    // already belong to another connection.
    if (session && isValid()) gnutls_bye(session, GNUTLS_SHUT_RDWR);
    if (peerCertificate) gnutls_x509_crt_deinit(peerCertificate);
    if (session) gnutls_deinit(session);
    // Accepted sockets share their listener's credentials.
    if (xcred && (IsClient || IsListening)) gnutls_certificate_free_credentials(xcred);
  }
  FreeCert(pCert);
  free(Address);
  FREEGNUTLSDATUM(hash);
  paaCerts[0] = VAFree(paaCerts[0]);
  paaCerts[1] = VAFree(paaCerts[1]);
  if (OwnSessionDB) ClearSessionDB(SessionDB);
}

#define CHECKPOINT(where, step, r) LOG(5, ("RPCSECURE::" where " checkpoint %d %d", (step), (int)(r)))

// Credentials, priorities and the descriptor: what a session of either
// side takes before its handshake.
SI4 RPCSECURE::SetSession() {
  gnutls_session_set_ptr(session, this);
  int r = gnutls_credentials_set(session, GNUTLS_CRD_CERTIFICATE, xcred);
  if (r == 0) {
    const char* errpos = nullptr;
    r = gnutls_priority_set_direct(session, pCert->ppriority ? pCert->ppriority : "NORMAL:!CTYPE-OPENPGP", &errpos);
  }
  if (r != 0) {
    lError = ERR_INITIALISING_TLS;
    Shutdown();
    return lError;
  }
  // The descriptor itself stands in the pointer: GnuTLS's own push and
  // pull work on it.
  gnutls_transport_set_ptr(session, (gnutls_transport_ptr_t)(intptr_t)RawSocket());
  return 0;
}

// The handshake's first result: done, going on later, or failed.
static void FirstHandshake(PRPCSECURE s) {
  SOCKERR r = s->Handshake(true);
  if (r == 0) return;
  s->lError = r;
  if (r != ERR_HANDSHAKE_NOT_COMPLETED) s->Shutdown();
}

// The credentials own the certificates and the key now. GnuTLS copied the
// array that held the certificates; only that array is ours to free.
static void GiveToCredentials(PCERTDATA c) {
  c->key = nullptr;
  FREEGNUTLS(c->certs);
  c->certsCount = 0;
}

void RPCSECURE::InitClt() {
  LOG(5, ("RPCSECURE::InitClt thread "));
  int r = gnutls_certificate_allocate_credentials(&xcred);
  CHECKPOINT("InitClt", 0, r);
  if (!paaCerts[0]) paaCerts[0] = OwnCertInfo(pCert);
  if (pCert->certsCount && pCert->certs) {
    r = gnutls_certificate_set_key(xcred, nullptr, 0, pCert->certs, (int)pCert->certsCount, pCert->key);
    CHECKPOINT("InitClt", 1, r);
    if (r >= 0) GiveToCredentials(pCert);
  }
  IsClient = true;
  r = gnutls_init(&session, GNUTLS_CLIENT | GNUTLS_NO_SIGNAL);
  CHECKPOINT("InitClt", 2, r);
  SessionData2* cached = SessionDB ? SessionDB->Find(hash) : nullptr;
  if (cached && cached->data.data) {
    void* data = TAL_gnutls_calloc(1, cached->data.size);
    if (data) {
      gnutls_session_set_data(session, data, cached->data.size);
      TAL_gnutls_free(data);
    }
  }
  TlsInitialised = true;
  pCert->pRootCerts->CopyRootsTo(xcred);
  if (Address) gnutls_server_name_set(session, GNUTLS_NAME_DNS, Address, strlen(Address));
  if (SetSession()) return;
  CHECKPOINT("InitClt", 3, 0);
  FirstHandshake(this);
}

void RPCSECURE::InitSrv() {
  LOG(5, ("RPCSECURE::InitSrv thread "));
  if (pCert->xcred) {
    xcred = pCert->xcred;
    pCert->xcred = nullptr;
    TlsInitialised = true;
  } else {
    int r = gnutls_certificate_allocate_credentials(&xcred);
    CHECKPOINT("InitSrv", 0, r);
    if (!paaCerts[0]) paaCerts[0] = OwnCertInfo(pCert);
    if (pCert->certsCount || pCert->privCert) {
      r = gnutls_certificate_set_key(xcred, nullptr, 0, pCert->certs, (int)pCert->certsCount, pCert->key);
      CHECKPOINT("InitSrv", 1, r);
      if (r >= 0) GiveToCredentials(pCert);
    }
    TlsInitialised = true;
    if (r != 0 && r != ERR_HANDSHAKE_NOT_COMPLETED) {
      lError = ERR_COULD_NOT_LOAD_CERTIFICATE_FILES;
      Shutdown();
      return;
    }
    pCert->pRootCerts->CopyRootsTo(xcred);
  }
  SessionDB = new SessionCache2(SERVERCACHESIZE);
  OwnSessionDB = true;
  session = nullptr;
}

void RPCSECURE::InitCon() {
  LOG(5, ("RPCSECURE::InitCon thread "));
  int r = gnutls_init(&session, GNUTLS_SERVER | GNUTLS_NO_SIGNAL);
  CHECKPOINT("InitCon", 0, r);
  gnutls_certificate_send_x509_rdn_sequence(session, 0);
  if (pCert->flagOption & RequireClientCertificate)
    gnutls_certificate_server_set_request(session, GNUTLS_CERT_REQUIRE);
  else if (pCert->flagOption & ReqestClientCertificate)
    gnutls_certificate_server_set_request(session, GNUTLS_CERT_REQUEST);
  else
    // An addition, not a bit: every accept of the listener adds again, so
    // the second such connection carries it into the request bit.
    pCert->flagOption += CertAcceptWithoutValidating;
  gnutls_db_set_retrieve_function(session, DBRetrieveFunc);
  gnutls_db_set_remove_function(session, DBRemoveFunc);
  gnutls_db_set_store_function(session, DBStoreFunc);
  gnutls_db_set_ptr(session, SessionDB);
  TlsInitialised = true;
  if (SetSession()) return;
  CHECKPOINT("InitCon", 1, 0);
  FirstHandshake(this);
}

static bool Again(int r) {
  return r == GNUTLS_E_INTERRUPTED || r == GNUTLS_E_AGAIN || r == GNUTLS_E_WARNING_ALERT_RECEIVED;
}

SOCKERR RPCSECURE::Handshake(bool verify) {
  if (!TlsInitialised || !session) return ERR_TLSHANDSHAKE;
  F8 t0 = Micros();
  int r;
  do {
    r = gnutls_handshake(session);
    LOG(5, ("RPCSECURE::gnutils_handshake returned:%i ", r));
    // A server's handshake goes one step per call, never waited for.
    if (!IsClient || !Again(r)) break;
    LOG(5, ("RPCSECURE::Handshake sleeping : thread "));
    TALSleep(TLS_HANDSHAKE_PAUSE);
  } while (Micros() < t0 + TLS_CLIENT_HANDSHAKE_MICROS);
  if (Again(r)) return ERR_HANDSHAKE_NOT_COMPLETED;
  if (r != 0) return ERR_TLSHANDSHAKE;
  if (verify && !VerifyCertificate()) return ERR_INVALID_PEER_CERTIFICATE;
  if (IsClient) {
    gnutls_datum_t data = {nullptr, 0};
    if (gnutls_session_get_data2(session, &data) >= 0) DBStoreFunc(SessionDB, hash, data);
    FREEGNUTLSDATUM(data);
  }
  if (gnutls_session_is_resumed(session)) LOG(5, ("RPCSECURE::Handshake session resumed: thread "));
  return 0;
}

SOCKERR RPCSECURE::Read(PBUFFER buffer) {
  LOG(2, ("RPCSECURE::Read thread "));
  for (;;) {
    ssize_t r = gnutls_record_recv(session, buffer->Next(), buffer->Remaining());
    if (r > 0) {
      buffer->NextProcessed((UI4)r);
      return 0;
    }
    if (r == 0) return ERR_CLOSED;
    if (r == -1) {
      SockErrLog(errno, "recv");
      return ERR_RECV;
    }
    if (r == GNUTLS_E_AGAIN || r == GNUTLS_E_INTERRUPTED) return 0;
    if (r != GNUTLS_E_REHANDSHAKE) return ERR_CLOSED;
    SOCKERR rc = Handshake(false);
    if (rc) return rc;
  }
}

// A full socket is no reason to spin: the bytes stay where they are, and
// the round that finds the socket writable sends them again.
SOCKERR RPCSECURE::Write(PBUFFER buffer) {
  LOG(2, ("RPCSECURE::Write thread "));
  ssize_t r = gnutls_record_send(session, buffer->Next(), buffer->NextSize());
  if (r >= 0) {
    buffer->NextProcessed((UI4)r);
    return 0;
  }
  if (r == GNUTLS_E_AGAIN || r == GNUTLS_E_INTERRUPTED) return 0;
  SockErrLog(errno, "send");
  return ERR_SEND;
}

SOCKERR RPCSECURE::Accept(PRPCSOCK* out) {
  *out = nullptr;
  SOCKET s;
  if (SfAccept(RawSocket(), &s) != 0) return ERR_ACCEPT;
  LOG(2, ("RPCSECURE::Accept thread "));
  PRPCSECURE n = new RPCSECURE(s, this, SessionDB);
  *out = n;
  return n->lError;
}

bool RPCSECURE::Pending() { return session && gnutls_record_check_pending(session) != 0; }

SOCKERR RPCSECURE::Wait4R(SOCKETSETS* sets) {
  if (Pending()) sets->cntBuffered++;
  return RPCSOCK::Wait4R(sets);
}

SI4 RPCSECURE::Ready4R(SOCKETSETS* sets) { return Pending() ? 1 : RPCSOCK::Ready4R(sets); }

PAA RPCSECURE::paaCert(bool own) {
  PAA p = paaCerts[own ? 0 : 1];
  if (!p) return RPCSOCK::paaCert(own);
  VAIncRef(p);
  return p;
}

SI4 RPCSECURE::Subject(PCH1 buf, UI4 len) {
  if (!buf || len == 0) return ERR_LENGTH;
  buf[0] = 0;
  size_t size = len;
  if (!peerCertificate || gnutls_x509_crt_get_dn(peerCertificate, buf, &size) < 0) {
    buf[0] = 0;
    return ERR_INVALID_CERTIFICATE;
  }
  return 0;
}

SI4 RPCSECURE::PendingRead() { return Pending() ? 1 : 0; }

SI4 RPCSECURE::SaveCred() {
  pCert->xcred = xcred;
  xcred = nullptr;
  return 0;
}

bool RPCSECURE::IsIn(PCertCollection certs) { return peerCertificate && certs && certs->isPresent(peerCertificate); }

// Takes the status of GnuTLS as facts and decides by the flags which
// failures to forgive.
bool RPCSECURE::VerifyCertificate() {
  if (peerCertificate) gnutls_x509_crt_deinit(peerCertificate);
  peerCertificate = nullptr;
  unsigned count = 0;
  const gnutls_datum_t* peers = gnutls_certificate_get_peers(session, &count);
  bool imported = true;
  if (count && peers) {
    gnutls_x509_crt_init(&peerCertificate);
    if (gnutls_x509_crt_import(peerCertificate, &peers[0], GNUTLS_X509_FMT_DER) < 0) {
      gnutls_x509_crt_deinit(peerCertificate);
      peerCertificate = nullptr;
      imported = false;
    }
  }
  if (imported) {
    paaCerts[1] = VAFree(paaCerts[1]);
    paaCerts[1] = PopulateCertInfo(peers, peers ? count : 0);
  }
  UI4 f = pCert->flagOption;
  if ((f & ReqestClientCertificate) && !IsClient && !peerCertificate) return true;
  if (f & CertAcceptWithoutValidating) return true;
  unsigned status = 0;
  int r = pCert->pRootCerts->Validate(session, &status);
  if (status && !pCert->paaInfo) pCert->paaInfo = VAInt((SI4)status);
  if (r != 0) return false;
  bool checkName = Address && *Address && !(pCert->flagOption & CertAcceptIfIncorrectHostName);
  if (!(status & GNUTLS_CERT_INVALID))
    return !checkName || (peerCertificate && gnutls_x509_crt_check_hostname(peerCertificate, Address) != 0);
  if ((status & GNUTLS_CERT_SIGNER_NOT_FOUND) && !(pCert->flagOption & CertAcceptIfIssuerUnknown)) return false;
  if ((status & GNUTLS_CERT_SIGNER_NOT_CA) && !(pCert->flagOption & CertAcceptIfSignerNotCA)) return false;
  if (!peerCertificate) return false;
  return CheckX509CertDetails(peerCertificate);
}

bool RPCSECURE::CheckX509CertDetails(gnutls_x509_crt_t cert) {
  UI4 f = pCert->flagOption;
  UI4 now = (UI4)time(nullptr);
  if (!(f & CertAcceptIfNotActivated) && !((UI4)gnutls_x509_crt_get_activation_time(peerCertificate) < now))
    return false;
  if (!(f & CertAcceptIfExpired) && !((UI4)gnutls_x509_crt_get_expiration_time(peerCertificate) > now))
    return false;
  if (Address && *Address && !(f & CertAcceptIfIncorrectHostName))
    return gnutls_x509_crt_check_hostname(cert, Address) != 0;
  return true;
}
