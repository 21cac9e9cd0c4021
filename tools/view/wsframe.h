#pragma once

// The WebSocket frame codec of RFC 6455 for the server's side: client frame
// heads read and checked, server frames' heads written, the handshake's
// accept key, and the UTF-8 check of text.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

enum ws_opcode_t : uint8_t {
    WS_CONTINUATION = 0,
    WS_TEXT = 1,
    WS_BINARY = 2,
    WS_CLOSE = 8,
    WS_PING = 9,
    WS_PONG = 10,
};

// Close codes the server sends.
constexpr uint16_t WS_NORMAL = 1000;
constexpr uint16_t WS_PROTOCOL_ERROR = 1002;
constexpr uint16_t WS_INVALID_DATA = 1007;
constexpr uint16_t WS_POLICY_VIOLATION = 1008;
constexpr uint16_t WS_MESSAGE_TOO_LARGE = 1009;

struct ws_frame_t {
    bool fin = false;
    uint8_t opcode = 0;
    uint64_t length = 0;   // of the payload
    size_t head_size = 0;  // bytes before the payload
    unsigned char mask[4] = {0, 0, 0, 0};
};

// Reads the head of a client frame from `data`: 0 when more bytes are
// needed, else the close code that fails the connection (a frame that is
// not masked, reserved bits, an unknown opcode, a control frame that is
// fragmented or longer than 125 bytes, a length not in its shortest form)
// or WS_MESSAGE_TOO_LARGE for a data frame longer than `max_payload`, or
// else WS_NORMAL with `frame` filled in.
uint16_t ws_frame_read_head(std::string_view data, size_t max_payload, ws_frame_t& frame);
// Unmasks `n` payload bytes in place.
void ws_frame_unmask(const ws_frame_t& frame, char* payload, size_t n);
// The head of a whole, unmasked server frame of `length` payload bytes.
std::string ws_frame_head(ws_opcode_t opcode, uint64_t length);
// A whole close frame: `code` and as much of `reason` as fits, cut at a
// character boundary; without a code (0), an empty one.
std::string ws_close_frame(uint16_t code, std::string_view reason);
// Whether a close frame's payload is one a peer may send: empty, or a code
// it may use followed by UTF-8.
bool ws_close_payload_valid(std::string_view payload);
// Sec-WebSocket-Accept for a Sec-WebSocket-Key; empty when the key is not
// 16 bytes in base64.
std::string ws_accept_key(std::string_view key);
bool ws_utf8_valid(std::string_view text);
