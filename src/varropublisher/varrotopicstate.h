#pragma once

#include <radarscene/RadarScene.h>
#include <tessel_os_varro/varro.h>

#include <cstdint>
#include <memory>
#include <string>

namespace SceneProvider {

enum VarroTopicKind : int32_t {
    SerializedScene = 0,  // protobuf scene, base64 in an envelope
    ZrfDocument = 1,      // ZRF JSON, base64 in an envelope
    ZrfV1Document = 2,    // ZRF v1 JSON as plain text, no timestamp
};

// One registered broker topic. `source` is the decimal text of the provider's
// channel + 1 at registration; frames of that channel are published here.
class VarroTopicState {
public:
    std::shared_ptr<tessel_os_varro::TopicDataWriter> writer;
    std::string topicName;
    VarroTopicKind kind = SerializedScene;
    std::string source;
    RadarScene::SerializeFrameOptions options;
};

}  // namespace SceneProvider
