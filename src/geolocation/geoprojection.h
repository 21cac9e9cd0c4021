#pragma once

#include <radarscene/RadarScene.h>

#include <optional>

class GeoLocation;

struct geo_scale_factors {
    double lon_deg_per_metre;
    double lat_deg_per_metre;
};

// A position projected from the device's position and heading.
struct geo_projection {
    double longitude;
    double latitude;
    double elevation;
    bool valid;  // the device position was valid when projected
};

struct geo_object_position {
    std::optional<double> elevation;
    double latitude;
    double longitude;
};

// Degrees per metre along the meridian and the parallel at `latitude`.
geo_scale_factors geo_compute_scale_factors(double latitude);

// Folds a latitude beyond the poles back and wraps the longitude once into
// [-180, 180]; a longitude beyond +-360 degrees becomes 0.
void geo_normalise(double& latitude, double& longitude);

// Projects an object at ground `distance` metres and `bearing` degrees
// clockwise from the device heading.
geo_projection geo_project(const GeoLocation& device, double distance, double bearing);

// The object's stored geoposition, else the projection of its position
// (only while the device position is valid, unless `force`), else nothing.
std::optional<geo_object_position> geo_object_query(const RadarScene::FrameObject& object,
                                                    bool force);
