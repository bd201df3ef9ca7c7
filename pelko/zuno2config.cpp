// Reading the debug link's settings. The ZUNO_INIT line is a list of items
// separated by commas ("serve:address:port", "connect:...", "poll:...",
// "http:...", "config:path"); the parser's error flag outlives a parse, so
// once a text has failed, every later one fails too, as the host expects.
#include "zuno2config.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <strings.h>

#include "certdata.h"
#include "ifzuno2.h"
#include "log.h"
#include "pelkoerr.h"
#include "pelkossl.h"
#include "rootcerts.h"
#include "talplat.h"

#define MODULE 0x00000800

// Rooms of the host's settings and of the parser's work buffers.
#define ZUNO_SETTING_ROOM 2048
#define ZUNO_PATH_ROOM 1024
#define ZUNO_WORD_ROOM 512
#define ZUNO_RANGE_ROOM 2048
#define ZUNO_HTTPDIR "/opt/zuno-4.1/resources/app/"

static int rs_error = 0;

void Zuno2ParserReset() { rs_error = 0; }

void ZunoHttpDir(PCH1 dir) { strcpy(dir, ZUNO_HTTPDIR); }

// An address, in brackets or up to the next ':' or the end. Blanks are
// dropped; a bracket inside, or more than the room holds, is an error.
static PCH1 Address(PCH1 p, PCH1 end, PCH1 out) {
  size_t n = 0;
  bool bracket = p < end && *p == '[';
  if (bracket) p++;
  for (; p < end && (bracket ? *p != ']' : *p != ':'); p++) {
    if (*p == ' ' || *p == '\t') continue;
    if (*p == '[' || *p == ']') {
      rs_error = 1;
      continue;
    }
    if (n + 1 >= ZUNO_WORD_ROOM) {
      rs_error = 1;
      continue;
    }
    out[n++] = *p;
  }
  out[n] = 0;
  if (bracket) {
    if (p < end)
      p++;
    else
      rs_error = 1;
  }
  return p;
}

// Decimal digits of a port; none gives the default, more than 16 bits an
// error.
static PCH1 PortDigits(PCH1 p, PCH1 end, UI4* port) {
  if (p >= end || !isdigit((unsigned char)*p)) {
    *port = ZUNODEFAULTPORT;
    return p;
  }
  UI8 v = 0;
  for (; p < end && isdigit((unsigned char)*p); p++)
    if (v <= 0xFFFF) v = v * 10 + (UI4)(*p - '0');
  if (v > 0xFFFF) {
    rs_error = 1;
    *port = 0xFFFFFFFFu;
  } else {
    *port = (UI4)v;
  }
  return p;
}

static char* CopyText(const char* s) { return strdup(s ? s : ""); }

void rs_parse(PZuno2Config cfg, PCH1 start, PCH1 end) {
  char address[ZUNO_WORD_ROOM] = "";
  PCH1 p = Address(start, end, address);
  if (p < end) {
    if (*p == ':')
      p++;
    else
      rs_error = 1;
  }
  p = PortDigits(p, end, &cfg->Port);
  if (p < end && *p == '[') {
    cfg->Protocol = PMAX;
    p++;
    if (end - p >= 4 && p[0] == 'i' && p[1] == 'p' && p[2] == 'v' && p[3] == '6') {
      cfg->Protocol = PIPv6;
      p += 4;
    } else if (end - p >= 4 && strncmp(p, "dual", 4) == 0) {
      cfg->Protocol = PAny;
      p += 4;
    } else if (end - p >= 4 && strncmp(p, "ipv4", 4) == 0) {
      cfg->Protocol = PIPv4;
      p += 4;
    } else {
      rs_error = 1;
    }
    if (p < end && *p == ']')
      p++;
    else
      rs_error = 1;
  } else {
    cfg->Protocol = PAny;
  }
  if (p == end && !rs_error) {
    free(cfg->pAddress);
    cfg->pAddress = CopyText(address);
  } else {
    cfg->Direction = DIRUndefined;
  }
}

static bool Keyword(PCH1 p, PCH1 end, const char* word) {
  size_t n = strlen(word);
  return (size_t)(end - p) >= n && strncasecmp(p, word, n) == 0;
}

// The ZUNO_INIT line into direction, address, port and file.
static SI4 ParseInit(PZuno2Config cfg, PCH1 p, PCH1 end) {
  static const struct {
    const char* word;
    TDirection dir;
  } kWords[] = {{"connect", DIRConnect}, {"serve", DIRListen}, {"poll", DIRPoll}, {"config", DIRConfig}, {"http", DIRHttp}};
  char address[ZUNO_WORD_ROOM] = "", path[ZUNO_WORD_ROOM] = "";
  while (p < end) {
    int k = 0;
    while (k < 5 && !Keyword(p, end, kWords[k].word)) k++;
    if (k == 5) {
      // The cursor would stand still on what no keyword fits: the parse
      // ends here, failed, instead of going round for ever.
      rs_error = 1;
      break;
    }
    p += strlen(kWords[k].word);
    if (kWords[k].dir != DIRConfig) {
      if (cfg->Direction != DIRUndefined) rs_error = 1;
      else cfg->Direction = kWords[k].dir;
      cfg->Protocol = PAny;
      if (p < end && *p == ':') p++;
      else rs_error = 1;
      p = Address(p, end, address);
      if (p < end && *p == ':') p++;
      else rs_error = 1;
      p = PortDigits(p, end, &cfg->Port);
    } else {
      if (path[0]) rs_error = 1;
      if (p < end && *p == ':') {
        size_t n = 0;
        for (p++; p < end && *p != ','; p++) {
          if (*p == '[' || *p == ']' || n + 1 >= ZUNO_WORD_ROOM) {
            rs_error = 1;
            continue;
          }
          path[n++] = *p;
        }
        path[n] = 0;
      }
    }
    if (p < end && *p == ',') {
      p++;
      if (p == end) rs_error = 1;
    } else if (p < end) {
      rs_error = 1;
      break;
    }
  }
  if (p != end || rs_error) {
    cfg->Direction = DIRUndefined;
    return ERR_PARSE_ZUNO_INIT;
  }
  free(cfg->pAddress);
  cfg->pAddress = CopyText(address);
  if (cfg->Direction == DIRUndefined) cfg->Direction = DIRConfig;
  snprintf(cfg->ConfigFile, sizeof(cfg->ConfigFile), "%s", path);
  return 0;
}

static void Setting(PZuno2Config cfg, const char* key, PCH1 value, size_t size) {
  value[0] = 0;
  if (cfg->CommConfig) cfg->CommConfig((PCH1)key, value, size);
  value[size - 1] = 0;
}

// A host setting with a single address text, for a direction not yet set.
static SI4 OlderSetting(PZuno2Config cfg, const char* key, TDirection dir, SI4 code) {
  char value[ZUNO_SETTING_ROOM];
  Setting(cfg, key, value, sizeof(value));
  if (cfg->Direction != DIRUndefined || !value[0]) return 0;
  cfg->Direction = dir;
  rs_parse(cfg, value, value + strlen(value));
  return cfg->Direction == DIRUndefined ? code : 0;
}

// One value of the file; a value longer than the room is cut and still
// ends with a terminator, which the file reader doesn't write for it.
static void Ini(PZuno2Config cfg, const char* section, const char* key, const char* def, PCH1 out, UI4 size) {
  PLATIni((PCH1)section, (PCH1)key, (PCH1)def, out, size, cfg->ConfigFile);
  out[size - 1] = 0;
}

static UI4 IniNumber(PZuno2Config cfg, const char* key, UI4 def) {
  char value[64];
  Ini(cfg, "Zuno", key, "", value, sizeof(value));
  return value[0] ? (UI4)strtol(value, nullptr, 10) : def;
}

static void IniText(PZuno2Config cfg, const char* key, PCH1* field) {
  free(*field);
  *field = nullptr;
  char value[ZUNO_PATH_ROOM];
  Ini(cfg, "Zuno", key, "", value, sizeof(value));
  if (value[0]) *field = strdup(value);
}

// The direction and the address from the file, when the host left them.
static SI4 IniDirection(PZuno2Config cfg) {
  char value[ZUNO_SETTING_ROOM];
  Ini(cfg, "Zuno", "Direction", "notfound", value, sizeof(value));
  SI4 rc = strcmp(value, "notfound") == 0 ? ERR_ZUNO_INI_NOT_FOUND : 0;
  static const struct {
    const char* word;
    TDirection dir;
  } kDirs[] = {{"listen", DIRListen}, {"connect", DIRConnect}, {"poll", DIRPoll}, {"http", DIRHttp}};
  for (const auto& d : kDirs)
    if (strcasecmp(value, d.word) == 0) cfg->Direction = d.dir;
  Ini(cfg, "Zuno", "address", "", value, sizeof(value));
  if (value[0]) {
    free(cfg->pAddress);
    cfg->pAddress = strdup(value);
  }
  Ini(cfg, "Zuno", "port", "", value, sizeof(value));
  cfg->Port = value[0] ? (UI4)strtol(value, nullptr, 10) : ZUNODEFAULTPORT;
  return rc;
}

// Everything else of the file; each key's absence leaves its default.
static void IniSettings(PZuno2Config cfg) {
  char value[ZUNO_PATH_ROOM];
  cfg->MaxBlockSize = IniNumber(cfg, "MaxBlockSize", ZUNOMAXBLOCKSIZE);
  cfg->SSLValidation = IniNumber(cfg, "SSLValidation", 0);
  Ini(cfg, "Zuno", "Protocol", "", value, sizeof(value));
  cfg->Protocol = strcasecmp(value, "ipv4") == 0 ? PIPv4 : strcasecmp(value, "ipv6") == 0 ? PIPv6 : PAny;
  Ini(cfg, "Zuno", "Secure", "", value, sizeof(value));
  cfg->Secure = strcasecmp(value, "secure") == 0 ? SECSecure : strcasecmp(value, "anonymous") == 0 ? SECAnonymous : SECPlain;
  IniText(cfg, "PublicCertData", &cfg->pPublicCertData);
  IniText(cfg, "PublicCertFile", &cfg->pPublicCertFile);
  IniText(cfg, "PrivateKeyData", &cfg->pPrivateKeyData);
  IniText(cfg, "PrivateKeyFile", &cfg->pPrivateKeyFile);
  IniText(cfg, "RootCertDir", &cfg->pRootCertDir);
  IniText(cfg, "Priority", &cfg->pPriority);
  IniText(cfg, "Logfilename", &cfg->pLogfilename);
  IniText(cfg, "HttpDir", &cfg->pHttpDir);
  if (!cfg->pHttpDir) {
    cfg->pHttpDir = (PCH1)malloc(sizeof(ZUNO_HTTPDIR));
    if (cfg->pHttpDir) ZunoHttpDir(cfg->pHttpDir);
  }
  cfg->Magic = IniNumber(cfg, "Magic", ZUNOMAGIC);
  cfg->Trace = IniNumber(cfg, "Trace", 0);
  free(cfg->pAcceptCertDir);
  cfg->pAcceptCertDir = nullptr;
  if (cfg->Secure == SECSecure) IniText(cfg, "AcceptCertDir", &cfg->pAcceptCertDir);
  cfg->KAtime = IniNumber(cfg, "KeepAliveTime", 0);
  cfg->KAint = IniNumber(cfg, "KeepAliveInterval", 0);
}

SI4 Zuno2Peers(PZuno2Config cfg) {
  static const char* const kSections[] = {"AllowEndpoints", "DenyEndpoints"};
  for (int s = 0; s < 2; s++) {
    PRANGES* ranges = s ? &cfg->pDeny : &cfg->pAllow;
    for (const char* key : {"Ipv6", "Ipv4"}) {
      char value[ZUNO_RANGE_ROOM];
      Ini(cfg, kSections[s], key, "", value, sizeof(value));
      if (!value[0]) continue;
      if (!*ranges) *ranges = new RANGES();
      if (key[3] == '6')
        (*ranges)->SetAddr6(value);
      else
        (*ranges)->SetAddr4(value);
    }
  }
  return 0;
}

SI4 Zuno2NewCert(PZuno2Config cfg, PCERTDATA* out) {
  *out = nullptr;
  if (!PelkosslLoaded()) return ERR_NO_SSL_SUPPORT;
  PCERTDATA c = (PCERTDATA)calloc(1, sizeof(CERTDATA));
  if (!c) return ERR_MEMORY_ALLOC;
  c->refs = 1;
  c->pubCert = CDTRawCert;
  SI4 rc = 0;
  if (cfg->pPublicCertFile) {
    rc = CertsFromPath(c, cfg->pPublicCertFile);
    if (!c->certsCount) rc = ERR_INVALID_CERTIFICATE;
  }
  if (!rc && cfg->pPrivateKeyFile) {
    gnutls_privkey_init(&c->key);
    c->privCert = CDTRawCert;
    if (KeyFromPath(c, cfg->pPrivateKeyFile) < 0 && c->certsCount) rc = ERR_INVALID_CERTIFICATE;
  }
  c->pRootCerts = ZunoRootCerts();
  // A secure link asks for and requires the peer's certificate, an
  // anonymous one never.
  c->flagOption = cfg->SSLValidation;
  if (cfg->Secure == SECSecure)
    c->flagOption += ReqestClientCertificate | RequireClientCertificate;
  else if (cfg->Secure == SECAnonymous)
    c->flagOption &= ~(UI4)(ReqestClientCertificate | RequireClientCertificate);
  if (rc) {
    FreeCert(c);
    return rc;
  }
  *out = c;
  return 0;
}

SI4 Zuno2Cert(PZuno2Config cfg) {
  if (!cfg) return 0;
  SI4 rc = Zuno2NewCert(cfg, &cfg->pCert);
  if (!rc && cfg->pRootCertDir && ZunoRootCerts()) CacheNewRootDir(ZunoRootCerts(), cfg->pRootCertDir);
  return rc;
}

void FreeZuno2Config(PZuno2Config cfg) {
  for (PCH1* text : {&cfg->pAddress, &cfg->pPublicCertData, &cfg->pPublicCertFile, &cfg->pPrivateKeyData,
                     &cfg->pPrivateKeyFile, &cfg->pRootCertDir, &cfg->pPriority, &cfg->pLogfilename,
                     &cfg->pCurrentConnection, &cfg->pHttpDir, &cfg->pAcceptCertDir})
    free(*text);
  FreeCert(cfg->pCert);
  delete cfg->pAllow;
  delete cfg->pDeny;
  delete cfg->pAcceptCertList;
  free(cfg);
}

SI4 Zuno2ReadConfigfile(PZuno2Config cfg) {
  char value[ZUNO_SETTING_ROOM];
  // Listeners and clients hold references of their own.
  FreeCert(cfg->pCert);
  cfg->pCert = nullptr;
  Setting(cfg, "ZUNO\\INIT", value, sizeof(value));
  SI4 rc = 0;
  if (value[0]) {
    rc = ParseInit(cfg, value, value + strlen(value));
    if (!rc && cfg->Direction == DIRUndefined) rc = ERR_PARSE_ZUNO_INIT;
    if (!cfg->ConfigFile[0]) {
      Setting(cfg, "ORVANEUSERDIR", cfg->ConfigFile, sizeof(cfg->ConfigFile));
      size_t n = strlen(cfg->ConfigFile);
      snprintf(cfg->ConfigFile + n, sizeof(cfg->ConfigFile) - n, "%szuno.ini",
               n && cfg->ConfigFile[n - 1] == '/' ? "" : "/");
    }
  }
  SI4 listen = OlderSetting(cfg, "ZUNO\\LISTEN", DIRListen, ERR_ZUNO + 6);
  SI4 connect = OlderSetting(cfg, "ZUNO\\CONNECT", DIRConnect, ERR_ZUNO + 7);
  if (!rc) rc = listen ? listen : connect;
  if (!cfg->ConfigFile[0]) Setting(cfg, "ZUNO\\CONFIGURATION", cfg->ConfigFile, sizeof(cfg->ConfigFile));
  if (rc) return rc;
  if (cfg->Direction == DIRUndefined || cfg->Direction == DIRConfig) rc = IniDirection(cfg);
  IniSettings(cfg);
  Zuno2Peers(cfg);
  if (cfg->Secure > SECPlain && !rc) rc = Zuno2Cert(cfg);
  // The list of accepted peers is read with the companion; without it a
  // secure link can't start anyway.
  delete cfg->pAcceptCertList;
  cfg->pAcceptCertList = nullptr;
  if (cfg->pAcceptCertDir && PelkosslLoaded()) {
    cfg->pAcceptCertList = new CertCollection();
    cfg->pAcceptCertList->LoadCertsFromDir(cfg->pAcceptCertDir);
  }
  LOG(1, ("Zuno config: direction %d address %s port %u file %s", (int)cfg->Direction,
          cfg->pAddress ? cfg->pAddress : "", cfg->Port, cfg->ConfigFile));
  return rc;
}
