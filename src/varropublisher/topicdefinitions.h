#pragma once

#include "varropublisher/varrotopicstate.h"

#include <string>

// The JSON definition with which a topic of `kind` is created on the broker;
// empty for an unknown kind.
std::string topic_definition(SceneProvider::VarroTopicKind kind, const std::string& topic_name);
