// Reads raw and MCAP recordings scene by scene in the order they are
// replayed, holding a few chunks of the file whatever its length.

#include "recording.h"

#include "mcapreader.h"
#include "scenechannel.h"

#include <radarscene/RadarScene.h>
#include <radarscene/scene.pb.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <stdexcept>

namespace {

// The records as the socket carried them: a length that counts itself, then
// the scene, whose own time is when it was recorded.
class RawRecording : public Recording {
public:
    RawRecording(const std::string& path, int fd) : path_(path), fd_(fd) {}
    ~RawRecording() override { close(fd_); }

    bool next(recorded_scene_t& out) override {
        while ((end_ = RadarScene::readSceneRecord(fd_, out.payload)) > 0) {
            if (scene_.ParseFromString(out.payload) && RadarScene::isDeserializable(scene_)) {
                out.time = scene_.time();
                return true;
            }
            ++undecodable_;
        }
        return false;
    }

    void rewind() override {
        undecodable_ = 0;
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

    std::string nothing() const override {
        return path_ + " holds no scene that can be replayed" +
               (end_ < 0 ? std::string(" (it ends in a broken record: ") + strerror(-end_) + ")"
                         : "");
    }

    std::vector<std::pair<std::string, uint64_t>> skips() const override {
        if (!undecodable_) {
            return {};
        }
        return {{"undecodable", undecodable_}};
    }

private:
    std::string path_;
    int fd_;
    int end_ = 0;
    uint64_t undecodable_ = 0;
    RadarScene::Scene scene_;
};

// The RadarScene.Scene messages in protobuf of one scene channel, with
// their log times, in log-time order, in the window chosen.
class McapRecording : public Recording {
public:
    McapRecording(const std::string& path, const recording_choice_t& choice)
        : path_(path), reader_(path, {choice.max_open_chunks}), choice_(choice) {
        reader_.window(static_cast<uint64_t>(choice.start * 1e9),
                       choice.end < 0 ? UINT64_MAX : static_cast<uint64_t>(choice.end * 1e9));
        channels_ = scene_channels(reader_);
        chosen_ = scene_channel_choose(channels_, {choice.topic, choice.channel}, path);
        if (chosen_) {
            reader_.select(chosen_->id);
        }
        channel = choice.channel >= 0              ? choice.channel
                  : chosen_ && chosen_->radar >= 0 ? chosen_->radar
                                                   : 0;
    }

    bool next(recorded_scene_t& out) override {
        mcap_message_t m;
        try {
            while (chosen_ && reader_.next(m)) {
                out.payload.assign(m.data);
                if (scene_.ParseFromString(out.payload) && RadarScene::isDeserializable(scene_)) {
                    out.time = m.log_time;
                    ++scenes_;
                    return true;
                }
                ++undecodable_;
            }
        } catch (const mcap_overlap_error& e) {
            throw std::runtime_error(std::string(e.what()) +
                                     "; --max-open-chunks N reads more at once");
        }
        return false;
    }

    void rewind() override {
        reader_.rewind();
        scenes_ = undecodable_ = 0;
    }

    void tell() const override {
        const mcap_read_report_t& report = reader_.report();
        const char* path = path_.c_str();
        if (!report.finished) {
            fprintf(stderr,
                    "radarscene-replay: %s is not finished: recovered %llu scenes from %zu whole "
                    "chunks, the rest is cut off at byte %llu\n",
                    path, static_cast<unsigned long long>(scenes_), report.chunks,
                    static_cast<unsigned long long>(report.cut_at));
        }
        if (!report.damage.empty()) {
            fprintf(stderr, "radarscene-replay: %s: %s\n", path, report.damage.c_str());
        }
        if (report.bad_records) {
            fprintf(stderr,
                    "radarscene-replay: %s: skipped %zu records that failed their checks (the "
                    "first: %s)\n",
                    path, report.bad_records, report.first_problem.c_str());
        }
        size_t listed = 0, unlisted = 0;
        for (const scene_channel_t& c : channels_) {
            if (&c == chosen_ || c.messages == 0) {
                continue;
            }
            if (listed++ < MAX_LISTED) {
                fprintf(stderr, "radarscene-replay: %s: not replayed: %llu scenes of %s\n", path,
                        static_cast<unsigned long long>(c.messages),
                        scene_channel_describe(c).c_str());
            } else {
                ++unlisted;
            }
        }
        if (unlisted) {
            fprintf(stderr, "radarscene-replay: %s: not replayed: %zu more scene channels\n", path,
                    unlisted);
        }
        if (uint64_t others = other_messages()) {
            fprintf(stderr,
                    "radarscene-replay: %s: not replayed: %llu messages of other schemas or "
                    "undefined channels\n",
                    path, static_cast<unsigned long long>(others));
        }
    }

    std::string nothing() const override {
        uint64_t start = reader_.startTime();
        uint64_t last = reader_.endTime();
        if (choice_.start > 0 && last < start + static_cast<uint64_t>(choice_.start * 1e9)) {
            char line[160];
            snprintf(line, sizeof(line), ": --start %.3f s is past its end, %.3f s after its start",
                     choice_.start, static_cast<double>(last - start) / 1e9);
            return path_ + line;
        }
        const mcap_read_report_t& report = reader_.report();
        std::string why =
            report.bad_records
                ? " (it has " + std::to_string(report.bad_records) +
                      " records that failed their checks; the first: " + report.first_problem + ")"
            : !report.finished ? " (it is cut off at byte " + std::to_string(report.cut_at) + ")"
                               : "";
        if (choice_.start > 0 || choice_.end >= 0) {
            return path_ + " holds no scene between --start and --end that can be replayed" + why;
        }
        return path_ + " holds no RadarScene.Scene message in protobuf" +
               (chosen_ ? " of " + scene_channel_describe(*chosen_) : "") +
               " that can be replayed" + why;
    }

    std::vector<std::pair<std::string, uint64_t>> skips() const override {
        uint64_t others = 0;
        for (const scene_channel_t& c : channels_) {
            others += &c == chosen_ ? 0 : c.messages;
        }
        std::vector<std::pair<std::string, uint64_t>> out;
        for (auto [reason, count] : {std::pair<std::string, uint64_t>{"undecodable", undecodable_},
                                     {"out of log-time order", reader_.report().out_of_order},
                                     {"of other scene channels", others}}) {
            if (count) {
                out.emplace_back(reason, count);
            }
        }
        return out;
    }

private:
    static constexpr size_t MAX_LISTED = 8;

    // Messages of channels that carry no scenes, or that no channel record
    // defines.
    uint64_t other_messages() const {
        uint64_t total = 0;
        for (const auto& [id, count] : reader_.counts()) {
            bool scene = std::any_of(channels_.begin(), channels_.end(),
                                     [id = id](const scene_channel_t& c) { return c.id == id; });
            total += scene ? 0 : count.messages;
        }
        return total;
    }

    std::string path_;
    McapReader reader_;
    recording_choice_t choice_;
    std::vector<scene_channel_t> channels_;
    const scene_channel_t* chosen_ = nullptr;
    uint64_t scenes_ = 0, undecodable_ = 0;
    RadarScene::Scene scene_;
};

}  // namespace

std::unique_ptr<Recording> open_recording(const std::string& path,
                                          const recording_choice_t& choice) {
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        throw std::runtime_error("cannot open " + path + ": " + strerror(errno));
    }
    struct stat st;
    unsigned char first = 0;
    if (fstat(fd, &st) == 0 && S_ISDIR(st.st_mode)) {
        close(fd);
        throw std::runtime_error(path + " is a directory, not a recording");
    }
    // A raw recording starts with a length word far below 0x89000000, so a
    // file that starts as MCAP's magic does is an MCAP file, whole or not.
    if (pread(fd, &first, 1, 0) == 1 && first == static_cast<unsigned char>(MCAP_MAGIC[0])) {
        close(fd);
        return std::make_unique<McapRecording>(path, choice);
    }
    if (!choice.topic.empty()) {
        close(fd);
        throw std::runtime_error(path + " holds raw records, which have no topics for --topic");
    }
    auto raw = std::make_unique<RawRecording>(path, fd);
    raw->channel = std::max(choice.channel, 0);
    return raw;
}
