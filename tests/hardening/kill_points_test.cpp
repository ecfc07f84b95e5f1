// A client may die at any instant: SIGKILL at every system call of every operation, and the next
// admission must find the books and the kernel in agreement.
//
// For each scenario a child process does its setup, stops itself (SIGSTOP) to mark the start of
// the operation, runs the one operation and exits. It is traced with ptrace (syscall stops
// only; nothing is injected into the library). A first run counts the system-call entries of
// the whole operation (N); then for every k in 1..N the scenario is prepared afresh and the child
// is killed at its k-th entry, before that call runs. After each kill a fresh checker process
// (never the traced one) admits and removes a sleeping thread of its own in the domain, which
// reaps dead clients, and then checks by reading the segment and asking the kernel:
//   (a) s32UtilCurrent equals the sum of Util over the in-use slots;
//   (b) the process-ID list names no dead process;
//   (c) the foreign target thread, if any, is SCHED_OTHER in the root groups unless an in-use
//       slot names it;
//   (d) for the lifecycle and domain operations: Init, CreateDomain, AddThread and RemoveThread
//       all return 0 afterwards.
#include <errno.h>
#include <signal.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

#include "hardening_support.h"

using namespace qxt;

namespace {

enum class Op { Add, Lite, Remove, Update, Create, Delete, Init, Deinit };

struct Scenario {
    const char *name;
    Op op;
    const char *domain;
    bool foreign;     // the target thread belongs to another live process
    bool first_call;  // the operation is the process's first call (attach path)
    bool fresh;       // Init on an empty machine: no segment, no lock file
};

void PrintTo(const Scenario &s, std::ostream *os) {
    *os << s.name;
}

QX_REALTIME_UTIL_t lite_util(const std::string &domain) {
    // s32Util, DlDeadlineUs, DlRuntimeUs, DlPeriodUs
    if (is_dl(domain)) return {10, 10000, 1000, 100000};
    return {100, 0, 0, 0};
}

// The traced child. Exit statuses 90..99 mean the setup failed; otherwise the operation's code.
[[noreturn]] void tracee(const Scenario &s, pid_t foreign_tid) {
    if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0) _exit(90);
    std::string cls = class_of(s.domain);
    pid_t target = -1;
    bool thread_op =
        s.op == Op::Add || s.op == Op::Lite || s.op == Op::Remove || s.op == Op::Update;
    if (thread_op) target = s.foreign ? foreign_tid : start_sleeper();
    if (thread_op && target <= 0) _exit(91);
    QX_REALTIME_UTIL_t util = lite_util(s.domain);
    QX_REALTIME_UTIL_t update = {0, 20000, 2000, 100000};
    if (!s.first_call) {
        QX_REALTIME_UTIL_t probe = {0, 0, 0, 0};
        int32_t left = 0;
        switch (s.op) {
        case Op::Remove:
        case Op::Update:
            if (QX_REALTIME_AddThread(s.domain, cls.c_str(), target, 0) != RT_SUCCESS) _exit(92);
            break;
        case Op::Create:
            if (QX_REALTIME_Init(0) != RT_SUCCESS) _exit(93);
            break;
        case Op::Init:
            break;
        default:
            // Attached, the domain mapped: the operation takes the usual path.
            (void)QX_REALTIME_QueryBudget(s.domain, &probe, &left);
            break;
        }
    }
    raise(SIGSTOP);
    uint32_t rc = 0;
    switch (s.op) {
    case Op::Add:
        rc = QX_REALTIME_AddThread(s.domain, cls.c_str(), target, 0);
        break;
    case Op::Lite:
        rc = QX_REALTIME_AddThread_Lite(s.domain, cls.c_str(), &util, target, 0);
        break;
    case Op::Remove:
        rc = QX_REALTIME_RemoveThread(s.domain, target);
        break;
    case Op::Update:
        rc = QX_REALTIME_UpdateThreadUtil(s.domain, &update, target);
        break;
    case Op::Create:
        rc = QX_REALTIME_CreateDomain(s.domain);
        break;
    case Op::Delete:
        rc = (uint32_t)QX_REALTIME_DeleteDomain(s.domain);
        break;
    case Op::Init:
        rc = QX_REALTIME_Init(0);
        break;
    case Op::Deinit:
        rc = QX_REALTIME_Deinit();
        break;
    }
    _exit((int)(rc & 0x7f));
}

struct Traced {
    std::string setup_error;  // the child ended before its mark
    int entries = 0;          // syscall entries seen after the mark
    bool killed = false;      // killed at the requested entry
    long nr = -1;             // the syscall at that entry
    int exit_code = -1;       // when it ran to its end
    int released = 0;         // deadline threads switched out so that the killed child could end
};

// Runs the scenario's child under ptrace; kill_at 0 lets it run to its end.
Traced run_traced(const Scenario &s, pid_t foreign_tid, int kill_at) {
    Traced t;
    fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0) tracee(s, foreign_tid);
    int status = 0;
    if (pid < 0 || waitpid(pid, &status, 0) != pid) {
        t.setup_error = "fork or wait failed";
        return t;
    }
    if (!WIFSTOPPED(status) || WSTOPSIG(status) != SIGSTOP) {
        t.setup_error = WIFEXITED(status) ? qxt::format("setup exited with %d", WEXITSTATUS(status))
                                          : qxt::format("setup ended with status 0x%x", status);
        if (WIFSTOPPED(status)) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
        }
        return t;
    }
    ptrace(PTRACE_SETOPTIONS, pid, nullptr,
           (void *)(long)(PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL));
    int sig = 0;
    for (;;) {
        if (ptrace(PTRACE_SYSCALL, pid, nullptr, (void *)(long)sig) != 0) break;
        sig = 0;
        if (waitpid(pid, &status, 0) != pid) break;
        if (WIFEXITED(status)) {
            t.exit_code = WEXITSTATUS(status);
            return t;
        }
        if (WIFSIGNALED(status)) return t;
        if (!WIFSTOPPED(status)) continue;
        if (WSTOPSIG(status) != (SIGTRAP | 0x80)) {
            sig = WSTOPSIG(status);  // a real signal: deliver it
            continue;
        }
        struct __ptrace_syscall_info info;
        memset(&info, 0, sizeof(info));
        if (ptrace(PTRACE_GET_SYSCALL_INFO, pid, (void *)sizeof(info), &info) <= 0) continue;
        if (info.op != PTRACE_SYSCALL_INFO_ENTRY) continue;
        t.entries++;
        if (kill_at > 0 && t.entries == kill_at) {
            t.nr = (long)info.entry.nr;
            t.killed = true;
            kill(pid, SIGKILL);
            t.released = reap_killed(pid, &status);
            return t;
        }
    }
    kill(pid, SIGKILL);
    t.released = reap_killed(pid, &status);
    return t;
}

class KillPoints : public ::testing::TestWithParam<Scenario> {};

void run_scenario(const Scenario &s) {
    install(0);  // no messages: the traced children's output stays quiet
    Foreign f;
    const bool lifecycle =
        s.op == Op::Create || s.op == Op::Delete || s.op == Op::Init || s.op == Op::Deinit;
    const std::string check_domain = (s.op == Op::Init || s.op == Op::Deinit) ? kRr : s.domain;

    auto prepare = [&]() -> std::string {
        stop_foreign(f);
        std::string err;
        if (s.op == Op::Create) {
            remove_groups(s.domain);
            err = reset({kRr, kDl});
        } else if (s.fresh) {
            wipe_files();
        } else {
            err = reset({kRr, kDl});
        }
        if (!err.empty()) return err;
        if (s.foreign) {
            f = start_foreign();
            if (f.pid <= 0) return "foreign process did not start";
        }
        return "";
    };
    auto check = [&]() -> std::string {
        pid_t foreign_tid = s.foreign ? f.tid : -1;
        ChildResult r = run_child(
            [&]() { return admit_remove_and_check(check_domain, foreign_tid, lifecycle); });
        if (!r.normal_exit || r.exit_code != 0) return r.describe();
        return r.text;
    };

    double t0 = now_s();
    std::string err = prepare();
    ASSERT_EQ("", err) << s.name;
    Traced whole = run_traced(s, f.tid, 0);
    ASSERT_EQ("", whole.setup_error) << s.name;
    ASSERT_EQ(0, whole.exit_code) << s.name << ": the operation itself fails when not killed";
    ASSERT_GT(whole.entries, 0) << s.name;
    std::string after_whole = check();
    EXPECT_EQ("", after_whole) << s.name << ": broken after the whole operation, with no kill";
    const int n = whole.entries;

    int tried = 0, broken = 0, short_runs = 0, released = 0;
    std::string broken_list;
    for (int k = 1; k <= n; k++) {
        err = prepare();
        if (!err.empty()) {
            ADD_FAILURE() << s.name << " k=" << k << ": " << err;
            continue;
        }
        Traced t = run_traced(s, f.tid, k);
        if (!t.setup_error.empty()) {
            ADD_FAILURE() << s.name << " k=" << k << ": " << t.setup_error;
            continue;
        }
        tried++;
        if (!t.killed) short_runs++;  // this run needed fewer calls: it ended on its own
        released += t.released;
        std::string problems = check();
        std::string at = t.killed ? syscall_name(t.nr) : "none, ran to its end";
        if (!problems.empty()) {
            broken++;
            broken_list += qxt::format(" %d(%s)", k, at.c_str());
            ADD_FAILURE() << s.name << ": killed at syscall entry k=" << k << " of " << n
                          << " (syscall " << at << "), then:\n"
                          << problems;
        }
    }
    stop_foreign(f);
    printf(
        "[ kill points ] %s: whole operation %d syscalls; tried %d of %d (%d ended before "
        "their kill point); broken at %d:%s; killed callers whose exit crawled in the minimal "
        "deadline reservation: %d; %.1f s\n",
        s.name, n, tried, n, short_runs, broken,
        broken_list.empty() ? " none" : broken_list.c_str(), released, now_s() - t0);
    fflush(stdout);
}

TEST_P(KillPoints, EveryKillPointLeavesBooksAndKernelConsistent) {
    QXT_REQUIRE_SANDBOX();
    QXT_SKIP_UNDER_EMULATOR("qemu-user does not let one emulated process trace another (ptrace)");
    run_scenario(GetParam());
}

const Scenario kScenarios[] = {
    {"AddThread_Rr_Own", Op::Add, kRr, false, false, false},
    {"AddThread_Rr_Foreign", Op::Add, kRr, true, false, false},
    {"AddThread_Dl_Own", Op::Add, kDl, false, false, false},
    {"AddThread_Dl_Foreign", Op::Add, kDl, true, false, false},
    {"AddThread_Rr_Own_FirstCall", Op::Add, kRr, false, true, false},
    {"AddThread_Dl_Foreign_FirstCall", Op::Add, kDl, true, true, false},
    {"AddThreadLite_Rr_Own", Op::Lite, kRr, false, false, false},
    {"AddThreadLite_Rr_Foreign", Op::Lite, kRr, true, false, false},
    {"AddThreadLite_Dl_Own", Op::Lite, kDl, false, false, false},
    {"AddThreadLite_Dl_Foreign", Op::Lite, kDl, true, false, false},
    {"RemoveThread_Rr_Own", Op::Remove, kRr, false, false, false},
    {"RemoveThread_Rr_Foreign", Op::Remove, kRr, true, false, false},
    {"RemoveThread_Dl_Own", Op::Remove, kDl, false, false, false},
    {"RemoveThread_Dl_Foreign", Op::Remove, kDl, true, false, false},
    {"UpdateThreadUtil_Dl_Own", Op::Update, kDl, false, false, false},
    {"UpdateThreadUtil_Dl_Foreign", Op::Update, kDl, true, false, false},
    {"CreateDomain_Rr", Op::Create, kNew, false, false, false},
    {"CreateDomain_Dl", Op::Create, kNewDl, false, false, false},
    {"DeleteDomain_Rr", Op::Delete, kRr, false, false, false},
    {"Init_Fresh", Op::Init, kRr, false, true, true},
    {"Init_Again", Op::Init, kRr, false, true, false},
    {"Deinit", Op::Deinit, kRr, false, false, false},
};

}  // namespace

INSTANTIATE_TEST_SUITE_P(Hardening, KillPoints, ::testing::ValuesIn(kScenarios),
                         [](const ::testing::TestParamInfo<Scenario> &info) {
                             return std::string(info.param.name);
                         });
