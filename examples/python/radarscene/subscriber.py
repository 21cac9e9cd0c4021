"""Subscriber: one channel's scene stream from the radar scene provider."""

import asyncio
import collections
import os
import select
import socket
import threading
import time

import dbus

from radarscene import provider
from radarscene.errors import Error, NoProvider, Timeout, UnknownChannel
from radarscene.records import READ_SIZE, RecordReader
from radarscene.stats import SceneGaps, Statistics

SUBSCRIBED = "subscribed"
PROVIDER_GONE = "provider gone"
SUBSCRIBED_AGAIN = "subscribed again"
ENDED = "ended"
CLOSED = "closed"

# The feature keys of "SubscribeSocket", in the order of the keyword arguments.
FEATURES = ("BOUNDINGBOX_ENABLED", "POLYGON_ENABLED", "VELOCITY_ENABLED",
            "GEOLOCATION_ENABLED", "RAW_ENABLED")
# The keyword arguments that choose them.
FEATURE_NAMES = ("bounding_box", "polygon", "velocity", "geolocation", "raw")
DATA_FORMAT = 3
MAX_RECORD = 64 << 20  # bytes of one scene, as RadarScene::readSceneRecord accepts
RETRY_INTERVAL = 0.1  # seconds between subscriptions while the provider is gone
OWNER_CHECK_INTERVAL = 1.0  # seconds of silence before asking who owns the name
UNSUBSCRIBE_TIMEOUT = 2.0  # seconds close() waits for "UnsubscribeSocket"

_END = object()
_DEFAULT = object()


class Subscriber:
    """Scenes of one channel, read from the socket the provider hands out.

    ``Subscriber(channel=0, bounding_box=False, polygon=False, velocity=False,
    geolocation=False, raw=False, max_record=MAX_RECORD, follow=False,
    bus=None, timeout=None, on_state=None)`` calls "SubscribeSocket" at once
    with data format 3, the channel and the features asked for (what each
    scene carries), on ``bus`` (a dbus-python connection) or on a private
    connection to the system bus. It raises NoProvider, AccessDenied,
    UnknownChannel or Error, unless ``follow`` is set and the provider is
    merely not there yet.

    Reading, in any mix: iterate (``for scene in subscriber``) or call
    ``read()`` for one ``scene_pb2.Scene`` at a time, waiting at most
    ``timeout`` seconds (None: for ever; then Timeout is raised and the stream
    goes on); or poll ``fileno()`` with select, epoll or asyncio and take the
    complete scenes with ``read_nowait()``; or ``async for``. Scenes arrive
    whole, in order, never twice; a record cut by the provider's death is
    never delivered. A record over ``max_record`` bytes or one that cannot
    be decoded raises RecordTooLarge or BrokenRecord after the scenes before
    it, and ends the stream.

    When the provider goes away (the stream ends, or its bus name gets
    another owner or none), a subscriber that does not follow ends its stream;
    one that follows subscribes again with the same options as soon as a
    provider answers. ``state`` is SUBSCRIBED, PROVIDER_GONE,
    SUBSCRIBED_AGAIN, ENDED or CLOSED, and ``on_state(state)`` is called on
    each change, on the reading thread.

    ``close()`` (or leaving the ``with`` block) calls "UnsubscribeSocket",
    waiting at most 2 seconds, and closes the socket; it may be called from
    any thread and wakes a read blocked in another. Everything else belongs
    to one thread at a time.
    """

    def __init__(self, channel=0, bounding_box=False, polygon=False, velocity=False,
                 geolocation=False, raw=False, max_record=MAX_RECORD, follow=False, bus=None,
                 timeout=None, on_state=None):
        wanted = (bounding_box, polygon, velocity, geolocation, raw)
        self.channel = channel
        self.features = dbus.Dictionary(
            {key: dbus.Boolean(on) for key, on in zip(FEATURES, wanted)}, signature="sb")
        self.follow = follow
        self.timeout = timeout
        self.on_state = on_state
        self.state = None
        self.session = -1
        self._max_record = max_record
        self._lock = threading.RLock()  # on_state may ask for statistics()
        self._closed = False
        self._ended = False
        self._error = None
        self._waiters = 0
        self._drained = False  # the last read found the socket empty
        self._subscribed_before = False
        self._ready = collections.deque()
        self._socket = None
        self._owner = None
        self._reader = RecordReader(max_record)
        self._scenes = 0
        self._bytes = 0
        self._gaps = SceneGaps()
        self._replaced_before = 0  # by the provider's earlier sessions
        self._replaced = 0  # by the current session, as last asked
        self._next_try = 0.0
        self._last_heard = time.monotonic()
        self._own_bus = bus is None
        self._bus = provider.open_bus(bus)
        self._epoll = select.epoll()
        self._wake, self._waker = os.pipe2(os.O_CLOEXEC | os.O_NONBLOCK)
        self._epoll.register(self._wake, select.EPOLLIN)
        try:
            self._subscribe()
        except NoProvider:
            if not follow:
                self.close()
                raise
            self._set_state(PROVIDER_GONE)
        except BaseException:
            self.close()
            raise

    # --- the ways of reading -------------------------------------------------

    def __iter__(self):
        return self

    def __next__(self):
        scene = self.read()
        if scene is None:
            raise StopIteration
        return scene

    def read(self, timeout=_DEFAULT):
        """The next scene, waiting at most ``timeout`` seconds (default: the
        subscriber's); None once the stream has ended or been closed."""
        timeout = self.timeout if timeout is _DEFAULT else timeout
        deadline = None if timeout is None else time.monotonic() + timeout
        polled = False
        while True:
            with self._lock:
                if polled:
                    self._waiters -= 1
                    self._release_if_idle()
                # A socket just found empty is not read again before the wait.
                scene = self._next_nowait(read=polled or not self._drained)
                if scene is not None:
                    return None if scene is _END else scene
                wait = self._wait_interval(deadline)
                self._waiters += 1
            try:
                if wait <= 0:
                    raise Timeout(f"no scene within {timeout} s")
                self._epoll.poll(wait)
            except BaseException:
                with self._lock:
                    self._waiters -= 1
                    self._release_if_idle()
                raise
            polled = True

    def fileno(self):
        """A descriptor that is readable when read_nowait() has something to
        do. It stays the same through resubscriptions; while the provider is
        gone, call read_nowait() every RETRY_INTERVAL to try again."""
        return self._epoll.fileno()

    def read_nowait(self):
        """The scenes complete now, as a list (maybe empty), without waiting
        for the socket; None once the stream has ended or been closed."""
        with self._lock:
            scenes = []
            while True:
                scene = self._next_nowait()
                if scene is None or scene is _END:
                    return scenes if scenes or scene is None else None
                scenes.append(scene)

    def __aiter__(self):
        return self

    async def __anext__(self):
        loop = asyncio.get_running_loop()
        deadline = None if self.timeout is None else time.monotonic() + self.timeout
        while True:
            with self._lock:
                scene = self._next_nowait()
                if scene is _END:
                    raise StopAsyncIteration
                if scene is not None:
                    return scene
                wait = self._wait_interval(deadline)
                if wait <= 0:
                    raise Timeout(f"no scene within {self.timeout} s")
                self._waiters += 1
                descriptor = self.fileno()
            ready = loop.create_future()
            loop.add_reader(descriptor, lambda: ready.done() or ready.set_result(None))
            try:
                await asyncio.wait_for(ready, wait)
            except asyncio.TimeoutError:
                pass
            finally:
                loop.remove_reader(descriptor)
                with self._lock:
                    self._waiters -= 1
                    self._release_if_idle()

    # --- counters and end ----------------------------------------------------

    def statistics(self):
        """Statistics(scenes, bytes, missing, replaced) since the subscriber
        was opened; ``replaced`` is asked from the provider's Statistics
        object now, or kept from its last answer when it cannot be asked."""
        with self._lock:
            if self._socket is not None:
                try:
                    row = provider.session_row(self._bus, self._owner, self.session)
                    self._replaced = row["replaced"] if row else self._replaced
                except Error:
                    pass
            return Statistics(self._scenes, self._bytes, self._gaps.missing,
                              self._replaced_before + self._replaced)

    def close(self):
        """Unsubscribes, closes the socket and wakes any blocked read."""
        with self._lock:
            if self._closed:
                return
            self._closed = True
            os.write(self._waker, b"!")
            self._drop_stream(unsubscribe=True)
            self._ready.clear()
            if self._own_bus:
                self._bus.close()
            self._release_if_idle()
            self._set_state(CLOSED)

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()

    def __del__(self):
        if hasattr(self, "_waker"):  # not when the constructor failed early
            try:
                self.close()
            except Exception:
                pass  # the interpreter may be shutting down

    # --- inside (all under the lock) -----------------------------------------

    def _set_state(self, state):
        self.state = state
        if self.on_state is not None:
            self.on_state(state)

    def _subscribe(self):
        owner = provider.owner(self._bus)
        try:
            handle, session = provider.call(self._bus, owner, "SubscribeSocket", "iia{sb}",
                                            (DATA_FORMAT, self.channel, self.features))
        except Error as error:
            raise self._explain(error, owner) from None
        stream = socket.socket(fileno=handle.take())
        stream.setblocking(False)
        os.set_inheritable(stream.fileno(), False)
        self._epoll.register(stream.fileno(), select.EPOLLIN)
        self._socket, self._owner, self.session = stream, owner, int(session)
        self._reader = RecordReader(self._max_record)  # nothing of a cut record
        self._drained = False
        self._gaps.restart()
        self._replaced_before += self._replaced
        self._replaced = 0
        self._last_heard = time.monotonic()
        self._set_state(SUBSCRIBED_AGAIN if self._subscribed_before else SUBSCRIBED)
        self._subscribed_before = True

    def _explain(self, error, owner):
        # "Error subscribing channel" names no cause; a channel the provider
        # does not serve is the one a caller can do something about.
        if type(error) is Error:
            try:
                channels = provider.call(self._bus, owner, "GetSupportedChannels")
                if self.channel not in [int(c) for c in channels]:
                    return UnknownChannel(
                        f"{error.message} (channel {self.channel} is not served; the provider "
                        f"serves {', '.join(str(int(c)) for c in channels)})", error.name)
            except Error:
                pass
        return error

    def _drop_stream(self, unsubscribe):
        if self._socket is None:
            return
        if unsubscribe:
            try:
                provider.call(self._bus, self._owner, "UnsubscribeSocket", "i", (self.session,),
                              timeout=UNSUBSCRIBE_TIMEOUT)
            except Error:
                pass  # a provider that is gone has ended the session itself
        self._epoll.unregister(self._socket.fileno())
        self._socket.close()
        self._socket = None

    def _end(self):
        self._ended = True
        os.write(self._waker, b"!")  # so that pollers come back to hear of it
        self._set_state(ENDED)

    def _lost(self):
        # The session is over on the provider's side: nothing to unsubscribe.
        self._drop_stream(unsubscribe=False)
        if self.follow:
            self._next_try = 0.0
            self._set_state(PROVIDER_GONE)
        else:
            self._end()

    def _next_nowait(self, read=True):
        """A scene, _END, or None when there is nothing yet; reads the
        socket (unless told not to), checks the provider and subscribes
        again as needed."""
        if not self._ready and not self._closed and not self._ended and (
                read or self._socket is None):
            self._pump()
        if self._ready:
            return self._ready.popleft()
        if self._error is not None:
            error, self._error = self._error, None
            raise error
        return _END if self._closed or self._ended else None

    def _pump(self):
        now = time.monotonic()
        if self._socket is None:
            if now >= self._next_try:
                self._next_try = now + RETRY_INTERVAL
                try:
                    self._subscribe()
                except NoProvider:
                    pass
            return
        try:
            data = self._socket.recv(READ_SIZE)
        except BlockingIOError:
            self._drained = True
            if now - self._last_heard >= OWNER_CHECK_INTERVAL:
                self._check_owner(now)
            return
        except OSError:
            data = b""  # a reset connection ends the stream as its end does
        if not data:
            self._lost()
            return
        self._last_heard = now
        self._drained = len(data) < READ_SIZE
        scenes, error = self._reader.feed(data)
        for scene, size in scenes:
            self._scenes += 1
            self._bytes += size
            self._gaps.add(scene.time)
            self._ready.append(scene)
        if error is not None:
            self._error = error
            self._drop_stream(unsubscribe=True)
            self._end()

    def _check_owner(self, now):
        self._last_heard = now
        try:
            current = provider.owner(self._bus)
        except NoProvider:
            current = None
        except Error:
            return
        if current != self._owner:
            self._lost()

    def _wait_interval(self, deadline):
        """How long a reader may wait before it must come back: the time
        left, shortened while there is a provider to check or to wait for."""
        wait = OWNER_CHECK_INTERVAL if self._socket is not None else RETRY_INTERVAL
        if deadline is not None:
            left = deadline - time.monotonic()
            wait = left if wait is None else min(wait, left)
        return wait

    def _release_if_idle(self):
        # A reader waiting in epoll keeps its descriptors until it returns.
        if self._closed and self._waiters == 0 and not self._epoll.closed:
            self._epoll.close()
            os.close(self._wake)
            os.close(self._waker)
