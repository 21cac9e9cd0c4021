#pragma once

// The records of the MCAP container format that the tools' writer and reader
// share: message, schema and channel records, opcodes, the file's magic, the
// CRC and little-endian fields. It knows nothing of the radar or of D-Bus.

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

enum class mcap_compression_t { none, zstd, lz4 };

// "none", "zstd" or "lz4"; nothing for other names.
std::optional<mcap_compression_t> mcap_compression_named(std::string_view name);

// A schema as the reader keeps it: its data is left out.
struct mcap_schema_t {
    uint16_t id = 0;
    std::string name;
    std::string encoding;
};

struct mcap_channel_t {
    uint16_t id = 0;
    uint16_t schema_id = 0;
    std::string topic;
    std::string message_encoding;
    std::map<std::string, std::string> metadata;
};

struct mcap_message_t {
    uint16_t channel_id = 0;
    uint32_t sequence = 0;
    uint64_t log_time = 0;
    uint64_t publish_time = 0;
    std::string_view data;
};

enum mcap_opcode_t : uint8_t {
    MCAP_HEADER = 0x01,
    MCAP_FOOTER = 0x02,
    MCAP_SCHEMA = 0x03,
    MCAP_CHANNEL = 0x04,
    MCAP_MESSAGE = 0x05,
    MCAP_CHUNK = 0x06,
    MCAP_MESSAGE_INDEX = 0x07,
    MCAP_CHUNK_INDEX = 0x08,
    MCAP_STATISTICS = 0x0b,
    MCAP_SUMMARY_OFFSET = 0x0e,
    MCAP_DATA_END = 0x0f,
};

// A file starts and ends with these 8 bytes; every record starts with its
// opcode and the 8-byte length of its content.
constexpr std::string_view MCAP_MAGIC{"\x89MCAP0\r\n", 8};
constexpr size_t MCAP_RECORD_HEADER = 9;
// A message record's fields before its data.
constexpr size_t MCAP_MESSAGE_FIELDS = 2 + 4 + 8 + 8;

// The CRC-32 that the format uses, continued from `crc` over `bytes`.
uint32_t mcap_crc(uint32_t crc, std::string_view bytes);
