#pragma once

#include <cstddef>
#include <string>

// Standard base64 (RFC 4648 alphabet, '=' padding, no line breaks) of `size`
// bytes into `out`, which must hold 4 * ceil(size / 3) characters. Returns
// the number of characters written.
size_t base64_encode(const char* data, size_t size, char* out);
