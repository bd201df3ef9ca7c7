// Drives a WebSocket echo server and prints one line of figures:
// "rtt N" small text round trips a second, one message in flight, then
// "mbps N" megabytes a second of 1 MB binary messages, each echoed before
// the next. Usage: node ws_client.js URL SECONDS
const WebSocket = require('/usr/share/nodejs/ws');
const [url, seconds] = [process.argv[2], +(process.argv[3] || 3)];

function run(payload, done) {
  const ws = new WebSocket(url, { maxPayload: 8 << 20 });
  let n = 0, end = 0;
  ws.on('open', () => { end = Date.now() + seconds * 1000; ws.send(payload); });
  ws.on('message', () => {
    n++;
    if (Date.now() < end) return ws.send(payload);
    ws.close();
    done(n / seconds);
  });
  ws.on('error', (e) => { console.error(e.message); process.exit(1); });
}

run('hello, echo', (rtt) => {
  run(Buffer.alloc(1 << 20, 7), (perSecond) => {
    console.log(`rtt ${rtt.toFixed(0)} mbps ${(perSecond * 2).toFixed(1)}`);  // both directions
  });
});
