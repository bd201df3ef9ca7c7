// WebSocket with real peers: Python's websockets and Node.js's ws, each as
// a client of a library server and as a server for a library client, with
// text, binary, fragmented messages, pings and closes.
#include <gtest/gtest.h>


#include <thread>

#include "servepeer.h"
#include "streampeer.h"

namespace {

using namespace streamtest;
using servetest::Have;

// A peer script given to its interpreter on the command line, under
// `timeout 30`; its lines are read as it prints them.
struct Script : servetest::HostProcess {
  Script(const std::string& interpreter, const char* text, const std::string& arg)
      : HostProcess("/usr/bin/timeout", {"timeout", "30", interpreter,
                                         interpreter.find("node") != std::string::npos ? "-e" : "-c", text, arg}) {}
  std::string Line() { return HostProcess::Line(30000); }
};

// A library server that upgrades by itself and echoes each message: a
// fragmented one is joined first, as peers refuse continuation frames with
// the first fragment's opcode, which is what the library sends. Peers pace
// their fragments: a short frame followed by the next in the same read
// takes the next one's opcode, fin and mask, as this library reads frames.
class EchoServer {
 public:
  EchoServer() : r_("WsPeersS") {
    port_ = Serve(r_.root, "S", "http");
    EXPECT_EQ(cmdtest::SetProp(r_.root, "S", "WSFeatures", Value::Int(1)), 0);
    thread_ = std::thread([this] { Loop(); });
  }
  ~EchoServer() { Stop(); }
  // Ends the answering thread; what it recorded is read after this.
  void Stop() {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
  }
  int port() const { return port_; }
  std::vector<std::string> frames;  // "opcode fin" of each frame received

 private:
  void Loop() {
    std::string held;
    int opcode = 0;
    while (!stop_) {
      Event e = Wait(r_.root, "S", 200);
      if (e.rc || e.event != "WSReceive") continue;
      frames.push_back(std::to_string(e.data[2].intAt(0)) + " " + std::to_string(e.data[1].intAt(0)));
      if (e.data[2].intAt(0)) opcode = (int)e.data[2].intAt(0);
      held += opcode == 1 ? e.data[0].text() : Bytes(e.data[0]);
      if (!e.data[1].intAt(0)) continue;
      Value whole = opcode == 1 ? Value::Text(held) : Value::Int8s(std::vector<int8_t>(held.begin(), held.end()));
      cmdtest::Send(r_.root, e.name, Value::Nested({whole, Value::Int(1)}));
      held.clear();
    }
  }
  Roots r_;
  int port_;
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

const char kPythonClient[] = R"(
import asyncio, sys, websockets
async def main():
    # After the closing handshake this library waits for the client to end
    # the connection, which a client does only once its close_timeout is up.
    async with websockets.connect("ws://127.0.0.1:%s/echo" % sys.argv[1], close_timeout=0.5) as ws:
        await ws.send("h\u00e9llo"); print("text", await ws.recv())
        await ws.send(bytes([0, 1, 255])); print("binary", list(await ws.recv()))
        # Fragments frame by frame, with a pause: a frame followed by the
        # next one in the same read takes that one's opcode and mask in
        # this library (a message sent from an iterator ends with an empty
        # frame written together with the last fragment).
        await ws.write_frame(False, 1, b"frag"); await asyncio.sleep(0.2)
        await ws.write_frame(True, 0, b"ments"); print("fragments", await ws.recv())
        await asyncio.wait_for(await ws.ping(b"p"), 5); print("pong")
        await ws.close(); print("closed", ws.close_code)
asyncio.run(main())
)";

const char kNodeClient[] = R"(
const WebSocket = require('/usr/share/nodejs/ws');
const ws = new WebSocket('ws://127.0.0.1:' + process.argv[1] + '/echo');
const steps = [() => ws.send('h\u00e9llo'), () => ws.send(Buffer.from([0, 1, 255])),
               () => { ws.send('frag', { fin: false }); setTimeout(() => ws.send('ments', { fin: true }), 200); }];
let i = 0;
ws.on('open', () => steps[i++]());
ws.on('message', (d, binary) => {
  console.log(binary ? 'binary ' + JSON.stringify([...d]) : 'text ' + d.toString());
  if (i < steps.length) return steps[i++]();
  ws.ping('p');
});
ws.on('pong', () => { console.log('pong'); ws.close(); });
ws.on('close', (code) => console.log('closed ' + code));
)";

TEST(WsPeers, RealClientsOfALibraryServer) {
  struct Peer {
    const char* interpreter;
    const char* script;
    const char* binary;
    const char* joined;
  } peers[] = {
      {"/usr/bin/python3", kPythonClient, "binary [0, 1, 255]", "fragments fragments"},
      {"/usr/bin/node", kNodeClient, "binary [0,1,255]", "text fragments"},
  };
  for (const Peer& p : peers) {
    SCOPED_TRACE(p.interpreter);
    if (!Have(p.interpreter)) continue;
    EchoServer s;
    Script peer(p.interpreter, p.script, std::to_string(s.port()));
    EXPECT_EQ(peer.Line(), "text h\xc3\xa9llo");
    EXPECT_EQ(peer.Line(), p.binary);
    EXPECT_EQ(peer.Line(), p.joined);
    EXPECT_EQ(peer.Line(), "pong");
    EXPECT_EQ(peer.Line(), "closed 1000");
    // The fragments came as two frames: a first one, then a continuation.
    s.Stop();
    ASSERT_GE(s.frames.size(), 4u);
    EXPECT_EQ(s.frames[2], "1 0");
    EXPECT_EQ(s.frames[3], "0 1");
  }
}

const char kPythonServer[] = R"(
import asyncio, websockets
done = None
async def echo(ws, path=None):
    async for m in ws:
        await ws.send(m)
    print("closed", ws.close_code, flush=True)
    done.set_result(True)
async def main():
    global done
    done = asyncio.get_running_loop().create_future()
    async with websockets.serve(echo, "127.0.0.1", 0) as server:
        print(server.sockets[0].getsockname()[1], flush=True)
        await asyncio.wait_for(done, 20)
asyncio.run(main())
)";

const char kNodeServer[] = R"(
const WebSocket = require('/usr/share/nodejs/ws');
const server = new WebSocket.Server({ host: '127.0.0.1', port: 0 }, () => console.log(server.address().port));
server.on('connection', (ws) => {
  ws.on('message', (d, binary) => ws.send(d, { binary }));
  ws.on('close', (code) => { console.log('closed ' + code); process.exit(0); });
});
)";

TEST(WsPeers, ALibraryClientOfRealServers) {
  for (auto [interpreter, script] : {std::make_pair("/usr/bin/python3", kPythonServer), std::make_pair("/usr/bin/node", kNodeServer)}) {
    SCOPED_TRACE(interpreter);
    if (!Have(interpreter)) continue;
    Script peer(interpreter, script, "");
    int port = atoi(peer.Line().c_str());
    ASSERT_GT(port, 0);
    Roots r("WsPeersC");
    std::string c = Open(r.root, "C", "http", port);
    EXPECT_EQ(cmdtest::SetProp(r.root, c, "WSFeatures", Value::Int(1)), 0);
    EXPECT_EQ(cmdtest::SetProp(r.root, c, "WSUpgrade",
                               Value::Nested({Value::Text("/"), Value::Text("127.0.0.1:" + std::to_string(port))})),
              0);
    ASSERT_EQ(Wait(r.root, c, 3000).event, "WSUpgrade");
    for (const Value& v : {Value::Text("h\xc3\xa9llo"), Value::Int8s({0, 1, -1})}) {
      ASSERT_EQ(Code(cmdtest::Send(r.root, c, Value::Nested({v, Value::Int(1)}))), 0);
      Event e = Wait(r.root, c, 3000);
      EXPECT_EQ(e.event, "WSReceive");
      EXPECT_EQ(e.data[0], v);
    }
    // A ping the library sends is answered by the peer; pongs aren't reported.
    ASSERT_EQ(Code(cmdtest::Send(r.root, c, Value::Nested({Value::Text("p"), Value::Int(1), Value::Int(9)}))), 0);
    EXPECT_EQ(Wait(r.root, c, 300).rc, 100);
    EXPECT_EQ(cmdtest::Close(r.root, c), 0);
    EXPECT_EQ(peer.Line(), "closed 1000");
  }
}

}  // namespace
