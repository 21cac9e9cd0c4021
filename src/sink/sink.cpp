#include "channelhandler/channelhandler.h"
#include "common/log.h"
#include "common/syscall.h"
#include "geolocation/geolocation.h"
#include "providerdbus/providerscene.h"
#include "varropublisher/varropublisher.h"

#include <radarscene/RadarScene.h>
#include <systemd/sd-event.h>

#include <atomic>
#include <cstring>
#include <system_error>

namespace RadarScene {

namespace {

constexpr uint64_t BROKEN_SESSION_PERIOD_USEC = 1'000'000;

std::string topic_name(const char* prefix, std::string_view name) {
    // Built from (data, size) so that a null name with a length throws.
    return prefix + std::string(name.data(), name.size());
}

}  // namespace

// Members are destroyed in reverse order: the timer first, then the broker
// topics and client, the provider, and last the channel handler, which stops
// the worker threads and closes every session.
struct Sink::Impl {
    Impl(sdbus::IConnection& connection, sd_event* event, const SinkConfig& config)
        : handler(channel_handler_create()),
          provider(connection, config.serviceName, config.objectPath, handler.get(),
                   config.requestNameNow) {
        varro_publisher_connect(publisher, config.clientName);
        sd_event_source* source = nullptr;
        check_call(sd_event_add_time(event, &source, CLOCK_MONOTONIC, 0, 0, &Impl::on_timer, this),
                   "sd_event_add_time");
        timer.reset(source);
        check_call(sd_event_source_set_enabled(source, SD_EVENT_ON), "sd_event_source_set_enabled");
    }

    // Removes the sessions whose writes failed, every second, on the loop,
    // joins the workers of channels left without sessions, and reports the
    // log lines left out in a second that is over.
    static int on_timer(sd_event_source* source, uint64_t, void* self) {
        log_report_suppressed();
        channel_handler_t& handler = *static_cast<Impl*>(self)->handler;
        if (channel_handler_clear_broken_sessions(handler) < 0) {
            // The clear step refuses a full queue; empty it all the same, or
            // those sessions would hold every slot for ever.
            channel_handler_drain_broken_sessions(handler);
        }
        channel_handler_reap_pipelines(handler);
        int r = sd_event_source_set_time_relative(source, BROKEN_SESSION_PERIOD_USEC);
        if (r < 0) {
            log_error("Failed to set repeat timer for clearing broken sessions: %s", strerror(-r));
        }
        return 0;
    }

    std::unique_ptr<channel_handler_t> handler;
    API::SdBusCpp::ProviderScene provider;
    varro_publisher_t publisher;
    sd_event_source_ptr timer;
    uint64_t geolocation = 0;  // the installation of this Sink's geolocation client
};

namespace {

void publish_to_topics(Sink::Impl& impl, int channel, const Frame& frame, unsigned long raw_mask) {
    publish(impl.publisher, channel, frame, raw_mask,
            [&impl] { return impl.provider.objectClassifications(); });
}

void add_topic(Sink::Impl& impl, const std::string& name, SceneProvider::VarroTopicKind kind,
               const SerializeFrameOptions& options) {
    varro_publisher_add_topic(impl.publisher, name, impl.provider.supportedChannel(), kind,
                              options);
}

}  // namespace

Sink::Sink(sdbus::IConnection& connection, sd_event* event, SinkConfig config)
    : impl_(std::make_unique<Impl>(connection, event, config)) {
    impl_->geolocation = geolocation_set_current(std::make_unique<GeoLocation>(event));
}

// The client installed by this Sink, unless another Sink replaced it since,
// goes with it: it is attached to this Sink's event loop.
Sink::~Sink() {
    geolocation_remove_current(impl_->geolocation);
}

void Sink::requestName() {
    impl_->provider.requestName();
}

void Sink::addSupportedChannel(int channel) {
    impl_->provider.addSupportedChannel(channel);
}

void Sink::addObjectClassification(int id, const char* name) {
    impl_->provider.addObjectClassification(id, std::string(name));
}

// The mask is read and written atomically, so any thread may set it; a push
// uses one value for its subscribers and its topics alike.
void Sink::setRawMask(unsigned long mask) {
    std::atomic_ref(raw_mask).store(mask, std::memory_order_relaxed);
}

void Sink::push(int channel, const Frame& frame) {
    unsigned long mask = std::atomic_ref(raw_mask).load(std::memory_order_relaxed);
    channel_handler_push(*impl_->handler, channel, frame, mask);
    publish_to_topics(*impl_, channel, frame, mask);
}

void Sink::tryPush(int channel, const Frame& frame) {
    unsigned long mask = std::atomic_ref(raw_mask).load(std::memory_order_relaxed);
    channel_handler_try_push(*impl_->handler, channel, frame, mask);
    publish_to_topics(*impl_, channel, frame, mask);
}

void Sink::push(int channel, std::string_view data) {
    push(channel, deserializeFrame(data));
}

void Sink::addMessageBrokerTopic(std::string_view name, SerializeFrameOptions options) {
    add_topic(*impl_, topic_name("mdb.", name), SceneProvider::SerializedScene, options);
}

void Sink::addMessageBrokerTopicZRF(std::string_view name) {
    add_topic(*impl_, topic_name("mdb.", name), SceneProvider::ZrfDocument, {});
}

void Sink::addVarroTopicZRFv1(std::string_view name) {
    add_topic(*impl_, topic_name("", name), SceneProvider::ZrfV1Document, {});
}

}  // namespace RadarScene
