#pragma once

#include <string>

// The schema that readers decode the scenes with: a serialized
// FileDescriptorSet of scene.proto, as compiled into the library.
std::string scene_descriptor_set();
