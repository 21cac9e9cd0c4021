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

// At least the size of all of an object's parts together, whatever it has:
// every part at its largest, with tags, five-byte lengths and varints. A
// quick measure of what copying the object costs.
inline size_t object_size_bound(const RadarScene::FrameObject& o) {
    constexpr size_t FIXED = 160, PER_LABEL = 13, PER_POINT = 12, PER_ELEMENT = 4;
    return FIXED + PER_LABEL * o.classifications.size() + PER_POINT * o.polygon.size() +
           PER_ELEMENT * o.covariance.size();
}

// At least the size of the object's parts in `parts` (one bit per
// object_part_t), counting only the members the object has, each at its
// largest: within about twice what they take, so that room reserved by it
// stays near the scene's size.
inline size_t object_parts_bound(const RadarScene::FrameObject& o, unsigned parts) {
    auto in = [parts](object_part_t part) { return (parts >> part & 1u) != 0; };
    // Largest sizes with tags: a varint field, a float field, a length, a
    // message of two or three floats, a label, a vertex, a geoposition.
    constexpr size_t VARINT = 6, FLOAT = 5, LENGTH = 6, FLOATS = 17, LABEL = 13, POINT = 12,
                     GEO = 35;
    size_t bound = 0;
    if (in(OBJECT_PART_HEAD)) {
        bound += VARINT + (o.has_confidence() ? FLOAT : 0) +
                 (o.has_classifications() ? LENGTH + LABEL * o.classifications.size() : 0);
    }
    if (in(OBJECT_PART_BOUNDING_BOX) && o.has_bounding_box()) {
        bound += 2 + 4 * FLOAT;
    }
    if (in(OBJECT_PART_POLYGON) && o.has_polygon()) {
        bound += LENGTH + POINT * o.polygon.size();
    }
    if (in(OBJECT_PART_VELOCITY) && (o.has_velocity() || o.has_velocity3d())) {
        bound += FLOATS;
    }
    if (in(OBJECT_PART_BODY)) {
        bound += (o.has_position() ? FLOATS : 0) + (o.has_area() ? FLOAT : 0) +
                 (o.has_covariance() ? 2 * LENGTH + sizeof(float) * o.covariance.size() : 0);
    }
    if (in(OBJECT_PART_VELOCITY3D) && o.has_velocity3d()) {
        bound += FLOATS;
    }
    if (in(OBJECT_PART_GEOPOSITION) && (o.has_geoposition() || o.has_position())) {
        bound += GEO;
    }
    return bound;
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
