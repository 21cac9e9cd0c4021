#include "toolutil.h"

#include <getopt.h>
#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <exception>
#include <vector>

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
    if (errno != 0 || end == text || *end != '\0' || !(value >= min && value <= max)) {
        tool_fail("%s needs a number from %.15g to %.15g, not '%s'", option, min, max, text);
    }
    return value;
}

long long tool_integer(const char* text, const char* option, long long min, long long max) {
    char* end = nullptr;
    errno = 0;
    long long value = strtoll(text, &end, 10);
    if (errno != 0 || end == text || *end != '\0' || value < min || value > max) {
        tool_fail("%s needs a whole number from %lld to %lld, not '%s'", option, min, max, text);
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

bool tool_stopped_within(int stop_fd, int ms) {
    pollfd p{stop_fd, POLLIN, 0};
    return poll(&p, 1, ms) > 0;
}

namespace {

struct pending_call_t {
    bool done = false;
    int result = 0;
    sd_bus_message* reply = nullptr;
    sd_bus_error error = SD_BUS_ERROR_NULL;
};

int on_reply(sd_bus_message* reply, void* userdata, sd_bus_error*) {
    auto* call = static_cast<pending_call_t*>(userdata);
    call->done = true;
    call->reply = sd_bus_message_ref(reply);
    if (sd_bus_message_is_method_error(reply, nullptr)) {
        sd_bus_error_copy(&call->error, sd_bus_message_get_error(reply));
        call->result = -sd_bus_message_get_errno(reply);
    }
    return 0;
}

// Waits until the bus has work or a stop signal arrives; false for the latter.
bool wait_bus(sd_bus* bus, int stop_fd) {
    uint64_t until = UINT64_MAX;
    sd_bus_get_timeout(bus, &until);
    int timeout = -1;
    if (until != UINT64_MAX) {
        uint64_t now = tool_monotonic_ns() / 1000;
        timeout = until > now ? static_cast<int>((until - now + 999) / 1000) : 0;
    }
    pollfd fds[2] = {{sd_bus_get_fd(bus), static_cast<short>(sd_bus_get_events(bus)), 0},
                     {stop_fd, POLLIN, 0}};
    if (poll(fds, 2, timeout) < 0 && errno != EINTR) {
        tool_fail("poll: %s", strerror(errno));
    }
    return !fds[1].revents;
}

}  // namespace

int tool_call(sd_bus* bus, sd_bus_message* call, uint64_t timeout_usec, int stop_fd,
              sd_bus_error* error, sd_bus_message** reply) {
    pending_call_t pending;
    sd_bus_slot* slot = nullptr;
    int r = sd_bus_call_async(bus, &slot, call, on_reply, &pending, timeout_usec);
    while (r >= 0 && !pending.done) {
        r = sd_bus_process(bus, nullptr);
        if (r == 0 && !pending.done && !wait_bus(bus, stop_fd)) {
            r = -ECANCELED;
        }
    }
    sd_bus_slot_unref(slot);
    if (r >= 0) {
        r = pending.result;
    }
    if (error) {
        sd_bus_error_move(error, &pending.error);
    }
    sd_bus_error_free(&pending.error);
    if (r >= 0 && reply) {
        *reply = pending.reply;
    } else {
        sd_bus_message_unref(pending.reply);
    }
    return r;
}

void tool_note_missing_geolocation() {
    sd_bus* bus = nullptr;
    sd_bus_message* reply = nullptr;
    int has_owner = 0;
    if (sd_bus_open_system(&bus) >= 0 &&
        sd_bus_call_method(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                           "org.freedesktop.DBus", "NameHasOwner", nullptr, &reply, "s",
                           GEOLOCATION_SERVICE) >= 0) {
        sd_bus_message_read(reply, "b", &has_owner);
    }
    sd_bus_message_unref(reply);
    sd_bus_flush_close_unref(bus);
    if (!has_owner) {
        fprintf(stderr,
                "%s: no geolocation service %s on the system bus: scenes carry no geographic "
                "positions\n",
                program, GEOLOCATION_SERVICE);
    }
}

uint64_t tool_monotonic_ns() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1'000'000'000u + static_cast<uint64_t>(now.tv_nsec);
}

void tool_parse_options(int argc, char** argv, const option* options, const char* usage,
                        const std::function<void(int, const char*)>& handle) {
    std::vector<option> all;
    std::string short_options = ":h";
    for (const option* o = options; o->name; ++o) {
        all.push_back(*o);
        if (o->val >= 'a' && o->val <= 'z' && o->val != 'h') {
            short_options += static_cast<char>(o->val);
            short_options += o->has_arg == required_argument ? ":" : "";
        }
    }
    all.push_back({"help", no_argument, nullptr, 'h'});
    all.push_back({"version", no_argument, nullptr, 'V'});
    all.push_back({nullptr, 0, nullptr, 0});
    opterr = 0;
    int c;
    while ((c = getopt_long(argc, argv, short_options.c_str(), all.data(), nullptr)) != -1) {
        switch (c) {
            case 'h':
                fputs(usage, stdout);
                exit(0);
            case 'V':
                printf("%s (radarscene) %s\n", program, RADARSCENE_VERSION);
                exit(0);
            case ':':
                tool_fail("option '%s' needs a value (see --help)", argv[optind - 1]);
            case '?':
                tool_fail("unknown option '%s' (see --help)", argv[optind - 1]);
            default:
                handle(c, optarg);
        }
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
