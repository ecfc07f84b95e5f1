// CPU usage sampling with both counters under the test's control: /proc/stat and the domain's
// cpuacct statistics are named pipes that hand the sampler exactly the readings the test chose, so
// every printed figure is known to the last digit.
#include <sys/mount.h>
#include <sys/sysinfo.h>

#include <memory>

#include "monitoring_support.h"

using namespace qxt;

namespace {

const char kMeter[] = "Domain_Meter";
const char kSpare[] = "Domain_Spare";

class CpuUsageCounters : public qxt::SandboxTest {
protected:
    void SetUpInSandbox() override { procs_ = get_nprocs(); }

    // Starts the framework with the given domains and creates them all.
    void create(const std::string &config_domains, const std::vector<std::string> &names,
                int cap = 1024) {
        ASSERT_EQ(start_framework(config_domains, cap), RT_SUCCESS);
        for (const std::string &name : names)
            ASSERT_EQ(QX_REALTIME_CreateDomain(name.c_str()), RT_SUCCESS) << name;
    }

    // Every feeder served each of its readers; a feeder that could not says why.
    void TearDown() override {
        if (total_) {
            EXPECT_TRUE(total_->ok()) << total_->error();
        }
        for (const auto &group : groups_) {
            EXPECT_TRUE(group->ok()) << group->error();
        }
    }

    // From now on every read of /proc/stat gets the next of these texts.
    void feed_total_texts(const std::vector<std::string> &texts) {
        total_.reset(new CounterFeeder("/proc/stat", texts));
        ASSERT_TRUE(total_->ok()) << total_->error();
    }
    // ... the next of these totals.
    void feed_total(const std::vector<int32_t> &totals) {
        std::vector<std::string> texts;
        for (int32_t t : totals) texts.push_back(proc_stat_text(t));
        feed_total_texts(texts);
    }

    // From now on every read of the domain's cpuacct statistics gets the next of these texts.
    void feed_group_texts(const std::string &domain, const std::vector<std::string> &texts) {
        std::string path = "/dev/shm/qxt_group_" + domain;
        groups_.emplace_back(new CounterFeeder(path, texts));
        ASSERT_TRUE(groups_.back()->ok()) << groups_.back()->error();
        ASSERT_NO_FATAL_FAILURE(set_cpuacct_stat_path(domain, path));
    }
    void feed_group(const std::string &domain, const std::vector<int32_t> &times) {
        std::vector<std::string> texts;
        for (int32_t g : times) texts.push_back(cpuacct_stat_text(g));
        feed_group_texts(domain, texts);
    }

    int procs_ = 0;
    std::unique_ptr<CounterFeeder> total_;
    std::vector<std::unique_ptr<CounterFeeder>> groups_;
};

std::string setting_line(const char *name, int util, double percent) {
    return format("[RT_Impl][Err] [%-30s] Util Setting:%6d (%5.2f%%)\n", name, util, percent);
}

std::string domain_sample_line(const char *name, double usage, double budget, bool over) {
    return format("[RT_Impl][Err] [%-30s] %5.2f %% (budget %5.2f%%) %s\n", name, usage, budget,
                  over ? "Overbudget" : "");
}

std::string rt_total_line(double usage) {
    return format("[RT_Impl][Err] CPU usage of RT tasks in Realtime Framework: %5.2f%%\n", usage);
}

const char kSeparator[] =
    "[RT_Impl][Err] ============================================================\n";

// The header of the all-domains mode for Domain_Meter (512) and Domain_Spare (256) with a
// per-core capability of 1024, 2 budget CPUs and 80 percent reservation.
std::vector<std::string> two_domain_header() {
    return {setting_line(kMeter, 512, 50.0), setting_line(kSpare, 256, 25.0),
            "[RT_Impl][Err] Current total Util = 768 (75.00%)\n",
            "[RT_Impl][Err] Util Budget = 1024 * 2 * 80 / 100 = 1638 (159.96%)\n", kSeparator};
}

std::string two_domains() {
    return rr_domain(kMeter, 512, "0", {{"Class_Meter", 100, 1}}) + ",\n" +
           rr_domain(kSpare, 256, "0", {{"Class_Spare", 100, 1}});
}

TEST_F(CpuUsageCounters, OneDomainWithZeroSamplesTakesTheFirstReadingsAndPrintsNothing) {
    ASSERT_NO_FATAL_FAILURE(
        create(rr_domain(kMeter, 512, "0", {{"Class_Meter", 100, 1}}), {kMeter}));
    ASSERT_NO_FATAL_FAILURE(feed_total({1000}));
    ASSERT_NO_FATAL_FAILURE(feed_group(kMeter, {100}));
    LogCapture log;
    EXPECT_EQ(QX_REALTIME_GetDomainCpuUsage(kMeter, 100, 0), RT_SUCCESS);
    QXT_EXPECT_SILENT(log);
    EXPECT_EQ(groups_[0]->reads(), 1);
    EXPECT_EQ(total_->reads(), 1);
}

TEST_F(CpuUsageCounters, AllDomainsWithZeroSamplesPrintsSettingsTotalBudgetAndSeparatorOnly) {
    ASSERT_NO_FATAL_FAILURE(create(two_domains(), {kMeter, kSpare}));
    LogCapture log;
    EXPECT_EQ(QX_REALTIME_GetDomainCpuUsage("All", 100, 0), RT_SUCCESS);
    EXPECT_EQ(forms(log), two_domain_header()) << log.dump();
}

TEST_F(CpuUsageCounters, NameThatMerelyBeginsWithAllSamplesEveryDomain) {
    ASSERT_NO_FATAL_FAILURE(create(two_domains(), {kMeter, kSpare}));
    ASSERT_NO_FATAL_FAILURE(feed_total({1000, 1000 + 100 * procs_}));
    ASSERT_NO_FATAL_FAILURE(feed_group(kMeter, {100, 110}));
    ASSERT_NO_FATAL_FAILURE(feed_group(kSpare, {200, 200}));
    LogCapture log;
    EXPECT_EQ(QX_REALTIME_GetDomainCpuUsage("Allocator", 1, 1), RT_SUCCESS);
    // Per domain: (G1 - G0) x 100 / (T1 - T0), then times the processor count.
    std::vector<std::string> expected = two_domain_header();
    expected.push_back(domain_sample_line(kMeter, 10.0, 50.0, false));
    expected.push_back(domain_sample_line(kSpare, 0.0, 25.0, false));
    expected.push_back(rt_total_line(10.0));
    expected.push_back("[RT_Impl][Err] \n");
    EXPECT_EQ(forms(log), expected) << log.dump();
}

TEST_F(CpuUsageCounters, OneDomainTotalCounterStandingStillDividesByOne) {
    ASSERT_NO_FATAL_FAILURE(
        create(rr_domain(kMeter, 512, "0", {{"Class_Meter", 100, 1}}), {kMeter}));
    ASSERT_NO_FATAL_FAILURE(feed_total({5000, 5000}));
    ASSERT_NO_FATAL_FAILURE(feed_group(kMeter, {100, 103}));
    LogCapture log;
    EXPECT_EQ(QX_REALTIME_GetDomainCpuUsage(kMeter, 1, 1), RT_SUCCESS);
    // N x 3 ticks x 100 / 1
    EXPECT_EQ(forms(log), std::vector<std::string>{sample_line(procs_ * 300.0, 50.0, true)})
        << log.dump();
}

TEST_F(CpuUsageCounters, AllDomainsTotalCounterStandingStillDividesByOne) {
    ASSERT_NO_FATAL_FAILURE(
        create(rr_domain(kMeter, 512, "0", {{"Class_Meter", 100, 1}}), {kMeter}));
    ASSERT_NO_FATAL_FAILURE(feed_total({5000, 5000}));
    ASSERT_NO_FATAL_FAILURE(feed_group(kMeter, {100, 103}));
    LogCapture log;
    EXPECT_EQ(QX_REALTIME_GetDomainCpuUsage("All", 1, 1), RT_SUCCESS);
    std::vector<std::string> got = forms(log);
    ASSERT_EQ(got.size(), 7u) << log.dump();
    EXPECT_EQ(got[4], domain_sample_line(kMeter, procs_ * 300.0, 50.0, true));
    EXPECT_EQ(got[5], rt_total_line(procs_ * 300.0));
    EXPECT_EQ(got[6], "[RT_Impl][Err] \n");
}

TEST_F(CpuUsageCounters, OneDomainExactlyAtBudgetIsNotOverbudgetAndAboveIs) {
    // Budget 256 of 1024 per core: 25.00 percent of one core.
    ASSERT_NO_FATAL_FAILURE(
        create(rr_domain(kMeter, 256, "0", {{"Class_Meter", 100, 1}}), {kMeter}));
    ASSERT_NO_FATAL_FAILURE(feed_total({1000, 1000 + 100 * procs_, 1000 + 200 * procs_}));
    ASSERT_NO_FATAL_FAILURE(feed_group(kMeter, {100, 125, 151}));
    LogCapture log;
    EXPECT_EQ(QX_REALTIME_GetDomainCpuUsage(kMeter, 1, 2), RT_SUCCESS);
    std::vector<std::string> expected = {"[RT_Impl][Err] 25.00 % (budget 25.00%) \n",
                                         "[RT_Impl][Err] 26.00 % (budget 25.00%) Overbudget\n"};
    EXPECT_EQ(forms(log), expected) << log.dump();
}

TEST_F(CpuUsageCounters, AllDomainsExactlyAtBudgetIsNotOverbudgetAndAboveIs) {
    ASSERT_NO_FATAL_FAILURE(
        create(rr_domain(kMeter, 256, "0", {{"Class_Meter", 100, 1}}), {kMeter}));
    ASSERT_NO_FATAL_FAILURE(feed_total({1000, 1000 + 100 * procs_, 1000 + 200 * procs_}));
    ASSERT_NO_FATAL_FAILURE(feed_group(kMeter, {100, 125, 151}));
    LogCapture log;
    EXPECT_EQ(QX_REALTIME_GetDomainCpuUsage("All", 1, 2), RT_SUCCESS);
    std::vector<std::string> got = forms(log);
    ASSERT_EQ(got.size(), 4u + 3u + 3u) << log.dump();
    EXPECT_EQ(got[4], domain_sample_line(kMeter, 25.0, 25.0, false));
    EXPECT_EQ(got[7], domain_sample_line(kMeter, 26.0, 25.0, true));
}

TEST_F(CpuUsageCounters, ZeroUtilMaxShowsZeroBudgetAndAnyUsageIsOverbudget) {
    ASSERT_NO_FATAL_FAILURE(create(rr_domain(kMeter, 0, "0", {{"Class_Meter", 100, 1}}), {kMeter}));
    ASSERT_NO_FATAL_FAILURE(feed_total({1000, 1000 + 100 * procs_, 1000 + 200 * procs_}));
    ASSERT_NO_FATAL_FAILURE(feed_group(kMeter, {100, 101, 101}));
    LogCapture log;
    EXPECT_EQ(QX_REALTIME_GetDomainCpuUsage(kMeter, 1, 2), RT_SUCCESS);
    std::vector<std::string> expected = {"[RT_Impl][Err]  1.00 % (budget  0.00%) Overbudget\n",
                                         "[RT_Impl][Err]  0.00 % (budget  0.00%) \n"};
    EXPECT_EQ(forms(log), expected) << log.dump();
}

TEST_F(CpuUsageCounters, ZeroUtilMaxInAllDomainsModeShowsZeroSettingAndAnyUsageIsOverbudget) {
    ASSERT_NO_FATAL_FAILURE(create(rr_domain(kMeter, 0, "0", {{"Class_Meter", 100, 1}}), {kMeter}));
    ASSERT_NO_FATAL_FAILURE(feed_total({1000, 1000 + 100 * procs_}));
    ASSERT_NO_FATAL_FAILURE(feed_group(kMeter, {100, 101}));
    LogCapture log;
    EXPECT_EQ(QX_REALTIME_GetDomainCpuUsage("All", 1, 1), RT_SUCCESS);
    std::vector<std::string> got = forms(log);
    ASSERT_EQ(got.size(), 7u) << log.dump();
    EXPECT_EQ(got[0], setting_line(kMeter, 0, 0.0));
    EXPECT_EQ(got[4], domain_sample_line(kMeter, 1.0, 0.0, true));
}

TEST_F(CpuUsageCounters, OneDomainPrintsOneLinePerSampleFromConsecutiveReadings) {
    ASSERT_NO_FATAL_FAILURE(
        create(rr_domain(kMeter, 512, "0", {{"Class_Meter", 100, 1}}), {kMeter}));
    // Elapsed totals 100N, 200N, 50N; group deltas 50, 20, 50.
    ASSERT_NO_FATAL_FAILURE(
        feed_total({1000, 1000 + 100 * procs_, 1000 + 300 * procs_, 1000 + 350 * procs_}));
    ASSERT_NO_FATAL_FAILURE(feed_group(kMeter, {100, 150, 170, 220}));
    LogCapture log;
    EXPECT_EQ(QX_REALTIME_GetDomainCpuUsage(kMeter, 1, 3), RT_SUCCESS);
    std::vector<std::string> expected = {sample_line(50.0, 50.0, false),
                                         sample_line(10.0, 50.0, false),
                                         sample_line(100.0, 50.0, true)};
    EXPECT_EQ(forms(log), expected) << log.dump();
    EXPECT_EQ(groups_[0]->reads(), 4);
    EXPECT_EQ(total_->reads(), 4);
}

TEST_F(CpuUsageCounters, UnparsableGroupReadingDuringSamplingKeepsThePreviousValue) {
    ASSERT_NO_FATAL_FAILURE(
        create(rr_domain(kMeter, 512, "0", {{"Class_Meter", 100, 1}}), {kMeter}));
    ASSERT_NO_FATAL_FAILURE(feed_total({1000, 1000 + 100 * procs_, 1000 + 200 * procs_}));
    ASSERT_NO_FATAL_FAILURE(
        feed_group_texts(kMeter, {cpuacct_stat_text(100), "garbage\n", cpuacct_stat_text(110)}));
    LogCapture log;
    EXPECT_EQ(QX_REALTIME_GetDomainCpuUsage(kMeter, 1, 2), RT_SUCCESS);
    std::vector<std::string> expected = {sample_line(0.0, 50.0, false),
                                         sample_line(10.0, 50.0, false)};
    EXPECT_EQ(forms(log), expected) << log.dump();
}

TEST_F(CpuUsageCounters, UnparsableTotalReadingDuringSamplingKeepsThePreviousValue) {
    ASSERT_NO_FATAL_FAILURE(
        create(rr_domain(kMeter, 512, "0", {{"Class_Meter", 100, 1}}), {kMeter}));
    ASSERT_NO_FATAL_FAILURE(feed_total_texts({proc_stat_text(1000), "cpu 1 2\n"}));
    ASSERT_NO_FATAL_FAILURE(feed_group(kMeter, {100, 101}));
    LogCapture log;
    EXPECT_EQ(QX_REALTIME_GetDomainCpuUsage(kMeter, 1, 1), RT_SUCCESS);
    // T1 stays T0: the difference 0 becomes 1.
    EXPECT_EQ(forms(log), std::vector<std::string>{sample_line(procs_ * 100.0, 50.0, true)})
        << log.dump();
}

TEST_F(CpuUsageCounters, AllDomainsGroupReadingFailureDuringSamplingEndsTheCallWithSuccess) {
    ASSERT_NO_FATAL_FAILURE(create(two_domains(), {kMeter, kSpare}));
    ASSERT_NO_FATAL_FAILURE(feed_total({1000, 1000 + 100 * procs_, 1000 + 200 * procs_}));
    ASSERT_NO_FATAL_FAILURE(feed_group(kMeter, {100, 110, 120}));
    ASSERT_NO_FATAL_FAILURE(
        feed_group_texts(kSpare, {cpuacct_stat_text(200), cpuacct_stat_text(200), "junk\n"}));
    LogCapture log;
    EXPECT_EQ(QX_REALTIME_GetDomainCpuUsage("All", 1, 3), RT_SUCCESS);
    std::vector<std::string> expected = two_domain_header();
    expected.push_back(domain_sample_line(kMeter, 10.0, 50.0, false));
    expected.push_back(domain_sample_line(kSpare, 0.0, 25.0, false));
    expected.push_back(rt_total_line(10.0));
    expected.push_back("[RT_Impl][Err] \n");
    // Second sample: Domain_Meter is printed, Domain_Spare can't be read, and the call ends.
    expected.push_back(domain_sample_line(kMeter, 10.0, 50.0, false));
    EXPECT_EQ(forms(log), expected) << log.dump();
}

// ---- per-core capability of 0 ----

TEST_F(CpuUsageCounters, ZeroCapabilityOneDomainShowsZeroBudgetsAndWarnsOncePerCall) {
    ASSERT_NO_FATAL_FAILURE(
        create(rr_domain(kMeter, 0, "0", {{"Class_Meter", 0, 1}}), {kMeter}, 0));
    ASSERT_NO_FATAL_FAILURE(feed_total({1000, 1000 + 100 * procs_, 1000 + 200 * procs_}));
    ASSERT_NO_FATAL_FAILURE(feed_group(kMeter, {100, 105, 105}));
    LogCapture log;
    EXPECT_EQ(QX_REALTIME_GetDomainCpuUsage(kMeter, 1, 2), RT_SUCCESS);
    std::vector<std::string> expected = {
        "[RT_Impl][Err] [QX_REALTIME_GetDomainCpuUsage] s32CapPerCore is 0: budgets are shown as "
        "0.00.\n",
        "[RT_Impl][Err]  5.00 % (budget  0.00%) Overbudget\n",
        "[RT_Impl][Err]  0.00 % (budget  0.00%) \n"};
    EXPECT_EQ(forms(log), expected) << log.dump();
}

TEST_F(CpuUsageCounters, ZeroCapabilityOneDomainWithZeroSamplesDoesNotWarn) {
    ASSERT_NO_FATAL_FAILURE(
        create(rr_domain(kMeter, 0, "0", {{"Class_Meter", 0, 1}}), {kMeter}, 0));
    LogCapture log;
    EXPECT_EQ(QX_REALTIME_GetDomainCpuUsage(kMeter, 1, 0), RT_SUCCESS);
    QXT_EXPECT_SILENT(log);
}

TEST_F(CpuUsageCounters, ZeroCapabilityAllDomainsWarnsAtTheStartAndShowsZeroPercentages) {
    ASSERT_NO_FATAL_FAILURE(
        create(rr_domain(kMeter, 0, "0", {{"Class_Meter", 0, 1}}), {kMeter}, 0));
    ASSERT_NO_FATAL_FAILURE(feed_total({1000, 1000 + 100 * procs_}));
    ASSERT_NO_FATAL_FAILURE(feed_group(kMeter, {100, 102}));
    LogCapture log;
    EXPECT_EQ(QX_REALTIME_GetDomainCpuUsage("All", 1, 1), RT_SUCCESS);
    std::vector<std::string> expected = {
        "[RT_Impl][Err] [_QX_REALTIME_GetAllDomainCpuUsage] s32CapPerCore is 0: budgets are "
        "shown as 0.00.\n",
        setting_line(kMeter, 0, 0.0),
        "[RT_Impl][Err] Current total Util = 0 ( 0.00%)\n",
        "[RT_Impl][Err] Util Budget = 0 * 2 * 80 / 100 = 0 ( 0.00%)\n",
        kSeparator,
        domain_sample_line(kMeter, 2.0, 0.0, true),
        rt_total_line(2.0),
        "[RT_Impl][Err] \n"};
    EXPECT_EQ(forms(log), expected) << log.dump();
}

TEST_F(CpuUsageCounters, ZeroCapabilityAllDomainsWithZeroSamplesStillWarnsOnce) {
    ASSERT_NO_FATAL_FAILURE(
        create(rr_domain(kMeter, 0, "0", {{"Class_Meter", 0, 1}}), {kMeter}, 0));
    LogCapture log;
    EXPECT_EQ(QX_REALTIME_GetDomainCpuUsage("All", 1, 0), RT_SUCCESS);
    EXPECT_EQ(log.count(QX_LOG_PRIO_ERROR,
                        "[RT_Impl][Err] [_QX_REALTIME_GetAllDomainCpuUsage] s32CapPerCore is 0: "
                        "budgets are shown as 0.00.\n"),
              1)
        << log.dump();
    EXPECT_EQ(forms(log).size(), 5u) << log.dump();
}

// ---- the counter readers ----

TEST_F(CpuUsageCounters, GroupCounterIsTheSumOfUserAndSystemTime) {
    ASSERT_NO_FATAL_FAILURE(
        create(rr_domain(kMeter, 512, "0", {{"Class_Meter", 100, 1}}), {kMeter}));
    write_file("/dev/shm/qxt_group_file", "user 40\nsystem 2\n");
    ASSERT_NO_FATAL_FAILURE(set_cpuacct_stat_path(kMeter, "/dev/shm/qxt_group_file"));
    QX_REALTIME_DOMAIN_t *rec = map_domain_file(kMeter);
    ASSERT_NE(rec, nullptr);
    int32_t time = -1;
    EXPECT_EQ(_QX_REALTIME_GetGroupCpuStat(rec, &time), RT_SUCCESS);
    EXPECT_EQ(time, 42);
}

TEST_F(CpuUsageCounters, GroupCounterUnparsableLeavesTheOutputAlone) {
    ASSERT_NO_FATAL_FAILURE(
        create(rr_domain(kMeter, 512, "0", {{"Class_Meter", 100, 1}}), {kMeter}));
    write_file("/dev/shm/qxt_group_file", "user 40\n");
    ASSERT_NO_FATAL_FAILURE(set_cpuacct_stat_path(kMeter, "/dev/shm/qxt_group_file"));
    QX_REALTIME_DOMAIN_t *rec = map_domain_file(kMeter);
    ASSERT_NE(rec, nullptr);
    int32_t time = 77;
    LogCapture log;
    EXPECT_EQ(_QX_REALTIME_GetGroupCpuStat(rec, &time), RT_ERR_SYSTEM);
    EXPECT_EQ(time, 77);
    QXT_EXPECT_SILENT(log);
}

TEST_F(CpuUsageCounters, GroupCounterUnreadableWritesZeroAndSaysSo) {
    ASSERT_NO_FATAL_FAILURE(
        create(rr_domain(kMeter, 512, "0", {{"Class_Meter", 100, 1}}), {kMeter}));
    ASSERT_NO_FATAL_FAILURE(set_cpuacct_stat_path(kMeter, "/dev/shm/qxt_no_such_file"));
    QX_REALTIME_DOMAIN_t *rec = map_domain_file(kMeter);
    ASSERT_NE(rec, nullptr);
    int32_t time = 77;
    LogCapture log;
    EXPECT_EQ(_QX_REALTIME_GetGroupCpuStat(rec, &time), RT_ERR_SYSTEM);
    EXPECT_EQ(time, 0);
    QXT_EXPECT_ERROR(
        log,
        "[RT_Impl][Err] Read /dev/shm/qxt_no_such_file failed in _QX_REALTIME_GetGroupCpuStat.\n");
}

TEST_F(CpuUsageCounters, TotalCounterIsTheSumOfTheFirstSevenFields) {
    ASSERT_NO_FATAL_FAILURE(
        create(rr_domain(kMeter, 512, "0", {{"Class_Meter", 100, 1}}), {kMeter}));
    write_file("/dev/shm/qxt_stat_file", "cpu  1 2 3 4 5 6 7 1000 1000 1000\ncpu0 9 9 9 9 9 9 9\n");
    std::string why;
    ASSERT_TRUE(bind_over("/dev/shm/qxt_stat_file", "/proc/stat", &why)) << why;
    int32_t time = -1;
    EXPECT_EQ(_QX_REALTIME_GetTotalCpuStat(&time), RT_SUCCESS);
    EXPECT_EQ(time, 28);
}

TEST_F(CpuUsageCounters, TotalCounterUnparsableLeavesTheOutputAlone) {
    ASSERT_NO_FATAL_FAILURE(
        create(rr_domain(kMeter, 512, "0", {{"Class_Meter", 100, 1}}), {kMeter}));
    write_file("/dev/shm/qxt_stat_file", "cpu  1 2 3 4 5 6\n");
    std::string why;
    ASSERT_TRUE(bind_over("/dev/shm/qxt_stat_file", "/proc/stat", &why)) << why;
    int32_t time = 77;
    LogCapture log;
    EXPECT_EQ(_QX_REALTIME_GetTotalCpuStat(&time), RT_ERR_SYSTEM);
    EXPECT_EQ(time, 77);
    QXT_EXPECT_SILENT(log);
}

TEST_F(CpuUsageCounters, TotalCounterUnreadableWritesOneAndSaysSo) {
    // An empty file system over /proc: this test's own mount namespace, gone with the test.
    ASSERT_EQ(mount("qxt_noproc", "/proc", "tmpfs", 0, nullptr), 0) << strerror(errno);
    int32_t time = 77;
    LogCapture log;
    EXPECT_EQ(_QX_REALTIME_GetTotalCpuStat(&time), RT_ERR_SYSTEM);
    EXPECT_EQ(umount("/proc"), 0) << strerror(errno);  // the rest of the process needs /proc
    EXPECT_EQ(time, 1);
    QXT_EXPECT_ERROR(log,
                     "[RT_Impl][Err] Read /proc/stat failed in _QX_REALTIME_GetTotalCpuStat.\n");
}

}  // namespace
