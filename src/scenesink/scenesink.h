#pragma once

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

// Hands frames from the producer to a worker thread that sends them. A push
// encodes the frame's scene (the parts the subscribers need, outside any
// lock) and puts it into the single pending slot, which holds the newest
// scene not yet taken: a newer push replaces it, so slow subscribers never
// make memory grow. `slot_free` lets the producer run a few pushes ahead of
// the worker before it blocks. One spare encoding is kept for its storage.
struct scene_sink_t {
    ~scene_sink_t();

    scene_sender_t* sender = nullptr;  // not owned
    sink_state_t state = SINK_STATE_STOPPED;
    std::thread sink_thread;
    std::atomic<bool> run_thread{false};
    sem_t slot_free;
    sem_t frame_ready;
    std::mutex state_mutex;  // serialises start and stop
    std::mutex frame_mutex;  // guards the two encoding slots
    std::unique_ptr<scene_encoding_t> pending;
    std::unique_ptr<scene_encoding_t> spare;
};

std::unique_ptr<scene_sink_t> scene_sink_create(scene_sender_t* sender);
void scene_sink_start(scene_sink_t& sink);
// Stops and joins the worker; a frame it has already taken is still sent.
void scene_sink_stop(scene_sink_t& sink);
// Producer side: encodes the frame into the pending slot and wakes the
// worker. Drops the frame when the sink is not running.
void scene_sink_push(scene_sink_t& sink, const RadarScene::Frame& frame, unsigned long raw_mask);
// As scene_sink_push, but never waits: when the producer is already as far
// ahead as push allows, the frame just replaces the pending one, which the
// worker is then bound to take (its wake-ups are still owed).
void scene_sink_try_push(scene_sink_t& sink, const RadarScene::Frame& frame,
                         unsigned long raw_mask);
void sink_thread_main(scene_sink_t& sink);
