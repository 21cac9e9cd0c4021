// The statistics object: snapshots of the channel handler's counters, taken on the event loop.
#include "providerdbus/providerstatistics.h"

#include "channelhandler/channelhandler.h"
#include "providerdbus/authorization.h"

namespace API::SdBusCpp {

ProviderStatistics::ProviderStatistics(sdbus::IConnection& connection, std::string objectPath,
                                       channel_handler_t* handler)
    : AdaptorInterfaces(connection, sdbus_compat::ObjectPath(std::move(objectPath))),
      handler_(handler) {
    registerAdaptor();
}

ProviderStatistics::~ProviderStatistics() {
    unregisterAdaptor();
}

void ProviderStatistics::checkCaller() {
    check_authorization_permo(sdbus_compat::current_message(getObject()));
}

std::vector<SessionRow> ProviderStatistics::GetSessions() {
    checkCaller();
    std::vector<session_stats_t> sessions;
    std::vector<channel_stats_t> channels;
    channel_handler_get_stats(*handler_, sessions, channels);
    std::vector<SessionRow> rows;
    for (const session_stats_t& s : sessions) {
        rows.emplace_back(s.id, s.channel, s.subscribed_usec, s.pid, s.comm, s.scenes_written,
                          s.frames_replaced, s.bytes_written, session_end_name(s.end));
    }
    return rows;
}

std::vector<ChannelRow> ProviderStatistics::GetChannels() {
    checkCaller();
    std::vector<session_stats_t> sessions;
    std::vector<channel_stats_t> channels;
    channel_handler_get_stats(*handler_, sessions, channels);
    std::vector<ChannelRow> rows;
    for (const channel_stats_t& c : channels) {
        rows.emplace_back(c.channel, c.active_sessions, c.frames_pushed, c.scenes_written,
                          c.frames_replaced, c.bytes_written, c.sessions_broken,
                          c.handoff_replaced);
    }
    return rows;
}

}  // namespace API::SdBusCpp
