#pragma once

#include <sys/types.h>

#include <string>

// A private dbus-daemon owned by a test. While it lives, both the system and
// the session bus addresses of the process point at it.
class TestBus {
public:
    TestBus();
    ~TestBus();
    TestBus(const TestBus&) = delete;
    TestBus& operator=(const TestBus&) = delete;

    const std::string& address() const { return address_; }

private:
    std::string dir_;
    std::string address_;
    pid_t pid_ = -1;
};
