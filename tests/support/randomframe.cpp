#include "support/randomframe.h"

#include <bit>
#include <climits>
#include <cmath>
#include <limits>

using namespace RadarScene;

namespace {

double random_double(const word_source& next) {
    static const double special[] = {0.0,
                                     -0.0,
                                     std::numeric_limits<double>::quiet_NaN(),
                                     std::numeric_limits<double>::infinity(),
                                     -std::numeric_limits<double>::infinity(),
                                     1e-50,  // narrows to 0.0f
                                     1e300,  // narrows to infinity
                                     16777217.0,
                                     -1.0};
    uint32_t choice = next() % 12;
    if (choice < std::size(special)) {
        return special[choice];
    }
    if (choice == 9) {  // any bit pattern
        uint64_t bits = static_cast<uint64_t>(next()) << 32 | next();
        return std::bit_cast<double>(bits);
    }
    return static_cast<double>(static_cast<int32_t>(next())) / 1024.0;
}

int32_t random_class(const word_source& next) {
    static const int32_t ids[] = {-1, 0, 1, 30, 31, 32, INT_MIN, INT_MAX};
    uint32_t choice = next() % 10;
    return choice < std::size(ids) ? ids[choice] : static_cast<int32_t>(next() % 40);
}

std::string random_text(const word_source& next) {
    static const std::string texts[] = {"", "range", "blocked \xc3\xa4", std::string(200, 'x')};
    return texts[next() % std::size(texts)];
}

FrameObject random_object(const word_source& next) {
    FrameObject o;
    uint32_t present = next();
    o.id = static_cast<int32_t>(next() & INT_MAX);
    if (present & 1u << FrameObject::BOUNDING_BOX) {
        o.set_bounding_box(
            {random_double(next), random_double(next), random_double(next), random_double(next)});
    }
    if (present & 1u << FrameObject::POLYGON) {
        // Mostly short, sometimes long enough for multi-byte lengths.
        size_t points = next() % 8 == 0 ? next() % 3000 : next() % 5;
        std::vector<std::array<double, 2>> polygon(points);
        for (auto& p : polygon) {
            p = {random_double(next), random_double(next)};
        }
        o.set_polygon(std::move(polygon));
    }
    if (present & 1u << FrameObject::VELOCITY) {
        o.set_velocity({random_double(next), random_double(next)});
    }
    if (present & 1u << FrameObject::CONFIDENCE) {
        o.set_confidence(random_double(next));
    }
    if (present & 1u << FrameObject::POSITION) {
        o.set_position({random_double(next), random_double(next), random_double(next)});
    }
    if (present & 1u << FrameObject::VELOCITY3D) {
        o.set_velocity3d({random_double(next), random_double(next), random_double(next)});
    }
    if (present & 1u << FrameObject::CLASSIFICATIONS) {
        std::vector<Classification> classes(1 + next() % 3);
        for (Classification& c : classes) {
            c.id = random_class(next);
            if (next() % 2) {
                c.confidence = random_double(next);
            }
        }
        o.set_classifications(std::move(classes));
    }
    if (present & 1u << FrameObject::COVARIANCE) {
        std::vector<double> covariance(next() % 17);
        for (double& element : covariance) {
            element = random_double(next);
        }
        o.set_covariance(std::move(covariance));
    }
    if (present & 1u << FrameObject::AREA) {
        o.set_area(random_double(next));
    }
    if (present & 1u << FrameObject::GEOPOSITION) {
        o.set_geoposition({random_double(next), random_double(next), random_double(next)});
    }
    return o;
}

}  // namespace

Frame random_frame(const word_source& next) {
    Frame frame;
    uint32_t parts = next();
    frame.time = parts & 1 ? 0 : static_cast<uint64_t>(next()) << (next() % 33);
    if (parts & 2) {
        RadarStatus status{(parts & 4) != 0, (parts & 8) != 0, {}};
        for (uint32_t i = next() % 3; i > 0; --i) {
            status.failures.push_back(
                {random_text(next), static_cast<int32_t>(next()), next() % 2 == 1});
        }
        frame.status = status;
    }
    if (parts & 16) {
        frame.orientation = RadarOrientation{random_double(next), random_double(next)};
    }
    if (parts & 32) {
        frame.param_changed = random_text(next);
    }
    for (uint32_t i = next() % 6; i > 0; --i) {
        frame.objects.push_back(random_object(next));
    }
    return frame;
}

SerializeFrameOptions random_options(const word_source& next) {
    uint32_t bits = next();
    SerializeFrameOptions options;
    options.bounding_box = bits & 1;
    options.polygon = bits & 2;
    options.velocity = bits & 4;
    options.geolocation = bits & 8;
    options.raw = bits & 16;
    options.filtered_classes = next();
    return options;
}
