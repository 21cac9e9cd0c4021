#pragma once

#include <systemd/sd-event.h>

#include <atomic>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

// An sd_event loop served by a thread of its own, as a producer would run
// it. `run` executes a task on the loop thread and waits for it.
class EventLoopThread {
public:
    EventLoopThread();
    ~EventLoopThread();
    EventLoopThread(const EventLoopThread&) = delete;
    EventLoopThread& operator=(const EventLoopThread&) = delete;

    sd_event* event() const { return event_; }
    void start();
    void stop();
    void run(const std::function<void()>& task);

private:
    static int on_wakeup(sd_event_source* source, int fd, uint32_t events, void* self);

    sd_event* event_ = nullptr;
    sd_event_source* wakeup_source_ = nullptr;
    int wakeup_fd_ = -1;
    std::thread thread_;
    std::atomic<bool> running_{false};
    std::mutex mutex_;
    std::deque<std::function<void()>> tasks_;
};
