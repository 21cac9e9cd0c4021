#include "geolocation/geolocation.h"

#include "common/log.h"
#include "common/syscall.h"
#include "common/unique_fd.h"
#include "geolocation/geoprojection.h"

#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <mutex>
#include <new>
#include <system_error>
#include <thread>
#include <utility>

namespace {

constexpr const char* NAME_OWNER_CHANGED_MATCH =
    "type='signal', sender='org.freedesktop.DBus', interface='org.freedesktop.DBus', "
    "member='NameOwnerChanged', arg0='com.tessel.GeoLocation1'";
constexpr const char* PROPERTIES_CHANGED_MATCH =
    "type='signal',sender='com.tessel.GeoLocation1',path='/com/tessel/GeoLocation1',"
    "interface='org.freedesktop.DBus.Properties',member='PropertiesChanged'";

// The service may own its name and never answer; the loop that waits for it
// must not stall for sd-bus's default of 25 seconds.
constexpr uint64_t GET_ALL_TIMEOUT_USEC = 2'000'000;

void log_failure(const char* where, const std::exception& e) {
    log_error("%s: %s", where, e.what());
}

// Enters the variant when it holds `contents`; false when it holds another type.
bool enter_variant(sd_bus_message* m, const char* contents) {
    int r = sd_bus_message_enter_container(m, SD_BUS_TYPE_VARIANT, contents);
    if (r == -ENXIO) {
        return false;
    }
    return check_call(r, "sd_bus_message_enter_container") > 0;
}

bool key_is(const char* key, std::string_view name) {
    return std::string_view(key) == name;
}

}  // namespace

GeoLocation::GeoLocation(sd_event* event)
    : service("com.tessel.GeoLocation1"),
      path("/com/tessel/GeoLocation1"),
      interface("com.tessel.GeoLocation1"),
      properties_interface("org.freedesktop.DBus.Properties") {
    try {
        check_call(sd_bus_open_system(&bus), "sd_bus_open_system");
        check_call(sd_bus_attach_event(bus, event, 0), "sd_bus_attach_event");
        check_call(sd_bus_add_match(bus, &name_owner_slot_, NAME_OWNER_CHANGED_MATCH,
                                    &GeoLocation::onNameOwnerChanged, this),
                   "sd_bus_add_match");
        check_call(sd_bus_add_match(bus, &properties_slot_, PROPERTIES_CHANGED_MATCH,
                                    &GeoLocation::onPropertiesChanged, this),
                   "sd_bus_add_match");
    } catch (const std::system_error& e) {
        log_failure("GeoLocation", e);
    }
    initProperties();
}

GeoLocation::~GeoLocation() {
    sd_bus_slot_unref(properties_slot_);
    sd_bus_slot_unref(name_owner_slot_);
    if (!bus) {
        return;
    }
    try {
        if (sd_bus_get_event(bus)) {
            check_call(sd_bus_detach_event(bus), "sd_bus_detach_event");
        }
        sd_bus_flush_close_unref(bus);
    } catch (const std::system_error& e) {
        log_failure("~GeoLocation", e);
    }
}

void GeoLocation::initProperties() {
    try {
        sd_bus* raw_bus = nullptr;
        check_call(sd_bus_open_system(&raw_bus), "sd_bus_open_system");
        sd_bus_ptr connection(raw_bus);
        check_call(sd_bus_set_method_call_timeout(raw_bus, GET_ALL_TIMEOUT_USEC),
                   "sd_bus_set_method_call_timeout");
        sd_bus_message* raw_reply = nullptr;
        sd_bus_error error = SD_BUS_ERROR_NULL;
        int r = sd_bus_call_method(connection.get(), service.c_str(), path.c_str(),
                                   properties_interface.c_str(), "GetAll", &error, &raw_reply, "s",
                                   interface.c_str());
        sd_bus_error_free(&error);
        sd_bus_message_ptr reply(raw_reply);
        check_call(r, "sd_bus_call_method");
        parseProperties(reply.get());
    } catch (const std::system_error& e) {
        log_failure("initProperties", e);
    }
}

void GeoLocation::setLatitude(double value) {
    latitude = value;
    geo_scale_factors factors = geo_compute_scale_factors(value);
    lat_deg_per_metre = factors.lat_deg_per_metre;
    lon_deg_per_metre = factors.lon_deg_per_metre;
}

// Reads an a{sv} of properties. Values of the expected type are stored;
// anything else is skipped. A malformed message is logged and its negative
// errno returned.
int GeoLocation::parseProperties(sd_bus_message* m) {
    try {
        readProperties(m);
    } catch (const std::system_error& e) {
        log_failure("parseProperties", e);
        return -e.code().value();
    }
    return 0;
}

void GeoLocation::readProperties(sd_bus_message* m) {
    check_call(sd_bus_message_enter_container(m, SD_BUS_TYPE_ARRAY, "{sv}"),
               "sd_bus_message_enter_container");
    while (check_call(sd_bus_message_enter_container(m, SD_BUS_TYPE_DICT_ENTRY, "sv"),
                      "sd_bus_message_enter_container") > 0) {
        const char* key = nullptr;
        check_call(sd_bus_message_read(m, "s", &key), "sd_bus_message_read");
        if (enter_variant(m, "d")) {
            double value = 0;
            check_call(sd_bus_message_read(m, "d", &value), "sd_bus_message_read");
            check_call(sd_bus_message_exit_container(m), "sd_bus_message_exit_container");
            if (key_is(key, "latitude")) {
                setLatitude(value);
            } else if (key_is(key, "longitude")) {
                longitude = value;
            } else if (key_is(key, "heading")) {
                heading = value;
            }
        } else if (enter_variant(m, "b")) {
            int value = 0;
            check_call(sd_bus_message_read(m, "b", &value), "sd_bus_message_read");
            check_call(sd_bus_message_exit_container(m), "sd_bus_message_exit_container");
            if (key_is(key, "valid_pos")) {
                valid = value != 0;
            }
        } else {
            check_call(sd_bus_message_skip(m, "v"), "sd_bus_message_skip");
        }
        check_call(sd_bus_message_exit_container(m), "sd_bus_message_exit_container");
    }
    check_call(sd_bus_message_exit_container(m), "sd_bus_message_exit_container");
}

int GeoLocation::handlePropertiesChanged(sd_bus_message* m) {
    try {
        const char* changed_interface = nullptr;
        check_call(sd_bus_message_read(m, "s", &changed_interface), "sd_bus_message_read");
    } catch (const std::system_error& e) {
        log_failure("handlePropertiesChanged", e);
        return -e.code().value();
    }
    return parseProperties(m);
}

int GeoLocation::handleNameOwnerChanged(sd_bus_message* m) {
    try {
        const char* name = nullptr;
        const char* old_owner = nullptr;
        const char* new_owner = nullptr;
        check_call(sd_bus_message_read(m, "sss", &name, &old_owner, &new_owner),
                   "sd_bus_message_read");
        if (new_owner && *new_owner) {
            initProperties();
        }
    } catch (const std::system_error& e) {
        log_failure("handleNameOwnerChanged", e);
        return -1;
    }
    return 0;
}

int GeoLocation::onPropertiesChanged(sd_bus_message* m, void* self, sd_bus_error*) {
    return static_cast<GeoLocation*>(self)->handlePropertiesChanged(m);
}

int GeoLocation::onNameOwnerChanged(sd_bus_message* m, void* self, sd_bus_error*) {
    return static_cast<GeoLocation*>(self)->handleNameOwnerChanged(m);
}

namespace {

// Guards `current_client` and `own_client`: readers share it while they
// project, and a replacement waits for them before it destroys a client.
std::shared_mutex current_mutex;
std::unique_ptr<GeoLocation> current_client;
uint64_t current_generation = 0;  // counts installations; names the current one
const GeoLocation* own_client = nullptr;

// The client of a process that never installed one (a consumer without a
// Sink). It is built on a thread of its own, so that its bus connection and
// first GetAll never run inside a caller's locks; projections made before
// it is ready carry no device position. The thread follows the service from
// its own event loop until the process exits.
class OwnClientThread {
public:
    ~OwnClientThread() {
        if (thread_) {
            uint64_t one = 1;
            ssize_t ignored = write(stop_fd_.get(), &one, sizeof(one));
            (void)ignored;
            thread_->join();
        }
    }

    // Starts the thread on the first call. The caller holds current_mutex,
    // shared, so start_mutex_ is free whenever fork() runs.
    void start() {
        std::lock_guard lock(start_mutex_);
        if (!thread_) {
            stop_fd_.reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
            thread_ = std::make_unique<std::thread>([this] { run(); });
        }
    }

    // In a forked child: the thread stayed with the parent, and so does the
    // eventfd that stops it. The child lets go of both without touching
    // them (its exit must not stop the parent's thread), and its next
    // projection starts a client of its own. Returns the thread's handle.
    std::thread* forget_after_fork() {
        stop_fd_.reset();
        return thread_.release();
    }

private:
    void run() {
        sd_event* raw_event = nullptr;
        int r = sd_event_new(&raw_event);
        if (r < 0) {
            log_error("GeoLocation: sd_event_new: %s", strerror(-r));
            return;
        }
        sd_event_ptr event(raw_event);
        sd_event_add_io(raw_event, nullptr, stop_fd_.get(), EPOLLIN, &OwnClientThread::on_stop,
                        nullptr);
        auto client = std::make_unique<GeoLocation>(raw_event);
        {
            std::unique_lock lock(current_mutex);
            own_client = client.get();
        }
        sd_event_loop(raw_event);
        std::unique_lock lock(current_mutex);
        own_client = nullptr;
    }

    static int on_stop(sd_event_source* source, int, uint32_t, void*) {
        return sd_event_exit(sd_event_source_get_event(source), 0);
    }

    unique_fd stop_fd_;
    std::mutex start_mutex_;
    std::unique_ptr<std::thread> thread_;
};

OwnClientThread own_client_thread;

// fork() runs with current_mutex held, so that the client pointers are in
// a settled state. In the child, every client inherited belongs to a loop
// or thread that runs only in the parent: they are let go of unused (their
// connections are the parent's) and the child's first projection builds its
// own. The child cannot unlock a lock taken under the parent's thread id,
// so it starts from a new one.
void lock_for_fork() {
    current_mutex.lock();
}
void unlock_in_parent() {
    current_mutex.unlock();
}
// What a forked child let go of, referenced from here only so that leak
// checkers see it held (`used`: the stores stay though nothing reads them):
// the child never uses or frees it.
struct inherited_clients_t {
    const GeoLocation* current;
    const GeoLocation* own;
    const std::thread* own_thread;
};
[[gnu::used]] inherited_clients_t inherited_clients;

void forget_clients_in_child() {
    inherited_clients = {current_client.release(), own_client,
                         own_client_thread.forget_after_fork()};
    own_client = nullptr;
    new (&current_mutex) std::shared_mutex;
}
[[maybe_unused]] const int fork_handlers =
    pthread_atfork(lock_for_fork, unlock_in_parent, forget_clients_in_child);

}  // namespace

uint64_t geolocation_set_current(std::unique_ptr<GeoLocation> client) {
    std::unique_ptr<GeoLocation> previous;
    std::unique_lock lock(current_mutex);
    previous = std::exchange(current_client, std::move(client));
    uint64_t generation = ++current_generation;
    lock.unlock();
    return generation;
}

void geolocation_remove_current(uint64_t generation) {
    std::unique_ptr<GeoLocation> removed;
    std::unique_lock lock(current_mutex);
    if (current_generation == generation) {
        removed = std::move(current_client);
    }
    lock.unlock();
}

GeoLocationReader::GeoLocationReader() : lock_(current_mutex), client_(current_client.get()) {
    if (!client_) {
        client_ = own_client;
        own_client_thread.start();
    }
}
