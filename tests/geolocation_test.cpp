#include "geolocation/geolocation.h"
#include "geolocation/geoprojection.h"
#include "support/eventloopthread.h"
#include "support/fakedevice.h"
#include "support/testbus.h"
#include "support/testutil.h"

#include <gtest/gtest.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <signal.h>
#include <sys/wait.h>

#include <atomic>
#include <functional>
#include <thread>

using namespace RadarScene;

// Figures below were computed outside the library with an independent
// implementation of the same geodetic formulas.
TEST(GeoProjection, ScaleFactorsMatchIndependentFigures) {
    geo_scale_factors equator = geo_compute_scale_factors(0);
    EXPECT_NEAR(equator.lat_deg_per_metre, 9.028652746944714e-06, 1e-18);
    EXPECT_NEAR(equator.lon_deg_per_metre, 8.990694818413671e-06, 1e-18);
    geo_scale_factors mid = geo_compute_scale_factors(45);
    EXPECT_NEAR(mid.lat_deg_per_metre, 8.998078967363299e-06, 1e-18);
    EXPECT_NEAR(mid.lon_deg_per_metre, 1.2714656140441412e-05, 1e-18);
}

TEST(GeoProjection, ProjectsAlongHeadingPlusBearing) {
    GeoLocation& device = install_device(0, 0, 0, true);
    geo_projection north = geo_project(device, 100, 0);
    EXPECT_NEAR(north.longitude, 0, 1e-12);
    EXPECT_NEAR(north.latitude, 100 * 9.028652746944714e-06, 1e-15);
    EXPECT_TRUE(north.valid);

    device.heading = 90;
    geo_projection east = geo_project(device, 100, 0);
    EXPECT_NEAR(east.latitude, 0, 1e-12);
    EXPECT_NEAR(east.longitude, 100 * 8.990694818413671e-06, 1e-15);

    // Stockholm, heading 30, object 250 m away at bearing 15: compass 45.
    GeoLocation& city = install_device(59.3293, 18.0686, 30, false);
    city.elevation = 12;
    geo_projection p = geo_project(city, 250, 15);
    EXPECT_NEAR(p.latitude, 59.33088810323186, 1e-10);
    EXPECT_NEAR(p.longitude, 18.071715700841224, 1e-10);
    EXPECT_EQ(p.elevation, 12);
    EXPECT_FALSE(p.valid);
}

TEST(GeoProjection, NormalisationFoldsPolesAndWrapsOnce) {
    auto normalised = [](double lat, double lon) {
        geo_normalise(lat, lon);
        return std::pair(lat, lon);
    };
    EXPECT_EQ(normalised(91, 10), std::pair(89.0, -170.0));
    EXPECT_EQ(normalised(-95, -10), std::pair(-85.0, 170.0));
    EXPECT_EQ(normalised(0, 400), std::pair(0.0, 0.0));
    EXPECT_EQ(normalised(0, 200), std::pair(0.0, -160.0));
    EXPECT_EQ(normalised(0, -190), std::pair(0.0, 170.0));
}

TEST(AddGeoLocation, FillsEveryObjectWhateverTheDeviceValidity) {
    install_device(0, 0, 0, false);
    Frame frame;
    FrameObject stored, positioned, bare;
    stored.set_geoposition({1, 2, 3});
    positioned.set_position({100, 0, 0});
    frame.objects = {stored, positioned, bare};
    addGeoLocation(frame);
    EXPECT_DOUBLE_EQ(frame.objects[0].geoposition.latitude, 2);
    EXPECT_TRUE(frame.objects[1].has_geoposition());
    EXPECT_NEAR(frame.objects[1].geoposition.latitude, 100 * 9.028652746944714e-06, 1e-15);
    EXPECT_TRUE(frame.objects[2].has_geoposition());
    EXPECT_EQ(frame.objects[2].geoposition.latitude, 0);
    EXPECT_EQ(frame.objects[2].geoposition.longitude, 0);
}

namespace {

double projected_latitude() {
    Frame frame;
    FrameObject o;
    o.set_position({0, 0, 0});
    frame.objects = {o};
    addGeoLocation(frame);
    return frame.objects[0].geoposition.latitude;
}

// A stand-in for the platform's geolocation service, served on a loop
// thread of its own so that the client's synchronous GetAll can be answered.
class FakeGeoService {
public:
    FakeGeoService() {
        sd_bus_open_user(&bus_);
        sd_bus_attach_event(bus_, loop_.event(), 0);
        loop_.start();
    }
    ~FakeGeoService() {
        loop_.stop();
        sd_bus_slot_unref(slot_);
        sd_bus_detach_event(bus_);
        sd_bus_flush_close_unref(bus_);
    }

    // Runs `task` on the service's loop thread and waits for it.
    void call(const std::function<void(sd_bus*)>& task) {
        loop_.run([&] { task(bus_); });
    }

    void publish() {
        call([this](sd_bus* bus) {
            sd_bus_add_object_vtable(bus, &slot_, "/com/tessel/GeoLocation1",
                                     "com.tessel.GeoLocation1", VTABLE, this);
            sd_bus_request_name(bus, "com.tessel.GeoLocation1", 0);
        });
    }
    void withdraw() {
        call([](sd_bus* bus) { sd_bus_release_name(bus, "com.tessel.GeoLocation1"); });
    }

    // Emits PropertiesChanged whose one entry is `key` with a double or an
    // int32 value.
    void emit_change(const char* key, double value, bool as_int32 = false) {
        call([&](sd_bus* bus) {
            sd_bus_message* m = nullptr;
            sd_bus_message_new_signal(bus, &m, "/com/tessel/GeoLocation1",
                                      "org.freedesktop.DBus.Properties", "PropertiesChanged");
            sd_bus_message_append(m, "s", "com.tessel.GeoLocation1");
            sd_bus_message_open_container(m, 'a', "{sv}");
            if (as_int32) {
                sd_bus_message_append(m, "{sv}", key, "i", static_cast<int32_t>(value));
            } else {
                sd_bus_message_append(m, "{sv}", key, "d", value);
            }
            sd_bus_message_close_container(m);
            sd_bus_message_append(m, "as", 0);
            sd_bus_send(bus, m, nullptr);
            sd_bus_message_unref(m);
        });
    }

    // A PropertiesChanged whose changed properties are not an a{sv}.
    void emit_malformed() {
        call([](sd_bus* bus) {
            sd_bus_emit_signal(bus, "/com/tessel/GeoLocation1", "org.freedesktop.DBus.Properties",
                               "PropertiesChanged", "sas", "com.tessel.GeoLocation1", 0);
        });
    }

    std::atomic<double> latitude{59.5}, longitude{18.25}, heading{90};
    std::atomic<bool> valid{true};

private:
    static int get_double(sd_bus*, const char*, const char*, const char* property,
                          sd_bus_message* reply, void* self, sd_bus_error*) {
        auto* s = static_cast<FakeGeoService*>(self);
        std::string name = property;
        double value = name == "latitude"    ? s->latitude.load()
                       : name == "longitude" ? s->longitude.load()
                                             : s->heading.load();
        return sd_bus_message_append(reply, "d", value);
    }
    static int get_valid(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply,
                         void* self, sd_bus_error*) {
        return sd_bus_message_append(reply, "b", static_cast<FakeGeoService*>(self)->valid.load());
    }
    static int get_name(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply,
                        void*, sd_bus_error*) {
        return sd_bus_message_append(reply, "s", "gnss");
    }
    static constexpr sd_bus_vtable VTABLE[] = {SD_BUS_VTABLE_START(0),
                                               SD_BUS_PROPERTY("latitude", "d", get_double, 0, 0),
                                               SD_BUS_PROPERTY("longitude", "d", get_double, 0, 0),
                                               SD_BUS_PROPERTY("source", "s", get_name, 0, 0),
                                               SD_BUS_PROPERTY("heading", "d", get_double, 0, 0),
                                               SD_BUS_PROPERTY("valid_pos", "b", get_valid, 0, 0),
                                               SD_BUS_VTABLE_END};

    EventLoopThread loop_;
    sd_bus* bus_ = nullptr;
    sd_bus_slot* slot_ = nullptr;
};

class GeoLocationClient : public ::testing::Test {
protected:
    void SetUp() override { sd_event_new(&event_); }
    void TearDown() override { sd_event_unref(event_); }

    bool settle_until(const std::function<bool()>& condition) {
        return wait_until(condition, std::chrono::seconds(5),
                          [this] { sd_event_run(event_, 20'000); });
    }

    TestBus bus_;
    sd_event* event_ = nullptr;
};

}  // namespace

TEST_F(GeoLocationClient, ReadsAllAtStartThenFollowsChangesAndSkipsWrongTypes) {
    FakeGeoService service;
    service.publish();
    GeoLocation client(event_);
    EXPECT_DOUBLE_EQ(client.latitude, 59.5);
    EXPECT_DOUBLE_EQ(client.heading, 90);
    EXPECT_TRUE(client.valid);
    double lat_factor = client.lat_deg_per_metre;
    EXPECT_DOUBLE_EQ(lat_factor, geo_compute_scale_factors(59.5).lat_deg_per_metre);

    service.emit_change("heading", 45);
    ASSERT_TRUE(settle_until([&] { return client.heading == 45; }));
    EXPECT_DOUBLE_EQ(client.latitude, 59.5);
    EXPECT_DOUBLE_EQ(client.longitude, 18.25);

    service.emit_change("latitude", 7, true);
    service.emit_change("longitude", 19);
    ASSERT_TRUE(settle_until([&] { return client.longitude == 19; }));
    EXPECT_DOUBLE_EQ(client.latitude, 59.5);
    EXPECT_DOUBLE_EQ(client.lat_deg_per_metre, lat_factor);
}

TEST_F(GeoLocationClient, MissingServiceIsHarmlessAndArrivalIsFollowed) {
    StderrCapture log;
    GeoLocation client(event_);
    EXPECT_EQ(client.valid, false);
    EXPECT_EQ(log.count("<3>initProperties: sd_bus_call_method: "), 1);

    FakeGeoService service;
    service.publish();
    ASSERT_TRUE(settle_until([&] { return client.valid.load(); }));
    EXPECT_DOUBLE_EQ(client.latitude, 59.5);

    // Leaving the bus keeps the last values; coming back re-reads them.
    service.withdraw();
    service.latitude = 10;
    service.valid = false;
    for (int i = 0; i < 5; ++i) {
        sd_event_run(event_, 20'000);
    }
    EXPECT_DOUBLE_EQ(client.latitude, 59.5);
    EXPECT_TRUE(client.valid);
    service.publish();
    ASSERT_TRUE(settle_until([&] { return client.latitude == 10; }));
    EXPECT_FALSE(client.valid);
}

TEST_F(GeoLocationClient, MalformedChangeIsLoggedByTheParser) {
    FakeGeoService service;
    service.publish();
    GeoLocation client(event_);
    StderrCapture log;
    service.emit_malformed();
    service.emit_change("heading", 12);
    ASSERT_TRUE(settle_until([&] { return client.heading == 12; }));
    EXPECT_EQ(log.count("<3>parseProperties: sd_bus_message_enter_container: "), 1);
    EXPECT_EQ(log.count("handlePropertiesChanged"), 0);
}

TEST_F(GeoLocationClient, ServiceThatNeverAnswersCostsAShortWait) {
    sd_bus* silent = nullptr;
    ASSERT_GE(sd_bus_open_user(&silent), 0);
    ASSERT_GE(sd_bus_request_name(silent, "com.tessel.GeoLocation1", 0), 0);
    StderrCapture log;
    auto started = std::chrono::steady_clock::now();
    GeoLocation client(event_);
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(10));
    EXPECT_EQ(
        log.count("<3>initProperties: sd_bus_call_method: " + std::string(strerror(ETIMEDOUT))), 1);
    sd_bus_flush_close_unref(silent);
}

TEST(GeoLocationCurrent, ReplacingTheClientWhileReadersProject) {
    install_device(10, 20, 0, true);
    Frame frame;
    FrameObject o;
    o.set_position({100, 45, 0});
    frame.objects = {o};
    SerializeFrameOptions options;
    options.geolocation = true;
    std::atomic<bool> replacing{true};
    std::thread reader([&] {
        std::string out;
        while (replacing) {
            serializeFrame(out, frame, options);
            Frame copy = frame;
            addGeoLocation(copy);
        }
    });
    for (int i = 0; i < 200; ++i) {
        install_device(10 + i % 3, 20, 0, true);
    }
    replacing = false;
    reader.join();
}

TEST(GeoLocationCurrent, ProcessWithoutAClientFollowsTheServiceOnItsOwn) {
    TestBus bus;
    // A service that owns its name and never answers: the process's own
    // client is built in the background, so projecting does not wait for it.
    sd_bus* silent = nullptr;
    ASSERT_GE(sd_bus_open_user(&silent), 0);
    ASSERT_GE(sd_bus_request_name(silent, "com.tessel.GeoLocation1", 0), 0);
    geolocation_set_current(nullptr);
    auto started = std::chrono::steady_clock::now();
    EXPECT_DOUBLE_EQ(projected_latitude(), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(1));

    sd_bus_flush_close_unref(silent);
    FakeGeoService service;
    service.publish();
    EXPECT_TRUE(wait_until([&] { return projected_latitude() == 59.5; }));
    service.emit_change("latitude", 11);
    EXPECT_TRUE(wait_until([&] { return projected_latitude() == 11; }));
}

namespace {

// A consumer that follows the service with a client of its own, then forks
// a child that projects and exits: true when the child saw the service anew
// and the parent's client still follows it afterwards.
bool fork_leaves_both_clients_working() {
    TestBus bus;
    FakeGeoService service;
    service.publish();
    if (!wait_until([] { return projected_latitude() == 59.5; })) {
        return false;
    }
    // Only a client that reads the service anew sees this.
    service.latitude = 33;
    pid_t child = fork();
    if (child == 0) {
        exit(wait_until([] { return projected_latitude() == 33; }) ? 0 : 1);
    }
    int status = -1;
    bool ended = wait_until([&] { return waitpid(child, &status, WNOHANG) == child; });
    if (!ended) {
        kill(child, SIGKILL);
        waitpid(child, &status, 0);
    }
    fprintf(stderr, "child ended: %d, status %d\n", ended, status);
    service.emit_change("latitude", 11);
    return ended && WIFEXITED(status) && WEXITSTATUS(status) == 0 &&
           wait_until([] { return projected_latitude() == 11; });
}

}  // namespace

// Runs in a process of its own, whose own client then stays out of the
// other tests.
TEST(GeoLocationForkDeathTest, ChildGetsItsOwnClientAndLeavesTheParents) {
    geolocation_set_current(nullptr);
    EXPECT_EXIT(exit(fork_leaves_both_clients_working() ? 0 : 1), ::testing::ExitedWithCode(0), "");
}
