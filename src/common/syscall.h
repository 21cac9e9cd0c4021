#pragma once

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <memory>
#include <system_error>

// Returns `r`, or throws a system_error named after `call` when `r` is a
// negative errno value, as sd-bus and sd-event report failures.
inline int check_call(int r, const char* call) {
    if (r < 0) {
        throw std::system_error(-r, std::system_category(), call);
    }
    return r;
}

struct sd_bus_closer {
    void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
};
struct sd_bus_message_unref_deleter {
    void operator()(sd_bus_message* m) const { sd_bus_message_unref(m); }
};
struct sd_event_source_disabler {
    void operator()(sd_event_source* source) const { sd_event_source_disable_unref(source); }
};
struct sd_event_unref_deleter {
    void operator()(sd_event* event) const { sd_event_unref(event); }
};
using sd_event_ptr = std::unique_ptr<sd_event, sd_event_unref_deleter>;
using sd_bus_ptr = std::unique_ptr<sd_bus, sd_bus_closer>;
using sd_bus_message_ptr = std::unique_ptr<sd_bus_message, sd_bus_message_unref_deleter>;
using sd_event_source_ptr = std::unique_ptr<sd_event_source, sd_event_source_disabler>;
