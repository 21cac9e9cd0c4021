// A consumer of the installed library: encodes a frame, frames it as a
// subscriber's stream would carry it, and reads it back.
#include <radarscene/RadarScene.h>
#include <radarscene/scene.pb.h>

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>

int main() {
    RadarScene::Frame frame;
    frame.time = 42;
    RadarScene::FrameObject object;
    object.id = 7;
    object.set_position({10, 20, 0});
    frame.objects.push_back(object);
    std::string bytes;
    RadarScene::serializeFrame(bytes, frame, {});

    int fds[2];
    socketpair(AF_UNIX, SOCK_STREAM, 0, fds);
    uint32_t length = htonl(static_cast<uint32_t>(bytes.size() + 4));
    (void)!write(fds[1], &length, sizeof(length));
    (void)!write(fds[1], bytes.data(), bytes.size());
    std::string payload;
    RadarScene::Scene scene;
    if (RadarScene::readSceneRecord(fds[0], payload) != 1 || !scene.ParseFromString(payload)) {
        return 1;
    }
    RadarScene::Frame back = RadarScene::deserializeFrame(payload);
    printf("time %llu, object %d at %.0f m\n", static_cast<unsigned long long>(scene.time()),
           back.objects.at(0).id, back.objects.at(0).position.x);
    return 0;
}
