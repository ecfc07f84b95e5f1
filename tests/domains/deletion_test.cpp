// Domain deletion: this process's mapping, the segment file and the flock file go; the central
// list, the threads and their control groups stay.
#include <string.h>
#include <sys/stat.h>
#include <sys/sysinfo.h>

#include "domains_support.h"

using namespace qxt;

namespace {

const char kFlockPath[] = "/data/vendor/realtime/flock_rt_Domain_A";

class DeleteDomainTest : public DomainTest {
protected:
    void create_a() {
        init_with(config_of(
            {rr_domain("Domain_A", 100, std::to_string(get_nprocs() - 1), {{"Class_Rr", 10, 20}}),
             rr_domain("Domain_B", 100, "0"), rr_domain("Domain_C", 100, "0")}));
        ASSERT_EQ(RT_SUCCESS, QX_REALTIME_CreateDomain("Domain_A")) << log.dump();
    }
    // A budget query opens the domain's flock file, as every thread operation does.
    void use_a() {
        QX_REALTIME_UTIL_t util = {1, 0, 0, 0};
        int32_t left = 0;
        ASSERT_EQ(RT_SUCCESS, QX_REALTIME_QueryBudget("Domain_A", &util, &left)) << log.dump();
        ASSERT_TRUE(qxt::file_exists(kFlockPath));
    }
    // What the deletion says of the flock file: level "Info" or "Err", and how the unlink went.
    static std::string flock_unlink_line(const char *level, const char *outcome, int err) {
        return qxt::format("[RT_Impl][%s] [QX_REALTIME_DeleteDomain] unlink %s %s, errno=%s\n",
                           level, kFlockPath, outcome, errno_text(err).c_str());
    }
};

TEST_F(DeleteDomainTest, DeletionRemovesTheMappingTheSegmentAndTheFlockFile) {
    create_a();
    use_a();
    void *mapping = pstTop->astDomainMap[0].pvDomainAddr;
    log.clear();

    EXPECT_EQ((int32_t)RT_SUCCESS, QX_REALTIME_DeleteDomain("Domain_A"));
    EXPECT_FALSE(segment_exists("Domain_A"));
    EXPECT_FALSE(qxt::file_exists(kFlockPath));
    EXPECT_EQ(0u, pstTop->u32DomainMapNum);
    EXPECT_FALSE(is_mapped(mapping));
    // Seen at the error level on purpose.
    QXT_EXPECT_ERROR(log,
                     "[RT_Impl][Err] [QX_REALTIME_DeleteDomain] unlink "
                     "/data/vendor/realtime/flock_rt_Domain_A success\n");
    QXT_EXPECT_INFO(log, "[RT_Impl][DBG] [QX_REALTIME_DeleteDomain] exit, OK.\n");
    // The control groups stay.
    EXPECT_TRUE(qxt::file_exists("/dev/cpuset/Domain_A"));
    EXPECT_TRUE(qxt::file_exists("/dev/cpuacct/Domain_A"));
}

TEST_F(DeleteDomainTest, DeletingTwiceReportsTheMissingDomain) {
    create_a();
    ASSERT_EQ((int32_t)RT_SUCCESS, QX_REALTIME_DeleteDomain("Domain_A"));
    log.clear();

    EXPECT_EQ((int32_t)RT_ERR_NULL, QX_REALTIME_DeleteDomain("Domain_A"));
    QXT_EXPECT_ERROR(log, "[RT_Impl][Err] [QX_REALTIME_DeleteDomain] pstDomain is NULL.\n");
    EXPECT_EQ(0, log.count_containing("unlink")) << log.dump();
}

TEST_F(DeleteDomainTest, DeletionOfADomainWhoseFlockFileIsGoneLogsThatItWasUnlinked) {
    create_a();
    use_a();
    ASSERT_EQ(0, unlink(kFlockPath));
    log.clear();

    EXPECT_EQ((int32_t)RT_SUCCESS, QX_REALTIME_DeleteDomain("Domain_A"));
    QXT_EXPECT_INFO(log, flock_unlink_line("Info", "has been unlinked", ENOENT));
    EXPECT_FALSE(segment_exists("Domain_A"));
}

TEST_F(DeleteDomainTest, FlockFileThatCannotBeRemovedIsReportedAndTheDeletionSucceeds) {
    create_a();
    ASSERT_EQ(0, mkdir(kFlockPath, 0700));  // unlink refuses a directory

    EXPECT_EQ((int32_t)RT_SUCCESS, QX_REALTIME_DeleteDomain("Domain_A"));
    QXT_EXPECT_ERROR(log, flock_unlink_line("Err", "fails", EISDIR));
    EXPECT_FALSE(segment_exists("Domain_A"));
}

TEST_F(DeleteDomainTest, DeletingADomainWithAdmittedThreadsKeepsTheirAttributes) {
    create_a();
    qxt::TestThread thread;  // sleeps: harmless under SCHED_RR
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_AddThread("Domain_A", "Class_Rr", thread.tid(), 0))
        << log.dump();
    ASSERT_EQ(2u, qxt::sched_of(thread.tid()).policy);
    std::string cpuset_before = qxt::cgroup_of(thread.tid(), "cpuset");

    EXPECT_EQ((int32_t)RT_SUCCESS, QX_REALTIME_DeleteDomain("Domain_A"));
    qxt::SchedInfo sched = qxt::sched_of(thread.tid());
    ASSERT_TRUE(sched.ok);
    EXPECT_EQ(2u, sched.policy);
    EXPECT_EQ(20u, sched.priority);
    EXPECT_EQ(cpuset_before, qxt::cgroup_of(thread.tid(), "cpuset"));
    if (get_nprocs() > 1) {
        EXPECT_EQ("/Domain_A", cpuset_before);
    }
    EXPECT_EQ("/Domain_A", qxt::cgroup_of(thread.tid(), "cpuacct"));
    EXPECT_TRUE(qxt::tasks_file_lists("/dev/cpuacct/Domain_A/tasks", thread.tid()));
    // Thread operations now find no domain.
    EXPECT_EQ(RT_ERR_NULL, QX_REALTIME_RemoveThread("Domain_A", thread.tid()));
    EXPECT_EQ(2u, qxt::sched_of(thread.tid()).policy);
}

TEST_F(DeleteDomainTest, DeletedDomainIsStillListedByName) {
    create_a();
    ASSERT_EQ((int32_t)RT_SUCCESS, QX_REALTIME_DeleteDomain("Domain_A"));
    char names[64];
    memset(names, 0xAA, sizeof(names));
    EXPECT_EQ(RT_SUCCESS, QX_REALTIME_GetAllDomainName(names, sizeof(names)));
    EXPECT_STREQ("Domain_A", names);
    EXPECT_EQ(1, pstTop->pstCentral->s32DomainNum);
    EXPECT_EQ(100, pstTop->pstCentral->s32UtilTotal);
}

TEST_F(DeleteDomainTest, DeletedDomainCanBeCreatedAgainWithoutCountingItTwice) {
    create_a();
    ASSERT_EQ((int32_t)RT_SUCCESS, QX_REALTIME_DeleteDomain("Domain_A"));
    log.clear();
    EXPECT_EQ(RT_SUCCESS, QX_REALTIME_CreateDomain("Domain_A")) << log.dump();
    EXPECT_FALSE(
        log.has_info("[RT_Impl][Info] [QX_REALTIME_CreateDomain]: Domain [Domain_A] is "
                     "already created, skipped.\n"));
    QXT_EXPECT_INFO(log, "[RT_Impl][Info] [Domain_A] existed in central data\n");
    EXPECT_TRUE(segment_exists("Domain_A"));
    EXPECT_EQ(1, pstTop->pstCentral->s32DomainNum);
    EXPECT_EQ(100, pstTop->pstCentral->s32UtilTotal);
    EXPECT_EQ((std::vector<std::string>{"Domain_A"}), mapped_names());
}

TEST_F(DeleteDomainTest, DeletingTheFirstOfThreeKeepsTheOtherTwoInOrder) {
    create_a();
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_CreateDomain("Domain_B"));
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_CreateDomain("Domain_C"));
    ASSERT_EQ(3u, pstTop->u32DomainMapNum);
    QX_REALTIME_DOMAIN_MAP_t b = pstTop->astDomainMap[1];
    QX_REALTIME_DOMAIN_MAP_t c = pstTop->astDomainMap[2];

    ASSERT_EQ((int32_t)RT_SUCCESS, QX_REALTIME_DeleteDomain("Domain_A"));
    ASSERT_EQ(2u, pstTop->u32DomainMapNum);
    EXPECT_STREQ("Domain_B", pstTop->astDomainMap[0].szDomainName);
    EXPECT_EQ(b.pvDomainAddr, pstTop->astDomainMap[0].pvDomainAddr);
    EXPECT_EQ(b.s32ShmFd, pstTop->astDomainMap[0].s32ShmFd);
    EXPECT_STREQ("Domain_C", pstTop->astDomainMap[1].szDomainName);
    EXPECT_EQ(c.pvDomainAddr, pstTop->astDomainMap[1].pvDomainAddr);
    EXPECT_EQ(c.s32ShmFd, pstTop->astDomainMap[1].s32ShmFd);
    // The two are still usable through the table.
    EXPECT_EQ(b.pvDomainAddr, _QX_REALTIME_GetDomainFromName("Domain_B", nullptr));
    EXPECT_EQ(c.pvDomainAddr, _QX_REALTIME_GetDomainFromName("Domain_C", nullptr));
    EXPECT_EQ(2u, pstTop->u32DomainMapNum);
    EXPECT_STREQ("Domain_C", ((QX_REALTIME_DOMAIN_t *)c.pvDomainAddr)->szName);
}

TEST_F(DeleteDomainTest, DeletionInADisabledFrameworkRemovesNothing) {
    init_with(qxt::config_with(0, 1024, 4, 80, 2, rr_domain("Domain_A", 100, "0")));
    qxt::write_file(RT_SHM_PREFIX "Domain_A", "");
    qxt::write_file(kFlockPath, "");
    log.clear();
    EXPECT_EQ((int32_t)RT_SUCCESS, QX_REALTIME_DeleteDomain("Domain_A"));
    EXPECT_TRUE(segment_exists("Domain_A"));
    EXPECT_TRUE(qxt::file_exists(kFlockPath));
    EXPECT_EQ(0, log.count_containing("[RT_Impl][Err]")) << log.dump();
}

}  // namespace
