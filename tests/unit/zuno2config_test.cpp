// The debug link's settings: the ZUNO_INIT line, the older settings, and
// the ini file. The parser's error flag outlives a parse, so each case
// runs in a child process of its own.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <map>
#include <string>

#include "pelkoerr.h"
#include "zuno2config.h"

namespace {

std::map<std::string, std::string> settings;

SI4 HostSetting(PCH1 key, PCH1 value, size_t size) {
  auto it = settings.find(key);
  snprintf(value, size, "%s", it == settings.end() ? "" : it->second.c_str());
  return 0;
}

struct Parsed {
  SI4 rc;
  tZuno2Config cfg;
};

Parsed Read(std::map<std::string, std::string> s) {
  settings = std::move(s);
  Parsed p = {};
  p.cfg.CommConfig = HostSetting;
  p.rc = Zuno2ReadConfigfile(&p.cfg);
  return p;
}

struct InitCase {
  const char* init;
  SI4 rc;
  TDirection dir;
  const char* address;
  UI4 port;
};

TEST(Zuno2ConfigDeathTest, InitLines) {
  const InitCase cases[] = {
      {"serve::4502", 0, DIRListen, "", 4502},
      {"SERVE:*:4502", 0, DIRListen, "*", 4502},
      {"connect:[fe80::1]:99", 0, DIRConnect, "fe80::1", 99},
      {"connect::4502", 0, DIRConnect, "", 4502},  // not "localhost"
      {"poll:host:", 0, DIRPoll, "host", 4502},
      {"http:127.0.0.1:8080", 0, DIRHttp, "127.0.0.1", 8080},
      {"connect:host:65536", ERR_PARSE_ZUNO_INIT, DIRUndefined, nullptr, 0},
      {"connect:host", ERR_PARSE_ZUNO_INIT, DIRUndefined, nullptr, 0},
      {"serve,connect", ERR_PARSE_ZUNO_INIT, DIRUndefined, nullptr, 0},
      {"serve", ERR_PARSE_ZUNO_INIT, DIRUndefined, nullptr, 0},
      {"serve::1,", ERR_PARSE_ZUNO_INIT, DIRUndefined, nullptr, 0},
      {"listen::1", ERR_PARSE_ZUNO_INIT, DIRUndefined, nullptr, 0},  // no keyword fits
  };
  for (const InitCase& c : cases) {
    SCOPED_TRACE(c.init);
    EXPECT_EXIT(
        {
          Parsed p = Read({{"ZUNO\\INIT", c.init}, {"ORVANEUSERDIR", "/nonexistent"}});
          bool ok = p.rc == c.rc && p.cfg.Direction == c.dir &&
                    (!c.address || (p.cfg.pAddress && std::string(p.cfg.pAddress) == c.address && p.cfg.Port == c.port));
          exit(ok ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
  }
}

TEST(Zuno2ConfigDeathTest, AFailedParseStaysFailed) {
  EXPECT_EXIT(
      {
        Parsed bad = Read({{"ZUNO\\INIT", "serve"}});
        Parsed good = Read({{"ZUNO\\INIT", "serve::4502"}});
        exit(bad.rc == ERR_PARSE_ZUNO_INIT && good.rc == ERR_PARSE_ZUNO_INIT ? 0 : 1);
      },
      testing::ExitedWithCode(0), "");
}

TEST(Zuno2ConfigDeathTest, OlderSettings) {
  const struct {
    const char* key;
    const char* value;
    SI4 rc;
    TDirection dir;
    PROTOCOL prot;
  } cases[] = {
      {"ZUNO\\LISTEN", "[::1]:2000", 0, DIRListen, PAny},
      {"ZUNO\\CONNECT", "host:7[ipv6]", 0, DIRConnect, PAny},  // the file's Protocol wins
      {"ZUNO\\LISTEN", "host:7[ipv9]", ERR_ZUNO + 6, DIRUndefined, PAny},
      {"ZUNO\\CONNECT", "host:x", ERR_ZUNO + 7, DIRUndefined, PAny},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.value);
    EXPECT_EXIT(
        {
          Parsed p = Read({{c.key, c.value}, {"ZUNO\\CONFIGURATION", "/nonexistent.ini"}});
          exit(p.rc == c.rc && p.cfg.Direction == c.dir ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
  }
}

TEST(Zuno2ConfigDeathTest, AFileWithEveryKey) {
  std::string file = "/tmp/pelkozuno" + std::to_string(getpid()) + ".ini";
  std::ofstream(file) << "[Zuno]\nDirection=poll\naddress=example.org\nport=4600\nMaxBlockSize=1000\nSSLValidation=9\n"
                         "Protocol=IPv6\nSecure=anonymous\nPublicCertFile=/c.pem\nPrivateKeyFile=/k.pem\nRootCertDir=/roots\n"
                         "Priority=NORMAL\nLogfilename=/tmp/z.log\nHttpDir=/www/\nMagic=7\nTrace=3\nAcceptCertDir=/acc\n"
                         "KeepAliveTime=30\nKeepAliveInterval=5\n"
                         "[AllowEndpoints]\nIpv4=127.0.0.0/8\n[DenyEndpoints]\nIpv6=::1/128\n";
  EXPECT_EXIT(
      {
        Parsed p = Read({{"ZUNO\\INIT", "config:" + file}});
        const tZuno2Config& c = p.cfg;
        // The certificate named can't be read (or there is no companion to
        // read it with): the secure settings fail, and all is read anyway.
        bool ok = (p.rc == ERR_INVALID_CERTIFICATE || p.rc == ERR_NO_SSL_SUPPORT) && !c.pCert && c.Direction == DIRPoll && std::string(c.pAddress) == "example.org" && c.Port == 4600 &&
                  c.MaxBlockSize == 1000 && c.SSLValidation == 9 && c.Protocol == PIPv6 && c.Secure == SECAnonymous &&
                  std::string(c.pPublicCertFile) == "/c.pem" && std::string(c.pRootCertDir) == "/roots" &&
                  std::string(c.pHttpDir) == "/www/" && c.Magic == 7 && c.Trace == 3 && !c.pAcceptCertDir &&
                  c.KAtime == 30 && c.KAint == 5 && c.pAllow && c.pDeny && !c.pPublicCertData;
        exit(ok ? 0 : 1);
      },
      testing::ExitedWithCode(0), "");
  // Without a direction in the file, or without the file.
  EXPECT_EXIT(
      {
        Parsed p = Read({{"ZUNO\\INIT", "config:/nonexistent.ini"}});
        exit(p.rc == ERR_ZUNO_INI_NOT_FOUND && p.cfg.Magic == ZUNOMAGIC && p.cfg.Port == 4502 &&
                     std::string(p.cfg.pHttpDir) == "/opt/zuno-4.1/resources/app/"
                 ? 0
                 : 1);
      },
      testing::ExitedWithCode(0), "");
  unlink(file.c_str());
}


TEST(Zuno2ConfigDeathTest, ANumberLongerThanItsRoom) {
  // The reader leaves a value cut to its room without a terminator; the
  // number is read from the room alone (found by link_fuzz).
  std::string file = "/tmp/pelkozunolong" + std::to_string(getpid()) + ".ini";
  std::ofstream(file) << "[Zuno]\nDirection=listen\nMagic=" << std::string(120, '1') << "\n";
  EXPECT_EXIT(
      {
        Parsed p = Read({{"ZUNO\\INIT", "config:" + file}});
        exit(p.rc == 0 && p.cfg.Magic == 0xFFFFFFFFu ? 0 : 1);
      },
      testing::ExitedWithCode(0), "");
  unlink(file.c_str());
}

}  // namespace
