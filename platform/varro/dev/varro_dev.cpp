// Development stand-in for the device's broker client: topics live as files
// in a directory that a developer can watch. Each topic "T" has its
// definition in "T.topic.json" and its data items, one JSON document a line,
// in "T.jsonl". The directory is $VARRO_DEV_DIR, or /tmp/varro-dev-<uid>, so
// that producers of different users do not share one. A topic's items take
// at most $VARRO_DEV_MAX_BYTES (default 64 MiB): when "T.jsonl" reaches half
// of it, it becomes "T.jsonl.1", replacing the older half. Built with MQTT
// support, a broker named by $VARRO_MQTT_URL is used instead.

#include <tessel_os_varro/varro.h>
#ifdef VARRO_WITH_MQTT
#include "varro_mqtt.h"
#endif

#include <nlohmann/json.hpp>

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <mutex>

namespace tessel_os_varro {
namespace {

std::string topic_dir() {
    const char* dir = getenv("VARRO_DEV_DIR");
    return dir && *dir ? dir : "/tmp/varro-dev-" + std::to_string(getuid());
}

uint64_t max_topic_bytes() {
    const char* text = getenv("VARRO_DEV_MAX_BYTES");
    char* end = nullptr;
    unsigned long long value = text ? strtoull(text, &end, 10) : 0;
    return text && *text && !*end && value > 0 ? value : 64ull << 20;
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
        std::string path = topic_dir() + "/" + topic_ + ".jsonl";
        struct stat st;
        if (stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) &&
            static_cast<uint64_t>(st.st_size) + data.Json().size() + 1 > max_topic_bytes() / 2) {
            rename(path.c_str(), (path + ".1").c_str());
        }
        std::ofstream out(path, std::ios::app);
        out << data.Json() << '\n' << std::flush;
        return report(out ? 0 : (errno ? errno : EIO), path);
    }

private:
    // One warning when writing starts to fail and one line when it works
    // again, instead of one per item.
    Result<void> report(int error, const std::string& path) {
        if (error && !failing_) {
            fprintf(stderr, "<4>varro-dev: cannot append to %s: %s; items are dropped\n",
                    path.c_str(), strerror(error));
        } else if (!error && failing_) {
            fprintf(stderr, "<6>varro-dev: writing to %s again\n", path.c_str());
        }
        failing_ = error != 0;
        if (error) {
            return MakeError(ApiErrorCode::IoError, "cannot append to " + topic_ + ".jsonl");
        }
        return {};
    }

    std::string topic_;
    std::mutex mutex_;
    bool failing_ = false;
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
