// pelkohost link: one end of a debug link session. Each message received
// is printed as a line "received: TEXT"; each line typed on standard input
// is sent as one message. State changes of the session are printed as
// "state: NAME", the session's end as "session ended". End of input,
// Ctrl-C or SIGTERM disable the link and end the program.
#include "host/linkcmd.h"

#include <poll.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "host/link.h"

namespace linkcmd {

namespace {

std::atomic<bool> stopping{false};

void OnSignal(int) { stopping = true; }

const int kPollMs = 50;

// The interpreter's own directory of settings.
std::string UserDir() {
  const char* home = getenv("HOME");
  return std::string(home ? home : "") + "/.orvane/";
}

}  // namespace

int Usage() {
  fprintf(stderr,
          "usage: pelkohost link SETTING [--config FILE]\n"
          "  Holds one end of a debug link session. SETTING is the ZUNO_INIT line:\n"
          "    serve:ADDRESS:PORT    listen for the peer (serve::4502 on loopback)\n"
          "    connect:ADDRESS:PORT  connect once, then keep reconnecting\n"
          "    poll:ADDRESS:PORT     connect, retrying every 5 seconds\n"
          "    http:ADDRESS:PORT     serve the page directory, session over WebSocket\n"
          "    config:FILE           everything from the file\n"
          "  FILE is the link's ini file (section [Zuno]: Secure, PublicCertFile,\n"
          "  PrivateKeyFile, SSLValidation, Magic, HttpDir, ...); default\n"
          "  ~/.orvane/zuno.ini. Each line typed is sent as one message; each\n"
          "  message received is printed. End of input or Ctrl-C ends it.\n");
  return 2;
}

bool ParseArgs(int argc, char** argv, Options* o) {
  for (int i = 0; i < argc; i++) {
    std::string a = argv[i];
    if (a == "--config") {
      if (i + 1 >= argc) return false;
      o->config = argv[++i];
    } else if (a.rfind("--", 0) == 0 || !o->setting.empty()) {
      return false;
    } else {
      o->setting = a;
    }
  }
  return !o->setting.empty();
}

int Run(host::Library& lib, const Options& o) {
  setvbuf(stdout, nullptr, _IOLBF, 0);
  std::string init = o.setting;
  if (!o.config.empty() && init.rfind("config:", 0) != 0) init += ",config:" + o.config;
  std::map<std::string, std::string> settings = {{"ZUNO\\INIT", init}, {"ORVANEUSERDIR", UserDir()}};
  std::unique_ptr<host::LinkHost> link(host::LinkHost::Open(
      lib, settings, [](const std::string& text) { printf("received: %s\n", text.c_str()); },
      [] { printf("session ended\n"); }));
  if (!link) {
    fprintf(stderr, "pelkohost: link: the library has no debug link\n");
    return 1;
  }
  int rc = link->Enable(1);
  if (rc) {
    fprintf(stderr, "pelkohost: link: %s (%d)\n", link->Errortext(rc).c_str(), rc);
    link->Enable(0);
    return 1;
  }
  signal(SIGINT, OnSignal);
  signal(SIGTERM, OnSignal);
  int32_t shown = -1;
  std::string line;
  bool input = true;
  while (!stopping) {
    int32_t s = link->State();
    if (s != shown) printf("state: %s\n", host::LinkStateName(shown = s));
    pollfd p = {0, POLLIN, 0};
    if (!input || poll(&p, 1, kPollMs) <= 0) {
      if (!input) usleep(kPollMs * 1000);
      continue;
    }
    char buf[4096];
    ssize_t n = read(0, buf, sizeof(buf));
    if (n <= 0) break;
    line.append(buf, (size_t)n);
    for (size_t nl; (nl = line.find('\n')) != std::string::npos; line.erase(0, nl + 1)) {
      int sent = link->Send(line.substr(0, nl));
      if (sent) fprintf(stderr, "pelkohost: link: not sent: %s (%d)\n", host::ErrorName(sent), sent);
    }
  }
  link->Enable(0);
  printf("link closed\n");
  return 0;
}

}  // namespace linkcmd
