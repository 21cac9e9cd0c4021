#pragma once

/// @file
/// The consumer's side of the library: a subscription to one radar channel of the running
/// provider, its scene stream read whole, in order and never twice, and what it missed.

#include <radarscene/RadarScene.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

struct sd_bus;

namespace RadarScene {

/// What a Subscriber asks the provider for. The five features are those of
/// SerializeFrameOptions, in its order; each is the subscription's feature key of the same name
/// ("BOUNDINGBOX_ENABLED", "POLYGON_ENABLED", "VELOCITY_ENABLED", "GEOLOCATION_ENABLED",
/// "RAW_ENABLED").
struct SubscriberConfig {
    int channel = 0;            ///< the radar channel
    bool bounding_box = false;  ///< objects carry their bounding box
    bool polygon = false;       ///< objects carry their outline
    bool velocity = false;      ///< objects carry their velocity
    bool geolocation = false;   ///< objects carry latitude and longitude
    bool raw = false;           ///< no class filter: every object of the frame
    /// The largest scene accepted, in bytes. A longer record ends the stream: nothing larger is
    /// ever allocated.
    size_t max_record = 64u << 20;
    /// Follow the provider: when it goes away, wait for it and subscribe again with the same
    /// options. Without it the stream ends when the provider goes.
    bool follow = false;
};

/// Where a subscription stands. Each change is reported once, in order (see Subscriber::read).
enum class SubscriberState {
    WAITING,        ///< a following subscriber opened before the provider was there
    SUBSCRIBED,     ///< subscribed for the first time
    PROVIDER_GONE,  ///< the provider went away; a following subscriber waits for it
    RESUBSCRIBED,   ///< subscribed again to a provider that came back
    ENDED,          ///< the stream is over: closed, the provider gone (not following), or an error
};

/// The outcome of one read.
enum class ReadResult {
    SCENE,    ///< one whole scene was delivered
    STATE,    ///< the state changed; Subscriber::state() tells to what
    NOTHING,  ///< no scene within the timeout, or none ready now
    ENDED,    ///< the stream is over; Subscriber::error() tells why when it was not closed
};

/// What this subscriber received and what it missed, over every subscription it made.
struct SubscriberStats {
    uint64_t scenes = 0;         ///< scenes delivered
    uint64_t bytes = 0;          ///< bytes received, length prefixes included
    uint64_t missing = 0;        ///< scenes the gaps between scene times show to be missing
    uint64_t subscriptions = 0;  ///< successful subscriptions (1 + the times it subscribed again)
    /// Frames the provider replaced by newer ones before they reached this subscriber, as its
    /// Statistics object counts them; empty when it could not be asked (access refused, no
    /// provider).
    std::optional<uint64_t> frames_replaced;
};

/// A failure that keeps the subscription from being made, with the D-Bus error's name and
/// message: "org.freedesktop.DBus.Error.AccessDenied" for a caller the access policy refuses,
/// "org.freedesktop.DBus.Error.ServiceUnknown" when no provider is there, and
/// "org.freedesktop.DBus.Error.Failed" for a channel the provider does not serve (its message
/// then names the channels it serves).
class RADARSCENE_EXPORT SubscriberError : public std::runtime_error {
public:
    SubscriberError(std::string name, std::string message);
    /// The D-Bus error name.
    const std::string& name() const { return name_; }
    /// The error's message.
    const std::string& message() const { return message_; }

private:
    std::string name_;
    std::string message_;
};

/// A subscription to one channel of the radar scene provider ("com.tessel.RadarSceneProvider1")
/// and its scene stream.
///
/// One stream, three ways to read it; use one of them per subscriber:
/// - blocking: read() waits up to a timeout and gives the scene's bytes or the decoded Frame;
/// - non-blocking: poll fd() for readability in any event loop (epoll, sd_event, glib), then
///   call readNow() until it returns ReadResult::NOTHING: whole records may wait inside the
///   subscriber after the descriptor has been drained;
/// - attach() to an sd_event loop, which calls back with each scene and each change of state.
///
/// Scenes arrive whole, in order and never twice; a record cut by the provider's death is
/// never delivered. A record longer than SubscriberConfig::max_record or with a length word
/// below 4 ends the stream with a reason in error().
///
/// Threads: a Subscriber is used by one thread at a time, except close(), which any thread may
/// call at any time: a read() blocked on another thread returns ReadResult::ENDED within a
/// tenth of a second (a blocking read waits in the stream's own socket, as a bare reader would,
/// and looks at close() and the bus that often while no scene comes), and then it
/// unsubscribes. The other calls wait for a read in progress on another thread. A bus given by
/// the caller is used only from the thread that reads. With attach(), call close() on the
/// loop's thread; the callbacks run there and may call close(), not destroy the subscriber.
/// Moving a subscriber or destroying it must not race with any other call on it.
///
/// Descriptors: the subscriber holds four (the stream, its own bus connection unless one is
/// given, an epoll set and an eventfd), all close-on-exec, all closed by close().
class RADARSCENE_EXPORT Subscriber {
public:
    /// Subscribes on the system bus (DBUS_SYSTEM_BUS_ADDRESS chooses another one), or on
    /// `bus` when given (the subscriber takes a reference). Throws SubscriberError when the
    /// provider refuses the subscription (access, an unknown channel), or is not there and the
    /// subscriber does not follow it; a following subscriber then starts in
    /// SubscriberState::WAITING. Throws std::system_error when the bus cannot be reached.
    explicit Subscriber(const SubscriberConfig& config, sd_bus* bus = nullptr);
    /// Unsubscribes and closes, as close() does.
    ~Subscriber();
    Subscriber(Subscriber&& other) noexcept;
    Subscriber& operator=(Subscriber&& other) noexcept;
    Subscriber(const Subscriber&) = delete;
    Subscriber& operator=(const Subscriber&) = delete;

    /// Waits up to `timeout` (negative: for ever) for the next scene or change of state.
    /// SCENE puts the scene's RadarScene.Scene bytes into `scene`.
    ReadResult read(std::string& scene,
                    std::chrono::milliseconds timeout = std::chrono::milliseconds(-1));
    /// As read(), decoding the scene into `frame`. A scene that does not decode safely is a
    /// broken record: the stream ends.
    ReadResult read(Frame& frame,
                    std::chrono::milliseconds timeout = std::chrono::milliseconds(-1));
    /// Never waits: a scene, a change of state, or NOTHING once nothing is ready.
    ReadResult readNow(std::string& scene);

    /// A descriptor that polls readable whenever readNow() may have something: the stream, the
    /// bus (the provider leaving or coming back) and close(). It stays the same for the
    /// subscriber's life, across subscriptions; -1 once closed.
    int fd() const;

    /// Serves the stream from `event`'s loop: `on_scene` with each scene's bytes, `on_state`
    /// (may be empty) with each change of state, ENDED last. The subscriber must outlive the
    /// loop's use of it, or be closed first.
    void attach(struct sd_event* event, std::function<void(const std::string& scene)> on_scene,
                std::function<void(SubscriberState state)> on_state = {});

    /// Unsubscribes ("UnsubscribeSocket", waiting at most two seconds for the provider) and
    /// closes the stream. Safe from any thread and more than once.
    void close();

    /// The state as last reported: the one a STATE result or `on_state` told, ENDED once ended.
    SubscriberState state() const;
    /// Why the stream ended, when it did for another reason than close(): empty otherwise.
    std::string error() const;
    /// The provider's session id of the current subscription, -1 when not subscribed.
    int32_t session() const;
    /// The counters. With `ask_provider` it asks the provider's Statistics object for the frames
    /// it replaced ("GetSessions", waiting at most two seconds); otherwise
    /// SubscriberStats::frames_replaced is as last asked.
    SubscriberStats stats(bool ask_provider = false);

    struct Impl;

private:
    std::unique_ptr<Impl> impl_;
};

}  // namespace RadarScene
