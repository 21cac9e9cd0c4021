#include "common/fdio.h"
#include "common/unique_fd.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <optional>

namespace {

using deadline_t = std::optional<std::chrono::steady_clock::time_point>;

// sendmsg with MSG_NOSIGNAL keeps a vanished subscriber from killing the
// process, and MSG_DONTWAIT leaves the waiting to wait_writable so that it
// can be bounded; descriptors that are not sockets fall back to writev.
ssize_t write_some(int fd, iovec* iov, int count) {
    msghdr msg{};
    msg.msg_iov = iov;
    msg.msg_iovlen = static_cast<size_t>(count);
    ssize_t n = sendmsg(fd, &msg, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n < 0 && errno == ENOTSOCK) {
        n = writev(fd, iov, count);
    }
    return n;
}

// Waits until `fd` takes more bytes: 0 then, or -1 with errno set (EAGAIN
// once the deadline has passed, EINTR when a signal interrupted the wait).
ssize_t wait_writable(int fd, const deadline_t& deadline) {
    int timeout = -1;
    if (deadline) {
        auto left = std::chrono::ceil<std::chrono::milliseconds>(*deadline -
                                                                 std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            errno = EAGAIN;
            return -1;
        }
        timeout = static_cast<int>(left.count());
    }
    pollfd p{fd, POLLOUT, 0};
    int r = poll(&p, 1, timeout);
    if (r == 0) {
        errno = EAGAIN;
        return -1;
    }
    return r < 0 ? -1 : 0;
}

}  // namespace

int writev_all(int fd, iovec* iov, int count, unsigned* written, int timeout_ms) {
    deadline_t deadline;
    if (timeout_ms >= 0) {
        deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    }
    unsigned total = 0;
    int result = 0;
    while (count > 0) {
        if (iov->iov_len == 0) {
            ++iov;
            --count;
            continue;
        }
        ssize_t n = write_some(fd, iov, count);
        if (n < 0 && errno == EAGAIN) {
            n = wait_writable(fd, deadline);
        }
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            result = -errno;
            break;
        }
        total += static_cast<unsigned>(n);
        size_t left = static_cast<size_t>(n);
        while (count > 0 && left >= iov->iov_len) {
            left -= iov->iov_len;
            ++iov;
            --count;
        }
        if (count > 0) {
            iov->iov_base = static_cast<char*>(iov->iov_base) + left;
            iov->iov_len -= left;
        }
    }
    if (written) {
        *written = total;
    }
    return result;
}

void xclose(int& fd) {
    if (fd >= 0) {
        close(fd);
        fd = -1;
    }
}
