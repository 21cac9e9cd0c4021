#include "varropublisher/topicdefinitions.h"

namespace {

// Definitions handed to the broker when a topic does not exist yet. They are
// kept byte for byte as the broker's other clients expect them.
constexpr const char* SCENE_ENVELOPE_DEFINITION = R"json(
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

constexpr const char* PLAIN_DOCUMENT_DEFINITION = R"json(
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

constexpr const char* TOPIC_PLACEHOLDER = "@TOPIC@";

}  // namespace

std::string topic_definition(SceneProvider::VarroTopicKind kind, const std::string& topic_name) {
    std::string definition;
    switch (kind) {
        case SceneProvider::SerializedScene:
        case SceneProvider::ZrfDocument:
            definition = SCENE_ENVELOPE_DEFINITION;
            break;
        case SceneProvider::ZrfV1Document:
            definition = PLAIN_DOCUMENT_DEFINITION;
            break;
        default:
            return definition;
    }
    size_t at = definition.find(TOPIC_PLACEHOLDER);
    if (at != std::string::npos) {
        definition.replace(at, std::char_traits<char>::length(TOPIC_PLACEHOLDER), topic_name);
    }
    return definition;
}
