#!/usr/bin/env python3
# A viewer of radarscene-view written from RFC 6455 and the Foxglove WebSocket
# protocol's public description, with no library, and the hostile clients
# the view must hold against. Each command prints what went wrong and exits
# non-zero, or exits 0.
# Usage: view_guard.py COMMAND PORT [ARGS]...
import base64, hashlib, json, os, select, socket, struct, sys, time

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

    def __init__(self, port, protocol=PROTOCOL, rcvbuf=None, host="127.0.0.1"):
        self.sock = socket.socket()
        if rcvbuf:
            self.sock.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, rcvbuf)
        self.sock.settimeout(10)
        self.sock.connect((host, port))
        key = base64.b64encode(os.urandom(16))
        request = (f"GET / HTTP/1.1\r\nHost: {host}:{port}\r\nUpgrade: websocket\r\n"
                   f"Connection: Upgrade\r\nSec-WebSocket-Key: {key.decode()}\r\n"
                   "Sec-WebSocket-Version: 13\r\n")
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
        headers = {k.strip().lower(): v.strip() for k, _, v in (l.partition(":") for l in lines[1:])}
        accept = base64.b64encode(hashlib.sha1(key + GUID).digest()).decode()
        if self.status == 101 and headers.get("sec-websocket-accept") != accept:
            fail("a wrong Sec-WebSocket-Accept")
        self.close_code = None
        self.close_reason = ""
        self.channels = None

    @staticmethod
    def framed(opcode, payload):
        """A whole masked frame, as a client sends it."""
        mask = os.urandom(4)
        n = len(payload)
        head = bytes([0x80 | opcode])
        if n < 126:
            head += bytes([0x80 | n])
        elif n < 65536:
            head += bytes([0x80 | 126]) + struct.pack(">H", n)
        else:
            head += bytes([0x80 | 127]) + struct.pack(">Q", n)
        key = int.from_bytes((mask * (n // 4 + 1))[:n], "big")
        return head + mask + (int.from_bytes(payload, "big") ^ key).to_bytes(n, "big")

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
        except (EOFError, ConnectionError, socket.timeout):
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
    beyond the limit, when all are busy, gets a close frame with a reason."""
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
        b.subscribe("foxglove.SceneUpdate")
    refused = Viewer(port)
    refused.sock.settimeout(5)
    while refused.frame() is not None:
        pass
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
    v.texts_until(lambda m: statuses.append(m) or "dance" in m.get("message", ""))
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
        fail("a viewer that never reads its answers stays connected")
    except (BrokenPipeError, ConnectionResetError):
        pass
    print(f"flood: {sent} requests; resident size {start} KiB, at most {proc(pid, 'VmHWM')} KiB")


def hoard(port, pid, max_clients):
    """Connections that hold slots and descriptors: idle viewers, upgrades
    without the subprotocol, and TCP connections that say nothing."""
    idle = [Viewer(port) for _ in range(max_clients)]
    for v in idle:
        v.texts_until(lambda m: m.get("op") == "advertise")
    if not serving(port):
        fail("a viewer was locked out by viewers that never subscribe")
    foreign = [Viewer(port, protocol=None) for _ in range(50)]
    if any(v.status == 101 for v in foreign):
        fail("an upgrade without the subprotocol was accepted")
    silent = [socket.create_connection(("127.0.0.1", port)) for _ in range(16 * max_clients)]
    peak, end = 0, time.monotonic() + 40
    while silent and time.monotonic() < end:
        peak = max(peak, descriptors(pid))
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
