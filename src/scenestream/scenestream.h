// The reading side of a subscriber's scene stream: whole length-prefixed records out of whatever
// a socket gives, read without waiting or waiting a while, with the record in progress kept
// between reads.
#pragma once

#include "common/unique_fd.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

enum scene_stream_result_t {
    SCENE_STREAM_RECORD,  // one whole record's payload was delivered
    SCENE_STREAM_AGAIN,   // the socket has nothing more for now
    SCENE_STREAM_END,     // the peer closed the stream; a record it cut is dropped
    SCENE_STREAM_BROKEN,  // a length word below 4 or above the limit, or a read error
};

struct scene_stream_t {
    unique_fd fd;         // close-on-exec; read with or without waiting as asked
    int timeout_ms = -1;  // the socket's receive timeout as last set
    size_t max_payload = 0;
    // Bytes read ahead of the record in progress: [head, tail) of `chunk`.
    std::vector<char> chunk;
    size_t head = 0;
    size_t tail = 0;
    // The record in progress: its payload so far.
    bool in_record = false;
    std::string record;
    size_t record_filled = 0;
    // The last read took less than it asked for: the socket is probably empty.
    bool drained = false;
    // Large records are read straight into `record`: the next one's length word into the chunk,
    // and its payload, until its length is known, ahead into `record` (`ahead` bytes).
    bool large = false;
    size_t ahead = 0;
    uint64_t bytes = 0;  // bytes of the records delivered, length words included
    bool cut = false;    // the stream ended inside a record
    std::string reason;  // why it is broken
};

// Takes the socket `fd` for a stream whose records carry at most `max_payload` bytes of scene.
void scene_stream_open(scene_stream_t& stream, int fd, size_t max_payload);
// Delivers the next whole record's payload into `payload` (swapped in: the string given back
// serves the next record), reading from the socket only when no whole record waits. With
// `wait_ms` above 0 a read waits up to that long for bytes, also after the last read took less
// than it asked for: one call per record where a bare blocking reader needs two.
scene_stream_result_t scene_stream_next(scene_stream_t& stream, std::string& payload,
                                        int wait_ms = 0);
// The socket polled readable: the next call reads again even when the last read took less
// than it asked for.
void scene_stream_readable(scene_stream_t& stream);
// Closes the socket and drops everything buffered; counters stay.
void scene_stream_close(scene_stream_t& stream);
