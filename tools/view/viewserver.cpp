// The viewer's server on libwebsockets.
#include "viewserver.h"

#include <libwebsockets.h>

#include <netdb.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <deque>
#include <set>
#include <stdexcept>

namespace {

// What a viewer may send in one message; how long what waits for it may go
// unsent, and how many bytes of answers and statuses may wait, before it is
// disconnected.
constexpr size_t MAX_CLIENT_MESSAGE = 64 * 1024;
constexpr int MAX_STALL_S = 3;
constexpr size_t MAX_QUEUED_TEXT = 256 * 1024;
// Messages go out in fragments that a writable socket takes whole: the
// library answers a viewer's close only when it holds no part of a frame.
constexpr size_t FRAGMENT = 8 * 1024;
// The kernel's send buffer of a viewer's socket: room for a few scenes.
constexpr int VIEWER_SEND_BUFFER = 256 * 1024;
// How long a connection may take to become a viewer, and how many
// connections (pages, upgrades) there may be per viewer allowed.
constexpr unsigned HANDSHAKE_TIMEOUT_S = 5;
constexpr size_t CONNECTIONS_PER_VIEWER = 4;
// Descriptors kept for everything else: listening, the cancel pipe, the bus,
// the scene stream, the page's files.
constexpr size_t SPARE_DESCRIPTORS = 32;

int on_event(lws* wsi, lws_callback_reasons reason, void* user, void* in, size_t len) {
    auto* server = static_cast<ViewServer*>(lws_context_user(lws_get_context(wsi)));
    return server->callback(wsi, reason, user, in, len);
}

// Files, and WebSocket upgrades that ask for no subprotocol of ours: those
// are refused.
int on_http(lws* wsi, lws_callback_reasons reason, void* user, void* in, size_t len) {
    if (reason == LWS_CALLBACK_FILTER_PROTOCOL_CONNECTION) {
        return 1;
    }
    return lws_callback_http_dummy(wsi, reason, user, in, len);
}

const lws_protocols PROTOCOLS[] = {
    {"http", on_http, 0, 0, 0, nullptr, 0},
    {"foxglove.websocket.v1", on_event, sizeof(void*), MAX_CLIENT_MESSAGE, 0, nullptr, 0},
    {nullptr, nullptr, 0, 0, 0, nullptr, 0}};

void log_line(int, const char* line) {
    fprintf(stderr, "radarscene-view: libwebsockets: %s", line);
}

// "address:port", the address in brackets when it is IPv6.
std::string endpoint(const std::string& address, int port) {
    bool ipv6 = address.find(':') != std::string::npos;
    return (ipv6 ? "[" + address + "]" : address) + ":" + std::to_string(port);
}

// The numeric address that `address` names, checked by binding a socket to
// it; throws a line naming the address when it cannot be listened on.
sockaddr_storage listen_address(const std::string& address, int port, std::string& literal) {
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICSERV;
    addrinfo* found = nullptr;
    std::string where = "cannot listen on " + endpoint(address, port) + ": ";
    if (int r = getaddrinfo(address.c_str(), std::to_string(port).c_str(), &hints, &found)) {
        throw std::runtime_error(where + gai_strerror(r));
    }
    sockaddr_storage chosen{};
    memcpy(&chosen, found->ai_addr, found->ai_addrlen);
    socklen_t length = found->ai_addrlen;
    freeaddrinfo(found);
    char host[NI_MAXHOST];
    getnameinfo(reinterpret_cast<sockaddr*>(&chosen), length, host, sizeof host, nullptr, 0,
                NI_NUMERICHOST);
    literal = host;
    int fd = socket(chosen.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int one = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    bool bound = fd >= 0 && bind(fd, reinterpret_cast<sockaddr*>(&chosen), length) == 0;
    int error = errno;
    if (fd >= 0) {
        close(fd);
    }
    if (!bound) {
        throw std::runtime_error(where + strerror(error));
    }
    return chosen;
}

// Connections served at once: a few per viewer, and always well below the
// process's descriptor limit.
unsigned connection_limit(size_t max_clients) {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    size_t wanted = CONNECTIONS_PER_VIEWER * max_clients + SPARE_DESCRIPTORS;
    size_t room = limit.rlim_cur > 2 * SPARE_DESCRIPTORS ? limit.rlim_cur - SPARE_DESCRIPTORS
                                                         : SPARE_DESCRIPTORS;
    return static_cast<unsigned>(std::min(wanted, room));
}

}  // namespace

struct ViewServer::viewer_t {
    lws* wsi = nullptr;
    FoxgloveSession session;
    std::string out;  // the message going out, `out_at` bytes of it sent
    size_t out_at = 0;
    lws_write_protocol out_kind = LWS_WRITE_TEXT;
    std::deque<std::string> text;          // in order: info, channels, statuses
    size_t text_bytes = 0;                 // in `text`
    std::map<uint32_t, std::string> data;  // subscription -> its newest message
    std::string rx;                        // a text message arriving in fragments
    bool binary_refused = false;
    bool stall_timer = false;  // a timeout runs while something waits unsent
    bool dropped = false;      // being disconnected at once
    bool closing = false;      // close once the text is out, with this status and reason
    uint64_t serial = 0;       // in the order of arrival
    lws_close_status close_status = LWS_CLOSE_STATUS_NORMAL;
    std::string close_reason;
};

namespace {

bool waiting(const ViewServer::viewer_t& viewer) {
    return viewer.out_at < viewer.out.size() || !viewer.text.empty() ||
           (!viewer.data.empty() && !viewer.closing);
}

// Takes the next message to send, text first; false when none waits.
bool next_message(ViewServer::viewer_t& viewer) {
    viewer.out_at = 0;
    if (!viewer.text.empty()) {
        viewer.out = std::move(viewer.text.front());
        viewer.text.pop_front();
        viewer.text_bytes -= viewer.out.size();
        viewer.out_kind = LWS_WRITE_TEXT;
    } else if (!viewer.data.empty() && !viewer.closing) {
        viewer.out = std::move(viewer.data.begin()->second);
        viewer.data.erase(viewer.data.begin());
        viewer.out_kind = LWS_WRITE_BINARY;
    } else {
        viewer.out.clear();
        return false;
    }
    return true;
}

// Queues an answer; a viewer whose answers pile up beyond the bound is
// disconnected, which also frees them.
void queue_text(ViewServer::viewer_t& viewer, std::string message) {
    viewer.text_bytes += message.size();
    viewer.text.push_back(std::move(message));
    if (viewer.text_bytes > MAX_QUEUED_TEXT && !viewer.dropped) {
        viewer.text.clear();
        viewer.data.clear();
        viewer.text_bytes = 0;
        viewer.dropped = true;
        lws_set_timeout(viewer.wsi, PENDING_TIMEOUT_USER_OK, LWS_TO_KILL_ASYNC);
    }
}

// Starts or stops the stall timeout as something waits or not: a viewer that
// takes nothing of what waits for MAX_STALL_S is disconnected. `progress`
// restarts a running timeout.
void watch_stall(ViewServer::viewer_t& viewer, bool progress) {
    if (viewer.dropped) {
        return;
    }
    bool wait = waiting(viewer) || viewer.closing;
    if (wait && (progress || !viewer.stall_timer)) {
        lws_set_timeout(viewer.wsi, PENDING_TIMEOUT_USER_OK, MAX_STALL_S);
    } else if (!wait && viewer.stall_timer) {
        lws_set_timeout(viewer.wsi, NO_PENDING_TIMEOUT, 0);
    }
    viewer.stall_timer = wait;
}

// Asks to write what waits.
void want_write(ViewServer::viewer_t& viewer) {
    watch_stall(viewer, false);
    if (!viewer.dropped && (waiting(viewer) || viewer.closing)) {
        lws_callback_on_writable(viewer.wsi);
    }
}

// Sends `status` as the last message, then closes with `code` and it.
void close_with(ViewServer::viewer_t& viewer, lws_close_status code, const std::string& reason) {
    viewer.data.clear();
    queue_text(viewer, foxglove_status(FOXGLOVE_ERROR, reason));
    viewer.closing = true;
    viewer.close_status = code;
    viewer.close_reason = reason;
    want_write(viewer);
}

}  // namespace

ViewServer::ViewServer(const view_server_options_t& options,
                       std::vector<foxglove_channel_t> channels)
    : options_(options), channels_(std::move(channels)) {
    for (const foxglove_channel_t& c : channels_) {
        channel_ids_.push_back(c.id);
        wanted_[c.id] = false;
    }
    lws_set_log_level(LLL_ERR, log_line);
    scratch_.resize(LWS_PRE + FRAGMENT);
    mount_ = std::make_unique<lws_http_mount>();
    mount_->mountpoint = "/";
    mount_->mountpoint_len = 1;
    mount_->origin = options_.web_root.c_str();
    mount_->def = "index.html";
    mount_->origin_protocol = LWSMPRO_FILE;
    sockaddr_storage address = listen_address(options_.address, options_.port, address_);
    lws_context_creation_info info{};
    info.port = options_.port;
    info.iface = address_.c_str();
    info.protocols = PROTOCOLS;
    info.mounts = mount_.get();
    info.user = this;
    info.options = LWS_SERVER_OPTION_VALIDATE_UTF8;
    // An IPv4 address needs an IPv4 socket; an IPv6 one, "::" included,
    // takes no IPv4 connections.
    info.options |= address.ss_family == AF_INET ? LWS_SERVER_OPTION_DISABLE_IPV6
                                                 : LWS_SERVER_OPTION_IPV6_V6ONLY_MODIFY |
                                                       LWS_SERVER_OPTION_IPV6_V6ONLY_VALUE;
    info.timeout_secs = HANDSHAKE_TIMEOUT_S;
    info.fd_limit_per_thread = connection_limit(options_.max_clients);
    context_ = lws_create_context(&info);
    if (!context_) {
        throw std::runtime_error("cannot listen on " + endpoint(address_, options_.port));
    }
    port_ = lws_get_vhost_listen_port(lws_get_vhost_by_name(context_, "default"));
}

ViewServer::~ViewServer() {
    lws_context_destroy(context_);
}

void ViewServer::publish(uint32_t channel, uint64_t timestamp_ns, std::string payload) {
    {
        std::lock_guard lock(inbox_mutex_);
        inbox_[channel] = {timestamp_ns, std::move(payload)};
    }
    lws_cancel_service(context_);
}

void ViewServer::broadcast(foxglove_status_level_t level, const std::string& message) {
    {
        std::lock_guard lock(inbox_mutex_);
        statuses_.push_back(foxglove_status(level, message));
    }
    lws_cancel_service(context_);
}

bool ViewServer::wanted(uint32_t channel) const {
    auto it = wanted_.find(channel);
    return it != wanted_.end() && it->second;
}

void ViewServer::run() {
    while (!stopping_ && lws_service(context_, 0) >= 0) {
    }
}

void ViewServer::stop() {
    stopping_ = true;
    lws_cancel_service(context_);
}

void ViewServer::updateWanted() {
    for (uint32_t channel : channel_ids_) {
        bool any = false;
        for (const auto& [wsi, viewer] : viewers_) {
            any = any || viewer->session.subscribed(channel);
        }
        wanted_[channel] = any;
    }
}

// On the service thread: hands the newest messages and statuses to the
// viewers.
void ViewServer::deliver() {
    std::map<uint32_t, std::pair<uint64_t, std::string>> inbox;
    std::vector<std::string> statuses;
    {
        std::lock_guard lock(inbox_mutex_);
        inbox.swap(inbox_);
        statuses.swap(statuses_);
    }
    for (auto& [wsi, viewer] : viewers_) {
        if (viewer->closing || viewer->dropped) {
            continue;
        }
        for (const std::string& status : statuses) {
            queue_text(*viewer, status);
        }
        for (const auto& [channel, message] : inbox) {
            for (uint32_t subscription : viewer->session.subscriptionsOf(channel)) {
                viewer->data[subscription] =
                    foxglove_message_data(subscription, message.first, message.second);
            }
        }
        want_write(*viewer);
    }
}

// A new viewer beyond the limit takes the place of the oldest one that
// subscribes to nothing; when all subscribe, it is refused.
void ViewServer::admit(viewer_t& viewer) {
    viewer_t* idle = nullptr;
    size_t active = 0;
    for (const auto& [wsi, other] : viewers_) {
        if (other.get() == &viewer || other->closing || other->dropped) {
            continue;
        }
        ++active;
        if (other->session.empty() && (!idle || other->serial < idle->serial)) {
            idle = other.get();
        }
    }
    if (active >= options_.max_clients && !idle) {
        close_with(viewer, LWS_CLOSE_STATUS_POLICY_VIOLATION,
                   "too many viewers (" + std::to_string(options_.max_clients) + ")");
        return;
    }
    if (active >= options_.max_clients) {
        close_with(*idle, LWS_CLOSE_STATUS_POLICY_VIOLATION,
                   "a newer viewer took the place of this one, which subscribed to nothing");
    }
    queue_text(viewer, foxglove_server_info("radarscene-view"));
    queue_text(viewer, foxglove_advertise(channels_));
    want_write(viewer);
}

void ViewServer::receive(viewer_t& viewer, const char* in, size_t len) {
    lws* wsi = viewer.wsi;
    if (lws_frame_is_binary(wsi)) {
        if (!viewer.binary_refused) {
            queue_text(viewer,
                       foxglove_status(FOXGLOVE_ERROR, "binary messages are not supported"));
            want_write(viewer);
        }
        viewer.binary_refused = !lws_is_final_fragment(wsi);
        return;
    }
    viewer.rx.append(in, len);
    if (viewer.rx.size() > MAX_CLIENT_MESSAGE) {
        close_with(viewer, LWS_CLOSE_STATUS_MESSAGE_TOO_LARGE, "message too large");
        return;
    }
    if (!lws_is_final_fragment(wsi)) {
        return;
    }
    std::set<uint32_t> ids(channel_ids_.begin(), channel_ids_.end());
    if (auto reply = viewer.session.handleText(viewer.rx, ids)) {
        queue_text(viewer, std::move(*reply));
    }
    viewer.rx.clear();
    updateWanted();
    want_write(viewer);
}

// Writes what waits while the socket takes it; after the last message of a
// closing viewer, closes with its status and reason.
int ViewServer::write(viewer_t& viewer) {
    do {
        if (viewer.out_at == viewer.out.size() && !next_message(viewer)) {
            if (!viewer.closing) {
                return 0;
            }
            lws_close_reason(viewer.wsi, viewer.close_status,
                             reinterpret_cast<unsigned char*>(viewer.close_reason.data()),
                             viewer.close_reason.size());
            return -1;
        }
        size_t n = std::min(FRAGMENT, viewer.out.size() - viewer.out_at);
        int flags = lws_write_ws_flags(viewer.out_kind, viewer.out_at == 0,
                                       viewer.out_at + n == viewer.out.size());
        memcpy(scratch_.data() + LWS_PRE, viewer.out.data() + viewer.out_at, n);
        if (lws_write(viewer.wsi, scratch_.data() + LWS_PRE, n,
                      static_cast<lws_write_protocol>(flags)) < static_cast<int>(n)) {
            return -1;
        }
        viewer.out_at += n;
        watch_stall(viewer, true);
    } while (!lws_send_pipe_choked(viewer.wsi));
    want_write(viewer);
    return 0;
}

int ViewServer::callback(lws* wsi, int reason, void* user, void* in, size_t len) {
    auto** slot = static_cast<viewer_t**>(user);
    viewer_t* viewer = slot ? *slot : nullptr;
    switch (reason) {
        case LWS_CALLBACK_ESTABLISHED: {
            // The kernel would otherwise queue megabytes of old scenes for a
            // viewer that falls behind before the server sees it stall.
            int send_buffer = VIEWER_SEND_BUFFER;
            setsockopt(lws_get_socket_fd(wsi), SOL_SOCKET, SO_SNDBUF, &send_buffer,
                       sizeof send_buffer);
            auto created = std::make_unique<viewer_t>();
            created->wsi = wsi;
            created->serial = ++serial_;
            *slot = created.get();
            viewers_[wsi] = std::move(created);
            admit(*viewers_[wsi]);
            return 0;
        }
        case LWS_CALLBACK_CLOSED:
            if (viewer) {
                viewers_.erase(wsi);
                *slot = nullptr;
                updateWanted();
            }
            return 0;
        case LWS_CALLBACK_WS_PEER_INITIATED_CLOSE:
            // Nothing more goes out before the library echoes the close.
            if (viewer) {
                viewer->dropped = true;
            }
            return 0;
        case LWS_CALLBACK_RECEIVE:
            if (viewer && !viewer->closing && !viewer->dropped) {
                receive(*viewer, static_cast<const char*>(in), len);
            }
            return 0;
        case LWS_CALLBACK_SERVER_WRITEABLE:
            return viewer && !viewer->dropped ? write(*viewer) : 0;
        case LWS_CALLBACK_EVENT_WAIT_CANCELLED:
            deliver();
            return 0;
        default:
            return 0;
    }
}
