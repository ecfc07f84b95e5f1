// The reserved memory high-priority calls: they answer success, report that the query is not
// implemented yet, and touch no shared data.
#include <unistd.h>

#include "threads_support.h"

using namespace qxt;

namespace {

const char kEnable[] = "QX_REALTIME_EnableMemoryHighPriority";
const char kDisable[] = "QX_REALTIME_DisableMemoryHighPriority";

std::string entered(const char *op) {
    return format("[RT_Impl][DBG] [%s] enter: pid=%d, tid=%ld;\n", op, (int)getpid(),
                  (long)gettid());
}

std::string exited(const char *op) {
    return format("[RT_Impl][DBG] [%s] exit, OK.\n", op);
}

}  // namespace

using MemoryHighPriority = qxt::SandboxTest;

TEST_F(MemoryHighPriority, QueryLogsNotReadyWithCallersValueAndLeavesItInPlace) {
    ASSERT_NO_FATAL_FAILURE(
        start({rr_domain("Domain_Rr", 500, "1", {{"Class_A", 100, 10}})}, {"Domain_Rr"}));
    int32_t avail = 42;
    LogCapture log;
    EXPECT_EQ(RT_SUCCESS, QX_REALTIME_GetAvailableHighPriorityResource(&avail));
    EXPECT_EQ(42, avail);
    EXPECT_EQ(1, log.count(QX_LOG_PRIO_ERROR,
                           "[RT_Impl][Err] [QX_REALTIME_GetAvailableHighPriorityResource] "
                           "The function isn't ready. *ps32Avai=42\n"))
        << log.dump();
    avail = -7;
    EXPECT_EQ(RT_SUCCESS, QX_REALTIME_GetAvailableHighPriorityResource(&avail));
    EXPECT_EQ(-7, avail);
    QXT_EXPECT_ERROR(log,
                     "[RT_Impl][Err] [QX_REALTIME_GetAvailableHighPriorityResource] The "
                     "function isn't ready. *ps32Avai=-7\n");
}

TEST_F(MemoryHighPriority, EnableAndDisableInAnyOrderSucceedAndChangeNoSharedField) {
    ASSERT_NO_FATAL_FAILURE(
        start({rr_domain("Domain_Rr", 500, "1", {{"Class_A", 100, 10}})}, {"Domain_Rr"}));
    TestThread t;
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_AddThread("Domain_Rr", "Class_A", t.tid(), 0));
    std::vector<uint8_t> domain_before = segment_bytes("Domain_Rr");
    std::vector<uint8_t> central_before = central_bytes();
    ASSERT_EQ((size_t)RT_SHM_SIZE, domain_before.size());
    ASSERT_EQ((size_t)RT_SHM_SIZE, central_before.size());

    LogCapture log;
    const bool sequence[] = {true, true, false, true, false, false, false, true};
    for (bool enable : sequence)
        EXPECT_EQ(RT_SUCCESS, enable ? QX_REALTIME_EnableMemoryHighPriority()
                                     : QX_REALTIME_DisableMemoryHighPriority());
    int32_t avail = 42;
    EXPECT_EQ(RT_SUCCESS, QX_REALTIME_GetAvailableHighPriorityResource(&avail));

    EXPECT_EQ(domain_before, segment_bytes("Domain_Rr"));
    EXPECT_EQ(central_before, central_bytes());
    QX_REALTIME_DOMAIN_t *d = map_domain_file("Domain_Rr");
    EXPECT_EQ(3, d->s32MemHighPrioResource);
    EXPECT_EQ(0, d->s32MemHighPrioUsage);
    EXPECT_EQ(3, d->s32MemHighPrioAvailable);
    EXPECT_EQ(4, log.count(QX_LOG_PRIO_INFO, entered(kEnable))) << log.dump();
    EXPECT_EQ(4, log.count(QX_LOG_PRIO_INFO, exited(kEnable))) << log.dump();
    EXPECT_EQ(4, log.count(QX_LOG_PRIO_INFO, entered(kDisable))) << log.dump();
    EXPECT_EQ(4, log.count(QX_LOG_PRIO_INFO, exited(kDisable))) << log.dump();
    // Nothing else is reported: no lock taken, no segment touched.
    EXPECT_EQ(1, error_count(log)) << log.dump();
    EXPECT_EQ(17, (int)log.lines().size()) << log.dump();
    // The admitted thread is untouched.
    expect_placed(t.tid(), SCHED_RR, "/Domain_Rr");
}

TEST_F(MemoryHighPriority, CallsAnswerSuccessEvenBeforeAnyInit) {
    LogCapture log;
    EXPECT_EQ(RT_SUCCESS, QX_REALTIME_EnableMemoryHighPriority());
    EXPECT_EQ(RT_SUCCESS, QX_REALTIME_DisableMemoryHighPriority());
    int32_t avail = 42;
    EXPECT_EQ(RT_SUCCESS, QX_REALTIME_GetAvailableHighPriorityResource(&avail));
    EXPECT_EQ(42, avail);
    // At the default level 32 only the error-level report shows.
    EXPECT_EQ(1, (int)log.lines().size()) << log.dump();
    QXT_EXPECT_ERROR(log,
                     "[RT_Impl][Err] [QX_REALTIME_GetAvailableHighPriorityResource] The "
                     "function isn't ready. *ps32Avai=42\n");
    EXPECT_FALSE(file_exists(RT_SHM_PREFIX "Global"));
}

// The query reads the caller's value for its report; a NULL pointer is refused rather than
// dereferenced.
TEST_F(MemoryHighPriority, QueryWithNullPointerIsRefusedWithoutCrash) {
    LogCapture log;
    EXPECT_EQ(RT_ERR_INVALID_PARAM, QX_REALTIME_GetAvailableHighPriorityResource(nullptr));
    QXT_EXPECT_ERROR(log,
                     "[RT_Impl][Err] [QX_REALTIME_GetAvailableHighPriorityResource] Arg is "
                     "NULL.\n");
}
