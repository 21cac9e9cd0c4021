#!/usr/bin/env python3
# A viewer of radarscene-view written from RFC 6455 and the Foxglove WebSocket
# protocol's public description, with no library, and the hostile clients
# the view must hold against. Each command prints what went wrong and exits
# non-zero, or exits 0.
# Usage: view_guard.py COMMAND PORT [ARGS]...
import base64, hashlib, json, os, re, select, socket, ssl, struct, sys, threading, time

PROTOCOL = "foxglove.websocket.v1"
GUID = b"258EAFA5-E914-47DA-95CA-C5AB0DC85B11"


def fail(message):
    print(message)
    sys.exit(1)


def until(condition, seconds=10):
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        if condition():
            return True
        time.sleep(0.05)
    return False


class Viewer:
    """One WebSocket connection: the handshake, masked frames out, and the
    server's frames in, fragments joined."""

    def __init__(self, port, protocol=PROTOCOL, rcvbuf=None, host="127.0.0.1", source=None,
                 headers="", path="/", tls=None):
        self.sock = socket.socket()
        if rcvbuf:
            self.sock.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, rcvbuf)
        if source:
            self.sock.bind((source, 0))
        self.sock.settimeout(10)
        self.sock.connect((host, port))
        if tls:
            self.sock = tls.wrap_socket(self.sock, server_hostname="localhost")
        key = base64.b64encode(os.urandom(16))
        request = (f"GET {path} HTTP/1.1\r\nHost: {host}:{port}\r\nUpgrade: websocket\r\n"
                   f"Connection: Upgrade\r\nSec-WebSocket-Key: {key.decode()}\r\n"
                   "Sec-WebSocket-Version: 13\r\n" + headers)
        if protocol:
            request += f"Sec-WebSocket-Protocol: {protocol}\r\n"
        self.sock.sendall((request + "\r\n").encode())
        self.buffer = b""
        while b"\r\n\r\n" not in self.buffer:
            chunk = self.sock.recv(4096)
            if not chunk:
                break
            self.buffer += chunk
        head, _, self.buffer = self.buffer.partition(b"\r\n\r\n")
        lines = head.decode("latin-1").split("\r\n")
        self.status = int(lines[0].split()[1]) if lines[0] else 0
        self.headers = lines[1:]
        headers = {k.strip().lower(): v.strip() for k, _, v in (l.partition(":") for l in lines[1:])}
        accept = base64.b64encode(hashlib.sha1(key + GUID).digest()).decode()
        if self.status == 101 and headers.get("sec-websocket-accept") != accept:
            fail("a wrong Sec-WebSocket-Accept")
        self.close_code = None
        self.close_reason = ""
        self.channels = None

    @staticmethod
    def framed(opcode, payload, first=0x80, masked=True, length=None):
        """A frame as a client sends it: whole (FIN in `first`) and masked
        unless told, its length in the shortest form or `length`."""
        mask = os.urandom(4) if masked else b""
        n = len(payload) if length is None else length
        head = bytes([first | opcode])
        m = 0x80 if masked else 0
        if n < 126:
            head += bytes([m | n])
        elif n < 65536:
            head += bytes([m | 126]) + struct.pack(">H", n)
        else:
            head += bytes([m | 127]) + struct.pack(">Q", n)
        if not masked:
            return head + payload
        key = int.from_bytes((mask * (len(payload) // 4 + 1))[:len(payload)], "big")
        return head + mask + (int.from_bytes(payload, "big") ^ key).to_bytes(len(payload), "big")

    def send(self, opcode, payload):
        self.sock.sendall(self.framed(opcode, payload))

    def request(self, message):
        self.send(1, json.dumps(message).encode())

    def close(self, code=1000):
        self.send(8, struct.pack(">H", code))

    def _read(self, n):
        while len(self.buffer) < n:
            chunk = self.sock.recv(65536)
            if not chunk:
                raise EOFError
            self.buffer += chunk
        out, self.buffer = self.buffer[:n], self.buffer[n:]
        return out

    def frame(self):
        """The next whole message as (opcode, payload); None at the end."""
        data, opcode = b"", None
        try:
            while True:
                b0, b1 = self._read(2)
                n = b1 & 0x7F
                if n == 126:
                    n = struct.unpack(">H", self._read(2))[0]
                elif n == 127:
                    n = struct.unpack(">Q", self._read(8))[0]
                payload = self._read(n)
                if b0 & 0x0F == 8:
                    if len(payload) >= 2:
                        self.close_code = struct.unpack(">H", payload[:2])[0]
                        self.close_reason = payload[2:].decode()
                    return None
                opcode = opcode or b0 & 0x0F
                data += payload
                if b0 & 0x80:
                    return opcode, data
        except (EOFError, OSError):
            return None

    def texts_until(self, condition):
        """Reads messages until `condition(json)` holds; the message or None."""
        while (message := self.frame()) is not None:
            if message[0] == 1 and condition(json.loads(message[1])):
                return json.loads(message[1])
        return None

    def channel(self, schema):
        if not self.channels:
            advertise = self.texts_until(lambda m: m.get("op") == "advertise")
            if not advertise:
                fail("no channels advertised")
            self.channels = advertise["channels"]
        return next(c["id"] for c in self.channels if c["schemaName"] == schema)

    def subscribe(self, schema, sid=1):
        self.request({"op": "subscribe", "subscriptions": [{"id": sid, "channelId": self.channel(schema)}]})

    def data(self, sid=1):
        """The payload of the next message-data frame of subscription `sid`."""
        while (message := self.frame()) is not None:
            opcode, payload = message
            if opcode == 2 and payload[0] == 1 and struct.unpack("<I", payload[1:5])[0] == sid:
                return payload[13:]
        return None


def proc(pid, field):
    for line in open(f"/proc/{pid}/status"):
        if line.startswith(field + ":"):
            return int(line.split()[1])
    return 0


def descriptors(pid):
    return len(os.listdir(f"/proc/{pid}/fd"))


def serving(port):
    v = Viewer(port)
    v.subscribe("foxglove.SceneUpdate")
    ok = v.data() is not None
    v.close()
    return ok


def closing(port, max_clients):
    """A subscribed viewer's close is echoed at once with 1000; one viewer
    beyond the limit, when all read what they subscribed to, gets a close
    frame with a reason."""
    v = Viewer(port)
    v.subscribe("foxglove.SceneUpdate")
    if v.data() is None:
        fail("no scene before closing")
    v.sock.settimeout(5)
    v.close()
    while v.frame() is not None:
        pass
    if v.close_code != 1000:
        fail(f"the close was answered with {v.close_code} instead of 1000")
    busy = [Viewer(port) for _ in range(max_clients)]
    for b in busy:
        b.subscribe("RadarScene.Scene")
        b.data()
    readers = [threading.Thread(target=lambda b=b: [0 for _ in iter(b.frame, None)]) for b in busy]
    for r in readers:
        r.start()
    refused = Viewer(port)
    refused.sock.settimeout(5)
    while refused.frame() is not None:
        pass
    for b in busy:
        b.sock.shutdown(socket.SHUT_RDWR)
    for r in readers:
        r.join()
    if not refused.close_code or "too many viewers" not in refused.close_reason:
        fail(f"a refused viewer got close {refused.close_code} '{refused.close_reason}'")


def flood(port, pid, requests):
    """One status answers a request however many ids it names; requests of
    32,000 ids and then small ones whose answers are never read leave the
    server's size bounded, and the viewer is disconnected."""
    ids = json.dumps({"op": "unsubscribe", "subscriptionIds": [0] * 32000}, separators=(",", ":"))
    v = Viewer(port)
    v.channel("foxglove.SceneUpdate")
    v.send(1, ids.encode())
    v.request({"op": "dance"})
    statuses = []
    # The provider's condition comes with the channels, as information.
    v.texts_until(lambda m: m.get("level") != 0 and (statuses.append(m) or "dance" in m["message"]))
    if len(statuses) != 2:
        fail(f"{len(statuses) - 1} status messages answer one request")
    v.close()
    start = proc(pid, "VmRSS")
    v = Viewer(port, rcvbuf=4096)
    small = Viewer.framed(1, json.dumps({"op": "unsubscribe", "subscriptionIds": [0]}).encode()) * 100
    sent = 0
    try:
        while sent < requests + 200_000:
            if sent < requests:
                v.send(1, ids.encode())
            else:
                v.sock.sendall(small)
            sent += 1 if sent < requests else 100
            if sent % 100 == 0 and proc(pid, "VmRSS") - start > 64 * 1024:
                fail(f"resident size grew from {start} to {proc(pid, 'VmRSS')} KiB after {sent} requests")
    except (BrokenPipeError, ConnectionResetError):
        pass
    v.sock.settimeout(20)
    try:
        while v.sock.recv(65536):
            pass
    except ConnectionResetError:
        pass
    except socket.timeout:
        fail("a viewer that never reads its answers stays connected")
    print(f"flood: {sent} requests; resident size {start} KiB, at most {proc(pid, 'VmHWM')} KiB")


def hoard(port, pid, max_clients):
    """Connections that hold slots and descriptors: idle viewers, upgrades
    without the subprotocol, and TCP connections that say nothing or trickle."""
    idle = [Viewer(port) for _ in range(max_clients)]
    for v in idle:
        v.texts_until(lambda m: m.get("op") == "advertise")
    if not serving(port):
        fail("a viewer was locked out by viewers that never subscribe")
    foreign = [Viewer(port, protocol=None) for _ in range(50)]
    if any(v.status == 101 for v in foreign):
        fail("an upgrade without the subprotocol was accepted")
    # One of them trickles a request that never ends, a byte at a time.
    trickler = socket.create_connection(("127.0.0.1", port))
    silent = [trickler] + [socket.create_connection(("127.0.0.1", port)) for _ in range(16 * max_clients)]
    peak, end = 0, time.monotonic() + 40
    while silent and time.monotonic() < end:
        peak = max(peak, descriptors(pid))
        try:
            trickler.send(b"X")
        except OSError:
            pass
        for s in select.select(silent, [], [], 0.05)[0]:
            try:
                if s.recv(1) != b"":
                    fail("a connection that says nothing is answered")
            except ConnectionError:
                pass
            silent.remove(s)
            s.close()
    if peak > base_fds[0] + 4 * max_clients + 32:
        fail(f"the server holds {peak} descriptors")
    if silent:
        fail(f"{len(silent)} connections that say nothing are kept")
    if not serving(port):
        fail("no viewer served after the hoarding")
    print(f"hoard: at most {peak} descriptors held; peak resident size {proc(pid, 'VmHWM')} KiB")


def location(port):
    """No location fix while the device position is not valid: scenes with
    geographic positions arrive first, then a fix only at the position the
    geolocation service gives once it is valid."""
    v = Viewer(port)
    v.subscribe("foxglove.LocationFix", 1)
    v.subscribe("RadarScene.Scene", 2)
    scenes = 0
    while scenes < 20 and (message := v.frame()) is not None:
        if message[0] == 2 and message[1][0] == 1:
            sid = struct.unpack("<I", message[1][1:5])[0]
            if sid == 1:
                fail(f"a fix without a valid device position: {message[1][13:].decode()}")
            scenes += 1
    print("no fix", flush=True)
    fix = json.loads(v.data(1))
    if abs(fix["latitude"] - 10) > 0.01 or abs(fix["longitude"] - 20) > 0.01:
        fail(f"a fix away from the device: {fix}")


def get(port, headers="", host="127.0.0.1", tls=None, path="/", source=None):
    """A page request's status line and headers."""
    sock = socket.create_connection((host, port), timeout=10,
                                    source_address=(source, 0) if source else None)
    if tls:
        sock = tls.wrap_socket(sock, server_hostname="localhost")
    sock.sendall(f"GET {path} HTTP/1.1\r\nHost: {host}:{port}\r\n{headers}\r\n".encode())
    answer = b""
    try:
        while b"\r\n\r\n" not in answer and (chunk := sock.recv(4096)):
            answer += chunk
    except OSError:
        pass
    sock.close()
    lines = answer.decode("latin-1").split("\r\n")
    return (int(lines[0].split()[1]) if lines[0] else 0), lines[1:]


def origin(port):
    """Pages of other origins are refused with 403, the view's own page and
    clients without an Origin served; upgrades that are not ours get a
    status."""
    own = f"http://127.0.0.1:{port}"
    for where, headers, expected in [
            ("a foreign page", "Origin: http://evil.example\r\n", 403),
            ("a foreign page on the same host", "Origin: http://127.0.0.1:1\r\n", 403),
            ("a page in a sandbox", "Origin: null\r\n", 403),
            ("the view's page", f"Origin: {own}\r\n", 101),
            ("the view's page by name", f"Origin: http://LOCALHOST:{port}\r\n", 101),
            ("a client without Origin", "", 101)]:
        if (status := Viewer(port, headers=headers).status) != expected:
            fail(f"{where}: upgrade answered {status}, not {expected}")
        if (status := get(port, headers)[0]) != (200 if expected == 101 else expected):
            fail(f"{where}: page request answered {status}")
    if (status := Viewer(port, protocol=None).status) != 400:
        fail(f"an upgrade without the subprotocol answered {status}")


def rfc(port):
    """Frames and requests as RFC 6455 and HTTP/1.1 allow them are served,
    in any pieces; those they forbid fail the connection with the close
    code that says why, or get an HTTP status, and others are served on."""
    other = Viewer(port)
    other.subscribe("foxglove.SceneUpdate")
    v = Viewer(port)
    schemas = ["foxglove.SceneUpdate", "RadarScene.Scene", "radarscene.SceneView"] * 2
    sub = lambda sid, pad=0: (json.dumps({"op": "subscribe", "subscriptions": [
        {"id": sid, "channelId": v.channel(schemas[sid - 1])}]}) + " " * pad).encode()
    # A request of 16-bit length byte by byte; one of exactly the bound in a
    # 64-bit length; one in three fragments with a ping among them.
    for byte in Viewer.framed(1, sub(1, 200)):
        v.sock.send(bytes([byte]))
    v.send(1, sub(2, 65536 - len(sub(2))))
    request = sub(3)
    v.sock.sendall(Viewer.framed(1, request[:5], first=0) + Viewer.framed(9, b"ping!") +
                   Viewer.framed(0, request[5:9], first=0) + Viewer.framed(0, request[9:]))
    seen, pong = set(), None
    while len(seen) < 3 or not pong:
        message = v.frame()
        if message is None:
            fail(f"closed with {v.close_code} '{v.close_reason}' after frames RFC 6455 allows")
        if message[0] == 10:
            pong = message[1]
        elif message[0] == 2:
            seen.add(struct.unpack("<I", message[1][1:5])[0])
    if pong != b"ping!":
        fail(f"a ping answered with {pong}")
    v.close(3001)
    while v.frame() is not None:
        pass
    if v.close_code != 3001:
        fail(f"a close with 3001 answered with {v.close_code}")
    for what, frame, expected in [
            ("an unmasked frame", Viewer.framed(1, sub(4), masked=False), 1002),
            ("a reserved bit", Viewer.framed(1, b"{}", first=0xC0), 1002),
            ("an unknown opcode", Viewer.framed(3, b""), 1002),
            ("a fragmented ping", Viewer.framed(9, b"", first=0), 1002),
            ("a long ping", Viewer.framed(9, b"x" * 126), 1002),
            ("a continuation of nothing", Viewer.framed(0, b"{}"), 1002),
            ("a close of one byte", Viewer.framed(8, b"x"), 1002),
            ("a close code no one sends", Viewer.framed(8, struct.pack(">H", 1005)), 1002),
            ("text that is not UTF-8", Viewer.framed(1, b'"\xc0\xaf"'), 1007),
            ("a surrogate in text", Viewer.framed(1, b'"\xed\xa0\x80"'), 1007),
            ("a message beyond the bound", Viewer.framed(1, sub(5, 65537 - len(sub(5)))), 1009),
            ("a 64-bit length beyond all", Viewer.framed(1, b"", length=2**63 - 1), 1009)]:
        bad = Viewer(port)
        bad.channel("foxglove.SceneUpdate")
        bad.sock.sendall(frame)
        while bad.frame() is not None:
            pass
        if bad.close_code != expected:
            fail(f"{what}: closed with {bad.close_code}, not {expected}")
    # Subscriptions without their ids, and an id nested as deep as a message
    # allows, get a status like any other mistake.
    odd = Viewer(port)
    odd.request({"op": "subscribe", "subscriptions": [{}, {"id": 9}]})
    odd.send(1, b'{"op":"unsubscribe","subscriptionIds":[' + b"[" * 32000 + b"]" * 32000 + b"]}")
    if odd.texts_until(lambda m: m.get("message", "").startswith("no subscription")) is None:
        fail("requests with odd ids were not answered")
    if other.data() is None:
        fail("the others are no longer served")
    # HTTP: a request in pieces, a head, pipelined requests, what is refused.
    for bytes_, expected in [
            (b"GET /view.js HTTP/1.1\r\nHo", b"st: x\r\n\r\n"),
            (b"HEAD / HTTP/1.1\r\nHost: x\r\n\r\n", None),
            (b"GET / HTTP/1.1\r\nHost: x\r\n\r\nGET /view.css HTTP/1.1\r\nHost: x\r\n\r\n", None)]:
        sock = socket.create_connection(("127.0.0.1", port), timeout=10)
        sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        sock.sendall(bytes_)
        if expected:
            time.sleep(0.2)
            sock.sendall(expected)
        answer = b""
        while chunk := sock.recv(65536):
            answer += chunk
        head, _, body = answer.partition(b"\r\n\r\n")
        length = int(re.search(rb"Content-Length: (\d+)", head).group(1))
        if answer.count(b"HTTP/1.1 200") != 1 or (b"HEAD" in bytes_) != (body == b"") or \
                (len(body) != length and body) or (b".js" in bytes_) != (b"text/javascript" in head):
            fail(f"{bytes_}: answered {head}, {len(body)} bytes")
    for request, expected in [("POST / HTTP/1.1\r\nHost: x\r\n", 405), ("GET /../tools HTTP/1.1\r\nHost: x\r\n", 404),
                              ("GET / HTTP/1.1\r\n", 400), ("GET / HTTP/1.1\r\nHost : x\r\n", 400),
                              ("GET / HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\n", 400),
                              ("GET / HTTP/1.1\r\nHost: x\r\nContent-Length: 0\r\nContent-Length: 5\r\n", 400),
                              ("GET / HTTP/2.0\r\nHost: x\r\n", 505), ("GET / HTTP/1.1\nHost: x\n", 400),
                              ("GET / HTTP/1.1\r\nHost: x\r\nX: " + "x" * 9000 + "\r\n", 431)]:
        sock = socket.create_connection(("127.0.0.1", port), timeout=10)
        sock.sendall((request + "\r\n").encode())
        if not sock.recv(4096).startswith(f"HTTP/1.1 {expected} ".encode()):
            fail(f"{request[:40]}... is not answered {expected}")


def attacker(kind, port, stop):
    """One peer's attack from 127.0.0.1 until `stop` is set."""
    held = []
    while not stop.is_set():
        try:
            if kind in ("sockets", "spread"):
                # "spread": silent connections from 64 addresses.
                source = (f"127.0.1.{len(held) % 64 + 1}", 0) if kind == "spread" else None
                held.append(socket.create_connection(("127.0.0.1", port), 10, source))
                if len(held) >= 400:
                    stop.wait(0.5)
                continue
            if kind == "lingering":
                # Requests the view refuses, on connections this peer keeps open.
                s = socket.create_connection(("127.0.0.1", port), timeout=10)
                s.sendall(b"GET /nothing HTTP/1.1\r\nHost: x\r\n\r\n")
                held.append(s)
                if len(held) > 60:
                    held.pop(0).close()
                continue
            v = Viewer(port)
            held.append(v)
            if kind == "idle":
                stop.wait(0.01)
                continue
            # The channels as the view numbers them: scene updates, location.
            v.request({"op": "subscribe", "subscriptions": [{"id": 1, "channelId": 2 if kind == "slow" else 3}]})
            v.sock.settimeout(0.1)
            while not stop.is_set():
                # 4 KB/s for a slow reader; whatever comes for a holder.
                chunk = v.sock.recv(400 if kind == "slow" else 65536)
                if not chunk:
                    break
                if kind == "slow":
                    stop.wait(0.1)
        except OSError:
            stop.wait(0.05)
        if kind in ("slow", "silent") and held:
            held.pop().sock.close()
    for h in held:
        (h if isinstance(h, socket.socket) else h.sock).close()


def real_viewer(port, seconds):
    """A viewer from another address that takes its time to subscribe, as a
    page does: how long its first scene took, then how many it gets in
    `seconds`."""
    start = time.monotonic()
    try:
        v = Viewer(port, source="127.0.0.2")
        v.sock.settimeout(30)
        v.channel("foxglove.SceneUpdate")
        time.sleep(0.3)
        v.subscribe("foxglove.SceneUpdate")
    except OSError as e:
        fail(f"the real viewer was not served: {e}")
    if v.data() is None:
        fail(f"the real viewer got no scene: closed with {v.close_code} '{v.close_reason}'")
    first = time.monotonic() - start
    scenes, end = 0, time.monotonic() + seconds
    while time.monotonic() < end and v.data() is not None:
        scenes += 1
    v.close()
    return first, scenes / seconds


def attack(port, pid, kind, threads):
    """A real viewer from another address gets its scenes while one peer
    attacks; prints its rate and what the view holds."""
    stop = threading.Event()
    workers = [threading.Thread(target=attacker, args=(kind, port, stop))
               for _ in range(threads)]
    for w in workers:
        w.start()
    time.sleep(2)
    held = f"view {proc(pid, 'VmRSS')} KiB, {descriptors(pid)} descriptors"
    try:
        print(f"{kind}: {held}; ", end="", flush=True)
        first, rate = real_viewer(port, 3)
        print(f"real viewer's first scene after {first:.1f} s, then {rate:.1f} scenes/s")
    finally:
        stop.set()
        for w in workers:
            w.join()


def reader(port, subscriptions, stop, received):
    """A viewer that asks for `subscriptions` subscriptions of the scene
    updates and reads 100 KB/s."""
    v = Viewer(port)
    channel = v.channel("foxglove.SceneUpdate")
    v.request({"op": "subscribe", "subscriptions": [{"id": i, "channelId": channel}
                                                     for i in range(1, subscriptions + 1)]})
    v.sock.settimeout(0.1)
    while not stop.is_set():
        try:
            received.append(len(v.sock.recv(10000)))
        except OSError:
            pass
        stop.wait(0.1)
    v.sock.close()


def many(port, pid):
    """Fifteen viewers of 64 subscriptions each cost the view at most twice
    what fifteen ordinary viewers cost, and what they held goes back when
    they leave."""
    sizes = {}
    for subscriptions in (1, 64):
        stop, received = threading.Event(), []
        workers = [threading.Thread(target=reader, args=(port, subscriptions, stop, received))
                   for _ in range(15)]
        for w in workers:
            w.start()
        time.sleep(4)
        _, rate = real_viewer(port, 3)
        sizes[subscriptions] = proc(pid, "VmRSS")
        stop.set()
        for w in workers:
            w.join()
        print(f"15 viewers of {subscriptions} subscriptions: view {sizes[subscriptions]} KiB, "
              f"real viewer {rate:.1f} scenes/s")
    until(lambda: proc(pid, "VmRSS") <= 1.25 * sizes[1], 10)
    print(f"after they left: view {proc(pid, 'VmRSS')} KiB")
    if sizes[64] > 2 * sizes[1]:
        fail(f"64 subscriptions per viewer took the view to {sizes[64]} KiB, from {sizes[1]}")
    if proc(pid, "VmRSS") > 1.25 * sizes[1]:
        fail(f"the view keeps {proc(pid, 'VmRSS')} KiB after the viewers left")


def backlog(port):
    """A viewer that lets the answers to its requests pile up is closed with
    a reason, which it finds once it reads."""
    v = Viewer(port, rcvbuf=4096)
    v.sock.settimeout(2)
    small = Viewer.framed(1, b'{"op":"unsubscribe","subscriptionIds":[0]}') * 1000
    try:
        for _ in range(200):
            v.sock.sendall(small)
    except socket.timeout:
        pass  # the view stopped reading it
    while v.frame() is not None:
        pass
    if v.close_code != 1008 or "answers" not in v.close_reason:
        fail(f"a viewer cut for its backlog got close {v.close_code} '{v.close_reason}'")


def secret(port, ca, secret_file):
    """Over TLS: the secret as a bearer token or in the address lets a viewer
    in; a page request that gives it gets a cookie that does too; wrong or
    missing ones get 401, and after ten failures from an address even the
    right one waits."""
    tls = ssl.create_default_context(cafile=ca)
    right = open(secret_file).read().strip()
    v = Viewer(port, tls=tls, headers=f"Authorization: Bearer {right}\r\n")
    v.subscribe("foxglove.SceneUpdate")
    if v.status != 101 or v.data() is None:
        fail(f"the bearer token: {v.status}")
    status, headers = get(port, tls=tls, path=f"/?token={right}")
    cookie = next((h.split(":", 1)[1].split(";")[0].strip() for h in headers
                   if h.lower().startswith("set-cookie:")), "")
    if status != 200 or right in cookie or not cookie:
        fail(f"the page with the secret: {status} {headers}")
    for headers, path, expected in [("", f"/?token={right}", 101), (f"Cookie: {cookie}\r\n", "/", 101),
                                    ("", "/", 401), ("Authorization: Bearer x\r\n", "/", 401),
                                    ("", f"/?token={right[:-1]}", 401),
                                    ("Cookie: radarscene_view=x\r\n", "/", 401)]:
        if (status := Viewer(port, tls=tls, headers=headers, path=path).status) != expected:
            fail(f"{headers.strip() or path}: {status}, not {expected}")
    statuses = [get(port, "Authorization: Bearer x\r\n", tls=tls)[0] for _ in range(10)]
    if statuses.count(401) != 6 or statuses[-1] != 429:
        fail(f"ten wrong secrets more: {statuses}")
    if (status := get(port, f"Authorization: Bearer {right}\r\n", tls=tls)[0]) != 429:
        fail(f"the right secret after the failures: {status}")
    if (status := Viewer(port, tls=tls, source="127.0.0.2", path=f"/?token={right}").status) != 101:
        fail(f"another address after the failures: {status}")
    # A handshake cut short is closed in its time, without a word; plain
    # HTTP on the TLS port fails its handshake.
    half = socket.create_connection(("127.0.0.1", port), timeout=15)
    half.sendall(b"\x16\x03\x01\x02\x00\x01\x00")
    for _ in range(200):
        if get(port, source="127.0.0.3")[0] != 0:
            fail("plain HTTP answered on the TLS port")
    try:
        if half.recv(1) != b"":
            fail("a handshake cut short is answered")
    except socket.timeout:
        fail("a handshake cut short is kept")
    except ConnectionError:
        pass


base_fds = [0]
if __name__ == "__main__":
    command, port = sys.argv[1], int(sys.argv[2])
    if command == "serving":
        sys.exit(0 if serving(port) else 1)
    elif command == "closing":
        closing(port, int(sys.argv[3]))
    elif command == "flood":
        flood(port, int(sys.argv[3]), int(sys.argv[4]))
    elif command == "hoard":
        base_fds[0] = descriptors(int(sys.argv[3]))
        hoard(port, int(sys.argv[3]), int(sys.argv[4]))
    elif command == "location":
        location(port)
    elif command == "origin":
        origin(port)
    elif command == "attack":
        attack(port, int(sys.argv[3]), sys.argv[4], int(sys.argv[5]))
    elif command == "many":
        many(port, int(sys.argv[3]))
    elif command == "backlog":
        backlog(port)
    elif command == "alone":
        print(f"alone: real viewer {real_viewer(port, 3)[1]:.1f} scenes/s; view {proc(int(sys.argv[3]), 'VmRSS')} KiB, "
              f"{descriptors(int(sys.argv[3]))} descriptors")
    elif command == "headers":
        # Requests whose headers are beyond the bound, one at a time.
        statuses = {get(port, "X-Filler: " + "x" * 9000 + "\r\n")[0] for _ in range(int(sys.argv[3]))}
        sys.exit(0 if statuses == {431} else f"requests of 9 KB headers answered {statuses}")
    elif command == "rfc":
        rfc(port)
    elif command == "unknown-delay":
        v = Viewer(port)
        v.subscribe("radarscene.SceneView")
        scene = json.loads(v.data())
        sys.exit(0 if scene["delay_ms"] is None else f"a delay of {scene['delay_ms']} ms")
    elif command == "told":
        v = Viewer(port)
        v.sock.settimeout(5)
        sys.exit(0 if v.texts_until(lambda m: sys.argv[3] in m.get("message", "")) else 1)
    elif command == "secret":
        secret(port, sys.argv[3], sys.argv[4])
