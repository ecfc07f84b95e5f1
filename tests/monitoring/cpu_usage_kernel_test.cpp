// CPU usage sampling against the kernel's own counters: real threads admitted into real domains,
// measured through the domain's cpuacct group and /proc/stat. The machine's other work adds
// noise, so the figures are checked within wide bounds; a busy thread runs only while sampled
// (about one second), is bounded by its deadline reservation or sleeps half of the time, and is
// removed from its domain before it stops.
#include <sys/sysinfo.h>

#include <memory>

#include "monitoring_support.h"

using namespace qxt;

namespace {

const char kSpin[] = "Domain_Spin";
const char kHog[] = "Domain_Hog";
const char kIdle[] = "Domain_Idle";
const uint32_t kSchedRr = 2, kSchedDeadline = 6;

// Every CPU of the machine: the kernel may then place a busy thread wherever it finds room,
// so that the machine's other work does not share one core with it.
std::string all_cpus() {
    return format("0-%d", get_nprocs() - 1);
}
// A deadline domain whose class reserves 9 ms of every 10 ms: one thread of it keeps a core about
// 90 % busy, and the kernel keeps it from taking more.
std::string spin_domain() {
    return dl_domain(kSpin, 1000, all_cpus(), {{"Class_Spin", 9000, 10000, 10000}});
}
// A round-robin domain of 200 units (19.53 % of one core) at the lowest RT priority.
std::string hog_domain() {
    return rr_domain(kHog, 200, all_cpus(), {{"Class_Hog", 100, 1}});
}
std::string idle_domain() {
    return rr_domain(kIdle, 200, "0", {{"Class_Idle", 100, 1}});
}

// Admission for the length of a test: removed again (scheduling and cgroups restored) at the end.
class Admission {
public:
    Admission(const char *domain, const char *cls, pid_t tid) : domain_(domain), tid_(tid) {
        result_ = QX_REALTIME_AddThread(domain, cls, tid, 0);
    }
    ~Admission() {
        if (result_ == RT_SUCCESS) {
            EXPECT_EQ(QX_REALTIME_RemoveThread(domain_, tid_), RT_SUCCESS);
        }
    }
    uint32_t result() const { return result_; }

private:
    const char *domain_;
    pid_t tid_;
    uint32_t result_;
};

std::string suffix(const std::string &path) {
    size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

// The measured figures go into the test report (--gtest_output=xml), for the record.
void record(const char *key, const std::vector<Sample> &samples) {
    std::string text;
    for (const Sample &s : samples) text += format("%s%.2f", text.empty() ? "" : " ", s.usage);
    ::testing::Test::RecordProperty(key, text);
}

class CpuUsageKernel : public qxt::SandboxTest {
protected:
    CpuUsageKernel() : SandboxTest(2, "needs 2 CPUs: a busy thread must leave one free") {}
    // The framework on the configured domains, each of them created.
    static void create(const std::string &domains, std::initializer_list<const char *> names) {
        ASSERT_EQ(start_framework(domains), RT_SUCCESS);
        for (const char *name : names)
            ASSERT_EQ(QX_REALTIME_CreateDomain(name), RT_SUCCESS) << name;
    }
    // As create, then this test's turn to keep a core busy, held until the test ends.
    void create_busy(const std::string &domains, std::initializer_list<const char *> names) {
        ASSERT_NO_FATAL_FAILURE(create(domains, names));
        turn_.reset(new BusyCpuTurn);
        ASSERT_TRUE(turn_->held()) << turn_->why();
    }
    // Three samples of the one-domain mode, 300 ms apart, also put in the test report under key.
    static std::vector<Sample> three_samples(const char *domain, const char *key,
                                             const LogCapture &log) {
        EXPECT_EQ(QX_REALTIME_GetDomainCpuUsage(domain, 300, 3), RT_SUCCESS);
        std::vector<Sample> samples = samples_of(forms(log));
        record(key, samples);
        return samples;
    }

    // The thread admitted into cls of the domain (and removed again before this returns), the
    // kernel running it under policy in the domain's cpuacct group; three samples taken meanwhile,
    // each a line of its own. *log_text is what the sampling logged, for failure messages.
    static void sample_admitted(const char *domain, const char *cls, pid_t tid, uint32_t policy,
                                const char *key, std::vector<Sample> *samples,
                                std::string *log_text) {
        Admission admitted(domain, cls, tid);
        ASSERT_EQ(admitted.result(), RT_SUCCESS);
        ASSERT_EQ(sched_of(tid).policy, policy);
        ASSERT_EQ(suffix(cgroup_of(tid, "cpuacct")), domain);
        LogCapture log;
        *samples = three_samples(domain, key, log);
        *log_text = log.dump();
        ASSERT_EQ(samples->size(), 3u) << *log_text;
        ASSERT_EQ(forms(log).size(), 3u) << *log_text;
    }

    // One measured thread: the configuration and its domain, the class it is admitted into and
    // the policy the kernel then shows, its duty cycle (ms spinning, ms sleeping), whether it
    // keeps a core busy (and so waits for its turn), the report key of its samples.
    struct Load {
        std::string config;
        const char *domain;
        const char *cls;
        uint32_t policy;
        int spin_ms, sleep_ms;
        bool busy;
        const char *key;
    };
    struct Measured {
        std::vector<Sample> samples;
        std::string log;  // what the sampling logged, for failure messages
    };
    // The framework on the load's domain, the thread started and sampled while admitted.
    void measure(const Load &load, Measured *m) {
        if (load.busy)
            ASSERT_NO_FATAL_FAILURE(create_busy(load.config, {load.domain}));
        else
            ASSERT_NO_FATAL_FAILURE(create(load.config, {load.domain}));
        TestThread thread(load.spin_ms, load.sleep_ms);
        ASSERT_NO_FATAL_FAILURE(sample_admitted(load.domain, load.cls, thread.tid(), load.policy,
                                                load.key, &m->samples, &m->log));
    }

private:
    std::unique_ptr<BusyCpuTurn> turn_;
};

TEST_F(CpuUsageKernel, DeadlineThreadKeepingOneCoreBusyShowsAboutOneCoreInEverySample) {
    Measured m;
    ASSERT_NO_FATAL_FAILURE(measure(
        {spin_domain(), kSpin, "Class_Spin", kSchedDeadline, 1, 0, true, "spin_usage"}, &m));
    for (const Sample &s : m.samples) {
        EXPECT_GE(s.usage, 60.0) << m.log;
        EXPECT_LE(s.usage, 140.0) << m.log;
        EXPECT_DOUBLE_EQ(s.budget, 97.66);  // 1000 x 100 / 1024
    }
}

TEST_F(CpuUsageKernel, ThreadsUsingMoreThanTheirBudgetAreMarkedOverbudget) {
    // The thread works about half a core, far above 19.53 %.
    Measured m;
    ASSERT_NO_FATAL_FAILURE(
        measure({hog_domain(), kHog, "Class_Hog", kSchedRr, 4, 4, true, "hog_usage"}, &m));
    for (const Sample &s : m.samples) {
        EXPECT_DOUBLE_EQ(s.budget, 19.53);  // 200 x 100 / 1024
        EXPECT_GT(s.usage, 30.0) << m.log;
        EXPECT_TRUE(s.over) << m.log;
    }
}

TEST_F(CpuUsageKernel, IdleDomainShowsAboutZeroAndIsNotOverbudget) {
    Measured m;
    ASSERT_NO_FATAL_FAILURE(
        measure({idle_domain(), kIdle, "Class_Idle", kSchedRr, 0, 1, false, "idle_usage"}, &m));
    for (const Sample &s : m.samples) {
        EXPECT_FALSE(s.over) << m.log;
        EXPECT_LT(s.usage, 10.0) << m.log;
    }
}

TEST_F(CpuUsageKernel, AllDomainsModePrintsTheHeaderAndOneLinePerDomainPerSample) {
    ASSERT_NO_FATAL_FAILURE(create_busy(spin_domain() + ",\n" + idle_domain(), {kSpin, kIdle}));
    TestThread spinner(true);
    TestThread sleeper(false);
    Admission spin_admitted(kSpin, "Class_Spin", spinner.tid());
    Admission idle_admitted(kIdle, "Class_Idle", sleeper.tid());
    ASSERT_EQ(spin_admitted.result(), RT_SUCCESS);
    ASSERT_EQ(idle_admitted.result(), RT_SUCCESS);

    LogCapture log;
    EXPECT_EQ(QX_REALTIME_GetDomainCpuUsage("All", 300, 2), RT_SUCCESS);
    std::vector<std::string> lines = forms(log);
    ASSERT_EQ(lines.size(), 5u + 2u * 4u) << log.dump();
    std::vector<std::string> header = {
        format("[RT_Impl][Err] [%-30s] Util Setting:%6d (%5.2f%%)\n", kSpin, 1000, 97.66),
        format("[RT_Impl][Err] [%-30s] Util Setting:%6d (%5.2f%%)\n", kIdle, 200, 19.53),
        "[RT_Impl][Err] Current total Util = 1200 (117.19%)\n",
        "[RT_Impl][Err] Util Budget = 1024 * 2 * 80 / 100 = 1638 (159.96%)\n",
        "[RT_Impl][Err] ============================================================\n"};
    EXPECT_EQ(std::vector<std::string>(lines.begin(), lines.begin() + 5), header);
    for (int n = 0; n < 2; n++) {
        const std::string *sample = &lines[5 + 4 * n];
        std::string name;
        Sample spin, idle;
        ASSERT_TRUE(parse_domain_sample(sample[0], &name, &spin)) << sample[0];
        EXPECT_EQ(name, kSpin);
        EXPECT_GE(spin.usage, 60.0) << log.dump();
        EXPECT_LE(spin.usage, 140.0) << log.dump();
        EXPECT_DOUBLE_EQ(spin.budget, 97.66);
        ASSERT_TRUE(parse_domain_sample(sample[1], &name, &idle)) << sample[1];
        EXPECT_EQ(name, kIdle);
        EXPECT_LT(idle.usage, 10.0) << log.dump();
        EXPECT_FALSE(idle.over);
        double all = -1;
        ASSERT_EQ(sscanf(sample[2].c_str(),
                         "[RT_Impl][Err] CPU usage of RT tasks in Realtime Framework: %lf%%", &all),
                  1)
            << sample[2];
        EXPECT_GE(all, 60.0) << log.dump();
        EXPECT_LE(all, 150.0) << log.dump();
        EXPECT_EQ(sample[3], "[RT_Impl][Err] \n");
    }
}

TEST_F(CpuUsageKernel, IntervalOfZeroSamplesAtOnceAndPrintsFiniteFigures) {
    ASSERT_NO_FATAL_FAILURE(create(idle_domain(), {kIdle}));
    LogCapture log;
    EXPECT_EQ(QX_REALTIME_GetDomainCpuUsage(kIdle, 0, 3), RT_SUCCESS);
    EXPECT_EQ(QX_REALTIME_GetDomainCpuUsage("All", 0, 2), RT_SUCCESS);
    std::vector<std::string> lines = forms(log);
    // 3 samples of the one-domain mode, then 4 header lines and 2 x 3 sample lines.
    ASSERT_EQ(lines.size(), 3u + 4u + 6u) << log.dump();
    std::vector<Sample> samples = samples_of(lines);
    ASSERT_EQ(samples.size(), 3u) << log.dump();
    // No thread in the domain: nothing to count, whatever the divisor.
    for (const Sample &s : samples) EXPECT_EQ(s.usage, 0.0) << log.dump();
    std::string name;
    Sample s;
    EXPECT_TRUE(parse_domain_sample(lines[7], &name, &s)) << lines[7];
    EXPECT_EQ(s.usage, 0.0);
    EXPECT_TRUE(parse_domain_sample(lines[10], &name, &s)) << lines[10];
    EXPECT_EQ(s.usage, 0.0);
}

}  // namespace
