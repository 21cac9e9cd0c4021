"""radarscene.Subscriber against real providers on a private bus."""

import asyncio
import os
import select
import signal
import struct
import subprocess
import threading

import pytest

import radarscene
from conftest import BUILD, SOURCE, sessions, wait_until, write_recording
from radarscene.records import RecordReader

PYTHON = "/usr/bin/python3"


def increasing(scenes):
    times = [scene.time for scene in scenes]
    return all(a < b for a, b in zip(times, times[1:]))


def test_iterator_select_and_asyncio_read_one_stream_with_the_features_asked(providers):
    providers.start("radarscene-demo-producer", "--rate", 100)
    with radarscene.Subscriber(bounding_box=True, timeout=20) as boxes, \
            radarscene.Subscriber(velocity=True, timeout=20) as moving:
        got = [next(boxes) for _ in range(3)]
        objects = [o for scene in got for o in scene.objects]
        assert objects and all(o.HasField("bounding_box") and not o.HasField("velocity")
                               for o in objects)
        assert all(o.HasField("velocity") and not o.HasField("bounding_box")
                   for o in next(moving).objects)

        # The same stream through the descriptor: whole scenes only, in order.
        while len(got) < 10:
            assert select.select([boxes.fileno()], [], [], 20)[0], "no scene within 20 s"
            got += boxes.read_nowait()

        async def tail():
            async for scene in boxes:
                got.append(scene)
                if len(got) == 15:
                    return
        asyncio.run(tail())
        assert increasing(got) and len(got) == 15


def test_records_are_whole_and_bad_ones_end_the_stream():
    good = radarscene.scene_pb2.Scene(time=7).SerializeToString()
    record = struct.pack(">I", len(good) + 4) + good
    reader = RecordReader(max_record=64)
    done = [reader.feed(record[i:i + 1])[0] for i in range(len(record))]
    assert [len(d) for d in done] == [0] * (len(record) - 1) + [1] and reader.pending() == 0

    scenes, error = RecordReader(64).feed(record + struct.pack(">I", 3) + record)
    assert [s.time for s, _ in scenes] == [7] and isinstance(error, radarscene.BrokenRecord)
    _, error = RecordReader(64).feed(struct.pack(">I", 6) + b"\xff\xff")
    assert isinstance(error, radarscene.BrokenRecord)
    scenes, error = RecordReader(len(good) - 1).feed(record)
    assert not scenes and isinstance(error, radarscene.RecordTooLarge)


def test_errors_are_exceptions_with_the_cause(providers, bus, work):
    with pytest.raises(radarscene.NoProvider):
        radarscene.Subscriber()
    states = []
    waiting = radarscene.Subscriber(channel=2, follow=True, on_state=states.append)
    with pytest.raises(radarscene.Timeout):
        waiting.read(timeout=0.3)
    assert states == [radarscene.PROVIDER_GONE]

    providers.start("radarscene-replay", "--delay", 60, "--channel", 2, "--class", "7=Tram",
                    write_recording(work / "one.rec", [1]))
    assert radarscene.supported_channels() == [2]
    assert radarscene.supported_classes(2) == {7: "Tram"}
    wait_until(lambda: waiting.read_nowait() == [] and waiting.state == radarscene.SUBSCRIBED)
    with pytest.raises(radarscene.UnknownChannel) as unknown:
        radarscene.Subscriber(channel=0)
    assert unknown.value.name == "org.freedesktop.DBus.Error.Failed"
    assert "Error subscribing channel" in unknown.value.message

    # The stream goes on after a read timeout; the close is recorded.
    with radarscene.Subscriber(channel=2, timeout=0.2) as quiet:
        with pytest.raises(radarscene.Timeout):
            next(quiet)
        assert quiet.read_nowait() == []
    assert sessions(bus)[quiet.session]["state"] == "unsubscribed"
    waiting.close()

    if os.geteuid() == 0:
        refused = subprocess.run(
            ["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", PYTHON, "-c",
             "import radarscene\ntry: radarscene.Subscriber(channel=2)\n"
             "except radarscene.AccessDenied as e: print(e.name)"],
            capture_output=True, text=True, env=os.environ)
        assert refused.stdout == "org.freedesktop.DBus.Error.AccessDenied\n", refused.stderr


def test_record_over_the_limit_ends_the_stream_cleanly(providers, bus):
    providers.start("radarscene-demo-producer", "--rate", 100)
    with radarscene.Subscriber(max_record=20, timeout=20) as small:
        with pytest.raises(radarscene.RecordTooLarge):
            next(small)
        assert list(small) == [] and small.state == radarscene.ENDED
        assert sessions(bus)[small.session]["state"] == "unsubscribed"


def test_close_from_another_thread_wakes_a_blocked_read(providers, bus, work):
    providers.start("radarscene-replay", "--delay", 60, write_recording(work / "one.rec", [1]))
    subscriber = radarscene.Subscriber()
    result = []
    reader = threading.Thread(target=lambda: result.append(subscriber.read()))
    reader.start()
    wait_until(lambda: subscriber._waiters == 1, what="the read to block")
    subscriber.close()
    reader.join(20)
    assert not reader.is_alive() and result == [None]
    assert sessions(bus)[subscriber.session]["state"] == "unsubscribed"


def test_counters_agree_with_the_provider(providers, bus, work):
    # Scenes 10 ms apart, with 1 + 2 + 3 left out before the 50th; the replay
    # goes on after it, so that its exit cannot take a scene checked here.
    times = [i * 10_000_000 for i in range(1, 61) if i not in (20, 30, 31, 40, 41, 42)]
    providers.start("radarscene-replay", "--delay", 1, "--rate", 25,
                    write_recording(work / "gaps.rec", times))
    with radarscene.Subscriber(timeout=20) as scenes:
        got = [next(scenes) for _ in range(10)]
        row = sessions(bus)[scenes.session]
        while scenes.statistics().scenes < row["scenes"]:
            got.append(next(scenes))
        counted = scenes.statistics()
        assert (counted.scenes, counted.bytes, counted.replaced) == (
            row["scenes"], row["bytes"], row["replaced"])
        while got[-1].time < times[-11]:
            got.append(next(scenes))
        assert [s.time for s in got] == times[times.index(got[0].time):-10]
        assert scenes.statistics().missing == 6


def test_following_a_provider_restarted_many_times_loses_no_record_whole(providers):
    # Records larger than a socket's buffer, so that a provider killed while
    # the next one is on its way leaves it cut.
    producer_args = ("radarscene-demo-producer", "--rate", 50, "--objects", 8000)
    restarts = 20
    states = []
    producer = providers.start(*producer_args)
    with radarscene.Subscriber(follow=True, timeout=20, on_state=states.append) as scenes:
        got = []
        for scene in scenes:
            got.append(scene)
            if len(got) % 2 == 0:
                if states.count(radarscene.SUBSCRIBED_AGAIN) == restarts:
                    break
                select.select([scenes.fileno()], [], [], 20)  # the next record begins
                providers.stop(producer, signal.SIGKILL if len(got) % 4 else signal.SIGTERM)
                producer = providers.start(*producer_args)
        assert increasing(got) and all(len(s.objects) == 8000 for s in got)
        assert states == [radarscene.SUBSCRIBED] + [
            radarscene.PROVIDER_GONE, radarscene.SUBSCRIBED_AGAIN] * restarts
        assert scenes.statistics().scenes == len(got)


def test_the_readme_program_runs_from_an_installed_prefix(providers, work):
    if os.environ.get("RADARSCENE_SANITIZE"):
        pytest.skip("installed programs are checked in builds without a sanitizer")
    program = (SOURCE / "examples/python/consumer.py").read_text()
    readme = (SOURCE / "README.md").read_text()
    shown = readme.split("### Python\n", 1)[1].split("```python\n", 1)[1].split("```", 1)[0]
    assert shown == program, "README.md shows another program than examples/python/consumer.py"

    prefix = work / "prefix"
    subprocess.run(["cmake", "--install", str(BUILD), "--prefix", str(prefix)], check=True,
                   stdout=subprocess.DEVNULL)
    providers.start("radarscene-demo-producer", "--rate", 50, tools=prefix / "bin")
    env = dict(os.environ, PYTHONPATH=str(prefix / "lib/python3/dist-packages"))
    run = subprocess.run([PYTHON, "-c", program], env=env, capture_output=True, text=True,
                         timeout=60, cwd=work)
    assert run.returncode == 0, run.stderr
    lines = run.stdout.splitlines()
    assert lines[0] == "channels [0], classes {1: 'Human', 2: 'Vehicle'}", run.stdout
    assert len(lines) == 7 and lines[-1].startswith("received 5 scenes"), run.stdout
    sub = subprocess.run([PYTHON, "-m", "radarscene.sub", "--count", "2"], env=env,
                         capture_output=True, text=True, timeout=60, cwd=work)
    assert sub.stdout.count(" 3 objects: 100 101 102\n") == 2, sub.stderr
