#include "common/log.h"
#include "common/syscall.h"

#include <radarscene/RadarScene.h>
#include <systemd/sd-bus.h>

#include <memory>
#include <stdexcept>
#include <system_error>

namespace {

constexpr const char* DESTINATION = "com.tessel.RadarSceneProvider1";
constexpr const char* OBJECT_PATH = "/com/tessel/RadarSceneProvider1";
constexpr const char* INTERFACE = "com.tessel.RadarSceneProvider1.Scene";

sd_bus_ptr open_system_bus() {
    sd_bus* bus = nullptr;
    check_call(sd_bus_open_system(&bus), "sd_bus_open_system");
    return sd_bus_ptr(bus);
}

// Reads the reply's array of `element` values with `read_one` until it ends.
template <typename ReadOne>
void read_array(sd_bus_message* reply, const char* element, ReadOne&& read_one) {
    check_call(sd_bus_message_enter_container(reply, SD_BUS_TYPE_ARRAY, element),
               "sd_bus_message_enter_container");
    while (sd_bus_message_at_end(reply, false) == 0) {
        read_one();
    }
    check_call(sd_bus_message_exit_container(reply), "sd_bus_message_exit_container");
}

// Runs a query; D-Bus trouble is logged and yields an empty result.
template <typename Result, typename Body>
Result logged_query(Body&& body) {
    try {
        return body();
    } catch (const std::system_error& e) {
        log_error("%s", e.what());
    } catch (const std::runtime_error& e) {
        log_error("%s", e.what());
    }
    return Result();
}

}  // namespace

std::vector<int32_t> RadarScene::getSupportedRadarChannels() {
    return logged_query<std::vector<int32_t>>([] {
        sd_bus_ptr bus = open_system_bus();
        sd_bus_error error = SD_BUS_ERROR_NULL;
        sd_bus_message* raw_reply = nullptr;
        int r = sd_bus_call_method(bus.get(), DESTINATION, OBJECT_PATH, INTERFACE,
                                   "GetSupportedChannels", &error, &raw_reply, "");
        sd_bus_message_ptr reply(raw_reply);
        if (r < 0) {
            std::string message = error.message ? error.message : strerror(-r);
            log_error("Failed to get supported radar channels: %s", message.c_str());
            sd_bus_error_free(&error);
            throw std::runtime_error(message);
        }
        std::vector<int32_t> channels;
        read_array(reply.get(), "i", [&] {
            int32_t channel = 0;
            check_call(sd_bus_message_read(reply.get(), "i", &channel), "sd_bus_message_read");
            channels.push_back(channel);
        });
        return channels;
    });
}

std::map<int32_t, std::string> RadarScene::getSupportedClasses() {
    return logged_query<std::map<int32_t, std::string>>([] {
        sd_bus_ptr bus = open_system_bus();
        sd_bus_error error = SD_BUS_ERROR_NULL;
        sd_bus_message* raw_reply = nullptr;
        int r = sd_bus_call_method(bus.get(), DESTINATION, OBJECT_PATH, INTERFACE,
                                   "GetObjectClassifications", &error, &raw_reply, "i", 1);
        sd_bus_message_ptr reply(raw_reply);
        if (r < 0) {
            std::string message = error.message ? error.message : strerror(-r);
            sd_bus_error_free(&error);
            throw std::runtime_error(message);
        }
        std::map<int32_t, std::string> classes;
        read_array(reply.get(), "{is}", [&] {
            int32_t id = 0;
            const char* name = nullptr;
            check_call(sd_bus_message_read(reply.get(), "{is}", &id, &name), "sd_bus_message_read");
            classes[id] = name;
        });
        return classes;
    });
}
