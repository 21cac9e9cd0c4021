#pragma once

// What the viewer makes of a radar scene for its channels, as JSON: a
// foxglove.SceneUpdate for 3-D panels, a compact view for its own page, and
// the device's position as a foxglove.LocationFix.
//
// Everything is placed in the frame "radar": x along the radar's boresight,
// y to its left, z up, in metres. A scene's polar positions (ground distance,
// bearing clockwise) and its boxes, outlines and velocities (forward, right)
// are turned into that frame.

#include <radarscene/scene.pb.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>

constexpr const char* RADAR_FRAME = "radar";

using class_names_t = std::map<int32_t, std::string>;

// `stamp_ns` is the wall-clock time of reception, which the entities carry.
std::string scene_update_json(const RadarScene::Scene& scene, const class_names_t& names,
                              uint64_t stamp_ns);
// `delay_ms` is the time from the producer's push to reception; beyond a
// minute, or a second before the push, the scene's time is of another clock
// and the delay is unknown (null).
std::string scene_view_json(const RadarScene::Scene& scene, const class_names_t& names,
                            double delay_ms);
// The device's position, while the geolocation service reports it valid.
std::optional<std::string> location_fix_json(uint64_t stamp_ns);

// The JSON schemas that the channels advertise.
extern const char* const SCENE_UPDATE_SCHEMA;
extern const char* const SCENE_VIEW_SCHEMA;
extern const char* const LOCATION_FIX_SCHEMA;
