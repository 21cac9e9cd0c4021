#pragma once

// The provider's statistics, read over its Statistics object.

#include <systemd/sd-bus.h>

#include <cstdint>
#include <string>
#include <vector>

struct top_session_t {
    int32_t id = 0;
    int32_t channel = 0;
    int64_t subscribed_usec = 0;  // CLOCK_REALTIME microseconds since the epoch
    uint32_t pid = 0;
    std::string comm;
    uint64_t scenes_written = 0;
    uint64_t frames_replaced = 0;
    uint64_t bytes_written = 0;
    std::string state;  // "active", "unsubscribed", "broken-deadline" or "broken-error"
};

struct top_channel_t {
    int32_t channel = 0;
    uint32_t active_sessions = 0;
    uint64_t frames_pushed = 0;
    uint64_t scenes_written = 0;
    uint64_t frames_replaced = 0;
    uint64_t bytes_written = 0;
    uint64_t sessions_broken = 0;
    uint64_t handoff_replaced = 0;
};

struct top_statistics_t {
    std::vector<top_session_t> sessions;
    std::vector<top_channel_t> channels;
};

// Reads the sessions and the channel totals. An empty string on success,
// else the reason in one line ("no radar scene provider on the system bus"
// when it is not there); `stopped` tells that a stop signal arrived on
// `stop_fd` first.
std::string top_read_statistics(sd_bus* bus, int stop_fd, top_statistics_t& statistics,
                                bool& stopped);
