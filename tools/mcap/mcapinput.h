#pragma once

// Reading the bytes of an MCAP file safely: positioned reads, record fields
// that never read past their record, and a chunk's records decompressed
// within the limits every reader of the tools keeps.

#include "mcap.h"

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

// The largest chunk decompressed, and the largest ratio of uncompressed to
// compressed size believed: a corrupt size claim must not make a reader
// allocate more than a chunk's worth. Compressed data a little larger than
// the largest chunk is still a chunk.
constexpr uint64_t MCAP_MAX_CHUNK = 32u << 20;
constexpr uint64_t MCAP_MAX_RATIO = 256;
constexpr uint64_t MCAP_MAX_CHUNK_RECORD = MCAP_MAX_CHUNK + (MCAP_MAX_CHUNK >> 6);

// An open file: its descriptor (borrowed), its name for messages and its
// size when opened.
struct mcap_file_t {
    int fd = -1;
    std::string name;
    uint64_t size = 0;
};

// `length` bytes at `offset`; throws std::runtime_error naming the file
// when they cannot be read.
std::string mcap_read_at(const mcap_file_t& file, uint64_t offset, uint64_t length);

// The opcode and content length of the record at `offset`, whose 9 bytes
// the caller has checked to be in the file.
struct mcap_head_t {
    uint8_t opcode;
    uint64_t length;
};
mcap_head_t mcap_read_head(const mcap_file_t& file, uint64_t offset);

// Reads fields from a record; any read past the end clears `ok` and yields
// zeros, so a parser checks once at the end.
struct mcap_in_t {
    std::string_view s;
    size_t pos = 0;
    bool ok = true;

    bool take(uint64_t n);
    uint64_t le(int n);
    uint8_t u8() { return static_cast<uint8_t>(le(1)); }
    uint16_t u16() { return static_cast<uint16_t>(le(2)); }
    uint32_t u32() { return static_cast<uint32_t>(le(4)); }
    uint64_t u64() { return le(8); }
    std::string_view bytes(uint64_t n);
    std::string_view str() { return bytes(u32()); }
    std::string_view rest() { return bytes(s.size() - pos); }
};

// The fields of a message record's content; false when it is too short.
bool mcap_message_parse(std::string_view content, mcap_message_t& message);

// The records of a chunk record's content, decompressed and checked against
// the limits and the CRC; an empty string, or why they cannot be had
// (after `where`, e.g. "the chunk at byte 8").
std::string mcap_chunk_decode(std::string_view content, std::string& records,
                              const std::string& where);

// Calls `visit` with the opcode, content and offset of each record in
// `records`; false when one reaches past the end.
bool mcap_for_each_record(std::string_view records,
                          const std::function<void(uint8_t, std::string_view, size_t)>& visit);
