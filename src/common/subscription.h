#pragma once

#include <cstdint>

// The data format of a subscriber's stream. Length-prefixed protobuf
// RadarScene.Scene records are the only one.
enum scene_format_t : int32_t {
    SCENE_FORMAT_PROTO_1 = 3,
};

// What a subscriber asked for: the five booleans of SerializeFrameOptions,
// in their order, then the stream format.
struct subscription_options_t {
    bool bounding_box = false;
    bool polygon = false;
    bool velocity = false;
    bool geolocation = false;
    bool raw = false;
    scene_format_t format = SCENE_FORMAT_PROTO_1;
};
