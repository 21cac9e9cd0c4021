#pragma once

// What radarscene-sub --record writes: the records exactly as received or,
// for a file name ending in ".mcap" (in any case), an MCAP recording that
// other tools open.

#include "mcapwriter.h"

#include <cstdint>
#include <map>
#include <memory>
#include <string>

struct recording_options_t {
    std::string path;
    int channel = 0;
    std::map<std::string, bool> features;  // the subscription's options
    mcap_writer_options_t mcap;            // compression and when a chunk closes
};

class Recorder {
public:
    virtual ~Recorder() = default;
    // One scene as received, and its own time stamp; throws std::runtime_error with the reason
    // when it cannot be written.
    virtual void add(const std::string& payload, uint64_t scene_time) = 0;
    // Called at least every quarter of a second: writes out what has waited
    // for long enough.
    virtual void tick() {}
    // Completes the file; throws std::runtime_error when it cannot.
    virtual void finish() = 0;
    uint64_t scenes = 0;
};

// Whether `path` names an MCAP recording: it ends in ".mcap", in any case.
bool recording_is_mcap(const std::string& path);
// Opens the file; throws std::runtime_error when it cannot.
std::unique_ptr<Recorder> open_recorder(const recording_options_t& options);
