// The statistics as text: a table of sessions and one of channel totals.

#include "toptable.h"

#include <cctype>
#include <ctime>
#include <string>

namespace {

// A command name as one word.
std::string word(const std::string& comm) {
    if (comm.empty()) {
        return "-";
    }
    std::string shown = comm;
    for (char& c : shown) {
        if (!std::isgraph(static_cast<unsigned char>(c))) {
            c = '?';
        }
    }
    return shown;
}

// Local time of a CLOCK_REALTIME microsecond count, to the second.
std::string local_time(int64_t usec) {
    time_t seconds = static_cast<time_t>(usec / 1'000'000);
    tm local{};
    char text[32] = "-";
    if (localtime_r(&seconds, &local)) {
        strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%S", &local);
    }
    return text;
}

}  // namespace

void top_print(FILE* out, const top_statistics_t& statistics, int channel) {
    fprintf(out, "%7s %7s %7s %-15s %-19s %10s %10s %14s %s\n", "SESSION", "CHANNEL", "PID",
            "COMMAND", "SUBSCRIBED", "SCENES", "REPLACED", "BYTES", "STATE");
    for (const top_session_t& s : statistics.sessions) {
        if (channel >= 0 && s.channel != channel) {
            continue;
        }
        fprintf(out, "%7d %7d %7u %-15s %-19s %10llu %10llu %14llu %s\n", s.id, s.channel, s.pid,
                word(s.comm).c_str(), local_time(s.subscribed_usec).c_str(),
                static_cast<unsigned long long>(s.scenes_written),
                static_cast<unsigned long long>(s.frames_replaced),
                static_cast<unsigned long long>(s.bytes_written), s.state.c_str());
    }
    fprintf(out, "\n%7s %7s %10s %10s %10s %14s %7s %10s\n", "CHANNEL", "ACTIVE", "PUSHED",
            "SCENES", "REPLACED", "BYTES", "BROKEN", "HANDOFF");
    for (const top_channel_t& c : statistics.channels) {
        if (channel >= 0 && c.channel != channel) {
            continue;
        }
        fprintf(out, "%7d %7u %10llu %10llu %10llu %14llu %7llu %10llu\n", c.channel,
                c.active_sessions, static_cast<unsigned long long>(c.frames_pushed),
                static_cast<unsigned long long>(c.scenes_written),
                static_cast<unsigned long long>(c.frames_replaced),
                static_cast<unsigned long long>(c.bytes_written),
                static_cast<unsigned long long>(c.sessions_broken),
                static_cast<unsigned long long>(c.handoff_replaced));
    }
}
