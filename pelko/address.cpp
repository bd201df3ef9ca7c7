// Creating sockets from names, describing addresses to the host, and the
// allowed and denied address ranges of a server. Lookups and connects run
// on the host thread that asked for them, never on the work thread.
#include <arpa/inet.h>
#include <netdb.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "log.h"
#include "pelkoerr.h"
#include "root.h"
#include "securesocket.h"
#include "socket.h"

#define MODULE 0x00000200

int IPV6Available = 1;

void ProbeIPv6() {
  SOCKET s = socket(AF_INET6, SOCK_STREAM, 0);
  if (s < 0) {
    IPV6Available = 0;
    return;
  }
  close(s);
}

static int Family(PROTOCOL prot) {
  return prot == PIPv4 ? AF_INET : prot == PIPv6 ? AF_INET6 : AF_UNSPEC;
}

static SI4 MapLookupError(int e) {
  switch (e) {
    case EAI_NONAME: return ERR_INVALID_HOST;
    case 111: return ERR_CONNECT_DATA;
    case EAI_SERVICE: return ERR_INVALID_SERVICE;
    default: return e;
  }
}

SI4 CreateSocketNew(SOCKET* out, PCH1 host, PCH1 port, int type, PROTOCOL prot, bool listen) {
  LOG(1, ("CreateSocket"));
  *out = INVALID_SOCKET;
  if (type == SOCK_DGRAM && !listen) {
    *out = socket(prot == PIPv4 ? AF_INET : AF_INET6, SOCK_DGRAM, IPPROTO_UDP);
    return *out < 0 ? (*out = INVALID_SOCKET, ERR_NEW_DATA_SOCKET) : 0;
  }
  addrinfo hints = {};
  hints.ai_family = Family(prot);
  hints.ai_socktype = type;
  if (listen) {
    if (IPV6Available == 1 && hints.ai_family == AF_UNSPEC) hints.ai_family = AF_INET6;
    hints.ai_flags = AI_PASSIVE | AI_V4MAPPED | AI_ALL;
    if (host && strcmp(host, "*") == 0) host = nullptr;
  } else if (host && !*host) {
    host = nullptr;
  }
  addrinfo* list = nullptr;
  int e = getaddrinfo(host, port, &hints, &list);
  if (e) return MapLookupError(e);
  int last = 0;
  for (addrinfo* a = list; a; a = a->ai_next) {
    LOG(7, ("CreateSocket trying family %d type %d protocol %d ", a->ai_family, a->ai_socktype,
            a->ai_protocol));
    SOCKET s = socket(a->ai_family, a->ai_socktype, a->ai_protocol);
    if (s < 0) {
      last = 0;
      continue;
    }
    bool ok;
    if (listen) {
      int off = 0, on = 1;
      if (a->ai_family == AF_INET6 && prot != PIPv6)
        setsockopt(s, IPPROTO_IPV6, IPV6_V6ONLY, &off, sizeof(off));
      setsockopt(s, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
      ok = bind(s, a->ai_addr, a->ai_addrlen) == 0;
    } else {
      ok = a->ai_socktype == SOCK_DGRAM || connect(s, a->ai_addr, a->ai_addrlen) == 0;
    }
    if (ok) {
      *out = s;
      LOG(6, ("New Socket %p ", (void*)(intptr_t)s));
      freeaddrinfo(list);
      return 0;
    }
    last = errno;
    close(s);
  }
  SockErrLog(last, "CreateSocket");
  freeaddrinfo(list);
  switch (last) {
    case -2: return ERR_INVALID_HOST;
    case 111: return ERR_CONNECT_DATA;
    case -8: return ERR_INVALID_SERVICE;
    default: return last;
  }
}

SI4 CreateSocket(SOCKET* out, int type, TALSOCKADDR* addr) {
  LOG(1, ("CreateSocket"));
  TALSOCKADDR any = {};
  if (!addr) {
    any.ss_family = AF_INET;
    addr = &any;
  }
  if (addr->ss_family == 0) addr->ss_family = AF_INET;
  *out = INVALID_SOCKET;
  SOCKET s = socket(addr->ss_family, type, 0);
  LOG(6, ("New Socket %p ", (void*)(intptr_t)s));
  if (s < 0) {
    int e = errno;
    SockErrLog(e, "socket");
    return e;
  }
  if (addr->ss_family == AF_INET6) {
    int off = 0;
    setsockopt(s, IPPROTO_IPV6, IPV6_V6ONLY, &off, sizeof(off));
  }
  LOG(7, ("CreateSocket ss_family %d", addr->ss_family));
  if (LOGif(0, MODULE, 9)) LOGHex((const char*)addr, sizeof(TALSOCKADDR));
  // The length must fit the family: the system refuses a longer one for
  // IPv4 and IPv6 alike.
  socklen_t len = addr->ss_family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
  if (bind(s, (sockaddr*)addr, len) != 0) {
    int e = errno;
    SockErrLog(e, "bind");
    AbortiveClose(s);
    return e;
  }
  *out = s;
  return 0;
}

SI4 GetIPAddr(PCH1 host, PCH1 port, int type, PROTOCOL prot, bool passive, TALSOCKADDR* out) {
  addrinfo hints = {};
  hints.ai_family = Family(prot);
  hints.ai_socktype = type;
  if (passive) hints.ai_flags = AI_PASSIVE;
  addrinfo* list = nullptr;
  if (getaddrinfo(host, port, &hints, &list) != 0 || !list) {
    int e = errno;
    if (list) freeaddrinfo(list);
    return e ? e : ERR_INVALID_HOST;
  }
  memcpy(out, list->ai_addr, list->ai_addrlen);
  freeaddrinfo(list);
  return 0;
}

PRPCSOCK NewSock(PHIERAKI root, PCH1 host, PCH1 port, bool listen, PCERTDATA cert, PROTOCOL prot,
                 SI4* err) {
  PRPCSOCK s;
  if (cert) {
    // The secure socket is built with the companion library; without it a
    // TLS request is refused.
    if (!PelkosslLoaded()) {
      *err = ERR_NO_SSL_SUPPORT;
      return nullptr;
    }
    PROOT r = RootObj(root);
    {
      // Clients open on host threads, any number at once.
      static std::mutex made;
      std::lock_guard<std::mutex> hold(made);
      if (r && !r->pClientSessionDB) r->pClientSessionDB = new SessionCache2(CLIENTCACHESIZE);
    }
    s = new RPCSECURE(host, port, listen, cert, prot, SOCK_STREAM, r ? r->pClientSessionDB : nullptr);
  } else {
    s = new RPCSOCK(host, port, listen, prot, SOCK_STREAM);
  }
  *err = s->lError;
  return s;
}

SI4 IPLookup(PCH1 host, PCH1 port, PROTOCOL prot, PPAA out) {
  if (!host) {
    *out = VAFree(*out);
    return ERR_INVALID_HOST;
  }
  addrinfo hints = {};
  hints.ai_flags = AI_ALL;
  hints.ai_family = Family(prot);
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_protocol = IPPROTO_TCP;
  addrinfo* list = nullptr;
  int e = getaddrinfo(host, port, &hints, &list);
  if (e) {
    LOG(4, ("getaddrinfo returned %d %s", e, gai_strerror(e)));
    return ERR_INVALID_HOST;
  }
  UI4 n = 0;
  for (addrinfo* a = list; a; a = a->ai_next) n++;
  PAA r = VANewVector(VAPntr, n);
  SI4 rc = r ? 0 : ERR_MEMORY_ALLOC;
  UI4 i = 0;
  for (addrinfo* a = list; a && !rc; a = a->ai_next, i++) {
    TALSOCKADDR sa = {};
    memcpy(&sa, a->ai_addr, a->ai_addrlen);
    PAA item = nullptr;
    rc = SockAddr2pAA(&sa, &item);
    if (!rc) VASetpAA(r, i, item);
  }
  freeaddrinfo(list);
  if (rc) r = VAFree(r);
  *out = r;
  return rc;
}

SI4 SockAddr2pAA(TALSOCKADDR* addr, PPAA out) {
  *out = nullptr;
  if (!addr) return ERR_INVALID_HOST;
  char text[80];
  const UI1* bytes;
  UI4 nbytes;
  UI2 port;
  const char* family;
  if (addr->ss_family == AF_INET) {
    sockaddr_in* a = (sockaddr_in*)addr;
    bytes = (const UI1*)&a->sin_addr;
    nbytes = 4;
    port = ntohs(a->sin_port);
    family = "IPv4";
    snprintf(text, sizeof(text), "%u.%u.%u.%u:%u", bytes[0], bytes[1], bytes[2], bytes[3], port);
  } else if (addr->ss_family == AF_INET6) {
    sockaddr_in6* a = (sockaddr_in6*)addr;
    bytes = (const UI1*)&a->sin6_addr;
    nbytes = 16;
    port = ntohs(a->sin6_port);
    family = "IPv6";
    char six[64];
    inet_ntop6(bytes, six, sizeof(six));
    snprintf(text, sizeof(text), "[%s]:%u", six, port);
  } else {
    return ERR_INVALID_ADDR;
  }
  SI4 v[16];
  for (UI4 i = 0; i < nbytes; i++) v[i] = bytes[i];
  *out = VANested({VAText(family), VAText(text), VAIntVector(v, nbytes), VAInt(port)});
  return *out ? 0 : ERR_MEMORY_ALLOC;
}

SI4 IPv4Addrs(PPAA out) {
  *out = nullptr;
  TALIpv4 ifs;
  if (ifs.error) return ifs.error;
  UI4 shape[2] = {(UI4)ifs.count, 3};
  PAA r = VANew(ifs.count ? VAPntr : VAI1, 2, shape);
  if (!r) return ERR_MEMORY_ALLOC;
  for (UI4 row = 0; row < (UI4)ifs.count; row++) {
    ifs.Extract();
    VASetpAA(r, row * 3, VAText(ifs.IfName));
    VASetpAA(r, row * 3 + 1, VAText(ifs.IpAddr));
    VASetpAA(r, row * 3 + 2, VAInt(ifs.mask));
    if (ifs.Next()) break;
  }
  *out = r;
  return 0;
}

char* inet_ntop6(const unsigned char* src, char* dst, unsigned int size) {
  UI4 w[8];
  for (int i = 0; i < 8; i++) w[i] = (UI4)(src[2 * i] << 8 | src[2 * i + 1]);
  int best = -1, bestLen = 0;
  for (int i = 0; i < 8;) {
    if (w[i]) {
      i++;
      continue;
    }
    int j = i;
    while (j < 8 && !w[j]) j++;
    if (j - i > bestLen) {
      best = i;
      bestLen = j - i;
    }
    i = j;
  }
  if (bestLen < 2) best = -1;
  char tmp[64];
  char* p = tmp;
  for (int i = 0; i < 8; i++) {
    if (best >= 0 && i >= best && i < best + bestLen) {
      if (i == best) *p++ = ':';
      continue;
    }
    if (i) *p++ = ':';
    if (i == 6 && best == 0 && (bestLen == 6 || (bestLen == 5 && w[5] == 0xffff))) {
      p += sprintf(p, "%u.%u.%u.%u", src[12], src[13], src[14], src[15]);
      break;
    }
    p += sprintf(p, "%x", w[i]);
  }
  if (best >= 0 && best + bestLen == 8) *p++ = ':';
  *p = 0;
  if ((unsigned int)(p - tmp + 1) > size) return nullptr;
  memcpy(dst, tmp, (size_t)(p - tmp + 1));
  return dst;
}

RANGES::RANGES() : c4(0), c6(0), paddr4(nullptr), paddr6(nullptr) {}

RANGES::~RANGES() {
  free(paddr4);
  free(paddr6);
}

// Parses "addr[/bits],..." into entries of one family. On a piece that
// doesn't parse, the array is freed and the count so far stays.
template <typename SA>
static SI4 SetRanges(PCH1 text, int family, UI2 defBits, SA** pArray, SI4* pCount) {
  free(*pArray);
  *pArray = nullptr;
  *pCount = 0;
  if (!text || !*text) return 0;
  SI4 cap = 1;
  for (PCH1 c = text; *c; c++) cap += *c == ',';
  SA* arr = (SA*)calloc((size_t)cap, sizeof(SA));
  if (!arr) return ERR_MEMORY_ALLOC;
  PCH1 p = text;
  while (*p && *pCount < cap) {
    PCH1 comma = strchr(p, ',');
    if (comma) *comma = 0;
    PCH1 slash = strchr(p, '/');
    if (slash) *slash = 0;
    SA* e = &arr[*pCount];
    void* target = family == AF_INET ? (void*)&((sockaddr_in*)e)->sin_addr
                                     : (void*)&((sockaddr_in6*)e)->sin6_addr;
    int ok = inet_pton(family, p, target);
    if (slash) *slash = '/';
    if (ok != 1) {
      free(arr);
      return ERR_INVALID_ADDR;
    }
    ((sockaddr_in*)e)->sin_family = (sa_family_t)family;
    ((sockaddr_in*)e)->sin_port = slash ? (UI2)strtol(slash + 1, nullptr, 10) : defBits;
    (*pCount)++;
    if (!comma) break;
    *comma = ',';
    p = comma + 1;
  }
  *pArray = arr;
  return 0;
}

SI4 RANGES::SetAddr4(PCH1 text) { return SetRanges(text, AF_INET, 32, &paddr4, &c4); }

SI4 RANGES::SetAddr6(PCH1 text) { return SetRanges(text, AF_INET6, 128, &paddr6, &c6); }

static bool PrefixMatch(const UI1* a, const UI1* b, UI4 bits, UI4 width) {
  UI4 whole = (bits < width ? bits : width) / 8;
  if (memcmp(a, b, whole) != 0) return false;
  if (bits <= width && (bits & 7)) {
    UI1 mask = (UI1)(0xff << (8 - (bits & 7)));
    if ((a[whole] & mask) != (b[whole] & mask)) return false;
  }
  return true;
}

SI4 RANGES::IsValid(TALSOCKADDR* addr) {
  const UI1* bytes;
  bool v4;
  if (addr->ss_family == AF_INET) {
    bytes = (const UI1*)&((sockaddr_in*)addr)->sin_addr;
    v4 = true;
  } else if (addr->ss_family == AF_INET6) {
    static const UI1 mapped[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};
    bytes = (const UI1*)&((sockaddr_in6*)addr)->sin6_addr;
    v4 = memcmp(bytes, mapped, 12) == 0;
    if (v4) bytes += 12;
  } else {
    return 0;
  }
  SI4 count = v4 ? c4 : c6;
  if (count == 0) return 1;
  // A failed SetAddr leaves a count with no array: nothing can match then.
  if (count < 0 || (v4 ? (void*)paddr4 : (void*)paddr6) == nullptr) return 0;
  for (SI4 i = 0; i < count; i++) {
    const UI1* entry = v4 ? (const UI1*)&paddr4[i].sin_addr : (const UI1*)&paddr6[i].sin6_addr;
    UI4 bits = v4 ? paddr4[i].sin_port : paddr6[i].sin6_port;
    if (PrefixMatch(bytes, entry, bits, v4 ? 32 : 128)) return 1;
  }
  return 0;
}
