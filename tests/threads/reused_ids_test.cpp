// The kernel reuses process and thread ids. A record names the thread that was admitted, not
// whatever thread carries its id later: a client is killed, a new process is given its id (through
// ns_last_pid, inside the sandbox's own PID namespace), and the library must tell the two apart by
// their start times, kept beside the records.
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>

#include "threads_support.h"

using namespace qxt;

namespace {

constexpr char kIdentityFile[] = "/dev/shm/realtime/id_Domain_Rr";
constexpr int kUnits = 40;

std::atomic<pid_t> second_tid{0};

void *second_thread(void *) {
    second_tid = (pid_t)gettid();
    for (;;) pause();
    return nullptr;
}

// A client process killed after its admissions: its process id, and its second thread's id.
struct Client {
    pid_t pid = -1;
    pid_t second = 0;
};

class ReusedIds : public qxt::SandboxTest {
protected:
    void SetUpInSandbox() override {
        std::string why;
        if (!can_choose_pids(&why)) GTEST_SKIP() << why;
        start({rr_domain(kRr, 1000, "1", {{"Class_A", kUnits, 10}})}, {kRr});
        if (HasFatalFailure()) return;
        d_ = map_domain_file(kRr);
        ASSERT_NE(nullptr, d_);
    }
    void TearDown() override { kill_and_reap(newcomer_); }

    // A client admits its main thread and, when asked, a second thread of its own (kUnits each),
    // and is killed; then a later clock tick, so that a process started after it starts at
    // another time.
    void run_and_kill_client(bool with_second, Client *client) {
        int report[2];
        ASSERT_EQ(0, pipe(report));
        fflush(nullptr);
        pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            close(report[0]);
            pid_t ids[3] = {0, 0, 0};
            ids[0] = QX_REALTIME_AddThread(kRr, "Class_A", getpid(), 0) == RT_SUCCESS;
            if (with_second) {
                pthread_t thread;
                if (pthread_create(&thread, nullptr, second_thread, nullptr) == 0) {
                    while (second_tid == 0) usleep(1000);
                    ids[1] = second_tid;
                    ids[2] = QX_REALTIME_AddThread(kRr, "Class_A", ids[1], 0) == RT_SUCCESS;
                }
            }
            (void)!write(report[1], ids, sizeof(ids));
            for (;;) pause();
        }
        close(report[1]);
        pid_t ids[3] = {0, 0, 0};
        ssize_t n = read(report[0], ids, sizeof(ids));
        close(report[0]);
        client->pid = pid;
        client->second = ids[1];
        kill_and_reap(pid);
        ASSERT_EQ((ssize_t)sizeof(ids), n);
        ASSERT_EQ(1, ids[0]);
        if (with_second) {
            ASSERT_GT(ids[1], 0);
            ASSERT_EQ(1, ids[2]);
        }
        usleep(kStartTimeTickUs);
    }

    // A process that never used the library takes the dead client's id.
    void newcomer_takes(
        pid_t pid, const std::function<void()> &fn = [] {}) {
        newcomer_ = spawn_child_as(pid, fn);
        ASSERT_EQ(pid, newcomer_) << "the dead client's id could not be had";
    }

    // The newcomer admits its own main thread and tells what it got.
    struct SelfAdmission {
        int32_t rc = -1;
        int32_t policy = -1;
    };
    void newcomer_admits_itself(pid_t pid, SelfAdmission *self) {
        int report[2];
        ASSERT_EQ(0, pipe(report));
        ASSERT_NO_FATAL_FAILURE(newcomer_takes(pid, [&] {
            SelfAdmission told;
            told.rc = (int32_t)QX_REALTIME_AddThread(kRr, "Class_A", getpid(), 0);
            told.policy = sched_getscheduler(0);
            (void)!write(report[1], &told, sizeof(told));
        }));
        ASSERT_EQ((ssize_t)sizeof(*self), read(report[0], self, sizeof(*self)));
        close(report[0]);
        close(report[1]);
    }

    QX_REALTIME_DOMAIN_t *d_ = nullptr;
    pid_t newcomer_ = -1;
};

}  // namespace

TEST_F(ReusedIds, RecordsOfAClientWhoseIdWasGivenToANewcomerAreReapedAndTheirUnitsReturned) {
    if (!emulator().empty())
        GTEST_SKIP() << "under qemu-user the emulator's own threads take ids of their own: the "
                        "client's two ids can't be steered to a newcomer";
    TestThread t;  // started first: its id is none of the client's
    Client client;
    ASSERT_NO_FATAL_FAILURE(run_and_kill_client(true, &client));
    ASSERT_EQ(2 * kUnits, d_->s32UtilCurrent);
    ASSERT_NO_FATAL_FAILURE(newcomer_takes(client.pid));

    // Another process's admission walks the domain: both records name threads that have gone.
    LogCapture log;
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_AddThread(kRr, "Class_A", t.tid(), 0));
    EXPECT_EQ(nullptr, live_slot(d_, client.pid));
    EXPECT_EQ(nullptr, live_slot(d_, client.second));
    EXPECT_EQ(1, live_slot_count(d_));
    EXPECT_EQ(kUnits, d_->s32UtilCurrent);  // the newcomer's 80 returned, t's 40 charged
    for (pid_t tid : {client.pid, client.second})
        QXT_EXPECT_ERROR(log, format("[RT_Impl][Err] [_QX_REALTIME_CheckProcessAlive] Thread %d "
                                     "of process %d has gone and its process id names another "
                                     "one now: its record is freed.\n",
                                     tid, client.pid));
    // The newcomer was left as it was.
    EXPECT_EQ((uint32_t)SCHED_OTHER, sched_of(newcomer_).policy);
    EXPECT_EQ("/", cgroup_of(newcomer_, "cpuset"));
    EXPECT_EQ(RT_SUCCESS, QX_REALTIME_RemoveThread(kRr, t.tid()));
    EXPECT_EQ(0, d_->s32UtilCurrent);
}

TEST_F(ReusedIds, NewcomerAdmittingItsMainThreadWithTheDeadClientsIdGetsItAndIsBookedOnce) {
    Client client;
    ASSERT_NO_FATAL_FAILURE(run_and_kill_client(false, &client));
    SelfAdmission self;
    ASSERT_NO_FATAL_FAILURE(newcomer_admits_itself(client.pid, &self));
    EXPECT_EQ((int32_t)RT_SUCCESS, self.rc);
    EXPECT_EQ(SCHED_RR, self.policy);
    EXPECT_EQ((uint32_t)SCHED_RR, sched_of(newcomer_).policy);
    EXPECT_EQ("/Domain_Rr", cgroup_of(newcomer_, "cpuset"));
    EXPECT_EQ(1, live_slot_count(d_));
    EXPECT_EQ(kUnits, d_->s32UtilCurrent);
    ASSERT_NE(nullptr, live_slot(d_, newcomer_));
    EXPECT_EQ(newcomer_, live_slot(d_, newcomer_)->ProcessID);

    // From now on the record is the newcomer's: a second admission is a repeated one, and removal
    // gives the thread back its normal scheduling.
    LogCapture log;
    EXPECT_EQ(RT_SUCCESS, QX_REALTIME_AddThread(kRr, "Class_A", newcomer_, 0));
    QXT_EXPECT_ERROR(
        log,
        format("[RT_Impl][Err] [QX_REALTIME_AddThread] Pid [%d] already exists.\n", newcomer_));
    EXPECT_EQ(kUnits, d_->s32UtilCurrent);
    EXPECT_EQ(RT_SUCCESS, QX_REALTIME_RemoveThread(kRr, newcomer_));
    EXPECT_EQ((uint32_t)SCHED_OTHER, sched_of(newcomer_).policy);
    EXPECT_EQ(0, d_->s32UtilCurrent);
}

TEST_F(ReusedIds, RemovalAndUpdateOfAnIdGivenToANewcomerFindNothingAndLeaveItAlone) {
    Client client;
    ASSERT_NO_FATAL_FAILURE(run_and_kill_client(false, &client));
    ASSERT_NO_FATAL_FAILURE(newcomer_takes(client.pid));
    // Real-time of its own: a removal that took the record for it would switch it back.
    ASSERT_TRUE(set_rr(newcomer_, 5));
    LogCapture log;
    EXPECT_EQ(RT_ERR_NOT_EXIST, QX_REALTIME_RemoveThread(kRr, newcomer_));
    QXT_EXPECT_ERROR(log, format("[RT_Impl][Err] [QX_REALTIME_RemoveThread]: Thread [%d] doesn't "
                                 "exist in [Domain_Rr].\n",
                                 newcomer_));
    QX_REALTIME_UTIL_t util = {10, 0, 0, 0};
    EXPECT_EQ(RT_ERR_NOT_EXIST, QX_REALTIME_UpdateThreadUtil(kRr, &util, newcomer_));
    QXT_EXPECT_ERROR(log, format("[RT_Impl][Err] [QX_REALTIME_UpdateThreadUtil]: Thread of "
                                 "pid=[%d] does not exist in RT.\n",
                                 newcomer_));
    SchedInfo s = sched_of(newcomer_);
    EXPECT_EQ((uint32_t)SCHED_RR, s.policy);
    EXPECT_EQ(5u, s.priority);
    // The stale record is the walk's to free, at the next admission.
    EXPECT_EQ(kUnits, d_->s32UtilCurrent);
    EXPECT_NE(nullptr, live_slot(d_, client.pid));
}

TEST_F(ReusedIds, RecordWithoutAnIdentityIsTrustedByItsIdsAsBefore) {
    Client client;
    ASSERT_NO_FATAL_FAILURE(run_and_kill_client(false, &client));
    // As a domain made by an older build: no identities kept at all.
    ASSERT_EQ(0, unlink(kIdentityFile));
    SelfAdmission self;
    ASSERT_NO_FATAL_FAILURE(newcomer_admits_itself(client.pid, &self));
    // Taken as already admitted, as ever: success, and the newcomer stays as it was.
    EXPECT_EQ((int32_t)RT_SUCCESS, self.rc);
    EXPECT_EQ(SCHED_OTHER, self.policy);
    EXPECT_EQ(1, live_slot_count(d_));
    EXPECT_EQ(kUnits, d_->s32UtilCurrent);
    // Another admission's walk keeps the record: its process lives.
    TestThread t;
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_AddThread(kRr, "Class_A", t.tid(), 0));
    EXPECT_NE(nullptr, live_slot(d_, client.pid));
    EXPECT_EQ(2 * kUnits, d_->s32UtilCurrent);
    EXPECT_EQ(RT_SUCCESS, QX_REALTIME_RemoveThread(kRr, t.tid()));
}

// The identity file comes with the domain, as its segment does, and goes with it.
class ThreadIdentityFile : public qxt::SandboxTest {
protected:
    void SetUpInSandbox() override {
        start({rr_domain(kRr, 1000, "1", {{"Class_A", kUnits, 10}})}, {kRr});
    }
};

TEST_F(ThreadIdentityFile, IsMadeWithTheDomainAndRemovedWithIt) {
    ASSERT_TRUE(file_exists(kIdentityFile));
    EXPECT_EQ(0660u, file_mode(kIdentityFile));
    struct stat st;
    ASSERT_EQ(0, stat(kIdentityFile, &st));
    EXPECT_EQ((off_t)RT_IDENTITY_FILE_SIZE, st.st_size);
    ASSERT_EQ(RT_SUCCESS, (uint32_t)QX_REALTIME_DeleteDomain(kRr));
    EXPECT_FALSE(file_exists(kIdentityFile));
}

TEST_F(ThreadIdentityFile, HoldsTheStartTimesOfAnAdmittedThreadUntilItIsRemoved) {
    TestThread t;
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_AddThread(kRr, "Class_A", t.tid(), 0));
    QX_REALTIME_DOMAIN_t *d = map_domain_file(kRr);
    ASSERT_NE(nullptr, d);
    QX_REALTIME_THREAD_t *rec = live_slot(d, t.tid());
    ASSERT_NE(nullptr, rec);
    std::string bytes = read_file(kIdentityFile);
    ASSERT_EQ((size_t)RT_IDENTITY_FILE_SIZE, bytes.size());
    QX_REALTIME_IDENTITY_t id;
    memcpy(&id, bytes.data() + sizeof(id) * rec->ThreadIdx, sizeof(id));
    EXPECT_EQ(t.tid(), id.s32Tid);
    EXPECT_EQ(getpid(), id.s32ProcessID);
    // Field 22 of each one's stat line, as the kernel gives it.
    EXPECT_EQ(qx_start_time(nullptr, t.tid()), id.u64ThreadStart);
    EXPECT_EQ(qx_start_time(nullptr, getpid()), id.u64ProcessStart);
    EXPECT_NE(0u, id.u64ThreadStart);
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_RemoveThread(kRr, t.tid()));
    bytes = read_file(kIdentityFile);
    memcpy(&id, bytes.data() + sizeof(id) * rec->ThreadIdx, sizeof(id));
    EXPECT_EQ(0u, id.u64ThreadStart);
    EXPECT_EQ(0, id.s32Tid);
}
