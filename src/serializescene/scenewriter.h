#pragma once

#include "geolocation/geoprojection.h"

#include <radarscene/RadarScene.h>

#include <cstdint>
#include <string>

// The scene's wire form written straight from the frame, without building
// the message: the same bytes, field for field, as serializing the message
// that convert_frame_to_scene builds.

// The scene's field of repeated objects.
constexpr uint32_t SCENE_OBJECTS_FIELD = 3;

// The parts of an object's wire form, in field order, that the serialize
// options include or leave out as a whole.
enum object_part_t : unsigned {
    OBJECT_PART_HEAD,          // id, confidence, labels: always
    OBJECT_PART_BOUNDING_BOX,  // option bounding_box
    OBJECT_PART_POLYGON,       // option polygon
    OBJECT_PART_VELOCITY,      // option velocity: field 6
    OBJECT_PART_BODY,          // position, area, covariance: always
    OBJECT_PART_VELOCITY3D,    // option velocity: field 10
    OBJECT_PART_GEOPOSITION,   // option geolocation
    OBJECT_PART_COUNT
};

// The parts that `options` include, one bit per object_part_t.
unsigned object_parts_for(const RadarScene::SerializeFrameOptions& options);

// At least the size of all of an object's parts together: every part at its
// largest, with tags, five-byte lengths and varints.
inline size_t object_size_bound(const RadarScene::FrameObject& o) {
    constexpr size_t FIXED = 160, PER_LABEL = 13, PER_POINT = 12, PER_ELEMENT = 4;
    return FIXED + PER_LABEL * o.classifications.size() + PER_POINT * o.polygon.size() +
           PER_ELEMENT * o.covariance.size();
}

// Puts one part of an object's fields, where `W` is wire_size or
// wire_writer; `geo` is the object's geographic position, if it has one.
template <class W>
void put_object_part(W& w, const RadarScene::FrameObject& object, object_part_t part,
                     const geo_object_position* geo);

// The scene's fields before its objects (the time) and after them.
template <class W>
void put_scene_head(W& w, const RadarScene::Frame& frame);
template <class W>
void put_scene_tail(W& w, const RadarScene::Frame& frame);

// Replaces `out` with the serialized scene of `frame` under `options`.
void write_scene(std::string& out, const RadarScene::Frame& frame,
                 const RadarScene::SerializeFrameOptions& options);
