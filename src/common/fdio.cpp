#include "common/fdio.h"
#include "common/unique_fd.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

namespace {

// sendmsg with MSG_NOSIGNAL keeps a vanished subscriber from killing the
// process; descriptors that are not sockets fall back to writev.
ssize_t write_some(int fd, iovec* iov, int count) {
    msghdr msg{};
    msg.msg_iov = iov;
    msg.msg_iovlen = static_cast<size_t>(count);
    ssize_t n = sendmsg(fd, &msg, MSG_NOSIGNAL);
    if (n < 0 && errno == ENOTSOCK) {
        n = writev(fd, iov, count);
    }
    return n;
}

}  // namespace

int writev_all(int fd, iovec* iov, int count, unsigned* written) {
    unsigned total = 0;
    int result = 0;
    while (count > 0) {
        if (iov->iov_len == 0) {
            ++iov;
            --count;
            continue;
        }
        ssize_t n = write_some(fd, iov, count);
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
