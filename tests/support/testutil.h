#pragma once

#include <chrono>
#include <functional>
#include <string>

// Polls `condition` until it holds or `timeout` passes; `step` runs between
// polls (for example one round of an event loop).
bool wait_until(const std::function<bool()>& condition,
                std::chrono::milliseconds timeout = std::chrono::seconds(5),
                const std::function<void()>& step = {});

// Redirects standard error into a file while it lives, so that tests can
// check the log lines the library writes.
class StderrCapture {
public:
    StderrCapture();
    ~StderrCapture();
    StderrCapture(const StderrCapture&) = delete;
    StderrCapture& operator=(const StderrCapture&) = delete;

    std::string text() const;
    int count(const std::string& needle) const;

private:
    int saved_fd_ = -1;
    std::string path_;
};

// Reads one length-prefixed scene record from a subscriber socket. Returns
// false on end of stream or when nothing arrives within `timeout`.
bool read_record(int fd, std::string& payload,
                 std::chrono::milliseconds timeout = std::chrono::seconds(5));
// True when nothing is readable on `fd` right now.
bool nothing_to_read(int fd);

// Field numbers present at the top level of protobuf bytes, in wire order.
std::string wire_fields(const std::string& bytes);
// The bytes of the first length-delimited field `number`, or "" when absent.
std::string wire_submessage(const std::string& bytes, int number, int index = 0);
