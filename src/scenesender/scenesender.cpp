#include "scenesender/scenesender.h"

#include "common/fdio.h"
#include "common/log.h"
#include "common/rs_assert.h"

#include <arpa/inet.h>
#include <malloc.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstring>
#include <string_view>
#include <vector>

namespace {

constexpr timeval SEND_TIMEOUT = {1, 0};
// A record that is not fully written within this time breaks its session,
// however much the subscriber reads meanwhile.
constexpr int RECORD_TIMEOUT_MS = 1000;
constexpr size_t TRIM_AFTER_BYTES = 8 << 20;

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

// One session's part of a send: its record, header and payload handed to
// the kernel in one gathered write, with the big-endian length that counts
// itself.
struct send_target_t {
    session_t* session;
    unsigned key;
    uint32_t header;
    iovec buffers[2];
};

// Called with the mutex held, whenever the list changes.
void update_wanted_parts(scene_sender_t& sender) {
    unsigned parts = 0;
    for (const auto& session : sender.session_list) {
        parts |= object_parts_for(session_options(*session));
    }
    sender.wanted_parts = parts;
}

// Frees the scenes of a send. After huge ones the allocator is asked to give
// the memory back, which it otherwise keeps for reuse.
void release_payloads(std::array<std::string, 32>& payloads) {
    size_t bytes = 0;
    for (std::string& payload : payloads) {
        bytes += payload.capacity();
        std::string().swap(payload);
    }
#ifdef __GLIBC__
    if (bytes > TRIM_AFTER_BYTES) {
        malloc_trim(0);
    }
#endif
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
    session_set_fd(*session, std::move(own_end));
    subscriber_fd = std::move(peer_end);
    sender.session_list.push_back(std::move(session));
    update_wanted_parts(sender);
    return 0;
}

bool scene_sender_remove_session(scene_sender_t& sender, int id) {
    std::lock_guard lock(sender.mutex);
    for (auto it = sender.session_list.begin(); it != sender.session_list.end(); ++it) {
        if (session_get_id(**it) == id) {
            remember_ended(sender, **it);
            if (sender.sending) {
                // The subscriber sees its stream end now; the descriptor
                // itself closes when the send that may write to it ends.
                shutdown(session_get_fd(**it), SHUT_RDWR);
                sender.retired.splice(sender.retired.end(), sender.session_list, it);
            } else {
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

void scene_sender_send(scene_sender_t& sender, const scene_encoding_t& encoding,
                       const std::function<void()>& done_with_encoding) {
    std::vector<send_target_t> targets;
    std::vector<fd_write_t> writes;
    // Sessions with the same options get the same bytes: each distinct
    // option set is assembled once per send, unless the encoding's own
    // bytes are its scene.
    std::array<std::string, 32> payloads;
    std::array<std::string_view, 32> scenes;
    bool reads_encoding = false;
    std::array<RadarScene::SerializeFrameOptions, 32> options;
    uint32_t distinct = 0;
    {
        std::lock_guard lock(sender.mutex);
        for (auto& session_ptr : sender.session_list) {
            RS_ASSERT(session_ptr);
            session_t& session = *session_ptr;
            session_state_t state = session_get_state(session);
            if (state == SESSION_STATE_BROKEN || state == SESSION_STATE_CLOSED) {
                continue;
            }
            unsigned key = options_key(session);
            if (!(distinct & (1u << key))) {
                options[key] = session_options(session);
                if (!scene_encoding_serves(encoding, options[key])) {
                    continue;
                }
                distinct |= 1u << key;
            }
            targets.push_back({&session, key, 0, {}});
            fd_write_t w;
            w.fd = session_get_fd(session);
            writes.push_back(w);
        }
        sender.sending = !targets.empty();
    }
    for (unsigned key = 0; key < payloads.size(); ++key) {
        if (!(distinct & (1u << key))) {
            continue;
        }
        if (scene_encoding_is_scene(encoding, options[key])) {
            scenes[key] = encoding.bytes;
            reads_encoding = true;
        } else {
            scene_encoding_assemble(payloads[key], encoding, options[key]);
            scenes[key] = payloads[key];
        }
    }
    if (done_with_encoding && !reads_encoding) {
        done_with_encoding();
    }
    if (targets.empty()) {
        return;
    }
    for (size_t i = 0; i < targets.size(); ++i) {
        send_target_t& t = targets[i];
        std::string_view payload = scenes[t.key];
        t.header = htonl(static_cast<uint32_t>(payload.size() + sizeof(uint32_t)));
        t.buffers[0] = {&t.header, sizeof(t.header)};
        t.buffers[1] = {const_cast<char*>(payload.data()), payload.size()};
        writes[i].iov = t.buffers;
        writes[i].count = 2;
    }
    writev_each(writes.data(), writes.size(), RECORD_TIMEOUT_MS);

    if (done_with_encoding && reads_encoding) {
        done_with_encoding();
    }
    release_payloads(payloads);

    bool any_broke = false;
    std::list<std::unique_ptr<session_t>> retired;
    {
        std::lock_guard lock(sender.mutex);
        for (size_t i = 0; i < targets.size(); ++i) {
            session_t& session = *targets[i].session;
            session.bytes_written += writes[i].written;
            sender.totals.bytes_written += writes[i].written;
            if (writes[i].result < 0) {
                session.error = -writes[i].result;
                session_set_state(session, SESSION_STATE_BROKEN);
                ++sender.totals.sessions_broken;
                any_broke = true;
            } else {
                ++session.scenes_written;
                ++sender.totals.scenes_written;
            }
        }
        sender.sending = false;
        retired.swap(sender.retired);
    }
    if (any_broke) {
        cleanup_broken_sessions(sender);
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
