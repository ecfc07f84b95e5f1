// Admission, removal and update when a cgroup refuses to take the thread: the call fails with the
// move's message and RT_ERR_SYSTEM, and what was done before the refusal stays done (the policy an
// admission applied; the record and charge of a removal or an update), while an admission that
// failed records and charges nothing. A tasks file is made to refuse by binding /dev/full over
// it in the sandbox's private mount namespace: every write to it fails with ENOSPC.
#include <errno.h>
#include <sched.h>
#include <stddef.h>
#include <string.h>
#include <sys/mount.h>

#include "threads_support.h"

using namespace qxt;

namespace {

std::string rr() {
    return rr_domain(kRr, 1000, "1", {{"Class_A", 200, 10}});
}

std::string move_failed(const char *op, pid_t tid, const char *path) {
    return format("[RT_Impl][Err] [%s] Move pid=[%d] to %s failed.\n", op, (int)tid, path);
}

// A tasks file that refuses every write while the guard lives.
class RefusingTasks {
public:
    explicit RefusingTasks(std::string path) : path_(std::move(path)) {
        std::string why;
        bound_ = bind_over("/dev/full", path_, &why);
        EXPECT_TRUE(bound_) << why;
    }
    ~RefusingTasks() {
        if (bound_) umount2(path_.c_str(), MNT_DETACH);
    }
    bool bound() const { return bound_; }

private:
    std::string path_;
    bool bound_ = false;
};

// An admission whose move into the domain's groups is refused at tasks; cpuset_after: the cpuset
// the thread is left in (the cpuset move comes before the cpuacct one).
void expect_admission_refused_by(const char *tasks, const char *cpuset_after) {
    ASSERT_NO_FATAL_FAILURE(start({rr()}, {kRr}));
    TestThread t;
    QX_REALTIME_DOMAIN_t *d = map_domain_file(kRr);
    LogCapture log;
    {
        RefusingTasks refusing(tasks);
        ASSERT_TRUE(refusing.bound());
        EXPECT_EQ(RT_ERR_SYSTEM, QX_REALTIME_AddThread(kRr, "Class_A", t.tid(), 0));
    }
    QXT_EXPECT_ERROR(log, format("[RT_Impl][Err] [%s] Move pid = [%d] to [%s] failed.\n", kAdd,
                                 (int)t.tid(), tasks));
    QXT_EXPECT_ERROR(log, format("[RT_Impl][Err] [%s] Add pid = [%d] to Thread at Class = "
                                 "[Class_A] failed. ret is 12\n",
                                 kAdd, (int)t.tid()));
    // The class's policy stays applied, as documented; nothing is recorded or charged.
    expect_placed(t.tid(), SCHED_RR, cpuset_after);
    EXPECT_EQ("/", cgroup_of(t.tid(), "cpuacct"));
    EXPECT_EQ(nullptr, live_slot(d, t.tid()));
    EXPECT_EQ(0, d->s32UtilCurrent);
    // With the groups taking threads again the admission goes through.
    EXPECT_EQ(RT_SUCCESS, QX_REALTIME_AddThread(kRr, "Class_A", t.tid(), 0));
    EXPECT_EQ("/Domain_Rr", cgroup_of(t.tid(), "cpuacct"));
    EXPECT_EQ(200, d->s32UtilCurrent);
}

// A removal whose move back into the root groups is refused at tasks; cpuset_after: the cpuset
// the thread is left in (the cpuset move comes first). The record and the charge stay, and the
// same removal goes through once the root group takes threads again.
void expect_removal_refused_by(const char *tasks, const char *cpuset_after) {
    ASSERT_NO_FATAL_FAILURE(start({rr()}, {kRr}));
    TestThread t;
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_AddThread(kRr, "Class_A", t.tid(), 0));
    QX_REALTIME_DOMAIN_t *d = map_domain_file(kRr);
    LogCapture log;
    {
        RefusingTasks refusing(tasks);
        ASSERT_TRUE(refusing.bound());
        EXPECT_EQ(RT_ERR_SYSTEM, QX_REALTIME_RemoveThread(kRr, t.tid()));
    }
    QXT_EXPECT_ERROR(log, move_failed(kRemove, t.tid(), tasks));
    QXT_EXPECT_INFO(log, "[RT_Impl][DBG] [QX_REALTIME_RemoveThread] exit, err=12.\n");
    expect_placed(t.tid(), SCHED_RR, cpuset_after);
    EXPECT_EQ("/Domain_Rr", cgroup_of(t.tid(), "cpuacct"));
    ASSERT_NO_FATAL_FAILURE(expect_record(d, t.tid(), 200, 0, 0, 0));
    EXPECT_EQ(200, d->s32UtilCurrent);
    EXPECT_EQ(RT_SUCCESS, QX_REALTIME_RemoveThread(kRr, t.tid()));
    EXPECT_EQ(0, d->s32UtilCurrent);
    expect_placed(t.tid(), SCHED_OTHER, "/");
    EXPECT_EQ("/", cgroup_of(t.tid(), "cpuacct"));
}

}  // namespace

using RefusedMoves = qxt::SandboxTest;

TEST_F(RefusedMoves, AdmissionRefusedByTheDomainCpusetKeepsThePolicyAndRecordsNothing) {
    expect_admission_refused_by("/dev/cpuset/Domain_Rr/tasks", "/");
}

TEST_F(RefusedMoves, AdmissionRefusedByTheDomainCpuacctKeepsPolicyAndCpusetAndRecordsNothing) {
    expect_admission_refused_by("/dev/cpuacct/Domain_Rr/tasks", "/Domain_Rr");
}

TEST_F(RefusedMoves, RemovalRefusedByTheRootCpusetLeavesTheThreadRecordedChargedAndInPlace) {
    expect_removal_refused_by("/dev/cpuset/tasks", "/Domain_Rr");
}

// The cpuset move had been made: the thread is out of the domain's cpuset, still real-time,
// still accounted in the domain's cpuacct group, and its record and charge stay.
TEST_F(RefusedMoves, RemovalRefusedByTheRootCpuacctLeavesTheThreadPartlyMovedRecordedAndCharged) {
    expect_removal_refused_by("/dev/cpuacct/tasks", "/");
}

TEST_F(RefusedMoves, DeadlineUpdateRefusedByTheRootCpusetChangesNothing) {
    ASSERT_NO_FATAL_FAILURE(start({dl_isp_domain()}, {kDl}));
    TestThread t;
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_AddThread(kDl, "Class_Isp", t.tid(), 0));
    std::vector<uint8_t> before = segment_bytes(kDl);
    SchedInfo was = sched_of(t.tid());
    std::string cpuset_was = cgroup_of(t.tid(), "cpuset");
    QX_REALTIME_UTIL_t util = {0, 8000, 3000, 10000};
    LogCapture log;
    {
        RefusingTasks refusing("/dev/cpuset/tasks");
        ASSERT_TRUE(refusing.bound());
        EXPECT_EQ(RT_ERR_SYSTEM, QX_REALTIME_UpdateThreadUtil(kDl, &util, t.tid()));
    }
    QXT_EXPECT_ERROR(log, move_failed(kUpdate, t.tid(), "/dev/cpuset/tasks"));
    EXPECT_EQ(before, segment_bytes(kDl));
    SchedInfo now = sched_of(t.tid());
    EXPECT_EQ((uint32_t)SCHED_DEADLINE, now.policy);
    EXPECT_EQ(was.runtime, now.runtime);
    EXPECT_EQ(was.period, now.period);
    EXPECT_EQ(cpuset_was, cgroup_of(t.tid(), "cpuset"));
}

TEST_F(RefusedMoves,
       DeadlineUpdateRefusedByTheDomainCpusetLeavesNewParametersInTheRootAndOldBooks) {
    ASSERT_NO_FATAL_FAILURE(start({dl_isp_domain()}, {kDl}));
    TestThread t;
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_AddThread(kDl, "Class_Isp", t.tid(), 0));
    QX_REALTIME_DOMAIN_t *d = map_domain_file(kDl);
    int charge = d->s32UtilCurrent;
    QX_REALTIME_THREAD_t *rec = live_slot(d, t.tid());
    ASSERT_NE(nullptr, rec);
    int util_was = rec->Util, runtime_was = rec->RuntimeUs;
    QX_REALTIME_UTIL_t util = {0, 8000, 3000, 10000};
    LogCapture log;
    {
        RefusingTasks refusing("/dev/cpuset/Domain_Dl/tasks");
        ASSERT_TRUE(refusing.bound());
        EXPECT_EQ(RT_ERR_SYSTEM, QX_REALTIME_UpdateThreadUtil(kDl, &util, t.tid()));
    }
    QXT_EXPECT_ERROR(log, format("[RT_Impl][Err] [%s] Move pid = [%d] to "
                                 "[/dev/cpuset/Domain_Dl/tasks] failed.\n",
                                 kUpdate, (int)t.tid()));
    // The new reservation was applied in the root cpuset before the refused move back; the
    // books keep the old share, as nothing is undone.
    SchedInfo now = sched_of(t.tid());
    EXPECT_EQ((uint32_t)SCHED_DEADLINE, now.policy);
    EXPECT_EQ(3000000u, now.runtime);
    EXPECT_EQ(10000000u, now.period);
    EXPECT_EQ("/", cgroup_of(t.tid(), "cpuset"));
    EXPECT_EQ(charge, d->s32UtilCurrent);
    EXPECT_EQ(util_was, rec->Util);
    EXPECT_EQ(runtime_was, rec->RuntimeUs);
    // The same update, with the cpuset taking threads again, puts books and placement right.
    EXPECT_EQ(RT_SUCCESS, QX_REALTIME_UpdateThreadUtil(kDl, &util, t.tid()));
    EXPECT_EQ("/Domain_Dl", cgroup_of(t.tid(), "cpuset"));
    EXPECT_EQ(3000, rec->RuntimeUs);
    EXPECT_EQ(charge - util_was + util.s32Util, d->s32UtilCurrent);
}

TEST_F(RefusedMoves, RemovalWhoseSavedAttributesTheKernelRefusesKeepsRecordAndCharge) {
    ASSERT_NO_FATAL_FAILURE(start({rr()}, {kRr}));
    TestThread t;
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_AddThread(kRr, "Class_A", t.tid(), 0));
    QX_REALTIME_DOMAIN_t *d = map_domain_file(kRr);
    QX_REALTIME_THREAD_t *rec = live_slot(d, t.tid());
    ASSERT_NE(nullptr, rec);
    // A saved policy the kernel has never heard of (a record written over by another process):
    // the restore is refused after the thread has left the domain's groups.
    uint32_t bogus = 77;
    memcpy(rec->stSavedAttr + offsetof(struct qx_sched_attr, sched_policy), &bogus, sizeof(bogus));
    LogCapture log;
    EXPECT_EQ(RT_ERR_SCHED_SETATTR, QX_REALTIME_RemoveThread(kRr, t.tid()));
    QXT_EXPECT_ERROR(log,
                     "[RT_Impl][Err] _QX_REALTMIE_SchedSetAttr fails to restore setting, errno=" +
                         errno_text(EINVAL) + "\n");
    QXT_EXPECT_INFO(log, "[RT_Impl][DBG] [QX_REALTIME_RemoveThread] exit, err=14.\n");
    expect_placed(t.tid(), SCHED_RR, "/");
    EXPECT_EQ("/", cgroup_of(t.tid(), "cpuacct"));
    EXPECT_EQ(rec, live_slot(d, t.tid()));
    EXPECT_EQ(200, d->s32UtilCurrent);
}
