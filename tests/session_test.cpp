#include "session/session.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <fstream>

TEST(Session, ReadsCommandNameWithoutLineFeed) {
    std::string expected;
    std::getline(std::ifstream("/proc/self/comm"), expected);
    session_t session;
    session_set_pid(session, static_cast<unsigned>(getpid()));
    ASSERT_NE(session_get_comm(session), nullptr);
    EXPECT_EQ(std::string(session_get_comm(session)), expected);
    EXPECT_EQ(session_get_pid(session), static_cast<unsigned>(getpid()));
}

TEST(Session, ExitedProcessHasNoCommandName) {
    pid_t child = fork();
    if (child == 0) {
        _exit(0);
    }
    waitpid(child, nullptr, 0);
    session_t session;
    session_set_pid(session, static_cast<unsigned>(getpid()));
    session_set_pid(session, static_cast<unsigned>(child));
    EXPECT_EQ(session_get_comm(session), nullptr);
}

TEST(Session, SecondDescriptorClosesTheFirst) {
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    session_t session;
    session_set_fd(session, unique_fd(fds[0]));
    session_set_fd(session, unique_fd(fds[1]));
    EXPECT_EQ(fcntl(fds[0], F_GETFD), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(session_get_fd(session), fds[1]);
}
