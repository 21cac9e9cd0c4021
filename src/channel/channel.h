#pragma once

#include "common/unique_fd.h"
#include "scenepipeline/scenepipeline.h"
#include "scenesender/scenesender.h"
#include "session/session.h"

#include <functional>
#include <memory>
#include <mutex>
#include <vector>

// One radar channel: its sessions (the sender) and, while it has any, the
// pipeline that delivers its frames. `mutex` guards `scene_pipeline` against
// the producer's pushes; the pipeline is created and destroyed only by the
// session calls, which the channel handler serialises.
//
// When the last session goes, its pipeline is told to stop and kept in
// `retiring` while its worker finishes the records in progress, so that
// neither the unsubscription nor a push waits for a subscriber; the session
// calls and the broken-session timer join the workers that have finished.
struct channel_t {
    // Stops the pipelines before the sender their workers write to goes.
    ~channel_t();

    std::unique_ptr<scene_pipeline_t> scene_pipeline;
    std::vector<std::unique_ptr<scene_pipeline_t>> retiring;
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
// Removes the session; the last one retires the pipeline.
bool channel_remove_session(channel_t& channel, int id);
// Joins and destroys the retired pipelines whose workers have finished.
void channel_reap_pipelines(channel_t& channel);
void channel_push(channel_t& channel, const RadarScene::Frame& frame, unsigned long raw_mask);
// As channel_push, but never waits: the frame replaces any pending one, and
// is dropped while the pipeline is being created or stopped.
void channel_try_push(channel_t& channel, const RadarScene::Frame& frame, unsigned long raw_mask);
