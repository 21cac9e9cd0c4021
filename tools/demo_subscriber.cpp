// A subscriber for demonstrations: asks the provider for a scene stream and
// prints the frames it receives. Usage: demo_subscriber [frames]

#include <radarscene/RadarScene.h>
#include <sdbus-c++/sdbus-c++.h>

#include <arpa/inet.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>

namespace {

bool read_exactly(int fd, char* out, size_t size) {
    while (size > 0) {
        ssize_t n = read(fd, out, size);
        if (n <= 0) {
            return false;
        }
        out += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

// One record: a big-endian length that counts its own four bytes, then the scene.
bool read_scene(int fd, std::string& payload) {
    uint32_t header;
    if (!read_exactly(fd, reinterpret_cast<char*>(&header), sizeof(header))) {
        return false;
    }
    payload.resize(ntohl(header) - sizeof(header));
    return read_exactly(fd, payload.data(), payload.size());
}

void print_frame(const RadarScene::Frame& frame, const std::map<int32_t, std::string>& classes) {
    printf("frame t=%.3f s, %zu objects\n", static_cast<double>(frame.time) / 1e9,
           frame.objects.size());
    for (const auto& o : frame.objects) {
        std::string name = "?";
        if (o.has_classifications() && classes.count(o.classifications[0].id)) {
            name = classes.at(o.classifications[0].id);
        }
        printf(
            "  #%d %-8s range %5.1f m  bearing %5.1f deg  box (%.1f, %.1f) %.1fx%.1f"
            "  speed (%.2f, %.2f) m/s\n",
            o.id, name.c_str(), o.position.x, o.position.y, o.bounding_box.x, o.bounding_box.y,
            o.bounding_box.width, o.bounding_box.height, o.velocity3d.vx, o.velocity3d.vy);
    }
    fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
    int frames = argc > 1 ? atoi(argv[1]) : 20;
    auto connection = sdbus::createSystemBusConnection();
    auto provider = sdbus::createProxy(*connection, "com.tessel.RadarSceneProvider1",
                                       "/com/tessel/RadarSceneProvider1");
    std::map<std::string, bool> features{{"BOUNDINGBOX_ENABLED", true}, {"VELOCITY_ENABLED", true}};
    sdbus::UnixFd handle;
    int32_t session = -1;
    for (int attempt = 0; session < 0; ++attempt) {
        try {
            provider->callMethod("SubscribeSocket")
                .onInterface("com.tessel.RadarSceneProvider1.Scene")
                .withArguments(int32_t{3}, int32_t{0}, features)
                .storeResultsTo(handle, session);
        } catch (const sdbus::Error& e) {
            if (attempt == 50) {
                fprintf(stderr, "demo subscriber: %s\n", e.getMessage().c_str());
                return 1;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
    }

    auto channels = RadarScene::getSupportedRadarChannels();
    auto classes = RadarScene::getSupportedClasses();
    printf("subscribed as session %d to channel %d; classes:", session,
           channels.empty() ? -1 : channels[0]);
    for (const auto& [id, name] : classes) {
        printf(" %d=%s", id, name.c_str());
    }
    printf("\n");

    std::string payload;
    for (int i = 0; i < frames && read_scene(handle.get(), payload); ++i) {
        print_frame(RadarScene::deserializeFrame(payload), classes);
    }
    provider->callMethod("UnsubscribeSocket")
        .onInterface("com.tessel.RadarSceneProvider1.Scene")
        .withArguments(session);
    return 0;
}
