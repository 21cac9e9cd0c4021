// Reads MCAP files as a stream of their data section's records.

#include "mcapreader.h"

#include <fcntl.h>
#include <lz4frame.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zstd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace {

// The largest chunk this reader decompresses, and the largest ratio of
// uncompressed to compressed size it believes: a corrupt size claim must
// not make it allocate more than a chunk's worth.
constexpr uint64_t MAX_CHUNK = 32u << 20;
constexpr uint64_t MAX_RATIO = 256;
// Chunks read at once when their times overlap.
constexpr size_t MAX_OPEN = 2;
// Bytes of schema and channel fields kept at most, however many records
// name them.
constexpr size_t MAX_KEPT = 16u << 20;

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

// The chunk's records, or nothing when they cannot be decompressed to the
// size the chunk claims, which the caller has checked against its limits.
std::optional<std::string> decompress(const std::string& compression, std::string_view data,
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

size_t kept_size(const mcap_schema_t& schema) {
    return schema.name.size() + schema.encoding.size();
}

size_t kept_size(const mcap_channel_t& channel) {
    size_t size = channel.topic.size() + channel.message_encoding.size();
    for (const auto& [key, value] : channel.metadata) {
        size += key.size() + value.size();
    }
    return size;
}

// Keeps the record under its id unless that would take `kept` past its
// limit; false then.
template <typename record_t>
bool keep(std::map<uint16_t, record_t>& records, record_t record, size_t& kept) {
    auto old = records.find(record.id);
    size_t size = kept - (old == records.end() ? 0 : kept_size(old->second)) + kept_size(record);
    if (size > MAX_KEPT) {
        return false;
    }
    kept = size;
    records[record.id] = std::move(record);
    return true;
}

}  // namespace

McapReader::McapReader(const std::string& path) : owned_(true), name_(path) {
    fd_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd_ < 0) {
        throw std::runtime_error("cannot open " + path + ": " + strerror(errno));
    }
    try {
        open();
    } catch (...) {
        close(fd_);
        throw;
    }
}

McapReader::McapReader(int fd, const std::string& name) : fd_(fd), name_(name) {
    open();
}

McapReader::~McapReader() {
    if (owned_) {
        close(fd_);
    }
}

std::string McapReader::readAt(uint64_t offset, uint64_t length) {
    std::string out(static_cast<size_t>(length), '\0');
    for (size_t done = 0; done < out.size();) {
        ssize_t n =
            pread(fd_, out.data() + done, out.size() - done, static_cast<off_t>(offset + done));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            throw std::runtime_error("cannot read " + name_ + ": " +
                                     (n < 0 ? strerror(errno) : "it shrank while being read"));
        }
        done += static_cast<size_t>(n);
    }
    return out;
}

void McapReader::open() {
    struct stat st;
    if (fstat(fd_, &st) < 0) {
        throw std::runtime_error("cannot read " + name_ + ": " + strerror(errno));
    }
    size_ = static_cast<uint64_t>(st.st_size);
    if (size_ < MCAP_MAGIC.size() + MCAP_RECORD_HEADER ||
        readAt(0, MCAP_MAGIC.size() + 1) != std::string(MCAP_MAGIC) + char(MCAP_HEADER)) {
        throw std::runtime_error(name_ + " is not an MCAP file");
    }
    rewind();
}

void McapReader::rewind() {
    pos_ = MCAP_MAGIC.size();
    ended_ = false;
    found_.reset();
    open_.clear();
    report_ = {};
}

void McapReader::window(uint64_t from, uint64_t to) {
    from_ = from;
    to_ = to;
}

bool McapReader::skip(const std::string& problem) {
    if (report_.bad_records++ == 0) {
        report_.first_problem = problem;
    }
    return false;
}

void McapReader::keepRecord(uint8_t opcode, std::string_view content) {
    in_t in{content};
    if (opcode == MCAP_SCHEMA) {
        mcap_schema_t schema;
        schema.id = in.u16();
        schema.name = in.str();
        schema.encoding = in.str();
        in.bytes(in.u32());
        if (in.ok && schema.id != 0 && !keep(schemas_, std::move(schema), kept_)) {
            skip("the schemas and channels take more than 16 MiB");
        }
    } else if (opcode == MCAP_CHANNEL) {
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
        if (in.ok && pairs.ok && !keep(channels_, std::move(channel), kept_)) {
            skip("the schemas and channels take more than 16 MiB");
        }
    }
}

// Walks the data section to its next chunk or message record, keeping the
// schemas and channels on the way; false at the end of the data.
bool McapReader::find() {
    while (!ended_) {
        uint64_t at = pos_;
        if (size_ - at < MCAP_RECORD_HEADER) {
            report_.cut_at = at;
            ended_ = true;
            break;
        }
        std::string head_bytes = readAt(at, MCAP_RECORD_HEADER);
        in_t head{head_bytes};
        uint8_t opcode = head.u8();
        uint64_t length = head.u64();
        if (length > size_ - at - MCAP_RECORD_HEADER) {
            report_.cut_at = at;
            ended_ = true;
            break;
        }
        pos_ = at + MCAP_RECORD_HEADER + length;
        std::string where = " at byte " + std::to_string(at);
        if (opcode == MCAP_DATA_END || opcode == MCAP_FOOTER) {
            report_.finished = ended_ = true;
        } else if ((opcode == MCAP_CHUNK || opcode == MCAP_MESSAGE) && length < 16 + 6) {
            skip("the record" + where + " is too short for its fields");
        } else if (opcode == MCAP_CHUNK || opcode == MCAP_MESSAGE) {
            bool chunk = opcode == MCAP_CHUNK;
            std::string times_bytes = readAt(at + MCAP_RECORD_HEADER + (chunk ? 0 : 6), 16);
            in_t times{times_bytes};
            uint64_t start = times.u64(), end = times.u64();
            found_ = found_t{at, length, start, chunk ? std::max(start, end) : start, chunk};
            origin_ = origin_.value_or(start);
            report_.last_time = std::max(report_.last_time, found_->end);
            return true;
        } else if ((opcode == MCAP_SCHEMA || opcode == MCAP_CHANNEL) && length > MAX_CHUNK) {
            skip("the schema or channel" + where + " is larger than 32 MiB");
        } else if (opcode == MCAP_SCHEMA || opcode == MCAP_CHANNEL) {
            keepRecord(opcode, readAt(at + MCAP_RECORD_HEADER, length));
        }
    }
    return false;
}

// Reads the record that find() found, unless it lies outside the window.
void McapReader::openFound() {
    found_t found = *found_;
    found_.reset();
    uint64_t from = *origin_ + std::min(from_, UINT64_MAX - *origin_);
    uint64_t to = *origin_ + std::min(to_, UINT64_MAX - *origin_);
    if (found.end < from || found.start > to) {
        return;
    }
    std::string where = " at byte " + std::to_string(found.offset);
    open_chunk_t chunk;
    if (!found.chunk && found.length > MAX_CHUNK) {
        skip("the message" + where + " is larger than 32 MiB");
        return;
    }
    if (!found.chunk) {
        chunk.records = readAt(found.offset, MCAP_RECORD_HEADER + found.length);
    } else if (!decodeChunk(found, chunk)) {
        return;
    }
    if (!index(chunk, found.chunk ? "the chunk" + where : "the message" + where)) {
        return;
    }
    std::erase_if(chunk.messages, [&](const entry_t& e) { return e.time < from || e.time > to; });
    if (!chunk.messages.empty()) {
        open_.push_back(std::move(chunk));
    }
}

// The records of a chunk, decompressed and checked against its CRC.
bool McapReader::decodeChunk(const found_t& found, open_chunk_t& out) {
    std::string where = "the chunk at byte " + std::to_string(found.offset);
    // Compressed data a little larger than the largest chunk is still a
    // chunk that this reader accepts.
    if (found.length > MAX_CHUNK + (MAX_CHUNK >> 6)) {
        return skip(where + " is larger than 32 MiB");
    }
    std::string content = readAt(found.offset + MCAP_RECORD_HEADER, found.length);
    in_t in{content};
    in.u64();
    in.u64();
    uint64_t size = in.u64();
    uint32_t expected_crc = in.u32();
    std::string compression = in.str();
    std::string_view compressed = in.bytes(in.u64());
    if (!in.ok) {
        return skip(where + " has fields that reach past its end");
    }
    if (size > MAX_CHUNK) {
        return skip(where + " claims " + std::to_string(size) +
                    " bytes uncompressed, more than the 32 MiB a chunk may hold");
    }
    if (!compression.empty() && size > MAX_RATIO * compressed.size() + 4096) {
        return skip(where + " claims " + std::to_string(size) + " bytes from " +
                    std::to_string(compressed.size()) + ", more than 256 times as many");
    }
    std::optional<std::string> records = decompress(compression, compressed, size);
    if (!records) {
        return skip(where + " does not decompress (" +
                    (compression.empty() ? "none" : compression) + ") to the size it claims");
    }
    if (expected_crc != 0 && mcap_crc(0, *records) != expected_crc) {
        return skip(where + " fails its CRC");
    }
    out.records = std::move(*records);
    ++report_.chunks;
    return true;
}

// Lists the message records of `out` by log time, keeping the schemas and
// channels among them.
bool McapReader::index(open_chunk_t& out, const std::string& where) {
    for (in_t r{out.records}; r.pos < r.s.size();) {
        uint8_t opcode = r.u8();
        std::string_view body = r.bytes(r.u64());
        if (!r.ok || (opcode == MCAP_MESSAGE && body.size() < MCAP_MESSAGE_FIELDS)) {
            return skip(where + " holds a record that reaches past its end");
        }
        if (opcode == MCAP_MESSAGE) {
            in_t fields{body.substr(6)};
            out.messages.push_back({fields.u64(),
                                    static_cast<uint32_t>(body.data() - out.records.data()),
                                    static_cast<uint32_t>(body.size())});
        } else {
            keepRecord(opcode, body);
        }
    }
    std::stable_sort(out.messages.begin(), out.messages.end(),
                     [](const entry_t& a, const entry_t& b) { return a.time < b.time; });
    return true;
}

uint64_t McapReader::headTime() const {
    uint64_t time = UINT64_MAX;
    for (const open_chunk_t& chunk : open_) {
        time = std::min(time, chunk.messages[chunk.next].time);
    }
    return time;
}

bool McapReader::next(mcap_message_t& m) {
    std::erase_if(open_, [](const open_chunk_t& c) { return c.next == c.messages.size(); });
    // A chunk is read once the messages already read reach its start.
    while (open_.size() < MAX_OPEN && (found_ || find()) &&
           (open_.empty() || found_->start <= headTime())) {
        openFound();
    }
    if (open_.empty()) {
        return false;
    }
    open_chunk_t& chunk =
        *std::min_element(open_.begin(), open_.end(), [](const auto& a, const auto& b) {
            return a.messages[a.next].time < b.messages[b.next].time;
        });
    const entry_t& e = chunk.messages[chunk.next++];
    in_t in{std::string_view(chunk.records).substr(e.at, e.size)};
    m.channel_id = in.u16();
    m.sequence = in.u32();
    m.log_time = in.u64();
    m.publish_time = in.u64();
    m.data = in.rest();
    return true;
}
