#pragma once

// The device's message-broker client library, as radarscene uses it.

#include <chrono>
#include <cstdint>
#include <expected>
#include <memory>
#include <optional>
#include <string>

#pragma GCC visibility push(default)

namespace tessel_os_varro {

enum class ApiErrorCode : int32_t {
    Unknown = 1,
    InvalidArgument = 2,
    NotConnected = 3,
    AlreadyExists = 4,
    IoError = 5,
    Timeout = 6,
    PermissionDenied = 7,
    NotFound = 8,
};

template <typename Code>
struct Error {
    Code code;
    std::string message;
};

template <typename T>
using Result = std::expected<T, Error<ApiErrorCode>>;

inline std::unexpected<Error<ApiErrorCode>> MakeError(ApiErrorCode code, std::string message) {
    return std::unexpected(Error<ApiErrorCode>{code, std::move(message)});
}

// Connection settings; their meaning is the broker's.
struct ClientOptions {
    int32_t protocol_version;
    int32_t priority;
    int32_t flags;
};

class Topic {
public:
    explicit Topic(std::string name) : name_(std::move(name)) {}
    const std::string& Name() const { return name_; }

private:
    std::string name_;
};

// One keyed instance of a topic; `key` is a JSON document of the key fields.
class TopicInstance {
public:
    TopicInstance(std::string topic, std::string key, std::optional<std::string> label)
        : topic_(std::move(topic)), key_(std::move(key)), label_(std::move(label)) {}
    const std::string& TopicName() const { return topic_; }
    const std::string& Key() const { return key_; }
    const std::optional<std::string>& Label() const { return label_; }

private:
    std::string topic_;
    std::string key_;
    std::optional<std::string> label_;
};

// One data item, built from its JSON text.
class TopicData {
public:
    static Result<TopicData> FromJson(const std::string& json);
    const std::string& Json() const { return json_; }

private:
    explicit TopicData(std::string json) : json_(std::move(json)) {}
    std::string json_;
};

class TopicDataWriter {
public:
    virtual ~TopicDataWriter() = default;
    virtual Result<void> Initialize(std::string topic) = 0;
    virtual Result<void> CreateInstance(const TopicInstance& instance, bool replace) = 0;
    virtual Result<void> WriteData(const TopicData& data,
                                   std::optional<std::chrono::system_clock::time_point> time) = 0;
};

class Client {
public:
    static std::unique_ptr<Client> Create(const std::string& name, const ClientOptions& options);
    virtual ~Client() = default;
    virtual Result<void> Connect() = 0;
    // Fails with ApiErrorCode::NotFound when the topic does not exist.
    virtual Result<Topic> GetTopic(const std::string& name) = 0;
    virtual Result<Topic> CreateTopic(const std::string& definition) = 0;
    virtual Result<std::unique_ptr<TopicDataWriter>> CreateTopicDataWriter(
        const std::string& writer_name) = 0;
};

}  // namespace tessel_os_varro

#pragma GCC visibility pop
