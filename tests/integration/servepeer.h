// `pelkohost serve` as a child process for the tests: started on a free
// port over a directory, its access log collected as it runs, ended with
// Ctrl-C as a person would end it.
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

class ServeProcess {
 public:
  explicit ServeProcess(const std::string& dir, std::vector<std::string> extra = {}) {
    int out[2];
    if (pipe(out) != 0) return;
    pid_ = fork();
    if (pid_ == 0) {
      dup2(out[1], 1);
      dup2(out[1], 2);
      close(out[0]);
      std::vector<std::string> args = {PELKOHOST_PATH, "serve", dir, "--port", "0"};
      args.insert(args.end(), extra.begin(), extra.end());
      std::vector<char*> argv;
      for (auto& a : args) argv.push_back((char*)a.c_str());
      argv.push_back(nullptr);
      setenv("PELKO_LIBRARY", PELKO_LIBRARY_PATH, 1);
      execv(argv[0], argv.data());
      _exit(127);
    }
    close(out[1]);
    fd_ = out[0];
    // The first line names the port.
    std::string first = ReadUntil("\n", 10000);
    size_t colon = first.rfind(':');
    if (colon != std::string::npos) port_ = atoi(first.c_str() + colon + 1);
  }
  ~ServeProcess() {
    Stop();
    if (fd_ >= 0) close(fd_);
  }
  int port() const { return port_; }
  pid_t pid() const { return pid_; }
  std::string Url(const std::string& path, const char* scheme = "http") const {
    return std::string(scheme) + "://127.0.0.1:" + std::to_string(port_) + path;
  }
  // Reads the log until text appears in it or ms pass; gives all read.
  std::string ReadUntil(const std::string& text, int ms) {
    for (int waited = 0; log_.find(text) == std::string::npos && waited < ms; waited += 50) {
      pollfd p = {fd_, POLLIN, 0};
      if (poll(&p, 1, 50) != 1) continue;
      char buf[4096];
      ssize_t n = read(fd_, buf, sizeof buf);
      if (n <= 0) break;
      log_.append(buf, (size_t)n);
    }
    return log_;
  }
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
    kill(pid_, SIGKILL);
    waitpid(pid_, &st, 0);
    pid_ = -1;
    return status_ = -1;
  }
  // The child's peak resident size in kB.
  long PeakKb() const {
    std::string s = Shell("grep VmHWM /proc/" + std::to_string(pid_) + "/status");
    size_t at = s.find_first_of("0123456789");
    return at == std::string::npos ? 0 : atol(s.c_str() + at);
  }

 private:
  pid_t pid_ = -1;
  int fd_ = -1;
  int port_ = 0;
  int status_ = -1;
  std::string log_;
};

}  // namespace servetest
