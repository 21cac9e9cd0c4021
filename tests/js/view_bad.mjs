// Bad input and load against the viewer's WebSocket server: every request
// that is wrong gets a status message or a close, many connections at once
// are served up to the limit and refused beyond it, a viewer that stops
// reading is disconnected while another goes on receiving, and the server
// still answers afterwards. Prints one JSON line of what happened.
// Usage: node view_bad.mjs <url> <max clients>
import WebSocket from "ws";

const [url, maxClients] = [process.argv[2], Number(process.argv[3])];
const PROTOCOL = "foxglove.websocket.v1";

// A connection and the text messages it has received.
function open() {
  const ws = new WebSocket(url, [PROTOCOL]);
  ws.texts = [];
  ws.binaries = 0;
  ws.closed = false;
  ws.on("message", (data, binary) => (binary ? ws.binaries++ : ws.texts.push(JSON.parse(data))));
  ws.on("close", (code) => ((ws.closed = true), (ws.closeCode = code)));
  ws.on("error", () => {});
  return ws;
}

const sleep = (ms) => new Promise((resolve) => setTimeout(resolve, ms));
async function until(condition, ms = 5000) {
  for (const end = Date.now() + ms; Date.now() < end; await sleep(20)) {
    if (condition()) return true;
  }
  return false;
}
const statusOf = (ws, text) => ws.texts.find((m) => m.op === "status" && m.message.includes(text));
const channelOf = (ws, schema) =>
  ws.texts.find((m) => m.op === "advertise").channels.find((c) => c.schemaName === schema).id;

const result = {};
const a = open();
await until(() => a.texts.some((m) => m.op === "advertise"));
for (const [name, send, expected] of [
  ["malformed", "{not json", "malformed JSON"],
  ["unknownOp", JSON.stringify({ op: "dance" }), "unsupported operation"],
  ["noChannel", JSON.stringify({ op: "subscribe", subscriptions: [{ id: 1, channelId: 99 }] }),
    "channel 99 does not exist"],
  ["binary", Buffer.from([1, 2, 3]), "binary messages are not supported"],
]) {
  a.send(send);
  result[name] = (await until(() => statusOf(a, expected))) && statusOf(a, expected).level === 2;
}
a.send("x".repeat(100_000));
result.oversized = (await until(() => a.closed)) && !!statusOf(a, "message too large");

// Many at once: viewers up to the limit that subscribe are served, the
// rest refused with a close frame that says why.
const subscribe = (ws) => {
  const id = channelOf(ws, "foxglove.SceneUpdate");
  ws.send(JSON.stringify({ op: "subscribe", subscriptions: [{ id: 7, channelId: id }] }));
};
const busy = Array.from({ length: maxClients }, open);
await until(() => busy.every((ws) => ws.texts.some((m) => m.op === "advertise")));
busy.forEach(subscribe);
await until(() => busy.every((ws) => ws.binaries > 0), 10000);
const many = Array.from({ length: 200 - maxClients }, open);
await until(() => many.every((ws) => ws.closed), 10000);
result.served = busy.filter((ws) => !ws.closed && ws.binaries > 0).length;
result.refused = many.filter((ws) => statusOf(ws, "too many viewers") && ws.closeCode === 1008)
  .length;
[...busy, ...many].forEach((ws) => ws.terminate());
await sleep(300);

// A viewer that stops reading is cut off; the other one goes on receiving.
const stalled = open();
const reader = open();
await until(() => stalled.texts.length > 1 && reader.texts.length > 1);
[stalled, reader].forEach(subscribe);
await until(() => stalled.binaries > 0);
stalled._socket.pause();
const before = reader.binaries;
// A paused socket does not see its end: look once the server had its time.
await sleep(8000);
stalled._socket.resume();
result.stalledClosed = await until(() => stalled.closed, 5000);
result.readerReceived = reader.binaries - before;
reader.close();

const later = open();
result.answersAfterwards = await until(() => later.texts.some((m) => m.op === "serverInfo"));
later.close();
console.log(JSON.stringify(result));
process.exit(0);
