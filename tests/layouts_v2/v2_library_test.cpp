// The library on a cgroup v2 hierarchy (no v1 cpuset anywhere): a domain's threads are placed in
// a threaded group qxrt-<domain> inside their own process's group, which keeps its processes.
// This suite runs in sandboxes made with that layout (rt_sandbox --layout v2, inside the VM guest
// booted without cgroup v1). What is asserted is what the kernel shows: /proc/<tid>/cgroup, the
// groups' files, the threads' scheduling and CPUs.
#include <sys/stat.h>
#include <sys/sysinfo.h>
#include <sys/wait.h>

#include "monitoring_support.h"
#include "threads_support.h"

using namespace qxt;

namespace {

const char kRr[] = "Domain_Audio";
const char kDl[] = "Domain_Camera";
const char kWide[] = "Domain_Wide";
const uint32_t kSchedOther = 0, kSchedRr = 2, kSchedDeadline = 6;
const std::string kMount = "/sys/fs/cgroup";

std::string all_cpus() {
    return format("0-%d", get_nprocs() - 1);
}

// An RR and a deadline domain on CPU 1 only (admission moves their threads into a narrower
// cpuset), and a deadline domain on every CPU (no move at all).
std::string v2_domains() {
    return join_domains({rr_domain(kRr, 300, "1", {{"Class_Render", 100, 50}}),
                         dl_domain(kDl, 400, "1", {{"Class_Isp", 2000, 10000, 10000}}),
                         dl_domain(kWide, 300, all_cpus(), {{"Class_Wide", 1000, 10000, 10000}})});
}

// The thread's group in the v2 hierarchy, relative to the mount ("/" for its root).
std::string group_of(pid_t tid) {
    return cgroup_of(tid, "");
}

std::string cpus_allowed(pid_t tid) {
    std::string status = read_file(format("/proc/%d/task/%d/status", (int)tid, (int)tid));
    size_t at = status.find("Cpus_allowed_list:");
    if (at == std::string::npos) return "";
    at = status.find_first_not_of(" \t", at + 18);
    return status.substr(at, status.find('\n', at) - at);
}

bool all_zero(const char *field, size_t size) {
    for (size_t i = 0; i < size; i++)
        if (field[i] != '\0') return false;
    return true;
}

bool write_text(const std::string &path, const std::string &text) {
    FILE *f = fopen(path.c_str(), "we");
    if (f == nullptr) return false;
    fputs(text.c_str(), f);
    return fclose(f) == 0;
}

class V2Layout : public qxt::SandboxTest {
protected:
    V2Layout() : SandboxTest(2, "needs 2 CPUs: domains on CPU 1 of the machine") {}
    void SetUpInSandbox() override {
        const char *layout = getenv("QXRT_SANDBOX_LAYOUT");
        if (layout == nullptr || strcmp(layout, "v2") != 0)
            GTEST_SKIP() << "runs in a sandbox with --layout v2 only";
        home_ = group_of(qx_gettid());
    }
    void start_and_create() {
        ASSERT_EQ(start_framework(v2_domains(), 1024, 1, 4), RT_SUCCESS);
        for (const char *name : {kRr, kDl, kWide})
            ASSERT_EQ(QX_REALTIME_CreateDomain(name), RT_SUCCESS) << log.dump();
    }
    // This process's own group as an absolute path.
    std::string home_dir() const { return home_ == "/" ? kMount : kMount + home_; }
    std::string domain_group(const char *name) const {
        return (home_ == "/" ? "" : home_) + "/qxrt-" + name;
    }
    std::string home_;
    LogCapture log;
};

TEST_F(V2Layout, IsToldFromTheMountTable) {
    EXPECT_EQ(QX_CGROUP_V2, qx_cgroup_layout());
    EXPECT_STREQ("v2", qx_cgroup_layout_name(qx_cgroup_layout()));
    EXPECT_FALSE(qx_cgroup_has_cpuacct());
    EXPECT_FALSE(file_exists("/dev/cpuset/tasks"));
    EXPECT_TRUE(file_exists(kMount + "/cgroup.controllers"));
}

// A domain has no group of its own on v2: creation names no path and makes no directory.
TEST_F(V2Layout, CreationNamesNoGroupPathAndMakesNoGroup) {
    ASSERT_NO_FATAL_FAILURE(start_and_create());
    QX_REALTIME_DOMAIN_t *d = map_domain_file(kRr);
    ASSERT_NE(nullptr, d);
    EXPECT_STREQ("1", d->pszCpuset);
    EXPECT_TRUE(all_zero(d->pszCpusetPathRoot, RT_PATH_LEN));
    EXPECT_TRUE(all_zero(d->pszCpusetPathTasks, RT_PATH_LEN));
    EXPECT_TRUE(all_zero(d->pszCpuacctPathRoot, RT_PATH_LEN));
    EXPECT_TRUE(all_zero(d->pszCpuacctPathTasks, RT_PATH_LEN));
    EXPECT_TRUE(all_zero(d->pszCpuacctPathStat, RT_PATH_LEN));
    EXPECT_FALSE(file_exists(kMount + domain_group(kRr)));
    EXPECT_EQ(0, log.count_containing("Err]")) << log.dump();
}

// Admission: the thread alone moves into <its process's group>/qxrt-Domain_Audio, a threaded
// group on CPU 1; the process and its other threads stay where they were. Removal brings the
// thread back, restores its policy and removes the emptied group.
TEST_F(V2Layout, AdmissionPlacesTheThreadInAThreadedGroupOfItsProcess) {
    ASSERT_NO_FATAL_FAILURE(start_and_create());
    TestThread rr;
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_AddThread(kRr, "Class_Render", rr.tid(), 0)) << log.dump();
    EXPECT_EQ(kSchedRr, sched_of(rr.tid()).policy);
    EXPECT_EQ(domain_group(kRr), group_of(rr.tid()));
    EXPECT_EQ(home_, group_of(qx_gettid()));
    EXPECT_EQ(home_, group_of(getpid()));
    std::string dir = kMount + domain_group(kRr);
    EXPECT_EQ("threaded\n", read_file(dir + "/cgroup.type"));
    EXPECT_EQ("domain threaded\n", read_file(home_dir() + "/cgroup.type"));
    EXPECT_EQ("1\n", read_file(dir + "/cpuset.cpus.effective"));
    EXPECT_EQ("1", cpus_allowed(rr.tid()));
    EXPECT_NE(std::string::npos,
              read_file(home_dir() + "/cgroup.procs").find(format("%d\n", getpid())));

    EXPECT_EQ(RT_SUCCESS, QX_REALTIME_RemoveThread(kRr, rr.tid())) << log.dump();
    EXPECT_EQ(kSchedOther, sched_of(rr.tid()).policy);
    EXPECT_EQ(home_, group_of(rr.tid()));
    EXPECT_EQ(all_cpus(), cpus_allowed(rr.tid()));
    EXPECT_FALSE(file_exists(dir));
    EXPECT_EQ(0, log.count_containing("failed")) << log.dump();
}

// A deadline domain on fewer CPUs than the machine: the reservation is set where the thread
// spans its root domain, then the thread moves into the narrower group (the kernel refuses the
// other order). Its update parks it in its home and brings it back.
TEST_F(V2Layout, DeadlineThreadsGetTheirReservationAndTheDomainsCpus) {
    ASSERT_NO_FATAL_FAILURE(start_and_create());
    TestThread dl, wide;
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_AddThread(kDl, "Class_Isp", dl.tid(), 0)) << log.dump();
    EXPECT_EQ(kSchedDeadline, sched_of(dl.tid()).policy);
    EXPECT_EQ(2000000u, sched_of(dl.tid()).runtime);
    EXPECT_EQ(domain_group(kDl), group_of(dl.tid()));
    EXPECT_EQ("1", cpus_allowed(dl.tid()));

    QX_REALTIME_UTIL_t util = {0, 10000, 3000, 10000};
    EXPECT_EQ(RT_SUCCESS, QX_REALTIME_UpdateThreadUtil(kDl, &util, dl.tid())) << log.dump();
    EXPECT_EQ(3000000u, sched_of(dl.tid()).runtime);
    EXPECT_EQ(domain_group(kDl), group_of(dl.tid()));
    EXPECT_EQ("1", cpus_allowed(dl.tid()));

    // A domain on every CPU moves nothing: the thread stays in its process's group.
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_AddThread(kWide, "Class_Wide", wide.tid(), 0)) << log.dump();
    EXPECT_EQ(kSchedDeadline, sched_of(wide.tid()).policy);
    EXPECT_EQ(home_, group_of(wide.tid()));
    EXPECT_FALSE(file_exists(kMount + domain_group(kWide)));

    EXPECT_EQ(RT_SUCCESS, QX_REALTIME_RemoveThread(kDl, dl.tid())) << log.dump();
    EXPECT_EQ(RT_SUCCESS, QX_REALTIME_RemoveThread(kWide, wide.tid())) << log.dump();
    EXPECT_EQ(kSchedOther, sched_of(dl.tid()).policy);
    EXPECT_EQ(home_, group_of(dl.tid()));
    EXPECT_EQ(all_cpus(), cpus_allowed(dl.tid()));
}

// A service's process, in a group of its own beside the sandbox's processes (as a service manager
// puts one: a leaf under a parent that holds no process and enables cpuset): its thread goes into
// a threaded group of that service's group, and the process stays there.
TEST_F(V2Layout, AServicesProcessStaysInItsServiceGroup) {
    ASSERT_NO_FATAL_FAILURE(start_and_create());
    std::string service = kMount + "/app.service";
    ASSERT_EQ(0, mkdir(service.c_str(), 0755)) << strerror(errno);
    int status = run_in_child([&] {
        if (!write_text(service + "/cgroup.procs", format("%d", getpid()))) return 10;
        TestThread t;
        if (QX_REALTIME_AddThread(kRr, "Class_Render", t.tid(), 0) != RT_SUCCESS) return 11;
        std::string own = group_of(getpid());
        bool placed = own == "/app.service" &&
                      group_of(t.tid()) == "/app.service/qxrt-Domain_Audio" &&
                      cpus_allowed(t.tid()) == "1";
        bool stays = read_file(service + "/cgroup.procs").find(format("%d\n", getpid())) !=
                     std::string::npos;
        if (QX_REALTIME_RemoveThread(kRr, t.tid()) != RT_SUCCESS) return 12;
        bool back = group_of(t.tid()) == own;
        return placed && stays && back ? 0 : 13;
    });
    EXPECT_EQ(0, status);
    EXPECT_EQ(0, rmdir(service.c_str())) << strerror(errno);
}

// A service manager nests groups deeper than a record's 128-byte path field: a thread of a
// process four levels down, its group's path over 200 characters, is placed all the same.
TEST_F(V2Layout, AProcessInADeeplyNestedGroupIsPlaced) {
    ASSERT_NO_FATAL_FAILURE(start_and_create());
    std::vector<std::string> levels;
    std::string dir = kMount;
    for (int i = 0; i < 4; i++) {
        if (i > 0) {
            ASSERT_TRUE(write_text(dir + "/cgroup.subtree_control", "+cpuset"));
        }
        dir += format("/level-%d-of-a-service-managers-nested-groups.slice", i);
        ASSERT_EQ(0, mkdir(dir.c_str(), 0755)) << strerror(errno);
        levels.push_back(dir);
    }
    ASSERT_GT(dir.size(), (size_t)RT_PATH_LEN + 64);
    int status = run_in_child([&] {
        if (!write_text(dir + "/cgroup.procs", format("%d", getpid()))) return 10;
        TestThread t;
        if (QX_REALTIME_AddThread(kRr, "Class_Render", t.tid(), 0) != RT_SUCCESS) return 11;
        std::string own = group_of(getpid());
        bool placed = kMount + group_of(t.tid()) == dir + "/qxrt-Domain_Audio" &&
                      cpus_allowed(t.tid()) == "1";
        if (QX_REALTIME_RemoveThread(kRr, t.tid()) != RT_SUCCESS) return 12;
        return placed && group_of(t.tid()) == own ? 0 : 13;
    });
    EXPECT_EQ(0, status);
    for (auto it = levels.rbegin(); it != levels.rend(); ++it)
        EXPECT_EQ(0, rmdir(it->c_str())) << *it << ": " << strerror(errno);
}

// A process whose group can't have cpuset for its children (its parent enables no cpuset): the
// admission is refused with a message that says why, and the thread is left as it was.
TEST_F(V2Layout, AGroupWithoutCpusetRefusesTheMoveAndSaysWhy) {
    ASSERT_NO_FATAL_FAILURE(start_and_create());
    std::string slice = home_dir() + "/plain.slice", leaf = slice + "/leaf";
    ASSERT_EQ(0, mkdir(slice.c_str(), 0755)) << strerror(errno);
    ASSERT_EQ(0, mkdir(leaf.c_str(), 0755)) << strerror(errno);
    ASSERT_EQ(std::string::npos, read_file(leaf + "/cgroup.controllers").find("cpuset"));
    int status = run_in_child([&] {
        if (!write_text(leaf + "/cgroup.procs", format("%d", getpid()))) return 10;
        LogCapture child_log;
        TestThread t;
        uint32_t rc = QX_REALTIME_AddThread(kRr, "Class_Render", t.tid(), 0);
        std::string own = group_of(getpid());
        bool said =
            child_log.count_containing("The cpuset controller is not enabled for " + kMount + own +
                                       ": its parent's cgroup.subtree_control "
                                       "must hold it.") == 1;
        // Left as it was: in its process's group, with the policy it had.
        bool left = group_of(t.tid()) == own && sched_of(t.tid()).policy == kSchedOther;
        return rc == RT_ERR_SYSTEM && said && left ? 0 : 20 + (int)rc;
    });
    EXPECT_EQ(0, status) << log.dump();
    EXPECT_EQ(0, rmdir(leaf.c_str())) << strerror(errno);
    EXPECT_EQ(0, rmdir(slice.c_str())) << strerror(errno);
    QX_REALTIME_DOMAIN_t *d = map_domain_file(kRr);
    ASSERT_NE(nullptr, d);
    EXPECT_EQ(0, d->s32UtilCurrent);  // the refused admission holds no budget
}

// A client killed with a thread admitted: the next admission reaps it and its charge goes back.
TEST_F(V2Layout, ADeadClientIsReaped) {
    ASSERT_NO_FATAL_FAILURE(start_and_create());
    expect_dead_client_reaped(kRr, "Class_Render", 100, log);
}

// Usage on v2 is the admitted threads' own CPU time; it agrees with the kernel's cpu.stat of the
// domain's threaded group (which holds only that thread) within 5 %.
TEST_F(V2Layout, UsageAgreesWithTheGroupsCpuStat) {
    ASSERT_NO_FATAL_FAILURE(start_and_create());
    BusyCpuTurn turn;
    ASSERT_TRUE(turn.held()) << turn.why();
    TestThread half(5, 5);
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_AddThread(kRr, "Class_Render", half.tid(), 0)) << log.dump();
    QX_REALTIME_DOMAIN_t *d = map_domain_file(kRr);
    ASSERT_NE(nullptr, d);
    std::string stat = kMount + domain_group(kRr) + "/cpu.stat";
    auto usage_usec = [&] {
        unsigned long long v = 0;
        sscanf(read_file(stat).c_str(), "usage_usec %llu", &v);
        return v;
    };
    int32_t t0 = 0, t1 = 0;
    ASSERT_EQ(RT_SUCCESS, _QX_REALTIME_GetGroupCpuStat(d, &t0));
    unsigned long long u0 = usage_usec();
    usleep(2000000);
    ASSERT_EQ(RT_SUCCESS, _QX_REALTIME_GetGroupCpuStat(d, &t1));
    unsigned long long u1 = usage_usec();
    double ours_ms = (double)(t1 - t0) * 1000.0 / (double)sysconf(_SC_CLK_TCK);
    double kernel_ms = (double)(u1 - u0) / 1000.0;
    RecordProperty("usage_ms", format("library %.0f cpu.stat %.0f", ours_ms, kernel_ms));
    EXPECT_GT(kernel_ms, 400.0);
    // Ticks are 10 ms: 5 % of the window plus one tick at each end.
    EXPECT_NEAR(kernel_ms, ours_ms, kernel_ms * 0.05 + 20.0);
    EXPECT_EQ(RT_SUCCESS, QX_REALTIME_RemoveThread(kRr, half.tid()));
}

// The dump reads no cgroup file on v2 (no one file lists a domain's threads) and shows the
// records.
TEST_F(V2Layout, DumpReadsNoGroupFile) {
    ASSERT_NO_FATAL_FAILURE(start_and_create());
    TestThread t;
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_AddThread(kRr, "Class_Render", t.tid(), 0));
    log.clear();
    EXPECT_EQ(RT_SUCCESS, QX_REALTIME_DumpDomainInfo(kRr));
    EXPECT_EQ(0, log.count_containing("Read ")) << log.dump();
    EXPECT_EQ(0, log.count_containing("Info from [")) << log.dump();
    EXPECT_EQ(1, log.count_containing(format("Pid         = [%10d]", (int)t.tid()))) << log.dump();
    EXPECT_EQ(RT_SUCCESS, QX_REALTIME_RemoveThread(kRr, t.tid()));
}

// A record that names a v1 cpuset path on v2 was written by something else: refused.
TEST_F(V2Layout, ARecordNamingAGroupPathIsRefused) {
    ASSERT_NO_FATAL_FAILURE(start_and_create());
    QX_REALTIME_DOMAIN_t *d = map_domain_file(kRr);
    ASSERT_NE(nullptr, d);
    snprintf(d->pszCpusetPathTasks, RT_PATH_LEN, "/dev/cpuset/Domain_Audio/tasks");
    expect_admission_refused_for_field(kRr, "Class_Render", "pszCpusetPathTasks");
}

}  // namespace
