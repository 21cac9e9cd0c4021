#!/usr/bin/env python3
"""MQTT brokers that misbehave on purpose, for the broker benchmark.

Usage: misbehaving_broker.py SILENT_PORT UNACKNOWLEDGING_PORT DEAF_PORT

On 127.0.0.1: the first port reads and never answers (no TLS handshake, no
CONNACK); the second and third serve well for their first ten seconds
(CONNACK, SUBACK, PUBACK, PINGRESP), and from then on answer CONNECT and
SUBSCRIBE only: the second acknowledges nothing more, the third stops
reading a connection one second after taking it.
"""
import selectors
import socket
import sys
import time

SILENT, UNACKNOWLEDGING, DEAF = "silent", "unacknowledging", "deaf"
GOOD_SECONDS = 10


def packets(buffer):
    """Takes the whole MQTT packets off the start of buffer: (type, flags, body)."""
    while len(buffer) >= 2:
        length, shift, at = 0, 0, 1
        while at < len(buffer) and at < 5:
            length |= (buffer[at] & 0x7F) << shift
            shift += 7
            at += 1
            if not buffer[at - 1] & 0x80:
                break
        else:
            return
        if len(buffer) < at + length:
            return
        yield buffer[0] >> 4, buffer[0] & 15, bytes(buffer[at : at + length])
        del buffer[: at + length]


def main():
    start = time.monotonic()
    selector = selectors.DefaultSelector()
    for port, how in zip(sys.argv[1:4], (SILENT, UNACKNOWLEDGING, DEAF)):
        listener = socket.socket()
        listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        listener.bind(("127.0.0.1", int(port)))
        listener.listen(16)
        selector.register(listener, selectors.EVENT_READ, (how, None, 0))
    while True:
        for key, _ in selector.select():
            how, buffer = key.data[:2]
            if buffer is None:
                connection, _ = key.fileobj.accept()
                selector.register(
                    connection, selectors.EVENT_READ, (how, bytearray(), time.monotonic())
                )
                continue
            data = key.fileobj.recv(65536)
            if not data:
                selector.unregister(key.fileobj)
                key.fileobj.close()
                continue
            if how == SILENT:
                continue
            buffer += data
            now = time.monotonic()
            good = now < start + GOOD_SECONDS
            if how == DEAF and not good and now > key.data[2] + 1:
                selector.unregister(key.fileobj)  # kept open, never read again
                deaf.append(key.fileobj)
                continue
            for kind, flags, body in packets(buffer):
                if kind == 1:
                    key.fileobj.sendall(b"\x20\x03\x00\x00\x00")
                elif kind == 8:
                    key.fileobj.sendall(b"\x90\x04" + bytes(body[:2]) + b"\x00\x01")
                elif not good:
                    continue
                elif kind == 3 and flags & 6:
                    at = 2 + (body[0] << 8 | body[1])
                    key.fileobj.sendall(b"\x40\x02" + bytes(body[at : at + 2]))
                elif kind == 12:
                    key.fileobj.sendall(b"\xd0\x00")


deaf = []
if __name__ == "__main__":
    main()
