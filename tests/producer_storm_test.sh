#!/usr/bin/env bash
# The demo producer under a storm of clients that subscribe and never read:
# its event loop, which answers every D-Bus call of the provider, keeps
# answering while the frames wait for the stalled sessions.
# Usage: producer_storm_test.sh <build dir> <bus configuration template> [producer]
set -euo pipefail

build=$1
producer=${3:-$build/tools/radarscene-demo-producer}
source "$(dirname "${BASH_SOURCE[0]}")/testlib.sh"

start_private_bus "$2"
"$producer" --rate 100 --objects 400 2>/dev/null &
pids+=($!)

# Subscribes in a loop and never reads; when the channel is full, the oldest
# sessions are dropped to make room for new ones.
/usr/bin/python3 - <<'EOF2' &
import dbus, time
bus = dbus.SystemBus()
while not bus.name_has_owner("com.tessel.RadarSceneProvider1"):
    time.sleep(0.1)
scene = dbus.Interface(bus.get_object("com.tessel.RadarSceneProvider1",
                                      "/com/tessel/RadarSceneProvider1", introspect=False),
                       "com.tessel.RadarSceneProvider1.Scene")
sessions = []
while True:
    try:
        fd, _ = scene.SubscribeSocket(3, 0, dbus.Dictionary({}, signature="sb"))
        sessions.append(fd.take())
    except dbus.DBusException:
        time.sleep(0.05)
        del sessions[:10]  # closed unread: those sessions break on their next scene
EOF2
storm=$!
pids+=($storm)

# Pings the provider's connection back to back for four seconds of the
# storm: a loop that answers at once gets through hundreds, one that waits
# for the sessions' deadlines through a few.
answered=$(/usr/bin/python3 - <<'EOF2'
import dbus, time
bus = dbus.SystemBus()
for _ in range(100):
    if bus.name_has_owner("com.tessel.RadarSceneProvider1"):
        break
    time.sleep(0.1)
time.sleep(2)  # the first sessions' sockets fill
answered = 0
end = time.monotonic() + 4
while time.monotonic() < end:
    bus.call_blocking("com.tessel.RadarSceneProvider1", "/", "org.freedesktop.DBus.Peer", "Ping",
                      "", (), timeout=60)
    answered += 1
print(answered)
EOF2
)
kill -0 "$storm" || fail "the storm ended early"
echo "$answered pings answered in four seconds of the storm"
((answered >= 40)) || fail "the producer answered $answered pings in four seconds of the storm"
