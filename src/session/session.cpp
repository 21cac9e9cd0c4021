#include "session/session.h"

#include "common/rs_assert.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

// The command name of `pid` without its trailing line feed, or null when
// /proc has no readable entry for it.
char* read_comm(unsigned pid) {
    char path[128];
    snprintf(path, sizeof(path), "/proc/%d/comm", static_cast<int>(pid));
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return nullptr;
    }
    char name[128];
    ssize_t n = read(fd, name, sizeof(name) - 1);
    close(fd);
    if (n < 0) {
        return nullptr;
    }
    name[n] = '\0';
    if (n > 0 && name[n - 1] == '\n') {
        name[n - 1] = '\0';
    }
    return strdup(name);
}

}  // namespace

session_t::~session_t() {
    free(comm);
}

void session_set_id(session_t& session, int id) {
    RS_ASSERT(id >= 0);
    session.id = id;
}

int session_get_id(const session_t& session) {
    return session.id;
}

void session_set_fd(session_t& session, unique_fd fd) {
    session.fd = std::move(fd);
}

int session_get_fd(const session_t& session) {
    return session.fd.get();
}

void session_set_state(session_t& session, session_state_t state) {
    session.state = state;
}

session_state_t session_get_state(const session_t& session) {
    return session.state;
}

void session_set_pid(session_t& session, unsigned pid) {
    session.pid = pid;
    free(session.comm);
    session.comm = read_comm(pid);
}

unsigned session_get_pid(const session_t& session) {
    return session.pid;
}

const char* session_get_comm(const session_t& session) {
    return session.comm;
}

void session_set_format(session_t& session, scene_format_t value) {
    RS_ASSERT(value == SCENE_FORMAT_PROTO_1 && "Invalid session format specified!");
    session.format = value;
}

session_stats_t session_get_stats(const session_t& session) {
    session_stats_t stats;
    stats.id = session.id;
    stats.subscribed_usec = session.subscribed_usec;
    stats.pid = session.pid;
    stats.comm = session.comm ? session.comm : "";
    stats.scenes_written = session.scenes_written;
    stats.frames_replaced = session.frames_replaced;
    stats.bytes_written = session.bytes_written;
    if (session.state == SESSION_STATE_BROKEN || session.state == SESSION_STATE_CLOSED) {
        stats.end = session.error == EAGAIN ? SESSION_END_DEADLINE : SESSION_END_ERROR;
    }
    return stats;
}

#define DEFINE_SESSION_OPTION(n)                                 \
    void session_set_option##n(session_t& session, bool value) { \
        session.option##n = value;                               \
    }                                                            \
    bool session_get_option##n(const session_t& session) {       \
        return session.option##n;                                \
    }

DEFINE_SESSION_OPTION(1)
DEFINE_SESSION_OPTION(2)
DEFINE_SESSION_OPTION(3)
DEFINE_SESSION_OPTION(4)
DEFINE_SESSION_OPTION(5)
