// Test support shared by every suite: the log-capture fixture, the sandbox check, configuration
// and property helpers, real threads and processes, and questions to the kernel.
#ifndef QXRT_TEST_SUPPORT_H
#define QXRT_TEST_SUPPORT_H

#include <gtest/gtest.h>
#include <stdint.h>
#include <sys/types.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "qx_realtime_internal.h"

namespace qxt {

// One line that reached the Android log.
struct LogLine {
    int priority;
    std::string tag;
    std::string message;            // as liblog got it: "<ERR>func[line]: ..." or "<INFO>..."
    std::string file_form() const;  // the message without its Android prefix
};

// Captures every Android log line of this process (liblog's __android_log_set_logger).
class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    std::vector<LogLine> lines() const;
    void clear();
    // Lines whose file form equals text exactly, at the given priority.
    int count(int priority, const std::string &file_form) const;
    bool has(int priority, const std::string &file_form) const {
        return count(priority, file_form) > 0;
    }
    bool has_error(const std::string &file_form) const { return has(QX_LOG_PRIO_ERROR, file_form); }
    bool has_info(const std::string &file_form) const { return has(QX_LOG_PRIO_INFO, file_form); }
    // Lines whose file form contains the fragment, at any priority.
    int count_containing(const std::string &fragment) const;
    std::string dump() const;  // every captured line, for failure messages
};

// The log holds the exact line (file form) at the error, or the info, priority; on failure the
// message shows every captured line.
#define QXT_EXPECT_ERROR(log, file_form) EXPECT_TRUE((log).has_error(file_form)) << (log).dump()
#define QXT_EXPECT_INFO(log, file_form) EXPECT_TRUE((log).has_info(file_form)) << (log).dump()
// Nothing at all reached the log.
#define QXT_EXPECT_SILENT(log) EXPECT_TRUE((log).lines().empty()) << (log).dump()

// True inside tools/rt_sandbox; otherwise why not.
bool in_sandbox(std::string *why);

// Skips the current test with one clear reason when the sandbox is missing.
#define QXT_REQUIRE_SANDBOX()                                    \
    do {                                                         \
        std::string qxt_why;                                     \
        if (!qxt::in_sandbox(&qxt_why)) GTEST_SKIP() << qxt_why; \
    } while (0)

// The base of every test that needs the sandbox: SetUp skips the test, with the reason, when it
// is missing, or when the machine has fewer CPUs than the fixture asks for; only then does it call
// SetUpInSandbox, where a derived fixture does its own setting up.
class SandboxTest : public ::testing::Test {
protected:
    SandboxTest() = default;
    SandboxTest(int cpus, std::string why_cpus) : cpus_(cpus), why_cpus_(std::move(why_cpus)) {}
    void SetUp() override;
    virtual void SetUpInSandbox() {}

private:
    int cpus_ = 1;
    std::string why_cpus_;
};

// The emulator that target binaries run under (qemu-user for a cross build, as the sandbox's
// --emulator hands it on), or "" when they run natively.
std::string emulator();
// The command line that starts a target binary from a test: the binary itself, or the emulator
// followed by it.
std::vector<std::string> target_command(const std::string &binary);
// target_command as one shell command line (words quoted for sh).
std::string target_shell_command(const std::string &binary);

// Skips the current test only when it runs under an emulator, because of a fault of the emulator
// itself (not of the library); the reason names the emulator.
#define QXT_SKIP_UNDER_EMULATOR(reason)                                                    \
    do {                                                                                   \
        if (!qxt::emulator().empty())                                                      \
            GTEST_SKIP() << "emulator fault, not tested under " << qxt::emulator() << ": " \
                         << reason;                                                        \
    } while (0)

// Output of another gtest run made safe to print in a failure message: ctest counts a failing
// test whose output shows gtest's skip marker as skipped, so the marker is defused.
std::string quoted_output(const std::string &output);

// Whether every byte of [addr, addr + len) is mapped in this process, from /proc/self/maps (which
// an emulator answers for the emulated process, unlike probing with msync).
bool range_mapped(const void *addr, size_t len);

// printf into a std::string.
std::string format(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

// Files.
void write_file(const std::string &path, const std::string &content);
std::string read_file(const std::string &path);  // "" when unreadable
bool file_exists(const std::string &path);
// The entries of a directory whose names begin with prefix, sorted.
std::vector<std::string> files_in(const std::string &dir, const std::string &prefix = "");
mode_t file_mode(const std::string &path);  // permission bits, 0 when missing
// Binds source over target in the sandbox's private mount namespace; false, with why, on failure.
bool bind_over(const std::string &source, const std::string &target, std::string *why);

// Writes /vendor/etc/realtime/rt-<name>.json and points vendor.kpo.realtime.cfg_name at it.
std::string install_config(const std::string &name, const std::string &json);
// Writes /vendor/etc/realtime/rt_verify_only.json.
void install_verify_only_config(const std::string &json);
// The host property store of the sandbox.
void set_property(const std::string &name, const std::string &value);
void clear_property(const std::string &name);

// A configuration text for tests: system scope plus the given domain objects (without braces).
std::string config_with(int enabled, int util, int dbg_level, int reservation, int budget_cpus,
                        const std::string &domains);

// The classes of a configured domain: a round-robin class (per-thread Util and priority) and a
// deadline class (runtime, deadline and period in microseconds).
struct RrClass {
    std::string name;
    int util;
    int priority;
};
struct DlClass {
    std::string name;
    int runtime_us;
    int deadline_us;
    int period_us;
};
// One domain object of a configuration (no surrounding braces): the domain's own keys, then its
// classes, in order.
std::string rr_domain(const std::string &name, int util, const std::string &cpuset,
                      const std::vector<RrClass> &classes = {{"Class_Rr", 10, 50}});
std::string dl_domain(const std::string &name, int util, const std::string &cpuset,
                      const std::vector<DlClass> &classes = {{"Class_Dl", 1000, 10000, 100000}});
// Domain objects joined into the member list that config_with expects.
std::string join_domains(const std::vector<std::string> &domains);

// A real thread of this process that sleeps (or spins when busy) until stopped; or, with a duty
// cycle, spins for spin_ms and then sleeps for sleep_ms, over and over.
class TestThread {
public:
    explicit TestThread(bool busy = false);
    TestThread(int spin_ms, int sleep_ms);
    ~TestThread();
    pid_t tid() const { return tid_; }
    void stop();

private:
    std::atomic<bool> stop_{false};
    std::atomic<pid_t> tid_{0};
    std::thread thread_;
};

// This thread's id as the library prints it.
std::string tid_text();
// The library's own text of an errno value, as its messages print it.
std::string errno_text(int err);
// A process (and thread) id that no longer exists: a child that has exited and been reaped.
pid_t dead_pid();
// Number of open descriptors of this process (the one that reads them not counted).
int open_fd_count();

// Ends a forked child with status rc at once, as _exit does (no atexit handlers, no stdio flush
// of the parent's copies). In a coverage build the child's counters are written first: without
// that, what a test runs in a child would count as never run.
[[noreturn]] void exit_child(int rc);

// Runs fn in a forked child and returns its exit status (or 128 + signal).
int run_in_child(const std::function<int()> &fn);
// Starts a child process that runs fn and then waits to be killed; returns its pid.
pid_t spawn_child(const std::function<void()> &fn);
void kill_and_reap(pid_t pid);

// Whether this process can choose the id of the next process it starts: only inside a PID
// namespace of its own (never the host's: there ns_last_pid would steer the ids of the host's
// processes), with /proc/sys/kernel/ns_last_pid writable; otherwise why not, in one line.
bool can_choose_pids(std::string *why);
// spawn_child, with the child given the id pid (that of a process that has died and been reaped)
// through ns_last_pid; -1 when the id could not be had.
pid_t spawn_child_as(pid_t pid, const std::function<void()> &fn);
// Long enough for a process started after it to have another start time than one started before
// (start times count clock ticks of 10 ms).
constexpr unsigned kStartTimeTickUs = 30000;

// The kernel's view of a thread.
struct SchedInfo {
    bool ok;
    uint32_t policy;
    uint64_t flags;
    int32_t nice;
    uint32_t priority;
    uint64_t runtime, deadline, period;
};
SchedInfo sched_of(pid_t tid);
// The cgroup path of a thread in the hierarchy that carries the controller ("cpuset", "cpuacct").
std::string cgroup_of(pid_t tid, const std::string &controller);
// Whether id is listed in a cgroup tasks file.
bool tasks_file_lists(const std::string &path, pid_t id);

// Rebuilds the kernel's sched domains (a child cpuset with cpus set, created and removed): drops
// deadline bandwidth that no task holds any more.
void rebuild_sched_domains();

// Mapped view of a domain segment file, for checking records (never for kernel effects).
QX_REALTIME_DOMAIN_t *map_domain_file(const std::string &domain);
QX_REALTIME_CENTRAL_t *map_central_file();

}  // namespace qxt

#endif
