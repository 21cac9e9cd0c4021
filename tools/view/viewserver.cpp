// The viewer's server: its connections on one epoll loop, from the TLS and
// HTTP handshakes to the viewers' frames.
#include "viewserver.h"

#include "common/log.h"
#include "httpmessage.h"
#include "viewer.h"
#include "viewlink.h"
#include "webroot.h"
#include "wsframe.h"

#include <malloc.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/random.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <set>
#include <stdexcept>
#include <tuple>

namespace {

// What a viewer may send in one message; how long what waits for it may go
// unsent before it is disconnected.
constexpr size_t MAX_CLIENT_MESSAGE = 64 * 1024;
constexpr int64_t MAX_STALL_NS = 3'000'000'000;
// The kernel's send buffer of a viewer's socket: room for a few scenes.
constexpr int VIEWER_SEND_BUFFER = 256 * 1024;
// How long a connection may take to become a viewer (TCP, TLS and HTTP
// handshakes), how long one that is done may take to see our last bytes
// and close, and how many connections (pages, upgrades) there may be per
// viewer allowed.
constexpr int64_t HANDSHAKE_TIMEOUT_NS = 5'000'000'000;
constexpr int64_t LINGER_NS = 2'000'000'000;
constexpr size_t CONNECTIONS_PER_VIEWER = 4;
// Descriptors kept for everything else: listening, the loop, the bus, the
// scene stream, the page's files.
constexpr size_t SPARE_DESCRIPTORS = 32;
// Bytes read from one connection, and written to one, per turn of the loop.
constexpr size_t READ_CHUNK = 16 * 1024;
constexpr size_t READS_PER_TURN = 16;
constexpr size_t WRITE_CHUNK = 64 * 1024;

const char* const SUBPROTOCOL = "foxglove.websocket.v1";

enum phase_t { HANDSHAKING, RESPONDING, VIEWING, LINGERING };

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

// A socket bound to the numeric address that `address` names, and that
// literal; throws a line naming the address when it cannot be listened on.
int listen_socket(const std::string& address, int port, sockaddr_storage& chosen,
                  std::string& literal) {
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICSERV;
    addrinfo* found = nullptr;
    std::string where = "cannot listen on " + endpoint(address, port) + ": ";
    if (int r = getaddrinfo(address.c_str(), std::to_string(port).c_str(), &hints, &found)) {
        throw std::runtime_error(where + gai_strerror(r));
    }
    memcpy(&chosen, found->ai_addr, found->ai_addrlen);
    socklen_t length = found->ai_addrlen;
    freeaddrinfo(found);
    if (chosen.ss_family == AF_INET6 &&
        IN6_IS_ADDR_V4MAPPED(&reinterpret_cast<sockaddr_in6*>(&chosen)->sin6_addr)) {
        throw std::runtime_error(where + "an IPv4-mapped address; give the IPv4 address itself");
    }
    char host[NI_MAXHOST];
    getnameinfo(reinterpret_cast<sockaddr*>(&chosen), length, host, sizeof host, nullptr, 0,
                NI_NUMERICHOST);
    literal = host;
    int fd = socket(chosen.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    int one = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    // An IPv6 address, "::" included, takes no IPv4 connections.
    if (chosen.ss_family == AF_INET6) {
        setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &one, sizeof one);
    }
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&chosen), length) != 0) {
        int error = errno;
        if (fd >= 0) {
            close(fd);
        }
        throw std::runtime_error(where + strerror(error));
    }
    return fd;
}

std::string peer_host(int fd) {
    sockaddr_storage peer{};
    socklen_t length = sizeof peer;
    getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &length);
    return view_access_host(peer);
}

void wake(int fd) {
    uint64_t one = 1;
    ssize_t ignored = write(fd, &one, sizeof one);
    (void)ignored;  // a full counter wakes the loop as well
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

struct ViewServer::connection_t {
    std::unique_ptr<view_link_t> link;
    std::string host;  // the peer's address
    phase_t phase = HANDSHAKING;
    std::string in;           // bytes read and not yet used
    std::string out;          // an HTTP response
    size_t out_at = 0;        // of `out`, sent
    int64_t deadline = 0;     // of the handshake or the lingering; 0 for none
    bool cookie_due = false;  // a page request that gave the secret
    uint32_t events = 0;      // asked of epoll
    std::unique_ptr<view_viewer_t> viewer;
};

ViewServer::ViewServer(const view_server_options_t& options,
                       std::vector<foxglove_channel_t> channels)
    : options_(options), channels_(std::move(channels)) {
    for (const foxglove_channel_t& c : channels_) {
        channel_ids_.push_back(c.id);
        wanted_[c.id] = false;
    }
    if (::access((options_.web_root + "/index.html").c_str(), R_OK) != 0) {
        throw std::runtime_error("no page in " + options_.web_root +
                                 ": index.html: " + strerror(errno));
    }
    sockaddr_storage address{};
    listen_fd_ = listen_socket(options_.address, options_.port, address, address_);
    bool tls = !options_.tls_cert.empty();
    try {
        if (!loopback(address) && !options_.insecure_listener &&
            (!tls || options_.secret.empty())) {
            std::string missing = !tls ? "TLS (--tls-cert and --tls-key)" : "";
            if (options_.secret.empty()) {
                missing += std::string(missing.empty() ? "" : " and ") + "a secret (--secret-file)";
            }
            throw std::runtime_error("listening on " + endpoint(address_, options_.port) +
                                     ", beyond the loopback address, needs " + missing +
                                     ", or --insecure-listener");
        }
        if (tls) {
            tls_ = view_tls_create(options_.tls_cert, options_.tls_key);
        }
        epoll_fd_ = epoll_create1(EPOLL_CLOEXEC);
        wake_fd_ = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
        if (epoll_fd_ < 0 || wake_fd_ < 0 || listen(listen_fd_, SOMAXCONN) != 0) {
            throw std::runtime_error("cannot listen on " + endpoint(address_, options_.port) +
                                     ": " + strerror(errno));
        }
    } catch (...) {
        for (int fd : {listen_fd_, epoll_fd_, wake_fd_}) {
            if (fd >= 0) {
                close(fd);
            }
        }
        throw;
    }
    for (int fd : {listen_fd_, wake_fd_}) {
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.fd = fd;
        epoll_ctl(epoll_fd_, EPOLL_CTL_ADD, fd, &event);
    }
    sockaddr_storage bound{};
    socklen_t length = sizeof bound;
    getsockname(listen_fd_, reinterpret_cast<sockaddr*>(&bound), &length);
    port_ = ntohs(bound.ss_family == AF_INET ? reinterpret_cast<sockaddr_in*>(&bound)->sin_port
                                             : reinterpret_cast<sockaddr_in6*>(&bound)->sin6_port);
    max_connections_ = connection_limit(options_.max_clients);
    access_.secret = options_.secret;
    access_.session = random_hex(32);
    access_.max_per_address = options_.max_per_address;
    view_access_add_own_origins(access_, scheme(), options_.address, address_, port_);
    for (const std::string& origin : options_.allowed_origins) {
        access_.origins.insert(origin);
    }
}

ViewServer::~ViewServer() {
    connections_.clear();
    for (int fd : {listen_fd_, epoll_fd_, wake_fd_}) {
        close(fd);
    }
}

void ViewServer::publish(uint32_t channel, uint64_t timestamp_ns, std::string payload) {
    {
        std::lock_guard lock(inbox_mutex_);
        inbox_[channel] = {timestamp_ns, std::move(payload)};
    }
    wake(wake_fd_);
}

void ViewServer::broadcast(foxglove_status_level_t level, const std::string& message) {
    {
        std::lock_guard lock(inbox_mutex_);
        statuses_.push_back(foxglove_status(level, message));
        inbox_condition_ = statuses_.back();
    }
    wake(wake_fd_);
}

bool ViewServer::wanted(uint32_t channel) const {
    auto it = wanted_.find(channel);
    return it != wanted_.end() && it->second;
}

void ViewServer::stop() {
    stopping_ = true;
    wake(wake_fd_);
}

void ViewServer::run() {
    epoll_event events[64];
    while (!stopping_) {
        // TLS may hold bytes it read that epoll cannot tell of.
        bool pending = std::any_of(connections_.begin(), connections_.end(), [](const auto& c) {
            return c.second->phase == VIEWING && !c.second->viewer->closing &&
                   view_link_pending(*c.second->link);
        });
        int64_t now = now_ns();
        int64_t next = now + 1'000'000'000;
        for (const auto& [fd, connection] : connections_) {
            for (int64_t at : {connection->deadline,
                               connection->viewer ? connection->viewer->stall_deadline : 0}) {
                next = at ? std::min(next, at) : next;
            }
        }
        int timeout =
            pending ? 0 : static_cast<int>(std::max<int64_t>(0, next - now) / 1'000'000 + 1);
        int n = epoll_wait(epoll_fd_, events, 64, timeout);
        for (int i = 0; i < n; ++i) {
            int fd = events[i].data.fd;
            if (fd == listen_fd_) {
                accept();
            } else if (fd == wake_fd_) {
                uint64_t count;
                while (read(wake_fd_, &count, sizeof count) > 0) {
                }
                deliver();
            } else {
                service(fd, events[i].events);
            }
        }
        if (pending) {
            std::vector<int> again;
            for (const auto& [fd, connection] : connections_) {
                if (connection->phase == VIEWING && view_link_pending(*connection->link)) {
                    again.push_back(fd);
                }
            }
            for (int fd : again) {
                service(fd, EPOLLIN);
            }
        }
        expire();
        trimMemory();
        log_report_suppressed();
    }
}

// Takes the connections waiting, as long as there is room for them; an
// address that holds its share already is closed at once.
void ViewServer::accept() {
    while (connections_.size() < max_connections_) {
        int fd = accept4(listen_fd_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) {
            return;
        }
        if (!view_access_admit_peer(access_, fd)) {
            // What it sent already is read first: closing on unread bytes
            // would reset the connection instead of ending it.
            char scratch[HTTP_MAX_REQUEST_HEAD];
            while (recv(fd, scratch, sizeof scratch, 0) > 0) {
            }
            close(fd);
            continue;
        }
        auto connection = std::make_unique<connection_t>();
        connection->link = view_link_create(fd, tls_.get());
        if (!connection->link) {
            close(fd);
            continue;
        }
        connection->host = peer_host(fd);
        connection->deadline = now_ns() + HANDSHAKE_TIMEOUT_NS;
        epoll_event event{};
        event.events = connection->events = EPOLLIN;
        event.data.fd = fd;
        epoll_ctl(epoll_fd_, EPOLL_CTL_ADD, fd, &event);
        connections_[fd] = std::move(connection);
    }
    // Full: the rest wait in the listening queue until a connection ends.
    if (accepting_) {
        epoll_ctl(epoll_fd_, EPOLL_CTL_DEL, listen_fd_, nullptr);
        accepting_ = false;
    }
}

void ViewServer::service(int fd, uint32_t events) {
    auto it = connections_.find(fd);
    if (it == connections_.end()) {
        return;
    }
    connection_t& connection = *it->second;
    switch (connection.phase) {
        case HANDSHAKING: {
            std::string error;
            int result = view_link_handshake(*connection.link, error);
            if (result < 0) {
                log_warning("radarscene-view: TLS handshake with %s failed: %s",
                            connection.host.c_str(), error.c_str());
                drop(fd);
                return;
            }
            if (result > 0) {
                readRequest(connection);
            }
            break;
        }
        case RESPONDING:
            flush(connection);
            break;
        case VIEWING:
            if (events & (EPOLLIN | EPOLLHUP | EPOLLERR)) {
                receive(connection);
            }
            if (connections_.count(fd)) {
                flush(connection);
            }
            break;
        case LINGERING: {
            // Whatever the peer still sends is dropped until it closes.
            char scratch[READ_CHUNK];
            ssize_t n = 0;
            for (size_t i = 0; i < READS_PER_TURN && (n = recv(fd, scratch, sizeof scratch, 0)) > 0;
                 ++i) {
            }
            if (n == 0 || (n < 0 && errno != EAGAIN && errno != EINTR)) {
                drop(fd);
                return;
            }
            break;
        }
    }
    if (connections_.count(fd)) {
        watch(connection);
    }
}

// Reads a request's head, within its bound, and answers it once whole.
void ViewServer::readRequest(connection_t& connection) {
    int fd = connection.link->fd;
    char chunk[READ_CHUNK];
    for (size_t i = 0; i < READS_PER_TURN; ++i) {
        size_t room =
            HTTP_MAX_REQUEST_HEAD + 1 - std::min(connection.in.size(), HTTP_MAX_REQUEST_HEAD);
        ssize_t n = view_link_read(*connection.link, chunk, std::min(room, sizeof chunk));
        if (n < 0) {
            drop(fd);
            return;
        }
        connection.in.append(chunk, static_cast<size_t>(n));
        http_request_t request;
        size_t head_size = 0;
        unsigned status = http_request_parse(connection.in, request, head_size);
        if (status == 200) {
            answer(connection, request, head_size);
            return;
        }
        if (status != 0) {
            static const std::map<unsigned, const char*> WHY{
                {400, "a malformed request"},
                {431, "request headers too large: 8 KiB at most"},
                {505, "HTTP/1.1 only"}};
            respond(connection, http_refusal(status, WHY.at(status)));
            return;
        }
        if (n == 0) {
            return;
        }
    }
}

// The HTTP status that refuses a page request or an upgrade, or 0: a page
// of another origin, missing or wrong credentials (counted per address).
unsigned ViewServer::refusal(connection_t& connection, const http_request_t& request,
                             bool upgrade) {
    if (http_request_header_count(request, "origin") > 0 &&
        !view_access_origin_allowed(access_, http_request_header(request, "origin"))) {
        return 403;
    }
    if (access_.secret.empty()) {
        return 0;
    }
    int64_t now_s = now_ns() / 1'000'000'000;
    if (view_access_locked_out(access_, connection.host, now_s)) {
        return 429;
    }
    std::string bearer = http_request_header(request, "authorization");
    std::string token = http_request_query(request, "token");
    bool given = (bearer.rfind("Bearer ", 0) == 0 &&
                  view_access_secret_matches(access_, bearer.substr(7))) ||
                 (!token.empty() && view_access_secret_matches(access_, token));
    if (!given && !view_access_cookie_matches(access_, http_request_header(request, "cookie"))) {
        view_access_failed(access_, connection.host, now_s);
        return 401;
    }
    connection.cookie_due = given && !upgrade;
    return 0;
}

void ViewServer::answer(connection_t& connection, const http_request_t& request, size_t head_size) {
    static const std::map<unsigned, const char*> WHY{
        {401, "this view needs its secret: add ?token=SECRET to the address"},
        {403, "pages of other origins may not use this view"},
        {429, "too many failed attempts from this address; try again in a minute"}};
    if (request.method != "GET" && request.method != "HEAD") {
        respond(connection, http_refusal(405, "GET and HEAD only", {"Allow: GET, HEAD"}));
        return;
    }
    bool upgrade = http_list_has(http_request_header(request, "upgrade"), "websocket");
    if (unsigned status = refusal(connection, request, upgrade)) {
        respond(connection, http_refusal(status, WHY.at(status)));
        return;
    }
    if (upgrade) {
        this->upgrade(connection, request, head_size);
        return;
    }
    std::string body, type;
    bool head = request.method == "HEAD";
    if (web_root_file(options_.web_root, http_request_path(request), body, type) != 200) {
        respond(connection, http_refusal(404, "no such file"));
        return;
    }
    std::vector<std::string> headers{"Content-Type: " + type, "X-Content-Type-Options: nosniff",
                                     "Cache-Control: no-cache"};
    if (connection.cookie_due) {
        headers.push_back(std::string("Set-Cookie: ") + VIEW_COOKIE + "=" + access_.session +
                          "; Path=/; HttpOnly; SameSite=Strict" + (tls_ ? "; Secure" : ""));
    }
    respond(connection, http_response(200, headers, body, !head));
}

// Sends `response`, then the connection ends.
void ViewServer::respond(connection_t& connection, std::string response) {
    connection.phase = RESPONDING;
    connection.out = std::move(response);
    connection.out_at = 0;
    connection.in.clear();
    connection.in.shrink_to_fit();
    connection.deadline = now_ns() + HANDSHAKE_TIMEOUT_NS;
    flush(connection);
}

void ViewServer::upgrade(connection_t& connection, const http_request_t& request,
                         size_t head_size) {
    std::string accept = ws_accept_key(http_request_header(request, "sec-websocket-key"));
    if (request.method != "GET" || !request.http11 || accept.empty() ||
        !http_list_has(http_request_header(request, "connection"), "upgrade")) {
        respond(connection, http_refusal(400, "a malformed WebSocket upgrade"));
        return;
    }
    if (http_request_header(request, "sec-websocket-version") != "13") {
        respond(connection,
                http_refusal(426, "WebSocket version 13 is needed", {"Sec-WebSocket-Version: 13"}));
        return;
    }
    if (!http_list_has(http_request_header(request, "sec-websocket-protocol"), SUBPROTOCOL)) {
        respond(connection,
                http_refusal(400, "an upgrade needs the subprotocol foxglove.websocket.v1"));
        return;
    }
    // The kernel would otherwise queue megabytes of old scenes for a viewer
    // that falls behind before the server sees it stall.
    int send_buffer = VIEWER_SEND_BUFFER;
    setsockopt(connection.link->fd, SOL_SOCKET, SO_SNDBUF, &send_buffer, sizeof send_buffer);
    connection.phase = VIEWING;
    connection.deadline = 0;
    connection.in.erase(0, head_size);
    auto viewer = std::make_unique<view_viewer_t>();
    viewer->serial = ++serial_;
    viewer->connected_at = now_ns();
    viewer->host = connection.host;
    std::string switching = http_response(
        101,
        {"Upgrade: websocket", "Connection: Upgrade", "Sec-WebSocket-Accept: " + accept,
         std::string("Sec-WebSocket-Protocol: ") + SUBPROTOCOL},
        {});
    viewer->text_bytes = switching.size();
    viewer->text.push_back(std::move(switching));
    connection.viewer = std::move(viewer);
    admit(*connection.viewer);
    // Frames may have come with the request.
    frames(connection);
    flush(connection);
}

// A new viewer beyond the limit takes the place of one that subscribes to
// nothing, or else of one that does not take what it subscribed to; among
// those, of one from the address with the most viewers, the oldest first.
// A viewer that reads is never replaced: when all read, the new one is
// refused.
void ViewServer::admit(view_viewer_t& viewer) {
    int64_t now = now_ns();
    std::vector<view_viewer_t*> others;
    std::map<std::string, size_t> per_address;
    for (const auto& [fd, connection] : connections_) {
        view_viewer_t* other = connection->viewer.get();
        if (other && other != &viewer && !other->closing) {
            others.push_back(other);
            ++per_address[other->host];
        }
    }
    view_viewer_t* weakest = nullptr;
    std::tuple<int, int64_t, uint64_t> weakest_rank{2, 0, 0};
    for (view_viewer_t* other : others) {
        // One that just came has its moment to subscribe.
        int s = view_viewer_standing(*other, now);
        s = s == 0 && now - other->connected_at < VIEW_READING_WINDOW_NS / 2 ? 1 : s;
        std::tuple<int, int64_t, uint64_t> rank{s, -static_cast<int64_t>(per_address[other->host]),
                                                other->serial};
        if (s < 2 && (!weakest || rank < weakest_rank)) {
            weakest = other;
            weakest_rank = rank;
        }
    }
    if (others.size() >= options_.max_clients && !weakest) {
        view_viewer_close_with(viewer, WS_POLICY_VIOLATION,
                               "too many viewers (" + std::to_string(options_.max_clients) + ")");
        return;
    }
    if (others.size() >= options_.max_clients) {
        view_viewer_close_with(
            *weakest, WS_POLICY_VIOLATION,
            weakest->session.empty()
                ? "a newer viewer took the place of this one, which subscribed to nothing"
                : "a newer viewer took the place of this one, which did not take what it "
                  "subscribed to");
        for (const auto& [fd, connection] : connections_) {
            if (connection->viewer.get() == weakest) {
                watch(*connection);
            }
        }
    }
    view_viewer_queue_text(viewer, foxglove_server_info("radarscene-view"));
    view_viewer_queue_text(viewer, foxglove_advertise(channels_));
    if (!condition_.empty()) {
        view_viewer_queue_text(viewer, condition_);
    }
}

// Reads what a viewer sends, a few chunks per turn, and handles its frames.
void ViewServer::receive(connection_t& connection) {
    char chunk[READ_CHUNK];
    for (size_t i = 0; i < READS_PER_TURN && !connection.viewer->closing; ++i) {
        ssize_t n = view_link_read(*connection.link, chunk, sizeof chunk);
        if (n < 0) {
            drop(connection.link->fd);
            return;
        }
        if (n == 0) {
            return;
        }
        connection.in.append(chunk, static_cast<size_t>(n));
        frames(connection);
    }
}

// Handles the whole frames read; a frame that breaks RFC 6455 fails the
// connection with 1002.
void ViewServer::frames(connection_t& connection) {
    view_viewer_t& viewer = *connection.viewer;
    std::string& in = connection.in;
    size_t at = 0;
    while (!viewer.closing) {
        ws_frame_t frame;
        uint16_t verdict =
            ws_frame_read_head(std::string_view(in).substr(at), MAX_CLIENT_MESSAGE, frame);
        bool data = frame.opcode < WS_CLOSE;
        if (verdict == WS_NORMAL && data &&
            (frame.opcode == WS_CONTINUATION) != (viewer.message_opcode != 0)) {
            verdict = WS_PROTOCOL_ERROR;  // a continuation of nothing, or a message inside another
        }
        if (verdict == WS_NORMAL && data &&
            viewer.message.size() + frame.length > MAX_CLIENT_MESSAGE) {
            verdict = WS_MESSAGE_TOO_LARGE;
        }
        if (verdict == WS_PROTOCOL_ERROR) {
            view_viewer_close_after(viewer, WS_PROTOCOL_ERROR, "a frame against RFC 6455");
            break;
        }
        if (verdict == WS_MESSAGE_TOO_LARGE) {
            view_viewer_close_with(viewer, WS_MESSAGE_TOO_LARGE, "message too large");
            break;
        }
        if (verdict == 0 || in.size() - at < frame.head_size + frame.length) {
            break;
        }
        char* payload = in.data() + at + frame.head_size;
        size_t length = static_cast<size_t>(frame.length);
        ws_frame_unmask(frame, payload, length);
        at += frame.head_size + length;
        if (!data) {
            message(viewer, frame.opcode, std::string_view(payload, length));
            continue;
        }
        uint8_t opcode = frame.opcode == WS_CONTINUATION ? viewer.message_opcode : frame.opcode;
        if (opcode == WS_TEXT) {
            viewer.message.append(payload, length);
        }
        viewer.message_opcode = frame.fin ? 0 : opcode;
        if (frame.fin) {
            message(viewer, opcode, viewer.message);
            viewer.message.clear();
        }
    }
    in.erase(0, viewer.closing ? in.size() : at);
}

// A whole message or control frame from a viewer.
void ViewServer::message(view_viewer_t& viewer, uint8_t opcode, std::string_view payload) {
    switch (opcode) {
        case WS_PING:
            view_viewer_queue_frame(viewer,
                                    ws_frame_head(WS_PONG, payload.size()) + std::string(payload));
            return;
        case WS_PONG:
            return;
        case WS_CLOSE:
            if (!ws_close_payload_valid(payload)) {
                view_viewer_close_after(viewer, WS_PROTOCOL_ERROR, "a malformed close frame");
                return;
            }
            view_viewer_close_after(
                viewer,
                payload.empty()
                    ? 0
                    : static_cast<uint16_t>(static_cast<unsigned char>(payload[0]) << 8 |
                                            static_cast<unsigned char>(payload[1])),
                "");
            return;
        case WS_BINARY:
            view_viewer_queue_text(
                viewer, foxglove_status(FOXGLOVE_ERROR, "binary messages are not supported"));
            return;
        default:
            break;
    }
    if (!ws_utf8_valid(payload)) {
        view_viewer_close_after(viewer, WS_INVALID_DATA, "a text message that is not UTF-8");
        return;
    }
    std::set<uint32_t> ids(channel_ids_.begin(), channel_ids_.end());
    if (auto reply = viewer.session.handleText(payload, ids)) {
        view_viewer_queue_text(viewer, *reply);
    }
    updateWanted();
}

// Writes what waits while the socket takes it: an HTTP response, or a
// viewer's frames. Once the last is out, the connection lingers.
void ViewServer::flush(connection_t& connection) {
    int fd = connection.link->fd;
    view_viewer_t* viewer = connection.viewer.get();
    bool progress = false;
    while (true) {
        const char* from = nullptr;
        size_t n = 0;
        if (connection.phase == RESPONDING) {
            from = connection.out.data() + connection.out_at;
            n = connection.out.size() - connection.out_at;
        } else if (connection.phase == VIEWING) {
            if (viewer->out_at == viewer->out.size()) {
                if (viewer->close_queued) {
                    finish(connection);
                    return;
                }
                if (!view_viewer_next(*viewer)) {
                    break;
                }
            }
            const view_message_t& out = viewer->out;
            size_t head = out.head.size();
            from = viewer->out_at < head ? out.head.data() + viewer->out_at
                                         : out.body->data() + (viewer->out_at - head);
            n = viewer->out_at < head ? head - viewer->out_at : out.size() - viewer->out_at;
        } else {
            return;
        }
        if (n == 0) {
            finish(connection);
            return;
        }
        ssize_t sent = view_link_write(*connection.link, from, std::min(n, WRITE_CHUNK));
        if (sent < 0) {
            drop(fd);
            return;
        }
        if (sent == 0) {
            break;
        }
        progress = true;
        if (connection.phase == RESPONDING) {
            connection.out_at += static_cast<size_t>(sent);
            continue;
        }
        viewer->out_at += static_cast<size_t>(sent);
        if (viewer->out_at == viewer->out.size()) {
            view_viewer_sent(*viewer, now_ns());
        }
    }
    if (viewer) {
        // A viewer that takes nothing of what waits for MAX_STALL_NS is
        // disconnected.
        bool waiting = view_viewer_waiting(*viewer);
        if (waiting && (progress || !viewer->stall_deadline)) {
            viewer->stall_deadline = now_ns() + MAX_STALL_NS;
        } else if (!waiting) {
            viewer->stall_deadline = 0;
        }
    }
    watch(connection);
}

// Our last bytes are out: the peer sees the end, and what it still sends
// is dropped until it closes or its time is up (closing on bytes unread
// would reset the connection, and the peer could lose our last ones).
void ViewServer::finish(connection_t& connection) {
    view_link_shutdown(*connection.link);
    // Its address may make new connections meanwhile: this one is bounded
    // by its time and by the connections there may be in all.
    view_access_release_peer(access_, connection.link->fd);
    connection.phase = LINGERING;
    connection.deadline = now_ns() + LINGER_NS;
    connection.out.clear();
    connection.out.shrink_to_fit();
    connection.in.clear();
    connection.in.shrink_to_fit();
    if (connection.viewer) {
        connection.viewer.reset();
        updateWanted();
        trim_due_ = true;
    }
    watch(connection);
}

void ViewServer::drop(int fd) {
    auto it = connections_.find(fd);
    if (it == connections_.end()) {
        return;
    }
    bool viewer = it->second->viewer != nullptr;
    epoll_ctl(epoll_fd_, EPOLL_CTL_DEL, fd, nullptr);
    connections_.erase(it);
    if (viewer) {
        updateWanted();
        trim_due_ = true;
    }
    if (!accepting_) {
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.fd = listen_fd_;
        epoll_ctl(epoll_fd_, EPOLL_CTL_ADD, listen_fd_, &event);
        accepting_ = true;
    }
}

// Asks epoll for what the connection waits on: its requests and frames
// (none from a viewer that is closing), room for what it is sent.
void ViewServer::watch(connection_t& connection) {
    view_viewer_t* viewer = connection.viewer.get();
    bool read = connection.phase == HANDSHAKING || connection.phase == LINGERING ||
                (viewer && !viewer->closing);
    bool write = connection.link->wants_write ||
                 (connection.phase == RESPONDING && connection.out_at < connection.out.size()) ||
                 (viewer && view_viewer_waiting(*viewer));
    uint32_t events = (read ? uint32_t{EPOLLIN} : 0u) | (write ? uint32_t{EPOLLOUT} : 0u);
    if (events != connection.events) {
        epoll_event event{};
        event.events = connection.events = events;
        event.data.fd = connection.link->fd;
        epoll_ctl(epoll_fd_, EPOLL_CTL_MOD, connection.link->fd, &event);
    }
}

// Ends the connections whose time is up: handshakes that did not finish,
// viewers that stalled, lingering ones. They are not told: nothing
// reaches them.
void ViewServer::expire() {
    int64_t now = now_ns();
    std::vector<int> due;
    for (const auto& [fd, connection] : connections_) {
        int64_t stall = connection->viewer ? connection->viewer->stall_deadline : 0;
        if ((connection->deadline && now >= connection->deadline) || (stall && now >= stall)) {
            due.push_back(fd);
        }
    }
    for (int fd : due) {
        drop(fd);
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

void ViewServer::updateWanted() {
    for (uint32_t channel : channel_ids_) {
        bool any = false;
        for (const auto& [fd, connection] : connections_) {
            any = any || (connection->viewer && connection->viewer->session.subscribed(channel));
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
    int64_t now = now_ns();
    std::vector<int> ready;
    for (auto& [fd, connection] : connections_) {
        view_viewer_t* viewer = connection->viewer.get();
        if (!viewer || viewer->closing) {
            continue;
        }
        for (const std::string& status : statuses) {
            view_viewer_queue_text(*viewer, status);
        }
        view_viewer_roll_tally(*viewer, now);
        for (const auto& [channel, message] : inbox) {
            for (uint32_t subscription : viewer->session.subscriptionsOf(channel)) {
                view_viewer_queue_data(
                    *viewer, subscription,
                    {foxglove_message_data(subscription, message.first, {}), shared[channel]});
            }
        }
        ready.push_back(fd);
    }
    for (int fd : ready) {
        if (connections_.count(fd)) {
            flush(*connections_[fd]);
        }
    }
}
