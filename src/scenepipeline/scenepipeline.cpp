#include "scenepipeline/scenepipeline.h"

#include "common/rs_assert.h"

std::unique_ptr<scene_pipeline_t> scene_pipeline_create(scene_sender_t* sender) {
    auto pipeline = std::make_unique<scene_pipeline_t>();
    pipeline->scene_sink = scene_sink_create(sender);
    return pipeline;
}

scene_pipeline_t::~scene_pipeline_t() {
    RS_ASSERT(state != PIPELINE_STATE_RUNNING && "Pipeline cannot be destroyed while started!");
}

void scene_pipeline_start(scene_pipeline_t& pipeline) {
    RS_ASSERT(pipeline.scene_sink);
    RS_ASSERT(pipeline.state != PIPELINE_STATE_RUNNING && "Pipeline is already started!");
    scene_sink_start(*pipeline.scene_sink);
    pipeline.state = PIPELINE_STATE_RUNNING;
}

void scene_pipeline_stop(scene_pipeline_t& pipeline) {
    RS_ASSERT(pipeline.state == PIPELINE_STATE_RUNNING && "Pipeline is already stopped!");
    if (pipeline.scene_sink) {
        scene_sink_stop(*pipeline.scene_sink);
    }
    pipeline.state = PIPELINE_STATE_STOPPED;
}

void scene_pipeline_retire(scene_pipeline_t& pipeline) {
    RS_ASSERT(pipeline.state == PIPELINE_STATE_RUNNING && "Pipeline is already stopped!");
    if (pipeline.scene_sink) {
        scene_sink_request_stop(*pipeline.scene_sink);
    }
}

bool scene_pipeline_finished(const scene_pipeline_t& pipeline) {
    return !pipeline.scene_sink || scene_sink_finished(*pipeline.scene_sink);
}

void scene_pipeline_push(scene_pipeline_t& pipeline, const RadarScene::Frame& frame,
                         unsigned long raw_mask) {
    if (pipeline.scene_sink) {
        scene_sink_push(*pipeline.scene_sink, frame, raw_mask);
    }
}

void scene_pipeline_try_push(scene_pipeline_t& pipeline, const RadarScene::Frame& frame,
                             unsigned long raw_mask) {
    if (pipeline.scene_sink) {
        scene_sink_try_push(*pipeline.scene_sink, frame, raw_mask);
    }
}
