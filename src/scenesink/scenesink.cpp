#include "scenesink/scenesink.h"

#include "common/rs_assert.h"
#include "scenesender/scenesender.h"

#include <pthread.h>
#include <sched.h>

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

// The frame's scene, encoded into the storage of the pending scene it is
// about to replace, or of the spare, so that a producer running ahead of the
// sending thread needs no more memory. Runs without a lock: pushes to one
// sink are serialised by its channel.
std::unique_ptr<scene_encoding_t> encode(scene_sink_t& sink, const RadarScene::Frame& frame,
                                         unsigned long raw_mask) {
    std::unique_ptr<scene_encoding_t> encoding;
    {
        std::lock_guard lock(sink.frame_mutex);
        encoding = std::move(sink.pending ? sink.pending : sink.spare);
    }
    if (!encoding) {
        encoding = std::make_unique<scene_encoding_t>();
    }
    scene_encoding_fill(*encoding, frame, static_cast<uint32_t>(raw_mask),
                        sink.sender->wanted_parts);
    return encoding;
}

// Puts `encoding` into the pending slot; the caller holds frame_mutex. A
// scene it replaces becomes the spare.
void set_pending(scene_sink_t& sink, std::unique_ptr<scene_encoding_t> encoding) {
    std::swap(sink.pending, encoding);
    if (encoding && !sink.spare) {
        sink.spare = std::move(encoding);
    }
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
    std::unique_ptr<scene_encoding_t> encoding = encode(sink, frame, raw_mask);
    {
        std::lock_guard lock(sink.frame_mutex);
        set_pending(sink, std::move(encoding));
    }
    post(sink.frame_ready);
}

void scene_sink_try_push(scene_sink_t& sink, const RadarScene::Frame& frame,
                         unsigned long raw_mask) {
    if (!sink.run_thread) {
        return;
    }
    std::unique_ptr<scene_encoding_t> encoding = encode(sink, frame, raw_mask);
    bool got_slot;
    {
        // Without a free slot the other tokens are with the worker or in
        // frame_ready, so at least one more round takes the pending frame
        // after this: taking needs frame_mutex, held here from the check on.
        std::lock_guard lock(sink.frame_mutex);
        got_slot = sem_trywait(&sink.slot_free) == 0;
        set_pending(sink, std::move(encoding));
    }
    if (got_slot) {
        post(sink.frame_ready);
    }
}

void sink_thread_main(scene_sink_t& sink) {
    // A batch thread never preempts the thread that wakes it, so the
    // producer's push returns at once instead of waiting out a send that
    // the scheduler started on its processor.
    sched_param param{};
    pthread_setschedparam(pthread_self(), SCHED_BATCH, &param);
    while (sink.run_thread) {
        wait(sink.frame_ready);
        std::unique_ptr<scene_encoding_t> encoding;
        {
            std::lock_guard lock(sink.frame_mutex);
            encoding = std::move(sink.pending);
        }
        if (encoding) {
            // The encoding is kept as the spare as soon as the scenes are
            // assembled, so a push during the writes reuses its storage.
            scene_sender_send(*sink.sender, *encoding, [&] {
                scene_encoding_trim(*encoding);
                std::lock_guard lock(sink.frame_mutex);
                if (!sink.spare) {
                    sink.spare = std::move(encoding);
                }
            });
            encoding.reset();
        }
        post(sink.slot_free);
    }
}
