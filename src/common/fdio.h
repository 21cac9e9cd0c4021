#pragma once

#include <sys/uio.h>

#include <cstddef>

// Writes every byte of the `count` buffers, retrying after partial writes and
// EINTR. Returns 0, or a negative errno value. `iov` is consumed (advanced in
// place). On a socket the write never raises SIGPIPE: a closed peer gives
// -EPIPE. `written`, when given, receives the number of bytes written.
//
// With `timeout_ms` >= 0 the whole write must complete within that time, or
// it fails with -EAGAIN: a peer that drains a little now and then cannot hold
// the writer for longer than that.
int writev_all(int fd, iovec* iov, int count, unsigned* written, int timeout_ms = -1);

// Writes what `fd` takes now of the `count` buffers, without waiting:
// 0 once every byte is written, -EAGAIN when the descriptor takes no more,
// or another negative errno. `written` receives the number of bytes written.
int writev_now(int fd, iovec* iov, int count, unsigned* written);

// One descriptor's part of a multiplexed write: its buffers, consumed in
// place as they are written, and the outcome.
struct fd_write_t {
    int fd = -1;
    iovec* iov = nullptr;
    int count = 0;
    unsigned written = 0;
    int result = 0;  // 0 once every byte is written, else a negative errno
};

// Writes each entry's buffers to its own descriptor, all in one go: the
// writes are non-blocking and multiplexed with poll, so a descriptor that
// takes no more bytes never holds up the others. Every entry ends fully
// written or failed; with `timeout_ms` >= 0 those unfinished when it passes
// fail together with -EAGAIN.
void writev_each(fd_write_t* writes, size_t n, int timeout_ms);
