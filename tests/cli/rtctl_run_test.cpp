// rtctl run and add -a, with a real program (thread_spawner) on the shipped configuration:
// Domain_Audio is round-robin on CPU 1 (Class_Mix: 100 units and priority 80 per thread),
// Domain_Camera deadline on CPUs 0-1 (Class_Preview: 1 ms every 10 ms).
#include <signal.h>
#include <sys/wait.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "cli_support.h"
#include "test_support.h"

using qxt::contains;
using qxt::Result;
using qxt::rtctl;

namespace {

const int kSchedRr = 2, kSchedDeadline = 6;

// rtctl run [options] DOMAIN CLASS -- thread_spawner THREADS DELAY_MS HOLD_MS STATUS
std::vector<std::string> run_args(const std::vector<std::string> &head, int threads, int delay_ms,
                                  int hold_ms, int status) {
    std::vector<std::string> args = head;
    args.push_back("--");
    for (const std::string &w : qxt::target_command(QXRT_THREAD_SPAWNER)) args.push_back(w);
    for (int n : {threads, delay_ms, hold_ms, status}) args.push_back(std::to_string(n));
    return args;
}

int count_of(const std::string &text, const std::string &part) {
    int n = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) n++;
    return n;
}

int32_t booked(const char *domain) {
    QX_REALTIME_DOMAIN_t *d = qxt::map_domain_file(domain);
    return d != nullptr ? d->s32UtilCurrent : -1;
}

// Polls the domain's booked units while fn runs in a thread; the highest value seen.
int32_t highest_booking_while(const char *domain, const std::function<void()> &fn) {
    std::atomic<bool> done{false};
    std::thread runner([&] {
        fn();
        done = true;
    });
    int32_t highest = 0;
    while (!done) {
        highest = std::max(highest, booked(domain));
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    runner.join();
    return highest;
}

class RtctlRun : public qxt::ShippedConfigTest {
protected:
    void SetUpInSandbox() override { ASSERT_NO_FATAL_FAILURE(qxt::start_shipped_domains()); }
};

}  // namespace

// The main thread is admitted before the program's first instruction: it starts as SCHED_RR on
// the domain's CPU. Its exit status is rtctl's, and its charge is given back when it ends.
TEST_F(RtctlRun, AdmitsTheProgramBeforeItStartsAndReturnsItsStatusAndCharge) {
    Result r = rtctl(run_args({"run", "Domain_Audio", "Class_Mix"}, 0, 0, 0, 7));
    EXPECT_EQ(r.status, 7) << r.out << r.err;
    EXPECT_TRUE(contains(r.out, qxt::format("main %d 1\n", kSchedRr))) << r.out;
    EXPECT_EQ(0, booked("Domain_Audio"));
    EXPECT_EQ(rtctl({"check"}).status, 0);
}

// Threads a round-robin program creates inherit its policy from the kernel; without -a they are
// not booked, with -a each one is booked as it appears.
TEST_F(RtctlRun, AllBooksTheThreadsTheProgramCreates) {
    Result plain, all;
    int32_t without = highest_booking_while("Domain_Audio", [&] {
        plain = rtctl(run_args({"run", "Domain_Audio", "Class_Mix"}, 2, 0, 600, 0));
    });
    EXPECT_EQ(plain.status, 0) << plain.err;
    EXPECT_EQ(2, count_of(plain.out, qxt::format("thread %d\n", kSchedRr))) << plain.out;
    EXPECT_EQ(100, without);
    int32_t with = highest_booking_while("Domain_Audio", [&] {
        all = rtctl(run_args({"run", "-a", "Domain_Audio", "Class_Mix"}, 2, 100, 600, 0));
    });
    EXPECT_EQ(all.status, 0) << all.err;
    EXPECT_EQ(2, count_of(all.out, qxt::format("thread %d\n", kSchedRr))) << all.out;
    // Every thread it had, each 100 units: its own three (and a sanitizer runtime's, if any).
    int threads = 0;
    size_t at = all.out.find("threads ");
    ASSERT_NE(at, std::string::npos) << all.out;
    threads = atoi(all.out.c_str() + at + 8);
    EXPECT_GE(threads, 3);
    EXPECT_EQ(100 * threads, with);
    EXPECT_EQ(0, booked("Domain_Audio"));
}

// A deadline main thread can't create threads (the kernel says EAGAIN); with -a the program
// starts unadmitted and all its threads are admitted once they have settled.
TEST_F(RtctlRun, DeadlineProgramsAreAdmittedWholeOnceTheirThreadsSettle) {
    if (!qxt::emulator().empty())
        GTEST_SKIP() << "qemu-user needs threads of its own, which a deadline thread can't create";
    Result alone = rtctl(run_args({"run", "Domain_Camera", "Class_Preview"}, 1, 0, 0, 0));
    EXPECT_EQ(alone.status, 0) << alone.err;
    EXPECT_TRUE(contains(alone.out, qxt::format("main %d ", kSchedDeadline))) << alone.out;
    EXPECT_TRUE(contains(alone.out, qxt::format("create failed %d\n", EAGAIN))) << alone.out;

    Result all = rtctl(run_args({"run", "--all", "Domain_Camera", "Class_Preview"}, 2, 0, 1000, 0));
    EXPECT_EQ(all.status, 0) << all.err;
    EXPECT_TRUE(contains(all.out, "main 0 ")) << all.out;
    EXPECT_EQ(2, count_of(all.out, qxt::format("thread %d\n", kSchedDeadline))) << all.out;
    EXPECT_EQ(0, booked("Domain_Camera"));
}

// A refused admission: the program never runs, rtctl exits with the result's status.
TEST_F(RtctlRun, ARefusedAdmissionNeverRunsTheProgram) {
    Result r = rtctl(run_args({"run", "Domain_Audio", "Class_None"}, 0, 0, 0, 0));
    EXPECT_EQ(r.status, (int)RT_ERR_NOT_EXIST) << r.err;
    EXPECT_FALSE(contains(r.out, "main")) << r.out;
    EXPECT_TRUE(contains(r.err, "rtctl: run: RT_ERR_NOT_EXIST")) << r.err;
    EXPECT_EQ(0, booked("Domain_Audio"));
}

// A program that isn't there: 127 as a shell says it, and nothing stays booked.
TEST_F(RtctlRun, AMissingProgramExitsWith127) {
    Result r = rtctl({"run", "Domain_Audio", "Class_Mix", "--", "/nonexistent/program"});
    EXPECT_EQ(r.status, 127);
    EXPECT_TRUE(contains(r.err, "rtctl: run: cannot run '/nonexistent/program': No such file"))
        << r.err;
    EXPECT_EQ(0, booked("Domain_Audio"));
}

// add -a takes every thread a running process has.
TEST_F(RtctlRun, AddAllAdmitsEveryThreadOfAProcess) {
    std::vector<std::string> words = qxt::target_command(QXRT_THREAD_SPAWNER);
    for (const char *a : {"2", "0", "3000", "0"}) words.push_back(a);
    pid_t child = fork();
    if (child == 0) {
        std::vector<char *> argv;
        for (std::string &w : words) argv.push_back(&w[0]);
        argv.push_back(nullptr);
        if (freopen("/dev/null", "w", stdout) == nullptr) _exit(126);
        execvp(argv[0], argv.data());
        _exit(127);
    }
    ASSERT_GT(child, 0);
    // Its three threads (and a sanitizer runtime's, if any), once the set has held still.
    std::vector<pid_t> tids, last;
    int still = 0;
    for (int i = 0; i < 300 && (tids.size() < 3 || still < 10); i++) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        tids.clear();
        for (const std::string &e : qxt::files_in(qxt::format("/proc/%d/task", (int)child), ""))
            tids.push_back((pid_t)atoi(e.c_str()));
        still = tids == last ? still + 1 : 0;
        last = tids;
    }
    ASSERT_GE(tids.size(), 3u);
    Result r = rtctl({"add", "-a", "Domain_Audio", "Class_Mix", std::to_string(child)});
    EXPECT_EQ(r.status, 0) << r.err;
    for (pid_t tid : tids) EXPECT_EQ((uint32_t)kSchedRr, qxt::sched_of(tid).policy) << tid;
    EXPECT_EQ(100 * (int32_t)tids.size(), booked("Domain_Audio"));
    for (pid_t tid : tids)
        EXPECT_EQ(rtctl({"remove", "Domain_Audio", std::to_string(tid)}).status, 0);
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    Result gone = rtctl({"add", "-a", "Domain_Audio", "Class_Mix", std::to_string(child)});
    EXPECT_EQ(gone.status, (int)RT_ERR_NOT_EXIST);
    EXPECT_TRUE(contains(gone.err, qxt::format("no process %d", (int)child))) << gone.err;
}
