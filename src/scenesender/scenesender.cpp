#include "scenesender/scenesender.h"

#include "common/fdio.h"
#include "common/log.h"
#include "common/rs_assert.h"

#include <arpa/inet.h>
#include <malloc.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstring>
#include <optional>
#include <vector>

namespace {

using clock_type = std::chrono::steady_clock;

// The socket's send timeout; the sender's own writes never wait on it.
constexpr timeval SEND_TIMEOUT = {1, 0};
constexpr size_t TRIM_AFTER_BYTES = 8 << 20;
constexpr size_t OPTION_SETS = 32;

using scene_ptr = std::shared_ptr<const std::string>;

RadarScene::SerializeFrameOptions session_options(const session_t& session) {
    RadarScene::SerializeFrameOptions options;
    options.bounding_box = session_get_option1(session);
    options.polygon = session_get_option2(session);
    options.velocity = session_get_option3(session);
    options.geolocation = session_get_option4(session);
    options.raw = session_get_option5(session);
    return options;
}

// The session's five option flags as a number 0..31.
unsigned options_key(const session_t& session) {
    return static_cast<unsigned>(session_get_option1(session)) |
           static_cast<unsigned>(session_get_option2(session)) << 1 |
           static_cast<unsigned>(session_get_option3(session)) << 2 |
           static_cast<unsigned>(session_get_option4(session)) << 3 |
           static_cast<unsigned>(session_get_option5(session)) << 4;
}

bool healthy(const session_t& session) {
    session_state_t state = session_get_state(session);
    return state != SESSION_STATE_BROKEN && state != SESSION_STATE_CLOSED;
}

// Called with the mutex held, whenever the list changes.
void update_wanted_parts(scene_sender_t& sender) {
    unsigned parts = 0;
    for (const auto& session : sender.session_list) {
        parts |= object_parts_for(session_options(*session));
    }
    sender.wanted_parts = parts;
}

// Drops a reference to a scene, counting its memory when it was the last.
void release(scene_sender_t& sender, scene_ptr& scene) {
    if (scene && scene.use_count() == 1) {
        sender.freed_bytes += scene->capacity();
    }
    scene.reset();
}

// After huge scenes have been freed the allocator is asked to give the
// memory back, which it otherwise keeps for reuse. Called without the mutex.
void trim_after(size_t freed_bytes) {
#ifdef __GLIBC__
    if (freed_bytes > TRIM_AFTER_BYTES) {
        malloc_trim(0);
    }
#else
    (void)freed_bytes;
#endif
}

size_t take_freed_bytes(scene_sender_t& sender) {
    size_t freed = sender.freed_bytes;
    if (freed > TRIM_AFTER_BYTES) {
        sender.freed_bytes = 0;
    }
    return freed;
}

std::atomic<uint64_t> ended_count{0};

// Keeps the counters of a session leaving the list; the caller holds the
// mutex.
void remember_ended(scene_sender_t& sender, const session_t& session) {
    session_stats_t stats = session_get_stats(session);
    if (stats.end == SESSION_END_ACTIVE) {
        stats.end = SESSION_END_UNSUBSCRIBED;
    }
    stats.ended_seq = ++ended_count;
    sender.ended.push_front(std::move(stats));
    if (sender.ended.size() > ENDED_SESSIONS_KEPT) {
        sender.ended.pop_back();
    }
}

const char* comm_or_unknown(const session_t& session) {
    const char* comm = session_get_comm(session);
    return comm ? comm : "(unknown)";
}

void mark_broken(scene_sender_t& sender, session_t& session, int error) {
    session.error = error;
    session_set_state(session, SESSION_STATE_BROKEN);
    ++sender.totals.sessions_broken;
    release(sender, session.record);
    release(sender, session.next);
}

// Makes `scene` the session's record in progress.
void start_record(session_t& session, scene_ptr scene, clock_type::time_point now) {
    session.record = std::move(scene);
    session.record_written = 0;
    session.record_since = now;
}

// Counts frame `seq` for the session, and as replaced those between it and
// the last one that counted: a newer frame took their place at the
// hand-off, or they were pushed as the session subscribed with options
// their encoding lacks. The caller holds the mutex.
void count_frame(scene_sender_t& sender, session_t& session, uint64_t seq) {
    uint64_t skipped = seq - session.last_seq - 1;
    session.frames_replaced += skipped;
    sender.totals.frames_replaced += skipped;
    session.last_seq = seq;
}

// Writes the record in progress, and those after it, until the socket takes
// no more: 0 when no record is left, -EAGAIN when the socket is full, or the
// negative errno of a failed write. Any byte taken restarts the deadline.
int write_records(scene_sender_t& sender, session_t& session, clock_type::time_point now) {
    while (session.record) {
        const std::string& scene = *session.record;
        uint32_t header = htonl(static_cast<uint32_t>(scene.size() + sizeof(header)));
        iovec buffers[2] = {{&header, sizeof(header)},
                            {const_cast<char*>(scene.data()), scene.size()}};
        size_t skip = session.record_written;
        int first = skip < sizeof(header) ? 0 : 1;
        if (first == 0) {
            buffers[0] = {reinterpret_cast<char*>(&header) + skip, sizeof(header) - skip};
        } else {
            buffers[1] = {const_cast<char*>(scene.data()) + skip - sizeof(header),
                          scene.size() + sizeof(header) - skip};
        }
        unsigned written = 0;
        int result = writev_now(session_get_fd(session), buffers + first, 2 - first, &written);
        session.record_written += written;
        session.bytes_written += written;
        sender.totals.bytes_written += written;
        if (written > 0) {
            session.record_since = now;
        }
        if (result < 0) {
            return result;
        }
        ++session.scenes_written;
        ++sender.totals.scenes_written;
        release(sender, session.record);
        if (session.next) {
            start_record(session, std::move(session.next), now);
        }
    }
    return 0;
}

// Writes what the socket takes of the session's records, breaking it when a
// write fails or its record in progress has waited out its deadline. True
// when the session broke.
bool write_on(scene_sender_t& sender, session_t& session, clock_type::time_point now) {
    int result = write_records(sender, session, now);
    if (result == 0 || (result == -EAGAIN && now - session.record_since < sender.record_timeout)) {
        return false;
    }
    mark_broken(sender, session, -result);
    return true;
}

// Whether any session, removed ones included, has a record in progress;
// the caller holds the mutex.
bool records_in_progress(const scene_sender_t& sender) {
    for (const auto* list : {&sender.session_list, &sender.closing}) {
        for (const auto& session : *list) {
            if (session->record && healthy(*session)) {
                return true;
            }
        }
    }
    return false;
}

// The sessions whose sockets poll found ready for writing, or broken.
bool ready(const session_t& session, const std::vector<pollfd>& polls) {
    for (const pollfd& p : polls) {
        if (p.fd == session_get_fd(session)) {
            return p.revents != 0;
        }
    }
    return false;
}

}  // namespace

void scene_sender_set_error_callback(scene_sender_t& sender, std::function<void(int)> callback) {
    sender.session_error_callback = std::move(callback);
}

int scene_sender_add_session(scene_sender_t& sender, std::unique_ptr<session_t>& session,
                             unique_fd& subscriber_fd) {
    std::lock_guard lock(sender.mutex);
    RS_ASSERT(session);
    subscriber_fd.reset();
    int fds[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, fds) < 0) {
        log_error("Failed create sockets: %s", strerror(errno));
        return -1;
    }
    unique_fd own_end(fds[0]);
    unique_fd peer_end(fds[1]);
    if (setsockopt(own_end.get(), SOL_SOCKET, SO_SNDTIMEO, &SEND_TIMEOUT, sizeof(SEND_TIMEOUT)) <
        0) {
        log_error("Failed to set socket timeout: %s", strerror(errno));
        return -1;
    }
    session->subscribed_usec = realtime_usec();
    // The frames numbered after this one are the session's; one encoded
    // without its parts is counted as replaced when the next one reaches it.
    session->last_seq = sender.frames_pushed.load();
    session_set_fd(*session, std::move(own_end));
    subscriber_fd = std::move(peer_end);
    sender.session_list.push_back(std::move(session));
    update_wanted_parts(sender);
    return 0;
}

bool scene_sender_remove_session(scene_sender_t& sender, int id) {
    std::lock_guard lock(sender.mutex);
    for (auto it = sender.session_list.begin(); it != sender.session_list.end(); ++it) {
        session_t& session = **it;
        if (session_get_id(session) == id) {
            if (session.record && session.record_written > 0) {
                // The record the subscriber has begun to read is finished
                // first; nothing follows it.
                release(sender, session.next);
                sender.closing.splice(sender.closing.end(), sender.session_list, it);
            } else {
                remember_ended(sender, session);
                sender.session_list.erase(it);
            }
            update_wanted_parts(sender);
            return true;
        }
    }
    return false;
}

int scene_sender_get_num_sessions(const scene_sender_t& sender) {
    std::lock_guard lock(sender.mutex);
    RS_ASSERT(sender.session_list.size() <= INT_MAX);
    return static_cast<int>(sender.session_list.size());
}

bool scene_sender_has_session(const scene_sender_t& sender, int id) {
    std::lock_guard lock(sender.mutex);
    for (const auto& session : sender.session_list) {
        if (session_get_id(*session) == id) {
            return true;
        }
    }
    return false;
}

bool scene_sender_send(scene_sender_t& sender, scene_encoding_t& encoding, uint64_t seq,
                       const std::function<void()>& done_with_encoding) {
    // Sessions with the same options get the same bytes: each distinct
    // option set is assembled once per send, unless the encoding's own
    // bytes are its scene.
    std::array<RadarScene::SerializeFrameOptions, OPTION_SETS> options;
    uint32_t distinct = 0;
    {
        std::lock_guard lock(sender.mutex);
        for (const auto& session : sender.session_list) {
            unsigned key = options_key(*session);
            if (!healthy(*session) || seq <= session->last_seq || (distinct & (1u << key))) {
                continue;
            }
            options[key] = session_options(*session);
            if (scene_encoding_serves(encoding, options[key])) {
                distinct |= 1u << key;
            }
        }
    }
    std::array<std::shared_ptr<std::string>, OPTION_SETS> scenes;
    uint32_t as_encoded = 0;
    for (unsigned key = 0; key < OPTION_SETS; ++key) {
        if (!(distinct & (1u << key))) {
            continue;
        }
        if (scene_encoding_is_scene(encoding, options[key])) {
            as_encoded |= 1u << key;
        } else {
            scenes[key] = std::make_shared<std::string>();
            scene_encoding_assemble(*scenes[key], encoding, options[key]);
        }
    }
    // The encoding's bytes, lent to the sessions that write them as they are.
    std::shared_ptr<std::string> lent;
    if (as_encoded) {
        lent = std::make_shared<std::string>(std::move(encoding.bytes));
        for (unsigned key = 0; key < OPTION_SETS; ++key) {
            if (as_encoded & (1u << key)) {
                scenes[key] = lent;
            }
        }
    } else if (done_with_encoding) {
        done_with_encoding();
    }

    bool any_broke = false;
    bool in_progress = false;
    size_t freed = 0;
    {
        std::lock_guard lock(sender.mutex);
        clock_type::time_point now = clock_type::now();
        for (const auto& session_ptr : sender.session_list) {
            session_t& session = *session_ptr;
            const std::shared_ptr<std::string>& scene = scenes[options_key(session)];
            if (!healthy(session) || !scene || seq <= session.last_seq) {
                continue;
            }
            count_frame(sender, session, seq);
            if (session.record) {
                sender.totals.frames_replaced += session.next ? 1 : 0;
                session.frames_replaced += session.next ? 1 : 0;
                release(sender, session.next);
                session.next = scene;
                continue;
            }
            start_record(session, scene, now);
            any_broke |= write_on(sender, session, now);
        }
        for (auto& scene : scenes) {
            scene_ptr released = std::move(scene);
            if (released != lent) {
                release(sender, released);
            }
        }
        if (lent && lent.use_count() == 1) {
            encoding.bytes = std::move(*lent);  // its storage serves the next frame
        }
        in_progress = records_in_progress(sender);
        freed = take_freed_bytes(sender);
    }
    if (lent && done_with_encoding) {
        done_with_encoding();
    }
    trim_after(freed);
    if (any_broke) {
        cleanup_broken_sessions(sender);
    }
    return in_progress;
}

int scene_sender_pending(const scene_sender_t& sender, std::vector<pollfd>& polls) {
    polls.clear();
    std::lock_guard lock(sender.mutex);
    std::optional<clock_type::time_point> first;
    for (const auto* list : {&sender.session_list, &sender.closing}) {
        for (const auto& session : *list) {
            if (session->record && healthy(*session)) {
                polls.push_back({session_get_fd(*session), POLLOUT, 0});
                first = std::min(first.value_or(session->record_since), session->record_since);
            }
        }
    }
    if (!first) {
        return -1;
    }
    auto left = std::chrono::ceil<std::chrono::milliseconds>(*first + sender.record_timeout -
                                                             clock_type::now());
    return static_cast<int>(std::max<int64_t>(left.count(), 0));
}

bool scene_sender_write_on(scene_sender_t& sender, const std::vector<pollfd>& polls) {
    bool any_broke = false;
    bool in_progress = false;
    size_t freed = 0;
    {
        std::lock_guard lock(sender.mutex);
        clock_type::time_point now = clock_type::now();
        for (const auto& session : sender.session_list) {
            if (session->record && healthy(*session) &&
                (ready(*session, polls) || now - session->record_since >= sender.record_timeout)) {
                any_broke |= write_on(sender, *session, now);
            }
        }
        for (auto it = sender.closing.begin(); it != sender.closing.end();) {
            session_t& session = **it;
            if (ready(session, polls) || now - session.record_since >= sender.record_timeout) {
                write_on(sender, session, now);
            }
            if (session.record && healthy(session)) {
                ++it;
                continue;
            }
            remember_ended(sender, session);
            it = sender.closing.erase(it);
        }
        in_progress = records_in_progress(sender);
        freed = take_freed_bytes(sender);
    }
    trim_after(freed);
    if (any_broke) {
        cleanup_broken_sessions(sender);
    }
    return in_progress;
}

void scene_sender_finish(scene_sender_t& sender) {
    std::vector<pollfd> polls;
    for (int timeout = scene_sender_pending(sender, polls); !polls.empty();
         timeout = scene_sender_pending(sender, polls)) {
        if (poll(polls.data(), polls.size(), timeout) < 0 && errno != EINTR) {
            return;
        }
        scene_sender_write_on(sender, polls);
    }
}

void scene_sender_get_stats(const scene_sender_t& sender, std::vector<session_stats_t>& sessions,
                            channel_stats_t& totals) {
    std::lock_guard lock(sender.mutex);
    for (const auto& session : sender.session_list) {
        sessions.push_back(session_get_stats(*session));
    }
    sessions.insert(sessions.end(), sender.ended.begin(), sender.ended.end());
    totals = sender.totals;
    totals.active_sessions = static_cast<uint32_t>(sender.session_list.size());
    totals.frames_pushed = sender.frames_pushed.load(std::memory_order_relaxed);
    totals.handoff_replaced = sender.handoff_replaced.load(std::memory_order_relaxed);
}

int cleanup_broken_sessions(scene_sender_t& sender) {
    int count = 0;
    {
        // The ids are passed on while the lock is held: an unsubscription
        // removes the session under the same lock, so an id can never be
        // reported after its session has gone.
        std::lock_guard lock(sender.mutex);
        for (auto& session_ptr : sender.session_list) {
            session_t& session = *session_ptr;
            if (session.state != SESSION_STATE_BROKEN) {
                continue;
            }
            session_set_state(session, SESSION_STATE_CLOSED);
            ++count;
            if (session.error == EPIPE) {
                log_info("Session closed: %d (pid: %u, comm: %s)", session.id, session.pid,
                         comm_or_unknown(session));
            } else {
                log_warning("Broken session: %d (pid: %u, comm: %s): %s", session.id, session.pid,
                            comm_or_unknown(session), strerror(session.error));
            }
            if (sender.session_error_callback) {
                sender.session_error_callback(session.id);
            }
        }
    }
    if (count > 0) {
        log_info("Cleaned up %d broken sessions", count);
    }
    return count;
}
