#pragma once

// The schemas and channels of an MCAP file as a reader keeps them: capped
// by what they cost in memory (every map entry and string counted with its
// overhead), not by the bytes they take in the file.

#include "mcap.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>

constexpr size_t MCAP_MAX_DEFINITIONS_COST = 16u << 20;

struct mcap_definitions_t {
    std::map<uint16_t, mcap_schema_t> schemas;
    std::map<uint16_t, mcap_channel_t> channels;
    size_t cost = 0;  // bytes of memory they take, estimated from above
};

// Keeps the schema or channel record whose content is `content`, replacing
// one of the same id; an empty string, or why it was not kept (after
// `where`, e.g. "the channel at byte 8"). Parsing stops as soon as the
// record would take the definitions past their cost limit.
std::string mcap_definitions_keep(mcap_definitions_t& definitions, uint8_t opcode,
                                  std::string_view content, const std::string& where);
