#pragma once

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <atomic>
#include <memory>
#include <shared_mutex>
#include <string>

// Follows the device's position and heading as published by the platform's
// geolocation service on the system bus. The values are written on the event
// loop thread and read from any thread without a lock; each one is an atomic
// of its own, so a reader may combine values of two updates.
class GeoLocation {
public:
    explicit GeoLocation(sd_event* event);
    ~GeoLocation();
    GeoLocation(const GeoLocation&) = delete;
    GeoLocation& operator=(const GeoLocation&) = delete;

    // Reads all properties once with a GetAll call on a short-lived
    // connection; failures are logged and the previous values kept.
    void initProperties();

    sd_bus* bus = nullptr;
    const std::string service;
    const std::string path;
    const std::string interface;
    const std::string properties_interface;
    std::atomic<double> heading{0};
    std::atomic<double> latitude{0};
    std::atomic<double> longitude{0};
    std::atomic<double> elevation{0};
    std::atomic<bool> valid{false};
    std::atomic<double> lon_deg_per_metre{0};
    std::atomic<double> lat_deg_per_metre{0};

private:
    int parseProperties(sd_bus_message* message);
    void readProperties(sd_bus_message* message);
    int handlePropertiesChanged(sd_bus_message* message);
    int handleNameOwnerChanged(sd_bus_message* message);
    void setLatitude(double value);
    static int onPropertiesChanged(sd_bus_message* message, void* self, sd_bus_error* error);
    static int onNameOwnerChanged(sd_bus_message* message, void* self, sd_bus_error* error);

    sd_bus_slot* name_owner_slot_ = nullptr;
    sd_bus_slot* properties_slot_ = nullptr;
};

// Installs the process-wide client used by the projection. The previous one
// is destroyed once no reader holds it. Returns the installation's number.
uint64_t geolocation_set_current(std::unique_ptr<GeoLocation> client);

// Destroys the process-wide client if it is still the one installed as
// `generation`: a Sink takes its client off its event loop when it goes.
void geolocation_remove_current(uint64_t generation);

// A reader's hold on the process-wide client: the client it names stays
// alive while the reader lives. A process that never installed a client
// gets one of its own, built in the background from the first use on;
// until it is ready there is none (null).
class GeoLocationReader {
public:
    GeoLocationReader();
    const GeoLocation* get() const { return client_; }

private:
    std::shared_lock<std::shared_mutex> lock_;
    const GeoLocation* client_;
};
