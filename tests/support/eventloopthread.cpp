#include "support/eventloopthread.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <future>

EventLoopThread::EventLoopThread() {
    sd_event_new(&event_);
    wakeup_fd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    sd_event_add_io(event_, &wakeup_source_, wakeup_fd_, EPOLLIN, &EventLoopThread::on_wakeup,
                    this);
}

EventLoopThread::~EventLoopThread() {
    stop();
    sd_event_source_disable_unref(wakeup_source_);
    close(wakeup_fd_);
    sd_event_unref(event_);
}

void EventLoopThread::start() {
    running_ = true;
    thread_ = std::thread([this] {
        while (running_) {
            sd_event_run(event_, 100'000);
        }
    });
}

void EventLoopThread::stop() {
    if (!thread_.joinable()) {
        return;
    }
    run([this] { running_ = false; });
    thread_.join();
}

void EventLoopThread::run(const std::function<void()>& task) {
    if (!thread_.joinable()) {
        task();
        return;
    }
    std::promise<void> done;
    {
        std::lock_guard lock(mutex_);
        tasks_.push_back([&] {
            try {
                task();
                done.set_value();
            } catch (...) {
                done.set_exception(std::current_exception());
            }
        });
    }
    uint64_t one = 1;
    ssize_t ignored = write(wakeup_fd_, &one, sizeof(one));
    (void)ignored;
    done.get_future().get();
}

int EventLoopThread::on_wakeup(sd_event_source*, int fd, uint32_t, void* self) {
    uint64_t count;
    ssize_t ignored = read(fd, &count, sizeof(count));
    (void)ignored;
    auto* loop = static_cast<EventLoopThread*>(self);
    std::deque<std::function<void()>> tasks;
    {
        std::lock_guard lock(loop->mutex_);
        tasks.swap(loop->tasks_);
    }
    for (auto& task : tasks) {
        task();
    }
    return 0;
}
