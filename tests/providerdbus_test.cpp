#include "channelhandler/channelhandler.h"
#include "permo2_fake.h"
#include "providerdbus/providerscene.h"
#include "providerdbus/scene_proxy.h"
#include "providerdbus/statistics_proxy.h"
#include "support/eventloopthread.h"
#include "support/fakedevice.h"
#include "support/testbus.h"
#include "support/testutil.h"

#include <radarscene/scene.pb.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <thread>

using API::SdBusCpp::ChannelRow;
using API::SdBusCpp::ProviderScene;
using API::SdBusCpp::SessionRow;

namespace {

constexpr const char* SERVICE = "com.tessel.RadarSceneProvider1";
constexpr const char* PATH = "/com/tessel/RadarSceneProvider1";
constexpr const char* INTERFACE = "com.tessel.RadarSceneProvider1.Scene";

// A subscriber's view of the provider, on a connection of its own.
class SceneClient : public sdbus::ProxyInterfaces<com::tessel::RadarSceneProvider1::Scene_proxy> {
public:
    explicit SceneClient(sdbus::IConnection& connection)
        : ProxyInterfaces(connection, sdbus_compat::ServiceName(SERVICE),
                          sdbus_compat::ObjectPath(PATH)) {
        registerProxy();
    }
    ~SceneClient() { unregisterProxy(); }
    using ProxyInterfaces::getProxy;
};

// The statistics object as a monitoring tool sees it.
class StatisticsClient
    : public sdbus::ProxyInterfaces<com::tessel::RadarSceneProvider1::Statistics_proxy> {
public:
    explicit StatisticsClient(sdbus::IConnection& connection)
        : ProxyInterfaces(connection, sdbus_compat::ServiceName(SERVICE),
                          sdbus_compat::ObjectPath(std::string(PATH) + "/Statistics")) {
        registerProxy();
    }
    ~StatisticsClient() { unregisterProxy(); }
};

// Calls `member` and returns "name: message" of the error, or "" on success.
template <typename Call>
std::string error_of(Call&& call) {
    try {
        call();
    } catch (const sdbus::Error& e) {
        return e.getName() + ": " + e.getMessage();
    }
    return "";
}

class Provider : public ::testing::Test {
protected:
    Provider() {
        permo2_fake::reset();
        handler = channel_handler_create();
        server = sdbus::createSessionBusConnectionWithAddress(bus.address());
    }

    ~Provider() override {
        loop.stop();
        source.reset();
        provider.reset();
    }

    void start(bool requestNameNow = true, int channel = 0) {
        provider =
            std::make_unique<ProviderScene>(*server, SERVICE, PATH, handler.get(), requestNameNow);
        if (channel >= 0) {
            provider->addSupportedChannel(channel);
        }
        source = std::make_unique<RadarScene::ConnectionEventSource>(*server, loop.event());
        loop.start();
        client_connection = sdbus::createSessionBusConnectionWithAddress(bus.address());
        client = std::make_unique<SceneClient>(*client_connection);
    }

    bool name_has_owner() {
        bool owned = false;
        auto proxy = sdbus::createProxy(*client_connection,
                                        sdbus_compat::ServiceName("org.freedesktop.DBus"),
                                        sdbus_compat::ObjectPath("/org/freedesktop/DBus"));
        proxy->callMethod("NameHasOwner")
            .onInterface("org.freedesktop.DBus")
            .withArguments(std::string(SERVICE))
            .storeResultsTo(owned);
        return owned;
    }

    std::vector<session_t*> sessions() {
        std::vector<session_t*> out;
        scene_sender_t& sender = *handler->channels[0]->scene_sender;
        std::lock_guard lock(sender.mutex);
        for (auto& s : sender.session_list) {
            out.push_back(s.get());
        }
        return out;
    }

    TestBus bus;
    EventLoopThread loop;
    std::unique_ptr<channel_handler_t> handler;
    std::unique_ptr<sdbus::IConnection> server;
    std::unique_ptr<ProviderScene> provider;
    std::unique_ptr<RadarScene::ConnectionEventSource> source;
    std::unique_ptr<sdbus::IConnection> client_connection;
    std::unique_ptr<SceneClient> client;
};

}  // namespace

TEST_F(Provider, IntrospectionShowsExactlyTheFiveMethods) {
    start();
    std::string xml;
    client->getProxy()
        .callMethod("Introspect")
        .onInterface("org.freedesktop.DBus.Introspectable")
        .storeResultsTo(xml);
    size_t begin = xml.find("<interface name=\"com.tessel.RadarSceneProvider1.Scene\">");
    ASSERT_NE(begin, std::string::npos);
    EXPECT_EQ(xml.substr(begin, xml.find("</interface>", begin) - begin),
              R"(<interface name="com.tessel.RadarSceneProvider1.Scene">
  <method name="GetNumberOfChannels">
   <arg type="i" name="channel_count" direction="out"/>
  </method>
  <method name="GetObjectClassifications">
   <arg type="i" name="channel" direction="in"/>
   <arg type="a{is}" name="classifications" direction="out"/>
  </method>
  <method name="GetSupportedChannels">
   <arg type="ai" name="channel_list" direction="out"/>
  </method>
  <method name="SubscribeSocket">
   <arg type="i" name="dataformat" direction="in"/>
   <arg type="i" name="channel" direction="in"/>
   <arg type="a{sb}" name="feature_parameters" direction="in"/>
   <arg type="h" name="handle" direction="out"/>
   <arg type="i" name="session" direction="out"/>
  </method>
  <method name="UnsubscribeSocket">
   <arg type="i" name="session" direction="in"/>
  </method>
 )");
}

TEST_F(Provider, SubscriptionDeliversFramesAndKeepsNoCopyOfTheSocket) {
    start();
    auto [handle, session] = client->SubscribeSocket(3, 0, {});
    EXPECT_EQ(session, 0);
    channel_handler_push(*handler, 0, RadarScene::Frame{}, 0);
    std::string payload;
    EXPECT_TRUE(read_record(handle.get(), payload));
    ASSERT_EQ(sessions().size(), 1u);
    EXPECT_EQ(sessions()[0]->pid, static_cast<uint32_t>(getpid()));
    EXPECT_EQ(std::get<1>(client->SubscribeSocket(3, 0, {})), 1);

    // Subscribers hold the only copies of their ends: closing them ends the sessions.
    StderrCapture log;
    handle = sdbus::UnixFd();
    auto broken = [&] {
        std::lock_guard lock(handler->broken_sessions_mutex);
        return handler->broken_sessions.count == 2;
    };
    EXPECT_TRUE(wait_until(broken, std::chrono::seconds(5),
                           [&] { channel_handler_push(*handler, 0, RadarScene::Frame{}, 0); }));
    EXPECT_EQ(log.count("<6>Session closed: "), 2);
}

TEST_F(Provider, BadFormatAndBadChannelAreRefused) {
    start();
    for (int format : {0, 1, 2, 4}) {
        EXPECT_EQ(error_of([&] { client->SubscribeSocket(format, 0, {}); }),
                  "org.freedesktop.DBus.Error.InvalidArgs: Invalid data format");
    }
    for (int channel : {16, -1, 5}) {
        EXPECT_EQ(error_of([&] { client->SubscribeSocket(3, channel, {}); }),
                  "org.freedesktop.DBus.Error.Failed: Error subscribing channel");
    }
    EXPECT_EQ(handler->n_sessions, 0);
    EXPECT_EQ(std::get<1>(client->SubscribeSocket(3, 0, {})), 0);
}

TEST_F(Provider, ExhaustedDescriptorsRefuseTheSubscription) {
    start();
    // Fill every free number below the highest open descriptor, then allow
    // exactly the two of a socket pair, so that copying the subscriber's
    // end for the reply is the step that fails.
    std::vector<unique_fd> fillers;
    int top = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        top = std::max(top, std::stoi(entry.path().filename()));
    }
    while (fillers.empty() || fillers.back().get() <= top) {
        fillers.emplace_back(open("/dev/null", O_RDONLY | O_CLOEXEC));
    }
    int free_fd = fillers.back().get();
    fillers.pop_back();
    rlimit saved;
    getrlimit(RLIMIT_NOFILE, &saved);
    rlimit low = saved;
    low.rlim_cur = static_cast<rlim_t>(free_fd + 2);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &low), 0);
    std::string error = error_of([&] { client->SubscribeSocket(3, 0, {}); });
    setrlimit(RLIMIT_NOFILE, &saved);
    EXPECT_EQ(error, "org.freedesktop.DBus.Error.Failed: Error subscribing channel");
}

TEST_F(Provider, UnsubscribeRemovesKnownAndIgnoresUnknownSessions) {
    start();
    auto [handle, session] = client->SubscribeSocket(3, 0, {});
    StderrCapture log;
    EXPECT_EQ(error_of([&] { client->UnsubscribeSocket(-1); }), "");
    EXPECT_EQ(error_of([&] { client->UnsubscribeSocket(99); }), "");
    EXPECT_EQ(log.count("<6>The session with session id 99 was not found\n"), 1);
    EXPECT_EQ(handler->n_sessions, 1);
    client->UnsubscribeSocket(session);
    EXPECT_EQ(handler->n_sessions, 0);
    char byte;
    EXPECT_EQ(read(handle.get(), &byte, 1), 0);  // the library's end is closed
}

namespace {

// Ends `session` from a connection of another process, run as nobody when
// the test runs as root. Returns the error name, or "" on success.
std::string unsubscribe_from_elsewhere(int32_t session) {
    int pipe_fds[2];
    EXPECT_EQ(pipe(pipe_fds), 0);
    pid_t child = fork();
    if (child == 0) {
        if (geteuid() == 0 &&
            (setresgid(65534, 65534, 65534) < 0 || setresuid(65534, 65534, 65534) < 0)) {
            _exit(2);
        }
        sd_bus* b = nullptr;
        sd_bus_error error = SD_BUS_ERROR_NULL;
        if (sd_bus_open_user(&b) >= 0 &&
            sd_bus_call_method(b, SERVICE, PATH, INTERFACE, "UnsubscribeSocket", &error, nullptr,
                               "i", session) < 0 &&
            error.name) {
            ssize_t ignored = write(pipe_fds[1], error.name, strlen(error.name));
            (void)ignored;
        }
        _exit(0);
    }
    close(pipe_fds[1]);
    char name[256] = {};
    ssize_t n = read(pipe_fds[0], name, sizeof(name) - 1);
    close(pipe_fds[0]);
    waitpid(child, nullptr, 0);
    return std::string(name, n > 0 ? static_cast<size_t>(n) : 0);
}

}  // namespace

TEST_F(Provider, OnlyTheOwnerOrRootEndsASession) {
    start();
    auto [handle, session] = client->SubscribeSocket(3, 0, {});
    EXPECT_EQ(unsubscribe_from_elsewhere(session), "org.freedesktop.DBus.Error.AccessDenied");
    EXPECT_EQ(handler->n_sessions, 1);
    if (geteuid() == 0) {
        auto root_connection = sdbus::createSessionBusConnectionWithAddress(bus.address());
        SceneClient(*root_connection).UnsubscribeSocket(session);
    } else {
        client->UnsubscribeSocket(session);
    }
    EXPECT_EQ(handler->n_sessions, 0);
}

TEST_F(Provider, ChannelAndClassificationQueries) {
    start(true, -1);
    EXPECT_EQ(client->GetNumberOfChannels(), 1);
    EXPECT_EQ(client->GetSupportedChannels(), std::vector<int32_t>{-1});
    provider->addSupportedChannel(2);
    EXPECT_EQ(client->GetSupportedChannels(), std::vector<int32_t>{2});
    provider->addObjectClassification(1, "Human");
    provider->addObjectClassification(2, "Vehicle");
    provider->addObjectClassification(1, "Bike");
    std::map<int32_t, std::string> expected{{1, "Human"}, {2, "Vehicle"}};
    EXPECT_EQ(client->GetObjectClassifications(7), expected);
    EXPECT_EQ(RadarScene::getSupportedRadarChannels(), std::vector<int32_t>{2});
    EXPECT_EQ(RadarScene::getSupportedClasses(), expected);
}

TEST_F(Provider, RefusedCallersGetAccessDeniedAndALogLine) {
    start();
    std::string me = client_connection->getUniqueName();
    StderrCapture log;
    permo2_fake::refuse(2, "User is not allowed to subscribe");
    EXPECT_EQ(error_of([&] { client->SubscribeSocket(3, 0, {}); }),
              "org.freedesktop.DBus.Error.AccessDenied: User is not allowed to subscribe");
    EXPECT_EQ(log.count("<3>check_authorization_permo: " + me +
                        " is not authorized for SubscribeSocket\n"),
              1);
    EXPECT_EQ(handler->n_sessions, 0);

    permo2_fake::refuse(5, "policy store unavailable");
    EXPECT_EQ(error_of([&] { client->GetNumberOfChannels(); }),
              "org.freedesktop.DBus.Error.AccessDenied: policy store unavailable");
    EXPECT_EQ(log.count("<3>check_authorization_permo: Internal error 5 for GetNumberOfChannels\n"),
              1);
    EXPECT_EQ(error_of([&] { client->UnsubscribeSocket(-1); }),
              "org.freedesktop.DBus.Error.AccessDenied: policy store unavailable");
    EXPECT_EQ(error_of([&] { client->GetSupportedChannels(); }),
              "org.freedesktop.DBus.Error.AccessDenied: policy store unavailable");

    auto checks = permo2_fake::checks();
    ASSERT_EQ(checks.size(), 4u);
    EXPECT_EQ(checks[2].permission, "com.tessel.RadarSceneProvider1.Scene.UnsubscribeSocket");
    EXPECT_EQ(checks[0].user, getpwuid(geteuid())->pw_name);

    // The client queries log and return nothing.
    EXPECT_TRUE(RadarScene::getSupportedRadarChannels().empty());
    EXPECT_EQ(log.count("<3>Failed to get supported radar channels: policy store unavailable\n"),
              1);
    EXPECT_EQ(log.count("<3>policy store unavailable\n"), 1);
    EXPECT_TRUE(RadarScene::getSupportedClasses().empty());
    EXPECT_EQ(log.count("<3>policy store unavailable\n"), 2);
}

TEST_F(Provider, CallerIsCheckedAsItsOwnUser) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root to run a client as another user";
    }
    start();
    pid_t child = fork();
    if (child == 0) {
        if (setresgid(65534, 65534, 65534) < 0 || setresuid(65534, 65534, 65534) < 0) {
            _exit(2);
        }
        sd_bus* b = nullptr;
        if (sd_bus_open_user(&b) < 0) {
            _exit(3);
        }
        sd_bus_message* reply = nullptr;
        int r = sd_bus_call_method(b, SERVICE, PATH, "com.tessel.RadarSceneProvider1.Scene",
                                   "GetNumberOfChannels", nullptr, &reply, "");
        _exit(r < 0 ? 4 : 0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    auto checks = permo2_fake::checks();
    ASSERT_EQ(checks.size(), 1u);
    EXPECT_EQ(checks[0].user, getpwuid(65534)->pw_name);
}

TEST_F(Provider, NameIsClaimedAtMostOnceAndReleased) {
    start(false);
    EXPECT_FALSE(name_has_owner());
    loop.run([&] { provider->requestName(); });
    EXPECT_TRUE(name_has_owner());
    loop.run([&] { provider->requestName(); });  // a second claim would throw
    loop.stop();
    provider.reset();
    EXPECT_FALSE(name_has_owner());
}

TEST_F(Provider, FailedAccessLibraryStopsConstruction) {
    permo2_fake::fail_init("no policy store");
    try {
        ProviderScene p(*server, SERVICE, PATH, handler.get(), true);
        FAIL() << "construction succeeded";
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "permo2_init: no policy store");
    }
    EXPECT_FALSE(permo2_fake::initialised());
}

TEST(ProviderQueries, NoProviderGivesEmptyResultsAndLogLines) {
    TestBus bus;
    StderrCapture log;
    EXPECT_TRUE(RadarScene::getSupportedRadarChannels().empty());
    EXPECT_TRUE(RadarScene::getSupportedClasses().empty());
    EXPECT_EQ(log.count("<3>Failed to get supported radar channels: "), 1);
    EXPECT_EQ(log.count("com.tessel.RadarSceneProvider1"), 3);
}

TEST_F(Provider, EachFeatureKeyShapesOnlyItsOwnPartOfTheScene) {
    install_device(10, 20, 0, true);
    start();
    const char* keys[] = {"BOUNDINGBOX_ENABLED", "POLYGON_ENABLED", "VELOCITY_ENABLED",
                          "GEOLOCATION_ENABLED", "RAW_ENABLED"};
    std::vector<sdbus::UnixFd> handles;
    for (const char* key : keys) {
        handles.push_back(std::get<0>(client->SubscribeSocket(3, 0, {{key, true}})));
    }
    // Keys match exactly, unknown ones are ignored, and false equals absent.
    handles.push_back(std::get<0>(client->SubscribeSocket(
        3, 0, {{"raw_enabled", true}, {"UNKNOWN", true}, {"VELOCITY_ENABLED", false}})));
    RadarScene::Frame frame;
    RadarScene::FrameObject full;
    full.id = 1;
    full.set_bounding_box({1, 2, 3, 4});
    full.set_polygon({{1, 2}, {3, 4}});
    full.set_velocity({1, 2});
    full.set_position({50, 10, 0});
    RadarScene::FrameObject masked;
    masked.id = 2;
    masked.set_classifications({{2, std::nullopt}});
    frame.objects = {full, masked};
    channel_handler_push(*handler, 0, frame, 1ul << 2);

    auto shape = [](const RadarScene::Scene& scene) {
        const RadarScene::Object& o = scene.objects(0);
        return std::string(o.has_bounding_box() ? "B" : "") + (o.has_polygon() ? "P" : "") +
               (o.has_velocity() ? "V" : "") + (o.has_geoposition() ? "G" : "") +
               std::to_string(scene.objects_size());
    };
    const char* expected[] = {"B1", "P1", "V1", "G1", "2", "1"};
    for (size_t i = 0; i < handles.size(); ++i) {
        std::string payload;
        ASSERT_TRUE(read_record(handles[i].get(), payload));
        RadarScene::Scene scene;
        ASSERT_TRUE(scene.ParseFromString(payload));
        EXPECT_EQ(shape(scene), expected[i]) << i;
    }
}

TEST_F(Provider, ForwardedClassQuestionNeverHoldsTheLoop) {
    start();
    // Forwarded to itself, the question ends there: no classes, at once.
    EXPECT_TRUE(client->GetObjectClassifications(1).empty());

    // A second provider, with no classes of its own, asks the well-known
    // one, whose loop is held for now.
    loop.stop();
    auto connection = sdbus::createSessionBusConnectionWithAddress(bus.address());
    auto other_handler = channel_handler_create();
    EventLoopThread other_loop;
    ProviderScene other(*connection, "com.tessel.Other", "/other", other_handler.get(), true);
    RadarScene::ConnectionEventSource other_source(*connection, other_loop.event());
    other_loop.start();
    std::map<int32_t, std::string> classes;
    std::thread asker([&] {
        auto asking = sdbus::createSessionBusConnectionWithAddress(bus.address());
        sdbus::createProxy(*asking, sdbus_compat::ServiceName("com.tessel.Other"),
                           sdbus_compat::ObjectPath("/other"))
            ->callMethod("GetObjectClassifications")
            .onInterface(INTERFACE)
            .withArguments(int32_t{1})
            .storeResultsTo(classes);
    });
    EXPECT_TRUE(wait_until([] { return permo2_fake::check_count() == 3; }));

    // Only the asker waits: the second provider still answers everyone else.
    auto other_proxy =
        sdbus::createProxy(*client_connection, sdbus_compat::ServiceName("com.tessel.Other"),
                           sdbus_compat::ObjectPath("/other"));
    int32_t count = 0;
    other_proxy->callMethod("GetNumberOfChannels")
        .onInterface(INTERFACE)
        .withTimeout(std::chrono::milliseconds(500))
        .storeResultsTo(count);
    EXPECT_EQ(count, 1);

    provider->addObjectClassification(4, "Truck");
    loop.start();
    asker.join();
    EXPECT_EQ(classes, (std::map<int32_t, std::string>{{4, "Truck"}}));
    other_loop.stop();
}

namespace {

// A source that is always due; records the most requests the provider
// served between two of its turns.
struct Turns {
    size_t last = 0;
    size_t most = 0;
    static int on_turn(sd_event_source* source, uint64_t, void* self) {
        auto* turns = static_cast<Turns*>(self);
        size_t served = permo2_fake::check_count();
        turns->most = std::max(turns->most, served - turns->last);
        turns->last = served;
        sd_event_source_set_time(source, 0);
        return sd_event_source_set_enabled(source, SD_EVENT_ONESHOT);
    }
};

}  // namespace

TEST_F(Provider, QueuedRequestsTakeTurnsWithTheLoopsOtherSources) {
    start();
    Turns turns;
    sd_event_source* always_due = nullptr;
    loop.run([&] {
        sd_event_add_time(loop.event(), &always_due, CLOCK_MONOTONIC, 0, 0, &Turns::on_turn,
                          &turns);
    });
    constexpr size_t CALLS = 2000;
    sd_bus* flood = nullptr;
    ASSERT_GE(sd_bus_open_user(&flood), 0);
    for (size_t i = 0; i < CALLS; ++i) {
        // No reply expected: the bus would refuse more than a few hundred
        // outstanding calls from one sender.
        sd_bus_message* call = nullptr;
        ASSERT_GE(sd_bus_message_new_method_call(flood, &call, SERVICE, PATH, INTERFACE,
                                                 "GetNumberOfChannels"),
                  0);
        sd_bus_message_set_expect_reply(call, 0);
        ASSERT_GE(sd_bus_send(flood, call, nullptr), 0);
        sd_bus_message_unref(call);
    }
    sd_bus_flush(flood);
    EXPECT_TRUE(
        wait_until([] { return permo2_fake::check_count() >= CALLS; }, std::chrono::seconds(60)));
    loop.run([&] { sd_event_source_disable_unref(always_due); });
    sd_bus_flush_close_unref(flood);
    EXPECT_LE(turns.most, 3u);
}

TEST_F(Provider, StatisticsCountWhatTheReadersReadAndHowSessionsEnded) {
    start();
    StatisticsClient statistics(*client_connection);
    int64_t before = realtime_usec();
    auto [kept, kept_id] = client->SubscribeSocket(3, 0, {});
    auto [left, left_id] = client->SubscribeSocket(3, 0, {{"BOUNDINGBOX_ENABLED", true}});
    auto [closed, closed_id] = client->SubscribeSocket(3, 0, {});
    int64_t after = realtime_usec();
    shutdown(closed.get(), SHUT_RDWR);
    RadarScene::Frame frame;
    RadarScene::FrameObject o;
    o.set_bounding_box({1, 2, 3, 4});
    frame.objects = {o, o};
    uint64_t bytes[2] = {};
    for (uint64_t time = 1; time <= 3; ++time) {
        frame.time = time;
        channel_handler_push(*handler, 0, frame, 0);
        int index = 0;
        for (const sdbus::UnixFd* handle : {&kept, &left}) {
            std::string payload;
            ASSERT_TRUE(read_record(handle->get(), payload));
            bytes[index++] += payload.size() + 4;
        }
    }
    ASSERT_TRUE(wait_until([&] {
        std::lock_guard lock(handler->broken_sessions_mutex);
        return handler->broken_sessions.count == 1;
    }));
    channel_handler_clear_broken_sessions(*handler);
    client->UnsubscribeSocket(left_id);

    std::ifstream comm_file("/proc/self/comm");
    std::string comm;
    std::getline(comm_file, comm);
    auto rows = statistics.GetSessions();
    ASSERT_EQ(rows.size(), 3u);
    int64_t subscribed = rows[0].get<2>();
    EXPECT_EQ(rows[0], SessionRow(kept_id, 0, subscribed, static_cast<uint32_t>(getpid()), comm, 3,
                                  0, bytes[0], "active"));
    EXPECT_GE(subscribed, before);
    EXPECT_LE(subscribed, after);
    EXPECT_EQ(rows[1], SessionRow(left_id, 0, rows[1].get<2>(), static_cast<uint32_t>(getpid()),
                                  comm, 3, 0, bytes[1], "unsubscribed"));
    EXPECT_EQ(rows[2].get<0>(), closed_id);
    EXPECT_EQ(rows[2].get<5>(), 0u);
    EXPECT_EQ(rows[2].get<8>(), "broken-error");
    EXPECT_EQ(statistics.GetChannels(),
              std::vector<ChannelRow>{ChannelRow(0, 1, 3, 6, 0, bytes[0] + bytes[1], 1, 0)});
}

TEST_F(Provider, StatisticsAreRefusedAsTheSceneMethodsAre) {
    start();
    StatisticsClient statistics(*client_connection);
    permo2_fake::refuse(2, "User may not watch");
    EXPECT_EQ(error_of([&] { statistics.GetSessions(); }),
              "org.freedesktop.DBus.Error.AccessDenied: User may not watch");
    EXPECT_EQ(error_of([&] { statistics.GetChannels(); }),
              "org.freedesktop.DBus.Error.AccessDenied: User may not watch");
    auto checks = permo2_fake::checks();
    ASSERT_EQ(checks.size(), 2u);
    EXPECT_EQ(checks[0].permission, "com.tessel.RadarSceneProvider1.Statistics.GetSessions");
    EXPECT_EQ(checks[1].permission, "com.tessel.RadarSceneProvider1.Statistics.GetChannels");
}

namespace {

// `objects` objects with every optional part: about 150 bytes each in a
// scene with every option.
RadarScene::Frame heavy_frame(uint64_t time, int objects) {
    RadarScene::Frame frame;
    frame.time = time;
    RadarScene::FrameObject o;
    o.set_bounding_box({1.5, 2.5, 3, 4});
    o.set_polygon({{0, 0}, {1, 0}, {1, 1}, {0, 1}, {0.5, 2}});
    o.set_velocity({1, 2});
    o.set_covariance(std::vector<double>(9, 0.1));
    for (int i = 0; i < objects; ++i) {
        o.id = i;
        frame.objects.push_back(o);
    }
    return frame;
}

// Counts the whole records of a stream as it arrives, reading at most
// `chunk` bytes at a time with `pause` after each, until the stream ends.
struct counting_reader {
    counting_reader(int fd, size_t chunk, std::chrono::milliseconds pause)
        : thread([this, fd, chunk, pause] {
              std::vector<char> buffer(chunk);
              for (uint32_t length; recv(fd, &length, 4, MSG_WAITALL) == 4; ++records) {
                  for (uint64_t left = ntohl(length) - 4; left > 0;) {
                      ssize_t n = read(fd, buffer.data(), std::min<uint64_t>(left, chunk));
                      if (n <= 0) {
                          return;
                      }
                      left -= static_cast<uint64_t>(n);
                      std::this_thread::sleep_for(pause);
                  }
              }
          }) {}
    ~counting_reader() { thread.join(); }

    std::atomic<uint64_t> records{0};
    std::thread thread;
};

}  // namespace

// Large frames pushed back to back: the sending thread takes the newest
// frame whenever it can write, the readers get a share of them, and every
// frame a session did not get is counted, at the hand-off or after it.
TEST_F(Provider, FramesPushedFasterThanTheyAreSentFlowAndEveryLossIsCounted) {
    start();
    StatisticsClient statistics(*client_connection);
    auto [plain, plain_id] = client->SubscribeSocket(3, 0, {});
    auto [boxed, boxed_id] = client->SubscribeSocket(3, 0, {{"BOUNDINGBOX_ENABLED", true}});
    constexpr uint64_t FRAMES = 200;
    RadarScene::Frame frame = heavy_frame(0, 12'000);  // 1.4 MB with boxes
    {
        counting_reader readers[2] = {{plain.get(), 1 << 16, {}}, {boxed.get(), 1 << 16, {}}};
        for (uint64_t time = 1; time <= FRAMES; ++time) {
            frame.time = time;
            channel_handler_push(*handler, 0, frame, 0);
        }
        auto sessions_done = [&] {
            for (const SessionRow& row : statistics.GetSessions()) {
                if (row.get<5>() + row.get<6>() != FRAMES) {
                    return false;
                }
            }
            return true;
        };
        EXPECT_TRUE(wait_until(sessions_done, std::chrono::seconds(30)));
        auto rows = statistics.GetSessions();
        ASSERT_EQ(rows.size(), 2u);
        for (int i = 0; i < 2; ++i) {
            EXPECT_TRUE(wait_until([&] { return readers[i].records == rows[i].get<5>(); }));
            EXPECT_GE(readers[i].records, FRAMES / 10) << "session " << i;
            EXPECT_EQ(rows[i].get<8>(), "active");
        }
        auto channels = statistics.GetChannels();
        ASSERT_EQ(channels.size(), 1u);
        EXPECT_EQ(channels[0].get<2>(), FRAMES);
        EXPECT_EQ(channels[0].get<4>(), rows[0].get<6>() + rows[1].get<6>());
        EXPECT_LE(channels[0].get<7>(), std::min(rows[0].get<6>(), rows[1].get<6>()));
        shutdown(plain.get(), SHUT_RDWR);
        shutdown(boxed.get(), SHUT_RDWR);
    }
}

// Readers that take 64 KiB every 100 ms, each with options of its own, beside
// large scenes pushed back to back: each record moves on as its socket takes
// bytes, however long it takes, and no reader is ever broken.
TEST_F(Provider, ThrottledReadersInEightOptionSetsAreWrittenAsFastAsTheyRead) {
    start();
    StatisticsClient statistics(*client_connection);
    std::vector<sdbus::UnixFd> fds;
    for (int set = 0; set < 8; ++set) {
        fds.push_back(std::get<0>(client->SubscribeSocket(3, 0,
                                                          {{"BOUNDINGBOX_ENABLED", set & 1},
                                                           {"POLYGON_ENABLED", (set & 2) != 0},
                                                           {"VELOCITY_ENABLED", (set & 4) != 0}})));
    }
    std::vector<std::unique_ptr<counting_reader>> readers;
    for (auto& fd : fds) {
        readers.push_back(
            std::make_unique<counting_reader>(fd.get(), 1 << 16, std::chrono::milliseconds(100)));
    }
    // Scenes of 0.6 to 1.5 MB, several socket buffers each and more than a
    // second's reading for most, pushed back to back without waiting, so that
    // a frame is always pending, until every reader has read two.
    std::atomic<bool> pushing{true};
    std::thread producer([&] {
        RadarScene::Frame frame = heavy_frame(0, 10'000);
        for (frame.time = 1; pushing; ++frame.time) {
            channel_handler_try_push(*handler, 0, frame, 0);
        }
    });
    EXPECT_TRUE(wait_until(
        [&] {
            return std::all_of(readers.begin(), readers.end(),
                               [](auto& reader) { return reader->records >= 2; });
        },
        std::chrono::seconds(60)));
    pushing = false;
    producer.join();
    for (const SessionRow& row : statistics.GetSessions()) {
        EXPECT_EQ(row.get<8>(), "active") << "session " << row.get<0>();
    }
    for (auto& fd : fds) {
        shutdown(fd.get(), SHUT_RDWR);
    }
    readers.clear();
}

// The last session unsubscribed while its subscriber has a record half read:
// the call returns, pushes go on and the loop answers, all while the record
// waits; then the subscriber reads it whole, and its stream ends there.
TEST_F(Provider, UnsubscribingTheLastSessionMidRecordHoldsUpNeitherPushNorBus) {
    start();
    handler->channels[0]->scene_sender->record_timeout = std::chrono::minutes(10);
    auto [fd, id] = client->SubscribeSocket(3, 0, {});
    RadarScene::Frame frame = heavy_frame(1, 12'000);
    channel_handler_push(*handler, 0, frame, 0);
    ASSERT_TRUE(wait_until([&] {
        int queued = 0;
        return ioctl(fd.get(), FIONREAD, &queued) == 0 && queued > 0;
    }));
    std::atomic<int> pushed{0};
    std::thread producer([&] {
        for (uint64_t time = 2; time < 50; ++time, ++pushed) {
            frame.time = time;
            channel_handler_push(*handler, 0, frame, 0);
        }
    });
    EXPECT_NO_THROW(client->UnsubscribeSocket(id));
    producer.join();
    EXPECT_EQ(pushed, 48);
    client->getProxy().callMethod("Ping").onInterface("org.freedesktop.DBus.Peer");
    std::string payload;
    ASSERT_TRUE(read_record(fd.get(), payload));
    RadarScene::Scene scene;
    ASSERT_TRUE(scene.ParseFromString(payload));
    EXPECT_EQ(scene.time(), 1u);
    char byte;
    EXPECT_EQ(read(fd.get(), &byte, 1), 0);
}
