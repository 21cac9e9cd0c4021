#include "subscription.h"

#include "toolutil.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>

namespace {

constexpr uint64_t CLASS_QUERY_TIMEOUT_USEC = 500'000;

// Whether the call found no provider: its name has no owner, or the owner
// left the bus before it answered (a provider that stops while starting).
bool provider_absent(const sd_bus_error& error) {
    return sd_bus_error_has_name(&error, SD_BUS_ERROR_SERVICE_UNKNOWN) ||
           sd_bus_error_has_name(&error, SD_BUS_ERROR_NAME_HAS_NO_OWNER) ||
           sd_bus_error_has_name(&error, SD_BUS_ERROR_NO_REPLY);
}

}  // namespace

std::optional<tool_subscription_t> tool_subscribe(sd_bus* bus, int channel,
                                                  const std::map<std::string, bool>& features,
                                                  double wait, int stop_fd) {
    uint64_t until = tool_monotonic_ns() + static_cast<uint64_t>(std::max(wait, 0.0) * 1e9);
    for (;;) {
        sd_bus_message* call = nullptr;
        tool_check(sd_bus_message_new_method_call(bus, &call, PROVIDER_SERVICE, PROVIDER_PATH,
                                                  PROVIDER_INTERFACE, "SubscribeSocket"),
                   "cannot build the subscription call");
        sd_bus_message_append(call, "ii", 3, channel);
        sd_bus_message_open_container(call, 'a', "{sb}");
        for (const auto& [key, value] : features) {
            sd_bus_message_append(call, "{sb}", key.c_str(), static_cast<int>(value));
        }
        sd_bus_message_close_container(call);
        sd_bus_error error = SD_BUS_ERROR_NULL;
        sd_bus_message* reply = nullptr;
        int r = tool_call(bus, call, 0, stop_fd, &error, &reply);
        sd_bus_message_unref(call);
        if (r == -ECANCELED) {
            return std::nullopt;
        }
        if (r >= 0) {
            tool_subscription_t subscription;
            r = sd_bus_message_read(reply, "hi", &subscription.stream, &subscription.session);
            subscription.stream = r < 0 ? -1 : fcntl(subscription.stream, F_DUPFD_CLOEXEC, 3);
            sd_bus_message_unref(reply);
            if (subscription.stream < 0) {
                tool_fail("unreadable reply to SubscribeSocket");
            }
            return subscription;
        }
        bool absent = provider_absent(error);
        if (!absent || (wait >= 0 && tool_monotonic_ns() >= until)) {
            std::string message = sd_bus_error_has_name(&error, SD_BUS_ERROR_SERVICE_UNKNOWN)
                                      ? "no radar scene provider on the system bus"
                                      : tool_bus_error(error, r);
            sd_bus_error_free(&error);
            tool_fail("%s", message.c_str());
        }
        sd_bus_error_free(&error);
        if (tool_stopped_within(stop_fd, 100)) {
            return std::nullopt;
        }
    }
}

void tool_unsubscribe(sd_bus* bus, int32_t session) {
    sd_bus_call_method(bus, PROVIDER_SERVICE, PROVIDER_PATH, PROVIDER_INTERFACE,
                       "UnsubscribeSocket", nullptr, nullptr, "i", session);
}

std::map<int32_t, std::string> tool_class_names(sd_bus* bus, int channel, int stop_fd) {
    std::map<int32_t, std::string> names;
    sd_bus_message* call = nullptr;
    sd_bus_message* reply = nullptr;
    if (sd_bus_message_new_method_call(bus, &call, PROVIDER_SERVICE, PROVIDER_PATH,
                                       PROVIDER_INTERFACE, "GetObjectClassifications") < 0 ||
        sd_bus_message_append(call, "i", channel) < 0 ||
        tool_call(bus, call, CLASS_QUERY_TIMEOUT_USEC, stop_fd, nullptr, &reply) < 0 ||
        sd_bus_message_enter_container(reply, 'a', "{is}") < 0) {
        sd_bus_message_unref(call);
        sd_bus_message_unref(reply);
        return names;
    }
    int32_t id = 0;
    const char* name = nullptr;
    while (sd_bus_message_read(reply, "{is}", &id, &name) > 0) {
        names[id] = name;
    }
    sd_bus_message_unref(call);
    sd_bus_message_unref(reply);
    return names;
}
