// Bad input to the thread operations: every case gets its result code and its message, and the
// kernel and the shared records show nothing done that should not have been.
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <thread>

#include "threads_support.h"

using namespace qxt;

namespace {

// One usable class, then priorities at and just inside the bounds SCHED_RR takes (1 to 99).
const std::vector<RrClass> kRrClasses = {{"Class_A", 200, 10},
                                         {"Class_P0", 10, 0},
                                         {"Class_P100", 10, 100},
                                         {"Class_P1", 10, 1},
                                         {"Class_P99", 10, 99}};

std::string rr() {
    return rr_domain(kRr, 1000, "1", kRrClasses);
}

}  // namespace

// Every case starts on the RR domain, created.
class ThreadBadInput : public qxt::SandboxTest {
protected:
    void SetUpInSandbox() override { start({rr()}, {kRr}); }
    TestThread t;  // the thread most cases hand to the operations
};

TEST_F(ThreadBadInput, NullDomainOrClassNameIsInvalidParam) {
    QX_REALTIME_UTIL_t util = {10, 0, 0, 0};
    std::vector<uint8_t> before = segment_bytes(kRr);
    LogCapture log;
    EXPECT_EQ(RT_ERR_INVALID_PARAM, QX_REALTIME_AddThread(nullptr, "Class_A", t.tid(), 0));
    EXPECT_EQ(RT_ERR_INVALID_PARAM, QX_REALTIME_AddThread(kRr, nullptr, t.tid(), 0));
    EXPECT_EQ(2, log.count(QX_LOG_PRIO_ERROR, arg_is_null(kAdd))) << log.dump();
    EXPECT_EQ(RT_ERR_INVALID_PARAM,
              QX_REALTIME_AddThread_Lite(nullptr, "Class_A", &util, t.tid(), 0));
    EXPECT_EQ(RT_ERR_INVALID_PARAM, QX_REALTIME_AddThread_Lite(kRr, nullptr, &util, t.tid(), 0));
    EXPECT_EQ(2, log.count(QX_LOG_PRIO_ERROR, arg_is_null(kLite))) << log.dump();
    EXPECT_EQ(RT_ERR_INVALID_PARAM, QX_REALTIME_RemoveThread(nullptr, t.tid()));
    QXT_EXPECT_ERROR(log, arg_is_null(kRemove));
    EXPECT_EQ(RT_ERR_INVALID_PARAM, QX_REALTIME_UpdateThreadUtil(nullptr, &util, t.tid()));
    QXT_EXPECT_ERROR(log, arg_is_null(kUpdate));
    EXPECT_EQ(before, segment_bytes(kRr));
    expect_placed(t.tid(), SCHED_OTHER, "/");
}

TEST_F(ThreadBadInput, NullUtilisationRecordIsNullBeforeAnyLock) {
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_AddThread(kRr, "Class_A", t.tid(), 0));
    std::vector<uint8_t> before = segment_bytes(kRr);
    LogCapture log;
    EXPECT_EQ(RT_ERR_NULL, QX_REALTIME_AddThread_Lite(kRr, "Class_A", nullptr, t.tid(), 0));
    QXT_EXPECT_ERROR(log, format("[RT_Impl][Err] [%s] pstUtil is NULL.\n", kLite));
    EXPECT_EQ(RT_ERR_NULL, QX_REALTIME_UpdateThreadUtil(kRr, nullptr, t.tid()));
    QXT_EXPECT_ERROR(log, format("[RT_Impl][Err] [%s] pstUtil is NULL.\n", kUpdate));
    // Even a NULL domain name is not looked at first.
    EXPECT_EQ(RT_ERR_NULL, QX_REALTIME_UpdateThreadUtil(nullptr, nullptr, t.tid()));
    EXPECT_EQ(before, segment_bytes(kRr));
}

TEST_F(ThreadBadInput, UnknownDomainIsNullWithEachOperationsOwnMessage) {
    QX_REALTIME_UTIL_t util = {10, 0, 0, 0};
    LogCapture log;
    EXPECT_EQ(RT_ERR_NULL, QX_REALTIME_AddThread("Domain_Nope", "Class_A", t.tid(), 0));
    QXT_EXPECT_ERROR(log, format("[RT_Impl][Err] [%s] pstDomain:[Domain_Nope] is NULL.\n", kAdd));
    EXPECT_EQ(RT_ERR_NULL, QX_REALTIME_AddThread_Lite("Domain_Nope", "Class_A", &util, t.tid(), 0));
    QXT_EXPECT_ERROR(log, format("[RT_Impl][Err] [%s] pstDomain is NULL.\n", kLite));
    EXPECT_EQ(RT_ERR_NULL, QX_REALTIME_RemoveThread("Domain_Nope", t.tid()));
    // The arguments of this one come in the reverse order.
    QXT_EXPECT_ERROR(log,
                     format("[RT_Impl][Err] [Domain_Nope] pstDomain [%s] is NULL.\n", kRemove));
    EXPECT_EQ(RT_ERR_NULL, QX_REALTIME_UpdateThreadUtil("Domain_Nope", &util, t.tid()));
    QXT_EXPECT_ERROR(log, format("[RT_Impl][Err] [%s] pstDomain is NULL.\n", kUpdate));
    EXPECT_EQ((uint32_t)SCHED_OTHER, sched_of(t.tid()).policy);
    EXPECT_EQ("/", cgroup_of(t.tid(), "cpuacct"));
}

TEST_F(ThreadBadInput, UnknownClassIsNotExistAndNamedInTheSummary) {
    QX_REALTIME_UTIL_t util = {10, 0, 0, 0};
    std::vector<uint8_t> before = segment_bytes(kRr);
    LogCapture log;
    EXPECT_EQ(RT_ERR_NOT_EXIST, QX_REALTIME_AddThread(kRr, "Class_Nope", t.tid(), 0));
    QXT_EXPECT_ERROR(log, format("[RT_Impl][Err] [%s] Class:[Class_Nope] does not exist.\n", kAdd));
    QXT_EXPECT_ERROR(log, add_failed(t.tid(), "Class_Nope", RT_ERR_NOT_EXIST));
    EXPECT_EQ(RT_ERR_NOT_EXIST, QX_REALTIME_AddThread_Lite(kRr, "Class_Nope", &util, t.tid(), 0));
    QXT_EXPECT_ERROR(log,
                     format("[RT_Impl][Err] [%s] Class:[Class_Nope] does not exist.\n", kLite));
    QXT_EXPECT_ERROR(log, format("[RT_Impl][Err] [%s] Add pid = [%d] to Thread at Class = "
                                 "[Class_Nope] failed.\n",
                                 kLite, (int)t.tid()));
    EXPECT_EQ(before, segment_bytes(kRr));
    EXPECT_EQ((uint32_t)SCHED_OTHER, sched_of(t.tid()).policy);
}

TEST_F(ThreadBadInput, ThreadIdWithoutThreadIsRefusedByTheKernel) {
    pid_t gone = dead_pid();
    LogCapture log;
    EXPECT_EQ(RT_ERR_SCHED_SETATTR, QX_REALTIME_AddThread(kRr, "Class_A", gone, 0));
    QXT_EXPECT_ERROR(
        log,
        format(
            "[RT_Impl][Err] [_QX_REALTIME_SetSchedAttr] _QX_REALTMIE_SchedSetAttr failed to set "
            "the "
            "sched for pid=%d, policy=2, priority=10, runtime=0, deadline=0, period=0, errno=%s\n",
            (int)gone, errno_text(ESRCH).c_str()));
    QXT_EXPECT_ERROR(log, add_failed(gone, "Class_A", RT_ERR_SCHED_SETATTR));
    QX_REALTIME_DOMAIN_t *d = map_domain_file(kRr);
    EXPECT_EQ(0, d->s32UtilCurrent);
    EXPECT_EQ(0, live_slot_count(d));
    EXPECT_EQ(0, d->s32ProcessIDList[0]);
    EXPECT_EQ(RT_ERR_NOT_EXIST, QX_REALTIME_RemoveThread(kRr, gone));
    QX_REALTIME_UTIL_t util = {10, 0, 0, 0};
    EXPECT_EQ(RT_ERR_NOT_EXIST, QX_REALTIME_UpdateThreadUtil(kRr, &util, gone));
    QXT_EXPECT_ERROR(log, format("[RT_Impl][Err] [%s]: Thread of pid=[%d] does not exist in RT.\n",
                                 kUpdate, (int)gone));
}

TEST_F(ThreadBadInput, NegativeThreadIdIsRefusedByTheKernelAndTracedWithoutArgPid) {
    LogCapture log;
    EXPECT_EQ(RT_ERR_SCHED_SETATTR, QX_REALTIME_AddThread(kRr, "Class_A", -5, 0));
    QXT_EXPECT_INFO(log, format("[RT_Impl][DBG] [%s] enter: pid=%d, tid=%ld;\n", kAdd,
                                (int)getpid(), (long)gettid()));
    EXPECT_EQ(0, log.count_containing("argPid")) << log.dump();
    QXT_EXPECT_ERROR(
        log,
        format(
            "[RT_Impl][Err] [_QX_REALTIME_SetSchedAttr] _QX_REALTMIE_SchedSetAttr failed to set "
            "the "
            "sched for pid=-5, policy=2, priority=10, runtime=0, deadline=0, period=0, errno=%s\n",
            errno_text(EINVAL).c_str()));
    QXT_EXPECT_ERROR(log, add_failed(-5, "Class_A", RT_ERR_SCHED_SETATTR));
    EXPECT_EQ(RT_ERR_NOT_EXIST, QX_REALTIME_RemoveThread(kRr, -5));
    QXT_EXPECT_ERROR(
        log, format("[RT_Impl][Err] [%s]: Thread [-5] doesn't exist in [Domain_Rr].\n", kRemove));
    QX_REALTIME_DOMAIN_t *d = map_domain_file(kRr);
    EXPECT_EQ(0, d->s32UtilCurrent);
    EXPECT_EQ(0, live_slot_count(d));
}

// A thread id of 0 is passed on as it is: the kernel then acts on the calling thread, and /proc
// has no process 0 to read the thread group from.
TEST_F(ThreadBadInput, ZeroThreadIdActsOnTheCallingThread) {
    LogCapture log;
    pid_t caller = 0;
    uint32_t added = 99, removed = 99;
    SchedInfo after_add{}, after_remove{};
    std::string cpuset_after_add, cpuset_after_remove;
    std::thread worker([&] {
        caller = (pid_t)syscall(SYS_gettid);
        added = QX_REALTIME_AddThread(kRr, "Class_A", 0, 0);
        after_add = sched_of(caller);
        cpuset_after_add = cgroup_of(caller, "cpuset");
        removed = QX_REALTIME_RemoveThread(kRr, 0);
        after_remove = sched_of(caller);
        cpuset_after_remove = cgroup_of(caller, "cpuset");
    });
    worker.join();
    EXPECT_EQ(RT_ERR_NOT_EXIST, added) << log.dump();
    EXPECT_EQ((uint32_t)SCHED_RR, after_add.policy);
    EXPECT_EQ(10u, after_add.priority);
    EXPECT_EQ("/Domain_Rr", cpuset_after_add);
    QXT_EXPECT_ERROR(log, format("[RT_Impl][Err] [_QX_REALTIME_getProcessID] Can't open "
                                 "/proc/0/status, errno=%s\n",
                                 errno_text(ENOENT).c_str()));
    QXT_EXPECT_ERROR(log, format("[RT_Impl][Err] [%s] getProcessID for tid [0] failed.\n", kAdd));
    QXT_EXPECT_ERROR(log, add_failed(0, "Class_A", RT_ERR_NOT_EXIST));

    EXPECT_EQ(RT_SUCCESS, removed) << log.dump();
    EXPECT_EQ((uint32_t)SCHED_OTHER, after_remove.policy);
    EXPECT_EQ("/", cpuset_after_remove);
    QX_REALTIME_DOMAIN_t *d = map_domain_file(kRr);
    EXPECT_EQ(0, d->s32UtilCurrent);
    EXPECT_EQ(0, live_slot_count(d));
    EXPECT_EQ(1, d->s32ThreadNum);
    EXPECT_EQ(0, slot(d, 0)->Pid);
    EXPECT_EQ(getpid(), slot(d, 0)->ProcessID);
}

TEST_F(ThreadBadInput, RtPriorityZeroOrHundredIsInvalidParamWithoutSystemCall) {
    ASSERT_TRUE(set_other_nice(t.tid(), 3));
    LogCapture log;
    EXPECT_EQ(RT_ERR_INVALID_PARAM, QX_REALTIME_AddThread(kRr, "Class_P0", t.tid(), 0));
    QXT_EXPECT_ERROR(log,
                     "[RT_Impl][Err] [_QX_REALTIME_SetSchedAttr]: Rt priority = [0] is "
                     "invalid. It should between 1 to 99.\n");
    QXT_EXPECT_ERROR(log, add_failed(t.tid(), "Class_P0", RT_ERR_INVALID_PARAM));
    EXPECT_EQ(RT_ERR_INVALID_PARAM, QX_REALTIME_AddThread(kRr, "Class_P100", t.tid(), 0));
    QXT_EXPECT_ERROR(log,
                     "[RT_Impl][Err] [_QX_REALTIME_SetSchedAttr]: Rt priority = [100] is "
                     "invalid. It should between 1 to 99.\n");
    EXPECT_EQ(0, log.count_containing("failed to set the sched")) << log.dump();
    SchedInfo s = sched_of(t.tid());
    EXPECT_EQ((uint32_t)SCHED_OTHER, s.policy);
    EXPECT_EQ(3, s.nice);
    EXPECT_EQ("/", cgroup_of(t.tid(), "cpuset"));
    QX_REALTIME_DOMAIN_t *d = map_domain_file(kRr);
    EXPECT_EQ(0, d->s32UtilCurrent);
    EXPECT_EQ(0, live_slot_count(d));
}

TEST_F(ThreadBadInput, RtPriorityOneAndNinetyNineAreAccepted) {
    TestThread t1, t99;
    LogCapture log;
    EXPECT_EQ(RT_SUCCESS, QX_REALTIME_AddThread(kRr, "Class_P1", t1.tid(), 0)) << log.dump();
    EXPECT_EQ(RT_SUCCESS, QX_REALTIME_AddThread(kRr, "Class_P99", t99.tid(), 0)) << log.dump();
    EXPECT_EQ((uint32_t)SCHED_RR, sched_of(t1.tid()).policy);
    EXPECT_EQ(1u, sched_of(t1.tid()).priority);
    EXPECT_EQ((uint32_t)SCHED_RR, sched_of(t99.tid()).policy);
    EXPECT_EQ(99u, sched_of(t99.tid()).priority);
    EXPECT_EQ(20, map_domain_file(kRr)->s32UtilCurrent);
}
