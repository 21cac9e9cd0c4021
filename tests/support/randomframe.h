#pragma once

#include <radarscene/RadarScene.h>

#include <cstdint>
#include <functional>

// Frames and options drawn from `next`, a source of 32-bit words (random
// numbers in tests, the input in the fuzzer), that reach the corners of the
// wire form: every member present and absent, empty and long polygons,
// class ids at and beyond the filter's bounds, NaN, infinities, -0.0,
// values that narrow to zero or overflow a float, negative failure ids.
using word_source = std::function<uint32_t()>;

RadarScene::Frame random_frame(const word_source& next);
RadarScene::SerializeFrameOptions random_options(const word_source& next);
