#include "varro_fake.h"

#include <map>
#include <mutex>
#include <set>

using namespace tessel_os_varro;

namespace {

struct failure {
    ApiErrorCode code;
    std::string message;
    int times;
};

std::mutex mutex;
std::vector<std::string> recorded;
std::vector<varro_fake::written_item> items;
std::map<std::string, failure> failures;
std::set<std::string> topics;

// Records the call and returns the failure planned for it, if any.
std::optional<Error<ApiErrorCode>> record(const std::string& operation, const std::string& call) {
    std::lock_guard lock(mutex);
    recorded.push_back(call);
    auto it = failures.find(operation);
    if (it == failures.end()) {
        return std::nullopt;
    }
    Error<ApiErrorCode> error{it->second.code, it->second.message};
    if (--it->second.times == 0) {
        failures.erase(it);
    }
    return error;
}

class FakeWriter : public TopicDataWriter {
public:
    explicit FakeWriter(std::string name) : name_(std::move(name)) {}

    Result<void> Initialize(std::string topic) override {
        if (auto e = record("Initialize", "Initialize(" + name_ + "," + topic + ")")) {
            return std::unexpected(*e);
        }
        topic_ = topic;
        return {};
    }

    Result<void> CreateInstance(const TopicInstance& instance, bool replace) override {
        std::string call = "CreateInstance(" + instance.TopicName() + "," + instance.Key() + "," +
                           (instance.Label() ? *instance.Label() : "-") + "," +
                           (replace ? "true" : "false") + ")";
        if (auto e = record("CreateInstance", call)) {
            return std::unexpected(*e);
        }
        return {};
    }

    Result<void> WriteData(const TopicData& data,
                           std::optional<std::chrono::system_clock::time_point> time) override {
        std::string call = "WriteData(" + topic_ + "," + (time ? "time" : "-") + ")";
        if (auto e = record("WriteData", call)) {
            return std::unexpected(*e);
        }
        std::lock_guard lock(mutex);
        items.push_back({topic_, data.Json()});
        return {};
    }

private:
    std::string name_;
    std::string topic_;
};

class FakeClient : public Client {
public:
    Result<void> Connect() override {
        if (auto e = record("Connect", "Connect()")) {
            return std::unexpected(*e);
        }
        return {};
    }

    Result<Topic> GetTopic(const std::string& name) override {
        if (auto e = record("GetTopic", "GetTopic(" + name + ")")) {
            return std::unexpected(*e);
        }
        std::lock_guard lock(mutex);
        if (!topics.count(name)) {
            return MakeError(ApiErrorCode::NotFound, "no such topic");
        }
        return Topic(name);
    }

    Result<Topic> CreateTopic(const std::string& definition) override {
        if (auto e = record("CreateTopic", "CreateTopic(" + definition + ")")) {
            return std::unexpected(*e);
        }
        return Topic("created");
    }

    Result<std::unique_ptr<TopicDataWriter>> CreateTopicDataWriter(
        const std::string& name) override {
        if (auto e = record("CreateTopicDataWriter", "CreateTopicDataWriter(" + name + ")")) {
            return std::unexpected(*e);
        }
        return std::make_unique<FakeWriter>(name);
    }
};

}  // namespace

namespace tessel_os_varro {

std::unique_ptr<Client> Client::Create(const std::string& name, const ClientOptions& options) {
    std::string call = "Create(" + name + "," + std::to_string(options.protocol_version) + "," +
                       std::to_string(options.priority) + "," + std::to_string(options.flags) + ")";
    if (record("Create", call)) {
        return nullptr;
    }
    return std::make_unique<FakeClient>();
}

Result<TopicData> TopicData::FromJson(const std::string& json) {
    if (auto e = record("FromJson", "FromJson(" + json + ")")) {
        return std::unexpected(*e);
    }
    return TopicData(json);
}

}  // namespace tessel_os_varro

namespace varro_fake {

void reset() {
    std::lock_guard lock(mutex);
    recorded.clear();
    items.clear();
    failures.clear();
    topics.clear();
}

void fail(const std::string& operation, ApiErrorCode code, const std::string& message, int times) {
    std::lock_guard lock(mutex);
    failures[operation] = {code, message, times};
}

void add_existing_topic(const std::string& name) {
    std::lock_guard lock(mutex);
    topics.insert(name);
}

std::vector<std::string> calls() {
    std::lock_guard lock(mutex);
    return recorded;
}

std::vector<written_item> written() {
    std::lock_guard lock(mutex);
    return items;
}

}  // namespace varro_fake
