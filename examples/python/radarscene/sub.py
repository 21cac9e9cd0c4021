"""Subscribes to a channel of the radar scene provider on the system bus and
prints one line per scene: its time, its number of objects and their ids.

Needs Debian's python3-dbus and python3-protobuf. Run it as
python3 -m radarscene.sub.
"""

import argparse
import socket
import struct
import sys

import dbus

from radarscene import scene_pb2

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
    parser = argparse.ArgumentParser(
        prog="python3 -m radarscene.sub",
        description=__doc__.split("\n\n")[0].replace("\n", " "),
    )
    parser.add_argument("--channel", type=int, default=0, help="radar channel (default 0)")
    parser.add_argument("--count", type=int, default=10, help="scenes to show (default 10)")
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
        sys.exit(f"radarscene.sub: {error}")
