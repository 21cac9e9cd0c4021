// Writes MCAP files: records appended as they come, chunks compressed
// with zstd or lz4, and the summary at the end.

#include "mcapwriter.h"

#include <fcntl.h>
#include <lz4frame.h>
#include <unistd.h>
#include <zstd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace {

constexpr size_t FOOTER_CONTENT = 20;

// Little-endian fields as the format stores them.
struct out_t {
    std::string bytes;
    out_t& u8(uint8_t v) {
        bytes.push_back(static_cast<char>(v));
        return *this;
    }
    out_t& u16(uint16_t v) { return le(v, 2); }
    out_t& u32(uint32_t v) { return le(v, 4); }
    out_t& u64(uint64_t v) { return le(v, 8); }
    out_t& str(std::string_view s) {
        u32(static_cast<uint32_t>(s.size()));
        bytes.append(s);
        return *this;
    }
    out_t& le(uint64_t v, int n) {
        for (int i = 0; i < n; ++i) {
            bytes.push_back(static_cast<char>(v >> (8 * i)));
        }
        return *this;
    }
};

std::string record(uint8_t opcode, const std::string& content) {
    return out_t().u8(opcode).u64(content.size()).bytes + content;
}

const char* compression_name(mcap_compression_t compression) {
    switch (compression) {
        case mcap_compression_t::zstd:
            return "zstd";
        case mcap_compression_t::lz4:
            return "lz4";
        default:
            return "";
    }
}

std::string compress(mcap_compression_t compression, const std::string& data) {
    std::string out;
    if (compression == mcap_compression_t::zstd) {
        out.resize(ZSTD_compressBound(data.size()));
        size_t n = ZSTD_compress(out.data(), out.size(), data.data(), data.size(), 1);
        if (ZSTD_isError(n)) {
            throw std::runtime_error(std::string("zstd: ") + ZSTD_getErrorName(n));
        }
        out.resize(n);
    } else if (compression == mcap_compression_t::lz4) {
        out.resize(LZ4F_compressFrameBound(data.size(), nullptr));
        size_t n = LZ4F_compressFrame(out.data(), out.size(), data.data(), data.size(), nullptr);
        if (LZ4F_isError(n)) {
            throw std::runtime_error(std::string("lz4: ") + LZ4F_getErrorName(n));
        }
        out.resize(n);
    } else {
        out = data;
    }
    return out;
}

std::runtime_error io_error(const char* what, const std::string& path) {
    return std::runtime_error(std::string(what) + " " + path + ": " + strerror(errno));
}

}  // namespace

McapWriter::McapWriter(const std::string& path, const std::string& library,
                       const mcap_writer_options_t& options)
    : path_(path), options_(options) {
    fd_ = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd_ < 0) {
        throw io_error("cannot write", path);
    }
    std::string start(MCAP_MAGIC);
    start += record(MCAP_HEADER, out_t().str("").str(library).bytes);
    data_crc_ = mcap_crc(0, start);
    put(start);
}

McapWriter::~McapWriter() {
    try {
        finish();
    } catch (const std::exception&) {
        // A destructor cannot report; finish() is how callers learn of it.
    }
    if (fd_ >= 0) {
        close(fd_);
    }
}

// Appends bytes to the file as they are.
void McapWriter::put(std::string_view bytes) {
    for (size_t done = 0; done < bytes.size();) {
        ssize_t n = ::write(fd_, bytes.data() + done, bytes.size() - done);
        if (n < 0 && errno != EINTR) {
            throw io_error("cannot write", path_);
        }
        done += n > 0 ? static_cast<size_t>(n) : 0;
    }
    offset_ += bytes.size();
}

// Appends a record of the data section, which its CRC covers.
void McapWriter::emit(uint8_t opcode, const std::string& content) {
    std::string header = out_t().u8(opcode).u64(content.size()).bytes;
    put(header);
    put(content);
    data_crc_ = mcap_crc(mcap_crc(data_crc_, header), content);
}

uint16_t McapWriter::addSchema(const std::string& name, const std::string& encoding,
                               const std::string& data) {
    uint16_t id = ++schema_count_;
    std::string content =
        out_t().u16(id).str(name).str(encoding).u32(static_cast<uint32_t>(data.size())).bytes +
        data;
    emit(MCAP_SCHEMA, content);
    schema_records_ += record(MCAP_SCHEMA, content);
    return id;
}

uint16_t McapWriter::addChannel(uint16_t schema_id, const std::string& topic,
                                const std::string& message_encoding,
                                const std::map<std::string, std::string>& metadata) {
    uint16_t id = ++channel_count_;
    out_t pairs;
    for (const auto& [key, value] : metadata) {
        pairs.str(key).str(value);
    }
    std::string content = out_t()
                              .u16(id)
                              .u16(schema_id)
                              .str(topic)
                              .str(message_encoding)
                              .u32(static_cast<uint32_t>(pairs.bytes.size()))
                              .bytes +
                          pairs.bytes;
    emit(MCAP_CHANNEL, content);
    channel_records_ += record(MCAP_CHANNEL, content);
    return id;
}

void McapWriter::write(const mcap_message_t& m) {
    if (!chunk_.empty() && m.log_time >= chunk_opened_ &&
        m.log_time - chunk_opened_ >= options_.chunk_ns) {
        flushChunk();
    }
    if (chunk_.empty()) {
        chunk_opened_ = m.log_time;
    }
    chunk_index_[m.channel_id].emplace_back(m.log_time, chunk_.size());
    // The record straight into the chunk: opcode, length, fields, data.
    chunk_ += out_t()
                  .u8(MCAP_MESSAGE)
                  .u64(2 + 4 + 8 + 8 + m.data.size())
                  .u16(m.channel_id)
                  .u32(m.sequence)
                  .u64(m.log_time)
                  .u64(m.publish_time)
                  .bytes;
    chunk_.append(m.data);
    chunk_start_ = std::min(chunk_start_, m.log_time);
    chunk_end_ = std::max(chunk_end_, m.log_time);
    first_time_ = std::min(first_time_, m.log_time);
    last_time_ = std::max(last_time_, m.log_time);
    ++message_count_;
    ++channel_counts_[m.channel_id];
    if (chunk_.size() >= options_.chunk_size) {
        flushChunk();
    }
}

void McapWriter::tick(uint64_t now) {
    if (!chunk_.empty() && (now < chunk_opened_ || now - chunk_opened_ >= options_.chunk_ns)) {
        flushChunk();
    }
}

void McapWriter::flushChunk() {
    if (chunk_.empty()) {
        return;
    }
    std::string records = compress(options_.compression, chunk_);
    const char* compression = compression_name(options_.compression);
    uint64_t chunk_start = offset_;
    emit(MCAP_CHUNK, out_t().u64(chunk_start_)
                             .u64(chunk_end_)
                             .u64(chunk_.size())
                             .u32(mcap_crc(0, chunk_))
                             .str(compression)
                             .u64(records.size())
                             .bytes +
                         records);
    uint64_t chunk_length = offset_ - chunk_start;
    out_t index_offsets;
    for (auto& [channel, entries] : chunk_index_) {
        std::stable_sort(entries.begin(), entries.end(),
                         [](const auto& a, const auto& b) { return a.first < b.first; });
        index_offsets.u16(channel).u64(offset_);
        out_t index;
        index.u16(channel).u32(static_cast<uint32_t>(entries.size() * 16));
        for (const auto& [time, offset] : entries) {
            index.u64(time).u64(offset);
        }
        emit(MCAP_MESSAGE_INDEX, index.bytes);
    }
    out_t chunk_index;
    chunk_index.u64(chunk_start_)
        .u64(chunk_end_)
        .u64(chunk_start)
        .u64(chunk_length)
        .u32(static_cast<uint32_t>(index_offsets.bytes.size()));
    chunk_index.bytes += index_offsets.bytes;
    chunk_index.u64(offset_ - chunk_start - chunk_length)
        .str(compression)
        .u64(records.size())
        .u64(chunk_.size());
    chunk_indexes_ += record(MCAP_CHUNK_INDEX, chunk_index.bytes);
    ++chunk_count_;
    chunk_.clear();
    chunk_index_.clear();
    chunk_start_ = UINT64_MAX;
    chunk_end_ = 0;
}

void McapWriter::finish() {
    if (fd_ < 0) {
        return;
    }
    flushChunk();
    emit(MCAP_DATA_END, out_t().u32(data_crc_).bytes);

    out_t counts;
    for (const auto& [channel, count] : channel_counts_) {
        counts.u16(channel).u64(count);
    }
    out_t statistics;
    statistics.u64(message_count_)
        .u16(schema_count_)
        .u32(channel_count_)
        .u32(0)
        .u32(0)
        .u32(chunk_count_)
        .u64(message_count_ ? first_time_ : 0)
        .u64(last_time_)
        .u32(static_cast<uint32_t>(counts.bytes.size()));
    statistics.bytes += counts.bytes;

    // The summary: each group of records, then where each group lies.
    uint64_t summary_start = offset_;
    uint32_t summary_crc = 0;
    out_t offsets;
    for (const auto& [opcode, group] :
         {std::pair<uint8_t, std::string>{MCAP_SCHEMA, schema_records_},
          {MCAP_CHANNEL, channel_records_},
          {MCAP_STATISTICS, record(MCAP_STATISTICS, statistics.bytes)},
          {MCAP_CHUNK_INDEX, chunk_indexes_}}) {
        if (group.empty()) {
            continue;
        }
        offsets.bytes +=
            record(MCAP_SUMMARY_OFFSET, out_t().u8(opcode).u64(offset_).u64(group.size()).bytes);
        summary_crc = mcap_crc(summary_crc, group);
        put(group);
    }
    uint64_t summary_offset_start = offset_;
    summary_crc = mcap_crc(summary_crc, offsets.bytes);
    put(offsets.bytes);
    std::string footer = out_t()
                             .u8(MCAP_FOOTER)
                             .u64(FOOTER_CONTENT)
                             .u64(summary_start)
                             .u64(summary_offset_start)
                             .bytes;
    footer += out_t().u32(mcap_crc(summary_crc, footer)).bytes;
    put(footer);
    put(MCAP_MAGIC);
    int fd = std::exchange(fd_, -1);
    if (close(fd) < 0) {
        throw io_error("cannot write", path_);
    }
}
