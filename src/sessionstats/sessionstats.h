// What the subscribers of a channel received and how their sessions ended.
#pragma once

#include <cstdint>
#include <string>

enum session_end_t : int32_t {
    SESSION_END_ACTIVE = 0,
    SESSION_END_UNSUBSCRIBED = 1,
    SESSION_END_DEADLINE = 2,  // a record was not written within its deadline
    SESSION_END_ERROR = 3,     // a write failed, the peer's close among the causes
};

// One session's counters as the statistics object serves them.
struct session_stats_t {
    int32_t id = 0;
    int32_t channel = 0;
    int64_t subscribed_usec = 0;  // CLOCK_REALTIME
    uint32_t pid = 0;
    std::string comm;
    uint64_t scenes_written = 0;
    // Newer frames took their place before they were sent: at the hand-off
    // to the sending thread, or while the session's socket was full.
    uint64_t frames_replaced = 0;
    uint64_t bytes_written = 0;  // length prefixes included
    session_end_t end = SESSION_END_ACTIVE;
    uint64_t ended_seq = 0;  // orders ended sessions across channels
};

// A channel's totals over every session it has had.
struct channel_stats_t {
    int32_t channel = 0;
    uint32_t active_sessions = 0;
    uint64_t frames_pushed = 0;
    uint64_t scenes_written = 0;
    uint64_t frames_replaced = 0;
    uint64_t bytes_written = 0;
    uint64_t sessions_broken = 0;
    uint64_t handoff_replaced = 0;  // frames replaced before the sending thread took them
};

// "active", "unsubscribed", "broken-deadline" or "broken-error".
const char* session_end_name(session_end_t end);

// Microseconds since the epoch on CLOCK_REALTIME.
int64_t realtime_usec();
