#include "scenesink/scenesink.h"

#include "common/rs_assert.h"
#include "scenesender/scenesender.h"

#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <sys/eventfd.h>

#include <cerrno>
#include <vector>

namespace {

void wait(sem_t& semaphore) {
    while (sem_wait(&semaphore) < 0) {
        RS_ASSERT(errno == EINTR);
    }
}

void post(sem_t& semaphore) {
    RS_ASSERT(sem_post(&semaphore) == 0);
}

// Posts a frame's wake-up, and pokes the worker when it is polling sockets.
// Both sides reach `polling` through read-modify-writes, which take turns on
// it: either the worker's raise comes first and this sees it, or this
// comes first and the worker's then sees the post.
void wake(scene_sink_t& sink) {
    post(sink.frame_ready);
    if (sink.polling.fetch_or(0, std::memory_order_acq_rel)) {
        eventfd_write(sink.wakeup.get(), 1);
    }
}

// Takes a frame's wake-up, or waits for one, for a socket in `polls` to take
// more bytes, or for `timeout_ms`. The sockets are polled even when a frame
// is there already, so that every round writes on to those that take bytes.
// True when it took a frame's wake-up.
bool wait_frame_or_sockets(scene_sink_t& sink, std::vector<pollfd>& polls, int timeout_ms) {
    bool frame = sem_trywait(&sink.frame_ready) == 0;
    if (!frame) {
        sink.polling.exchange(1, std::memory_order_acq_rel);
        frame = sem_trywait(&sink.frame_ready) == 0;
    }
    if (frame) {
        poll(polls.data(), polls.size(), 0);
    } else {
        polls.push_back({sink.wakeup.get(), POLLIN, 0});
        poll(polls.data(), polls.size(), timeout_ms);
        if (polls.back().revents) {
            eventfd_t count;
            eventfd_read(sink.wakeup.get(), &count);
        }
        polls.pop_back();
        frame = sem_trywait(&sink.frame_ready) == 0;
    }
    sink.polling.store(0, std::memory_order_relaxed);
    return frame;
}

// Frames whose scene can take more than this are encoded by the push.
constexpr size_t COPY_LIMIT_BYTES = 1 << 20;

// Copies `frame` into `copy` unless its scene can take more than
// COPY_LIMIT_BYTES. The bound is summed as the objects are copied, so that
// the frame is read once. False, with `copy` partly filled, for a frame to
// encode instead: objects are appended one by one, so a huge frame costs
// about the limit's worth of copying, not a copy of itself.
bool copy_small_frame(RadarScene::Frame& copy, const RadarScene::Frame& frame) {
    std::vector<RadarScene::FrameObject>& objects = copy.objects;
    size_t bound = 0;
    for (size_t i = 0; i < frame.objects.size(); ++i) {
        bound += object_size_bound(frame.objects[i]);
        if (bound > COPY_LIMIT_BYTES) {
            return false;
        }
        if (i < objects.size()) {
            objects[i] = frame.objects[i];
        } else {
            objects.push_back(frame.objects[i]);
        }
    }
    objects.resize(frame.objects.size());
    copy.time = frame.time;
    copy.status = frame.status;
    copy.orientation = frame.orientation;
    copy.param_changed = frame.param_changed;
    return true;
}

// The frame's hand-off, filled in the storage of the spare, never in that of
// the pending one: the worker may take that at any moment, and a producer
// that kept taking it back would leave the worker nothing to send. Runs
// without a lock: pushes to one sink are serialised by its channel.
std::unique_ptr<scene_handoff_t> hand_off(scene_sink_t& sink, const RadarScene::Frame& frame,
                                          unsigned long raw_mask, uint64_t seq) {
    std::unique_ptr<scene_handoff_t> handoff;
    {
        std::lock_guard lock(sink.frame_mutex);
        handoff = std::move(sink.spare);
    }
    if (!handoff) {
        handoff = std::make_unique<scene_handoff_t>();
    }
    handoff->seq = seq;
    handoff->encoded = !copy_small_frame(handoff->frame, frame);
    if (handoff->encoded) {
        handoff->frame = {};
        scene_encoding_fill(*handoff->encoding, frame, static_cast<uint32_t>(raw_mask),
                            sink.sender->wanted_parts);
    } else {
        handoff->raw_mask = raw_mask;
    }
    return handoff;
}

// Puts `handoff` into the pending slot; the caller holds frame_mutex. One it
// replaces is counted and becomes the spare.
void set_pending(scene_sink_t& sink, std::unique_ptr<scene_handoff_t> handoff) {
    std::swap(sink.pending, handoff);
    if (handoff) {
        sink.sender->handoff_replaced.fetch_add(1, std::memory_order_relaxed);
        if (!sink.spare) {
            sink.spare = std::move(handoff);
        }
    }
}

// The number of the frame being pushed. Sequentially consistent, as a
// subscription reads it to learn which frames are its own (see
// scene_sender_add_session).
uint64_t count_push(scene_sink_t& sink) {
    return sink.sender->frames_pushed.fetch_add(1) + 1;
}

// Worker side: sends the scene of `handoff`, encoding it first if the push
// did not, and keeps the hand-off as the spare for its storage. True while
// records are in progress.
bool send(scene_sink_t& sink, std::unique_ptr<scene_handoff_t> handoff) {
    if (!handoff->encoded) {
        scene_encoding_fill(*handoff->encoding, handoff->frame,
                            static_cast<uint32_t>(handoff->raw_mask), sink.sender->wanted_parts);
    }
    bool in_progress = scene_sender_send(*sink.sender, handoff->encoding, handoff->seq);
    scene_encoding_trim(*handoff->encoding);
    std::lock_guard lock(sink.frame_mutex);
    if (!sink.spare) {
        sink.spare = std::move(handoff);
    }
    return in_progress;
}

}  // namespace

std::unique_ptr<scene_sink_t> scene_sink_create(scene_sender_t* sender) {
    RS_ASSERT(sender);
    auto sink = std::make_unique<scene_sink_t>();
    sink->sender = sender;
    sem_init(&sink->slot_free, 0, 1);
    sem_init(&sink->frame_ready, 0, 1);
    sink->wakeup.reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    RS_ASSERT(sink->wakeup);
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
    sink.thread_done = false;
    post(sink.slot_free);
    sink.sink_thread = std::thread(sink_thread_main, std::ref(sink));
    sink.state = SINK_STATE_RUNNING;
}

void scene_sink_request_stop(scene_sink_t& sink) {
    std::lock_guard lock(sink.state_mutex);
    RS_ASSERT(sink.state == SINK_STATE_RUNNING && "Sink is already stopped.");
    if (sink.run_thread.exchange(false)) {
        post(sink.slot_free);
        wake(sink);
    }
}

bool scene_sink_finished(const scene_sink_t& sink) {
    return sink.thread_done.load();
}

void scene_sink_stop(scene_sink_t& sink) {
    scene_sink_request_stop(sink);
    std::lock_guard lock(sink.state_mutex);
    RS_ASSERT(sink.sink_thread.joinable());
    RS_ASSERT(std::this_thread::get_id() != sink.sink_thread.get_id());
    sink.sink_thread.join();
    sink.state = SINK_STATE_STOPPED;
}

void scene_sink_push(scene_sink_t& sink, const RadarScene::Frame& frame, unsigned long raw_mask) {
    if (!sink.run_thread) {
        return;
    }
    uint64_t seq = count_push(sink);
    wait(sink.slot_free);
    std::unique_ptr<scene_handoff_t> handoff = hand_off(sink, frame, raw_mask, seq);
    {
        std::lock_guard lock(sink.frame_mutex);
        set_pending(sink, std::move(handoff));
    }
    wake(sink);
}

void scene_sink_try_push(scene_sink_t& sink, const RadarScene::Frame& frame,
                         unsigned long raw_mask) {
    if (!sink.run_thread) {
        return;
    }
    std::unique_ptr<scene_handoff_t> handoff = hand_off(sink, frame, raw_mask, count_push(sink));
    bool got_slot;
    {
        // Without a free slot the other tokens are with the worker or in
        // frame_ready, so at least one more round takes the pending frame
        // after this: taking needs frame_mutex, held here from the check on.
        std::lock_guard lock(sink.frame_mutex);
        got_slot = sem_trywait(&sink.slot_free) == 0;
        set_pending(sink, std::move(handoff));
    }
    if (got_slot) {
        wake(sink);
    }
}

void sink_thread_main(scene_sink_t& sink) {
    // A batch thread never preempts the thread that wakes it, so the
    // producer's push returns at once instead of waiting out a send that
    // the scheduler started on its processor.
    sched_param param{};
    pthread_setschedparam(pthread_self(), SCHED_BATCH, &param);
    // While records are in progress the worker polls their sockets too;
    // otherwise it waits for frames alone, and the sender's lock stays out
    // of its way to the next frame.
    std::vector<pollfd> polls;
    bool in_progress = false;
    while (sink.run_thread) {
        bool frame = true;
        if (!in_progress) {
            wait(sink.frame_ready);
        } else {
            int timeout_ms = scene_sender_pending(*sink.sender, polls);
            frame = wait_frame_or_sockets(sink, polls, timeout_ms);
            in_progress = scene_sender_write_on(*sink.sender, polls);
        }
        if (!frame) {
            continue;
        }
        std::unique_ptr<scene_handoff_t> handoff;
        {
            std::lock_guard lock(sink.frame_mutex);
            handoff = std::move(sink.pending);
        }
        if (handoff) {
            in_progress = send(sink, std::move(handoff));
        }
        post(sink.slot_free);
    }
    // The records that subscribers have begun to read are finished.
    scene_sender_finish(*sink.sender);
    sink.thread_done = true;
}
