// The diagnostic dump: one domain's records, classes, thread slots and the kernel's task lists, or
// the live threads of every domain.
#include <errno.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <utility>

#include "monitoring_support.h"

using namespace qxt;

namespace {

const char kMeter[] = "Domain_Meter";
const char kSpare[] = "Domain_Spare";
const char kDump[] = "QX_REALTIME_DumpDomainInfo";

typedef std::vector<std::pair<int, std::string>> Lines;

// Info-level traces of the frame: entry and exit, and the opening of lock files.
bool is_trace(const LogLine &line) {
    std::string form = line.file_form();
    return line.priority == QX_LOG_PRIO_INFO &&
           (form.compare(0, 14, "[RT_Impl][DBG]") == 0 ||
            form.compare(0, 39, "[RT_Impl][Info] [_QX_REALTIME_GetFlock]") == 0);
}

// Every captured line but the traces, with its priority.
Lines dump_lines(const LogCapture &log) {
    Lines out;
    for (const LogLine &line : log.lines())
        if (!is_trace(line)) out.emplace_back(line.priority, line.file_form());
    return out;
}

std::pair<int, std::string> err(const std::string &form) {
    return {QX_LOG_PRIO_ERROR, form};
}
std::pair<int, std::string> info(const std::string &form) {
    return {QX_LOG_PRIO_INFO, form};
}

std::string show(const Lines &lines) {
    std::string out;
    for (const auto &line : lines) out += format("  [%d] %s", line.first, line.second.c_str());
    return out;
}

// A round-robin domain on CPU 0 with two classes, written with the "PerThreadUtil" spelling of a
// class share (the builders write "Util").
std::string meter_domain() {
    return format(
        "    \"%s\": {\n"
        "        \"Util\": 512,\n"
        "        \"Cpuset\": \"0\",\n"
        "        \"Class_Meter\": {\n"
        "            \"PerThreadUtil\": 100,\n"
        "            \"RT_Priority\": 1\n"
        "        },\n"
        "        \"Class_Other\": {\n"
        "            \"PerThreadUtil\": 50,\n"
        "            \"RT_Priority\": 2\n"
        "        }\n"
        "    }",
        kMeter);
}

std::string spare_domain() {
    return rr_domain(kSpare, 256, "0", {{"Class_Spare", 100, 1}});
}

// Admissions of this process's threads that are undone at the end of the test.
class Admissions {
public:
    ~Admissions() {
        for (auto &a : admitted_) QX_REALTIME_RemoveThread(a.first.c_str(), a.second);
    }
    uint32_t add(const std::string &domain, const char *cls, pid_t tid) {
        uint32_t ret = QX_REALTIME_AddThread(domain.c_str(), cls, tid, 0);
        if (ret == RT_SUCCESS) admitted_.emplace_back(domain, tid);
        return ret;
    }

private:
    std::vector<std::pair<std::string, pid_t>> admitted_;
};

// A child process killed and reaped at the end of the test.
class ChildGuard {
public:
    explicit ChildGuard(pid_t pid) : pid_(pid) {}
    ~ChildGuard() { kill_and_reap(pid_); }

private:
    pid_t pid_;
};

// Waits until the process runs the program (its comm) after exec.
bool wait_for_comm(pid_t pid, const std::string &comm) {
    for (int i = 0; i < 2000; i++) {
        if (read_file(format("/proc/%d/comm", (int)pid)) == comm) return true;
        usleep(1000);
    }
    return false;
}

class Dump : public qxt::SandboxTest {
protected:
    // The framework on the meter domain alone, created.
    static void start_meter() {
        ASSERT_EQ(start_framework(meter_domain()), RT_SUCCESS);
        ASSERT_EQ(QX_REALTIME_CreateDomain(kMeter), RT_SUCCESS);
    }
    // The framework on the meter and the spare domain, both created.
    static void start_meter_and_spare() {
        ASSERT_EQ(start_framework(meter_domain() + ",\n" + spare_domain()), RT_SUCCESS);
        ASSERT_EQ(QX_REALTIME_CreateDomain(kMeter), RT_SUCCESS);
        ASSERT_EQ(QX_REALTIME_CreateDomain(kSpare), RT_SUCCESS);
    }
};

// The ten lines and the blank of one thread slot.
Lines thread_block(int idx, int cls, int alive, int process, int tid, int util, int prio) {
    return {err(format("[RT_Impl][Err]     ThreadIdx   = [%10d]\n", idx)),
            err(format("[RT_Impl][Err]     ClassIdx    = [%10d]\n", cls)),
            err(format("[RT_Impl][Err]     Alive       = [%10d]\n", alive)),
            err(format("[RT_Impl][Err]     ProcessID   = [%10d]\n", process)),
            err(format("[RT_Impl][Err]     Pid         = [%10d]\n", tid)),
            err(format("[RT_Impl][Err]     Util        = [%10d]\n", util)),
            err(format("[RT_Impl][Err]     Priority    = [%10d]\n", prio)),
            err("[RT_Impl][Err]     DeadlineUs  = [         0]\n"),
            err("[RT_Impl][Err]     RuntimeUs   = [         0]\n"),
            err("[RT_Impl][Err]     PeriodUs    = [         0]\n"),
            err("[RT_Impl][Err] \n")};
}

// The lines of the dump between two exact lines (both excluded).
std::vector<std::string> between(const LogCapture &log, const std::string &from,
                                 const std::string &to) {
    std::vector<std::string> all = forms(log), out;
    bool in = false;
    for (const std::string &form : all) {
        if (in && form == to) return out;
        if (in) out.push_back(form);
        if (form == from) in = true;
    }
    return {"(no closing line " + to + ")"};
}

const char kThreadsStart[] = "[RT_Impl][Err] ==============================\n";
const char kThreadsEnd[] = "[RT_Impl][Err] --------End of Threads--------\n";
const char kClosing[] = "[RT_Impl][Err] =========================\n";

TEST_F(Dump, RealDomainPrintsTheWholeSequenceOfHeaderFieldClassThreadAndKernelLines) {
    ASSERT_NO_FATAL_FAILURE(start_meter());
    TestThread sleeper;
    Admissions admissions;
    ASSERT_EQ(admissions.add(kMeter, "Class_Meter", sleeper.tid()), RT_SUCCESS);
    ASSERT_EQ(pstTop->u32DomainMapNum, 1u);
    void *addr = pstTop->astDomainMap[0].pvDomainAddr;
    int pid = getpid(), tid = sleeper.tid();

    QX_REALTIME_SetDebugLevel(64);
    LogCapture log;
    EXPECT_EQ(QX_REALTIME_DumpDomainInfo(kMeter), RT_SUCCESS);

    // Two classes of 88 bytes after the 1100-byte record, then one 96-byte thread slot.
    Lines expected = {
        err(format("[RT_Impl][Err] [%s] %s is used in pid(%d)\n", kDump, kMeter, pid)),
        err("[RT_Impl][Err] ==================================\n"),
        err("[RT_Impl][Err] ========== Domain: [Domain_Meter] ==========\n"),
        err(format("[RT_Impl][Err] %30s=%p\n", "DomainStartAddr", addr)),
        err(format("[RT_Impl][Err] %30s=0x%x\n", "s32NextOffset", 1100 + 2 * 88 + 96)),
        err(format("[RT_Impl][Err] %30s=0x%x\n", "s32ClassStartOffset", 1100)),
        err(format("[RT_Impl][Err] %30s=%20d\n", "s32ClassNum", 2)),
        err(format("[RT_Impl][Err] %30s=0x%x\n", "s32ThreadStartOffset", 1100 + 2 * 88)),
        err(format("[RT_Impl][Err] %30s=%20d\n", "s32ThreadNum", 1)),
        err("[RT_Impl][Err] ==================================\n"),
        err(format("[RT_Impl][Err] %30s=%20d\n", "s32CapPerCore", 1024)),
        err(format("[RT_Impl][Err] %30s=%20d\n", "s32UtilMax", 512)),
        err(format("[RT_Impl][Err] %30s=%20d\n", "s32UtilCurrent", 100)),
        err(format("[RT_Impl][Err] %30s=%20s\n", "pszCpuset", "0")),
        err(format("[RT_Impl][Err] %30s=%20d\n", "s32CpuNum", 1)),
        err(format("[RT_Impl][Err] %30s=%20d\n", "s32RtRuntimeUs", 0)),
        err(format("[RT_Impl][Err] %30s=%60s\n", "pszCpusetPathTasks",
                   "/dev/cpuset/Domain_Meter/tasks")),
        err(format("[RT_Impl][Err] %30s=%60s\n", "pszCpuacctPathTasks",
                   "/dev/cpuacct/Domain_Meter/tasks")),
        err(format("[RT_Impl][Err] %30s=%20d\n", "s32MemHighPrioResource", 3)),
        err(format("[RT_Impl][Err] %30s=%20d\n", "s32MemHighPrioUsage", 0)),
        err(format("[RT_Impl][Err] %30s=%20d\n", "s32MemHighPrioAvailable", 3)),
        err(format("[RT_Impl][Err] %30s=[ ", "s32ProcessIDList")),
        err(format("[RT_Impl][Err] %5d ", pid)),
        info("[RT_Impl][Info]  ]\n"),
        err("[RT_Impl][Err] -------- Class[ 0]: [Class_Meter], ClassUtil/thread = [100], "
            "RT_Priority = [1], DL_DeadlineUs = [0], DL_RuntimeUs = [0], DL_PeriodUs = [0];"
            "--------\n"),
        err("[RT_Impl][Err] -------- Class[ 1]: [Class_Other], ClassUtil/thread = [50], "
            "RT_Priority = [2], DL_DeadlineUs = [0], DL_RuntimeUs = [0], DL_PeriodUs = [0];"
            "--------\n"),
        err(kThreadsStart)};
    Lines block = thread_block(0, 0, 1, pid, tid, 100, 1);
    expected.insert(expected.end(), block.begin(), block.end());
    expected.push_back(err(kThreadsEnd));
    expected.push_back(
        info(format("[RT_Impl][Info] Info from [/dev/cpuset/Domain_Meter/tasks]:\n%d\n\n", tid)));
    expected.push_back(
        info(format("[RT_Impl][Info] Info from [/dev/cpuacct/Domain_Meter/tasks]:\n%d\n\n", tid)));
    expected.push_back(err(kClosing));
    EXPECT_EQ(dump_lines(log), expected) << show(dump_lines(log));
    EXPECT_EQ(
        log.count(QX_LOG_PRIO_INFO, "[RT_Impl][DBG] [QX_REALTIME_DumpDomainInfo] exit, OK.\n"), 1);
}

TEST_F(Dump, AdmittedThreadAppearsInTheKernelsCpusetAndCpuacctTaskLists) {
    ASSERT_NO_FATAL_FAILURE(start_meter());
    TestThread sleeper;
    Admissions admissions;
    ASSERT_EQ(admissions.add(kMeter, "Class_Meter", sleeper.tid()), RT_SUCCESS);
    // What the kernel says, asked directly.
    ASSERT_TRUE(tasks_file_lists("/dev/cpuset/Domain_Meter/tasks", sleeper.tid()));
    ASSERT_TRUE(tasks_file_lists("/dev/cpuacct/Domain_Meter/tasks", sleeper.tid()));

    QX_REALTIME_SetDebugLevel(64);
    LogCapture log;
    EXPECT_EQ(QX_REALTIME_DumpDomainInfo(kMeter), RT_SUCCESS);
    QXT_EXPECT_INFO(log,
                    format("[RT_Impl][Info] Info from [/dev/cpuset/Domain_Meter/tasks]:\n%d\n\n",
                           sleeper.tid()));
    QXT_EXPECT_INFO(log,
                    format("[RT_Impl][Info] Info from [/dev/cpuacct/Domain_Meter/tasks]:\n%d\n\n",
                           sleeper.tid()));
}

TEST_F(Dump, DefaultLevelShowsTheDumpButNeitherTheListClosureNorTheKernelLists) {
    ASSERT_NO_FATAL_FAILURE(start_meter());
    LogCapture log;
    EXPECT_EQ(QX_REALTIME_DumpDomainInfo(kMeter), RT_SUCCESS);
    Lines lines = dump_lines(log);
    for (const auto &line : lines) EXPECT_EQ(line.first, QX_LOG_PRIO_ERROR) << line.second;
    EXPECT_EQ(log.count_containing("Info from"), 0);
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.back().second, kClosing);
}

TEST_F(Dump, UnknownNameReturnsNullAndPrintsOnlyTheMissingDomainError) {
    ASSERT_NO_FATAL_FAILURE(start_meter());
    const Lines only = {
        err("[RT_Impl][Err] [QX_REALTIME_DumpDomainInfo] pstDomain is NULL for "
            "[Domain_Nope].\n")};
    {
        LogCapture log;
        EXPECT_EQ(QX_REALTIME_DumpDomainInfo("Domain_Nope"), RT_ERR_NULL);
        EXPECT_EQ(dump_lines(log), only) << log.dump();
        EXPECT_EQ(log.lines().size(), 1u) << log.dump();
    }
    // With the traces on, nothing else shows but traces.
    QX_REALTIME_SetDebugLevel(64);
    LogCapture log;
    EXPECT_EQ(QX_REALTIME_DumpDomainInfo("Domain_Nope"), RT_ERR_NULL);
    EXPECT_EQ(dump_lines(log), only) << log.dump();
}

TEST_F(Dump, NotEnabledPrintsNothingButDebugLinesAndSucceeds) {
    ASSERT_EQ(start_framework(meter_domain(), 1024, 0), RT_SUCCESS);
    QX_REALTIME_SetDebugLevel(64);
    LogCapture log;
    EXPECT_EQ(QX_REALTIME_DumpDomainInfo(kMeter), RT_SUCCESS);
    EXPECT_EQ(QX_REALTIME_DumpDomainInfo("All"), RT_SUCCESS);
    EXPECT_EQ(dump_lines(log), Lines{}) << log.dump();
    EXPECT_EQ(log.count(QX_LOG_PRIO_INFO, format("[RT_Impl][DBG] [%s] enter: pid=%d, tid=%d;\n",
                                                 kDump, getpid(), (int)gettid())),
              2)
        << log.dump();
}

TEST_F(Dump, ThreeThreadSlotsWithOneFreePrintThreeBlocksTheFreeOneNotAlive) {
    ASSERT_NO_FATAL_FAILURE(start_meter());
    TestThread t0, t1, t2;
    Admissions admissions;
    ASSERT_EQ(admissions.add(kMeter, "Class_Meter", t0.tid()), RT_SUCCESS);
    ASSERT_EQ(admissions.add(kMeter, "Class_Other", t1.tid()), RT_SUCCESS);
    ASSERT_EQ(admissions.add(kMeter, "Class_Meter", t2.tid()), RT_SUCCESS);
    ASSERT_EQ(QX_REALTIME_RemoveThread(kMeter, t1.tid()), RT_SUCCESS);

    LogCapture log;
    EXPECT_EQ(QX_REALTIME_DumpDomainInfo(kMeter), RT_SUCCESS);
    std::vector<std::string> threads = between(log, kThreadsStart, kThreadsEnd);
    ASSERT_EQ(threads.size(), 33u) << join_lines(threads);
    int pid = getpid();
    Lines expected = thread_block(0, 0, 1, pid, t0.tid(), 100, 1);
    Lines freed = thread_block(1, 1, 0, pid, t1.tid(), 50, 2);
    Lines third = thread_block(2, 0, 1, pid, t2.tid(), 100, 1);
    expected.insert(expected.end(), freed.begin(), freed.end());
    expected.insert(expected.end(), third.begin(), third.end());
    for (size_t i = 0; i < expected.size(); i++) EXPECT_EQ(threads[i], expected[i].second) << i;
}

TEST_F(Dump, ProcessIdListPrintsOnlyTheNonZeroEntries) {
    ASSERT_NO_FATAL_FAILURE(start_meter());
    QX_REALTIME_DOMAIN_t *rec = map_domain_file(kMeter);
    ASSERT_NE(rec, nullptr);
    memset(rec->s32ProcessIDList, 0, sizeof(rec->s32ProcessIDList));
    rec->s32ProcessIDList[1] = 1234;
    rec->s32ProcessIDList[3] = 5678;

    QX_REALTIME_SetDebugLevel(64);
    LogCapture log;
    EXPECT_EQ(QX_REALTIME_DumpDomainInfo(kMeter), RT_SUCCESS);
    std::vector<std::string> list =
        between(log, format("[RT_Impl][Err] %30s=[ ", "s32ProcessIDList"), "[RT_Impl][Info]  ]\n");
    EXPECT_EQ(list, (std::vector<std::string>{"[RT_Impl][Err]  1234 ", "[RT_Impl][Err]  5678 "}))
        << log.dump();
}

TEST_F(Dump, UnreadableTaskFilesAreReportedAndTheDumpStillClosesAndSucceeds) {
    ASSERT_NO_FATAL_FAILURE(start_meter());
    // The kernel removes an empty control group with its files.
    ASSERT_EQ(rmdir("/dev/cpuset/Domain_Meter"), 0) << strerror(errno);
    ASSERT_EQ(rmdir("/dev/cpuacct/Domain_Meter"), 0) << strerror(errno);

    LogCapture log;
    EXPECT_EQ(QX_REALTIME_DumpDomainInfo(kMeter), RT_SUCCESS);
    QXT_EXPECT_ERROR(log,
                     "[RT_Impl][Err] Read /dev/cpuset/Domain_Meter/tasks failed in "
                     "QX_REALTIME_DumpDomainInfo.\n");
    QXT_EXPECT_ERROR(log,
                     "[RT_Impl][Err] Read /dev/cpuacct/Domain_Meter/tasks failed in "
                     "QX_REALTIME_DumpDomainInfo.\n");
    std::vector<std::string> errors = error_forms(log);
    ASSERT_FALSE(errors.empty());
    EXPECT_EQ(errors.back(), kClosing) << log.dump();
}

// A record whose cpuset tasks path is not the one its name implies was written by someone else
// and may name any file: the dump does not open it, and reports it as a tasks file it could not
// read; the rest of the dump, the cpuacct list and the closing line included, is as ever, and the
// dump succeeds. Operations that write into the tasks files still refuse the record.
TEST_F(Dump, TasksPathNotTheDomainsOwnReadsAsAFileThatCannotBeRead) {
    ASSERT_NO_FATAL_FAILURE(start_meter());
    const std::string planted = "/vendor/etc/realtime/planted_tasks";
    write_file(planted, "4242\n");
    int watch = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    ASSERT_GE(watch, 0);
    ASSERT_GE(inotify_add_watch(watch, planted.c_str(), IN_OPEN | IN_ACCESS), 0);
    QX_REALTIME_DOMAIN_t *rec = map_domain_file(kMeter);
    ASSERT_NE(rec, nullptr);
    memset(rec->pszCpusetPathTasks, 0, RT_PATH_LEN);
    memcpy(rec->pszCpusetPathTasks, planted.c_str(), planted.size());

    QX_REALTIME_SetDebugLevel(64);
    const std::string acct = read_file("/dev/cpuacct/Domain_Meter/tasks");
    const Lines kernel_view = {
        err("[RT_Impl][Err] [_QX_REALTIME_FileReader] Failed to open " + planted +
            ": Permission denied.\n"),
        err("[RT_Impl][Err] Read " + planted + " failed in QX_REALTIME_DumpDomainInfo.\n"),
        info("[RT_Impl][Info] Info from [/dev/cpuacct/Domain_Meter/tasks]:\n" + acct + "\n"),
        err(kClosing)};
    // In this process, which has the domain mapped, and in one that maps it afresh.
    for (bool fresh : {false, true}) {
        SCOPED_TRACE(fresh ? "fresh process" : "mapped here");
        LogCapture log;
        uint32_t ret = ~0u;
        if (fresh) {
            ASSERT_EQ(0, run_in_child([&] {
                          LogCapture child;
                          if (QX_REALTIME_DumpDomainInfo(kMeter) != RT_SUCCESS) return 1;
                          Lines lines = dump_lines(child);
                          if (lines.size() < 4) return 2;
                          return Lines(lines.end() - 4, lines.end()) == kernel_view ? 0 : 3;
                      }));
            continue;
        }
        ret = QX_REALTIME_DumpDomainInfo(kMeter);
        EXPECT_EQ(ret, RT_SUCCESS);
        Lines lines = dump_lines(log);
        ASSERT_GE(lines.size(), 4u) << show(lines);
        EXPECT_EQ(Lines(lines.end() - 4, lines.end()), kernel_view) << show(lines);
        EXPECT_EQ(log.count_containing("corrupted"), 0) << log.dump();
        EXPECT_TRUE(log.has_error(
            format("[RT_Impl][Err] %30s=%60s\n", "pszCpusetPathTasks", planted.c_str())))
            << log.dump();
    }
    struct inotify_event ev;
    EXPECT_EQ(read(watch, &ev, sizeof(ev)), -1) << "the planted file was opened";
    EXPECT_EQ(errno, EAGAIN);
    close(watch);

    // Admission writes into the tasks files: it refuses the record, as before.
    TestThread sleeper;
    LogCapture log;
    EXPECT_EQ(QX_REALTIME_AddThread(kMeter, "Class_Meter", sleeper.tid(), 0), RT_ERR_NULL);
    QXT_EXPECT_ERROR(log,
                     "[RT_Impl][Err] [_QX_REALTIME_GetDomainFromName] Domain [Domain_Meter] is "
                     "corrupted (pszCpusetPathTasks): refused.\n");
    EXPECT_EQ(read_file(planted), "4242\n");
}

TEST_F(Dump, AllAndNamesBeginningWithAllListTheLiveThreadsOfEveryDomain) {
    ASSERT_NO_FATAL_FAILURE(start_meter_and_spare());
    // Another program with a short command line (the listing names it by its first word).
    pid_t sleeper = fork();
    if (sleeper == 0) {
        execlp("sleep", "sleep", "60", (char *)nullptr);
        _exit(127);
    }
    ASSERT_GT(sleeper, 0);
    ChildGuard guard(sleeper);
    ASSERT_TRUE(wait_for_comm(sleeper, "sleep\n"));
    Admissions admissions;
    ASSERT_EQ(admissions.add(kMeter, "Class_Other", sleeper), RT_SUCCESS);

    std::vector<std::string> expected = {
        "[RT_Impl][Err] ============================ Domain: [Domain_Meter] "
        "===========================\n",
        format("[RT_Impl][Err] [%5d]%-45s [%5d]%-16s %s\n", sleeper, "sleep", sleeper, "sleep",
               "Class_Other"),
        "[RT_Impl][Err] \n",
        "[RT_Impl][Err] ============================ Domain: [Domain_Spare] "
        "===========================\n",
        "[RT_Impl][Err] \n"};
    for (const char *name : {"All", "Allocator"}) {
        LogCapture log;
        EXPECT_EQ(QX_REALTIME_DumpDomainInfo(name), RT_SUCCESS) << name;
        EXPECT_EQ(forms(log), expected) << name << "\n" << log.dump();
    }
}

TEST_F(Dump, AllSucceedsEvenWhenTheThreadListingStopsEarly) {
    ASSERT_NO_FATAL_FAILURE(start_meter_and_spare());
    pid_t gone;
    {
        TestThread shortlived;
        gone = shortlived.tid();
        ASSERT_EQ(QX_REALTIME_AddThread(kMeter, "Class_Meter", gone, 0), RT_SUCCESS);
    }
    // A slot without a process id whose thread has exited: the listing can't name it and stops.
    QX_REALTIME_DOMAIN_t *rec = map_domain_file(kMeter);
    ASSERT_NE(rec, nullptr);
    QX_REALTIME_THREAD_t *slot = (QX_REALTIME_THREAD_t *)((char *)rec + rec->s32ThreadStartOffset);
    ASSERT_EQ(slot->Pid, gone);
    slot->ProcessID = 0;
    ASSERT_FALSE(file_exists(format("/proc/%d/comm", (int)gone)));

    LogCapture log;
    EXPECT_EQ(QX_REALTIME_DumpDomainInfo("All"), RT_SUCCESS);
    // Domain_Spare is never reached.
    std::vector<std::string> expected = {
        "[RT_Impl][Err] ============================ Domain: [Domain_Meter] "
        "===========================\n",
        format("[RT_Impl][Err] [_QX_REALTIME_FileReader] Failed to open /proc/%d/comm: No such "
               "file or directory.\n",
               (int)gone)};
    EXPECT_EQ(error_forms(log), expected) << log.dump();
    log.clear();
    EXPECT_EQ(QX_REALTIME_DumpDomainInfo("Allocator"), RT_SUCCESS);
    EXPECT_EQ(error_forms(log), expected) << log.dump();
}

}  // namespace

// A quiet device (debug level 0): the dump of one domain and of all, and the CPU-usage samples of
// one domain and of all, print nothing at all and succeed as they do when shown.
TEST_F(Dump, AtLevel0DumpsAndSamplesPrintNothingAndSucceed) {
    ASSERT_NO_FATAL_FAILURE(start_meter_and_spare());
    TestThread thread;
    Admissions admissions;
    ASSERT_EQ(admissions.add(kMeter, "Class_Other", thread.tid()), RT_SUCCESS);
    ASSERT_EQ(QX_REALTIME_SetDebugLevel(0), RT_SUCCESS);
    {
        LogCapture log;
        EXPECT_EQ(QX_REALTIME_DumpDomainInfo(kMeter), RT_SUCCESS);
        EXPECT_EQ(QX_REALTIME_DumpDomainInfo("All"), RT_SUCCESS);
        EXPECT_EQ(QX_REALTIME_GetDomainCpuUsage(kMeter, 1, 1), RT_SUCCESS);
        EXPECT_EQ(QX_REALTIME_GetDomainCpuUsage("All", 1, 1), RT_SUCCESS);
        QXT_EXPECT_SILENT(log);
    }
    QX_REALTIME_SetDebugLevel(RT_DBG_LEVEL_DEFAULT);
}
