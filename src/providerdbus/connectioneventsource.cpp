#include "common/syscall.h"
#include "providerdbus/sdbuscompat.h"

#include <radarscene/RadarScene.h>
#include <systemd/sd-event.h>

#include <cstdint>
#include <system_error>

namespace RadarScene {

// sd_event has no notion of an sdbus-c++ connection, so the connection's
// poll data is mirrored into an io source and a time source, refreshed
// before every loop iteration as sd_bus_attach_event does for plain sd-bus;
// where the connection has a wake-up descriptor, a third source watches it.
// Each dispatch serves one request: while more are queued the poll data's
// timeout is now, so the time source fires again at the next iteration, after
// the loop's other pending sources had their turn.
struct ConnectionEventSource::Impl {
    sdbus::IConnection& connection;
    sd_event_source_ptr io;
    sd_event_source_ptr timer;
    sd_event_source_ptr wakeup;

    explicit Impl(sdbus::IConnection& c) : connection(c) {}

    void process() { sdbus_compat::process_one(connection); }

    int prepare() {
        sdbus::IConnection::PollData poll = connection.getEventLoopPollData();
        int r = sd_event_source_set_io_events(io.get(), static_cast<uint32_t>(poll.events));
        if (r < 0) {
            return r;
        }
        uint64_t timeout = sdbus_compat::poll_timeout_usec(poll);
        if (timeout == UINT64_MAX) {
            return sd_event_source_set_enabled(timer.get(), SD_EVENT_OFF);
        }
        // Re-arming a source that is already due would also make it the
        // newest pending one and let other due sources go first for ever.
        uint64_t armed_at = 0;
        int enabled = SD_EVENT_OFF;
        sd_event_source_get_time(timer.get(), &armed_at);
        sd_event_source_get_enabled(timer.get(), &enabled);
        if (enabled == SD_EVENT_ONESHOT && armed_at == timeout) {
            return 0;
        }
        r = sd_event_source_set_time(timer.get(), timeout);
        if (r < 0) {
            return r;
        }
        return sd_event_source_set_enabled(timer.get(), SD_EVENT_ONESHOT);
    }

    static int on_io(sd_event_source*, int, uint32_t, void* self) {
        static_cast<Impl*>(self)->process();
        return 0;
    }
    static int on_time(sd_event_source*, uint64_t, void* self) {
        static_cast<Impl*>(self)->process();
        return 0;
    }
    static int on_prepare(sd_event_source*, void* self) {
        return static_cast<Impl*>(self)->prepare();
    }
};

ConnectionEventSource::ConnectionEventSource(sdbus::IConnection& connection, sd_event* event)
    : impl_(std::make_unique<Impl>(connection)) {
    sdbus::IConnection::PollData poll = connection.getEventLoopPollData();
    sd_event_source* source = nullptr;
    check_call(sd_event_add_io(event, &source, poll.fd, static_cast<uint32_t>(poll.events),
                               &Impl::on_io, impl_.get()),
               "sd_event_add_io");
    impl_->io.reset(source);
    check_call(sd_event_source_set_prepare(source, &Impl::on_prepare),
               "sd_event_source_set_prepare");
    check_call(
        sd_event_add_time(event, &source, CLOCK_MONOTONIC, 0, 0, &Impl::on_time, impl_.get()),
        "sd_event_add_time");
    impl_->timer.reset(source);
    if (int fd = sdbus_compat::wakeup_fd(poll); fd >= 0) {
        check_call(sd_event_add_io(event, &source, fd, EPOLLIN, &Impl::on_io, impl_.get()),
                   "sd_event_add_io");
        impl_->wakeup.reset(source);
    }
}

ConnectionEventSource::~ConnectionEventSource() = default;

}  // namespace RadarScene
