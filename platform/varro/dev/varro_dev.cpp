// Development stand-in for the device's broker client: topics live as files
// in a directory that a developer can watch. Each topic "T" has its
// definition in "T.topic.json" and its data items, one JSON document a line,
// in "T.jsonl". The directory is $VARRO_DEV_DIR, or /tmp/varro-dev. Built
// with MQTT support, a broker named by $VARRO_MQTT_URL is used instead.

#include <tessel_os_varro/varro.h>
#ifdef VARRO_WITH_MQTT
#include "varro_mqtt.h"
#endif

#include <nlohmann/json.hpp>

#include <sys/stat.h>

#include <cstdlib>
#include <fstream>
#include <mutex>

namespace tessel_os_varro {
namespace {

std::string topic_dir() {
    const char* dir = getenv("VARRO_DEV_DIR");
    return dir && *dir ? dir : "/tmp/varro-dev";
}

std::string definition_path(const std::string& topic) {
    return topic_dir() + "/" + topic + ".topic.json";
}

bool exists(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

class DevWriter : public TopicDataWriter {
public:
    Result<void> Initialize(std::string topic) override {
        if (!exists(definition_path(topic))) {
            return MakeError(ApiErrorCode::NotFound, "no topic " + topic);
        }
        topic_ = std::move(topic);
        return {};
    }

    Result<void> CreateInstance(const TopicInstance& instance, bool) override {
        if (instance.TopicName() != topic_) {
            return MakeError(ApiErrorCode::InvalidArgument, "instance of another topic");
        }
        return {};
    }

    // Each item is flushed before the result is given, so that a full disk
    // fails the item that did not fit instead of a later close.
    Result<void> WriteData(const TopicData& data,
                           std::optional<std::chrono::system_clock::time_point>) override {
        std::lock_guard lock(mutex_);
        std::ofstream out(topic_dir() + "/" + topic_ + ".jsonl", std::ios::app);
        out << data.Json() << '\n' << std::flush;
        if (!out) {
            return MakeError(ApiErrorCode::IoError, "cannot append to " + topic_ + ".jsonl");
        }
        return {};
    }

private:
    std::string topic_;
    std::mutex mutex_;
};

class DevClient : public Client {
public:
    Result<void> Connect() override {
        mkdir(topic_dir().c_str(), 0755);
        if (!exists(topic_dir())) {
            return MakeError(ApiErrorCode::IoError, "cannot create " + topic_dir());
        }
        return {};
    }

    Result<Topic> GetTopic(const std::string& name) override {
        if (!exists(definition_path(name))) {
            return MakeError(ApiErrorCode::NotFound, "Topic '" + name + "' does not exist");
        }
        return Topic(name);
    }

    Result<Topic> CreateTopic(const std::string& definition) override {
        nlohmann::json parsed = nlohmann::json::parse(definition, nullptr, false);
        if (parsed.is_discarded() || !parsed.contains("topic_name")) {
            return MakeError(ApiErrorCode::InvalidArgument, "invalid topic definition");
        }
        std::string name = parsed["topic_name"].get<std::string>();
        std::ofstream out(definition_path(name));
        out << definition << std::flush;
        if (!out) {
            return MakeError(ApiErrorCode::IoError, "cannot write the definition of " + name);
        }
        return Topic(name);
    }

    Result<std::unique_ptr<TopicDataWriter>> CreateTopicDataWriter(const std::string&) override {
        return std::make_unique<DevWriter>();
    }
};

}  // namespace

std::unique_ptr<Client> Client::Create(const std::string& name, const ClientOptions&) {
#ifdef VARRO_WITH_MQTT
    if (const char* url = getenv("VARRO_MQTT_URL"); url && *url) {
        return create_mqtt_client(name, url);
    }
#else
    (void)name;
#endif
    return std::make_unique<DevClient>();
}

Result<TopicData> TopicData::FromJson(const std::string& json) {
    if (!nlohmann::json::accept(json)) {
        return MakeError(ApiErrorCode::InvalidArgument, "invalid JSON");
    }
    return TopicData(json);
}

}  // namespace tessel_os_varro
