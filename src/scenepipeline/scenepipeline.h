#pragma once

#include "scenesink/scenesink.h"

#include <memory>

enum pipeline_state_t : int32_t {
    PIPELINE_STATE_STOPPED = 0,
    PIPELINE_STATE_RUNNING = 1,
};

// The running delivery path of a channel that has subscribers. Not locked:
// the channel's mutex serialises every call.
struct scene_pipeline_t {
    ~scene_pipeline_t();

    pipeline_state_t state = PIPELINE_STATE_STOPPED;
    std::unique_ptr<scene_sink_t> scene_sink;
};

std::unique_ptr<scene_pipeline_t> scene_pipeline_create(scene_sender_t* sender);
void scene_pipeline_start(scene_pipeline_t& pipeline);
void scene_pipeline_stop(scene_pipeline_t& pipeline);
// Tells the sink's worker to stop and returns at once; scene_pipeline_stop
// then joins it, at once when scene_pipeline_finished says so.
void scene_pipeline_retire(scene_pipeline_t& pipeline);
bool scene_pipeline_finished(const scene_pipeline_t& pipeline);
void scene_pipeline_push(scene_pipeline_t& pipeline, const RadarScene::Frame& frame,
                         unsigned long raw_mask);
void scene_pipeline_try_push(scene_pipeline_t& pipeline, const RadarScene::Frame& frame,
                             unsigned long raw_mask);
