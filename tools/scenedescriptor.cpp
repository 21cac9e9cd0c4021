#include "scenedescriptor.h"

#include <radarscene/scene.pb.h>

#include <google/protobuf/descriptor.pb.h>

std::string scene_descriptor_set() {
    google::protobuf::FileDescriptorSet set;
    RadarScene::Scene::descriptor()->file()->CopyTo(set.add_file());
    return set.SerializeAsString();
}
