// The view's answers to HTTP requests: refusals with their status, the
// page's files, and upgrades to the WebSocket protocol.
#include "httpmessage.h"
#include "viewconnection.h"
#include "webroot.h"
#include "wsframe.h"

#include <sys/socket.h>

#include <algorithm>
#include <map>

namespace {

// The kernel's send buffer of a viewer's socket: room for a few scenes.
constexpr int VIEWER_SEND_BUFFER = 256 * 1024;

const char* const SUBPROTOCOL = "foxglove.websocket.v1";

}  // namespace

// Reads a request's head, within its bound, and answers it once whole.
void ViewServer::readRequest(connection_t& connection) {
    int fd = connection.link->fd;
    char chunk[VIEW_READ_CHUNK];
    for (size_t i = 0; i < VIEW_READS_PER_TURN; ++i) {
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
    int64_t now_s = view_now_ns() / 1'000'000'000;
    if (view_access_locked_out(access_, connection.host, now_s)) {
        return 429;
    }
    std::string bearer = http_request_header(request, "authorization");
    std::string token = http_request_query(request, "token");
    // The scheme's name is case-insensitive.
    bool given = (http_lower(bearer.substr(0, 7)) == "bearer " &&
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
    connection.phase = VIEW_RESPONDING;
    connection.out = std::move(response);
    connection.out_at = 0;
    connection.in.clear();
    connection.in.shrink_to_fit();
    connection.deadline = view_now_ns() + VIEW_HANDSHAKE_TIMEOUT_NS;
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
    connection.phase = VIEW_VIEWING;
    connection.deadline = 0;
    connection.in.erase(0, head_size);
    auto viewer = std::make_unique<view_viewer_t>();
    viewer->serial = ++serial_;
    viewer->connected_at = view_now_ns();
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
