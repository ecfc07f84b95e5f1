// Admission of threads into RR and deadline domains: what the kernel shows afterwards, what is
// charged, and the refusals, each with its exact messages.
#include <sched.h>
#include <unistd.h>

#include <memory>

#include "threads_support.h"

using namespace qxt;

namespace {

// Per-thread shares (units of 1000 per core) and priorities around the domain's budget of 1000.
const std::vector<RrClass> kRrClasses = {
    {"Class_A", 200, 10},   {"Class_B", 100, 20},   {"Class_Zero", 0, 30}, {"Class_Neg", -1, 40},
    {"Class_800", 800, 15}, {"Class_201", 201, 16}, {"Class_200", 200, 17}};
// A valid class, then a deadline shorter than the runtime, then a period shorter than the deadline.
const std::vector<DlClass> kDlClasses = {{"Class_Isp", 2000, 8000, 10000},
                                         {"Class_Late", 2000, 1500, 10000},
                                         {"Class_Long", 2000, 12000, 10000}};

std::string rr() {
    return rr_domain(kRr, 1000, "1", kRrClasses);
}
std::string dl() {
    return dl_domain(kDl, 1000, "1", kDlClasses);
}

std::string added(const char *op, pid_t tid) {
    return format("[RT_Impl][DBG] [%s] for [%d] successfully.\n", op, (int)tid);
}

// The thread is still as a plain thread of this process left it: normal policy, root groups.
void expect_untouched(pid_t tid) {
    SchedInfo s = sched_of(tid);
    ASSERT_TRUE(s.ok);
    EXPECT_EQ((uint32_t)SCHED_OTHER, s.policy);
    EXPECT_EQ("/", cgroup_of(tid, "cpuset"));
    EXPECT_EQ("/", cgroup_of(tid, "cpuacct"));
}

}  // namespace

using ThreadAdmission = qxt::SandboxTest;

TEST_F(ThreadAdmission, RrAdmissionAppliesClassPriorityAndMovesThreadIntoDomainGroups) {
    ASSERT_NO_FATAL_FAILURE(start({rr()}, {kRr}));
    TestThread t;
    LogCapture log;
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_AddThread(kRr, "Class_A", t.tid(), 0)) << log.dump();

    SchedInfo s = sched_of(t.tid());
    EXPECT_EQ((uint32_t)SCHED_RR, s.policy);
    EXPECT_EQ(10u, s.priority);
    EXPECT_EQ("/Domain_Rr", cgroup_of(t.tid(), "cpuset"));
    EXPECT_EQ("/Domain_Rr", cgroup_of(t.tid(), "cpuacct"));
    EXPECT_TRUE(tasks_file_lists("/dev/cpuset/Domain_Rr/tasks", t.tid()));
    EXPECT_TRUE(tasks_file_lists("/dev/cpuacct/Domain_Rr/tasks", t.tid()));
    EXPECT_FALSE(tasks_file_lists("/dev/cpuset/tasks", t.tid()));

    QXT_EXPECT_INFO(log, format("[RT_Impl][DBG] [%s] enter: pid=%d, tid=%ld; argPid=[%d].\n", kAdd,
                                (int)getpid(), (long)gettid(), (int)t.tid()));
    QXT_EXPECT_INFO(
        log,
        format("[RT_Impl][Info] s32UtilCurrent in Domain[Domain_Rr] is [200] after add pid=[%d].\n",
               (int)t.tid()));
    QXT_EXPECT_INFO(log, added(kAdd, t.tid()));
    QXT_EXPECT_INFO(log, "[RT_Impl][DBG] [QX_REALTIME_AddThread] exit, OK.\n");

    QX_REALTIME_DOMAIN_t *d = map_domain_file(kRr);
    ASSERT_NE(nullptr, d);
    EXPECT_EQ(200, d->s32UtilCurrent);
    QX_REALTIME_THREAD_t *rec = live_slot(d, t.tid());
    ASSERT_NE(nullptr, rec);
    EXPECT_EQ(getpid(), rec->ProcessID);
    EXPECT_EQ(200, rec->Util);
    EXPECT_EQ(10, rec->Priority);
    EXPECT_EQ(class_record(d, "Class_A")->s32ClassId, rec->ClassIdx);
    EXPECT_EQ((uint32_t)SCHED_OTHER, saved_policy(rec));
    EXPECT_EQ(getpid(), d->s32ProcessIDList[0]);
}

TEST_F(ThreadAdmission, DeadlineDomainChargesRuntimeTimesCapacityOverPeriod) {
    ASSERT_NO_FATAL_FAILURE(start({dl()}, {kDl}));
    TestThread t;
    LogCapture log;
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_AddThread(kDl, "Class_Isp", t.tid(), 0)) << log.dump();

    SchedInfo s = sched_of(t.tid());
    EXPECT_EQ((uint32_t)SCHED_DEADLINE, s.policy);
    EXPECT_EQ(2000000u, s.runtime);
    EXPECT_EQ(8000000u, s.deadline);
    EXPECT_EQ(10000000u, s.period);
    EXPECT_EQ(0x02u, s.flags);
    EXPECT_EQ("/Domain_Dl", cgroup_of(t.tid(), "cpuset"));
    EXPECT_EQ("/Domain_Dl", cgroup_of(t.tid(), "cpuacct"));

    QXT_EXPECT_INFO(log,
                    "[RT_Impl][Info] Get converted Util=[200] from DlRuntimeUs=[2000], "
                    "DlPeriodUs=[10000], s32CapPerCore=[1000].\n");
    QX_REALTIME_DOMAIN_t *d = map_domain_file(kDl);
    ASSERT_NE(nullptr, d);
    EXPECT_EQ(200, d->s32UtilCurrent);
    // The class record itself carries the converted share from now on.
    EXPECT_EQ(200, class_record(d, "Class_Isp")->s32Util);
    ASSERT_NO_FATAL_FAILURE(expect_record(d, t.tid(), 200, 2000, 8000, 10000));
}

TEST_F(ThreadAdmission, DeadlineAdmissionWithOverrunNotificationSetsFlags0x06) {
    ASSERT_NO_FATAL_FAILURE(start({dl()}, {kDl}));
    TestThread t;
    LogCapture log;
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_AddThread(kDl, "Class_Isp", t.tid(), 1)) << log.dump();
    SchedInfo s = sched_of(t.tid());
    EXPECT_EQ((uint32_t)SCHED_DEADLINE, s.policy);
    EXPECT_EQ(0x06u, s.flags);
    EXPECT_EQ("/Domain_Dl", cgroup_of(t.tid(), "cpuset"));
}

TEST_F(ThreadAdmission, DeadlineShorterThanRuntimeIsRefusedAsInvalid) {
    ASSERT_NO_FATAL_FAILURE(start({dl()}, {kDl}));
    TestThread t;
    LogCapture log;
    EXPECT_EQ(RT_ERR_INVALID_PARAM, QX_REALTIME_AddThread(kDl, "Class_Late", t.tid(), 0));
    QXT_EXPECT_ERROR(log,
                     "[RT_Impl][Err] [_QX_REALTIME_CheckOverUtil] Invalid Deadline "
                     "parameter: (should) DlPeriodUs=10000 >= DlDeadlineUs=1500 >= "
                     "DlRuntimeUs=2000.\n");
    QXT_EXPECT_ERROR(log, add_failed(t.tid(), "Class_Late", RT_ERR_INVALID_PARAM));
    QXT_EXPECT_INFO(log, "[RT_Impl][DBG] [QX_REALTIME_AddThread] exit, err=8.\n");
    expect_untouched(t.tid());
    QX_REALTIME_DOMAIN_t *d = map_domain_file(kDl);
    ASSERT_NE(nullptr, d);
    EXPECT_EQ(0, d->s32UtilCurrent);
    EXPECT_EQ(0, live_slot_count(d));
}

TEST_F(ThreadAdmission, PeriodShorterThanDeadlineIsRefusedAsInvalid) {
    ASSERT_NO_FATAL_FAILURE(start({dl()}, {kDl}));
    TestThread t;
    LogCapture log;
    EXPECT_EQ(RT_ERR_INVALID_PARAM, QX_REALTIME_AddThread(kDl, "Class_Long", t.tid(), 0));
    QXT_EXPECT_ERROR(log,
                     "[RT_Impl][Err] [_QX_REALTIME_CheckOverUtil] Invalid Deadline "
                     "parameter: (should) DlPeriodUs=10000 >= DlDeadlineUs=12000 >= "
                     "DlRuntimeUs=2000.\n");
    expect_untouched(t.tid());
    EXPECT_EQ(0, map_domain_file(kDl)->s32UtilCurrent);
}

TEST_F(ThreadAdmission, RepeatedAdmissionInAnyClassSucceedsAndChangesNothing) {
    ASSERT_NO_FATAL_FAILURE(start({rr()}, {kRr}));
    TestThread t;
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_AddThread(kRr, "Class_A", t.tid(), 0));
    std::vector<uint8_t> before = segment_bytes(kRr);
    LogCapture log;
    EXPECT_EQ(RT_SUCCESS, QX_REALTIME_AddThread(kRr, "Class_B", t.tid(), 0));
    EXPECT_EQ(RT_SUCCESS, QX_REALTIME_AddThread(kRr, "Class_A", t.tid(), 0));
    EXPECT_EQ(
        2, log.count(QX_LOG_PRIO_ERROR,
                     format("[RT_Impl][Err] [%s] Pid [%d] already exists.\n", kAdd, (int)t.tid())))
        << log.dump();
    EXPECT_EQ(2, log.count(QX_LOG_PRIO_INFO, added(kAdd, t.tid()))) << log.dump();
    EXPECT_EQ(before, segment_bytes(kRr));
    // The kernel still shows the first class's priority.
    SchedInfo s = sched_of(t.tid());
    EXPECT_EQ((uint32_t)SCHED_RR, s.policy);
    EXPECT_EQ(10u, s.priority);
    EXPECT_EQ("/Domain_Rr", cgroup_of(t.tid(), "cpuset"));
}

TEST_F(ThreadAdmission, RrClassWithNegativeUtilIsRefusedAsInvalid) {
    ASSERT_NO_FATAL_FAILURE(start({rr()}, {kRr}));
    TestThread t;
    LogCapture log;
    EXPECT_EQ(RT_ERR_INVALID_PARAM, QX_REALTIME_AddThread(kRr, "Class_Neg", t.tid(), 0));
    QXT_EXPECT_ERROR(log,
                     "[RT_Impl][Err] [_QX_REALTIME_CheckOverUtil] Invalid parameter -1: "
                     "(should) s32Util >= 0.\n");
    QXT_EXPECT_ERROR(log, add_failed(t.tid(), "Class_Neg", RT_ERR_INVALID_PARAM));
    expect_untouched(t.tid());
    QX_REALTIME_DOMAIN_t *d = map_domain_file(kRr);
    EXPECT_EQ(0, d->s32UtilCurrent);
    EXPECT_EQ(0, live_slot_count(d));
}

TEST_F(ThreadAdmission, RrClassWithZeroUtilIsAdmittedAndChargesNothing) {
    ASSERT_NO_FATAL_FAILURE(start({rr()}, {kRr}));
    TestThread t;
    LogCapture log;
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_AddThread(kRr, "Class_Zero", t.tid(), 0)) << log.dump();
    SchedInfo s = sched_of(t.tid());
    EXPECT_EQ((uint32_t)SCHED_RR, s.policy);
    EXPECT_EQ(30u, s.priority);
    EXPECT_EQ("/Domain_Rr", cgroup_of(t.tid(), "cpuset"));
    QX_REALTIME_DOMAIN_t *d = map_domain_file(kRr);
    EXPECT_EQ(0, d->s32UtilCurrent);
    ASSERT_NE(nullptr, live_slot(d, t.tid()));
    EXPECT_EQ(0, live_slot(d, t.tid())->Util);
}

TEST_F(ThreadAdmission, BudgetAdmitsUpToItsMaxExactlyAndRefusesOneUnitMore) {
    ASSERT_NO_FATAL_FAILURE(start({rr()}, {kRr}));
    TestThread t800, t201, t200;
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_AddThread(kRr, "Class_800", t800.tid(), 0));
    QX_REALTIME_DOMAIN_t *d = map_domain_file(kRr);
    ASSERT_EQ(800, d->s32UtilCurrent);

    LogCapture log;
    EXPECT_EQ(RT_ERR_OVER_BUDGET, QX_REALTIME_AddThread(kRr, "Class_201", t201.tid(), 0));
    QXT_EXPECT_ERROR(log,
                     "[RT_Impl][Err] [_QX_REALTIME_CheckOverUtil] Domain[Domain_Rr] over "
                     "s32Util: new Util is 201, original Util is 0,domain current total "
                     "Util is 800, max. domain Util is 1000\n");
    QXT_EXPECT_ERROR(log, add_failed(t201.tid(), "Class_201", RT_ERR_OVER_BUDGET));
    expect_untouched(t201.tid());
    EXPECT_EQ(800, d->s32UtilCurrent);

    EXPECT_EQ(RT_SUCCESS, QX_REALTIME_AddThread(kRr, "Class_200", t200.tid(), 0)) << log.dump();
    EXPECT_EQ(1000, d->s32UtilCurrent);
    EXPECT_EQ((uint32_t)SCHED_RR, sched_of(t200.tid()).policy);
    EXPECT_EQ(17u, sched_of(t200.tid()).priority);
    EXPECT_EQ("/Domain_Rr", cgroup_of(t200.tid(), "cpuset"));
}

TEST_F(ThreadAdmission, DomainWithoutBudgetAdmitsAnyAmountAndLeavesCpusetAlone) {
    ASSERT_NO_FATAL_FAILURE(
        start({rr_domain("Domain_Free", 0, "1", {{"Class_Huge", 5000, 10}})}, {"Domain_Free"}));
    TestThread t1, t2;
    LogCapture log;
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_AddThread("Domain_Free", "Class_Huge", t1.tid(), 0))
        << log.dump();
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_AddThread("Domain_Free", "Class_Huge", t2.tid(), 0))
        << log.dump();
    EXPECT_EQ(10000, map_domain_file("Domain_Free")->s32UtilCurrent);
    for (pid_t tid : {t1.tid(), t2.tid()}) {
        EXPECT_EQ((uint32_t)SCHED_RR, sched_of(tid).policy);
        EXPECT_EQ(10u, sched_of(tid).priority);
        // Without a budget the thread keeps its cpuset; accounting still follows the domain.
        EXPECT_EQ("/", cgroup_of(tid, "cpuset"));
        EXPECT_EQ("/Domain_Free", cgroup_of(tid, "cpuacct"));
    }
}

TEST_F(ThreadAdmission, LiteAdmissionLeavesDeadlineOrderToTheKernel) {
    ASSERT_NO_FATAL_FAILURE(start({dl()}, {kDl}));
    TestThread t;
    QX_REALTIME_UTIL_t util = {77, 1500, 2000, 10000};
    LogCapture log;
    EXPECT_EQ(RT_ERR_SCHED_SETATTR,
              QX_REALTIME_AddThread_Lite(kDl, "Class_Isp", &util, t.tid(), 0));
    EXPECT_EQ(0, log.count_containing("Invalid Deadline parameter")) << log.dump();
    QXT_EXPECT_ERROR(
        log, format("[RT_Impl][Err] [_QX_REALTIME_SetSchedAttr] _QX_REALTMIE_SchedSetAttr failed "
                    "to set the "
                    "sched for pid=%d, policy=6, priority=0, runtime=2000000, deadline=1500000, "
                    "period=10000000, errno=%s\n",
                    (int)t.tid(), errno_text(EINVAL).c_str()));
    QXT_EXPECT_ERROR(
        log, format("[RT_Impl][Err] [%s] Add pid = [%d] to Thread at Class = [Class_Isp] failed.\n",
                    kLite, (int)t.tid()));
    EXPECT_EQ(77, util.s32Util);
    expect_untouched(t.tid());
    EXPECT_EQ(0, map_domain_file(kDl)->s32UtilCurrent);
}

TEST_F(ThreadAdmission, LiteAdmissionAppliesAndChargesCallerParametersUnchecked) {
    ASSERT_NO_FATAL_FAILURE(start({dl()}, {kDl}));
    TestThread t;
    // 5000 units in a domain of 1000: no budget check and no conversion on this path.
    QX_REALTIME_UTIL_t util = {5000, 5000, 1000, 10000};
    LogCapture log;
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_AddThread_Lite(kDl, "Class_Isp", &util, t.tid(), 1))
        << log.dump();
    EXPECT_EQ(0, log.count_containing("Get converted Util")) << log.dump();
    QXT_EXPECT_INFO(log, added(kLite, t.tid()));
    SchedInfo s = sched_of(t.tid());
    EXPECT_EQ((uint32_t)SCHED_DEADLINE, s.policy);
    EXPECT_EQ(1000000u, s.runtime);
    EXPECT_EQ(5000000u, s.deadline);
    EXPECT_EQ(10000000u, s.period);
    EXPECT_EQ(0x06u, s.flags);
    EXPECT_EQ("/Domain_Dl", cgroup_of(t.tid(), "cpuset"));
    QX_REALTIME_DOMAIN_t *d = map_domain_file(kDl);
    EXPECT_EQ(5000, d->s32UtilCurrent);
    ASSERT_NE(nullptr, live_slot(d, t.tid()));
    EXPECT_EQ(5000, live_slot(d, t.tid())->Util);
}

TEST_F(ThreadAdmission, FullSegmentStoresNoRecordEvenWhenAFreedSlotExists) {
    ASSERT_NO_FATAL_FAILURE(start({rr()}, {kRr}));
    TestThread t1, t2;
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_AddThread(kRr, "Class_A", t1.tid(), 0));
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_RemoveThread(kRr, t1.tid()));
    QX_REALTIME_DOMAIN_t *d = map_domain_file(kRr);
    ASSERT_EQ(1, d->s32ThreadNum);
    ASSERT_EQ(0, slot(d, 0)->Alive);
    d->s32NextOffset = 16300;

    LogCapture log;
    EXPECT_EQ(RT_ERR_NOT_EXIST, QX_REALTIME_AddThread(kRr, "Class_A", t2.tid(), 0));
    QXT_EXPECT_ERROR(log,
                     "[RT_Impl][Err] [_QX_AddThreadDataAtHead] shared memory size (16384 "
                     "Byte) is too small. sizeof(QX_REALTIME_THREAD_t)=96\n");
    QXT_EXPECT_ERROR(
        log, format("[RT_Impl][Err] [%s] Add pid = [%d] to Thread at Class = [Class_A] failed.\n",
                    kAdd, (int)t2.tid()));
    QXT_EXPECT_ERROR(log, add_failed(t2.tid(), "Class_A", RT_ERR_NOT_EXIST));
    EXPECT_EQ(0, slot(d, 0)->Alive);
    EXPECT_EQ(1, d->s32ThreadNum);
    EXPECT_EQ(16300, d->s32NextOffset);
    // Nothing is rolled back: the thread is scheduled, moved and charged without a record.
    expect_placed(t2.tid(), SCHED_RR, "/Domain_Rr");
    EXPECT_EQ("/Domain_Rr", cgroup_of(t2.tid(), "cpuacct"));
    EXPECT_EQ(200, d->s32UtilCurrent);
}

TEST_F(ThreadAdmission, SegmentOneByteShortOfARecordRefusesIt) {
    ASSERT_NO_FATAL_FAILURE(start({rr()}, {kRr}));
    TestThread t;
    QX_REALTIME_DOMAIN_t *d = map_domain_file(kRr);
    d->s32NextOffset = 16289;
    LogCapture log;
    EXPECT_EQ(RT_ERR_NOT_EXIST, QX_REALTIME_AddThread(kRr, "Class_A", t.tid(), 0));
    QXT_EXPECT_ERROR(log,
                     "[RT_Impl][Err] [_QX_AddThreadDataAtHead] shared memory size (16384 "
                     "Byte) is too small. sizeof(QX_REALTIME_THREAD_t)=96\n");
    EXPECT_EQ(0, d->s32ThreadNum);
    EXPECT_EQ(16289, d->s32NextOffset);
}

TEST_F(ThreadAdmission, SegmentWithRoomForExactlyOneRecordAppendsIt) {
    ASSERT_NO_FATAL_FAILURE(start({rr()}, {kRr}));
    TestThread t1, t2;
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_AddThread(kRr, "Class_A", t1.tid(), 0));
    QX_REALTIME_DOMAIN_t *d = map_domain_file(kRr);
    d->s32NextOffset = 16288;
    LogCapture log;
    EXPECT_EQ(RT_SUCCESS, QX_REALTIME_AddThread(kRr, "Class_A", t2.tid(), 0)) << log.dump();
    EXPECT_EQ(2, d->s32ThreadNum);
    EXPECT_EQ(16384, d->s32NextOffset);
    ASSERT_NE(nullptr, live_slot(d, t2.tid()));
    EXPECT_EQ(1, live_slot(d, t2.tid())->ThreadIdx);
}

TEST_F(ThreadAdmission, FullProcessIdListFailsTheLookupButStoresTheRecord) {
    ASSERT_NO_FATAL_FAILURE(start({rr()}, {kRr}));
    // Another live process fills every slot, so this process finds no room in the list.
    pid_t other = spawn_child([] {});
    QX_REALTIME_DOMAIN_t *d = map_domain_file(kRr);
    ASSERT_EQ(80, d->processIDListNum);
    for (int i = 0; i < 80; i++) d->s32ProcessIDList[i] = other;

    TestThread t;
    LogCapture log;
    EXPECT_EQ(RT_ERR_NOT_EXIST, QX_REALTIME_AddThread(kRr, "Class_A", t.tid(), 0));
    QXT_EXPECT_ERROR(log,
                     "[RT_Impl][Err] [_QX_REALTIME_getProcessID] processIDListNum=80. it "
                     "is full !!!\n");
    QXT_EXPECT_ERROR(
        log, format("[RT_Impl][Err] [%s] getProcessID for tid [%d] failed.\n", kAdd, (int)t.tid()));
    QXT_EXPECT_ERROR(log, add_failed(t.tid(), "Class_A", RT_ERR_NOT_EXIST));
    EXPECT_EQ(0, log.count_containing("doesn't exist")) << log.dump();

    QX_REALTIME_THREAD_t *rec = live_slot(d, t.tid());
    ASSERT_NE(nullptr, rec);
    EXPECT_EQ(getpid(), rec->ProcessID);
    EXPECT_EQ(200, d->s32UtilCurrent);
    for (int i = 0; i < 80; i++) EXPECT_EQ(other, d->s32ProcessIDList[i]) << i;
    expect_placed(t.tid(), SCHED_RR, "/Domain_Rr");
    EXPECT_EQ("/Domain_Rr", cgroup_of(t.tid(), "cpuacct"));
    kill_and_reap(other);
}

TEST_F(ThreadAdmission, ThreadOfDeadClientIsReapedBeforeTheBudgetCheck) {
    ASSERT_NO_FATAL_FAILURE(start({rr()}, {kRr}));
    int fds[2];
    ASSERT_EQ(0, pipe(fds));
    pid_t client = spawn_child([&] {
        close(fds[0]);
        TestThread *thread = new TestThread();  // lives until the process is killed
        int32_t msg[2] = {thread->tid(),
                          (int32_t)QX_REALTIME_AddThread(kRr, "Class_800", thread->tid(), 0)};
        if (write(fds[1], msg, sizeof(msg)) != (ssize_t)sizeof(msg)) qxt::exit_child(1);
    });
    close(fds[1]);
    int32_t msg[2] = {0, -1};
    ASSERT_EQ((ssize_t)sizeof(msg), read(fds[0], msg, sizeof(msg)));
    close(fds[0]);
    ASSERT_EQ((int32_t)RT_SUCCESS, msg[1]);
    pid_t client_tid = msg[0];
    expect_placed(client_tid, SCHED_RR, "/Domain_Rr");
    QX_REALTIME_DOMAIN_t *d = map_domain_file(kRr);
    ASSERT_EQ(800, d->s32UtilCurrent);
    ASSERT_EQ(client, d->s32ProcessIDList[0]);

    kill_and_reap(client);
    TestThread t;
    LogCapture log;
    // 800 more would not fit beside the dead client's 800: the reaping comes first.
    EXPECT_EQ(RT_SUCCESS, QX_REALTIME_AddThread(kRr, "Class_800", t.tid(), 0)) << log.dump();
    QXT_EXPECT_ERROR(log, process_gone(client));
    QXT_EXPECT_INFO(
        log, format("[RT_Impl][DBG] [QX_REALTIME_RemoveKilledThread] for pid=[%d] successfully.\n",
                    (int)client_tid));
    EXPECT_EQ(800, d->s32UtilCurrent);
    EXPECT_EQ(live_util_sum(d), d->s32UtilCurrent);
    EXPECT_EQ(nullptr, live_slot(d, client_tid));
    EXPECT_EQ(getpid(), d->s32ProcessIDList[0]);
    expect_placed(t.tid(), SCHED_RR, "/Domain_Rr");
}
