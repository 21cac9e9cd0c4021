"""Fixtures of the Python consumer tests: a private system bus and providers
run from the build's tools."""

import os
import shutil
import signal
import struct
import subprocess
import tempfile
import time
from pathlib import Path

import dbus
import pytest

from radarscene import scene_pb2

BUILD = Path(os.environ["RADARSCENE_BUILD_DIR"])
SOURCE = Path(__file__).resolve().parents[2]
SERVICE = "com.tessel.RadarSceneProvider1"


def wait_until(condition, seconds=20, what="condition"):
    """Waits for condition() to hold; the deadline only bounds the wait."""
    deadline = time.monotonic() + seconds
    while not condition():
        assert time.monotonic() < deadline, f"timed out waiting for {what}"
        time.sleep(0.02)


@pytest.fixture(scope="session")
def work():
    # Readable by others, so that a client can run as another user.
    folder = tempfile.mkdtemp(prefix="radarscene-pytest-")
    os.chmod(folder, 0o755)
    yield Path(folder)
    shutil.rmtree(folder)


@pytest.fixture(scope="session", autouse=True)
def bus(work):
    config = work / "bus.conf"
    template = (SOURCE / "tools/private-bus.conf.in").read_text()
    config.write_text(template.replace("@DIR@", str(work)))
    read, write = os.pipe()
    daemon = subprocess.Popen(["dbus-daemon", f"--config-file={config}", "--nofork",
                               "--nopidfile", f"--print-address={write}"], pass_fds=(write,))
    os.close(write)
    with os.fdopen(read) as address:
        os.environ["DBUS_SYSTEM_BUS_ADDRESS"] = address.readline().strip()
    os.environ["VARRO_DEV_DIR"] = str(work / "broker")
    connection = dbus.SystemBus(private=True)
    yield connection
    connection.close()
    daemon.terminate()
    daemon.wait()


def sessions(bus):
    """The provider's own rows from "GetSessions", by session id."""
    rows = bus.call_blocking(SERVICE, "/com/tessel/RadarSceneProvider1/Statistics",
                             "com.tessel.RadarSceneProvider1.Statistics", "GetSessions", "", ())
    return {int(r[0]): {"scenes": int(r[5]), "replaced": int(r[6]), "bytes": int(r[7]),
                        "state": str(r[8])} for r in rows}


class Providers:
    """Starts providers from the build's tools and stops them at the end."""

    def __init__(self, bus):
        self.bus = bus
        self.running = []

    def start(self, tool, *args, tools=BUILD / "tools"):
        process = subprocess.Popen([str(tools / tool), *map(str, args)],
                                   stderr=subprocess.DEVNULL)
        self.running.append(process)
        wait_until(lambda: self.bus.name_has_owner(SERVICE), what=f"{tool} on the bus")
        return process

    def stop(self, process, how=signal.SIGTERM):
        process.send_signal(how)
        process.wait()
        self.running.remove(process)
        wait_until(lambda: not self.bus.name_has_owner(SERVICE), what="the name released")


@pytest.fixture
def providers(bus):
    started = Providers(bus)
    yield started
    for process in list(started.running):
        started.stop(process)


def write_recording(path, times):
    """A recording of empty scenes at the given times, as radarscene-sub --record writes."""
    with open(path, "wb") as out:
        for time_ns in times:
            scene = scene_pb2.Scene(time=time_ns).SerializeToString()
            out.write(struct.pack(">I", len(scene) + 4) + scene)
    return path
