#include "mcap.h"

#include <fcntl.h>
#include <lz4frame.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>
#include <zstd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace {

constexpr char MAGIC[] = "\x89MCAP0\r\n";
constexpr size_t MAGIC_SIZE = 8;
constexpr size_t RECORD_HEADER = 9;  // opcode and content length
constexpr size_t FOOTER_CONTENT = 20;

enum opcode_t : uint8_t {
    OP_HEADER = 0x01,
    OP_FOOTER = 0x02,
    OP_SCHEMA = 0x03,
    OP_CHANNEL = 0x04,
    OP_MESSAGE = 0x05,
    OP_CHUNK = 0x06,
    OP_MESSAGE_INDEX = 0x07,
    OP_CHUNK_INDEX = 0x08,
    OP_STATISTICS = 0x0b,
    OP_SUMMARY_OFFSET = 0x0e,
    OP_DATA_END = 0x0f,
};

// The largest chunk this reader decompresses, and the largest ratio of
// uncompressed to compressed size it believes: a corrupt size claim must
// not make it allocate gigabytes.
constexpr uint64_t MAX_CHUNK = 256u << 20;
constexpr uint64_t MAX_RATIO = 256;

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

// Reads fields from a record; any read past the end clears `ok` and yields
// zeros, so a parser checks once at the end.
struct in_t {
    std::string_view s;
    size_t pos = 0;
    bool ok = true;

    bool take(size_t n) {
        ok = ok && n <= s.size() - pos;
        return ok;
    }
    uint64_t le(int n) {
        if (!take(static_cast<size_t>(n))) {
            return 0;
        }
        uint64_t v = 0;
        for (int i = 0; i < n; ++i) {
            v |= static_cast<uint64_t>(static_cast<uint8_t>(s[pos++])) << (8 * i);
        }
        return v;
    }
    uint8_t u8() { return static_cast<uint8_t>(le(1)); }
    uint16_t u16() { return static_cast<uint16_t>(le(2)); }
    uint32_t u32() { return static_cast<uint32_t>(le(4)); }
    uint64_t u64() { return le(8); }
    std::string_view bytes(uint64_t n) {
        if (!take(n > s.size() ? s.size() + 1 : static_cast<size_t>(n))) {
            return {};
        }
        std::string_view v = s.substr(pos, static_cast<size_t>(n));
        pos += static_cast<size_t>(n);
        return v;
    }
    std::string str() { return std::string(bytes(u32())); }
    std::string_view rest() { return bytes(s.size() - pos); }
};

uint32_t crc(uint32_t crc, std::string_view bytes) {
    return static_cast<uint32_t>(
        crc32(crc, reinterpret_cast<const Bytef*>(bytes.data()), static_cast<uInt>(bytes.size())));
}

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

// The chunk's records, or nothing when they cannot be decompressed to the
// size the chunk claims.
std::optional<std::string> decompress(const std::string& compression, std::string_view data,
                                      uint64_t size) {
    if (compression.empty()) {
        return size == data.size() ? std::optional(std::string(data)) : std::nullopt;
    }
    if (size > MAX_CHUNK || size > MAX_RATIO * data.size() + 4096) {
        return std::nullopt;
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

std::runtime_error io_error(const char* what, const std::string& path) {
    return std::runtime_error(std::string(what) + " " + path + ": " + strerror(errno));
}

}  // namespace

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

McapWriter::McapWriter(const std::string& path, const std::string& library,
                       mcap_compression_t compression, size_t chunk_size)
    : path_(path), compression_(compression), chunk_size_(chunk_size) {
    fd_ = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd_ < 0) {
        throw io_error("cannot write", path);
    }
    std::string start(MAGIC, MAGIC_SIZE);
    start += record(OP_HEADER, out_t().str("").str(library).bytes);
    data_crc_ = crc(0, start);
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
    data_crc_ = crc(crc(data_crc_, header), content);
}

uint16_t McapWriter::addSchema(const std::string& name, const std::string& encoding,
                               const std::string& data) {
    uint16_t id = ++schema_count_;
    std::string content =
        out_t().u16(id).str(name).str(encoding).u32(static_cast<uint32_t>(data.size())).bytes +
        data;
    emit(OP_SCHEMA, content);
    schema_records_ += record(OP_SCHEMA, content);
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
    emit(OP_CHANNEL, content);
    channel_records_ += record(OP_CHANNEL, content);
    return id;
}

void McapWriter::write(const mcap_message_t& m) {
    chunk_index_[m.channel_id].emplace_back(m.log_time, chunk_.size());
    // The record straight into the chunk: opcode, length, fields, data.
    chunk_ += out_t()
                  .u8(OP_MESSAGE)
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
    if (chunk_.size() >= chunk_size_) {
        flushChunk();
    }
}

void McapWriter::flushChunk() {
    if (chunk_.empty()) {
        return;
    }
    std::string records = compress(compression_, chunk_);
    const char* compression = compression_name(compression_);
    uint64_t chunk_start = offset_;
    emit(OP_CHUNK, out_t().u64(chunk_start_)
                           .u64(chunk_end_)
                           .u64(chunk_.size())
                           .u32(crc(0, chunk_))
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
        emit(OP_MESSAGE_INDEX, index.bytes);
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
    chunk_indexes_ += record(OP_CHUNK_INDEX, chunk_index.bytes);
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
    emit(OP_DATA_END, out_t().u32(data_crc_).bytes);

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
    for (const auto& [opcode, group] : {std::pair<uint8_t, std::string>{OP_SCHEMA, schema_records_},
                                        {OP_CHANNEL, channel_records_},
                                        {OP_STATISTICS, record(OP_STATISTICS, statistics.bytes)},
                                        {OP_CHUNK_INDEX, chunk_indexes_}}) {
        if (group.empty()) {
            continue;
        }
        offsets.bytes +=
            record(OP_SUMMARY_OFFSET, out_t().u8(opcode).u64(offset_).u64(group.size()).bytes);
        summary_crc = crc(summary_crc, group);
        put(group);
    }
    uint64_t summary_offset_start = offset_;
    summary_crc = crc(summary_crc, offsets.bytes);
    put(offsets.bytes);
    std::string footer = out_t()
                             .u8(OP_FOOTER)
                             .u64(FOOTER_CONTENT)
                             .u64(summary_start)
                             .u64(summary_offset_start)
                             .bytes;
    footer += out_t().u32(crc(summary_crc, footer)).bytes;
    put(footer);
    put(std::string_view(MAGIC, MAGIC_SIZE));
    int fd = std::exchange(fd_, -1);
    if (close(fd) < 0) {
        throw io_error("cannot write", path_);
    }
}

McapReader::McapReader(const std::string& path) : owned_(true) {
    fd_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd_ < 0) {
        throw io_error("cannot open", path);
    }
    try {
        open();
    } catch (...) {
        close(fd_);
        throw;
    }
}

McapReader::McapReader(int fd) : fd_(fd) {
    open();
}

McapReader::~McapReader() {
    if (owned_) {
        close(fd_);
    }
}

std::string McapReader::readAt(uint64_t offset, uint64_t length) {
    if (offset > size_ || length > size_ - offset) {
        throw std::runtime_error("a record reaches past the end of the file");
    }
    std::string out(static_cast<size_t>(length), '\0');
    for (size_t done = 0; done < out.size();) {
        ssize_t n =
            pread(fd_, out.data() + done, out.size() - done, static_cast<off_t>(offset + done));
        if (n <= 0) {
            if (n < 0 && errno == EINTR) {
                continue;
            }
            throw std::runtime_error("cannot read the file");
        }
        done += static_cast<size_t>(n);
    }
    return out;
}

void McapReader::open() {
    struct stat st;
    if (fstat(fd_, &st) < 0) {
        throw std::runtime_error("cannot read the file");
    }
    size_ = static_cast<uint64_t>(st.st_size);
    if (size_ < MAGIC_SIZE + RECORD_HEADER || readAt(0, MAGIC_SIZE) != std::string(MAGIC, 8) ||
        static_cast<uint8_t>(readAt(MAGIC_SIZE, 1)[0]) != OP_HEADER) {
        throw std::runtime_error("not an MCAP file");
    }
    if (!readSummary()) {
        schemas_.clear();
        channels_.clear();
        blocks_.clear();
        scan();
    }
    std::stable_sort(blocks_.begin(), blocks_.end(),
                     [](const block_t& a, const block_t& b) { return a.start < b.start; });
    if (!blocks_.empty() && (!report_.indexed || start_time_ == 0)) {
        start_time_ = blocks_.front().start;
    }
}

void McapReader::keepRecord(uint8_t opcode, std::string_view content) {
    in_t in{content};
    if (opcode == OP_SCHEMA) {
        mcap_schema_t schema;
        schema.id = in.u16();
        schema.name = in.str();
        schema.encoding = in.str();
        schema.data = std::string(in.bytes(in.u32()));
        if (in.ok && schema.id != 0) {
            schemas_[schema.id] = std::move(schema);
        }
    } else if (opcode == OP_CHANNEL) {
        mcap_channel_t channel;
        channel.id = in.u16();
        channel.schema_id = in.u16();
        channel.topic = in.str();
        channel.message_encoding = in.str();
        in_t pairs{in.bytes(in.u32())};
        while (in.ok && pairs.ok && pairs.pos < pairs.s.size()) {
            std::string key = pairs.str();
            channel.metadata[key] = pairs.str();
        }
        if (in.ok && pairs.ok) {
            channels_[channel.id] = std::move(channel);
        }
    }
}

bool McapReader::readSummary() {
    constexpr uint64_t FOOTER_RECORD = RECORD_HEADER + FOOTER_CONTENT;
    if (size_ < 2 * MAGIC_SIZE + RECORD_HEADER + FOOTER_RECORD ||
        readAt(size_ - MAGIC_SIZE, MAGIC_SIZE) != std::string(MAGIC, 8)) {
        return false;
    }
    uint64_t footer_at = size_ - MAGIC_SIZE - FOOTER_RECORD;
    std::string footer_bytes = readAt(footer_at, FOOTER_RECORD);
    in_t footer{footer_bytes};
    bool valid = footer.u8() == OP_FOOTER && footer.u64() == FOOTER_CONTENT;
    uint64_t summary_start = footer.u64();
    footer.u64();
    uint32_t summary_crc = footer.u32();
    if (!valid || summary_start < MAGIC_SIZE || summary_start > footer_at) {
        return false;
    }
    std::string summary = readAt(summary_start, footer_at - summary_start);
    if (summary_crc != 0 &&
        crc(crc(0, summary), readAt(footer_at, RECORD_HEADER + 16)) != summary_crc) {
        return false;
    }
    bool empty = false;
    for (in_t in{summary}; in.ok && in.pos < summary.size();) {
        uint8_t opcode = in.u8();
        in_t content{in.bytes(in.u64())};
        if (opcode == OP_CHUNK_INDEX) {
            block_t block{};
            block.chunk = true;
            block.start = content.u64();
            block.end = content.u64();
            block.offset = content.u64();
            block.length = content.u64();
            in_t offsets{content.bytes(content.u32())};
            while (offsets.ok && offsets.pos < offsets.s.size()) {
                block.channels.insert(offsets.u16());
                offsets.u64();
            }
            if (!content.ok || !offsets.ok || block.offset > size_ ||
                block.length > size_ - block.offset || block.length < RECORD_HEADER) {
                return false;
            }
            blocks_.push_back(std::move(block));
        } else if (opcode == OP_STATISTICS) {
            empty = content.u64() == 0;
            content.u16();
            content.bytes(4 + 4 + 4 + 4);
            start_time_ = content.u64();
        } else {
            keepRecord(opcode, content.s);
        }
    }
    report_.indexed = !blocks_.empty() || empty;
    return report_.indexed;
}

void McapReader::scan() {
    uint64_t pos = MAGIC_SIZE;
    for (;;) {
        if (size_ - pos < RECORD_HEADER) {
            report_.cut_at = pos;
            return;
        }
        std::string head_bytes = readAt(pos, RECORD_HEADER);
        in_t head{head_bytes};
        uint8_t opcode = head.u8();
        uint64_t length = head.u64();
        if (length > size_ - pos - RECORD_HEADER) {
            report_.cut_at = pos;
            return;
        }
        if (opcode == OP_DATA_END || opcode == OP_FOOTER) {
            return;
        }
        if (opcode == OP_CHUNK || opcode == OP_MESSAGE) {
            std::string start_bytes = readAt(pos + RECORD_HEADER, std::min<uint64_t>(length, 16));
            in_t start{start_bytes};
            block_t block{pos, RECORD_HEADER + length, 0, 0, {}, opcode == OP_CHUNK};
            if (opcode == OP_MESSAGE) {
                block.channels.insert(start.u16());
                start.u32();
            }
            block.start = start.u64();
            block.end = block.chunk ? start.u64() : block.start;
            blocks_.push_back(std::move(block));
        } else if (opcode == OP_SCHEMA || opcode == OP_CHANNEL) {
            keepRecord(opcode, readAt(pos + RECORD_HEADER, length));
        }
        pos += RECORD_HEADER + length;
    }
}

void McapReader::readMessages(const std::set<uint16_t>& channels, uint64_t start, uint64_t end,
                              const std::function<void(const mcap_message_t&)>& visit) {
    for (const block_t& block : blocks_) {
        bool wanted = channels.empty() || block.channels.empty() ||
                      std::any_of(channels.begin(), channels.end(),
                                  [&](uint16_t c) { return block.channels.count(c) > 0; });
        if (block.end >= start && block.start <= end && wanted) {
            readChunk(block, channels, start, end, visit);
        }
    }
}

void McapReader::readChunk(const block_t& block, const std::set<uint16_t>& channels, uint64_t start,
                           uint64_t end, const std::function<void(const mcap_message_t&)>& visit) {
    std::string content = readAt(block.offset + RECORD_HEADER, block.length - RECORD_HEADER);
    auto deliver = [&](std::string_view message) {
        in_t in{message};
        mcap_message_t m;
        m.channel_id = in.u16();
        m.sequence = in.u32();
        m.log_time = in.u64();
        m.publish_time = in.u64();
        m.data = in.rest();
        if (!in.ok || m.log_time < start || m.log_time > end) {
            return in.ok;
        }
        if (channels.empty() || channels.count(m.channel_id)) {
            visit(m);
        } else {
            ++report_.other_messages;
        }
        return true;
    };
    if (!block.chunk) {
        deliver(content);
        return;
    }
    in_t in{content};
    in.u64();
    in.u64();
    uint64_t size = in.u64();
    uint32_t expected_crc = in.u32();
    std::string compression = in.str();
    std::string_view compressed = in.bytes(in.u64());
    std::optional<std::string> records;
    if (in.ok) {
        records = decompress(compression, compressed, size);
    }
    if (!records || (expected_crc != 0 && crc(0, *records) != expected_crc)) {
        ++report_.bad_chunks;
        return;
    }
    ++report_.chunks;
    for (in_t r{*records}; r.pos < r.s.size();) {
        uint8_t opcode = r.u8();
        std::string_view body = r.bytes(r.u64());
        if (!r.ok || (opcode == OP_MESSAGE && !deliver(body))) {
            ++report_.bad_chunks;
            return;
        }
        keepRecord(opcode, body);
    }
}
