// The debug link's parsers: the host's ZUNO_INIT line, ZUNO\LISTEN and
// ZUNO\CONNECT with the ini file behind them, the handshake messages a peer
// sends, and the requests its web server answers from a page directory.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "fuzzkit.h"
#include "httpconnection.h"
#include "ifzuno2.h"

namespace {

std::string dir;
std::string settings[3];  // ZUNO\INIT, ZUNO\LISTEN, ZUNO\CONNECT

SI4 CommConfig(PCH1 key, PCH1 value, size_t size) {
  static const char* const kKeys[] = {"ZUNO\\INIT", "ZUNO\\LISTEN", "ZUNO\\CONNECT"};
  std::string v = strcmp(key, "ORVANEUSERDIR") == 0 ? dir : "";
  for (int i = 0; i < 3; i++)
    if (strcmp(key, kKeys[i]) == 0) v = settings[i];
  snprintf(value, size, "%s", v.c_str());
  return (SI4)strlen(value);
}

// A page directory with a page, once a process; the link's configuration
// points there for the web server's part.
void Setup() {
  if (!dir.empty()) return;
  char tmpl[] = "/tmp/pelkofuzzlinkXXXXXX";
  dir = mkdtemp(tmpl);
  FILE* f = fopen((dir + "/index.html").c_str(), "w");
  if (f) fputs("<p>page</p>", f), fclose(f);
  // The library's own: it frees the configuration at unload.
  PZuno2Config web = (PZuno2Config)calloc(1, sizeof(tZuno2Config));
  web->pHttpDir = strdup(dir.c_str());
  snprintf(web->ConfigFile, sizeof(web->ConfigFile), "%s/zuno.ini", dir.c_str());
  fns2.pZuno2Config = web;
}

// A text the settings may hold; device and process files stand for no
// setting a host would give, and would only stall the reader.
bool Usable(const std::string& s) {
  return s.find("/dev") == std::string::npos && s.find("/proc") == std::string::npos &&
         s.find("/sys") == std::string::npos;
}

void Settings(fuzzkit::Input& in) {
  for (std::string& s : settings) s = in.Read(in.Byte());
  std::string ini = in.Read(4096);
  for (const std::string& s : settings)
    if (!Usable(s)) return;
  FILE* f = fopen((dir + "/zuno.ini").c_str(), "w");
  if (!f) return;
  fwrite(ini.data(), 1, ini.size(), f);
  fclose(f);
  PZuno2Config cfg = (PZuno2Config)calloc(1, sizeof(tZuno2Config));
  cfg->CommConfig = CommConfig;
  Zuno2ParserReset();
  Zuno2ReadConfigfile(cfg);
  FreeZuno2Config(cfg);
}

void Request(fuzzkit::Input& in) {
  std::string bytes = in.Read(8192);
  PHIERAKI h = new HIERAKI("page", new HTTPCONNECTION(0x4000, MHttp));
  PBUFFER b = new BUFFER((UI4)bytes.size() + 1);
  fuzzkit::Arrive(b, bytes);
  delete HandleHttpRequest(h, b);
  delete b;
  delete h;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Setup();
  fuzzkit::Input in(data, size);
  switch (in.Byte() % 3) {
    case 0:
      Settings(in);
      break;
    case 1: {
      std::string m = in.Read(256);
      Zuno2Classify(m.data(), (UI4)m.size());
      break;
    }
    default:
      Request(in);
  }
  return 0;
}
