#pragma once

#include "common/unique_fd.h"
#include "sceneencoding/sceneencoding.h"
#include "session/session.h"
#include "sessionstats/sessionstats.h"

#include <radarscene/RadarScene.h>

#include <poll.h>

#include <atomic>
#include <chrono>
#include <deque>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <vector>

// The sessions of one channel and the writing of scenes to them. `mutex`
// guards the lists and every session in them; it is the innermost of the
// distribution locks (after the handler's sessions mutex and the channel's).
//
// Each session is written on its own: the sending thread's writes never
// wait, and a session whose socket is full keeps its record in progress and
// the newest scene after it, while the others are written on. The thread
// holds the mutex while it writes, which never takes long as no write
// waits; subscribing and removing wait at most for one such round.
// A session removed while its record is partly written is kept in `closing`
// until that record is written out or its deadline passes, so that its
// subscriber's stream ends on a record boundary.
struct scene_sender_t {
    std::list<std::unique_ptr<session_t>> session_list;
    std::list<std::unique_ptr<session_t>> closing;
    mutable std::mutex mutex;
    std::function<void(int)> session_error_callback;
    // The object parts that the sessions' options include, read by the
    // producer without the mutex to encode only what is needed.
    std::atomic<unsigned> wanted_parts{0};
    // Counted by the producer's pushes, which take no lock: the frames
    // pushed, and those that a newer frame replaced at the hand-off, before
    // the sending thread took them.
    std::atomic<uint64_t> frames_pushed{0};
    std::atomic<uint64_t> handoff_replaced{0};
    // The channel's totals but frames_pushed and active_sessions, and the
    // newest ended sessions, newest first.
    channel_stats_t totals;
    std::deque<session_stats_t> ended;
    // A record in progress of which the socket took nothing for this long
    // breaks its session.
    std::chrono::milliseconds record_timeout{1000};
    size_t freed_bytes = 0;  // of scenes freed since the allocator last gave memory back
    // What the assembled copies of stalled records may take together: the
    // larger of 8 MiB and half the newest encoding.
    size_t copy_budget = 0;
    uint64_t round = 1;  // counts the rounds of writing on to ready sockets
};

// How many ended sessions a sender remembers.
constexpr size_t ENDED_SESSIONS_KEPT = 32;

void scene_sender_set_error_callback(scene_sender_t& sender, std::function<void(int)> callback);

// Creates the socket pair of a new subscriber. On success (0) the list owns
// the session and `subscriber_fd` holds the subscriber's end; on failure (-1)
// `subscriber_fd` is empty and the session stays with the caller. The
// session's frames are those pushed from now on.
int scene_sender_add_session(scene_sender_t& sender, std::unique_ptr<session_t>& session,
                             unique_fd& subscriber_fd);

// Removes and destroys the first session with `id`, closing its socket.
bool scene_sender_remove_session(scene_sender_t& sender, int id);

int scene_sender_get_num_sessions(const scene_sender_t& sender);
bool scene_sender_has_session(const scene_sender_t& sender, int id);

// Hands the scene of frame number `seq` (see frames_pushed) to every healthy
// session that subscribed before its push and that the encoding serves,
// assembled with that session's options (a session whose options the
// encoding lacks subscribed during the push, and gets the next frame), and
// writes what the sockets take without waiting. The frames of a session's
// that it never got, as their numbers tell, are counted as replaced. A
// session with a record in progress keeps the frame's encoding as its next,
// replacing (and counting) one that waited there. When sessions keep the
// encoding, `encoding` is replaced with a new one for the caller's next
// frame. Sessions whose write fails are marked broken, reported once and
// passed to the error callback. True while records are in progress.
bool scene_sender_send(scene_sender_t& sender, std::shared_ptr<scene_encoding_t>& encoding,
                       uint64_t seq);

// Replaces `polls` with the sockets of the records in progress; returns the
// milliseconds until the first of their deadlines, or -1 when there is none.
int scene_sender_pending(const scene_sender_t& sender, std::vector<pollfd>& polls);

// Writes on to the sockets that `polls` (from scene_sender_pending, after
// poll) found ready, without waiting, and breaks the sessions whose record
// in progress has made no progress for its deadline. True while records are in
// progress.
bool scene_sender_write_on(scene_sender_t& sender, const std::vector<pollfd>& polls);

// Waits until no record is in progress, each ending when it is written out
// or makes no progress for its deadline.
void scene_sender_finish(scene_sender_t& sender);

// Appends the counters of the sessions in the list, then those of the
// remembered ended ones, newest first; `totals` gets the channel's totals.
void scene_sender_get_stats(const scene_sender_t& sender, std::vector<session_stats_t>& sessions,
                            channel_stats_t& totals);

// Reports and closes the sessions newly marked broken; returns their number.
int cleanup_broken_sessions(scene_sender_t& sender);
