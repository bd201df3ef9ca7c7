// The debug link's settings: the host's ZUNO_INIT line (direction,
// address, port, configuration file), the older ZUNO\LISTEN and
// ZUNO\CONNECT settings, and an ini file with everything else.
#pragma once

#include <cstddef>

#include "rpcobjs.h"
#include "socket.h"

#define ZUNOMAGIC 0x5A554E4F  // "ZUNO"
#define ZUNOMAXBLOCKSIZE 0x1000000
#define ZUNODEFAULTPORT 4502

enum TDirection : SI4 {
  DIRUndefined = 0,
  DIRConnect = 1,
  DIRListen = 2,
  DIRPoll = 3,
  DIRConfig = 4,
  DIRHttp = 5
};

enum TSecure : SI4 { SECPlain = 0, SECSecure = 1, SECAnonymous = 2 };

typedef SI4 (*TCommNotify)(UI4 event, PVOID item);
typedef SI4 (*TCommConfig)(PCH1 key, PCH1 value, size_t size);

struct CertCollection;
class TALTHREAD;

typedef struct tZuno2Config {
  TCommNotify CommNotify;
  TCommConfig CommConfig;
  char ConfigFile[1024];
  TDirection Direction;
  PCH1 pAddress;
  UI4 Port;
  UI4 MaxBlockSize;
  UI4 SSLValidation;
  PROTOCOL Protocol;
  TSecure Secure;
  PCH1 pPublicCertData;
  PCH1 pPublicCertFile;
  PCH1 pPrivateKeyData;
  PCH1 pPrivateKeyFile;
  PCH1 pRootCertDir;
  PCH1 pPriority;
  UI4 Magic;
  UI4 Trace;
  PCH1 pLogfilename;
  PCH1 pCurrentConnection;
  PCH1 pHttpDir;
  TALTHREAD* pConnectThread;
  PCERTDATA pCert;
  PRANGES pAllow;
  PRANGES pDeny;
  SI4 lError;
  PCH1 pAcceptCertDir;
  CertCollection* pAcceptCertList;
  UI4 KAtime;
  UI4 KAint;
} tZuno2Config;
typedef tZuno2Config* PZuno2Config;

// Fills cfg from the host's settings and the ini file: 0 or a code.
SI4 Zuno2ReadConfigfile(PZuno2Config cfg);
// One address text of ZUNO\LISTEN or ZUNO\CONNECT: "address:port", with
// the address in brackets when it holds colons, and "[ipv4]", "[ipv6]" or
// "[dual]" behind it.
void rs_parse(PZuno2Config cfg, PCH1 start, PCH1 end);
// Clears the parser's error flag, which otherwise lasts for the process:
// for tests and fuzzing, never called by the library itself.
void Zuno2ParserReset();
// The allowed and denied address ranges of the ini file.
SI4 Zuno2Peers(PZuno2Config cfg);
// The link's TLS record from the file's certificate, key and root settings,
// into cfg->pCert; the roots go to the link's store.
SI4 Zuno2Cert(PZuno2Config cfg);
// A new record of the same settings. A socket takes the certificates and
// the key of the record it starts with, so every listener and every
// connection attempt of the link gets a record of its own.
SI4 Zuno2NewCert(PZuno2Config cfg, PCERTDATA* out);
// Frees a configuration and all it owns.
void FreeZuno2Config(PZuno2Config cfg);
// The default directory of the web pages.
void ZunoHttpDir(PCH1 dir);
