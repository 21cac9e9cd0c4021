#include "common/log.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <mutex>
#include <string>

namespace {

// Lines of one kind (the same text but for its digits) beyond the first few
// within a second are counted instead of written: a client that makes the
// library refuse it thousands of times a second must not fill the device's
// flash. The count is reported once its second is over by whichever comes
// first: the next line of any kind, log_report_suppressed (which the Sink's
// once-a-second timer calls, so that a report waits at most a second for it
// and no thread of its own is needed), the kind's eviction from the table,
// or the process's exit.
constexpr unsigned LINES_PER_KIND_PER_SECOND = 5;
constexpr size_t KINDS = 64;
constexpr int64_t WINDOW_MS = 1000;

struct log_kind_t {
    uint64_t key = 0;        // 0: unused
    char example[160] = {};  // the kind's first line, with its prefix
    int64_t window_start_ms = 0;
    uint64_t last_used = 0;  // the table's use count at its last line
    unsigned written = 0;
    unsigned suppressed = 0;
};

std::mutex kinds_mutex;
std::array<log_kind_t, KINDS> kinds;
uint64_t uses = 0;

int64_t now_ms() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1'000'000;
}

void write_line(const char* line, size_t len) {
    ssize_t ignored = write(STDERR_FILENO, line, len);
    (void)ignored;
}

// FNV-1a of the line without its digits: ids, counts and errno values do
// not make a line a new kind.
uint64_t kind_key(const char* line, size_t len) {
    uint64_t hash = 14695981039346656037ull;
    for (size_t i = 0; i < len; ++i) {
        if (line[i] < '0' || line[i] > '9') {
            hash = (hash ^ static_cast<unsigned char>(line[i])) * 1099511628211ull;
        }
    }
    return hash | 1;
}

// Appends the kind's report to `reports` if it left lines out, and starts
// its next window at `now`.
void end_window(log_kind_t& kind, int64_t now, std::string& reports) {
    if (kind.suppressed > 0) {
        // The example starts with its priority marker, which the report
        // keeps.
        char report[256];
        int n = snprintf(report, sizeof(report), "%.3sSuppressed %u lines like: %s\n", kind.example,
                         kind.suppressed, kind.example + 3);
        reports.append(report, std::min(static_cast<size_t>(std::max(n, 0)), sizeof(report) - 1));
    }
    kind.window_start_ms = now;
    kind.written = 0;
    kind.suppressed = 0;
}

// Ends the windows that are over, or all of them when `all`; the caller
// holds kinds_mutex.
void end_windows(int64_t now, bool all, std::string& reports) {
    for (log_kind_t& kind : kinds) {
        if (kind.key && (all || now - kind.window_start_ms >= WINDOW_MS)) {
            end_window(kind, now, reports);
        }
    }
}

void write_reports(const std::string& reports) {
    if (!reports.empty()) {
        write_line(reports.data(), reports.size());
    }
}

// Decides whether `line` is written now, and collects the reports of kinds
// whose window has ended with lines left out. A new kind takes the place of
// the one least recently logged, whose count is reported first.
bool admit(const char* line, size_t len, std::string& reports) {
    uint64_t key = kind_key(line, len);
    std::lock_guard lock(kinds_mutex);
    int64_t now = now_ms();
    end_windows(now, false, reports);
    log_kind_t* mine = nullptr;
    log_kind_t* oldest = &kinds[0];
    for (log_kind_t& kind : kinds) {
        if (kind.key == key) {
            mine = &kind;
        }
        if (kind.last_used < oldest->last_used) {
            oldest = &kind;
        }
    }
    if (!mine) {
        mine = oldest;
        end_window(*mine, now, reports);
        *mine = {key, {}, now, 0, 0, 0};
        memcpy(mine->example, line, std::min(len, sizeof(mine->example) - 1));
    }
    mine->last_used = ++uses;
    if (mine->written < LINES_PER_KIND_PER_SECOND) {
        ++mine->written;
        return true;
    }
    ++mine->suppressed;
    return false;
}

// Reports every count still open when the process exits.
struct report_at_exit_t {
    ~report_at_exit_t() {
        std::string reports;
        std::lock_guard lock(kinds_mutex);
        end_windows(now_ms(), true, reports);
        write_reports(reports);
    }
} report_at_exit;

// The line is formatted into one buffer and written with a single write so
// that lines from different threads never interleave.
void log_line(const char* prefix, const char* format, va_list args) {
    char line[2048];
    size_t prefix_len = strlen(prefix);
    memcpy(line, prefix, prefix_len);
    int n = vsnprintf(line + prefix_len, sizeof(line) - prefix_len - 1, format, args);
    size_t len = prefix_len;
    if (n > 0) {
        len += std::min(static_cast<size_t>(n), sizeof(line) - prefix_len - 2);
    }
    std::string reports;
    bool admitted = admit(line, len, reports);
    write_reports(reports);
    if (admitted) {
        line[len++] = '\n';
        write_line(line, len);
    }
}

}  // namespace

#define DEFINE_LOG_FUNCTION(name, prefix) \
    void name(const char* format, ...) {  \
        va_list args;                     \
        va_start(args, format);           \
        log_line(prefix, format, args);   \
        va_end(args);                     \
    }

DEFINE_LOG_FUNCTION(log_error, "<3>")
DEFINE_LOG_FUNCTION(log_warning, "<4>")
DEFINE_LOG_FUNCTION(log_info, "<6>")

void log_report_suppressed() {
    std::string reports;
    {
        std::lock_guard lock(kinds_mutex);
        end_windows(now_ms(), false, reports);
    }
    write_reports(reports);
}
