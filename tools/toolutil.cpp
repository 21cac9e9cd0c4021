#include "toolutil.h"

#include <getopt.h>
#include <signal.h>
#include <sys/signalfd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <exception>

namespace {

const char* program = "radarscene";

}  // namespace

void tool_init(const char* name) {
    program = name;
}

void tool_fail(const char* format, ...) {
    va_list args;
    va_start(args, format);
    fprintf(stderr, "%s: ", program);
    vfprintf(stderr, format, args);
    fputc('\n', stderr);
    va_end(args);
    exit(1);
}

int tool_check(int r, const char* what) {
    if (r < 0) {
        tool_fail("%s: %s", what, strerror(-r));
    }
    return r;
}

double tool_number(const char* text, const char* option, double min, double max) {
    char* end = nullptr;
    errno = 0;
    double value = strtod(text, &end);
    if (errno != 0 || end == text || *end != '\0' || value < min || value > max) {
        tool_fail("%s needs a number from %g to %g, not '%s'", option, min, max, text);
    }
    return value;
}

std::string tool_bus_error(const sd_bus_error& error, int r) {
    if (error.name) {
        return std::string(error.name) + ": " + (error.message ? error.message : "");
    }
    return strerror(-r);
}

sd_bus* tool_system_bus() {
    sd_bus* bus = nullptr;
    int r = sd_bus_open_system(&bus);
    if (r < 0) {
        tool_fail("cannot connect to the system bus: %s", strerror(-r));
    }
    return bus;
}

int tool_stop_signals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    int fd = signalfd(-1, &signals, SFD_CLOEXEC);
    if (fd < 0) {
        tool_fail("signalfd: %s", strerror(errno));
    }
    return fd;
}

uint64_t tool_monotonic_ns() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1'000'000'000u + static_cast<uint64_t>(now.tv_nsec);
}

void tool_parse_options(int argc, char** argv, const option* options, const char* usage,
                        const std::function<void(int, const char*)>& handle) {
    opterr = 0;
    int index = -1;
    int c;
    while ((c = getopt_long(argc, argv, "", options, &index)) != -1) {
        if (c == '?' || c == ':') {
            tool_fail("unknown option '%s' (see --help)", argv[optind - 1]);
        }
        if (index >= 0 && strcmp(options[index].name, "help") == 0) {
            fputs(usage, stdout);
            exit(0);
        }
        handle(c, optarg);
        index = -1;
    }
}

void tool_no_arguments(int argc, char** argv) {
    if (optind < argc) {
        tool_fail("unexpected argument '%s' (see --help)", argv[optind]);
    }
}

sd_event_owner tool_event_loop() {
    sd_event* event = nullptr;
    tool_check(sd_event_new(&event), "sd_event_new");
    sd_event_owner owner(event, sd_event_unref);
    tool_stop_signals();
    sd_event_add_signal(event, nullptr, SIGINT, nullptr, nullptr);
    sd_event_add_signal(event, nullptr, SIGTERM, nullptr, nullptr);
    return owner;
}

int tool_run(const std::function<int()>& body) {
    try {
        return body();
    } catch (const std::exception& e) {
        tool_fail("%s", e.what());
    }
}
