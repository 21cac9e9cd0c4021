// What viewers send: RFC 6455 frames read and checked, messages joined
// from their fragments and handled.
#include "viewconnection.h"
#include "wsframe.h"

#include <set>

namespace {

// What a viewer may send in one message.
constexpr size_t MAX_CLIENT_MESSAGE = 64 * 1024;

}  // namespace

// Reads what a viewer sends, a few chunks per turn, and handles its frames.
void ViewServer::receive(connection_t& connection) {
    char chunk[VIEW_READ_CHUNK];
    for (size_t i = 0; i < VIEW_READS_PER_TURN && !connection.viewer->closing; ++i) {
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
