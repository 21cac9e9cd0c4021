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
