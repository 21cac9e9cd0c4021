#!/usr/bin/python3
"""A Python consumer of the radar scene stream: subscribes to the provider on
the system bus and prints one line per scene.

Needs Debian's python3-dbus and python3-protobuf, and the classes that the
build generates from scene.proto (scene_pb2.py, found beside this script or
in $RADARSCENE_PYTHON_DIR).
"""

import argparse
import os
import socket
import struct
import sys

import dbus

sys.path.insert(0, os.environ.get("RADARSCENE_PYTHON_DIR", os.path.dirname(os.path.abspath(__file__))))
import scene_pb2  # noqa: E402

SERVICE = "com.tessel.RadarSceneProvider1"
PATH = "/com/tessel/RadarSceneProvider1"
INTERFACE = "com.tessel.RadarSceneProvider1.Scene"


def read_exactly(stream, size):
    data = b""
    while len(data) < size:
        chunk = stream.recv(size - len(data))
        if not chunk:
            raise EOFError("the provider closed the stream")
        data += chunk
    return data


def read_scene(stream):
    # The big-endian length word counts its own four bytes.
    (length,) = struct.unpack(">I", read_exactly(stream, 4))
    if length < 4:
        raise ValueError("malformed record")
    scene = scene_pb2.Scene()
    scene.ParseFromString(read_exactly(stream, length - 4))
    return scene


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--channel", type=int, default=0)
    parser.add_argument("--count", type=int, default=10)
    args = parser.parse_args()

    provider = dbus.Interface(dbus.SystemBus().get_object(SERVICE, PATH), INTERFACE)
    features = dbus.Dictionary({"BOUNDINGBOX_ENABLED": True}, signature="sb")
    handle, session = provider.SubscribeSocket(3, args.channel, features)
    with socket.socket(fileno=handle.take()) as stream:
        for _ in range(args.count):
            scene = read_scene(stream)
            ids = " ".join(str(o.id) for o in scene.objects)
            print(f"t={scene.time / 1e9:.3f} s  {len(scene.objects)} objects: {ids}", flush=True)
    provider.UnsubscribeSocket(session)


if __name__ == "__main__":
    try:
        main()
    except (dbus.DBusException, EOFError, ValueError) as error:
        sys.exit(f"radarscene_sub.py: {error}")
