// Scheduling attributes applied to real threads, writes into control-group files, and the
// override of a domain's CPU list by property.
#include <string.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysinfo.h>

#include <thread>

#include "domains_support.h"

using namespace qxt;

namespace {

const char kOverride[] = "vendor.kpo.realtime.debug.overwrite_cpuset";

// A domain and a class record of our own, as admission would hand them over.
struct Records {
    QX_REALTIME_DOMAIN_t domain;
    QX_REALTIME_CLASS_t cls;
    explicit Records(uint32_t sched_type, int32_t priority = 0) {
        memset(&domain, 0, sizeof(domain));
        memset(&cls, 0, sizeof(cls));
        domain.u32SchedType = sched_type;
        cls.s32RtPriority = priority;
    }
};

std::string invalid_priority(int priority) {
    return qxt::format(
        "[RT_Impl][Err] [_QX_REALTIME_SetSchedAttr]: Rt priority = [%d] is invalid. "
        "It should between 1 to 99.\n",
        priority);
}

class SchedAttrTest : public DomainTest {};

TEST_F(SchedAttrTest, RoundRobinPrioritiesOneAndNinetyNineAreApplied) {
    qxt::TestThread thread;  // sleeps
    for (int priority : {1, 99}) {
        Records records(RT_SCHED_TYPE_RR, priority);
        EXPECT_EQ(RT_SUCCESS, _QX_REALTIME_SetSchedAttr(&records.domain, &records.cls, nullptr,
                                                        thread.tid(), 0))
            << log.dump();
        qxt::SchedInfo sched = qxt::sched_of(thread.tid());
        ASSERT_TRUE(sched.ok);
        EXPECT_EQ(2u, sched.policy) << priority;
        EXPECT_EQ((uint32_t)priority, sched.priority);
        EXPECT_EQ(0u, sched.flags);
    }
    EXPECT_EQ(0, log.count_containing("[RT_Impl][Err]")) << log.dump();
}

TEST_F(SchedAttrTest, RoundRobinPrioritiesZeroAndHundredAreRefusedWithoutASystemCall) {
    // A thread id that does not exist: a system call would fail and say so.
    pid_t gone = dead_pid();
    qxt::TestThread thread;
    for (int priority : {0, 100, -1}) {
        Records records(RT_SCHED_TYPE_RR, priority);
        EXPECT_EQ(RT_ERR_INVALID_PARAM,
                  _QX_REALTIME_SetSchedAttr(&records.domain, &records.cls, nullptr, gone, 0));
        QXT_EXPECT_ERROR(log, invalid_priority(priority));
        EXPECT_EQ(RT_ERR_INVALID_PARAM, _QX_REALTIME_SetSchedAttr(&records.domain, &records.cls,
                                                                  nullptr, thread.tid(), 0));
    }
    EXPECT_EQ(0, log.count_containing("_QX_REALTMIE_SchedSetAttr")) << log.dump();
    EXPECT_EQ(0u, qxt::sched_of(thread.tid()).policy);
}

TEST_F(SchedAttrTest, DeadlineWithoutOverrunNotificationSetsReclaim) {
    qxt::TestThread thread;  // sleeps; it exits while still DEADLINE, which frees its bandwidth
    Records records(RT_SCHED_TYPE_DEADLINE);
    QX_REALTIME_UTIL_t util = {0, 10000, 1000, 100000};
    ASSERT_EQ(RT_SUCCESS,
              _QX_REALTIME_SetSchedAttr(&records.domain, &records.cls, &util, thread.tid(), 0))
        << log.dump();
    qxt::SchedInfo sched = qxt::sched_of(thread.tid());
    ASSERT_TRUE(sched.ok);
    EXPECT_EQ(6u, sched.policy);
    EXPECT_EQ(0x02u, sched.flags);
    EXPECT_EQ(1000000u, sched.runtime);
    EXPECT_EQ(10000000u, sched.deadline);
    EXPECT_EQ(100000000u, sched.period);
    EXPECT_EQ(0u, sched.priority);
}

TEST_F(SchedAttrTest, DeadlineWithOverrunNotificationAddsTheOverrunFlag) {
    qxt::TestThread thread;
    Records records(RT_SCHED_TYPE_DEADLINE);
    QX_REALTIME_UTIL_t util = {0, 20000, 2000, 50000};
    ASSERT_EQ(RT_SUCCESS,
              _QX_REALTIME_SetSchedAttr(&records.domain, &records.cls, &util, thread.tid(), 1))
        << log.dump();
    qxt::SchedInfo sched = qxt::sched_of(thread.tid());
    ASSERT_TRUE(sched.ok);
    EXPECT_EQ(6u, sched.policy);
    EXPECT_EQ(0x06u, sched.flags);
    EXPECT_EQ(2000000u, sched.runtime);
    EXPECT_EQ(20000000u, sched.deadline);
    EXPECT_EQ(50000000u, sched.period);
}

TEST_F(SchedAttrTest, RuntimeAbove2147483UsWrapsAndTheKernelRefusesIt) {
    qxt::TestThread thread;
    Records records(RT_SCHED_TYPE_DEADLINE);
    QX_REALTIME_UTIL_t util = {0, 3000000, 3000000, 3000000};
    EXPECT_EQ(RT_ERR_SCHED_SETATTR,
              _QX_REALTIME_SetSchedAttr(&records.domain, &records.cls, &util, thread.tid(), 0));
    // 3000000 x 1000 taken as a signed 32-bit number, then sign-extended.
    uint64_t wrapped = (uint64_t)(int64_t)(int32_t)(uint32_t)3000000000u;
    EXPECT_EQ(18446744072414584320ull, wrapped);
    QXT_EXPECT_ERROR(
        log,
        qxt::format(
            "[RT_Impl][Err] [_QX_REALTIME_SetSchedAttr] _QX_REALTMIE_SchedSetAttr failed to set "
            "the "
            "sched for pid=%d, policy=6, priority=0, runtime=%llu, deadline=%llu, period=%llu, "
            "errno=%s\n",
            (int)thread.tid(), (unsigned long long)wrapped, (unsigned long long)wrapped,
            (unsigned long long)wrapped, errno_text(EINVAL).c_str()));
    EXPECT_EQ(0u, qxt::sched_of(thread.tid()).policy) << "the former attributes stay";
}

TEST_F(SchedAttrTest, InvalidSchedTypePutsTheThreadBackToNormalScheduling) {
    qxt::TestThread thread;
    Records rr(RT_SCHED_TYPE_RR, 10);
    ASSERT_EQ(RT_SUCCESS, _QX_REALTIME_SetSchedAttr(&rr.domain, &rr.cls, nullptr, thread.tid(), 0));
    ASSERT_EQ(2u, qxt::sched_of(thread.tid()).policy);

    for (uint32_t type : {0u, 3u}) {
        Records records(type, 10);
        EXPECT_EQ(RT_SUCCESS, _QX_REALTIME_SetSchedAttr(&records.domain, &records.cls, nullptr,
                                                        thread.tid(), 0));
        qxt::SchedInfo sched = qxt::sched_of(thread.tid());
        EXPECT_EQ(0u, sched.policy) << type;
        EXPECT_EQ(0, sched.nice);
        EXPECT_EQ(0u, sched.priority);
    }
    EXPECT_EQ(2, log.count(QX_LOG_PRIO_ERROR,
                           "[RT_Impl][Err] [_QX_REALTIME_SetSchedAttr] invalid "
                           "scheduler type. It should be RR or Deadline.\n"))
        << log.dump();
}

TEST_F(SchedAttrTest, ThreadIdZeroMeansTheCallingThread) {
    Records records(RT_SCHED_TYPE_RR, 5);
    uint32_t ret = 0xFF;
    qxt::SchedInfo sched{};
    std::thread worker([&] {
        ret = _QX_REALTIME_SetSchedAttr(&records.domain, &records.cls, nullptr, 0, 0);
        sched = qxt::sched_of((pid_t)syscall(SYS_gettid));
    });
    worker.join();
    EXPECT_EQ(RT_SUCCESS, ret);
    EXPECT_EQ(2u, sched.policy);
    EXPECT_EQ(5u, sched.priority);
    EXPECT_EQ(0u, qxt::sched_of(getpid()).policy) << "not the test's main thread";
}

// ---- writes into control files ----

class ControlFileTest : public DomainTest {};

TEST_F(ControlFileTest, StringIsWrittenWithoutLineEndOrTerminator) {
    EXPECT_EQ(RT_SUCCESS, _QX_WriteStrToPath("0-1", "/dev/shm/probe"));
    EXPECT_EQ("0-1", qxt::read_file("/dev/shm/probe"));
    EXPECT_EQ(RT_SUCCESS, _QX_WriteStrToPath("7", "/dev/shm/probe"));
    EXPECT_EQ("7", qxt::read_file("/dev/shm/probe")) << "the file is truncated first";
}

TEST_F(ControlFileTest, NumberIsWrittenInDecimal) {
    EXPECT_EQ(RT_SUCCESS, _QX_WriteS32ToPath(-42, "/dev/shm/probe"));
    EXPECT_EQ("-42", qxt::read_file("/dev/shm/probe"));
    EXPECT_EQ(RT_SUCCESS, _QX_WriteS32ToPath(2147483647, "/dev/shm/probe"));
    EXPECT_EQ("2147483647", qxt::read_file("/dev/shm/probe"));
}

TEST_F(ControlFileTest, FileThatCannotBeOpenedIsReported) {
    EXPECT_EQ(RT_ERR_SYSTEM, _QX_WriteStrToPath("1", "/dev/shm/missing/probe"));
    QXT_EXPECT_ERROR(log, qxt::format("[RT_Impl][Err] [_QX_WriteStrToPath] Can't open "
                                      "/dev/shm/missing/probe, errno=%s\n",
                                      errno_text(ENOENT).c_str()));
    EXPECT_EQ(RT_ERR_SYSTEM, _QX_WriteS32ToPath(1, "/dev/shm/missing/probe"));
}

TEST_F(ControlFileTest, LiveThreadIdMovesTheThreadIntoTheGroup) {
    ASSERT_EQ(0, mkdir("/dev/cpuacct/Probe", 0770));
    qxt::TestThread thread;
    EXPECT_EQ(RT_SUCCESS, _QX_WriteS32ToPath(thread.tid(), "/dev/cpuacct/Probe/tasks"))
        << log.dump();
    EXPECT_EQ("/Probe", qxt::cgroup_of(thread.tid(), "cpuacct"));
    EXPECT_TRUE(qxt::tasks_file_lists("/dev/cpuacct/Probe/tasks", thread.tid()));
    EXPECT_EQ(RT_SUCCESS, _QX_WriteS32ToPath(thread.tid(), "/dev/cpuacct/tasks"));
    EXPECT_EQ("/", qxt::cgroup_of(thread.tid(), "cpuacct"));
}

TEST_F(ControlFileTest, DeadThreadIdIsRefusedWhenTheFileIsClosed) {
    pid_t gone = dead_pid();
    for (const char *tasks : {"/dev/cpuset/tasks", "/dev/cpuacct/tasks"}) {
        EXPECT_EQ(RT_ERR_SYSTEM, _QX_WriteS32ToPath(gone, tasks));
        QXT_EXPECT_ERROR(log, qxt::format("[RT_Impl][Err] [_QX_WriteStrToPath] Can't close "
                                          "%s, errno=%s.\n",
                                          tasks, errno_text(ESRCH).c_str()));
    }
}

// ---- the CPU-list override ----

class OverrideTest : public DomainTest {
protected:
    // A domain on every CPU of the machine, with a budget.
    void create_domain() {
        all_cpus = qxt::format("0-%d", get_nprocs() - 1);
        if (get_nprocs() == 1) all_cpus = "0";
        init_with(config_of({rr_domain("Domain_A", 100, all_cpus, {{"Class_Rr", 10, 10}})}));
        ASSERT_EQ(RT_SUCCESS, QX_REALTIME_CreateDomain("Domain_A")) << log.dump();
        domain = _QX_REALTIME_GetDomainFromName("Domain_A", nullptr);
        ASSERT_NE(nullptr, domain);
        cpus_file = cpuset_file("/dev/cpuset/Domain_A", "cpus");
        ASSERT_EQ(all_cpus, first_line(cpus_file));
        log.clear();
    }
    std::string all_cpus;
    std::string cpus_file;
    QX_REALTIME_DOMAIN_t *domain = nullptr;
};

TEST_F(OverrideTest, UnsetPropertyLeavesTheDomain) {
    create_domain();
    qxt::clear_property(kOverride);
    _QX_REALTIME_Overwrite_Cpuset(domain);
    EXPECT_EQ(all_cpus, domain->pszCpuset);
    EXPECT_EQ(get_nprocs(), domain->s32CpuNum);
    EXPECT_EQ(all_cpus, first_line(cpus_file));
    QXT_EXPECT_SILENT(log);
}

TEST_F(OverrideTest, ValueBeginningWithZeroLeavesTheDomain) {
    create_domain();
    for (const char *value : {"0", "0-1", "01"}) {
        qxt::set_property(kOverride, value);
        _QX_REALTIME_Overwrite_Cpuset(domain);
        EXPECT_EQ(all_cpus, domain->pszCpuset) << value;
        EXPECT_EQ(all_cpus, first_line(cpus_file)) << value;
    }
    QXT_EXPECT_SILENT(log);
}

TEST_F(OverrideTest, DirectCallWritesTheNewListForTheKernel) {
    create_domain();
    if (get_nprocs() < 2) GTEST_SKIP() << "needs a CPU other than 0";
    std::string last = std::to_string(get_nprocs() - 1);
    qxt::set_property(kOverride, last);
    _QX_REALTIME_Overwrite_Cpuset(domain);
    EXPECT_EQ(last, first_line(cpus_file));
    EXPECT_EQ(last, domain->pszCpuset);
    EXPECT_EQ(1, domain->s32CpuNum);
    EXPECT_EQ(1u << (get_nprocs() - 1), domain->u32CpuMask);
    QXT_EXPECT_INFO(
        log, qxt::format("[RT_Impl][Info] %s is reset to %s.\n", cpus_file.c_str(), last.c_str()));
    // The record is shared: every process sees the new list.
    EXPECT_EQ(last, qxt::map_domain_file("Domain_A")->pszCpuset);
}

TEST_F(OverrideTest, NextAdmissionAppliesAChangedProperty) {
    create_domain();
    if (get_nprocs() < 2) GTEST_SKIP() << "needs a CPU other than 0";
    qxt::TestThread first, second;  // sleep: harmless under SCHED_RR
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_AddThread("Domain_A", "Class_Rr", first.tid(), 0))
        << log.dump();
    EXPECT_EQ(all_cpus, first_line(cpus_file));

    std::string last = std::to_string(get_nprocs() - 1);
    qxt::set_property(kOverride, last);
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_AddThread("Domain_A", "Class_Rr", second.tid(), 0))
        << log.dump();
    EXPECT_EQ(last, first_line(cpus_file));
    QXT_EXPECT_INFO(
        log, qxt::format("[RT_Impl][Info] %s is reset to %s.\n", cpus_file.c_str(), last.c_str()));
    // Narrower than the machine now: the admitted thread is moved into the domain's cpuset.
    EXPECT_EQ("/Domain_A", qxt::cgroup_of(second.tid(), "cpuset"));
    EXPECT_TRUE(qxt::tasks_file_lists("/dev/cpuset/Domain_A/tasks", second.tid()));
}

TEST_F(OverrideTest, ListTheKernelRefusesStillChangesAndReparsesTheDomain) {
    create_domain();
    int cpus = get_nprocs();
    ASSERT_LT(2 * cpus + 4, 32);
    // Above the machine's last CPU (4-7 on 2 CPUs).
    std::string far = qxt::format("%d-%d", cpus + 2, 2 * cpus + 3);
    qxt::set_property(kOverride, far);
    _QX_REALTIME_Overwrite_Cpuset(domain);

    EXPECT_EQ(far, domain->pszCpuset);
    EXPECT_EQ(cpus + 2, domain->s32CpuNum);
    EXPECT_EQ(((1u << (cpus + 2)) - 1) << (cpus + 2), domain->u32CpuMask);
    EXPECT_EQ(all_cpus, first_line(cpus_file)) << "the kernel kept its list";
    EXPECT_EQ(1, log.count_containing("[RT_Impl][Err] [_QX_WriteStrToPath] Can't close " +
                                      cpus_file + ", errno="))
        << log.dump();
    EXPECT_EQ(0, log.count_containing("is reset to")) << log.dump();
}

// ---- cpuset file names: Android's plain ones and this host's prefixed ones ----

class CpusetNamesTest : public DomainTest {
protected:
    void SetUpInSandbox() override { ASSERT_EQ(0, mkdir(kDir, 0755)); }
    // A domain record whose cpuset directory is a stand-in tree of our own.
    QX_REALTIME_DOMAIN_t standin_domain() {
        QX_REALTIME_DOMAIN_t domain;
        memset(&domain, 0, sizeof(domain));
        strcpy(domain.pszCpusetPathRoot, kDir);
        strcpy(domain.pszCpuset, "0");
        return domain;
    }
    static constexpr const char *kDir = "/dev/shm/standin";
};

TEST_F(CpusetNamesTest, PlainNameIsUsedWhereItExists) {
    qxt::write_file("/dev/shm/standin/cpus", "0");
    char path[RT_PATH_LEN];
    ASSERT_EQ(0, qx_cpuset_file_path(path, sizeof(path), kDir, "cpus"));
    EXPECT_STREQ("/dev/shm/standin/cpus", path);
    // Plain wins over prefixed when a tree has both.
    qxt::write_file("/dev/shm/standin/cpuset.cpus", "0");
    ASSERT_EQ(0, qx_cpuset_file_path(path, sizeof(path), kDir, "cpus"));
    EXPECT_STREQ("/dev/shm/standin/cpus", path);
}

TEST_F(CpusetNamesTest, PrefixedNameIsUsedWhenThePlainOneIsAbsent) {
    qxt::write_file("/dev/shm/standin/cpuset.mems", "0");
    char path[RT_PATH_LEN];
    ASSERT_EQ(0, qx_cpuset_file_path(path, sizeof(path), kDir, "mems"));
    EXPECT_STREQ("/dev/shm/standin/cpuset.mems", path);
}

TEST_F(CpusetNamesTest, NeitherNameGivesThePlainOne) {
    char path[RT_PATH_LEN];
    ASSERT_EQ(0, qx_cpuset_file_path(path, sizeof(path), kDir, "cpus"));
    EXPECT_STREQ("/dev/shm/standin/cpus", path);
}

TEST_F(CpusetNamesTest, PathThatDoesNotFitIsAFailure) {
    char path[16];  // "/dev/shm/standin/cpus" needs 22
    EXPECT_EQ(-1, qx_cpuset_file_path(path, sizeof(path), kDir, "cpus"));
}

TEST_F(CpusetNamesTest, SandboxHierarchyUsesThePrefixedNames) {
    if (qxt::file_exists("/dev/cpuset/cpus")) GTEST_SKIP() << "this host mounts plain names";
    char path[RT_PATH_LEN];
    ASSERT_EQ(0, qx_cpuset_file_path(path, sizeof(path), "/dev/cpuset", "cpus"));
    EXPECT_STREQ("/dev/cpuset/cpuset.cpus", path);
    ASSERT_EQ(0, qx_cpuset_file_path(path, sizeof(path), "/dev/cpuset", "mems"));
    EXPECT_STREQ("/dev/cpuset/cpuset.mems", path);
}

TEST_F(CpusetNamesTest, OverrideWritesAndReportsThePlainFileOfAnAndroidTree) {
    qxt::write_file("/dev/shm/standin/cpus", "0");
    QX_REALTIME_DOMAIN_t domain = standin_domain();
    init_with(qxt::config_with(1, 1024, 4, 80, 2, ""));
    qxt::set_property(kOverride, "4-7");
    _QX_REALTIME_Overwrite_Cpuset(&domain);
    EXPECT_EQ("4-7", qxt::read_file("/dev/shm/standin/cpus"));
    EXPECT_FALSE(qxt::file_exists("/dev/shm/standin/cpuset.cpus"));
    EXPECT_STREQ("4-7", domain.pszCpuset);
    EXPECT_EQ(4, domain.s32CpuNum);
    EXPECT_EQ(0xF0u, domain.u32CpuMask);
    QXT_EXPECT_INFO(log, "[RT_Impl][Info] /dev/shm/standin/cpus is reset to 4-7.\n");
}

TEST_F(CpusetNamesTest, OverrideWritesAndReportsThePrefixedFileOfAHostTree) {
    qxt::write_file("/dev/shm/standin/cpuset.cpus", "0");
    QX_REALTIME_DOMAIN_t domain = standin_domain();
    init_with(qxt::config_with(1, 1024, 4, 80, 2, ""));
    qxt::set_property(kOverride, "1");
    _QX_REALTIME_Overwrite_Cpuset(&domain);
    EXPECT_EQ("1", qxt::read_file("/dev/shm/standin/cpuset.cpus"));
    EXPECT_FALSE(qxt::file_exists("/dev/shm/standin/cpus"));
    QXT_EXPECT_INFO(log, "[RT_Impl][Info] /dev/shm/standin/cpuset.cpus is reset to 1.\n");
}

TEST_F(CpusetNamesTest, OverrideKeepsAtMostFifteenCharacters) {
    qxt::write_file("/dev/shm/standin/cpus", "0");
    QX_REALTIME_DOMAIN_t domain = standin_domain();
    init_with(qxt::config_with(1, 1024, 4, 80, 2, ""));
    qxt::set_property(kOverride, "1,2,3,4,5,6,7,8,9");
    _QX_REALTIME_Overwrite_Cpuset(&domain);
    EXPECT_STREQ("1,2,3,4,5,6,7,8", domain.pszCpuset);
    EXPECT_EQ("1,2,3,4,5,6,7,8", qxt::read_file("/dev/shm/standin/cpus"));
    EXPECT_EQ(8, domain.s32CpuNum);
    EXPECT_EQ(0x1FEu, domain.u32CpuMask);
}

}  // namespace
