// Feeds arbitrary bytes to the streaming MCAP reader as a file, twice over
// (read, rewind, read): it must report what it cannot read (an exception for
// a file that is not MCAP, skipped records, where a cut-off file ends) and
// never crash, read a record twice or allocate past its bounds.

#include "mcapreader.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <stdexcept>

namespace {

// The message bytes of one pass; aborts on more than the file can hold.
size_t read_all(McapReader& reader, size_t size) {
    size_t bytes = 0;
    mcap_message_t m;
    while (reader.next(m)) {
        bytes += m.data.size();
        if (bytes > size * 256 + (1u << 20)) {
            abort();  // more message bytes than the chunks could hold
        }
    }
    return bytes;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    int fd = memfd_create("mcap", MFD_CLOEXEC);
    if (fd < 0 || write(fd, data, size) != static_cast<ssize_t>(size)) {
        abort();
    }
    try {
        McapReader reader(fd, "input");
        size_t first = read_all(reader, size);
        reader.rewind();
        if (read_all(reader, size) != first) {
            abort();  // a second pass must read the same
        }
    } catch (const std::runtime_error&) {
        // Not an MCAP file.
    }
    close(fd);
    return 0;
}
