#pragma once

// Small helpers shared by the command-line tools: one-line failures, option
// numbers, the system bus and stop signals.

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <getopt.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

constexpr const char* PROVIDER_SERVICE = "com.tessel.RadarSceneProvider1";
constexpr const char* PROVIDER_PATH = "/com/tessel/RadarSceneProvider1";
constexpr const char* PROVIDER_INTERFACE = "com.tessel.RadarSceneProvider1.Scene";
constexpr const char* GEOLOCATION_SERVICE = "com.tessel.GeoLocation1";

// Names the program in failure lines.
void tool_init(const char* name);
// Prints "<program>: <message>" on standard error and exits with status 1.
[[noreturn]] void tool_fail(const char* format, ...) __attribute__((format(printf, 1, 2)));
// Fails with "<what>: <error text>" when `r` is a negative errno value.
int tool_check(int r, const char* what);
// The number in `text`, which must lie in [min, max]; fails naming `option`.
double tool_number(const char* text, const char* option, double min, double max);
// The whole number in `text`, which must lie in [min, max]; fails naming
// `option`.
long long tool_integer(const char* text, const char* option, long long min, long long max);
// "name: message" of a D-Bus error, or the text of `r` when it has none.
std::string tool_bus_error(const sd_bus_error& error, int r);
// The system bus, or a failure line.
sd_bus* tool_system_bus();
// Blocks SIGINT and SIGTERM and returns a descriptor that becomes readable
// when one of them arrives.
int tool_stop_signals();
// Waits `ms` milliseconds, or less when a stop signal arrives on `stop_fd`;
// true when one did.
bool tool_stopped_within(int stop_fd, int ms);
// Makes a method call and waits for its reply (within `timeout_usec`, 0 for
// sd-bus's default) while watching `stop_fd`. Returns what sd_bus_call
// would, or -ECANCELED when a stop signal came first.
int tool_call(sd_bus* bus, sd_bus_message* call, uint64_t timeout_usec, int stop_fd,
              sd_bus_error* error, sd_bus_message** reply);
uint64_t tool_monotonic_ns();
// Says on standard error, in one line of the tool's own, when no geolocation
// service is on the system bus: scenes then carry no geographic positions.
void tool_note_missing_geolocation();

// Parses the options of `options` (ended by a zero entry) with getopt_long,
// handing each one's value and argument to `handle`; an option whose value
// is a lower-case letter is also that short option. Every tool also has
// -h/--help, which prints `usage`, and --version; both exit 0. An unknown
// option or one without its value is a failure line that names it.
// Arguments after the options start at `optind`.
void tool_parse_options(int argc, char** argv, const option* options, const char* usage,
                        const std::function<void(int, const char*)>& handle);
// Fails when arguments are left after the options.
void tool_no_arguments(int argc, char** argv);

using sd_event_owner = std::unique_ptr<sd_event, sd_event* (*)(sd_event*)>;
// A new event loop that ends when SIGINT or SIGTERM arrives.
sd_event_owner tool_event_loop();
// Runs `body`, turning an exception into a failure line; returns its status.
int tool_run(const std::function<int()>& body);
