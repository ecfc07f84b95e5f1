// Monitoring with bad input: missing or vanished domains, unreadable counters, no central data,
// a NULL name, a switched-off framework. Every case gets a result code and a message, never a
// crash.
#include <errno.h>
#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "monitoring_support.h"

using namespace qxt;

namespace {

const char kMeter[] = "Domain_Meter";
const char kStat[] = "/dev/cpuacct/Domain_Meter/cpuacct.stat";

std::string meter_domain() {
    return rr_domain(kMeter, 512, "0", {{"Class_Meter", 100, 1}});
}

class MonitoringBadInput : public qxt::SandboxTest {};

TEST_F(MonitoringBadInput, NullNameIsRefusedByBothCalls) {
    ASSERT_EQ(start_framework(meter_domain()), RT_SUCCESS);
    LogCapture log;
    EXPECT_EQ(QX_REALTIME_GetDomainCpuUsage(nullptr, 10, 1), RT_ERR_INVALID_PARAM);
    EXPECT_EQ(QX_REALTIME_DumpDomainInfo(nullptr), RT_ERR_INVALID_PARAM);
    std::vector<std::string> expected = {
        "[RT_Impl][Err] [QX_REALTIME_GetDomainCpuUsage] Arg is NULL.\n",
        "[RT_Impl][Err] [QX_REALTIME_DumpDomainInfo] Arg is NULL.\n"};
    EXPECT_EQ(forms(log), expected) << log.dump();
}

TEST_F(MonitoringBadInput, UnknownDomainReturnsNullBeforeAnySample) {
    ASSERT_EQ(start_framework(meter_domain()), RT_SUCCESS);
    ASSERT_EQ(QX_REALTIME_CreateDomain(kMeter), RT_SUCCESS);
    LogCapture log;
    EXPECT_EQ(QX_REALTIME_GetDomainCpuUsage("Domain_Nope", 10, 3), RT_ERR_NULL);
    EXPECT_EQ(forms(log),
              std::vector<std::string>{
                  "[RT_Impl][Err] [QX_REALTIME_GetDomainCpuUsage] pstDomain is NULL.\n"})
        << log.dump();
}

// An overlong name could name no file of a domain: both calls refuse it before they touch
// anything.
TEST_F(MonitoringBadInput, OverlongNameIsRefused) {
    ASSERT_EQ(start_framework(meter_domain()), RT_SUCCESS);
    ASSERT_EQ(QX_REALTIME_CreateDomain(kMeter), RT_SUCCESS);
    const std::string overlong = "Domain_" + std::string(300, 'x');
    LogCapture log;
    EXPECT_EQ(QX_REALTIME_GetDomainCpuUsage(overlong.c_str(), 1, 1), RT_ERR_INVALID_PARAM);
    EXPECT_EQ(QX_REALTIME_DumpDomainInfo(overlong.c_str()), RT_ERR_INVALID_PARAM);
    const char *rule =
        "Invalid domain name: it must be 1 to 63 characters, not \".\" or \"..\", without "
        "'/'.\n";
    std::vector<std::string> expected = {
        format("[RT_Impl][Err] [QX_REALTIME_GetDomainCpuUsage] %s", rule),
        format("[RT_Impl][Err] [QX_REALTIME_DumpDomainInfo] %s", rule)};
    EXPECT_EQ(forms(log), expected) << log.dump();
}

// The empty name names no domain: both calls look it up and find nothing, with the answer they
// give any unknown name, to the byte.
TEST_F(MonitoringBadInput, EmptyNameIsADomainThatIsNotFound) {
    ASSERT_EQ(start_framework(meter_domain()), RT_SUCCESS);
    ASSERT_EQ(QX_REALTIME_CreateDomain(kMeter), RT_SUCCESS);
    LogCapture log;
    EXPECT_EQ(QX_REALTIME_GetDomainCpuUsage("", 10, 1), RT_ERR_NULL);
    EXPECT_EQ(QX_REALTIME_DumpDomainInfo(""), RT_ERR_NULL);
    std::vector<std::string> expected = {
        "[RT_Impl][Err] [QX_REALTIME_GetDomainCpuUsage] pstDomain is NULL.\n",
        "[RT_Impl][Err] [QX_REALTIME_DumpDomainInfo] pstDomain is NULL for [].\n"};
    EXPECT_EQ(forms(log), expected) << log.dump();

    // Every line, debug ones included, is the one an unknown name gets, in both of its forms.
    QX_REALTIME_SetDebugLevel(240);
    auto lines_for = [](const std::string &name) {
        LogCapture each;
        EXPECT_EQ(QX_REALTIME_GetDomainCpuUsage(name.c_str(), 10, 1), RT_ERR_NULL);
        EXPECT_EQ(QX_REALTIME_DumpDomainInfo(name.c_str()), RT_ERR_NULL);
        std::vector<std::string> lines;
        for (const LogLine &line : each.lines()) {
            std::string text = line.message;
            size_t at = text.find(name);
            if (!name.empty() && at != std::string::npos) text.erase(at, name.size());
            lines.push_back(format("%d ", line.priority) + text);
        }
        return lines;
    };
    std::vector<std::string> empty = lines_for("");
    EXPECT_GT(empty.size(), 2u);
    EXPECT_EQ(empty, lines_for("Domain_Nope"));
}

TEST_F(MonitoringBadInput, WithoutCentralDataBothCallsFailWithItsResult) {
    LogCapture log;
    EXPECT_EQ(QX_REALTIME_GetDomainCpuUsage(kMeter, 10, 1), RT_ERR_NULL);
    EXPECT_EQ(QX_REALTIME_DumpDomainInfo(kMeter), RT_ERR_NULL);
    EXPECT_EQ(QX_REALTIME_DumpDomainInfo("All"), RT_ERR_NULL);
    EXPECT_EQ(log.count_containing("Did you forget to invoke QX_REALTIME_Init()?"), 3)
        << log.dump();
}

TEST_F(MonitoringBadInput, NotEnabledSamplingPrintsNothingButDebugLinesAndSucceeds) {
    ASSERT_EQ(start_framework(meter_domain(), 1024, 0), RT_SUCCESS);
    QX_REALTIME_SetDebugLevel(64);
    LogCapture log;
    EXPECT_EQ(QX_REALTIME_GetDomainCpuUsage(kMeter, 10, 2), RT_SUCCESS);
    EXPECT_EQ(QX_REALTIME_GetDomainCpuUsage("All", 10, 2), RT_SUCCESS);
    EXPECT_EQ(error_forms(log), std::vector<std::string>{}) << log.dump();
    for (const LogLine &line : log.lines()) {
        std::string form = line.file_form();
        EXPECT_TRUE(form.compare(0, 14, "[RT_Impl][DBG]") == 0 ||
                    form.compare(0, 39, "[RT_Impl][Info] [_QX_REALTIME_GetFlock]") == 0)
            << form;
    }
    EXPECT_EQ(log.count(QX_LOG_PRIO_INFO,
                        format("[RT_Impl][DBG] [QX_REALTIME_GetDomainCpuUsage] enter: pid=%d, "
                               "tid=%d;\n",
                               getpid(), (int)gettid())),
              2)
        << log.dump();
}

TEST_F(MonitoringBadInput, DomainDeletedByAnotherProcessStaysUsableThroughThisProcessesMapping) {
    ASSERT_EQ(start_framework(meter_domain()), RT_SUCCESS);
    ASSERT_EQ(QX_REALTIME_CreateDomain(kMeter), RT_SUCCESS);  // maps it here
    EXPECT_EQ(run_in_child([] { return QX_REALTIME_DeleteDomain(kMeter) == RT_SUCCESS ? 0 : 1; }),
              0);
    ASSERT_FALSE(file_exists("/dev/shm/realtime/rt_Domain_Meter"));

    LogCapture log;
    EXPECT_EQ(QX_REALTIME_GetDomainCpuUsage(kMeter, 1, 2), RT_SUCCESS);
    EXPECT_EQ(samples_of(forms(log)).size(), 2u) << log.dump();
    log.clear();
    EXPECT_EQ(QX_REALTIME_DumpDomainInfo(kMeter), RT_SUCCESS);
    std::vector<std::string> errors = error_forms(log);
    ASSERT_FALSE(errors.empty());
    EXPECT_EQ(errors.back(), "[RT_Impl][Err] =========================\n");
}

TEST_F(MonitoringBadInput, DomainCreatedAndDeletedByOtherProcessesIsReportedMissing) {
    ASSERT_EQ(start_framework(meter_domain()), RT_SUCCESS);
    ASSERT_EQ(run_in_child([] { return QX_REALTIME_CreateDomain(kMeter) == RT_SUCCESS ? 0 : 1; }),
              0);
    ASSERT_TRUE(file_exists("/dev/shm/realtime/rt_Domain_Meter"));
    ASSERT_EQ(run_in_child([] { return QX_REALTIME_DeleteDomain(kMeter) == RT_SUCCESS ? 0 : 1; }),
              0);
    ASSERT_FALSE(file_exists("/dev/shm/realtime/rt_Domain_Meter"));

    LogCapture log;
    EXPECT_EQ(QX_REALTIME_GetDomainCpuUsage(kMeter, 1, 2), RT_ERR_NULL);
    EXPECT_EQ(forms(log),
              std::vector<std::string>{
                  "[RT_Impl][Err] [QX_REALTIME_GetDomainCpuUsage] pstDomain is NULL.\n"})
        << log.dump();

    // The central list still names it: the all-domains mode reports and skips it.
    log.clear();
    EXPECT_EQ(QX_REALTIME_GetDomainCpuUsage("All", 1, 1), RT_SUCCESS);
    const std::string missing =
        "[RT_Impl][Err] [_QX_REALTIME_GetAllDomainCpuUsage] pstDomain is NULL.\n";
    std::vector<std::string> expected = {
        format("[RT_Impl][Err] [%-30s] Util Setting:%6d (%5.2f%%)\n", kMeter, 512, 50.0),
        missing,
        "[RT_Impl][Err] Current total Util = 512 (50.00%)\n",
        "[RT_Impl][Err] Util Budget = 1024 * 2 * 80 / 100 = 1638 (159.96%)\n",
        "[RT_Impl][Err] ============================================================\n",
        missing,
        "[RT_Impl][Err] CPU usage of RT tasks in Realtime Framework:  0.00%\n",
        "[RT_Impl][Err] \n"};
    EXPECT_EQ(forms(log), expected) << log.dump();

    log.clear();
    EXPECT_EQ(QX_REALTIME_DumpDomainInfo(kMeter), RT_ERR_NULL);
    EXPECT_EQ(forms(log),
              std::vector<std::string>{"[RT_Impl][Err] [QX_REALTIME_DumpDomainInfo] pstDomain is "
                                       "NULL for [Domain_Meter].\n"})
        << log.dump();
    EXPECT_EQ(QX_REALTIME_DumpDomainInfo("All"), RT_SUCCESS);
}

TEST_F(MonitoringBadInput, MissingCpuacctGroupFailsTheFirstReading) {
    ASSERT_EQ(start_framework(meter_domain()), RT_SUCCESS);
    ASSERT_EQ(QX_REALTIME_CreateDomain(kMeter), RT_SUCCESS);
    ASSERT_EQ(rmdir("/dev/cpuacct/Domain_Meter"), 0) << strerror(errno);
    const std::string failed =
        format("[RT_Impl][Err] Read %s failed in _QX_REALTIME_GetGroupCpuStat.\n", kStat);

    LogCapture log;
    EXPECT_EQ(QX_REALTIME_GetDomainCpuUsage(kMeter, 1, 2), RT_ERR_SYSTEM);
    EXPECT_EQ(log.count(QX_LOG_PRIO_ERROR, failed), 1) << log.dump();
    EXPECT_EQ(samples_of(forms(log)).size(), 0u) << log.dump();

    // The all-domains mode ends at the failed reading, with success.
    log.clear();
    EXPECT_EQ(QX_REALTIME_GetDomainCpuUsage("All", 1, 2), RT_SUCCESS);
    std::vector<std::string> lines = forms(log);
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.front(),
              format("[RT_Impl][Err] [%-30s] Util Setting:%6d (%5.2f%%)\n", kMeter, 512, 50.0));
    EXPECT_EQ(lines.back(), failed) << log.dump();
    EXPECT_EQ(log.count_containing("Current total Util"), 0);
}

TEST_F(MonitoringBadInput, UnparsableCpuacctStatisticsFailTheFirstReadingSilently) {
    ASSERT_EQ(start_framework(meter_domain()), RT_SUCCESS);
    ASSERT_EQ(QX_REALTIME_CreateDomain(kMeter), RT_SUCCESS);
    std::string why;
    ASSERT_TRUE(bind_over("/dev/null", kStat, &why)) << why;
    LogCapture log;
    EXPECT_EQ(QX_REALTIME_GetDomainCpuUsage(kMeter, 1, 2), RT_ERR_SYSTEM);
    QXT_EXPECT_SILENT(log);
}

TEST_F(MonitoringBadInput, UnparsableProcStatFailsOneDomainAndSilencesAllDomains) {
    ASSERT_EQ(start_framework(meter_domain()), RT_SUCCESS);
    ASSERT_EQ(QX_REALTIME_CreateDomain(kMeter), RT_SUCCESS);
    std::string why;
    ASSERT_TRUE(bind_over("/dev/null", "/proc/stat", &why)) << why;
    LogCapture log;
    EXPECT_EQ(QX_REALTIME_GetDomainCpuUsage(kMeter, 1, 2), RT_ERR_SYSTEM);
    EXPECT_EQ(QX_REALTIME_GetDomainCpuUsage("All", 1, 2), RT_SUCCESS);
    QXT_EXPECT_SILENT(log);
}

TEST_F(MonitoringBadInput, CorruptedRecordNeverMakesTheDumpReadPastTheSegment) {
    ASSERT_EQ(start_framework(meter_domain()), RT_SUCCESS);
    ASSERT_EQ(QX_REALTIME_CreateDomain(kMeter), RT_SUCCESS);
    QX_REALTIME_DOMAIN_t *rec = map_domain_file(kMeter);
    ASSERT_NE(rec, nullptr);
    // Counts and offsets that would point far outside the 16384-byte segment, and fields
    // without their terminating zero.
    rec->s32ClassNum = 100000;
    rec->s32ThreadNum = 0x7fffffff;
    rec->s32ThreadStartOffset = 16380;
    rec->processIDListNum = 1 << 20;
    memset(rec->pszCpuset, 'x', sizeof(rec->pszCpuset));
    LogCapture log;
    EXPECT_EQ(QX_REALTIME_DumpDomainInfo(kMeter), RT_SUCCESS);
    EXPECT_EQ(QX_REALTIME_GetDomainCpuUsage(kMeter, 1, 1), RT_SUCCESS);
    EXPECT_EQ(log.count_containing("ThreadIdx"), 0) << log.dump();
    // A name field that is not the domain's own (here without its terminating zero) marks a
    // record written over by someone else: it is not used at all.
    memset(rec->szName, 'n', sizeof(rec->szName));
    log.clear();
    EXPECT_EQ(QX_REALTIME_DumpDomainInfo(kMeter), RT_ERR_NULL);
    EXPECT_EQ(QX_REALTIME_GetDomainCpuUsage(kMeter, 1, 1), RT_ERR_NULL);
    EXPECT_EQ(log.count_containing("is corrupted (szName): refused."), 2) << log.dump();
}

void ignore_signal(int) {}

// Interrupts whatever the calling thread sleeps in, again and again, until stopped.
class Interrupter {
public:
    Interrupter() : target_(pthread_self()) {
        struct sigaction sa;
        memset(&sa, 0, sizeof(sa));
        sa.sa_handler = ignore_signal;  // no SA_RESTART: a sleep ends with EINTR
        sigaction(SIGUSR1, &sa, &old_);
        thread_ = std::thread([this] {
            while (!stop_.load()) {
                pthread_kill(target_, SIGUSR1);
                usleep(20000);
            }
        });
    }
    ~Interrupter() {
        stop_ = true;
        thread_.join();
        sigaction(SIGUSR1, &old_, nullptr);
    }

private:
    pthread_t target_;
    struct sigaction old_;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

TEST_F(MonitoringBadInput, InterruptedSleepIsReportedAndTheSampleIsTakenAtOnce) {
    if (qxt::emulator().find("qemu-i386") != std::string::npos)
        QXT_SKIP_UNDER_EMULATOR("joining a thread that signalled the joiner fails with EDEADLK");
    ASSERT_EQ(start_framework(meter_domain()), RT_SUCCESS);
    ASSERT_EQ(QX_REALTIME_CreateDomain(kMeter), RT_SUCCESS);
    LogCapture log;
    {
        Interrupter interrupter;
        // An interval of 100 s: only an interrupted sleep lets these calls end within the test.
        EXPECT_EQ(QX_REALTIME_GetDomainCpuUsage(kMeter, 100000, 1), RT_SUCCESS);
        EXPECT_EQ(QX_REALTIME_GetDomainCpuUsage("All", 100000, 1), RT_SUCCESS);
    }
    std::vector<std::string> lines = forms(log);
    ASSERT_EQ(lines.size(), 2u + 4u + 4u) << log.dump();
    EXPECT_EQ(
        lines[0],
        "[RT_Impl][Err] [QX_REALTIME_GetDomainCpuUsage] usleep errno=Interrupted system call\n");
    Sample sample;
    EXPECT_TRUE(parse_sample(lines[1], &sample)) << lines[1];
    EXPECT_EQ(lines[6],
              "[RT_Impl][Err] [_QX_REALTIME_GetAllDomainCpuUsage] usleep errno=Interrupted system "
              "call\n");
    std::string name;
    EXPECT_TRUE(parse_domain_sample(lines[7], &name, &sample)) << lines[7];
    EXPECT_EQ(name, kMeter);
}

}  // namespace
