// The library on Android's own cgroup layout (Android 12 and later): cpuset at /dev/cpuset and no
// cpuacct hierarchy anywhere. This suite runs in sandboxes made with that layout
// (rt_sandbox --layout android). Every operation works: creation, admission, update, removal,
// reaping, CPU usage and the dump; no record or message names a cpuacct file.
#include <sys/sysinfo.h>
#include <sys/wait.h>

#include <memory>

#include "monitoring_support.h"
#include "threads_support.h"

using namespace qxt;

namespace {

const char kRr[] = "Domain_Audio";
const char kDl[] = "Domain_Camera";
const uint32_t kSchedOther = 0, kSchedRr = 2, kSchedDeadline = 6;

std::string all_cpus() {
    return format("0-%d", get_nprocs() - 1);
}

// An RR domain on CPU 1 only (so that admission moves its threads into its cpuset) and a deadline
// domain on every CPU (deadline threads must span their root domain).
std::string layout_domains() {
    return join_domains({rr_domain(kRr, 400, "1", {{"Class_Render", 100, 50}}),
                         dl_domain(kDl, 600, all_cpus(), {{"Class_Isp", 2000, 10000, 10000}})});
}

bool all_zero(const char *field, size_t size) {
    for (size_t i = 0; i < size; i++)
        if (field[i] != '\0') return false;
    return true;
}

class AndroidLayout : public qxt::SandboxTest {
protected:
    AndroidLayout() : SandboxTest(2, "needs 2 CPUs: a domain on CPU 1 of the machine") {}
    void SetUpInSandbox() override {
        const char *layout = getenv("QXRT_SANDBOX_LAYOUT");
        if (layout == nullptr || strcmp(layout, "android") != 0)
            GTEST_SKIP() << "runs in a sandbox with --layout android only";
    }
    void start_and_create() {
        ASSERT_EQ(start_framework(layout_domains(), 1024, 1, 4), RT_SUCCESS);
        ASSERT_EQ(QX_REALTIME_CreateDomain(kRr), RT_SUCCESS) << log.dump();
        ASSERT_EQ(QX_REALTIME_CreateDomain(kDl), RT_SUCCESS) << log.dump();
    }
    LogCapture log;
};

// The mount table tells the layout; the property overrides it, for the process that reads it
// first (here a child: the layout is read once per process).
TEST_F(AndroidLayout, IsToldFromTheMountTableAndThePropertyOverridesIt) {
    EXPECT_EQ(0, run_in_child([] {
                  set_property(RT_PROP_CGROUP_LAYOUT, "v1");
                  return qx_cgroup_layout() == QX_CGROUP_V1 ? 0 : 1;
              }));
    clear_property(RT_PROP_CGROUP_LAYOUT);  // the store is the sandbox's, not the child's
    EXPECT_EQ(QX_CGROUP_ANDROID, qx_cgroup_layout());
    EXPECT_STREQ("android", qx_cgroup_layout_name(qx_cgroup_layout()));
    EXPECT_FALSE(file_exists("/dev/cpuacct"));
}

TEST_F(AndroidLayout, CreationBuildsTheCpusetGroupAndNamesNoCpuacctFile) {
    ASSERT_NO_FATAL_FAILURE(start_and_create());
    std::string cpus = read_file("/dev/cpuset/Domain_Audio/cpuset.cpus");
    if (cpus.empty()) cpus = read_file("/dev/cpuset/Domain_Audio/cpus");
    EXPECT_EQ("1\n", cpus);
    QX_REALTIME_DOMAIN_t *d = map_domain_file(kRr);
    ASSERT_NE(nullptr, d);
    EXPECT_STREQ("/dev/cpuset/Domain_Audio", d->pszCpusetPathRoot);
    EXPECT_STREQ("/dev/cpuset/Domain_Audio/tasks", d->pszCpusetPathTasks);
    EXPECT_TRUE(all_zero(d->pszCpuacctPathRoot, RT_PATH_LEN));
    EXPECT_TRUE(all_zero(d->pszCpuacctPathTasks, RT_PATH_LEN));
    EXPECT_TRUE(all_zero(d->pszCpuacctPathStat, RT_PATH_LEN));
    EXPECT_EQ(0, log.count_containing("cpuacct")) << log.dump();
    EXPECT_TRUE(log.has(QX_LOG_PRIO_INFO,
                        "[RT_Impl][DBG] pszCpusetPathTasks is "
                        "/dev/cpuset/Domain_Audio/tasks\n"))
        << log.dump();
}

TEST_F(AndroidLayout, AdmissionUpdateAndRemovalPlaceAndRestoreThreads) {
    ASSERT_NO_FATAL_FAILURE(start_and_create());
    TestThread rr, dl;
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_AddThread(kRr, "Class_Render", rr.tid(), 0)) << log.dump();
    EXPECT_EQ(kSchedRr, sched_of(rr.tid()).policy);
    EXPECT_EQ("/Domain_Audio", cgroup_of(rr.tid(), "cpuset"));
    EXPECT_TRUE(tasks_file_lists("/dev/cpuset/Domain_Audio/tasks", rr.tid()));

    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_AddThread(kDl, "Class_Isp", dl.tid(), 0)) << log.dump();
    EXPECT_EQ(kSchedDeadline, sched_of(dl.tid()).policy);
    EXPECT_EQ(2000000u, sched_of(dl.tid()).runtime);
    QX_REALTIME_UTIL_t util = {0, 10000, 3000, 10000};
    EXPECT_EQ(RT_SUCCESS, QX_REALTIME_UpdateThreadUtil(kDl, &util, dl.tid())) << log.dump();
    EXPECT_EQ(3000000u, sched_of(dl.tid()).runtime);

    EXPECT_EQ(RT_SUCCESS, QX_REALTIME_RemoveThread(kRr, rr.tid())) << log.dump();
    EXPECT_EQ(RT_SUCCESS, QX_REALTIME_RemoveThread(kDl, dl.tid())) << log.dump();
    EXPECT_EQ(kSchedOther, sched_of(rr.tid()).policy);
    EXPECT_EQ(kSchedOther, sched_of(dl.tid()).policy);
    EXPECT_EQ("/", cgroup_of(rr.tid(), "cpuset"));
    EXPECT_TRUE(tasks_file_lists("/dev/cpuset/tasks", rr.tid()));
    EXPECT_EQ(0, log.count_containing("cpuacct")) << log.dump();
    EXPECT_EQ(0, log.count_containing("failed")) << log.dump();
}

// A client killed with a thread admitted: the next admission reaps it and its charge goes back.
TEST_F(AndroidLayout, ADeadClientIsReaped) {
    ASSERT_NO_FATAL_FAILURE(start_and_create());
    expect_dead_client_reaped(kRr, "Class_Render", 100, log);
}

// CPU usage without cpuacct: the admitted thread's own CPU time. A thread that spins half of the
// time shows about half a core, as its own /proc counters say over the same window.
TEST_F(AndroidLayout, UsageIsTheAdmittedThreadsOwnCpuTime) {
    ASSERT_NO_FATAL_FAILURE(start_and_create());
    BusyCpuTurn turn;
    ASSERT_TRUE(turn.held()) << turn.why();
    TestThread half(5, 5);
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_AddThread(kRr, "Class_Render", half.tid(), 0)) << log.dump();
    uint64_t ticks0 = 0, ticks1 = 0, start = 0;
    ASSERT_EQ(0, qx_thread_cpu_ticks(half.tid(), &ticks0, &start));
    log.clear();
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_GetDomainCpuUsage(kRr, 500, 2));
    ASSERT_EQ(0, qx_thread_cpu_ticks(half.tid(), &ticks1, &start));
    std::vector<Sample> samples = samples_of(forms(log));
    ASSERT_EQ(2u, samples.size()) << log.dump();
    // Its own time over the two samples (1 s, in ticks of 1/100 s), as percent of one core.
    double own = (double)(ticks1 - ticks0) * 100.0 / (double)sysconf(_SC_CLK_TCK);
    double measured = (samples[0].usage + samples[1].usage) / 2;
    RecordProperty("usage", format("%.2f %.2f own %.2f", samples[0].usage, samples[1].usage, own));
    EXPECT_GT(measured, 20.0) << log.dump();
    EXPECT_NEAR(own, measured, 10.0) << log.dump();
    EXPECT_NEAR(100 * 400.0 / 1024, samples[0].budget, 0.01);
    EXPECT_EQ(0, log.count_containing("Read")) << log.dump();
    EXPECT_EQ(RT_SUCCESS, QX_REALTIME_RemoveThread(kRr, half.tid()));
}

// The domain's time never runs backwards: what a thread used stays counted after it leaves, and
// a thread counts from when it is first found admitted.
TEST_F(AndroidLayout, DomainTimeKeepsWhatALeavingThreadUsed) {
    ASSERT_NO_FATAL_FAILURE(start_and_create());
    BusyCpuTurn turn;
    ASSERT_TRUE(turn.held()) << turn.why();
    TestThread a(5, 5), b(5, 5);
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_AddThread(kRr, "Class_Render", a.tid(), 0));
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_AddThread(kRr, "Class_Render", b.tid(), 0));
    QX_REALTIME_DOMAIN_t *d = map_domain_file(kRr);
    ASSERT_NE(nullptr, d);
    int32_t t0 = 0, t1 = 0, t2 = 0, t3 = 0;
    ASSERT_EQ(RT_SUCCESS, _QX_REALTIME_GetGroupCpuStat(d, &t0));
    usleep(400000);
    ASSERT_EQ(RT_SUCCESS, _QX_REALTIME_GetGroupCpuStat(d, &t1));
    EXPECT_GT(t1 - t0, 10);  // two threads at half a core each, 0.4 s: about 40 ticks
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_RemoveThread(kRr, a.tid()));
    a.stop();
    ASSERT_EQ(RT_SUCCESS, _QX_REALTIME_GetGroupCpuStat(d, &t2));
    EXPECT_GE(t2, t1);
    usleep(400000);
    ASSERT_EQ(RT_SUCCESS, _QX_REALTIME_GetGroupCpuStat(d, &t3));
    EXPECT_GT(t3 - t2, 5);  // b alone goes on counting
    EXPECT_LT(t3 - t2, t1 - t0 + 5);
    EXPECT_EQ(RT_SUCCESS, QX_REALTIME_RemoveThread(kRr, b.tid()));
}

// The dump shows the cpuset's tasks file, the only one there is, and reads no cpuacct file.
TEST_F(AndroidLayout, DumpShowsTheCpusetTasksOnly) {
    ASSERT_NO_FATAL_FAILURE(start_and_create());
    TestThread t;
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_AddThread(kRr, "Class_Render", t.tid(), 0));
    log.clear();
    EXPECT_EQ(RT_SUCCESS, QX_REALTIME_DumpDomainInfo(kRr));
    QXT_EXPECT_INFO(log,
                    format("[RT_Impl][Info] Info from [/dev/cpuset/Domain_Audio/tasks]:\n%d\n\n",
                           (int)t.tid()));
    EXPECT_EQ(0, log.count_containing("Read ")) << log.dump();
    EXPECT_EQ(0, log.count_containing("/dev/cpuacct")) << log.dump();
    EXPECT_EQ(1, log.count_containing("Info from [")) << log.dump();
    EXPECT_EQ(RT_SUCCESS, QX_REALTIME_RemoveThread(kRr, t.tid()));
}

// A record that names a cpuacct file on a layout without cpuacct was written by something else:
// refused, like any record whose paths are not its own.
TEST_F(AndroidLayout, ARecordNamingACpuacctFileIsRefused) {
    ASSERT_NO_FATAL_FAILURE(start_and_create());
    QX_REALTIME_DOMAIN_t *d = map_domain_file(kRr);
    ASSERT_NE(nullptr, d);
    snprintf(d->pszCpuacctPathTasks, RT_PATH_LEN, "/dev/cpuacct/Domain_Audio/tasks");
    expect_admission_refused_for_field(kRr, "Class_Render", "pszCpuacctPathTasks");
}

}  // namespace
