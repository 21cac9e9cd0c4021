// Tells the scene channels of an MCAP file apart and chooses one.

#include "scenechannel.h"

#include <algorithm>
#include <stdexcept>

namespace {

// The library's channels.
constexpr int MAX_RADAR_CHANNEL = 15;

// A channel number written in decimal without sign or leading zeros; -1
// for anything else.
int channel_number(std::string_view text) {
    if (text.empty() || text.size() > 9 || (text.size() > 1 && text[0] == '0') ||
        !std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; })) {
        return -1;
    }
    return std::stoi(std::string(text));
}

int radar_channel(const mcap_channel_t& c) {
    std::string_view topic = c.topic;
    constexpr std::string_view prefix = "/radar/", suffix = "/scene";
    if (topic.size() > prefix.size() + suffix.size() && topic.starts_with(prefix) &&
        topic.ends_with(suffix)) {
        int n = channel_number(
            topic.substr(prefix.size(), topic.size() - prefix.size() - suffix.size()));
        if (n >= 0) {
            return n;
        }
    }
    auto it = c.metadata.find("channel");
    return it != c.metadata.end() ? channel_number(it->second) : -1;
}

std::string listing(const std::vector<scene_channel_t>& channels) {
    std::string out;
    for (const scene_channel_t& c : channels) {
        if (out.size() > 200) {
            return out + ", ...";
        }
        out += (out.empty() ? "" : ", ") + scene_channel_describe(c);
    }
    return out.empty() ? "it has none" : "it has " + out;
}

bool earlier(const scene_channel_t* a, const scene_channel_t& b) {
    return !a || b.first < a->first;
}

}  // namespace

std::vector<scene_channel_t> scene_channels(const McapReader& reader) {
    std::vector<scene_channel_t> out;
    for (const auto& [id, c] : reader.channels()) {
        auto schema = reader.schemas().find(c.schema_id);
        if (schema == reader.schemas().end() || schema->second.name != "RadarScene.Scene" ||
            schema->second.encoding != "protobuf" || c.message_encoding != "protobuf") {
            continue;
        }
        scene_channel_t s{id, c.topic, radar_channel(c)};
        auto count = reader.counts().find(id);
        if (count != reader.counts().end()) {
            s.messages = count->second.messages;
            s.first = count->second.first;
        }
        out.push_back(std::move(s));
    }
    return out;
}

std::string scene_channel_describe(const scene_channel_t& c) {
    return "'" + c.topic + "' (" +
           (c.radar < 0 ? std::string("no radar channel")
                        : "radar channel " + std::to_string(c.radar)) +
           ")";
}

const scene_channel_t* scene_channel_choose(const std::vector<scene_channel_t>& channels,
                                            const scene_channel_choice_t& choice,
                                            const std::string& file) {
    const scene_channel_t *chosen = nullptr, *numbered = nullptr, *unnumbered = nullptr,
                          *outside = nullptr;
    for (const scene_channel_t& c : channels) {
        if (!choice.topic.empty()) {
            chosen = !chosen && c.topic == choice.topic ? &c : chosen;
        } else if (choice.radar >= 0) {
            chosen = !chosen && c.radar == choice.radar ? &c : chosen;
        } else if (c.messages == 0) {
            continue;
        } else if (c.radar > MAX_RADAR_CHANNEL) {
            outside = earlier(outside, c) ? &c : outside;
        } else if (c.radar >= 0) {
            numbered = earlier(numbered, c) ? &c : numbered;
        } else {
            unnumbered = earlier(unnumbered, c) ? &c : unnumbered;
        }
    }
    if (!choice.topic.empty() && !chosen) {
        throw std::runtime_error(file + " has no RadarScene.Scene channel with the topic '" +
                                 choice.topic + "' (" + listing(channels) + ")");
    }
    if (choice.topic.empty() && choice.radar >= 0 && !chosen) {
        throw std::runtime_error(file + " has no RadarScene.Scene channel of radar channel " +
                                 std::to_string(choice.radar) + " (" + listing(channels) + ")");
    }
    chosen = chosen ? chosen : numbered ? numbered : outside ? outside : unnumbered;
    if (chosen && chosen->radar > MAX_RADAR_CHANNEL && choice.radar < 0) {
        throw std::runtime_error(file + ": its scene channel " + scene_channel_describe(*chosen) +
                                 " is outside the channels 0 to 15 that the library serves; "
                                 "--topic with --channel N replays it as channel N");
    }
    return chosen;
}
