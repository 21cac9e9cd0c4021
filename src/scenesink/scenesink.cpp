#include "scenesink/scenesink.h"

#include "common/rs_assert.h"
#include "scenesender/scenesender.h"

#include <cerrno>

namespace {

void wait(sem_t& semaphore) {
    while (sem_wait(&semaphore) < 0) {
        RS_ASSERT(errno == EINTR);
    }
}

void post(sem_t& semaphore) {
    RS_ASSERT(sem_post(&semaphore) == 0);
}

// Puts a copy of the frame into the pending slot; the caller holds
// frame_mutex. Copying into a frame that already has storage (the one still
// pending, or the one the worker handed back) reuses its vectors.
void set_pending(scene_sink_t& sink, const RadarScene::Frame& frame, unsigned long raw_mask) {
    if (!sink.pending_frame) {
        sink.pending_frame =
            sink.spare_frame ? std::move(sink.spare_frame) : std::make_unique<RadarScene::Frame>();
    }
    *sink.pending_frame = frame;
    sink.pending_raw_mask = raw_mask;
}

}  // namespace

std::unique_ptr<scene_sink_t> scene_sink_create(scene_sender_t* sender) {
    RS_ASSERT(sender);
    auto sink = std::make_unique<scene_sink_t>();
    sink->sender = sender;
    sem_init(&sink->slot_free, 0, 1);
    sem_init(&sink->frame_ready, 0, 1);
    return sink;
}

scene_sink_t::~scene_sink_t() {
    if (state == SINK_STATE_RUNNING) {
        scene_sink_stop(*this);
    }
    sem_destroy(&slot_free);
    sem_destroy(&frame_ready);
}

void scene_sink_start(scene_sink_t& sink) {
    std::lock_guard lock(sink.state_mutex);
    RS_ASSERT(sink.state != SINK_STATE_RUNNING && "Sink is already started.");
    RS_ASSERT(!sink.run_thread);
    RS_ASSERT(!sink.sink_thread.joinable());
    sink.run_thread = true;
    post(sink.slot_free);
    sink.sink_thread = std::thread(sink_thread_main, std::ref(sink));
    sink.state = SINK_STATE_RUNNING;
}

void scene_sink_stop(scene_sink_t& sink) {
    std::lock_guard lock(sink.state_mutex);
    RS_ASSERT(sink.state == SINK_STATE_RUNNING && "Sink is already stopped.");
    RS_ASSERT(sink.run_thread);
    RS_ASSERT(sink.sink_thread.joinable());
    RS_ASSERT(std::this_thread::get_id() != sink.sink_thread.get_id());
    sink.run_thread = false;
    post(sink.slot_free);
    post(sink.frame_ready);
    sink.sink_thread.join();
    sink.state = SINK_STATE_STOPPED;
}

void scene_sink_push(scene_sink_t& sink, const RadarScene::Frame& frame, unsigned long raw_mask) {
    if (!sink.run_thread) {
        return;
    }
    wait(sink.slot_free);
    {
        std::lock_guard lock(sink.frame_mutex);
        set_pending(sink, frame, raw_mask);
    }
    post(sink.frame_ready);
}

void scene_sink_try_push(scene_sink_t& sink, const RadarScene::Frame& frame,
                         unsigned long raw_mask) {
    if (!sink.run_thread) {
        return;
    }
    bool got_slot;
    {
        // Without a free slot the other tokens are with the worker or in
        // frame_ready, so at least one more round takes the pending frame
        // after this: taking needs frame_mutex, held here from the check on.
        std::lock_guard lock(sink.frame_mutex);
        got_slot = sem_trywait(&sink.slot_free) == 0;
        set_pending(sink, frame, raw_mask);
    }
    if (got_slot) {
        post(sink.frame_ready);
    }
}

void sink_thread_main(scene_sink_t& sink) {
    while (sink.run_thread) {
        wait(sink.frame_ready);
        std::unique_ptr<RadarScene::Frame> frame;
        unsigned long raw_mask;
        {
            std::lock_guard lock(sink.frame_mutex);
            frame = std::move(sink.pending_frame);
            raw_mask = sink.pending_raw_mask;
        }
        if (frame) {
            scene_sender_send(*sink.sender, *frame, raw_mask);
            std::lock_guard lock(sink.frame_mutex);
            sink.spare_frame = std::move(frame);
        }
        post(sink.slot_free);
    }
}
