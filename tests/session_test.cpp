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
