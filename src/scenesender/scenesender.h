#pragma once

#include "common/unique_fd.h"
#include "sceneencoding/sceneencoding.h"
#include "session/session.h"
#include "sessionstats/sessionstats.h"

#include <radarscene/RadarScene.h>

#include <atomic>
#include <deque>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <vector>

// The sessions of one channel and the writing of scenes to them. `mutex`
// guards the list and every session in it; it is the innermost of the
// distribution locks (after the handler's sessions mutex and the channel's).
//
// A send holds the mutex only to take its list of targets and to record the
// outcome, never while it writes, so subscribing and removing never wait for
// a slow subscriber. A session removed during a send is shut down at once
// and parked in `retired` until the send ends, so that its descriptor number
// cannot be reused while the send may still write to it.
struct scene_sender_t {
    std::list<std::unique_ptr<session_t>> session_list;
    mutable std::mutex mutex;
    std::function<void(int)> session_error_callback;
    bool sending = false;
    std::list<std::unique_ptr<session_t>> retired;
    // The object parts that the sessions' options include, read by the
    // producer without the mutex to encode only what is needed.
    std::atomic<unsigned> wanted_parts{0};
    // Counted by the producer's pushes, which take no lock.
    std::atomic<uint64_t> frames_pushed{0};
    // The channel's totals but frames_pushed and active_sessions, and the
    // newest ended sessions, newest first.
    channel_stats_t totals;
    std::deque<session_stats_t> ended;
};

// How many ended sessions a sender remembers.
constexpr size_t ENDED_SESSIONS_KEPT = 32;

void scene_sender_set_error_callback(scene_sender_t& sender, std::function<void(int)> callback);

// Creates the socket pair of a new subscriber. On success (0) the list owns
// the session and `subscriber_fd` holds the subscriber's end; on failure (-1)
// `subscriber_fd` is empty and the session stays with the caller.
int scene_sender_add_session(scene_sender_t& sender, std::unique_ptr<session_t>& session,
                             unique_fd& subscriber_fd);

// Removes and destroys the first session with `id`, closing its socket.
bool scene_sender_remove_session(scene_sender_t& sender, int id);

int scene_sender_get_num_sessions(const scene_sender_t& sender);
bool scene_sender_has_session(const scene_sender_t& sender, int id);

// Writes the scene to every healthy session that the encoding serves,
// assembled with that session's options (a session whose options the
// encoding lacks subscribed after the frame was pushed, and gets the next
// one). `done_with_encoding` runs as soon as the encoding is read no more:
// once every distinct scene has been put together, or after the writes when
// the encoding's own bytes are a session's scene. All sessions are written
// at once, and a record not fully written within one second fails, so a
// send takes at most about a second however many subscribers stall.
// Sessions whose write fails are marked broken, reported once and passed to
// the error callback.
void scene_sender_send(scene_sender_t& sender, const scene_encoding_t& encoding,
                       const std::function<void()>& done_with_encoding);

// Appends the counters of the sessions in the list, then those of the
// remembered ended ones, newest first; `totals` gets the channel's totals.
void scene_sender_get_stats(const scene_sender_t& sender, std::vector<session_stats_t>& sessions,
                            channel_stats_t& totals);

// Reports and closes the sessions newly marked broken; returns their number.
int cleanup_broken_sessions(scene_sender_t& sender);
