// radarscene-geosim: a stand-in for the device's geolocation service, for
// trying geographic positions off the device.

#include "toolutil.h"

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <getopt.h>

#include <cmath>
#include <cstdio>
#include <memory>

namespace {

constexpr const char* USAGE = R"(Usage: radarscene-geosim [OPTION]...
Serves the geolocation service "com.tessel.GeoLocation1" on the system bus
with a fixed or drifting device position.

      --lat DEG        latitude (default 59.3293)
      --lon DEG        longitude (default 18.0686)
      --heading DEG    compass heading of the radar (default 0)
      --invalid        report the position as not valid
      --drift M        move the device M metres north every second
  -h, --help           show this text and exit
      --version        show the version and exit
)";

constexpr const char* SERVICE = "com.tessel.GeoLocation1";
constexpr const char* PATH = "/com/tessel/GeoLocation1";
constexpr double METRES_PER_DEGREE_OF_LATITUDE = 111'320;

struct device_t {
    double latitude = 59.3293;
    double longitude = 18.0686;
    double heading = 0;
    bool valid = true;
    double drift = 0;
    sd_bus* bus = nullptr;
};

int get_property(sd_bus*, const char*, const char*, const char* property, sd_bus_message* reply,
                 void* userdata, sd_bus_error*) {
    auto* device = static_cast<device_t*>(userdata);
    std::string_view name = property;
    if (name == "valid_pos") {
        return sd_bus_message_append(reply, "b", static_cast<int>(device->valid));
    }
    double value = name == "latitude"    ? device->latitude
                   : name == "longitude" ? device->longitude
                                         : device->heading;
    return sd_bus_message_append(reply, "d", value);
}

const sd_bus_vtable VTABLE[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_PROPERTY("latitude", "d", get_property, 0, SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE),
    SD_BUS_PROPERTY("longitude", "d", get_property, 0, SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE),
    SD_BUS_PROPERTY("heading", "d", get_property, 0, SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE),
    SD_BUS_PROPERTY("valid_pos", "b", get_property, 0, SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE),
    SD_BUS_VTABLE_END};

int on_drift(sd_event_source* source, uint64_t usec, void* userdata) {
    auto* device = static_cast<device_t*>(userdata);
    device->latitude += device->drift / METRES_PER_DEGREE_OF_LATITUDE;
    sd_bus_emit_properties_changed(device->bus, PATH, SERVICE, "latitude", nullptr);
    sd_event_source_set_time(source, usec + 1'000'000);
    return 0;
}

device_t parse_options(int argc, char** argv) {
    enum { LAT = 1, LON, HEADING, INVALID, DRIFT };
    static const option long_options[] = {{"lat", required_argument, nullptr, LAT},
                                          {"lon", required_argument, nullptr, LON},
                                          {"heading", required_argument, nullptr, HEADING},
                                          {"invalid", no_argument, nullptr, INVALID},
                                          {"drift", required_argument, nullptr, DRIFT},
                                          {nullptr, 0, nullptr, 0}};
    device_t device;
    tool_parse_options(argc, argv, long_options, USAGE, [&](int option, const char* value) {
        switch (option) {
            case LAT:
                device.latitude = tool_number(value, "--lat", -90, 90);
                break;
            case LON:
                device.longitude = tool_number(value, "--lon", -180, 180);
                break;
            case HEADING:
                device.heading = tool_number(value, "--heading", -360, 360);
                break;
            case INVALID:
                device.valid = false;
                break;
            case DRIFT:
                device.drift = tool_number(value, "--drift", -10'000, 10'000);
                break;
        }
    });
    tool_no_arguments(argc, argv);
    return device;
}

}  // namespace

int main(int argc, char** argv) {
    tool_init("radarscene-geosim");
    device_t device = parse_options(argc, argv);
    sd_event_owner loop = tool_event_loop();
    sd_event* event = loop.get();

    device.bus = tool_system_bus();
    std::unique_ptr<sd_bus, sd_bus* (*)(sd_bus*)> bus_owner(device.bus, sd_bus_flush_close_unref);
    tool_check(sd_bus_add_object_vtable(device.bus, nullptr, PATH, SERVICE, VTABLE, &device),
               "cannot publish the service object");
    tool_check(sd_bus_request_name(device.bus, SERVICE, 0), "cannot own com.tessel.GeoLocation1");
    tool_check(sd_bus_attach_event(device.bus, event, 0), "sd_bus_attach_event");
    if (device.drift != 0) {
        uint64_t now = 0;
        sd_event_now(event, CLOCK_MONOTONIC, &now);
        sd_event_source* timer = nullptr;
        tool_check(sd_event_add_time(event, &timer, CLOCK_MONOTONIC, now + 1'000'000, 0, on_drift,
                                     &device),
                   "sd_event_add_time");
        sd_event_source_set_enabled(timer, SD_EVENT_ON);
        sd_event_source_set_floating(timer, 1);
    }
    int r = sd_event_loop(event);
    sd_bus_detach_event(device.bus);
    return r < 0 ? 1 : 0;
}
