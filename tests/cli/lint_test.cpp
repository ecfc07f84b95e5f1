// The configuration linter: a corpus of good and bad files, each with the diagnostics it must
// produce (tests/cli/lint_corpus/NAME.expected: "LINE error|warning fragment"), the shipped
// configurations, the report format, and `rtctl lint` as a process.
#include <dirent.h>
#include <sys/sysinfo.h>

#include <algorithm>
#include <fstream>
#include <sstream>

#include "cli_support.h"
#include "config_lint.h"
#include "test_support.h"

using qxrt_lint::Diagnostic;
using qxrt_lint::Severity;

namespace {

struct Expected {
    int line;
    Severity severity;
    std::string fragment;
};

std::vector<Expected> read_expected(const std::string &path) {
    std::vector<Expected> rows;
    std::ifstream f(path);
    std::string line;
    while (std::getline(f, line)) {
        if (line.empty() || line[0] == '#') continue;
        std::istringstream in(line);
        Expected e;
        std::string sev;
        in >> e.line >> sev;
        std::getline(in, e.fragment);
        e.fragment.erase(0, e.fragment.find_first_not_of(' '));
        e.severity = sev == "warning" ? Severity::kWarning : Severity::kError;
        rows.push_back(e);
    }
    return rows;
}

std::vector<std::string> corpus_names() {
    std::vector<std::string> names;
    DIR *dir = opendir(QXRT_LINT_CORPUS);
    if (dir == nullptr) return names;
    while (struct dirent *e = readdir(dir)) {
        std::string n = e->d_name;
        if (n.size() > 5 && n.compare(n.size() - 5, 5, ".json") == 0)
            names.push_back(n.substr(0, n.size() - 5));
    }
    closedir(dir);
    std::sort(names.begin(), names.end());
    return names;
}

std::vector<Diagnostic> lint_for_two_cpus(const std::string &text) {
    qxrt_lint::Options options;
    options.cpu_count = 2;
    return qxrt_lint::lint_text(text, options);
}

std::string describe(const std::vector<Diagnostic> &found) {
    std::string s;
    for (const Diagnostic &d : found) s += qxrt_lint::format_diagnostic("file", d) + "\n";
    return s;
}

class LintCorpus : public ::testing::TestWithParam<std::string> {};

}  // namespace

TEST(LintCorpusFiles, CorpusIsPresentAndEveryFileHasItsExpectations) {
    std::vector<std::string> names = corpus_names();
    EXPECT_GE(names.size(), 15u);
    for (const std::string &n : names)
        EXPECT_TRUE(qxt::file_exists(std::string(QXRT_LINT_CORPUS) + "/" + n + ".expected")) << n;
}

TEST_P(LintCorpus, ReportsExactlyTheExpectedDiagnosticsOnTheirLines) {
    const std::string base = std::string(QXRT_LINT_CORPUS) + "/" + GetParam();
    std::vector<Diagnostic> found = lint_for_two_cpus(qxt::read_file(base + ".json"));
    std::vector<Expected> expected = read_expected(base + ".expected");
    ASSERT_EQ(found.size(), expected.size()) << describe(found);
    for (size_t i = 0; i < expected.size(); i++) {
        EXPECT_EQ(found[i].line, expected[i].line) << describe(found);
        EXPECT_EQ(found[i].severity, expected[i].severity) << describe(found);
        EXPECT_NE(found[i].message.find(expected[i].fragment), std::string::npos)
            << "expected \"" << expected[i].fragment << "\" in:\n"
            << describe(found);
        EXPECT_FALSE(found[i].fix.empty()) << describe(found);
    }
}

INSTANTIATE_TEST_SUITE_P(Files, LintCorpus, ::testing::ValuesIn(corpus_names()),
                         [](const ::testing::TestParamInfo<std::string> &info) {
                             return info.param;
                         });

TEST(Lint, ShippedConfigurationsAreClean) {
    for (const char *name : {"rt-0.json", "rt_verify_only.json"}) {
        std::string text = qxt::read_file(std::string(QXRT_SOURCE_DIR) + "/config/" + name);
        ASSERT_FALSE(text.empty()) << name;
        EXPECT_EQ(describe(lint_for_two_cpus(text)), "") << name;
        EXPECT_EQ(describe(qxrt_lint::lint_text(text, qxrt_lint::Options())), "") << name;
    }
}

TEST(Lint, CpuChecksFollowTheTargetMachine) {
    const std::string text = qxt::read_file(std::string(QXRT_LINT_CORPUS) + "/bad_cpusets.json");
    qxrt_lint::Options four;
    four.cpu_count = 4;
    for (const Diagnostic &d : qxrt_lint::lint_text(text, four))
        EXPECT_EQ(d.message.find("names CPU"), std::string::npos) << d.message;
    bool refused_on_two = false;
    for (const Diagnostic &d : lint_for_two_cpus(text))
        refused_on_two = refused_on_two || d.message.find("names CPU 2") != std::string::npos;
    EXPECT_TRUE(refused_on_two);
}

// On cgroup v2 the linter warns where the hierarchy can't give what a domain asks: a CPU its
// cpuset.cpus.effective does not grant, a deadline domain on fewer CPUs than the machine. Other
// layouts (or none told) get no such rule.
TEST(Lint, LayoutRulesFollowTheTargetLayout) {
    const std::string text = qxt::config_with(
        1, 1024, 0, 80, 2,
        qxt::join_domains(
            {qxt::rr_domain("Domain_One", 100, "1", {{"Class_One", 10, 50}}),
             qxt::dl_domain("Domain_Dl", 300, "1", {{"Class_Dl", 1000, 10000, 10000}}),
             qxt::dl_domain("Domain_All", 300, "0-3", {{"Class_All", 1000, 10000, 10000}})}));
    qxrt_lint::Options v2;
    v2.cpu_count = 4;
    v2.layout = "v2";
    v2.granted_cpus = {0, 2, 3};
    v2.granted_text = "0,2-3";
    std::string all = describe(qxrt_lint::lint_text(text, v2));
    EXPECT_NE(all.find("grants CPUs 0,2-3 only (cpuset.cpus.effective); CPU 1 of \"Domain_One\""),
              std::string::npos)
        << all;
    EXPECT_NE(all.find("on cgroup v2 a thread of the deadline domain \"Domain_Dl\""),
              std::string::npos)
        << all;
    EXPECT_EQ(all.find("deadline domain \"Domain_All\""), std::string::npos) << all;
    for (const char *layout : {"", "v1", "android"}) {
        qxrt_lint::Options other = v2;
        other.layout = layout;
        EXPECT_EQ(describe(qxrt_lint::lint_text(text, other)).find("cgroup v2"), std::string::npos)
            << layout;
    }
}

TEST(Lint, ReportFormatNamesFileLineSeverityAndFix) {
    Diagnostic e{7, Severity::kError, "something is wrong", "do this"};
    EXPECT_EQ(qxrt_lint::format_diagnostic("rt-0.json", e),
              "rt-0.json:7: error: something is wrong (fix: do this)");
    Diagnostic w{3, Severity::kWarning, "odd", ""};
    EXPECT_EQ(qxrt_lint::format_diagnostic("x.json", w), "x.json:3: warning: odd");
}

TEST(Lint, MalformedJsonGivesLineAndColumnOfTheFirstError) {
    std::vector<Diagnostic> found =
        lint_for_two_cpus("{\n  \"System_A\": {\n    \"Util\": 12 13\n  }\n}\n");
    ASSERT_EQ(found.size(), 1u) << describe(found);
    EXPECT_EQ(found[0].line, 3);
    EXPECT_NE(found[0].message.find("malformed JSON at column 16"), std::string::npos)
        << found[0].message;
}

TEST(Lint, TheWholeFileMustBeOneObject) {
    std::vector<Diagnostic> found = lint_for_two_cpus("\n[1, 2]\n");
    ASSERT_EQ(found.size(), 1u) << describe(found);
    EXPECT_EQ(found[0].line, 2);
}

TEST(RtctlLint, ErrorsExitOneAndArePrintedOnePerLine) {
    const std::string path = std::string(QXRT_LINT_CORPUS) + "/bad_domain_key_after_class.json";
    qxt::Result r = qxt::rtctl({"lint", "--cpus", "2", path});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out,
              path +
                  ":15: error: domain key \"Cpuset\" comes after the class \"Class_Render\" of "
                  "\"Domain_Audio\"; the parser reads it as a key of the last class before it "
                  "(fix: move \"Cpuset\" above \"Class_Render\")\n" +
                  path + ": 1 error, 0 warnings\n");
}

TEST(RtctlLint, WarningsAloneExitZero) {
    const std::string path = std::string(QXRT_LINT_CORPUS) + "/warn_unknown_keys.json";
    qxt::Result r = qxt::rtctl({"lint", "--cpus", "2", path});
    EXPECT_EQ(r.status, 0);
    EXPECT_NE(r.out.find(path + ":8: warning: unknown key \"Owner\""), std::string::npos) << r.out;
    EXPECT_NE(r.out.find(": 0 errors, 3 warnings\n"), std::string::npos) << r.out;
}

TEST(RtctlLint, ShippedConfigurationLintsCleanOnThisMachine) {
    if (get_nprocs() < 2) GTEST_SKIP() << "the shipped configuration is for 2 CPUs";
    qxt::Result r = qxt::rtctl({"lint", std::string(QXRT_SOURCE_DIR) + "/config/rt-0.json"});
    EXPECT_EQ(r.status, 0) << r.out;
    EXPECT_NE(r.out.find(": 0 errors, 0 warnings"), std::string::npos) << r.out;
}

TEST(RtctlLint, UnreadableFileIsAnError) {
    qxt::Result r = qxt::rtctl({"lint", "/nonexistent/rt-9.json"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out,
              "/nonexistent/rt-9.json: error: cannot read the file: No such file or directory\n");
}

TEST(RtctlLint, LintingTouchesNoSharedState) {
    QXT_REQUIRE_SANDBOX();
    qxt::Result r = qxt::rtctl({"-v", "lint", std::string(QXRT_SOURCE_DIR) + "/config/rt-0.json"});
    EXPECT_EQ(r.err, "");
    EXPECT_FALSE(qxt::file_exists("/dev/shm/realtime/rt_Global"));
    EXPECT_FALSE(qxt::file_exists("/data/vendor/realtime/flock_rt_Global"));
}

TEST(RtctlLint, BadCpuCountIsAUsageError) {
    qxt::Result r = qxt::rtctl({"lint", "--cpus", "none", "x.json"});
    EXPECT_EQ(r.status, 2);
    EXPECT_NE(r.err.find("usage: rtctl [-v] lint [--cpus N] FILE"), std::string::npos) << r.err;
}

// The linter links the library's reader from the core archive; rtctl must still be a client of
// the shared library: every operation imported from it, nothing of the library defined in rtctl
// for other objects to bind to.
TEST(RtctlLint, RtctlTakesEveryLibraryOperationFromTheSharedLibrary) {
    std::string command = std::string(QXRT_NM) + " -D " + QXRT_RTCTL + " 2>&1";
    FILE *pipe = popen(command.c_str(), "r");
    ASSERT_NE(pipe, nullptr);
    std::string all;
    char line[512];
    while (fgets(line, sizeof(line), pipe) != nullptr) all += line;
    ASSERT_EQ(pclose(pipe), 0) << all;
    std::istringstream in(all);
    std::string row;
    bool imports_init = false;
    while (std::getline(in, row)) {
        std::istringstream words(row);
        std::vector<std::string> w;
        for (std::string x; words >> x;) w.push_back(x);
        if (w.size() < 2) continue;
        const std::string &type = w[w.size() - 2], &name = w.back();
        bool library = name.rfind("QX_REALTIME_", 0) == 0 || name.rfind("_QX_", 0) == 0 ||
                       name.rfind("jsmn_", 0) == 0 || name == "rtlog" || name == "mutex" ||
                       name == "strerrBuf" || name == "u8JsonPath";
        if (!library) continue;
        EXPECT_EQ(type, "U") << row;
        if (name == "QX_REALTIME_Init") imports_init = true;
    }
    EXPECT_TRUE(imports_init) << all;
}
