#pragma once

#include "common/unique_fd.h"
#include "scenepipeline/scenepipeline.h"
#include "scenesender/scenesender.h"
#include "session/session.h"

#include <functional>
#include <memory>
#include <mutex>

// One radar channel: its sessions (the sender) and, while it has any, the
// pipeline that delivers its frames. `mutex` guards `scene_pipeline` against
// the producer's pushes; the pipeline is created and destroyed only by the
// session calls, which the channel handler serialises.
struct channel_t {
    // Stops a running pipeline before the sender its worker writes to goes.
    ~channel_t();

    std::unique_ptr<scene_pipeline_t> scene_pipeline;
    std::unique_ptr<scene_sender_t> scene_sender;
    mutable std::mutex mutex;
    std::function<void(int)> session_error_callback;
};

// The sender's broken-session reports go to the channel's callback, which
// must be set before the first session breaks.
std::unique_ptr<channel_t> channel_create();
void channel_set_error_callback(channel_t& channel, std::function<void(int)> callback);
// For the session calls only: it reads without the channel's mutex, which a
// producer blocked in push may hold for as long as a send takes.
bool has_pipeline(const channel_t& channel);
void create_and_start_pipeline(channel_t& channel);
// Adds the session, starting the pipeline for the first one. Returns the
// subscriber's end of the socket pair, or an empty descriptor.
unique_fd channel_add_session(channel_t& channel, std::unique_ptr<session_t> session);
// Removes the session; the last one stops and destroys the pipeline.
bool channel_remove_session(channel_t& channel, int id);
void channel_push(channel_t& channel, const RadarScene::Frame& frame, unsigned long raw_mask);
// As channel_push, but never waits: the frame replaces any pending one, and
// is dropped while the pipeline is being created or stopped.
void channel_try_push(channel_t& channel, const RadarScene::Frame& frame, unsigned long raw_mask);
