#include "common/fdio.h"
#include "common/unique_fd.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>

namespace {

void ignore_signal(int) {}

// A writer with small buffers, a reader that drains a little at a time, and
// a signal storm aimed at the writer: the write is cut into many partial
// writes and interrupted waits. On a socket the waits are polls; on a pipe,
// which takes the plain writev path, the writes themselves are interrupted.
void write_under_signal_storm(unique_fd writer, unique_fd reader) {
    struct sigaction action {};
    action.sa_handler = ignore_signal;  // no SA_RESTART: waits fail with EINTR
    struct sigaction saved;
    sigaction(SIGUSR1, &action, &saved);

    std::string parts[3] = {std::string(7, 'h'), std::string(150'000, 'a'),
                            std::string(90'001, 'b')};
    for (size_t i = 0; i < parts[1].size(); ++i) {
        parts[1][i] = static_cast<char>('a' + i % 23);
    }
    std::string expected = parts[0] + parts[1] + parts[2];

    std::string received;
    std::thread drain([&] {
        char chunk[1500];
        ssize_t n;
        while ((n = read(reader.get(), chunk, sizeof(chunk))) > 0) {
            received.append(chunk, static_cast<size_t>(n));
            usleep(100);
        }
    });
    std::atomic<bool> writing{true};
    pthread_t writer_thread = pthread_self();
    std::thread storm([&] {
        while (writing) {
            pthread_kill(writer_thread, SIGUSR1);
            usleep(200);
        }
    });

    iovec buffers[3];
    for (int i = 0; i < 3; ++i) {
        buffers[i] = {parts[i].data(), parts[i].size()};
    }
    unsigned written = 0;
    int result = writev_all(writer.get(), buffers, 3, &written);
    writing = false;
    storm.join();
    writer.reset();
    drain.join();
    sigaction(SIGUSR1, &saved, nullptr);

    EXPECT_EQ(result, 0);
    EXPECT_EQ(written, expected.size());
    EXPECT_TRUE(received == expected);
}

TEST(WritevAll, ResumesPartialWritesAndInterruptedWaits) {
    int fds[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
    int small = 4096;
    setsockopt(fds[0], SOL_SOCKET, SO_SNDBUF, &small, sizeof(small));
    setsockopt(fds[1], SOL_SOCKET, SO_RCVBUF, &small, sizeof(small));
    write_under_signal_storm(unique_fd(fds[0]), unique_fd(fds[1]));

    ASSERT_EQ(pipe2(fds, O_CLOEXEC), 0);
    fcntl(fds[1], F_SETPIPE_SZ, small);
    write_under_signal_storm(unique_fd(fds[1]), unique_fd(fds[0]));
}

}  // namespace
