#pragma once

// The scenes of a recording made with radarscene-sub --record, read as a
// stream in the order they are replayed: the raw records of the stream, or
// an MCAP file, told apart by the file's first bytes.

#include <cstdint>
#include <memory>
#include <string>

struct recorded_scene_t {
    std::string payload;  // a RadarScene.Scene that the library can decode
    uint64_t time = 0;    // when it was recorded, in nanoseconds
};

// Which part of an MCAP recording to replay.
struct recording_choice_t {
    int channel = -1;  // radar channel; -1: that of the first scene
    double start = 0;  // seconds after the recording's start
    double end = -1;   // seconds after its start; -1: to its end
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
    // Why a pass found no scene, naming the file.
    virtual std::string nothing() const = 0;

    int channel = 0;     // the radar channel of the scenes read
    size_t skipped = 0;  // records that cannot be decoded safely
};

// Opens the file; throws std::runtime_error naming it when it cannot.
std::unique_ptr<Recording> open_recording(const std::string& path,
                                          const recording_choice_t& choice);
