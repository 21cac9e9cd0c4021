#include "varropublisher/varropublisher.h"

#include "common/log.h"
#include "common/rs_assert.h"
#include "varropublisher/base64.h"
#include "varropublisher/topicdefinitions.h"
#include "zrf/zrf.h"

#include <nlohmann/json.hpp>

#include <optional>

using namespace tessel_os_varro;
using SceneProvider::VarroTopicKind;
using SceneProvider::VarroTopicState;

namespace {

constexpr const char* WRITER_NAME = "libmerrow";
constexpr ClientOptions CLIENT_OPTIONS = {4, 1, 0};
const std::map<int32_t, std::string> NO_CLASSES;

nlohmann::json envelope(const VarroTopicState& topic, const std::string& encoded,
                        const timespec& timestamp) {
    return {{"source", topic.source},
            {"data", encoded},
            {"timestamp",
             {{"tv_sec", static_cast<int64_t>(timestamp.tv_sec)},
              {"tv_nsec", static_cast<int64_t>(timestamp.tv_nsec)}}}};
}

// The payload in base64, in the publisher's reused buffer.
const std::string& encoded_payload(varro_publisher_t& publisher) {
    const std::string& payload = publisher.payload;
    std::string& encoded = publisher.encoded;
    encoded.resize(4 * ((payload.size() + 2) / 3));
    encoded.resize(base64_encode(payload.data(), payload.size(), encoded.data()));
    return encoded;
}

}  // namespace

void varro_publisher_connect(varro_publisher_t& publisher, const std::string& client_name) {
    publisher.client = Client::Create(client_name, CLIENT_OPTIONS);
    if (!publisher.client) {
        log_error("Failed to connect to Varro: %s", "no broker client");
        return;
    }
    if (auto connected = publisher.client->Connect(); !connected) {
        log_error("Failed to connect to Varro: %s", connected.error().message.c_str());
    }
}

std::unique_ptr<VarroTopicState> createTopicState(
    Client& client, const std::string& topicName, int supportedChannel, VarroTopicKind kind,
    const RadarScene::SerializeFrameOptions& options) {
    auto state = std::make_unique<VarroTopicState>();
    state->topicName = topicName;
    state->kind = kind;
    state->options = options;
    state->source = std::to_string(supportedChannel + 1);
    const char* name = topicName.c_str();

    if (auto topic = client.GetTopic(topicName); !topic) {
        if (topic.error().code != ApiErrorCode::NotFound) {
            log_error("Failed to get topic '%s': %s", name, topic.error().message.c_str());
            return nullptr;
        }
        if (auto created = client.CreateTopic(topic_definition(kind, topicName)); !created) {
            log_error("Failed to create topic '%s': %s", name, created.error().message.c_str());
            return nullptr;
        }
    }
    auto writer = client.CreateTopicDataWriter(WRITER_NAME);
    if (!writer) {
        log_error("Failed to create topic data writer for topic '%s': %s", name,
                  writer.error().message.c_str());
        return nullptr;
    }
    state->writer = std::move(*writer);
    if (auto initialized = state->writer->Initialize(topicName); !initialized) {
        log_error("Failed to initialize topic data writer for topic '%s': %s", name,
                  initialized.error().message.c_str());
        return nullptr;
    }
    std::string key = nlohmann::json{{"source", state->source}}.dump();
    if (auto instance =
            state->writer->CreateInstance(TopicInstance(topicName, key, std::nullopt), true);
        !instance) {
        log_error("Failed to create topic instance for topic '%s': %s", name,
                  instance.error().message.c_str());
        return nullptr;
    }
    return state;
}

void varro_publisher_add_topic(varro_publisher_t& publisher, const std::string& topicName,
                               int supportedChannel, VarroTopicKind kind,
                               const RadarScene::SerializeFrameOptions& options) {
    // A broker library that made no client was logged at connection; the
    // radar goes on without the topic.
    if (!publisher.client) {
        log_error("Failed to get topic '%s': %s", topicName.c_str(), "no broker client");
        return;
    }
    auto state = createTopicState(*publisher.client, topicName, supportedChannel, kind, options);
    if (state) {
        publisher.topics.push_back(std::move(state));
    }
}

void publish(varro_publisher_t& publisher, int channel, const RadarScene::Frame& frame,
             unsigned long raw_mask, const class_table_source& classes) {
    if (publisher.topics.empty()) {
        return;
    }
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    std::string source = std::to_string(channel + 1);
    // Only the ZRF documents name classes: the table is fetched for them, once.
    std::optional<std::map<int32_t, std::string>> table;
    for (auto& topic : publisher.topics) {
        if (topic->source != source) {
            continue;
        }
        if (!table && topic->kind != SceneProvider::SerializedScene) {
            table = classes();
        }
        publishToTopic(publisher, *topic, frame, raw_mask, table ? *table : NO_CLASSES, now);
    }
}

void publishToTopic(varro_publisher_t& publisher, VarroTopicState& topic,
                    const RadarScene::Frame& frame, unsigned long raw_mask,
                    const std::map<int32_t, std::string>& classes, const timespec& timestamp) {
    std::string& payload = publisher.payload;
    nlohmann::json document;
    switch (topic.kind) {
        case SceneProvider::SerializedScene:
            RadarScene::serializeFrame(payload, frame, topic.options);
            document = envelope(topic, encoded_payload(publisher), timestamp);
            break;
        case SceneProvider::ZrfDocument:
            convert_frame_to_zrf(payload, frame, classes, raw_mask);
            document = envelope(topic, encoded_payload(publisher), timestamp);
            break;
        case SceneProvider::ZrfV1Document:
            convert_frame_to_zrf_v1(payload, frame, std::stoi(topic.source), classes, raw_mask);
            document = {{"source", topic.source}, {"data", payload}};
            break;
    }
    const char* name = topic.topicName.c_str();
    auto data = TopicData::FromJson(document.dump());
    if (!data) {
        log_error("Failed to create topic data for topic '%s': %s", name,
                  data.error().message.c_str());
    }
    RS_ASSERT(data.has_value() && "Topic data could not be created");
    if (auto written = topic.writer->WriteData(*data, std::nullopt); !written) {
        log_error("Failed to write data to topic '%s': %s", name, written.error().message.c_str());
    }
}
