#pragma once

#include <radarscene/RadarScene.h>

#include <cstdint>
#include <map>
#include <string>

// Analytics documents for broker topics, built from one frame. Objects are
// filtered with `raw_mask` as the scenes of a non-raw subscriber are. Every
// object becomes one observation (ZRF) or detection (ZRF v1):
//   track id        <- FrameObject::id, as text
//   bounding_box    <- the box as left = x, top = y + height, right = x + width, bottom = y
//   class           <- the most confident classification, named through `classes`
//                      (class id -> name); names that are not an object class type
//                      become "ObjectClass"
//   world_position  <- position: ZRF {x, y, z}; ZRF v1 {distance = x, azimuth = y,
//                      elevation = z}
//   world_velocity  <- velocity3d {x, y, z}, else velocity {x, y}
//   velocity (ZRF)  <- velocity {x, y}
//   geoposition     <- the stored geoposition, or the projection while the device
//                      position is valid (without elevation, which the device
//                      does not know)
// A frame carries no track history, images or track events, so "operations" and
// "consolidated.tracks" are empty and "image", "image_id" and "track_events" absent.
// Timestamps are the frame time on the wall clock, formatted "%FT%T" in UTC.

void convert_frame_to_zrf(std::string& out, const RadarScene::Frame& frame,
                          const std::map<int32_t, std::string>& classes, unsigned long raw_mask);

void convert_frame_to_zrf_v1(std::string& out, const RadarScene::Frame& frame, int channel_id,
                             const std::map<int32_t, std::string>& classes, unsigned long raw_mask);

enum class ObjectClassType : int32_t {
    Bike,
    Bus,
    Car,
    Head,
    Human,
    LicensePlate,
    ObjectClass,
    Truck,
    Vehicle,
};

// Text of an object class type; throws std::runtime_error for other values.
std::string to_string(ObjectClassType type);
ObjectClassType object_class_type_from_name(const std::string& name);

// The steady-clock nanoseconds `time` as wall-clock text, "%FT%T" in UTC.
std::string frame_wall_time(uint64_t time);
