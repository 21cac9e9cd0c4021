// Feeds arbitrary bytes to deserializeFrame. Scenes that break the
// decoder's invariants end the process by design; isDeserializable must
// recognise every one of them beforehand (they are counted instead of
// decoded), so that any crash the fuzzer reports is a finding.

#include <radarscene/RadarScene.h>
#include <radarscene/scene.pb.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace {

size_t runs = 0;
size_t expected_aborts = 0;

void report() {
    std::fprintf(stderr, "deserializeFrame: %zu inputs, %zu of them with an expected abort\n", runs,
                 expected_aborts);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (runs++ == 0) {
        std::atexit(report);
    }
    RadarScene::Scene scene;
    scene.ParseFromArray(data, static_cast<int>(size));
    if (!RadarScene::isDeserializable(scene)) {
        ++expected_aborts;
        return 0;
    }
    RadarScene::deserializeFrame(std::string_view(reinterpret_cast<const char*>(data), size));
    return 0;
}
