#pragma once

#include <permo2/permo2.h>

#include <string>
#include <vector>

// Test double of the access-policy library: grants everything until told
// otherwise and records every check it is asked.
namespace permo2_fake {

struct check {
    std::string user;
    std::string permission;
};

void reset();
// The next permo2_init fails with `message`.
void fail_init(const std::string& message);
// Every later check is refused with `code` and `message`.
void refuse(int code, const std::string& message);
bool initialised();
std::vector<check> checks();
size_t check_count();

}  // namespace permo2_fake
