#include "serializescene/serializescene.h"

#include "common/rs_assert.h"
#include "geolocation/geoprojection.h"
#include "serializescene/scenewriter.h"

#include <google/protobuf/arena.h>

#include <map>
#include <mutex>

namespace RadarScene {
namespace {

constexpr size_t ARENA_BLOCK = 64 * 1024;
// Blocks kept for reuse beyond this are given back to the system.
constexpr size_t MAX_POOLED_BYTES = 16 * 1024 * 1024;

// The blocks that the shared arena hands back when it is reset, kept for
// the next conversion: a steady stream of large frames then reuses the same
// memory instead of faulting it in again on every call, whichever thread
// converts. Only used by the arena, so under the codec's mutex.
struct block_pool {
    std::multimap<size_t, void*> blocks;
    size_t pooled = 0;

    void* take(size_t size) {
        auto it = blocks.find(size);
        if (it == blocks.end()) {
            return ::operator new(size);
        }
        void* block = it->second;
        blocks.erase(it);
        pooled -= size;
        return block;
    }

    void give(void* block, size_t size) {
        if (pooled + size > MAX_POOLED_BYTES) {
            ::operator delete(block);
            return;
        }
        blocks.emplace(size, block);
        pooled += size;
    }
};

// Never destroyed, like the codec that uses it.
block_pool& arena_blocks() {
    static block_pool* pool = new block_pool;
    return *pool;
}

// The scene of every decoding lives on one arena that is reset after each
// call, so decoding does not pay for many small allocations.
struct scene_codec {
    scene_codec() : arena(arena_options()) {}
    static google::protobuf::ArenaOptions arena_options() {
        google::protobuf::ArenaOptions options;
        options.start_block_size = ARENA_BLOCK;
        options.max_block_size = ARENA_BLOCK;
        options.block_alloc = [](size_t size) { return arena_blocks().take(size); };
        options.block_dealloc = [](void* block, size_t size) { arena_blocks().give(block, size); };
        return options;
    }

    std::mutex mutex;
    google::protobuf::Arena arena;
};

// Never destroyed: worker threads may still convert while statics go away.
scene_codec& codec() {
    static scene_codec* instance = new scene_codec;
    return *instance;
}

// Arena::Create puts nested messages on the arena only from protobuf 26 on;
// CreateMessage, which does so before, is deprecated from 27.
Scene* create_scene(google::protobuf::Arena& arena) {
#if GOOGLE_PROTOBUF_VERSION >= 5026000
    return google::protobuf::Arena::Create<Scene>(&arena);
#else
    return google::protobuf::Arena::CreateMessage<Scene>(&arena);
#endif
}

void set_velocity(Velocity& out, double vx, double vy) {
    out.set_vx(static_cast<float>(vx));
    out.set_vy(static_cast<float>(vy));
}

void set_velocity3d(Velocity& out, const FrameObject::Velocity3d& v) {
    set_velocity(out, v.vx, v.vy);
    out.set_vz(static_cast<float>(v.vz));
}

void convert_velocities(Object& out, const FrameObject& o) {
    if (o.has_velocity()) {
        set_velocity(*out.mutable_velocity(), o.velocity.vx, o.velocity.vy);
        if (o.has_velocity3d()) {
            set_velocity3d(*out.mutable_velocity3d(), o.velocity3d);
        }
    } else if (o.has_velocity3d()) {
        // Readers that only know field 6 still get the motion.
        set_velocity3d(*out.mutable_velocity(), o.velocity3d);
    }
}

void convert_object(Object& out, const FrameObject& o, const SerializeFrameOptions& options) {
    out.set_id(static_cast<uint32_t>(o.id));
    if (o.has_confidence()) {
        out.set_confidence(static_cast<float>(o.confidence));
    }
    if (options.bounding_box && o.has_bounding_box()) {
        const FrameObject::BoundingBox& b = o.bounding_box;
        RadarScene::BoundingBox* box = out.mutable_bounding_box();
        box->set_left(static_cast<float>(b.x));
        box->set_top(static_cast<float>(b.y + b.height));
        box->set_right(static_cast<float>(b.x + b.width));
        box->set_bottom(static_cast<float>(b.y));
    }
    if (options.polygon && o.has_polygon()) {
        auto* points = out.mutable_polygon()->mutable_points();
        points->Reserve(static_cast<int>(o.polygon.size()));
        for (const auto& vertex : o.polygon) {
            Point* point = points->Add();
            point->set_x(static_cast<float>(vertex[0]));
            point->set_y(static_cast<float>(vertex[1]));
        }
    }
    if (options.velocity) {
        convert_velocities(out, o);
    }
    if (o.has_position()) {
        Point* position = out.mutable_position();
        position->set_x(static_cast<float>(o.position.x));
        position->set_y(static_cast<float>(o.position.y));
        position->set_z(static_cast<float>(o.position.z));
    }
    if (o.has_classifications()) {
        Labels* labels = out.mutable_labels();
        for (const Classification& c : o.classifications) {
            Label* label = labels->add_labels();
            label->set_id(static_cast<uint32_t>(c.id));
            if (c.confidence) {
                label->set_confidence(static_cast<float>(*c.confidence));
            } else {
                label->clear_has_confidence();
            }
        }
    }
    if (o.has_area()) {
        out.set_area(static_cast<float>(o.area));
    }
    if (o.has_covariance()) {
        auto* elements = out.mutable_covariance()->mutable_elements();
        elements->Reserve(static_cast<int>(o.covariance.size()));
        for (double element : o.covariance) {
            elements->Add(static_cast<float>(element));
        }
    }
    if (options.geolocation) {
        if (auto geo = geo_object_query(o, false)) {
            GeoPosition* g = out.mutable_geoposition();
            g->set_elevation(static_cast<float>(geo->elevation.value_or(0)));
            g->set_lat(static_cast<float>(geo->latitude));
            g->set_dlat(geo->latitude);
            g->set_lon(static_cast<float>(geo->longitude));
            g->set_dlon(geo->longitude);
        }
    }
}

void convert_object_back(FrameObject& o, const Object& pbo) {
    if (!pbo.has_id()) {
        return;
    }
    o.id = static_cast<int32_t>(pbo.id());
    if (pbo.has_confidence()) {
        o.set_confidence(pbo.confidence());
    }
    if (pbo.has_bounding_box()) {
        const RadarScene::BoundingBox& box = pbo.bounding_box();
        float width = box.right() - box.left();
        float height = box.top() - box.bottom();
        o.set_bounding_box({box.left(), box.bottom(), width, height});
    }
    if (pbo.has_polygon()) {
        o.polygon.resize(static_cast<size_t>(pbo.polygon().points_size()));
        for (int i = 0; i < pbo.polygon().points_size(); ++i) {
            const Point& point = pbo.polygon().points(i);
            o.polygon[static_cast<size_t>(i)] = {point.x(), point.y()};
        }
        o.set_present(FrameObject::POLYGON);
    }
    if (pbo.has_velocity()) {
        RS_ASSERT(!pbo.has_velocity3d());
        RS_ASSERT(pbo.velocity().has_vz());
        const Velocity& v = pbo.velocity();
        o.set_velocity3d({v.vx(), v.vy(), v.vz()});
    }
    if (pbo.has_position()) {
        RS_ASSERT(pbo.position().has_z());
        const Point& p = pbo.position();
        o.set_position({p.x(), p.y(), p.z()});
    }
    if (pbo.has_labels()) {
        const Labels& labels = pbo.labels();
        o.classifications.resize(static_cast<size_t>(labels.labels_size()));
        for (int i = 0; i < labels.labels_size(); ++i) {
            const Label& label = labels.labels(i);
            Classification& c = o.classifications[static_cast<size_t>(i)];
            if (label.has_id()) {
                c.id = static_cast<int32_t>(label.id());
            }
            if (label.has_confidence()) {
                c.confidence = label.confidence();
            }
        }
        o.set_present(FrameObject::CLASSIFICATIONS);
    }
    if (pbo.has_area()) {
        o.set_area(pbo.area());
    }
    if (pbo.has_covariance()) {
        const auto& elements = pbo.covariance().elements();
        o.set_covariance(std::vector<double>(elements.begin(), elements.end()));
    }
    if (pbo.has_geoposition()) {
        const GeoPosition& g = pbo.geoposition();
        o.set_geoposition(
            {g.elevation(), g.has_dlat() ? g.dlat() : g.lat(), g.has_dlon() ? g.dlon() : g.lon()});
    }
}

}  // namespace
}  // namespace RadarScene

using namespace RadarScene;

bool frame_object_filtered(const FrameObject& o, uint32_t filtered_classes, bool raw) {
    if (raw || !o.has_classifications()) {
        return false;
    }
    RS_ASSERT(!o.classifications.empty() && "Classification flag set without classifications");
    if (o.classifications.size() != 1) {
        return false;
    }
    int32_t class_id = o.classifications[0].id;
    return class_id >= 0 && class_id <= 31 && (filtered_classes >> class_id) & 1u;
}

void convert_frame_to_scene(Scene& scene, const Frame& frame,
                            const SerializeFrameOptions& options) {
    scene.set_time(frame.time);
    if (frame.status) {
        Status* status = scene.mutable_status();
        status->set_enabled(frame.status->enabled);
        status->set_prerecorded(frame.status->prerecorded);
        for (const RadarFailure& f : frame.status->failures) {
            Failure* failure = status->add_failures();
            failure->set_name(f.name);
            failure->set_id(f.id);
            failure->set_state(f.state);
        }
    }
    if (frame.orientation) {
        scene.mutable_orientation()->set_tilt(frame.orientation->tilt);
        scene.mutable_orientation()->set_roll(frame.orientation->roll);
    }
    if (frame.param_changed) {
        scene.set_param_changed(*frame.param_changed);
    }
    for (const FrameObject& o : frame.objects) {
        RS_ASSERT(o.id >= 0);
        if (frame_object_filtered(o, options.filtered_classes, options.raw)) {
            continue;
        }
        convert_object(*scene.add_objects(), o, options);
    }
}

void convert_scene_to_frame(Frame& frame, const Scene& scene) {
    if (scene.has_time()) {
        frame.time = scene.time();
    }
    if (scene.has_status()) {
        RadarStatus& status = frame.status.emplace();
        status.enabled = scene.status().enabled();
        status.prerecorded = scene.status().prerecorded();
        for (const Failure& f : scene.status().failures()) {
            status.failures.push_back({f.name(), f.id(), f.state()});
        }
    }
    if (scene.has_orientation()) {
        frame.orientation =
            RadarOrientation{scene.orientation().tilt(), scene.orientation().roll()};
    }
    if (scene.has_param_changed()) {
        frame.param_changed = scene.param_changed();
    }
    frame.objects.resize(static_cast<size_t>(scene.objects_size()));
    for (int i = 0; i < scene.objects_size(); ++i) {
        convert_object_back(frame.objects[static_cast<size_t>(i)], scene.objects(i));
    }
}

// Written straight from the frame: no shared state, so calls from any
// thread run side by side.
void RadarScene::serializeFrame(std::string& out, const Frame& frame,
                                const SerializeFrameOptions& options) {
    write_scene(out, frame, options);
}

bool RadarScene::isDeserializable(const Scene& scene) {
    for (const Object& o : scene.objects()) {
        if (o.has_id() &&
            ((o.has_velocity() && (o.has_velocity3d() || !o.velocity().has_vz())) ||
             (o.has_position() && !o.position().has_z()) ||
             (o.has_labels() && o.labels().labels_size() == 0) || o.id() > INT32_MAX)) {
            return false;
        }
    }
    return true;
}

Frame RadarScene::deserializeFrame(std::string_view bytes) {
    scene_codec& c = codec();
    std::lock_guard lock(c.mutex);
    Frame frame{};
    Scene* scene = create_scene(c.arena);
    scene->ParseFromArray(bytes.data(), static_cast<int>(bytes.size()));
    convert_scene_to_frame(frame, *scene);
    c.arena.Reset();
    return frame;
}
