#!/usr/bin/env bash
# CPU of radarscene-view at 100 scenes/s of 128 objects with three viewers,
# each subscribed to the page's view and to the scene updates, for 10 s.
# Usage: bench/view_bench.sh <build dir>   (after the tests installed tests/js)
set -euo pipefail

build=$(cd "$1" && pwd)
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
source "$here/../tests/testlib.sh"
start_private_bus "$here/../tools/private-bus.conf.in"

"$build/tools/radarscene-demo-producer" --rate 100 --objects 128 2>/dev/null &
pids+=($!)
"$build/tools/radarscene-view" --wait 10 --listen 127.0.0.1:0 \
    --web-root "$here/../tools/view/web" 2>"$work/view.log" &
view=$!
pids+=($view)
for _ in $(seq 50); do grep -q serving "$work/view.log" && break; sleep 0.1; done
port=$(sed -n 's|.*serving http://127.0.0.1:\([0-9]*\)/|\1|p' "$work/view.log")

ticks() { awk '{print $14 + $15}' "/proc/$view/stat"; }
viewer() {
    (cd "$here/../tests/js" && node --input-type=module -e '
import WebSocket from "ws";
const ws = new WebSocket(process.argv[1], ["foxglove.websocket.v1"]);
let messages = 0;
ws.on("message", (data, binary) => {
  if (binary) { messages++; return; }
  const m = JSON.parse(data);
  if (m.op !== "advertise") return;
  const ids = m.channels.filter((c) => /SceneView|SceneUpdate/.test(c.schemaName)).map((c) => c.id);
  ws.send(JSON.stringify({ op: "subscribe", subscriptions: ids.map((id, i) => ({ id: i, channelId: id })) }));
});
setTimeout(() => { console.log(messages); process.exit(0); }, 12000);
' "ws://127.0.0.1:$port/")
}
viewers=()
for i in 1 2 3; do
    viewer >"$work/viewer$i" &
    viewers+=($!)
done
sleep 2
start=$(ticks)
sleep 10
used=$(($(ticks) - start))
wait "${viewers[@]}"
echo "radarscene-view: $((used * 100 / $(getconf CLK_TCK) / 10))% of one core over 10 s;" \
    "messages per viewer in 12 s: $(cat "$work"/viewer* | tr '\n' ' ')"
