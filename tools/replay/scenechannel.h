#pragma once

// The channels of an MCAP file that carry RadarScene.Scene messages in
// protobuf, the radar channel each one names, and the one to replay. One
// recorded channel is one radar channel: channels are never merged.

#include "mcapreader.h"

#include <cstdint>
#include <string>
#include <vector>

struct scene_channel_t {
    uint16_t id = 0;
    std::string topic;
    int radar = -1;  // from the topic "/radar/N/scene" or the metadata "channel"; -1: neither
    uint64_t messages = 0;
    uint64_t first = UINT64_MAX;  // the earliest log time of its messages
};

// What the user asked for: a topic, a radar channel, or neither.
struct scene_channel_choice_t {
    std::string topic;  // empty: any
    int radar = -1;     // -1: any
};

// The scene channels that the file defines, by id.
std::vector<scene_channel_t> scene_channels(const McapReader& reader);

// The channel to replay: the one with the topic asked for, else the one of
// the radar channel asked for, else the earliest of those numbered 0 to 15,
// else the earliest unnumbered one; nullptr when the file has no scene
// channel with messages. Throws std::runtime_error, in one line naming
// `file`, when the choice names a channel that the file does not have or
// one that the library cannot serve.
const scene_channel_t* scene_channel_choose(const std::vector<scene_channel_t>& channels,
                                            const scene_channel_choice_t& choice,
                                            const std::string& file);

// "/radar/3/scene (radar channel 3)" and the like, for messages.
std::string scene_channel_describe(const scene_channel_t& channel);
