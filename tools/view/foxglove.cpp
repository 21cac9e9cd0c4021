// The Foxglove WebSocket protocol's messages and one client's requests.
#include "foxglove.h"

#include <nlohmann/json.hpp>

using json = nlohmann::json;

namespace {

// A JSON number that fits a 32-bit unsigned id.
bool is_id(const json& value) {
    return value.is_number_unsigned() && value.get<uint64_t>() <= UINT32_MAX;
}

// Whether `object` has `key`, an id: a const object's operator[] may not be
// asked for a key it lacks.
bool has_id(const json& object, const char* key) {
    auto it = object.find(key);
    return it != object.end() && is_id(*it);
}

// A value a client sent, for a message: containers are not written out, as
// their nesting is the client's to choose.
std::string shown(const json& value) {
    if (!value.is_primitive()) {
        return value.is_array() ? "[...]" : "{...}";
    }
    return value.dump(-1, ' ', false, json::error_handler_t::replace);
}

}  // namespace

std::string foxglove_base64(std::string_view bytes) {
    static const char ALPHABET[] =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    for (size_t i = 0; i < bytes.size(); i += 3) {
        uint32_t n = static_cast<uint8_t>(bytes[i]) << 16;
        size_t left = bytes.size() - i;
        if (left > 1) {
            n |= static_cast<uint8_t>(bytes[i + 1]) << 8;
        }
        if (left > 2) {
            n |= static_cast<uint8_t>(bytes[i + 2]);
        }
        out += ALPHABET[n >> 18];
        out += ALPHABET[(n >> 12) & 63];
        out += left > 1 ? ALPHABET[(n >> 6) & 63] : '=';
        out += left > 2 ? ALPHABET[n & 63] : '=';
    }
    return out;
}

std::string foxglove_server_info(const std::string& name) {
    return json{{"op", "serverInfo"},
                {"name", name},
                {"capabilities", json::array()},
                {"supportedEncodings", json::array()},
                {"metadata", json::object()}}
        .dump();
}

std::string foxglove_advertise(const std::vector<foxglove_channel_t>& channels) {
    json list = json::array();
    for (const foxglove_channel_t& c : channels) {
        list.push_back({{"id", c.id},
                        {"topic", c.topic},
                        {"encoding", c.encoding},
                        {"schemaName", c.schema_name},
                        {"schema", c.schema},
                        {"schemaEncoding", c.schema_encoding}});
    }
    return json{{"op", "advertise"}, {"channels", list}}.dump();
}

std::string foxglove_status(foxglove_status_level_t level, const std::string& message) {
    return json{{"op", "status"}, {"level", level}, {"message", message}}.dump(
        -1, ' ', false, json::error_handler_t::replace);
}

std::string foxglove_message_data(uint32_t subscription, uint64_t timestamp_ns,
                                  std::string_view payload) {
    std::string frame(1 + 4 + 8, '\0');
    frame[0] = 1;
    for (int i = 0; i < 4; ++i) {
        frame[1 + i] = static_cast<char>(subscription >> (8 * i));
    }
    for (int i = 0; i < 8; ++i) {
        frame[5 + i] = static_cast<char>(timestamp_ns >> (8 * i));
    }
    frame.append(payload);
    return frame;
}

std::optional<std::string> FoxgloveSession::handleText(std::string_view text,
                                                       const std::set<uint32_t>& channels) {
    json request = json::parse(text, nullptr, false);
    if (request.is_discarded() || !request.is_object()) {
        return foxglove_status(FOXGLOVE_ERROR, "malformed JSON");
    }
    const json& op = request["op"];
    if (!op.is_string()) {
        return foxglove_status(FOXGLOVE_ERROR, "a request needs an \"op\"");
    }
    // The first problem of a request, cut short, and how many more it had.
    std::string problem;
    size_t more = 0;
    auto note = [&](const std::string& message) {
        problem.empty() ? void(problem = message.substr(0, 200)) : void(++more);
    };
    foxglove_status_level_t level = FOXGLOVE_ERROR;
    if (op == "subscribe" && request["subscriptions"].is_array()) {
        for (const json& s : request["subscriptions"]) {
            if (!s.is_object() || !has_id(s, "id") || !has_id(s, "channelId")) {
                note("a subscription needs an \"id\" and a \"channelId\"");
                continue;
            }
            auto id = s.at("id").get<uint32_t>();
            auto channel = s.at("channelId").get<uint32_t>();
            if (!channels.count(channel)) {
                note("channel " + std::to_string(channel) + " does not exist");
            } else if (subscriptions_.count(id)) {
                note("subscription " + std::to_string(id) + " is already in use");
            } else if (subscribed(channel)) {
                // A second subscription would only send the same messages
                // twice.
                note("channel " + std::to_string(channel) + " is already subscribed");
            } else if (subscriptions_.size() >= MAX_SUBSCRIPTIONS) {
                note("too many subscriptions");
            } else {
                subscriptions_[id] = channel;
            }
        }
    } else if (op == "unsubscribe" && request["subscriptionIds"].is_array()) {
        level = FOXGLOVE_WARNING;
        for (const json& id : request["subscriptionIds"]) {
            if (!is_id(id) || !subscriptions_.erase(id.get<uint32_t>())) {
                note("no subscription " + shown(id));
            }
        }
    } else if (op == "subscribe" || op == "unsubscribe") {
        note("malformed \"" + op.get<std::string>() + "\" request");
    } else {
        note("unsupported operation \"" + op.get<std::string>() + "\"");
    }
    if (problem.empty()) {
        return std::nullopt;
    }
    if (more) {
        problem += " (and " + std::to_string(more) + " more in the same request)";
    }
    return foxglove_status(level, problem);
}

std::vector<uint32_t> FoxgloveSession::subscriptionsOf(uint32_t channel) const {
    std::vector<uint32_t> ids;
    for (const auto& [id, subscribed] : subscriptions_) {
        if (subscribed == channel) {
            ids.push_back(id);
        }
    }
    return ids;
}
