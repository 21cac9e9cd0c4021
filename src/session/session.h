#pragma once

#include "common/subscription.h"
#include "common/unique_fd.h"
#include "sceneencoding/sceneencoding.h"
#include "sessionstats/sessionstats.h"

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

enum session_state_t : int32_t {
    SESSION_STATE_NEW = 0,
    SESSION_STATE_ACTIVE = 1,  // scenes are written to NEW and ACTIVE sessions only
    SESSION_STATE_BROKEN = 2,  // a write failed; `error` holds its errno
    SESSION_STATE_CLOSED = 3,  // reported and queued for removal
};

// One local subscriber of one channel. optionN is the N-th boolean of
// SerializeFrameOptions as the subscriber chose it. Not locked: the owning
// sender's mutex protects it.
struct session_t {
    session_t() = default;
    ~session_t();
    session_t(const session_t&) = delete;
    session_t& operator=(const session_t&) = delete;

    int32_t id = 0;
    unique_fd fd;
    session_state_t state = SESSION_STATE_NEW;
    int32_t error = 0;
    bool option5 = false;
    bool option4 = false;
    uint32_t pid = 0;
    char* comm = nullptr;  // command name from /proc, or null; freed with free()
    bool option1 = false;
    bool option2 = false;
    bool option3 = false;
    scene_format_t format = SCENE_FORMAT_PROTO_1;
    int64_t subscribed_usec = 0;  // CLOCK_REALTIME
    uint64_t scenes_written = 0;
    uint64_t frames_replaced = 0;
    uint64_t bytes_written = 0;
    // The encoding of the frame whose record is being written, null when
    // none is, and its scene, shared by the sessions with the same options
    // (or null while a stalled record's copy is dropped, to be put together
    // again from the encoding); the bytes of the record written so far
    // (length prefix included) and when its socket last took some; and the
    // encoding of the newest frame waiting after it.
    std::shared_ptr<const scene_encoding_t> record_encoding;
    std::shared_ptr<const std::string> record;
    uint32_t record_written = 0;
    std::chrono::steady_clock::time_point record_since;
    // The sender's round in which the socket last took bytes when polled
    // ready: a subscriber that reads, whose copy is kept.
    uint64_t read_round = 0;
    std::shared_ptr<const scene_encoding_t> next;
    // The number of the last frame pushed that counted for this session:
    // scenes + replaced frames = the frames pushed since it subscribed,
    // once those are all sent.
    uint64_t last_seq = 0;
};

void session_set_id(session_t& session, int id);
int session_get_id(const session_t& session);
void session_set_fd(session_t& session, unique_fd fd);
int session_get_fd(const session_t& session);
void session_set_state(session_t& session, session_state_t state);
session_state_t session_get_state(const session_t& session);
// Stores the pid and reads the process's command name into `comm`.
void session_set_pid(session_t& session, unsigned pid);
unsigned session_get_pid(const session_t& session);
const char* session_get_comm(const session_t& session);
void session_set_format(session_t& session, scene_format_t value);
// The session's counters; a broken session ended by its deadline when its
// error is EAGAIN, by an error otherwise.
session_stats_t session_get_stats(const session_t& session);

void session_set_option1(session_t& session, bool value);
void session_set_option2(session_t& session, bool value);
void session_set_option3(session_t& session, bool value);
void session_set_option4(session_t& session, bool value);
void session_set_option5(session_t& session, bool value);
bool session_get_option1(const session_t& session);
bool session_get_option2(const session_t& session);
bool session_get_option3(const session_t& session);
bool session_get_option4(const session_t& session);
bool session_get_option5(const session_t& session);
