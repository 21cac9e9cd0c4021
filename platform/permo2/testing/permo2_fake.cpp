#include "permo2_fake.h"

#include <cstdio>
#include <mutex>
#include <optional>

namespace {

struct refusal {
    int code;
    std::string message;
};

std::mutex mutex;
std::optional<std::string> init_failure;
std::optional<refusal> refusing;
bool is_initialised = false;
std::vector<permo2_fake::check> recorded;

}  // namespace

namespace permo2_fake {

void reset() {
    std::lock_guard lock(mutex);
    init_failure.reset();
    refusing.reset();
    recorded.clear();
}

void fail_init(const std::string& message) {
    std::lock_guard lock(mutex);
    init_failure = message;
}

void refuse(int code, const std::string& message) {
    std::lock_guard lock(mutex);
    refusing = refusal{code, message};
}

bool initialised() {
    std::lock_guard lock(mutex);
    return is_initialised;
}

std::vector<check> checks() {
    std::lock_guard lock(mutex);
    return recorded;
}

size_t check_count() {
    std::lock_guard lock(mutex);
    return recorded.size();
}

}  // namespace permo2_fake

extern "C" bool permo2_init(permo2_error* error, int) {
    std::lock_guard lock(mutex);
    if (init_failure) {
        error->code = 1;
        snprintf(error->message, sizeof(error->message), "%s", init_failure->c_str());
        init_failure.reset();
        return false;
    }
    is_initialised = true;
    return true;
}

extern "C" bool permo2_check_username(const char* username, const char* permission,
                                      permo2_error* error) {
    std::lock_guard lock(mutex);
    recorded.push_back({username, permission});
    if (refusing) {
        error->code = refusing->code;
        snprintf(error->message, sizeof(error->message), "%s", refusing->message.c_str());
        return false;
    }
    return true;
}

extern "C" void permo2_release(void) {
    std::lock_guard lock(mutex);
    is_initialised = false;
}
