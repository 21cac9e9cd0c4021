#pragma once

// Everything that differs between the sdbus-c++ majors the library builds
// against, each difference named once. The build defines
// RADARSCENE_SDBUSCPP_MAJOR from the sdbus-c++ package it found.

#include <sdbus-c++/sdbus-c++.h>

#include <fcntl.h>

#include <cstdint>
#include <optional>
#include <string>

namespace sdbus_compat {

#if RADARSCENE_SDBUSCPP_MAJOR >= 2

using ServiceName = sdbus::ServiceName;
using ObjectPath = sdbus::ObjectPath;
using InterfaceName = sdbus::InterfaceName;
using ErrorName = sdbus::Error::Name;

// The message being served by `object`; only valid inside its handler.
inline sdbus::Message current_message(const sdbus::IObject& object) {
    return object.getCurrentlyProcessedMessage();
}

// The error argument of an asynchronous call's reply handler.
using async_error = std::optional<sdbus::Error>;

// Processes one pending request, signal or wake-up; false when none was.
inline bool process_one(sdbus::IConnection& connection) {
    return connection.processPendingEvent();
}

// When the connection wants service next: absolute CLOCK_MONOTONIC
// microseconds, UINT64_MAX for never.
inline uint64_t poll_timeout_usec(const sdbus::IConnection::PollData& poll) {
    return poll.timeout == std::chrono::microseconds::max()
               ? UINT64_MAX
               : static_cast<uint64_t>(poll.timeout.count());
}

// The descriptor that other threads' calls on the connection make readable.
inline int wakeup_fd(const sdbus::IConnection::PollData& poll) {
    return poll.eventFd;
}

#else

using ServiceName = std::string;
using ObjectPath = std::string;
using InterfaceName = std::string;
using ErrorName = std::string;

inline const sdbus::Message& current_message(const sdbus::IObject& object) {
    return *object.getCurrentlyProcessedMessage();
}

using async_error = const sdbus::Error*;

inline bool process_one(sdbus::IConnection& connection) {
    return connection.processPendingRequest();
}

inline uint64_t poll_timeout_usec(const sdbus::IConnection::PollData& poll) {
    return poll.timeout_usec;
}

// 1.x has no wake-up descriptor: calls from other threads do not wake the loop.
inline int wakeup_fd(const sdbus::IConnection::PollData&) {
    return -1;
}

#endif

// A close-on-exec copy of `fd` for a reply, or nothing when it cannot be
// made (descriptors exhausted). UnixFd(int) itself does not check in 1.x,
// throws std::system_error in 2.x, and sets no close-on-exec in either.
inline std::optional<sdbus::UnixFd> duplicate_fd(int fd) {
    int copy = fcntl(fd, F_DUPFD_CLOEXEC, 3);
    if (copy < 0) {
        return std::nullopt;
    }
    return sdbus::UnixFd(copy, sdbus::adopt_fd);
}

// Message getters return std::string in 1.x and possibly null C strings in 2.x.
inline std::string text(const char* s) {
    return s ? s : "";
}
inline std::string text(std::string s) {
    return s;
}

inline sdbus::Error error(const char* name, const std::string& message) {
    return sdbus::Error(ErrorName(name), message);
}

}  // namespace sdbus_compat
