// Gaps between scene times, and the time field read straight from a scene's wire bytes.
#include "scenegaps/scenegaps.h"

#include <cmath>

namespace {

bool read_varint(std::string_view& bytes, uint64_t& value) {
    value = 0;
    for (int shift = 0; shift < 64 && !bytes.empty(); shift += 7) {
        auto byte = static_cast<uint8_t>(bytes.front());
        bytes.remove_prefix(1);
        value |= static_cast<uint64_t>(byte & 0x7f) << shift;
        if (!(byte & 0x80)) {
            return true;
        }
    }
    return false;
}

bool skip(std::string_view& bytes, uint64_t size) {
    if (size > bytes.size()) {
        return false;
    }
    bytes.remove_prefix(size);
    return true;
}

}  // namespace

void scene_gaps_add(scene_gaps_t& gaps, uint64_t time) {
    if (time == 0) {
        return;
    }
    if (gaps.last_time != 0 && time > gaps.last_time) {
        double gap = static_cast<double>(time - gaps.last_time);
        if (gaps.period > 0 && gap > 1.5 * gaps.period) {
            gaps.missing += static_cast<uint64_t>(std::lround(gap / gaps.period)) - 1;
        } else {
            gaps.period = gaps.period > 0 ? 0.9 * gaps.period + 0.1 * gap : gap;
        }
    }
    gaps.last_time = time;
}

void scene_gaps_restart(scene_gaps_t& gaps) {
    gaps.last_time = 0;
}

uint64_t scene_time(std::string_view scene) {
    constexpr uint64_t TIME_FIELD = 1;
    uint64_t tag = 0;
    uint64_t value = 0;
    while (read_varint(scene, tag)) {
        switch (tag & 7) {
            case 0:
                if (!read_varint(scene, value)) {
                    return 0;
                }
                if (tag >> 3 == TIME_FIELD) {
                    return value;
                }
                break;
            case 1:
                if (!skip(scene, 8)) {
                    return 0;
                }
                break;
            case 2:
                if (!read_varint(scene, value) || !skip(scene, value)) {
                    return 0;
                }
                break;
            case 5:
                if (!skip(scene, 4)) {
                    return 0;
                }
                break;
            default:
                return 0;
        }
    }
    return 0;
}
