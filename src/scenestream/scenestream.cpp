// Whole records out of a non-blocking scene socket, as few reads as the records allow.
#include "scenestream/scenestream.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <utility>

namespace {

// Small records are read many at a time into the chunk; a record at least this long is read
// straight into its own string, with only the next length word read ahead.
constexpr size_t CHUNK_SIZE = 64u << 10;
constexpr size_t LARGE_RECORD = 16u << 10;
constexpr size_t LENGTH_WORD = 4;

// Reads into `iov`, waiting up to `wait_ms` for bytes (0: not at all); the bytes read, 0 at the
// end of the stream, or a negative errno (-EAGAIN when nothing came).
ssize_t read_some(scene_stream_t& stream, iovec* iov, int count, int wait_ms) {
    size_t wanted = 0;
    for (int i = 0; i < count; ++i) {
        wanted += iov[i].iov_len;
    }
    // The timeout is set only when it changes: a reader that keeps its timeout pays nothing
    // for it per record.
    if (wait_ms > 0 && wait_ms != stream.timeout_ms) {
        timeval timeout{wait_ms / 1000, (wait_ms % 1000) * 1000};
        if (setsockopt(stream.fd.get(), SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout)) < 0) {
            return -errno;
        }
        stream.timeout_ms = wait_ms;
    }
    msghdr message{};
    message.msg_iov = iov;
    message.msg_iovlen = static_cast<size_t>(count);
    for (;;) {
        ssize_t n = recvmsg(stream.fd.get(), &message, wait_ms > 0 ? 0 : MSG_DONTWAIT);
        if (n >= 0) {
            stream.drained = static_cast<size_t>(n) < wanted;
            return n;
        }
        if (errno != EINTR) {
            stream.drained = errno == EAGAIN;
            return -errno;
        }
    }
}

scene_stream_result_t broken(scene_stream_t& stream, std::string reason) {
    stream.reason = std::move(reason);
    scene_stream_close(stream);
    return SCENE_STREAM_BROKEN;
}

// The capacity for a record of `size`: an eighth more, so that a record read ahead into it
// leaves room, and the read that takes less than it asked for tells that the socket is empty;
// never past the limit (growing the string would round its capacity up to twice the old one).
size_t room_for(const scene_stream_t& stream, size_t size) {
    return std::min(stream.max_payload, size + size / 8 + 64);
}

// Starts the record whose length word is at the chunk's head, taking the payload bytes the
// chunk already holds.
bool start_record(scene_stream_t& stream) {
    uint32_t word;
    memcpy(&word, stream.chunk.data() + stream.head, LENGTH_WORD);
    uint32_t length = ntohl(word);
    if (length < LENGTH_WORD) {
        stream.reason = "a record's length word is " + std::to_string(length) + ", below 4";
        return false;
    }
    size_t size = length - LENGTH_WORD;
    if (size > stream.max_payload) {
        stream.reason = "a record of " + std::to_string(size) + " bytes, over the limit of " +
                        std::to_string(stream.max_payload);
        return false;
    }
    stream.head += LENGTH_WORD;
    stream.in_record = true;
    stream.large = size >= LARGE_RECORD;
    if (size_t ahead = std::exchange(stream.ahead, 0)) {
        // The payload was read ahead into the record's string, behind its length word, which
        // was the chunk's last: what lies past this record belongs to the next ones.
        size_t have = std::min(size, ahead);
        memcpy(stream.chunk.data(), stream.record.data() + have, ahead - have);
        stream.head = 0;
        stream.tail = ahead - have;
        if (size > stream.record.capacity()) {
            std::string grown;
            grown.reserve(room_for(stream, size));
            grown.assign(stream.record.data(), have);
            stream.record.swap(grown);
        }
        stream.record.resize(size);
        stream.record_filled = have;
        return true;
    }
    size_t have = std::min(size, stream.tail - stream.head);
    if (size > stream.record.capacity()) {
        std::string().swap(stream.record);
        stream.record.reserve(room_for(stream, size));
    }
    stream.record.resize(size);
    memcpy(stream.record.data(), stream.chunk.data() + stream.head, have);
    stream.head += have;
    stream.record_filled = have;
    return true;
}

}  // namespace

void scene_stream_open(scene_stream_t& stream, int fd, size_t max_payload) {
    stream.fd.reset(fd);
    // Reads that must not wait say so themselves; a blocking socket lets the others wait in the
    // read, without a poll first.
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK);
    stream.timeout_ms = -1;
    stream.max_payload = max_payload;
    stream.chunk.resize(CHUNK_SIZE);
    stream.head = stream.tail = 0;
    stream.in_record = false;
    stream.record_filled = 0;
    stream.ahead = 0;
    stream.drained = false;
    stream.cut = false;
    stream.reason.clear();
}

scene_stream_result_t scene_stream_next(scene_stream_t& stream, std::string& payload, int wait_ms) {
    for (;;) {
        if (!stream.in_record && stream.tail - stream.head >= LENGTH_WORD &&
            !start_record(stream)) {
            scene_stream_close(stream);
            return SCENE_STREAM_BROKEN;
        }
        if (stream.in_record && stream.record_filled == stream.record.size()) {
            stream.in_record = false;
            stream.bytes += stream.record.size() + LENGTH_WORD;
            payload.swap(stream.record);
            return SCENE_STREAM_RECORD;
        }
        if (!stream.fd) {
            return SCENE_STREAM_END;
        }
        if (stream.drained && wait_ms <= 0) {
            return SCENE_STREAM_AGAIN;
        }
        iovec iov[2];
        int count = 0;
        if (stream.in_record) {
            // The chunk is empty: the rest of the record goes straight into its string, and
            // what follows it into the chunk.
            stream.head = stream.tail = 0;
            iov[count++] = {stream.record.data() + stream.record_filled,
                            stream.record.size() - stream.record_filled};
            iov[count++] = {stream.chunk.data(), stream.large ? LENGTH_WORD : stream.chunk.size()};
        } else {
            size_t left = stream.tail - stream.head;
            memmove(stream.chunk.data(), stream.chunk.data() + stream.head, left);
            stream.head = 0;
            stream.tail = left;
            if (stream.large) {
                // The next record is likely as large as the last: its length word goes into
                // the chunk and its payload straight into the record's string.
                iov[count++] = {stream.chunk.data() + left, LENGTH_WORD - left};
                size_t ahead = std::min(stream.record.capacity(), stream.chunk.size());
                stream.record.resize_and_overwrite(ahead, [](char*, size_t n) { return n; });
                iov[count++] = {stream.record.data(), ahead};
            } else {
                iov[count++] = {stream.chunk.data() + left, stream.chunk.size() - left};
            }
        }
        ssize_t n = read_some(stream, iov, count, wait_ms);
        if (n == -EAGAIN) {
            return SCENE_STREAM_AGAIN;
        }
        if (n < 0) {
            return broken(stream,
                          std::string("reading the stream: ") + strerror(static_cast<int>(-n)));
        }
        if (n == 0) {
            stream.cut = stream.in_record || stream.tail > stream.head || stream.ahead > 0;
            scene_stream_close(stream);
            return SCENE_STREAM_END;
        }
        size_t got = static_cast<size_t>(n);
        if (stream.in_record) {
            size_t into_record = std::min(got, stream.record.size() - stream.record_filled);
            stream.record_filled += into_record;
            stream.tail = got - into_record;
        } else {
            size_t header = std::min(got, iov[0].iov_len);
            stream.tail += header;
            if (count == 2) {
                stream.ahead = got - header;
                stream.record.resize(stream.ahead);
            }
        }
    }
}

void scene_stream_readable(scene_stream_t& stream) {
    stream.drained = false;
}

void scene_stream_close(scene_stream_t& stream) {
    stream.fd.reset();
    stream.head = stream.tail = 0;
    stream.in_record = false;
    stream.record_filled = 0;
    stream.ahead = 0;
}
