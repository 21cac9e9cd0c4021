#pragma once

#include <sys/uio.h>

// Writes every byte of the `count` buffers, retrying after partial writes and
// EINTR. Returns 0, or a negative errno value. `iov` is consumed (advanced in
// place). On a socket the write never raises SIGPIPE: a closed peer gives
// -EPIPE. `written`, when given, receives the number of bytes written.
//
// With `timeout_ms` >= 0 the whole write must complete within that time, or
// it fails with -EAGAIN: a peer that drains a little now and then cannot hold
// the writer for longer than that.
int writev_all(int fd, iovec* iov, int count, unsigned* written, int timeout_ms = -1);
