#pragma once

// One line per event on standard error, prefixed with the journal's
// priority marker so that systemd files it at the right level.
void log_error(const char* format, ...) __attribute__((format(printf, 1, 2)));
void log_warning(const char* format, ...) __attribute__((format(printf, 1, 2)));
void log_info(const char* format, ...) __attribute__((format(printf, 1, 2)));
// Writes "Suppressed N lines like: ..." for each kind of line whose second
// is over with lines left out, without waiting for a later line; the Sink's
// once-a-second timer calls it.
void log_report_suppressed();
