// RadarScene::Subscriber: a subscription made over plain sd-bus, its stream read whole, and the
// provider followed through NameOwnerChanged; everything runs on the reader's thread.
#include "common/syscall.h"
#include "common/unique_fd.h"
#include "scenegaps/scenegaps.h"
#include "scenestream/scenestream.h"
#include "serializescene/serializescene.h"

#include <radarscene/Subscriber.h>
#include <radarscene/scene.pb.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <deque>
#include <mutex>

namespace {

constexpr const char* SERVICE = "com.tessel.RadarSceneProvider1";
constexpr const char* SCENE_PATH = "/com/tessel/RadarSceneProvider1";
constexpr const char* SCENE_INTERFACE = "com.tessel.RadarSceneProvider1.Scene";
constexpr const char* STATISTICS_PATH = "/com/tessel/RadarSceneProvider1/Statistics";
constexpr const char* STATISTICS_INTERFACE = "com.tessel.RadarSceneProvider1.Statistics";
constexpr const char* OWNER_MATCH =
    "type='signal',sender='org.freedesktop.DBus',path='/org/freedesktop/DBus',"
    "interface='org.freedesktop.DBus',member='NameOwnerChanged',"
    "arg0='com.tessel.RadarSceneProvider1'";
// A provider that owns its name answers within these, or is taken as not there.
constexpr uint64_t SUBSCRIBE_TIMEOUT_USEC = 5'000'000;
constexpr uint64_t UNSUBSCRIBE_TIMEOUT_USEC = 2'000'000;
constexpr uint64_t STATISTICS_TIMEOUT_USEC = 2'000'000;
// A read blocked in the stream's socket looks at close() and the bus this often.
constexpr int BLOCKED_READ_MS = 100;

enum poll_tag_t : uint32_t { TAG_STREAM = 1, TAG_BUS, TAG_WAKE };

struct bus_error {
    sd_bus_error error = SD_BUS_ERROR_NULL;
    ~bus_error() { sd_bus_error_free(&error); }
};

// No provider to answer yet: its name has no owner, the owner left before it answered, or it is
// starting or stopping and serves no Scene object at this moment.
bool provider_absent(const sd_bus_error& error) {
    for (const char* name : {SD_BUS_ERROR_SERVICE_UNKNOWN, SD_BUS_ERROR_NAME_HAS_NO_OWNER,
                             SD_BUS_ERROR_NO_REPLY, SD_BUS_ERROR_UNKNOWN_OBJECT,
                             SD_BUS_ERROR_UNKNOWN_METHOD, SD_BUS_ERROR_UNKNOWN_INTERFACE}) {
        if (sd_bus_error_has_name(&error, name)) {
            return true;
        }
    }
    return false;
}

std::string error_name(const sd_bus_error& error, int r) {
    return error.name ? error.name : std::string("System.Error.") + strerrorname_np(-r);
}

std::string error_message(const sd_bus_error& error, int r) {
    return error.message ? error.message : strerror(-r);
}

}  // namespace

namespace RadarScene {

SubscriberError::SubscriberError(std::string name, std::string message)
    : std::runtime_error(name + ": " + message),
      name_(std::move(name)),
      message_(std::move(message)) {}

struct Subscriber::Impl {
    SubscriberConfig config;
    sd_bus* bus = nullptr;
    bool own_bus = false;
    sd_bus_slot* owner_match = nullptr;
    unique_fd epoll;
    unique_fd wake;  // written by close(): wakes a read blocked on another thread
    scene_stream_t stream;
    scene_gaps_t gaps;
    int32_t session = -1;
    std::string provider;         // the unique name that answered the subscription
    bool owner_lost = false;      // that name lost the well-known one
    bool owner_appeared = false;  // someone took the well-known name since the last attempt
    SubscriberState current = SubscriberState::SUBSCRIBED;
    SubscriberState reported = SubscriberState::SUBSCRIBED;
    std::deque<SubscriberState> changes;  // not yet reported
    std::string error;
    uint64_t scenes = 0;
    uint64_t subscriptions = 0;
    uint64_t replaced_before = 0;  // by the provider, for sessions that ended
    uint64_t replaced_current = 0;
    bool replaced_known = false;
    // Held by every call but close()'s first step, which wakes a blocked read; recursive, so
    // that attach()'s callbacks may close.
    std::recursive_mutex mutex;
    std::atomic<bool> closing{false};
    bool closed = false;
    sd_event_source* source = nullptr;
    std::function<void(const std::string&)> on_scene;
    std::function<void(SubscriberState)> on_state;
    std::string scratch;

    ~Impl() { shut(); }

    void open(sd_bus* given) {
        epoll.reset(epoll_create1(EPOLL_CLOEXEC));
        wake.reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
        if (!epoll || !wake) {
            throw std::system_error(errno, std::system_category(), "epoll_create1/eventfd");
        }
        if (given) {
            bus = sd_bus_ref(given);
        } else {
            check_call(sd_bus_open_system(&bus), "sd_bus_open_system");
            own_bus = true;
        }
        watch(wake.get(), TAG_WAKE);
        watch(sd_bus_get_fd(bus), TAG_BUS);
        check_call(sd_bus_add_match(bus, &owner_match, OWNER_MATCH, &Impl::on_owner_changed, this),
                   "sd_bus_add_match");
        bus_error failure;
        int r = subscribe(failure.error);
        process_bus();
        if (r > 0) {
            return;
        }
        if (r == 0 && config.follow) {
            current = reported = SubscriberState::WAITING;
            return;
        }
        throw SubscriberError(error_name(failure.error, r), refusal(failure.error, r));
    }

    void watch(int fd, poll_tag_t tag) {
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.u32 = tag;
        if (epoll_ctl(epoll.get(), EPOLL_CTL_ADD, fd, &event) < 0) {
            throw std::system_error(errno, std::system_category(), "epoll_ctl");
        }
    }

    // 1 when subscribed, 0 when no provider is there, or the provider's refusal as a negative
    // errno with `failure` filled.
    int subscribe(sd_bus_error& failure) {
        owner_appeared = false;
        sd_bus_message* raw = nullptr;
        int r = sd_bus_message_new_method_call(bus, &raw, SERVICE, SCENE_PATH, SCENE_INTERFACE,
                                               "SubscribeSocket");
        sd_bus_message_ptr call(raw);
        const std::pair<const char*, bool> features[] = {
            {"BOUNDINGBOX_ENABLED", config.bounding_box},
            {"POLYGON_ENABLED", config.polygon},
            {"VELOCITY_ENABLED", config.velocity},
            {"GEOLOCATION_ENABLED", config.geolocation},
            {"RAW_ENABLED", config.raw}};
        if (r >= 0) {
            r = sd_bus_message_append(call.get(), "ii", 3, config.channel);
        }
        if (r >= 0) {
            r = sd_bus_message_open_container(call.get(), 'a', "{sb}");
        }
        for (const auto& [key, on] : features) {
            if (r >= 0 && on) {
                r = sd_bus_message_append(call.get(), "{sb}", key, 1);
            }
        }
        if (r >= 0) {
            r = sd_bus_message_close_container(call.get());
        }
        sd_bus_message* reply_raw = nullptr;
        if (r >= 0) {
            r = sd_bus_call(bus, call.get(), SUBSCRIBE_TIMEOUT_USEC, &failure, &reply_raw);
        }
        sd_bus_message_ptr reply(reply_raw);
        if (r < 0) {
            return provider_absent(failure) ? 0 : r;
        }
        int fd = -1;
        int32_t id = -1;
        if (sd_bus_message_read(reply.get(), "hi", &fd, &id) < 0 ||
            (fd = fcntl(fd, F_DUPFD_CLOEXEC, 3)) < 0) {
            sd_bus_error_set(&failure, SD_BUS_ERROR_INVALID_ARGS,
                             "unreadable reply to SubscribeSocket");
            return -EBADMSG;
        }
        scene_stream_open(stream, fd, config.max_record);
        watch(fd, TAG_STREAM);
        session = id;
        provider =
            sd_bus_message_get_sender(reply.get()) ? sd_bus_message_get_sender(reply.get()) : "";
        owner_lost = false;
        scene_gaps_restart(gaps);
        replaced_before += replaced_current;
        replaced_current = 0;
        ++subscriptions;
        return 1;
    }

    // The refusal's message; an unknown channel's names the channels the provider serves.
    std::string refusal(const sd_bus_error& failure, int r) {
        std::string message = error_message(failure, r);
        if (!sd_bus_error_has_name(&failure, SD_BUS_ERROR_FAILED)) {
            return message;
        }
        bus_error ignored;
        sd_bus_message* raw = nullptr;
        if (sd_bus_call_method(bus, SERVICE, SCENE_PATH, SCENE_INTERFACE, "GetSupportedChannels",
                               &ignored.error, &raw, "") < 0) {
            return message;
        }
        sd_bus_message_ptr reply(raw);
        std::string served;
        int32_t channel = 0;
        if (sd_bus_message_enter_container(reply.get(), 'a', "i") >= 0) {
            while (sd_bus_message_read(reply.get(), "i", &channel) > 0) {
                served += (served.empty() ? "" : ", ") + std::to_string(channel);
            }
        }
        return message + ": channel " + std::to_string(config.channel) +
               " is not served; the provider serves " + (served.empty() ? "none" : served);
    }

    static int on_owner_changed(sd_bus_message* message, void* self, sd_bus_error*) {
        auto* impl = static_cast<Impl*>(self);
        const char* name = nullptr;
        const char* old_owner = nullptr;
        const char* new_owner = nullptr;
        if (sd_bus_message_read(message, "sss", &name, &old_owner, &new_owner) < 0) {
            return 0;
        }
        if (!impl->provider.empty() && impl->provider == old_owner) {
            impl->owner_lost = true;
        }
        if (new_owner && *new_owner) {
            impl->owner_appeared = true;
        }
        return 0;
    }

    // Handles what the bus has read; a lost connection ends the stream.
    void process_bus() {
        int r;
        while ((r = sd_bus_process(bus, nullptr)) > 0) {
        }
        if (r < 0 && current != SubscriberState::ENDED) {
            end(std::string("the bus connection was lost: ") + strerror(-r));
        }
    }

    void change(SubscriberState state) {
        current = state;
        changes.push_back(state);
    }

    void end(std::string reason) {
        unsubscribe();
        error = std::move(reason);
        current = SubscriberState::ENDED;
    }

    void unsubscribe() {
        if (session >= 0 && bus) {
            sd_bus_message* raw = nullptr;
            if (sd_bus_message_new_method_call(bus, &raw, SERVICE, SCENE_PATH, SCENE_INTERFACE,
                                               "UnsubscribeSocket") >= 0) {
                sd_bus_message_ptr call(raw);
                sd_bus_message_append(call.get(), "i", session);
                sd_bus_call(bus, call.get(), UNSUBSCRIBE_TIMEOUT_USEC, nullptr, nullptr);
            }
        }
        session = -1;
        provider.clear();
        scene_stream_close(stream);
    }

    void provider_gone(const char* reason) {
        session = -1;
        provider.clear();
        scene_stream_close(stream);
        if (!config.follow) {
            end(reason);
            return;
        }
        change(SubscriberState::PROVIDER_GONE);
        try_subscribe();
    }

    void try_subscribe() {
        bus_error failure;
        bool first = subscriptions == 0;
        int r = subscribe(failure.error);
        process_bus();
        if (r > 0) {
            change(first ? SubscriberState::SUBSCRIBED : SubscriberState::RESUBSCRIBED);
        } else if (r < 0) {
            end(error_name(failure.error, r) + ": " + refusal(failure.error, r));
        }
    }

    bool waiting() const {
        return current == SubscriberState::WAITING || current == SubscriberState::PROVIDER_GONE;
    }

    // One step on what is known now, reading the stream unless it was seen drained, or
    // waiting up to `wait_ms` in its read.
    ReadResult step(std::string& scene, int wait_ms = 0) {
        for (;;) {
            if (closing || closed) {
                return ReadResult::ENDED;
            }
            if (!changes.empty()) {
                reported = changes.front();
                changes.pop_front();
                return ReadResult::STATE;
            }
            if (current == SubscriberState::ENDED) {
                reported = current;
                return ReadResult::ENDED;
            }
            if (waiting()) {
                if (!owner_appeared) {
                    return ReadResult::NOTHING;
                }
                try_subscribe();
                continue;
            }
            switch (scene_stream_next(stream, scene, wait_ms)) {
                case SCENE_STREAM_RECORD:
                    ++scenes;
                    scene_gaps_add(gaps, scene_time(scene));
                    return ReadResult::SCENE;
                case SCENE_STREAM_AGAIN:
                    if (!owner_lost) {
                        return ReadResult::NOTHING;
                    }
                    // Whole records the provider wrote before it left have been delivered.
                    provider_gone("the provider left the bus");
                    break;
                case SCENE_STREAM_END:
                    provider_gone("the provider closed the stream");
                    break;
                case SCENE_STREAM_BROKEN:
                    end(stream.reason);
                    break;
            }
        }
    }

    // Waits up to `timeout_ms` (-1: for ever) for any of the descriptors and takes note of
    // what is ready.
    void wait(int timeout_ms) {
        epoll_event events[3];
        int n = epoll_wait(epoll.get(), events, 3, timeout_ms);
        for (int i = 0; i < n; ++i) {
            switch (events[i].data.u32) {
                case TAG_STREAM:
                    scene_stream_readable(stream);
                    break;
                case TAG_BUS:
                    process_bus();
                    break;
                case TAG_WAKE:
                    break;  // closing is set; the eventfd stays readable for every waiter
            }
        }
    }

    // Subscribed, it waits in the stream's own read, a call per scene as a bare blocking reader
    // makes; between reads that found nothing for a while it takes in the bus and close(). Not
    // subscribed, it waits for the bus and close().
    ReadResult read(std::string& scene, std::chrono::milliseconds timeout) {
        auto deadline = std::chrono::steady_clock::now() + timeout;
        int wait_ms = 0;
        for (;;) {
            ReadResult r = step(scene, wait_ms);
            if (r != ReadResult::NOTHING) {
                return r;
            }
            int timeout_ms = -1;
            if (timeout.count() >= 0) {
                auto left = std::chrono::ceil<std::chrono::milliseconds>(
                    deadline - std::chrono::steady_clock::now());
                if (left.count() <= 0) {
                    wait(0);
                    return step(scene);
                }
                timeout_ms = static_cast<int>(std::min<int64_t>(left.count(), INT_MAX));
            }
            if (!stream.fd) {
                wait_ms = 0;
                wait(timeout_ms);
                continue;
            }
            if (wait_ms > 0) {
                wait(0);
            }
            wait_ms = timeout_ms < 0 ? BLOCKED_READ_MS : std::min(timeout_ms, BLOCKED_READ_MS);
        }
    }

    static int on_ready(sd_event_source*, int, uint32_t, void* self) {
        auto* impl = static_cast<Impl*>(self);
        std::lock_guard lock(impl->mutex);
        impl->wait(0);
        for (;;) {
            ReadResult r = impl->step(impl->scratch);
            if (r == ReadResult::NOTHING || impl->closed) {
                return 0;
            }
            if (r == ReadResult::SCENE) {
                impl->on_scene(impl->scratch);
            } else if (impl->on_state) {
                impl->on_state(r == ReadResult::ENDED ? SubscriberState::ENDED : impl->reported);
            }
            if (r == ReadResult::ENDED) {
                sd_event_source_disable_unref(impl->source);
                impl->source = nullptr;
                return 0;
            }
        }
    }

    // Unsubscribes and lets go of every descriptor.
    void shut() {
        if (closed) {
            return;
        }
        closed = true;
        if (source) {
            sd_event_source_disable_unref(source);
            source = nullptr;
        }
        if (current != SubscriberState::ENDED) {
            unsubscribe();
            current = SubscriberState::ENDED;
        }
        reported = SubscriberState::ENDED;
        owner_match = sd_bus_slot_unref(owner_match);
        if (bus) {
            own_bus ? sd_bus_flush_close_unref(bus) : sd_bus_unref(bus);
            bus = nullptr;
        }
        epoll.reset();
        wake.reset();
    }
};

Subscriber::Subscriber(const SubscriberConfig& config, sd_bus* bus)
    : impl_(std::make_unique<Impl>()) {
    impl_->config = config;
    impl_->open(bus);
}

Subscriber::~Subscriber() {
    close();
}

Subscriber::Subscriber(Subscriber&& other) noexcept = default;

Subscriber& Subscriber::operator=(Subscriber&& other) noexcept {
    if (this != &other) {
        close();
        impl_ = std::move(other.impl_);
    }
    return *this;
}

ReadResult Subscriber::read(std::string& scene, std::chrono::milliseconds timeout) {
    if (!impl_) {
        return ReadResult::ENDED;
    }
    std::lock_guard lock(impl_->mutex);
    return impl_->read(scene, timeout);
}

ReadResult Subscriber::read(Frame& frame, std::chrono::milliseconds timeout) {
    if (!impl_) {
        return ReadResult::ENDED;
    }
    std::lock_guard lock(impl_->mutex);
    ReadResult r = impl_->read(impl_->scratch, timeout);
    if (r != ReadResult::SCENE) {
        return r;
    }
    Scene scene;
    if (!scene.ParseFromString(impl_->scratch) || !isDeserializable(scene)) {
        impl_->end("a scene of " + std::to_string(impl_->scratch.size()) +
                   " bytes that does not decode");
        impl_->reported = SubscriberState::ENDED;
        return ReadResult::ENDED;
    }
    frame = Frame{};
    convert_scene_to_frame(frame, scene);
    return r;
}

ReadResult Subscriber::readNow(std::string& scene) {
    return read(scene, std::chrono::milliseconds(0));
}

int Subscriber::fd() const {
    if (!impl_) {
        return -1;
    }
    std::lock_guard lock(impl_->mutex);
    return impl_->closed ? -1 : impl_->epoll.get();
}

void Subscriber::attach(sd_event* event, std::function<void(const std::string&)> on_scene,
                        std::function<void(SubscriberState)> on_state) {
    if (!impl_ || impl_->closed) {
        throw std::logic_error("the subscriber is closed");
    }
    std::lock_guard lock(impl_->mutex);
    if (impl_->source) {
        throw std::logic_error("the subscriber is attached already");
    }
    impl_->on_scene = std::move(on_scene);
    impl_->on_state = std::move(on_state);
    check_call(sd_event_add_io(event, &impl_->source, impl_->epoll.get(), EPOLLIN, &Impl::on_ready,
                               impl_.get()),
               "sd_event_add_io");
}

void Subscriber::close() {
    if (!impl_) {
        return;
    }
    // Only the first close writes: the descriptor goes with it.
    if (!impl_->closing.exchange(true)) {
        uint64_t one = 1;
        (void)!write(impl_->wake.get(), &one, sizeof(one));
    }
    std::lock_guard lock(impl_->mutex);
    impl_->shut();
}

SubscriberState Subscriber::state() const {
    if (!impl_) {
        return SubscriberState::ENDED;
    }
    std::lock_guard lock(impl_->mutex);
    return impl_->reported;
}

std::string Subscriber::error() const {
    if (!impl_) {
        return "";
    }
    std::lock_guard lock(impl_->mutex);
    return impl_->error;
}

int32_t Subscriber::session() const {
    if (!impl_) {
        return -1;
    }
    std::lock_guard lock(impl_->mutex);
    return impl_->session;
}

SubscriberStats Subscriber::stats(bool ask_provider) {
    SubscriberStats stats;
    if (!impl_) {
        return stats;
    }
    std::lock_guard lock(impl_->mutex);
    Impl& impl = *impl_;
    if (ask_provider && impl.session >= 0 && impl.bus) {
        sd_bus_message* raw_call = nullptr;
        sd_bus_message* raw_reply = nullptr;
        int r = sd_bus_message_new_method_call(impl.bus, &raw_call, SERVICE, STATISTICS_PATH,
                                               STATISTICS_INTERFACE, "GetSessions");
        sd_bus_message_ptr call(raw_call);
        if (r >= 0) {
            r = sd_bus_call(impl.bus, call.get(), STATISTICS_TIMEOUT_USEC, nullptr, &raw_reply);
        }
        sd_bus_message_ptr reply(raw_reply);
        if (r >= 0 && sd_bus_message_enter_container(reply.get(), 'a', "(iixusttts)") >= 0) {
            int32_t id = 0, channel = 0;
            int64_t subscribed = 0;
            uint32_t pid = 0;
            const char *comm = nullptr, *state = nullptr;
            uint64_t written = 0, replaced = 0, bytes = 0;
            while (sd_bus_message_read(reply.get(), "(iixusttts)", &id, &channel, &subscribed, &pid,
                                       &comm, &written, &replaced, &bytes, &state) > 0) {
                if (id == impl.session) {
                    impl.replaced_current = replaced;
                    impl.replaced_known = true;
                }
            }
        }
        impl.process_bus();
    }
    stats.scenes = impl.scenes;
    stats.bytes = impl.stream.bytes;
    stats.missing = impl.gaps.missing;
    stats.subscriptions = impl.subscriptions;
    if (impl.replaced_known) {
        stats.frames_replaced = impl.replaced_before + impl.replaced_current;
    }
    return stats;
}

}  // namespace RadarScene
