// Utilisation updates of admitted threads: the budget test replaces the old share by the new one;
// in a deadline domain the kernel takes the new reservation and keeps the overrun setting.
#include <sched.h>
#include <unistd.h>

#include "threads_support.h"

using namespace qxt;

namespace {

std::string rr() {
    return rr_domain(kRr, 1000, "1", {{"Class_A", 200, 10}, {"Class_800", 800, 15}});
}
std::string dl() {
    return dl_isp_domain();
}

std::string updated_info(const char *domain, int current, pid_t tid) {
    return format("[RT_Impl][Info] s32UtilCurrent in Domain[%s] is [%d] after add pid=[%d].\n",
                  domain, current, (int)tid);
}

}  // namespace

using ThreadUpdate = qxt::SandboxTest;

TEST_F(ThreadUpdate, UpdatePushingDomainOverBudgetIsRefusedAndChangesNothing) {
    ASSERT_NO_FATAL_FAILURE(start({rr()}, {kRr}));
    TestThread t1, t2;
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_AddThread(kRr, "Class_A", t1.tid(), 0));
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_AddThread(kRr, "Class_800", t2.tid(), 0));
    std::vector<uint8_t> before = segment_bytes(kRr);
    QX_REALTIME_UTIL_t util = {201, 0, 0, 0};
    LogCapture log;
    EXPECT_EQ(RT_ERR_OVER_BUDGET, QX_REALTIME_UpdateThreadUtil(kRr, &util, t1.tid()));
    QXT_EXPECT_INFO(
        log, format("[RT_Impl][DBG] [%s]: pid=[%d] exists in RT.\n", kUpdate, (int)t1.tid()));
    QXT_EXPECT_ERROR(log,
                     "[RT_Impl][Err] [_QX_REALTIME_CheckOverUtil] Domain[Domain_Rr] over "
                     "s32Util: new Util is 201, original Util is 200,domain current total "
                     "Util is 1000, max. domain Util is 1000\n");
    QXT_EXPECT_INFO(log, "[RT_Impl][DBG] [QX_REALTIME_UpdateThreadUtil] exit, err=9.\n");
    EXPECT_EQ(before, segment_bytes(kRr));
    EXPECT_EQ(10u, sched_of(t1.tid()).priority);
    EXPECT_EQ("/Domain_Rr", cgroup_of(t1.tid(), "cpuset"));
}

TEST_F(ThreadUpdate, LoweringShareIsAlwaysWithinBudgetAndInRrDomainTouchesOnlyBookkeeping) {
    ASSERT_NO_FATAL_FAILURE(start({rr()}, {kRr}));
    TestThread t1, t2;
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_AddThread(kRr, "Class_A", t1.tid(), 0));
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_AddThread(kRr, "Class_800", t2.tid(), 0));
    QX_REALTIME_DOMAIN_t *d = map_domain_file(kRr);
    // Raise the charge past the budget behind the library's back: lowering still passes.
    d->s32UtilCurrent = 1100;
    QX_REALTIME_UTIL_t util = {100, 7000, 3000, 9000};
    LogCapture log;
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_UpdateThreadUtil(kRr, &util, t1.tid())) << log.dump();
    QXT_EXPECT_INFO(log, updated_info(kRr, 1000, t1.tid()));
    QXT_EXPECT_INFO(log,
                    format("[RT_Impl][DBG] [%s] for [%d] successfully.\n", kUpdate, (int)t1.tid()));
    EXPECT_EQ(1000, d->s32UtilCurrent);
    QX_REALTIME_THREAD_t *rec = nullptr;
    ASSERT_NO_FATAL_FAILURE(expect_record(d, t1.tid(), 100, 3000, 7000, 9000, &rec));
    EXPECT_EQ(10, rec->Priority);
    SchedInfo s = sched_of(t1.tid());
    EXPECT_EQ((uint32_t)SCHED_RR, s.policy);
    EXPECT_EQ(10u, s.priority);
    EXPECT_EQ("/Domain_Rr", cgroup_of(t1.tid(), "cpuset"));
}

TEST_F(ThreadUpdate, NegativeShareInRrDomainIsRefusedAsInvalid) {
    ASSERT_NO_FATAL_FAILURE(start({rr()}, {kRr}));
    TestThread t;
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_AddThread(kRr, "Class_A", t.tid(), 0));
    std::vector<uint8_t> before = segment_bytes(kRr);
    QX_REALTIME_UTIL_t util = {-3, 0, 0, 0};
    LogCapture log;
    EXPECT_EQ(RT_ERR_INVALID_PARAM, QX_REALTIME_UpdateThreadUtil(kRr, &util, t.tid()));
    QXT_EXPECT_ERROR(log,
                     "[RT_Impl][Err] [_QX_REALTIME_CheckOverUtil] Invalid parameter -3: "
                     "(should) s32Util >= 0.\n");
    EXPECT_EQ(before, segment_bytes(kRr));
}

TEST_F(ThreadUpdate, DeadlineUpdateAppliesNewReservationAndKeepsOverrunFlag) {
    ASSERT_NO_FATAL_FAILURE(start({dl()}, {kDl}));
    TestThread t;
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_AddThread(kDl, "Class_Isp", t.tid(), 1));
    ASSERT_EQ(0x06u, sched_of(t.tid()).flags);
    QX_REALTIME_UTIL_t util = {12345, 9000, 3000, 10000};
    LogCapture log;
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_UpdateThreadUtil(kDl, &util, t.tid())) << log.dump();
    EXPECT_EQ(300, util.s32Util);  // the caller's share is replaced by the converted one
    QXT_EXPECT_INFO(log,
                    "[RT_Impl][Info] Get converted Util=[300] from DlRuntimeUs=[3000], "
                    "DlPeriodUs=[10000], s32CapPerCore=[1000].\n");
    QXT_EXPECT_INFO(log, updated_info(kDl, 300, t.tid()));

    SchedInfo s = sched_of(t.tid());
    EXPECT_EQ((uint32_t)SCHED_DEADLINE, s.policy);
    EXPECT_EQ(3000000u, s.runtime);
    EXPECT_EQ(9000000u, s.deadline);
    EXPECT_EQ(10000000u, s.period);
    EXPECT_EQ(0x06u, s.flags);
    EXPECT_EQ("/Domain_Dl", cgroup_of(t.tid(), "cpuset"));
    EXPECT_TRUE(tasks_file_lists("/dev/cpuset/Domain_Dl/tasks", t.tid()));
    EXPECT_EQ("/Domain_Dl", cgroup_of(t.tid(), "cpuacct"));

    QX_REALTIME_DOMAIN_t *d = map_domain_file(kDl);
    EXPECT_EQ(300, d->s32UtilCurrent);
    QX_REALTIME_THREAD_t *rec = nullptr;
    ASSERT_NO_FATAL_FAILURE(expect_record(d, t.tid(), 300, 3000, 9000, 10000, &rec));
    EXPECT_EQ((uint32_t)SCHED_OTHER, saved_policy(rec));
}

TEST_F(ThreadUpdate, DeadlineUpdateWithoutOverrunKeepsFlags0x02) {
    ASSERT_NO_FATAL_FAILURE(start({dl()}, {kDl}));
    TestThread t;
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_AddThread(kDl, "Class_Isp", t.tid(), 0));
    QX_REALTIME_UTIL_t util = {0, 5000, 1000, 5000};
    LogCapture log;
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_UpdateThreadUtil(kDl, &util, t.tid())) << log.dump();
    SchedInfo s = sched_of(t.tid());
    EXPECT_EQ(0x02u, s.flags);
    EXPECT_EQ(1000000u, s.runtime);
    EXPECT_EQ(5000000u, s.period);
    EXPECT_EQ("/Domain_Dl", cgroup_of(t.tid(), "cpuset"));
    EXPECT_EQ(200, map_domain_file(kDl)->s32UtilCurrent);
}

TEST_F(ThreadUpdate, DeadlineUpdateOutOfOrderIsRefusedAndKernelKeepsOldReservation) {
    ASSERT_NO_FATAL_FAILURE(start({dl()}, {kDl}));
    TestThread t;
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_AddThread(kDl, "Class_Isp", t.tid(), 0));
    std::vector<uint8_t> before = segment_bytes(kDl);
    QX_REALTIME_UTIL_t util = {0, 1000, 3000, 10000};
    LogCapture log;
    EXPECT_EQ(RT_ERR_INVALID_PARAM, QX_REALTIME_UpdateThreadUtil(kDl, &util, t.tid()));
    QXT_EXPECT_ERROR(log,
                     "[RT_Impl][Err] [_QX_REALTIME_CheckOverUtil] Invalid Deadline "
                     "parameter: (should) DlPeriodUs=10000 >= DlDeadlineUs=1000 >= "
                     "DlRuntimeUs=3000.\n");
    EXPECT_EQ(before, segment_bytes(kDl));
    SchedInfo s = sched_of(t.tid());
    EXPECT_EQ(2000000u, s.runtime);
    EXPECT_EQ(8000000u, s.deadline);
    EXPECT_EQ("/Domain_Dl", cgroup_of(t.tid(), "cpuset"));
}

TEST_F(ThreadUpdate, DeadlineUpdateOverBudgetIsRefusedAndExactlyAtBudgetIsApplied) {
    // A small budget keeps the reservations small: other deadline users share the machine.
    start({dl_domain("Domain_Small", 300, "1", {{"Class_Tenth", 1000, 10000, 10000}})},
          {"Domain_Small"});
    if (HasFatalFailure()) return;
    TestThread t1, t2;
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_AddThread("Domain_Small", "Class_Tenth", t1.tid(), 0));
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_AddThread("Domain_Small", "Class_Tenth", t2.tid(), 0));
    QX_REALTIME_DOMAIN_t *d = map_domain_file("Domain_Small");
    ASSERT_EQ(200, d->s32UtilCurrent);

    QX_REALTIME_UTIL_t util = {0, 10000, 2100, 10000};  // 210: 200 - 100 + 210 > 300
    LogCapture log;
    EXPECT_EQ(RT_ERR_OVER_BUDGET, QX_REALTIME_UpdateThreadUtil("Domain_Small", &util, t1.tid()));
    QXT_EXPECT_ERROR(log,
                     "[RT_Impl][Err] [_QX_REALTIME_CheckOverUtil] Domain[Domain_Small] "
                     "over s32Util: new Util is 210, original Util is 100,domain current "
                     "total Util is 200, max. domain Util is 300\n");
    EXPECT_EQ(1000000u, sched_of(t1.tid()).runtime);
    EXPECT_EQ(200, d->s32UtilCurrent);

    util = {0, 10000, 2000, 10000};  // 200: 200 - 100 + 200 = 300, exactly the budget
    EXPECT_EQ(RT_SUCCESS, QX_REALTIME_UpdateThreadUtil("Domain_Small", &util, t1.tid()))
        << log.dump();
    EXPECT_EQ(2000000u, sched_of(t1.tid()).runtime);
    EXPECT_EQ(10000000u, sched_of(t1.tid()).deadline);
    EXPECT_EQ("/Domain_Small", cgroup_of(t1.tid(), "cpuset"));
    EXPECT_EQ(300, d->s32UtilCurrent);
    EXPECT_EQ(live_util_sum(d), d->s32UtilCurrent);
}
