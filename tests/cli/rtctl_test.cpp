// rtctl as an operator uses it: one process per command, on the shared state of the sandbox,
// checked by exit status, by what it printed, and by what the kernel then says about a thread.
#include <sched.h>
#include <sys/resource.h>
#include <sys/sysinfo.h>
#include <unistd.h>

#include "cli_support.h"
#include "test_support.h"

using qxt::contains;
using qxt::Result;
using qxt::rtctl;

namespace {

const char *const kAllCommands[] = {
    "init", "deinit",     "debug-level", "self-test",     "create", "delete", "list",
    "add",  "add-lite",   "remove",      "update",        "budget", "dmips",  "usage",
    "dump", "mem-enable", "mem-disable", "mem-available", "check",  "top",    "lint"};

int count_of(const std::string &text, const std::string &part) {
    int n = 0;
    for (size_t pos = text.find(part); pos != std::string::npos; pos = text.find(part, pos + 1))
        n++;
    return n;
}

// Both domains of the shipped configuration exist; Domain_Audio sits on CPU 1.
class RtctlWithDomains : public ::testing::Test {
protected:
    void SetUp() override {
        QXT_REQUIRE_SANDBOX();
        if (get_nprocs() < 2) GTEST_SKIP() << "the shipped configuration needs 2 CPUs";
        qxt::start_shipped_domains();
    }
};

}  // namespace

TEST(RtctlUsage, HelpListsEveryCommandAndExitsZero) {
    Result r = rtctl({"--help"});
    EXPECT_EQ(r.status, 0);
    for (const char *c : kAllCommands) EXPECT_TRUE(contains(r.out, std::string("\n  ") + c)) << c;
    EXPECT_TRUE(contains(r.out, "-v")) << r.out;
}

TEST(RtctlUsage, EveryCommandHasItsOwnHelp) {
    for (const char *c : kAllCommands) {
        Result r = rtctl({c, "--help"});
        EXPECT_EQ(r.status, 0) << c;
        const std::string head = std::string("usage: rtctl [-v] ") + c;
        EXPECT_EQ(r.out.rfind(head, 0), 0u) << r.out;
        ASSERT_GT(r.out.size(), head.size());
        EXPECT_TRUE(r.out[head.size()] == ' ' || r.out[head.size()] == '\n') << r.out;
    }
}

TEST(RtctlUsage, MissingArgumentPrintsUsageAndExitsTwo) {
    Result r = rtctl({"add", "Domain_Audio", "Class_Render"});
    EXPECT_EQ(r.status, 2);
    EXPECT_TRUE(contains(r.err, "rtctl: add: missing argument")) << r.err;
    EXPECT_TRUE(contains(r.err, "usage: rtctl [-v] add DOMAIN CLASS TID [--overrun]")) << r.err;
    EXPECT_EQ(r.out, "");
}

TEST(RtctlUsage, NonNumericOrOutOfRangeArgumentsExitTwo) {
    const std::vector<std::vector<std::string>> bad = {
        {"remove", "Domain_Audio", "abc"},
        {"remove", "Domain_Audio", "12x"},
        {"add", "Domain_Audio", "Class_Render", "2147483648"},
        {"add-lite", "D", "C", "1", "0", "0", "0", "-2147483649"},
        {"update", "D", "1", "1", "2", "3", ""},
        {"budget", "D", "1.5", "0", "0", "0"},
        {"dmips", "-1"},
        {"dmips", "4294967296"},
        {"usage", "All", "100", "-1"},
        {"init", "4294967296"},
        {"debug-level", "sixty-four"},
        {"mem-available", "0x10"},
    };
    for (const auto &args : bad) {
        Result r = rtctl(args);
        EXPECT_EQ(r.status, 2) << args[0] << " " << args.back();
        EXPECT_TRUE(contains(r.err, "usage: rtctl [-v] " + args[0])) << r.err;
    }
}

TEST(RtctlUsage, UnknownCommandOptionOrExtraArgumentExitsTwo) {
    EXPECT_EQ(rtctl({"frobnicate"}).status, 2);
    EXPECT_EQ(rtctl({}).status, 2);
    EXPECT_EQ(rtctl({"list", "--fast"}).status, 2);
    EXPECT_EQ(rtctl({"remove", "Domain_Audio", "--overrun", "1"}).status, 2);
    Result r = rtctl({"deinit", "now"});
    EXPECT_EQ(r.status, 2);
    EXPECT_TRUE(contains(r.err, "too many arguments, from 'now' on")) << r.err;
}

TEST(RtctlUsage, BadArgumentsNeverReachTheLibrary) {
    QXT_REQUIRE_SANDBOX();
    qxt::install_shipped_config();
    // create would initialise the shared state; with a bad MODE nothing may happen at all.
    EXPECT_EQ(rtctl({"create", "Domain_Audio", "one"}).status, 2);
    EXPECT_EQ(rtctl({"init", "-1"}).status, 2);
    EXPECT_FALSE(qxt::file_exists("/dev/shm/realtime/rt_Global"));
    EXPECT_FALSE(qxt::file_exists("/data/vendor/realtime/flock_rt_Global"));
}

using Rtctl = qxt::SandboxTest;

TEST_F(Rtctl, OperationBeforeInitExitsWithResultCodeAndNamesIt) {
    Result r = rtctl({"list"});
    EXPECT_EQ(r.status, 10);
    EXPECT_TRUE(contains(r.err, "[RT_Impl][Err] Did you forget to invoke QX_REALTIME_Init()?\n"))
        << r.err;
    EXPECT_TRUE(contains(r.err, "rtctl: list: RT_ERR_NULL (10)\n")) << r.err;
}

TEST_F(Rtctl, LibraryMessagesArePlainTextWithoutDecorationsOrDoubledNewlines) {
    qxt::install_shipped_config();
    ASSERT_EQ(rtctl({"init"}).status, 0);
    Result r = rtctl({"delete", "Domain_Nowhere"});
    EXPECT_EQ(r.status, 10);
    EXPECT_EQ(r.err,
              "[RT_Impl][Err] [QX_REALTIME_DeleteDomain] pstDomain is NULL.\n"
              "rtctl: delete: RT_ERR_NULL (10)\n"
              "rtctl: hint: no domain Domain_Nowhere: rtctl list shows the domains, rtctl create "
              "Domain_Nowhere makes it from the configuration\n");
}

TEST_F(Rtctl, InitWithUnknownModeFails) {
    qxt::install_shipped_config();
    Result r = rtctl({"init", "2"});
    EXPECT_EQ(r.status, 4);
    EXPECT_TRUE(contains(r.err, "[RT_Impl][Err] [QX_REALTIME_Init] Unknown init mode: [2].\n"))
        << r.err;
    EXPECT_TRUE(contains(r.err, "rtctl: init: RT_ERR_FAILED (4)")) << r.err;
}

TEST_F(RtctlWithDomains, ListPrintsTheCreatedDomainsInOrder) {
    Result r = rtctl({"list"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "Domain_Audio\nDomain_Camera\n");
}

TEST_F(RtctlWithDomains, CreateOfAnExistingDomainSucceeds) {
    EXPECT_EQ(rtctl({"create", "Domain_Audio"}).status, 0);
    EXPECT_EQ(rtctl({"list"}).out, "Domain_Audio\nDomain_Camera\n");
}

TEST_F(RtctlWithDomains, CreateOfAnUnknownDomainReportsTheConfiguration) {
    Result r = rtctl({"create", "Domain_Nowhere"});
    EXPECT_EQ(r.status, 8);
    EXPECT_TRUE(contains(r.err, "rtctl: create: RT_ERR_INVALID_PARAM (8)")) << r.err;
}

TEST_F(RtctlWithDomains, AddAppliesTheClassPolicyAndRemoveRestoresTheThread) {
    qxt::TestThread t;
    ASSERT_EQ(setpriority(PRIO_PROCESS, (id_t)t.tid(), 3), 0);
    Result add = rtctl({"add", "Domain_Audio", "Class_Render", std::to_string(t.tid())});
    ASSERT_EQ(add.status, 0) << add.err;
    qxt::SchedInfo s = qxt::sched_of(t.tid());
    EXPECT_EQ(s.policy, (uint32_t)SCHED_RR);
    EXPECT_EQ(s.priority, 90u);
    EXPECT_EQ(qxt::cgroup_of(t.tid(), "cpuset"), "/Domain_Audio");
    EXPECT_EQ(qxt::cgroup_of(t.tid(), "cpuacct"), "/Domain_Audio");

    Result remove = rtctl({"remove", "Domain_Audio", std::to_string(t.tid())});
    ASSERT_EQ(remove.status, 0) << remove.err;
    s = qxt::sched_of(t.tid());
    EXPECT_EQ(s.policy, (uint32_t)SCHED_OTHER);
    EXPECT_EQ(s.nice, 3);
    EXPECT_EQ(qxt::cgroup_of(t.tid(), "cpuset"), "/");
    EXPECT_EQ(qxt::cgroup_of(t.tid(), "cpuacct"), "/");
}

TEST_F(RtctlWithDomains, AddLiteAppliesTheGivenDeadlineParameters) {
    qxt::TestThread t(true);  // runnable, so its bandwidth goes back at once on removal
    Result r = rtctl({"add-lite", "Domain_Camera", "Class_Isp", std::to_string(t.tid()), "0",
                      "9000", "3000", "20000"});
    ASSERT_EQ(r.status, 0) << r.err;
    qxt::SchedInfo s = qxt::sched_of(t.tid());
    EXPECT_EQ(s.policy, (uint32_t)SCHED_DEADLINE);
    EXPECT_EQ(s.runtime, 3000000u);
    EXPECT_EQ(s.deadline, 9000000u);
    EXPECT_EQ(s.period, 20000000u);
    EXPECT_EQ(s.flags & 0x4u, 0u);
    EXPECT_EQ(rtctl({"remove", "Domain_Camera", std::to_string(t.tid())}).status, 0);
}

TEST_F(RtctlWithDomains, AddWithOverrunAsksForOverrunNotification) {
    // Sleeping: a thread that overran its runtime would now get SIGXCPU, and so would this test.
    qxt::TestThread t;
    Result r = rtctl({"add", "Domain_Camera", "Class_Isp", std::to_string(t.tid()), "--overrun"});
    ASSERT_EQ(r.status, 0) << r.err;
    qxt::SchedInfo s = qxt::sched_of(t.tid());
    EXPECT_EQ(s.policy, (uint32_t)SCHED_DEADLINE);
    EXPECT_EQ(s.flags & 0x4u, 0x4u);
    EXPECT_EQ(rtctl({"remove", "Domain_Camera", std::to_string(t.tid())}).status, 0);
}

TEST_F(RtctlWithDomains, BudgetPrintsTheUtilisationLeftAndRefusesTooMuch) {
    Result fits = rtctl({"budget", "Domain_Audio", "200", "0", "0", "0"});
    EXPECT_EQ(fits.status, 0);
    EXPECT_EQ(fits.out, "Domain_Audio: utilisation left 512 (demand 200)\n");

    Result too_much = rtctl({"budget", "Domain_Audio", "513", "0", "0", "0"});
    EXPECT_EQ(too_much.status, 9);
    EXPECT_EQ(too_much.out, "Domain_Audio: utilisation left 512 (demand 513), does not fit\n");
    EXPECT_TRUE(contains(too_much.err, "rtctl: budget: RT_ERR_OVER_BUDGET (9)")) << too_much.err;
}

TEST_F(RtctlWithDomains, BudgetOfADeadlineDomainShowsTheConvertedDemand) {
    Result r = rtctl({"budget", "Domain_Camera", "0", "8000", "2000", "16000"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "Domain_Camera: utilisation left 1024 (demand 128)\n");
}

TEST_F(RtctlWithDomains, BudgetOfAnUnknownDomainPrintsNoFigure) {
    Result r = rtctl({"budget", "Domain_Nowhere", "1", "0", "0", "0"});
    EXPECT_EQ(r.status, 10);
    EXPECT_EQ(r.out, "");
}

TEST_F(RtctlWithDomains, AdmissionOverBudgetIsRefusedAndLeavesTheThreadAlone) {
    qxt::TestThread a, b, c;
    EXPECT_EQ(rtctl({"add", "Domain_Audio", "Class_Render", std::to_string(a.tid())}).status, 0);
    EXPECT_EQ(rtctl({"add", "Domain_Audio", "Class_Render", std::to_string(b.tid())}).status, 0);
    Result r = rtctl({"add", "Domain_Audio", "Class_Render", std::to_string(c.tid())});
    EXPECT_EQ(r.status, 9);
    EXPECT_TRUE(contains(r.err, "rtctl: add: RT_ERR_OVER_BUDGET (9)")) << r.err;
    EXPECT_EQ(qxt::sched_of(c.tid()).policy, (uint32_t)SCHED_OTHER);
}

TEST_F(RtctlWithDomains, UpdateChangesTheChargeSeenByTheBudget) {
    qxt::TestThread t;
    ASSERT_EQ(rtctl({"add", "Domain_Audio", "Class_Render", std::to_string(t.tid())}).status, 0);
    Result u = rtctl({"update", "Domain_Audio", std::to_string(t.tid()), "50", "0", "0", "0"});
    EXPECT_EQ(u.status, 0) << u.err;
    EXPECT_EQ(rtctl({"budget", "Domain_Audio", "0", "0", "0", "0"}).out,
              "Domain_Audio: utilisation left 462 (demand 0)\n");
}

TEST_F(RtctlWithDomains, RemoveOfAnUnknownThreadExitsNotExist) {
    Result r = rtctl({"remove", "Domain_Audio", "999999"});
    EXPECT_EQ(r.status, 11);
    EXPECT_TRUE(contains(r.err, "rtctl: remove: RT_ERR_NOT_EXIST (11)")) << r.err;
}

TEST_F(RtctlWithDomains, DmipsPrintsMicrosecondsOrRefusesAboveTheCapability) {
    Result ok = rtctl({"dmips", "512"});
    EXPECT_EQ(ok.status, 0);
    EXPECT_EQ(ok.out, "512 DMIPS = 500000 us of CPU time per second on one core\n");
    Result above = rtctl({"dmips", "2000"});
    EXPECT_EQ(above.status, 8);
    EXPECT_EQ(above.out, "");
}

TEST_F(RtctlWithDomains, UsagePrintsOneSampleLinePerSampleOnStdout) {
    Result r = rtctl({"usage", "Domain_Audio", "20", "3"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(count_of(r.out, "(budget 50.00%)"), 3) << r.out;
    EXPECT_FALSE(contains(r.out, "[RT_Impl][Err]")) << r.out;
}

TEST_F(RtctlWithDomains, UsageOfAllDomainsShowsEachDomainAgainstItsBudget) {
    Result r = rtctl({"usage", "All", "20", "1"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(contains(r.out, "Util Budget = 1024 * 2 * 80 / 100 = 1638")) << r.out;
    EXPECT_EQ(count_of(r.out, "[Domain_Audio                  ]"), 2) << r.out;
    EXPECT_EQ(count_of(r.out, "[Domain_Camera                 ]"), 2) << r.out;
}

TEST_F(RtctlWithDomains, DumpPrintsTheDomainRecordAndItsThreadsOnStdout) {
    qxt::TestThread t;
    ASSERT_EQ(rtctl({"add", "Domain_Audio", "Class_Mix", std::to_string(t.tid())}).status, 0);
    Result r = rtctl({"dump", "Domain_Audio"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(contains(r.out, "========== Domain: [Domain_Audio] ==========\n")) << r.out;
    EXPECT_TRUE(contains(r.out, "s32UtilCurrent=                 100\n")) << r.out;
    EXPECT_TRUE(contains(r.out, qxt::format("    Pid         = [%10d]\n", (int)t.tid()))) << r.out;
    // The process-ID list is printed in pieces; they stay on one line.
    EXPECT_TRUE(contains(r.out, qxt::format("s32ProcessIDList=[ %5d \n", (int)getpid()))) << r.out;
    EXPECT_TRUE(contains(r.out, "--------End of Threads--------\n")) << r.out;

    Result all = rtctl({"dump", "All"});
    EXPECT_EQ(all.status, 0);
    EXPECT_TRUE(contains(all.out, "Class_Mix")) << all.out;
}

TEST_F(RtctlWithDomains, DumpOfAnUnknownDomainExitsNull) {
    Result r = rtctl({"dump", "Domain_Nowhere"});
    EXPECT_EQ(r.status, 10);
    EXPECT_TRUE(
        contains(r.out, "[QX_REALTIME_DumpDomainInfo] pstDomain is NULL for [Domain_Nowhere].\n"))
        << r.out;
}

TEST_F(RtctlWithDomains, DeleteRemovesTheDomainOnce) {
    Result first = rtctl({"delete", "Domain_Audio"});
    EXPECT_EQ(first.status, 0) << first.err;
    EXPECT_FALSE(qxt::file_exists("/dev/shm/realtime/rt_Domain_Audio"));
    EXPECT_EQ(rtctl({"delete", "Domain_Audio"}).status, 10);
}

TEST_F(RtctlWithDomains, DeinitRemovesTheSharedStateForLaterCommands) {
    EXPECT_EQ(rtctl({"deinit"}).status, 0);
    EXPECT_FALSE(qxt::file_exists("/dev/shm/realtime/rt_Global"));
    EXPECT_EQ(rtctl({"list"}).status, 10);
}

TEST_F(RtctlWithDomains, VerboseShowsInfoMessagesOfThatInvocationOnly) {
    Result quiet = rtctl({"list"});
    EXPECT_FALSE(contains(quiet.err, "[RT_Impl][Info]")) << quiet.err;
    Result verbose = rtctl({"-v", "list"});
    EXPECT_EQ(verbose.status, 0);
    EXPECT_TRUE(contains(verbose.err, "[RT_Impl][Info] Total Used Util for all processes=1536\n"))
        << verbose.err;
    EXPECT_TRUE(contains(verbose.err, "[RT_Impl][DBG] [QX_REALTIME_GetAllDomainName]"))
        << verbose.err;
    EXPECT_EQ(verbose.out, "Domain_Audio\nDomain_Camera\n");
}

TEST_F(RtctlWithDomains, SmallCommandsReturnTheirResults) {
    EXPECT_EQ(rtctl({"self-test"}).status, 0);
    EXPECT_EQ(rtctl({"debug-level", "32"}).status, 0);
    EXPECT_EQ(rtctl({"mem-enable"}).status, 0);
    EXPECT_EQ(rtctl({"mem-disable"}).status, 0);
    Result r = rtctl({"mem-available", "42"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, "available: 42\n");
    EXPECT_TRUE(contains(r.err,
                         "[RT_Impl][Err] [QX_REALTIME_GetAvailableHighPriorityResource] The "
                         "function isn't ready. *ps32Avai=42\n"))
        << r.err;
}
