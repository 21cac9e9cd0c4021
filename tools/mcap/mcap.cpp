// The records and checks that the MCAP writer and reader share.

#include "mcap.h"

#include <zlib.h>

std::optional<mcap_compression_t> mcap_compression_named(std::string_view name) {
    if (name == "none") {
        return mcap_compression_t::none;
    }
    if (name == "zstd") {
        return mcap_compression_t::zstd;
    }
    if (name == "lz4") {
        return mcap_compression_t::lz4;
    }
    return std::nullopt;
}

uint32_t mcap_crc(uint32_t crc, std::string_view bytes) {
    return static_cast<uint32_t>(
        crc32(crc, reinterpret_cast<const Bytef*>(bytes.data()), static_cast<uInt>(bytes.size())));
}
