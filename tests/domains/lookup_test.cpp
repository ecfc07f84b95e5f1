// Domain lookup with the per-process mapping table, and the two enumerations of the central list.
#include <fcntl.h>
#include <string.h>
#include <sys/file.h>
#include <sys/syscall.h>

#include "domains_support.h"

using namespace qxt;

namespace {

class LookupTest : public DomainTest {
protected:
    // Domains created by another process, so that this process has mapped none of them.
    void create_elsewhere(int first, int last) {
        ASSERT_EQ(0, run_in_fresh_process([=] {
                      for (int i = first; i <= last; i++)
                          if (QX_REALTIME_CreateDomain(numbered_name(i).c_str()) != RT_SUCCESS)
                              return i;
                      return 0;
                  }));
    }
};

TEST_F(LookupTest, LookingUpTheSameDomainTwiceMapsItOnce) {
    init_with(config_of(numbered_domains(1, 1)));
    create_elsewhere(1, 1);
    ASSERT_EQ(0u, pstTop->u32DomainMapNum);
    int fds_before = open_fd_count();

    int32_t flock1 = -1, flock2 = -1;
    QX_REALTIME_DOMAIN_t *first = _QX_REALTIME_GetDomainFromName("Domain_1", &flock1);
    ASSERT_NE(nullptr, first) << log.dump();
    EXPECT_EQ(fds_before + 2, open_fd_count()) << "the segment and the flock file";
    QX_REALTIME_DOMAIN_t *second = _QX_REALTIME_GetDomainFromName("Domain_1", &flock2);
    EXPECT_EQ(first, second);
    EXPECT_EQ(fds_before + 3, open_fd_count()) << "only a new flock descriptor";
    EXPECT_GE(flock1, 0);
    EXPECT_GE(flock2, 0);
    EXPECT_NE(flock1, flock2);
    EXPECT_EQ(1u, pstTop->u32DomainMapNum);
    EXPECT_EQ(first, pstTop->astDomainMap[0].pvDomainAddr);
    EXPECT_STREQ("Domain_1", first->szName);
    EXPECT_EQ(1, log.count_containing("shm exists. mmap=")) << log.dump();
    QXT_EXPECT_INFO(log,
                    qxt::format("[RT_Impl][Info] [_QX_REALTIME_GetDomainFromName][PID=%d][TID=%ld] "
                                "shm exists. mmap=%p, "
                                "s32ShmFd=%d\n",
                                getpid(), (long)syscall(SYS_gettid), (void *)first,
                                pstTop->astDomainMap[0].s32ShmFd));
    // The flock files are opened, not locked: another process can take the lock.
    EXPECT_EQ(0, qxt::run_in_child([] {
                  int fd = open("/data/vendor/realtime/flock_rt_Domain_1", O_RDWR);
                  return fd >= 0 && flock(fd, LOCK_EX | LOCK_NB) == 0 ? 0 : 1;
              }));
    close(flock1);
    close(flock2);
}

TEST_F(LookupTest, UnknownDomainReturnsNullAndPrintsNothing) {
    init_with(config_of(numbered_domains(1, 1)));
    log.clear();
    int fds_before = open_fd_count();
    int32_t flock_fd = -1;
    EXPECT_EQ(nullptr, _QX_REALTIME_GetDomainFromName("Domain_Nope", &flock_fd));
    QXT_EXPECT_SILENT(log);
    EXPECT_EQ(fds_before, open_fd_count());
    EXPECT_FALSE(qxt::file_exists("/data/vendor/realtime/flock_rt_Domain_Nope"));
    EXPECT_EQ(0u, pstTop->u32DomainMapNum);
}

TEST_F(LookupTest, NullFlockPointerLeavesTheFlockFileAlone) {
    init_with(config_of(numbered_domains(1, 1)));
    create_elsewhere(1, 1);
    ASSERT_FALSE(qxt::file_exists("/data/vendor/realtime/flock_rt_Domain_1"));
    int fds_before = open_fd_count();

    QX_REALTIME_DOMAIN_t *domain = _QX_REALTIME_GetDomainFromName("Domain_1", nullptr);
    ASSERT_NE(nullptr, domain) << log.dump();
    EXPECT_FALSE(qxt::file_exists("/data/vendor/realtime/flock_rt_Domain_1"));
    EXPECT_EQ(fds_before + 1, open_fd_count()) << "the segment's descriptor only";
    EXPECT_EQ(0, log.count_containing("flock open")) << log.dump();

    int32_t flock_fd = -1;
    EXPECT_EQ(domain, _QX_REALTIME_GetDomainFromName("Domain_1", &flock_fd));
    EXPECT_TRUE(qxt::file_exists("/data/vendor/realtime/flock_rt_Domain_1"));
    close(flock_fd);
}

TEST_F(LookupTest, NinthDistinctDomainIsRefusedWithoutWritingPastTheTable) {
    init_with(config_of(numbered_domains(1, 9)));
    create_elsewhere(1, 7);
    create_elsewhere(8, 9);
    for (int i = 1; i <= 8; i++)
        ASSERT_NE(nullptr, _QX_REALTIME_GetDomainFromName(numbered_name(i).c_str(), nullptr)) << i;
    ASSERT_EQ(8u, pstTop->u32DomainMapNum);
    QX_REALTIME_TOP_t before;
    memcpy(&before, pstTop, sizeof(before));
    int fds_before = open_fd_count();
    log.clear();

    int32_t flock_fd = -5;
    EXPECT_EQ(nullptr, _QX_REALTIME_GetDomainFromName("Domain_9", &flock_fd));
    QXT_EXPECT_ERROR(log,
                     "[RT_Impl][Err] [_QX_REALTIME_GetDomainFromName] Can't map domain "
                     "[Domain_9]: this process maps at most 8 domains.\n");
    EXPECT_EQ(0, memcmp(&before, pstTop, sizeof(before))) << "the table is unchanged";
    EXPECT_EQ(fds_before, open_fd_count()) << "the segment's descriptor is closed again";
    EXPECT_EQ(-5, flock_fd);
    // The eight mapped domains still work.
    for (int i = 1; i <= 8; i++) {
        QX_REALTIME_DOMAIN_t *domain =
            _QX_REALTIME_GetDomainFromName(numbered_name(i).c_str(), nullptr);
        ASSERT_NE(nullptr, domain) << i;
        EXPECT_EQ(numbered_name(i), domain->szName);
    }
    // Operations on the ninth report it as missing.
    int32_t left = -1;
    QX_REALTIME_UTIL_t util = {1, 0, 0, 0};
    EXPECT_EQ(RT_ERR_NULL, QX_REALTIME_QueryBudget("Domain_9", &util, &left));
    EXPECT_EQ(-1, left);
}

TEST_F(LookupTest, AllDomainNamesWithNullBufferOnlyLogs) {
    init_with(config_of(numbered_domains(1, 3)));
    for (int i = 1; i <= 3; i++)
        ASSERT_EQ(RT_SUCCESS, QX_REALTIME_CreateDomain(numbered_name(i).c_str()));
    log.clear();

    EXPECT_EQ(RT_SUCCESS, QX_REALTIME_GetAllDomainName(nullptr, 192));
    QXT_EXPECT_INFO(log, "[RT_Impl][Info] ==================================\n");
    QXT_EXPECT_INFO(log, "[RT_Impl][Info] Total Used Util for all processes=30\n");
    EXPECT_EQ(0, log.count_containing("Domain_1")) << log.dump();
    EXPECT_EQ(0, log.count_containing("[RT_Impl][Err]")) << log.dump();
}

class AllDomainNamesTest : public LookupTest {
protected:
    void SetUpInSandbox() override {
        init_with(
            config_of({rr_domain("Domain_First", 10, "0"), rr_domain("Domain_Second", 20, "0"),
                       rr_domain("Domain_Third", 30, "0")}));
        for (const char *name : {"Domain_First", "Domain_Second", "Domain_Third"})
            ASSERT_EQ(RT_SUCCESS, QX_REALTIME_CreateDomain(name));
        memset(buffer, 0xAA, sizeof(buffer));
        log.clear();
    }
    std::string slot(int i) const {
        return std::string(buffer + 64 * i, strnlen(buffer + 64 * i, 64));
    }
    bool slot_padded(int i) const {
        for (size_t j = slot(i).size(); j < 64; j++)
            if (buffer[64 * i + j] != 0) return false;
        return true;
    }
    char buffer[192];
};

TEST_F(AllDomainNamesTest, ThreeDomainsInABufferOfTwoSlotsCopyTwoAndReportTheOverflow) {
    EXPECT_EQ(RT_ERR_SYSTEM, QX_REALTIME_GetAllDomainName(buffer, 128));
    EXPECT_EQ("Domain_First", slot(0));
    EXPECT_EQ("Domain_Second", slot(1));
    EXPECT_TRUE(slot_padded(0));
    EXPECT_TRUE(slot_padded(1));
    for (int i = 128; i < 192; i++) ASSERT_EQ((char)0xAA, buffer[i]) << i;
    // This message has no line end.
    QXT_EXPECT_ERROR(log,
                     "[RT_Impl][Err] [QX_REALTIME_GetAllDomainName] Buffer overflows: "
                     "outlen=128, bufsize=128");
    // Every domain up to the one that did not fit is listed.
    QXT_EXPECT_INFO(log, qxt::format("[RT_Impl][Info] %-30s=%6d\n", "Domain_Third", 30));
}

TEST_F(AllDomainNamesTest, ThreeDomainsInThreeSlotsAreAllCopied) {
    EXPECT_EQ(RT_SUCCESS, QX_REALTIME_GetAllDomainName(buffer, 192));
    EXPECT_EQ("Domain_First", slot(0));
    EXPECT_EQ("Domain_Second", slot(1));
    EXPECT_EQ("Domain_Third", slot(2));
    for (int i = 0; i < 3; i++) EXPECT_TRUE(slot_padded(i)) << i;
    QXT_EXPECT_INFO(log, "[RT_Impl][Info] Total Used Util for all processes=60\n");
    EXPECT_TRUE(log.has_info(qxt::format("[RT_Impl][Info] %-30s=%6d\n", "Domain_First", 10)));
    EXPECT_TRUE(log.has_info(qxt::format("[RT_Impl][Info] %-30s=%6d\n", "Domain_Second", 20)));
    EXPECT_TRUE(log.has_info(qxt::format("[RT_Impl][Info] %-30s=%6d\n", "Domain_Third", 30)));
}

TEST_F(AllDomainNamesTest, SlotStartingInsideTheBufferIsCopiedWhole) {
    // Declared 130 bytes: the third slot starts at 128 and is copied whole, 64 bytes.
    EXPECT_EQ(RT_SUCCESS, QX_REALTIME_GetAllDomainName(buffer, 130));
    EXPECT_EQ("Domain_First", slot(0));
    EXPECT_EQ("Domain_Second", slot(1));
    EXPECT_EQ("Domain_Third", slot(2));
    EXPECT_TRUE(slot_padded(2));
    EXPECT_EQ(0, log.count_containing("Buffer overflows")) << log.dump();
}

TEST_F(LookupTest, AllDomainNamesOfADisabledFrameworkLeavesTheBuffer) {
    init_with(qxt::config_with(0, 1024, 4, 80, 2, rr_domain("Domain_A", 100, "0")));
    char buffer[128];
    memset(buffer, 0xAA, sizeof(buffer));
    log.clear();
    EXPECT_EQ(RT_SUCCESS, QX_REALTIME_GetAllDomainName(buffer, sizeof(buffer)));
    for (char c : buffer) ASSERT_EQ((char)0xAA, c);
    EXPECT_EQ(0, log.count_containing("[RT_Impl][Err]")) << log.dump();
    EXPECT_EQ(0, log.count_containing("Total Used Util")) << log.dump();
}

TEST_F(LookupTest, AllDomainNamesWithoutCentralDataReturnsTheAttachResult) {
    char buffer[64];
    memset(buffer, 0xAA, sizeof(buffer));
    EXPECT_EQ(RT_ERR_NULL, QX_REALTIME_GetAllDomainName(buffer, sizeof(buffer)));
    QXT_EXPECT_ERROR(log, "[RT_Impl][Err] Did you forget to invoke QX_REALTIME_Init()?\n");
    for (char c : buffer) ASSERT_EQ((char)0xAA, c);
}

// ---- the thread listing ----

std::string header_of(const std::string &domain) {
    return "[RT_Impl][Err] ============================ Domain: [" + domain +
           "] ===========================\n";
}

std::string comm_of(pid_t pid, pid_t tid) {
    std::string comm = qxt::read_file(qxt::format("/proc/%d/task/%d/comm", (int)pid, (int)tid));
    if (!comm.empty()) comm.pop_back();
    return comm;
}

std::string program_name() {
    std::string cmdline = qxt::read_file("/proc/self/cmdline");
    std::string first = cmdline.substr(0, cmdline.find('\0'));
    size_t slash = first.rfind('/');
    return slash == std::string::npos ? first : first.substr(slash + 1);
}

class DomainInfoTest : public LookupTest {
protected:
    void SetUpInSandbox() override {
        init_with(config_of({rr_domain("Domain_A", 100, "0-1", {{"Class_Listed", 10, 10}}),
                             rr_domain("Domain_B", 100, "0-1", {{"Class_Other", 10, 10}})}));
        ASSERT_EQ(RT_SUCCESS, QX_REALTIME_CreateDomain("Domain_A"));
        ASSERT_EQ(RT_SUCCESS, QX_REALTIME_CreateDomain("Domain_B"));
    }
    // The slot of an admitted thread, in a view of the segment of our own.
    QX_REALTIME_THREAD_t *slot_of(const std::string &domain, pid_t tid) {
        QX_REALTIME_DOMAIN_t *record = qxt::map_domain_file(domain);
        if (record == nullptr) return nullptr;
        for (int32_t i = 0; i < record->s32ThreadNum; i++) {
            QX_REALTIME_THREAD_t *slot = qx_domain_thread(record, i);
            if (slot != nullptr && slot->Alive != 0 && slot->Pid == tid) return slot;
        }
        return nullptr;
    }
};

TEST_F(DomainInfoTest, ListingShowsEveryLiveThreadWithProgramThreadAndClass) {
    qxt::TestThread first, second;
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_AddThread("Domain_A", "Class_Listed", first.tid(), 0))
        << log.dump();
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_AddThread("Domain_B", "Class_Other", second.tid(), 0))
        << log.dump();
    log.clear();

    EXPECT_EQ(RT_SUCCESS, _QX_REALTIME_GetAllDomainInfo());
    std::vector<std::string> expected = {
        header_of("Domain_A"),
        qxt::format("[RT_Impl][Err] [%5d]%-45s [%5d]%-16s %s\n", (int)getpid(),
                    program_name().c_str(), (int)first.tid(),
                    comm_of(getpid(), first.tid()).c_str(), "Class_Listed"),
        "[RT_Impl][Err] \n",
        header_of("Domain_B"),
        qxt::format("[RT_Impl][Err] [%5d]%-45s [%5d]%-16s %s\n", (int)getpid(),
                    program_name().c_str(), (int)second.tid(),
                    comm_of(getpid(), second.tid()).c_str(), "Class_Other"),
        "[RT_Impl][Err] \n",
    };
    std::vector<std::string> got;
    for (const qxt::LogLine &line : log.lines()) {
        EXPECT_EQ(QX_LOG_PRIO_ERROR, line.priority) << line.message;
        got.push_back(line.file_form());
    }
    EXPECT_EQ(expected, got);
}

TEST_F(DomainInfoTest, ThreadWhoseProcessHasExitedIsSkipped) {
    qxt::TestThread thread;
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_AddThread("Domain_A", "Class_Listed", thread.tid(), 0));
    QX_REALTIME_THREAD_t *slot = slot_of("Domain_A", thread.tid());
    ASSERT_NE(nullptr, slot);
    pid_t gone = dead_pid();
    slot->ProcessID = gone;
    log.clear();

    EXPECT_EQ(RT_SUCCESS, _QX_REALTIME_GetAllDomainInfo());
    std::vector<std::string> got;
    for (const qxt::LogLine &line : log.lines()) got.push_back(line.file_form());
    EXPECT_EQ((std::vector<std::string>{
                  header_of("Domain_A"),
                  qxt::format("[RT_Impl][Err] [_QX_REALTIME_FileReader] Failed to open "
                              "/proc/%d/cmdline: %s.\n",
                              (int)gone, errno_text(ENOENT).c_str()),
                  "[RT_Impl][Err] \n", header_of("Domain_B"), "[RT_Impl][Err] \n"}),
              got);
}

TEST_F(DomainInfoTest, ThreadWithoutProcessIdIsListedByItsOwnName) {
    qxt::TestThread thread;
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_AddThread("Domain_A", "Class_Listed", thread.tid(), 0));
    QX_REALTIME_THREAD_t *slot = slot_of("Domain_A", thread.tid());
    ASSERT_NE(nullptr, slot);
    slot->ProcessID = 0;
    log.clear();

    EXPECT_EQ(RT_SUCCESS, _QX_REALTIME_GetAllDomainInfo());
    std::string comm = qxt::read_file(qxt::format("/proc/%d/comm", (int)thread.tid()));
    ASSERT_FALSE(comm.empty());
    comm.pop_back();
    QXT_EXPECT_ERROR(log, qxt::format("[RT_Impl][Err] [%5d]%-16s %s\n", (int)thread.tid(),
                                      comm.c_str(), "Class_Listed"));
}

TEST_F(DomainInfoTest, ExitedThreadWithoutProcessIdEndsTheListing) {
    qxt::TestThread thread;
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_AddThread("Domain_A", "Class_Listed", thread.tid(), 0));
    QX_REALTIME_THREAD_t *slot = slot_of("Domain_A", thread.tid());
    ASSERT_NE(nullptr, slot);
    pid_t gone = dead_pid();
    slot->ProcessID = 0;
    slot->Pid = gone;
    log.clear();

    EXPECT_EQ(RT_ERR_SYSTEM, _QX_REALTIME_GetAllDomainInfo());
    std::vector<std::string> got;
    for (const qxt::LogLine &line : log.lines()) got.push_back(line.file_form());
    EXPECT_EQ((std::vector<std::string>{
                  header_of("Domain_A"),
                  qxt::format("[RT_Impl][Err] [_QX_REALTIME_FileReader] Failed to open "
                              "/proc/%d/comm: %s.\n",
                              (int)gone, errno_text(ENOENT).c_str())}),
              got)
        << "nothing after the slot: no line end, no second domain";
}

TEST_F(DomainInfoTest, DeletedDomainIsReportedMissingInTheListing) {
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_DeleteDomain("Domain_A"));
    log.clear();
    EXPECT_EQ(RT_SUCCESS, _QX_REALTIME_GetAllDomainInfo());
    std::vector<std::string> got;
    for (const qxt::LogLine &line : log.lines()) got.push_back(line.file_form());
    EXPECT_EQ((std::vector<std::string>{
                  "[RT_Impl][Err] [_QX_REALTIME_GetAllDomainInfo] pstDomain is NULL.\n",
                  header_of("Domain_B"), "[RT_Impl][Err] \n"}),
              got);
}

}  // namespace

// The program named in the listing is the base name of the command line's first word, however
// long the word and however long the rest of the command line (the reader joins the command line
// in 127-byte pieces).
TEST_F(DomainInfoTest, ProgramIsTheFirstWordOfALongCommandLine) {
    struct Case {
        std::string argv0;
        int args;
    };
    const std::vector<Case> cases = {
        {"/usr/local/bin/qxt_short", 60},                     // many arguments after a short word
        {"/" + std::string(300, 'd') + "/qxt_long_word", 3},  // the word alone spans three pieces
        {"qxt_no_slash_" + std::string(120, 'w'), 0},         // a word of 133 bytes, no argument
    };
    for (const Case &c : cases) {
        std::vector<std::string> words = {c.argv0};
        for (int i = 0; i < c.args; i++) words.push_back("1000");
        if (c.args == 0) words.push_back("1000");  // sleep needs its duration
        fflush(nullptr);
        pid_t child = fork();
        if (child == 0) {
            std::vector<char *> argv;
            for (std::string &w : words) argv.push_back(&w[0]);
            argv.push_back(nullptr);
            execv("/bin/sleep", argv.data());
            _exit(127);
        }
        ASSERT_GT(child, 0);
        // The command line is the new program's once comm says so.
        for (int i = 0; i < 2000 && comm_of(child, child) != "sleep"; i++) usleep(1000);
        ASSERT_EQ(RT_SUCCESS, QX_REALTIME_AddThread("Domain_A", "Class_Listed", child, 0))
            << log.dump();
        log.clear();
        EXPECT_EQ(RT_SUCCESS, _QX_REALTIME_GetAllDomainInfo());
        size_t slash = c.argv0.rfind('/');
        std::string program = slash == std::string::npos ? c.argv0 : c.argv0.substr(slash + 1);
        QXT_EXPECT_ERROR(log, qxt::format("[RT_Impl][Err] [%5d]%-45s [%5d]%-16s %s\n", (int)child,
                                          program.c_str(), (int)child, "sleep", "Class_Listed"));
        EXPECT_EQ(RT_SUCCESS, QX_REALTIME_RemoveThread("Domain_A", child));
        qxt::kill_and_reap(child);
    }
}
