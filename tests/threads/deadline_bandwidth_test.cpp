// Removing a deadline thread while it sleeps must give its bandwidth back to the kernel at once.
// A thread switched straight from SCHED_DEADLINE to SCHED_OTHER while asleep keeps its
// reservation booked in the kernel's admission control for 40 s and more; a handful of such
// removals leaves the whole machine unable to admit any deadline thread (EBUSY).
#include <sched.h>
#include <unistd.h>

#include "threads_support.h"

using namespace qxt;

namespace {

const char kBw[] = "Domain_Bw";

// 20 ms every 100 ms is a fifth of a CPU: the 2 CPUs of the test machine (95 % each for deadline
// tasks) hold nine such reservations, so a leak shows within ten cycles.
std::string bw_domain() {
    return dl_domain(kBw, 1000, "1", {{"Class_Fifth", 20000, 100000, 100000}});
}

// Drops, on the way out, whatever a failing run left booked, so that the deadline tests running
// beside this one are not starved.
struct DropLeakedBandwidth {
    ~DropLeakedBandwidth() { rebuild_sched_domains(); }
};

}  // namespace

using DeadlineBandwidth = qxt::SandboxTest;

TEST_F(DeadlineBandwidth, RemovingSleepingDeadlineThreadGivesItsBandwidthBackAtOnce) {
    ASSERT_NO_FATAL_FAILURE(start({bw_domain()}, {kBw}));
    rebuild_sched_domains();  // start from a kernel that holds no stray reservation
    DropLeakedBandwidth guard;

    TestThread t;
    ASSERT_TRUE(set_other_nice(t.tid(), 5));
    const SchedInfo before = sched_of(t.tid());
    const int kCycles = 30;
    for (int cycle = 1; cycle <= kCycles; cycle++) {
        // The thread sleeps throughout, as a client thread waiting for work. Every other cycle
        // it gets time to wake and run a little as a deadline task before it is removed. The
        // cycles are kept short: sched-domain rebuilds elsewhere on the machine would drop a
        // leaked reservation and hide the leak.
        LogCapture log;
        ASSERT_EQ(RT_SUCCESS, QX_REALTIME_AddThread(kBw, "Class_Fifth", t.tid(), 0))
            << "cycle " << cycle << " of " << kCycles << "\n"
            << log.dump();
        ASSERT_EQ((uint32_t)SCHED_DEADLINE, sched_of(t.tid()).policy);
        ASSERT_EQ("/Domain_Bw", cgroup_of(t.tid(), "cpuset"));
        if (cycle % 2 == 0) usleep(1500);
        log.clear();
        ASSERT_EQ(RT_SUCCESS, QX_REALTIME_RemoveThread(kBw, t.tid())) << "cycle " << cycle << "\n"
                                                                      << log.dump();
        // The removal looks exactly as before: its own messages, nothing more.
        EXPECT_EQ(0, error_count(log)) << log.dump();
        QXT_EXPECT_INFO(log, "[RT_Impl][Info] s32UtilCurrent in Domain(Domain_Bw) is 0.\n");
        QXT_EXPECT_INFO(
            log, format("[RT_Impl][DBG] [QX_REALTIME_RemoveThread] for pid=[%d] successfully.\n",
                        (int)t.tid()));
        SchedInfo s = sched_of(t.tid());
        ASSERT_EQ((uint32_t)SCHED_OTHER, s.policy);
        ASSERT_EQ(5, s.nice);
        ASSERT_EQ(before.runtime, s.runtime);
        ASSERT_EQ(0u, s.flags);
        ASSERT_EQ("/", cgroup_of(t.tid(), "cpuset"));
    }
    // Any other thread still gets a deadline reservation.
    TestThread fresh;
    EXPECT_EQ(RT_SUCCESS, QX_REALTIME_AddThread(kBw, "Class_Fifth", fresh.tid(), 0));
    EXPECT_EQ((uint32_t)SCHED_DEADLINE, sched_of(fresh.tid()).policy);
    EXPECT_EQ(200, map_domain_file(kBw)->s32UtilCurrent);
}

TEST_F(DeadlineBandwidth,
       AdmittingSleepingDeadlineThreadIntoRoundRobinDomainGivesItsBandwidthBack) {
    const char kRr[] = "Domain_BwRr";
    ASSERT_NO_FATAL_FAILURE(
        start({bw_domain(), rr_domain(kRr, 0, "0", {{"Class_Plain", 0, 20}})}, {kBw, kRr}));
    rebuild_sched_domains();
    DropLeakedBandwidth guard;

    // A client thread that already holds its own deadline reservation (a fifth of a CPU) is
    // admitted into a round-robin domain and removed again, over and over, while it sleeps.
    TestThread t;
    ASSERT_TRUE(set_deadline(t.tid(), 20000000, 100000000, 100000000));
    const int kCycles = 30;
    for (int cycle = 1; cycle <= kCycles; cycle++) {
        LogCapture log;
        ASSERT_EQ(RT_SUCCESS, QX_REALTIME_AddThread(kRr, "Class_Plain", t.tid(), 0))
            << "cycle " << cycle << "\n"
            << log.dump();
        SchedInfo rr = sched_of(t.tid());
        ASSERT_EQ((uint32_t)SCHED_RR, rr.policy);
        ASSERT_EQ(20u, rr.priority);
        if (cycle % 2 == 0) usleep(1500);
        ASSERT_EQ(RT_SUCCESS, QX_REALTIME_RemoveThread(kRr, t.tid())) << "cycle " << cycle;
        // Removal gives the thread its own reservation back.
        SchedInfo dl = sched_of(t.tid());
        ASSERT_EQ((uint32_t)SCHED_DEADLINE, dl.policy);
        ASSERT_EQ(20000000u, dl.runtime);
        ASSERT_EQ(100000000u, dl.period);
    }
    // Its own reservation is still the only one booked: a fresh deadline thread is admitted.
    TestThread fresh;
    EXPECT_EQ(RT_SUCCESS, QX_REALTIME_AddThread(kBw, "Class_Fifth", fresh.tid(), 0));
    EXPECT_EQ((uint32_t)SCHED_DEADLINE, sched_of(fresh.tid()).policy);
    QX_REALTIME_RemoveThread(kBw, fresh.tid());
    // Leave the thread without a reservation on the way out, the same careful way.
    ASSERT_TRUE(set_deadline(t.tid(), 1024, 4000000000ull, 4000000000ull));
    ASSERT_TRUE(set_other_nice(t.tid(), 0));
}

TEST_F(DeadlineBandwidth, RefusedRoundRobinAdmissionLeavesDeadlineThreadWithItsReservation) {
    const char kRr[] = "Domain_BwRr";
    // RT_Priority 0 is refused before any system call changes the policy.
    ASSERT_NO_FATAL_FAILURE(start({rr_domain(kRr, 0, "0", {{"Class_Bad", 0, 0}})}, {kRr}));
    TestThread t;
    ASSERT_TRUE(set_deadline(t.tid(), 1000000, 10000000, 10000000));
    EXPECT_EQ(RT_ERR_INVALID_PARAM, QX_REALTIME_AddThread(kRr, "Class_Bad", t.tid(), 0));
    SchedInfo s = sched_of(t.tid());
    EXPECT_EQ((uint32_t)SCHED_DEADLINE, s.policy);
    EXPECT_EQ(1000000u, s.runtime);
    EXPECT_EQ(10000000u, s.deadline);
    EXPECT_EQ(10000000u, s.period);
    ASSERT_TRUE(set_deadline(t.tid(), 1024, 4000000000ull, 4000000000ull));
    ASSERT_TRUE(set_other_nice(t.tid(), 0));
}
