#include "channelhandler/channelhandler.h"

#include "common/log.h"
#include "common/rs_assert.h"

#include <algorithm>
#include <vector>

namespace {

std::unique_ptr<session_t> make_session(const subscription_options_t& options, int id,
                                        unsigned pid) {
    auto session = std::make_unique<session_t>();
    session_set_option1(*session, options.bounding_box);
    session_set_option2(*session, options.polygon);
    session_set_option3(*session, options.velocity);
    session_set_option4(*session, options.geolocation);
    session_set_format(*session, options.format);
    session_set_option5(*session, options.raw);
    session_set_id(*session, id);
    session_set_pid(*session, pid);
    session_set_state(*session, SESSION_STATE_ACTIVE);
    return session;
}

// Drops a removed session's id from the broken-session queue. Ids are queued
// only while their session is in its sender's list, so after this the queue
// never holds more ids than there are sessions.
void forget_broken_session(channel_handler_t& handler, int session_id) {
    std::lock_guard lock(handler.broken_sessions_mutex);
    broken_sessions_t& broken = handler.broken_sessions;
    auto queued = broken.ids.begin() + broken.count;
    auto kept = std::remove(broken.ids.begin(), queued, session_id);
    std::fill(kept, queued, 0);
    broken.count = static_cast<uint32_t>(kept - broken.ids.begin());
}

// Empties the queue; the caller holds the broken-sessions mutex.
std::vector<int> take_broken_sessions(broken_sessions_t& broken) {
    std::vector<int> ids(broken.ids.begin(), broken.ids.begin() + broken.count);
    std::fill(broken.ids.begin(), broken.ids.begin() + broken.count, 0);
    broken.count = 0;
    return ids;
}

int remove_sessions(channel_handler_t& handler, const std::vector<int>& ids) {
    for (int id : ids) {
        channel_handler_remove_session(handler, id);
    }
    return static_cast<int>(ids.size());
}

// The channel a push names, or null for a slot never filled.
channel_t* channel_at(channel_handler_t& handler, int channel_index) {
    RS_ASSERT(channel_index >= 0 && channel_index < MAX_CHANNELS);
    return handler.channels[channel_index].get();
}

}  // namespace

std::unique_ptr<channel_handler_t> channel_handler_create() {
    return std::make_unique<channel_handler_t>();
}

void channel_handler_create_channel(channel_handler_t& handler, int channel_index) {
    RS_ASSERT(channel_index >= 0 && channel_index < MAX_CHANNELS);
    RS_ASSERT(!handler.channels[channel_index] && "Channel already created!");
    auto channel = channel_create();
    channel_set_error_callback(*channel, [&handler](int id) { on_session_error(handler, id); });
    handler.channels[channel_index] = std::move(channel);
}

int channel_handler_add_session(channel_handler_t& handler, int channel_index, unsigned pid,
                                const subscription_options_t& options, unique_fd& subscriber_fd,
                                int& session_id) {
    if (channel_index < 0 || channel_index >= MAX_CHANNELS || !handler.channels[channel_index]) {
        log_error("Channel id %d is not valid", channel_index);
        return -3;
    }
    std::lock_guard lock(handler.sessions_mutex);
    if (handler.n_sessions >= MAX_ACTIVE_SESSION_IDS) {
        log_error("Can't add session since maximum number of sessions is reached");
        return -4;
    }
    auto session = make_session(options, handler.next_session_id, pid);
    unique_fd fd = channel_add_session(*handler.channels[channel_index], std::move(session));
    if (!fd) {
        log_error("Add session failed");
        return -1;
    }
    session_id = handler.next_session_id++;
    ++handler.n_sessions;
    subscriber_fd = std::move(fd);
    return 0;
}

int channel_handler_remove_session(channel_handler_t& handler, int session_id) {
    std::lock_guard lock(handler.sessions_mutex);
    for (auto& channel : handler.channels) {
        if (channel && channel_remove_session(*channel, session_id)) {
            --handler.n_sessions;
            forget_broken_session(handler, session_id);
            return 0;
        }
    }
    log_info("The session with session id %d was not found", session_id);
    return 0;
}

void on_session_error(channel_handler_t& handler, int session_id) {
    std::lock_guard lock(handler.broken_sessions_mutex);
    broken_sessions_t& broken = handler.broken_sessions;
    RS_ASSERT(handler.broken_sessions.count < MAX_ACTIVE_SESSION_IDS);
    broken.ids[broken.count++] = session_id;
}

int channel_handler_clear_broken_sessions(channel_handler_t& handler) {
    std::vector<int> ids;
    {
        std::lock_guard lock(handler.broken_sessions_mutex);
        broken_sessions_t& broken = handler.broken_sessions;
        if (broken.count > MAX_ACTIVE_SESSION_IDS - 1) {
            log_error("n_sessions is out of range: %d. Not able to clear broken sessions",
                      static_cast<int>(broken.count));
            return -1;
        }
        ids = take_broken_sessions(broken);
    }
    return remove_sessions(handler, ids);
}

int channel_handler_drain_broken_sessions(channel_handler_t& handler) {
    std::vector<int> ids;
    {
        std::lock_guard lock(handler.broken_sessions_mutex);
        ids = take_broken_sessions(handler.broken_sessions);
    }
    return remove_sessions(handler, ids);
}

void channel_handler_reap_pipelines(channel_handler_t& handler) {
    std::lock_guard lock(handler.sessions_mutex);
    for (auto& channel : handler.channels) {
        if (channel) {
            channel_reap_pipelines(*channel);
        }
    }
}

void channel_handler_push(channel_handler_t& handler, int channel_index,
                          const RadarScene::Frame& frame, unsigned long raw_mask) {
    if (channel_t* channel = channel_at(handler, channel_index)) {
        channel_push(*channel, frame, raw_mask);
    }
}

void channel_handler_try_push(channel_handler_t& handler, int channel_index,
                              const RadarScene::Frame& frame, unsigned long raw_mask) {
    if (channel_t* channel = channel_at(handler, channel_index)) {
        channel_try_push(*channel, frame, raw_mask);
    }
}

void channel_handler_get_stats(channel_handler_t& handler, std::vector<session_stats_t>& sessions,
                               std::vector<channel_stats_t>& channels) {
    std::lock_guard lock(handler.sessions_mutex);
    for (int index = 0; index < MAX_CHANNELS; ++index) {
        if (!handler.channels[index]) {
            continue;
        }
        size_t first = sessions.size();
        channel_stats_t totals;
        scene_sender_get_stats(*handler.channels[index]->scene_sender, sessions, totals);
        totals.channel = index;
        channels.push_back(totals);
        for (size_t i = first; i < sessions.size(); ++i) {
            sessions[i].channel = index;
        }
    }
    std::stable_sort(sessions.begin(), sessions.end(), [](const auto& a, const auto& b) {
        if (a.ended_seq == 0 || b.ended_seq == 0) {
            return a.ended_seq == b.ended_seq ? a.id < b.id : a.ended_seq == 0;
        }
        return a.ended_seq > b.ended_seq;
    });
}

bool channel_handler_has_session(channel_handler_t& handler, int session_id) {
    std::lock_guard lock(handler.sessions_mutex);
    for (auto& channel : handler.channels) {
        if (channel && scene_sender_has_session(*channel->scene_sender, session_id)) {
            return true;
        }
    }
    return false;
}
