// Scenes that a stream's scene times show to be missing: a gap of several periods between two
// scenes counts the scenes that would have filled it.
#pragma once

#include <cstdint>
#include <string_view>

struct scene_gaps_t {
    uint64_t last_time = 0;  // 0: no scene yet, or the stream started again
    double period = 0;       // smoothed interval between scenes, in the scenes' nanoseconds
    uint64_t missing = 0;
};

// Counts the scene with time stamp `time` (0 when it carries none, which is not counted).
void scene_gaps_add(scene_gaps_t& gaps, uint64_t time);
// A new subscription: the time between two providers is not a gap; the period stays.
void scene_gaps_restart(scene_gaps_t& gaps);
// The `time` field of RadarScene.Scene bytes, read from the wire without decoding the rest;
// 0 when it has none or the bytes end first.
uint64_t scene_time(std::string_view scene);
