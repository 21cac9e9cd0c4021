// Reads raw and MCAP recordings scene by scene, holding a chunk or two of
// the file whatever its length.

#include "recording.h"

#include "mcapreader.h"

#include <radarscene/RadarScene.h>
#include <radarscene/scene.pb.h>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <stdexcept>

namespace {

// True unless decoding the scene would trip one of the library's
// invariants: a 2-D velocity, a position without z, an empty label list,
// or an id that does not fit the frame's signed id.
bool decodable(const RadarScene::Scene& scene) {
    for (const RadarScene::Object& o : scene.objects()) {
        if (!o.has_id()) {
            continue;
        }
        if ((o.has_velocity() && (o.has_velocity3d() || !o.velocity().has_vz())) ||
            (o.has_position() && !o.position().has_z()) ||
            (o.has_labels() && o.labels().labels_size() == 0) || o.id() > INT32_MAX) {
            return false;
        }
    }
    return true;
}

// The records as the socket carried them: a length that counts itself, then
// the scene, whose own time is when it was recorded.
class RawRecording : public Recording {
public:
    RawRecording(const std::string& path, int fd) : path_(path), fd_(fd) {}
    ~RawRecording() override { close(fd_); }

    bool next(recorded_scene_t& out) override {
        while ((end_ = RadarScene::readSceneRecord(fd_, out.payload)) > 0) {
            if (scene_.ParseFromString(out.payload) && decodable(scene_)) {
                out.time = scene_.time();
                return true;
            }
            ++skipped;
        }
        return false;
    }

    void rewind() override {
        if (lseek(fd_, 0, SEEK_SET) < 0) {
            throw std::runtime_error("cannot read " + path_ + ": " + strerror(errno));
        }
    }

    void tell() const override {
        if (end_ < 0) {
            fprintf(stderr, "radarscene-replay: %s: recording ends in a broken record (%s)\n",
                    path_.c_str(), strerror(-end_));
        }
    }

    std::string nothing() const override { return path_ + " holds no scene that can be replayed"; }

private:
    std::string path_;
    int fd_;
    int end_ = 0;
    RadarScene::Scene scene_;
};

// The RadarScene.Scene messages in protobuf of one radar channel, with
// their log times, in the window chosen.
class McapRecording : public Recording {
public:
    McapRecording(const std::string& path, const recording_choice_t& choice)
        : path_(path), reader_(path), choice_(choice) {
        channel = choice.channel;
        reader_.window(static_cast<uint64_t>(choice.start * 1e9),
                       choice.end < 0 ? UINT64_MAX : static_cast<uint64_t>(choice.end * 1e9));
    }

    bool next(recorded_scene_t& out) override {
        mcap_message_t m;
        while (reader_.next(m)) {
            if (!wanted(m.channel_id)) {
                ++other_;
                continue;
            }
            out.payload.assign(m.data);
            if (scene_.ParseFromString(out.payload) && decodable(scene_)) {
                out.time = m.log_time;
                ++scenes_;
                return true;
            }
            ++skipped;
        }
        return false;
    }

    void rewind() override {
        reader_.rewind();
        scenes_ = other_ = 0;
    }

    void tell() const override {
        const mcap_read_report_t& report = reader_.report();
        if (!report.finished) {
            fprintf(stderr,
                    "radarscene-replay: %s is not finished: recovered %llu scenes from %zu whole "
                    "chunks, the rest is cut off at byte %llu\n",
                    path_.c_str(), static_cast<unsigned long long>(scenes_), report.chunks,
                    static_cast<unsigned long long>(report.cut_at));
        }
        if (report.bad_records || other_) {
            std::string first =
                report.first_problem.empty() ? "" : " (the first: " + report.first_problem + ")";
            fprintf(stderr,
                    "radarscene-replay: %s: skipped %zu records that failed their checks and "
                    "%llu messages of other channels or schemas%s\n",
                    path_.c_str(), report.bad_records, static_cast<unsigned long long>(other_),
                    first.c_str());
        }
    }

    std::string nothing() const override {
        uint64_t start = reader_.startTime();
        uint64_t last = reader_.report().last_time;
        if (choice_.start > 0 && last < start + static_cast<uint64_t>(choice_.start * 1e9)) {
            char line[160];
            snprintf(line, sizeof(line), ": --start %.3f s is past its end, %.3f s after its start",
                     choice_.start, static_cast<double>(last - start) / 1e9);
            return path_ + line;
        }
        if (choice_.start > 0 || choice_.end >= 0) {
            return path_ + " holds no scene between --start and --end that can be replayed";
        }
        return path_ + " holds no RadarScene.Scene message in protobuf" +
               (channel >= 0 ? " of channel " + std::to_string(channel) : "") +
               " that can be replayed";
    }

private:
    // Whether the channel carries scenes of the radar channel replayed; the
    // first such channel chooses it when none was given.
    bool wanted(uint16_t id) {
        auto c = reader_.channels().find(id);
        if (c == reader_.channels().end()) {
            return false;
        }
        auto schema = reader_.schemas().find(c->second.schema_id);
        if (schema == reader_.schemas().end() || schema->second.name != "RadarScene.Scene" ||
            schema->second.encoding != "protobuf" || c->second.message_encoding != "protobuf") {
            return false;
        }
        int radar = std::max(radar_channel(c->second), 0);
        if (channel < 0) {
            channel = radar;
        }
        return radar == channel;
    }

    // The radar channel from the topic "/radar/<channel>/scene" or the
    // metadata; -1 when it names none.
    static int radar_channel(const mcap_channel_t& c) {
        int number = -1;
        if (sscanf(c.topic.c_str(), "/radar/%d/scene", &number) == 1) {
            return number;
        }
        auto it = c.metadata.find("channel");
        return it != c.metadata.end() ? atoi(it->second.c_str()) : -1;
    }

    std::string path_;
    McapReader reader_;
    recording_choice_t choice_;
    uint64_t scenes_ = 0, other_ = 0;
    RadarScene::Scene scene_;
};

}  // namespace

std::unique_ptr<Recording> open_recording(const std::string& path,
                                          const recording_choice_t& choice) {
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        throw std::runtime_error("cannot open " + path + ": " + strerror(errno));
    }
    char magic[MCAP_MAGIC.size()];
    if (pread(fd, magic, sizeof(magic), 0) == static_cast<ssize_t>(sizeof(magic)) &&
        std::string_view(magic, sizeof(magic)) == MCAP_MAGIC) {
        close(fd);
        return std::make_unique<McapRecording>(path, choice);
    }
    return std::make_unique<RawRecording>(path, fd);
}
