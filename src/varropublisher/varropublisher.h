#pragma once

#include "varropublisher/varrotopicstate.h"

#include <ctime>
#include <memory>
#include <string>
#include <vector>

namespace API {
class DBus;
}

// The broker part of a Sink: the client, the topics in registration order,
// and two buffers reused by every publication. Not locked: registration and
// publishing come from the producer's one thread.
struct varro_publisher_t {
    std::shared_ptr<tessel_os_varro::Client> client;
    std::vector<std::unique_ptr<SceneProvider::VarroTopicState>> topics;
    std::string payload;
    std::string encoded;
};

// Creates and connects the broker client; a failed connection is logged.
void varro_publisher_connect(varro_publisher_t& publisher, const std::string& client_name);

// Registers `topicName` on the broker (creating it when it does not exist)
// with a writer and the instance of this channel. Returns null, after a log
// line, when any step fails.
std::unique_ptr<SceneProvider::VarroTopicState> createTopicState(
    tessel_os_varro::Client& client, const std::string& topicName, int supportedChannel,
    SceneProvider::VarroTopicKind kind, const RadarScene::SerializeFrameOptions& options);

// createTopicState for the provider's channel; a registered topic is kept.
void varro_publisher_add_topic(varro_publisher_t& publisher, API::DBus& provider,
                               const std::string& topicName, SceneProvider::VarroTopicKind kind,
                               const RadarScene::SerializeFrameOptions& options);

// Publishes the frame of `channel` to every topic bound to it, all stamped
// with one reading of the monotonic clock.
void publish(varro_publisher_t& publisher, API::DBus& provider, int channel,
             const RadarScene::Frame& frame, unsigned long raw_mask);

void publishToTopic(varro_publisher_t& publisher, API::DBus& provider,
                    SceneProvider::VarroTopicState& topic, const RadarScene::Frame& frame,
                    unsigned long raw_mask, const timespec& timestamp);
