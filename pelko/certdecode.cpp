// Certificates as arrays: their DER bytes, or a nested array of their
// parts. The verb ACerts reads certificate files and decodes bytes; the
// root property "DecodeCert" decodes bytes given with it.
#include <ctime>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "certdata.h"
#include "log.h"
#include "options.h"
#include "pelkoerr.h"
#include "pelkossl.h"
#include "rootcerts.h"
#include "verbresult.h"
#include "verbs.h"

#define MODULE 0x04000000

// Room of ASN.1 reads, and of every other text of a certificate.
#define ASN1_ROOM 512
#define CERTTEXT_ROOM 4096
// Room of a file name in the verb.
#define CERTSOURCE_ROOM 250

enum CertTypeOptions { CETFolder = 0, CETDER, CETPK12, CETDecode, CETUrls, CETMAX };
enum CertOptions { CEType = 0, CESource, CEIssuer, CESubject, CEDetails, CEDecodeApi, CEPassword, CEMAX };
enum CertInfoOptions { CIObj = 0, CIPropName, CICert, CIInfo, CIAPI, CIMAX };
enum API { APIGNU = 0, APIMAX };

UI4 NegIntBig(void* pbDst, void* pbSrc, UI4 n) {
  PUI1 d = (PUI1)pbDst, s = (PUI1)pbSrc;
  UI4 carry = 1, nonzero = 0;
  for (UI4 i = n; i-- > 0;) {
    nonzero |= s[i];
    UI4 v = (UI4)(UI1)~s[i] + carry;
    d[i] = (UI1)v;
    carry = v >> 8;
  }
  return nonzero ? 1 : 0;
}

UI4 FmtIntBig(UI1* pbSrc, UI4 cbSrc, PCH1 pbDst, UI4 cbDst, int fSign) {
  UI4 n = (UI4)(((UI8)cbSrc * 240824 + 99999) / 100000);
  std::vector<UI1> digits(n ? n : 1, 0);
  std::vector<UI1> src(pbSrc, pbSrc + cbSrc);
  bool minus = fSign && cbSrc && (src[0] & 0x80);
  if (minus) NegIntBig(src.data(), src.data(), cbSrc);
  for (UI4 b = 0; b < cbSrc; b++) {
    UI4 carry = src[b];
    for (UI4 k = n; k-- > 0;) {
      UI4 t = digits[k] * 256u + carry;
      digits[k] = (UI1)(t % 10);
      carry = t / 10;
    }
  }
  UI4 first = 0;
  while (first + 1 < n && digits[first] == 0) first++;
  UI4 length = (n ? n - first : 1) + (minus ? 1 : 0);
  if (!pbDst) return length;
  UI4 w = 0;
  if (minus && w + 1 < cbDst) pbDst[w++] = '-';
  for (UI4 k = first; k < n && w + 1 < cbDst; k++) pbDst[w++] = "0123456789"[digits[k]];
  if (!n && w + 1 < cbDst) pbDst[w++] = '0';
  if (cbDst) pbDst[w] = 0;
  return length;
}

// The certificate's ASN.1 tree: GnuTLS keeps it as the first field of the
// certificate's structure.
static asn1_node Tree(gnutls_x509_crt_t cert) { return *(asn1_node*)cert; }

// An ASN.1 value as text; a failed read gives an empty text. A bit
// string's length comes back in bits: its bytes are the text.
static void SetAsn1(PAA v, UI4 i, gnutls_x509_crt_t cert, const char* name, bool bits = false) {
  char buf[ASN1_ROOM];
  int len = sizeof(buf);
  if (asn1_read_value(Tree(cert), name, buf, &len) != ASN1_SUCCESS) len = 0;
  if (bits) len = (len + 7) / 8;
  VASetCH1(v, i, buf, (UI4)(len < (int)sizeof(buf) ? len : (int)sizeof(buf)), VACHAR);
}

static void SetBytes(PAA v, UI4 i, const void* data, UI4 len) {
  PAA b = VANewVector(VAI1, len);
  if (b && len) memcpy(VADATA(b), data, len);
  VASetpAA(v, i, b);
}

static void SetText(PAA v, UI4 i, const char* text) { VASetCH1(v, i, (PCH1)text, (UI4)strlen(text), VACHAR); }

static PAA Serial(gnutls_x509_crt_t cert, int verbose) {
  UI1 serial[CERTTEXT_ROOM];
  size_t size = sizeof(serial);
  bool ok = gnutls_x509_crt_get_serial(cert, serial, &size) >= 0;
  if (!verbose) {
    PAA b = VANewVector(VAI1, ok ? (UI4)size : 0);
    if (b && ok && size) memcpy(VADATA(b), serial, size);
    return b;
  }
  char text[CERTTEXT_ROOM] = "";
  if (ok) FmtIntBig(serial, (UI4)size, text, sizeof(text), 1);
  return VAText(text);
}

static PAA Time(time_t t, int verbose) {
  struct tm tm;
  // The low 32 bits, unsigned.
  time_t low = (time_t)(UI4)t;
  localtime_r(&low, &tm);
  if (verbose) {
    char text[64] = "";
    asctime_r(&tm, text);
    return VAText(text);
  }
  SI4 parts[7] = {tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, 0};
  return VAIntVector(parts, 7);
}

static PAA Name(gnutls_x509_crt_t cert, int verbose, bool issuer) {
  if (verbose) {
    char text[CERTTEXT_ROOM] = "";
    size_t size = sizeof(text);
    if ((issuer ? gnutls_x509_crt_get_issuer_dn(cert, text, &size) : gnutls_x509_crt_get_dn(cert, text, &size)) < 0)
      text[0] = 0;
    return VAText(text);
  }
  gnutls_datum_t raw = {nullptr, 0};
  int r = issuer ? gnutls_x509_crt_get_raw_issuer_dn(cert, &raw) : gnutls_x509_crt_get_raw_dn(cert, &raw);
  PAA b = VANewVector(VAI1, r >= 0 ? raw.size : 0);
  if (b && r >= 0 && raw.size) memcpy(VADATA(b), raw.data, raw.size);
  if (r >= 0) FREEGNUTLSDATUM(raw);
  return b;
}

static PAA PublicKey(gnutls_x509_crt_t cert, int verbose) {
  PAA v = VANewVector(VAPntr, 4);
  if (!v) return nullptr;
  unsigned bits = 0;
  int alg = gnutls_x509_crt_get_pk_algorithm(cert, &bits);
  if (verbose) {
    // A negative answer is an error code, not an algorithm.
    const char* name = alg >= 0 ? gnutls_pk_algorithm_get_name((gnutls_pk_algorithm_t)alg) : nullptr;
    SetText(v, 0, name ? name : "");
  } else {
    SetAsn1(v, 0, cert, "tbsCertificate.subjectPublicKeyInfo.algorithm.algorithm");
  }
  SetAsn1(v, 1, cert, "tbsCertificate.subjectPublicKeyInfo.algorithm.parameters");
  VASetSI4(v, 2, (SI4)bits);
  char key[CERTTEXT_ROOM];
  int len = sizeof(key);
  // A bit string's length comes back in bits.
  if (asn1_read_value(Tree(cert), "tbsCertificate.subjectPublicKeyInfo.subjectPublicKey", key, &len) != ASN1_SUCCESS ||
      len < 0 || (UI4)(len + 7) / 8 > sizeof(key))
    len = 0;
  PAA k = VANewVector(VABit, (UI4)len);
  if (k && len) memcpy(VADATA(k), key, (size_t)(len + 7) / 8);
  VASetpAA(v, 3, k);
  return v;
}

// Extensions are counted and logged; the host gets an empty list of them.
static PAA Extensions(gnutls_x509_crt_t cert) {
  int count = 0;
  asn1_number_of_elements(Tree(cert), "tbsCertificate.extensions", &count);
  LOG(4, ("Extensions %d", count));
  UI4 shape[2] = {0, 3};
  return VANew(VAC1, 2, shape);
}

SI4 DecodeCertInfo(gnutls_x509_crt_t cert, int verbose, PPAA ppCertinfo) {
  PAA v = VANewVector(VAPntr, 10);
  *ppCertinfo = v;
  if (!v) return 0;
  VASetSI4(v, 0, gnutls_x509_crt_get_version(cert));
  VASetpAA(v, 1, Serial(cert, verbose));
  PAA sig = VANewVector(VAPntr, 2);
  if (sig) {
    if (verbose) {
      int alg = gnutls_x509_crt_get_signature_algorithm(cert);
      const char* name = alg >= 0 ? gnutls_sign_get_name((gnutls_sign_algorithm_t)alg) : nullptr;
      SetText(sig, 0, name ? name : "");
    } else {
      SetAsn1(sig, 0, cert, "tbsCertificate.signature.algorithm");
    }
    SetAsn1(sig, 1, cert, "tbsCertificate.signature.parameters");
  }
  VASetpAA(v, 2, sig);
  VASetpAA(v, 3, Name(cert, verbose, true));
  PAA validity = VANewVector(VAPntr, 2);
  if (validity) {
    VASetpAA(validity, 0, Time(gnutls_x509_crt_get_activation_time(cert), verbose));
    VASetpAA(validity, 1, Time(gnutls_x509_crt_get_expiration_time(cert), verbose));
  }
  VASetpAA(v, 4, validity);
  VASetpAA(v, 5, Name(cert, verbose, false));
  VASetpAA(v, 6, PublicKey(cert, verbose));
  SetAsn1(v, 7, cert, "tbsCertificate.issuerUniqueID", true);
  SetAsn1(v, 8, cert, "tbsCertificate.subjectUniqueID", true);
  VASetpAA(v, 9, Extensions(cert));
  return 0;
}

SI4 ReturnCert(gnutls_x509_crt_t cert, PPAA ppCertinfo) {
  gnutls_datum_t der = {nullptr, 0};
  if (gnutls_x509_crt_export2(cert, GNUTLS_X509_FMT_DER, &der) < 0) der.size = 0;
  SI4 rc = ReturnCert((PCH1)der.data, der.size, ppCertinfo);
  FREEGNUTLSDATUM(der);
  return rc;
}

SI4 DecodeCertGNU(PCH1 dercert, UI4 len, int verbose, PPAA ppCertinfo) {
  gnutls_x509_crt_t cert = nullptr;
  gnutls_x509_crt_init(&cert);
  LOG(4, ("DecodeCertGNU 1"));
  gnutls_datum_t d = {(unsigned char*)dercert, len};
  SI4 rc = 0;
  PAA r;
  if (gnutls_x509_crt_import(cert, &d, GNUTLS_X509_FMT_DER) >= 0) {
    LOG(4, ("DecodeCertGNU 2"));
    r = VANewVector(VAPntr, 2);
    PAA info = nullptr;
    DecodeCertInfo(cert, verbose, &info);
    if (r) {
      VASetCH1(r, 0, dercert, len, VABIN);
      VASetpAA(r, 1, info);
    } else {
      VAFree(info);
    }
  } else {
    LOG(4, ("DecodeCertGNU 3"));
    r = VANewVector(VAI4, 0);
    rc = ERR_INVALID_CERTIFICATE;
  }
  LOG(4, ("DecodeCertGNU 4"));
  gnutls_x509_crt_deinit(cert);
  *ppCertinfo = r;
  return rc;
}

SI4 DecodeCert(PAA pRight, PPAA ppCertinfo) {
  *ppCertinfo = nullptr;
  if (!PelkosslLoaded()) return ERR_NO_SSL_SUPPORT;
  SI4 rc = CheckArgList(pRight, CIMAX, CertInfoOptionNames);
  PAA cert = nullptr;
  if (!rc) rc = GetOptionpAA(pRight, CICert, CIMAX, CertInfoOptionNames, &cert);
  SI4 verbose = 0;
  if (!rc) rc = GetSI4(pRight, CIInfo, CIMAX, CertInfoOptionNames, 0, &verbose);
  if (!rc) GetEnum(pRight, CIAPI, CIMAX, CertInfoOptionNames, APIMAX, apiname, APIGNU, &rc);
  if (!rc) {
    // The bytes are taken as they lie, whatever the type; never more of
    // them than the array holds.
    UI4 len = VARank(cert) ? VAShape(cert)[0] : 1;
    if (len > VADataLength(cert)) len = VADataLength(cert);
    rc = DecodeCertGNU((PCH1)VADATA(cert), len, verbose, ppCertinfo);
  }
  VAFree(cert);
  return rc;
}

SI4 CertDecode(PAA pRight, PPAA ppCertinfo) {
  PAA source = nullptr;
  SI4 rc = GetOptionpAA(pRight, CESource, CEMAX, CertOptionNames, &source);
  SI4 details = 0;
  if (!rc) rc = GetSI4(pRight, CEDetails, CEMAX, CertOptionNames, 0, &details);
  if (!rc) GetEnum(pRight, CEDecodeApi, CEMAX, CertOptionNames, APIMAX, apiname, APIGNU, &rc);
  if (!rc) {
    gnutls_datum_t d = GetCertData(source);
    LOG(4, ("cert size %d data %p", (int)d.size, (void*)d.data));
    rc = DecodeCertGNU((PCH1)d.data, d.size, details, ppCertinfo);
    FREEGNUTLSDATUM(d);
  }
  VAFree(source);
  return rc;
}

SI4 ReadCert(PAA pRight, PPAA ppCertinfo) {
  *ppCertinfo = nullptr;
  char name[CERTSOURCE_ROOM + 1];
  if (!GetPCH10(pRight, CESource, CEMAX, CertOptionNames, name, sizeof(name))) return ERR_OPTION;
  CertCollection* certs = new CertCollection();
  int n = certs->LoadCertsFromFile(name);
  SI4 rc = 0;
  if (n < 0) {
    rc = ERR_INVALID_CERTIFICATE;
  } else {
    PAA v = VANewVector(certs->Count ? VAPntr : VAI4, (UI4)certs->Count);
    for (int i = 0; v && i < certs->Count; i++) {
      PAA one = nullptr;
      ReturnCert(certs->certs[i], &one);
      VASetpAA(v, (UI4)i, one);
    }
    *ppCertinfo = v;
  }
  certs->Empty();
  delete certs;
  return rc;
}

// The keys of the system's store: rows of certificate URL, key URL, label
// and DER bytes.
SI4 SystemURLs(PAA, PPAA ppURLs) {
  gnutls_system_key_iter_t iter = nullptr;
  UI4 count = 0;
  while (gnutls_system_key_iter_get_info(&iter, GNUTLS_CRT_X509, nullptr, nullptr, nullptr, nullptr, 0) == 0) count++;
  gnutls_system_key_iter_deinit(iter);
  iter = nullptr;
  UI4 shape[2] = {count, 4};
  PAA m = VANew(VAPntr, 2, shape);
  for (UI4 row = 0; m && row < count; row++) {
    char *certUrl = nullptr, *keyUrl = nullptr, *label = nullptr;
    gnutls_datum_t der = {nullptr, 0};
    if (gnutls_system_key_iter_get_info(&iter, GNUTLS_CRT_X509, &certUrl, &keyUrl, &label, &der, 0) != 0)
      certUrl = keyUrl = label = nullptr;
    SetText(m, 4 * row, certUrl ? certUrl : "");
    SetText(m, 4 * row + 1, keyUrl ? keyUrl : "");
    SetText(m, 4 * row + 2, label ? label : "");
    SetBytes(m, 4 * row + 3, der.data, der.size);
    FREEGNUTLS(certUrl);
    FREEGNUTLS(keyUrl);
    FREEGNUTLS(label);
    FREEGNUTLSDATUM(der);
  }
  gnutls_system_key_iter_deinit(iter);
  if (m && count == 0) VASetCH1(m, 0, (PCH1) "", 0, VACHAR);
  *ppURLs = m;
  return 0;
}

PAA ACerts(PHIERAKI, PAA arg) {
  SI4 rc = CheckArgList(arg, CEMAX, CertOptionNames);
  SI4 type = rc ? 0 : GetEnum(arg, CEType, CEMAX, CertOptionNames, CETMAX, CertTypeOptionNames, CETMAX, &rc);
  if (!rc && !PelkosslLoaded()) rc = ERR_NO_SSL_SUPPORT;
  PAA value = nullptr;
  if (!rc) {
    switch (type) {
      case CETDecode: rc = CertDecode(arg, &value); break;
      case CETUrls: rc = SystemURLs(arg, &value); break;
      case CETDER: rc = ReadCert(arg, &value); break;
      default: rc = ERR_NONCE;
    }
  }
  if (rc) {
    VAFree(value);
    return VARc(rc);
  }
  return RcValue(value);
}
