#include "viewserver.h"

#include <libwebsockets.h>

#include <cstring>
#include <deque>
#include <set>
#include <stdexcept>

namespace {

// What a viewer may send in one message, and how long its newest data may
// wait unsent before it is disconnected.
constexpr size_t MAX_CLIENT_MESSAGE = 64 * 1024;
constexpr uint64_t MAX_WAIT_NS = 3'000'000'000;

uint64_t now_ns() {
    timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return static_cast<uint64_t>(t.tv_sec) * 1'000'000'000u + static_cast<uint64_t>(t.tv_nsec);
}

int on_event(lws* wsi, lws_callback_reasons reason, void* user, void* in, size_t len) {
    auto* server = static_cast<ViewServer*>(lws_context_user(lws_get_context(wsi)));
    return server->callback(wsi, reason, user, in, len);
}

const lws_protocols PROTOCOLS[] = {
    {"http", lws_callback_http_dummy, 0, 0, 0, nullptr, 0},
    {"foxglove.websocket.v1", on_event, sizeof(void*), MAX_CLIENT_MESSAGE, 0, nullptr, 0},
    {nullptr, nullptr, 0, 0, 0, nullptr, 0}};

void log_line(int, const char* line) {
    fprintf(stderr, "radarscene-view: libwebsockets: %s", line);
}

}  // namespace

struct ViewServer::viewer_t {
    lws* wsi = nullptr;
    FoxgloveSession session;
    std::deque<std::string> text;          // in order: info, channels, statuses
    std::map<uint32_t, std::string> data;  // subscription -> its newest message
    uint64_t waiting_since = 0;            // since when data has waited unsent
    std::string rx;                        // a text message arriving in fragments
    bool binary_refused = false;
    bool closing = false;  // close once the text is out
};

ViewServer::ViewServer(const view_server_options_t& options,
                       std::vector<foxglove_channel_t> channels)
    : options_(options), channels_(std::move(channels)) {
    for (const foxglove_channel_t& c : channels_) {
        channel_ids_.push_back(c.id);
        wanted_[c.id] = false;
    }
    lws_set_log_level(LLL_ERR, log_line);
    mount_ = std::make_unique<lws_http_mount>();
    mount_->mountpoint = "/";
    mount_->mountpoint_len = 1;
    mount_->origin = options_.web_root.c_str();
    mount_->def = "index.html";
    mount_->origin_protocol = LWSMPRO_FILE;
    lws_context_creation_info info{};
    info.port = options_.port;
    info.iface = options_.address.c_str();
    info.protocols = PROTOCOLS;
    info.mounts = mount_.get();
    info.user = this;
    info.options = LWS_SERVER_OPTION_VALIDATE_UTF8;
    context_ = lws_create_context(&info);
    if (!context_) {
        throw std::runtime_error("cannot listen on " + options_.address + ":" +
                                 std::to_string(options_.port));
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
// viewers, and disconnects those that have taken nothing for too long.
void ViewServer::deliver() {
    std::map<uint32_t, std::pair<uint64_t, std::string>> inbox;
    std::vector<std::string> statuses;
    {
        std::lock_guard lock(inbox_mutex_);
        inbox.swap(inbox_);
        statuses.swap(statuses_);
    }
    uint64_t now = now_ns();
    for (auto& [wsi, viewer] : viewers_) {
        bool more = !statuses.empty();
        viewer->text.insert(viewer->text.end(), statuses.begin(), statuses.end());
        for (const auto& [channel, message] : inbox) {
            for (uint32_t subscription : viewer->session.subscriptionsOf(channel)) {
                viewer->data[subscription] =
                    foxglove_message_data(subscription, message.first, message.second);
                more = true;
            }
        }
        if (!viewer->data.empty() && viewer->waiting_since == 0) {
            viewer->waiting_since = now;
        }
        if (viewer->waiting_since && now - viewer->waiting_since > MAX_WAIT_NS) {
            lws_set_timeout(wsi, PENDING_TIMEOUT_USER_OK, LWS_TO_KILL_ASYNC);
        } else if (more) {
            lws_callback_on_writable(wsi);
        }
    }
}

int ViewServer::callback(lws* wsi, int reason, void* user, void* in, size_t len) {
    auto** slot = static_cast<viewer_t**>(user);
    viewer_t* viewer = slot ? *slot : nullptr;
    switch (reason) {
        case LWS_CALLBACK_ESTABLISHED: {
            auto created = std::make_unique<viewer_t>();
            created->wsi = wsi;
            if (viewers_.size() >= options_.max_clients) {
                created->text.push_back(foxglove_status(
                    FOXGLOVE_ERROR,
                    "too many viewers (" + std::to_string(options_.max_clients) + ")"));
                created->closing = true;
            } else {
                created->text.push_back(foxglove_server_info("radarscene-view"));
                created->text.push_back(foxglove_advertise(channels_));
            }
            *slot = created.get();
            viewers_[wsi] = std::move(created);
            lws_callback_on_writable(wsi);
            return 0;
        }
        case LWS_CALLBACK_CLOSED:
            if (viewer) {
                viewers_.erase(wsi);
                *slot = nullptr;
                updateWanted();
            }
            return 0;
        case LWS_CALLBACK_RECEIVE: {
            if (!viewer || viewer->closing) {
                return 0;
            }
            if (lws_frame_is_binary(wsi)) {
                if (!viewer->binary_refused) {
                    viewer->text.push_back(
                        foxglove_status(FOXGLOVE_ERROR, "binary messages are not supported"));
                    lws_callback_on_writable(wsi);
                }
                viewer->binary_refused = !lws_is_final_fragment(wsi);
                return 0;
            }
            viewer->rx.append(static_cast<const char*>(in), len);
            if (viewer->rx.size() > MAX_CLIENT_MESSAGE) {
                viewer->text.push_back(foxglove_status(FOXGLOVE_ERROR, "message too large"));
                viewer->closing = true;
                lws_callback_on_writable(wsi);
                return 0;
            }
            if (!lws_is_final_fragment(wsi)) {
                return 0;
            }
            std::set<uint32_t> ids(channel_ids_.begin(), channel_ids_.end());
            for (std::string& reply : viewer->session.handleText(viewer->rx, ids)) {
                viewer->text.push_back(std::move(reply));
            }
            viewer->rx.clear();
            updateWanted();
            lws_callback_on_writable(wsi);
            return 0;
        }
        case LWS_CALLBACK_SERVER_WRITEABLE: {
            if (!viewer) {
                return 0;
            }
            std::string message;
            lws_write_protocol kind = LWS_WRITE_TEXT;
            if (!viewer->text.empty()) {
                message = std::move(viewer->text.front());
                viewer->text.pop_front();
            } else if (!viewer->data.empty() && !viewer->closing) {
                message = std::move(viewer->data.begin()->second);
                viewer->data.erase(viewer->data.begin());
                kind = LWS_WRITE_BINARY;
                viewer->waiting_since = viewer->data.empty() ? 0 : now_ns();
            } else {
                return viewer->closing ? -1 : 0;
            }
            std::vector<unsigned char> buffer(LWS_PRE + message.size());
            memcpy(buffer.data() + LWS_PRE, message.data(), message.size());
            if (lws_write(wsi, buffer.data() + LWS_PRE, message.size(), kind) <
                static_cast<int>(message.size())) {
                return -1;
            }
            if (!viewer->text.empty() || !viewer->data.empty() || viewer->closing) {
                lws_callback_on_writable(wsi);
            }
            return 0;
        }
        case LWS_CALLBACK_EVENT_WAIT_CANCELLED:
            deliver();
            return 0;
        default:
            return 0;
    }
}
