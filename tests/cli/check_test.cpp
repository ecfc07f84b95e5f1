// rtctl check [--repair]: each kind of inconsistency a fault can leave behind is made for real
// (a killed client, a thread moved or switched behind the library's back, a segment written
// over), found by the check, repaired, and the repair confirmed by the kernel and a second check.
#include <sched.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/sysinfo.h>
#include <sys/wait.h>
#include <unistd.h>

#include "cli_support.h"
#include "test_support.h"

using qxt::contains;
using qxt::Result;
using qxt::rtctl;

namespace {

class RtctlCheck : public qxt::ShippedConfigTest {
protected:
    void SetUpInSandbox() override {
        qxt::install_shipped_config();
        ASSERT_EQ(QX_REALTIME_Init(0), RT_SUCCESS);
        ASSERT_EQ(QX_REALTIME_CreateDomain("Domain_Audio"), RT_SUCCESS);
        ASSERT_EQ(QX_REALTIME_CreateDomain("Domain_Camera"), RT_SUCCESS);
        audio_ = qxt::map_domain_file("Domain_Audio");
        ASSERT_NE(audio_, nullptr);
    }
    // check finds exactly what is expected, --repair repairs it, and a last check is clean.
    void expect_found_and_repaired(const std::vector<std::string> &what,
                                   const std::vector<std::string> &repairs) {
        Result found = rtctl({"check"});
        EXPECT_EQ(found.status, 1) << found.out << found.err;
        for (const std::string &w : what)
            EXPECT_TRUE(contains(found.out, w)) << w << "\n" << found.out;
        Result fixed = rtctl({"check", "--repair"});
        EXPECT_EQ(fixed.status, 0) << fixed.out << fixed.err;
        for (const std::string &r : repairs)
            EXPECT_TRUE(contains(fixed.out, "    repaired: " + r)) << r << "\n" << fixed.out;
        Result after = rtctl({"check"});
        EXPECT_EQ(after.status, 0) << after.out;
        EXPECT_EQ(after.out, "consistent\n");
    }
    QX_REALTIME_DOMAIN_t *audio_ = nullptr;
};

}  // namespace

TEST_F(RtctlCheck, ConsistentStateIsReportedSoWithStatusZero) {
    qxt::TestThread t;
    ASSERT_EQ(QX_REALTIME_AddThread("Domain_Audio", "Class_Render", t.tid(), 0), RT_SUCCESS);
    Result r = rtctl({"check"});
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_EQ(r.out, "consistent\n");
    ASSERT_EQ(QX_REALTIME_RemoveThread("Domain_Audio", t.tid()), RT_SUCCESS);
}

TEST_F(RtctlCheck, WithoutTheFrameworkItSaysSo) {
    ASSERT_EQ(QX_REALTIME_Deinit(), RT_SUCCESS);
    Result r = rtctl({"check"});
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(contains(r.err, "no central segment")) << r.err;
}

TEST_F(RtctlCheck, ChargeWithoutARecordIsReturned) {
    qxt::TestThread t;
    ASSERT_EQ(QX_REALTIME_AddThread("Domain_Audio", "Class_Render", t.tid(), 0), RT_SUCCESS);
    audio_->s32UtilCurrent += 100;
    expect_found_and_repaired(
        {"Domain_Audio: s32UtilCurrent is 300 but the records add up to 200\n"},
        {"s32UtilCurrent set to 200"});
    EXPECT_EQ(audio_->s32UtilCurrent, 200);
    ASSERT_EQ(QX_REALTIME_RemoveThread("Domain_Audio", t.tid()), RT_SUCCESS);
}

TEST_F(RtctlCheck, RecordsOfAKilledClientAreReaped) {
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        pid_t tid = (pid_t)gettid();
        char ok = QX_REALTIME_AddThread("Domain_Audio", "Class_Render", tid, 0) == RT_SUCCESS;
        (void)!write(ready[1], &ok, 1);
        pause();
        qxt::exit_child(0);
    }
    char ok = 0;
    ASSERT_EQ(read(ready[0], &ok, 1), 1);
    ASSERT_EQ(ok, 1);
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    ASSERT_EQ(audio_->s32UtilCurrent, 200);
    expect_found_and_repaired(
        {qxt::format("record of thread %d of process %d, which has died", child, child),
         qxt::format("process %d is listed but has died", child)},
        {"record freed, its utilisation returned", "taken off the list"});
    EXPECT_EQ(audio_->s32UtilCurrent, 0);
}

// The id of a killed client given to a newcomer (through ns_last_pid, inside the sandbox's own
// PID namespace): the record's ids name a living process, but not the one admitted.
TEST_F(RtctlCheck, RecordWhoseIdWasGivenToANewcomerIsReportedAndFreed) {
    std::string why;
    if (!qxt::can_choose_pids(&why)) GTEST_SKIP() << why;
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    fflush(nullptr);
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        char ok = QX_REALTIME_AddThread("Domain_Audio", "Class_Render", getpid(), 0) == RT_SUCCESS;
        (void)!write(ready[1], &ok, 1);
        pause();
        qxt::exit_child(0);
    }
    char ok = 0;
    ASSERT_EQ(read(ready[0], &ok, 1), 1);
    ASSERT_EQ(ok, 1);
    qxt::kill_and_reap(child);
    usleep(qxt::kStartTimeTickUs);
    pid_t newcomer = qxt::spawn_child_as(child, [] {});
    ASSERT_EQ(newcomer, child) << "the dead client's id could not be had";
    ASSERT_EQ(audio_->s32UtilCurrent, 200);
    expect_found_and_repaired({qxt::format("record of thread %d of process %d, which has died: its "
                                           "process id names another process now",
                                           child, child)},
                              {"record freed, its utilisation returned"});
    EXPECT_EQ(audio_->s32UtilCurrent, 0);
    EXPECT_EQ(qxt::sched_of(newcomer).policy, (uint32_t)SCHED_OTHER);
    qxt::kill_and_reap(newcomer);
}

TEST_F(RtctlCheck, RealTimeThreadInADomainGroupWithoutARecordIsReleased) {
    qxt::TestThread t;
    struct sched_param p = {};
    p.sched_priority = 20;
    ASSERT_EQ(sched_setscheduler(t.tid(), SCHED_RR, &p), 0);
    qxt::write_file("/dev/cpuacct/Domain_Audio/tasks", std::to_string(t.tid()));
    ASSERT_EQ(qxt::cgroup_of(t.tid(), "cpuacct"), "/Domain_Audio");
    expect_found_and_repaired(
        {qxt::format("thread %d is in the domain's groups and real-time without a record",
                     t.tid())},
        {"moved to the root groups, back to normal scheduling"});
    EXPECT_EQ(qxt::sched_of(t.tid()).policy, (uint32_t)SCHED_OTHER);
    EXPECT_EQ(qxt::cgroup_of(t.tid(), "cpuacct"), "/");
}

TEST_F(RtctlCheck, RecordTheKernelDisagreesWithIsAppliedAgain) {
    qxt::TestThread t;
    ASSERT_EQ(QX_REALTIME_AddThread("Domain_Audio", "Class_Render", t.tid(), 0), RT_SUCCESS);
    struct sched_param p = {};
    ASSERT_EQ(sched_setscheduler(t.tid(), SCHED_OTHER, &p), 0);
    qxt::write_file("/dev/cpuacct/tasks", std::to_string(t.tid()));
    expect_found_and_repaired(
        {qxt::format("thread %d is recorded but the kernel differs (policy 0, outside the "
                     "domain's groups)",
                     t.tid())},
        {"policy and groups applied again"});
    qxt::SchedInfo s = qxt::sched_of(t.tid());
    EXPECT_EQ(s.policy, (uint32_t)SCHED_RR);
    EXPECT_EQ(s.priority, 90u);
    EXPECT_EQ(qxt::cgroup_of(t.tid(), "cpuacct"), "/Domain_Audio");
    EXPECT_EQ(qxt::cgroup_of(t.tid(), "cpuset"), "/Domain_Audio");
    ASSERT_EQ(QX_REALTIME_RemoveThread("Domain_Audio", t.tid()), RT_SUCCESS);
}

// A caller killed between the two steps by which a thread leaves SCHED_DEADLINE leaves the thread
// in the minimal reservation (1024 ns every 4 s), still recorded: the check names that state and
// the repair applies the record's policy again.
TEST_F(RtctlCheck, ThreadLeftInTheMinimalDeadlineReservationIsAppliedAgain) {
    qxt::TestThread t;
    ASSERT_EQ(QX_REALTIME_AddThread("Domain_Audio", "Class_Render", t.tid(), 0), RT_SUCCESS);
    // Whatever happens below, the thread is given normal scheduling before it must wake to end:
    // in the minimal reservation its exit would crawl.
    struct Normal {
        pid_t tid;
        ~Normal() {
            struct sched_param p = {};
            sched_setscheduler(tid, SCHED_OTHER, &p);
        }
    } normal{t.tid()};
    // Deadline is refused inside a cpuset narrower than the machine: the root group first.
    qxt::write_file("/dev/cpuset/tasks", std::to_string(t.tid()));
    struct qx_sched_attr minimal = {};
    minimal.size = QX_SCHED_ATTR_SIZE;
    minimal.sched_policy = SCHED_DEADLINE;
    minimal.sched_runtime = QX_DL_MINIMAL_RUNTIME_NS;
    minimal.sched_deadline = minimal.sched_period = QX_DL_MINIMAL_PERIOD_NS;
    ASSERT_EQ(qx_sched_setattr(t.tid(), &minimal, 0), 0) << strerror(errno);
    expect_found_and_repaired(
        {qxt::format("thread %d is left in the minimal deadline reservation (1024 ns every "
                     "4000000000 ns): its caller died while it left SCHED_DEADLINE",
                     t.tid())},
        {"policy and groups applied again"});
    qxt::SchedInfo s = qxt::sched_of(t.tid());
    EXPECT_EQ(s.policy, (uint32_t)SCHED_RR);
    EXPECT_EQ(s.priority, 90u);
    EXPECT_EQ(qxt::cgroup_of(t.tid(), "cpuset"), "/Domain_Audio");
    ASSERT_EQ(QX_REALTIME_RemoveThread("Domain_Audio", t.tid()), RT_SUCCESS);
}

TEST_F(RtctlCheck, HalfCreatedDomainIsRemovedAndCanBeCreatedAgain) {
    qx_set_creation_mark(audio_, RT_DOMAIN_CREATING);
    expect_found_and_repaired({"Domain_Audio: half-created: its creator died before it was done\n"},
                              {"removed; create the domain again"});
    EXPECT_FALSE(qxt::file_exists("/dev/shm/realtime/rt_Domain_Audio"));
    Result created = rtctl({"create", "Domain_Audio"});
    EXPECT_EQ(created.status, 0) << created.out << created.err;
    EXPECT_EQ(rtctl({"check"}).out, "consistent\n");
}

TEST_F(RtctlCheck, WrittenOverPathsAndModesAreRestored) {
    strcpy(audio_->pszCpuacctPathTasks, "/tmp/elsewhere");
    ASSERT_EQ(chmod("/dev/shm/realtime/rt_Domain_Camera", 0666), 0);
    expect_found_and_repaired({"Domain_Audio: pszCpuacctPathTasks is \"/tmp/elsewhere\", not "
                               "\"/dev/cpuacct/Domain_Audio/tasks\"\n",
                               "Domain_Camera: its segment has mode 0666, not 0660\n"},
                              {"set to \"/dev/cpuacct/Domain_Audio/tasks\"", "mode set to 0660"});
    qxt::TestThread t;
    EXPECT_EQ(QX_REALTIME_AddThread("Domain_Audio", "Class_Render", t.tid(), 0), RT_SUCCESS);
    EXPECT_EQ(QX_REALTIME_RemoveThread("Domain_Audio", t.tid()), RT_SUCCESS);
}

TEST_F(RtctlCheck, SegmentCutShortIsRemoved) {
    ASSERT_EQ(truncate("/dev/shm/realtime/rt_Domain_Camera", 4096), 0);
    expect_found_and_repaired({"Domain_Camera: its segment is 4096 bytes, not 16384\n"},
                              {"removed; create the domain again"});
}

// --json: one document with every finding and what the repair did.
TEST_F(RtctlCheck, JsonListsTheFindingsAndTheRepairs) {
    audio_->s32UtilCurrent += 7;
    Result found = rtctl({"check", "--json"});
    EXPECT_EQ(found.status, 1);
    EXPECT_EQ(found.out,
              "{\"command\":\"check\",\"status\":1,\"repair\":false,\"consistent\":false,"
              "\"error\":null,\"findings\":[{\"where\":\"Domain_Audio\",\"what\":\"s32UtilCurrent "
              "is 7 but the records add up to 0\",\"action\":null}]}\n");
    Result fixed = rtctl({"check", "--json", "--repair"});
    EXPECT_EQ(fixed.status, 0);
    EXPECT_TRUE(contains(fixed.out, "\"repair\":true")) << fixed.out;
    EXPECT_TRUE(contains(fixed.out, "\"action\":\"s32UtilCurrent set to 0\"")) << fixed.out;
    Result clean = rtctl({"check", "--json"});
    EXPECT_EQ(clean.status, 0);
    EXPECT_TRUE(contains(clean.out, "\"consistent\":true,\"error\":null,\"findings\":[]"))
        << clean.out;
}

// A repair that can't be done says "could not" and the check ends with status 1: a planted
// directory in place of a domain's segment can't be unlinked.
TEST_F(RtctlCheck, RepairThatFailsEndsWithStatusOne) {
    ASSERT_EQ(unlink("/dev/shm/realtime/rt_Domain_Camera"), 0);
    ASSERT_EQ(mkdir("/dev/shm/realtime/rt_Domain_Camera", 0700), 0);
    Result fixed = rtctl({"check", "--repair"});
    EXPECT_EQ(fixed.status, 1) << fixed.out << fixed.err;
    EXPECT_TRUE(contains(fixed.out, "Domain_Camera: its segment is not a regular file\n"))
        << fixed.out;
    EXPECT_TRUE(contains(fixed.out, "could not unlink: Is a directory")) << fixed.out;
    Result json = rtctl({"check", "--repair", "--json"});
    EXPECT_EQ(json.status, 1) << json.out;
    EXPECT_TRUE(contains(json.out, "\"status\":1,\"repair\":true,\"consistent\":false"))
        << json.out;
    ASSERT_EQ(rmdir("/dev/shm/realtime/rt_Domain_Camera"), 0);
}

// A FIFO planted as the central segment holds nothing: the repair removes it, and Init makes the
// central segment anew.
TEST_F(RtctlCheck, CentralSegmentThatIsNoRegularFileIsRemoved) {
    ASSERT_EQ(unlink("/dev/shm/realtime/rt_Global"), 0);
    ASSERT_EQ(mkfifo("/dev/shm/realtime/rt_Global", 0666), 0);
    Result found = rtctl({"check"});
    EXPECT_EQ(found.status, 1) << found.out << found.err;
    EXPECT_TRUE(contains(found.out, "Global: the central segment is not a regular file\n"))
        << found.out;
    Result fixed = rtctl({"check", "--repair"});
    EXPECT_EQ(fixed.status, 0) << fixed.out << fixed.err;
    EXPECT_TRUE(contains(
        fixed.out, "    repaired: removed; call QX_REALTIME_Init (rtctl init) to make it anew"))
        << fixed.out;
    struct stat st;
    EXPECT_EQ(lstat("/dev/shm/realtime/rt_Global", &st), -1);
    EXPECT_EQ(rtctl({"init"}).status, 0);
    Result after = rtctl({"check"});
    EXPECT_EQ(after.status, 0) << after.out << after.err;
}

// The central record written over (200 bytes of noise from its start, as `dd if=/dev/urandom`
// would): list prints no byte that is not a name and says the record is damaged; check names
// what is wrong; the repair rebuilds the domain list from the domain segments; list and check
// then agree with the segments again.
TEST_F(RtctlCheck, DamagedCentralRecordIsFoundAndItsListRebuilt) {
    std::string path = "/dev/shm/realtime/rt_Global";
    std::string bytes = qxt::read_file(path);
    ASSERT_EQ(bytes.size(), (size_t)RT_SHM_SIZE);
    uint32_t seed = 2463534242u;
    for (int i = 0; i < 200; i++) {
        seed ^= seed << 13;  // xorshift: the same noise every run
        seed ^= seed >> 17;
        seed ^= seed << 5;
        bytes[i] = (char)(seed & 0xff);
    }
    bytes[21] = 0x5a;  // a reserved byte of the settings, never written
    qxt::write_file(path, bytes);

    Result list = rtctl({"list"});
    EXPECT_EQ(list.status, 1) << list.out << list.err;
    for (char ch : list.out) EXPECT_TRUE(ch == '\n' || (ch >= 0x20 && ch < 0x7f)) << list.out;
    EXPECT_TRUE(contains(list.err, "of the central record's domain list")) << list.err;

    Result found = rtctl({"check"});
    EXPECT_EQ(found.status, 1) << found.out << found.err;
    EXPECT_TRUE(contains(found.out, "Global")) << found.out;
    EXPECT_TRUE(contains(found.out, "is not a domain name")) << found.out;
    EXPECT_TRUE(contains(found.out, "the settings are damaged (reserved bytes 5a")) << found.out;

    Result fixed = rtctl({"check", "--repair"});
    EXPECT_EQ(fixed.status, 0) << fixed.out << fixed.err;
    EXPECT_TRUE(contains(fixed.out, "repaired: domain list rebuilt: 2 domains, total 1536"))
        << fixed.out;
    Result after = rtctl({"check"});
    EXPECT_EQ(after.status, 0) << after.out;
    EXPECT_EQ(after.out, "consistent\n");
    list = rtctl({"list"});
    EXPECT_EQ(list.status, 0) << list.err;
    EXPECT_EQ(list.out, "Domain_Audio\nDomain_Camera\n");
    const QX_REALTIME_CENTRAL_t *c = qxt::map_central_file();
    ASSERT_NE(c, nullptr);
    EXPECT_EQ(c->s32DomainNum, 2);
    EXPECT_EQ(c->s32UtilTotal, 512 + 1024);
}

// A count of domains out of range alone: found, and the list rebuilt with its names kept.
TEST_F(RtctlCheck, DomainCountOutOfRangeIsFoundAndRepaired) {
    QX_REALTIME_CENTRAL_t *c = qxt::map_central_file();
    ASSERT_NE(c, nullptr);
    c->s32DomainNum = 5000;
    Result list = rtctl({"list"});
    for (char ch : list.out) EXPECT_TRUE(ch == '\n' || (ch >= 0x20 && ch < 0x7f)) << list.out;
    expect_found_and_repaired({"s32DomainNum is 5000, not 0 to 24"},
                              {"domain list rebuilt: 2 domains, total 1536"});
    EXPECT_EQ(c->s32DomainNum, 2);
    EXPECT_EQ(rtctl({"list"}).out, "Domain_Audio\nDomain_Camera\n");
}

// Admission to a second domain books the thread there too; the check names both bookings and,
// not knowing which one is wrong, leaves them.
TEST_F(RtctlCheck, ThreadBookedInTwoDomainsIsReportedAndLeftAsItIs) {
    qxt::TestThread t;
    // Deadline first: the kernel refuses SCHED_DEADLINE to a thread already in a narrower cpuset.
    ASSERT_EQ(QX_REALTIME_AddThread("Domain_Camera", "Class_Isp", t.tid(), 0), RT_SUCCESS);
    ASSERT_EQ(QX_REALTIME_AddThread("Domain_Audio", "Class_Render", t.tid(), 0), RT_SUCCESS);
    const std::string line =
        qxt::format("thread %d is booked in Domain_Audio and Domain_Camera", t.tid());
    Result found = rtctl({"check"});
    EXPECT_EQ(found.status, 1) << found.out << found.err;
    EXPECT_TRUE(contains(found.out, line)) << found.out;
    Result left = rtctl({"check", "--repair"});
    EXPECT_TRUE(contains(left.out, line)) << left.out;
    EXPECT_TRUE(contains(left.out, "could not tell which booking is wrong: left booked in each"))
        << left.out;
    EXPECT_EQ(QX_REALTIME_RemoveThread("Domain_Audio", t.tid()), RT_SUCCESS);
    EXPECT_EQ(QX_REALTIME_RemoveThread("Domain_Camera", t.tid()), RT_SUCCESS);
    Result clean = rtctl({"check"});
    EXPECT_FALSE(contains(clean.out, "is booked in")) << clean.out;
}
