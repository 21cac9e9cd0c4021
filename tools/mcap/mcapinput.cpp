// Positioned reads, record fields and chunk decoding for the MCAP readers.

#include "mcapinput.h"

#include <lz4frame.h>
#include <unistd.h>
#include <zstd.h>

#include <cerrno>
#include <cstring>
#include <optional>
#include <stdexcept>

namespace {

// The chunk's records, or nothing when they cannot be decompressed to the
// size the chunk claims, which the caller has checked against its limits.
std::optional<std::string> decompress(std::string_view compression, std::string_view data,
                                      uint64_t size) {
    if (compression.empty()) {
        return size == data.size() ? std::optional(std::string(data)) : std::nullopt;
    }
    std::string out(static_cast<size_t>(size), '\0');
    if (compression == "zstd") {
        size_t n = ZSTD_decompress(out.data(), out.size(), data.data(), data.size());
        return !ZSTD_isError(n) && n == size ? std::optional(std::move(out)) : std::nullopt;
    }
    if (compression != "lz4") {
        return std::nullopt;
    }
    LZ4F_dctx* context = nullptr;
    if (LZ4F_isError(LZ4F_createDecompressionContext(&context, LZ4F_VERSION))) {
        return std::nullopt;
    }
    size_t done = 0, used = 0;
    bool failed = false;
    while (!failed && used < data.size() && done < out.size()) {
        size_t dst = out.size() - done, src = data.size() - used;
        size_t r =
            LZ4F_decompress(context, out.data() + done, &dst, data.data() + used, &src, nullptr);
        failed = LZ4F_isError(r) || (dst == 0 && src == 0);
        done += dst;
        used += src;
    }
    LZ4F_freeDecompressionContext(context);
    return !failed && done == size ? std::optional(std::move(out)) : std::nullopt;
}

}  // namespace

std::string mcap_read_at(const mcap_file_t& file, uint64_t offset, uint64_t length) {
    std::string out(static_cast<size_t>(length), '\0');
    for (size_t done = 0; done < out.size();) {
        ssize_t n =
            pread(file.fd, out.data() + done, out.size() - done, static_cast<off_t>(offset + done));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            throw std::runtime_error("cannot read " + file.name + ": " +
                                     (n < 0 ? strerror(errno) : "it shrank while being read"));
        }
        done += static_cast<size_t>(n);
    }
    return out;
}

mcap_head_t mcap_read_head(const mcap_file_t& file, uint64_t offset) {
    std::string bytes = mcap_read_at(file, offset, MCAP_RECORD_HEADER);
    mcap_in_t in{bytes};
    uint8_t opcode = in.u8();
    return {opcode, in.u64()};
}

bool mcap_in_t::take(uint64_t n) {
    ok = ok && n <= s.size() - pos;
    return ok;
}

uint64_t mcap_in_t::le(int n) {
    if (!take(static_cast<uint64_t>(n))) {
        return 0;
    }
    uint64_t v = 0;
    for (int i = 0; i < n; ++i) {
        v |= static_cast<uint64_t>(static_cast<uint8_t>(s[pos++])) << (8 * i);
    }
    return v;
}

std::string_view mcap_in_t::bytes(uint64_t n) {
    if (!take(n)) {
        return {};
    }
    std::string_view v = s.substr(pos, static_cast<size_t>(n));
    pos += static_cast<size_t>(n);
    return v;
}

bool mcap_message_parse(std::string_view content, mcap_message_t& m) {
    mcap_in_t in{content};
    m.channel_id = in.u16();
    m.sequence = in.u32();
    m.log_time = in.u64();
    m.publish_time = in.u64();
    m.data = in.rest();
    return in.ok;
}

std::string mcap_chunk_decode(std::string_view content, std::string& records,
                              const std::string& where) {
    mcap_in_t in{content};
    in.u64();
    in.u64();
    uint64_t size = in.u64();
    uint32_t expected_crc = in.u32();
    std::string_view compression = in.str();
    std::string_view compressed = in.bytes(in.u64());
    if (!in.ok) {
        return where + " has fields that reach past its end";
    }
    if (size > MCAP_MAX_CHUNK) {
        return where + " claims " + std::to_string(size) +
               " bytes uncompressed, more than the 32 MiB a chunk may hold";
    }
    if (!compression.empty() && size > MCAP_MAX_RATIO * compressed.size() + 4096) {
        return where + " claims " + std::to_string(size) + " bytes from " +
               std::to_string(compressed.size()) + ", more than 256 times as many";
    }
    std::optional<std::string> out = decompress(compression, compressed, size);
    if (!out) {
        return where + " does not decompress (" +
               (compression.empty() ? "none" : std::string(compression)) +
               ") to the size it claims";
    }
    if (expected_crc != 0 && mcap_crc(0, *out) != expected_crc) {
        return where + " fails its CRC";
    }
    records = std::move(*out);
    return {};
}

bool mcap_for_each_record(std::string_view records,
                          const std::function<void(uint8_t, std::string_view, size_t)>& visit) {
    for (mcap_in_t r{records}; r.pos < r.s.size();) {
        size_t at = r.pos;
        uint8_t opcode = r.u8();
        std::string_view content = r.bytes(r.u64());
        if (!r.ok) {
            return false;
        }
        visit(opcode, content, at);
    }
    return true;
}
