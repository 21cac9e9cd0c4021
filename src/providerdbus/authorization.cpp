#include "providerdbus/authorization.h"

#include "common/log.h"

#include "providerdbus/sdbuscompat.h"

#include <permo2/permo2.h>

#include <pwd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace {

constexpr const char* ACCESS_DENIED = "org.freedesktop.DBus.Error.AccessDenied";

}  // namespace

void check_authorization_permo(const sdbus::Message& message) {
    std::string sender = sdbus_compat::text(message.getSender());
    std::string member = sdbus_compat::text(message.getMemberName());

    errno = 0;
    uid_t euid = message.getCredsEuid();
    passwd* entry = getpwuid(euid);
    if (!entry || !entry->pw_name) {
        log_error("getpwuid: Failed to look up user for sender %s: %s", sender.c_str(),
                  strerror(errno));
        char reply[1024];
        snprintf(reply, sizeof(reply), "Unauthorized: failed to look up sender %s with euid %d",
                 sender.c_str(), static_cast<int>(euid));
        throw sdbus_compat::error(ACCESS_DENIED, reply);
    }

    char permission[1024];
    snprintf(permission, sizeof(permission), "%s.%s",
             sdbus_compat::text(message.getInterfaceName()).c_str(), member.c_str());
    permo2_error error;
    memset(&error, 0, sizeof(error));
    if (permo2_check_username(entry->pw_name, permission, &error)) {
        return;
    }
    if (error.code == PERMO2_ERROR_NOT_AUTHORIZED) {
        log_error("%s: %s is not authorized for %s", __func__, sender.c_str(), member.c_str());
    } else {
        log_error("%s: Internal error %d for %s", __func__, error.code, member.c_str());
    }
    char reply[1024];
    snprintf(reply, sizeof(reply), "%s", error.message);
    throw sdbus_compat::error(ACCESS_DENIED, reply);
}
