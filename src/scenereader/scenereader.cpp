#include <radarscene/RadarScene.h>

#include <arpa/inet.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

namespace {

// Reads exactly `size` bytes: the count read before the stream ended, or a
// negative errno value.
ssize_t read_fully(int fd, char* out, size_t size) {
    size_t done = 0;
    while (done < size) {
        ssize_t n = read(fd, out + done, size - done);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            return -errno;
        }
        if (n == 0) {
            break;
        }
        done += static_cast<size_t>(n);
    }
    return static_cast<ssize_t>(done);
}

}  // namespace

int RadarScene::readSceneRecord(int fd, std::string& payload, size_t max_payload) {
    uint32_t header = 0;
    ssize_t n = read_fully(fd, reinterpret_cast<char*>(&header), sizeof(header));
    if (n < 0) {
        return static_cast<int>(n);
    }
    if (n == 0) {
        return 0;
    }
    if (static_cast<size_t>(n) < sizeof(header)) {
        return -EPROTO;
    }
    // The length counts its own four bytes.
    uint32_t length = ntohl(header);
    if (length < sizeof(header)) {
        return -EBADMSG;
    }
    size_t size = length - sizeof(header);
    if (size > max_payload) {
        return -EMSGSIZE;
    }
    if (size > payload.capacity()) {
        // Growing the caller's string would round its capacity up to twice
        // the old one, past the limit: start from a buffer of exactly this
        // size instead.
        std::string().swap(payload);
        payload.reserve(size);
    }
    payload.resize(size);
    n = read_fully(fd, payload.data(), size);
    if (n < 0) {
        return static_cast<int>(n);
    }
    return static_cast<size_t>(n) < size ? -EPROTO : 1;
}
