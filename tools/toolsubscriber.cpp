// Opening a tool's subscription and asking the provider for its class names.
#include "toolsubscriber.h"

#include "toolutil.h"

#include <poll.h>

#include <algorithm>

namespace {

constexpr uint64_t CLASS_QUERY_TIMEOUT_USEC = 500'000;

bool provider_absent(const RadarScene::SubscriberError& e) {
    return e.name() == SD_BUS_ERROR_SERVICE_UNKNOWN || e.name() == SD_BUS_ERROR_NAME_HAS_NO_OWNER ||
           e.name() == SD_BUS_ERROR_NO_REPLY;
}

}  // namespace

std::optional<RadarScene::Subscriber> tool_open_subscriber(
    const RadarScene::SubscriberConfig& config, double wait, int stop_fd) {
    uint64_t until = tool_monotonic_ns() + static_cast<uint64_t>(std::max(wait, 0.0) * 1e9);
    for (;;) {
        try {
            RadarScene::Subscriber subscriber(config);
            // A following subscriber waits for the provider itself: up to `wait` here.
            while (subscriber.state() == RadarScene::SubscriberState::WAITING) {
                int64_t left = static_cast<int64_t>(until - tool_monotonic_ns()) / 1'000'000;
                if (left < 0) {
                    tool_fail("no radar scene provider on the system bus");
                }
                pollfd fds[2] = {{subscriber.fd(), POLLIN, 0}, {stop_fd, POLLIN, 0}};
                poll(fds, 2, static_cast<int>(std::min<int64_t>(left + 1, 1000)));
                if (fds[1].revents) {
                    return std::nullopt;
                }
                std::string ignored;
                subscriber.readNow(ignored);
            }
            return subscriber;
        } catch (const RadarScene::SubscriberError& e) {
            if (!provider_absent(e) || tool_monotonic_ns() >= until) {
                if (e.name() == SD_BUS_ERROR_SERVICE_UNKNOWN) {
                    tool_fail("no radar scene provider on the system bus");
                }
                tool_fail("%s", e.what());
            }
        }
        if (tool_stopped_within(stop_fd, 100)) {
            return std::nullopt;
        }
    }
}

std::map<std::string, bool> tool_features(const RadarScene::SubscriberConfig& config) {
    std::map<std::string, bool> features;
    const std::pair<const char*, bool> all[] = {{"BOUNDINGBOX_ENABLED", config.bounding_box},
                                                {"POLYGON_ENABLED", config.polygon},
                                                {"VELOCITY_ENABLED", config.velocity},
                                                {"GEOLOCATION_ENABLED", config.geolocation},
                                                {"RAW_ENABLED", config.raw}};
    for (const auto& [key, on] : all) {
        if (on) {
            features[key] = true;
        }
    }
    return features;
}

std::map<int32_t, std::string> tool_class_names(int channel, int stop_fd) {
    std::map<int32_t, std::string> names;
    sd_bus* bus = tool_system_bus();
    sd_bus_message* call = nullptr;
    sd_bus_message* reply = nullptr;
    if (sd_bus_message_new_method_call(bus, &call, PROVIDER_SERVICE, PROVIDER_PATH,
                                       PROVIDER_INTERFACE, "GetObjectClassifications") >= 0 &&
        sd_bus_message_append(call, "i", channel) >= 0 &&
        tool_call(bus, call, CLASS_QUERY_TIMEOUT_USEC, stop_fd, nullptr, &reply) >= 0 &&
        sd_bus_message_enter_container(reply, 'a', "{is}") >= 0) {
        int32_t id = 0;
        const char* name = nullptr;
        while (sd_bus_message_read(reply, "{is}", &id, &name) > 0) {
            names[id] = name;
        }
    }
    sd_bus_message_unref(call);
    sd_bus_message_unref(reply);
    sd_bus_flush_close_unref(bus);
    return names;
}
