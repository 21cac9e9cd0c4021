#pragma once

#include "channel/channel.h"
#include "common/subscription.h"
#include "common/unique_fd.h"

#include <array>
#include <memory>
#include <mutex>
#include <vector>

constexpr int MAX_CHANNELS = 16;
constexpr int MAX_ACTIVE_SESSION_IDS = 32;

// Ids of sessions whose writes failed, queued by the worker threads until
// the event loop removes them.
struct broken_sessions_t {
    std::array<int32_t, MAX_ACTIVE_SESSION_IDS> ids{};
    uint32_t count = 0;
};

// The registry of channels and of all subscriber sessions across them.
//
// Lock order, the only one in which the distribution locks nest:
//   sessions_mutex -> channel_t::mutex -> scene_sender_t::mutex.
// broken_sessions_mutex is a leaf, never held while taking another lock.
//
// `channels` is declared last so that it is destroyed first: the worker
// threads it stops may still report broken sessions into the members above.
struct channel_handler_t {
    int32_t next_session_id = 0;
    int32_t n_sessions = 0;
    broken_sessions_t broken_sessions;
    std::mutex broken_sessions_mutex;
    std::mutex sessions_mutex;
    std::array<std::unique_ptr<channel_t>, MAX_CHANNELS> channels;
};

std::unique_ptr<channel_handler_t> channel_handler_create();
void channel_handler_create_channel(channel_handler_t& handler, int channel_index);

// 0 on success, -3 for an invalid channel, -4 when the session limit is
// reached, -1 when the channel could not take the session.
int channel_handler_add_session(channel_handler_t& handler, int channel_index, unsigned pid,
                                const subscription_options_t& options, unique_fd& subscriber_fd,
                                int& session_id);
// Always 0; an unknown id is only logged. A removed session's id leaves the
// broken-session queue too.
int channel_handler_remove_session(channel_handler_t& handler, int session_id);
// Queues a broken session's id; called on a worker thread.
void on_session_error(channel_handler_t& handler, int session_id);
// Removes the queued broken sessions; runs on the event loop. Returns their
// number, or -1 when the queue is out of range.
int channel_handler_clear_broken_sessions(channel_handler_t& handler);
// Removes the queued broken sessions whatever their number, the recovery
// for a queue that the clear step refuses. Returns their number.
int channel_handler_drain_broken_sessions(channel_handler_t& handler);
// Joins the workers of channels left without sessions once they have
// finished their last records; runs on the event loop.
void channel_handler_reap_pipelines(channel_handler_t& handler);
// Hands the frame to the channel's subscribers, if the channel has any.
// `channel_index` must be 0..MAX_CHANNELS-1.
void channel_handler_push(channel_handler_t& handler, int channel_index,
                          const RadarScene::Frame& frame, unsigned long raw_mask);
// As channel_handler_push, but never waits (see channel_try_push).
void channel_handler_try_push(channel_handler_t& handler, int channel_index,
                              const RadarScene::Frame& frame, unsigned long raw_mask);
// Every channel's sessions, those in the lists first in id order, then the
// remembered ended ones newest first; and each channel's totals. Runs on the
// event loop.
void channel_handler_get_stats(channel_handler_t& handler, std::vector<session_stats_t>& sessions,
                               std::vector<channel_stats_t>& channels);
// True while a session with this id exists on any channel.
bool channel_handler_has_session(channel_handler_t& handler, int session_id);
