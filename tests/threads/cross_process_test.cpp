// Several client processes race to admit their own threads into one domain: the domain lock must
// keep the budget and the records consistent across processes.
#include <sched.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <map>

#include "threads_support.h"

using namespace qxt;

namespace {

const char kRace[] = "Domain_Race";
constexpr int kClients = 5;
constexpr int kThreadsPerClient = 3;
constexpr int kShare = 150;  // 1000 / 150: six admissions fit, the seventh does not

struct StartLine {
    std::atomic<int> ready;
    std::atomic<int> go;
};

}  // namespace

using ThreadCrossProcess = qxt::SandboxTest;

TEST_F(ThreadCrossProcess, RacingClientsNeverChargeMoreThanTheBudget) {
    ASSERT_NO_FATAL_FAILURE(
        start({rr_domain(kRace, 1000, "1", {{"Class_R", kShare, 10}})}, {kRace}));
    auto *line = (StartLine *)mmap(nullptr, sizeof(StartLine), PROT_READ | PROT_WRITE,
                                   MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(MAP_FAILED, (void *)line);
    new (line) StartLine{{0}, {0}};
    int fds[2];
    ASSERT_EQ(0, pipe(fds));

    std::vector<pid_t> clients;
    for (int c = 0; c < kClients; c++) {
        clients.push_back(spawn_child([&] {
            close(fds[0]);
            TestThread *threads[kThreadsPerClient];
            for (TestThread *&t : threads) t = new TestThread();  // live until killed
            line->ready.fetch_add(1);
            while (line->go.load() == 0) usleep(50);
            for (TestThread *t : threads) {
                int32_t msg[2] = {t->tid(),
                                  (int32_t)QX_REALTIME_AddThread(kRace, "Class_R", t->tid(), 0)};
                if (write(fds[1], msg, sizeof(msg)) != (ssize_t)sizeof(msg)) qxt::exit_child(1);
            }
        }));
    }
    close(fds[1]);
    while (line->ready.load() < kClients) usleep(100);
    line->go.store(1);

    std::map<pid_t, uint32_t> result;
    for (int i = 0; i < kClients * kThreadsPerClient; i++) {
        int32_t msg[2] = {0, -1};
        ASSERT_EQ((ssize_t)sizeof(msg), read(fds[0], msg, sizeof(msg))) << i;
        result[msg[0]] = (uint32_t)msg[1];
    }
    close(fds[0]);

    int admitted = 0;
    for (const auto &r : result) {
        pid_t tid = r.first;
        if (r.second == RT_SUCCESS) {
            admitted++;
            SchedInfo s = sched_of(tid);
            EXPECT_EQ((uint32_t)SCHED_RR, s.policy) << tid;
            EXPECT_EQ(10u, s.priority) << tid;
            EXPECT_EQ("/Domain_Race", cgroup_of(tid, "cpuset")) << tid;
            EXPECT_EQ("/Domain_Race", cgroup_of(tid, "cpuacct")) << tid;
        } else {
            EXPECT_EQ(RT_ERR_OVER_BUDGET, r.second) << tid;
            EXPECT_EQ((uint32_t)SCHED_OTHER, sched_of(tid).policy) << tid;
            EXPECT_EQ("/", cgroup_of(tid, "cpuset")) << tid;
            EXPECT_EQ("/", cgroup_of(tid, "cpuacct")) << tid;
        }
    }
    EXPECT_EQ(1000 / kShare, admitted);

    QX_REALTIME_DOMAIN_t *d = map_domain_file(kRace);
    ASSERT_NE(nullptr, d);
    EXPECT_LE(d->s32UtilCurrent, d->s32UtilMax);
    EXPECT_EQ(admitted * kShare, d->s32UtilCurrent);
    EXPECT_EQ(live_util_sum(d), d->s32UtilCurrent);
    EXPECT_EQ(admitted, live_slot_count(d));
    EXPECT_EQ(admitted, d->s32ThreadNum);
    for (const auto &r : result)
        EXPECT_EQ(r.second == RT_SUCCESS, live_slot(d, r.first) != nullptr) << r.first;

    for (pid_t c : clients) kill_and_reap(c);
    munmap(line, sizeof(StartLine));
}

TEST_F(ThreadCrossProcess, AdmissionAfterAllClientsDiedReturnsTheWholeBudget) {
    ASSERT_NO_FATAL_FAILURE(
        start({rr_domain(kRace, 1000, "1", {{"Class_R", kShare, 10}})}, {kRace}));
    std::vector<pid_t> clients;
    for (int c = 0; c < 4; c++) {
        int fds[2];
        ASSERT_EQ(0, pipe(fds));
        clients.push_back(spawn_child([&] {
            close(fds[0]);
            TestThread *t = new TestThread();  // lives until killed
            uint32_t rc = QX_REALTIME_AddThread(kRace, "Class_R", t->tid(), 0);
            if (write(fds[1], &rc, sizeof(rc)) != (ssize_t)sizeof(rc)) qxt::exit_child(1);
        }));
        close(fds[1]);
        uint32_t rc = 99;
        ASSERT_EQ((ssize_t)sizeof(rc), read(fds[0], &rc, sizeof(rc)));
        close(fds[0]);
        ASSERT_EQ(RT_SUCCESS, rc);
    }
    QX_REALTIME_DOMAIN_t *d = map_domain_file(kRace);
    ASSERT_EQ(4 * kShare, d->s32UtilCurrent);
    for (int c = 0; c < 4; c++) ASSERT_EQ(clients[c], d->s32ProcessIDList[c]);

    for (pid_t c : clients) kill_and_reap(c);
    TestThread t;
    LogCapture log;
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_AddThread(kRace, "Class_R", t.tid(), 0)) << log.dump();
    for (pid_t c : clients) QXT_EXPECT_ERROR(log, process_gone(c));
    EXPECT_EQ(kShare, d->s32UtilCurrent);
    EXPECT_EQ(1, live_slot_count(d));
    EXPECT_EQ(getpid(), d->s32ProcessIDList[0]);
    for (int c = 1; c < 4; c++) EXPECT_EQ(0, d->s32ProcessIDList[c]) << c;
}
