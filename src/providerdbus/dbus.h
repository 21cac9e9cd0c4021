#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <string>

struct channel_handler_t;

namespace API {

// The transport-neutral part of the provider: the channel it serves, the
// object classes the producer registered, and the access library's lifetime.
class DBus {
public:
    // Initialises the access library; throws std::runtime_error when it fails.
    explicit DBus(channel_handler_t* handler);
    virtual ~DBus();
    DBus(const DBus&) = delete;
    DBus& operator=(const DBus&) = delete;

    virtual void requestName() {}

    // Creates the provider's one channel; a second call aborts.
    void addSupportedChannel(int channel);
    // The first name registered for an id wins.
    void addObjectClassification(int id, std::string name);
    int supportedChannel();
    std::map<int32_t, std::string> objectClassifications();

protected:
    std::map<int32_t, std::string> classifications;
    int32_t supportedChannel_ = -1;
    channel_handler_t* handler_;
    std::mutex mutex_;  // guards classifications and supportedChannel_
};

}  // namespace API
