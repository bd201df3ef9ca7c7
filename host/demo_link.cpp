// The debug link scene: this process holds one end of a session, as the
// interpreter does, and a second pelkohost holds the other, as the
// development environment would. Lines go both ways.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <memory>
#include <mutex>

#include "host/child.h"
#include "host/demo.h"
#include "host/link.h"

namespace {

// `pelkohost link SETTING` as a child: its standard input and output are
// pipes of this process.
struct Peer {
  pid_t pid = -1;
  int in = -1, out = -1;
  std::string seen;
  Peer(const std::string& library, const std::string& setting) {
    host::Child c = host::Spawn("/proc/self/exe", {"pelkohost", "link", setting}, {{"PELKO_LIBRARY", library}});
    pid = c.pid;
    in = c.in;
    out = c.out;
  }
  ~Peer() {
    if (in >= 0) close(in);  // end of input ends it
    for (int k = 0; pid > 0 && k < 100 && waitpid(pid, nullptr, WNOHANG) == 0; k++) usleep(50000);
    if (pid > 0 && waitpid(pid, nullptr, WNOHANG) == 0) {
      kill(pid, SIGKILL);
      waitpid(pid, nullptr, 0);
    }
    if (out >= 0) close(out);
  }
  // Reads what it prints until text has come, for five seconds at most.
  bool Saw(const std::string& text) {
    for (int waited = 0; seen.find(text) == std::string::npos && waited < 5000; waited += 50) {
      pollfd p = {out, POLLIN, 0};
      if (poll(&p, 1, 50) != 1) continue;
      char buf[1024];
      ssize_t n = read(out, buf, sizeof buf);
      if (n <= 0) break;
      seen.append(buf, (size_t)n);
    }
    return seen.find(text) != std::string::npos;
  }
  void Type(const std::string& line) {
    if (write(in, line.data(), line.size()) < 0) perror("write");
  }
};

void Link(demo::Stage& s) {
  int port = host::FreeLoopbackPort();
  std::string setting = "serve:127.0.0.1:" + std::to_string(port);
  std::mutex lock;
  std::string received;
  s.Say("Zuno2Init hands this process the link's table; its settings come through CommConfig:");
  s.Fact("ZUNO\\INIT", setting);
  std::unique_ptr<host::LinkHost> link(host::LinkHost::Open(
      s.lib, {{"ZUNO\\INIT", setting}, {"ORVANEUSERDIR", "/nonexistent/"}},
      [&](const std::string& text) {
        std::lock_guard<std::mutex> g(lock);
        received += text;
      },
      nullptr));
  if (!s.Expect(link != nullptr, "the link's table")) return;
  if (!s.Expect(link->Enable(1) == 0, "Zuno2Enable(1): listening")) return;
  s.Fact("state", host::LinkStateName(link->State()));
  s.Say("A second pelkohost connects, as the development environment would; both send the handshake.");
  {
    Peer peer(s.lib.path(), "connect:127.0.0.1:" + std::to_string(port));
    for (int i = 0; i < 200 && link->State() != 3; i++) usleep(25000);
    s.Fact("state", host::LinkStateName(link->State()));
    if (s.Expect(link->State() == 3 && peer.Saw("state: Connected"), "a session, on both ends")) {
      s.Expect(link->Send("hello from the interpreter") == 0, "Zuno2Send");
      if (s.Expect(peer.Saw("received: hello from the interpreter"), "the peer printed it"))
        s.Fact("the peer printed", "received: hello from the interpreter");
      peer.Type("hello from the environment\n");
      bool got = false;
      for (int i = 0; i < 200 && !got; i++) {
        usleep(25000);
        std::lock_guard<std::mutex> g(lock);
        got = received == "hello from the environment";
      }
      if (s.Expect(got, "CommNotify(3), Zuno2GetBuffer, Zuno2Free")) s.Fact("CommNotify gave", received);
    }
  }
  s.Expect(link->Enable(0) == 0, "Zuno2Enable(0)");
  s.Fact("state", host::LinkStateName(link->State()));
}

}  // namespace

PELKO_DEMO_SCENE(150, "link", "The debug link: a session with a second process", Link);
