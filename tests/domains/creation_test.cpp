// Domain creation: segment, central registration, control groups, the total budget, the CPU
// count, and the per-process mapping table.
#include <signal.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/sysinfo.h>
#include <sys/wait.h>

#include <algorithm>

#include <sstream>

#include "domains_support.h"

using namespace qxt;

namespace {

const char kSkipped[] =
    "[RT_Impl][Info] [QX_REALTIME_CreateDomain]: Domain [%s] is already "
    "created, skipped.\n";

std::string skipped(const std::string &domain) {
    return qxt::format(kSkipped, domain.c_str());
}

// The highest CPU number of this machine, as a cpuset text.
std::string last_cpu() {
    return std::to_string(get_nprocs() - 1);
}

// Exit code of a process that created a domain: 0 it created it, 1 it found it created, else 100
// plus the result code.
int create_and_tell(const std::string &domain) {
    qxt::LogCapture child_log;
    uint32_t ret = QX_REALTIME_CreateDomain(domain.c_str());
    if (ret != RT_SUCCESS) return 100 + (int)ret;
    return child_log.has_info(skipped(domain)) ? 1 : 0;
}

class CreateDomainTest : public DomainTest {};

TEST_F(CreateDomainTest, CreationBuildsCgroupDirectoriesWithTheirModes) {
    init_with(config_of({rr_domain("Domain_A", 100, last_cpu())}));
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_CreateDomain("Domain_A")) << log.dump();

    for (const char *root : {"/dev/cpuset/Domain_A", "/dev/cpuacct/Domain_A"}) {
        struct stat st;
        ASSERT_EQ(0, stat(root, &st)) << root;
        EXPECT_TRUE(S_ISDIR(st.st_mode)) << root;
        EXPECT_EQ(0770u, qxt::file_mode(root)) << root;
        EXPECT_EQ(0664u, qxt::file_mode(std::string(root) + "/tasks")) << root;
    }
    EXPECT_EQ(0664u, qxt::file_mode(cpuset_file("/dev/cpuset/Domain_A", "cpus")));
    EXPECT_EQ(0664u, qxt::file_mode(cpuset_file("/dev/cpuset/Domain_A", "mems")));
    EXPECT_TRUE(segment_exists("Domain_A"));
    QXT_EXPECT_INFO(log, "[RT_Impl][DBG] [QX_REALTIME_CreateDomain] exit, OK.\n");
}

TEST_F(CreateDomainTest, CreationWritesTheCpuListThatTheKernelReadsBack) {
    init_with(config_of({rr_domain("Domain_A", 100, last_cpu())}));
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_CreateDomain("Domain_A")) << log.dump();

    std::string cpus = cpuset_file("/dev/cpuset/Domain_A", "cpus");
    std::string mems = cpuset_file("/dev/cpuset/Domain_A", "mems");
    EXPECT_EQ(last_cpu(), first_line(cpus));
    EXPECT_EQ("0", first_line(mems));
    // The messages name the file that was written.
    QXT_EXPECT_INFO(
        log, qxt::format("[RT_Impl][Info] %s is set to %s.\n", cpus.c_str(), last_cpu().c_str()));
    QXT_EXPECT_INFO(log, qxt::format("[RT_Impl][Info] %s is set to 0.\n", mems.c_str()));
}

TEST_F(CreateDomainTest, HostWithPrefixedCpusetFilesGetsThePrefixedNames) {
    init_with(config_of({rr_domain("Domain_A", 100, last_cpu())}));
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_CreateDomain("Domain_A")) << log.dump();
    if (qxt::file_exists("/dev/cpuset/Domain_A/cpus"))
        GTEST_SKIP() << "this host mounts cpuset with plain file names";

    EXPECT_EQ(last_cpu(), first_line("/dev/cpuset/Domain_A/cpuset.cpus"));
    EXPECT_EQ("0", first_line("/dev/cpuset/Domain_A/cpuset.mems"));
    EXPECT_FALSE(qxt::file_exists("/dev/cpuset/Domain_A/mems"));
    QXT_EXPECT_INFO(log,
                    qxt::format("[RT_Impl][Info] /dev/cpuset/Domain_A/cpuset.cpus is set to %s.\n",
                                last_cpu().c_str()));
    QXT_EXPECT_INFO(log, "[RT_Impl][Info] /dev/cpuset/Domain_A/cpuset.mems is set to 0.\n");
}

TEST_F(CreateDomainTest, CreationReportsTheFivePathsOfTheDomain) {
    init_with(config_of({rr_domain("Domain_A", 100, "0")}));
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_CreateDomain("Domain_A")) << log.dump();

    QXT_EXPECT_INFO(log, "[RT_Impl][DBG] [QX_REALTIME_CreateDomain_Impl] enter: pid=" +
                             std::to_string(getpid()) + ", tid=" + std::to_string(getpid()) +
                             ";\n");
    EXPECT_TRUE(log.has_info("[RT_Impl][DBG] pszCpusetPathRoot is /dev/cpuset/Domain_A\n"));
    EXPECT_TRUE(log.has_info("[RT_Impl][DBG] pszCpusetPathTasks is /dev/cpuset/Domain_A/tasks\n"));
    EXPECT_TRUE(log.has_info("[RT_Impl][DBG] pszCpuacctPathRoot is /dev/cpuacct/Domain_A\n"));
    EXPECT_TRUE(
        log.has_info("[RT_Impl][DBG] pszCpuacctPathTasks is /dev/cpuacct/Domain_A/tasks\n"));
    EXPECT_TRUE(
        log.has_info("[RT_Impl][DBG] pszCpuacctPathStat is /dev/cpuacct/Domain_A/cpuacct.stat\n"));
    EXPECT_TRUE(log.has_info("[RT_Impl][DBG] [QX_REALTIME_CreateDomain_Impl] exit, OK.\n"));

    QX_REALTIME_DOMAIN_t *domain = qxt::map_domain_file("Domain_A");
    ASSERT_NE(nullptr, domain);
    EXPECT_STREQ("/dev/cpuacct/Domain_A/cpuacct.stat", domain->pszCpuacctPathStat);
    EXPECT_EQ(80, domain->processIDListNum);
    EXPECT_EQ(3, domain->s32MemHighPrioResource);
    EXPECT_EQ(3, domain->s32MemHighPrioAvailable);
}

TEST_F(CreateDomainTest, CreatingTwiceSucceedsAndSkipsTheSecond) {
    init_with(config_of({rr_domain("Domain_A", 100, "0")}));
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_CreateDomain("Domain_A")) << log.dump();
    EXPECT_FALSE(log.has_info(skipped("Domain_A")));

    EXPECT_EQ(RT_SUCCESS, QX_REALTIME_CreateDomain("Domain_A"));
    EXPECT_EQ(1, log.count(QX_LOG_PRIO_INFO, skipped("Domain_A"))) << log.dump();
    EXPECT_EQ(1u, pstTop->u32DomainMapNum);
    EXPECT_EQ(1, pstTop->pstCentral->s32DomainNum);
    EXPECT_EQ(100, pstTop->pstCentral->s32UtilTotal);
}

TEST_F(CreateDomainTest, CreationInASecondProcessIsSkipped) {
    init_with(config_of({rr_domain("Domain_A", 100, "0")}));
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_CreateDomain("Domain_A")) << log.dump();
    QX_REALTIME_DOMAIN_t *domain = qxt::map_domain_file("Domain_A");
    ASSERT_NE(nullptr, domain);
    domain->s32UtilCurrent = 7;  // a mark that a second initialisation would not keep

    EXPECT_EQ(1, run_in_fresh_process([] { return create_and_tell("Domain_A"); }));
    EXPECT_EQ(7, domain->s32UtilCurrent);
    EXPECT_EQ(1, domain->s32ClassNum);
    EXPECT_EQ(100, pstTop->pstCentral->s32UtilTotal);
}

TEST_F(CreateDomainTest, TwoProcessesCreatingAtOnceBothSucceedWithOneSegment) {
    init_with(config_of({rr_domain("Domain_A", 100, "0")}));
    int gate[2];
    ASSERT_EQ(0, pipe(gate));
    pid_t kids[2];
    for (pid_t &kid : kids) {
        fflush(nullptr);
        kid = fork();
        if (kid == 0) {
            pstTop = nullptr;  // a process of its own: attaches on its first call
            close(gate[1]);
            char byte;
            (void)!read(gate[0], &byte, 1);  // both start when the gate closes
            qxt::exit_child(create_and_tell("Domain_A"));
        }
    }
    close(gate[0]);
    close(gate[1]);
    std::vector<int> codes;
    for (pid_t kid : kids) {
        int status = 0;
        ASSERT_EQ(kid, waitpid(kid, &status, 0));
        ASSERT_TRUE(WIFEXITED(status));
        codes.push_back(WEXITSTATUS(status));
    }
    std::sort(codes.begin(), codes.end());
    EXPECT_EQ((std::vector<int>{0, 1}), codes) << "one creates, the other finds it created";

    EXPECT_TRUE(segment_exists("Domain_A"));
    QX_REALTIME_CENTRAL_t *central = qxt::map_central_file();
    ASSERT_NE(nullptr, central);
    EXPECT_EQ(1, central->s32DomainNum);
    EXPECT_EQ(100, central->s32UtilTotal);
    QX_REALTIME_DOMAIN_t *domain = qxt::map_domain_file("Domain_A");
    ASSERT_NE(nullptr, domain);
    EXPECT_EQ(1, domain->s32ClassNum);
    EXPECT_STREQ("Domain_A", domain->szName);
}

TEST_F(CreateDomainTest, DisabledFrameworkCreatesNothing) {
    init_with(qxt::config_with(0, 1024, 4, 80, 2, rr_domain("Domain_A", 100, "0")));
    log.clear();
    EXPECT_EQ(RT_SUCCESS, QX_REALTIME_CreateDomain("Domain_A"));
    EXPECT_FALSE(segment_exists("Domain_A"));
    EXPECT_FALSE(qxt::file_exists("/dev/cpuset/Domain_A"));
    EXPECT_FALSE(qxt::file_exists("/dev/cpuacct/Domain_A"));
    EXPECT_EQ(0, pstTop->pstCentral->s32DomainNum);
    EXPECT_EQ(0u, pstTop->u32DomainMapNum);
    EXPECT_EQ(0, log.count_containing("[RT_Impl][Err]")) << log.dump();
}

// 1024 x 4 x 80 / 100 = 3276 units for all domains together.
std::string budget_config() {
    return qxt::config_with(
        1, 1024, 4, 80, 4,
        join_domains({rr_domain("Domain_Big", 1276, "0"), rr_domain("Domain_Bigger", 2000, "0"),
                      rr_domain("Domain_One", 1, "0"), rr_domain("Domain_Other", 1, "0")}));
}

std::string overflow_message(int total, const std::string &domain) {
    return qxt::format(
        "[RT_Impl][Err] [QX_REALTIME_CreateDomain_Impl] The total utilization (%d) "
        "of all domains overflows, %s fails\n",
        total, domain.c_str());
}

const char kLimitMessage[] =
    "[RT_Impl][Err] [QX_REALTIME_CreateDomain_Impl] It shouldn't exceed (CapPerCore * "
    "BudgetCpuNums  * CapResrvation)=(1024 * 4 * 80%)\n";

TEST_F(CreateDomainTest, TotalEqualToTheBudgetPassesAndOneUnitMoreIsRefused) {
    init_with(budget_config());
    EXPECT_EQ(RT_SUCCESS, QX_REALTIME_CreateDomain("Domain_Big")) << log.dump();
    EXPECT_EQ(RT_SUCCESS, QX_REALTIME_CreateDomain("Domain_Bigger")) << log.dump();
    EXPECT_EQ(3276, pstTop->pstCentral->s32UtilTotal);

    EXPECT_EQ(RT_ERR_FAILED, QX_REALTIME_CreateDomain("Domain_One"));
    QXT_EXPECT_ERROR(log, overflow_message(3277, "Domain_One"));
    QXT_EXPECT_ERROR(log, kLimitMessage);
    EXPECT_FALSE(segment_exists("Domain_One"));
    // The refused domain's registration stays; the table is not touched.
    EXPECT_EQ(3277, pstTop->pstCentral->s32UtilTotal);
    EXPECT_EQ(3, pstTop->pstCentral->s32DomainNum);
    EXPECT_EQ((std::vector<std::string>{"Domain_Big", "Domain_Bigger"}), mapped_names());
    EXPECT_EQ(nullptr, _QX_REALTIME_GetDomainFromName("Domain_One", nullptr));
    // No exit message on this way out.
    EXPECT_EQ(2,
              log.count(QX_LOG_PRIO_INFO, "[RT_Impl][DBG] [QX_REALTIME_CreateDomain] exit, OK.\n"));
}

TEST_F(CreateDomainTest, RefusedDomainKeepsItsUnitsSoEveryLaterCreationIsRefused) {
    init_with(budget_config());
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_CreateDomain("Domain_Big"));
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_CreateDomain("Domain_Bigger"));
    ASSERT_EQ(RT_ERR_FAILED, QX_REALTIME_CreateDomain("Domain_One"));
    log.clear();

    EXPECT_EQ(RT_ERR_FAILED, QX_REALTIME_CreateDomain("Domain_Other"));
    QXT_EXPECT_ERROR(log, overflow_message(3278, "Domain_Other"));
    // A second attempt finds its name registered and does not count it again.
    EXPECT_EQ(RT_ERR_FAILED, QX_REALTIME_CreateDomain("Domain_One"));
    QXT_EXPECT_INFO(log, "[RT_Impl][Info] [Domain_One] existed in central data\n");
    QXT_EXPECT_ERROR(log, overflow_message(3278, "Domain_One"));
    EXPECT_EQ(3278, pstTop->pstCentral->s32UtilTotal);
    EXPECT_FALSE(segment_exists("Domain_Other"));
    EXPECT_FALSE(segment_exists("Domain_One"));
}

TEST_F(CreateDomainTest, RefusalStandsWhenItsMessagesAreNotPrinted) {
    // DbgLevel 0: not even errors reach the log.
    qxt::install_config("domains",
                        qxt::config_with(1, 1024, 0, 80, 4,
                                         join_domains({rr_domain("Domain_Big", 3276, "0"),
                                                       rr_domain("Domain_One", 1, "0")})));
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_Init(0));
    ASSERT_EQ(0u, _u32DbgLevel);
    EXPECT_EQ(RT_SUCCESS, QX_REALTIME_CreateDomain("Domain_Big"));
    EXPECT_EQ(RT_ERR_FAILED, QX_REALTIME_CreateDomain("Domain_One"));
    EXPECT_FALSE(segment_exists("Domain_One"));
    QXT_EXPECT_SILENT(log);
}

TEST_F(CreateDomainTest, CpusetWiderThanTheMachineIsRefused) {
    int cpus = get_nprocs();
    ASSERT_LT(2 * cpus, 32);
    std::string wide = qxt::format("0-%d", 2 * cpus - 1);  // 0-3 on a 2-CPU machine
    init_with(config_of({rr_domain("Domain_Wide", 100, wide)}));

    expect_creation_refused(
        "Domain_Wide", RT_ERR_FAILED,
        qxt::format("[RT_Impl][Err] [QX_REALTIME_CreateDomain_Impl] Domain [Domain_Wide] Cpuset = "
                    "[%s] CpuMask = [0x%x], CpuNum = [%d]\n",
                    wide.c_str(), (1u << (2 * cpus)) - 1, 2 * cpus));
    EXPECT_FALSE(qxt::file_exists("/dev/cpuset/Domain_Wide"));
    EXPECT_EQ(0u, pstTop->u32DomainMapNum);
}

TEST_F(CreateDomainTest, OnlyTheCpuCountIsCheckedNotWhetherTheCpusExist) {
    int cpus = get_nprocs();
    ASSERT_LT(3 * cpus + 2, 32);
    // As many CPUs as the machine has, all of them above its last one (6-7 on 2 CPUs).
    std::string far = qxt::format("%d-%d", 2 * cpus + 2, 3 * cpus + 1);
    init_with(config_of({rr_domain("Domain_Far", 100, far)}));

    EXPECT_EQ(RT_SUCCESS, QX_REALTIME_CreateDomain("Domain_Far")) << log.dump();
    // The kernel refuses the list when the write is flushed; the creation goes on.
    std::string cpus_file = cpuset_file("/dev/cpuset/Domain_Far", "cpus");
    EXPECT_EQ("", first_line(cpus_file));
    EXPECT_EQ(1, log.count_containing("[RT_Impl][Err] [_QX_WriteStrToPath] Can't close " +
                                      cpus_file + ", errno="))
        << log.dump();
    EXPECT_EQ(0, log.count_containing(cpus_file + " is set to")) << log.dump();
    EXPECT_TRUE(segment_exists("Domain_Far"));
}

TEST_F(CreateDomainTest, ZeroUtilRoundRobinDomainIsCreated) {
    init_with(config_of({rr_domain("Domain_Zero", 0, "0")}));
    EXPECT_EQ(RT_SUCCESS, QX_REALTIME_CreateDomain("Domain_Zero")) << log.dump();
    QXT_EXPECT_INFO(log,
                    "[RT_Impl][Info] [QX_REALTIME_CreateDomain_Impl] Domain_Zero Util is "
                    "0, so skip and 'cpu' cgroup setting\n");
    EXPECT_FALSE(log.has_info("[RT_Impl][DBG] [QX_REALTIME_CreateDomain_Impl] exit, OK.\n"));
    EXPECT_TRUE(segment_exists("Domain_Zero"));
    EXPECT_EQ((std::vector<std::string>{"Domain_Zero"}), mapped_names());
}

TEST_F(CreateDomainTest, ZeroUtilDeadlineDomainIsRefused) {
    init_with(config_of({dl_domain("Domain_Zero", 0, "0")}));
    expect_creation_refused("Domain_Zero", RT_ERR_FAILED,
                            "[RT_Impl][Err] [QX_REALTIME_CreateDomain_Impl] Domain_Zero should "
                            "be with SCHED_RR since its Util is 0\n");
    // What was built outside the segment stays.
    EXPECT_TRUE(qxt::file_exists("/dev/cpuset/Domain_Zero"));
    EXPECT_TRUE(qxt::file_exists("/dev/cpuacct/Domain_Zero"));
    EXPECT_EQ(0u, pstTop->u32DomainMapNum);
}

// Fills this process's table: domains first..created_last created here, the rest up to
// looked_up_last created by another process and then looked up here.
void fill_table(int created_last, int looked_up_last) {
    for (int i = 1; i <= created_last; i++)
        ASSERT_EQ(RT_SUCCESS, QX_REALTIME_CreateDomain(numbered_name(i).c_str())) << i;
    ASSERT_EQ(0, run_in_fresh_process([=] {
                  for (int i = created_last + 1; i <= looked_up_last; i++)
                      if (QX_REALTIME_CreateDomain(numbered_name(i).c_str()) != RT_SUCCESS)
                          return i;
                  return 0;
              }));
    for (int i = created_last + 1; i <= looked_up_last; i++)
        ASSERT_NE(nullptr, _QX_REALTIME_GetDomainFromName(numbered_name(i).c_str(), nullptr)) << i;
    ASSERT_EQ((uint32_t)looked_up_last, pstTop->u32DomainMapNum);
}

TEST_F(CreateDomainTest, WithSixMappedDomainsCreationSucceeds) {
    init_with(config_of(numbered_domains(1, 9)));
    fill_table(3, 6);
    EXPECT_EQ(RT_SUCCESS, QX_REALTIME_CreateDomain("Domain_7")) << log.dump();
    EXPECT_EQ(7u, pstTop->u32DomainMapNum);
    EXPECT_TRUE(segment_exists("Domain_7"));
    EXPECT_EQ(0, log.count_containing("Domain number"));
}

TEST_F(CreateDomainTest, WithSevenMappedDomainsCreationIsRefused) {
    init_with(config_of(numbered_domains(1, 9)));
    fill_table(4, 7);
    expect_creation_refused(
        "Domain_8", RT_ERR_FAILED,
        "[RT_Impl][Err] Domain number (8) in the process shouldn't more than 8\n");
}

TEST_F(CreateDomainTest, FailedEighthCreationKeepsItsSlotWithoutAnAddress) {
    init_with(config_of(numbered_domains(1, 9)));
    fill_table(7, 7);
    ASSERT_EQ(RT_ERR_FAILED, QX_REALTIME_CreateDomain("Domain_8"));

    ASSERT_EQ(8u, pstTop->u32DomainMapNum);
    const QX_REALTIME_DOMAIN_MAP_t &entry = pstTop->astDomainMap[7];
    EXPECT_STREQ("Domain_8", entry.szDomainName);
    EXPECT_EQ(nullptr, entry.pvDomainAddr);
    EXPECT_EQ(-1, entry.s32ShmFd);
    // The freed segment is never handed out: the lookup finds no mapping and no segment.
    log.clear();
    EXPECT_EQ(nullptr, _QX_REALTIME_GetDomainFromName("Domain_8", nullptr));
    QXT_EXPECT_SILENT(log);
    // Once another process has created it, this process's full table refuses it cleanly.
    ASSERT_EQ(0, run_in_fresh_process([] { return (int)QX_REALTIME_CreateDomain("Domain_8"); }));
    EXPECT_EQ(nullptr, _QX_REALTIME_GetDomainFromName("Domain_8", nullptr));
    QXT_EXPECT_ERROR(log,
                     "[RT_Impl][Err] [_QX_REALTIME_GetDomainFromName] Can't map domain "
                     "[Domain_8]: this process maps at most 8 domains.\n");
    EXPECT_EQ(8u, pstTop->u32DomainMapNum);
    for (uint32_t i = 0; i < 7; i++) EXPECT_TRUE(is_mapped(pstTop->astDomainMap[i].pvDomainAddr));
}

TEST_F(CreateDomainTest, MappingOfADomainCreatedAfterAFailedCreationIsFoundAgain) {
    init_with(config_of(numbered_domains(1, 9)));
    fill_table(7, 7);
    ASSERT_EQ(RT_ERR_FAILED, QX_REALTIME_CreateDomain("Domain_8"));
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_DeleteDomain("Domain_1"));  // makes room again
    ASSERT_EQ(0, run_in_fresh_process([] { return (int)QX_REALTIME_CreateDomain("Domain_8"); }));

    // The slot left without an address is passed over; the new mapping is found again.
    QX_REALTIME_DOMAIN_t *first = _QX_REALTIME_GetDomainFromName("Domain_8", nullptr);
    ASSERT_NE(nullptr, first) << log.dump();
    EXPECT_EQ(8u, pstTop->u32DomainMapNum);
    EXPECT_EQ(first, _QX_REALTIME_GetDomainFromName("Domain_8", nullptr));
    EXPECT_EQ(8u, pstTop->u32DomainMapNum);
    EXPECT_STREQ("Domain_8", first->szName);

    // Deleting it releases that mapping, not the empty slot.
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_DeleteDomain("Domain_8")) << log.dump();
    EXPECT_FALSE(is_mapped(first));
    EXPECT_FALSE(segment_exists("Domain_8"));
    EXPECT_EQ(7u, pstTop->u32DomainMapNum);
    for (uint32_t i = 0; i < pstTop->u32DomainMapNum; i++) {
        const QX_REALTIME_DOMAIN_MAP_t &entry = pstTop->astDomainMap[i];
        if (entry.pvDomainAddr != nullptr) {
            EXPECT_TRUE(is_mapped(entry.pvDomainAddr)) << i;
        }
        EXPECT_NE(first, entry.pvDomainAddr) << i;
    }
    EXPECT_EQ(nullptr, _QX_REALTIME_GetDomainFromName("Domain_8", nullptr));
}

TEST_F(CreateDomainTest, DomainThatExistsButCannotBeMappedIsSkippedUntouched) {
    init_with(config_of(numbered_domains(1, 9)));
    ASSERT_EQ(0, run_in_fresh_process([] {
                  for (int i = 5; i <= 9; i++)
                      if (QX_REALTIME_CreateDomain(numbered_name(i).c_str()) != RT_SUCCESS)
                          return i;
                  return 0;
              }));
    for (int i = 1; i <= 4; i++)
        ASSERT_EQ(RT_SUCCESS, QX_REALTIME_CreateDomain(numbered_name(i).c_str()));
    for (int i = 5; i <= 8; i++)
        ASSERT_NE(nullptr, _QX_REALTIME_GetDomainFromName(numbered_name(i).c_str(), nullptr));
    ASSERT_EQ(8u, pstTop->u32DomainMapNum);
    QX_REALTIME_DOMAIN_t *ninth = qxt::map_domain_file("Domain_9");
    ASSERT_NE(nullptr, ninth);
    ninth->s32UtilCurrent = 7;
    int32_t next_offset = ninth->s32NextOffset;
    log.clear();

    EXPECT_EQ(RT_SUCCESS, QX_REALTIME_CreateDomain("Domain_9"));
    QXT_EXPECT_INFO(log, skipped("Domain_9"));
    EXPECT_EQ(1, ninth->s32ClassNum);
    EXPECT_EQ(next_offset, ninth->s32NextOffset);
    EXPECT_EQ(7, ninth->s32UtilCurrent);
    EXPECT_STREQ("Domain_9", ninth->szName);
    EXPECT_EQ(8u, pstTop->u32DomainMapNum);
    EXPECT_EQ(9, pstTop->pstCentral->s32DomainNum);
    EXPECT_EQ(90, pstTop->pstCentral->s32UtilTotal);
}

TEST_F(CreateDomainTest, ExistingCgroupDirectoriesAreAccepted) {
    init_with(config_of({rr_domain("Domain_A", 100, last_cpu())}));
    ASSERT_EQ(0, mkdir("/dev/cpuset/Domain_A", 0700));
    ASSERT_EQ(0, mkdir("/dev/cpuacct/Domain_A", 0700));

    EXPECT_EQ(RT_SUCCESS, QX_REALTIME_CreateDomain("Domain_A")) << log.dump();
    QXT_EXPECT_INFO(log,
                    "[RT_Impl][Info] /dev/cpuacct/Domain_A already exists, mkdir failed "
                    "as expected.\n");
    QXT_EXPECT_INFO(log,
                    "[RT_Impl][Info] /dev/cpuset/Domain_A already exists, mkdir failed "
                    "as expected.\n");
    EXPECT_EQ(0770u, qxt::file_mode("/dev/cpuset/Domain_A"));
    EXPECT_EQ(0770u, qxt::file_mode("/dev/cpuacct/Domain_A"));
    EXPECT_EQ(last_cpu(), first_line(cpuset_file("/dev/cpuset/Domain_A", "cpus")));
}

// On a device with cpuacct (layout v1: pinned here by its property, so that the case holds where
// the sandbox's /dev/cpuacct is the only cpuacct mount there is, as in a VM guest).
TEST_F(CreateDomainTest, MissingCpuacctHierarchyFailsEveryCreationAtMkdir) {
    qxt::set_property(RT_PROP_CGROUP_LAYOUT, "v1");
    init_with(config_of({rr_domain("Domain_A", 100, "0"), rr_domain("Domain_B", 100, "0")}));
    // The sandbox's own mount and mount point; the host's are untouched.
    ASSERT_EQ(0, umount2("/dev/cpuacct", MNT_DETACH)) << errno_text(errno);
    ASSERT_EQ(0, rmdir("/dev/cpuacct")) << errno_text(errno);

    for (const char *name : {"Domain_A", "Domain_B"}) {
        EXPECT_EQ(RT_ERR_FAILED, QX_REALTIME_CreateDomain(name)) << name;
        QXT_EXPECT_ERROR(log, qxt::format("[RT_Impl][Err] Can't mkdir /dev/cpuacct/%s, "
                                          "errno=%s.\n",
                                          name, errno_text(ENOENT).c_str()));
        EXPECT_FALSE(segment_exists(name)) << name;
        EXPECT_FALSE(qxt::file_exists(std::string("/dev/cpuset/") + name)) << name;
    }
    EXPECT_EQ(0u, pstTop->u32DomainMapNum);
}

// With no cpuacct hierarchy mounted anywhere and no layout set, the library is on Android's
// layout: the same creations succeed, with the cpuset group only.
TEST_F(CreateDomainTest, NoCpuacctHierarchyAnywhereIsAndroidsLayoutAndCreationWorks) {
    init_with(config_of({rr_domain("Domain_A", 100, "0"), rr_domain("Domain_B", 100, "0")}));
    // Every cpuacct mount of the sandbox's own mount namespace; the host's are untouched.
    std::istringstream mounts(qxt::read_file("/proc/self/mounts"));
    std::string line;
    std::vector<std::string> points;
    while (std::getline(mounts, line)) {
        std::istringstream fields(line);
        std::string source, target, type, options;
        fields >> source >> target >> type >> options;
        if (type == "cgroup" && ("," + options + ",").find(",cpuacct,") != std::string::npos)
            points.push_back(target);
    }
    for (const std::string &point : points)
        ASSERT_EQ(0, umount2(point.c_str(), MNT_DETACH)) << point << " " << errno_text(errno);

    for (const char *name : {"Domain_A", "Domain_B"}) {
        EXPECT_EQ(RT_SUCCESS, QX_REALTIME_CreateDomain(name)) << name << log.dump();
        EXPECT_TRUE(qxt::file_exists(std::string("/dev/cpuset/") + name)) << name;
    }
    EXPECT_EQ(QX_CGROUP_ANDROID, qx_cgroup_layout());
    EXPECT_EQ(0, log.count_containing("cpuacct")) << log.dump();
}

// A process whose file-size limit is below a segment cannot size a new one: the creation fails,
// the file is removed, and with the limit lifted the same process creates the domain.
TEST_F(CreateDomainTest, SegmentThatCannotBeSizedFailsTheCreationAndIsRemoved) {
    init_with(config_of({rr_domain("Domain_A", 100, "0")}));
    int status = qxt::run_in_child([] {
        qxt::LogCapture child_log;
        signal(SIGXFSZ, SIG_IGN);  // the limit answers EFBIG instead of killing the process
        struct rlimit saved, small;
        if (getrlimit(RLIMIT_FSIZE, &saved) != 0) return 1;
        small = {4096, saved.rlim_max};
        if (setrlimit(RLIMIT_FSIZE, &small) != 0) return 2;
        uint32_t rc = QX_REALTIME_CreateDomain("Domain_A");
        setrlimit(RLIMIT_FSIZE, &saved);
        if (rc != RT_ERR_FAILED) return 3;
        if (!child_log.has_error("[RT_Impl][Err] [_QX_REALTIME_SharedMemoryAlloc] ftruncate "
                                 "fails, errno=" +
                                 errno_text(EFBIG) + "\n"))
            return 4;
        if (segment_exists("Domain_A")) return 5;
        return QX_REALTIME_CreateDomain("Domain_A") == RT_SUCCESS ? 0 : 6;
    });
    EXPECT_EQ(0, status);
    EXPECT_TRUE(segment_exists("Domain_A"));
}

TEST_F(CreateDomainTest, UnknownDomainFailsAtTheParseAndLeavesNoSegment) {
    init_with(config_of({rr_domain("Domain_A", 100, "0")}));
    expect_creation_refused(
        "Domain_Nope", RT_ERR_INVALID_PARAM,
        "[RT_Impl][Err] Failed to parse Json at [/vendor/etc/realtime/rt-domains.json].\n");
    EXPECT_FALSE(qxt::file_exists("/dev/cpuset/Domain_Nope"));
    EXPECT_EQ(0u, pstTop->u32DomainMapNum);
}

}  // namespace
