// Certificate collections read from files and directories, the root's trust
// store, and the test of a peer's chain against it.
#include "rootcerts.h"

#include <dirent.h>

#include <cctype>
#include <cstdio>
#include <cstring>

#include "certdata.h"
#include "log.h"
#include "pelkoerr.h"

#define MODULE 0x00000400

// Room of a path in a directory walk.
#define CERTPATH_ROOM 1024
// Room of a subject key identifier.
#define KEYID_ROOM 256

gnutls_datum_t CertCollection::LoadFile(const char* name) { return read_binary_file(name); }

void CertCollection::UnloadFile(gnutls_datum_t data) {
  if (data.data) TAL_gnutls_free(data.data);
}

int CertCollection::LoadCertsFromFile(const char* name) {
  gnutls_datum_t data = LoadFile(name);
  if (!data.data || data.size == 0) {
    UnloadFile(data);
    return 0;
  }
  gnutls_x509_crt_t local[MAXPEERCHAIN];
  unsigned max = MAXPEERCHAIN;
  int r = gnutls_x509_crt_list_import(local, &max, &data, GNUTLS_X509_FMT_PEM, 0);
  if (r == GNUTLS_E_NO_CERTIFICATE_FOUND) r = gnutls_x509_crt_list_import(local, &max, &data, GNUTLS_X509_FMT_DER, 0);
  UnloadFile(data);
  if (r < 1) return r;
  // The store has a fixed room: what doesn't fit is released, not kept.
  int added = 0;
  for (unsigned i = 0; i < (unsigned)r && i < max; i++) {
    if (Count < MAXCOLLECTION)
      certs[Count++] = local[i], added++;
    else
      gnutls_x509_crt_deinit(local[i]);
  }
  return added;
}

static bool HasSuffix(const char* name, const char* suffix) {
  size_t n = strlen(name), k = strlen(suffix);
  if (n <= k || name[n - k - 1] != '.') return false;
  for (size_t i = 0; i < k; i++)
    if (tolower((unsigned char)name[n - k + i]) != tolower((unsigned char)suffix[i])) return false;
  return true;
}

void CertCollection::LoadCertsFromDir(const char* dir, const char* suffix) {
  DIR* d = opendir(dir);
  if (!d) return;
  char path[CERTPATH_ROOM];
  int base = snprintf(path, sizeof(path), "%s%s", dir, dir[0] && dir[strlen(dir) - 1] == '/' ? "" : "/");
  for (dirent* e = readdir(d); e; e = readdir(d)) {
    if (!HasSuffix(e->d_name, suffix)) continue;
    // A path that doesn't fit is skipped rather than cut.
    if (base < 0 || (size_t)base + strlen(e->d_name) >= sizeof(path)) continue;
    strcpy(path + base, e->d_name);
    LoadCertsFromFile(path);
  }
  closedir(d);
}

int CertCollection::LoadCertsFromDir(const char* dir) {
  if (!dir || dir[0] == '\n') return 0;
  LoadCertsFromDir(dir, "cer");
  LoadCertsFromDir(dir, "pem");
  LoadCertsFromDir(dir, "der");
  return Count;
}

void CertCollection::Empty() {
  for (int i = 0; i < Count; i++) gnutls_x509_crt_deinit(certs[i]);
  Count = 0;
}

bool CertCollection::isPresent(gnutls_x509_crt_t crt) {
  gnutls_datum_t want = {nullptr, 0};
  if (Count == 0 || gnutls_x509_crt_export2(crt, GNUTLS_X509_FMT_DER, &want) < 0) return false;
  bool found = false;
  for (int i = 0; i < Count && !found; i++) {
    gnutls_datum_t have = {nullptr, 0};
    if (gnutls_x509_crt_export2(certs[i], GNUTLS_X509_FMT_DER, &have) >= 0)
      found = have.size == want.size && memcmp(have.data, want.data, want.size) == 0;
    FREEGNUTLSDATUM(have);
  }
  FREEGNUTLSDATUM(want);
  return found;
}

RootCerts::RootCerts() { LOG(1, ("Create RootCerts ")); }

// The store only goes at unload, and its certificates with the companion.
RootCerts::~RootCerts() {
  LOG(1, ("Destroy RootCerts "));
  if (PelkosslLoaded()) certs.Empty();
}

int RootCerts::LoadRootsFrom(const char* dir) {
  LOG(3, ("Loading certificates from %s", dir ? dir : ""));
  if (!dir || !*dir) return 0;
  if (dir[0] == '\n') return certs.Count;
  certs.LoadCertsFromDir(dir, "cer");
  certs.LoadCertsFromDir(dir, "pem");
  certs.LoadCertsFromDir(dir, "der");
  return certs.Count;
}

int RootCerts::CopyRootsTo(const gnutls_certificate_credentials_t& cred) {
  if (certs.Count > 0)
    gnutls_certificate_set_x509_trust(cred, certs.certs, certs.Count);
  else
    gnutls_certificate_set_x509_system_trust(cred);
  return certs.Count;
}

// Two certificates with the same subject key identifier are one.
static bool SameKeyId(gnutls_x509_crt_t a, gnutls_x509_crt_t b) {
  unsigned char ida[KEYID_ROOM], idb[KEYID_ROOM];
  size_t na = sizeof(ida), nb = sizeof(idb);
  unsigned critical = 0;
  if (gnutls_x509_crt_get_subject_key_id(a, ida, &na, &critical) < 0) return false;
  if (gnutls_x509_crt_get_subject_key_id(b, idb, &nb, &critical) < 0) return false;
  return na == nb && memcmp(ida, idb, na) == 0;
}

int RootCerts::Validate(gnutls_session_t session, unsigned int* status) {
  unsigned n = 0;
  const gnutls_datum_t* peers = gnutls_certificate_get_peers(session, &n);
  if (n > MAXPEERCHAIN) n = MAXPEERCHAIN;
  if (!peers) {
    *status = GNUTLS_CERT_INVALID | GNUTLS_CERT_SIGNER_NOT_FOUND;
    return 0;
  }
  if (certs.Count == 0) return gnutls_certificate_verify_peers2(session, status);
  gnutls_x509_crt_t list[MAXPEERCHAIN];
  unsigned kept = 0;
  for (unsigned i = 0; i < n; i++) {
    gnutls_x509_crt_t c = nullptr;
    if (gnutls_x509_crt_init(&c) < 0) continue;
    if (gnutls_x509_crt_import(c, &peers[i], GNUTLS_X509_FMT_DER) < 0) {
      gnutls_x509_crt_deinit(c);
      continue;
    }
    bool duplicate = false;
    for (unsigned k = 0; k < kept && !duplicate; k++) duplicate = SameKeyId(c, list[k]);
    if (duplicate)
      gnutls_x509_crt_deinit(c);
    else
      list[kept++] = c;
  }
  int r = gnutls_x509_crt_list_verify(list, kept, certs.certs, certs.Count, nullptr, 0, 0, status);
  for (unsigned k = 0; k < kept; k++) gnutls_x509_crt_deinit(list[k]);
  return r;
}

SI4 ReturnCert(PCH1 dercert, UI4 len, PPAA ppCertinfo) {
  *ppCertinfo = VANewVector(VAI1, len);
  if (*ppCertinfo && len) memcpy(VADATA(*ppCertinfo), dercert, len);
  return 0;
}

SI4 CacheNewRootDir(PRootCerts roots, const char* dir) {
  roots->ClearRoots();
  return roots->LoadRootsFrom(dir) < 1 ? ERR_ZERO_CERTS_FOUND : 0;
}
