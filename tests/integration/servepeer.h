// Child processes for the tests: `pelkohost serve` on a free port over a
// directory, `pelkohost link` with its standard input as a pipe, and the
// real peers the library is tested against.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "host/child.h"

namespace servetest {

// Runs a shell command and gives what it wrote to stdout.
inline std::string Shell(const std::string& cmd) {
  std::string out;
  FILE* f = popen(cmd.c_str(), "r");
  char buf[4096];
  size_t n;
  while (f && (n = fread(buf, 1, sizeof buf, f)) > 0) out.append(buf, n);
  if (f) pclose(f);
  return out;
}

inline bool Have(const char* tool) { return Shell(std::string("command -v ") + tool).size() > 0; }

inline std::string Curl(const std::string& args) { return Shell("curl -s --max-time 20 " + args); }

// The headless browser's command, or "" when there is none.
inline std::string Chromium() {
  for (const char* c : {"chromium", "chromium-browser"})
    if (Have(c)) return c;
  return "";
}

// Opens url in a headless browser of its own profile under dir, in the
// background; bounded by a minute. Returns the command line's marker, for
// EndBrowser.
inline std::string StartBrowser(const std::string& dir, const std::string& url, const std::string& args = "") {
  std::string profile = dir + "/profile";
  Shell("timeout 60 " + Chromium() + " --headless=new --no-sandbox --disable-gpu --no-first-run --user-data-dir='" +
        profile + "' " + args + " '" + url + "' >/dev/null 2>&1 &");
  return profile;
}

inline void EndBrowser(const std::string& profile) { Shell("pkill -f 'user-data-dir=" + profile + "'"); }

// A program as a child process: what it prints, output and errors, is
// collected as it runs, its standard input is a pipe of the test's, and it
// is ended with Ctrl-C as a person would end it.
class HostProcess {
 public:
  // `pelkohost` with arguments, with HOME set when home is given.
  explicit HostProcess(std::vector<std::string> args, std::string home = "") {
    args.insert(args.begin(), PELKOHOST_PATH);
    std::vector<std::pair<std::string, std::string>> env = {{"PELKO_LIBRARY", PELKO_LIBRARY_PATH}};
    if (!home.empty()) env.push_back({"HOME", home});
    Start(PELKOHOST_PATH, args, env);
  }
  // Another program: its path, and its arguments from argv[0] on.
  HostProcess(const std::string& path, const std::vector<std::string>& argv) { Start(path, argv, {}); }
  ~HostProcess() {
    Stop();
    if (fd_ >= 0) close(fd_);
    CloseInput();
  }
  pid_t pid() const { return pid_; }
  // Writes to the child's standard input.
  bool Write(const std::string& text) {
    return in_ >= 0 && write(in_, text.data(), text.size()) == (ssize_t)text.size();
  }
  void CloseInput() {
    if (in_ >= 0) close(in_);
    in_ = -1;
  }
  // Reads the output until text appears in it or ms pass; gives all read.
  std::string ReadUntil(const std::string& text, int ms) {
    for (int waited = 0; log_.find(text) == std::string::npos && waited < ms && Pull(); waited += 50) {
    }
    return log_;
  }
  // The next line of the output not yet taken, without its end; "" when
  // none comes within ms.
  std::string Line(int ms) {
    for (int waited = 0; log_.find('\n', taken_) == std::string::npos && waited < ms && Pull(); waited += 50) {
    }
    size_t end = log_.find('\n', taken_);
    if (end == std::string::npos) return "";
    std::string line = log_.substr(taken_, end - taken_);
    taken_ = end + 1;
    return line;
  }
  // Whether text appeared after the first `from` bytes of the output.
  bool Saw(const std::string& text, int ms, size_t from = 0) {
    ReadUntil(text, ms);
    return log_.find(text, from) != std::string::npos;
  }
  size_t Seen() const { return log_.size(); }
  // Ctrl-C; the exit status, or -1 if it had to be killed.
  int Stop() {
    if (pid_ <= 0) return status_;
    kill(pid_, SIGINT);
    int st = 0;
    for (int i = 0; i < 100; i++) {
      if (waitpid(pid_, &st, WNOHANG) == pid_) {
        pid_ = -1;
        return status_ = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
      }
      usleep(50000);
    }
    kill(-pid_, SIGKILL);  // its group, where it leads one
    kill(pid_, SIGKILL);
    waitpid(pid_, &st, 0);
    pid_ = -1;
    return status_ = -1;
  }
  // The exit status once it ends by itself within ms; -2 while it runs.
  int Wait(int ms) {
    int st = 0;
    for (int waited = 0; pid_ > 0 && waited <= ms; waited += 50) {
      if (waitpid(pid_, &st, WNOHANG) == pid_) {
        pid_ = -1;
        ReadUntil("\x01", 50);
        return status_ = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
      }
      usleep(50000);
    }
    return pid_ > 0 ? -2 : status_;
  }
  // The child's peak resident size in kB.
  long PeakKb() const {
    std::string s = Shell("grep VmHWM /proc/" + std::to_string(pid_) + "/status");
    size_t at = s.find_first_of("0123456789");
    return at == std::string::npos ? 0 : atol(s.c_str() + at);
  }

 private:
  void Start(const std::string& path, const std::vector<std::string>& argv,
             const std::vector<std::pair<std::string, std::string>>& env) {
    signal(SIGPIPE, SIG_IGN);  // a child that has gone fails a write instead
    host::Child c = host::Spawn(path, argv, env);
    pid_ = c.pid;
    fd_ = c.out;
    in_ = c.in;
  }
  // Waits up to 50 ms for output and takes it; false once it has ended.
  bool Pull() {
    pollfd p = {fd_, POLLIN, 0};
    if (poll(&p, 1, 50) != 1) return true;
    char buf[4096];
    ssize_t n = read(fd_, buf, sizeof buf);
    if (n > 0) log_.append(buf, (size_t)n);
    return n > 0;
  }

  pid_t pid_ = -1;
  int fd_ = -1;
  int in_ = -1;
  int status_ = -1;
  std::string log_;
  size_t taken_ = 0;
};

// `pelkohost serve` on a free port over a directory; the first line of its
// log names the port.
class ServeProcess : public HostProcess {
 public:
  explicit ServeProcess(const std::string& dir, std::vector<std::string> extra = {})
      : HostProcess(Args(dir, extra)) {
    std::string first = ReadUntil("\n", 10000);
    size_t colon = first.rfind(':');
    if (colon != std::string::npos) port_ = atoi(first.c_str() + colon + 1);
  }
  int port() const { return port_; }
  std::string Url(const std::string& path, const char* scheme = "http") const {
    return std::string(scheme) + "://127.0.0.1:" + std::to_string(port_) + path;
  }

 private:
  static std::vector<std::string> Args(const std::string& dir, std::vector<std::string> extra) {
    std::vector<std::string> args = {"serve", dir, "--port", "0"};
    args.insert(args.end(), extra.begin(), extra.end());
    return args;
  }
  int port_ = 0;
};

}  // namespace servetest
