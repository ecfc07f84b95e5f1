// Files in the shared directories are not trusted blindly: another process (buggy or hostile) may
// have cut a segment short, put a symlink, a directory or a FIFO in its place, written over a
// record, or died half-way through creating a domain.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "domains_support.h"

using namespace qxt;

namespace {

class UntrustedFilesTest : public DomainTest {
protected:
    // A scratch file outside the shared directories that nothing may change.
    std::string victim() {
        char dir[] = "/tmp/qxrt_victim_XXXXXX";
        EXPECT_NE(nullptr, mkdtemp(dir));
        dirs_.push_back(dir);
        std::string path = std::string(dir) + "/F";
        qxt::write_file(path, "precious");
        return path;
    }
    void TearDown() override {
        for (const std::string &dir : dirs_) {
            unlink((dir + "/F").c_str());
            rmdir(dir.c_str());
        }
    }
    std::vector<std::string> dirs_;
};

int query(const char *name) {
    QX_REALTIME_UTIL_t util = {1, 0, 0, 0};
    int32_t left = 0;
    return (int)QX_REALTIME_QueryBudget(name, &util, &left);
}

TEST_F(UntrustedFilesTest, SymlinkInPlaceOfADomainSegmentIsNeverFollowed) {
    init_with(config_of({rr_domain("Domain_A", 100, "0")}));
    std::string f = victim();
    ASSERT_EQ(0, symlink(f.c_str(), "/dev/shm/realtime/rt_Domain_A"));
    EXPECT_EQ(RT_ERR_FAILED, QX_REALTIME_CreateDomain("Domain_A"));
    EXPECT_TRUE(log.count_containing("shm_open (/dev/shm/realtime/rt_Domain_A)") > 0) << log.dump();
    EXPECT_EQ((int)RT_ERR_NULL, query("Domain_A"));
    EXPECT_EQ((int32_t)RT_ERR_NULL, QX_REALTIME_DeleteDomain("Domain_A"));
    EXPECT_EQ("precious", qxt::read_file(f));
}

TEST_F(UntrustedFilesTest, SymlinkInPlaceOfTheCentralSegmentIsNeverFollowed) {
    init_with(config_of({rr_domain("Domain_A", 100, "0")}));
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_CreateDomain("Domain_A"));
    std::string f = victim();
    ASSERT_EQ(0, rename("/dev/shm/realtime/rt_Global", "/dev/shm/realtime/saved_Global"));
    ASSERT_EQ(0, symlink(f.c_str(), "/dev/shm/realtime/rt_Global"));
    // A process that attaches now finds no central segment it may use.
    EXPECT_EQ((int)RT_ERR_NULL, run_in_fresh_process([] { return query("Domain_A"); }));
    EXPECT_EQ("precious", qxt::read_file(f));
}

TEST_F(UntrustedFilesTest, DirectoryInPlaceOfADomainSegmentFailsTheCreation) {
    init_with(config_of({rr_domain("Domain_A", 100, "0")}));
    ASSERT_EQ(0, mkdir("/dev/shm/realtime/rt_Domain_A", 0770));
    log.clear();
    EXPECT_EQ(RT_ERR_FAILED, QX_REALTIME_CreateDomain("Domain_A"));
    QXT_EXPECT_ERROR(
        log, "[RT_Impl][Err] [QX_REALTIME_CreateDomain] shared memory initialization fails\n");
    EXPECT_EQ(0, log.count_containing("is already created, skipped.")) << log.dump();
}

TEST_F(UntrustedFilesTest, FifoInPlaceOfADomainSegmentFailsTheCreationAndIsRemoved) {
    init_with(config_of({rr_domain("Domain_A", 100, "0")}));
    ASSERT_EQ(0, mkfifo("/dev/shm/realtime/rt_Domain_A", 0660));
    log.clear();
    EXPECT_EQ(RT_ERR_FAILED, QX_REALTIME_CreateDomain("Domain_A"));
    QXT_EXPECT_ERROR(log, qxt::format("[RT_Impl][Err] [_QX_REALTIME_SharedMemoryAlloc] "
                                      "ftruncate fails, errno=%s\n",
                                      errno_text(EINVAL).c_str()));
    EXPECT_FALSE(qxt::file_exists("/dev/shm/realtime/rt_Domain_A"));
    // With the FIFO gone the domain is created as usual.
    EXPECT_EQ(RT_SUCCESS, QX_REALTIME_CreateDomain("Domain_A"));
    EXPECT_EQ((int)RT_SUCCESS, query("Domain_A"));
}

// A segment cut short under a process that maps it would kill that process with SIGBUS at its
// next access: the operation is refused with a message instead.
TEST_F(UntrustedFilesTest, DomainSegmentCutShortUnderAMappingIsRefused) {
    init_with(config_of({rr_domain("Domain_A", 100, "0")}));
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_CreateDomain("Domain_A"));
    ASSERT_EQ((int)RT_SUCCESS, query("Domain_A"));
    ASSERT_EQ(0, truncate("/dev/shm/realtime/rt_Domain_A", 0));
    int status = qxt::run_in_child([] {
        qxt::LogCapture child_log;
        QX_REALTIME_UTIL_t util = {1, 0, 0, 0};
        if (query("Domain_A") != (int)RT_ERR_NULL) return 1;
        if (QX_REALTIME_AddThread("Domain_A", "Class_Rr", (int32_t)gettid(), 0) != RT_ERR_NULL)
            return 2;
        if (QX_REALTIME_UpdateThreadUtil("Domain_A", &util, (int32_t)gettid()) != RT_ERR_NULL)
            return 3;
        if (QX_REALTIME_DumpDomainInfo("Domain_A") != RT_ERR_NULL) return 4;
        if (QX_REALTIME_DumpDomainInfo("All") != RT_SUCCESS) return 5;
        return child_log.has_error(
                   "[RT_Impl][Err] [_QX_REALTIME_GetDomainFromName] "
                   "/dev/shm/realtime/rt_Domain_A is 0 bytes, not 16384: "
                   "refused.\n")
                   ? 0
                   : 6;
    });
    EXPECT_EQ(0, status);
    // The deletion still takes the damaged domain away, and it can be made again.
    EXPECT_EQ((int32_t)RT_SUCCESS, QX_REALTIME_DeleteDomain("Domain_A"));
    EXPECT_EQ(RT_SUCCESS, QX_REALTIME_CreateDomain("Domain_A"));
    EXPECT_EQ((int)RT_SUCCESS, query("Domain_A"));
}

TEST_F(UntrustedFilesTest, CentralSegmentCutShortUnderAMappingIsRefused) {
    init_with(config_of({rr_domain("Domain_A", 100, "0")}));
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_CreateDomain("Domain_A"));
    ASSERT_EQ(0, truncate("/dev/shm/realtime/rt_Global", 100));
    int status = qxt::run_in_child([] {
        qxt::LogCapture child_log;
        char names[64 * 24];
        if (query("Domain_A") != (int)RT_ERR_NULL) return 1;
        if (QX_REALTIME_GetAllDomainName(names, sizeof(names)) != RT_ERR_NULL) return 2;
        if (QX_REALTIME_CreateDomain("Domain_B") != RT_ERR_NULL) return 3;
        if (QX_REALTIME_SetDebugLevel(4) != RT_ERR_NULL) return 4;
        return child_log.has_error(
                   "[RT_Impl][Err] [QX_REALTIME_QueryBudget] "
                   "/dev/shm/realtime/rt_Global is 100 bytes, not 16384: "
                   "refused.\n")
                   ? 0
                   : 5;
    });
    EXPECT_EQ(0, status);
}

TEST_F(UntrustedFilesTest, DomainSegmentCutShortBeforeAnyMappingIsRefused) {
    init_with(config_of({rr_domain("Domain_A", 100, "0")}));
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_CreateDomain("Domain_A"));
    ASSERT_EQ(0, truncate("/dev/shm/realtime/rt_Domain_A", 100));
    // A process that has not mapped the domain yet finds a file shorter than a segment: it is
    // refused, not sized up to a segment of zeros.
    int status = run_in_fresh_process([] {
        qxt::LogCapture child_log;
        if (query("Domain_A") != (int)RT_ERR_NULL) return 1;
        return child_log.has_error(
                   "[RT_Impl][Err] [_QX_REALTIME_GetDomainFromName] "
                   "/dev/shm/realtime/rt_Domain_A is 100 bytes, not 16384: "
                   "refused.\n")
                   ? 0
                   : 2;
    });
    EXPECT_EQ(0, status) << log.dump();
    struct stat st;
    ASSERT_EQ(0, stat("/dev/shm/realtime/rt_Domain_A", &st));
    EXPECT_EQ(100, st.st_size);
}

// A domain this process has mapped is checked again at every lookup: a creation mark written
// into it since (another process making it anew) makes it refused until the mark is gone.
TEST_F(UntrustedFilesTest, CreationMarkAppearingUnderAMappingIsRefused) {
    init_with(config_of({rr_domain("Domain_A", 100, "0")}));
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_CreateDomain("Domain_A"));
    ASSERT_EQ((int)RT_SUCCESS, query("Domain_A"));
    QX_REALTIME_DOMAIN_t *rec = qxt::map_domain_file("Domain_A");
    ASSERT_NE(nullptr, rec);
    qx_set_creation_mark(rec, RT_DOMAIN_CREATING);
    log.clear();
    EXPECT_EQ((int)RT_ERR_NULL, query("Domain_A"));
    QXT_EXPECT_ERROR(log,
                     "[RT_Impl][Err] [_QX_REALTIME_GetDomainFromName] Domain [Domain_A] is "
                     "being created, or its creator died before it was done: refused.\n");
    qx_set_creation_mark(rec, 0);
    EXPECT_EQ((int)RT_SUCCESS, query("Domain_A"));
}

// The cgroup paths a domain record holds are the files admission writes thread ids into: a
// record whose paths are not those its name implies is refused, and nothing is written.
TEST_F(UntrustedFilesTest, RecordWithPlantedCgroupPathsIsRefused) {
    init_with(config_of({rr_domain("Domain_A", 100, "0")}));
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_CreateDomain("Domain_A"));
    std::string f = victim();
    QX_REALTIME_DOMAIN_t *rec = qxt::map_domain_file("Domain_A");
    ASSERT_NE(nullptr, rec);
    const char *fields[] = {"pszCpusetPathTasks", "pszCpuacctPathTasks", "pszCpusetPathRoot",
                            "pszCpuacctPathRoot"};
    char *targets[] = {rec->pszCpusetPathTasks, rec->pszCpuacctPathTasks, rec->pszCpusetPathRoot,
                       rec->pszCpuacctPathRoot};
    for (int i = 0; i < 4; i++) {
        SCOPED_TRACE(fields[i]);
        char saved[RT_PATH_LEN];
        memcpy(saved, targets[i], RT_PATH_LEN);
        memset(targets[i], 0, RT_PATH_LEN);
        memcpy(targets[i], f.c_str(), f.size());
        log.clear();
        qxt::TestThread t;
        EXPECT_EQ(RT_ERR_NULL, QX_REALTIME_AddThread("Domain_A", "Class_Rr", t.tid(), 0));
        QXT_EXPECT_ERROR(log, qxt::format("[RT_Impl][Err] [_QX_REALTIME_GetDomainFromName] "
                                          "Domain [Domain_A] is corrupted (%s): refused.\n",
                                          fields[i]));
        EXPECT_EQ(0u, qxt::sched_of(t.tid()).policy);
        EXPECT_EQ("precious", qxt::read_file(f));
        memcpy(targets[i], saved, RT_PATH_LEN);
    }
    qxt::TestThread t;
    EXPECT_EQ(RT_SUCCESS, QX_REALTIME_AddThread("Domain_A", "Class_Rr", t.tid(), 0));
    EXPECT_EQ(RT_SUCCESS, QX_REALTIME_RemoveThread("Domain_A", t.tid()));
}

// A creation cut short by the death of its process leaves the creation mark in the segment: the
// domain is not used, and the next creation makes it anew.
TEST_F(UntrustedFilesTest, DomainLeftHalfCreatedIsRefusedThenCreatedAgain) {
    init_with(config_of({rr_domain("Domain_A", 100, "0")}));
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_CreateDomain("Domain_A"));
    QX_REALTIME_DOMAIN_t *rec = qxt::map_domain_file("Domain_A");
    ASSERT_NE(nullptr, rec);
    qx_set_creation_mark(rec, RT_DOMAIN_CREATING);
    int status = run_in_fresh_process([] {
        qxt::LogCapture child_log;
        if (query("Domain_A") != (int)RT_ERR_NULL) return 1;
        if (!child_log.has_error("[RT_Impl][Err] [_QX_REALTIME_GetDomainFromName] Domain "
                                 "[Domain_A] is being created, or its creator died before it "
                                 "was done: refused.\n"))
            return 2;
        if (QX_REALTIME_CreateDomain("Domain_A") != RT_SUCCESS) return 3;
        if (!child_log.has_error("[RT_Impl][Err] [QX_REALTIME_CreateDomain]: Domain [Domain_A] "
                                 "was left half-created by a process that died: created "
                                 "again.\n"))
            return 4;
        qxt::TestThread t;
        if (QX_REALTIME_AddThread("Domain_A", "Class_Rr", t.tid(), 0) != RT_SUCCESS) return 5;
        if (QX_REALTIME_RemoveThread("Domain_A", t.tid()) != RT_SUCCESS) return 6;
        return 0;
    });
    EXPECT_EQ(0, status);
    // The central list counts the domain once.
    EXPECT_EQ(1, qxt::map_central_file()->s32DomainNum);
}

// Killed between making the segment file and sizing it, a creator leaves an empty file behind.
TEST_F(UntrustedFilesTest, EmptySegmentFileLeftByACreatorIsCreatedAgain) {
    init_with(config_of({rr_domain("Domain_A", 100, "0")}));
    int fd = open("/dev/shm/realtime/rt_Domain_A", O_RDWR | O_CREAT | O_EXCL, 0660);
    ASSERT_GE(fd, 0);
    close(fd);
    EXPECT_EQ(RT_SUCCESS, QX_REALTIME_CreateDomain("Domain_A"));
    EXPECT_EQ((int)RT_SUCCESS, query("Domain_A"));
    EXPECT_EQ(0, log.count_containing("is already created, skipped.")) << log.dump();
}

}  // namespace
