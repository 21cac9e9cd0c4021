#pragma once

// The viewer's server, on one address and port, plain or over TLS: the
// page's files at "/", and the Foxglove WebSocket protocol for the page and
// for other viewers, on a transport of its own (HTTP/1.1, RFC 6455). Per
// viewer only the newest message of each subscription (one per channel,
// shared by every viewer) and a bounded queue of answers wait to be sent,
// so a slow viewer never slows the others or the radar; a viewer that
// takes nothing for a few seconds, or lets its answers pile up, is
// disconnected. Connections are capped per address and well below the
// descriptor limit, those that do not become viewers of this protocol
// within a few seconds are closed, and when the viewers are many, one that
// does not take what it subscribed to makes room for a new one. Requests
// from pages of other origins are refused, and with a secret every request
// must carry it (or the cookie the page gets for it).

#include "foxglove.h"
#include "viewaccess.h"

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <vector>

struct view_tls_t;
struct view_viewer_t;
struct http_request_t;

struct view_server_options_t {
    std::string address = "127.0.0.1";  // a literal or a name that resolves
    int port = 8765;                    // 0 for any free port
    std::string web_root;
    size_t max_clients = 16;
    size_t max_per_address = 8;                // connections from one address
    std::vector<std::string> allowed_origins;  // besides the view's own
    std::string tls_cert, tls_key;             // files; both or neither
    std::string secret;                        // empty: no credentials asked
    bool insecure_listener = false;            // beyond loopback without TLS or secret
};

class ViewServer {
public:
    // Listens at once; throws std::runtime_error naming the address when it
    // cannot, or what is missing to listen beyond the loopback address.
    ViewServer(const view_server_options_t& options, std::vector<foxglove_channel_t> channels);
    ~ViewServer();
    ViewServer(const ViewServer&) = delete;
    ViewServer& operator=(const ViewServer&) = delete;

    int port() const { return port_; }
    // The address listened on, as a numeric literal.
    const std::string& address() const { return address_; }
    // "http" or "https".
    const char* scheme() const { return options_.tls_cert.empty() ? "http" : "https"; }
    // Any thread: the newest message of a channel, for its subscribers.
    void publish(uint32_t channel, uint64_t timestamp_ns, std::string payload);
    // Any thread: a status message for every viewer.
    void broadcast(foxglove_status_level_t level, const std::string& message);
    // Any thread: whether some viewer subscribes to the channel.
    bool wanted(uint32_t channel) const;
    // Serves until stop() is called from another thread.
    void run();
    void stop();

    struct connection_t;

private:
    void accept();
    void service(int fd, uint32_t events);
    void readRequest(connection_t& connection);
    void answer(connection_t& connection, const http_request_t& request, size_t head_size);
    void respond(connection_t& connection, std::string response);
    void upgrade(connection_t& connection, const http_request_t& request, size_t head_size);
    void receive(connection_t& connection);
    void frames(connection_t& connection);
    void message(view_viewer_t& viewer, uint8_t opcode, std::string_view payload);
    void flush(connection_t& connection);
    void finish(connection_t& connection);
    void drop(int fd);
    bool dropLingering();
    bool dropCrowded(int fd, const std::string* host);
    void listenAgain();
    void watch(connection_t& connection);
    void expire();
    void deliver();
    void admit(view_viewer_t& viewer);
    void updateWanted();
    unsigned refusal(connection_t& connection, const http_request_t& request, bool upgrade);
    void trimMemory();

    view_server_options_t options_;
    std::vector<foxglove_channel_t> channels_;
    std::vector<uint32_t> channel_ids_;
    std::unique_ptr<view_tls_t> tls_;
    int listen_fd_ = -1;
    int epoll_fd_ = -1;
    int wake_fd_ = -1;  // an eventfd: publish(), broadcast() and stop() wake the service thread
    std::string address_;
    int port_ = 0;
    size_t max_connections_ = 0;
    bool accepting_ = true;
    std::map<int, std::unique_ptr<connection_t>> connections_;  // the service thread's own
    uint64_t serial_ = 0;                                       // of the last viewer
    std::atomic<bool> stopping_{false};
    std::map<uint32_t, std::atomic<bool>> wanted_;
    view_access_t access_;   // the service thread's own
    std::string condition_;  // the provider's last status, for new viewers
    bool trim_due_ = false;  // viewers left: memory to give back
    int64_t trimmed_at_ = 0;

    // Handed from other threads to the service thread.
    mutable std::mutex inbox_mutex_;
    std::map<uint32_t, std::pair<uint64_t, std::string>> inbox_;
    std::string inbox_condition_;
    std::vector<std::string> statuses_;
};
