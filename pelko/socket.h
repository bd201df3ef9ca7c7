// One non-blocking socket behind virtual operations, the sets a round of
// select works on, and the free functions that create, resolve and describe
// sockets. The TLS socket derives from RPCSOCK and replaces some operations.
#pragma once

#include <netinet/in.h>
#include <sys/select.h>

#include "buffer.h"
#include "rpcobjs.h"
#include "vapl.h"

typedef int SOCKET;
#define INVALID_SOCKET ((SOCKET)(~0))
typedef SI4 SOCKERR;
typedef UI4 SOCKIPADDR;
typedef UI2 SOCKPORT;

// Descriptors at or above this are never watched: select is always given
// 1023 as its bound.
#define SELECT_LIMIT 1023

typedef struct SOCKETSETS {
  SI4 cntBuffered;  // sockets with data held above the descriptor (TLS)
  fd_set sRead;
  fd_set sWrite;
  fd_set sExcept;
} SOCKETSETS;

struct CERTDATA;
typedef CERTDATA* PCERTDATA;
struct CertCollection;
typedef CertCollection* PCertCollection;

class RPCSOCK;
typedef RPCSOCK* PRPCSOCK;

class RPCSOCK {
 public:
  explicit RPCSOCK(SOCKET s);
  RPCSOCK(PCH10 host, PCH10 port, bool listen, PROTOCOL prot, int type);
  virtual ~RPCSOCK();

  virtual void CloseSocket();
  virtual SOCKERR SetNonBlock();
  virtual SOCKERR SetKeepalive(UI4 time, UI4 interval);
  virtual SOCKIPADDR IpAddr();
  virtual SOCKPORT Port();
  virtual SOCKET RawSocket();
  virtual SI4 Info(bool local, PPAA out);
  virtual SI4 Addr(bool local, TALSOCKADDR* addr);
  virtual SOCKERR SetNoDelay();
  virtual SOCKERR SetNoSignal();
  virtual bool isValid();
  virtual bool isConnected();
  virtual SOCKERR Read(PBUFFER buffer);
  virtual SI4 RecvFrom(PBUFFER buffer, TALSOCKADDR* addr);
  virtual SOCKERR Write(PBUFFER buffer);
  virtual SI4 SendTo(PBUFFER buffer, TALSOCKADDR* addr);
  virtual SOCKERR Accept(PRPCSOCK* out);
  virtual SOCKERR Shutdown();
  virtual SOCKERR Handshake(bool server);
  virtual SOCKERR Wait4R(SOCKETSETS* sets);
  virtual SOCKERR Wait4W(SOCKETSETS* sets);
  virtual SI4 Ready4R(SOCKETSETS* sets);
  virtual SI4 Ready4W(SOCKETSETS* sets);
  virtual PAA paaCert(bool own);
  virtual SI4 Subject(PCH1 buf, UI4 size);
  virtual SI4 PendingRead();
  virtual SI4 SaveCred();
  virtual bool IsIn(PCertCollection certs);

  SOCKET sock;
  PAA paaInfo[2];
  SI4 lError;
};

SOCKERR RecvPartial(int sock, PBUFFER buffer);
SOCKERR SendPartial(int sock, PBUFFER buffer);
// "ERROR %ld returned from function <%s>" into the log.
void SockErrLog(int err, const char* name);
// Closes a socket abortively, so no TIME_WAIT is left behind.
void AbortiveClose(SOCKET s);

// Addressing.
extern int IPV6Available;
void ProbeIPv6();
SI4 CreateSocketNew(SOCKET* out, PCH1 host, PCH1 port, int type, PROTOCOL prot, bool listen);
SI4 CreateSocket(SOCKET* out, int type, TALSOCKADDR* addr);
SI4 GetIPAddr(PCH1 host, PCH1 port, int type, PROTOCOL prot, bool passive, TALSOCKADDR* out);
PRPCSOCK NewSock(PHIERAKI root, PCH1 host, PCH1 port, bool listen, PCERTDATA cert,
                 PROTOCOL prot, SI4* err);
SI4 IPLookup(PCH1 host, PCH1 port, PROTOCOL prot, PPAA out);
SI4 IPv4Addrs(PPAA out);
SI4 SockAddr2pAA(TALSOCKADDR* addr, PPAA out);
char* inet_ntop6(const unsigned char* src, char* dst, unsigned int size);

// Allowed or denied address ranges. An entry keeps its prefix length in
// the port field. Both lists empty passes every address.
class RANGES {
 public:
  RANGES();
  ~RANGES();
  SI4 SetAddr4(PCH1 text);
  SI4 SetAddr6(PCH1 text);
  SI4 IsValid(TALSOCKADDR* addr);

  SI4 c4;
  SI4 c6;
  sockaddr_in* paddr4;
  sockaddr_in6* paddr6;
};
typedef RANGES* PRANGES;

// Select and the wake-up pair.
SI4 Clear(SOCKETSETS* sets);
SI4 SfWait(SOCKETSETS* sets, UI4 seconds, SI4* ready);
SI4 SfAccept(SOCKET listener, SOCKET* out);
SI4 RPCSockPair(PRPCSOCK* accepted, PRPCSOCK* connected);
