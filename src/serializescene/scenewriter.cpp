#include "serializescene/scenewriter.h"

#include "common/rs_assert.h"
#include "serializescene/serializescene.h"
#include "serializescene/wirewriter.h"

#include <climits>
#include <optional>
#include <vector>

using namespace RadarScene;

namespace {

// Field numbers of the scene's messages.
enum scene_field : uint32_t {
    SCENE_TIME = 1,
    SCENE_OBJECTS = SCENE_OBJECTS_FIELD,
    SCENE_STATUS = 5,
    SCENE_ORIENTATION = 6,
    SCENE_PARAM_CHANGED = 7
};
enum object_field : uint32_t {
    OBJECT_ID = 1,
    OBJECT_CONFIDENCE,
    OBJECT_LABELS,
    OBJECT_BOUNDING_BOX,
    OBJECT_POLYGON,
    OBJECT_VELOCITY,
    OBJECT_POSITION,
    OBJECT_AREA,
    OBJECT_COVARIANCE,
    OBJECT_VELOCITY3D,
    OBJECT_GEOPOSITION
};

constexpr uint32_t FILTERED = UINT32_MAX;

float narrow(double value) {
    return static_cast<float>(value);
}

// Velocity and Point: x/vx and y/vy plain, z/vz in a oneof.
template <class W>
void put_xy(W& w, double x, double y) {
    put_plain_float(w, 1, narrow(x));
    put_plain_float(w, 2, narrow(y));
}

template <class W>
void put_xyz(W& w, double x, double y, double z) {
    put_xy(w, x, y);
    put_float(w, 3, narrow(z));
}

template <class W>
void put_labels(W& w, const FrameObject& o) {
    put_message(w, OBJECT_LABELS, [&](auto& labels) {
        for (const Classification& c : o.classifications) {
            put_small_message(labels, 1, [&](auto& label) {
                put_uint(label, 1, static_cast<uint32_t>(c.id));
                if (c.confidence) {
                    put_float(label, 2, narrow(*c.confidence));
                }
            });
        }
    });
}

template <class W>
void put_head(W& w, const FrameObject& o) {
    put_uint(w, OBJECT_ID, static_cast<uint32_t>(o.id));
    if (o.has_confidence()) {
        put_float(w, OBJECT_CONFIDENCE, narrow(o.confidence));
    }
    if (o.has_classifications()) {
        put_labels(w, o);
    }
}

template <class W>
void put_bounding_box(W& w, const FrameObject& o) {
    if (!o.has_bounding_box()) {
        return;
    }
    const FrameObject::BoundingBox& b = o.bounding_box;
    put_small_message(w, OBJECT_BOUNDING_BOX, [&](auto& box) {
        put_plain_float(box, 1, narrow(b.x));
        put_plain_float(box, 2, narrow(b.y + b.height));
        put_plain_float(box, 3, narrow(b.x + b.width));
        put_plain_float(box, 4, narrow(b.y));
    });
}

template <class W>
void put_polygon(W& w, const FrameObject& o) {
    if (!o.has_polygon()) {
        return;
    }
    put_message(w, OBJECT_POLYGON, [&](auto& polygon) {
        for (const auto& vertex : o.polygon) {
            put_small_message(polygon, 1,
                              [&](auto& point) { put_xy(point, vertex[0], vertex[1]); });
        }
    });
}

// Field 6 carries the 2-D velocity, or the 3-D one when that is all the
// object has, so that readers that only know field 6 still get the motion.
template <class W>
void put_velocity(W& w, const FrameObject& o) {
    if (o.has_velocity()) {
        put_message(w, OBJECT_VELOCITY, [&](auto& v) { put_xy(v, o.velocity.vx, o.velocity.vy); });
    } else if (o.has_velocity3d()) {
        const FrameObject::Velocity3d& v3 = o.velocity3d;
        put_small_message(w, OBJECT_VELOCITY, [&](auto& v) { put_xyz(v, v3.vx, v3.vy, v3.vz); });
    }
}

template <class W>
void put_body(W& w, const FrameObject& o) {
    if (o.has_position()) {
        const FrameObject::Position& p = o.position;
        put_small_message(w, OBJECT_POSITION, [&](auto& point) { put_xyz(point, p.x, p.y, p.z); });
    }
    if (o.has_area()) {
        put_float(w, OBJECT_AREA, narrow(o.area));
    }
    if (o.has_covariance()) {
        put_message(w, OBJECT_COVARIANCE, [&](auto& covariance) {
            if (o.covariance.empty()) {
                return;
            }
            // A packed repeated float: one length, then the values.
            put_tag(covariance, 1, WIRE_LENGTH);
            put_varint(covariance, o.covariance.size() * sizeof(float));
            for (double element : o.covariance) {
                float value = narrow(element);
                put_raw(covariance, &value, sizeof(value));
            }
        });
    }
}

template <class W>
void put_velocity3d(W& w, const FrameObject& o) {
    if (o.has_velocity() && o.has_velocity3d()) {
        const FrameObject::Velocity3d& v3 = o.velocity3d;
        put_small_message(w, OBJECT_VELOCITY3D, [&](auto& v) { put_xyz(v, v3.vx, v3.vy, v3.vz); });
    }
}

template <class W>
void put_geoposition(W& w, const geo_object_position* geo) {
    if (!geo) {
        return;
    }
    put_small_message(w, OBJECT_GEOPOSITION, [&](auto& g) {
        put_plain_float(g, 1, narrow(geo->elevation.value_or(0)));
        put_plain_float(g, 2, narrow(geo->latitude));
        put_plain_float(g, 3, narrow(geo->longitude));
        put_double(g, 4, geo->latitude);
        put_double(g, 5, geo->longitude);
    });
}

template <class W>
void put_object(W& w, const FrameObject& o, unsigned parts, const geo_object_position* geo) {
    for (unsigned part = 0; part < OBJECT_PART_COUNT; ++part) {
        if (parts & (1u << part)) {
            put_object_part(w, o, static_cast<object_part_t>(part), geo);
        }
    }
}

}  // namespace

unsigned object_parts_for(const SerializeFrameOptions& options) {
    unsigned parts = 1u << OBJECT_PART_HEAD | 1u << OBJECT_PART_BODY;
    if (options.bounding_box) {
        parts |= 1u << OBJECT_PART_BOUNDING_BOX;
    }
    if (options.polygon) {
        parts |= 1u << OBJECT_PART_POLYGON;
    }
    if (options.velocity) {
        parts |= 1u << OBJECT_PART_VELOCITY | 1u << OBJECT_PART_VELOCITY3D;
    }
    if (options.geolocation) {
        parts |= 1u << OBJECT_PART_GEOPOSITION;
    }
    return parts;
}

template <class W>
void put_object_part(W& w, const FrameObject& o, object_part_t part,
                     const geo_object_position* geo) {
    switch (part) {
        case OBJECT_PART_HEAD:
            put_head(w, o);
            break;
        case OBJECT_PART_BOUNDING_BOX:
            put_bounding_box(w, o);
            break;
        case OBJECT_PART_POLYGON:
            put_polygon(w, o);
            break;
        case OBJECT_PART_VELOCITY:
            put_velocity(w, o);
            break;
        case OBJECT_PART_BODY:
            put_body(w, o);
            break;
        case OBJECT_PART_VELOCITY3D:
            put_velocity3d(w, o);
            break;
        case OBJECT_PART_GEOPOSITION:
            put_geoposition(w, geo);
            break;
        case OBJECT_PART_COUNT:
            RS_ASSERT(!"not a part");
    }
}

template <class W>
void put_scene_head(W& w, const Frame& frame) {
    put_uint(w, SCENE_TIME, frame.time);
}

template <class W>
void put_scene_tail(W& w, const Frame& frame) {
    if (frame.status) {
        const RadarStatus& status = *frame.status;
        put_message(w, SCENE_STATUS, [&](auto& s) {
            put_plain_bool(s, 1, status.enabled);
            put_plain_bool(s, 2, status.prerecorded);
            for (const RadarFailure& f : status.failures) {
                put_message(s, 3, [&](auto& failure) {
                    put_plain_string(failure, 1, f.name);
                    put_plain_int32(failure, 2, f.id);
                    put_plain_bool(failure, 3, f.state);
                });
            }
        });
    }
    if (frame.orientation) {
        put_message(w, SCENE_ORIENTATION, [&](auto& orientation) {
            put_plain_double(orientation, 1, frame.orientation->tilt);
            put_plain_double(orientation, 2, frame.orientation->roll);
        });
    }
    if (frame.param_changed) {
        put_string(w, SCENE_PARAM_CHANGED, *frame.param_changed);
    }
}

template void put_object_part(wire_size&, const FrameObject&, object_part_t,
                              const geo_object_position*);
template void put_object_part(wire_writer&, const FrameObject&, object_part_t,
                              const geo_object_position*);
template void put_scene_head(wire_size&, const Frame&);
template void put_scene_head(wire_writer&, const Frame&);
template void put_scene_tail(wire_size&, const Frame&);
template void put_scene_tail(wire_writer&, const Frame&);

void write_scene(std::string& out, const Frame& frame, const SerializeFrameOptions& options) {
    unsigned parts = object_parts_for(options);
    // Sizes first: each object's length prefix needs its size, and so does
    // the buffer, which is then written in one pass.
    std::vector<uint32_t> sizes(frame.objects.size());
    std::vector<std::optional<geo_object_position>> geos(options.geolocation ? sizes.size() : 0);
    auto geo_of = [&](size_t i) { return geos.empty() || !geos[i] ? nullptr : &*geos[i]; };
    wire_size total;
    put_scene_head(total, frame);
    for (size_t i = 0; i < sizes.size(); ++i) {
        const FrameObject& o = frame.objects[i];
        RS_ASSERT(o.id >= 0);
        if (frame_object_filtered(o, options.filtered_classes, options.raw)) {
            sizes[i] = FILTERED;
            continue;
        }
        if (!geos.empty()) {
            geos[i] = geo_object_query(o, false);
        }
        wire_size object;
        put_object(object, o, parts, geo_of(i));
        RS_ASSERT(object.bytes < FILTERED);
        sizes[i] = static_cast<uint32_t>(object.bytes);
        put_tag(total, SCENE_OBJECTS, WIRE_LENGTH);
        put_varint(total, object.bytes);
        total.bytes += object.bytes;
    }
    put_scene_tail(total, frame);

    // The size handed to the callback is not the one asked for in every
    // libstdc++ (it can be the capacity), so the total is used instead.
    out.resize_and_overwrite(total.bytes, [&](char* data, size_t) {
        wire_writer w{data};
        put_scene_head(w, frame);
        for (size_t i = 0; i < sizes.size(); ++i) {
            if (sizes[i] == FILTERED) {
                continue;
            }
            put_tag(w, SCENE_OBJECTS, WIRE_LENGTH);
            put_varint(w, sizes[i]);
            put_object(w, frame.objects[i], parts, geo_of(i));
        }
        put_scene_tail(w, frame);
        RS_ASSERT(w.at == data + total.bytes && "Scene size and scene bytes disagree");
        return total.bytes;
    });
}
