// Collections of parsed certificates: the trust store of a root, which a
// peer's chain is verified against and which every new TLS client and
// listener takes into its credentials; and the debug link's list of
// accepted peers.
#pragma once

#include "pelkossl.h"
#include "vapl.h"

// Room of a collection.
#define MAXCOLLECTION 1000
// Certificates of a peer's chain that are looked at.
#define MAXPEERCHAIN 100

struct CertCollection {
  CertCollection() : Count(0) {}

  // Appends every certificate of a file: how many, 0 for none, or a
  // negative GnuTLS code.
  int LoadCertsFromFile(const char* name);
  // Loads the files of a directory whose names end in "." and suffix.
  void LoadCertsFromDir(const char* dir, const char* suffix);
  // The three suffixes "cer", "pem", "der"; gives Count.
  int LoadCertsFromDir(const char* dir);
  gnutls_x509_crt_t* CertList() { return certs; }
  void Empty();
  static gnutls_datum_t LoadFile(const char* name);
  static void UnloadFile(gnutls_datum_t data);
  bool isPresent(gnutls_x509_crt_t crt);

  gnutls_x509_crt_t certs[MAXCOLLECTION];
  int Count;
};
typedef CertCollection* PCertCollection;

class RootCerts {
 public:
  RootCerts();
  ~RootCerts();

  int LoadRootsFrom(const char* dir);
  void ClearRoots() { certs.Empty(); }
  // Gives the store to credentials; an empty store gives the system's.
  int CopyRootsTo(const gnutls_certificate_credentials_t& cred);
  // The chain test of a finished handshake: 0 or a GnuTLS error, with the
  // verification status.
  int Validate(gnutls_session_t session, unsigned int* status);

  CertCollection certs;
};
typedef RootCerts* PRootCerts;

// A certificate as the host sees it: a vector of its DER bytes.
SI4 ReturnCert(PCH1 dercert, UI4 len, PPAA ppCertinfo);
SI4 ReturnCert(gnutls_x509_crt_t cert, PPAA ppCertinfo);
// Its parts as a nested array: verbose gives texts, else raw values.
SI4 DecodeCertInfo(gnutls_x509_crt_t cert, int verbose, PPAA ppCertinfo);
SI4 DecodeCertGNU(PCH1 dercert, UI4 len, int verbose, PPAA ppCertinfo);
// The decimal text of a big-endian two's complement number: its full
// length; at most cbDst - 1 characters and a terminator are written.
UI4 FmtIntBig(UI1* pbSrc, UI4 cbSrc, PCH1 pbDst, UI4 cbDst, int fSign);
UI4 NegIntBig(void* pbDst, void* pbSrc, UI4 n);

// Replaces the store with the certificates of a directory.
SI4 CacheNewRootDir(PRootCerts roots, const char* dir);
