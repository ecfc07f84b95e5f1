// Damaged and hostile files in the library's directories: segments truncated under a process that
// maps them, segments and lock files replaced by symlinks, a directory or a FIFO in place of a
// segment, names that climb out of the directories, cgroup paths in a record aimed at a foreign
// file, extreme values in every count and offset, and random bytes. Every case runs its calls in
// forked children, which must end normally (no SIGBUS, no SIGSEGV) with result codes, and nothing
// may be written outside the 16384 bytes of a segment or into any foreign file.
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <stddef.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <random>
#include <sstream>

#include "hardening_support.h"

using namespace qxt;

namespace {

// A scratch file that stands for any file of the system the library must never write: its size
// and bytes are compared before and after.
struct Scratch {
    std::string path;
    std::string content;
    explicit Scratch(const std::string &p) : path(p) {
        content = "scratch file: must stay exactly as it is\n" + std::string(300, 's') + "\n";
        qxt::write_file(path, content);
    }
    ~Scratch() { unlink(path.c_str()); }
    // "" when untouched.
    std::string changed() const {
        struct stat st;
        if (lstat(path.c_str(), &st) != 0) return path + " is gone";
        if (!S_ISREG(st.st_mode)) return path + " is no longer a regular file";
        std::string now = qxt::read_file(path);
        if (now.size() != content.size())
            return qxt::format("%s changed size: %zu bytes, was %zu", path.c_str(), now.size(),
                               content.size());
        if (now != content) return path + " changed its bytes";
        return "";
    }
};

// A child's stderr goes to a file of its role (corrupted records make the library say a lot),
// unless QXRT_HARDENING_VERBOSE is set; when the child dies, the sanitizer's or the kernel's
// lines from it go into the failure message.
std::string stderr_file(const char *role) {
    return std::string("/tmp/hard_stderr_") + role;
}

void quiet_child(const char *role) {
    if (getenv("QXRT_HARDENING_VERBOSE") != nullptr) return;
    int fd = open(stderr_file(role).c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd >= 0) {
        dup2(fd, 2);
        close(fd);
    }
}

std::string crash_report(const char *role) {
    std::string out, line;
    std::istringstream in(qxt::read_file(stderr_file(role)));
    int frames = 0;
    std::string last_call;
    while (std::getline(in, line)) {
        if (line.rfind("hardening: calling ", 0) == 0) last_call = line.substr(19);
        bool frame = line.find("    #") == 0;
        if (line.find("ERROR: AddressSanitizer") != std::string::npos ||
            line.find("runtime error") != std::string::npos || (frame && frames < 4)) {
            out += "    " + line + "\n";
            frames += frame;
        }
    }
    if (!last_call.empty()) out = "    (it died in " + last_call + ")\n" + out;
    return out;
}

// Directory listings without this suite's own stderr files.
std::vector<std::string> listing(const char *dir) {
    std::vector<std::string> out;
    for (const std::string &name : files_in(dir))
        if (name.rfind("hard_stderr_", 0) != 0) out.push_back(name);
    return out;
}

// Every exported operation once, in an order that keeps the destructive ones to the end. The
// codes are collected into the returned text only as information; what counts is that the calls
// return. Init comes late, just before CreateDomain, which needs it in the calling process.
std::string every_operation(pid_t foreign_tid) {
    std::string codes;
    auto note = [&codes](const char *what, uint32_t rc) {
        codes += qxt::format("%s=%u ", what, rc);
    };
    // Each call is announced on stderr first: a crash report names the call that died.
#define note(what, call)                                  \
    do {                                                  \
        fprintf(stderr, "hardening: calling %s\n", what); \
        fflush(stderr);                                   \
        note(what, call);                                 \
    } while (0)
    char names[RT_NAME_LEN * RT_MAX_DOMAIN];
    note("SelfTest", QX_REALTIME_SelfTest());
    note("GetAllDomainName", QX_REALTIME_GetAllDomainName(names, sizeof(names)));
    note("GetAllDomainInfo", _QX_REALTIME_GetAllDomainInfo());
    QX_REALTIME_UTIL_t q = {10, 0, 0, 0};
    int32_t left = 0;
    note("QueryBudget", QX_REALTIME_QueryBudget(kRr, &q, &left));
    q = {0, 10000, 1000, 100000};
    note("QueryBudgetDl", QX_REALTIME_QueryBudget(kDl, &q, &left));
    uint32_t us = 0;
    note("DmipsToUs", QX_REALTIME_DmipsToUs(100, &us));
    pid_t t = start_sleeper();
    note("AddThread", QX_REALTIME_AddThread(kRr, kRrClass, t, 0));
    QX_REALTIME_UTIL_t u = {20, 0, 0, 0};
    note("UpdateThreadUtil", QX_REALTIME_UpdateThreadUtil(kRr, &u, t));
    note("RemoveThread", QX_REALTIME_RemoveThread(kRr, t));
    u = {30, 0, 0, 0};
    note("AddThread_Lite", QX_REALTIME_AddThread_Lite(kRr, kRrClass, &u, t, 0));
    note("RemoveThread", QX_REALTIME_RemoveThread(kRr, t));
    if (foreign_tid > 0) note("RemoveForeign", QX_REALTIME_RemoveThread(kRr, foreign_tid));
    pid_t d = start_sleeper();
    note("AddThreadDl", QX_REALTIME_AddThread(kDl, kDlClass, d, 0));
    note("RemoveThreadDl", QX_REALTIME_RemoveThread(kDl, d));
    note("GetDomainCpuUsage", QX_REALTIME_GetDomainCpuUsage(kRr, 1, 1));
    note("GetDomainCpuUsageAll", QX_REALTIME_GetDomainCpuUsage("All", 1, 1));
    note("DumpDomainInfo", QX_REALTIME_DumpDomainInfo(kRr));
    note("DumpDomainInfoAll", QX_REALTIME_DumpDomainInfo("All"));
    note("EnableMem", QX_REALTIME_EnableMemoryHighPriority());
    note("DisableMem", QX_REALTIME_DisableMemoryHighPriority());
    int32_t avail = 0;
    note("GetAvail", QX_REALTIME_GetAvailableHighPriorityResource(&avail));
    note("SetDebugLevel", QX_REALTIME_SetDebugLevel(0));
    note("Init", QX_REALTIME_Init(0));
    note("CreateDomain", QX_REALTIME_CreateDomain(kNew));
    note("CreateDomainExisting", QX_REALTIME_CreateDomain(kRr));
    note("DeleteDomain", (uint32_t)QX_REALTIME_DeleteDomain(kRr));
    note("Deinit", QX_REALTIME_Deinit());
#undef note
    return codes;
}

// What may be in the library's directories after every_operation: the configuration's segments,
// their identity files and lock files, per-process log files and what the case planted. Anything
// else, or a segment grown past 16384 bytes, is reported. Also the private /tmp and /dev/shm itself
// must hold nothing new.
std::string unexpected_files(const std::vector<std::string> &tmp_before,
                             const std::vector<std::string> &shm_before,
                             const std::vector<std::string> &planted) {
    std::string out;
    std::vector<std::string> allowed;
    for (const char *n : {"Global", kRr, kDl, kNew, kNewDl}) {
        allowed.push_back(std::string("/dev/shm/realtime/rt_") + n);
        allowed.push_back(std::string(RT_IDENTITY_PREFIX) + n);
        allowed.push_back(std::string("/data/vendor/realtime/flock_rt_") + n);
    }
    for (const std::string &f : library_files()) {
        if (f.rfind("/data/vendor/realtime/rtlog_", 0) == 0) continue;
        if (std::find(allowed.begin(), allowed.end(), f) == allowed.end()) {
            out += "unexpected file " + f + "\n";
            continue;
        }
        struct stat st;
        if (lstat(f.c_str(), &st) != 0) continue;
        bool was_planted = std::find(planted.begin(), planted.end(), f) != planted.end();
        if (!S_ISREG(st.st_mode) && !was_planted)
            out += f + " is not a regular file\n";
        else if (S_ISREG(st.st_mode) && f.rfind("/dev/shm/realtime/", 0) == 0 &&
                 st.st_size > RT_SHM_SIZE)
            out += qxt::format("%s holds %lld bytes\n", f.c_str(), (long long)st.st_size);
    }
    if (listing("/tmp") != tmp_before) out += "/tmp changed\n";
    if (listing("/dev/shm") != shm_before) out += "/dev/shm changed\n";
    return out;
}

// A private /tmp for this sandbox: the escaping names below resolve into it, and nothing of the
// host's /tmp is at risk. "" when mounted.
std::string private_tmp() {
    static bool done = false;
    if (done) return "";
    if (mount("hard_tmp", "/tmp", "tmpfs", 0, "mode=1777") != 0)
        return "cannot mount a private /tmp";
    done = true;
    return "";
}

// One hostile case: prepare() damages the files while a mapped process waits, then the mapped
// process and then a fresh process run every operation. Returns what went wrong ("" if nothing).
struct CaseResult {
    std::string problems;
    bool crashed = false;
};

// Prepares the state of one phase: both domains, a foreign thread admitted into the RR domain
// (so that the first slot is in use). "" when ready.
std::string prepare_phase(Foreign &f) {
    std::string err = reset({kRr, kDl});
    if (!err.empty()) return err;
    f = start_foreign();
    if (f.pid <= 0) return "the foreign process did not start";
    ChildResult setup = run_child([&] {
        uint32_t rc = QX_REALTIME_AddThread(kRr, kRrClass, f.tid, 0);
        return rc == RT_SUCCESS ? std::string() : qxt::format("setup AddThread returned %u", rc);
    });
    return setup.describe();
}

// Phase 1: a process that has everything mapped waits while the files are damaged, then runs
// every operation. Phase 2: the same damage, then a fresh process runs every operation.
CaseResult run_case(const std::function<void()> &damage, const Scratch *scratch,
                    const std::vector<std::string> &planted = {}) {
    CaseResult res;
    std::vector<std::string> tmp_before = listing("/tmp"), shm_before = listing("/dev/shm");
    Foreign f;
    std::string err = prepare_phase(f);
    if (!err.empty()) {
        stop_foreign(f);
        res.problems = err;
        return res;
    }
    int go[2], ready[2];
    if (pipe(go) != 0 || pipe(ready) != 0) {
        res.problems = "pipe failed";
        return res;
    }
    fflush(nullptr);
    pid_t m = fork();
    if (m == 0) {
        close(go[1]);
        close(ready[0]);
        quiet_child("mapped");
        QX_REALTIME_UTIL_t q = {0, 0, 0, 0};
        int32_t left = 0;
        (void)QX_REALTIME_QueryBudget(kRr, &q, &left);
        (void)QX_REALTIME_QueryBudget(kDl, &q, &left);
        char c = 1;
        if (write(ready[1], &c, 1) != 1 || read(go[0], &c, 1) != 1) qxt::exit_child(3);
        every_operation(f.tid);
        qxt::exit_child(0);
    }
    close(go[0]);
    close(ready[1]);
    char c = 0;
    bool started = read(ready[0], &c, 1) == 1;
    damage();
    if (write(go[1], &c, 1) != 1) started = false;
    close(go[1]);
    close(ready[0]);
    int status = 0;
    // Bounded wait: a hang counts as a failure.
    double deadline = now_s() + 30;
    while (waitpid(m, &status, WNOHANG) == 0) {
        if (now_s() > deadline) {
            kill(m, SIGKILL);
            waitpid(m, &status, 0);
            res.problems += "the mapped process hung\n";
            break;
        }
        usleep(500);
    }
    if (!started) res.problems += "the mapped process did not start\n";
    if (WIFSIGNALED(status)) {
        res.crashed = true;
        res.problems += qxt::format("the mapped process died of signal %d (%s)\n", WTERMSIG(status),
                                    strsignal(WTERMSIG(status))) +
                        crash_report("mapped");
    }
    if (scratch != nullptr && !scratch->changed().empty())
        res.problems += "after the mapped process: " + scratch->changed() + "\n";
    res.problems += unexpected_files(tmp_before, shm_before, planted);
    stop_foreign(f);

    err = prepare_phase(f);
    if (!err.empty()) {
        stop_foreign(f);
        res.problems += err;
        return res;
    }
    damage();
    ChildResult fr = run_child([&] {
        quiet_child("fresh");
        every_operation(f.tid);
        return std::string();
    });
    if (!fr.normal_exit) {
        res.crashed = true;
        res.problems += "the fresh process: " + fr.describe() + "\n" + crash_report("fresh");
    }
    if (scratch != nullptr && !scratch->changed().empty())
        res.problems += "after the fresh process: " + scratch->changed() + "\n";
    res.problems += unexpected_files(tmp_before, shm_before, planted);
    stop_foreign(f);
    return res;
}

// Writes bytes into a file at an offset (the segment's own length is kept).
void poke(const std::string &path, size_t offset, const void *data, size_t size) {
    int fd = open(path.c_str(), O_WRONLY | O_NOFOLLOW);
    if (fd < 0) return;
    if (pwrite(fd, data, size, (off_t)offset) != (ssize_t)size) {
    }
    close(fd);
}

void poke32(const std::string &path, size_t offset, int32_t value) {
    poke(path, offset, &value, sizeof(value));
}

int32_t peek32(const std::string &path, size_t offset) {
    int32_t v = 0;
    int fd = open(path.c_str(), O_RDONLY);
    if (fd >= 0) {
        if (pread(fd, &v, sizeof(v), (off_t)offset) != (ssize_t)sizeof(v)) v = 0;
        close(fd);
    }
    return v;
}

const std::string kRrPath = std::string(RT_SHM_PREFIX) + kRr;
const std::string kGlobalPath = RT_SHM_PREFIX "Global";

const std::vector<int32_t> kExtremes = {0,     -1,    INT32_MIN, INT32_MAX, 16383,
                                        16384, 16380, 1101,      3,         -96};
const std::vector<int32_t> kExtremesSanitized = {0, -1, INT32_MIN, INT32_MAX, 16384, 1101};

void summary(const char *what, int cases, int crashes, double t0) {
    printf("[ corrupted ] %s: %d runs, %d crashed; %.1f s\n", what, cases, crashes, now_s() - t0);
    fflush(stdout);
}

struct Field {
    const char *name;
    size_t offset;
};

// Each field set to each extreme value in turn, each followed by every operation in a mapped and
// in a fresh process.
void run_fields(const char *what, const std::string &path, const std::vector<Field> &fields,
                const std::function<size_t()> &base) {
    install(2);
    double t0 = now_s();
    int cases = 0, crashes = 0;
    Scratch scratch("/tmp/hard_scratch");
    for (const Field &field : fields) {
        for (int32_t value : kSanitized ? kExtremesSanitized : kExtremes) {
            CaseResult r = run_case([&] { poke32(path, base() + field.offset, value); }, &scratch);
            cases++;
            crashes += r.crashed;
            EXPECT_EQ("", r.problems) << what << " field " << field.name << " = " << value;
        }
    }
    summary(what, cases, crashes, t0);
}

#define CENTRAL_FIELD(f)                       \
    Field {                                    \
#f, offsetof(QX_REALTIME_CENTRAL_t, f) \
    }
#define DOMAIN_FIELD(f)                       \
    Field {                                   \
#f, offsetof(QX_REALTIME_DOMAIN_t, f) \
    }
#define CLASS_FIELD(f)                       \
    Field {                                  \
#f, offsetof(QX_REALTIME_CLASS_t, f) \
    }
#define THREAD_FIELD(f)                       \
    Field {                                   \
#f, offsetof(QX_REALTIME_THREAD_t, f) \
    }

// Deadline bandwidth is one pool for the whole machine: whatever a failing case left booked is
// dropped on the way out, so that the deadline tests running beside these are not starved.
// Every case gets a private /tmp: the escaping names resolve into it, and its listing is compared
// before and after without other runs on the machine changing it.
class HardeningCorruptedFiles : public qxt::SandboxTest {
protected:
    void SetUp() override {
        QXT_SKIP_UNDER_TSAN();
        SandboxTest::SetUp();
    }
    void SetUpInSandbox() override { ASSERT_EQ("", private_tmp()); }
    void TearDown() override { rebuild_sched_domains(); }
};

}  // namespace

TEST_F(HardeningCorruptedFiles, SegmentsTruncatedUnderAMappedProcess) {
    install(2);
    double t0 = now_s();
    int cases = 0, crashes = 0;
    for (const std::string &path : {kRrPath, kGlobalPath}) {
        CaseResult r = run_case([&] { truncate(path.c_str(), 0); }, nullptr);
        cases++;
        crashes += r.crashed;
        EXPECT_EQ("", r.problems) << path << " truncated to 0 bytes";
    }
    summary("truncated segments", cases, crashes, t0);
}

TEST_F(HardeningCorruptedFiles, SegmentsReplacedBySymlinksToAForeignFile) {
    install(2);
    ASSERT_EQ("", private_tmp());
    double t0 = now_s();
    int cases = 0, crashes = 0;
    Scratch scratch("/tmp/hard_scratch");
    const std::string paths[] = {kRrPath, kGlobalPath, std::string(RT_FLOCK_PREFIX) + kRr,
                                 RT_FLOCK_PREFIX "Global"};
    for (const std::string &path : paths) {
        CaseResult r = run_case(
            [&] {
                unlink(path.c_str());
                if (symlink(scratch.path.c_str(), path.c_str()) != 0) {
                }
            },
            &scratch, {path});
        cases++;
        crashes += r.crashed;
        EXPECT_EQ("", r.problems) << path << " replaced by a symlink to " << scratch.path;
        qxt::write_file(scratch.path, scratch.content);  // the next case starts from it intact
    }
    // And before anything exists: Init and CreateDomain must not follow them either.
    for (const std::string &path : {kGlobalPath, kRrPath}) {
        wipe_files();
        ASSERT_EQ(0, symlink(scratch.path.c_str(), path.c_str()));
        ChildResult r = run_child([&] {
            quiet_child("other");
            uint32_t a = QX_REALTIME_Init(0);
            uint32_t b = QX_REALTIME_CreateDomain(kRr);
            return path == kRrPath && b == RT_SUCCESS
                       ? std::string("CreateDomain returned 0 over a symlinked segment\n")
                       : (path == kGlobalPath && a == RT_SUCCESS
                              ? std::string("Init returned 0 over a symlinked central segment\n")
                              : std::string());
        });
        cases++;
        crashes += !r.normal_exit;
        EXPECT_EQ("", r.describe()) << path << " a symlink before Init";
        EXPECT_EQ("", scratch.changed()) << path << " a symlink before Init";
        qxt::write_file(scratch.path, scratch.content);
    }
    summary("symlinked segments and lock files", cases, crashes, t0);
}

TEST_F(HardeningCorruptedFiles, DirectoryOrFifoInPlaceOfASegmentMakesCreationFail) {
    install(2);
    double t0 = now_s();
    int cases = 0, crashes = 0;
    for (const char *kind : {"directory", "fifo"}) {
        ASSERT_EQ("", reset({kDl}));
        int made = std::string(kind) == "directory" ? mkdir(kRrPath.c_str(), 0770)
                                                    : mkfifo(kRrPath.c_str(), 0660);
        ASSERT_EQ(0, made) << kind;
        ChildResult r = run_child(
            [&] {
                quiet_child("other");
                if (QX_REALTIME_Init(0) != RT_SUCCESS) return std::string("Init failed\n");
                uint32_t rc = QX_REALTIME_CreateDomain(kRr);
                std::string out = rc == RT_ERR_FAILED
                                      ? std::string()
                                      : qxt::format("CreateDomain returned %u, not 4\n", rc);
                every_operation(-1);
                return out;
            },
            20);
        cases++;
        crashes += !r.normal_exit;
        EXPECT_TRUE(r.normal_exit) << kind << ": " << r.describe();
        EXPECT_EQ("", r.text) << "a " << kind << " in place of " << kRrPath;
    }
    summary("directory and FIFO segments", cases, crashes, t0);
}

TEST_F(HardeningCorruptedFiles, NameClimbingOutOfTheDirectoriesTouchesNothing) {
    install(2);
    ASSERT_EQ("", private_tmp());
    ASSERT_EQ("", reset({kRr, kDl}));
    double t0 = now_s();
    const char kEvil[] = "evil/../../../../tmp/x";
    ASSERT_EQ(0, mkdir("/dev/shm/realtime/rt_evil", 0770));
    ASSERT_EQ(0, mkdir("/data/vendor/realtime/flock_rt_evil", 0770));
    Scratch x("/tmp/x");
    struct stat before;
    ASSERT_EQ(0, stat(x.path.c_str(), &before));
    struct Call {
        const char *function;
        std::function<uint32_t()> fn;
    };
    const std::vector<Call> calls = {
        {"QX_REALTIME_CreateDomain",
         [&] {
             (void)QX_REALTIME_Init(0);
             return QX_REALTIME_CreateDomain(kEvil);
         }},
        {"QX_REALTIME_DeleteDomain", [&] { return (uint32_t)QX_REALTIME_DeleteDomain(kEvil); }},
        {"QX_REALTIME_QueryBudget",
         [&] {
             QX_REALTIME_UTIL_t u = {1, 0, 0, 0};
             int32_t left;
             return QX_REALTIME_QueryBudget(kEvil, &u, &left);
         }},
        {"QX_REALTIME_AddThread",
         [&] { return QX_REALTIME_AddThread(kEvil, kRrClass, start_sleeper(), 0); }},
        {"QX_REALTIME_AddThread_Lite",
         [&] {
             QX_REALTIME_UTIL_t u = {1, 0, 0, 0};
             return QX_REALTIME_AddThread_Lite(kEvil, kRrClass, &u, start_sleeper(), 0);
         }},
        {"QX_REALTIME_RemoveThread",
         [&] { return QX_REALTIME_RemoveThread(kEvil, start_sleeper()); }},
        {"QX_REALTIME_UpdateThreadUtil",
         [&] {
             QX_REALTIME_UTIL_t u = {1, 0, 0, 0};
             return QX_REALTIME_UpdateThreadUtil(kEvil, &u, start_sleeper());
         }},
        {"QX_REALTIME_GetDomainCpuUsage",
         [&] { return QX_REALTIME_GetDomainCpuUsage(kEvil, 1, 1); }},
        {"QX_REALTIME_DumpDomainInfo", [&] { return QX_REALTIME_DumpDomainInfo(kEvil); }},
    };
    int cases = 0, crashes = 0;
    for (const Call &call : calls) {
        ChildResult r = run_child([&] {
            uint32_t rc = call.fn();
            return rc == RT_ERR_INVALID_PARAM ? std::string()
                                              : qxt::format("returned %u, not 8", rc);
        });
        cases++;
        crashes += !r.normal_exit;
        EXPECT_TRUE(r.normal_exit) << call.function << ": " << r.describe();
        EXPECT_EQ("", r.text) << call.function << "(\"" << kEvil << "\")";
        EXPECT_EQ("", x.changed()) << call.function << "(\"" << kEvil << "\")";
        struct stat after;
        EXPECT_EQ(0, stat(x.path.c_str(), &after)) << call.function;
        EXPECT_EQ(before.st_ino, after.st_ino) << call.function << ": /tmp/x was replaced";
        if (x.changed() != "" || after.st_ino != before.st_ino) qxt::write_file(x.path, x.content);
        stat(x.path.c_str(), &before);
    }
    summary("climbing name", cases, crashes, t0);
}

TEST_F(HardeningCorruptedFiles, CgroupPathsOfARecordAimedAtAForeignFile) {
    install(2);
    ASSERT_EQ("", private_tmp());
    double t0 = now_s();
    Scratch scratch("/tmp/hard_tasks");
    int cases = 0, crashes = 0;
    const size_t offsets[] = {offsetof(QX_REALTIME_DOMAIN_t, pszCpusetPathTasks),
                              offsetof(QX_REALTIME_DOMAIN_t, pszCpuacctPathTasks)};
    for (int which = 0; which < 3; which++) {  // cpuset, cpuacct, both
        CaseResult r = run_case(
            [&] {
                char field[RT_PATH_LEN] = {0};
                memcpy(field, scratch.path.c_str(), scratch.path.size());
                for (int i = 0; i < 2; i++)
                    if (which == 2 || which == i) poke(kRrPath, offsets[i], field, sizeof(field));
            },
            &scratch);
        cases++;
        crashes += r.crashed;
        EXPECT_EQ("", r.problems) << "tasks paths aimed at " << scratch.path << " (" << which
                                  << ")";
        qxt::write_file(scratch.path, scratch.content);
    }
    summary("cgroup paths aimed at a foreign file", cases, crashes, t0);
}

TEST_F(HardeningCorruptedFiles, ExtremeValuesInCentralRecord) {
    run_fields(
        "central record", kGlobalPath,
        {CENTRAL_FIELD(s32BudgetCpuNum), CENTRAL_FIELD(s32UtilTotal), CENTRAL_FIELD(s32CapPerCore),
         CENTRAL_FIELD(s32UtilReservation), CENTRAL_FIELD(s32DbgLevel), CENTRAL_FIELD(u8Enabled),
         CENTRAL_FIELD(s32DomainNum), CENTRAL_FIELD(s32DomainUtilList)},
        [] { return (size_t)0; });
}

TEST_F(HardeningCorruptedFiles, ExtremeValuesInDomainRecord) {
    run_fields("domain record", kRrPath,
               {DOMAIN_FIELD(s32NextOffset), DOMAIN_FIELD(s32ClassStartOffset),
                DOMAIN_FIELD(s32ClassNum), DOMAIN_FIELD(s32ThreadStartOffset),
                DOMAIN_FIELD(s32ThreadNum), DOMAIN_FIELD(s32UtilMax), DOMAIN_FIELD(s32UtilCurrent),
                DOMAIN_FIELD(s32CpuNum), DOMAIN_FIELD(u32CpuMask), DOMAIN_FIELD(s32RtRuntimeUs),
                DOMAIN_FIELD(u32SchedType), DOMAIN_FIELD(s32MemHighPrioResource),
                DOMAIN_FIELD(s32MemHighPrioUsage), DOMAIN_FIELD(s32MemHighPrioAvailable),
                DOMAIN_FIELD(processIDListNum), DOMAIN_FIELD(s32ProcessIDList)},
               [] { return (size_t)0; });
}

TEST_F(HardeningCorruptedFiles, ExtremeValuesInClassRecord) {
    run_fields(
        "class record", kRrPath,
        {CLASS_FIELD(s32ClassId), CLASS_FIELD(s32Util), CLASS_FIELD(s32RtPriority),
         CLASS_FIELD(s32DlDeadlineUs), CLASS_FIELD(s32DlRuntimeUs), CLASS_FIELD(s32DlPeriodUs)},
        [] { return (size_t)RT_DOMAIN_HEADER_SIZE; });
}

TEST_F(HardeningCorruptedFiles, ExtremeValuesInThreadRecord) {
    // The first slot holds the foreign thread admitted by the case's setup.
    run_fields("thread record", kRrPath,
               {THREAD_FIELD(ThreadIdx), THREAD_FIELD(ClassIdx), THREAD_FIELD(Alive),
                THREAD_FIELD(ProcessID), THREAD_FIELD(Pid), THREAD_FIELD(Util),
                THREAD_FIELD(Priority), THREAD_FIELD(DeadlineUs), THREAD_FIELD(RuntimeUs),
                THREAD_FIELD(PeriodUs), THREAD_FIELD(stSavedAttr)},
               [] {
                   return (size_t)peek32(kRrPath,
                                         offsetof(QX_REALTIME_DOMAIN_t, s32ThreadStartOffset));
               });
}

TEST_F(HardeningCorruptedFiles, NameAndPathFieldsWithoutTerminator) {
    install(2);
    double t0 = now_s();
    int cases = 0, crashes = 0;
    struct Text {
        const char *name;
        std::string path;
        size_t offset, size;
    };
    const size_t cls = RT_DOMAIN_HEADER_SIZE;
    const std::vector<Text> texts = {
        {"central szDomainNameList", kGlobalPath, offsetof(QX_REALTIME_CENTRAL_t, szDomainNameList),
         sizeof(QX_REALTIME_CENTRAL_t::szDomainNameList)},
        {"szName", kRrPath, offsetof(QX_REALTIME_DOMAIN_t, szName), RT_NAME_LEN},
        {"pszCpuset", kRrPath, offsetof(QX_REALTIME_DOMAIN_t, pszCpuset), RT_CPUSET_LEN},
        {"pszCpusetPathRoot", kRrPath, offsetof(QX_REALTIME_DOMAIN_t, pszCpusetPathRoot),
         RT_PATH_LEN},
        {"pszCpusetPathTasks", kRrPath, offsetof(QX_REALTIME_DOMAIN_t, pszCpusetPathTasks),
         RT_PATH_LEN},
        {"pszCpuacctPathRoot", kRrPath, offsetof(QX_REALTIME_DOMAIN_t, pszCpuacctPathRoot),
         RT_PATH_LEN},
        {"pszCpuacctPathTasks", kRrPath, offsetof(QX_REALTIME_DOMAIN_t, pszCpuacctPathTasks),
         RT_PATH_LEN},
        {"pszCpuacctPathStat", kRrPath, offsetof(QX_REALTIME_DOMAIN_t, pszCpuacctPathStat),
         RT_PATH_LEN},
        {"all paths at once", kRrPath, offsetof(QX_REALTIME_DOMAIN_t, pszCpusetPathRoot),
         RT_PATH_LEN * 5},
        {"szClassName", kRrPath, cls + offsetof(QX_REALTIME_CLASS_t, szClassName), RT_NAME_LEN},
    };
    Scratch scratch("/tmp/hard_scratch");
    for (const Text &t : texts) {
        for (char fill : {'A', '%', '/'}) {
            CaseResult r = run_case(
                [&] {
                    std::string bytes(t.size, fill);
                    poke(t.path, t.offset, bytes.data(), bytes.size());
                },
                &scratch);
            cases++;
            crashes += r.crashed;
            EXPECT_EQ("", r.problems)
                << t.name << " filled with '" << fill << "' and no terminator";
        }
    }
    summary("fields without terminator", cases, crashes, t0);
}

TEST_F(HardeningCorruptedFiles, RandomBytesOverWholeSegments) {
    install(2);
    double t0 = now_s();
    // Fewer in sanitizer builds and under an emulator, where every run is many times slower.
    int runs = kSanitized || !qxt::emulator().empty() ? 60 : 300;
    if (const char *env = getenv("QXRT_HARDENING_RANDOM_RUNS")) runs = atoi(env);
    int cases = 0, crashes = 0;
    Scratch scratch("/tmp/hard_scratch");
    for (int seed = 1; seed <= runs; seed++) {
        // Odd seeds damage the domain segment, even ones the central segment; every fourth run
        // keeps the domain's header offsets and damages only the rest, so the records are reached.
        const std::string &path = seed % 2 ? kRrPath : kGlobalPath;
        CaseResult r = run_case(
            [&] {
                std::mt19937 rng((uint32_t)seed);
                std::vector<uint8_t> bytes(RT_SHM_SIZE);
                for (uint8_t &b : bytes) b = (uint8_t)rng();
                size_t from = (seed % 4 == 1) ? 20 : 0;
                poke(path, from, bytes.data() + from, bytes.size() - from);
            },
            &scratch);
        cases++;
        crashes += r.crashed;
        EXPECT_EQ("", r.problems) << path << " filled with random bytes, seed " << seed;
    }
    summary("random bytes", cases, crashes, t0);
}

// A segment that is not a regular file of 16384 bytes, is reached through a symlink, or whose
// record does not belong to the name (its name or cgroup paths are another's) can't be used: the
// lookup fails as for an unknown domain (RT_ERR_NULL) with an error message, and a refused
// segment is not written (a file cut short may be brought back to size, never past it).
TEST_F(HardeningCorruptedFiles, UnusableSegmentMakesTheLookupFail) {
    install(2);
    ASSERT_EQ("", private_tmp());
    double t0 = now_s();
    const std::string copy = "/tmp/hard_segment_copy";
    const std::string lock = std::string(RT_FLOCK_PREFIX) + kRr;
    auto text_field = [](size_t offset, const std::string &text) {
        char field[RT_PATH_LEN] = {0};
        memcpy(field, text.c_str(), std::min(text.size(), sizeof(field) - 1));
        poke(kRrPath, offset, field,
             offset == offsetof(QX_REALTIME_DOMAIN_t, szName) ? RT_NAME_LEN : RT_PATH_LEN);
    };
    struct Damage {
        const char *what;
        std::function<void()> apply;
    };
    const std::vector<Damage> damages = {
        {"truncated to 0 bytes", [] { truncate(kRrPath.c_str(), 0); }},
        {"truncated to 100 bytes", [] { truncate(kRrPath.c_str(), 100); }},
        {"cut to 16383 bytes", [] { truncate(kRrPath.c_str(), RT_SHM_SIZE - 1); }},
        {"a directory",
         [] {
             unlink(kRrPath.c_str());
             mkdir(kRrPath.c_str(), 0770);
         }},
        {"a FIFO",
         [] {
             unlink(kRrPath.c_str());
             mkfifo(kRrPath.c_str(), 0660);
         }},
        {"a symlink to an intact copy",
         [&] {
             qxt::write_file(copy, qxt::read_file(kRrPath));
             unlink(kRrPath.c_str());
             if (symlink(copy.c_str(), kRrPath.c_str()) != 0) {
             }
         }},
        {"its lock file a symlink",
         [&] {
             qxt::write_file(copy, "lock\n");
             unlink(lock.c_str());
             if (symlink(copy.c_str(), lock.c_str()) != 0) {
             }
         }},
        {"the record named for another domain",
         [&] { text_field(offsetof(QX_REALTIME_DOMAIN_t, szName), kDl); }},
        {"cpuset tasks path elsewhere",
         [&] {
             text_field(offsetof(QX_REALTIME_DOMAIN_t, pszCpusetPathTasks), "/tmp/hard_tasks");
         }},
        {"cpuacct tasks path elsewhere",
         [&] {
             text_field(offsetof(QX_REALTIME_DOMAIN_t, pszCpuacctPathTasks), "/tmp/hard_tasks");
         }},
        {"cpuset root of another domain",
         [&] {
             text_field(offsetof(QX_REALTIME_DOMAIN_t, pszCpusetPathRoot),
                        std::string("/dev/cpuset/") + kDl);
         }},
        // The cpuacct stat path is not among them: it is only read, by the CPU-usage sampling,
        // which takes nothing from it but two numbers, and the monitoring tests point it at
        // counter files of their own.
    };
    int cases = 0, crashes = 0;
    for (const Damage &d : damages) {
        ASSERT_EQ("", reset({kRr, kDl}));
        d.apply();
        struct stat before;
        bool had = lstat(kRrPath.c_str(), &before) == 0;
        std::string bytes_before = S_ISREG(before.st_mode) ? qxt::read_file(kRrPath) : "";
        ChildResult r = run_child(
            [&] {
                pid_t t = start_sleeper();
                qxt::LogCapture log;
                QX_REALTIME_UTIL_t u = {10, 0, 0, 0};
                int32_t left = 0;
                uint32_t rc[4] = {QX_REALTIME_QueryBudget(kRr, &u, &left),
                                  QX_REALTIME_AddThread(kRr, kRrClass, t, 0),
                                  QX_REALTIME_UpdateThreadUtil(kRr, &u, t),
                                  QX_REALTIME_RemoveThread(kRr, t)};
                const char *ops[4] = {"QueryBudget", "AddThread", "UpdateThreadUtil",
                                      "RemoveThread"};
                std::string out;
                for (int i = 0; i < 4; i++)
                    if (rc[i] != RT_ERR_NULL)
                        out += qxt::format("%s returned %u, not 10\n", ops[i], rc[i]);
                int errors = 0;
                for (const qxt::LogLine &line : log.lines())
                    errors += line.priority == QX_LOG_PRIO_ERROR;
                if (errors == 0) out += "no error message\n";
                qxt::SchedInfo si = qxt::sched_of(t);
                if (si.policy != SCHED_OTHER || qxt::cgroup_of(t, "cpuset") != "/")
                    out += "the thread was admitted all the same\n";
                return out;
            },
            20);
        cases++;
        crashes += !r.normal_exit;
        EXPECT_EQ("", r.describe()) << kRrPath << " " << d.what;
        struct stat after;
        bool has = lstat(kRrPath.c_str(), &after) == 0;
        EXPECT_EQ(had, has) << d.what;
        if (had && has && S_ISREG(before.st_mode)) {
            // A file cut short may be brought back to a segment's size, never past it; a
            // refused segment of full size is not written.
            EXPECT_LE(after.st_size, RT_SHM_SIZE) << d.what << ": the segment grew";
            if (before.st_size == RT_SHM_SIZE) {
                EXPECT_TRUE(bytes_before == qxt::read_file(kRrPath))
                    << d.what << ": the segment was written";
            }
        }
        unlink(copy.c_str());
    }
    summary("unusable segments", cases, crashes, t0);
}
