"""CPU time per scene of radarscene.Subscriber beside a bare Python read loop.

Starts the demo producer given as the first argument on the bus that
DBUS_SYSTEM_BUS_ADDRESS names, and reads its scenes three ways, taking turns:
a bare loop (two blocking reads per record, no decoding), the same loop
decoding each scene, and the Subscriber. Prints CPU microseconds per scene
(this process only; the producer runs in its own).

    dbus-run-session -- sh -c 'DBUS_SYSTEM_BUS_ADDRESS=$DBUS_SESSION_BUS_ADDRESS \\
        PYTHONPATH=build/python /usr/bin/python3 bench/python_subscriber.py \\
        build/tools/radarscene-demo-producer'
"""

import socket
import struct
import subprocess
import sys
import time

import dbus

import radarscene
from radarscene import scene_pb2

SCENES = 2000
RATE = 1000
ROUNDS = 3


def bare(decode):
    bus = dbus.SystemBus(private=True)
    owner = bus.get_name_owner("com.tessel.RadarSceneProvider1")
    handle, session = bus.call_blocking(
        owner, "/com/tessel/RadarSceneProvider1", "com.tessel.RadarSceneProvider1.Scene",
        "SubscribeSocket", "iia{sb}", (3, 0, {"BOUNDINGBOX_ENABLED": True}))
    with socket.socket(fileno=handle.take()) as stream:
        start = time.process_time()
        for _ in range(SCENES):
            (length,) = struct.unpack(">I", stream.recv(4, socket.MSG_WAITALL))
            payload = stream.recv(length - 4, socket.MSG_WAITALL)
            if decode:
                scene_pb2.Scene.FromString(payload)
        spent = time.process_time() - start
    bus.call_blocking(owner, "/com/tessel/RadarSceneProvider1",
                      "com.tessel.RadarSceneProvider1.Scene", "UnsubscribeSocket", "i", (session,))
    bus.close()
    return spent


def subscriber():
    with radarscene.Subscriber(bounding_box=True, timeout=10) as scenes:
        start = time.process_time()
        for _, _scene in zip(range(SCENES), scenes):
            pass
        return time.process_time() - start


def main():
    for objects in (16, 128):
        producer = subprocess.Popen([sys.argv[1], "--rate", str(RATE), "--objects", str(objects)],
                                    stderr=subprocess.DEVNULL)
        try:
            while True:
                try:
                    radarscene.supported_channels()
                    break
                except radarscene.NoProvider:
                    time.sleep(0.05)
            ways = {"bare read": lambda: bare(False), "bare read + decode": lambda: bare(True),
                    "Subscriber": subscriber}
            spent = dict.fromkeys(ways, 0.0)
            for _ in range(ROUNDS):
                for name, way in ways.items():
                    spent[name] += way()
            for name, seconds in spent.items():
                per_scene = seconds / (ROUNDS * SCENES) * 1e6
                ratio = seconds / spent["bare read + decode"]
                print(f"{objects:4d} objects  {name:20s} {per_scene:7.1f} us CPU/scene"
                      f"  {ratio:5.2f}x bare read + decode")
        finally:
            producer.terminate()
            producer.wait()


if __name__ == "__main__":
    main()
