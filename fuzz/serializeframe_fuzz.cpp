// Draws a frame and options from the input and checks that serializeFrame,
// the scene the sending thread assembles from the frame's encoding, and the
// encoding itself where it is the scene, are exactly the bytes of
// serializing the message that convert_frame_to_scene builds; any
// difference aborts as a finding.

#include "sceneencoding/sceneencoding.h"
#include "serializescene/serializescene.h"
#include "support/randomframe.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    size_t at = 0;
    // The input's words, then zeros once it runs out.
    word_source next = [&] {
        uint32_t word = 0;
        size_t take = std::min(sizeof(word), size - at);
        std::memcpy(&word, data + at, take);
        at += take;
        return word;
    };
    RadarScene::Frame frame = random_frame(next);
    RadarScene::SerializeFrameOptions options = random_options(next);
    RadarScene::Scene scene;
    convert_frame_to_scene(scene, frame, options);
    std::string expected;
    scene.SerializeToString(&expected);
    std::string written;
    RadarScene::serializeFrame(written, frame, options);
    scene_encoding_t encoding;
    scene_encoding_fill(encoding, frame, options.filtered_classes,
                        next() | object_parts_for(options));
    std::string assembled;
    scene_encoding_assemble(assembled, encoding, options);
    if (written != expected || assembled != expected ||
        (scene_encoding_is_scene(encoding, options) && encoding.bytes != expected)) {
        abort();
    }
    return 0;
}
