#include "sceneview.h"

#include <radarscene/RadarScene.h>

#include <nlohmann/json.hpp>

#include <cmath>

using json = nlohmann::json;

namespace {

constexpr double DEG_TO_RAD = 0.017453292519943295;
constexpr double OBJECT_HEIGHT = 1.5;  // boxes have no height of their own

// A colour per class, so that the page and 3-D panels agree.
const double PALETTE[][3] = {{0.90, 0.30, 0.25}, {0.25, 0.55, 0.95}, {0.30, 0.75, 0.35},
                             {0.95, 0.70, 0.20}, {0.65, 0.40, 0.85}, {0.20, 0.75, 0.75}};

struct xy_t {
    double x, y;
};

int class_of(const RadarScene::Object& o) {
    if (!o.has_labels() || o.labels().labels_size() == 0 || !o.labels().labels(0).has_id()) {
        return -1;
    }
    return static_cast<int>(o.labels().labels(0).id());
}

std::string class_name(int id, const class_names_t& names) {
    auto it = names.find(id);
    return it != names.end() ? it->second : id < 0 ? "unclassified" : "class " + std::to_string(id);
}

json color(int class_id, double alpha) {
    const double* c = PALETTE[static_cast<size_t>(class_id + 1) % std::size(PALETTE)];
    return {{"r", c[0]}, {"g", c[1]}, {"b", c[2]}, {"a", alpha}};
}

// (forward, right) to the radar frame.
xy_t from_forward_right(double forward, double right) {
    return {forward, -right};
}

std::optional<xy_t> position_of(const RadarScene::Object& o) {
    if (o.has_position()) {
        double bearing = o.position().y() * DEG_TO_RAD;
        return from_forward_right(o.position().x() * std::cos(bearing),
                                  o.position().x() * std::sin(bearing));
    }
    if (o.has_bounding_box()) {
        const RadarScene::BoundingBox& b = o.bounding_box();
        return from_forward_right((b.left() + b.right()) / 2, (b.top() + b.bottom()) / 2);
    }
    return std::nullopt;
}

const RadarScene::Velocity* velocity_of(const RadarScene::Object& o) {
    return o.has_velocity3d() ? &o.velocity3d() : o.has_velocity() ? &o.velocity() : nullptr;
}

json time_of(uint64_t ns) {
    return {{"sec", ns / 1'000'000'000}, {"nsec", ns % 1'000'000'000}};
}

json vec(double x, double y, double z) {
    return {{"x", x}, {"y", y}, {"z", z}};
}

json pose(double x, double y, double z, double yaw = 0) {
    return {
        {"position", vec(x, y, z)},
        {"orientation", {{"x", 0}, {"y", 0}, {"z", std::sin(yaw / 2)}, {"w", std::cos(yaw / 2)}}}};
}

json entity(const RadarScene::Object& o, const class_names_t& names, uint64_t stamp_ns) {
    int cls = class_of(o);
    std::string name = class_name(cls, names);
    json cubes = json::array(), lines = json::array(), arrows = json::array(),
         texts = json::array();
    std::optional<xy_t> at = position_of(o);
    if (o.has_bounding_box()) {
        const RadarScene::BoundingBox& b = o.bounding_box();
        xy_t center = from_forward_right((b.left() + b.right()) / 2, (b.top() + b.bottom()) / 2);
        cubes.push_back({{"pose", pose(center.x, center.y, OBJECT_HEIGHT / 2)},
                         {"size", vec(std::fabs(b.right() - b.left()),
                                      std::fabs(b.bottom() - b.top()), OBJECT_HEIGHT)},
                         {"color", color(cls, 0.35)}});
    }
    if (o.has_polygon() && o.polygon().points_size() > 1) {
        json points = json::array();
        for (const RadarScene::Point& p : o.polygon().points()) {
            xy_t q = from_forward_right(p.x(), p.y());
            points.push_back(vec(q.x, q.y, 0));
        }
        points.push_back(points[0]);
        lines.push_back({{"type", 0},
                         {"pose", pose(0, 0, 0)},
                         {"thickness", 0.08},
                         {"scale_invariant", false},
                         {"points", points},
                         {"color", color(cls, 1)},
                         {"colors", json::array()},
                         {"indices", json::array()}});
    }
    const RadarScene::Velocity* v = velocity_of(o);
    if (v && at) {
        xy_t d = from_forward_right(v->vx(), v->vy());
        double speed = std::hypot(d.x, d.y);
        arrows.push_back({{"pose", pose(at->x, at->y, 0.1, std::atan2(d.y, d.x))},
                          {"shaft_length", speed},
                          {"shaft_diameter", 0.1},
                          {"head_length", 0.3},
                          {"head_diameter", 0.3},
                          {"color", color(cls, 1)}});
    }
    if (at) {
        texts.push_back({{"pose", pose(at->x, at->y, OBJECT_HEIGHT + 0.5)},
                         {"billboard", true},
                         {"font_size", 14},
                         {"scale_invariant", true},
                         {"color", color(cls, 1)},
                         {"text", name + " #" + std::to_string(o.id())}});
    }
    return {{"timestamp", time_of(stamp_ns)},
            {"frame_id", RADAR_FRAME},
            {"id", "object-" + std::to_string(o.id())},
            {"lifetime", time_of(0)},
            {"frame_locked", false},
            {"metadata", json::array({{{"key", "class"}, {"value", name}}})},
            {"arrows", arrows},
            {"cubes", cubes},
            {"spheres", json::array()},
            {"cylinders", json::array()},
            {"lines", lines},
            {"triangles", json::array()},
            {"texts", texts},
            {"models", json::array()}};
}

}  // namespace

std::string scene_update_json(const RadarScene::Scene& scene, const class_names_t& names,
                              uint64_t stamp_ns) {
    // Every update replaces the whole scene: objects that are gone go.
    json update = {
        {"deletions", json::array({{{"timestamp", time_of(stamp_ns)}, {"type", 1}, {"id", ""}}})},
        {"entities", json::array()}};
    for (const RadarScene::Object& o : scene.objects()) {
        update["entities"].push_back(entity(o, names, stamp_ns));
    }
    return update.dump();
}

std::string scene_view_json(const RadarScene::Scene& scene, const class_names_t& names,
                            double delay_ms) {
    json objects = json::array();
    for (const RadarScene::Object& o : scene.objects()) {
        std::optional<xy_t> at = position_of(o);
        if (!at) {
            continue;
        }
        int cls = class_of(o);
        json object = {{"id", o.id()},
                       {"class", cls},
                       {"name", class_name(cls, names)},
                       {"x", at->x},
                       {"y", at->y}};
        if (o.has_bounding_box()) {
            const RadarScene::BoundingBox& b = o.bounding_box();
            xy_t p = from_forward_right(b.left(), b.top()),
                 q = from_forward_right(b.right(), b.bottom());
            object["box"] = {p.x, p.y, q.x, q.y};
        }
        if (o.has_polygon()) {
            json outline = json::array();
            for (const RadarScene::Point& point : o.polygon().points()) {
                xy_t q = from_forward_right(point.x(), point.y());
                outline.push_back({q.x, q.y});
            }
            object["outline"] = outline;
        }
        if (const RadarScene::Velocity* v = velocity_of(o)) {
            xy_t d = from_forward_right(v->vx(), v->vy());
            object["velocity"] = {d.x, d.y};
        }
        objects.push_back(object);
    }
    // Scene times far off this machine's monotonic clock (a recording of
    // another boot or machine) give no delay.
    bool known = delay_ms > -1e3 && delay_ms < 60e3;
    return json{{"time", scene.time()},
                {"delay_ms", known ? json(delay_ms) : json(nullptr)},
                {"objects", objects}}
        .dump();
}

std::optional<std::string> location_fix_json(uint64_t stamp_ns) {
    // The device stands where an object at no distance would be; a scene
    // gives an object a geographic position only from a valid device
    // position.
    RadarScene::Frame device;
    RadarScene::FrameObject here;
    here.set_position({0, 0, 0});
    device.objects = {here};
    RadarScene::SerializeFrameOptions geolocation;
    geolocation.geolocation = true;
    std::string bytes;
    RadarScene::serializeFrame(bytes, device, geolocation);
    device = RadarScene::deserializeFrame(bytes);
    if (device.objects.empty() || !device.objects[0].has_geoposition()) {
        return std::nullopt;
    }
    const auto& g = device.objects[0].geoposition;
    return json{{"timestamp", time_of(stamp_ns)},
                {"frame_id", RADAR_FRAME},
                {"latitude", g.latitude},
                {"longitude", g.longitude},
                {"altitude", g.elevation},
                {"position_covariance", json::array({0, 0, 0, 0, 0, 0, 0, 0, 0})},
                {"position_covariance_type", 0}}
        .dump();
}

// The schemas below describe the JSON that the functions above write.
const char* const SCENE_UPDATE_SCHEMA = R"json({
  "title": "foxglove.SceneUpdate",
  "description": "Entities to draw in a 3-D scene: every update deletes all earlier entities, then adds one entity per radar object",
  "$defs": {
    "time": {"type": "object", "properties": {"sec": {"type": "integer"}, "nsec": {"type": "integer"}}},
    "vector3": {"type": "object", "properties": {"x": {"type": "number"}, "y": {"type": "number"}, "z": {"type": "number"}}},
    "pose": {"type": "object", "properties": {
      "position": {"$ref": "#/$defs/vector3"},
      "orientation": {"type": "object", "properties": {"x": {"type": "number"}, "y": {"type": "number"}, "z": {"type": "number"}, "w": {"type": "number"}}}}},
    "color": {"type": "object", "properties": {"r": {"type": "number"}, "g": {"type": "number"}, "b": {"type": "number"}, "a": {"type": "number"}}}
  },
  "type": "object",
  "properties": {
    "deletions": {"type": "array", "items": {"type": "object", "properties": {
      "timestamp": {"$ref": "#/$defs/time"}, "type": {"type": "integer", "description": "0: the entity named by id, 1: all entities"}, "id": {"type": "string"}}}},
    "entities": {"type": "array", "items": {"type": "object", "properties": {
      "timestamp": {"$ref": "#/$defs/time"},
      "frame_id": {"type": "string"},
      "id": {"type": "string"},
      "lifetime": {"$ref": "#/$defs/time"},
      "frame_locked": {"type": "boolean"},
      "metadata": {"type": "array", "items": {"type": "object", "properties": {"key": {"type": "string"}, "value": {"type": "string"}}}},
      "arrows": {"type": "array", "items": {"type": "object", "properties": {
        "pose": {"$ref": "#/$defs/pose"}, "shaft_length": {"type": "number"}, "shaft_diameter": {"type": "number"},
        "head_length": {"type": "number"}, "head_diameter": {"type": "number"}, "color": {"$ref": "#/$defs/color"}}}},
      "cubes": {"type": "array", "items": {"type": "object", "properties": {
        "pose": {"$ref": "#/$defs/pose"}, "size": {"$ref": "#/$defs/vector3"}, "color": {"$ref": "#/$defs/color"}}}},
      "spheres": {"type": "array"},
      "cylinders": {"type": "array"},
      "lines": {"type": "array", "items": {"type": "object", "properties": {
        "type": {"type": "integer", "description": "0: strip, 1: loop, 2: list"}, "pose": {"$ref": "#/$defs/pose"},
        "thickness": {"type": "number"}, "scale_invariant": {"type": "boolean"},
        "points": {"type": "array", "items": {"$ref": "#/$defs/vector3"}}, "color": {"$ref": "#/$defs/color"},
        "colors": {"type": "array"}, "indices": {"type": "array"}}}},
      "triangles": {"type": "array"},
      "texts": {"type": "array", "items": {"type": "object", "properties": {
        "pose": {"$ref": "#/$defs/pose"}, "billboard": {"type": "boolean"}, "font_size": {"type": "number"},
        "scale_invariant": {"type": "boolean"}, "color": {"$ref": "#/$defs/color"}, "text": {"type": "string"}}}},
      "models": {"type": "array"}
    }}}
  }
})json";

const char* const SCENE_VIEW_SCHEMA = R"json({
  "title": "radarscene.SceneView",
  "description": "A radar scene as the viewer's page draws it, in the frame radar (x forward, y left, metres)",
                  "type" : "object", "properties" : {
    "time" : {"type" : "integer", "description" : "the scene's own time, ns"},
             "delay_ms"
        : {"type" : ["number", "null"], "description" : "from the producer's push to the viewer's reception; null when the scene's time is of another clock"},
          "objects" : {
        "type" : "array", "items" : {
            "type" : "object", "properties" : {
                "id" : {"type" : "integer"},
                       "class" : {"type" : "integer"},
                                 "name" : {"type" : "string"},
                                          "x" : {"type" : "number"},
                                                "y" : {"type" : "number"},
                                                      "box"
                    : {
                        "type" : "array",
                        "items" : {"type" : "number"},
                        "description" : "two opposite corners: x, y, x, y"
                    },
                      "outline" : {
                          "type" : "array",
                          "items" : {"type" : "array", "items" : {"type" : "number"}}
                      },
                                  "velocity" : {
                    "type" : "array", "items" : {
                        "type" : "number"
                    }
                }
            }
        }
    }
}
})json";

const char* const LOCATION_FIX_SCHEMA = R"json({
  "title": "foxglove.LocationFix",
  "description": "The device's position on the earth",
  "type": "object",
  "properties": {
    "timestamp": {"type": "object", "properties": {"sec": {"type": "integer"}, "nsec": {"type": "integer"}}},
    "frame_id": {"type": "string"},
    "latitude": {"type": "number"},
    "longitude": {"type": "number"},
    "altitude": {"type": "number"},
    "position_covariance": {"type": "array", "items": {"type": "number"}, "minItems": 9, "maxItems": 9},
    "position_covariance_type": {"type": "integer"}
  }
})json";
