// Names and clock of the session statistics.
#include "sessionstats/sessionstats.h"

#include <ctime>

const char* session_end_name(session_end_t end) {
    switch (end) {
        case SESSION_END_ACTIVE:
            return "active";
        case SESSION_END_UNSUBSCRIBED:
            return "unsubscribed";
        case SESSION_END_DEADLINE:
            return "broken-deadline";
        case SESSION_END_ERROR:
            return "broken-error";
    }
    return "broken-error";
}

int64_t realtime_usec() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<int64_t>(now.tv_sec) * 1'000'000 + now.tv_nsec / 1000;
}
