// The WebSocket frame codec of RFC 6455, the server's side.
#include "wsframe.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/sha.h>

namespace {

constexpr size_t MAX_CONTROL_PAYLOAD = 125;

bool base64_digit(char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '+' ||
           c == '/';
}

}  // namespace

uint16_t ws_frame_read_head(std::string_view data, size_t max_payload, ws_frame_t& frame) {
    if (data.size() < 2) {
        return 0;
    }
    auto byte = [&](size_t i) { return static_cast<unsigned char>(data[i]); };
    frame.fin = byte(0) & 0x80;
    frame.opcode = byte(0) & 0x0F;
    bool control = frame.opcode & 0x08;
    bool known = frame.opcode <= WS_BINARY || (frame.opcode >= WS_CLOSE && frame.opcode <= WS_PONG);
    if ((byte(0) & 0x70) || !known || !(byte(1) & 0x80)) {
        return WS_PROTOCOL_ERROR;
    }
    uint64_t length = byte(1) & 0x7F;
    size_t extra = length == 126 ? 2 : length == 127 ? 8 : 0;
    if (control && (!frame.fin || length > MAX_CONTROL_PAYLOAD)) {
        return WS_PROTOCOL_ERROR;
    }
    if (data.size() < 2 + extra + 4) {
        return 0;
    }
    if (extra) {
        length = 0;
        for (size_t i = 0; i < extra; ++i) {
            length = length << 8 | byte(2 + i);
        }
        // The shortest form only, and the most significant bit clear.
        if ((extra == 2 && length < 126) || (extra == 8 && (length <= 0xFFFF || length >> 63))) {
            return WS_PROTOCOL_ERROR;
        }
    }
    for (size_t i = 0; i < 4; ++i) {
        frame.mask[i] = byte(2 + extra + i);
    }
    frame.length = length;
    frame.head_size = 2 + extra + 4;
    return length > max_payload ? WS_MESSAGE_TOO_LARGE : WS_NORMAL;
}

void ws_frame_unmask(const ws_frame_t& frame, char* payload, size_t n) {
    for (size_t i = 0; i < n; ++i) {
        payload[i] = static_cast<char>(payload[i] ^ frame.mask[i & 3]);
    }
}

std::string ws_frame_head(ws_opcode_t opcode, uint64_t length) {
    std::string head(1, static_cast<char>(0x80 | opcode));
    if (length < 126) {
        head += static_cast<char>(length);
        return head;
    }
    size_t bytes = length <= 0xFFFF ? 2 : 8;
    head += static_cast<char>(bytes == 2 ? 126 : 127);
    for (size_t i = bytes; i-- > 0;) {
        head += static_cast<char>(length >> (8 * i) & 0xFF);
    }
    return head;
}

std::string ws_close_frame(uint16_t code, std::string_view reason) {
    if (code == 0) {
        return ws_frame_head(WS_CLOSE, 0);
    }
    reason = reason.substr(0, MAX_CONTROL_PAYLOAD - 2);
    while (!ws_utf8_valid(reason)) {
        reason.remove_suffix(1);
    }
    std::string payload{static_cast<char>(code >> 8), static_cast<char>(code & 0xFF)};
    payload += reason;
    return ws_frame_head(WS_CLOSE, payload.size()) + payload;
}

bool ws_close_payload_valid(std::string_view payload) {
    if (payload.empty()) {
        return true;
    }
    if (payload.size() < 2) {
        return false;
    }
    unsigned code =
        static_cast<unsigned char>(payload[0]) << 8 | static_cast<unsigned char>(payload[1]);
    // 1004-1006 and 1015 are reserved, never sent; 1016-2999 belong to the
    // protocol's future.
    bool usable = (code >= 1000 && code <= 1003) || (code >= 1007 && code <= 1014) ||
                  (code >= 3000 && code <= 4999);
    return usable && ws_utf8_valid(payload.substr(2));
}

std::string ws_accept_key(std::string_view key) {
    // 16 bytes are 22 digits and "==".
    if (key.size() != 24 || key.substr(22) != "==") {
        return {};
    }
    for (char c : key.substr(0, 22)) {
        if (!base64_digit(c)) {
            return {};
        }
    }
    std::string joined = std::string(key) + "258EAFA5-E914-47DA-95CA-C5AB0DC85B11";
    // Without TLS nothing needs the system's OpenSSL configuration, which
    // costs the process about 2 MiB.
    OPENSSL_init_crypto(OPENSSL_INIT_NO_LOAD_CONFIG, nullptr);
    unsigned char digest[SHA_DIGEST_LENGTH];
    SHA1(reinterpret_cast<const unsigned char*>(joined.data()), joined.size(), digest);
    unsigned char encoded[4 * ((SHA_DIGEST_LENGTH + 2) / 3) + 1];
    int n = EVP_EncodeBlock(encoded, digest, SHA_DIGEST_LENGTH);
    return std::string(reinterpret_cast<char*>(encoded), static_cast<size_t>(n));
}

bool ws_utf8_valid(std::string_view text) {
    auto at = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
    for (size_t i = 0; i < text.size();) {
        unsigned char c = at(i);
        size_t n = c < 0x80 ? 0 : c < 0xC2 ? 4 : c < 0xE0 ? 1 : c < 0xF0 ? 2 : c < 0xF5 ? 3 : 4;
        if (n == 4 || (n > 0 && n >= text.size() - i)) {
            return false;
        }
        uint32_t point = n == 0 ? c : c & (0x3F >> n);
        for (size_t k = 1; k <= n; ++k) {
            if ((at(i + k) & 0xC0) != 0x80) {
                return false;
            }
            point = point << 6 | (at(i + k) & 0x3F);
        }
        // Overlong forms, surrogates, beyond U+10FFFF.
        if ((n == 2 && point < 0x800) || (n == 3 && point < 0x10000) ||
            (point >= 0xD800 && point <= 0xDFFF) || point > 0x10FFFF) {
            return false;
        }
        i += n + 1;
    }
    return true;
}
