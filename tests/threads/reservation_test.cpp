// Deadline classes that hold their reservation ("DL_Reclaim": 0): what the kernel shows for their
// threads and the share of a CPU a busy one gets beside a normal hog, against a default class.
#include <sched.h>
#include <stdio.h>
#include <time.h>
#include <unistd.h>

#include <fstream>

#include "threads_support.h"

using namespace qxt;

namespace {

constexpr uint64_t kReclaim = 0x02;

// Two classes of 3 ms every 10 ms on CPU 1: one holds its reservation, one takes the default.
std::string held_domain() {
    std::string d = dl_domain(
        kDl, 1000, "1", {{"Class_Held", 3000, 10000, 10000}, {"Class_Free", 3000, 10000, 10000}});
    const std::string first = "\"DL_PeriodUs\": 10000";
    size_t at = d.find(first);
    if (at != std::string::npos) d.insert(at + first.size(), ",\n            \"DL_Reclaim\": 0");
    return d;
}

// CPU time the thread has had, in nanoseconds (the scheduler's own count).
uint64_t cpu_ns(pid_t tid) {
    std::ifstream in("/proc/self/task/" + std::to_string(tid) + "/schedstat");
    uint64_t ns = 0;
    in >> ns;
    return ns;
}

double now_s() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (double)ts.tv_sec + (double)ts.tv_nsec / 1e9;
}

// The share of one CPU the thread gets over about two seconds.
double share_of(pid_t tid) {
    usleep(200000);  // past the first periods after admission
    uint64_t c0 = cpu_ns(tid);
    double t0 = now_s();
    usleep(2000000);
    uint64_t c1 = cpu_ns(tid);
    double t1 = now_s();
    return (double)(c1 - c0) / 1e9 / (t1 - t0);
}

bool pin_to_cpu1(pid_t tid) {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(1, &set);
    return sched_setaffinity(tid, sizeof(set), &set) == 0;
}

}  // namespace

using HeldReservation = qxt::SandboxTest;

TEST_F(HeldReservation, ClassWithoutReclaimGetsItsRuntimePerPeriodAndNoMore) {
    ASSERT_NO_FATAL_FAILURE(start({held_domain()}, {kDl}));
    // A normal hog on the domain's CPU takes whatever the deadline threads leave.
    TestThread hog(true);
    ASSERT_TRUE(pin_to_cpu1(hog.tid()));

    TestThread held(true);
    LogCapture log;
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_AddThread(kDl, "Class_Held", held.tid(), 0)) << log.dump();
    SchedInfo s = sched_of(held.tid());
    ASSERT_EQ((uint32_t)SCHED_DEADLINE, s.policy);
    EXPECT_EQ(0u, s.flags & kReclaim);
    EXPECT_EQ(3000000u, s.runtime);
    EXPECT_EQ("/Domain_Dl", cgroup_of(held.tid(), "cpuset"));
    double held_share = share_of(held.tid());

    // An update applies the parameters again: still without reclaiming.
    QX_REALTIME_UTIL_t util = {};
    util.DlRuntimeUs = 3000;
    util.DlDeadlineUs = 10000;
    util.DlPeriodUs = 10000;
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_UpdateThreadUtil(kDl, &util, held.tid())) << log.dump();
    EXPECT_EQ(0u, sched_of(held.tid()).flags & kReclaim);
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_RemoveThread(kDl, held.tid())) << log.dump();
    held.stop();

    // The default class of the same domain reclaims what the CPU has idle for deadline threads.
    TestThread free_thread(true);
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_AddThread(kDl, "Class_Free", free_thread.tid(), 0))
        << log.dump();
    EXPECT_EQ(kReclaim, sched_of(free_thread.tid()).flags & kReclaim);
    double free_share = share_of(free_thread.tid());
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_RemoveThread(kDl, free_thread.tid())) << log.dump();

    printf("share of CPU 1 beside a hog, 3 ms / 10 ms: held %.3f, default %.3f\n", held_share,
           free_share);
    RecordProperty("held_share", std::to_string(held_share));
    RecordProperty("default_share", std::to_string(free_share));
    EXPECT_NEAR(0.30, held_share, 0.03);
    EXPECT_GT(free_share, 0.40);
}

// The dump names a class that holds its reservation, and only that one.
TEST_F(HeldReservation, TheDumpNamesTheClassThatHoldsItsReservation) {
    ASSERT_NO_FATAL_FAILURE(start({held_domain()}, {kDl}));
    LogCapture log;
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_DumpDomainInfo(kDl));
    EXPECT_EQ(1, log.count_containing("-------- Class[ 0]: [Class_Held] holds its reservation "
                                      "(DL_Reclaim 0: admitted without SCHED_FLAG_RECLAIM);"))
        << log.dump();
    EXPECT_EQ(1, log.count_containing("holds its reservation")) << log.dump();
}
