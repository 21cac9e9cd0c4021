#include "recorder.h"

#include "scenedescriptor.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/uio.h>
#include <unistd.h>

#include <strings.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <stdexcept>

namespace {

// The records as the socket carried them: a length that counts itself,
// then the scene. A record that cannot be written whole (a full disk) is cut
// off again, so the file holds whole records only.
class RawRecorder : public Recorder {
public:
    explicit RawRecorder(const std::string& path)
        : path_(path), fd_(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666)) {
        if (fd_ < 0) {
            throw std::runtime_error("cannot write " + path + ": " + strerror(errno));
        }
    }
    ~RawRecorder() override { close(fd_); }

    void add(const std::string& payload, uint64_t) override {
        uint32_t header = htonl(static_cast<uint32_t>(payload.size() + 4));
        iovec iov[2] = {{&header, sizeof(header)},
                        {const_cast<char*>(payload.data()), payload.size()}};
        size_t left = sizeof(header) + payload.size();
        while (left > 0) {
            ssize_t n = writev(fd_, iov, 2);
            if (n < 0 && errno == EINTR) {
                continue;
            }
            if (n <= 0) {
                int error = n < 0 ? errno : ENOSPC;
                (void)!ftruncate(fd_, static_cast<off_t>(whole_));
                throw std::runtime_error("cannot write " + path_ + ": " + strerror(error));
            }
            left -= static_cast<size_t>(n);
            for (iovec& v : iov) {
                size_t taken = std::min(v.iov_len, static_cast<size_t>(n));
                v.iov_base = static_cast<char*>(v.iov_base) + taken;
                v.iov_len -= taken;
                n -= static_cast<ssize_t>(taken);
            }
        }
        whole_ += sizeof(header) + payload.size();
        ++scenes;
    }

    void finish() override {}

private:
    std::string path_;
    int fd_;
    uint64_t whole_ = 0;  // bytes of the records written whole
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

bool recording_is_mcap(const std::string& path) {
    return path.size() >= 5 && strcasecmp(path.c_str() + path.size() - 5, ".mcap") == 0;
}

std::unique_ptr<Recorder> open_recorder(const recording_options_t& options) {
    if (recording_is_mcap(options.path)) {
        return std::make_unique<McapRecorder>(options);
    }
    return std::make_unique<RawRecorder>(options.path);
}
