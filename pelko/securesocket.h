// TLS sockets and the global start and stop of GnuTLS. RPCSECURE has the
// operations of RPCSOCK, so connections and servers don't know whether
// their socket is plain or secure. It runs on a non-blocking socket served
// by one work thread over select: plaintext GnuTLS holds is announced to
// the round, and a server's handshake advances one step per round.
#pragma once

#include "certdata.h"
#include "pelkossl.h"
#include "rootcerts.h"
#include "sessioncache.h"
#include "socket.h"

// Starts GnuTLS once for the process, with its log routed into ours. Does
// nothing while the companion isn't loaded.
void SslLoad();
// Stops GnuTLS again. Does nothing while the companion isn't loaded.
void SslUnload();
// The level of GnuTLS's own diagnostics, from the root's "TraceGnuTLS".
// Skipped while the companion isn't loaded.
SI4 SslTrace(SI4 level);

// The one object that stands for a started GnuTLS.
class SslControl {
 public:
  static void logFunction(int level, const char* text);
};

class RPCSECURE;
typedef RPCSECURE* PRPCSECURE;

class RPCSECURE : public RPCSOCK {
 public:
  // A client (connected, handshake made) or a listener.
  RPCSECURE(PCH10 address, PCH10 service, bool listen, PCERTDATA pCert, PROTOCOL protocol, int type,
            SessionCache2* cache);
  // An accepted socket; its handshake goes on in the work thread's rounds.
  RPCSECURE(SOCKET s, PRPCSECURE parent, SessionCache2* cache);
  ~RPCSECURE() override;

  SOCKERR Read(PBUFFER buffer) override;
  SOCKERR Write(PBUFFER buffer) override;
  SOCKERR Accept(PRPCSOCK* out) override;
  SOCKERR Handshake(bool verify) override;
  SOCKERR Wait4R(SOCKETSETS* sets) override;
  SI4 Ready4R(SOCKETSETS* sets) override;
  PAA paaCert(bool own) override;
  SI4 Subject(PCH1 buf, UI4 len) override;
  SI4 PendingRead() override;
  SI4 SaveCred() override;
  bool IsIn(PCertCollection certs) override;

  bool VerifyCertificate();
  bool CheckX509CertDetails(gnutls_x509_crt_t cert);

  gnutls_datum_t hash;
  PCH10 Address;
  gnutls_session_t session;
  gnutls_x509_crt_t peerCertificate;
  bool TlsInitialised;
  bool IsClient;
  bool IsListening;
  bool OwnSessionDB;
  SessionCache2* SessionDB;
  gnutls_certificate_credentials_t xcred;
  PAA paaCerts[2];  // own chain, the peer's
  UI4 flagOption;
  PCERTDATA pCert;

 private:
  void InitClt();
  void InitSrv();
  void InitCon();
  // The settings a session of either side takes before its handshake.
  SI4 SetSession();
  bool Pending();
};

// The key a client's session is cached under: the host, the service, the
// flags and the first certificate of its own.
gnutls_datum_t HashAddress(PCH10 address, PCH10 service, PCERTDATA pCert, UI4 flags);
