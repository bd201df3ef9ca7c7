// UDP: one datagram socket, and under it a node for each remote endpoint,
// created on first sight. Datagrams arrive and leave as messages under the
// endpoint's node.
#pragma once

#include "rpcobjs.h"
#include "socket.h"

// Base 64 of 16 address bytes, ':', four hexadecimal digits, terminator.
#define UDP_NAMELEN 32

class UDPADDR : public RPCOBJS {
 public:
  UDPADDR();
  explicit UDPADDR(TALSOCKADDR a);
  ~UDPADDR() override;

  void SetAddr(TALSOCKADDR a) { addr = a; }
  SI4 SetAddr(PCH10 host, PCH10 port, PROTOCOL prot);
  TALSOCKADDR* GetAddr() { return &addr; }
  SI4 SendZ(PHIERAKI pItem, PCH10 name, PUI4 z, UI4 size, UI4 flag) override;
  SI4 SendBuffer(PHIERAKI pItem, PCH10 name, PBUFFER pBuffer, UI4 flag) override;
  SI4 GetRPCProp(PCH1 name, PAA arg, PPAA ppOut) override;

  PAA paaInfo;
  TALSOCKADDR addr;
  std::atomic<UI4> NameCnt;
};
typedef UDPADDR* PUDPADDR;

class UDP : public RPCOBJS {
 public:
  explicit UDP(UI4 size);
  ~UDP() override;

  SI4 Bind(PCH10 host, PCH10 port, PROTOCOL prot);
  SI4 Init(PROTOCOL prot);
  // The node name of a peer; out holds UDP_NAMELEN bytes.
  static SI4 Name(PCH1 out, TALSOCKADDR* a);
  SI4 SendZ(PHIERAKI pItem, PCH10 name, PUI4 z, UI4 size, UI4 flag) override;
  SI4 SetRPCProp(PHIERAKI pItem, PCH1 name, PAA value) override;
  SI4 GetRPCProp(PCH1 name, PAA arg, PPAA ppOut) override;
  SI4 Check(PFDSETS fds) override;
  SI4 Setinfo(PFDSETS fds) override;
  SI4 Execute(PFDSETS fds) override;

  UI4 MaxBlockSize;
  PRPCSOCK pSocket;
  PBUFFER pBuf;
  PBUFFER pWrite;
  PHIERAKI phWrite;
  PROTOCOL Prot;
  std::atomic<SI4> MaxOld;

 private:
  // False when the socket failed.
  bool Receive(PFDSETS fds);
  void SendStep();
};
typedef UDP* PUDP;
