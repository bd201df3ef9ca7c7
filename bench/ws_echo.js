// The baseline WebSocket echo server: each message back as it came.
// Usage: node ws_echo.js PORT
const WebSocket = require('/usr/share/nodejs/ws');
const server = new WebSocket.Server({ host: '127.0.0.1', port: +process.argv[2], maxPayload: 8 << 20 });
server.on('connection', (ws) => ws.on('message', (data, binary) => ws.send(data, { binary })));
server.on('listening', () => console.log('listening'));
