#include "common/log.h"
#include "support/testutil.h"

#include <gtest/gtest.h>

#include <thread>

// A flood of one kind of line keeps its first few, leaves other kinds alone,
// and is summed up in one line once its second is over.
TEST(Log, RepeatedLinesAreCountedInsteadOfWritten) {
    StderrCapture log;
    for (int i = 0; i < 100; ++i) {
        log_error("Refused subscriber %d", i);
        if (i % 10 == 0) {
            log_info("Session closed: %d", i);
        }
    }
    EXPECT_EQ(log.count("<3>Refused subscriber "), 5);
    EXPECT_EQ(log.count("<6>Session closed: "), 5);
    EXPECT_EQ(log.count("Suppressed"), 0);

    std::this_thread::sleep_for(std::chrono::milliseconds(1100));
    log_warning("Another kind");
    EXPECT_EQ(log.count("<3>Suppressed 95 lines like: Refused subscriber 0\n"), 1);
    EXPECT_EQ(log.count("<6>Suppressed 5 lines like: Session closed: 0\n"), 1);
    EXPECT_EQ(log.count("<4>Another kind\n"), 1);
    log_error("Refused subscriber %d", 100);
    EXPECT_EQ(log.count("<3>Refused subscriber 100\n"), 1);
}

// A kind pushed out of the table by newer ones reports its count before it
// goes, and the counts still open are reported when the process exits.
TEST(LogDeathTest, CountsAreReportedOnEvictionAndAtExit) {
    StderrCapture log;
    for (int i = 0; i < 10; ++i) {
        log_error("Evicted kind %d", i);
    }
    for (char a = 'a'; a < 'e'; ++a) {
        for (char b = 'a'; b <= 'p'; ++b) {
            log_info("Kind %c%c", a, b);
        }
    }
    EXPECT_EQ(log.count("<3>Suppressed 5 lines like: Evicted kind 0\n"), 1);

    EXPECT_EXIT(
        {
            for (int i = 0; i < 8; ++i) {
                log_error("Last words %d", i);
            }
            exit(0);
        },
        ::testing::ExitedWithCode(0), "<3>Suppressed 3 lines like: Last words 0\n");
}
