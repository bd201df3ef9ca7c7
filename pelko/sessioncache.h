// The cache that GnuTLS is given for session data: one for a root's
// clients, one for each listener. Its entries are sized but never filled,
// so a lookup matches only by accident and no session is resumed.
#pragma once

#include "pelkossl.h"

#define SessionCaching 1
// Entries of a root's client cache and of a listener's cache.
#define CLIENTCACHESIZE 100
#define SERVERCACHESIZE 1000

struct SessionData2 {
  void Init();
  void Clear();
  void SetKey(gnutls_datum_t d);
  void SetData(gnutls_datum_t d);
  bool IsThisKey(gnutls_datum_t k);
  gnutls_datum_t GetData() { return data; }

  gnutls_datum_t key;
  gnutls_datum_t data;
};

class SessionCache2 {
 public:
  explicit SessionCache2(int size);
  ~SessionCache2();

  SessionData2* Find(gnutls_datum_t key);
  void Add(gnutls_datum_t key, gnutls_datum_t data);
  void Remove(gnutls_datum_t key);
  gnutls_datum_t Retrieve(gnutls_datum_t key);
  void bumpNextIndex();

  PTALSEMA sem;
  int cacheSize;
  SessionData2* cache;
  int nextIndex;
  int maxIndex;

 private:
  SessionData2* FindLocked(gnutls_datum_t key);
};

int DBStoreFunc(void* ptr, gnutls_datum_t key, gnutls_datum_t data);
gnutls_datum_t DBRetrieveFunc(void* ptr, gnutls_datum_t key);
int DBRemoveFunc(void* ptr, gnutls_datum_t key);
SI4 ClearSessionDB(void* ptr);
