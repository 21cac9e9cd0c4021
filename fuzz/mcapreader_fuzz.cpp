// Feeds arbitrary bytes to the MCAP reader as a file: it must report what it
// cannot read (an exception for a file that is not MCAP, skipped chunks,
// where a cut-off file ends) and never crash or allocate past its bounds.

#include "mcap.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <stdexcept>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    int fd = memfd_create("mcap", MFD_CLOEXEC);
    if (fd < 0 || write(fd, data, size) != static_cast<ssize_t>(size)) {
        abort();
    }
    try {
        McapReader reader(fd);
        size_t bytes = 0;
        reader.readMessages({}, 0, UINT64_MAX,
                            [&](const mcap_message_t& m) { bytes += m.data.size(); });
        if (bytes > size * 256 + (1u << 20)) {
            abort();  // more message bytes than the chunks could hold
        }
    } catch (const std::runtime_error&) {
        // Not an MCAP file, or a record that reaches past its end.
    }
    close(fd);
    return 0;
}
