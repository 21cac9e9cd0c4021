#pragma once

#include <array>
#include <bitset>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#define RADARSCENE_EXPORT __attribute__((visibility("default")))

struct sd_event;
namespace sdbus {
class IConnection;
}

namespace RadarScene {

// One class hypothesis of an object. Class numbers 0..31 take part in the
// class filter of SerializeFrameOptions.
struct Classification {
    int32_t id = 0;
    std::optional<double> confidence;
};

struct RadarFailure {
    std::string name;
    int32_t id = 0;
    bool state = false;
};

struct RadarStatus {
    bool enabled = false;
    bool prerecorded = false;
    std::vector<RadarFailure> failures;
};

struct RadarOrientation {
    double tilt = 0;
    double roll = 0;
};

// One tracked object. Every member but `id` is optional: its presence bit
// says whether it holds a value, whatever its storage contains. The set_...
// calls store a value together with its bit.
struct FrameObject {
    // (x, y) is the corner with the smallest coordinates; y grows upward.
    struct BoundingBox {
        double x = 0;
        double y = 0;
        double width = 0;
        double height = 0;
    };

    struct Velocity {
        double vx = 0;
        double vy = 0;
    };

    struct Position {
        double x = 0;
        double y = 0;
        double z = 0;
    };

    struct Velocity3d {
        double vx = 0;
        double vy = 0;
        double vz = 0;
    };

    struct GeoPosition {
        double elevation = 0;
        double latitude = 0;
        double longitude = 0;
    };

    // Presence bits, in this order from bit 0.
    enum Field : unsigned {
        BOUNDING_BOX,
        POLYGON,
        VELOCITY,
        CONFIDENCE,
        POSITION,
        VELOCITY3D,
        CLASSIFICATIONS,
        COVARIANCE,
        AREA,
        GEOPOSITION,
        FIELD_COUNT
    };

    int32_t id = 0;
    BoundingBox bounding_box;
    std::vector<std::array<double, 2>> polygon;
    Velocity velocity;
    double confidence = 0;
    Position position;
    Velocity3d velocity3d;
    std::vector<Classification> classifications;
    std::vector<double> covariance;
    double area = 0;
    GeoPosition geoposition;
    std::bitset<FIELD_COUNT> present;

    bool has(Field field) const { return present.test(field); }
    void set_present(Field field, bool on = true) { present.set(field, on); }

    bool has_bounding_box() const { return has(BOUNDING_BOX); }
    bool has_polygon() const { return has(POLYGON); }
    bool has_velocity() const { return has(VELOCITY); }
    bool has_confidence() const { return has(CONFIDENCE); }
    bool has_position() const { return has(POSITION); }
    bool has_velocity3d() const { return has(VELOCITY3D); }
    bool has_classifications() const { return has(CLASSIFICATIONS); }
    bool has_covariance() const { return has(COVARIANCE); }
    bool has_area() const { return has(AREA); }
    bool has_geoposition() const { return has(GEOPOSITION); }

    void set_bounding_box(const BoundingBox& v) { bounding_box = v, set_present(BOUNDING_BOX); }
    void set_polygon(std::vector<std::array<double, 2>> v) {
        polygon = std::move(v), set_present(POLYGON);
    }
    void set_velocity(const Velocity& v) { velocity = v, set_present(VELOCITY); }
    void set_confidence(double v) { confidence = v, set_present(CONFIDENCE); }
    void set_position(const Position& v) { position = v, set_present(POSITION); }
    void set_velocity3d(const Velocity3d& v) { velocity3d = v, set_present(VELOCITY3D); }
    void set_classifications(std::vector<Classification> v) {
        classifications = std::move(v), set_present(CLASSIFICATIONS);
    }
    void set_covariance(std::vector<double> v) {
        covariance = std::move(v), set_present(COVARIANCE);
    }
    void set_area(double v) { area = v, set_present(AREA); }
    void set_geoposition(const GeoPosition& v) { geoposition = v, set_present(GEOPOSITION); }
};

// One radar frame. `time` is in nanoseconds of the monotonic clock.
struct Frame {
    uint64_t time = 0;
    std::vector<FrameObject> objects;
    std::optional<RadarStatus> status;
    std::optional<RadarOrientation> orientation;
    std::optional<std::string> param_changed;
};

// What a consumer wants its scenes to carry. Bit n of `filtered_classes`
// drops objects whose only classification is class n, unless `raw` is set.
struct SerializeFrameOptions {
    bool bounding_box = false;
    bool polygon = false;
    bool velocity = false;
    bool geolocation = false;
    bool raw = false;
    uint32_t filtered_classes = 0;
};

// Replaces `out` with the RadarScene.Scene bytes of `frame`.
RADARSCENE_EXPORT void serializeFrame(std::string& out, const Frame& frame,
                                      const SerializeFrameOptions& options);

// Decodes RadarScene.Scene bytes; input that does not parse yields whatever
// was decoded before the parser stopped.
RADARSCENE_EXPORT Frame deserializeFrame(std::string_view bytes);

class Scene;

// True when a Frame can hold `scene`, so that deserializeFrame may be given
// its bytes; false for an object with an id and a 2-D velocity, a position
// without height, an empty label list or an id beyond 32 bits, which end the
// process in deserializeFrame. Scenes from a file or a peer are checked with
// it first. Since 1.1.
RADARSCENE_EXPORT bool isDeserializable(const Scene& scene);

// Fills the geographic position of every object from the device's position
// and heading; objects that already carry one keep it.
RADARSCENE_EXPORT void addGeoLocation(Frame& frame);

// How a Sink presents itself. None of the texts may be null. A producer
// that subscribers and the client queries should find passes
// "com.tessel.RadarSceneProvider1" and "/com/tessel/RadarSceneProvider1".
struct SinkConfig {
    const char* clientName;   // broker client name
    const char* serviceName;  // well-known bus name the provider claims
    const char* objectPath;   // path of the provider object
    bool requestNameNow;      // claim the name during construction
};

// The producer's entry point. Construct it on the producer's D-Bus
// connection and sd_event loop, declare the one channel and the object
// classes, add broker topics, call requestName(), then push every frame.
// D-Bus requests and the removal of broken subscribers are served by the
// loop; pushes come from one producer thread.
class RADARSCENE_EXPORT Sink {
public:
    Sink(sdbus::IConnection& connection, sd_event* event, SinkConfig config);
    ~Sink();
    Sink(const Sink&) = delete;
    Sink& operator=(const Sink&) = delete;

    void requestName();
    void addSupportedChannel(int channel);
    void addObjectClassification(int id, const char* name);
    // Classes whose bit is set are dropped from the scenes of subscribers
    // that did not ask for raw output; applies to every later push. Safe to
    // call from any thread: a push running meanwhile uses the old mask or
    // the new one, for its subscribers and topics alike.
    void setRawMask(unsigned long mask);

    // Hands the frame to the channel's subscribers (written on a worker
    // thread) and publishes it to the broker topics bound to the channel.
    // It may wait for the send in progress when the producer is three
    // frames ahead of the worker.
    void push(int channel, const Frame& frame);
    // As push, but never waits on the subscribers: when the worker is
    // behind, the frame replaces the one still waiting to be sent.
    void tryPush(int channel, const Frame& frame);
    // The same for RadarScene.Scene bytes.
    void push(int channel, std::string_view data);

    // Topics are named "mdb." + name, except the ZRF v1 kind, which takes the
    // name as given.
    void addMessageBrokerTopic(std::string_view name, SerializeFrameOptions options);
    void addMessageBrokerTopicZRF(std::string_view name);
    void addVarroTopicZRFv1(std::string_view name);

    struct Impl;

private:
    std::unique_ptr<Impl> impl_;
    unsigned long raw_mask = 0;
};

// Reads one record of a subscriber's scene stream from `fd` into `payload`:
// 1 with the scene bytes, 0 at a clean end of the stream, -EBADMSG for a
// length word below 4, -EMSGSIZE for a payload over `max_payload` (the
// stream cannot be resynchronised after it), -EPROTO when the stream ends
// inside a record, or another negative errno of read. Interrupted reads are
// resumed; no more than `max_payload` bytes are ever allocated.
RADARSCENE_EXPORT int readSceneRecord(int fd, std::string& payload, size_t max_payload = 64u << 20);

// Ask the running provider over the system bus. D-Bus trouble is logged and
// yields an empty result.
RADARSCENE_EXPORT std::vector<int32_t> getSupportedRadarChannels();
RADARSCENE_EXPORT std::map<int32_t, std::string> getSupportedClasses();

// Serves an sdbus-c++ connection from an sd_event loop: its requests are
// processed on the loop's thread while this object lives. Make sdbus-c++
// calls on that connection from the loop's thread only.
class RADARSCENE_EXPORT ConnectionEventSource {
public:
    ConnectionEventSource(sdbus::IConnection& connection, sd_event* event);
    ~ConnectionEventSource();
    ConnectionEventSource(const ConnectionEventSource&) = delete;
    ConnectionEventSource& operator=(const ConnectionEventSource&) = delete;

    struct Impl;

private:
    std::unique_ptr<Impl> impl_;
};

}  // namespace RadarScene
