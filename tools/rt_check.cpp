// The consistency check behind `rtctl check [--repair]`.
//
// Lock order is the library's: the central lock file only while the list of domains is read,
// then each domain's lock file alone while that domain is examined and repaired. What a repair
// changes in a record it changes under that lock, so no client operation sees half of it.
#include "rt_check.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysinfo.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <set>
#include <sstream>

#include "qx_realtime_internal.h"

namespace rtcheck {
namespace {

const uint32_t kPolicyOther = 0;
const uint32_t kPolicyRr = 2;
const uint32_t kPolicyDeadline = 6;
const uint64_t kFlagReclaim = 0x02;

std::string str(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
std::string str(const char *fmt, ...) {
    char buf[512];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(buf, sizeof(buf), fmt, ap);
    va_end(ap);
    return buf;
}

// The library's own paths of a name's segment and lock file ("" when they can't be formatted).
std::string segment_path(const std::string &name) {
    char buf[RT_PATH_LEN];
    return qx_segment_path(buf, sizeof(buf), name.c_str()) < 0 ? std::string() : buf;
}
std::string lock_path(const std::string &name) {
    char buf[RT_PATH_LEN];
    return qx_lock_path(buf, sizeof(buf), name.c_str()) < 0 ? std::string() : buf;
}

// A descriptor that closes itself.
class Fd {
public:
    explicit Fd(int fd = -1) : fd_(fd) {}
    ~Fd() {
        if (fd_ >= 0) close(fd_);
    }
    Fd(const Fd &) = delete;
    Fd &operator=(const Fd &) = delete;
    int get() const { return fd_; }

private:
    int fd_;
};

// An exclusive flock on a lock file, released (then the file closed) on scope exit.
class FlockGuard {
public:
    explicit FlockGuard(const std::string &name) {
        std::string path = lock_path(name);
        fd_ = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0666);
        if (fd_ >= 0) {
            struct stat st;
            if (fstat(fd_, &st) != 0 || !S_ISREG(st.st_mode) || flock(fd_, LOCK_EX) != 0) {
                close(fd_);
                fd_ = -1;
            }
        }
    }
    ~FlockGuard() {
        if (fd_ < 0) return;
        flock(fd_, LOCK_UN);
        close(fd_);
    }
    FlockGuard(const FlockGuard &) = delete;
    FlockGuard &operator=(const FlockGuard &) = delete;
    bool held() const { return fd_ >= 0; }

private:
    int fd_ = -1;
};

// A whole segment mapped read-write, unmapped on scope exit.
class Mapping {
public:
    explicit Mapping(int fd) {
        void *p = mmap(nullptr, RT_SHM_SIZE, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        addr_ = p == MAP_FAILED ? nullptr : p;
    }
    ~Mapping() {
        if (addr_ != nullptr) munmap(addr_, RT_SHM_SIZE);
    }
    Mapping(const Mapping &) = delete;
    Mapping &operator=(const Mapping &) = delete;
    void *get() const { return addr_; }

private:
    void *addr_;
};

bool process_alive(int32_t pid) {
    if (pid <= 0) return false;
    if (kill(pid, 0) != 0 && errno == ESRCH) return false;
    return access(str("/proc/%d", pid).c_str(), F_OK) == 0;
}

bool thread_alive(int32_t tid) {
    return tid > 0 && access(str("/proc/%d/status", tid).c_str(), F_OK) == 0;
}

std::vector<int32_t> tasks_of(const std::string &path) {
    std::vector<int32_t> ids;
    std::ifstream in(path);
    int32_t id;
    while (in >> id) ids.push_back(id);
    return ids;
}

bool write_text(const std::string &path, const std::string &text) {
    int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0) return false;
    bool ok = write(fd, text.data(), text.size()) == (ssize_t)text.size();
    return close(fd) == 0 && ok;
}

bool getattr(int32_t tid, qx_sched_attr *attr) {
    memset(attr, 0, sizeof(*attr));
    return syscall(SYS_sched_getattr, tid, attr, QX_SCHED_ATTR_SIZE, 0) == 0;
}

bool setattr(int32_t tid, const qx_sched_attr &attr) {
    return syscall(SYS_sched_setattr, tid, &attr, 0) == 0;
}

// The kernel's nanoseconds for a record's microseconds, converted as admission converts them.
uint64_t us_to_ns(int32_t us) {
    return (uint64_t)(int64_t)(int32_t)((uint32_t)us * 1000u);
}

// Back to normal scheduling; a deadline thread steps through the minimal reservation first so
// that its bandwidth is given back at once (see the library's removal).
bool to_normal(int32_t tid) {
    qx_sched_attr now;
    if (!getattr(tid, &now)) return false;
    if (now.sched_policy == kPolicyDeadline) {
        qx_sched_attr minimal;
        memset(&minimal, 0, sizeof(minimal));
        minimal.size = QX_SCHED_ATTR_SIZE;
        minimal.sched_policy = kPolicyDeadline;
        minimal.sched_runtime = QX_DL_MINIMAL_RUNTIME_NS;
        minimal.sched_deadline = minimal.sched_period = QX_DL_MINIMAL_PERIOD_NS;
        (void)setattr(tid, minimal);
    }
    qx_sched_attr normal;
    memset(&normal, 0, sizeof(normal));
    normal.size = QX_SCHED_ATTR_SIZE;
    normal.sched_policy = kPolicyOther;
    return setattr(tid, normal);
}

// What the kernel should show for an admitted thread of this domain.
// class_options: the options kept for the thread's class (see the library's class options).
qx_sched_attr wanted_attr(const QX_REALTIME_DOMAIN_t *d, const QX_REALTIME_THREAD_t *t,
                          uint8_t class_options) {
    qx_sched_attr a;
    memset(&a, 0, sizeof(a));
    a.size = QX_SCHED_ATTR_SIZE;
    if (d->u32SchedType == RT_SCHED_TYPE_DEADLINE) {
        a.sched_policy = kPolicyDeadline;
        a.sched_flags = (class_options & RT_CLASS_OPT_NO_RECLAIM) != 0 ? 0 : kFlagReclaim;
        a.sched_runtime = us_to_ns(t->RuntimeUs);
        a.sched_deadline = us_to_ns(t->DeadlineUs);
        a.sched_period = us_to_ns(t->PeriodUs);
    } else {
        a.sched_policy = kPolicyRr;
        a.sched_priority = (uint32_t)t->Priority;
    }
    return a;
}

bool kernel_matches(const QX_REALTIME_DOMAIN_t *d, const qx_sched_attr &now,
                    const qx_sched_attr &want) {
    if (now.sched_policy != want.sched_policy) return false;
    if (d->u32SchedType == RT_SCHED_TYPE_DEADLINE)
        return now.sched_runtime == want.sched_runtime &&
               now.sched_deadline == want.sched_deadline && now.sched_period == want.sched_period &&
               (now.sched_flags & kFlagReclaim) == (want.sched_flags & kFlagReclaim);
    return now.sched_priority == want.sched_priority;
}

// Thread slots in use, bounded by the segment as the library bounds them.
std::vector<QX_REALTIME_THREAD_t *> slots_of(QX_REALTIME_DOMAIN_t *d) {
    std::vector<QX_REALTIME_THREAD_t *> out;
    int32_t start = d->s32ThreadStartOffset, num = d->s32ThreadNum;
    if (num <= 0 || start < RT_DOMAIN_HEADER_SIZE || start > RT_SHM_SIZE || start % 4 != 0)
        return out;
    num = std::min(num, (RT_SHM_SIZE - start) / RT_THREAD_SIZE);
    for (int32_t i = 0; i < num; i++)
        out.push_back((QX_REALTIME_THREAD_t *)((char *)d + start + RT_THREAD_SIZE * i));
    return out;
}

std::string field(const char *p, size_t n) {
    return std::string(p, strnlen(p, n));
}

std::string cpuset_tasks(const std::string &name) {
    return std::string(RT_CPUSET_ROOT) + name + "/tasks";
}
std::string cpuacct_tasks(const std::string &name) {
    return std::string(RT_CPUACCT_ROOT) + name + "/tasks";
}
// Whether this machine's layout has a cpuacct hierarchy (as the library tells it).
bool has_cpuacct() {
    return qx_cgroup_has_cpuacct() != 0;
}
bool on_cgroup2() {
    return qx_cgroup_layout() == QX_CGROUP_V2;
}
// Whether a thread sits in a domain's threaded group on cgroup v2 (<its home>/qxrt-<name>).
bool in_cgroup2_group(const std::string &name, int32_t tid) {
    char group[QX_CGROUP2_PATH_LEN];
    if (qx_cgroup2_thread_group(tid, group, sizeof(group)) < 0) return false;
    std::string tail = "/" QX_CGROUP2_GROUP_PREFIX + name;
    std::string now(group);
    return now.size() >= tail.size() &&
           now.compare(now.size() - tail.size(), tail.size(), tail) == 0;
}
// The threads the kernel shows in a domain's groups: its cpuset's and cpuacct group's tasks, or on
// cgroup v2 every thread of this machine sitting in a group named for the domain.
std::set<int32_t> group_members(const std::string &name) {
    std::set<int32_t> ids;
    if (on_cgroup2()) {
        DIR *procs = opendir("/proc");
        for (dirent *p = procs ? readdir(procs) : nullptr; p != nullptr; p = readdir(procs)) {
            if (p->d_name[0] < '1' || p->d_name[0] > '9') continue;
            DIR *tasks = opendir(str("/proc/%s/task", p->d_name).c_str());
            for (dirent *t = tasks ? readdir(tasks) : nullptr; t != nullptr; t = readdir(tasks)) {
                int32_t tid = (int32_t)atoi(t->d_name);
                if (tid > 0 && in_cgroup2_group(name, tid)) ids.insert(tid);
            }
            if (tasks != nullptr) closedir(tasks);
        }
        if (procs != nullptr) closedir(procs);
        return ids;
    }
    for (const std::string &path : {cpuset_tasks(name), cpuacct_tasks(name)}) {
        if (path == cpuacct_tasks(name) && !has_cpuacct()) continue;
        for (int32_t id : tasks_of(path)) ids.insert(id);
    }
    return ids;
}

class Checker {
public:
    Checker(bool repair, std::vector<Finding> *out) : repair_(repair), out_(out) {}

    void check_domain(const std::string &name);
    void check_central();
    void check_central_record(QX_REALTIME_CENTRAL_t *c);

private:
    void found(const std::string &where, const std::string &what, const std::string &action) {
        out_->push_back(Finding{where, what, repair_ ? action : std::string()});
    }
    // The repairs of a segment file, done only when asked for: its removal (so that it is made
    // anew; done says what then) and its mode. Each says what it did or why it could not.
    std::string removal(const std::string &path, const char *done) {
        if (!repair_) return "";
        return unlink(path.c_str()) == 0 ? done : str("could not unlink: %s", strerror(errno));
    }
    std::string mode_set(const std::string &path, mode_t mode) {
        if (!repair_) return "";
        return chmod(path.c_str(), mode) == 0 ? str("mode set to %04o", (unsigned)mode)
                                              : str("could not chmod: %s", strerror(errno));
    }
    void check_record(const std::string &name, QX_REALTIME_DOMAIN_t *d);
    void check_threads(const std::string &name, QX_REALTIME_DOMAIN_t *d);
    void check_groups(const std::string &name, QX_REALTIME_DOMAIN_t *d);
    void check_cpus(const std::string &name, QX_REALTIME_DOMAIN_t *d);

    bool repair_;
    std::vector<Finding> *out_;
    // The domains whose live records name each thread, in the order they were checked.
    std::map<int32_t, std::vector<std::string>> booked_;

public:
    void check_bookings();
};

void Checker::check_central() {
    std::string path = segment_path(RT_CENTRAL_NAME);
    struct stat st;
    if (lstat(path.c_str(), &st) != 0) return;
    if (!S_ISREG(st.st_mode)) {
        // It holds no settings and no process can have it mapped: removed, Init makes it anew.
        std::string action =
            removal(path, "removed; call QX_REALTIME_Init (rtctl init) to make it anew");
        found(RT_CENTRAL_NAME, "the central segment is not a regular file", action);
        return;
    }
    if (st.st_size != RT_SHM_SIZE) {
        std::string action;
        if (repair_) {
            action = truncate(path.c_str(), RT_SHM_SIZE) == 0
                         ? "sized to 16384 bytes; call QX_REALTIME_Init to restore the settings"
                         : str("could not size it: %s", strerror(errno));
        }
        found(RT_CENTRAL_NAME,
              str("the central segment is %lld bytes, not %d", (long long)st.st_size, RT_SHM_SIZE),
              action);
    }
    if ((st.st_mode & 0777) != 0666) {
        found(RT_CENTRAL_NAME,
              str("the central segment has mode %04o, not 0666", st.st_mode & 0777),
              mode_set(path, 0666));
    }
}

// Names of the domains that have a segment file, sorted.
std::vector<std::string> segment_names() {
    std::set<std::string> names;
    const std::string dir = RT_SHM_PREFIX;
    size_t slash = dir.rfind('/');
    DIR *dp = opendir(dir.substr(0, slash).c_str());
    if (dp != nullptr) {
        std::string prefix = dir.substr(slash + 1);
        while (dirent *e = readdir(dp)) {
            std::string f = e->d_name;
            if (f.compare(0, prefix.size(), prefix) == 0 && f.size() > prefix.size() &&
                f != prefix + RT_CENTRAL_NAME)
                names.insert(f.substr(prefix.size()));
        }
        closedir(dp);
    }
    return std::vector<std::string>(names.begin(), names.end());
}

// The domain's s32UtilMax read from its sound segment, under its lock; false when there is none.
bool segment_util_max(const std::string &name, int32_t *out) {
    FlockGuard lock(name);
    if (!lock.held()) return false;
    std::string path = segment_path(name);
    Fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
    struct stat st;
    if (fd.get() < 0 || fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode) ||
        st.st_size != RT_SHM_SIZE)
        return false;
    QX_REALTIME_DOMAIN_t d;
    if (pread(fd.get(), &d, sizeof(d), 0) != (ssize_t)sizeof(d)) return false;
    if (strncmp(d.szName, name.c_str(), RT_NAME_LEN) != 0) return false;
    uint32_t mark = 0;
    if (pread(fd.get(), &mark, sizeof(mark), RT_DOMAIN_MARK_OFFSET) != (ssize_t)sizeof(mark) ||
        mark == RT_DOMAIN_CREATING)
        return false;
    *out = d.s32UtilMax;
    return true;
}

// The central record against itself and the domain segments: the count of domains, each listed
// name (a name, and listed once), the entries past the count (never written), the total against
// the listed utilisations, and the settings' reserved bytes (never written). What the repair can
// rebuild it rebuilds from the domain segments: the list keeps its sound names in order, then
// every other domain with a sound segment, each with its segment's s32UtilMax where there is
// one, and the total is their sum. The reserved bytes go back to zero; the other settings come
// from the configuration only, and `rtctl init` reads them again.
void Checker::check_central_record(QX_REALTIME_CENTRAL_t *c) {
    std::vector<std::string> problems;
    int32_t num = c->s32DomainNum;
    if (num < 0 || num > RT_MAX_DOMAIN)
        problems.push_back(str("s32DomainNum is %d, not 0 to %d", num, RT_MAX_DOMAIN));
    num = std::max(0, std::min(num, RT_MAX_DOMAIN));
    std::vector<int32_t> kept;  // the entries that hold a sound name, listed once
    std::set<std::string> seen;
    for (int32_t i = 0; i < num; i++) {
        const char *entry = c->szDomainNameList[i];
        if (!is_domain_name(entry, RT_NAME_LEN)) {
            problems.push_back(str("entry %d of the domain list is not a domain name", i));
            continue;
        }
        if (!seen.insert(entry).second) {
            problems.push_back(str("entry %d of the domain list repeats %s", i, entry));
            continue;
        }
        kept.push_back(i);
    }
    for (int32_t i = num; i < RT_MAX_DOMAIN; i++) {
        const char *entry = c->szDomainNameList[i];
        bool blank = c->s32DomainUtilList[i] == 0;
        for (int b = 0; b < RT_NAME_LEN && blank; b++) blank = entry[b] == '\0';
        if (!blank) problems.push_back(str("entry %d, past the count of domains, is not empty", i));
    }
    int32_t total = 0;
    for (int32_t i = 0; i < num; i++) total = qx_wrap_add(total, c->s32DomainUtilList[i]);
    if (problems.empty() && total != c->s32UtilTotal)
        problems.push_back(str("s32UtilTotal is %d but the domains' utilisations add up to %d",
                               c->s32UtilTotal, total));
    if (c->au8Reserved[0] != 0 || c->au8Reserved[1] != 0 || c->au8Reserved[2] != 0) {
        std::string what =
            str("the settings are damaged (reserved bytes %02x %02x %02x, never written)",
                c->au8Reserved[0], c->au8Reserved[1], c->au8Reserved[2]);
        if (repair_) memset(c->au8Reserved, 0, sizeof(c->au8Reserved));
        found(RT_CENTRAL_NAME, what,
              "reserved bytes set to zero; the other settings may be damaged too: rtctl init "
              "reads them again from the configuration");
    }
    if (problems.empty()) return;

    std::string action;
    if (repair_) {
        QX_REALTIME_CENTRAL_t rebuilt;
        memcpy(&rebuilt, c, sizeof(rebuilt));
        memset(rebuilt.szDomainNameList, 0, sizeof(rebuilt.szDomainNameList));
        memset(rebuilt.s32DomainUtilList, 0, sizeof(rebuilt.s32DomainUtilList));
        int32_t n = 0, sum = 0;
        for (int32_t i : kept) {
            memcpy(rebuilt.szDomainNameList[n], c->szDomainNameList[i], RT_NAME_LEN);
            int32_t util = c->s32DomainUtilList[i];
            (void)segment_util_max(c->szDomainNameList[i], &util);
            rebuilt.s32DomainUtilList[n++] = util;
            sum = qx_wrap_add(sum, util);
        }
        for (const std::string &name : segment_names()) {
            int32_t util = 0;
            if (n == RT_MAX_DOMAIN || seen.count(name) != 0 || name.size() > RT_DOMAIN_NAME_MAX ||
                !segment_util_max(name, &util))
                continue;
            memcpy(rebuilt.szDomainNameList[n], name.c_str(), name.size());
            rebuilt.s32DomainUtilList[n++] = util;
            sum = qx_wrap_add(sum, util);
        }
        rebuilt.s32DomainNum = n;
        rebuilt.s32UtilTotal = sum;
        memcpy(c, &rebuilt, sizeof(rebuilt));
        action = str("domain list rebuilt: %d domains, total %d", n, sum);
    }
    for (const std::string &problem : problems) found(RT_CENTRAL_NAME, problem, action);
}

void Checker::check_domain(const std::string &name) {
    std::string path = segment_path(name);
    FlockGuard lock(name);
    if (!lock.held()) {
        found(name, "its lock file can't be opened and locked", "");
        return;
    }
    struct stat st;
    if (lstat(path.c_str(), &st) != 0) return;  // deleted: the central list keeps its name
    if (!S_ISREG(st.st_mode)) {
        std::string action = removal(path, "removed; create the domain again");
        found(name, "its segment is not a regular file", action);
        return;
    }
    if (st.st_size != RT_SHM_SIZE) {
        std::string action = removal(path, "removed; create the domain again");
        found(name, str("its segment is %lld bytes, not %d", (long long)st.st_size, RT_SHM_SIZE),
              action);
        return;
    }
    if ((st.st_mode & 0777) != 0660) {
        found(name, str("its segment has mode %04o, not 0660", st.st_mode & 0777),
              mode_set(path, 0660));
    }
    Fd fd(open(path.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW));
    if (fd.get() < 0) {
        found(name, str("its segment can't be opened: %s", strerror(errno)), "");
        return;
    }
    Mapping map(fd.get());
    if (map.get() == nullptr) {
        found(name, str("its segment can't be mapped: %s", strerror(errno)), "");
        return;
    }
    auto *d = (QX_REALTIME_DOMAIN_t *)map.get();
    uint32_t mark;
    memcpy(&mark, (char *)d + RT_DOMAIN_MARK_OFFSET, sizeof(mark));
    if (mark == RT_DOMAIN_CREATING || d->szName[0] == '\0') {
        std::string action = removal(path, "removed; create the domain again");
        found(name, "half-created: its creator died before it was done", action);
        return;
    }
    check_record(name, d);
    check_threads(name, d);
    check_groups(name, d);
    check_cpus(name, d);
}

void Checker::check_record(const std::string &name, QX_REALTIME_DOMAIN_t *d) {
    struct Expect {
        const char *field;
        char *dst;
        size_t size;
        std::string value;
    } expected[] = {
        {"szName", d->szName, RT_NAME_LEN, name},
        // Empty on cgroup v2, where a domain has no group of its own.
        {"pszCpusetPathRoot", d->pszCpusetPathRoot, RT_PATH_LEN,
         on_cgroup2() ? "" : RT_CPUSET_ROOT + name},
        {"pszCpusetPathTasks", d->pszCpusetPathTasks, RT_PATH_LEN,
         on_cgroup2() ? "" : cpuset_tasks(name)},
        // Empty where there is no cpuacct hierarchy: no record names a file that isn't there.
        {"pszCpuacctPathRoot", d->pszCpuacctPathRoot, RT_PATH_LEN,
         has_cpuacct() ? RT_CPUACCT_ROOT + name : ""},
        {"pszCpuacctPathTasks", d->pszCpuacctPathTasks, RT_PATH_LEN,
         has_cpuacct() ? cpuacct_tasks(name) : ""},
    };
    for (Expect &e : expected) {
        std::string now = field(e.dst, e.size);
        if (now == e.value && strnlen(e.dst, e.size) < e.size) continue;
        std::string action;
        if (repair_) {
            memset(e.dst, 0, e.size);
            memcpy(e.dst, e.value.data(), std::min(e.value.size(), e.size - 1));
            action = "set to \"" + e.value + "\"";
        }
        found(name, str("%s is \"%.100s\", not \"%s\"", e.field, now.c_str(), e.value.c_str()),
              action);
    }
}

// Whether admission moves the domain's threads into its cpuset: a budget, and fewer CPUs than
// the machine.
bool moves_into_cpuset(const QX_REALTIME_DOMAIN_t *d) {
    return d->s32UtilMax >= 1 && d->s32CpuNum != get_nprocs();
}

// Whether a thread is where admission puts it: in the domain's cpuacct group, or without cpuacct
// in its cpuset (its threaded group on cgroup v2) when admission moves it there (elsewhere no
// group tells).
bool in_domain_groups(const std::string &name, const QX_REALTIME_DOMAIN_t *d, int32_t tid) {
    if (!has_cpuacct() && !moves_into_cpuset(d)) return true;
    if (on_cgroup2()) return in_cgroup2_group(name, tid);
    std::string membership = has_cpuacct() ? cpuacct_tasks(name) : cpuset_tasks(name);
    for (int32_t id : tasks_of(membership))
        if (id == tid) return true;
    return false;
}

// A domain's identity file, read whole: the start times kept for its records (see the library's
// thread identities). A record freed by a repair loses its entry first, as the library frees one.
class Identities {
public:
    explicit Identities(const std::string &name)
        : fd_(qx_identity_open(name.c_str(), QX_IDENTITY_EXISTING)) {
        ok_ = fd_.get() >= 0 && qx_identity_read(fd_.get(), entries_, options_) == 0;
    }
    // The options of the class with this index; 0 (the defaults) when the file has none.
    uint8_t class_options(int32_t idx) const {
        return ok_ && idx >= 0 && idx < RT_CLASS_OPTIONS_NUM ? options_[idx] : 0;
    }
    const QX_REALTIME_IDENTITY_t *of(size_t slot, const QX_REALTIME_THREAD_t *t) const {
        return ok_ && slot < (size_t)RT_IDENTITY_SLOTS ? qx_identity_of(t, &entries_[slot])
                                                       : nullptr;
    }
    void erase(size_t slot) {
        if (!ok_ || slot >= (size_t)RT_IDENTITY_SLOTS) return;
        QX_REALTIME_IDENTITY_t none = {0, 0, 0, 0};
        if (memcmp(&entries_[slot], &none, sizeof(none)) == 0) return;
        if (qx_identity_write(fd_.get(), (int32_t)slot, &none) == 0) entries_[slot] = none;
    }

private:
    Fd fd_;
    bool ok_ = false;
    QX_REALTIME_IDENTITY_t entries_[RT_IDENTITY_SLOTS];
    uint8_t options_[RT_CLASS_OPTIONS_NUM] = {};
};

// Frees a record and returns its utilisation to the domain; what the repair did.
std::string free_record(QX_REALTIME_DOMAIN_t *d, QX_REALTIME_THREAD_t *t) {
    t->Alive = 0;
    d->s32UtilCurrent = (int32_t)((uint32_t)d->s32UtilCurrent - (uint32_t)t->Util);
    return "record freed, its utilisation returned";
}

void Checker::check_threads(const std::string &name, QX_REALTIME_DOMAIN_t *d) {
    int64_t sum = 0;
    Identities ids(name);
    qx_start_cache_t starts = {};
    std::vector<QX_REALTIME_THREAD_t *> slots = slots_of(d);
    for (size_t i = 0; i < slots.size(); i++) {
        QX_REALTIME_THREAD_t *t = slots[i];
        if (t->Alive == 0) continue;
        bool gone = !process_alive(t->ProcessID) && t->ProcessID != 0;
        if (gone || !thread_alive(t->Pid)) {
            std::string action;
            if (repair_) {
                ids.erase(i);  // the identity before the slot, as the library orders it
                action = free_record(d, t);
            }
            found(name,
                  gone ? str("record of thread %d of process %d, which has died", t->Pid,
                             t->ProcessID)
                       : str("record of thread %d, which has ended", t->Pid),
                  action);
            if (repair_) continue;
        }
        // Alive, but perhaps no longer the one admitted: its id given to a newcomer.
        int other = qx_identity_check(t, ids.of(i, t), &starts);
        if (other != QX_IDENTITY_SAME) {
            std::string action;
            if (repair_) {
                ids.erase(i);  // the identity before the slot, as the library orders it
                action = free_record(d, t);
            }
            found(name,
                  other == QX_IDENTITY_OTHER_PROCESS
                      ? str("record of thread %d of process %d, which has died: its process id "
                            "names another process now",
                            t->Pid, t->ProcessID)
                      : str("record of thread %d, which has ended: its id names another thread "
                            "now",
                            t->Pid),
                  action);
            if (!repair_) sum += t->Util;
            continue;
        }
        sum += t->Util;
        if (!thread_alive(t->Pid)) continue;
        std::vector<std::string> &in = booked_[t->Pid];
        if (std::find(in.begin(), in.end(), name) == in.end()) in.push_back(name);
        qx_sched_attr now = {};
        qx_sched_attr want = wanted_attr(d, t, ids.class_options(t->ClassIdx));
        bool in_cpuset = moves_into_cpuset(d);
        bool in_group = in_domain_groups(name, d, t->Pid);
        if (getattr(t->Pid, &now) && kernel_matches(d, now, want) && in_group) continue;
        std::string action;
        if (repair_) {
            // As admission orders it: the policy before the move into a narrower cpuset.
            (void)qx_cgroup_park_in_root_cpuset(t->Pid);
            if (!setattr(t->Pid, want)) {
                action = str("could not apply the policy again: %s", strerror(errno));
            } else {
                if (in_cpuset) (void)qx_cgroup_return_to_domain_cpuset(d, t->Pid);
                if (has_cpuacct()) (void)write_text(cpuacct_tasks(name), str("%d", t->Pid));
                action = "policy and groups applied again";
            }
        }
        // The state a thread is left in when its caller dies between the two steps by which a
        // thread leaves SCHED_DEADLINE: it gets a microsecond of CPU every 4 s, and if its
        // process is dying, that exit crawls for hours. Applying the record's policy frees it.
        bool stranded = now.sched_policy == kPolicyDeadline &&
                        now.sched_runtime == QX_DL_MINIMAL_RUNTIME_NS &&
                        now.sched_period == QX_DL_MINIMAL_PERIOD_NS;
        found(name,
              stranded ? str("thread %d is left in the minimal deadline reservation (%llu ns "
                             "every %llu ns): its caller died while it left SCHED_DEADLINE",
                             t->Pid, (unsigned long long)QX_DL_MINIMAL_RUNTIME_NS,
                             (unsigned long long)QX_DL_MINIMAL_PERIOD_NS)
                       : str("thread %d is recorded but the kernel differs (policy %u%s)", t->Pid,
                             now.sched_policy, in_group ? "" : ", outside the domain's groups"),
              action);
    }
    for (int32_t i = 0; i < std::min(d->processIDListNum, RT_PROCESS_ID_LIST_NUM); i++) {
        int32_t pid = d->s32ProcessIDList[i];
        if (pid == 0 || process_alive(pid)) continue;
        std::string action;
        if (repair_) {
            // Its records go with it, as the library's reaping does.
            for (size_t s = 0; s < slots.size(); s++) {
                QX_REALTIME_THREAD_t *t = slots[s];
                if (t->Alive != 0 && t->ProcessID == pid) {
                    ids.erase(s);
                    t->Alive = 0;
                    sum -= t->Util;
                    d->s32UtilCurrent = (int32_t)((uint32_t)d->s32UtilCurrent - (uint32_t)t->Util);
                }
            }
            d->s32ProcessIDList[i] = 0;
            action = "taken off the list";
        }
        found(name, str("process %d is listed but has died", pid), action);
    }
    if (sum != d->s32UtilCurrent) {
        std::string what = str("s32UtilCurrent is %d but the records add up to %lld",
                               d->s32UtilCurrent, (long long)sum);
        std::string action;
        if (repair_) {
            d->s32UtilCurrent = (int32_t)sum;
            action = str("s32UtilCurrent set to %lld", (long long)sum);
        }
        found(name, what, action);
    }
}

void Checker::check_groups(const std::string &name, QX_REALTIME_DOMAIN_t *d) {
    std::set<int32_t> recorded;
    for (QX_REALTIME_THREAD_t *t : slots_of(d))
        if (t->Alive != 0) recorded.insert(t->Pid);
    std::set<int32_t> strays;
    for (int32_t id : group_members(name))
        if (recorded.count(id) == 0) strays.insert(id);
    for (int32_t tid : strays) {
        qx_sched_attr now;
        bool rt = getattr(tid, &now) && now.sched_policy != kPolicyOther;
        std::string action;
        if (repair_) {
            // Both moves are tried, whatever the first one gives.
            bool moved_cpuset = qx_cgroup_park_in_root_cpuset(tid) == NULL;
            bool moved_cpuacct = !has_cpuacct() ||
                                 write_text(std::string(RT_CPUACCT_ROOT) + "tasks", str("%d", tid));
            bool moved = moved_cpuset && moved_cpuacct;
            bool normal = !rt || to_normal(tid);
            if (moved && normal)
                action = rt ? "moved to the root groups, back to normal scheduling"
                            : "moved to the root groups";
            else
                action = str("could not %s%s", moved ? "" : "move it to the root groups",
                             normal ? ""
                                    : (moved ? "set it to normal scheduling"
                                             : " nor set it to normal scheduling"));
        }
        found(name,
              str("thread %d is in the domain's groups%s without a record", tid,
                  rt ? " and real-time" : ""),
              action);
    }
}

// A thread admitted to a second domain is booked in both, and each charges it. Which booking is
// the wrong one only its caller knows, so the repair leaves both: it reports.
void Checker::check_bookings() {
    for (const auto &entry : booked_) {
        const std::vector<std::string> &in = entry.second;
        if (in.size() < 2) continue;
        std::string list = in[0];
        for (size_t i = 1; i < in.size(); i++)
            list += (i + 1 == in.size() ? " and " : ", ") + in[i];
        found(in[0], str("thread %d is booked in %s", entry.first, list.c_str()),
              "could not tell which booking is wrong: left booked in each");
    }
}

// A domain's cpuset against its record: on cgroup v1 a CPU taken offline leaves every cpuset for
// good, and the kernel does not put it back when the CPU returns. The repair writes the record's
// CPUs back, which the kernel takes only once they are all online again. (cgroup v2 has no
// domain-wide cpuset, and gives a group's effective CPUs back by itself.)
void Checker::check_cpus(const std::string &name, QX_REALTIME_DOMAIN_t *d) {
    if (on_cgroup2() || !qx_path_field_is(d->pszCpusetPathRoot, RT_CPUSET_ROOT, name.c_str(), ""))
        return;
    char now[64];
    if (qx_cgroup_domain_cpus(d, now, sizeof(now)) < 0) return;  // no group: creation's business
    std::string wanted = field(d->pszCpuset, RT_CPUSET_LEN);
    int32_t num = 0;
    uint32_t now_mask = 0, wanted_mask = 0;
    if (now[0] != '\0') _QX_REALTIME_ParseCpuSelection(now, &num, &now_mask);
    _QX_REALTIME_ParseCpuSelection(wanted.c_str(), &num, &wanted_mask);
    if (now_mask == wanted_mask) return;
    char offline[64];
    uint32_t offline_mask = qx_offline_cpus(offline, sizeof(offline)) & wanted_mask;
    std::string why = offline_mask != 0 ? str(" (CPUs %s offline)", offline) : "";
    std::string action;
    if (repair_)
        action = qx_cgroup_restore_cpus(d) >= 0
                     ? "cpus set to " + wanted
                     : "could not set cpus to " + wanted + ": a CPU of them is offline; the " +
                           "next admission to the domain, or --repair, sets them once it is online";
    found(name,
          str("its cpuset holds CPUs [%s], its record [%s]%s", now, wanted.c_str(), why.c_str()),
          action);
}

// Names of the domains: those the central record lists and those with a segment file.
std::vector<std::string> domain_names(const QX_REALTIME_CENTRAL_t *c) {
    std::set<std::string> names;
    int32_t num = std::max(0, std::min(c->s32DomainNum, RT_MAX_DOMAIN));
    for (int32_t i = 0; i < num; i++) {
        std::string n = field(c->szDomainNameList[i], RT_NAME_LEN);
        if (!n.empty() && n.find('/') == std::string::npos && n != "." && n != "..")
            names.insert(n);
    }
    for (const std::string &n : segment_names()) names.insert(n);
    return std::vector<std::string>(names.begin(), names.end());
}

}  // namespace

bool is_domain_name(const char *entry, size_t size) {
    size_t len = strnlen(entry, size);
    if (len == 0 || len >= size || len > RT_DOMAIN_NAME_MAX) return false;
    if (strcmp(entry, ".") == 0 || strcmp(entry, "..") == 0) return false;
    for (size_t i = 0; i < len; i++) {
        unsigned char ch = (unsigned char)entry[i];
        if (ch < 0x20 || ch == 0x7f || ch == '/') return false;
    }
    return true;
}

std::string cpu_note(bool with_bandwidth) {
    char offline[64];
    uint32_t mask = qx_offline_cpus(offline, sizeof(offline));
    char online[64] = "";
    std::ifstream in("/sys/devices/system/cpu/online");
    in.getline(online, sizeof(online));
    // The deadline bandwidth the kernel holds for the threads of every root domain: the sum of
    // runtime / period of every SCHED_DEADLINE thread on the machine.
    double bandwidth = 0;
    int dl_threads = 0;
    if (DIR *procs = opendir("/proc")) {
        while (struct dirent *p = readdir(procs)) {
            if (p->d_name[0] < '1' || p->d_name[0] > '9') continue;
            std::string dir = std::string("/proc/") + p->d_name + "/task";
            DIR *tasks = opendir(dir.c_str());
            if (tasks == nullptr) continue;
            while (struct dirent *t = readdir(tasks)) {
                if (t->d_name[0] < '1' || t->d_name[0] > '9') continue;
                qx_sched_attr a;
                if (getattr(atoi(t->d_name), &a) && a.sched_policy == kPolicyDeadline &&
                    a.sched_period != 0) {
                    bandwidth += (double)a.sched_runtime / (double)a.sched_period;
                    dl_threads++;
                }
            }
            closedir(tasks);
        }
        closedir(procs);
    }
    // The offline list also names possible CPUs that are not there at all: only present ones
    // count as taken offline.
    char present[64] = "";
    std::ifstream present_in("/sys/devices/system/cpu/present");
    present_in.getline(present, sizeof(present));
    int32_t num = 0;
    uint32_t present_mask = 0;
    if (present[0] != '\0') _QX_REALTIME_ParseCpuSelection(present, &num, &present_mask);
    mask &= present_mask;
    if (mask == 0 && (dl_threads == 0 || !with_bandwidth)) return "";
    std::string note =
        str("CPUs online %s, offline %s", online[0] ? online : "?", mask != 0 ? offline : "none");
    if (dl_threads > 0)
        note +=
            str("; deadline threads hold %.2f CPU of bandwidth (%d threads): the kernel "
                "refuses to take a CPU offline (EBUSY) when the CPUs left can't hold it",
                bandwidth, dl_threads);
    return note;
}

std::vector<Finding> run(bool repair, std::string *error) {
    std::vector<Finding> findings;
    Checker checker(repair, &findings);
    // The central lock is held for the whole walk: no domain is created or deleted meanwhile, so
    // a half-created domain is one whose creator died. Each domain's lock is taken inside it, as
    // the library's lookup takes both; no client waits for the central lock while it holds a
    // domain's, so the order can't deadlock.
    FlockGuard central(RT_CENTRAL_NAME);
    if (!central.held()) {
        *error = str("can't lock %s", lock_path(RT_CENTRAL_NAME).c_str());
        return findings;
    }
    std::string path = segment_path(RT_CENTRAL_NAME);
    Fd fd(open(path.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW));
    if (fd.get() < 0) {
        *error = str("no central segment %s (is the framework initialised?)", path.c_str());
        return findings;
    }
    checker.check_central();
    struct stat st;
    if (fstat(fd.get(), &st) != 0 || st.st_size < RT_SHM_SIZE) return findings;
    Mapping map(fd.get());
    if (map.get() == nullptr) {
        *error = str("can't map %s: %s", path.c_str(), strerror(errno));
        return findings;
    }
    checker.check_central_record((QX_REALTIME_CENTRAL_t *)map.get());
    for (const std::string &name : domain_names((const QX_REALTIME_CENTRAL_t *)map.get())) {
        if (name.size() > RT_DOMAIN_NAME_MAX) continue;
        checker.check_domain(name);
    }
    checker.check_bookings();
    return findings;
}

}  // namespace rtcheck
