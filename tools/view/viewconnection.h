#pragma once

// A connection of the view's server, from its handshakes to its end, and
// the bounds its parts share: the server's loop, its answers to requests
// and its reading of frames.

#include "viewer.h"
#include "viewlink.h"
#include "viewserver.h"

#include <cstdint>
#include <ctime>
#include <memory>
#include <string>

enum view_phase_t { VIEW_HANDSHAKING, VIEW_RESPONDING, VIEW_VIEWING, VIEW_LINGERING };

struct ViewServer::connection_t {
    std::unique_ptr<view_link_t> link;
    std::string host;  // the peer's address
    view_phase_t phase = VIEW_HANDSHAKING;
    std::string in;           // bytes read and not yet used
    std::string out;          // an HTTP response
    size_t out_at = 0;        // of `out`, sent
    int64_t deadline = 0;     // of the handshake or the lingering; 0 for none
    bool cookie_due = false;  // a page request that gave the secret
    uint32_t events = 0;      // asked of epoll
    std::unique_ptr<view_viewer_t> viewer;
};

// How long a connection may take to become a viewer: TCP, TLS and HTTP
// handshakes together.
constexpr int64_t VIEW_HANDSHAKE_TIMEOUT_NS = 5'000'000'000;
// Bytes read from one connection at a time, and times per turn of the loop.
constexpr size_t VIEW_READ_CHUNK = 16 * 1024;
constexpr size_t VIEW_READS_PER_TURN = 16;

inline int64_t view_now_ns() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1'000'000'000 + now.tv_nsec;
}
