"""Cuts whole scene records out of the bytes read from a subscriber's socket.

A record is a 4-byte big-endian length that counts itself, then one
serialized RadarScene.Scene. A record cut short stays here until its last
byte arrives, so a reader that only takes what the socket holds never sees
half a scene.
"""

import struct

from radarscene import scene_pb2
from radarscene.errors import BrokenRecord, RecordTooLarge

_LENGTH = struct.Struct(">I")
# What one read asks the socket for: many small scenes in one system call,
# while the buffer stays bounded by one record plus this.
READ_SIZE = 256 * 1024


class RecordReader:
    """The partial record between reads and the scenes completed by each read."""

    def __init__(self, max_record):
        self.max_record = max_record
        self._buffer = bytearray()

    def pending(self):
        """Bytes of a record not yet complete (dropped if the stream ends now)."""
        return len(self._buffer)

    def feed(self, data):
        """Adds bytes read from the socket; returns the scenes they complete,
        each with its record's size (length word included), and the error of
        the first bad record (BrokenRecord or RecordTooLarge) or None. Nothing
        after a bad record is read: the stream cannot go on.
        """
        buffer = self._buffer
        buffer += data
        scenes = []
        error = None
        offset = 0
        end = len(buffer)
        while end - offset >= 4:
            (length,) = _LENGTH.unpack_from(buffer, offset)
            if length < 4:
                error = BrokenRecord(f"record length {length} is shorter than its length word")
                break
            if length - 4 > self.max_record:
                error = RecordTooLarge(
                    f"record of {length - 4} bytes is over the limit of {self.max_record}")
                break
            if end - offset < length:
                break
            scene = scene_pb2.Scene()
            try:
                scene.ParseFromString(memoryview(buffer)[offset + 4:offset + length])
            except Exception as failure:  # the runtime's DecodeError, or worse
                error = BrokenRecord(f"undecodable scene of {length - 4} bytes: {failure}")
                break
            scenes.append((scene, length))
            offset += length
        if error is None:  # a bad record ends the stream: nothing to keep
            del buffer[:offset]
        return scenes, error
