// The text scene: a line protocol spoken in text mode. A plain socket peer
// sends commands ended by CR LF; the listener's stop list cuts them into
// one block each, and the session answers every line.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cctype>

#include "host/demo.h"

namespace {

using host::Value;

Value Pair(const char* name, Value v) { return Value::Nested({Value::Text(name), std::move(v)}); }

// The peer: a blocking loopback socket, with a read that gives up after a
// second so that a broken scene can't hang.
int Dial(int port) {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a = {};
  a.sin_family = AF_INET;
  a.sin_port = htons((uint16_t)port);
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(fd, (sockaddr*)&a, sizeof a) != 0) {
    close(fd);
    return -1;
  }
  return fd;
}

std::string ReadLine(int fd) {
  std::string s;
  char c;
  pollfd p = {fd, POLLIN, 0};
  while (poll(&p, 1, 1000) == 1 && read(fd, &c, 1) == 1) {
    s.push_back(c);
    if (c == '\n') break;
  }
  return s;
}

std::string Visible(std::string s) {
  std::string out;
  for (char c : s) out += c == '\r' ? "\\r" : c == '\n' ? "\\n" : std::string(1, c);
  return out;
}

// The session's answer to one line of the protocol.
std::string Answer(const std::string& line) {
  std::string word = line.substr(0, line.find_first_of(" \r\n"));
  for (char& c : word) c = (char)toupper((unsigned char)c);
  if (word == "HELLO") return "+OK hello" + line.substr(5, line.size() - 7) + "\r\n";
  if (word == "LEN") return "+OK " + std::to_string(line.size() - 6) + "\r\n";
  if (word == "QUIT") return "+OK bye\r\n";
  return "-ERR unknown " + word + "\r\n";
}

void TextLines(demo::Stage& s) {
  s.Say("A listener in text mode, with CR LF as its stop list: each line the peer sends becomes one block.");
  host::CallResult r = s.Show("ASrv", Value::Nested({Pair("Name", Value::Text("LINES")), Pair("Address", Value::Text("127.0.0.1")),
                                                     Pair("Port", Value::Text("0")), Pair("Mode", Value::Text("text")),
                                                     Pair("EOM", Value::Nested({Value::Text("\r\n")}))}));
  if (!s.Expect(r.result.isNested(), "a text listener")) return;
  r = s.lib.Call(s.root, "AGetProp", Value::Nested({Value::Text("LINES"), Value::Text("LocalAddr")}));
  if (!s.Expect(r.result.isNested(), "its address")) return;
  int fd = Dial((int)r.result[1][3].intAt(0));
  if (!s.Expect(fd >= 0, "a peer connected")) return;
  r = s.Show("AWaitZ", Value::Nested({Value::Text("LINES"), Value::Int(2000)}));
  if (!s.Expect(r.result.isNested() && r.result[2].text() == "Connect", "the Connect event")) return;
  std::string conn = r.result[1].text();

  s.Say("The peer writes three lines in one go; the session answers each block as it comes.");
  const std::string sent = "HELLO pelko\r\nlen twelve bytes\r\nQUIT\r\n";
  s.Fact("peer writes", Visible(sent));
  if (write(fd, sent.data(), sent.size()) != (ssize_t)sent.size()) s.Expect(false, "the peer's write");
  for (int i = 0; i < 3; i++) {
    r = s.lib.Call(s.root, "AWaitZ", Value::Int(0), Value::Nested({Value::Text(conn), Value::Int(2000)}));
    if (!s.Expect(r.result.isNested() && r.result[2].text() == "Block" && r.left, "a Block event")) break;
    std::string line = r.left->text();
    std::string answer = Answer(line);
    s.Fact("block", Visible(line));
    host::CallResult a = s.lib.Call(s.root, "ASendZ", Value::Text(answer), Value::Nested({Value::Text(conn)}));
    s.Expect(a.result.isNested(), "the answer sent");
    std::string back = ReadLine(fd);
    s.Fact("peer reads", Visible(back));
    s.Expect(back == answer, "the answer as sent");
  }
  s.Say("The peer closes: what the stream still held comes up as BlockLast, here nothing.");
  close(fd);
  r = s.Show("AWaitZ", Value::Nested({Value::Text(conn), Value::Int(2000)}));
  s.Expect(r.result.isNested() && r.result[2].text() == "BlockLast", "the BlockLast event");
  s.lib.Call(s.root, "AClose", Value::Text("LINES"));
}

}  // namespace

PELKO_DEMO_SCENE(110, "text", "A line protocol in text mode with a stop list", TextLines);
