// Certificate arguments of the opening verbs: the eight options become one
// record, which makes a socket a TLS one and says what it presents and
// which verification failures it forgives. A listener and every socket it
// accepts share one record, counted by hand.
#pragma once

#include <atomic>

#include "pelkossl.h"
#include "socket.h"

// Where a certificate or key came from.
enum CERTDATATYPE : SI4 {
  CDTNoCert = 0,
  CDTRawCert = 1,
  CDTDERFile = 2,
  CDTPk12File = 3,
  CDTMSStore = 4,
  CDTUrl = 5
};

// The bits of "SSLValidation": which failures of the peer to forgive.
enum CERTFLAGS : UI4 {
  CertAcceptIfIssuerUnknown = 1,
  CertAcceptIfSignerNotCA = 2,
  CertAcceptIfNotActivated = 4,
  CertAcceptIfExpired = 8,
  CertAcceptIfIncorrectHostName = 16,
  CertAcceptWithoutValidating = 32,
  ReqestClientCertificate = 64,
  RequireClientCertificate = 128
};

// At most this many certificates are read from one file.
#define MAXCERTSPERFILE 100

class RootCerts;
typedef RootCerts* PRootCerts;

struct CERTDATA {
  std::atomic<SI4> refs;  // the listener's accepts and host threads count at once
  PAA paaInfo;  // the verification status of the first failure
  CERTDATATYPE pubCert;
  gnutls_pcert_st* certs;
  UI4 certsCount;
  PCH10 ppubPass;
  UI4 lpubIndex;
  CERTDATATYPE privCert;
  gnutls_privkey_t key;
  PCH1 pprivCertData;
  PCH10 pprivPass;
  UI4 lprivIndex;
  UI4 flagOption;
  PCH10 ppriority;
  PRootCerts pRootCerts;  // the root's store, not owned
  gnutls_certificate_credentials_t xcred;  // kept for the next listener
};

// Reads the certificate options of an option list into *out; null when
// none was given, and the socket is a plain one. A record may come back
// together with a code.
SI4 GetCert(PAA arg, PCERTDATA* out);
// Gives back one reference.
void FreeCert(PCERTDATA cert);
// The bytes of a vector of characters or small integers, from
// TAL_gnutls_calloc; empty for anything else.
gnutls_datum_t GetCertData(PAA pAA);
// Up to 100 certificates of a file, PEM or else DER, into c->certs.
SI4 CertsFromPath(PCERTDATA c, const char* name);
// A private key of a file into c->key (made already): PEM, or else DER;
// GnuTLS's result.
int KeyFromPath(PCERTDATA c, const char* name);
// A whole file from TAL_gnutls_malloc; empty when it can't be read.
gnutls_datum_t read_binary_file(const char* name);
