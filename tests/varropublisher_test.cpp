#include "varropublisher/varropublisher.h"
#include "support/fakedevice.h"
#include "support/testutil.h"
#include "varro_fake.h"
#include "varropublisher/base64.h"
#include "varropublisher/topicdefinitions.h"
#include "zrf/zrf.h"

#include <nlohmann/json.hpp>

#include <gtest/gtest.h>

using namespace SceneProvider;
using nlohmann::json;
using tessel_os_varro::ApiErrorCode;

namespace {

const std::string ENVELOPE_DEFINITION = R"json(
{
  "topic_name": "@TOPIC@",
  "description": "N/A",
  "version": "1.0.0",
  "data_schema": {
    "type": "object",
    "required": ["source", "data", "timestamp"],
    "properties": {
      "source": {
        "type": "string"
      },
      "data": {
        "type": "string",
        "contentEncoding": "base64"
      },
      "timestamp": {
        "type": "object",
        "properties": {
          "tv_sec": {"type": "integer"},
          "tv_nsec": {"type": "integer"}
        },
        "required": ["tv_sec", "tv_nsec"]
      }
    }
  },
  "keys": ["source"],
  "qos": {
    "durability": "VOLATILE",
    "max_instances": 32
  }
}
)json";

const std::string PLAIN_DEFINITION = R"json(
{
  "topic_name": "@TOPIC@",
  "description": "N/A",
  "version": "0.1.0",
  "data_schema": {
    "type":"object",
    "properties": {
      "source": {"type": "string"},
      "data": {"type": "string"}
    },
    "required": ["source", "data"]
  },
  "keys": ["source"],
  "qos": {
    "durability": "VOLATILE",
    "max_instances": 32
  }
})json";

std::string with_topic(std::string definition, const std::string& name) {
    definition.replace(definition.find("@TOPIC@"), 7, name);
    return definition;
}

std::string b64(const std::string& in) {
    std::string out(4 * ((in.size() + 2) / 3), '?');
    out.resize(base64_encode(in.data(), in.size(), out.data()));
    return out;
}

class Publisher : public ::testing::Test {
protected:
    Publisher() { varro_fake::reset(); }

    void connect_with_channel(int supported = 0) {
        varro_publisher_connect(publisher, "radar");
        channel = supported;
    }

    void add(const std::string& name, VarroTopicKind kind,
             RadarScene::SerializeFrameOptions options = {}) {
        varro_publisher_add_topic(publisher, name, channel, kind, options);
    }

    void push(int pushed, const RadarScene::Frame& frame, unsigned long raw_mask = 0) {
        publish(publisher, pushed, frame, raw_mask, [this] { return classes; });
    }

    std::vector<std::string> calls_from(size_t first) {
        auto all = varro_fake::calls();
        return std::vector<std::string>(all.begin() + static_cast<long>(first), all.end());
    }

    int channel = -1;
    std::map<int32_t, std::string> classes;
    varro_publisher_t publisher;
};

}  // namespace

TEST(TopicDefinitions, AreByteExact) {
    EXPECT_EQ(ENVELOPE_DEFINITION.size(), 643u);
    EXPECT_EQ(PLAIN_DEFINITION.size(), 344u);
    EXPECT_EQ(topic_definition(SerializedScene, "mdb.scene"),
              with_topic(ENVELOPE_DEFINITION, "mdb.scene"));
    EXPECT_EQ(topic_definition(ZrfDocument, "mdb.zrf"), with_topic(ENVELOPE_DEFINITION, "mdb.zrf"));
    EXPECT_EQ(topic_definition(ZrfV1Document, "v1"), with_topic(PLAIN_DEFINITION, "v1"));
    EXPECT_EQ(topic_definition(static_cast<VarroTopicKind>(7), "x"), "");
}

TEST(Base64, PadsShortTails) {
    EXPECT_EQ(b64("f"), "Zg==");
    EXPECT_EQ(b64("fo"), "Zm8=");
    EXPECT_EQ(b64(std::string("\xff\xfe\x00\x01", 4)), "//4AAQ==");
}

TEST_F(Publisher, RegistrationCreatesAMissingTopicWithWriterAndInstance) {
    connect_with_channel(0);
    add("mdb.scene", SerializedScene);
    ASSERT_EQ(publisher.topics.size(), 1u);
    EXPECT_EQ(publisher.topics[0]->source, "1");
    std::vector<std::string> expected = {
        "Create(radar,4,1,0)",
        "Connect()",
        "GetTopic(mdb.scene)",
        "CreateTopic(" + with_topic(ENVELOPE_DEFINITION, "mdb.scene") + ")",
        "CreateTopicDataWriter(libmerrow)",
        "Initialize(libmerrow,mdb.scene)",
        R"(CreateInstance(mdb.scene,{"source":"1"},-,true))",
    };
    EXPECT_EQ(varro_fake::calls(), expected);
}

TEST_F(Publisher, ExistingTopicIsUsedAsItIs) {
    connect_with_channel(3);
    varro_fake::add_existing_topic("mdb.scene");
    size_t before = varro_fake::calls().size();
    add("mdb.scene", SerializedScene);
    ASSERT_EQ(publisher.topics.size(), 1u);
    EXPECT_EQ(publisher.topics[0]->source, "4");
    EXPECT_EQ(calls_from(before)[1], "CreateTopicDataWriter(libmerrow)");
}

TEST_F(Publisher, EveryRegistrationFailureLeavesNothingRegistered) {
    connect_with_channel(0);
    struct step {
        const char* operation;
        std::string log;
    };
    const step steps[] = {
        {"GetTopic", "<3>Failed to get topic 'mdb.t': broker down\n"},
        {"CreateTopic", "<3>Failed to create topic 'mdb.t': broker down\n"},
        {"CreateTopicDataWriter",
         "<3>Failed to create topic data writer for topic 'mdb.t': broker down\n"},
        {"Initialize",
         "<3>Failed to initialize topic data writer for topic 'mdb.t': broker down\n"},
        {"CreateInstance", "<3>Failed to create topic instance for topic 'mdb.t': broker down\n"},
    };
    for (const step& s : steps) {
        StderrCapture log;
        varro_fake::fail(s.operation, ApiErrorCode::IoError, "broker down");
        size_t before = varro_fake::calls().size();
        add("mdb.t", SerializedScene);
        EXPECT_TRUE(publisher.topics.empty()) << s.operation;
        EXPECT_EQ(log.count(s.log), 1) << s.operation;
        if (std::string(s.operation) == "GetTopic") {
            EXPECT_EQ(calls_from(before).size(), 1u);  // no creation attempt
        }
    }
}

TEST_F(Publisher, ConnectionFailuresAreLoggedAndSurvived) {
    StderrCapture log;
    varro_fake::fail("Connect", ApiErrorCode::NotConnected, "no broker");
    varro_publisher_connect(publisher, "radar");
    EXPECT_EQ(log.count("<3>Failed to connect to Varro: no broker\n"), 1);
    EXPECT_TRUE(publisher.client);

    varro_publisher_t without_client;
    varro_fake::fail("Create", ApiErrorCode::Unknown, "");
    varro_publisher_connect(without_client, "radar");
    EXPECT_FALSE(without_client.client);
    // The radar goes on: its topics are refused with a line, never an abort.
    varro_publisher_add_topic(without_client, "mdb.t", 0, SerializedScene, {});
    EXPECT_TRUE(without_client.topics.empty());
    EXPECT_EQ(log.count("<3>Failed to get topic 'mdb.t': no broker client\n"), 1);
}

TEST_F(Publisher, SerializedSceneEnvelopeIsByteExact) {
    connect_with_channel(0);
    RadarScene::SerializeFrameOptions boxes;
    boxes.bounding_box = true;
    add("mdb.scene", SerializedScene, boxes);
    RadarScene::Frame frame;  // time 0: the scene is the two bytes 08 00
    publishToTopic(publisher, *publisher.topics[0], frame, 0, classes, timespec{5, 123});
    RadarScene::FrameObject o;
    o.set_bounding_box({1, 2, 3, 4});
    frame.objects.push_back(o);
    publishToTopic(publisher, *publisher.topics[0], frame, 0, classes, timespec{-1, 999999999});

    auto items = varro_fake::written();
    ASSERT_EQ(items.size(), 2u);
    EXPECT_EQ(items[0].topic, "mdb.scene");
    EXPECT_EQ(items[0].json,
              R"({"data":"CAA=","source":"1","timestamp":{"tv_nsec":123,"tv_sec":5}})");
    std::string scene;
    RadarScene::serializeFrame(scene, frame, boxes);
    EXPECT_EQ(items[1].json,
              R"({"data":")" + b64(scene) +
                  R"(","source":"1","timestamp":{"tv_nsec":999999999,"tv_sec":-1}})");
    EXPECT_EQ(varro_fake::calls().back(), "WriteData(mdb.scene,-)");
}

TEST_F(Publisher, PublishReachesTopicsOfThePushedChannelOnly) {
    connect_with_channel(-1);
    add("mdb.early", SerializedScene);  // no channel yet: source "0"
    channel = 0;
    add("mdb.scene", SerializedScene);
    add("mdb.scene", SerializedScene);
    EXPECT_EQ(publisher.topics[0]->source, "0");

    push(0, RadarScene::Frame{});
    push(1, RadarScene::Frame{});
    auto items = varro_fake::written();
    ASSERT_EQ(items.size(), 2u);  // both registrations of mdb.scene, once each
    EXPECT_EQ(items[0].topic, "mdb.scene");
    EXPECT_EQ(items[0].json, items[1].json);  // one clock reading per push
}

TEST_F(Publisher, FailedWriteSkipsOnlyThatTopic) {
    connect_with_channel(0);
    add("mdb.a", SerializedScene);
    add("mdb.b", SerializedScene);
    StderrCapture log;
    varro_fake::fail("WriteData", ApiErrorCode::Timeout, "queue full");
    push(0, RadarScene::Frame{});
    EXPECT_EQ(log.count("<3>Failed to write data to topic 'mdb.a': queue full\n"), 1);
    auto items = varro_fake::written();
    ASSERT_EQ(items.size(), 1u);
    EXPECT_EQ(items[0].topic, "mdb.b");
}

TEST_F(Publisher, ZrfDocumentsCarryTheFrameAsAnalytics) {
    install_device(0, 0, 0, true);
    connect_with_channel(0);
    classes = {{1, "Human"}, {2, "Forklift"}};
    add("mdb.zrf", ZrfDocument);
    add("v1", ZrfV1Document);

    RadarScene::Frame frame;
    frame.time = 1;
    RadarScene::FrameObject person;
    person.id = 12;
    person.set_bounding_box({1, 2, 3, 4});
    person.set_position({100, 0, 1.5});
    person.set_velocity3d({1, 2, 3});
    person.set_classifications({{2, 0.25}, {1, 0.75}});
    RadarScene::FrameObject forklift;
    forklift.id = 13;
    forklift.set_classifications({{2, std::nullopt}});
    RadarScene::FrameObject pinned;
    pinned.id = 14;
    pinned.set_geoposition({7.5, 1, 2});
    frame.objects = {person, forklift, pinned};
    push(0, frame, 1ul << 2);  // drops the forklift

    auto items = varro_fake::written();
    ASSERT_EQ(items.size(), 2u);
    json envelope = json::parse(items[0].json);
    EXPECT_EQ(envelope["source"], "1");
    ASSERT_TRUE(envelope.contains("timestamp"));
    // The base64 text decodes back to the document; check it through a re-encode.
    std::string zrf_text;
    convert_frame_to_zrf(zrf_text, frame, classes, 1ul << 2);
    json zrf = json::parse(zrf_text);
    EXPECT_EQ(envelope["data"].get<std::string>().size(), b64(zrf_text).size());
    EXPECT_EQ(zrf["consolidated"]["tracks"], json::array());
    ASSERT_EQ(zrf["frame"]["observations"].size(), 2u);
    json obs = zrf["frame"]["observations"][0];
    EXPECT_EQ(obs["track_id"], "12");
    EXPECT_EQ(obs["class"], (json{{"type", "Human"}, {"score", 0.75}}));
    EXPECT_EQ(obs["classes"][0], (json{{"type", "ObjectClass"}, {"score", 0.25}}));
    EXPECT_EQ(obs["bounding_box"], (json{{"left", 1}, {"top", 6}, {"right", 4}, {"bottom", 2}}));
    EXPECT_EQ(obs["world_position"], (json{{"x", 100}, {"y", 0}, {"z", 1.5}}));
    EXPECT_EQ(obs["world_velocity"], (json{{"x", 1}, {"y", 2}, {"z", 3}}));
    // A projected position has no elevation; a stored one keeps its own.
    EXPECT_EQ(obs["geoposition"].size(), 2u);
    EXPECT_NEAR(obs["geoposition"]["latitude"].get<double>(), 100 * 9.028652746944714e-06, 1e-15);
    EXPECT_EQ(zrf["frame"]["observations"][1]["geoposition"],
              (json{{"latitude", 1}, {"longitude", 2}, {"elevation", 7.5}}));
    EXPECT_FALSE(obs.contains("velocity"));
    EXPECT_EQ(obs["timestamp"], zrf["frame"]["timestamp"]);

    json plain = json::parse(items[1].json);
    EXPECT_EQ(plain.size(), 2u);  // source and data, no timestamp
    EXPECT_EQ(plain["source"], "1");
    json v1 = json::parse(plain["data"].get<std::string>());
    EXPECT_EQ(v1["channel_id"], 1);
    ASSERT_EQ(v1["detections"].size(), 2u);
    json det = v1["detections"][0];
    EXPECT_EQ(det["object_track_id"], "12");
    EXPECT_EQ(det["class"], "Human");
    EXPECT_EQ(det["world_position"], (json{{"distance", 100}, {"azimuth", 0}, {"elevation", 1.5}}));
    EXPECT_FALSE(v1.contains("track_events"));
    EXPECT_TRUE(items[1].json.find(' ') == std::string::npos);

    std::string empty;
    convert_frame_to_zrf_v1(empty, RadarScene::Frame{}, 1, {}, 0);
    EXPECT_FALSE(json::parse(empty).contains("detections"));
}

TEST(Zrf, EnumerationTextsAndTimestamps) {
    EXPECT_EQ(object_class_type_from_name("Vehicle"), ObjectClassType::Vehicle);
    EXPECT_EQ(object_class_type_from_name("vehicle"), ObjectClassType::ObjectClass);
    try {
        to_string(static_cast<ObjectClassType>(9));
        FAIL();
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "Unexpected value in enumeration \"ObjectClassType\": 9");
    }
    // A frame stamped now on the steady clock is now on the wall clock.
    timespec steady;
    clock_gettime(CLOCK_MONOTONIC, &steady);
    uint64_t now_ns = static_cast<uint64_t>(steady.tv_sec) * 1'000'000'000u +
                      static_cast<uint64_t>(steady.tv_nsec);
    std::string text = frame_wall_time(now_ns);
    time_t wall = time(nullptr);
    char expected_prefix[32];
    strftime(expected_prefix, sizeof(expected_prefix), "%FT%H:%M", gmtime(&wall));
    EXPECT_EQ(text.substr(0, 16), std::string(expected_prefix));
    EXPECT_EQ(text.size(), 29u);  // YYYY-MM-DDTHH:MM:SS.nnnnnnnnn
    // Times at the ends of the range saturate instead of overflowing.
    EXPECT_EQ(frame_wall_time(uint64_t{1} << 63).substr(0, 4), "2262");
    EXPECT_EQ(frame_wall_time((uint64_t{1} << 63) - 1).substr(0, 4), "2262");
}
