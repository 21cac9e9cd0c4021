// The viewer's server: its connections on one epoll loop, and what goes
// out to them.
#include "viewserver.h"

#include "common/log.h"
#include "httpmessage.h"
#include "viewconnection.h"
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

// How long what waits for a viewer may go unsent before it is disconnected.
constexpr int64_t MAX_STALL_NS = 3'000'000'000;
// How long a connection that is done may take to see our last bytes and
// close, and how many connections (pages, upgrades) there may be per viewer
// allowed.
constexpr int64_t LINGER_NS = 2'000'000'000;
constexpr size_t ACCEPTS_PER_TURN = 16;
// A connection silent this long in its handshake may make room for another.
constexpr int64_t SILENT_NS = 1'000'000'000;
constexpr size_t CONNECTIONS_PER_VIEWER = 4;
// Descriptors kept for everything else: listening, the loop, the bus, the
// scene stream, the page's files.
constexpr size_t SPARE_DESCRIPTORS = 32;
// Bytes written to one connection at a time.
constexpr size_t WRITE_CHUNK = 64 * 1024;

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
            return c.second->phase == VIEW_VIEWING && !c.second->viewer->closing &&
                   view_link_pending(*c.second->link);
        });
        int64_t now = view_now_ns();
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
                if (connection->phase == VIEW_VIEWING && view_link_pending(*connection->link)) {
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
    // A few per turn of the loop: those taken in get their requests read
    // before later newcomers may push them out.
    for (size_t taken = 0; taken < ACCEPTS_PER_TURN; ++taken) {
        if (connections_.size() >= max_connections_ && !dropLingering() &&
            !dropCrowded(-1, nullptr) &&
            connections_.size() >= max_connections_ + ACCEPTS_PER_TURN) {
            // Full of connections that may still say what they want: the
            // rest wait in the listening queue until one ends.
            if (accepting_) {
                epoll_ctl(epoll_fd_, EPOLL_CTL_DEL, listen_fd_, nullptr);
                accepting_ = false;
            }
            return;
        }
        int fd = accept4(listen_fd_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) {
            return;
        }
        if (!view_access_admit_peer(access_, fd)) {
            // What it sent already is read first: closing on unread bytes
            // would reset the connection instead of ending it.
            char scratch[HTTP_MAX_REQUEST_HEAD];
            for (size_t i = 0; i < 2 && recv(fd, scratch, sizeof scratch, 0) > 0; ++i) {
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
        connection->deadline = view_now_ns() + VIEW_HANDSHAKE_TIMEOUT_NS;
        epoll_event event{};
        event.events = connection->events = EPOLLIN;
        event.data.fd = fd;
        epoll_ctl(epoll_fd_, EPOLL_CTL_ADD, fd, &event);
        const std::string& host = connection->host;
        connections_[fd] = std::move(connection);
        if (connections_.size() > max_connections_ && !dropLingering()) {
            dropCrowded(fd, &host);
        }
    }
}

void ViewServer::service(int fd, uint32_t events) {
    auto it = connections_.find(fd);
    if (it == connections_.end()) {
        return;
    }
    connection_t& connection = *it->second;
    switch (connection.phase) {
        case VIEW_HANDSHAKING: {
            int result = view_link_handshake(*connection.link);
            if (result < 0) {
                // Neither the peer's address nor the TLS library's reason:
                // lines that differ in more than digits each pass the
                // limiter, and a peer can choose among dozens of reasons.
                log_warning("radarscene-view: a TLS handshake failed");
                drop(fd);
                return;
            }
            if (result > 0) {
                readRequest(connection);
            }
            break;
        }
        case VIEW_RESPONDING:
            flush(connection);
            break;
        case VIEW_VIEWING:
            // A TLS read may have waited for the socket to be writable.
            if ((events & (EPOLLIN | EPOLLHUP | EPOLLERR)) || connection.link->wants_write) {
                receive(connection);
            }
            if (connections_.count(fd)) {
                flush(connection);
            }
            break;
        case VIEW_LINGERING: {
            // Whatever the peer still sends is dropped until it closes.
            char scratch[VIEW_READ_CHUNK];
            ssize_t n = 0;
            for (size_t i = 0;
                 i < VIEW_READS_PER_TURN && (n = recv(fd, scratch, sizeof scratch, 0)) > 0; ++i) {
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

// A new viewer beyond the limit takes the place of one that subscribes to
// nothing, or else of one that does not take what it subscribed to; among
// those, of one from the address with the most viewers, the oldest first.
// A viewer that reads is never replaced, but for one too young to have
// shown it from an address with more viewers than the new one's: one
// peer's connections, coming and going, must not keep every place young.
// When none may go, the new one is refused.
void ViewServer::admit(view_viewer_t& viewer) {
    int64_t now = view_now_ns();
    std::vector<view_viewer_t*> others;
    std::map<std::string, size_t> per_address;
    for (const auto& [fd, connection] : connections_) {
        view_viewer_t* other = connection->viewer.get();
        if (other && other != &viewer && !other->closing) {
            others.push_back(other);
            ++per_address[other->host];
        }
    }
    size_t mine = per_address[viewer.host];
    view_viewer_t* weakest = nullptr;
    std::tuple<int, int64_t, uint64_t> weakest_rank{3, 0, 0};
    for (view_viewer_t* other : others) {
        // One that just came has its moment to subscribe.
        int s = view_viewer_standing(*other, now);
        bool young = now - other->connected_at < VIEW_READING_WINDOW_NS;
        s = s == 0 && now - other->connected_at < VIEW_READING_WINDOW_NS / 2 ? 1 : s;
        std::tuple<int, int64_t, uint64_t> rank{s, -static_cast<int64_t>(per_address[other->host]),
                                                other->serial};
        bool may_go = s < 2 || (young && per_address[other->host] > mine);
        if (may_go && (!weakest || rank < weakest_rank)) {
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
            : std::get<0>(weakest_rank) < 2
                ? "a newer viewer took the place of this one, which did not take what it "
                  "subscribed to"
                : "a viewer from an address with fewer viewers took the place of this new one");
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

// Writes what waits while the socket takes it: an HTTP response, or a
// viewer's frames. Once the last is out, the connection lingers.
void ViewServer::flush(connection_t& connection) {
    int fd = connection.link->fd;
    view_viewer_t* viewer = connection.viewer.get();
    bool progress = false;
    while (true) {
        const char* from = nullptr;
        size_t n = 0;
        if (connection.phase == VIEW_RESPONDING) {
            from = connection.out.data() + connection.out_at;
            n = connection.out.size() - connection.out_at;
        } else if (connection.phase == VIEW_VIEWING) {
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
        if (connection.phase == VIEW_RESPONDING) {
            connection.out_at += static_cast<size_t>(sent);
            continue;
        }
        viewer->out_at += static_cast<size_t>(sent);
        if (viewer->out_at == viewer->out.size()) {
            view_viewer_sent(*viewer, view_now_ns());
        }
    }
    if (viewer) {
        // A viewer that takes nothing of what waits for MAX_STALL_NS is
        // disconnected.
        bool waiting = view_viewer_waiting(*viewer);
        if (waiting && (progress || !viewer->stall_deadline)) {
            viewer->stall_deadline = view_now_ns() + MAX_STALL_NS;
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
    connection.phase = VIEW_LINGERING;
    connection.deadline = view_now_ns() + LINGER_NS;
    listenAgain();  // it gives its place to a newcomer if need be
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
    listenAgain();
}

// A connection waiting to be accepted takes the place of the lingering one
// closest to its end: refused peers that keep their connections open must
// not fill the server while their addresses connect again.
bool ViewServer::dropLingering() {
    auto found = connections_.end();
    for (auto it = connections_.begin(); it != connections_.end(); ++it) {
        if (it->second->phase == VIEW_LINGERING &&
            (found == connections_.end() || it->second->deadline < found->second->deadline)) {
            found = it;
        }
    }
    if (found == connections_.end()) {
        return false;
    }
    drop(found->first);
    return true;
}

// Failing a lingering one, the newcomer `fd` from `host` (none: one still in
// the queue) takes the place of a connection still in its handshake: one
// silent for a second, or one from another address that holds as many of
// those as the newcomer's held before it came, or more; of the address that
// holds the most, the oldest. Silent connections from many addresses cannot keep a viewer out,
// and a burst from one address does not push itself out: it waits.
bool ViewServer::dropCrowded(int fd, const std::string* host) {
    std::map<std::string, size_t> handshaking;
    for (const auto& [other, connection] : connections_) {
        if (connection->phase == VIEW_HANDSHAKING) {
            ++handshaking[connection->host];
        }
    }
    size_t own = host ? handshaking[*host] : 0;
    int64_t silent_since = view_now_ns() + VIEW_HANDSHAKE_TIMEOUT_NS - SILENT_NS;
    int found = -1;
    size_t most = 0;
    int64_t oldest = 0;
    for (const auto& [other, connection] : connections_) {
        size_t count = handshaking[connection->host];
        bool may_go = connection->deadline <= silent_since ||
                      (host && connection->host != *host && count + 1 >= own);
        if (other == fd || connection->phase != VIEW_HANDSHAKING || !may_go) {
            continue;
        }
        if (count > most || (count == most && connection->deadline < oldest)) {
            found = other;
            most = count;
            oldest = connection->deadline;
        }
    }
    if (found < 0) {
        return false;
    }
    drop(found);
    return true;
}

void ViewServer::listenAgain() {
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
    bool read = connection.phase == VIEW_HANDSHAKING || connection.phase == VIEW_LINGERING ||
                (viewer && !viewer->closing);
    bool write =
        connection.link->wants_write ||
        (connection.phase == VIEW_RESPONDING && connection.out_at < connection.out.size()) ||
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
    int64_t now = view_now_ns();
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
    // Connections may have grown silent enough to make room.
    listenAgain();
}

// Once a second at most, after viewers left: what they held goes back to
// the system, instead of staying with the allocator.
void ViewServer::trimMemory() {
    int64_t now = view_now_ns();
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
    int64_t now = view_now_ns();
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
