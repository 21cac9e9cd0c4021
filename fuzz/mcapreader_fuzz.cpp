// Feeds arbitrary bytes to the MCAP reader as a file: it must report what it
// cannot read (an exception for a file that is not MCAP or whose chunks
// overlap too deeply, skipped records, where a cut-off file ends) and never
// crash or allocate past its bounds; every pass gives the messages in
// log-time order, each once, the same on a second pass, and each channel
// read on its own gives as many as the first pass counted. Replay's choice
// of a scene channel never picks one that the library does not serve.

#include "mcapreader.h"
#include "scenechannel.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <optional>
#include <stdexcept>
#include <vector>

namespace {

// The messages of one pass; aborts when they go back in time, belong to
// another channel than the one chosen, or hold more than the file can.
uint64_t read_all(McapReader& reader, size_t size, std::optional<uint16_t> channel = {}) {
    size_t bytes = 0;
    uint64_t messages = 0, last = 0;
    mcap_message_t m;
    while (reader.next(m)) {
        bytes += m.data.size();
        if (bytes > size * 256 + (1u << 20) || m.log_time < last ||
            (channel && m.channel_id != *channel)) {
            abort();
        }
        last = m.log_time;
        ++messages;
    }
    if (reader.report().out_of_order) {
        abort();  // the file did not change
    }
    return messages;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    int fd = memfd_create("mcap", MFD_CLOEXEC);
    if (fd < 0 || write(fd, data, size) != static_cast<ssize_t>(size)) {
        abort();
    }
    try {
        McapReader reader(fd, "input", {2});
        uint64_t first = read_all(reader, size);
        reader.rewind();
        if (read_all(reader, size) != first) {
            abort();  // a second pass must read the same
        }
        size_t checked = 0;
        for (const auto& [id, count] : reader.counts()) {
            if (checked++ == 4) {
                break;
            }
            reader.select(id);
            if (read_all(reader, size, id) != count.messages) {
                abort();  // each message of the channel, once
            }
        }
        std::vector<scene_channel_t> scenes = scene_channels(reader);
        const scene_channel_t* chosen = scene_channel_choose(scenes, {}, "input");
        if (chosen && (chosen->radar > 15 || chosen->messages == 0)) {
            abort();
        }
    } catch (const std::runtime_error&) {
        // Not an MCAP file, or chunks that overlap more deeply than allowed.
    }
    close(fd);
    return 0;
}
