#include "varropublisher/base64.h"

#include <cstdint>

size_t base64_encode(const char* data, size_t size, char* out) {
    static constexpr char ALPHABET[] =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    const auto* in = reinterpret_cast<const uint8_t*>(data);
    size_t o = 0;
    size_t i = 0;
    for (; i + 2 < size; i += 3) {
        uint32_t triple = (in[i] << 16) | (in[i + 1] << 8) | in[i + 2];
        out[o++] = ALPHABET[(triple >> 18) & 63];
        out[o++] = ALPHABET[(triple >> 12) & 63];
        out[o++] = ALPHABET[(triple >> 6) & 63];
        out[o++] = ALPHABET[triple & 63];
    }
    if (i < size) {
        uint32_t triple = in[i] << 16;
        if (i + 1 < size) {
            triple |= in[i + 1] << 8;
        }
        out[o++] = ALPHABET[(triple >> 18) & 63];
        out[o++] = ALPHABET[(triple >> 12) & 63];
        out[o++] = i + 1 < size ? ALPHABET[(triple >> 6) & 63] : '=';
        out[o++] = '=';
    }
    return o;
}
