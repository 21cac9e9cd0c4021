#pragma once

// The scenes of a recording made with radarscene-sub --record, read as a
// stream in the order they are replayed: the raw records of the stream, or
// an MCAP file, told apart by the file's first bytes.

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

struct recorded_scene_t {
    std::string payload;  // a RadarScene.Scene that the library can decode
    uint64_t time = 0;    // when it was recorded, in nanoseconds
};

// Which part of an MCAP recording to replay.
struct recording_choice_t {
    int channel = -1;            // radar channel; -1: that of the first scene channel
    std::string topic;           // the MCAP channel's topic; empty: chosen by `channel`
    double start = 0;            // seconds after the recording's start
    double end = -1;             // seconds after its start; -1: to its end
    size_t max_open_chunks = 4;  // chunks overlapping in log time read at once
};

class Recording {
public:
    virtual ~Recording() = default;
    // The next scene; false at the end of the recording.
    virtual bool next(recorded_scene_t& scene) = 0;
    // Reads again from the start.
    virtual void rewind() = 0;
    // What a pass found beside the scenes, a line each on standard error.
    virtual void tell() const = 0;
    // Why a pass found no scene, in one line naming the file.
    virtual std::string nothing() const = 0;
    // The scenes of a pass that were not replayed, per reason; reasons
    // without any are left out.
    virtual std::vector<std::pair<std::string, uint64_t>> skips() const = 0;

    int channel = 0;  // the radar channel to serve
};

// Opens the file; throws std::runtime_error naming it when it cannot.
std::unique_ptr<Recording> open_recording(const std::string& path,
                                          const recording_choice_t& choice);
