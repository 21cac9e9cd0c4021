// Schemas and channels kept within a limit on their cost in memory.

#include "mcapdefinitions.h"

#include "mcapinput.h"

#include <utility>

namespace {

// A map node's links and colour, and the allocator's header of its block.
constexpr size_t NODE = 32 + 16;

// What a string costs beyond its own object: its block on the heap once it
// is too long to be stored in the object, with the terminator and header.
size_t heap(std::string_view s) {
    return s.size() > 15 ? s.size() + 1 + 16 : 0;
}

size_t cost(const mcap_schema_t& schema) {
    return NODE + sizeof(std::pair<const uint16_t, mcap_schema_t>) + heap(schema.name) +
           heap(schema.encoding);
}

size_t entry_cost(std::string_view key, std::string_view value) {
    return NODE + sizeof(std::pair<const std::string, std::string>) + heap(key) + heap(value);
}

size_t cost(const mcap_channel_t& channel) {
    return NODE + sizeof(std::pair<const uint16_t, mcap_channel_t>) + heap(channel.topic) +
           heap(channel.message_encoding);
}

// The cost of the definitions without the one of `id` that a new record
// replaces.
template <typename record_t>
size_t without(const std::map<uint16_t, record_t>& records, uint16_t id, size_t total,
               size_t (*cost_of)(const record_t&)) {
    auto old = records.find(id);
    return old == records.end() ? total : total - cost_of(old->second);
}

size_t channel_cost(const mcap_channel_t& channel) {
    size_t total = cost(channel);
    for (const auto& [key, value] : channel.metadata) {
        total += entry_cost(key, value);
    }
    return total;
}

size_t schema_cost(const mcap_schema_t& schema) {
    return cost(schema);
}

}  // namespace

std::string mcap_definitions_keep(mcap_definitions_t& d, uint8_t opcode, std::string_view content,
                                  const std::string& where) {
    const std::string too_much = where + " takes the schemas and channels past the 16 MiB of " +
                                 "memory the reader keeps for them";
    mcap_in_t in{content};
    if (opcode == MCAP_SCHEMA) {
        mcap_schema_t schema;
        schema.id = in.u16();
        schema.name = in.str();
        schema.encoding = in.str();
        in.bytes(in.u32());
        if (!in.ok) {
            return where + " has fields that reach past its end";
        }
        if (schema.id == 0) {
            return {};  // 0 means "no schema" and is never looked up
        }
        size_t total = without(d.schemas, schema.id, d.cost, schema_cost) + cost(schema);
        if (total > MCAP_MAX_DEFINITIONS_COST) {
            return too_much;
        }
        d.cost = total;
        d.schemas[schema.id] = std::move(schema);
        return {};
    }
    mcap_channel_t channel;
    channel.id = in.u16();
    channel.schema_id = in.u16();
    channel.topic = in.str();
    channel.message_encoding = in.str();
    mcap_in_t pairs{in.bytes(in.u32())};
    if (!in.ok) {
        return where + " has fields that reach past its end";
    }
    size_t total = without(d.channels, channel.id, d.cost, channel_cost) + cost(channel);
    while (pairs.ok && pairs.pos < pairs.s.size() && total <= MCAP_MAX_DEFINITIONS_COST) {
        std::string_view key = pairs.str();
        std::string_view value = pairs.str();
        total += entry_cost(key, value);
        if (pairs.ok && total <= MCAP_MAX_DEFINITIONS_COST) {
            channel.metadata.insert_or_assign(std::string(key), std::string(value));
        }
    }
    if (!pairs.ok) {
        return where + " has metadata that reaches past its end";
    }
    if (total > MCAP_MAX_DEFINITIONS_COST) {
        return too_much;
    }
    d.cost = total;
    d.channels[channel.id] = std::move(channel);
    return {};
}
