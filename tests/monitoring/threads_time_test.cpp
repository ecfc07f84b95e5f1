// The two sources of a domain's CPU time agree: where both exist, the admitted threads' own time
// (what the library reads on a layout without cpuacct) matches the domain's cpuacct group over
// the same window, within 5 %. Real threads with a known demand, admitted into a real domain.
#include <sys/sysinfo.h>

#include "monitoring_support.h"

using namespace qxt;

namespace {

const char kDomain[] = "Domain_Both";

class ThreadsTime : public qxt::SandboxTest {
protected:
    ThreadsTime() : SandboxTest(2, "needs 2 CPUs: a busy thread must leave one free") {}
};

// Two threads, one held to 5 ms of every 10 ms by its deadline reservation and one spinning half
// of the time at the lowest RT priority: about one core between them, for 3 s.
TEST_F(ThreadsTime, AgreesWithCpuacctWithinFivePercent) {
    if (qx_cgroup_layout() != QX_CGROUP_V1) GTEST_SKIP() << "needs a cpuacct hierarchy";
    std::string cpus = format("0-%d", get_nprocs() - 1);
    ASSERT_EQ(RT_SUCCESS, start_framework(join_domains({dl_domain(
                              kDomain, 1100, cpus, {{"Class_Busy", 5000, 10000, 10000}})})));
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_CreateDomain(kDomain));
    BusyCpuTurn turn;
    ASSERT_TRUE(turn.held()) << turn.why();
    TestThread busy(true), half(5, 5);
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_AddThread(kDomain, "Class_Busy", busy.tid(), 0));
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_AddThread(kDomain, "Class_Busy", half.tid(), 0));
    QX_REALTIME_DOMAIN_t *d = map_domain_file(kDomain);
    ASSERT_NE(nullptr, d);

    int32_t group0 = 0, group1 = 0, threads0 = 0, threads1 = 0;
    ASSERT_EQ(RT_SUCCESS, qx_cgroup_threads_time(d, &threads0));
    ASSERT_EQ(RT_SUCCESS, _QX_REALTIME_GetGroupCpuStat(d, &group0));
    usleep(3000000);
    ASSERT_EQ(RT_SUCCESS, _QX_REALTIME_GetGroupCpuStat(d, &group1));
    ASSERT_EQ(RT_SUCCESS, qx_cgroup_threads_time(d, &threads1));
    EXPECT_EQ(RT_SUCCESS, QX_REALTIME_RemoveThread(kDomain, busy.tid()));
    EXPECT_EQ(RT_SUCCESS, QX_REALTIME_RemoveThread(kDomain, half.tid()));

    double group = group1 - group0, threads = threads1 - threads0;
    RecordProperty("ticks", format("cpuacct %.0f threads %.0f", group, threads));
    EXPECT_GT(group, 100.0);  // about one core for 3 s is about 300 ticks
    EXPECT_NEAR(group, threads, group * 0.05) << "cpuacct " << group << ", threads " << threads;
}

}  // namespace
