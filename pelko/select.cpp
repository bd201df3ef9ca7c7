// The one place the work thread sleeps, and the loopback connection that
// host threads wake it through.
#include <arpa/inet.h>
#include <netdb.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "log.h"
#include "pelkoerr.h"
#include "socket.h"

#define MODULE 0x00000200

SI4 Clear(SOCKETSETS* sets) {
  sets->cntBuffered = 0;
  FD_ZERO(&sets->sRead);
  FD_ZERO(&sets->sWrite);
  FD_ZERO(&sets->sExcept);
  return 0;
}

// Data held above a descriptor (TLS) is invisible to select, so with any of
// it the wait only polls.
SI4 SfWait(SOCKETSETS* sets, UI4 seconds, SI4* ready) {
  timeval tv = {sets->cntBuffered ? 0 : (time_t)seconds, sets->cntBuffered ? 1 : 0};
  LOG(4, ("Select suspend"));
  *ready = select(SELECT_LIMIT, &sets->sRead, &sets->sWrite, nullptr, &tv);
  LOG(4, ("Select %d ready", *ready));
  if (*ready >= 0) {
    *ready += sets->cntBuffered;
    return 0;
  }
  int e = errno;
  SockErrLog(e, "select");
  SockErrLog(e == EINTR ? 0 : e, "select interupt cleared");
  return e == EINTR ? 0 : e;
}

SI4 SfAccept(SOCKET listener, SOCKET* out) {
  TALSOCKADDR a;
  socklen_t len = sizeof(a);
  *out = accept(listener, (sockaddr*)&a, &len);
  if (*out < 0) {
    *out = INVALID_SOCKET;
    SockErrLog(errno, "accept");
    return ERR_ACCEPT;
  }
  return 0;
}

// Resolves localhost for the wake-up pair's client: the first stream TCP
// result of either family.
static SI4 LocalhostAt(SOCKPORT port, TALSOCKADDR* out) {
  char service[8];
  snprintf(service, sizeof(service), "%u", port);
  addrinfo hints = {};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_protocol = IPPROTO_TCP;
  addrinfo* list = nullptr;
  int e = getaddrinfo("localhost", service, &hints, &list);
  LOG(4, ("getaddrinfo returned %d", e));
  SI4 rc = ERR_INVALID_HOST;
  for (addrinfo* a = e ? nullptr : list; a; a = a->ai_next) {
    LOG(6, ("GetAddrInfo %d %d %d %d", a->ai_family, a->ai_socktype, a->ai_protocol,
            (int)a->ai_addrlen));
    if ((a->ai_family != AF_INET && a->ai_family != AF_INET6) ||
        a->ai_socktype != SOCK_STREAM || a->ai_protocol != IPPROTO_TCP)
      continue;
    memset(out, 0, sizeof(*out));
    memcpy(out, a->ai_addr, a->ai_addrlen);
    if (LOGif(0, MODULE, 9)) LOGHex((const char*)out, sizeof(*out));
    rc = 0;
    break;
  }
  if (list) freeaddrinfo(list);
  return rc;
}

// The listener takes loopback only, with a port the system picks: no other
// machine can reach it in the moment it is open.
static SI4 ListenLocal(PRPCSOCK listener) {
  TALSOCKADDR local = {};
  sockaddr_in* in = (sockaddr_in*)&local;
  in->sin_family = AF_INET;
  in->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  SI4 rc = CreateSocket(&listener->sock, SOCK_STREAM, &local);
  LOG(1, ("RPCSOCK %p %s %d %d %d ", (void*)listener, "pair", listener->sock, rc, 0));
  if (rc) return rc;
  if (listen(listener->sock, 2) != 0) {
    SockErrLog(errno, "listen");
    return ERR_LISTEN;
  }
  LOG(2, ("Listen %d ", listener->sock));
  return listener->SetNonBlock();
}

static SI4 ConnectTo(TALSOCKADDR* to, PRPCSOCK client) {
  TALSOCKADDR any = {};
  any.ss_family = to->ss_family;
  SI4 rc = CreateSocket(&client->sock, SOCK_STREAM, &any);
  if (rc) return rc;
  socklen_t len = to->ss_family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
  if (connect(client->sock, (sockaddr*)to, len) != 0) {
    SockErrLog(errno, "connect");
    AbortiveClose(client->sock);
    client->sock = INVALID_SOCKET;
    return ERR_CONNECT_DATA;
  }
  LOG(2, ("Connect %d ", client->sock));
  return client->SetNonBlock();
}

// Whether the accepted end is really talking to our own client: another
// local process could have connected first.
static bool SamePeer(PRPCSOCK accepted, PRPCSOCK client) {
  TALSOCKADDR peer = {}, own = {};
  if (accepted->Addr(false, &peer) != 0 || client->Addr(true, &own) != 0) return false;
  if (peer.ss_family != own.ss_family) return false;
  size_t len = peer.ss_family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
  return memcmp(&peer, &own, len) == 0;
}

SI4 RPCSockPair(PRPCSOCK* accepted, PRPCSOCK* connected) {
  *accepted = nullptr;
  *connected = nullptr;
  ProbeIPv6();
  LOG(1, ("RPCSockPair "));
  PRPCSOCK listener = new RPCSOCK(INVALID_SOCKET);
  SI4 rc = ListenLocal(listener);
  TALSOCKADDR to;
  if (!rc) {
    SOCKPORT port = listener->Port();
    LOG(2, ("GetIPAddr %d ", port));
    rc = LocalhostAt(port, &to);
  }
  if (!rc) {
    *connected = new RPCSOCK(INVALID_SOCKET);
    rc = ConnectTo(&to, *connected);
  }
  if (!rc) {
    SOCKETSETS sets;
    SI4 ready = 0;
    Clear(&sets);
    listener->Wait4R(&sets);
    SfWait(&sets, 2, &ready);
    LOG(2, ("wait %d ", ready));
    if (ready > 0 && listener->Ready4R(&sets)) listener->Accept(accepted);
    LOG(2, ("Accept %d ", *accepted ? (*accepted)->sock : -1));
    if (!*accepted || !SamePeer(*accepted, *connected)) rc = ERR_NEW_DATA_SOCKET;
  }
  delete listener;
  if (rc) {
    delete *accepted;
    delete *connected;
    *accepted = nullptr;
    *connected = nullptr;
    return rc;
  }
  (*connected)->SetNoDelay();
  return 0;
}
