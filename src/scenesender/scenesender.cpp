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
// Assembled copies that stalled records may hold beyond one encoding.
constexpr size_t MIN_COPY_BUDGET_BYTES = 8 << 20;

using scene_ptr = std::shared_ptr<const std::string>;
using encoding_ptr = std::shared_ptr<const scene_encoding_t>;

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

// Drops a reference to a scene or an encoding, counting its memory when it
// was the last.
void release(scene_sender_t& sender, scene_ptr& scene) {
    if (scene && scene.use_count() == 1) {
        sender.freed_bytes += scene->capacity();
    }
    scene.reset();
}

void release(scene_sender_t& sender, encoding_ptr& encoding) {
    if (encoding && encoding.use_count() == 1) {
        sender.freed_bytes += encoding->bytes.capacity();
    }
    encoding.reset();
}

// The session's scene of `encoding`: the encoding's own bytes where they
// are that scene, else a copy put together from its parts.
scene_ptr assemble(const encoding_ptr& encoding, const RadarScene::SerializeFrameOptions& options) {
    if (scene_encoding_is_scene(*encoding, options)) {
        return scene_ptr(encoding, &encoding->bytes);
    }
    auto scene = std::make_shared<std::string>();
    scene_encoding_assemble(*scene, *encoding, options);
    return scene;
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
    release(sender, session.record_encoding);
    release(sender, session.next);
}

// Makes the scene of `encoding` the session's record in progress; `scene`
// is that scene, or null to put it together when it is written.
void start_record(session_t& session, scene_ptr scene, encoding_ptr encoding,
                  clock_type::time_point now) {
    session.record = std::move(scene);
    session.record_encoding = std::move(encoding);
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

// The scene of the session's record, shared with another session that has
// the same options and frame, or else put together again.
scene_ptr shared_copy(const scene_sender_t& sender, const session_t& session) {
    for (const auto* list : {&sender.session_list, &sender.closing}) {
        for (const auto& other : *list) {
            if (other->record && other->record_encoding == session.record_encoding &&
                options_key(*other) == options_key(session)) {
                return other->record;
            }
        }
    }
    return assemble(session.record_encoding, session_options(session));
}

// Writes the record in progress, and those after it, until the socket takes
// no more: 0 when no record is left, -EAGAIN when the socket is full, or the
// negative errno of a failed write. Any byte taken restarts the deadline.
int write_records(scene_sender_t& sender, session_t& session, clock_type::time_point now) {
    while (session.record_encoding) {
        if (!session.record) {
            session.record = shared_copy(sender, session);
        }
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
        release(sender, session.record_encoding);
        if (session.next) {
            start_record(session, nullptr, std::move(session.next), now);
        }
    }
    return 0;
}

// Drops the assembled copies of stalled records, those whose sockets took
// bytes longest ago first, while they take more than the budget: a dropped
// copy is put together again from its encoding when its socket takes bytes.
// So sessions in many option sets that stop reading hold their encodings,
// shared, instead of a copy each. Copies of subscribers seen reading in
// this round or the last are kept whatever the budget. The caller holds the
// mutex.
void trim_copies(scene_sender_t& sender) {
    struct copy_t {
        const std::string* scene;
        clock_type::time_point since;
    };
    std::vector<copy_t> copies;
    std::vector<const std::string*> reading;
    size_t held = 0;
    for (const auto* list : {&sender.session_list, &sender.closing}) {
        for (const auto& session : *list) {
            const scene_ptr& scene = session->record;
            if (!scene || scene.get() == &session->record_encoding->bytes) {
                continue;
            }
            if (session->read_round != 0 && session->read_round + 1 >= sender.round) {
                reading.push_back(scene.get());
                continue;
            }
            auto known = std::find_if(copies.begin(), copies.end(),
                                      [&](const copy_t& c) { return c.scene == scene.get(); });
            if (known == copies.end()) {
                copies.push_back({scene.get(), session->record_since});
                held += scene->size();
            } else {
                known->since = std::min(known->since, session->record_since);
            }
        }
    }
    if (held <= sender.copy_budget) {
        return;
    }
    std::sort(copies.begin(), copies.end(),
              [](const copy_t& a, const copy_t& b) { return a.since < b.since; });
    for (const copy_t& copy : copies) {
        if (held <= sender.copy_budget) {
            break;
        }
        if (std::find(reading.begin(), reading.end(), copy.scene) != reading.end()) {
            continue;
        }
        held -= copy.scene->size();
        for (const auto* list : {&sender.session_list, &sender.closing}) {
            for (const auto& session : *list) {
                if (session->record.get() == copy.scene) {
                    release(sender, session->record);
                }
            }
        }
    }
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

// write_on for a session whose socket poll found ready, noting the round
// when it took bytes.
bool write_ready(scene_sender_t& sender, session_t& session, clock_type::time_point now) {
    uint64_t before = session.bytes_written;
    bool broke = write_on(sender, session, now);
    if (session.bytes_written != before) {
        session.read_round = sender.round;
    }
    return broke;
}

// Whether any session, removed ones included, has a record in progress;
// the caller holds the mutex.
bool records_in_progress(const scene_sender_t& sender) {
    for (const auto* list : {&sender.session_list, &sender.closing}) {
        for (const auto& session : *list) {
            if (session->record_encoding && healthy(*session)) {
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
            if (session.record_encoding && session.record_written > 0) {
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

bool scene_sender_send(scene_sender_t& sender, std::shared_ptr<scene_encoding_t>& encoding,
                       uint64_t seq) {
    encoding_ptr shared = encoding;
    // Sessions with a record in progress get the frame as their next, as
    // its encoding; the others get it now, each distinct option set's scene
    // put together once and written to its sessions before the next set's,
    // so that no more than one copy is made at a time.
    std::array<RadarScene::SerializeFrameOptions, OPTION_SETS> options;
    uint32_t idle = 0;
    {
        std::lock_guard lock(sender.mutex);
        sender.copy_budget = std::max(MIN_COPY_BUDGET_BYTES, shared->bytes.size() / 2);
        for (const auto& session_ptr : sender.session_list) {
            session_t& session = *session_ptr;
            unsigned key = options_key(session);
            options[key] = session_options(session);
            if (!healthy(session) || seq <= session.last_seq ||
                !scene_encoding_serves(*shared, options[key])) {
                continue;
            }
            if (!session.record_encoding) {
                idle |= 1u << key;
                continue;
            }
            count_frame(sender, session, seq);
            sender.totals.frames_replaced += session.next ? 1 : 0;
            session.frames_replaced += session.next ? 1 : 0;
            release(sender, session.next);
            session.next = shared;
        }
    }
    bool any_broke = false;
    for (unsigned key = 0; key < OPTION_SETS; ++key) {
        if (!(idle & (1u << key))) {
            continue;
        }
        scene_ptr scene = assemble(shared, options[key]);
        std::lock_guard lock(sender.mutex);
        clock_type::time_point now = clock_type::now();
        for (const auto& session_ptr : sender.session_list) {
            session_t& session = *session_ptr;
            if (options_key(session) != key || !healthy(session) || seq <= session.last_seq ||
                session.record_encoding) {
                continue;
            }
            count_frame(sender, session, seq);
            start_record(session, scene, shared, now);
            any_broke |= write_on(sender, session, now);
        }
        release(sender, scene);
        trim_copies(sender);
    }
    bool in_progress = false;
    size_t freed = 0;
    {
        std::lock_guard lock(sender.mutex);
        // Sessions that still need the encoding keep it; the caller's next
        // frame is encoded elsewhere.
        if (shared.use_count() > 2) {
            encoding = std::make_shared<scene_encoding_t>();
        }
        shared.reset();
        in_progress = records_in_progress(sender);
        freed = take_freed_bytes(sender);
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
            if (session->record_encoding && healthy(*session)) {
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
        ++sender.round;
        for (const auto& session : sender.session_list) {
            if (session->record_encoding && healthy(*session) &&
                (ready(*session, polls) || now - session->record_since >= sender.record_timeout)) {
                any_broke |= write_ready(sender, *session, now);
            }
        }
        for (auto it = sender.closing.begin(); it != sender.closing.end();) {
            session_t& session = **it;
            if (ready(session, polls) || now - session.record_since >= sender.record_timeout) {
                write_ready(sender, session, now);
            }
            if (session.record_encoding && healthy(session)) {
                ++it;
                continue;
            }
            remember_ended(sender, session);
            it = sender.closing.erase(it);
        }
        trim_copies(sender);
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
