// The plain socket: one recv and one send per call, so that no connection
// holds the work thread for long, and EAGAIN is never an error.
#include "socket.h"

#include <fcntl.h>
#include <netinet/tcp.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "log.h"
#include "pelkoerr.h"
#include "talplat.h"

#define MODULE 0x00000200

void SockErrLog(int err, const char* name) {
  char text[160];
  snprintf(text, sizeof(text), "ERROR %ld returned from function <%s>", (long)err, name);
  LOGStr(text);
}

void AbortiveClose(SOCKET s) {
  struct linger l = {1, 0};
  setsockopt(s, SOL_SOCKET, SO_LINGER, &l, sizeof(l));
  close(s);
}

static SOCKERR NonBlock(SOCKET s) {
  int flags = fcntl(s, F_GETFL, 0);
  if (flags == -1 || fcntl(s, F_SETFL, flags | O_NONBLOCK) == -1) return errno;
  return 0;
}

RPCSOCK::RPCSOCK(SOCKET s) : sock(s), paaInfo(), lError(0) { NonBlock(sock); }

RPCSOCK::RPCSOCK(PCH10 host, PCH10 port, bool listen, PROTOCOL prot, int type)
    : sock(INVALID_SOCKET), paaInfo(), lError(0) {
  lError = CreateSocketNew(&sock, host, port, type, prot, listen);
  if (lError) return;
  if (type == SOCK_STREAM && listen && ::listen(sock, 2) != 0) {
    SockErrLog(errno, "listen");
    lError = ERR_LISTEN;
    return;
  }
  NonBlock(sock);
}

RPCSOCK::~RPCSOCK() {
  if (isValid()) close(sock);
  LOG(1, ("Socket closed %d ", sock));
  paaInfo[0] = VAFree(paaInfo[0]);
  paaInfo[1] = VAFree(paaInfo[1]);
}

void RPCSOCK::CloseSocket() {
  if (!isValid()) return;
  close(sock);
  sock = INVALID_SOCKET;
}

SOCKERR RPCSOCK::SetNonBlock() { return NonBlock(sock); }

// Both times come in milliseconds and go to the system in whole seconds,
// rounded. The count of probes stays the system's.
SOCKERR RPCSOCK::SetKeepalive(UI4 time, UI4 interval) {
  int on = time != 0;
  if (setsockopt(sock, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof(on)) != 0 && errno) return errno;
  if (!time) return 0;
  int v = ((SI4)interval + 501) / 1000;
  if (setsockopt(sock, IPPROTO_TCP, TCP_KEEPINTVL, &v, sizeof(v)) != 0) return errno;
  v = ((SI4)time + 501) / 1000;
  if (setsockopt(sock, IPPROTO_TCP, TCP_KEEPIDLE, &v, sizeof(v)) != 0) return errno;
  return 0;
}

// The local address; a failure is logged and left in lError.
static bool SockName(RPCSOCK* s, TALSOCKADDR* a) {
  socklen_t len = sizeof(*a);
  if (getsockname(s->sock, (sockaddr*)a, &len) == 0) return true;
  SockErrLog(errno, "getsockname");
  s->lError = ERR_SOCK_PORT;
  return false;
}

SOCKIPADDR RPCSOCK::IpAddr() {
  TALSOCKADDR a = {};
  return SockName(this, &a) ? ntohl(((sockaddr_in*)&a)->sin_addr.s_addr) : 0;
}

// The port sits at the same place for both families.
SOCKPORT RPCSOCK::Port() {
  TALSOCKADDR a = {};
  return SockName(this, &a) ? ntohs(((sockaddr_in*)&a)->sin_port) : 0;
}

SOCKET RPCSOCK::RawSocket() { return sock; }

// An end is described once; the description outlives a later close.
SI4 RPCSOCK::Info(bool local, PPAA out) {
  PAA& entry = paaInfo[local ? 0 : 1];
  if (!entry) {
    TALSOCKADDR a = {};
    if (Addr(local, &a) != 0) return ERR_CALL_FAILED;
    SI4 rc = SockAddr2pAA(&a, &entry);
    if (rc) {
      entry = VAFree(entry);
      return rc;
    }
  }
  VAIncRef(entry);
  *out = entry;
  return 0;
}

SI4 RPCSOCK::Addr(bool local, TALSOCKADDR* addr) {
  socklen_t len = sizeof(TALSOCKADDR);
  return local ? getsockname(sock, (sockaddr*)addr, &len)
               : getpeername(sock, (sockaddr*)addr, &len);
}

SOCKERR RPCSOCK::SetNoDelay() {
  int on = 1;
  return setsockopt(sock, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
}

SOCKERR RPCSOCK::SetNoSignal() { return 0; }

bool RPCSOCK::isValid() { return sock != INVALID_SOCKET; }

bool RPCSOCK::isConnected() {
  int err = 0;
  socklen_t len = sizeof(err);
  if (getsockopt(sock, SOL_SOCKET, SO_ERROR, &err, &len) != 0) {
    SockErrLog(err, "IsConnected");
    return false;
  }
  return err == 0;
}

// What one recv or send came to: EAGAIN is no error, a received 0 is the
// peer's close, and bytes move the cursor.
static SOCKERR Settle(ssize_t r, int err, PBUFFER buffer, const char* name, bool recv) {
  if (r < 0) {
    if (err == EAGAIN || err == EWOULDBLOCK) return 0;
    SockErrLog(err, name);
    return recv ? ERR_RECV : ERR_SEND;
  }
  if (r == 0 && recv) return ERR_CLOSED;
  buffer->NextProcessed((UI4)r);
  return 0;
}

SOCKERR RecvPartial(int sock, PBUFFER buffer) {
  ssize_t r = recv(sock, buffer->Next(), buffer->Remaining(), 0);
  int err = errno;
  LOG(4, ("RecvPartial %4d %5zd %8p %25.0f", sock, r, (void*)buffer->Next(), Micros()));
  return Settle(r, err, buffer, "recv", true);
}

// MSG_NOSIGNAL: a peer that has gone gives an error, never a signal that
// would end the host process from a host thread.
SOCKERR SendPartial(int sock, PBUFFER buffer) {
  ssize_t r = send(sock, buffer->Next(), buffer->NextSize(), MSG_NOSIGNAL);
  int err = errno;
  LOG(4, ("SendPartial %4d %5zd %8p %25.0f", sock, r, (void*)buffer->Next(), Micros()));
  return Settle(r, err, buffer, "send", false);
}

SOCKERR RPCSOCK::Read(PBUFFER buffer) { return RecvPartial(sock, buffer); }

SOCKERR RPCSOCK::Write(PBUFFER buffer) { return SendPartial(sock, buffer); }

SI4 RPCSOCK::RecvFrom(PBUFFER buffer, TALSOCKADDR* addr) {
  socklen_t len = sizeof(TALSOCKADDR);
  ssize_t r = recvfrom(sock, buffer->Next(), buffer->Remaining(), 0, (sockaddr*)addr, &len);
  int err = errno;
  LOG(4, ("RecvPartial %4d %5zd %8p %25.0f", sock, r, (void*)buffer->Next(), Micros()));
  return Settle(r, err, buffer, "recvfrom", true);
}

SI4 RPCSOCK::SendTo(PBUFFER buffer, TALSOCKADDR* addr) {
  ssize_t r = sendto(sock, buffer->Next(), buffer->NextSize(), MSG_NOSIGNAL, (sockaddr*)addr,
                     sizeof(TALSOCKADDR));
  int err = errno;
  LOG(4, ("SendTo %4d %5zd %8p %25.0f", sock, r, (void*)buffer->Next(), Micros()));
  return Settle(r, err, buffer, "sendto", false);
}

SOCKERR RPCSOCK::Accept(PRPCSOCK* out) {
  *out = nullptr;
  SOCKET s;
  if (SfAccept(sock, &s) != 0) return ERR_ACCEPT;
  *out = new RPCSOCK(s);
  return 0;
}

SOCKERR RPCSOCK::Shutdown() {
  if (shutdown(sock, SHUT_WR) == 0) return 0;
  SockErrLog(errno, "shutdown");
  return errno;
}

SOCKERR RPCSOCK::Handshake(bool) { return 0; }

// A descriptor beyond the select bound is left out of the set: fd_set has
// no room for it, and select would not look at it anyway.
static bool Watchable(SOCKET s) { return s >= 0 && s < SELECT_LIMIT; }

SOCKERR RPCSOCK::Wait4R(SOCKETSETS* sets) {
  if (Watchable(sock)) FD_SET(sock, &sets->sRead);
  LOG(4, ("Check read  %d ", sock));
  return 0;
}

SOCKERR RPCSOCK::Wait4W(SOCKETSETS* sets) {
  if (Watchable(sock)) FD_SET(sock, &sets->sWrite);
  LOG(4, ("Check write %d ", sock));
  return 0;
}

SI4 RPCSOCK::Ready4R(SOCKETSETS* sets) {
  if (!isValid() || !Watchable(sock)) return 0;
  SI4 r = FD_ISSET(sock, &sets->sRead) ? 1 : 0;
  LOG(4, ("%d Ready %d for read", sock, r));
  return r;
}

SI4 RPCSOCK::Ready4W(SOCKETSETS* sets) {
  if (!isValid() || !Watchable(sock)) return 0;
  SI4 r = FD_ISSET(sock, &sets->sWrite) ? 1 : 0;
  LOG(4, ("%d Ready %d for write", sock, r));
  return r;
}

PAA RPCSOCK::paaCert(bool) { return VANewVector(VAC1, 0); }

SI4 RPCSOCK::Subject(PCH1 buf, UI4 size) {
  if (!size || !buf) return ERR_LENGTH;
  buf[0] = 0;
  return 0;
}

SI4 RPCSOCK::PendingRead() { return 0; }
SI4 RPCSOCK::SaveCred() { return 0; }
bool RPCSOCK::IsIn(PCertCollection certs) { return certs == nullptr; }
