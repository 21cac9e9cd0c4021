#pragma once

#include <bit>
#include <cstdint>
#include <cstring>
#include <string>
#include <type_traits>

// Protobuf wire primitives in two flavours with the same calls: `wire_size`
// counts the bytes a message takes, `wire_writer` writes them into memory
// already sized for them. Code written once against both, as a template
// over the flavour, sizes a message and then writes it with the same logic.
//
// Plain proto3 scalars are written only when non-zero (floats and doubles:
// when any bit is set, so -0.0 and NaN are written); fields in a oneof and
// proto3 optional fields are written whenever they are set.

static_assert(std::endian::native == std::endian::little,
              "fixed-width fields are copied in host order");

struct wire_size {
    size_t bytes = 0;
};

struct wire_writer {
    char* at;
};

enum wire_type_t : uint32_t {
    WIRE_VARINT = 0,
    WIRE_FIXED64 = 1,
    WIRE_LENGTH = 2,
    WIRE_FIXED32 = 5,
};

inline size_t varint_size(uint64_t value) {
    return static_cast<size_t>(std::bit_width(value | 1) + 6) / 7;
}

inline void put_varint(wire_size& w, uint64_t value) {
    w.bytes += varint_size(value);
}
inline void put_varint(wire_writer& w, uint64_t value) {
    while (value >= 0x80) {
        *w.at++ = static_cast<char>(value | 0x80);
        value >>= 7;
    }
    *w.at++ = static_cast<char>(value);
}

inline void put_raw(wire_size& w, const void*, size_t size) {
    w.bytes += size;
}
inline void put_raw(wire_writer& w, const void* data, size_t size) {
    std::memcpy(w.at, data, size);
    w.at += size;
}

template <class W>
void put_tag(W& w, uint32_t field, wire_type_t type) {
    put_varint(w, field << 3 | type);
}

template <class W>
void put_float(W& w, uint32_t field, float value) {
    put_tag(w, field, WIRE_FIXED32);
    put_raw(w, &value, sizeof(value));
}

template <class W>
void put_double(W& w, uint32_t field, double value) {
    put_tag(w, field, WIRE_FIXED64);
    put_raw(w, &value, sizeof(value));
}

template <class W>
void put_plain_float(W& w, uint32_t field, float value) {
    if (std::bit_cast<uint32_t>(value) != 0) {
        put_float(w, field, value);
    }
}

template <class W>
void put_plain_double(W& w, uint32_t field, double value) {
    if (std::bit_cast<uint64_t>(value) != 0) {
        put_double(w, field, value);
    }
}

template <class W>
void put_uint(W& w, uint32_t field, uint64_t value) {
    put_tag(w, field, WIRE_VARINT);
    put_varint(w, value);
}

// int32 is sign-extended to 64 bits on the wire, so a negative one takes
// ten bytes.
template <class W>
void put_plain_int32(W& w, uint32_t field, int32_t value) {
    if (value != 0) {
        put_uint(w, field, static_cast<uint64_t>(static_cast<int64_t>(value)));
    }
}

template <class W>
void put_plain_bool(W& w, uint32_t field, bool value) {
    if (value) {
        put_uint(w, field, 1);
    }
}

template <class W>
void put_string(W& w, uint32_t field, const std::string& value) {
    put_tag(w, field, WIRE_LENGTH);
    put_varint(w, value.size());
    put_raw(w, value.data(), value.size());
}

template <class W>
void put_plain_string(W& w, uint32_t field, const std::string& value) {
    if (!value.empty()) {
        put_string(w, field, value);
    }
}

// A nested message whose fields `body(w)` puts, for any flavour of `w`.
// Writing sizes the body first, for its length prefix.
template <class W, class Body>
void put_message(W& w, uint32_t field, Body&& body) {
    wire_size inner;
    body(inner);
    put_tag(w, field, WIRE_LENGTH);
    put_varint(w, inner.bytes);
    if constexpr (std::is_same_v<W, wire_size>) {
        w.bytes += inner.bytes;
    } else {
        body(w);
    }
}

// A nested message whose body always takes fewer than 128 bytes, so that its
// length is one byte: writing fills it in after the body, in one pass.
template <class Body>
void put_small_message(wire_size& w, uint32_t field, Body&& body) {
    put_message(w, field, body);
}
template <class Body>
void put_small_message(wire_writer& w, uint32_t field, Body&& body) {
    put_tag(w, field, WIRE_LENGTH);
    char* length = w.at++;
    body(w);
    *length = static_cast<char>(w.at - length - 1);
}
