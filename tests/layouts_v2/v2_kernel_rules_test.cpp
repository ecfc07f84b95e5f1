// The kernel's cgroup v2 rules that the v2 layout stands on, asked of the kernel itself in a
// sandbox made with that layout (rt_sandbox --layout v2): single threads move only inside a
// threaded subtree, a child's effective CPUs are what it asks within its parent's, a deadline
// thread's affinity must span its root domain unless a cpuset narrows it, and cpu.stat counts a
// group's time without the cpu controller. Every group made here is removed when its case ends.
#include <errno.h>
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <sstream>
#include <string>
#include <vector>

#include "test_support.h"

using namespace qxt;

namespace {

const std::string kMount = "/sys/fs/cgroup";

// Writes text to a cgroup file in one write(2): 0, or the errno the kernel answered with.
int write_cg(const std::string &path, const std::string &text) {
    int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC);
    if (fd < 0) return errno;
    int err = write(fd, text.data(), text.size()) < 0 ? errno : 0;
    close(fd);
    return err;
}

// The cgroup v2 path (as /proc shows it, from this namespace's root) in a /proc cgroup file.
std::string v2_path_in(const std::string &proc_file) {
    std::istringstream in(read_file(proc_file));
    std::string line;
    while (std::getline(in, line))
        if (line.rfind("0::", 0) == 0) return line.substr(3);
    return "";
}
std::string group_of_thread(pid_t tid) {
    return v2_path_in(format("/proc/self/task/%d/cgroup", tid));
}
std::string group_of_process(pid_t pid) {
    return v2_path_in(format("/proc/%d/cgroup", pid));
}
// A group's directory as /proc names it.
std::string relative(const std::string &dir) {
    return dir.substr(kMount.size());
}

// CPU numbers of a cpuset list ("0-1", "0,2-3").
std::vector<int> cpu_list(const std::string &text) {
    std::vector<int> cpus;
    std::istringstream in(text);
    std::string part;
    while (std::getline(in, part, ',')) {
        if (part.empty() || part == "\n") continue;
        int first = 0, last = 0;
        if (sscanf(part.c_str(), "%d-%d", &first, &last) == 2)
            for (int cpu = first; cpu <= last; cpu++) cpus.push_back(cpu);
        else if (sscanf(part.c_str(), "%d", &first) == 1)
            cpus.push_back(first);
    }
    return cpus;
}

// The Cpus_allowed_list of a thread of this process, as the kernel reports it.
std::string cpus_allowed(pid_t tid) {
    std::istringstream in(read_file(format("/proc/self/task/%d/status", tid)));
    std::string line;
    while (std::getline(in, line))
        if (line.rfind("Cpus_allowed_list:", 0) == 0)
            return line.substr(line.find_first_not_of(" \t", 18));
    return "";
}

bool has_word(const std::string &text, const std::string &word) {
    std::istringstream in(text);
    std::string w;
    while (in >> w)
        if (w == word) return true;
    return false;
}

// usage_usec of a group's cpu.stat, or -1 when the file has none.
long long usage_usec(const std::string &dir) {
    std::istringstream in(read_file(dir + "/cpu.stat"));
    std::string key;
    long long value = 0;
    while (in >> key >> value)
        if (key == "usage_usec") return value;
    return -1;
}

// SCHED_DEADLINE through the raw system call: 0, or the errno the kernel answered with.
struct DeadlineAttr {
    uint32_t size;
    uint32_t policy;
    uint64_t flags;
    int32_t nice;
    uint32_t priority;
    uint64_t runtime, deadline, period;
};
int set_deadline(pid_t tid) {
    DeadlineAttr attr = {sizeof(attr), 6 /* SCHED_DEADLINE */, 0, 0, 0, 1000000, 10000000,
                         10000000};  // 1 ms every 10 ms
    return syscall(SYS_sched_setattr, tid, &attr, 0) == 0 ? 0 : errno;
}
int pin_to(pid_t tid, int cpu) {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(cpu, &set);
    return sched_setaffinity(tid, sizeof(set), &set) == 0 ? 0 : errno;
}

// A cgroup made for one case and removed when it ends. Threads and processes moved into it are
// gone by then (they are declared after it); an exited thread leaves its group a moment later,
// so removal waits for that.
class Group {
public:
    Group(std::string dir, bool threaded) : dir_(std::move(dir)) {
        made_ = mkdir(dir_.c_str(), 0755) == 0 ? 0 : errno;
        if (made_ == 0 && threaded) type_ = write_cg(file("cgroup.type"), "threaded");
    }
    ~Group() {
        if (made_ != 0) return;
        for (int i = 0; i < 200 && rmdir(dir_.c_str()) != 0 && errno == EBUSY; i++) usleep(10000);
    }
    Group(const Group &) = delete;
    Group &operator=(const Group &) = delete;
    const std::string &dir() const { return dir_; }
    std::string file(const char *name) const { return dir_ + "/" + name; }
    // Why it could not be made as asked, or "".
    std::string failure() const {
        if (made_ != 0) return format("mkdir %s: %s", dir_.c_str(), strerror(made_));
        if (type_ != 0) return format("%s threaded: %s", dir_.c_str(), strerror(type_));
        return "";
    }

private:
    std::string dir_;
    int made_ = 0;
    int type_ = 0;
};

// cpuset on for a group's children for one case (off again at the end when it was off).
class CpusetOn {
public:
    explicit CpusetOn(std::string dir) : dir_(std::move(dir)) {
        if (has_word(read_file(dir_ + "/cgroup.subtree_control"), "cpuset")) return;
        err_ = write_cg(dir_ + "/cgroup.subtree_control", "+cpuset");
        turned_on_ = err_ == 0;
    }
    ~CpusetOn() {
        if (turned_on_) write_cg(dir_ + "/cgroup.subtree_control", "-cpuset");
    }
    CpusetOn(const CpusetOn &) = delete;
    CpusetOn &operator=(const CpusetOn &) = delete;
    int error() const { return err_; }

private:
    std::string dir_;
    int err_ = 0;
    bool turned_on_ = false;
};

// A child process that only waits, killed and reaped when the case ends.
struct Sleeper {
    Sleeper() : pid(spawn_child([] {})) {}
    ~Sleeper() { kill_and_reap(pid); }
    pid_t pid;
};

class V2KernelRules : public SandboxTest {
protected:
    V2KernelRules() : SandboxTest(2, "needs 2 CPUs: a group narrower than the machine") {}
    void SetUpInSandbox() override {
        const char *layout = getenv("QXRT_SANDBOX_LAYOUT");
        if (layout == nullptr || strcmp(layout, "v2") != 0)
            GTEST_SKIP() << "runs in a sandbox with --layout v2 only";
        std::string own = group_of_thread((pid_t)syscall(SYS_gettid));
        ASSERT_FALSE(own.empty()) << read_file("/proc/self/cgroup");
        ASSERT_NE("/", own) << "the sandbox keeps its processes in a leaf below its root";
        here_ = kMount + own;
        cpus_ = cpu_list(read_file(here_ + "/cpuset.cpus.effective"));
        ASSERT_GE(cpus_.size(), 2u) << read_file(here_ + "/cpuset.cpus.effective");
    }
    // This process's group, and the CPUs it has.
    std::string here_;
    std::vector<int> cpus_;
};

// A thread of this process moves alone into a threaded child of the process's group: /proc shows
// it there and the other threads where they were, and the group becomes a thread root.
TEST_F(V2KernelRules, OneThreadMovesIntoAThreadedChildOfItsProcesssGroup) {
    Group child(here_ + "/qxrt-rules-moved", true);
    ASSERT_EQ("", child.failure());
    EXPECT_EQ("threaded\n", read_file(child.file("cgroup.type")));
    EXPECT_EQ("domain threaded\n", read_file(here_ + "/cgroup.type"));
    TestThread mover, stayer;
    ASSERT_EQ(0, write_cg(child.file("cgroup.threads"), std::to_string(mover.tid())));

    EXPECT_EQ(relative(child.dir()), group_of_thread(mover.tid()));
    EXPECT_EQ(relative(here_), group_of_thread(stayer.tid()));
    EXPECT_EQ(relative(here_), group_of_thread((pid_t)syscall(SYS_gettid)));
    EXPECT_TRUE(tasks_file_lists(child.file("cgroup.threads"), mover.tid()));
    EXPECT_FALSE(tasks_file_lists(child.file("cgroup.threads"), stayer.tid()));
    EXPECT_TRUE(tasks_file_lists(here_ + "/cgroup.threads", stayer.tid()));
    // The process as a whole stays in its group.
    EXPECT_EQ(relative(here_), group_of_process(getpid()));
}

// A thread of a process whose group is another domain (another threaded subtree) cannot be put
// into this process's threaded child: all threads of a process stay in one threaded subtree.
TEST_F(V2KernelRules, AThreadOfAProcessInAnotherSubtreeIsRefused) {
    Group child(here_ + "/qxrt-rules-mine", true);
    ASSERT_EQ("", child.failure());
    // The other domain beside this process's group (not below it: a group with processes and a
    // populated domain child could not be a thread root).
    Group other(here_.substr(0, here_.rfind('/')) + "/qxrt-rules-other", false);
    ASSERT_EQ("", other.failure());
    Sleeper sleeper;
    ASSERT_EQ(0, write_cg(other.file("cgroup.procs"), std::to_string(sleeper.pid)));
    ASSERT_EQ(relative(other.dir()), group_of_process(sleeper.pid));

    EXPECT_EQ(EOPNOTSUPP, write_cg(child.file("cgroup.threads"), std::to_string(sleeper.pid)));
    EXPECT_EQ(relative(other.dir()), group_of_process(sleeper.pid));
    EXPECT_FALSE(tasks_file_lists(child.file("cgroup.threads"), sleeper.pid));
}

// cpuset.cpus is what a group asks; cpuset.cpus.effective what the kernel grants: the ask
// within the parent's effective CPUs, or the parent's when the two have none in common.
TEST_F(V2KernelRules, AChildsEffectiveCpusAreItsAskWithinItsParents) {
    const std::string first = std::to_string(cpus_.front()), last = std::to_string(cpus_.back());
    const std::string all = read_file(here_ + "/cpuset.cpus.effective");
    CpusetOn here_on(here_);
    ASSERT_EQ(0, here_on.error());
    Group narrow(here_ + "/qxrt-rules-narrow", true);
    ASSERT_EQ("", narrow.failure());
    ASSERT_EQ(0, write_cg(narrow.file("cpuset.cpus"), first));
    EXPECT_EQ(first + "\n", read_file(narrow.file("cpuset.cpus.effective")));
    CpusetOn narrow_on(narrow.dir());
    ASSERT_EQ(0, narrow_on.error());
    Group inner(narrow.dir() + "/qxrt-rules-inner", true);
    ASSERT_EQ("", inner.failure());

    // Every CPU of the machine asked: only the parent's granted; the ask stays as written.
    ASSERT_EQ(0, write_cg(inner.file("cpuset.cpus"), all));
    EXPECT_EQ(all, read_file(inner.file("cpuset.cpus")));
    EXPECT_EQ(first + "\n", read_file(inner.file("cpuset.cpus.effective")));
    // Only a CPU the parent lacks asked: the parent's.
    ASSERT_EQ(0, write_cg(inner.file("cpuset.cpus"), last));
    EXPECT_EQ(last + "\n", read_file(inner.file("cpuset.cpus")));
    EXPECT_EQ(first + "\n", read_file(inner.file("cpuset.cpus.effective")));
}

// Deadline admission needs the thread's affinity to span its root domain (here every CPU: no
// partition): a thread pinned narrower is refused.
TEST_F(V2KernelRules, DeadlineIsRefusedForAThreadPinnedNarrowerThanItsRootDomain) {
    TestThread thread;
    ASSERT_EQ(0, pin_to(thread.tid(), cpus_.front()));
    EXPECT_EQ(EPERM, set_deadline(thread.tid()));
    EXPECT_EQ((uint32_t)SCHED_OTHER, sched_of(thread.tid()).policy);
}

// For the same reason a deadline thread cannot be pinned narrower afterwards. (It ends while
// SCHED_DEADLINE, which gives its bandwidth back at once.)
TEST_F(V2KernelRules, ADeadlineThreadCannotBePinnedNarrower) {
    TestThread thread;
    const std::string all = cpus_allowed(thread.tid());
    ASSERT_EQ(0, set_deadline(thread.tid()));
    EXPECT_EQ(EBUSY, pin_to(thread.tid(), cpus_.front()));
    EXPECT_EQ(all, cpus_allowed(thread.tid()));
    EXPECT_EQ(6u, sched_of(thread.tid()).policy);
}

// But a deadline thread moved into a threaded child whose cpuset is narrower is taken, and the
// cpuset narrows its affinity.
TEST_F(V2KernelRules, ADeadlineThreadMovedIntoANarrowerThreadedChildIsNarrowed) {
    const std::string last = std::to_string(cpus_.back());
    CpusetOn here_on(here_);
    ASSERT_EQ(0, here_on.error());
    Group narrow(here_ + "/qxrt-rules-deadline", true);
    ASSERT_EQ("", narrow.failure());
    ASSERT_EQ(0, write_cg(narrow.file("cpuset.cpus"), last));
    TestThread thread;
    ASSERT_EQ(0, set_deadline(thread.tid()));

    EXPECT_EQ(0, write_cg(narrow.file("cgroup.threads"), std::to_string(thread.tid())));
    EXPECT_EQ(relative(narrow.dir()), group_of_thread(thread.tid()));
    EXPECT_EQ(last, cpus_allowed(thread.tid()));
    EXPECT_EQ(6u, sched_of(thread.tid()).policy);
}

// Every group has cpu.stat, the cpu controller on or not: a threaded child without it counts
// the time of a busy thread put there.
TEST_F(V2KernelRules, CpuStatCountsAThreadedChildsTimeWithoutTheCpuController) {
    Group child(here_ + "/qxrt-rules-stat", true);
    ASSERT_EQ("", child.failure());
    EXPECT_FALSE(has_word(read_file(child.file("cgroup.controllers")), "cpu"))
        << read_file(child.file("cgroup.controllers"));
    const long long before = usage_usec(child.dir());
    ASSERT_GE(before, 0) << read_file(child.file("cpu.stat"));
    TestThread busy(true);
    ASSERT_EQ(0, write_cg(child.file("cgroup.threads"), std::to_string(busy.tid())));
    // 100 ms of CPU time, given up to 10 s (an emulated guest on a loaded host is slow).
    long long grown = 0;
    auto until = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (grown < 100000 && std::chrono::steady_clock::now() < until) {
        usleep(50000);
        grown = usage_usec(child.dir()) - before;
    }
    busy.stop();
    EXPECT_GE(grown, 100000) << read_file(child.file("cpu.stat"));
}

}  // namespace
