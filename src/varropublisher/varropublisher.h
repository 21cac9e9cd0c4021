#pragma once

#include "varropublisher/varrotopicstate.h"

#include <ctime>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

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

// createTopicState for the Sink's channel; a registered topic is kept.
// Without a client, one line says so and nothing is registered.
void varro_publisher_add_topic(varro_publisher_t& publisher, const std::string& topicName,
                               int supportedChannel, SceneProvider::VarroTopicKind kind,
                               const RadarScene::SerializeFrameOptions& options);

// The object class table (id -> name) that names classes in ZRF documents.
using class_table_source = std::function<std::map<int32_t, std::string>()>;

// Publishes the frame of `channel` to every topic bound to it, all stamped
// with one reading of the monotonic clock. `classes` is asked at most once,
// and only when a ZRF topic is published to.
void publish(varro_publisher_t& publisher, int channel, const RadarScene::Frame& frame,
             unsigned long raw_mask, const class_table_source& classes);

void publishToTopic(varro_publisher_t& publisher, SceneProvider::VarroTopicState& topic,
                    const RadarScene::Frame& frame, unsigned long raw_mask,
                    const std::map<int32_t, std::string>& classes, const timespec& timestamp);
