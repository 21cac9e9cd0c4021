#include "geolocation/geoprojection.h"

#include "geolocation/geolocation.h"

#include <cmath>

namespace {

constexpr double DEG_TO_RAD = 0.017453292519943295;
constexpr double WGS84_EQUATORIAL_RADIUS = 6378137.0;
constexpr double WGS84_E2 = 0.006694379990197619;
constexpr double WGS84_ONE_MINUS_E2_SQUARED = 0.9866560547430581;

}  // namespace

geo_scale_factors geo_compute_scale_factors(double latitude) {
    double phi = latitude * DEG_TO_RAD;
    double s = std::sin(phi);
    double c = std::cos(phi);
    double radius = WGS84_EQUATORIAL_RADIUS *
                    std::sqrt(c * c + WGS84_ONE_MINUS_E2_SQUARED * s * s) /
                    std::sqrt(1 - WGS84_E2 * s * s);
    double k = radius * DEG_TO_RAD;
    geo_scale_factors factors;
    factors.lat_deg_per_metre = 1 / (k - (1.175 * std::cos(4 * phi) + 559.822 * std::cos(2 * phi) -
                                          0.0023 * std::cos(6 * phi)));
    factors.lon_deg_per_metre = 1 / (k * c - 93.5 * std::cos(3 * phi) + 0.118 * std::cos(5 * phi));
    return factors;
}

void geo_normalise(double& latitude, double& longitude) {
    if (std::fabs(latitude) > 90) {
        latitude = latitude > 90 ? 180 - latitude : -180 - latitude;
        longitude = longitude >= 0 ? longitude - 180 : longitude + 180;
    }
    if (std::fabs(longitude) > 360) {
        longitude = 0;
        return;
    }
    if (longitude > 180) {
        longitude -= 360;
    } else if (longitude < -180) {
        longitude += 360;
    }
}

geo_projection geo_project(const GeoLocation& device, double distance, double bearing) {
    double theta = std::fmod(450.0 - (bearing + device.heading), 360.0) * DEG_TO_RAD;
    geo_projection p;
    p.longitude = device.longitude + distance * std::cos(theta) * device.lon_deg_per_metre;
    p.latitude = device.latitude + distance * std::sin(theta) * device.lat_deg_per_metre;
    p.elevation = device.elevation;
    p.valid = device.valid;
    geo_normalise(p.latitude, p.longitude);
    return p;
}

namespace {

// Without a client (a process's own one not ready yet) an object has no
// position, as with an invalid device position.
geo_projection project_object(const RadarScene::FrameObject& object) {
    GeoLocationReader device;
    if (!device.get()) {
        return {0, 0, 0, false};
    }
    return geo_project(*device.get(), object.position.x, object.position.y);
}

}  // namespace

std::optional<geo_object_position> geo_object_query(const RadarScene::FrameObject& object,
                                                    bool force) {
    if (object.has_geoposition()) {
        return geo_object_position{object.geoposition.elevation, object.geoposition.latitude,
                                   object.geoposition.longitude};
    }
    if (!object.has_position()) {
        return std::nullopt;
    }
    geo_projection p = project_object(object);
    if (!force && !p.valid) {
        return std::nullopt;
    }
    return geo_object_position{p.elevation, p.latitude, p.longitude};
}

void RadarScene::addGeoLocation(Frame& frame) {
    for (FrameObject& object : frame.objects) {
        if (object.has_geoposition()) {
            continue;
        }
        FrameObject::GeoPosition geoposition;
        if (object.has_position()) {
            geo_projection p = project_object(object);
            geoposition = {p.elevation, p.latitude, p.longitude};
        }
        object.set_geoposition(geoposition);
    }
}
