// A soak of command mode: 900 clients on one root at once, each sending 20
// commands one after the other, every one answered; afterwards the root's
// descriptors and memory are back where they started. The clients are plain
// sockets in a child process, so that this process holds only the
// library's side (select can watch descriptors below 1024 only).
#include <dirent.h>
#include <malloc.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/wait.h>

#include <atomic>
#include <thread>

#include "cmdpeer.h"

namespace {

using namespace cmdtest;

const int kClients = 900;
const int kCommands = 20;

int OpenDescriptors() {
  int n = 0;
  DIR* d = opendir("/proc/self/fd");
  while (d && readdir(d)) n++;
  if (d) closedir(d);
  return n;
}

// Reads one answer of `want` bytes on client i into in[i]; false on a short
// or wrong answer (its type, its length).
bool Answer(int fd, std::string* in, uint32_t want) {
  while (in->size() < want) {
    pollfd p = {fd, POLLIN, 0};
    if (poll(&p, 1, 10000) != 1) return false;
    char buf[4096];
    ssize_t r = read(fd, buf, sizeof buf);
    if (r <= 0) return false;
    in->append(buf, (size_t)r);
  }
  bool ok = in->size() == want && GetBE(*in, 0) == want && GetBE(*in, 4) == 3;
  in->clear();
  return ok;
}

bool Put(int fd, const std::string& bytes) { return write(fd, bytes.data(), bytes.size()) == (ssize_t)bytes.size(); }

// The child: connects the clients one by one, each sending its first command
// and taking the answer (the listener's backlog is 2, so a burst of
// connects would wait for the system's retransmissions). Then all 900 are
// open at once, and each keeps one command in flight until its 20 are
// answered. Exit status 0 when every answer was right.
[[noreturn]] void Clients(int port, const std::vector<std::vector<std::string>>& commands,
                          const std::vector<std::vector<uint32_t>>& answerLengths) {
  std::vector<pollfd> fds(kClients);
  std::vector<int> done(kClients, 1);
  std::vector<std::string> in(kClients);
  for (int i = 0; i < kClients; i++) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a = {};
    a.sin_family = AF_INET;
    a.sin_port = htons((uint16_t)port);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(fd, (sockaddr*)&a, sizeof a) != 0) _exit(2);
    fds[i] = {fd, POLLIN, 0};
    if (!Put(fd, commands[i][0]) || !Answer(fd, &in[i], answerLengths[i][0])) _exit(3);
  }
  for (int i = 0; i < kClients; i++)
    if (!Put(fds[i].fd, commands[i][1])) _exit(4);
  int left = kClients * (kCommands - 1);
  for (int idle = 0; left > 0 && idle < 100;) {
    if (poll(fds.data(), fds.size(), 100) <= 0) {
      idle++;
      continue;
    }
    idle = 0;
    for (int i = 0; i < kClients; i++) {
      if (!(fds[i].revents & POLLIN)) continue;
      if (!Answer(fds[i].fd, &in[i], answerLengths[i][done[i]])) _exit(5);
      left--;
      if (++done[i] < kCommands && !Put(fds[i].fd, commands[i][done[i]])) _exit(6);
    }
  }
  for (pollfd& p : fds) close(p.fd);
  _exit(left == 0 ? 0 : 7);
}

TEST(Soak, NineHundredClientsTwentyCommandsEach) {
  pelkotest::Root srv("SOAK");
  int port = Serve(srv, "S");
  ASSERT_GT(port, 0);
  // Every message is made before the child is forked: it uses nothing but
  // sockets. Command k of client i carries 1000 i + k and is answered with
  // one more; the answers' lengths are what the child checks.
  std::vector<std::vector<std::string>> commands(kClients);
  std::vector<std::vector<uint32_t>> answers(kClients);
  for (int i = 0; i < kClients; i++)
    for (int k = 0; k < kCommands; k++) {
      int32_t v = 1000 * i + k;
      commands[i].push_back(Message(1, "q", "", Payload(Value::Int(v))));
      answers[i].push_back((uint32_t)(115 + Payload(Value::Int(v + 1)).size()));
    }
  // Measured once the root and its listener stand, with nothing connected.
  int fdsBefore = OpenDescriptors();
  size_t heapBefore = mallinfo2().uordblks;
  pid_t child = fork();
  if (child == 0) Clients(port, commands, answers);
  int answered = 0, connected = 0, closed = 0;
  bool wrong = false;
  for (int idle = 0; closed < kClients && idle < 100;) {
    Event e = Wait(srv, "", 100);
    if (e.rc == 100) {
      idle++;
      continue;
    }
    idle = 0;
    if (e.event == "Receive") {
      int32_t v = (int32_t)e.data.intAt(0);
      wrong |= Respond(srv, e.name, Value::Int(v + 1), 1) != 0;
      answered++;
    } else if (e.event == "Connect") {
      connected++;
    } else {
      closed++;  // the client's end: the connection goes with this event
    }
  }
  int status = -1;
  waitpid(child, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "child status " << status;
  EXPECT_EQ(connected, kClients);
  EXPECT_EQ(answered, kClients * kCommands);
  EXPECT_EQ(closed, kClients);
  EXPECT_FALSE(wrong);
  // The work thread deletes finished connections in its next rounds. The
  // heap may keep a little for reuse, never anything that grows with the
  // connections or the messages.
  const size_t slack = 256u << 10;
  int fdsAfter = OpenDescriptors();
  size_t heapAfter = mallinfo2().uordblks;
  for (int i = 0; i < 100 && (fdsAfter != fdsBefore || heapAfter > heapBefore + slack); i++) {
    usleep(50000);
    fdsAfter = OpenDescriptors();
    heapAfter = mallinfo2().uordblks;
  }
  EXPECT_EQ(fdsAfter, fdsBefore);
  EXPECT_LT(heapAfter, heapBefore + slack) << heapBefore << " -> " << heapAfter;
}

}  // namespace
