#include "zrf/zrf.h"

#include "geolocation/geoprojection.h"
#include "serializescene/serializescene.h"

#include <nlohmann/json.hpp>

#include <array>
#include <chrono>
#include <climits>
#include <cstdio>
#include <ctime>
#include <stdexcept>

using nlohmann::json;
using RadarScene::FrameObject;

namespace {

constexpr std::array<const char*, 9> OBJECT_CLASS_TYPE_NAMES = {
    "Bike", "Bus", "Car", "Head", "Human", "LicensePlate", "ObjectClass", "Truck", "Vehicle"};

json bounding_box(const FrameObject::BoundingBox& b) {
    return {{"left", b.x}, {"top", b.y + b.height}, {"right", b.x + b.width}, {"bottom", b.y}};
}

// The classification the object most likely belongs to: the most confident
// one, the first when none carries a confidence.
const RadarScene::Classification* best_classification(const FrameObject& o) {
    if (!o.has_classifications() || o.classifications.empty()) {
        return nullptr;
    }
    const RadarScene::Classification* best = &o.classifications.front();
    for (const auto& c : o.classifications) {
        if (c.confidence.value_or(-1) > best->confidence.value_or(-1)) {
            best = &c;
        }
    }
    return best;
}

std::string class_text(const RadarScene::Classification& c,
                       const std::map<int32_t, std::string>& classes) {
    auto it = classes.find(c.id);
    std::string name = it == classes.end() ? std::string() : it->second;
    return to_string(object_class_type_from_name(name));
}

json class_entry(const RadarScene::Classification& c,
                 const std::map<int32_t, std::string>& classes) {
    json entry = {{"type", class_text(c, classes)}};
    if (c.confidence) {
        entry["score"] = *c.confidence;
    }
    return entry;
}

json world_velocity(const FrameObject& o) {
    if (o.has_velocity3d()) {
        return {{"x", o.velocity3d.vx}, {"y", o.velocity3d.vy}, {"z", o.velocity3d.vz}};
    }
    return {{"x", o.velocity.vx}, {"y", o.velocity.vy}};
}

// A projected position has no known elevation (the device reports none),
// so only a stored geoposition carries one.
void add_geoposition(json& out, const FrameObject& o) {
    if (auto geo = geo_object_query(o, false)) {
        json& g = out["geoposition"] = {{"latitude", geo->latitude}, {"longitude", geo->longitude}};
        if (o.has_geoposition()) {
            g["elevation"] = o.geoposition.elevation;
        }
    }
}

json observation(const FrameObject& o, const std::map<int32_t, std::string>& classes,
                 const std::string& timestamp) {
    json out = {{"track_id", std::to_string(o.id)}, {"timestamp", timestamp}};
    if (o.has_bounding_box()) {
        out["bounding_box"] = bounding_box(o.bounding_box);
    }
    if (const auto* best = best_classification(o)) {
        out["class"] = class_entry(*best, classes);
        json all = json::array();
        for (const auto& c : o.classifications) {
            all.push_back(class_entry(c, classes));
        }
        out["classes"] = all;
    }
    add_geoposition(out, o);
    if (o.has_velocity()) {
        out["velocity"] = {{"x", o.velocity.vx}, {"y", o.velocity.vy}};
    }
    if (o.has_position()) {
        out["world_position"] = {{"x", o.position.x}, {"y", o.position.y}, {"z", o.position.z}};
    }
    if (o.has_velocity() || o.has_velocity3d()) {
        out["world_velocity"] = world_velocity(o);
    }
    return out;
}

json detection(const FrameObject& o, const std::map<int32_t, std::string>& classes) {
    json out = {{"object_track_id", std::to_string(o.id)}};
    if (o.has_bounding_box()) {
        out["bounding_box"] = bounding_box(o.bounding_box);
    }
    if (const auto* best = best_classification(o)) {
        out["class"] = class_text(*best, classes);
    }
    add_geoposition(out, o);
    if (o.has_position()) {
        out["world_position"] = {
            {"distance", o.position.x}, {"azimuth", o.position.y}, {"elevation", o.position.z}};
    }
    if (o.has_velocity() || o.has_velocity3d()) {
        out["world_velocity"] = world_velocity(o);
    }
    return out;
}

template <typename Convert>
json converted_objects(const RadarScene::Frame& frame, unsigned long raw_mask, Convert&& convert) {
    json out = json::array();
    for (const FrameObject& o : frame.objects) {
        if (!frame_object_filtered(o, static_cast<uint32_t>(raw_mask), false)) {
            out.push_back(convert(o));
        }
    }
    return out;
}

}  // namespace

std::string to_string(ObjectClassType type) {
    auto index = static_cast<int32_t>(type);
    if (index < 0 || index >= static_cast<int32_t>(OBJECT_CLASS_TYPE_NAMES.size())) {
        throw std::runtime_error("Unexpected value in enumeration \"ObjectClassType\": " +
                                 std::to_string(index));
    }
    return OBJECT_CLASS_TYPE_NAMES[static_cast<size_t>(index)];
}

ObjectClassType object_class_type_from_name(const std::string& name) {
    for (size_t i = 0; i < OBJECT_CLASS_TYPE_NAMES.size(); ++i) {
        if (name == OBJECT_CLASS_TYPE_NAMES[i]) {
            return static_cast<ObjectClassType>(i);
        }
    }
    return ObjectClassType::ObjectClass;
}

std::string frame_wall_time(uint64_t time) {
    using namespace std::chrono;
    constexpr int64_t NS_PER_SECOND = 1'000'000'000;
    int64_t system_now =
        duration_cast<nanoseconds>(floor<microseconds>(system_clock::now()).time_since_epoch())
            .count();
    auto steady_now = static_cast<uint64_t>(steady_clock::now().time_since_epoch().count());
    // The frame's distance from now, taken modulo 2^64 and then saturated, so
    // that every 64-bit time gives a well-defined date.
    auto offset = static_cast<int64_t>(time - steady_now);
    int64_t wall = 0;
    if (__builtin_add_overflow(system_now, offset, &wall)) {
        wall = offset < 0 ? INT64_MIN : INT64_MAX;
    }
    int64_t fraction = wall % NS_PER_SECOND;
    if (fraction < 0) {
        fraction += NS_PER_SECOND;
    }
    std::time_t t = static_cast<std::time_t>((wall - fraction) / NS_PER_SECOND);
    std::tm utc;
    gmtime_r(&t, &utc);
    char text[64];
    size_t n = std::strftime(text, sizeof(text), "%FT%T", &utc);
    snprintf(text + n, sizeof(text) - n, ".%09lld", static_cast<long long>(fraction));
    return text;
}

void convert_frame_to_zrf(std::string& out, const RadarScene::Frame& frame,
                          const std::map<int32_t, std::string>& classes, unsigned long raw_mask) {
    std::string timestamp = frame_wall_time(frame.time);
    json document = {{"consolidated", {{"tracks", json::array()}}},
                     {"frame",
                      {{"observations", converted_objects(frame, raw_mask,
                                                          [&](const FrameObject& o) {
                                                              return observation(o, classes,
                                                                                 timestamp);
                                                          })},
                       {"operations", json::array()},
                       {"timestamp", timestamp}}}};
    out = document.dump();
}

void convert_frame_to_zrf_v1(std::string& out, const RadarScene::Frame& frame, int channel_id,
                             const std::map<int32_t, std::string>& classes,
                             unsigned long raw_mask) {
    json document = {{"channel_id", channel_id}, {"timestamp", frame_wall_time(frame.time)}};
    json detections = converted_objects(
        frame, raw_mask, [&](const FrameObject& o) { return detection(o, classes); });
    if (!detections.empty()) {
        document["detections"] = detections;
    }
    out = document.dump();
}
