#include "hardening_support.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <ftw.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>

namespace qxt {

const char kRr[] = "Domain_HardRr";
const char kDl[] = "Domain_HardDl";
const char kNew[] = "Domain_HardNew";
const char kNewDl[] = "Domain_HardNewDl";
const char kRrClass[] = "Class_R";
const char kDlClass[] = "Class_D";
const char kNewClass[] = "Class_N";
const char kNewDlClass[] = "Class_ND";

std::string class_of(const std::string &domain) {
    if (domain == kRr) return kRrClass;
    if (domain == kDl) return kDlClass;
    if (domain == kNew) return kNewClass;
    if (domain == kNewDl) return kNewDlClass;
    return "";
}

bool is_dl(const std::string &domain) {
    return domain == kDl || domain == kNewDl;
}

static std::string rr_object(const char *name, int util, const char *cpuset, const char *cls,
                             int class_util, int priority) {
    return qxt::format(
        "    \"%s\": {\n        \"Util\": %d,\n        \"Cpuset\": \"%s\",\n"
        "        \"%s\": {\n            \"Util\": %d,\n"
        "            \"RT_Priority\": %d\n        }\n    }",
        name, util, cpuset, cls, class_util, priority);
}

static std::string dl_object(const char *name, int util, const char *cpuset, const char *cls,
                             int runtime, int deadline, int period) {
    return qxt::format(
        "    \"%s\": {\n        \"Util\": %d,\n        \"Cpuset\": \"%s\",\n"
        "        \"%s\": {\n            \"DL_RuntimeUs\": %d,\n"
        "            \"DL_DeadlineUs\": %d,\n            \"DL_PeriodUs\": %d\n"
        "        }\n    }",
        name, util, cpuset, cls, runtime, deadline, period);
}

std::string config_text(int dbg_level) {
    // Capacity 1000 per core, 2 CPUs, 100 %: a budget of 2000 units, of which the four domains
    // take 1400. Deadline reservations are kept tiny (1 % of a CPU) so that whatever a failure
    // leaves booked in the kernel cannot starve the deadline tests running beside these.
    std::string domains = rr_object(kRr, 600, "0", kRrClass, 100, 10) + ",\n" +
                          dl_object(kDl, 600, "1", kDlClass, 1000, 10000, 100000) + ",\n" +
                          rr_object(kNew, 100, "0", kNewClass, 50, 12) + ",\n" +
                          dl_object(kNewDl, 100, "1", kNewDlClass, 1000, 10000, 100000);
    return qxt::config_with(1, 1000, dbg_level, 100, 2, domains);
}

void install(int dbg_level) {
    qxt::install_config("hardening", config_text(dbg_level));
}

static int remove_entry(const char *path, const struct stat *, int, struct FTW *ftw) {
    if (ftw->level == 0) return 0;  // the directory itself stays
    remove(path);
    return 0;
}

void wipe_files() {
    nftw("/dev/shm/realtime", remove_entry, 16, FTW_DEPTH | FTW_PHYS);
    nftw("/data/vendor/realtime", remove_entry, 16, FTW_DEPTH | FTW_PHYS);
}

void remove_groups(const std::string &domain) {
    rmdir(("/dev/cpuset/" + domain).c_str());
    rmdir(("/dev/cpuacct/" + domain).c_str());
}

std::string reset(const std::vector<std::string> &create) {
    wipe_files();
    ChildResult r = run_child([&create]() -> std::string {
        uint32_t rc = QX_REALTIME_Init(0);
        if (rc != RT_SUCCESS) return qxt::format("Init returned %u", rc);
        for (const std::string &d : create) {
            rc = QX_REALTIME_CreateDomain(d.c_str());
            if (rc != RT_SUCCESS) return qxt::format("CreateDomain(%s) returned %u", d.c_str(), rc);
        }
        return "";
    });
    if (!r.normal_exit || !r.text.empty()) return "reset: " + r.describe();
    return "";
}

namespace {
struct SleeperStart {
    std::atomic<pid_t> tid{0};
    int fd = -1;
};

void *sleeper_main(void *arg) {
    auto *start = (SleeperStart *)arg;
    int fd = start->fd;
    start->tid = (pid_t)syscall(SYS_gettid);
    char c;
    for (;;) {
        if (read(fd, &c, 1) == 0) pause();
    }
    return nullptr;
}
}  // namespace

pid_t start_sleeper() {
    int fds[2];
    if (pipe(fds) != 0) return -1;
    auto *start = new SleeperStart;  // lives as long as the thread: to the end of the process
    start->fd = fds[0];
    pthread_t thread;
    if (pthread_create(&thread, nullptr, sleeper_main, start) != 0) return -1;
    pthread_detach(thread);
    while (start->tid.load() == 0) usleep(50);
    return start->tid.load();
}

Foreign start_foreign() {
    Foreign f;
    int fds[2];
    if (pipe(fds) != 0) return f;
    fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        close(fds[0]);
        pid_t tid = start_sleeper();
        if (write(fds[1], &tid, sizeof(tid)) != (ssize_t)sizeof(tid)) qxt::exit_child(1);
        for (;;) pause();
    }
    close(fds[1]);
    pid_t tid = -1;
    if (pid > 0 && read(fds[0], &tid, sizeof(tid)) == (ssize_t)sizeof(tid)) {
        f.pid = pid;
        f.tid = tid;
    } else if (pid > 0) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
    close(fds[0]);
    return f;
}

// Switches every SCHED_DEADLINE thread of a process to SCHED_OTHER; how many there were.
static int release_deadline_threads(pid_t pid) {
    int released = 0;
    for (const std::string &task : qxt::files_in(qxt::format("/proc/%d/task", (int)pid))) {
        pid_t tid = (pid_t)atoi(task.c_str());
        if (tid <= 0 || sched_of(tid).policy != SCHED_DEADLINE) continue;
        struct qx_sched_attr other;
        memset(&other, 0, sizeof(other));
        other.size = QX_SCHED_ATTR_SIZE;
        other.sched_policy = SCHED_OTHER;
        if (qx_sched_setattr(tid, &other, 0) == 0) released++;
    }
    return released;
}

int reap_killed(pid_t pid, int *status) {
    int st = 0, released = 0;
    double grace = now_s() + 2;
    for (;;) {
        pid_t r = waitpid(pid, &st, WNOHANG);
        if (r < 0 || (r == pid && (WIFEXITED(st) || WIFSIGNALED(st)))) break;
        if (now_s() > grace) {
            released += release_deadline_threads(pid);
            grace = now_s() + 2;
        }
        usleep(500);
    }
    if (status != nullptr) *status = st;
    return released;
}

void stop_foreign(Foreign &f) {
    if (f.pid > 0) {
        kill(f.pid, SIGKILL);
        reap_killed(f.pid, nullptr);
    }
    f = Foreign();
}

std::string ChildResult::describe() const {
    std::string out;
    if (!normal_exit)
        out = signal != 0 ? qxt::format("child killed by signal %d (%s)", signal, strsignal(signal))
                          : "child did not end normally";
    else if (exit_code != 0)
        out = qxt::format("child exited with status %d", exit_code);
    if (!text.empty()) out += (out.empty() ? "" : "; ") + text;
    return out;
}

ChildResult run_child(const std::function<std::string()> &fn, int timeout_s) {
    int fds[2];
    if (pipe(fds) != 0) return ChildResult{false, -1, 0, "pipe failed"};
    ChildResult r;
    fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        close(fds[0]);
        std::string text;
        try {
            text = fn();
        } catch (...) {
            text = "exception";
        }
        const char *p = text.data();
        size_t left = text.size();
        while (left > 0) {
            ssize_t n = write(fds[1], p, left);
            if (n <= 0) break;
            p += n;
            left -= (size_t)n;
        }
        qxt::exit_child(0);
    }
    close(fds[1]);
    if (pid < 0) {
        close(fds[0]);
        r.text = "fork failed";
        return r;
    }
    double deadline = now_s() + timeout_s;
    bool timed_out = false;
    char buf[4096];
    for (;;) {
        int left_ms = (int)((deadline - now_s()) * 1000);
        if (left_ms <= 0) {
            timed_out = true;
            break;
        }
        struct pollfd p = {fds[0], POLLIN, 0};
        int n = poll(&p, 1, left_ms);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            timed_out = n == 0;
            break;
        }
        ssize_t got = read(fds[0], buf, sizeof(buf));
        if (got <= 0) break;
        r.text.append(buf, (size_t)got);
    }
    close(fds[0]);
    if (timed_out) kill(pid, SIGKILL);
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (WIFEXITED(status)) {
        r.normal_exit = !timed_out;
        r.exit_code = WEXITSTATUS(status);
    } else if (WIFSIGNALED(status)) {
        r.signal = timed_out ? 0 : WTERMSIG(status);
    }
    if (timed_out) r.text += qxt::format("(timed out after %d s)", timeout_s);
    return r;
}

Segment read_segment(const std::string &domain) {
    Segment s;
    std::string path = RT_SHM_PREFIX + domain;
    int fd = open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        s.why = qxt::format("%s: %s", path.c_str(), strerror(errno));
        return s;
    }
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        close(fd);
        s.why = path + " is not a regular file";
        return s;
    }
    s.bytes.resize(RT_SHM_SIZE);
    size_t got = 0;
    while (got < s.bytes.size()) {
        ssize_t n = pread(fd, s.bytes.data() + got, s.bytes.size() - got, (off_t)got);
        if (n <= 0) break;
        got += (size_t)n;
    }
    close(fd);
    if (got != (size_t)RT_SHM_SIZE) {
        s.why = qxt::format("%s holds %zu bytes", path.c_str(), got);
        return s;
    }
    memcpy(&s.head, s.bytes.data(), sizeof(s.head));
    int32_t start = s.head.s32ThreadStartOffset, num = s.head.s32ThreadNum;
    if (num > 0 && start >= 0 && start <= RT_SHM_SIZE && start % 4 == 0) {
        int32_t room = (RT_SHM_SIZE - start) / RT_THREAD_SIZE;
        for (int32_t i = 0; i < std::min(num, room); i++) {
            Segment::Slot slot;
            slot.index = i;
            memcpy(&slot.rec, s.bytes.data() + start + RT_THREAD_SIZE * i, sizeof(slot.rec));
            s.slots.push_back(slot);
        }
    }
    s.ok = true;
    return s;
}

bool process_dead(pid_t pid) {
    return kill(pid, 0) != 0 && errno == ESRCH;
}

std::string check_invariants(const std::string &domain, pid_t foreign_tid) {
    std::string out;
    Segment s = read_segment(domain);
    if (!s.ok) return "segment unreadable: " + s.why + "\n";
    uint32_t sum = 0;
    std::string live;
    for (const Segment::Slot &slot : s.slots) {
        if (slot.rec.Alive == 0) continue;
        sum += (uint32_t)slot.rec.Util;
        live += qxt::format(" [slot %d tid %d pid %d util %d]", slot.index, slot.rec.Pid,
                            slot.rec.ProcessID, slot.rec.Util);
    }
    if ((int32_t)sum != s.head.s32UtilCurrent)
        out += qxt::format("(a) %s: s32UtilCurrent %d, but the in-use slots sum to %d:%s\n",
                           domain.c_str(), s.head.s32UtilCurrent, (int32_t)sum,
                           live.empty() ? " none" : live.c_str());
    for (int i = 0; i < RT_PROCESS_ID_LIST_NUM; i++) {
        int32_t pid = s.head.s32ProcessIDList[i];
        if (pid > 0 && process_dead(pid))
            out += qxt::format("(b) %s: process-ID list entry %d names dead process %d\n",
                               domain.c_str(), i, pid);
        else if (pid < 0)
            out +=
                qxt::format("(b) %s: process-ID list entry %d holds %d\n", domain.c_str(), i, pid);
    }
    if (foreign_tid > 0) {
        bool named = false;
        for (const Segment::Slot &slot : s.slots)
            named |= slot.rec.Alive != 0 && slot.rec.Pid == foreign_tid;
        if (!named) {
            qxt::SchedInfo si = qxt::sched_of(foreign_tid);
            std::string cs = qxt::cgroup_of(foreign_tid, "cpuset");
            std::string ca = qxt::cgroup_of(foreign_tid, "cpuacct");
            if (!si.ok || si.policy != SCHED_OTHER || cs != "/" || ca != "/")
                out += qxt::format(
                    "(c) foreign thread %d has no record but policy %u, cpuset %s, "
                    "cpuacct %s\n",
                    (int)foreign_tid, si.policy, cs.c_str(), ca.c_str());
        }
    }
    return out;
}

std::string admit_remove_and_check(const std::string &domain, pid_t foreign_tid,
                                   bool with_init_and_create) {
    std::string out;
    if (with_init_and_create) {
        uint32_t rc = QX_REALTIME_Init(0);
        if (rc != RT_SUCCESS) out += qxt::format("(d) Init returned %u\n", rc);
        rc = QX_REALTIME_CreateDomain(domain.c_str());
        if (rc != RT_SUCCESS)
            out += qxt::format("(d) CreateDomain(%s) returned %u\n", domain.c_str(), rc);
    }
    pid_t t = start_sleeper();
    std::string cls = class_of(domain);
    uint32_t rc = QX_REALTIME_AddThread(domain.c_str(), cls.c_str(), t, 0);
    if (rc == RT_ERR_SCHED_SETATTR && is_dl(domain)) {
        // Deadline bandwidth is one pool for the whole machine, shared with every other test
        // run: drop what nobody holds any more and try once more.
        fprintf(stderr,
                "checker: deadline admission refused, sched domains rebuilt, tried again\n");
        rebuild_sched_domains();
        rc = QX_REALTIME_AddThread(domain.c_str(), cls.c_str(), t, 0);
    }
    if (rc != RT_SUCCESS) {
        out += qxt::format("checker: AddThread(%s, %s, own sleeping thread) returned %u\n",
                           domain.c_str(), cls.c_str(), rc);
    } else {
        qxt::SchedInfo si = qxt::sched_of(t);
        uint32_t want = is_dl(domain) ? 6u : (uint32_t)SCHED_RR;
        if (si.policy != want || qxt::cgroup_of(t, "cpuset") != "/" + domain ||
            qxt::cgroup_of(t, "cpuacct") != "/" + domain)
            out += qxt::format("checker: admitted thread has policy %u, cpuset %s, cpuacct %s\n",
                               si.policy, qxt::cgroup_of(t, "cpuset").c_str(),
                               qxt::cgroup_of(t, "cpuacct").c_str());
        rc = QX_REALTIME_RemoveThread(domain.c_str(), t);
        if (rc != RT_SUCCESS)
            out += qxt::format("checker: RemoveThread(%s, own thread) returned %u\n",
                               domain.c_str(), rc);
        si = qxt::sched_of(t);
        if (si.policy != SCHED_OTHER || qxt::cgroup_of(t, "cpuset") != "/")
            out += qxt::format("checker: removed thread has policy %u, cpuset %s\n", si.policy,
                               qxt::cgroup_of(t, "cpuset").c_str());
    }
    out += check_invariants(domain, foreign_tid);
    return out;
}

std::vector<std::string> library_files() {
    std::vector<std::string> out;
    for (const char *dir : {"/dev/shm/realtime", "/data/vendor/realtime"})
        for (const std::string &name : files_in(dir)) out.push_back(std::string(dir) + "/" + name);
    return out;
}

std::string syscall_name(long nr) {
#define QXT_SYSCALL(name) \
    if (nr == SYS_##name) return qxt::format("%ld %s", nr, #name);
#ifdef SYS_open
    QXT_SYSCALL(open)
#endif
#ifdef SYS_access
    QXT_SYSCALL(access)
#endif
#ifdef SYS_unlink
    QXT_SYSCALL(unlink)
#endif
#ifdef SYS_mkdir
    QXT_SYSCALL(mkdir)
#endif
#ifdef SYS_chmod
    QXT_SYSCALL(chmod)
#endif
#ifdef SYS_stat
    QXT_SYSCALL(stat)
#endif
#ifdef SYS_fstat
    QXT_SYSCALL(fstat)
#endif
#ifdef SYS_lseek
    QXT_SYSCALL(lseek)
#endif
#ifdef SYS_mmap2
    QXT_SYSCALL(mmap2)
#endif
#ifdef SYS_fstatat64
    QXT_SYSCALL(fstatat64)
#endif
#ifdef SYS_fstat64
    QXT_SYSCALL(fstat64)
#endif
#ifdef SYS_ftruncate64
    QXT_SYSCALL(ftruncate64)
#endif

    QXT_SYSCALL(openat)
    QXT_SYSCALL(close)
    QXT_SYSCALL(read)
    QXT_SYSCALL(write)
    QXT_SYSCALL(flock)
#ifdef SYS_mmap
    QXT_SYSCALL(mmap)
#endif
    QXT_SYSCALL(munmap)
    QXT_SYSCALL(ftruncate)
    QXT_SYSCALL(unlinkat)
    QXT_SYSCALL(mkdirat)
    QXT_SYSCALL(fchmodat)
    QXT_SYSCALL(faccessat)
#ifdef SYS_newfstatat
    QXT_SYSCALL(newfstatat)
#endif
    QXT_SYSCALL(sched_setattr)
    QXT_SYSCALL(sched_getattr)
    QXT_SYSCALL(getpgid)
    QXT_SYSCALL(getpid)
    QXT_SYSCALL(gettid)
    QXT_SYSCALL(sysinfo)
    QXT_SYSCALL(exit_group)
    QXT_SYSCALL(brk)
    QXT_SYSCALL(futex)
    QXT_SYSCALL(getdents64)
    QXT_SYSCALL(fcntl)
    QXT_SYSCALL(statx)
    QXT_SYSCALL(uname)
    QXT_SYSCALL(kill)
    QXT_SYSCALL(writev)
#undef QXT_SYSCALL
    return qxt::format("%ld", nr);
}

double now_s() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (double)ts.tv_sec + (double)ts.tv_nsec / 1e9;
}

}  // namespace qxt
