#pragma once

// One line per event on standard error, prefixed with the journal's
// priority marker so that systemd files it at the right level.
void log_error(const char* format, ...) __attribute__((format(printf, 1, 2)));
void log_warning(const char* format, ...) __attribute__((format(printf, 1, 2)));
void log_info(const char* format, ...) __attribute__((format(printf, 1, 2)));
