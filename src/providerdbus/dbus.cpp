#include "providerdbus/dbus.h"

#include "channelhandler/channelhandler.h"
#include "common/rs_assert.h"

#include <permo2/permo2.h>

#include <stdexcept>

namespace API {

DBus::DBus(channel_handler_t* handler) : handler_(handler) {
    permo2_error error{};
    if (!permo2_init(&error, -1)) {
        throw std::runtime_error(std::string("permo2_init: ") + error.message);
    }
}

DBus::~DBus() {
    permo2_release();
}

void DBus::addSupportedChannel(int channel) {
    std::lock_guard lock(mutex_);
    RS_ASSERT(supportedChannel_ == -1);
    channel_handler_create_channel(*handler_, channel);
    supportedChannel_ = channel;
}

void DBus::addObjectClassification(int id, std::string name) {
    std::lock_guard lock(mutex_);
    classifications.emplace(id, std::move(name));
}

int DBus::supportedChannel() {
    std::lock_guard lock(mutex_);
    return supportedChannel_;
}

std::map<int32_t, std::string> DBus::objectClassifications() {
    std::lock_guard lock(mutex_);
    return classifications;
}

}  // namespace API
