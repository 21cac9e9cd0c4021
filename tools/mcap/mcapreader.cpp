// Merges the chunks and messages of an MCAP file by log time.

#include "mcapreader.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace {

// Runs of messages outside chunks read at once; each holds one message.
constexpr size_t MAX_OPEN_RUNS = 256;

}  // namespace

McapReader::McapReader(const std::string& path, const mcap_reader_options_t& options)
    : owned_(true), options_(options) {
    file_.name = path;
    file_.fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (file_.fd < 0) {
        throw std::runtime_error("cannot open " + path + ": " + strerror(errno));
    }
    try {
        open();
    } catch (...) {
        close(file_.fd);
        throw;
    }
}

McapReader::McapReader(int fd, const std::string& name, const mcap_reader_options_t& options)
    : options_(options) {
    file_.fd = fd;
    file_.name = name;
    open();
}

McapReader::~McapReader() {
    if (owned_) {
        close(file_.fd);
    }
}

void McapReader::open() {
    struct stat st;
    if (fstat(file_.fd, &st) < 0) {
        throw std::runtime_error("cannot read " + file_.name + ": " + strerror(errno));
    }
    if (S_ISDIR(st.st_mode)) {
        throw std::runtime_error(file_.name + " is a directory");
    }
    file_.size = static_cast<uint64_t>(st.st_size);
    std::string start =
        mcap_read_at(file_, 0, std::min<uint64_t>(file_.size, MCAP_MAGIC.size() + 1));
    if (!start.starts_with(MCAP_MAGIC)) {
        bool part = !start.empty() && MCAP_MAGIC.starts_with(start.substr(0, 1));
        if (part && start.size() < MCAP_MAGIC.size() && MCAP_MAGIC.starts_with(start)) {
            throw std::runtime_error(file_.name + " is a damaged MCAP file: it ends after " +
                                     std::to_string(start.size()) + " bytes of the magic");
        }
        throw std::runtime_error(file_.name + (part ? " is a damaged MCAP file: it does not start "
                                                      "with the whole MCAP magic"
                                                    : " is not an MCAP file"));
    }
    if (start.size() <= MCAP_MAGIC.size() || start.back() != char(MCAP_HEADER)) {
        throw std::runtime_error(file_.name +
                                 " is a damaged MCAP file: no header record follows the magic");
    }
    index_ = mcap_index_read(file_);
    rewind();
}

void McapReader::select(uint16_t channel_id) {
    channel_ = channel_id;
    rewind();
}

void McapReader::window(uint64_t from, uint64_t to) {
    window_from_ = from;
    window_to_ = to;
    rewind();
}

void McapReader::rewind() {
    uint64_t origin = startTime();
    from_ = origin + std::min(window_from_, UINT64_MAX - origin);
    to_ = origin + std::min(window_to_, UINT64_MAX - origin);
    order_.clear();
    for (size_t i = 0; i < index_.sources.size(); ++i) {
        const mcap_source_t& s = index_.sources[i];
        if (s.last >= from_ && s.first <= to_) {
            order_.push_back(static_cast<uint32_t>(i));
        }
    }
    std::stable_sort(order_.begin(), order_.end(), [&](uint32_t a, uint32_t b) {
        return index_.sources[a].first < index_.sources[b].first;
    });
    pending_ = 0;
    open_.clear();
    last_ = 0;
    report_ = index_.report;
}

bool McapReader::wanted(uint16_t channel, uint64_t time) const {
    return (!channel_ || *channel_ == channel) && time >= from_ && time <= to_;
}

uint64_t McapReader::headTime(const open_t& o) const {
    return o.source->end ? o.head_time : o.messages[o.next].time;
}

std::pair<uint64_t, uint32_t> McapReader::headPos(const open_t& o) const {
    return o.source->end ? std::pair(o.head_at, 0u)
                         : std::pair(o.source->offset, o.messages[o.next].at);
}

bool McapReader::done(const open_t& o) const {
    return o.source->end ? o.head_size == 0 : o.next == o.messages.size();
}

size_t McapReader::openChunks() const {
    return static_cast<size_t>(
        std::count_if(open_.begin(), open_.end(), [](const auto& o) { return !o->source->end; }));
}

// Opens every place whose first message is no later than the earliest
// message of those open: none of its messages can come later.
void McapReader::openDue() {
    while (pending_ < order_.size()) {
        const mcap_source_t& source = index_.sources[order_[pending_]];
        uint64_t head = UINT64_MAX;
        for (const auto& o : open_) {
            head = std::min(head, headTime(*o));
        }
        if (source.first > head) {
            break;
        }
        ++pending_;
        source.end ? openRun(source) : openChunk(source);
    }
}

void McapReader::openChunk(const mcap_source_t& source) {
    std::string where = "the chunk at byte " + std::to_string(source.offset);
    uint64_t length = mcap_read_head(file_, source.offset).length;
    if (length > MCAP_MAX_CHUNK_RECORD ||
        length > file_.size - source.offset - MCAP_RECORD_HEADER) {
        return mcap_report_skip(report_, where + " changed while the file was read");
    }
    auto chunk = std::make_unique<open_t>();
    chunk->source = &source;
    std::string problem = mcap_chunk_decode(
        mcap_read_at(file_, source.offset + MCAP_RECORD_HEADER, length), chunk->records, where);
    if (!problem.empty()) {
        return mcap_report_skip(report_, problem);
    }
    mcap_for_each_record(chunk->records, [&](uint8_t op, std::string_view body, size_t) {
        mcap_message_t m;
        if (op == MCAP_MESSAGE && mcap_message_parse(body, m) && wanted(m.channel_id, m.log_time)) {
            chunk->messages.push_back({m.log_time,
                                       static_cast<uint32_t>(body.data() - chunk->records.data()),
                                       static_cast<uint32_t>(body.size())});
        }
    });
    if (chunk->messages.empty()) {
        return;
    }
    if (openChunks() == options_.max_open_chunks) {
        char when[64];
        snprintf(when, sizeof(when), "%.3f s",
                 static_cast<double>(source.first - startTime()) / 1e9);
        throw mcap_overlap_error(file_.name + ": more than " +
                                 std::to_string(options_.max_open_chunks) +
                                 " of its chunks overlap in log time at " + when +
                                 " after its start (" + where + "), more than are read at once");
    }
    std::stable_sort(chunk->messages.begin(), chunk->messages.end(),
                     [](const entry_t& a, const entry_t& b) { return a.time < b.time; });
    open_.push_back(std::move(chunk));
}

void McapReader::openRun(const mcap_source_t& source) {
    auto run = std::make_unique<open_t>();
    run->source = &source;
    run->pos = source.offset;
    if (!advanceRun(*run)) {
        return;
    }
    if (open_.size() - openChunks() == MAX_OPEN_RUNS) {
        throw mcap_overlap_error(file_.name + ": more than " + std::to_string(MAX_OPEN_RUNS) +
                                 " runs of messages outside chunks overlap in log time (the run "
                                 "at byte " +
                                 std::to_string(source.offset) + "), more than are read at once");
    }
    open_.push_back(std::move(run));
}

// Moves a run to its next wanted message; false at its end.
bool McapReader::advanceRun(open_t& run) {
    run.head_size = 0;
    while (run.pos < run.source->end && file_.size - run.pos >= MCAP_RECORD_HEADER) {
        uint64_t at = run.pos;
        auto [opcode, length] = mcap_read_head(file_, at);
        if (length > file_.size - at - MCAP_RECORD_HEADER) {
            return false;
        }
        run.pos = at + MCAP_RECORD_HEADER + length;
        if (opcode != MCAP_MESSAGE || length < MCAP_MESSAGE_FIELDS || length > MCAP_MAX_CHUNK) {
            continue;
        }
        mcap_message_t m;
        mcap_message_parse(mcap_read_at(file_, at + MCAP_RECORD_HEADER, MCAP_MESSAGE_FIELDS), m);
        if (wanted(m.channel_id, m.log_time)) {
            run.head_time = m.log_time;
            run.head_at = at;
            run.head_size = length;
            return true;
        }
    }
    return false;
}

bool McapReader::next(mcap_message_t& m) {
    while (true) {
        std::erase_if(open_, [&](const auto& o) { return done(*o); });
        openDue();
        if (open_.empty()) {
            return false;
        }
        open_t& o =
            **std::min_element(open_.begin(), open_.end(), [&](const auto& a, const auto& b) {
                uint64_t ta = headTime(*a), tb = headTime(*b);
                return ta != tb ? ta < tb : headPos(*a) < headPos(*b);
            });
        if (o.source->end) {
            message_ = mcap_read_at(file_, o.head_at + MCAP_RECORD_HEADER, o.head_size);
            mcap_message_parse(message_, m);
            advanceRun(o);
        } else {
            const entry_t& e = o.messages[o.next++];
            mcap_message_parse(std::string_view(o.records).substr(e.at, e.size), m);
        }
        if (m.log_time < last_) {
            ++report_.out_of_order;  // the file changed since it was indexed
            continue;
        }
        last_ = m.log_time;
        return true;
    }
}
