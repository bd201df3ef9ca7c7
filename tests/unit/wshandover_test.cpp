// The WebSocket change-over made by the host: "WSAccept" on a host thread
// while the work thread runs its rounds and other host threads look the
// connection up. Run under ThreadSanitizer with the engine's suites.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <string>
#include <thread>

#include "aplrpc.h"
#include "engine_helpers.h"
#include "orvanenaz.h"
#include "root.h"
#include "verbs.h"
#include "websocket.h"

namespace {

PAA Pair(const char* name, PAA v) { return VANested({VAText(name), v}); }

struct Waited {
  std::string name, event;
  PAA data = nullptr;
  ~Waited() { VAFree(data); }
};

void Wait(PHIERAKI root, const char* name, Waited* w) {
  UI4* left = nullptr;
  PAA arg = VANested({VAText(name), VAInt(3000)});
  PAA r = AWaitZ(root, &left, arg);
  VAFree(arg);
  if (VAType(r) == VAPntr) {
    w->name = TextOf(Elem(r, 1));
    w->event = TextOf(Elem(r, 2));
  }
  VAFree(r);
  if (left) {
    w->data = UnpackZ(left);
    free(left);
  }
}

TEST(WsHandover, AcceptOnAHostThreadWhileOthersLookTheConnectionUp) {
  ASSERT_EQ(Init((char*)"wshand", (char*)"/opt/lib/pelko31_64.so"), 0);
  PHIERAKI root = Root("wshand");
  PAA r = RunVerb(ASrv, root,
              VANested({Pair("Name", VAText("S")), Pair("Address", VAText("127.0.0.1")),
                        Pair("Port", VAText("0")), Pair("Mode", VAText("http"))}));
  ASSERT_EQ(IntOf(Elem(r, 0)), 0);
  VAFree(r);
  r = RunVerb(AGetProp, root, VANested({VAText("S"), VAText("LocalAddr")}));
  int port = IntOf(Elem(Elem(r, 1), 3));
  VAFree(r);

  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a = {};
  a.sin_family = AF_INET;
  a.sin_port = htons((uint16_t)port);
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(connect(fd, (sockaddr*)&a, sizeof a), 0);
  Waited c;
  Wait(root, "S", &c);
  ASSERT_EQ(c.event, "Connect");
  const std::string request =
      "GET / HTTP/1.1\r\nHost: x\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
      "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: 13\r\n\r\n";
  ASSERT_EQ(write(fd, request.data(), request.size()), (ssize_t)request.size());
  Waited req;
  Wait(root, c.name.c_str(), &req);
  ASSERT_EQ(req.event, "WSUpgradeReq");

  // Other host threads keep reading the connection's properties while the
  // change-over happens.
  std::atomic<bool> stop{false};
  std::thread reader([&] {
    while (!stop) {
      PAA p = RunVerb(AGetProp, root, VANested({VAText(c.name.c_str()), VAText("PeerAddr")}));
      VAFree(p);
    }
  });
  r = RunVerb(ASetProp, root, VANested({VAText(c.name.c_str()), VAText("WSAccept"), VANested({VAText(request.c_str())})}));
  EXPECT_EQ(IntOf(r), 0);
  VAFree(r);

  char answer[256];
  pollfd p = {fd, POLLIN, 0};
  ASSERT_EQ(poll(&p, 1, 3000), 1);
  ssize_t n = read(fd, answer, sizeof answer);
  ASSERT_GT(n, 0);
  EXPECT_EQ(std::string(answer, 13), "HTTP/1.1 101 ");
  const char frame[] = "\x81\x82\x00\x00\x00\x00ok";
  ASSERT_EQ(write(fd, frame, 8), 8);
  Waited msg;
  Wait(root, c.name.c_str(), &msg);
  EXPECT_EQ(msg.event, "WSReceive");
  stop = true;
  reader.join();
  PHIERAKI h = root->FindLeaf(c.name.c_str());
  ASSERT_NE(h, nullptr);
  EXPECT_NE(dynamic_cast<PWEBSOCKET>((PRPCOBJS)h->pObj), nullptr);
  close(fd);
  VAFree(RunVerb(AClose, root, VAText(".")));
}

}  // namespace
