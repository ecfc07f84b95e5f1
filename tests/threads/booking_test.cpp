// Admission books the thread (record, charge, process-ID list) before it asks the kernel, so that
// a caller killed half-way leaves a record for every thread it changed; a refusal by the kernel
// takes the booking back to the byte. Admitting with overrun signalling warns when the thread's
// process would be killed by the signal.
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <unistd.h>

#include "threads_support.h"

using namespace qxt;

namespace {

std::string rr() {
    return rr_domain(kRr, 1000, "1", {{"Class_A", 200, 10}});
}
std::string dl() {
    return dl_domain(kDl, 1000, "1", {{"Class_Isp", 2000, 8000, 100000}});
}

std::string overrun_warning(pid_t pid, const std::string &comm, pid_t tid) {
    return format(
        "[RT_Impl][Err] [QX_REALTIME_AddThread] Process %d (%s) neither catches nor "
        "ignores SIGXCPU: the first runtime overrun of thread %d will kill it.\n",
        (int)pid, comm.c_str(), (int)tid);
}

std::string comm_of(pid_t pid) {
    std::string comm = read_file(format("/proc/%d/comm", (int)pid));
    if (!comm.empty() && comm.back() == '\n') comm.pop_back();
    return comm;
}

}  // namespace

// The kernel refuses the policy: the segment is as it was before the call, byte for byte, though
// a record was written and a charge made for the time of the call.
using AdmissionBooking = qxt::SandboxTest;

TEST_F(AdmissionBooking, RefusalByTheKernelLeavesTheSegmentAsItWas) {
    ASSERT_NO_FATAL_FAILURE(start({rr()}, {kRr}));
    // A freed slot (not blank) is the one a new record would take.
    TestThread first;
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_AddThread(kRr, "Class_A", first.tid(), 0));
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_RemoveThread(kRr, first.tid()));
    std::vector<uint8_t> before = segment_bytes(kRr);
    pid_t gone = dead_pid();
    EXPECT_EQ(RT_ERR_SCHED_SETATTR, QX_REALTIME_AddThread(kRr, "Class_A", gone, 0));
    EXPECT_TRUE(before == segment_bytes(kRr)) << "the refused admission left a change";
    // And past the last slot: the counts go back too.
    TestThread keep;
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_AddThread(kRr, "Class_A", keep.tid(), 0));
    before = segment_bytes(kRr);
    EXPECT_EQ(RT_ERR_SCHED_SETATTR, QX_REALTIME_AddThread(kRr, "Class_A", gone, 0));
    EXPECT_TRUE(before == segment_bytes(kRr)) << "the refused admission left a change";
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_RemoveThread(kRr, keep.tid()));
}

TEST_F(AdmissionBooking, RefusedMoveKeepsThePolicyButNoBooking) {
    ASSERT_NO_FATAL_FAILURE(start({rr()}, {kRr}));
    QX_REALTIME_DOMAIN_t *d = map_domain_file(kRr);
    ASSERT_NE(nullptr, d);
    std::vector<uint8_t> before = segment_bytes(kRr);
    // The domain's tasks file refuses every write (an emptied cpuset would not do: admission
    // gives it the record's CPUs back, as it does after CPU hotplug).
    std::string why;
    ASSERT_TRUE(bind_over("/dev/full", "/dev/cpuset/Domain_Rr/tasks", &why)) << why;
    TestThread t;
    EXPECT_EQ(RT_ERR_SYSTEM, QX_REALTIME_AddThread(kRr, "Class_A", t.tid(), 0));
    // The policy stays applied, as the admission has always left it; nothing is booked.
    EXPECT_EQ((uint32_t)SCHED_RR, sched_of(t.tid()).policy);
    EXPECT_EQ(nullptr, live_slot(d, t.tid()));
    EXPECT_EQ(0, d->s32UtilCurrent);
    EXPECT_TRUE(before == segment_bytes(kRr)) << "the refused admission left a change";
    umount2("/dev/cpuset/Domain_Rr/tasks", MNT_DETACH);
}

TEST_F(AdmissionBooking, CpusetEmptiedSinceCreationGetsTheRecordsCpusBackAndAdmits) {
    // What CPU hotplug leaves on cgroup v1 (a CPU taken offline and back), done here by hand.
    ASSERT_NO_FATAL_FAILURE(start({rr()}, {kRr}));
    std::string cpus = "/dev/cpuset/Domain_Rr/cpuset.cpus";
    if (!file_exists(cpus)) cpus = "/dev/cpuset/Domain_Rr/cpus";
    write_file(cpus, "\n");
    TestThread t;
    LogCapture log;
    EXPECT_EQ(RT_SUCCESS, QX_REALTIME_AddThread(kRr, "Class_A", t.tid(), 0)) << log.dump();
    EXPECT_EQ("1\n", read_file(cpus));
    expect_placed(t.tid(), SCHED_RR, "/Domain_Rr");
    EXPECT_EQ(0, error_count(log)) << log.dump();
    QXT_EXPECT_INFO(log, format("[RT_Impl][Info] %s is reset to 1.\n", cpus.c_str()));
    EXPECT_EQ(RT_SUCCESS, QX_REALTIME_RemoveThread(kRr, t.tid()));
}

TEST_F(AdmissionBooking, OverrunSignallingWarnsWhenTheSignalWouldKillTheProcess) {
    QXT_SKIP_UNDER_EMULATOR(
        "qemu-user catches every signal for the process it emulates, so the "
        "kernel shows SIGXCPU caught whatever the emulated process asked");
    ASSERT_NO_FATAL_FAILURE(start({dl()}, {kDl}));
    signal(SIGXCPU, SIG_DFL);
    {
        TestThread t;
        LogCapture log;
        ASSERT_EQ(RT_SUCCESS, QX_REALTIME_AddThread(kDl, "Class_Isp", t.tid(), 1)) << log.dump();
        QXT_EXPECT_ERROR(log, overrun_warning(getpid(), comm_of(getpid()), t.tid()));
        ASSERT_EQ(RT_SUCCESS, QX_REALTIME_RemoveThread(kDl, t.tid()));
    }
    {
        // Without the flag there is nothing to warn about.
        TestThread t;
        LogCapture log;
        ASSERT_EQ(RT_SUCCESS, QX_REALTIME_AddThread(kDl, "Class_Isp", t.tid(), 0));
        EXPECT_EQ(0, log.count_containing("SIGXCPU")) << log.dump();
        ASSERT_EQ(RT_SUCCESS, QX_REALTIME_RemoveThread(kDl, t.tid()));
    }
    for (void (*handler)(int) : {SIG_IGN, +[](int) {}}) {
        // A process that ignores or catches the signal survives it.
        signal(SIGXCPU, handler);
        TestThread t;
        LogCapture log;
        ASSERT_EQ(RT_SUCCESS, QX_REALTIME_AddThread(kDl, "Class_Isp", t.tid(), 1));
        EXPECT_EQ(0, log.count_containing("SIGXCPU")) << log.dump();
        ASSERT_EQ(RT_SUCCESS, QX_REALTIME_RemoveThread(kDl, t.tid()));
    }
    signal(SIGXCPU, SIG_DFL);
}
