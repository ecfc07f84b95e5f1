// A client can be killed at any instruction while it holds a domain's lock file, also between the
// two stores that write a record and its charge. The domain's mark tells the next holder that the
// last one died under the lock, and the charge is then taken again from the records.
#include <sys/wait.h>
#include <unistd.h>

#include "threads_support.h"

using namespace qxt;

class DeadHolder : public qxt::SandboxTest {
protected:
    void SetUpInSandbox() override {
        start({rr_domain(kRr, 1000, "1", {{"Class_A", 10, 10}})}, {kRr});
    }
    TestThread t;
};

TEST_F(DeadHolder, ChargeIsTakenAgainFromTheRecordsAfterAHolderDiedUnderTheLock) {
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_AddThread(kRr, "Class_A", t.tid(), 0));
    QX_REALTIME_DOMAIN_t *d = map_domain_file(kRr);
    ASSERT_NE(nullptr, d);
    ASSERT_EQ(10, d->s32UtilCurrent);
    // A child takes the domain as an operation does, leaves the charge apart from the records
    // (as a kill between the two stores would) and dies holding the lock.
    fflush(nullptr);
    pid_t child = fork();
    if (child == 0) {
        qx_domain_hold hold;
        uint32_t rc = 0;
        if (hold.take("DeadHolder", kRr, &rc) != QX_DOMAIN_LOCKED) qxt::exit_child(3);
        hold.domain()->s32UtilCurrent += 77;
        qxt::exit_child(0);  // no release: the mark stays, the kernel drops the lock
    }
    int status = 0;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_EQ(87, d->s32UtilCurrent);

    LogCapture log;
    QX_REALTIME_UTIL_t util = {10, 0, 0, 0};
    int32_t left = 0;
    EXPECT_EQ(RT_SUCCESS, QX_REALTIME_QueryBudget(kRr, &util, &left));
    EXPECT_EQ(10, d->s32UtilCurrent);
    EXPECT_EQ(990, left);
    QXT_EXPECT_INFO(log,
                    "[RT_Impl][Info] [QX_REALTIME_QueryBudget] the last holder of "
                    "Domain[Domain_Rr] died under its lock: s32UtilCurrent 87 taken again "
                    "from the records as 10.\n");
    // A holder that ended normally left nothing to take again.
    log.clear();
    EXPECT_EQ(RT_SUCCESS, QX_REALTIME_QueryBudget(kRr, &util, &left));
    EXPECT_EQ(0, log.count_containing("died under its lock")) << log.dump();
    EXPECT_EQ(RT_SUCCESS, QX_REALTIME_RemoveThread(kRr, t.tid()));
    EXPECT_EQ(0, d->s32UtilCurrent);
}
