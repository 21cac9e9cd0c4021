#pragma once

#include "geolocation/geolocation.h"
#include "geolocation/geoprojection.h"

#include <stdlib.h>

#include <memory>

// Installs a process-wide geolocation client with a given device state and
// no bus behind it, for tests of the projection and the serializer.
inline GeoLocation& install_device(double latitude, double longitude, double heading, bool valid) {
    const char* saved = getenv("DBUS_SYSTEM_BUS_ADDRESS");
    std::string restore = saved ? saved : "";
    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/radarscene-test", 1);
    auto device = std::make_unique<GeoLocation>(nullptr);
    if (saved) {
        setenv("DBUS_SYSTEM_BUS_ADDRESS", restore.c_str(), 1);
    } else {
        unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
    }
    geo_scale_factors factors = geo_compute_scale_factors(latitude);
    device->latitude = latitude;
    device->longitude = longitude;
    device->heading = heading;
    device->valid = valid;
    device->lat_deg_per_metre = factors.lat_deg_per_metre;
    device->lon_deg_per_metre = factors.lon_deg_per_metre;
    GeoLocation& ref = *device;
    geolocation_set_current(std::move(device));
    return ref;
}
