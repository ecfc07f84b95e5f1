// Hostile arguments to every exported operation: each call runs in a child of its own, which must
// end normally with a result code. Domain names that could leave the library's directories or
// can't be stored ('/', ".", "..", empty, longer than 63 characters) are refused with
// RT_ERR_INVALID_PARAM before any file is touched; dead or negative thread ids get a non-zero
// code and leave no charge and no record behind.
#include <limits.h>
#include <sched.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "hardening_support.h"

using namespace qxt;

namespace {

struct Name {
    std::string label;
    bool null = false;
    std::string text;
    bool invalid = false;  // must be refused as an invalid domain name
    // Names no domain: refused by the creation only; every lookup finds nothing (RT_ERR_NULL).
    bool unknown = false;
    const char *c_str() const { return null ? nullptr : text.c_str(); }
};

std::vector<Name> hostile_names() {
    std::vector<Name> out;
    out.push_back({"NULL", true, "", false});
    out.push_back({"empty", false, "", false, true});
    out.push_back({"dot", false, ".", true});
    out.push_back({"dotdot", false, "..", true});
    out.push_back({"slash", false, "/", true});
    out.push_back({"a/b", false, "a/b", true});
    out.push_back({"../x", false, "../x", true});
    out.push_back({"existing/", false, std::string(kRr) + "/", true});
    out.push_back({"../existing", false, std::string("../") + kRr, true});
    out.push_back({"64 chars", false, std::string(64, 'D'), true});
    out.push_back({"200 chars", false, std::string(200, 'D'), true});
    out.push_back({"5000 chars", false, std::string(5000, 'D'), true});
    out.push_back(
        {"5000 chars with slashes", false, std::string(2500, '/') + std::string(2500, '.'), true});
    out.push_back({"63 chars", false, "Domain_" + std::string(56, 'x'), false});
    out.push_back({"format", false, "%s%n%x%s%n%s%n%p%p%p", false});
    out.push_back({"non-UTF-8", false, "Domain_\xff\xfe\xc0\x80\xed\xa0\x80", false});
    out.push_back({"dot prefix", false, ".Domain", false});
    out.push_back({"three dots", false, "...", false});
    out.push_back({"newline", false, "Domain_\n", false});
    return out;
}

std::string invalid_name_message(const char *function) {
    return qxt::format(
        "[RT_Impl][Err] [%s] Invalid domain name: it must be 1 to 63 characters, "
        "not \".\" or \"..\", without '/'.\n",
        function);
}

struct NameOp {
    const char *function;
    std::function<uint32_t(const char *name, pid_t tid)> call;
};

std::vector<NameOp> name_ops() {
    return {
        {"QX_REALTIME_CreateDomain",
         [](const char *n, pid_t) { return QX_REALTIME_CreateDomain(n); }},
        {"QX_REALTIME_DeleteDomain",
         [](const char *n, pid_t) { return (uint32_t)QX_REALTIME_DeleteDomain(n); }},
        {"QX_REALTIME_QueryBudget",
         [](const char *n, pid_t) {
             QX_REALTIME_UTIL_t u = {10, 0, 0, 0};
             int32_t left = 0;
             return QX_REALTIME_QueryBudget(n, &u, &left);
         }},
        {"QX_REALTIME_AddThread",
         [](const char *n, pid_t t) { return QX_REALTIME_AddThread(n, kRrClass, t, 0); }},
        {"QX_REALTIME_AddThread_Lite",
         [](const char *n, pid_t t) {
             QX_REALTIME_UTIL_t u = {10, 0, 0, 0};
             return QX_REALTIME_AddThread_Lite(n, kRrClass, &u, t, 0);
         }},
        {"QX_REALTIME_RemoveThread",
         [](const char *n, pid_t t) { return QX_REALTIME_RemoveThread(n, t); }},
        {"QX_REALTIME_UpdateThreadUtil",
         [](const char *n, pid_t t) {
             QX_REALTIME_UTIL_t u = {10, 0, 0, 0};
             return QX_REALTIME_UpdateThreadUtil(n, &u, t);
         }},
        {"QX_REALTIME_GetDomainCpuUsage",
         [](const char *n, pid_t) { return QX_REALTIME_GetDomainCpuUsage(n, 1, 1); }},
        {"QX_REALTIME_DumpDomainInfo",
         [](const char *n, pid_t) { return QX_REALTIME_DumpDomainInfo(n); }},
    };
}

// The domain's s32UtilCurrent as its segment file holds it (INT32_MIN when unreadable).
int32_t util_current(const std::string &domain) {
    Segment s = read_segment(domain);
    return s.ok ? s.head.s32UtilCurrent : INT32_MIN;
}

std::string join_lines(const std::vector<std::string> &v) {
    std::string out;
    for (const std::string &s : v) out += "  " + s + "\n";
    return out;
}

void print_summary(const char *what, int cases, int crashes, double t0) {
    printf("[ hostile args ] %s: %d cases, %d crashed; %.1f s\n", what, cases, crashes,
           now_s() - t0);
    fflush(stdout);
}

// Runs every name-taking operation with every hostile name, each in its own child.
// with_state: Init and both domains exist; otherwise the sandbox is empty (no Init anywhere).
void run_name_cases(bool with_state) {
    install(2);
    double t0 = now_s();
    int cases = 0, crashes = 0;
    for (const Name &name : hostile_names()) {
        for (const NameOp &op : name_ops()) {
            if (with_state) {
                std::string err = reset({kRr, kDl});
                ASSERT_EQ("", err);
            } else {
                wipe_files();
            }
            const int32_t util_before = with_state ? util_current(kRr) : 0;
            const std::vector<std::string> files_before = library_files();
            const bool creates = std::string(op.function) == "QX_REALTIME_CreateDomain";
            ChildResult r = run_child([&]() -> std::string {
                // CreateDomain needs the configuration chosen by Init in its own process.
                if (with_state && creates && QX_REALTIME_Init(0) != RT_SUCCESS)
                    return "Init failed";
                pid_t t = start_sleeper();
                qxt::LogCapture log;
                uint32_t rc = op.call(name.c_str(), t);
                std::string out;
                if (name.null && rc != RT_ERR_INVALID_PARAM)
                    out += qxt::format("returned %u for a NULL name, not 8\n", rc);
                if (name.invalid || (name.unknown && creates)) {
                    if (rc != RT_ERR_INVALID_PARAM) out += qxt::format("returned %u, not 8\n", rc);
                    if (!log.has_error(invalid_name_message(op.function)))
                        out += "no \"Invalid domain name\" message; the log held:\n" + log.dump();
                } else if (name.unknown) {
                    if (rc != RT_ERR_NULL) out += qxt::format("returned %u, not 10\n", rc);
                    if (log.count_containing("Invalid domain name") != 0)
                        out += "refused as invalid; the log held:\n" + log.dump();
                }
                if (!name.null && !name.invalid && name.label == "63 chars" && with_state &&
                    !creates && rc != RT_ERR_NULL &&
                    std::string(op.function) != "QX_REALTIME_GetDomainCpuUsage" &&
                    std::string(op.function) != "QX_REALTIME_DumpDomainInfo")
                    out +=
                        qxt::format("returned %u for an unknown 63-character name, not 10\n", rc);
                return out;
            });
            cases++;
            if (!r.normal_exit) crashes++;
            std::string where = qxt::format("%s(name: %s)%s", op.function, name.label.c_str(),
                                            with_state ? "" : " without Init");
            EXPECT_TRUE(r.normal_exit) << where << ": " << r.describe();
            EXPECT_EQ("", r.text) << where;
            if (name.invalid || name.null || (name.unknown && (creates || with_state))) {
                std::vector<std::string> files_after = library_files();
                EXPECT_EQ(files_before, files_after)
                    << where << ": files appeared or vanished:\nbefore\n"
                    << join_lines(files_before) << "after\n"
                    << join_lines(files_after);
            }
            if (with_state && !creates) {
                ChildResult c = run_child([] { return admit_remove_and_check(kRr, -1, false); });
                EXPECT_EQ("", c.describe()) << where << ": the domain is not usable afterwards";
                EXPECT_EQ(util_before, util_current(kRr)) << where;
            }
        }
    }
    print_summary(with_state ? "domain names" : "domain names without Init", cases, crashes, t0);
}

// The results of every name-taking operation on every hostile name, called one after another in
// one fresh process of a configuration at the given DbgLevel: "code code ... | N lines logged".
std::string name_results(int dbg_level) {
    install(dbg_level);
    std::string err = reset({kRr, kDl});
    if (!err.empty()) return "reset: " + err;
    ChildResult r = run_child([] {
        pid_t t = start_sleeper();
        // Attached first: the level is the configured one from then on (a process that has not
        // attached yet logs at the default level).
        if (QX_REALTIME_GetAllDomainName(nullptr, 0) != RT_SUCCESS) return std::string("attach");
        qxt::LogCapture log;
        std::string codes;
        for (const Name &name : hostile_names())
            for (const NameOp &op : name_ops())
                codes += qxt::format("%u ", op.call(name.c_str(), t));
        return codes + qxt::format("| %zu lines logged", log.lines().size());
    });
    return r.normal_exit ? r.text : r.describe();
}

// Deadline bandwidth is one pool for the whole machine: whatever a failing case left booked is
// dropped on the way out, so that the deadline tests running beside these are not starved.
class HardeningHostileArgs : public qxt::SandboxTest {
protected:
    void SetUp() override {
        QXT_SKIP_UNDER_TSAN();
        SandboxTest::SetUp();
    }
    void TearDown() override { rebuild_sched_domains(); }
};

}  // namespace

TEST_F(HardeningHostileArgs, DomainNamesOnEveryNameTakingOperation) {
    run_name_cases(true);
}

TEST_F(HardeningHostileArgs, InvalidDomainNamesAreRefusedBeforeAnyFileEvenWithoutInit) {
    run_name_cases(false);
}

TEST_F(HardeningHostileArgs, ClassNamesAndPointerArguments) {
    install(2);
    ASSERT_EQ("", reset({kRr, kDl}));
    double t0 = now_s();
    int cases = 0, crashes = 0;
    std::vector<std::string> classes = {"",
                                        ".",
                                        "..",
                                        "Class_R/..",
                                        std::string(64, 'C'),
                                        std::string(5000, 'C'),
                                        "%s%n%x%n%n",
                                        "Class_\xff\xfe",
                                        "Class_ND"};  // the last: a class of another domain
    for (const std::string &cls : classes) {
        for (const char *domain : {kRr, kDl}) {
            const int32_t before = util_current(domain);
            ChildResult r = run_child([&]() -> std::string {
                pid_t t = start_sleeper();
                QX_REALTIME_UTIL_t u = {10, 10000, 1000, 100000};
                uint32_t a = QX_REALTIME_AddThread(domain, cls.c_str(), t, 0);
                uint32_t b = QX_REALTIME_AddThread_Lite(domain, cls.c_str(), &u, t, 1);
                std::string out;
                if (a == RT_SUCCESS || b == RT_SUCCESS)
                    out += qxt::format("a thread was admitted with class '%s': %u %u\n",
                                       cls.c_str(), a, b);
                return out + check_invariants(domain, -1);
            });
            cases++;
            crashes += !r.normal_exit;
            EXPECT_TRUE(r.normal_exit && r.exit_code == 0)
                << domain << " class " << cls.size() << " chars: " << r.describe();
            EXPECT_EQ("", r.text) << domain << " class '" << cls.substr(0, 80) << "'";
            EXPECT_EQ(before, util_current(domain));
        }
    }

    // NULL pointers and odd sizes in every other argument.
    struct Call {
        const char *what;
        std::function<std::string()> fn;
    };
    auto expect_code = [](const char *what, uint32_t rc, uint32_t want) {
        return rc == want ? std::string() : qxt::format("%s returned %u, not %u\n", what, rc, want);
    };
    // GetAllDomainName into a buffer it is told holds size bytes: refused, and nothing written
    // from byte size on.
    auto names_into = [&](uint32_t size, const char *overrun) {
        return [=] {
            std::vector<char> buf(64 * RT_MAX_DOMAIN, 'z');
            uint32_t rc = QX_REALTIME_GetAllDomainName(buf.data(), size);
            std::string out = expect_code("GetAllDomainName", rc, RT_ERR_SYSTEM);
            if (buf[size] != 'z') out += overrun;
            return out;
        };
    };
    std::vector<Call> calls = {
        {"QueryBudget(NULL util)",
         [&] {
             int32_t left = 0;
             return expect_code("QueryBudget", QX_REALTIME_QueryBudget(kRr, nullptr, &left),
                                RT_ERR_NULL);
         }},
        {"QueryBudget(NULL left)",
         [&] {
             QX_REALTIME_UTIL_t u = {0, 0, 0, 0};
             return expect_code("QueryBudget", QX_REALTIME_QueryBudget(kRr, &u, nullptr),
                                RT_ERR_NULL);
         }},
        {"QueryBudget(all NULL)",
         [&] {
             return expect_code("QueryBudget", QX_REALTIME_QueryBudget(nullptr, nullptr, nullptr),
                                RT_ERR_INVALID_PARAM);
         }},
        {"AddThread_Lite(NULL util)",
         [&] {
             return expect_code(
                 "AddThread_Lite",
                 QX_REALTIME_AddThread_Lite(kRr, kRrClass, nullptr, start_sleeper(), 0),
                 RT_ERR_NULL);
         }},
        {"AddThread_Lite(all NULL)",
         [&] {
             return expect_code("AddThread_Lite",
                                QX_REALTIME_AddThread_Lite(nullptr, nullptr, nullptr, -1, 255),
                                RT_ERR_NULL);
         }},
        {"AddThread(all NULL)",
         [&] {
             return expect_code("AddThread", QX_REALTIME_AddThread(nullptr, nullptr, -1, 255),
                                RT_ERR_INVALID_PARAM);
         }},
        {"UpdateThreadUtil(NULL util)",
         [&] {
             return expect_code("UpdateThreadUtil",
                                QX_REALTIME_UpdateThreadUtil(kRr, nullptr, start_sleeper()),
                                RT_ERR_NULL);
         }},
        {"UpdateThreadUtil(all NULL)",
         [&] {
             return expect_code("UpdateThreadUtil",
                                QX_REALTIME_UpdateThreadUtil(nullptr, nullptr, -1), RT_ERR_NULL);
         }},
        {"GetAllDomainName(NULL, 0)",
         [&] {
             return expect_code("GetAllDomainName", QX_REALTIME_GetAllDomainName(nullptr, 0),
                                RT_SUCCESS);
         }},
        {"GetAllDomainName(NULL, 4096)",
         [&] {
             return expect_code("GetAllDomainName", QX_REALTIME_GetAllDomainName(nullptr, 4096),
                                RT_SUCCESS);
         }},
        {"GetAllDomainName(buffer, 0)",
         names_into(0, "GetAllDomainName wrote into a buffer of size 0\n")},
        {"GetAllDomainName(buffer, 64)", names_into(64, "GetAllDomainName wrote past 64 bytes\n")},
        {"DmipsToUs(NULL)",
         [&] { return expect_code("DmipsToUs", QX_REALTIME_DmipsToUs(10, nullptr), RT_ERR_NULL); }},
        {"DmipsToUs(UINT32_MAX)",
         [&] {
             uint32_t us = 7;
             return expect_code("DmipsToUs", QX_REALTIME_DmipsToUs(UINT32_MAX, &us),
                                RT_ERR_INVALID_PARAM);
         }},
        {"GetAvailableHighPriorityResource(NULL)",
         [&] {
             return expect_code("GetAvailableHighPriorityResource",
                                QX_REALTIME_GetAvailableHighPriorityResource(nullptr),
                                RT_ERR_INVALID_PARAM);
         }},
        {"Init(2)", [&] { return expect_code("Init", QX_REALTIME_Init(2), RT_ERR_FAILED); }},
        {"Init(UINT32_MAX)",
         [&] { return expect_code("Init", QX_REALTIME_Init(UINT32_MAX), RT_ERR_FAILED); }},
        {"SetDebugLevel(INT_MIN, -1, INT_MAX)",
         [&] {
             // The level is taken as given (and left in the central record): a code, no crash.
             (void)QX_REALTIME_SetDebugLevel(INT_MIN);
             (void)QX_REALTIME_SetDebugLevel(-1);
             (void)QX_REALTIME_SetDebugLevel(INT_MAX);
             return std::string();
         }},
        {"GetDomainCpuUsage(0 ms, 0 samples)",
         [&] {
             (void)QX_REALTIME_GetDomainCpuUsage(kRr, 0, 0);
             (void)QX_REALTIME_GetDomainCpuUsage("All", 0, 0);
             return std::string();
         }},
        {"GetDomainCpuUsage(1 ms, UINT32_MAX samples) of an unknown domain",
         [&] {
             return expect_code("GetDomainCpuUsage",
                                QX_REALTIME_GetDomainCpuUsage("Domain_Unknown", 1, UINT32_MAX),
                                RT_ERR_NULL);
         }},
        {"_QX_REALTIME_GetAllDomainInfo and SelfTest",
         [&] {
             (void)_QX_REALTIME_GetAllDomainInfo();
             return expect_code("SelfTest", QX_REALTIME_SelfTest(), RT_SUCCESS);
         }},
    };
    for (const Call &c : calls) {
        ASSERT_EQ("", reset({kRr, kDl}));
        ChildResult r = run_child(c.fn);
        cases++;
        crashes += !r.normal_exit;
        EXPECT_TRUE(r.normal_exit && r.exit_code == 0) << c.what << ": " << r.describe();
        EXPECT_EQ("", r.text) << c.what;
    }
    print_summary("class names and pointers", cases, crashes, t0);
}

// Negative, INT_MIN, dead and foreign thread ids on every thread operation.
TEST_F(HardeningHostileArgs, ThreadIds) {
    install(2);
    double t0 = now_s();
    int cases = 0, crashes = 0;
    Foreign f = start_foreign();
    ASSERT_GT(f.pid, 0);
    pid_t dead = fork();
    if (dead == 0) _exit(0);
    waitpid(dead, nullptr, 0);
    struct Tid {
        const char *label;
        pid_t tid;
        bool refuse;  // must get a non-zero code and leave nothing behind
    };
    const Tid tids[] = {{"-1", -1, true},
                        {"INT_MIN", INT_MIN, true},
                        {"-2", -2, true},
                        {"dead", dead, true},
                        {"foreign", f.tid, false}};
    for (const Tid &tid : tids) {
        for (const char *domain : {kRr, kDl}) {
            ASSERT_EQ("", reset({kRr, kDl}));
            const int32_t before = util_current(domain);
            ChildResult r = run_child([&]() -> std::string {
                std::string out;
                QX_REALTIME_UTIL_t lite = is_dl(domain)
                                              ? QX_REALTIME_UTIL_t{10, 10000, 1000, 100000}
                                              : QX_REALTIME_UTIL_t{10, 0, 0, 0};
                QX_REALTIME_UTIL_t upd = is_dl(domain) ? QX_REALTIME_UTIL_t{0, 20000, 2000, 100000}
                                                       : QX_REALTIME_UTIL_t{20, 0, 0, 0};
                std::string cls = class_of(domain);
                uint32_t rc[5];
                rc[0] = QX_REALTIME_AddThread(domain, cls.c_str(), tid.tid, 0);
                rc[1] = QX_REALTIME_AddThread_Lite(domain, cls.c_str(), &lite, tid.tid, 1);
                rc[2] = QX_REALTIME_UpdateThreadUtil(domain, &upd, tid.tid);
                rc[3] = QX_REALTIME_RemoveThread(domain, tid.tid);
                rc[4] = QX_REALTIME_RemoveThread(domain, tid.tid);
                const char *names[5] = {"AddThread", "AddThread_Lite", "UpdateThreadUtil",
                                        "RemoveThread", "RemoveThread again"};
                Segment s = read_segment(domain);
                for (const Segment::Slot &slot : s.slots)
                    if (slot.rec.Alive != 0 && slot.rec.Pid == tid.tid)
                        out += qxt::format("a record names tid %d after the calls\n", tid.tid);
                if (tid.refuse) {
                    for (int i = 0; i < 5; i++)
                        if (rc[i] == RT_SUCCESS) out += qxt::format("%s returned 0\n", names[i]);
                } else {
                    // A thread of another live process is admitted, updated and removed.
                    for (int i = 0; i < 4; i++)
                        if (rc[i] != RT_SUCCESS && i != 1)
                            out += qxt::format("%s returned %u for a foreign thread\n", names[i],
                                               rc[i]);
                    if (rc[4] != RT_ERR_NOT_EXIST)
                        out += qxt::format("second RemoveThread returned %u, not 11\n", rc[4]);
                }
                return out + check_invariants(domain, tid.refuse ? -1 : tid.tid);
            });
            cases++;
            crashes += !r.normal_exit;
            EXPECT_TRUE(r.normal_exit && r.exit_code == 0)
                << domain << " tid " << tid.label << ": " << r.describe();
            EXPECT_EQ("", r.text) << domain << " tid " << tid.label;
            EXPECT_EQ(before, util_current(domain)) << domain << " tid " << tid.label;
        }
    }
    stop_foreign(f);
    print_summary("thread ids", cases, crashes, t0);
}

// Thread id 0 means the calling thread and is used as given: this only shows that the calls end
// with a code, in a child that is thrown away afterwards.
TEST_F(HardeningHostileArgs, ThreadIdZeroIsTheCallerAndEndsWithACode) {
    install(2);
    ASSERT_EQ("", reset({kRr, kDl}));
    for (const char *domain : {kRr, kDl}) {
        ChildResult r = run_child([&]() -> std::string {
            std::string cls = class_of(domain);
            QX_REALTIME_UTIL_t u = {0, 20000, 2000, 100000};
            uint32_t a = QX_REALTIME_AddThread(domain, cls.c_str(), 0, 0);
            uint32_t b = QX_REALTIME_UpdateThreadUtil(domain, &u, 0);
            uint32_t c = QX_REALTIME_RemoveThread(domain, 0);
            printf(
                "[ hostile args ] tid 0 in %s: AddThread %u, UpdateThreadUtil %u, RemoveThread "
                "%u\n",
                domain, a, b, c);
            fflush(stdout);
            return std::string();
        });
        EXPECT_TRUE(r.normal_exit) << domain << ": " << r.describe();
        // The child is gone: its charge goes at the next admission.
        ChildResult c = run_child([&] { return admit_remove_and_check(domain, -1, false); });
        EXPECT_EQ("", c.describe()) << domain;
    }
}

// Every combination of INT_MIN, -1, 0 and INT_MAX in the four words of the utilisation record,
// through the budget query, the unchecked admission and the update, in both domains.
TEST_F(HardeningHostileArgs, ExtremeUtilisationRecords) {
    install(0);
    ASSERT_EQ("", reset({kRr, kDl}));
    double t0 = now_s();
    const int32_t values[] = {INT32_MIN, -1, 0, INT32_MAX};
    int cases = 0, crashes = 0;
    for (int combo = 0; combo < 256; combo++) {
        QX_REALTIME_UTIL_t u = {values[combo & 3], values[(combo >> 2) & 3],
                                values[(combo >> 4) & 3], values[(combo >> 6) & 3]};
        std::string label =
            qxt::format("{%d, %d, %d, %d}", u.s32Util, u.DlDeadlineUs, u.DlRuntimeUs, u.DlPeriodUs);
        ChildResult r = run_child([&]() -> std::string {
            std::string out;
            for (const char *domain : {kRr, kDl}) {
                std::string cls = class_of(domain);
                QX_REALTIME_UTIL_t q = u;
                int32_t left = 0;
                (void)QX_REALTIME_QueryBudget(domain, &q, &left);

                pid_t t = start_sleeper();
                q = u;
                if (QX_REALTIME_AddThread_Lite(domain, cls.c_str(), &q, t, 0) == RT_SUCCESS)
                    (void)QX_REALTIME_RemoveThread(domain, t);
                out += check_invariants(domain, -1);

                pid_t t2 = start_sleeper();
                if (QX_REALTIME_AddThread(domain, cls.c_str(), t2, 0) != RT_SUCCESS) {
                    out += qxt::format("%s: admission before the update failed\n", domain);
                    continue;
                }
                q = u;
                (void)QX_REALTIME_UpdateThreadUtil(domain, &q, t2);
                out += check_invariants(domain, -1);
                uint32_t rc = QX_REALTIME_RemoveThread(domain, t2);
                if (rc != RT_SUCCESS)
                    out += qxt::format("%s: removal after the update returned %u\n", domain, rc);
                qxt::SchedInfo si = qxt::sched_of(t2);
                if (si.policy != SCHED_OTHER || qxt::cgroup_of(t2, "cpuset") != "/")
                    out += qxt::format("%s: removed thread has policy %u in %s\n", domain,
                                       si.policy, qxt::cgroup_of(t2, "cpuset").c_str());
                out += check_invariants(domain, -1);
            }
            return out;
        });
        cases++;
        crashes += !r.normal_exit;
        EXPECT_TRUE(r.normal_exit && r.exit_code == 0) << label << ": " << r.describe();
        EXPECT_EQ("", r.text) << label;
        if (!r.text.empty() || !r.normal_exit) {
            ASSERT_EQ("", reset({kRr, kDl}));
        }
    }
    print_summary("utilisation records", cases, crashes, t0);
}

// A quiet device (DbgLevel 0 in its configuration) answers every hostile name exactly as a chatty
// one (DbgLevel 4: errors, info and debug lines) does, and logs nothing at all.
TEST_F(HardeningHostileArgs, DomainNamesAtLevel0GiveTheSameResultsAndLogNothing) {
    std::string loud = name_results(4), quiet = name_results(0);
    size_t bar = loud.find("| ");
    ASSERT_NE(std::string::npos, bar) << loud;
    EXPECT_NE("| 0 lines logged", loud.substr(bar));
    EXPECT_EQ(loud.substr(0, bar) + "| 0 lines logged", quiet);
}
