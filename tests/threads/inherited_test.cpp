// Threads the library does not know: one that an admitted round-robin thread creates gets its
// creator's policy and groups from the kernel, and no record.
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "threads_support.h"

using namespace qxt;

using UnknownThreads = qxt::SandboxTest;

TEST_F(UnknownThreads, ThreadCreatedByAdmittedRrThreadInheritsPolicyAndCpusetAndIsNotBooked) {
    ASSERT_NO_FATAL_FAILURE(start({rr_domain(kRr, 1000, "1", {{"Class_Rr", 100, 30}})}, {kRr}));
    std::atomic<pid_t> parent{0}, child{0};
    std::atomic<bool> done{false};
    std::atomic<uint32_t> added{1};
    std::thread creator([&] {
        parent = (pid_t)syscall(SYS_gettid);
        added = QX_REALTIME_AddThread(kRr, "Class_Rr", parent.load(), 0);
        if (added.load() != RT_SUCCESS) return;
        std::thread inner([&] {
            child = (pid_t)syscall(SYS_gettid);
            while (!done.load()) usleep(1000);
        });
        inner.join();
    });
    // Until the inner thread runs, or the admission failed.
    while (child.load() == 0 && (added.load() == 1 || added.load() == RT_SUCCESS)) usleep(1000);
    ASSERT_EQ(RT_SUCCESS, added.load());
    SchedInfo s = sched_of(child.load());
    EXPECT_EQ((uint32_t)SCHED_RR, s.policy);
    EXPECT_EQ(30u, s.priority);
    EXPECT_EQ("/Domain_Rr", cgroup_of(child.load(), "cpuset"));
    QX_REALTIME_DOMAIN_t *d = map_domain_file(kRr);
    ASSERT_NE(nullptr, d);
    EXPECT_EQ(nullptr, live_slot(d, child.load()));
    EXPECT_EQ(1, live_slot_count(d));
    EXPECT_EQ(100, d->s32UtilCurrent);
    EXPECT_EQ(RT_SUCCESS, QX_REALTIME_RemoveThread(kRr, parent.load()));
    done = true;
    creator.join();
}
