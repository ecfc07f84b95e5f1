// rtctl run and add -a (see rtctl_run.h).
//
// The order of exec and admission: the program's process is forked and waits on a pipe; its
// main thread is admitted, and only then does it exec the program, so the program's first
// instruction already runs with the class's policy, in the domain's CPUs. A round-robin thread's
// policy and cpuset pass to the threads it creates (the kernel's inheritance); with --all each of
// them is also admitted (booked) as it appears. A deadline thread can't create threads at all
// (the kernel refuses its fork or clone with EAGAIN): so with a deadline class and --all the
// program starts unadmitted, and once its set of threads has held still for a while every one of
// them is admitted.
#include "rtctl_run.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>

#include "qx_realtime.h"
#include "result_name.h"
#include "rtctl_hints.h"

namespace rtctl {

namespace {

const int kPollMs = 20;
// A deadline program's threads are admitted once their set has not changed for this long.
const int kSettleMs = 200;

bool thread_exists(pid_t pid, pid_t tid) {
    char path[64];
    snprintf(path, sizeof(path), "/proc/%d/task/%d", (int)pid, (int)tid);
    return access(path, F_OK) == 0;
}

// Waits for the child without being cut short by a signal; its wait status, or -1.
int wait_for(pid_t pid, int flags, int *status) {
    for (;;) {
        pid_t r = waitpid(pid, status, flags);
        if (r >= 0 || errno != EINTR) return r == pid ? 1 : (r == 0 ? 0 : -1);
    }
}

int exit_status_of(int status) {
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
    return 1;
}

// The child: waits for the go (a byte; the pipe closed without one means the admission was
// refused), then execs; a failed exec sends its errno back.
[[noreturn]] void child_main(int go, int failed, const std::vector<std::string> &argv) {
    char byte = 0;
    ssize_t n;
    do n = read(go, &byte, 1);
    while (n < 0 && errno == EINTR);
    if (n != 1) _exit(127);
    std::vector<char *> args;
    for (const std::string &s : argv) args.push_back(const_cast<char *>(s.c_str()));
    args.push_back(nullptr);
    execvp(args[0], args.data());
    int err = errno;
    (void)!write(failed, &err, sizeof(err));
    _exit(err == ENOENT ? 127 : 126);
}

// Follows a running program: with all, admits its new threads (deadline: all at once after they
// settle) until it ends. Its wait status.
int follow(const char *name, const Admission &a, pid_t pid, bool all, bool settle,
           std::set<pid_t> *done) {
    int status = 0;
    if (!all) return wait_for(pid, 0, &status) == 1 ? status : 0;
    std::vector<pid_t> last;
    int still_ms = 0;
    for (;;) {
        if (wait_for(pid, WNOHANG, &status) != 0) return status;
        if (settle) {
            std::vector<pid_t> now = threads_of(pid);
            still_ms = now == last ? still_ms + kPollMs : 0;
            last = now;
            if (still_ms >= kSettleMs) {
                (void)admit_threads(name, a, pid, done);
                settle = false;
            }
        } else {
            (void)admit_threads(name, a, pid, done);
        }
        usleep(kPollMs * 1000);
    }
}

}  // namespace

std::vector<pid_t> threads_of(pid_t pid) {
    std::vector<pid_t> tids;
    char path[64];
    snprintf(path, sizeof(path), "/proc/%d/task", (int)pid);
    DIR *dir = opendir(path);
    if (dir == nullptr) return tids;
    for (dirent *e = readdir(dir); e != nullptr; e = readdir(dir)) {
        char *end = nullptr;
        long tid = strtol(e->d_name, &end, 10);
        if (end != e->d_name && *end == '\0' && tid > 0) tids.push_back((pid_t)tid);
    }
    closedir(dir);
    std::sort(tids.begin(), tids.end());
    return tids;
}

uint32_t admit_threads(const char *name, const Admission &a, pid_t pid, std::set<pid_t> *done) {
    uint32_t first = RT_SUCCESS;
    for (pid_t tid : threads_of(pid)) {
        if (!done->insert(tid).second) continue;
        uint32_t rc =
            QX_REALTIME_AddThread(a.domain.c_str(), a.cls.c_str(), (int32_t)tid, a.overrun ? 1 : 0);
        if (rc == RT_SUCCESS || !thread_exists(pid, tid)) continue;  // one that ended meanwhile
        fprintf(stderr, "rtctl: %s: thread %d: %s (%u)\n", name, (int)tid, result_name(rc), rc);
        if (first == RT_SUCCESS) first = rc;
    }
    return first;
}

int run_program(const char *name, const Admission &a, bool all,
                const std::vector<std::string> &argv, uint32_t *refused,
                const std::function<void()> &reap) {
    *refused = RT_SUCCESS;
    int go[2], failed[2];
    if (pipe2(go, O_CLOEXEC) != 0) return 126;
    if (pipe2(failed, O_CLOEXEC) != 0) {
        close(go[0]);
        close(go[1]);
        return 126;
    }
    fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        close(go[1]);
        close(failed[0]);
        child_main(go[0], failed[1], argv);
    }
    close(go[0]);
    close(failed[1]);
    if (pid < 0) {
        fprintf(stderr, "rtctl: %s: cannot fork: %s\n", name, strerror(errno));
        close(go[1]);
        close(failed[0]);
        return 126;
    }
    std::set<pid_t> done;
    bool settle = all && domain_sched_type(a.domain) == 2;
    uint32_t rc = RT_SUCCESS;
    if (!settle) {
        rc =
            QX_REALTIME_AddThread(a.domain.c_str(), a.cls.c_str(), (int32_t)pid, a.overrun ? 1 : 0);
        done.insert(pid);
    }
    if (rc == RT_SUCCESS) (void)!write(go[1], "g", 1);
    close(go[1]);
    int err = 0, status = 0;
    bool exec_failed = read(failed[0], &err, sizeof(err)) == (ssize_t)sizeof(err);
    close(failed[0]);
    // While the program runs, a terminal's ^C or ^\ is the program's to answer.
    struct sigaction ignore = {}, old_int = {}, old_quit = {};
    ignore.sa_handler = SIG_IGN;
    sigaction(SIGINT, &ignore, &old_int);
    sigaction(SIGQUIT, &ignore, &old_quit);
    if (rc == RT_SUCCESS && !exec_failed)
        status = follow(name, a, pid, all, settle, &done);
    else
        (void)wait_for(pid, 0, &status);
    sigaction(SIGINT, &old_int, nullptr);
    sigaction(SIGQUIT, &old_quit, nullptr);
    if (rc != RT_SUCCESS) {
        *refused = rc;
        return 0;
    }
    reap();
    if (exec_failed) {
        fprintf(stderr, "rtctl: %s: cannot run '%s': %s\n", name, argv[0].c_str(), strerror(err));
        return err == ENOENT ? 127 : 126;
    }
    return exit_status_of(status);
}

}  // namespace rtctl
