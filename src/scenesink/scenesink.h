#pragma once

#include "common/unique_fd.h"
#include "sceneencoding/sceneencoding.h"

#include <radarscene/RadarScene.h>

#include <semaphore.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <thread>

struct scene_sender_t;

enum sink_state_t : int32_t {
    SINK_STATE_STOPPED = 0,
    SINK_STATE_RUNNING = 1,
};

// One frame on its way from the producer to the worker. A frame whose scene
// is small is copied, and the worker encodes it: a copy is the quickest
// push. A larger one is encoded by the push itself, which keeps the memory
// it holds to about one scene instead of a copy several times that size.
struct scene_handoff_t {
    RadarScene::Frame frame;
    unsigned long raw_mask = 0;
    uint64_t seq = 0;      // the frame's number among the channel's pushes, from 1
    bool encoded = false;  // `encoding` holds the frame's scene, `frame` is unused
    // Never null. Shared with the sessions still writing its scene once it
    // is sent; the sender then gives the hand-off a new one.
    std::shared_ptr<scene_encoding_t> encoding = std::make_shared<scene_encoding_t>();
};

// Hands frames from the producer to a worker thread that sends them. The
// single pending slot holds the newest frame not yet taken: a newer push
// replaces it (counted in the sender's handoff_replaced), so slow
// subscribers never make memory grow. A push fills a hand-off of its own
// outside any lock, never the pending one, which the worker may take at any
// moment: at most three exist, the worker's, the pending one and the one
// being filled. `slot_free` lets the producer run a few pushes ahead of the
// worker before it blocks. One spare hand-off is kept for its storage.
//
// While sessions have records in progress the worker polls their sockets
// instead of waiting on `frame_ready`; it raises `polling` then, and a
// push that finds it raised writes to `wakeup` as well.
struct scene_sink_t {
    ~scene_sink_t();

    scene_sender_t* sender = nullptr;  // not owned
    sink_state_t state = SINK_STATE_STOPPED;
    std::thread sink_thread;
    std::atomic<bool> run_thread{false};
    sem_t slot_free;
    sem_t frame_ready;
    std::mutex state_mutex;  // serialises start and stop
    std::mutex frame_mutex;  // guards the two slots
    std::unique_ptr<scene_handoff_t> pending;
    std::unique_ptr<scene_handoff_t> spare;
    std::atomic<unsigned> polling{0};
    unique_fd wakeup;                      // an eventfd
    std::atomic<bool> thread_done{false};  // the worker has returned
};

std::unique_ptr<scene_sink_t> scene_sink_create(scene_sender_t* sender);
void scene_sink_start(scene_sink_t& sink);
// Tells the worker to stop without waiting for it: it sends a frame it has
// already taken and finishes the records in progress (each until it makes
// no progress for its deadline), then returns. Pushes are dropped from now.
void scene_sink_request_stop(scene_sink_t& sink);
// True once the worker of a sink told to stop has returned.
bool scene_sink_finished(const scene_sink_t& sink);
// Stops and joins the worker, as scene_sink_request_stop and then waiting.
void scene_sink_stop(scene_sink_t& sink);
// Producer side: puts the frame into the pending slot and wakes the worker.
// Drops the frame when the sink is not running.
void scene_sink_push(scene_sink_t& sink, const RadarScene::Frame& frame, unsigned long raw_mask);
// As scene_sink_push, but never waits: when the producer is already as far
// ahead as push allows, the frame just replaces the pending one, which the
// worker is then bound to take (its wake-ups are still owed).
void scene_sink_try_push(scene_sink_t& sink, const RadarScene::Frame& frame,
                         unsigned long raw_mask);
void sink_thread_main(scene_sink_t& sink);
