#include "test_support.h"

#include "log_sink.h"
#include <dirent.h>
#include <fcntl.h>
#include <string.h>
#include <signal.h>
#include <stdarg.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysinfo.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <sstream>

namespace qxt {

namespace {
// A deadline thread admitted with overrun notification gets SIGXCPU whenever it overruns its
// runtime; a test thread that mostly sleeps does so only on a slow machine (an emulator, a loaded
// CI host), and the default action would end the whole test binary. The tests check the flags
// the library sets, not the kernel's signal, so test processes ignore it.
[[maybe_unused]] const bool g_sigxcpu_ignored = [] {
    return signal(SIGXCPU, SIG_IGN) != SIG_ERR;
}();

std::mutex g_log_mutex;
std::vector<LogLine> g_log_lines;
bool g_capturing = false;

void capture_logger(int priority, const char *tag, const char *message) {
    std::lock_guard<std::mutex> lock(g_log_mutex);
    if (!g_capturing) return;
    g_log_lines.push_back(LogLine{priority, tag ? tag : "", message});
}
}  // namespace

std::string LogLine::file_form() const {
    const std::string info = "<INFO>";
    if (message.compare(0, info.size(), info) == 0) return message.substr(info.size());
    if (message.compare(0, 5, "<ERR>") == 0) {
        size_t pos = message.find("]: ");
        if (pos != std::string::npos) return message.substr(pos + 3);
    }
    return message;
}

// The logger is installed and removed outside the capture's lock: liblog calls the logger under
// its own lock, and the logger takes the capture's, so holding ours while liblog takes its lock
// would order the two locks both ways.
LogCapture::LogCapture() {
    {
        std::lock_guard<std::mutex> lock(g_log_mutex);
        g_log_lines.clear();
        g_capturing = true;
    }
    qx_log_sink::set(capture_logger);
}

LogCapture::~LogCapture() {
    {
        std::lock_guard<std::mutex> lock(g_log_mutex);
        g_capturing = false;
    }
    qx_log_sink::restore_default();
}

std::vector<LogLine> LogCapture::lines() const {
    std::lock_guard<std::mutex> lock(g_log_mutex);
    return g_log_lines;
}

void LogCapture::clear() {
    std::lock_guard<std::mutex> lock(g_log_mutex);
    g_log_lines.clear();
}

int LogCapture::count(int priority, const std::string &file_form) const {
    int n = 0;
    for (const LogLine &line : lines())
        if (line.priority == priority && line.file_form() == file_form) n++;
    return n;
}

int LogCapture::count_containing(const std::string &fragment) const {
    int n = 0;
    for (const LogLine &line : lines())
        if (line.message.find(fragment) != std::string::npos) n++;
    return n;
}

std::string LogCapture::dump() const {
    std::string out;
    for (const LogLine &line : lines())
        out += format("  [%d] %s", line.priority, line.message.c_str());
    return out;
}

bool in_sandbox(std::string *why) {
    if (getenv("QXRT_SANDBOX") != nullptr) return true;
    const char *reason = getenv("QXRT_SANDBOX_UNAVAILABLE");
    *why = std::string("needs the test sandbox (tools/rt_sandbox): ") +
           (reason ? reason : "not started inside it");
    return false;
}

std::string emulator() {
    const char *emu = getenv("QXRT_EMULATOR");
    return emu != nullptr ? emu : "";
}

std::vector<std::string> target_command(const std::string &binary) {
    std::vector<std::string> words;
    std::istringstream in(emulator());
    std::string word;
    while (in >> word) words.push_back(word);
    words.push_back(binary);
    return words;
}

std::string target_shell_command(const std::string &binary) {
    std::string line;
    for (const std::string &word : target_command(binary)) {
        std::string quoted = "'";
        for (char c : word) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
        line += (line.empty() ? "" : " ") + quoted + "'";
    }
    return line;
}

std::string quoted_output(const std::string &output) {
    static const std::string marker = "[  SKIPPED ]";
    std::string out = output;
    for (size_t at = out.find(marker); at != std::string::npos; at = out.find(marker, at))
        out.replace(at, marker.size(), "[ (skipped) ]");
    return out;
}

bool range_mapped(const void *addr, size_t len) {
    uintptr_t begin = (uintptr_t)addr, end = begin + len;
    std::istringstream maps(read_file("/proc/self/maps"));
    std::string line;
    // The lines are sorted by address: walk them while they cover [begin, end) without a gap.
    while (begin < end && std::getline(maps, line)) {
        unsigned long long lo = 0, hi = 0;
        if (sscanf(line.c_str(), "%llx-%llx", &lo, &hi) != 2) continue;
        if (lo <= begin && begin < hi) begin = (uintptr_t)hi;
    }
    return begin >= end;
}

std::string format(const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    char *text = nullptr;
    int n = vasprintf(&text, fmt, ap);
    va_end(ap);
    std::string out = n >= 0 ? text : "";
    free(text);
    return out;
}

void write_file(const std::string &path, const std::string &content) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
}

std::string read_file(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return "";
    std::ostringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

std::vector<std::string> files_in(const std::string &dir, const std::string &prefix) {
    std::vector<std::string> out;
    DIR *handle = opendir(dir.c_str());
    if (handle == nullptr) return out;
    while (struct dirent *entry = readdir(handle)) {
        std::string name = entry->d_name;
        if (name == "." || name == "..") continue;
        if (name.compare(0, prefix.size(), prefix) == 0) out.push_back(name);
    }
    closedir(handle);
    std::sort(out.begin(), out.end());
    return out;
}

bool file_exists(const std::string &path) {
    return access(path.c_str(), F_OK) == 0;
}

mode_t file_mode(const std::string &path) {
    struct stat st;
    if (stat(path.c_str(), &st) != 0) return 0;
    return st.st_mode & 07777;
}

std::string install_config(const std::string &name, const std::string &json) {
    std::string path = "/vendor/etc/realtime/rt-" + name + ".json";
    write_file(path, json);
    set_property(RT_PROP_CFG_NAME, name);
    return path;
}

void install_verify_only_config(const std::string &json) {
    write_file(RT_JSON_VERIFY_ONLY, json);
}

void set_property(const std::string &name, const std::string &value) {
    write_file(std::string(QX_HOST_PROPERTY_DIR) + "/" + name, value);
}

void clear_property(const std::string &name) {
    unlink((std::string(QX_HOST_PROPERTY_DIR) + "/" + name).c_str());
}

void SandboxTest::SetUp() {
    QXT_REQUIRE_SANDBOX();
    if (get_nprocs() < cpus_) GTEST_SKIP() << why_cpus_;
    SetUpInSandbox();
}

namespace {
// A domain object: its own keys, then one object per class with the given members.
std::string domain_object(const std::string &name, int util, const std::string &cpuset,
                          const std::vector<std::pair<std::string, std::string>> &classes) {
    std::string text = format("    \"%s\": {\n        \"Util\": %d,\n        \"Cpuset\": \"%s\"",
                              name.c_str(), util, cpuset.c_str());
    for (const auto &c : classes)
        text += format(",\n        \"%s\": {\n%s\n        }", c.first.c_str(), c.second.c_str());
    return text + "\n    }";
}
}  // namespace

std::string rr_domain(const std::string &name, int util, const std::string &cpuset,
                      const std::vector<RrClass> &classes) {
    std::vector<std::pair<std::string, std::string>> members;
    for (const RrClass &c : classes)
        members.emplace_back(
            c.name, format("            \"Util\": %d,\n            \"RT_Priority\": %d", c.util,
                           c.priority));
    return domain_object(name, util, cpuset, members);
}

std::string dl_domain(const std::string &name, int util, const std::string &cpuset,
                      const std::vector<DlClass> &classes) {
    std::vector<std::pair<std::string, std::string>> members;
    for (const DlClass &c : classes)
        members.emplace_back(c.name, format("            \"DL_RuntimeUs\": %d,\n"
                                            "            \"DL_DeadlineUs\": %d,\n"
                                            "            \"DL_PeriodUs\": %d",
                                            c.runtime_us, c.deadline_us, c.period_us));
    return domain_object(name, util, cpuset, members);
}

std::string join_domains(const std::vector<std::string> &domains) {
    std::string out;
    for (const std::string &d : domains) out += (out.empty() ? "" : ",\n") + d;
    return out;
}

std::string tid_text() {
    return std::to_string(qx_gettid());
}

std::string errno_text(int err) {
    char buf[128];
    return strerror_r(err, buf, sizeof(buf));
}

pid_t dead_pid() {
    pid_t pid = fork();
    if (pid == 0) _exit(0);
    int status;
    waitpid(pid, &status, 0);
    return pid;
}

int open_fd_count() {
    int n = 0;
    DIR *dir = opendir("/proc/self/fd");
    if (dir == nullptr) return -1;
    while (struct dirent *entry = readdir(dir))
        if (entry->d_name[0] != '.') n++;
    closedir(dir);
    return n - 1;  // the directory's own descriptor
}

std::string config_with(int enabled, int util, int dbg_level, int reservation, int budget_cpus,
                        const std::string &domains) {
    std::string text = format(
        "{\n"
        "    \"System_Config\": {\n"
        "        \"Enabled\": %d,\n"
        "        \"Util\": %d,\n"
        "        \"DbgLevel\": %d,\n"
        "        \"Reservation\": %d,\n"
        "        \"BudgetCpuNum\": %d\n"
        "    }",
        enabled, util, dbg_level, reservation, budget_cpus);
    if (!domains.empty()) text += ",\n" + domains;
    text += "\n}\n";
    return text;
}

TestThread::TestThread(bool busy) : TestThread(busy ? 1 : 0, busy ? 0 : 1) {}

TestThread::TestThread(int spin_ms, int sleep_ms) {
    thread_ = std::thread([this, spin_ms, sleep_ms] {
        tid_ = (pid_t)syscall(SYS_gettid);
        while (!stop_.load()) {
            auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(spin_ms);
            while (std::chrono::steady_clock::now() < until && !stop_.load()) {
            }
            if (sleep_ms > 0) usleep((useconds_t)sleep_ms * 1000u);
        }
    });
    while (tid_.load() == 0) usleep(100);
}

TestThread::~TestThread() {
    stop();
}

void TestThread::stop() {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
}

#ifdef QXRT_COVERAGE
// gcov's runtime (gcc and clang): writes this process's counts now.
extern "C" void __gcov_dump(void);
#endif

void exit_child(int rc) {
#ifdef QXRT_COVERAGE
    __gcov_dump();
#endif
    _exit(rc);
}

int run_in_child(const std::function<int()> &fn) {
    fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        int rc = 1;
        try {
            rc = fn();
        } catch (...) {
            rc = 99;
        }
        fflush(nullptr);
        exit_child(rc);
    }
    int status = 0;
    if (pid < 0 || waitpid(pid, &status, 0) != pid) return -1;
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
    return -1;
}

pid_t spawn_child(const std::function<void()> &fn) {
    fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        fn();
        fflush(nullptr);
        for (;;) pause();
    }
    return pid;
}

void kill_and_reap(pid_t pid) {
    if (pid <= 0) return;
    kill(pid, SIGKILL);
    int status;
    waitpid(pid, &status, 0);
}

namespace {
const char kNsLastPid[] = "/proc/sys/kernel/ns_last_pid";
// The inode of the initial PID namespace (PROC_PID_INIT_INO): the host's.
const char kHostPidNamespace[] = "pid:[4026531836]";
}  // namespace

bool can_choose_pids(std::string *why) {
    char link[64] = {};
    if (readlink("/proc/self/ns/pid", link, sizeof(link) - 1) < 0) {
        *why = "no /proc/self/ns/pid: can't tell whose PID namespace this is";
        return false;
    }
    if (strcmp(link, kHostPidNamespace) == 0) {
        *why = "this runs in the host's PID namespace, whose ids a test must not steer";
        return false;
    }
    int fd = open(kNsLastPid, O_WRONLY | O_CLOEXEC);
    if (fd < 0) {
        *why = std::string(kNsLastPid) + " is not writable here (" + strerror(errno) + ")";
        return false;
    }
    close(fd);
    return true;
}

pid_t spawn_child_as(pid_t pid, const std::function<void()> &fn) {
    // Another process of the sandbox may take the id first: a few tries.
    for (int attempt = 0; attempt < 5 && pid > 1; attempt++) {
        std::string last = std::to_string(pid - 1);
        int fd = open(kNsLastPid, O_WRONLY | O_CLOEXEC);
        if (fd < 0) return -1;
        bool written = write(fd, last.data(), last.size()) == (ssize_t)last.size();
        close(fd);
        if (!written) return -1;
        fflush(nullptr);
        pid_t child = fork();
        if (child < 0) return -1;
        if (child == 0) {
            if (getpid() != pid) _exit(0);
            fn();
            fflush(nullptr);
            for (;;) pause();
        }
        if (child == pid) return child;
        int status;
        waitpid(child, &status, 0);
    }
    return -1;
}

SchedInfo sched_of(pid_t tid) {
    SchedInfo info{};
    struct qx_sched_attr attr;
    memset(&attr, 0, sizeof(attr));
    info.ok = syscall(SYS_sched_getattr, tid, &attr, sizeof(attr), 0) == 0;
    info.policy = attr.sched_policy;
    info.flags = attr.sched_flags;
    info.nice = attr.sched_nice;
    info.priority = attr.sched_priority;
    info.runtime = attr.sched_runtime;
    info.deadline = attr.sched_deadline;
    info.period = attr.sched_period;
    return info;
}

std::string cgroup_of(pid_t tid, const std::string &controller) {
    std::istringstream in(read_file(format("/proc/%d/cgroup", (int)tid)));
    std::string line;
    while (std::getline(in, line)) {
        size_t a = line.find(':');
        size_t b = line.find(':', a + 1);
        if (a == std::string::npos || b == std::string::npos) continue;
        std::string list = "," + line.substr(a + 1, b - a - 1) + ",";
        if (list.find("," + controller + ",") != std::string::npos) return line.substr(b + 1);
    }
    return "";
}

bool tasks_file_lists(const std::string &path, pid_t id) {
    std::istringstream in(read_file(path));
    std::string line;
    while (std::getline(in, line))
        if (line == std::to_string(id)) return true;
    return false;
}

static void *map_file(const std::string &path) {
    int fd = open(path.c_str(), O_RDWR);
    if (fd < 0) return nullptr;
    void *addr = mmap(nullptr, RT_SHM_SIZE, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    return addr == MAP_FAILED ? nullptr : addr;
}

QX_REALTIME_DOMAIN_t *map_domain_file(const std::string &domain) {
    return (QX_REALTIME_DOMAIN_t *)map_file(RT_SHM_PREFIX + domain);
}

QX_REALTIME_CENTRAL_t *map_central_file() {
    return (QX_REALTIME_CENTRAL_t *)map_file(RT_SHM_PREFIX "Global");
}

void rebuild_sched_domains() {
    std::string dir = format("/dev/cpuset/qxrt_rebuild_%d", (int)getpid());
    if (mkdir(dir.c_str(), 0755) != 0) return;
    std::string cpus_file = file_exists("/dev/cpuset/cpus") ? "cpus" : "cpuset.cpus";
    std::string mems_file = file_exists("/dev/cpuset/mems") ? "mems" : "cpuset.mems";
    write_file(dir + "/" + mems_file, read_file("/dev/cpuset/" + mems_file));
    write_file(dir + "/" + cpus_file, read_file("/dev/cpuset/" + cpus_file));
    rmdir(dir.c_str());
}

bool bind_over(const std::string &source, const std::string &target, std::string *why) {
    if (mount(source.c_str(), target.c_str(), nullptr, MS_BIND, nullptr) == 0) return true;
    *why = format("bind %s over %s: %s", source.c_str(), target.c_str(), strerror(errno));
    return false;
}

}  // namespace qxt
