#include "sceneencoding/sceneencoding.h"

#include "common/rs_assert.h"
#include "serializescene/serializescene.h"
#include "serializescene/wirewriter.h"

#include <climits>
#include <cstring>
#include <optional>

using namespace RadarScene;

namespace {

// Storage beyond this and beyond twice what the last frame used is given
// back by scene_encoding_trim.
constexpr size_t KEPT_BYTES = 1 << 20;

// Appends what `put(w)` writes, `size` bytes, to `bytes`, which has room.
template <class Put>
void append(std::string& bytes, size_t size, Put&& put) {
    size_t at = bytes.size();
    RS_ASSERT(at + size <= bytes.capacity());
    bytes.resize_and_overwrite(at + size, [&](char* data, size_t) {
        wire_writer w{data + at};
        put(w);
        RS_ASSERT(w.at == data + at + size && "Part size and part bytes disagree");
        return at + size;
    });
}

uint32_t offset(const std::string& bytes) {
    RS_ASSERT(bytes.size() < UINT32_MAX && "Scene too large");
    return static_cast<uint32_t>(bytes.size());
}

bool included(const scene_encoding_t::object_t& object, const SerializeFrameOptions& options) {
    return options.raw || !object.filtered;
}

// The class filter of a scene that is not raw reads every object's first
// classification, as serializeFrame's does.
void check_class_filter(const scene_encoding_t& encoding, const SerializeFrameOptions& options) {
    RS_ASSERT((options.raw || !encoding.any_unlabelled) &&
              "Classification flag set without classifications");
}

// Room for the tag and length of an object of size bound `bound`.
size_t object_prefix_room(size_t bound) {
    static_assert((SCENE_OBJECTS_FIELD << 3 | WIRE_LENGTH) < 0x80, "a one-byte tag");
    return 1 + varint_size(bound);
}

size_t object_size(const scene_encoding_t::object_t& object, unsigned parts) {
    size_t size = 0;
    for (unsigned part = 0; part < OBJECT_PART_COUNT; ++part) {
        if (parts & (1u << part)) {
            size += object.bounds[part + 1] - object.bounds[part];
        }
    }
    return size;
}

}  // namespace

void scene_encoding_fill(scene_encoding_t& encoding, const Frame& frame, uint32_t filtered_classes,
                         unsigned parts) {
    parts &= (1u << OBJECT_PART_COUNT) - 1;
    encoding.parts = parts;
    encoding.any_filtered = false;
    encoding.any_unlabelled = false;
    std::string& bytes = encoding.bytes;
    wire_size head, tail;
    put_scene_head(head, frame);
    put_scene_tail(tail, frame);
    // Room for the largest the scene can be, taken at once: growing it step
    // by step would copy it and leave the old blocks resident. Each object's
    // bound counts only what it has, so the room stays near the size.
    size_t room = head.bytes + tail.bytes;
    for (const FrameObject& o : frame.objects) {
        size_t bound = object_parts_bound(o, parts);
        room += object_prefix_room(bound) + bound;
    }
    bytes.clear();
    if (bytes.capacity() < room) {
        std::string().swap(bytes);
        bytes.reserve(room);
    }
    append(bytes, head.bytes, [&](wire_writer& w) { put_scene_head(w, frame); });
    encoding.head_end = offset(bytes);
    encoding.objects.resize(frame.objects.size());
    for (size_t i = 0; i < frame.objects.size(); ++i) {
        const FrameObject& o = frame.objects[i];
        RS_ASSERT(o.id >= 0);
        scene_encoding_t::object_t& object = encoding.objects[i];
        bool unlabelled = o.has_classifications() && o.classifications.empty();
        encoding.any_unlabelled |= unlabelled;
        object.filtered = !unlabelled && frame_object_filtered(o, filtered_classes, false);
        encoding.any_filtered |= object.filtered;
        // One query per object, so that its size and its bytes agree even
        // while the device position changes.
        std::optional<geo_object_position> geo;
        if (parts & (1u << OBJECT_PART_GEOPOSITION)) {
            geo = geo_object_query(o, false);
        }
        const geo_object_position* where = geo ? &*geo : nullptr;
        // Written in place into room for the largest the object can be,
        // behind room for its tag and for a length as long as its bound's.
        size_t begin = bytes.size();
        size_t bound = object_parts_bound(o, parts);
        size_t prefix = object_prefix_room(bound);
        RS_ASSERT(begin + prefix + bound < UINT32_MAX && "Scene too large");
        bytes.resize_and_overwrite(begin + prefix + bound, [&](char* data, size_t) {
            char* parts_begin = data + begin + prefix;
            wire_writer w{parts_begin};
            for (unsigned k = 0; k < OBJECT_PART_COUNT; ++k) {
                object.bounds[k] = static_cast<uint32_t>(w.at - data);
                if (parts & (1u << k)) {
                    put_object_part(w, o, static_cast<object_part_t>(k), where);
                }
            }
            object.bounds[OBJECT_PART_COUNT] = static_cast<uint32_t>(w.at - data);
            RS_ASSERT(w.at <= parts_begin + bound && "Object size bound too small");
            // A length shorter than the room left for it moves the parts
            // down, which is rare: the bound is within a small factor of
            // the size.
            size_t size = static_cast<size_t>(w.at - parts_begin);
            size_t gap = prefix - 1 - varint_size(size);
            if (gap) {
                std::memmove(parts_begin - gap, parts_begin, size);
                for (uint32_t& at : object.bounds) {
                    at -= static_cast<uint32_t>(gap);
                }
            }
            wire_writer head{data + begin};
            put_tag(head, SCENE_OBJECTS_FIELD, WIRE_LENGTH);
            put_varint(head, size);
            RS_ASSERT(head.at == parts_begin - gap);
            return begin + prefix - gap + size;
        });
    }
    encoding.tail_begin = offset(bytes);
    append(bytes, tail.bytes, [&](wire_writer& w) { put_scene_tail(w, frame); });
}

bool scene_encoding_is_scene(const scene_encoding_t& encoding,
                             const SerializeFrameOptions& options) {
    check_class_filter(encoding, options);
    return object_parts_for(options) == encoding.parts && (options.raw || !encoding.any_filtered);
}

bool scene_encoding_serves(const scene_encoding_t& encoding, const SerializeFrameOptions& options) {
    return (object_parts_for(options) & ~encoding.parts) == 0;
}

void scene_encoding_assemble(std::string& out, const scene_encoding_t& encoding,
                             const SerializeFrameOptions& options) {
    RS_ASSERT(scene_encoding_serves(encoding, options));
    check_class_filter(encoding, options);
    unsigned parts = object_parts_for(options);
    const char* bytes = encoding.bytes.data();
    size_t tail_size = encoding.bytes.size() - encoding.tail_begin;
    size_t total = encoding.head_end + tail_size;
    for (const scene_encoding_t::object_t& object : encoding.objects) {
        if (included(object, options)) {
            size_t size = object_size(object, parts);
            total += 1 + varint_size(size) + size;
        }
    }
    out.resize_and_overwrite(total, [&](char* data, size_t) {
        wire_writer w{data};
        put_raw(w, bytes, encoding.head_end);
        for (const scene_encoding_t::object_t& object : encoding.objects) {
            if (!included(object, options)) {
                continue;
            }
            put_tag(w, SCENE_OBJECTS_FIELD, WIRE_LENGTH);
            put_varint(w, object_size(object, parts));
            // Adjacent parts are copied together.
            for (unsigned part = 0; part < OBJECT_PART_COUNT;) {
                if (!(parts & (1u << part))) {
                    ++part;
                    continue;
                }
                unsigned end = part + 1;
                while (end < OBJECT_PART_COUNT && parts & (1u << end)) {
                    ++end;
                }
                put_raw(w, bytes + object.bounds[part], object.bounds[end] - object.bounds[part]);
                part = end;
            }
        }
        put_raw(w, bytes + encoding.tail_begin, tail_size);
        RS_ASSERT(w.at == data + total);
        return total;
    });
}

void scene_encoding_trim(scene_encoding_t& encoding) {
    if (encoding.bytes.capacity() > std::max(KEPT_BYTES, 2 * encoding.bytes.size())) {
        encoding.bytes.shrink_to_fit();
    }
    size_t object_bytes = encoding.objects.capacity() * sizeof(scene_encoding_t::object_t);
    if (object_bytes >
        std::max(KEPT_BYTES, 2 * encoding.objects.size() * sizeof(scene_encoding_t::object_t))) {
        encoding.objects.shrink_to_fit();
    }
}
