#include "common/syscall.h"

#include <radarscene/RadarScene.h>
#include <sdbus-c++/IConnection.h>
#include <systemd/sd-event.h>

#include <cstdint>
#include <system_error>

namespace RadarScene {

// sd_event has no notion of an sdbus-c++ connection, so the connection's
// poll data is mirrored into an io source and a time source, refreshed
// before every loop iteration as sd_bus_attach_event does for plain sd-bus.
struct ConnectionEventSource::Impl {
    sdbus::IConnection& connection;
    sd_event_source* io = nullptr;
    sd_event_source* timer = nullptr;

    explicit Impl(sdbus::IConnection& c) : connection(c) {}
    ~Impl() {
        sd_event_source_disable_unref(io);
        sd_event_source_disable_unref(timer);
    }

    void process() {
        while (connection.processPendingRequest()) {
        }
    }

    int prepare() {
        sdbus::IConnection::PollData poll = connection.getEventLoopPollData();
        int r = sd_event_source_set_io_events(io, static_cast<uint32_t>(poll.events));
        if (r < 0) {
            return r;
        }
        if (poll.timeout_usec == UINT64_MAX) {
            return sd_event_source_set_enabled(timer, SD_EVENT_OFF);
        }
        r = sd_event_source_set_time(timer, poll.timeout_usec);
        if (r < 0) {
            return r;
        }
        return sd_event_source_set_enabled(timer, SD_EVENT_ONESHOT);
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
    check_call(sd_event_add_io(event, &impl_->io, poll.fd, static_cast<uint32_t>(poll.events),
                               &Impl::on_io, impl_.get()),
               "sd_event_add_io");
    check_call(sd_event_source_set_prepare(impl_->io, &Impl::on_prepare),
               "sd_event_source_set_prepare");
    check_call(
        sd_event_add_time(event, &impl_->timer, CLOCK_MONOTONIC, 0, 0, &Impl::on_time, impl_.get()),
        "sd_event_add_time");
    impl_->process();
}

ConnectionEventSource::~ConnectionEventSource() = default;

}  // namespace RadarScene
