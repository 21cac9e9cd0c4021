#include "recorder.h"

#include "scenedescriptor.h"

#include <arpa/inet.h>

#include <strings.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <fstream>
#include <stdexcept>

namespace {

// The records as the socket carried them: a length that counts itself,
// then the scene.
class RawRecorder : public Recorder {
public:
    explicit RawRecorder(const std::string& path)
        : path_(path), out_(path, std::ios::binary | std::ios::trunc) {
        if (!out_) {
            throw std::runtime_error("cannot write " + path + ": " + strerror(errno));
        }
    }

    void add(const std::string& payload, uint64_t) override {
        uint32_t header = htonl(static_cast<uint32_t>(payload.size() + 4));
        out_.write(reinterpret_cast<const char*>(&header), sizeof(header));
        out_.write(payload.data(), static_cast<std::streamsize>(payload.size()));
        ++scenes;
    }

    void finish() override {
        if (!out_.flush()) {
            throw std::runtime_error("cannot write " + path_);
        }
    }

private:
    std::string path_;
    std::ofstream out_;
};

uint64_t wall_clock_ns() {
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1'000'000'000u + static_cast<uint64_t>(now.tv_nsec);
}

// One channel "/radar/<channel>/scene" whose metadata names the
// subscription's options; log time is the time of reception on the wall
// clock, publish time the scene's own.
class McapRecorder : public Recorder {
public:
    explicit McapRecorder(const recording_options_t& options)
        : writer_(options.path, "radarscene " RADARSCENE_VERSION " (radarscene-sub)",
                  options.mcap) {
        uint16_t schema = writer_.addSchema("RadarScene.Scene", "protobuf", scene_descriptor_set());
        std::map<std::string, std::string> metadata{{"channel", std::to_string(options.channel)}};
        for (const auto& [key, value] : options.features) {
            metadata[key] = value ? "true" : "false";
        }
        channel_ = writer_.addChannel(
            schema, "/radar/" + std::to_string(options.channel) + "/scene", "protobuf", metadata);
    }

    void add(const std::string& payload, uint64_t scene_time) override {
        writer_.write(
            {channel_, static_cast<uint32_t>(scenes), wall_clock_ns(), scene_time, payload});
        ++scenes;
    }

    void tick() override { writer_.tick(wall_clock_ns()); }

    void finish() override { writer_.finish(); }

private:
    McapWriter writer_;
    uint16_t channel_ = 0;
};

}  // namespace

std::unique_ptr<Recorder> open_recorder(const recording_options_t& options) {
    const std::string& path = options.path;
    if (path.size() >= 5 && strcasecmp(path.c_str() + path.size() - 5, ".mcap") == 0) {
        return std::make_unique<McapRecorder>(options);
    }
    return std::make_unique<RawRecorder>(options.path);
}
