// The provider's read-only statistics object: each session's counters and each channel's totals.
#pragma once

#include "providerdbus/sdbuscompat.h"
#include "providerdbus/statistics_adaptor.h"

#include <string>
#include <vector>

struct channel_handler_t;

namespace API::SdBusCpp {

using SessionRow = sdbus::Struct<int32_t, int32_t, int64_t, uint32_t, std::string, uint64_t,
                                 uint64_t, uint64_t, std::string>;
using ChannelRow =
    sdbus::Struct<int32_t, uint32_t, uint64_t, uint64_t, uint64_t, uint64_t, uint64_t, uint64_t>;

// Served next to the Scene object on the producer's connection, on its
// event-loop thread; every method checks the caller as the Scene ones do.
class ProviderStatistics
    : private sdbus::AdaptorInterfaces<com::tessel::RadarSceneProvider1::Statistics_adaptor> {
public:
    ProviderStatistics(sdbus::IConnection& connection, std::string objectPath,
                       channel_handler_t* handler);
    ~ProviderStatistics();

private:
    std::vector<SessionRow> GetSessions() override;
    std::vector<ChannelRow> GetChannels() override;

    void checkCaller();

    channel_handler_t* handler_;
};

}  // namespace API::SdBusCpp
