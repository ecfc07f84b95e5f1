// CPU hotplug on cgroup v1 layouts, with real threads on the real kernel: CPU 1 taken offline and
// brought back while domains on it admit, remove, sample and dump, and rtctl check reports and
// repairs. A CPU may only be taken offline in the VM guest of scripts/vm (a 2-CPU machine of its
// own): everywhere else every case skips. Every case brings CPU 1 back online, also on failure.
#include <errno.h>
#include <fcntl.h>
#include <sched.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>

#include "cli_support.h"
#include "threads_support.h"

using namespace qxt;

namespace {

constexpr char kCpu1Online[] = "/sys/devices/system/cpu/cpu1/online";
constexpr char kOne[] = "Domain_One";    // CPU 1 only
constexpr char kPair[] = "Domain_Pair";  // CPUs 0 and 1

// Whether this runs in the VM guest: its runner names the sandbox "vm-<layout>" and only the
// guest's initramfs holds the runner's settings (/vm/settings) and the guest's runner itself.
bool in_vm_guest(std::string *why) {
    const char *sandbox = getenv("QXRT_SANDBOX");
    if (sandbox == nullptr || strncmp(sandbox, "vm-", 3) != 0 ||
        access("/vm/settings", F_OK) != 0 || access("/vm/run", F_OK) != 0) {
        *why = "takes CPU 1 offline: runs only in the VM guest (scripts/vm), never on a host";
        return false;
    }
    if (access(kCpu1Online, W_OK) != 0) {
        *why = "the guest's CPU 1 can't be taken offline (no writable cpu1/online)";
        return false;
    }
    return true;
}

// Writes 0 or 1 to CPU 1's online file; 0, or the errno of the refusal.
int set_cpu1_online(bool online) {
    int fd = open(kCpu1Online, O_WRONLY | O_CLOEXEC);
    if (fd < 0) return errno;
    int rc = write(fd, online ? "1" : "0", 1) == 1 ? 0 : errno;
    close(fd);
    return rc;
}

std::string trimmed(std::string text) {
    while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.pop_back();
    return text;
}

std::string domain_cpus(const char *domain) {
    return trimmed(read_file(format("/dev/cpuset/%s/cpus", domain)));
}

// The CPUs the kernel lets a thread run on, as a mask.
unsigned affinity_of(pid_t tid) {
    cpu_set_t set;
    CPU_ZERO(&set);
    if (sched_getaffinity(tid, sizeof(set), &set) != 0) return 0;
    unsigned mask = 0;
    for (int i = 0; i < 32; i++)
        if (CPU_ISSET(i, &set)) mask |= 1u << i;
    return mask;
}

class CpuHotplug : public SandboxTest {
protected:
    CpuHotplug() : SandboxTest(2, "takes CPU 1 of a 2-CPU machine offline") {}
    void SetUpInSandbox() override {
        std::string why;
        if (!in_vm_guest(&why)) GTEST_SKIP() << why;
        ASSERT_EQ(0, set_cpu1_online(true)) << "CPU 1 can't be brought online";
        guest_ = true;
    }
    void TearDown() override {
        if (!guest_) return;
        // Back online whatever happened; a deadline thread's bandwidth never blocks this way.
        int rc = 0;
        for (int i = 0; i < 20 && (rc = set_cpu1_online(true)) != 0; i++) usleep(100000);
        EXPECT_EQ(0, rc) << "CPU 1 could not be brought back online: " << strerror(rc);
    }
    void offline() { ASSERT_EQ(0, set_cpu1_online(false)) << "CPU 1 can't be taken offline"; }
    void online() { ASSERT_EQ(0, set_cpu1_online(true)) << "CPU 1 can't be brought online"; }

    bool guest_ = false;
};

std::string rr_one() {
    return rr_domain(kOne, 500, "1", {{"Class_A", 200, 10}});
}
std::string rr_pair() {
    return rr_domain(kPair, 500, "0-1", {{"Class_A", 200, 10}});
}

}  // namespace

TEST_F(CpuHotplug, AdmissionToADomainWithNoCpuOnlineIsRefusedAsARefusedMoveAndLeavesTheThread) {
    ASSERT_NO_FATAL_FAILURE(start({rr_one()}, {kOne}));
    ASSERT_NO_FATAL_FAILURE(offline());
    EXPECT_EQ("", domain_cpus(kOne));
    TestThread t;
    QX_REALTIME_DOMAIN_t *d = map_domain_file(kOne);
    std::string tasks = format("/dev/cpuset/%s/tasks", kOne);
    {
        LogCapture log;
        EXPECT_EQ(RT_ERR_SYSTEM, QX_REALTIME_AddThread(kOne, "Class_A", t.tid(), 0));
        // The refused move's own messages; off the device's own layout, with the reason before
        // them (on it, a refused move reads as it always has).
        QXT_EXPECT_ERROR(log, format("[RT_Impl][Err] [%s] Move pid = [%d] to [%s] failed.\n", kAdd,
                                     (int)t.tid(), tasks.c_str()));
        QXT_EXPECT_ERROR(log, add_failed(t.tid(), "Class_A", RT_ERR_SYSTEM));
        const char *reason =
            "[RT_Impl][Err] Domain [Domain_One] has no CPU online: its CPUs [1], offline [1].\n";
        if (qx_cgroup_layout() == QX_CGROUP_V1)
            EXPECT_EQ(0, log.count_containing("has no CPU online")) << log.dump();
        else
            QXT_EXPECT_ERROR(log, reason);
    }
    // Nothing recorded or charged, and the thread is as it was: not real-time outside its domain.
    EXPECT_EQ(0, live_slot_count(d));
    EXPECT_EQ(0, d->s32UtilCurrent);
    expect_placed(t.tid(), SCHED_OTHER, "/");

    // CPU 1 back: the next admission gives the cpuset its CPU again and places the thread there.
    ASSERT_NO_FATAL_FAILURE(online());
    EXPECT_EQ(RT_SUCCESS, QX_REALTIME_AddThread(kOne, "Class_A", t.tid(), 0));
    EXPECT_EQ("1", domain_cpus(kOne));
    expect_placed(t.tid(), SCHED_RR, "/Domain_One");
    EXPECT_EQ(2u, affinity_of(t.tid()));
    EXPECT_EQ(RT_SUCCESS, QX_REALTIME_RemoveThread(kOne, t.tid()));
    expect_placed(t.tid(), SCHED_OTHER, "/");
}

TEST_F(CpuHotplug, ThreadsOfADomainWhoseCpuLeftAreRemovedSampledAndDumped) {
    ASSERT_NO_FATAL_FAILURE(start({rr_one()}, {kOne}));
    TestThread t(true);
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_AddThread(kOne, "Class_A", t.tid(), 0));
    expect_placed(t.tid(), SCHED_RR, "/Domain_One");
    ASSERT_NO_FATAL_FAILURE(offline());
    // The kernel moved the thread out of its empty cpuset, to the root.
    EXPECT_EQ("", domain_cpus(kOne));
    EXPECT_EQ("/", cgroup_of(t.tid(), "cpuset"));
    EXPECT_EQ(RT_SUCCESS, QX_REALTIME_GetDomainCpuUsage(kOne, 100, 1));
    EXPECT_EQ(RT_SUCCESS, QX_REALTIME_DumpDomainInfo(kOne));
    EXPECT_EQ(RT_SUCCESS, QX_REALTIME_RemoveThread(kOne, t.tid()));
    expect_placed(t.tid(), SCHED_OTHER, "/");
    EXPECT_EQ(0, map_domain_file(kOne)->s32UtilCurrent);
}

TEST_F(CpuHotplug, ADomainThatHoldsEveryCpuLeftAdmitsWithoutItsCpusetAndKeepsTheCpuThatReturns) {
    ASSERT_NO_FATAL_FAILURE(start({rr_pair()}, {kPair}));
    ASSERT_NO_FATAL_FAILURE(offline());
    TestThread t;
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_AddThread(kPair, "Class_A", t.tid(), 0));
    // CPU 0 is all there is, and the domain has it: the thread is not shut in a cpuset of CPU 0.
    expect_placed(t.tid(), SCHED_RR, "/");
    ASSERT_NO_FATAL_FAILURE(online());
    EXPECT_EQ(3u, affinity_of(t.tid()));
    EXPECT_EQ(RT_SUCCESS, QX_REALTIME_RemoveThread(kPair, t.tid()));
    expect_placed(t.tid(), SCHED_OTHER, "/");
}

TEST_F(CpuHotplug, ThreadMovedIntoACpusetBeforeItsCpuLeftGoesBackToTheRootOnRemoval) {
    // Domain_Zero (CPU 0) has fewer CPUs than the machine: admission moves the thread into its
    // cpuset. With CPU 1 offline its count matches the machine's, but the thread is still there.
    ASSERT_NO_FATAL_FAILURE(
        start({rr_domain("Domain_Zero", 500, "0", {{"Class_A", 200, 10}})}, {"Domain_Zero"}));
    TestThread t;
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_AddThread("Domain_Zero", "Class_A", t.tid(), 0));
    expect_placed(t.tid(), SCHED_RR, "/Domain_Zero");
    ASSERT_NO_FATAL_FAILURE(offline());
    EXPECT_EQ(RT_SUCCESS, QX_REALTIME_RemoveThread("Domain_Zero", t.tid()));
    expect_placed(t.tid(), SCHED_OTHER, "/");
    ASSERT_NO_FATAL_FAILURE(online());
    EXPECT_EQ(3u, affinity_of(t.tid()));
}

TEST_F(CpuHotplug, CheckReportsTheCpusAndADomainThatLostItsCpuAndRepairsItOnceTheCpuIsBack) {
    ASSERT_NO_FATAL_FAILURE(start({rr_one()}, {kOne}));
    ASSERT_NO_FATAL_FAILURE(offline());
    Result r = rtctl({"check"});
    EXPECT_EQ(1, r.status) << r.out << r.err;
    EXPECT_TRUE(contains(r.out, "CPUs online 0, offline 1")) << r.out;
    EXPECT_TRUE(contains(r.out,
                         "Domain_One: its cpuset holds CPUs [], its record [1] (CPUs 1 "
                         "offline)"))
        << r.out;
    r = rtctl({"check", "--repair"});
    EXPECT_EQ(1, r.status) << r.out << r.err;
    EXPECT_TRUE(contains(r.out, "repaired: could not set cpus to 1: a CPU of them is offline"))
        << r.out;
    ASSERT_NO_FATAL_FAILURE(online());
    EXPECT_EQ("", domain_cpus(kOne));  // cgroup v1 does not give it back by itself
    r = rtctl({"check", "--repair"});
    EXPECT_EQ(0, r.status) << r.out << r.err;
    EXPECT_TRUE(contains(r.out,
                         "Domain_One: its cpuset holds CPUs [], its record [1]\n"
                         "    repaired: cpus set to 1\n"))
        << r.out;
    EXPECT_EQ("1", domain_cpus(kOne));
    r = rtctl({"check"});
    EXPECT_EQ(0, r.status) << r.out << r.err;
    EXPECT_EQ("consistent\n", r.out);
}

TEST_F(CpuHotplug, DeadlineUpdateRefusedWhileTheCpuIsOfflineAndPlacedAgainOnceItIsBack) {
    ASSERT_NO_FATAL_FAILURE(start({dl_isp_domain()}, {kDl}));
    TestThread t;
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_AddThread(kDl, "Class_Isp", t.tid(), 0));
    expect_placed(t.tid(), SCHED_DEADLINE, "/Domain_Dl");
    ASSERT_NO_FATAL_FAILURE(offline());
    QX_REALTIME_UTIL_t util = {0, 8000, 1000, 10000};
    {
        LogCapture log;
        EXPECT_EQ(RT_ERR_SYSTEM, QX_REALTIME_UpdateThreadUtil(kDl, &util, t.tid()));
        QXT_EXPECT_ERROR(log,
                         format("[RT_Impl][Err] [%s] Move pid = [%d] to [/dev/cpuset/%s/tasks] "
                                "failed.\n",
                                kUpdate, (int)t.tid(), kDl));
    }
    ASSERT_NO_FATAL_FAILURE(online());
    // The update's return move gives the cpuset its CPU again.
    EXPECT_EQ(RT_SUCCESS, QX_REALTIME_UpdateThreadUtil(kDl, &util, t.tid()));
    EXPECT_EQ("1", domain_cpus(kDl));
    expect_placed(t.tid(), SCHED_DEADLINE, "/Domain_Dl");
    EXPECT_EQ(RT_SUCCESS, QX_REALTIME_RemoveThread(kDl, t.tid()));
    expect_placed(t.tid(), SCHED_OTHER, "/");
}

TEST_F(CpuHotplug, OfflineRefusedForDeadlineBandwidthIsShownByCheck) {
    ASSERT_NO_FATAL_FAILURE(
        start({dl_domain("Domain_Big", 1500, "0-1", {{"Class_Big", 6000, 10000, 10000}})},
              {"Domain_Big"}));
    TestThread a, b;
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_AddThread("Domain_Big", "Class_Big", a.tid(), 0));
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_AddThread("Domain_Big", "Class_Big", b.tid(), 0));
    // 1.2 CPU of deadline bandwidth does not fit on one CPU: the kernel keeps CPU 1.
    EXPECT_EQ(EBUSY, set_cpu1_online(false));
    // A plain check of a consistent machine says only that; -v adds the bandwidth.
    Result plain = rtctl({"check"});
    EXPECT_EQ(0, plain.status) << plain.out << plain.err;
    EXPECT_EQ("consistent\n", plain.out);
    Result r = rtctl({"-v", "check"});
    EXPECT_EQ(0, r.status) << r.out << r.err;
    EXPECT_TRUE(contains(r.out,
                         "CPUs online 0-1, offline none; deadline threads hold 1.20 CPU of "
                         "bandwidth (2 threads): the kernel refuses to take a CPU offline "
                         "(EBUSY) when the CPUs left can't hold it\n"))
        << r.out;
    EXPECT_EQ(RT_SUCCESS, QX_REALTIME_RemoveThread("Domain_Big", a.tid()));
    EXPECT_EQ(RT_SUCCESS, QX_REALTIME_RemoveThread("Domain_Big", b.tid()));
}
