// rtctl for a person at a shell: short usage errors (and a JSON one under --json), help and a
// manual page that read whole, deadline parameters named in the kernel's order beside the
// positional form, values a domain's policy ignores named, hints that name the cause of a
// failure (no framework, a missing directory, a segment this user may not open), and the linter
// on the standard input and on several files.
#include <sys/stat.h>
#include <unistd.h>

#include <nlohmann/json.hpp>
#include <set>
#include <sstream>

#include "cli_support.h"
#include "test_support.h"

using nlohmann::json;
using qxt::contains;
using qxt::Result;
using qxt::rtctl;

namespace {

std::vector<std::string> lines_of(const std::string &text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) lines.push_back(line);
    return lines;
}

bool ends_with(const std::string &text, const std::string &end) {
    return text.size() >= end.size() &&
           text.compare(text.size() - end.size(), end.size(), end) == 0;
}

std::string joined(const std::vector<std::string> &words) {
    std::string text;
    for (const std::string &w : words) text += (text.empty() ? "" : " ") + w;
    return text;
}

class RtctlDomains : public qxt::ShippedConfigTest {
protected:
    void SetUpInSandbox() override { qxt::start_shipped_domains(); }
};

const char kNoDomainHint[] =
    "rtctl: hint: no domain Domain_Nowhere: rtctl list shows the domains, rtctl create "
    "Domain_Nowhere makes it from the configuration\n";

}  // namespace

// ---- usage errors ----

TEST(RtctlUsageError, UnknownOptionIsTwoLinesWithTheCommandsUsageNotTheWholeHelp) {
    Result r = rtctl({"--jsn", "list"});
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.err,
              "rtctl: unknown option '--jsn'\n"
              "usage: rtctl [-v] list [--json]; try 'rtctl list --help'\n");
    EXPECT_EQ(r.out, "");
}

TEST(RtctlUsageError, EveryKindOfMistakeIsAtMostTwoLinesEndingWithTryHelpAndExitsTwo) {
    const std::vector<std::vector<std::string>> mistakes = {
        {},
        {"frobnicate"},
        {"--jsn", "list"},
        {"-x", "list"},
        {"list", "extra"},
        {"add", "Domain_Audio", "Class_Render"},
        {"dump"},
        {"update", "Domain_Audio", "1", "2", "3"},
        {"update", "Domain_Audio", "1", "0", "8000", "2000", "16000", "-T", "2000"},
        {"budget", "Domain_Camera", "-T", "2000"},
        {"budget", "Domain_Audio", "x", "0", "0", "0"},
        {"debug-level", "999"},
        {"top", "--interval", "5"},
        {"lint", "--cpus", "0", "f.json"},
        {"usage", "--svg"},
        {"deinit", "--repair"},
    };
    for (const auto &args : mistakes) {
        Result r = rtctl(args);
        std::string what = "rtctl " + joined(args) + "\n" + r.err;
        EXPECT_EQ(r.status, 2) << what;
        EXPECT_EQ(r.out, "") << what;
        std::vector<std::string> lines = lines_of(r.err);
        ASSERT_GE(lines.size(), 1u) << what;
        EXPECT_LE(lines.size(), 2u) << what;
        EXPECT_EQ(lines[0].rfind("rtctl: ", 0), 0u) << what;
        const std::string &last = lines.back();
        EXPECT_TRUE(ends_with(last, "try 'rtctl --help'") ||
                    (ends_with(last, " --help'") && contains(last, "try 'rtctl ")))
            << what;
    }
}

TEST(RtctlUsageError, UnderJsonAUsageErrorIsAlsoOneDocumentOnStdout) {
    struct Case {
        std::vector<std::string> args;
        json command;
        std::string message;
    } cases[] = {
        {{"--json", "--jsn", "list"}, "list", "unknown option '--jsn'"},
        {{"--json", "lisst"}, nullptr, "unknown command 'lisst'"},
        {{"--json", "budget", "Domain_Audio", "x", "0", "0", "0"},
         "budget",
         "UTIL: 'x' is not a signed 32-bit integer"},
        {{"--json", "check", "now"}, "check", "too many arguments, from 'now' on"},
    };
    for (const Case &c : cases) {
        Result r = rtctl(c.args);
        EXPECT_EQ(r.status, 2) << joined(c.args);
        json j = json::parse(r.out, nullptr, false);
        ASSERT_FALSE(j.is_discarded()) << joined(c.args) << ": not one JSON document:\n" << r.out;
        EXPECT_EQ(j["command"], c.command) << r.out;
        EXPECT_EQ(j["status"], 2) << r.out;
        EXPECT_EQ(j["error"], "usage") << r.out;
        EXPECT_EQ(j["message"], c.message) << r.out;
        EXPECT_TRUE(j["usage"].is_string()) << r.out;
        EXPECT_TRUE(contains(r.err, c.message)) << r.err;
    }
}

TEST(RtctlUsageError, DebugLevelOutsideTheLevelsIsAUsageError) {
    Result r = rtctl({"debug-level", "999"});
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.err,
              "rtctl: LEVEL: 999 is not a debug level (0..7, or the internal 16, 32, 48, 64, 80, "
              "240, 241)\n"
              "usage: rtctl [-v] debug-level LEVEL; try 'rtctl debug-level --help'\n");
    EXPECT_EQ(rtctl({"debug-level", "8"}).status, 2);
    EXPECT_EQ(rtctl({"debug-level", "-1"}).status, 2);
}

// ---- help and manual page ----

TEST(RtctlHelp, EverySummaryLineIsAWholeSentence) {
    Result r = rtctl({"--help"});
    ASSERT_EQ(r.status, 0);
    std::vector<std::string> lines = lines_of(r.out);
    int summaries = 0;
    for (const std::string &line : lines) {
        // The summary of each command: the line under "  COMMAND ...", indented by six.
        if (line.rfind("      ", 0) != 0 || line.size() <= 6 || line[6] == ' ') continue;
        summaries++;
        EXPECT_TRUE(ends_with(line, ".")) << "stops mid-sentence: " << line;
        EXPECT_LE(line.size(), 100u) << line;
    }
    EXPECT_GE(summaries, 20) << r.out;
}

TEST(RtctlHelp, JsonOptionNamesEveryCommandThatTakesIt) {
    Result help = rtctl({"--help"});
    ASSERT_EQ(help.status, 0);
    size_t at = help.out.find("  --json");
    ASSERT_NE(at, std::string::npos) << help.out;
    size_t end = help.out.find("\n  -", at + 1);
    std::string option = help.out.substr(at, end - at);
    size_t by = option.find("Taken by");
    ASSERT_NE(by, std::string::npos) << option;
    // The list after "Taken by", as names.
    std::set<std::string> named;
    std::string name;
    for (char ch : option.substr(by + 8) + ",") {
        if (ch == ',' || ch == '.') {
            if (!name.empty()) named.insert(name);
            name.clear();
        } else if (ch != ' ' && ch != '\n') {
            name += ch;
        }
    }
    const char *const kCommands[] = {"init",   "deinit", "debug-level", "self-test", "create",
                                     "delete", "list",   "layout",      "add",       "add-lite",
                                     "remove", "update", "budget",      "dmips",     "usage",
                                     "dump",   "top",    "check",       "lint"};
    std::set<std::string> taking;
    for (const char *c : kCommands)
        if (contains(rtctl({c, "--help"}).out, "--json prints one JSON object")) taking.insert(c);
    EXPECT_EQ(named, taking) << option;
    EXPECT_TRUE(taking.count("check") == 1 && taking.count("layout") == 1);
}

TEST(RtctlHelp, ManualPageHasEveryExitStatusAndSeeAlso) {
    Result r = rtctl({"--man"});
    ASSERT_EQ(r.status, 0);
    size_t exit_at = r.out.find(".SH EXIT STATUS\n");
    size_t next = r.out.find(".SH ", exit_at + 1);
    ASSERT_NE(exit_at, std::string::npos);
    std::string exit_status = r.out.substr(exit_at, next - exit_at);
    size_t one = exit_status.find(".B 1\n");
    ASSERT_NE(one, std::string::npos) << exit_status;
    std::string status_one = exit_status.substr(one, exit_status.find(".TP", one) - one);
    EXPECT_TRUE(contains(status_one, "check")) << status_one;
    EXPECT_TRUE(contains(status_one, "list")) << status_one;
    EXPECT_TRUE(contains(status_one, "lint")) << status_one;
    for (const char *code : {".B 0\n", ".B 2\n", ".B 4\n", ".B 8\n", ".B 9\n", ".B 10\n", ".B 11\n",
                             ".B 12\n", ".B 14\n"})
        EXPECT_TRUE(contains(exit_status, code)) << code;

    size_t see_also = r.out.find(".SH SEE ALSO\n");
    ASSERT_NE(see_also, std::string::npos) << r.out;
    for (const char *page : {".BR chrt (1)", ".BR taskset (1)", ".BR cgroups (7)", ".BR sched (7)"})
        EXPECT_TRUE(contains(r.out.substr(see_also), page)) << page;
}

TEST(RtctlHelp, DemandCommandsExplainBothFormsAndTheirOrder) {
    for (const char *c : {"update", "budget", "add-lite"}) {
        Result r = rtctl({c, "--help"});
        EXPECT_TRUE(contains(r.out, "UTIL DEADLINE_US RUNTIME_US\nPERIOD_US (not chrt's)"))
            << r.out;
        EXPECT_TRUE(contains(r.out, "-T RUNTIME_US -D DEADLINE_US -P PERIOD_US")) << r.out;
    }
    EXPECT_TRUE(contains(rtctl({"budget", "--help"}).out, "UTIL in a\ndeadline domain"));
}

// ---- the demand by name, and what a policy ignores ----

TEST_F(RtctlDomains, NamedDeadlineOptionsInTheKernelsOrderAdmitLikeThePositionalForm) {
    qxt::TestThread t(true);  // runnable, so its bandwidth goes back at once on removal
    std::string tid = std::to_string(t.tid());
    Result r = rtctl({"add-lite", "Domain_Camera", "Class_Isp", tid, "128", "-T", "3000", "-D",
                      "9000", "-P", "20000"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, "");
    qxt::SchedInfo s = qxt::sched_of(t.tid());
    EXPECT_EQ(s.policy, (uint32_t)SCHED_DEADLINE);
    EXPECT_EQ(s.runtime, 3000000u);
    EXPECT_EQ(s.deadline, 9000000u);
    EXPECT_EQ(s.period, 20000000u);

    // Long names, the deadline left out: it is the period.
    Result u = rtctl({"update", "Domain_Camera", tid, "--runtime", "2000", "--period", "16000"});
    ASSERT_EQ(u.status, 0) << u.err;
    s = qxt::sched_of(t.tid());
    EXPECT_EQ(s.runtime, 2000000u);
    EXPECT_EQ(s.deadline, 16000000u);
    EXPECT_EQ(s.period, 16000000u);
    EXPECT_EQ(rtctl({"remove", "Domain_Camera", tid}).status, 0);
}

TEST_F(RtctlDomains, BudgetByNameGivesWhatThePositionalFormGives) {
    Result positional = rtctl({"budget", "Domain_Camera", "0", "8000", "2000", "16000"});
    Result named = rtctl({"budget", "Domain_Camera", "-T", "2000", "-D", "8000", "-P", "16000"});
    EXPECT_EQ(named.status, 0) << named.err;
    EXPECT_EQ(named.out, positional.out);
    EXPECT_EQ(named.out, "Domain_Camera: utilisation left 1024 (demand 128)\n");
    EXPECT_EQ(named.err, "");
}

TEST_F(RtctlDomains, UtilGivenToADeadlineDomainIsNamedAsIgnored) {
    Result r = rtctl({"budget", "Domain_Camera", "500", "8000", "2000", "16000"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "Domain_Camera: utilisation left 1024 (demand 128)\n");
    EXPECT_EQ(r.err,
              "rtctl: note: budget: UTIL 500 is ignored in the deadline domain Domain_Camera: the "
              "demand is computed from the runtime and the period\n");
}

TEST_F(RtctlDomains, DeadlineParametersGivenToARoundRobinDomainAreNamedAsIgnored) {
    Result r = rtctl({"budget", "Domain_Audio", "100", "-T", "2000", "-P", "16000"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "Domain_Audio: utilisation left 512 (demand 100)\n");
    EXPECT_EQ(r.err,
              "rtctl: note: budget: the deadline parameters are ignored in the round-robin domain "
              "Domain_Audio: UTIL is the demand\n");
    // UTIL alone is the whole demand there: nothing to name.
    Result alone = rtctl({"budget", "Domain_Audio", "100"});
    EXPECT_EQ(alone.status, 0);
    EXPECT_EQ(alone.err, "");
}

TEST_F(RtctlDomains, ATripleTypedInTheKernelsOrderIntoThePositionalFormGetsTheOrderAsHint) {
    qxt::TestThread t;
    std::string tid = std::to_string(t.tid());
    ASSERT_EQ(rtctl({"add", "Domain_Camera", "Class_Preview", tid}).status, 0);
    Result r = rtctl({"update", "Domain_Camera", tid, "0", "2000", "8000", "16000"});
    EXPECT_EQ(r.status, 8);
    EXPECT_TRUE(contains(r.err,
                         "rtctl: update: RT_ERR_INVALID_PARAM (8)\n"
                         "rtctl: hint: runtime 8000 us > deadline 2000 us: the positional order "
                         "is UTIL DEADLINE_US RUNTIME_US PERIOD_US; in the kernel's order, name "
                         "them: -T RUNTIME_US -D DEADLINE_US -P PERIOD_US\n"))
        << r.err;
    EXPECT_EQ(rtctl({"remove", "Domain_Camera", tid}).status, 0);
}

// ---- hints that name the cause ----

using RtctlHint = qxt::SandboxTest;

TEST_F(RtctlHint, BeforeInitTheHintIsToRunInit) {
    Result r = rtctl({"list"});
    EXPECT_EQ(r.status, 10);
    EXPECT_TRUE(ends_with(r.err,
                          "rtctl: list: RT_ERR_NULL (10)\n"
                          "rtctl: hint: no framework: run rtctl init\n"))
        << r.err;
    Result check = rtctl({"check"});
    EXPECT_EQ(check.status, 1);
    EXPECT_TRUE(ends_with(check.err, "rtctl: hint: no framework: run rtctl init\n")) << check.err;
}

TEST_F(RtctlHint, AMissingLockDirectoryIsNamed) {
    qxt::install_shipped_config();
    ASSERT_EQ(rmdir("/data/vendor/realtime"), 0) << qxt::errno_text(errno);
    const std::string hint =
        "rtctl: hint: the directory /data/vendor/realtime/ is missing: the library keeps its lock "
        "files there (create it as root, as the device's init does, before rtctl init)\n";
    Result init = rtctl({"init"});
    EXPECT_EQ(init.status, 4);
    EXPECT_TRUE(ends_with(init.err, "rtctl: init: RT_ERR_FAILED (4)\n" + hint)) << init.err;
    Result list = rtctl({"list"});
    EXPECT_TRUE(contains(list.err, "can't get central flock")) << list.err;
    EXPECT_TRUE(ends_with(list.err, hint)) << list.err;
    ASSERT_EQ(mkdir("/data/vendor/realtime", 0777), 0);
    chmod("/data/vendor/realtime", 0777);
}

TEST_F(RtctlDomains, AnUnknownDomainIsNamedWithWhatToDo) {
    Result r = rtctl({"dump", "Domain_Nowhere"});
    EXPECT_EQ(r.status, 10);
    EXPECT_TRUE(ends_with(r.err, std::string("rtctl: dump: RT_ERR_NULL (10)\n") + kNoDomainHint))
        << r.err;
}

TEST_F(RtctlDomains, AUserWithoutAccessToTheSegmentIsToldPermissionDenied) {
    ASSERT_EQ(qxt::file_mode("/dev/shm/realtime/rt_Domain_Audio") & 0007, 0u);
    const std::string hint =
        "rtctl: hint: permission denied on /dev/shm/realtime/rt_Domain_Audio (run as root or in "
        "its group)\n";
    Result dump = qxt::rtctl_as_nobody({"dump", "Domain_Audio"});
    ASSERT_NE(dump.status, 127) << "setpriv is missing (util-linux)";
    EXPECT_EQ(dump.status, 10);
    EXPECT_TRUE(ends_with(dump.err, "rtctl: dump: RT_ERR_NULL (10)\n" + hint)) << dump.err;
    Result add = qxt::rtctl_as_nobody({"add", "Domain_Audio", "Class_Render", "1"});
    EXPECT_EQ(add.status, 10);
    EXPECT_TRUE(ends_with(add.err, hint)) << add.err;
    EXPECT_FALSE(contains(add.err, "no domain")) << add.err;

    // The reports of every domain say which they had to leave out.
    Result usage = qxt::rtctl_as_nobody({"usage", "All", "10", "1"});
    EXPECT_EQ(usage.status, 0) << usage.err;
    EXPECT_TRUE(contains(usage.err,
                         "rtctl: note: permission denied on /dev/shm/realtime/rt_Domain_Audio "
                         "(run as root or in its group): its domain is left out\n"))
        << usage.err;
}

TEST_F(RtctlDomains, CheckAsAnotherUserSaysItNeedsRootAndSuggestsNoRepair) {
    Result r = qxt::rtctl_as_nobody({"check"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, "");
    EXPECT_TRUE(contains(r.err,
                         "rtctl check: needs root: permission denied on "
                         "/dev/shm/realtime/rt_Domain_"))
        << r.err;
    EXPECT_FALSE(contains(r.out + r.err, "--repair")) << r.err;
    EXPECT_FALSE(contains(r.out + r.err, "inconsisten")) << r.err;

    Result j = qxt::rtctl_as_nobody({"--json", "check"});
    json doc = json::parse(j.out, nullptr, false);
    ASSERT_FALSE(doc.is_discarded()) << j.out;
    EXPECT_EQ(doc["findings"], json::array());
    EXPECT_TRUE(contains(doc["error"].get<std::string>(), "needs root")) << j.out;

    // Root sees a consistent framework: nothing was wrong but the user.
    Result root = rtctl({"check"});
    EXPECT_EQ(root.status, 0) << root.out;
    EXPECT_EQ(root.out, "consistent\n");
}

TEST_F(RtctlDomains, CreatingADomainAsAnotherUserIsToldItNeedsRoot) {
    ASSERT_EQ(rtctl({"delete", "Domain_Camera"}).status, 0);
    Result r = qxt::rtctl_as_nobody({"create", "Domain_Camera"});
    EXPECT_NE(r.status, 0);
    EXPECT_TRUE(contains(r.err,
                         "rtctl: hint: rtctl runs as user 65534: creating domains and changing "
                         "the scheduling of threads needs root\n"))
        << r.err;
}

// ---- the linter on the standard input and on several files ----

TEST(RtctlLintFiles, DashReadsTheStandardInput) {
    std::string good = qxt::read_file(std::string(QXRT_SOURCE_DIR) + "/config/rt-0.json");
    ASSERT_FALSE(good.empty());
    Result r = qxt::rtctl_via({}, {"lint", "--cpus", "2", "-"}, good);
    EXPECT_EQ(r.status, 0) << r.out;
    EXPECT_EQ(r.out, "<stdin>: 0 errors, 0 warnings\n");

    Result bad = qxt::rtctl_via({}, {"lint", "-"}, "{\n  \"Util\": 1024,\n");
    EXPECT_EQ(bad.status, 1) << bad.out;
    EXPECT_EQ(bad.out.rfind("<stdin>:", 0), 0u) << bad.out;
    EXPECT_TRUE(contains(bad.out, ": error: ")) << bad.out;
}

TEST(RtctlLintFiles, SeveralFilesAreEachReportedAndOneErrorFailsTheRun) {
    std::string dir = std::string(QXRT_SOURCE_DIR) + "/config/";
    std::string good = dir + "rt-0.json";
    std::string bad = std::string("/tmp/qxrt_lint_bad_") + std::to_string(getpid()) + ".json";
    qxt::write_file(bad, "{ \"Util\": \"1024\" }\n");
    Result both = rtctl({"lint", "--cpus", "2", good, bad});
    EXPECT_EQ(both.status, 1) << both.out;
    EXPECT_TRUE(contains(both.out, good + ": 0 errors, 0 warnings\n")) << both.out;
    EXPECT_TRUE(contains(both.out, bad + ":1: error: ")) << both.out;
    Result clean = rtctl({"lint", "--cpus", "2", good, good});
    EXPECT_EQ(clean.status, 0) << clean.out;
    EXPECT_EQ(clean.out, good + ": 0 errors, 0 warnings\n" + good + ": 0 errors, 0 warnings\n");
    Result missing = rtctl({"lint", good, "/nonexistent/rt.json"});
    EXPECT_EQ(missing.status, 1);
    EXPECT_TRUE(contains(missing.out, "/nonexistent/rt.json: error: cannot read the file"))
        << missing.out;
    unlink(bad.c_str());
}
