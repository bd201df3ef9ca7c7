// The certificate options of the opening verbs, read into one record. An
// error found on the way is held while the remaining options are still
// read; a record without certificates of its own stands for a plain socket,
// and then only a missing companion is worth an error.
#include "certdata.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "log.h"
#include "options.h"
#include "pelkoerr.h"

#define MODULE 0x04000000

gnutls_datum_t GetCertData(PAA pAA) {
  gnutls_datum_t d = {nullptr, 0};
  if (!pAA || VARank(pAA) != 1) return d;
  UI4 n = VAElems(pAA);
  VATYPES t = VAType(pAA);
  if (t != VAI2 && t != VAC1 && t != VAI1) return d;
  d.data = (unsigned char*)TAL_gnutls_calloc(1, n ? n : 1);
  if (!d.data) return d;
  d.size = n;
  if (t == VAI2) {
    // The low byte of each element, with no range check.
    PUI1 p = (PUI1)VADATA(pAA);
    for (UI4 i = 0; i < n; i++) d.data[i] = p[2 * i];
  } else {
    memcpy(d.data, VADATA(pAA), n);
  }
  LOG(4, ("GetCertData %u bytes of type %d", n, (int)t));
  return d;
}

gnutls_datum_t read_binary_file(const char* name) {
  gnutls_datum_t d = {nullptr, 0};
  FILE* f = fopen(name, "rb");
  if (!f) return d;
  long size = -1;
  if (fseek(f, 0, SEEK_END) == 0) size = ftell(f);
  fseek(f, 0, SEEK_SET);
  if (size >= 0 && size < 0x7FFFFFFF) d.data = (unsigned char*)TAL_gnutls_malloc((size_t)size + 1);
  if (d.data) d.size = (unsigned)fread(d.data, 1, (size_t)size, f);
  fclose(f);
  return d;
}

// A (type name index) list of an option: the type by certname, the name
// as an allocated text, and the index.
static SI4 FileList(PAA list, CERTDATATYPE* type, PCH10* name, UI4* index) {
  SI4 err = 0;
  *type = (CERTDATATYPE)GetEnum(list, 0, 3, CertOptionNames, 6, certname, 0, &err);
  *name = err ? nullptr : GetPCH10(list, 1, 3, CertOptionNames, nullptr, 0);
  SI4 i = 0;
  if (!err) err = GetSI4(list, 2, 3, CertOptionNames, 0, &i);
  *index = (UI4)i;
  return err;
}

// Certificates given as bytes: one vector, or a vector of them.
static SI4 CertsFromData(PCERTDATA c, PAA p) {
  VATYPES t = VAType(p);
  if (t == VAC1 || t == VAI1 || t == VAI2) {
    c->certs = (gnutls_pcert_st*)TAL_gnutls_calloc(1, sizeof(gnutls_pcert_st));
    if (!c->certs) return ERR_MEMORY_ALLOC;
    gnutls_datum_t d = GetCertData(p);
    SI4 rc = gnutls_pcert_import_x509_raw(&c->certs[0], &d, GNUTLS_X509_FMT_DER, 0) < 0 ? ERR_INVALID_CERTIFICATE : 0;
    c->certsCount = rc ? 0 : 1;
    FREEGNUTLSDATUM(d);
    c->pubCert = CDTRawCert;
    return rc;
  }
  if (t != VAPntr) return 0;
  UI4 n = VARank(p) ? VAShape(p)[0] : 1;
  c->certs = (gnutls_pcert_st*)TAL_gnutls_calloc(n ? n : 1, sizeof(gnutls_pcert_st));
  if (!c->certs) return ERR_MEMORY_ALLOC;
  for (UI4 i = 0; i < n; i++) {
    gnutls_datum_t d = GetCertData(VASlot(p, i));
    int r = gnutls_pcert_import_x509_raw(&c->certs[i], &d, GNUTLS_X509_FMT_DER, 0);
    FREEGNUTLSDATUM(d);
    if (r < 0) {
      c->certsCount = i;
      return ERR_INVALID_CERTIFICATE;
    }
    c->certsCount = i + 1;
    c->pubCert = CDTRawCert;
  }
  return 0;
}

SI4 CertsFromPath(PCERTDATA c, const char* name) {
  gnutls_datum_t data = read_binary_file(name);
  c->certs = (gnutls_pcert_st*)TAL_gnutls_calloc(MAXCERTSPERFILE, sizeof(gnutls_pcert_st));
  if (!c->certs) {
    FREEGNUTLSDATUM(data);
    return ERR_MEMORY_ALLOC;
  }
  unsigned max = MAXCERTSPERFILE;
  int r = gnutls_pcert_list_import_x509_raw(c->certs, &max, &data, GNUTLS_X509_FMT_PEM, 0);
  if (r == GNUTLS_E_NO_CERTIFICATE_FOUND) {
    max = MAXCERTSPERFILE;
    r = gnutls_pcert_list_import_x509_raw(c->certs, &max, &data, GNUTLS_X509_FMT_DER, 0);
  }
  SI4 rc = 0;
  if (r < 0 || max == 0) {
    max = 0;
    rc = ERR_INVALID_CERTIFICATE;
  }
  FREEGNUTLSDATUM(data);
  if (max) {
    gnutls_pcert_st* shrunk = (gnutls_pcert_st*)TAL_gnutls_realloc(c->certs, max * sizeof(gnutls_pcert_st));
    if (shrunk) c->certs = shrunk;
  }
  c->certsCount = max;
  return rc;
}

int KeyFromPath(PCERTDATA c, const char* name) {
  gnutls_datum_t data = read_binary_file(name);
  int r = gnutls_privkey_import_x509_raw(c->key, &data, GNUTLS_X509_FMT_PEM, nullptr, 0);
  if (r == GNUTLS_E_BASE64_UNEXPECTED_HEADER_ERROR || r == GNUTLS_E_BASE64_DECODING_ERROR)
    r = gnutls_privkey_import_x509_raw(c->key, &data, GNUTLS_X509_FMT_DER, nullptr, 0);
  FREEGNUTLSDATUM(data);
  return r;
}

// Certificates from a file: PEM with up to 100 in it, else one in DER.
static SI4 CertsFromFile(PCERTDATA c, PAA list) {
  PCH10 name = nullptr;
  SI4 rc = FileList(list, &c->pubCert, &name, &c->lpubIndex);
  if (rc || !name || !*name) {
    free(name);
    return rc;
  }
  rc = CertsFromPath(c, name);
  free(name);
  if (c->certsCount) c->pubCert = CDTDERFile;
  return rc;
}

// Key and certificate chain from a PKCS #12 file.
static SI4 FromPkcs12(PCERTDATA c, const char* name) {
  gnutls_pkcs12_t p12 = nullptr;
  gnutls_x509_privkey_t x509key = nullptr;
  gnutls_x509_crt_t* chain = nullptr;
  unsigned chainSize = 0;
  int r = gnutls_pkcs12_init(&p12);
  gnutls_datum_t data = read_binary_file(name);
  if (r >= 0 && !data.data) r = GNUTLS_E_MEMORY_ERROR;
  if (r >= 0) {
    r = gnutls_pkcs12_import(p12, &data, GNUTLS_X509_FMT_PEM, 0);
    if (r == GNUTLS_E_BASE64_UNEXPECTED_HEADER_ERROR || r == GNUTLS_E_BASE64_DECODING_ERROR)
      r = gnutls_pkcs12_import(p12, &data, GNUTLS_X509_FMT_DER, 0);
  }
  if (r >= 0) r = gnutls_pkcs12_verify_mac(p12, c->pprivPass);
  if (r >= 0)
    r = gnutls_pkcs12_simple_parse(p12, c->pprivPass, &x509key, &chain, &chainSize, nullptr, nullptr, nullptr, 0);
  if (r >= 0) {
    gnutls_pcert_st* certs = (gnutls_pcert_st*)TAL_gnutls_calloc(chainSize ? chainSize : 1, sizeof(gnutls_pcert_st));
    r = certs ? 0 : GNUTLS_E_MEMORY_ERROR;
    for (unsigned i = 0; r >= 0 && i < chainSize; i++) {
      r = gnutls_pcert_import_x509(&certs[i], chain[i], 0);
      if (r < 0)
        for (unsigned k = 0; k < i; k++) gnutls_pcert_deinit(&certs[k]);
    }
    if (r >= 0) {
      r = gnutls_privkey_import_x509(c->key, x509key, GNUTLS_PRIVKEY_IMPORT_AUTO_RELEASE);
      if (r >= 0) x509key = nullptr;
      c->certs = certs;
      c->certsCount = chainSize;
    } else {
      FREEGNUTLS(certs);
    }
  }
  for (unsigned i = 0; i < chainSize; i++) gnutls_x509_crt_deinit(chain[i]);
  FREEGNUTLS(chain);
  if (x509key) gnutls_x509_privkey_deinit(x509key);
  if (p12) gnutls_pkcs12_deinit(p12);
  FREEGNUTLSDATUM(data);
  return r < 0 ? ERR_INVALID_CERTIFICATE : 0;
}

// A key that can't be read is no error while there are no certificates
// for it.
static SI4 KeyResult(PCERTDATA c, int r) {
  if (r == 0 || c->certsCount == 0) return 0;
  c->privCert = CDTNoCert;
  return ERR_INVALID_CERTIFICATE;
}

static SI4 KeyFromFile(PCERTDATA c, PAA list) {
  PCH10 name = nullptr;
  SI4 rc = FileList(list, &c->privCert, &name, &c->lprivIndex);
  if (rc) {
    free(name);
    return rc;
  }
  switch (c->privCert) {
    case CDTDERFile:
      rc = KeyResult(c, KeyFromPath(c, name ? name : ""));
      break;
    case CDTPk12File:
      rc = FromPkcs12(c, name ? name : "");
      break;
    case CDTMSStore:
      c->pprivCertData = name;
      name = nullptr;
      break;
    case CDTUrl:
      rc = KeyResult(c, gnutls_privkey_import_url(c->key, name ? name : "", 0));
      break;
    default:
      rc = ERR_INVALID_CERTIFICATE;
  }
  free(name);
  return rc;
}

// An option's array; an absent one is no error, and gives null.
static SI4 Option(PAA arg, SI4 index, PPAA out) {
  SI4 rc = GetOptionpAA(arg, index, COMAX, PelkoOptionNames, out);
  return rc == ERR_ARG_MISSING ? 0 : rc;
}

static SI4 PrivateKey(PCERTDATA c, PAA arg) {
  gnutls_privkey_init(&c->key);
  PAA p = nullptr;
  SI4 rc = Option(arg, COPrivKeyData, &p);
  if (!rc && p) {
    gnutls_datum_t d = GetCertData(p);
    int r = gnutls_privkey_import_x509_raw(c->key, &d, GNUTLS_X509_FMT_DER, nullptr, 0);
    FREEGNUTLSDATUM(d);
    VAFree(p);
    c->privCert = r ? CDTNoCert : CDTRawCert;
    return r ? ERR_INVALID_CERTIFICATE : 0;
  }
  VAFree(p);
  p = nullptr;
  rc = Option(arg, COPrivKeyFile, &p);
  if (!rc && p) rc = KeyFromFile(c, p);
  VAFree(p);
  return rc;
}

static SI4 PublicCerts(PCERTDATA c, PAA arg) {
  PAA p = nullptr;
  SI4 rc = Option(arg, COPubCertData, &p);
  if (!rc && p) {
    rc = PelkosslLoaded() ? CertsFromData(c, p) : ERR_NO_SSL_SUPPORT;
    VAFree(p);
    return rc;
  }
  VAFree(p);
  p = nullptr;
  rc = Option(arg, COPubCertFile, &p);
  if (!rc && p) rc = PelkosslLoaded() ? CertsFromFile(c, p) : ERR_NO_SSL_SUPPORT;
  VAFree(p);
  return rc;
}

SI4 GetCert(PAA arg, PCERTDATA* out) {
  *out = nullptr;
  PCERTDATA c = (PCERTDATA)calloc(1, sizeof(CERTDATA));
  if (!c) return ERR_MEMORY_ALLOC;
  c->refs = 1;
  SI4 rc = PublicCerts(c, arg);
  c->ppubPass = GetPCH10(arg, COPubCertPass, COMAX, PelkoOptionNames, nullptr, 0);
  c->pprivPass = GetPCH10(arg, COPrivKeyPass, COMAX, PelkoOptionNames, nullptr, 0);
  if (!rc && c->pubCert != CDTNoCert) rc = PrivateKey(c, arg);
  if (!rc) {
    SI4 flags = 0;
    rc = GetSI4(arg, COSSLCheckFlags, COMAX, PelkoOptionNames, 0, &flags);
    c->flagOption = (UI4)flags;
  }
  c->ppriority = GetPCH10(arg, COPriority, COMAX, PelkoOptionNames, nullptr, 0);
  if (c->pubCert == CDTNoCert) {
    FreeCert(c);
    return rc == ERR_NO_SSL_SUPPORT ? rc : 0;
  }
  *out = c;
  return rc;
}

void FreeCert(PCERTDATA c) {
  if (!c || --c->refs > 0) return;
  c->paaInfo = VAFree(c->paaInfo);
  if (c->certsCount && c->certs)
    for (UI4 i = 0; i < c->certsCount; i++) gnutls_pcert_deinit(&c->certs[i]);
  if (c->certs) FREEGNUTLS(c->certs);
  c->certsCount = 0;
  if (c->key) gnutls_privkey_deinit(c->key);
  // Credentials a paused listener kept: every socket that used them held
  // a reference, so none is left.
  if (c->xcred) gnutls_certificate_free_credentials(c->xcred);
  free(c->ppubPass);
  free(c->pprivPass);
  free(c->ppriority);
  free(c->pprivCertData);
  free(c);
}
