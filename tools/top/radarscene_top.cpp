// radarscene-top: shows what each subscriber of the radar scene provider has
// received, one line per session, refreshed every second.

#include "statistics.h"
#include "toolutil.h"
#include "toptable.h"

#include <getopt.h>
#include <unistd.h>

#include <cstdio>
#include <string>

namespace {

constexpr const char* USAGE = R"(Usage: radarscene-top [OPTION]...
Shows the subscribers of the radar scene provider on the system bus, one line
per session (when it subscribed, scenes and bytes written to it, frames
replaced before they were sent, how it ended), and the totals of each channel,
refreshed every second until stopped.

  -n, --iterations N   show N times, then exit; a failure then exits with 1
      --once           show once and exit, as -n 1
  -d, --delay S        seconds between refreshes (default 1)
  -c, --channel N      only the sessions and totals of channel N
  -h, --help           show this text and exit
      --version        show the version and exit
)";

struct options_t {
    long long iterations = 0;  // 0: until stopped
    int delay_ms = 1000;
    int channel = -1;  // all
};

options_t parse_options(int argc, char** argv) {
    enum { ONCE = 1 };
    static const option long_options[] = {{"iterations", required_argument, nullptr, 'n'},
                                          {"once", no_argument, nullptr, ONCE},
                                          {"delay", required_argument, nullptr, 'd'},
                                          {"channel", required_argument, nullptr, 'c'},
                                          {nullptr, 0, nullptr, 0}};
    options_t o;
    tool_parse_options(argc, argv, long_options, USAGE, [&](int option, const char* value) {
        switch (option) {
            case 'n':
                o.iterations = tool_integer(value, "--iterations", 1, 1'000'000'000'000);
                break;
            case ONCE:
                o.iterations = 1;
                break;
            case 'd':
                o.delay_ms = static_cast<int>(1000 * tool_number(value, "--delay", 0.1, 3600));
                break;
            case 'c':
                o.channel = static_cast<int>(tool_integer(value, "--channel", 0, 15));
                break;
        }
    });
    tool_no_arguments(argc, argv);
    return o;
}

// Shows the statistics until stopped, or `iterations` times. On a terminal
// each refresh replaces the screen; elsewhere refreshes follow each other,
// separated by an empty line.
int run(const options_t& o) {
    int stop_fd = tool_stop_signals();
    sd_bus* bus = tool_system_bus();
    bool terminal = isatty(STDOUT_FILENO);
    top_statistics_t statistics;
    for (long long shown = 0; o.iterations == 0 || shown < o.iterations; ++shown) {
        if (shown > 0 && tool_stopped_within(stop_fd, o.delay_ms)) {
            break;
        }
        bool stopped = false;
        std::string failure = top_read_statistics(bus, stop_fd, statistics, stopped);
        if (stopped) {
            break;
        }
        if (!failure.empty() && o.iterations != 0) {
            tool_fail("%s", failure.c_str());
        }
        fputs(terminal ? "\033[H\033[2J" : shown > 0 ? "\n" : "", stdout);
        if (failure.empty()) {
            top_print(stdout, statistics, o.channel);
        } else {
            printf("radarscene-top: %s\n", failure.c_str());
        }
        fflush(stdout);
    }
    sd_bus_flush_close_unref(bus);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    tool_init("radarscene-top");
    options_t o = parse_options(argc, argv);
    return tool_run([&] { return run(o); });
}
