#include "common/fdio.h"
#include "common/unique_fd.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <optional>
#include <vector>

namespace {

using deadline_t = std::optional<std::chrono::steady_clock::time_point>;

// sendmsg with MSG_NOSIGNAL keeps a vanished subscriber from killing the
// process, and MSG_DONTWAIT leaves the waiting to poll so that it can be
// bounded; descriptors that are not sockets fall back to writev.
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

// Drops `n` written bytes from the front of the entry's buffers, and the
// buffers that are then empty.
void consume(fd_write_t& w, size_t n) {
    w.written += static_cast<unsigned>(n);
    while (w.count > 0 && n >= w.iov->iov_len) {
        n -= w.iov->iov_len;
        ++w.iov;
        --w.count;
    }
    if (w.count > 0) {
        w.iov->iov_base = static_cast<char*>(w.iov->iov_base) + n;
        w.iov->iov_len -= n;
    }
}

// Writes until everything is out (0), the descriptor takes no more (-EAGAIN)
// or the write fails (another negative errno).
int write_until_blocked(fd_write_t& w) {
    consume(w, 0);
    while (w.count > 0) {
        ssize_t n = write_some(w.fd, w.iov, w.count);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            return -errno;
        }
        consume(w, static_cast<size_t>(n));
    }
    return 0;
}

// Milliseconds to the deadline for poll: -1 without one, 0 once it passed.
int poll_timeout(const deadline_t& deadline) {
    if (!deadline) {
        return -1;
    }
    auto left =
        std::chrono::ceil<std::chrono::milliseconds>(*deadline - std::chrono::steady_clock::now());
    return left.count() > 0 ? static_cast<int>(left.count()) : 0;
}

}  // namespace

int writev_all(int fd, iovec* iov, int count, unsigned* written, int timeout_ms) {
    fd_write_t w;
    w.fd = fd;
    w.iov = iov;
    w.count = count;
    writev_each(&w, 1, timeout_ms);
    if (written) {
        *written = w.written;
    }
    return w.result;
}

int writev_now(int fd, iovec* iov, int count, unsigned* written) {
    fd_write_t w;
    w.fd = fd;
    w.iov = iov;
    w.count = count;
    int result = write_until_blocked(w);
    *written = w.written;
    return result;
}

void writev_each(fd_write_t* writes, size_t n, int timeout_ms) {
    deadline_t deadline;
    if (timeout_ms >= 0) {
        deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    }
    std::vector<fd_write_t*> active;
    for (size_t i = 0; i < n; ++i) {
        active.push_back(&writes[i]);
    }
    std::vector<bool> ready(active.size(), true);
    std::vector<fd_write_t*> blocked;
    std::vector<pollfd> polls;
    while (true) {
        blocked.clear();
        polls.clear();
        for (size_t k = 0; k < active.size(); ++k) {
            int r = ready[k] ? write_until_blocked(*active[k]) : -EAGAIN;
            if (r == -EAGAIN) {
                blocked.push_back(active[k]);
                polls.push_back({active[k]->fd, POLLOUT, 0});
            } else {
                active[k]->result = r;
            }
        }
        active.swap(blocked);
        if (active.empty()) {
            return;
        }
        int timeout = poll_timeout(deadline);
        int r = timeout != 0 ? poll(polls.data(), polls.size(), timeout) : 0;
        if (r < 0 && errno == EINTR) {
            ready.assign(active.size(), false);
            continue;
        }
        if (r <= 0) {
            int result = r == 0 ? -EAGAIN : -errno;
            for (fd_write_t* w : active) {
                w->result = result;
            }
            return;
        }
        ready.resize(active.size());
        for (size_t k = 0; k < active.size(); ++k) {
            ready[k] = polls[k].revents != 0;
        }
    }
}

void xclose(int& fd) {
    if (fd >= 0) {
        close(fd);
        fd = -1;
    }
}
