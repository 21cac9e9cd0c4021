#pragma once

// A first pass over an MCAP file's data section, in file order: where its
// messages are (each chunk, and each run of messages outside chunks whose
// log times do not go back) with the log times they really hold, the
// schemas and channels wherever they stand (inside chunks too), and what
// was damaged. Readers then merge the places by log time, however the file
// orders and overlaps them. The summary's chunk index is used only to read
// on past a record whose length runs past the end of a finished file, and
// only where it lands on a chunk record.

#include "mcapdefinitions.h"
#include "mcapinput.h"

#include <cstdint>
#include <map>
#include <string>
#include <vector>

// Places listed at most: a chunk a second for six days.
constexpr size_t MCAP_MAX_SOURCES = 1u << 19;

// A chunk, or a run of messages outside chunks in non-decreasing log time.
struct mcap_source_t {
    uint64_t offset = 0;           // the chunk record, or the run's first message record
    uint64_t end = 0;              // a run: where its last message record ends; a chunk: 0
    uint64_t first = 0, last = 0;  // the earliest and latest log time of its messages
};

struct mcap_channel_count_t {
    uint64_t messages = 0;
    uint64_t first = UINT64_MAX;  // the earliest log time
};

// What reading the data section found beside its messages.
struct mcap_read_report_t {
    bool finished = false;      // the data section ended with its end record
    uint64_t cut_at = 0;        // not finished: where the last whole record ends
    std::string damage;         // finished, but a record runs past the file's end: where, and
                                // what was read beyond it
    size_t chunks = 0;          // chunks whose records were read
    size_t bad_records = 0;     // chunks and records skipped: too big, wrong CRC, undecodable
    std::string first_problem;  // why the first of them was skipped
    uint64_t out_of_order = 0;  // messages earlier than one already read: the file changed
};

struct mcap_index_t {
    std::vector<mcap_source_t> sources;  // in file order
    mcap_definitions_t definitions;
    std::map<uint16_t, mcap_channel_count_t> counts;  // messages per channel id
    uint64_t first = UINT64_MAX, last = 0;            // log times of all messages
    mcap_read_report_t report;
};

// Reads the data section of `file`, which starts with the magic and a
// header record. Throws std::runtime_error naming the file when it cannot be
// read or holds more places than MCAP_MAX_SOURCES.
mcap_index_t mcap_index_read(const mcap_file_t& file);

// Counts a skipped record in `report`, keeping the first reason.
void mcap_report_skip(mcap_read_report_t& report, const std::string& problem);
