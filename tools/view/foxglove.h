#pragma once

// The server side of the Foxglove WebSocket protocol, version 1
// ("foxglove.websocket.v1"): the messages a server sends, and one client's
// requests. It knows nothing of sockets: the server hands it each client's
// text frames and sends what it returns.

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

enum foxglove_status_level_t { FOXGLOVE_INFO = 0, FOXGLOVE_WARNING = 1, FOXGLOVE_ERROR = 2 };

struct foxglove_channel_t {
    uint32_t id = 0;
    std::string topic;
    std::string encoding;  // of the messages: "protobuf", "json"
    std::string schema_name;
    std::string schema;           // base64 for protobuf, the text otherwise
    std::string schema_encoding;  // "protobuf", "jsonschema"
};

// Protobuf schemas travel in base64.
std::string foxglove_base64(std::string_view bytes);
std::string foxglove_server_info(const std::string& name);
std::string foxglove_advertise(const std::vector<foxglove_channel_t>& channels);
std::string foxglove_status(foxglove_status_level_t level, const std::string& message);
// A binary message-data frame: opcode 1, the subscription id, the time
// stamp in nanoseconds, the payload.
std::string foxglove_message_data(uint32_t subscription, uint64_t timestamp_ns,
                                  std::string_view payload);

// One client's subscriptions, as its "subscribe" and "unsubscribe" requests
// leave them: at most one per channel.
class FoxgloveSession {
public:
    static constexpr size_t MAX_SUBSCRIPTIONS = 64;

    // Applies a text frame; returns the one status message that answers
    // what was wrong with it, however many ids it names (none when all was
    // right).
    std::optional<std::string> handleText(std::string_view text,
                                          const std::set<uint32_t>& channels);
    // The client's subscription ids for `channel`.
    std::vector<uint32_t> subscriptionsOf(uint32_t channel) const;
    bool subscribed(uint32_t channel) const { return !subscriptionsOf(channel).empty(); }
    bool empty() const { return subscriptions_.empty(); }

private:
    std::map<uint32_t, uint32_t> subscriptions_;  // subscription id -> channel id
};
