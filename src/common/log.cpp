#include "common/log.h"

#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace {

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
    line[len++] = '\n';
    ssize_t ignored = write(STDERR_FILENO, line, len);
    (void)ignored;
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
