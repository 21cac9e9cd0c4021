// The first pass over an MCAP file's data section.

#include "mcapindex.h"

#include <algorithm>
#include <optional>
#include <set>
#include <stdexcept>

namespace {

constexpr uint64_t FOOTER_RECORD = MCAP_RECORD_HEADER + 20;
// The longest chunk index record believed; its first 32 bytes are two log
// times, the chunk's offset and the chunk record's length.
constexpr uint64_t MAX_CHUNK_INDEX = 1u << 20;

struct walk_t {
    const mcap_file_t& file;
    mcap_index_t& index;
    std::optional<size_t> run;  // the run that a message in order extends
};

void note(mcap_index_t& index, mcap_source_t& source, uint16_t channel, uint64_t time) {
    mcap_channel_count_t& count = index.counts[channel];
    ++count.messages;
    count.first = std::min(count.first, time);
    index.first = std::min(index.first, time);
    index.last = std::max(index.last, time);
    source.first = std::min(source.first, time);
    source.last = std::max(source.last, time);
}

void add(walk_t& w, const mcap_source_t& source) {
    if (w.index.sources.size() == MCAP_MAX_SOURCES) {
        throw std::runtime_error(w.file.name + " holds more than " +
                                 std::to_string(MCAP_MAX_SOURCES) +
                                 " chunks and runs of messages outside chunks");
    }
    w.index.sources.push_back(source);
}

void keep(walk_t& w, uint8_t opcode, std::string_view content, const std::string& where) {
    std::string problem = mcap_definitions_keep(w.index.definitions, opcode, content, where);
    if (!problem.empty()) {
        mcap_report_skip(w.index.report, problem);
    }
}

void chunk(walk_t& w, uint64_t at, uint64_t length) {
    std::string where = "the chunk at byte " + std::to_string(at);
    if (length > MCAP_MAX_CHUNK_RECORD) {
        return mcap_report_skip(w.index.report, where + " is larger than 32 MiB");
    }
    std::string records;
    std::string problem =
        mcap_chunk_decode(mcap_read_at(w.file, at + MCAP_RECORD_HEADER, length), records, where);
    if (!problem.empty()) {
        return mcap_report_skip(w.index.report, problem);
    }
    bool messages_whole = true;
    bool whole = mcap_for_each_record(records, [&](uint8_t op, std::string_view body, size_t) {
        messages_whole =
            messages_whole && (op != MCAP_MESSAGE || body.size() >= MCAP_MESSAGE_FIELDS);
    });
    if (!whole || !messages_whole) {
        return mcap_report_skip(w.index.report,
                                where + " holds a record that reaches past its end");
    }
    ++w.index.report.chunks;
    mcap_source_t source{at, 0, UINT64_MAX, 0};
    mcap_for_each_record(records, [&](uint8_t op, std::string_view body, size_t offset) {
        mcap_message_t m;
        if (op == MCAP_MESSAGE && mcap_message_parse(body, m)) {
            note(w.index, source, m.channel_id, m.log_time);
        } else if (op == MCAP_SCHEMA || op == MCAP_CHANNEL) {
            keep(w, op, body,
                 std::string(op == MCAP_SCHEMA ? "the schema" : "the channel") + " at byte " +
                     std::to_string(offset) + " of " + where);
        }
    });
    if (source.first <= source.last) {
        add(w, source);
    }
}

void message(walk_t& w, uint64_t at, uint64_t length) {
    std::string where = "the message at byte " + std::to_string(at);
    if (length < MCAP_MESSAGE_FIELDS) {
        return mcap_report_skip(w.index.report, where + " is too short for its fields");
    }
    if (length > MCAP_MAX_CHUNK) {
        return mcap_report_skip(w.index.report, where + " is larger than 32 MiB");
    }
    mcap_message_t m;
    mcap_message_parse(mcap_read_at(w.file, at + MCAP_RECORD_HEADER, MCAP_MESSAGE_FIELDS), m);
    uint64_t end = at + MCAP_RECORD_HEADER + length;
    if (w.run && w.index.sources[*w.run].last <= m.log_time) {
        w.index.sources[*w.run].end = end;
    } else {
        add(w, {at, end, UINT64_MAX, 0});
        w.run = w.index.sources.size() - 1;
    }
    note(w.index, w.index.sources[*w.run], m.channel_id, m.log_time);
}

// Walks records from `at` to the data section's end record; where it
// stopped when a record runs past the end of the file, or nothing.
std::optional<uint64_t> walk(walk_t& w, uint64_t at) {
    const uint64_t size = w.file.size;
    while (true) {
        if (size - at < MCAP_RECORD_HEADER) {
            return at;
        }
        auto [opcode, length] = mcap_read_head(w.file, at);
        if (length > size - at - MCAP_RECORD_HEADER) {
            return at;
        }
        std::string where = " at byte " + std::to_string(at);
        if (opcode == MCAP_DATA_END || opcode == MCAP_FOOTER) {
            w.index.report.finished = true;
            return std::nullopt;
        } else if (opcode == MCAP_CHUNK) {
            chunk(w, at, length);
        } else if (opcode == MCAP_MESSAGE) {
            message(w, at, length);
        } else if ((opcode == MCAP_SCHEMA || opcode == MCAP_CHANNEL) && length > MCAP_MAX_CHUNK) {
            mcap_report_skip(w.index.report,
                             std::string(opcode == MCAP_SCHEMA ? "the schema" : "the channel") +
                                 where + " is larger than 32 MiB");
        } else if (opcode == MCAP_SCHEMA || opcode == MCAP_CHANNEL) {
            keep(w, opcode, mcap_read_at(w.file, at + MCAP_RECORD_HEADER, length),
                 std::string(opcode == MCAP_SCHEMA ? "the schema" : "the channel") + where);
        }
        at += MCAP_RECORD_HEADER + length;
    }
}

// Where the summary starts when the file ends with a footer and the magic,
// as a finished file does; 0 when it does not.
uint64_t summary_start(const mcap_file_t& file) {
    if (file.size < MCAP_MAGIC.size() * 2 + FOOTER_RECORD) {
        return 0;
    }
    uint64_t footer = file.size - MCAP_MAGIC.size() - FOOTER_RECORD;
    std::string tail = mcap_read_at(file, footer, FOOTER_RECORD + MCAP_MAGIC.size());
    mcap_in_t in{tail};
    if (in.u8() != MCAP_FOOTER || in.u64() != 20 || !tail.ends_with(MCAP_MAGIC)) {
        return 0;
    }
    uint64_t start = in.u64();
    return start > MCAP_MAGIC.size() && start < footer ? start : footer;
}

// The offsets after `after` that the summary's chunk indexes give and
// where a chunk record that ends before the summary stands.
std::set<uint64_t> indexed_chunks(const mcap_file_t& file, uint64_t summary, uint64_t after) {
    std::set<uint64_t> found;
    const uint64_t footer = file.size - MCAP_MAGIC.size() - FOOTER_RECORD;
    for (uint64_t at = summary;
         footer - at >= MCAP_RECORD_HEADER && found.size() < MCAP_MAX_SOURCES;) {
        auto [opcode, length] = mcap_read_head(file, at);
        if (length > footer - at - MCAP_RECORD_HEADER) {
            break;
        }
        if (opcode == MCAP_CHUNK_INDEX && length >= 32 && length <= MAX_CHUNK_INDEX) {
            std::string bytes = mcap_read_at(file, at + MCAP_RECORD_HEADER, 32);
            mcap_in_t fields{bytes};
            fields.u64();
            fields.u64();
            uint64_t offset = fields.u64(), chunk_length = fields.u64();
            if (offset > after && offset < summary && summary - offset > MCAP_RECORD_HEADER) {
                auto [chunk_opcode, content] = mcap_read_head(file, offset);
                if (chunk_opcode == MCAP_CHUNK &&
                    content <= summary - offset - MCAP_RECORD_HEADER &&
                    content + MCAP_RECORD_HEADER == chunk_length) {
                    found.insert(offset);
                }
            }
        }
        at += MCAP_RECORD_HEADER + length;
    }
    return found;
}

}  // namespace

void mcap_report_skip(mcap_read_report_t& report, const std::string& problem) {
    if (report.bad_records++ == 0) {
        report.first_problem = problem;
    }
}

mcap_index_t mcap_index_read(const mcap_file_t& file) {
    mcap_index_t index;
    walk_t w{file, index, std::nullopt};
    std::optional<uint64_t> stop = walk(w, MCAP_MAGIC.size());
    if (!stop) {
        return index;
    }
    uint64_t summary = summary_start(file);
    if (summary == 0) {
        index.report.cut_at = *stop;
        return index;
    }
    // A finished file whose data section holds a record that runs past the
    // end: read on from the chunks that its index lists beyond it.
    index.report.finished = true;
    index.report.damage =
        "the record at byte " + std::to_string(*stop) + " runs past the end of the file";
    if (file.size - *stop >= MCAP_RECORD_HEADER) {
        index.report.damage +=
            " (it claims " + std::to_string(mcap_read_head(file, *stop).length) + " bytes)";
    }
    std::set<uint64_t> chunks = indexed_chunks(file, summary, *stop);
    if (chunks.empty()) {
        index.report.damage += "; the rest of the data section is not read";
        return index;
    }
    index.report.damage += "; read on from the " + std::to_string(chunks.size()) +
                           " chunks after it that the summary lists";
    while (stop && !chunks.empty()) {
        auto next = chunks.upper_bound(*stop);
        if (next == chunks.end()) {
            break;
        }
        w.run.reset();
        stop = walk(w, *next);
    }
    return index;
}
