// The session cache. Each entry records the sizes of a key and its data in
// buffers of those sizes, which are never filled: the cache allocates and
// matches, but it resumes nothing. The buffers are cleared, so what a
// lookup compares and what GnuTLS is handed is zeros, never stale memory.
#include "sessioncache.h"

#include <cstring>

#include "log.h"

#define MODULE 0x00000400

// A buffer of d's size, or the empty datum.
static gnutls_datum_t Sized(gnutls_datum_t d) {
  gnutls_datum_t r = {nullptr, 0};
  if (!d.data || d.size == 0) return r;
  r.data = (unsigned char*)TAL_gnutls_calloc(1, d.size);
  r.size = r.data ? d.size : 0;
  return r;
}

void SessionData2::Init() {
  key = {nullptr, 0};
  data = {nullptr, 0};
}

void SessionData2::Clear() {
  FREEGNUTLSDATUM(key);
  FREEGNUTLSDATUM(data);
  Init();
}

// An entry that is taken again gives its old buffers back.
void SessionData2::SetKey(gnutls_datum_t d) {
  FREEGNUTLSDATUM(key);
  key = Sized(d);
}

void SessionData2::SetData(gnutls_datum_t d) {
  FREEGNUTLSDATUM(data);
  data = Sized(d);
}

bool SessionData2::IsThisKey(gnutls_datum_t k) {
  return key.size == k.size && (k.size == 0 || (key.data && memcmp(key.data, k.data, k.size) == 0));
}

SessionCache2::SessionCache2(int size)
    : sem(new TALSEMA(1, 1)), cacheSize(size), cache(new SessionData2[size]), nextIndex(0), maxIndex(-1) {
  for (int i = 0; i < size; i++) cache[i].Init();
}

SessionCache2::~SessionCache2() {
  for (int i = cacheSize - 1; i >= 0; i--) cache[i].Clear();
  delete[] cache;
  delete sem;
}

// Cleared entries stay in the range: a key of size 0 matches them.
SessionData2* SessionCache2::FindLocked(gnutls_datum_t key) {
  for (int i = 0; i <= maxIndex; i++)
    if (cache[i].IsThisKey(key)) return &cache[i];
  return nullptr;
}

SessionData2* SessionCache2::Find(gnutls_datum_t key) {
  sem->wait();
  SessionData2* e = FindLocked(key);
  sem->release(1);
  return e;
}

void SessionCache2::bumpNextIndex() {
  if (++nextIndex >= cacheSize) nextIndex = 0;
  if (maxIndex < cacheSize - 1) maxIndex++;
}

void SessionCache2::Add(gnutls_datum_t key, gnutls_datum_t data) {
  sem->wait();
  SessionData2* e = FindLocked(key);
  if (!e) {
    e = &cache[nextIndex];
    bumpNextIndex();
    e->SetKey(key);
  }
  e->SetData(data);
  sem->release(1);
}

void SessionCache2::Remove(gnutls_datum_t key) {
  sem->wait();
  SessionData2* e = FindLocked(key);
  if (e) e->Clear();
  sem->release(1);
}

gnutls_datum_t SessionCache2::Retrieve(gnutls_datum_t key) {
  sem->wait();
  SessionData2* e = FindLocked(key);
  gnutls_datum_t d = e ? e->GetData() : gnutls_datum_t{nullptr, 0};
  sem->release(1);
  return Sized(d);
}

static void LogKey(const char* what, void* ptr, gnutls_datum_t key) {
  LOG(3, ("%s %p", what, ptr));
  if (LOGif(0, MODULE, 3)) LOGHex((PCH1)key.data, key.size);
}

int DBStoreFunc(void* ptr, gnutls_datum_t key, gnutls_datum_t data) {
  LogKey("DBStore", ptr, key);
  if (!ptr) return GNUTLS_E_DB_ERROR;
  ((SessionCache2*)ptr)->Add(key, data);
  return 0;
}

int DBRemoveFunc(void* ptr, gnutls_datum_t key) {
  LogKey("DBRemove", ptr, key);
  if (!ptr) return GNUTLS_E_DB_ERROR;
  ((SessionCache2*)ptr)->Remove(key);
  return 0;
}

gnutls_datum_t DBRetrieveFunc(void* ptr, gnutls_datum_t key) {
  LogKey("DBRetrieve", ptr, key);
  if (!ptr) return gnutls_datum_t{nullptr, 0};
  return ((SessionCache2*)ptr)->Retrieve(key);
}

SI4 ClearSessionDB(void* ptr) {
  delete (SessionCache2*)ptr;
  return 0;
}
