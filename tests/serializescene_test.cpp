#include "serializescene/serializescene.h"
#include "sceneencoding/sceneencoding.h"
#include "support/fakedevice.h"
#include "support/randomframe.h"
#include "support/testutil.h"

#include <gtest/gtest.h>

#include <atomic>
#include <random>
#include <thread>

using namespace RadarScene;

namespace {

Scene decode(const std::string& bytes) {
    Scene scene;
    EXPECT_TRUE(scene.ParseFromString(bytes));
    return scene;
}

std::string serialize(const Frame& frame, const SerializeFrameOptions& options = {}) {
    std::string out = "stale";
    serializeFrame(out, frame, options);
    return out;
}

FrameObject classified(int id, std::vector<int> classes) {
    FrameObject o;
    o.id = id;
    std::vector<Classification> cs;
    for (int c : classes) {
        cs.push_back({c, std::nullopt});
    }
    o.set_classifications(cs);
    return o;
}

SerializeFrameOptions all_options() {
    SerializeFrameOptions options;
    options.bounding_box = options.polygon = options.velocity = options.geolocation = true;
    return options;
}

// Every member set, with values whose single-precision sums differ from the
// double sums narrowed afterwards, and an asymmetric covariance.
Frame full_frame() {
    Frame frame;
    frame.time = 1234567890123ull;
    frame.status = RadarStatus{true, true, {{"blocked", 7, true}}};
    frame.orientation = RadarOrientation{1.25, -0.5};
    frame.param_changed = "range";
    FrameObject o;
    o.id = 77;
    o.set_confidence(0.875);
    o.set_bounding_box({16777218, 16777218, 0.99999999, 0.99999999});
    o.set_polygon({{1.5, -2.5}, {3.25, 4}});
    o.set_velocity({0.5, -1});
    o.set_velocity3d({2, 3, 4});
    o.set_position({120.5, -30.25, 2});
    o.set_classifications({{1, 0.75}, {9, std::nullopt}});
    o.set_area(6.5);
    o.set_covariance({1, 2, 3, 4});
    o.set_geoposition({12.5, 59.123456789, 18.987654321});
    frame.objects = {o};
    return frame;
}

}  // namespace

// Presence on the wire follows the frame's presence bits, not the values:
// zero values that are present stay, absent members stay off.
TEST(SerializeFrame, WirePresenceFollowsThePresenceBits) {
    Frame frame;
    frame.status = RadarStatus{};
    frame.orientation = RadarOrientation{};
    frame.param_changed = "";
    FrameObject bare;
    FrameObject zero;
    zero.set_position({0, 0, 0});
    frame.objects = {bare, zero};
    std::string bytes = serialize(frame, all_options());
    EXPECT_EQ(wire_fields(bytes), "1,3,3,5,6,7");  // time even when 0
    EXPECT_EQ(wire_fields(wire_submessage(bytes, 3, 0)), "1");
    EXPECT_EQ(wire_fields(wire_submessage(bytes, 3, 1)), "1,7");
    EXPECT_EQ(wire_fields(wire_submessage(wire_submessage(bytes, 3, 1), 7)), "3");
}

TEST(SerializeFrame, WithoutOptionsOnlyUngatedMembersAreWritten) {
    Frame frame = full_frame();
    std::string object = wire_submessage(serialize(frame), 3);
    EXPECT_EQ(wire_fields(object), "1,2,3,7,8,9");
}

TEST(SerializeFrame, VelocityMappings) {
    SerializeFrameOptions options;
    options.velocity = true;
    auto velocity_fields = [&](const FrameObject& o) {
        Frame frame;
        frame.objects.push_back(o);
        std::string object = wire_submessage(serialize(frame, options), 3);
        return wire_fields(wire_submessage(object, 6)) + "/" +
               wire_fields(wire_submessage(object, 10));
    };
    FrameObject both;
    both.set_velocity({1, 2});
    both.set_velocity3d({3, 4, 5});
    EXPECT_EQ(velocity_fields(both), "1,2/1,2,3");
    FrameObject flat;
    flat.set_velocity({1, 2});
    EXPECT_EQ(velocity_fields(flat), "1,2/");
    // Readers that only know the 2-D field still get the motion.
    FrameObject only3d;
    only3d.set_velocity3d({3, 4, 0});
    EXPECT_EQ(velocity_fields(only3d), "1,2,3/");
}

TEST(SerializeFrame, ClassFilterDropsSingleClassObjectsUnlessRaw) {
    Frame frame;
    frame.objects.push_back(classified(1, {3}));
    frame.objects.push_back(classified(2, {3, 4}));
    frame.objects.push_back(classified(3, {40}));
    frame.objects.push_back(classified(4, {2}));
    frame.objects.push_back(classified(6, {31}));
    frame.objects.push_back(classified(7, {32}));
    frame.objects.push_back(classified(8, {-1}));
    FrameObject unclassified;
    unclassified.id = 5;
    frame.objects.push_back(unclassified);

    auto ids = [&](const SerializeFrameOptions& options) {
        std::string out;
        Scene scene = decode(serialize(frame, options));
        for (const Object& o : scene.objects()) {
            out += std::to_string(o.id()) + " ";
        }
        return out;
    };
    SerializeFrameOptions options;
    options.filtered_classes = 1u << 3;
    EXPECT_EQ(ids(options), "2 3 4 6 7 8 5 ");
    options.filtered_classes = 1u << 31;
    EXPECT_EQ(ids(options), "1 2 3 4 7 8 5 ");
    options.raw = true;
    EXPECT_EQ(ids(options), "1 2 3 4 6 7 8 5 ");
    // Only classes 0..31 take part: 32, 40 and negative ones are never filtered.
    options = {};
    options.filtered_classes = 0xffffffffu;
    EXPECT_EQ(ids(options), "2 3 7 8 5 ");
}

TEST(SerializeFrame, ProjectedGeopositionOnlyWhileTheDeviceIsValid) {
    FrameObject at_device;
    at_device.set_position({0, 0, 0});
    Frame frame;
    frame.objects = {at_device};
    SerializeFrameOptions options;
    options.geolocation = true;
    install_device(0, 0, 0, false);
    EXPECT_EQ(wire_fields(wire_submessage(serialize(frame, options), 3)), "1,7");
    // Valid: a zero projection still marks dlat and dlon present.
    install_device(0, 0, 0, true);
    std::string geo = wire_submessage(wire_submessage(serialize(frame, options), 3), 11);
    EXPECT_EQ(wire_fields(geo), "4,5");
}

TEST(DeserializeFrame, EmptyAndUnparsableInput) {
    Frame empty = deserializeFrame("");
    EXPECT_TRUE(empty.time == 0 && empty.objects.empty());
    EXPECT_FALSE(empty.status || empty.orientation || empty.param_changed);
    // Fields decoded before the parser stops are kept.
    EXPECT_EQ(deserializeFrame(std::string("\x08\x63\xff\xff\xff", 5)).time, 99u);
}

TEST(DeserializeFrame, HandBuiltSceneMapsBack) {
    Scene scene;
    scene.set_time(5);
    scene.set_param_changed("mode");
    scene.mutable_orientation()->set_roll(2);
    scene.mutable_status()->add_failures()->set_name("f");
    scene.add_objects();  // no id: stays a default object
    Object* o = scene.add_objects();
    o->set_id(7);
    o->set_confidence(0.5f);
    auto* box = o->mutable_bounding_box();
    box->set_left(1), box->set_top(6), box->set_right(4), box->set_bottom(2);
    auto* v = o->mutable_velocity();
    v->set_vx(1), v->set_vy(2), v->set_vz(3);
    auto* p = o->mutable_position();
    p->set_x(4), p->set_y(5), p->set_z(6);
    auto* point = o->mutable_polygon()->add_points();
    point->set_x(1), point->set_y(2), point->set_z(3);
    auto* label = o->mutable_labels()->add_labels();
    label->set_id(4);
    o->mutable_labels()->add_labels()->set_confidence(0.25f);
    o->set_area(3);
    o->mutable_covariance()->add_elements(1.5f);
    o->mutable_geoposition()->set_lat(10.5f);
    o->mutable_geoposition()->set_dlon(20.123456789);

    Frame frame = deserializeFrame(scene.SerializeAsString());
    EXPECT_EQ(frame.time, 5u);
    EXPECT_EQ(frame.param_changed, "mode");
    EXPECT_DOUBLE_EQ(frame.orientation->roll, 2);
    EXPECT_EQ(frame.status->failures.at(0).name, "f");
    ASSERT_EQ(frame.objects.size(), 2u);
    EXPECT_EQ(frame.objects[0].present.none(), true);
    const FrameObject& f = frame.objects[1];
    EXPECT_EQ(f.id, 7);
    EXPECT_TRUE(f.has_confidence());
    EXPECT_DOUBLE_EQ(f.bounding_box.x, 1);
    EXPECT_DOUBLE_EQ(f.bounding_box.y, 2);
    EXPECT_DOUBLE_EQ(f.bounding_box.width, 3);
    EXPECT_DOUBLE_EQ(f.bounding_box.height, 4);
    EXPECT_FALSE(f.has_velocity());
    ASSERT_TRUE(f.has_velocity3d());
    EXPECT_DOUBLE_EQ(f.velocity3d.vz, 3);
    EXPECT_DOUBLE_EQ(f.position.z, 6);
    ASSERT_EQ(f.polygon.size(), 1u);
    EXPECT_DOUBLE_EQ(f.polygon[0][1], 2);
    ASSERT_EQ(f.classifications.size(), 2u);
    EXPECT_EQ(f.classifications[0].id, 4);
    EXPECT_FALSE(f.classifications[0].confidence);
    EXPECT_DOUBLE_EQ(*f.classifications[1].confidence, 0.25);
    EXPECT_DOUBLE_EQ(f.area, 3);
    EXPECT_EQ(f.covariance, std::vector<double>{1.5});
    EXPECT_DOUBLE_EQ(f.geoposition.latitude, 10.5);
    EXPECT_DOUBLE_EQ(f.geoposition.longitude, 20.123456789);
}

TEST(DeserializeFrameDeathTest, BrokenVelocityAndPositionRulesAbort) {
    Scene flat;
    flat.add_objects()->mutable_velocity()->set_vx(1);
    EXPECT_TRUE(isDeserializable(flat));  // without an id nothing more is read
    flat.mutable_objects(0)->set_id(1);
    EXPECT_FALSE(isDeserializable(flat));
    EXPECT_DEATH(deserializeFrame(flat.SerializeAsString()), "pbo.velocity\\(\\).has_vz\\(\\)");

    Scene both;
    Object* o = both.add_objects();
    o->set_id(1);
    o->mutable_velocity()->set_vz(1);
    o->mutable_velocity3d()->set_vz(1);
    EXPECT_FALSE(isDeserializable(both));
    EXPECT_DEATH(deserializeFrame(both.SerializeAsString()), "!pbo.has_velocity3d\\(\\)");
    o->clear_velocity();
    EXPECT_TRUE(isDeserializable(both));
    o->mutable_labels();
    EXPECT_FALSE(isDeserializable(both));
    o->clear_labels();
    o->set_id(uint64_t{INT32_MAX} + 1);
    EXPECT_FALSE(isDeserializable(both));

    Scene position;
    position.add_objects()->set_id(1);
    position.mutable_objects(0)->mutable_position()->set_x(1);
    EXPECT_FALSE(isDeserializable(position));
    EXPECT_DEATH(deserializeFrame(position.SerializeAsString()), "pbo.position\\(\\).has_z\\(\\)");
}

TEST(SerializeFrame, FullyPopulatedSceneIsByteExact) {
    SerializeFrameOptions options = all_options();
    std::string bytes = serialize(full_frame(), options);
    std::string hex;
    for (unsigned char c : bytes) {
        char digits[3];
        snprintf(digits, sizeof(digits), "%02x", c);
        hex += digits;
    }
    // The scene's wire contract: field numbers, encodings and their order.
    EXPECT_EQ(hex,
              "08cb89ec8ff7231ab001084d150000603f1a0d0a070801150000403f0a02080922140d0100804b15"
              "0100804b1d0100804b250100804b2a180a0a0d0000c03f15000020c00a0a0d000050401500008040"
              "320a0d0000003f15000080bf3a0f0d0000f142150000f2c11d00000040450000d0404a120a100000"
              "803f000000400000404000008040520f0d0000004015000040401d000080405a210d00004841156b"
              "7e6c421db7e6974121b29c9b6ecd8f4d4029b672e0e9d6fc32402a13080110011a0d0a07626c6f63"
              "6b656410071801321209000000000000f43f11000000000000e0bf3a0572616e6765");
}

TEST(SerializeFrame, ConcurrentCallersGetTheirOwnBytes) {
    SerializeFrameOptions options = all_options();
    options.velocity = false;  // a 2-D velocity could not be decoded again
    const std::string expected = serialize(full_frame(), options);
    std::vector<std::thread> threads;
    std::atomic<int> mismatches{0};
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            Frame frame = full_frame();
            std::string out;
            for (int i = 0; i < 3000; ++i) {
                serializeFrame(out, frame, options);
                Frame back = deserializeFrame(out);
                mismatches += out != expected || back.objects.size() != 1;
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(mismatches, 0);
}

// The scene written straight from the frame, and the scene assembled from
// the frame's encoding (as the sending thread does), against serializing the
// message that convert_frame_to_scene builds, on frames that reach every
// corner.
TEST(SerializeFrame, WritesTheBytesOfTheBuiltMessage) {
    int encodings_as_scenes = 0;
    std::mt19937 random(7);
    word_source next = [&] { return static_cast<uint32_t>(random()); };
    for (int i = 0; i < 3000; ++i) {
        if (i % 1000 == 0) {
            install_device(59.3, 18.1, 45.0 * i / 1000, i < 2000);
        }
        Frame frame = random_frame(next);
        SerializeFrameOptions options = random_options(next);
        Scene scene;
        convert_frame_to_scene(scene, frame, options);
        std::string expected;
        ASSERT_TRUE(scene.SerializeToString(&expected));
        ASSERT_EQ(serialize(frame, options), expected) << "frame " << i;

        // Encoded with the parts these options need, or with every part.
        scene_encoding_t encoding;
        unsigned parts = i % 2 ? object_parts_for(options) : ~0u;
        scene_encoding_fill(encoding, frame, options.filtered_classes, parts);
        std::string assembled = "stale";
        scene_encoding_assemble(assembled, encoding, options);
        ASSERT_EQ(assembled, expected) << "frame " << i;
        if (scene_encoding_is_scene(encoding, options)) {
            ASSERT_EQ(encoding.bytes, expected) << "frame " << i;
            ++encodings_as_scenes;
        }
    }
    EXPECT_GT(encodings_as_scenes, 300);
}

// The encoding reserves about what it writes: a bound of every part at its
// largest would reserve forty times the scene of objects that carry only an
// id.
TEST(SceneEncoding, ReservesNearWhatItWrites) {
    Frame ids, tracks;
    for (int i = 0; i < 10000; ++i) {
        FrameObject o;
        o.id = i;
        ids.objects.push_back(o);
        o.set_position({12.5, -3.25, 0.5});
        o.set_velocity3d({1.5, 2.5, 0.25});
        o.set_bounding_box({1, 2, 3, 4});
        o.set_classifications({{1, 0.75}});
        tracks.objects.push_back(o);
    }
    for (const Frame* frame : {&ids, &tracks}) {
        scene_encoding_t encoding;
        scene_encoding_fill(encoding, *frame, 0, ~0u);
        EXPECT_LE(encoding.bytes.capacity(), 2 * encoding.bytes.size());
    }
}
