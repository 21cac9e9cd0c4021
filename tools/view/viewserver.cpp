// The viewer's server on libwebsockets.
#include "viewserver.h"

#include "common/log.h"

#include <libwebsockets.h>

#include <malloc.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/random.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <deque>
#include <set>
#include <stdexcept>
#include <tuple>

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
// A viewer that took at least as many of its messages as were replaced
// unsent within this and the window before reads what it asked for and
// keeps its place.
constexpr int64_t READING_WINDOW_NS = 2'000'000'000;
// Descriptors kept for everything else: listening, the cancel pipe, the bus,
// the scene stream, the page's files.
constexpr size_t SPARE_DESCRIPTORS = 32;

int on_event(lws* wsi, lws_callback_reasons reason, void* user, void* in, size_t len) {
    auto* server = static_cast<ViewServer*>(lws_context_user(lws_get_context(wsi)));
    return server->callback(wsi, reason, user, in, len);
}

// Connections, files, and WebSocket upgrades before they reach a protocol.
int on_http(lws* wsi, lws_callback_reasons reason, void* user, void* in, size_t len) {
    auto* server = static_cast<ViewServer*>(lws_context_user(lws_get_context(wsi)));
    return server->httpCallback(wsi, reason, user, in, len);
}

const lws_protocols PROTOCOLS[] = {
    {"http", on_http, 0, 0, 0, nullptr, 0},
    {"foxglove.websocket.v1", on_event, sizeof(void*), MAX_CLIENT_MESSAGE, 0, nullptr, 0},
    {nullptr, nullptr, 0, 0, 0, nullptr, 0}};

// The library's lines go through the log's limiter: a client can make it
// write one per request.
void log_line(int, const char* line) {
    size_t n = strlen(line);
    while (n > 0 && (line[n - 1] == '\n' || line[n - 1] == '\r')) {
        --n;
    }
    log_error("radarscene-view: libwebsockets: %.*s", static_cast<int>(n), line);
}

int64_t now_ns() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1'000'000'000 + now.tv_nsec;
}

bool loopback(const sockaddr_storage& address) {
    if (address.ss_family == AF_INET) {
        auto* in = reinterpret_cast<const sockaddr_in*>(&address);
        return (ntohl(in->sin_addr.s_addr) >> 24) == 127;
    }
    return IN6_IS_ADDR_LOOPBACK(&reinterpret_cast<const sockaddr_in6*>(&address)->sin6_addr);
}

// A header's value, cut at `max` bytes; empty when absent.
std::string header(lws* wsi, lws_token_indexes token, size_t max = 1024) {
    int n = lws_hdr_total_length(wsi, token);
    if (n <= 0 || static_cast<size_t>(n) > max) {
        return {};
    }
    std::string value(static_cast<size_t>(n) + 1, '\0');
    n = lws_hdr_copy(wsi, value.data(), static_cast<int>(value.size()), token);
    value.resize(n > 0 ? static_cast<size_t>(n) : 0);
    return value;
}

std::string peer_host(lws* wsi) {
    sockaddr_storage peer{};
    socklen_t length = sizeof peer;
    getpeername(lws_get_socket_fd(wsi), reinterpret_cast<sockaddr*>(&peer), &length);
    return view_access_host(peer);
}

std::string random_hex(size_t bytes) {
    std::string raw(bytes, '\0');
    if (getrandom(raw.data(), raw.size(), 0) != static_cast<ssize_t>(raw.size())) {
        throw std::runtime_error(std::string("getrandom: ") + strerror(errno));
    }
    static const char DIGITS[] = "0123456789abcdef";
    std::string hex;
    for (unsigned char c : raw) {
        hex += DIGITS[c >> 4];
        hex += DIGITS[c & 15];
    }
    return hex;
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
    if (chosen.ss_family == AF_INET6 &&
        IN6_IS_ADDR_V4MAPPED(&reinterpret_cast<sockaddr_in6*>(&chosen)->sin6_addr)) {
        freeaddrinfo(found);
        throw std::runtime_error(where + "an IPv4-mapped address; give the IPv4 address itself");
    }
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

// A message waiting for a viewer: its own head (a text message, or the
// header of a message-data frame) and the payload it shares with every
// other viewer of the channel.
struct message_t {
    std::string head;
    std::shared_ptr<const std::string> body;
    size_t size() const { return head.size() + (body ? body->size() : 0); }
    // Copies `n` bytes from `at` to `to`.
    void copy(size_t at, size_t n, unsigned char* to) const {
        size_t from_head = at < head.size() ? std::min(n, head.size() - at) : 0;
        memcpy(to, head.data() + at, from_head);
        if (n > from_head) {
            memcpy(to + from_head, body->data() + (at + from_head - head.size()), n - from_head);
        }
    }
};

struct ViewServer::viewer_t {
    lws* wsi = nullptr;
    FoxgloveSession session;
    message_t out;  // the message going out, `out_at` bytes of it sent
    size_t out_at = 0;
    lws_write_protocol out_kind = LWS_WRITE_TEXT;
    std::deque<std::string> text;        // in order: info, channels, statuses
    size_t text_bytes = 0;               // in `text`
    std::map<uint32_t, message_t> data;  // subscription -> its newest message
    std::string rx;                      // a text message arriving in fragments
    bool binary_refused = false;
    bool stall_timer = false;  // a timeout runs while something waits unsent
    bool dropped = false;      // being disconnected at once
    bool closing = false;      // close once the text is out, with this status and reason
    uint64_t serial = 0;       // in the order of arrival
    int64_t connected_at = 0;
    std::string host;  // its address
    lws_close_status close_status = LWS_CLOSE_STATUS_NORMAL;
    std::string close_reason;
    // Whether it takes what it subscribed to: messages taken whole and
    // messages replaced unsent, in the current window and the one before.
    int64_t window_at = 0;
    unsigned taken[2] = {0, 0};
    unsigned replaced[2] = {0, 0};
};

namespace {

// Starts a new window of the reading tally when the current one is over.
void roll_tally(ViewServer::viewer_t& viewer, int64_t now) {
    if (now - viewer.window_at < READING_WINDOW_NS) {
        return;
    }
    bool adjacent = now - viewer.window_at < 2 * READING_WINDOW_NS;
    viewer.taken[1] = adjacent ? viewer.taken[0] : 0;
    viewer.replaced[1] = adjacent ? viewer.replaced[0] : 0;
    viewer.taken[0] = viewer.replaced[0] = 0;
    viewer.window_at = now;
}

// How much a viewer's place is worth: 0 subscribes to nothing, 1 subscribes
// but does not take what it is sent (or is sent nothing), 2 reads: it took
// at least as many of its messages as were replaced unsent, and took some or
// has its first on the way.
int standing(ViewServer::viewer_t& viewer, int64_t now) {
    if (viewer.session.empty()) {
        return 0;
    }
    roll_tally(viewer, now);
    unsigned taken = viewer.taken[0] + viewer.taken[1];
    bool sending = !viewer.data.empty() ||
                   (viewer.out_kind == LWS_WRITE_BINARY && viewer.out_at < viewer.out.size());
    return viewer.replaced[0] + viewer.replaced[1] <= taken && (taken > 0 || sending) ? 2 : 1;
}

bool waiting(const ViewServer::viewer_t& viewer) {
    return viewer.out_at < viewer.out.size() || !viewer.text.empty() ||
           (!viewer.data.empty() && !viewer.closing);
}

// Takes the next message to send, text first; false when none waits.
bool next_message(ViewServer::viewer_t& viewer) {
    viewer.out_at = 0;
    if (!viewer.text.empty()) {
        viewer.out = {std::move(viewer.text.front()), nullptr};
        viewer.text.pop_front();
        viewer.text_bytes -= viewer.out.head.size();
        viewer.out_kind = LWS_WRITE_TEXT;
    } else if (!viewer.data.empty() && !viewer.closing) {
        viewer.out = std::move(viewer.data.begin()->second);
        viewer.data.erase(viewer.data.begin());
        viewer.out_kind = LWS_WRITE_BINARY;
    } else {
        viewer.out = {};
        return false;
    }
    return true;
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

// Closes with `code` and `reason` once what is being sent is out.
void close_after(ViewServer::viewer_t& viewer, lws_close_status code, const std::string& reason) {
    viewer.data.clear();
    viewer.closing = true;
    viewer.close_status = code;
    viewer.close_reason = reason;
    want_write(viewer);
}

// Queues an answer; a viewer whose answers pile up beyond the bound loses
// them and is closed with a reason.
void queue_text(ViewServer::viewer_t& viewer, std::string message) {
    if (viewer.closing) {
        return;
    }
    viewer.text_bytes += message.size();
    viewer.text.push_back(std::move(message));
    if (viewer.text_bytes > MAX_QUEUED_TEXT) {
        viewer.text.clear();
        viewer.text_bytes = 0;
        // What it sends meanwhile would keep the close frame from going out.
        lws_rx_flow_control(viewer.wsi, 0);
        close_after(viewer, LWS_CLOSE_STATUS_POLICY_VIOLATION,
                    "too many answers waiting to be read");
    }
}

// Sends `reason` as an error status, the last message, then closes with
// `code` and it.
void close_with(ViewServer::viewer_t& viewer, lws_close_status code, const std::string& reason) {
    viewer.data.clear();
    queue_text(viewer, foxglove_status(FOXGLOVE_ERROR, reason));
    close_after(viewer, code, reason);
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
    if (::access((options_.web_root + "/index.html").c_str(), R_OK) != 0) {
        throw std::runtime_error("no page in " + options_.web_root +
                                 ": index.html: " + strerror(errno));
    }
    scratch_.resize(LWS_PRE + FRAGMENT);
    mount_ = std::make_unique<lws_http_mount>();
    mount_->mountpoint = "/";
    mount_->mountpoint_len = 1;
    mount_->origin = options_.web_root.c_str();
    mount_->def = "index.html";
    mount_->origin_protocol = LWSMPRO_FILE;
    mount_->protocol = "http";  // which adds the cookie to the page
    sockaddr_storage address = listen_address(options_.address, options_.port, address_);
    bool tls = !options_.tls_cert.empty();
    if (!loopback(address) && !options_.insecure_listener && (!tls || options_.secret.empty())) {
        std::string missing = !tls ? "TLS (--tls-cert and --tls-key)" : "";
        if (options_.secret.empty()) {
            missing += std::string(missing.empty() ? "" : " and ") + "a secret (--secret-file)";
        }
        throw std::runtime_error("listening on " + endpoint(address_, options_.port) +
                                 ", beyond the loopback address, needs " + missing +
                                 ", or --insecure-listener");
    }
    for (const std::string& file : {options_.tls_cert, options_.tls_key}) {
        if (!file.empty() && ::access(file.c_str(), R_OK) != 0) {
            throw std::runtime_error("cannot read " + file + ": " + strerror(errno));
        }
    }
    access_.secret = options_.secret;
    access_.session = random_hex(32);
    access_.max_per_address = options_.max_per_address;
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
    if (tls) {
        info.options |= LWS_SERVER_OPTION_DO_SSL_GLOBAL_INIT;
        info.ssl_cert_filepath = options_.tls_cert.c_str();
        info.ssl_private_key_filepath = options_.tls_key.c_str();
    }
    // Connections that say nothing, and idle ones between requests, end
    // after the handshake's time.
    info.timeout_secs = HANDSHAKE_TIMEOUT_S;
    info.timeout_secs_ah_idle = HANDSHAKE_TIMEOUT_S;
    info.keepalive_timeout = HANDSHAKE_TIMEOUT_S;
    info.fd_limit_per_thread = connection_limit(options_.max_clients);
    context_ = lws_create_context(&info);
    if (!context_) {
        throw std::runtime_error(
            "cannot listen on " + endpoint(address_, options_.port) +
            (tls ? " with the certificate " + options_.tls_cert + " and the key " + options_.tls_key
                 : ""));
    }
    port_ = lws_get_vhost_listen_port(lws_get_vhost_by_name(context_, "default"));
    view_access_add_own_origins(access_, scheme(), options_.address, address_, port_);
    for (const std::string& origin : options_.allowed_origins) {
        access_.origins.insert(origin);
    }
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
        inbox_condition_ = statuses_.back();
    }
    lws_cancel_service(context_);
}

bool ViewServer::wanted(uint32_t channel) const {
    auto it = wanted_.find(channel);
    return it != wanted_.end() && it->second;
}

void ViewServer::run() {
    while (!stopping_ && lws_service(context_, 0) >= 0) {
        trimMemory();
        log_report_suppressed();
    }
}

// Once a second at most, after viewers left: what they held goes back to
// the system, instead of staying with the allocator.
void ViewServer::trimMemory() {
    int64_t now = now_ns();
    if (trim_due_ && now - trimmed_at_ >= 1'000'000'000) {
        malloc_trim(0);
        trim_due_ = false;
        trimmed_at_ = now;
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
// viewers. Each channel's message is made once and shared; only its
// 13-byte header is each subscription's own.
void ViewServer::deliver() {
    std::map<uint32_t, std::pair<uint64_t, std::string>> inbox;
    std::vector<std::string> statuses;
    {
        std::lock_guard lock(inbox_mutex_);
        inbox.swap(inbox_);
        statuses.swap(statuses_);
        condition_ = inbox_condition_;
    }
    std::map<uint32_t, std::shared_ptr<const std::string>> shared;
    for (auto& [channel, message] : inbox) {
        shared[channel] = std::make_shared<const std::string>(std::move(message.second));
    }
    for (auto& [wsi, viewer] : viewers_) {
        if (viewer->closing || viewer->dropped) {
            continue;
        }
        for (const std::string& status : statuses) {
            queue_text(*viewer, status);
        }
        roll_tally(*viewer, now_ns());
        for (const auto& [channel, message] : inbox) {
            for (uint32_t subscription : viewer->session.subscriptionsOf(channel)) {
                auto [slot, fresh] = viewer->data.try_emplace(subscription);
                viewer->replaced[0] += !fresh;
                slot->second = {foxglove_message_data(subscription, message.first, {}),
                                shared[channel]};
            }
        }
        want_write(*viewer);
    }
}

// A new viewer beyond the limit takes the place of one that subscribes to
// nothing, or else of one that does not take what it subscribed to; among
// those, of one from the address with the most viewers, the oldest first.
// A viewer that reads is never replaced: when all read, the new one is
// refused.
void ViewServer::admit(viewer_t& viewer) {
    int64_t now = now_ns();
    std::map<std::string, size_t> per_address;
    for (const auto& [wsi, other] : viewers_) {
        if (other.get() != &viewer && !other->closing && !other->dropped) {
            ++per_address[other->host];
        }
    }
    viewer_t* weakest = nullptr;
    std::tuple<int, int64_t, uint64_t> weakest_rank{2, 0, 0};
    size_t active = 0;
    for (const auto& [wsi, other] : viewers_) {
        if (other.get() == &viewer || other->closing || other->dropped) {
            continue;
        }
        ++active;
        // One that just came has its moment to subscribe.
        int s = standing(*other, now);
        s = s == 0 && now - other->connected_at < READING_WINDOW_NS / 2 ? 1 : s;
        std::tuple<int, int64_t, uint64_t> rank{s, -static_cast<int64_t>(per_address[other->host]),
                                                other->serial};
        if (s < 2 && (!weakest || rank < weakest_rank)) {
            weakest = other.get();
            weakest_rank = rank;
        }
    }
    if (active >= options_.max_clients && !weakest) {
        close_with(viewer, LWS_CLOSE_STATUS_POLICY_VIOLATION,
                   "too many viewers (" + std::to_string(options_.max_clients) + ")");
        return;
    }
    if (active >= options_.max_clients) {
        close_with(*weakest, LWS_CLOSE_STATUS_POLICY_VIOLATION,
                   weakest->session.empty()
                       ? "a newer viewer took the place of this one, which subscribed to nothing"
                       : "a newer viewer took the place of this one, which did not take what it "
                         "subscribed to");
    }
    queue_text(viewer, foxglove_server_info("radarscene-view"));
    queue_text(viewer, foxglove_advertise(channels_));
    if (!condition_.empty()) {
        queue_text(viewer, condition_);
    }
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
            // The library sends the close frame and waits for its answer;
            // a second -1 would cut the connection before.
            viewer.dropped = true;
            return -1;
        }
        size_t n = std::min(FRAGMENT, viewer.out.size() - viewer.out_at);
        int flags = lws_write_ws_flags(viewer.out_kind, viewer.out_at == 0,
                                       viewer.out_at + n == viewer.out.size());
        viewer.out.copy(viewer.out_at, n, scratch_.data() + LWS_PRE);
        if (lws_write(viewer.wsi, scratch_.data() + LWS_PRE, n,
                      static_cast<lws_write_protocol>(flags)) < static_cast<int>(n)) {
            return -1;
        }
        viewer.out_at += n;
        if (viewer.out_at == viewer.out.size() && viewer.out_kind == LWS_WRITE_BINARY) {
            roll_tally(viewer, now_ns());
            ++viewer.taken[0];
        }
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
            created->connected_at = now_ns();
            created->host = peer_host(wsi);
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
                trim_due_ = true;
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

// The HTTP status that refuses a page request or an upgrade, or 0: a page
// of another origin, missing or wrong credentials (counted per address), an
// upgrade to anything but our subprotocol.
unsigned ViewServer::refusal(lws* wsi, bool upgrade) {
    std::string origin = header(wsi, WSI_TOKEN_ORIGIN);
    if (lws_hdr_total_length(wsi, WSI_TOKEN_ORIGIN) > 0 &&
        !view_access_origin_allowed(access_, origin)) {
        return HTTP_STATUS_FORBIDDEN;
    }
    if (!access_.secret.empty()) {
        std::string address = peer_host(wsi);
        int64_t now_s = now_ns() / 1'000'000'000;
        if (view_access_locked_out(access_, address, now_s)) {
            return 429;
        }
        std::string bearer = header(wsi, WSI_TOKEN_HTTP_AUTHORIZATION, 2048);
        char arg[2048] = "";
        const char* token = lws_get_urlarg_by_name(wsi, "token=", arg, sizeof arg);
        bool given = (bearer.rfind("Bearer ", 0) == 0 &&
                      view_access_secret_matches(access_, bearer.substr(7))) ||
                     (token && view_access_secret_matches(access_, token));
        if (!given &&
            !view_access_cookie_matches(access_, header(wsi, WSI_TOKEN_HTTP_COOKIE, 4096))) {
            view_access_failed(access_, address, now_s);
            return HTTP_STATUS_UNAUTHORIZED;
        }
        if (given && !upgrade) {
            cookie_due_.insert(wsi);
        }
    }
    if (upgrade) {
        if (header(wsi, WSI_TOKEN_VERSION) != "13") {
            return 426;
        }
        std::string protocols = header(wsi, WSI_TOKEN_PROTOCOL);
        if (protocols.find(PROTOCOLS[1].name) == std::string::npos) {
            return HTTP_STATUS_BAD_REQUEST;
        }
    }
    return 0;
}

int ViewServer::httpCallback(lws* wsi, int reason, void* user, void* in, size_t len) {
    static const std::map<unsigned, const char*> WHY{
        {HTTP_STATUS_BAD_REQUEST, "an upgrade needs the subprotocol foxglove.websocket.v1"},
        {HTTP_STATUS_UNAUTHORIZED, "this view needs its secret: add ?token=SECRET to the address"},
        {HTTP_STATUS_FORBIDDEN, "pages of other origins may not use this view"},
        {426, "WebSocket version 13 is needed"},
        {429, "too many failed attempts from this address; try again in a minute"}};
    switch (reason) {
        case LWS_CALLBACK_FILTER_NETWORK_CONNECTION:
            return view_access_admit_peer(access_, static_cast<int>(reinterpret_cast<intptr_t>(in)))
                       ? 0
                       : 1;
        case LWS_CALLBACK_FILTER_HTTP_CONNECTION:
        case LWS_CALLBACK_HTTP_CONFIRM_UPGRADE: {
            cookie_due_.erase(wsi);
            bool upgrade = reason == LWS_CALLBACK_HTTP_CONFIRM_UPGRADE;
            if (unsigned status = refusal(wsi, upgrade)) {
                lws_return_http_status(wsi, status, WHY.at(status));
                // An upgrade's answer ends the transaction; a page request
                // is closed.
                return upgrade ? (lws_http_transaction_completed(wsi) ? -1 : 1) : 1;
            }
            return 0;
        }
        case LWS_CALLBACK_ADD_HEADERS:
            if (cookie_due_.erase(wsi)) {
                std::string cookie = std::string(VIEW_COOKIE) + "=" + access_.session +
                                     "; Path=/; HttpOnly; SameSite=Strict" +
                                     (options_.tls_cert.empty() ? "" : "; Secure");
                auto* args = static_cast<lws_process_html_args*>(in);
                auto* p = reinterpret_cast<unsigned char*>(args->p);
                if (lws_add_http_header_by_token(
                        wsi, WSI_TOKEN_HTTP_SET_COOKIE,
                        reinterpret_cast<const unsigned char*>(cookie.data()),
                        static_cast<int>(cookie.size()), &p, p + args->max_len)) {
                    return 1;
                }
                args->max_len -= static_cast<int>(reinterpret_cast<char*>(p) - args->p);
                args->p = reinterpret_cast<char*>(p);
            }
            return 0;
        case LWS_CALLBACK_CLOSED_HTTP:
            cookie_due_.erase(wsi);
            return lws_callback_http_dummy(wsi, static_cast<lws_callback_reasons>(reason), user, in,
                                           len);
        case LWS_CALLBACK_FILTER_PROTOCOL_CONNECTION:
            return 1;  // an upgrade that asked for no protocol of ours
        default:
            return lws_callback_http_dummy(wsi, static_cast<lws_callback_reasons>(reason), user, in,
                                           len);
    }
}
