// The radarscene view: a bird's-eye picture of one radar channel, from the
// viewer's Foxglove WebSocket channel "radarscene.SceneView". The protocol
// part keeps the newest scene; the drawing part draws it once per animation
// frame, so the page never falls behind however fast scenes arrive.
"use strict";

const PALETTE = ["#e64d40", "#408cf2", "#4dbf59", "#f2b333", "#a666d9", "#33bfbf"];
const TRAIL_LENGTH = 20;
// Without a scene for this long the picture is shown as stale.
const STALE_MS = 1000;

const state = {
  scene: null, // the newest scene, not yet drawn
  arrivedAt: 0, // performance.now() when it arrived
  paused: false,
  range: 80, // metres from the radar to the nearest edge of the picture
  trails: new Map(), // object id -> recent positions
  counts: { scenes: 0, since: performance.now(), rate: 0, missing: 0 },
  lastTime: 0,
  period: 0,
  channel: "", // the channel's topic, as advertised
  classes: new Map(), // class id -> name, of the objects seen
  retry: 1000, // before connecting again
};

// What the page drew last, for tests and the curious.
window.radarView = {
  drawn: { scenes: 0, objects: [], time: 0, arrows: 0, legend: [], stale: false, channel: "" },
};

// ---- protocol ----

function connect() {
  const url = `${location.protocol === "https:" ? "wss" : "ws"}://${location.host}/`;
  const socket = new WebSocket(url, "foxglove.websocket.v1");
  socket.binaryType = "arraybuffer";
  let subscription = null;
  let refusal = "";
  socket.onopen = () => notice("");
  socket.onclose = (event) => {
    // A refusal's reason stays on screen while the page tries again, later
    // each time.
    const why = refusal || event.reason;
    notice(why ? `${why}; trying again in ${state.retry / 1000} s` :
      "disconnected from the viewer; trying again");
    setTimeout(connect, state.retry);
    state.retry = why ? Math.min(30000, state.retry * 2) : 1000;
    restarted();
  };
  socket.onmessage = (event) => {
    if (typeof event.data === "string") {
      const message = JSON.parse(event.data);
      if (message.op === "advertise" && subscription === null) {
        const channel = message.channels.find((c) => c.schemaName === "radarscene.SceneView");
        if (channel) {
          subscription = 1;
          state.channel = channel.topic;
          socket.send(JSON.stringify({ op: "subscribe",
            subscriptions: [{ id: subscription, channelId: channel.id }] }));
        }
      } else if (message.op === "status") {
        providerStatus(message);
        if (message.level === 2) refusal = message.message;
      }
      return;
    }
    const view = new DataView(event.data);
    if (view.getUint8(0) === 1 && view.getUint32(1, true) === subscription) {
      const scene = JSON.parse(new TextDecoder().decode(new Uint8Array(event.data, 13)));
      state.retry = 1000;
      received(scene);
    }
  };
}

// The provider's comings and goings: its absence is told, and the time
// while it was away is no missing scenes.
function providerStatus(message) {
  notice(message.level > 0 ? message.message : "");
  if (message.level === 1) restarted();
}

function restarted() {
  state.lastTime = 0;
  state.period = 0;
}

// Rates and the scenes that the time stamps show to be missing.
function received(scene) {
  const c = state.counts;
  c.scenes++;
  if (state.lastTime && scene.time > state.lastTime) {
    const gap = scene.time - state.lastTime;
    if (state.period && gap > 1.5 * state.period) {
      c.missing += Math.round(gap / state.period) - 1;
    } else {
      state.period = state.period ? 0.9 * state.period + 0.1 * gap : gap;
    }
  }
  state.lastTime = scene.time;
  state.scene = scene;
  state.arrivedAt = performance.now();
  for (const o of scene.objects) state.classes.set(o.class, o.name);
}

function notice(text) {
  document.getElementById("notice").textContent = text;
}

// ---- drawing ----

const canvas = document.getElementById("radar");
const context = canvas.getContext("2d");

// Radar frame (x forward, y left, metres) to canvas pixels: the radar sits in
// the centre, looking up.
function projector() {
  const ox = canvas.width / 2;
  const oy = canvas.height / 2;
  const scale = Math.min(ox, oy) / state.range;
  return { scale, at: (x, y) => [ox - y * scale, oy - x * scale], ox, oy };
}

function drawGrid(p) {
  context.strokeStyle = "#2b3947";
  context.fillStyle = "#6b7d90";
  context.lineWidth = 1;
  const step = [5, 10, 25, 50, 100].find((s) => state.range / s <= 8) ?? 200;
  for (let r = step; r <= state.range * 1.5; r += step) {
    context.beginPath();
    context.arc(p.ox, p.oy, r * p.scale, 0, 2 * Math.PI);
    context.stroke();
    context.fillText(`${r} m`, p.ox + 4, p.oy - r * p.scale - 4);
  }
  // Bearings clockwise from the boresight, labelled near the edge.
  for (let bearing = 0; bearing < 360; bearing += 30) {
    const b = (bearing * Math.PI) / 180;
    const [x, y] = p.at(state.range * 1.5 * Math.cos(b), -state.range * 1.5 * Math.sin(b));
    context.beginPath();
    context.moveTo(p.ox, p.oy);
    context.lineTo(x, y);
    context.stroke();
    const label = bearing > 180 ? bearing - 360 : bearing;
    const [lx, ly] = p.at(state.range * 0.92 * Math.cos(b), -state.range * 0.92 * Math.sin(b));
    context.fillText(`${label}°`, lx - 10, ly + 4);
  }
  // The boresight: where the radar looks.
  context.strokeStyle = "#9fb3c8";
  context.lineWidth = 2;
  context.beginPath();
  context.moveTo(p.ox, p.oy);
  context.lineTo(p.ox, p.oy - state.range * p.scale);
  context.stroke();
  context.beginPath();
  context.moveTo(p.ox - 7, p.oy + 6);
  context.lineTo(p.ox, p.oy - 8);
  context.lineTo(p.ox + 7, p.oy + 6);
  context.closePath();
  context.fillStyle = "#9fb3c8";
  context.fill();
  context.lineWidth = 1;
}

// An arrow from (x, y) by (dx, dy) metres, with a head.
function arrow(p, x, y, dx, dy) {
  const [sx, sy] = p.at(x, y);
  const [ex, ey] = p.at(x + dx, y + dy);
  const angle = Math.atan2(ey - sy, ex - sx);
  const head = Math.min(8, Math.hypot(ex - sx, ey - sy));
  context.lineWidth = 2;
  context.beginPath();
  context.moveTo(sx, sy);
  context.lineTo(ex, ey);
  context.stroke();
  context.beginPath();
  context.moveTo(ex, ey);
  context.lineTo(ex - head * Math.cos(angle - 0.45), ey - head * Math.sin(angle - 0.45));
  context.lineTo(ex - head * Math.cos(angle + 0.45), ey - head * Math.sin(angle + 0.45));
  context.closePath();
  context.fill();
  context.lineWidth = 1;
}

// One line per class seen, in its colour.
function drawLegend() {
  const classes = [...state.classes].sort((a, b) => a[0] - b[0]);
  classes.forEach(([id, name], i) => {
    context.fillStyle = colourOf(id);
    context.fillRect(10, 12 + i * 16, 10, 10);
    context.fillStyle = "#d8dee6";
    context.fillText(name, 26, 21 + i * 16);
  });
  if (state.channel) context.fillText(state.channel, 10, canvas.height - 10);
  return classes.map(([, name]) => name);
}

function colourOf(cls) {
  return PALETTE[(cls + 1 + PALETTE.length) % PALETTE.length];
}

function path(p, points, close) {
  context.beginPath();
  points.forEach(([x, y], i) => {
    const [sx, sy] = p.at(x, y);
    if (i === 0) context.moveTo(sx, sy);
    else context.lineTo(sx, sy);
  });
  if (close) context.closePath();
}

function drawObject(p, o) {
  const colour = colourOf(o.class);
  context.strokeStyle = colour;
  context.fillStyle = colour;
  const trail = state.trails.get(o.id) ?? [];
  if (trail.length > 1) {
    context.globalAlpha = 0.4;
    path(p, trail, false);
    context.stroke();
    context.globalAlpha = 1;
  }
  if (o.box) {
    const [x0, y0, x1, y1] = o.box;
    path(p, [[x0, y0], [x0, y1], [x1, y1], [x1, y0]], true);
    context.globalAlpha = 0.25;
    context.fill();
    context.globalAlpha = 1;
    context.stroke();
  }
  if (o.outline && o.outline.length > 1) {
    path(p, o.outline, true);
    context.stroke();
  }
  if (o.velocity) arrow(p, o.x, o.y, o.velocity[0], o.velocity[1]);
  const [sx, sy] = p.at(o.x, o.y);
  context.fillRect(sx - 2, sy - 2, 4, 4);
  context.fillText(`${o.name} #${o.id}`, sx + 6, sy - 6);
}

function draw(scene, stale) {
  canvas.width = canvas.clientWidth;
  canvas.height = canvas.clientHeight;
  context.font = "12px system-ui, sans-serif";
  // A stale picture is drawn greyed, so that nobody takes it for live.
  canvas.style.filter = stale ? "grayscale(1) opacity(0.5)" : "";
  const p = projector();
  drawGrid(p);
  const seen = new Set();
  for (const o of scene.objects) {
    const trail = state.trails.get(o.id) ?? [];
    trail.push([o.x, o.y]);
    if (trail.length > TRAIL_LENGTH) trail.shift();
    state.trails.set(o.id, trail);
    seen.add(o.id);
    drawObject(p, o);
  }
  for (const id of state.trails.keys()) {
    if (!seen.has(id)) state.trails.delete(id);
  }
  const drawn = window.radarView.drawn;
  drawn.legend = drawLegend();
  drawn.scenes++;
  drawn.objects = scene.objects.map((o) => o.id);
  drawn.arrows = scene.objects.filter((o) => o.velocity).length;
  drawn.time = scene.time;
  drawn.stale = stale;
  drawn.channel = state.channel;
}

function showStatus() {
  const c = state.counts;
  const now = performance.now();
  if (now - c.since >= 1000) {
    c.rate = (c.scenes * 1000) / (now - c.since);
    c.scenes = 0;
    c.since = now;
  }
  const scene = state.scene;
  const age = now - state.arrivedAt;
  // Scenes of another clock (a recording of another machine) have no delay.
  const delay = !scene || scene.delay_ms === null ? "delay unknown"
    : `push to display ${(scene.delay_ms + age).toFixed(1)} ms`;
  const stale = age >= STALE_MS ? ` · no scene for ${(age / 1000).toFixed(0)} s` : "";
  document.getElementById("status").textContent = scene
    ? `${c.rate.toFixed(1)} scenes/s · ${scene.objects.length} objects · ` +
      `${delay} · ${c.missing} missing${stale}` + (state.paused ? " · paused" : "")
    : "waiting for scenes…";
  document.getElementById("channel").textContent = state.channel;
}

function frame() {
  const stale = state.scene !== null && performance.now() - state.arrivedAt >= STALE_MS;
  if (state.scene && !state.paused && (state.scene !== state.drawnScene || stale !== state.drawnStale)) {
    draw(state.scene, stale);
    state.drawnScene = state.scene;
    state.drawnStale = stale;
  }
  showStatus();
  requestAnimationFrame(frame);
}

function zoom(factor) {
  state.range = Math.min(500, Math.max(10, state.range * factor));
  state.drawnScene = null;
}

document.getElementById("pause").onclick = (event) => {
  state.paused = !state.paused;
  event.target.textContent = state.paused ? "Resume" : "Pause";
};
document.getElementById("zoom-in").onclick = () => zoom(1 / 1.25);
document.getElementById("zoom-out").onclick = () => zoom(1.25);
canvas.addEventListener("wheel", (event) => {
  event.preventDefault();
  zoom(event.deltaY > 0 ? 1.1 : 1 / 1.1);
});

// A secret given in the address has been exchanged for a cookie with the
// page: it leaves the address bar and the history.
if (new URLSearchParams(location.search).has("token")) {
  history.replaceState(null, "", location.pathname);
}
connect();
requestAnimationFrame(frame);
