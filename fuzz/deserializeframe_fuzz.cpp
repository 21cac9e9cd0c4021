// Feeds arbitrary bytes to deserializeFrame. Scenes that break the
// decoder's invariants (a 2-D velocity, both velocity fields, a position
// without z) end the process by design; they are recognised beforehand and
// counted instead of decoded, so that any crash the fuzzer reports is a
// finding.

#include <radarscene/RadarScene.h>
#include <radarscene/scene.pb.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace {

size_t runs = 0;
size_t expected_aborts = 0;

bool breaks_decoder_invariants(const RadarScene::Scene& scene) {
    for (const RadarScene::Object& o : scene.objects()) {
        if (!o.has_id()) {
            continue;  // the decoder reads nothing more of such an object
        }
        if (o.has_velocity() && (o.has_velocity3d() || !o.velocity().has_vz())) {
            return true;
        }
        if (o.has_position() && !o.position().has_z()) {
            return true;
        }
    }
    return false;
}

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
    if (breaks_decoder_invariants(scene)) {
        ++expected_aborts;
        return 0;
    }
    RadarScene::deserializeFrame(std::string_view(reinterpret_cast<const char*>(data), size));
    return 0;
}
