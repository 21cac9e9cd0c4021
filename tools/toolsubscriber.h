#pragma once

// A tool's subscription: a RadarScene::Subscriber opened as the tools' options ask, waiting for
// the provider while stop signals are honoured, and a refusal as one failure line.

#include <radarscene/Subscriber.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>

// Subscribes with `config`, waiting up to `wait` seconds for the provider to appear; nothing
// when a stop signal arrives on `stop_fd` first. A refusal, or no provider within the wait, is
// a failure line.
std::optional<RadarScene::Subscriber> tool_open_subscriber(
    const RadarScene::SubscriberConfig& config, double wait, int stop_fd);
// The feature keys that `config` asks for, as a recording names them.
std::map<std::string, bool> tool_features(const RadarScene::SubscriberConfig& config);
// The provider's class names; a provider that does not answer in time gives none.
std::map<int32_t, std::string> tool_class_names(int channel, int stop_fd);
