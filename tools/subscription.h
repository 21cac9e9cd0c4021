#pragma once

// Subscribing to the radar scene provider, shared by the tools.

#include <systemd/sd-bus.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>

struct tool_subscription_t {
    int stream = -1;  // the scene stream, close-on-exec
    int32_t session = -1;
};

// Subscribes to `channel` through "SubscribeSocket" with the feature keys
// `features`, waiting up to `wait` seconds (< 0: for ever) for the provider
// to appear. Nothing when a stop signal arrives on `stop_fd` first; any
// other failure is a failure line.
std::optional<tool_subscription_t> tool_subscribe(sd_bus* bus, int channel,
                                                  const std::map<std::string, bool>& features,
                                                  double wait, int stop_fd);
void tool_unsubscribe(sd_bus* bus, int32_t session);
// The provider's class names; a provider without classes may not answer in
// time, and then the map is empty.
std::map<int32_t, std::string> tool_class_names(sd_bus* bus, int channel, int stop_fd);
