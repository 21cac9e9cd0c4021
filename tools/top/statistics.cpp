// The provider's statistics, read over its Statistics object.

#include "statistics.h"

#include "toolutil.h"

#include <cerrno>

namespace {

constexpr const char* STATISTICS_PATH = "/com/tessel/RadarSceneProvider1/Statistics";
constexpr const char* STATISTICS_INTERFACE = "com.tessel.RadarSceneProvider1.Statistics";
// A provider whose loop is busy still answers within this, or is reported.
constexpr uint64_t CALL_TIMEOUT_USEC = 5'000'000;

int read_session(sd_bus_message* m, top_session_t& s) {
    const char* comm = nullptr;
    const char* state = nullptr;
    int r =
        sd_bus_message_read(m, "(iixusttts)", &s.id, &s.channel, &s.subscribed_usec, &s.pid, &comm,
                            &s.scenes_written, &s.frames_replaced, &s.bytes_written, &state);
    if (r > 0) {
        s.comm = comm;
        s.state = state;
    }
    return r;
}

int read_channel(sd_bus_message* m, top_channel_t& c) {
    return sd_bus_message_read(m, "(iutttttt)", &c.channel, &c.active_sessions, &c.frames_pushed,
                               &c.scenes_written, &c.frames_replaced, &c.bytes_written,
                               &c.sessions_broken, &c.handoff_replaced);
}

// Calls `method` and reads its array of `contents` records with `read`.
template <class Record, class Read>
std::string call(sd_bus* bus, int stop_fd, const char* method, const char* contents,
                 std::vector<Record>& records, bool& stopped, Read&& read) {
    sd_bus_message* message = nullptr;
    tool_check(sd_bus_message_new_method_call(bus, &message, PROVIDER_SERVICE, STATISTICS_PATH,
                                              STATISTICS_INTERFACE, method),
               "sd_bus_message_new_method_call");
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message* reply = nullptr;
    int r = tool_call(bus, message, CALL_TIMEOUT_USEC, stop_fd, &error, &reply);
    sd_bus_message_unref(message);
    std::string failure;
    stopped = r == -ECANCELED;
    if (r < 0 && !stopped) {
        failure = sd_bus_error_has_name(&error, SD_BUS_ERROR_SERVICE_UNKNOWN)
                      ? "no radar scene provider on the system bus"
                      : std::string(method) + ": " + tool_bus_error(error, r);
    }
    sd_bus_error_free(&error);
    if (r < 0) {
        return failure;
    }
    records.clear();
    r = sd_bus_message_enter_container(reply, SD_BUS_TYPE_ARRAY, contents);
    Record record;
    while (r > 0 && (r = read(reply, record)) > 0) {
        records.push_back(record);
    }
    sd_bus_message_unref(reply);
    return r < 0 ? std::string("unreadable reply to ") + method : "";
}

}  // namespace

std::string top_read_statistics(sd_bus* bus, int stop_fd, top_statistics_t& statistics,
                                bool& stopped) {
    std::string failure = call(bus, stop_fd, "GetSessions", "(iixusttts)", statistics.sessions,
                               stopped, read_session);
    if (failure.empty() && !stopped) {
        failure = call(bus, stop_fd, "GetChannels", "(iutttttt)", statistics.channels, stopped,
                       read_channel);
    }
    return failure;
}
