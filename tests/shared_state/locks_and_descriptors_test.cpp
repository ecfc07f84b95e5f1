// Lock files and descriptors under real processes: a lock wait interrupted by signals is waited
// through, a lock the kernel refuses is never worked under, a failed chmod leaves nothing open,
// and a client that starts a program hands it none of the library's descriptors.
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <signal.h>
#include <stddef.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "shared_state_support.h"

namespace {

using qxt::LogCapture;

const char kDomain[] = "Domain_Lock";
const char kClass[] = "Class_Rr";
const char kDomainLock[] = "/data/vendor/realtime/flock_rt_Domain_Lock";

class LockFiles : public qxt::SandboxTest {
protected:
    void SetUpInSandbox() override {
        qxt::install_config("locks",
                            qxt::config_with(1, 1024, 2, 80, 2, qxt::rr_domain(kDomain, 500, "0")));
        ASSERT_EQ(RT_SUCCESS, QX_REALTIME_Init(0));
        ASSERT_EQ(RT_SUCCESS, QX_REALTIME_CreateDomain(kDomain));
    }
};

std::atomic<int> g_signals{0};
void count_signal(int) {
    g_signals++;
}

// Whether the thread is blocked in flock, as the kernel tells (/proc/<tid>/syscall).
bool in_flock(pid_t tid) {
    std::string text = qxt::read_file(qxt::format("/proc/self/task/%d/syscall", (int)tid));
    return !text.empty() && atol(text.c_str()) == SYS_flock;
}

// A process that holds the domain's lock until told to let go.
class LockHolder {
public:
    LockHolder() {
        int ready[2], go[2];
        if (pipe(ready) != 0 || pipe(go) != 0) return;
        pid_ = fork();
        if (pid_ == 0) {
            close(ready[0]);
            close(go[1]);
            int fd = open(kDomainLock, O_RDWR | O_CREAT | O_CLOEXEC, 0666);
            char c = fd >= 0 && flock(fd, LOCK_EX) == 0 ? 'L' : 'x';
            if (write(ready[1], &c, 1) != 1) qxt::exit_child(2);
            if (read(go[0], &c, 1) < 0) qxt::exit_child(3);
            flock(fd, LOCK_UN);
            qxt::exit_child(0);
        }
        close(ready[1]);
        close(go[0]);
        go_ = go[1];
        char c = 0;
        held_ = pid_ > 0 && read(ready[0], &c, 1) == 1 && c == 'L';
        close(ready[0]);
    }
    ~LockHolder() { release(); }
    bool held() const { return held_; }
    // Lets go of the lock and waits for the process to end.
    void release() {
        if (pid_ <= 0) return;
        if (write(go_, "g", 1) != 1) {
        }
        close(go_);
        waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }

private:
    pid_t pid_ = -1;
    int go_ = -1;
    bool held_ = false;
};

// A signal that interrupts the wait for a domain's lock (its handler installed without
// SA_RESTART, so flock returns EINTR) does not let the admission go on without the lock: it waits
// until the process holding the lock lets go, and then admits the thread.
TEST_F(LockFiles, SignalsDuringTheLockWaitAreWaitedThrough) {
    struct sigaction sa = {}, old = {};
    sa.sa_handler = count_signal;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = 0;  // no SA_RESTART
    ASSERT_EQ(0, sigaction(SIGUSR1, &sa, &old));
    g_signals = 0;

    qxt::TestThread target;
    LockHolder holder;
    ASSERT_TRUE(holder.held());

    std::atomic<pid_t> worker_tid{0};
    std::atomic<bool> done{false};
    std::atomic<uint32_t> result{~0u};
    std::thread worker([&] {
        worker_tid = (pid_t)syscall(SYS_gettid);
        result = QX_REALTIME_AddThread(kDomain, kClass, target.tid(), 0);
        done = true;
    });
    while (worker_tid == 0) usleep(1000);
    // Until the worker waits in flock (an emulator may not show it: then after two seconds).
    for (int i = 0; i < 2000 && !in_flock(worker_tid); i++) usleep(1000);
    for (int i = 0; i < 10 && !done; i++) {
        syscall(SYS_tgkill, getpid(), (pid_t)worker_tid, SIGUSR1);
        usleep(20000);
    }
    usleep(100000);
    EXPECT_FALSE(done) << "the admission ended while another process held the domain's lock";
    EXPECT_EQ(0u, qxt::sched_of(target.tid()).policy);

    holder.release();
    worker.join();
    // Counted once the worker is done: ThreadSanitizer runs a handler only when the thread next
    // passes through one of its interceptors, after the interrupted call.
    EXPECT_GE(g_signals.load(), 1);
    sigaction(SIGUSR1, &old, nullptr);
    EXPECT_EQ(RT_SUCCESS, result.load());
    EXPECT_EQ((uint32_t)SCHED_RR, qxt::sched_of(target.tid()).policy);
    EXPECT_TRUE(qxt::tasks_file_lists("/dev/cpuset/Domain_Lock/tasks", target.tid()));
    EXPECT_EQ(10, qxt::map_domain_file(kDomain)->s32UtilCurrent);
    EXPECT_EQ(RT_SUCCESS, QX_REALTIME_RemoveThread(kDomain, target.tid()));
}

// Installs a seccomp filter in this (child) process: the system calls nr1 and nr2 (-1: none)
// fail with err; when keep_fd >= 0, a call whose first argument is keep_fd is let through.
bool fail_syscalls(long nr1, long nr2, int err, int keep_fd = -1) {
    uint32_t nr_a = (uint32_t)nr1, nr_b = (uint32_t)(nr2 < 0 ? nr1 : nr2);
    struct sock_filter prog[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(struct seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, nr_a, 1, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, nr_b, 0, 3),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(struct seccomp_data, args[0])),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, (uint32_t)keep_fd, 1, 0),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | (uint32_t)(err & SECCOMP_RET_DATA)),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    struct sock_fprog fprog = {(unsigned short)(sizeof(prog) / sizeof(prog[0])), prog};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &fprog) == 0;
}

const int kNoSeccomp = 77;

// The lowest free descriptor number of this process.
int lowest_free_fd() {
    int fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    close(fd);
    return fd;
}

// The only form of an error-level line that contains the fragment, or why not.
std::string only_error_with(const LogCapture &log, const std::string &fragment) {
    std::string found;
    int n = 0;
    for (const qxt::LogLine &line : log.lines())
        if (line.priority == QX_LOG_PRIO_ERROR &&
            line.file_form().find(fragment) != std::string::npos) {
            found = line.file_form();
            n++;
        }
    return n == 1 ? found : qxt::format("%d lines with \"%s\"", n, fragment.c_str());
}

// A central lock the kernel refuses (flock fails with ENOLCK) is never worked under: every
// operation fails as when the central lock file can't be had, and changes nothing.
TEST_F(LockFiles, RefusedCentralLockFailsTheOperationLikeAMissingLockFile) {
    qxt::TestThread target;
    int status = qxt::run_in_child([&] {
        if (!fail_syscalls(SYS_flock, -1, ENOLCK)) return kNoSeccomp;
        LogCapture log;
        QX_REALTIME_UTIL_t util = {1, 0, 0, 0};
        int32_t left = -7;
        if (QX_REALTIME_AddThread(kDomain, kClass, target.tid(), 0) != RT_ERR_FAILED) return 1;
        if (QX_REALTIME_QueryBudget(kDomain, &util, &left) != RT_ERR_FAILED || left != -7) return 2;
        if (QX_REALTIME_DumpDomainInfo(kDomain) != RT_ERR_FAILED) return 3;
        if (QX_REALTIME_CreateDomain("Domain_Other") != RT_ERR_FAILED) return 4;
        if (QX_REALTIME_DeleteDomain(kDomain) != (int32_t)RT_ERR_FAILED) return 5;
        if (QX_REALTIME_Init(0) != RT_ERR_FAILED) return 6;
        if (QX_REALTIME_Deinit() != RT_ERR_FAILED) return 7;
        // Each said so once, in the words of a lock file that can't be had.
        const std::string head = "[RT_Impl][Err] _QX_REALTIME_GetCentralAndTop (";
        const std::string tail = "), can't get central flock\n";
        int n = 0;
        for (const qxt::LogLine &line : log.lines()) {
            std::string form = line.file_form();
            if (line.priority != QX_LOG_PRIO_ERROR) continue;
            if (form.rfind(head, 0) != 0 || form.size() < head.size() + tail.size() ||
                form.compare(form.size() - tail.size(), tail.size(), tail) != 0)
                return 8;
            n++;
        }
        return n == 7 ? 0 : 9;
    });
    if (status == kNoSeccomp) GTEST_SKIP() << "seccomp filters are not available here";
    EXPECT_EQ(0, status);
    EXPECT_EQ(0u, qxt::sched_of(target.tid()).policy);
    EXPECT_FALSE(qxt::tasks_file_lists("/dev/cpuset/Domain_Lock/tasks", target.tid()));
    EXPECT_TRUE(qxt::file_exists("/dev/shm/realtime/rt_Domain_Lock"));
    EXPECT_TRUE(qxt::file_exists("/dev/shm/realtime/rt_Global"));
    EXPECT_FALSE(qxt::file_exists("/dev/shm/realtime/rt_Domain_Other"));
    EXPECT_EQ(0, qxt::map_domain_file(kDomain)->s32UtilCurrent);
}

// A domain lock the kernel refuses is a domain lock file that can't be had: the lookup's error,
// then the operation's own "pstDomain is NULL" and RT_ERR_NULL, and nothing done.
TEST_F(LockFiles, RefusedDomainLockFailsTheOperationLikeAMissingLockFile) {
    qxt::TestThread target;
    int status = qxt::run_in_child([&] {
        // The central lock file takes the lowest free descriptor; only its flock goes through.
        if (!fail_syscalls(SYS_flock, -1, ENOLCK, lowest_free_fd())) return kNoSeccomp;
        LogCapture log;
        if (QX_REALTIME_AddThread(kDomain, kClass, target.tid(), 0) != RT_ERR_NULL) return 1;
        std::string lookup = only_error_with(log, "can't get Domain_Lock flock");
        if (lookup.rfind("[RT_Impl][Err] _QX_REALTIME_GetDomainFromName (", 0) != 0) return 2;
        if (only_error_with(log, "is NULL") !=
            "[RT_Impl][Err] [QX_REALTIME_AddThread] pstDomain:[Domain_Lock] is NULL.\n")
            return 3;
        log.clear();
        if (QX_REALTIME_DumpDomainInfo(kDomain) != RT_ERR_NULL) return 4;
        if (only_error_with(log, "is NULL") !=
            "[RT_Impl][Err] [QX_REALTIME_DumpDomainInfo] pstDomain is NULL for [Domain_Lock].\n")
            return 5;
        if (only_error_with(log, "Domain: [") != "0 lines with \"Domain: [\"") return 6;
        return 0;
    });
    if (status == kNoSeccomp) GTEST_SKIP() << "seccomp filters are not available here";
    EXPECT_EQ(0, status);
    EXPECT_EQ(0u, qxt::sched_of(target.tid()).policy);
    EXPECT_EQ(0, qxt::map_domain_file(kDomain)->s32UtilCurrent);
}

// chmod can't be made to fail for root on these file systems; a seccomp filter makes the kernel
// refuse it (EPERM) for one child process. A creation whose new segment can't be given its mode
// fails with RT_ERR_SYSTEM and leaves no descriptor open; so does a lock file.
TEST_F(LockFiles, FailedChmodLeavesNoDescriptorOpen) {
#ifdef SYS_chmod
    const long chmod_nr = SYS_chmod;
#else
    const long chmod_nr = -1;
#endif
    // The creation makes no lock file of its domain: the first lookup does.
    ASSERT_FALSE(qxt::file_exists(kDomainLock));
    int status = qxt::run_in_child([&] {
        if (!fail_syscalls(SYS_fchmodat, chmod_nr, EPERM)) return kNoSeccomp;
        int before = qxt::open_fd_count();
        LogCapture log;
        // The segment: created, refused its mode.
        if (QX_REALTIME_CreateDomain("Domain_Other") != RT_ERR_SYSTEM) return 1;
        if (only_error_with(log, "chmod(/dev/shm/realtime/rt_Domain_Other,432) fails")
                .find("errno=Operation not permitted\n") == std::string::npos)
            return 2;
        if (!log.has_error(
                "[RT_Impl][Err] [QX_REALTIME_CreateDomain] shared memory initialization fails\n"))
            return 3;
        if (qxt::open_fd_count() != before) return 4;
        // The lock file: created by the lookup, refused its mode.
        log.clear();
        QX_REALTIME_UTIL_t util = {1, 0, 0, 0};
        int32_t left = -7;
        if (QX_REALTIME_QueryBudget(kDomain, &util, &left) != RT_ERR_NULL) return 5;
        if (only_error_with(log, "chmod(/data/vendor/realtime/flock_rt_Domain_Lock,438) fails")
                .find("errno=Operation not permitted\n") == std::string::npos)
            return 6;
        if (qxt::open_fd_count() != before) return 7;
        return 0;
    });
    if (status == kNoSeccomp) GTEST_SKIP() << "seccomp filters are not available here";
    EXPECT_EQ(0, status);
}

// The targets of the descriptors a program started by this process holds, from its own
// /proc/self/fd listing (ls, run by a real fork and exec).
std::vector<std::string> descriptors_of_a_started_program() {
    int out[2];
    if (pipe2(out, O_CLOEXEC) != 0) return {"pipe failed"};
    pid_t pid = fork();
    if (pid == 0) {
        dup2(out[1], 1);
        execl("/bin/ls", "ls", "-l", "/proc/self/fd/", (char *)nullptr);
        qxt::exit_child(127);
    }
    close(out[1]);
    std::string text;
    char buf[4096];
    ssize_t n;
    while ((n = read(out[0], buf, sizeof(buf))) > 0) text.append(buf, (size_t)n);
    close(out[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    std::vector<std::string> targets;
    size_t at = 0;
    while ((at = text.find(" -> ", at)) != std::string::npos) {
        size_t end = text.find('\n', at);
        targets.push_back(text.substr(at + 4, end - at - 4));
        at = end;
    }
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) targets.push_back("ls failed");
    return targets;
}

bool library_file(const std::string &target) {
    for (const char *dir : {"/dev/shm/realtime/", "/data/vendor/realtime/", "/dev/cpuset/",
                            "/dev/cpuacct/", "/vendor/etc/realtime/", "/proc/"})
        if (target.rfind(dir, 0) == 0 && target.find("/fd") == std::string::npos) return true;
    return false;
}

// A client that starts a program while it holds the library's descriptors (the central and
// domain segments, the per-process log file, and a domain lock file that an operation of another
// thread is waiting on) hands none of them to it.
TEST_F(LockFiles, StartedProgramInheritsNoDescriptorOfTheLibrary) {
    // DbgLevel 7: the per-process log file is open too.
    qxt::install_config("locks",
                        qxt::config_with(1, 1024, 7, 80, 2, qxt::rr_domain(kDomain, 500, "0")));
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_Init(0));
    ASSERT_NE(nullptr, rtlog);
    qxt::TestThread target;
    LockHolder holder;
    ASSERT_TRUE(holder.held());
    std::atomic<pid_t> worker_tid{0};
    std::thread worker([&] {
        worker_tid = (pid_t)syscall(SYS_gettid);
        QX_REALTIME_AddThread(kDomain, kClass, target.tid(), 0);
    });
    while (worker_tid == 0) usleep(1000);
    for (int i = 0; i < 2000 && !in_flock(worker_tid); i++) usleep(1000);

    // What this process holds of the library's files at this moment...
    std::vector<std::string> held;
    for (const std::string &name : qxt::files_in("/proc/self/fd")) {
        char buf[512];
        ssize_t n = readlink(("/proc/self/fd/" + name).c_str(), buf, sizeof(buf) - 1);
        if (n > 0 && library_file(std::string(buf, (size_t)n)))
            held.push_back(std::string(buf, (size_t)n));
    }
    // ...and what the started program got of them.
    std::vector<std::string> inherited;
    for (const std::string &target_path : descriptors_of_a_started_program())
        if (library_file(target_path) || target_path.find("failed") != std::string::npos)
            inherited.push_back(target_path);

    holder.release();
    worker.join();
    EXPECT_EQ(RT_SUCCESS, QX_REALTIME_RemoveThread(kDomain, target.tid()));
    EXPECT_GE(held.size(), 4u) << "the segments, the log file and the domain lock file";
    EXPECT_EQ(std::vector<std::string>{}, inherited);
}

}  // namespace
