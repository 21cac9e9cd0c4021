#!/usr/bin/env python3
"""A small MCAP writer and reader written from the format's public
documentation, to check the tools against files of every layout the format
allows and against files whose lengths, counts and indexes lie.

  mcapfile.py write OUT [options]   writes scenes 0.1 s apart
  mcapfile.py layout OUT NAME       writes a layout that other writers make
                                    (see LAYOUTS), scenes 20 ms apart
  mcapfile.py chunks FILE           prints per chunk: messages, first and
                                    last log time (checking each chunk's CRC)
"""
import argparse
import struct
import subprocess
import sys
import zlib

MAGIC = b"\x89MCAP0\r\n"
HEADER, FOOTER, SCHEMA, CHANNEL, MESSAGE, CHUNK = 0x01, 0x02, 0x03, 0x04, 0x05, 0x06
MESSAGE_INDEX, CHUNK_INDEX, STATISTICS, SUMMARY_OFFSET, DATA_END = 0x07, 0x08, 0x0B, 0x0E, 0x0F


def string(s):
    return struct.pack("<I", len(s)) + s


def record(opcode, content):
    return struct.pack("<BQ", opcode, len(content)) + content


def scene(time, padding):
    """A RadarScene.Scene: its time (field 1), and padding in an unknown field."""
    varint = bytearray()
    while True:
        varint.append((time & 0x7F) | (0x80 if time > 0x7F else 0))
        time >>= 7
        if not time:
            break
    pad = bytearray()
    n = len(padding)
    while True:
        pad.append((n & 0x7F) | (0x80 if n > 0x7F else 0))
        n >>= 7
        if not n:
            break
    return b"\x08" + bytes(varint) + (b"\x7a" + bytes(pad) + padding if padding else b"")


def chunk(records, compression="none"):
    """A chunk of (channel, log time, data) messages and other records."""
    body = b"".join(r if isinstance(r, bytes) else
                    record(MESSAGE, struct.pack("<HIQQ", r[0], 0, r[1], r[1]) + r[2])
                    for r in records)
    times = [r[1] for r in records if not isinstance(r, bytes)]
    data = compress(compression, body)
    kind = b"" if compression == "none" else compression.encode()
    return record(CHUNK, struct.pack("<QQQI", min(times), max(times), len(body), zlib.crc32(body)) +
                  string(kind) + struct.pack("<Q", len(data)) + data)


def definition(kind, id, name, encoding, ref=1, metadata=b""):
    if kind == SCHEMA:
        return record(SCHEMA, struct.pack("<H", id) + string(name) + string(encoding) + string(b""))
    return record(CHANNEL, struct.pack("<HH", id, ref) + string(name) + string(encoding) +
                  string(metadata))


START = 1_700_000_000_000_000_000
SCENES = definition(SCHEMA, 1, b"RadarScene.Scene", b"protobuf")


def scenes(first, count, channel=1, base=0):
    """Scenes first..first+count-1, 20 ms apart; each scene's time is base + its number."""
    return [(channel, START + i * 20_000_000, scene(base + i, b""))
            for i in range(first, first + count)]


def radar(topic=b"/radar/0/scene", id=1, metadata=b""):
    return definition(CHANNEL, id, topic, b"protobuf", 1, metadata)


def bomb():
    """A channel whose metadata holds 2.9 million three-byte keys."""
    pairs = b"".join(string(i.to_bytes(3, "little")) + string(b"") for i in range(2_900_000))
    return definition(CHANNEL, 2, b"/bomb", b"protobuf", 1, pairs)


# What the data section holds: records, and lists of them that become chunks.
LAYOUTS = {
    "halves": lambda: [SCENES, radar(), chunk(scenes(50, 50)), chunk(scenes(0, 50))],
    "per-channel": lambda: [
        SCENES, radar(), definition(SCHEMA, 2, b"Note", b"jsonschema"),
        definition(CHANNEL, 2, b"/notes", b"json", 2),
        chunk([(2, START + 500_000_000 + i * 20_000_000, b"{}") for i in range(51)]),
        chunk(scenes(0, 100))],
    "overlap3": lambda: [SCENES, radar()] + [chunk(scenes(0, 100)[k::3]) for k in range(3)],
    "unchunked-late": lambda: [SCENES, radar()] + [
        record(MESSAGE, struct.pack("<HIQQ", c, 0, t, t) + d)
        for c, t, d in scenes(1, 99) + scenes(0, 1)],
    "inner-definitions": lambda: [chunk([SCENES, radar()] + scenes(0, 50)), chunk(scenes(50, 50))],
    "channels": lambda: [SCENES, radar(), radar(b"/debug/scene", 2),
                         radar(b"/radar/0/scene_filtered", 3)] +
    [chunk(sorted(scenes(i, 25) + scenes(i, 25, 2, 1000) + scenes(i, 25, 3, 2000),
                  key=lambda m: m[1])) for i in range(0, 100, 25)],
    "channel16": lambda: [SCENES, radar(b"/radar/16/scene"), chunk(scenes(0, 10))],
    "channel99": lambda: [SCENES, radar(b"/scenes", 1, string(b"channel") + string(b"99")),
                          chunk(scenes(0, 10))],
    "bomb": lambda: [SCENES, radar(), bomb(), chunk(scenes(0, 10))],
    "gap": lambda: [SCENES, radar(),
                    chunk(scenes(0, 1) + [(1, START + 3600 * 10**9, scene(1, b""))])],
    "bomb-zstd": lambda: [SCENES, radar(), chunk([bomb()] + scenes(0, 10), "zstd")],
}


def layout(args):
    out = MAGIC + record(HEADER, string(b"") + string(b"mcapfile.py"))
    out += b"".join(LAYOUTS[args.name]()) + record(DATA_END, struct.pack("<I", 0))
    out += struct.pack("<BQQQI", FOOTER, 20, 0, 0, 0) + MAGIC
    open(args.out, "wb").write(out)


def compress(kind, data):
    if kind == "none":
        return data
    return subprocess.run([kind, "-q", "-c"], input=data, capture_output=True, check=True).stdout


def write(args):
    schema = record(SCHEMA, struct.pack("<H", 1) + string(b"RadarScene.Scene") +
                    string(b"protobuf") + string(b"descriptor"))
    channel = record(CHANNEL, struct.pack("<HH", 1, 1) + string(b"/radar/0/scene") +
                     string(b"protobuf") + string(b""))
    start = 1_700_000_000_000_000_000
    padding = open("/dev/urandom", "rb").read(args.padding) if args.padding else b""
    messages = [record(MESSAGE, struct.pack("<HIQQ", 1, i, start + i * 100_000_000,
                                            i) + scene(i, padding))
                for i in range(args.scenes)]
    times = [start + i * 100_000_000 for i in range(args.scenes)]

    out = bytearray(MAGIC + record(HEADER, string(b"") + string(b"mcapfile.py")))
    out += schema + channel
    chunk_indexes = []
    per_chunk = args.per_chunk if args.layout == "chunked" else 0
    step = per_chunk or args.scenes or 1
    batches = [list(range(f, min(args.scenes, f + step))) for f in range(0, args.scenes, step)]
    k = args.interleave
    # Each k chunks in a row share out their scenes in turn, so their times overlap.
    batches = [sorted(sum(batches[g:g + k], []))[j::k] for g in range(0, len(batches), k)
               for j in range(k)]
    for batch in batches:
        if not per_chunk:
            out += b"".join(messages[i] for i in batch)
            continue
        records = bytearray()
        offsets = []
        for i in batch:
            offsets.append((times[i], len(records)))
            records += messages[i]
        if args.claim:
            # Real records of the claimed size, and a skippable frame that
            # keeps the compression ratio believable.
            records = messages[batch[0]] * (args.claim // len(messages[batch[0]]))
        records = bytes(records)
        size = len(records)
        data = compress(args.compression, records)
        if args.claim:
            data += struct.pack("<II", 0x184D2A50, size // 200) + bytes(size // 200)
        compression = b"" if args.compression == "none" else args.compression.encode()
        at = len(out)
        out += record(CHUNK, struct.pack("<QQQI", times[batch[0]], times[batch[-1]], size,
                                         zlib.crc32(records)) +
                      string(compression) + struct.pack("<Q", len(data)) + data)
        length = len(out) - at
        if len(chunk_indexes) + 1 == args.lying_length:
            out[at + 1:at + 9] = struct.pack("<Q", 1 << 40)
        index_at = len(out)
        entries = b"".join(struct.pack("<QQ", t, o) for t, o in offsets)
        if args.lying_counts:
            entries = struct.pack("<QQ", 0, 1 << 60) * 3
        out += record(MESSAGE_INDEX, struct.pack("<HI", 1, len(entries)) + entries)
        chunk_indexes.append(struct.pack("<QQQQI", times[batch[0]], times[batch[-1]],
                                         at + args.index_shift, length, 10) +
                             struct.pack("<HQ", 1, index_at) +
                             struct.pack("<Q", len(out) - index_at) + string(compression) +
                             struct.pack("<QQ", len(data), size))
    out += record(DATA_END, struct.pack("<I", 0))

    summary_start = offset_start = 0
    summary = bytearray()
    if args.summary:
        summary_start = len(out)
        count = args.scenes * (1000 if args.lying_counts else 1)
        statistics = (struct.pack("<QHIIII", count, 1, 1, 0, 0,
                                  len(chunk_indexes) * (7 if args.lying_counts else 1)) +
                      struct.pack("<QQ", times[0], times[-1]) +
                      string(struct.pack("<HQ", 1, count)))
        groups = [(SCHEMA, schema), (CHANNEL, channel),
                  (STATISTICS, record(STATISTICS, statistics)),
                  (CHUNK_INDEX, b"".join(record(CHUNK_INDEX, c) for c in chunk_indexes) *
                   args.index_copies)]
        offsets = bytearray()
        for opcode, group in groups:
            if group:
                offsets += record(SUMMARY_OFFSET, struct.pack(
                    "<BQQ", opcode, summary_start + len(summary), len(group)))
                summary += group
        if args.offsets:
            offset_start = summary_start + len(summary)
            summary += offsets
        out += summary
    footer = struct.pack("<BQQQ", FOOTER, 20, summary_start, offset_start)
    crc = zlib.crc32(bytes(summary) + footer) if args.summary else 0
    out += footer + struct.pack("<I", crc) + MAGIC
    open(args.out, "wb").write(out)


def fields(data, at, layout):
    size = struct.calcsize(layout)
    return struct.unpack_from(layout, data, at), at + size


def chunks(args):
    data = open(args.file, "rb").read()
    assert data[:8] == MAGIC, "no magic"
    at = 8
    while at + 9 <= len(data):
        (opcode, length), body = fields(data, at, "<BQ")
        if body + length > len(data) or opcode in (DATA_END, FOOTER):
            break
        if opcode == CHUNK:
            (_, _, size, crc), pos = fields(data, body, "<QQQI")
            (n,), pos = fields(data, pos, "<I")
            kind = data[pos:pos + n].decode()
            (m,), pos = fields(data, pos + n, "<Q")
            compressed = data[pos:pos + m]
            records = (subprocess.run([kind, "-d", "-q", "-c"], input=compressed,
                                      capture_output=True, check=True).stdout
                       if kind else compressed)
            assert len(records) == size and zlib.crc32(records) == crc, f"chunk at {at}"
            logged = []
            r = 0
            while r < len(records):
                (op, rlen), rbody = fields(records, r, "<BQ")
                if op == MESSAGE:
                    logged.append(struct.unpack_from("<Q", records, rbody + 6)[0])
                r = rbody + rlen
            print(len(logged), min(logged), max(logged))
        at = body + length


def main():
    parser = argparse.ArgumentParser()
    commands = parser.add_subparsers(dest="command", required=True)
    w = commands.add_parser("write")
    w.add_argument("out")
    w.add_argument("--layout", choices=["chunked", "unchunked"], default="chunked")
    w.add_argument("--compression", choices=["none", "zstd", "lz4"], default="zstd")
    w.add_argument("--summary", action=argparse.BooleanOptionalAction, default=True)
    w.add_argument("--offsets", action=argparse.BooleanOptionalAction, default=True)
    w.add_argument("--scenes", type=int, default=10)
    w.add_argument("--per-chunk", type=int, default=5)
    w.add_argument("--padding", type=int, default=0, help="random bytes per scene")
    w.add_argument("--index-copies", type=int, default=1, help="times the summary lists each chunk")
    w.add_argument("--index-shift", type=int, default=0, help="bytes added to each chunk's offset")
    w.add_argument("--lying-counts", action="store_true")
    w.add_argument("--claim", type=int, default=0, help="uncompressed bytes per chunk")
    w.add_argument("--interleave", type=int, default=1, help="chunks whose times overlap")
    w.add_argument("--lying-length", type=int, default=0,
                   help="the chunk (counted from 1) whose length runs past the file's end")
    lay = commands.add_parser("layout")
    lay.add_argument("out")
    lay.add_argument("name", choices=sorted(LAYOUTS))
    c = commands.add_parser("chunks")
    c.add_argument("file")
    args = parser.parse_args()
    {"write": write, "layout": layout, "chunks": chunks}[args.command](args)


if __name__ == "__main__":
    sys.exit(main())
