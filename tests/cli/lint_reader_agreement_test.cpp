// The linter against the library, file by file over the fuzz seed corpus, the lint corpus and the
// shipped configurations:
//   - the linter's view "as the library reads it" is exactly what the library itself reads from
//     the file (through _QX_REALTIME_JsonParser, the path domain creation takes): System_ values,
//     and per domain its Util, Cpuset, scheduling type and classes with their values;
//   - a file the linter passes without an error is read by the library exactly as the linter's
//     strict parse says it is written.
// Either fails as soon as the linter and the library drift apart.
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <sstream>

#include "config_lint.h"
#include "qx_realtime_internal.h"
#include "test_support.h"

using qxrt_lint::ClassReading;
using qxrt_lint::DomainReading;
using qxrt_lint::Reading;

namespace {

// The files of a corpus directory whose names end in suffix, as paths, in name order.
std::vector<std::string> corpus_files(const std::string &dir, const std::string &suffix) {
    std::vector<std::string> out;
    for (const std::string &n : qxt::files_in(dir)) {
        if (n.size() >= suffix.size() &&
            n.compare(n.size() - suffix.size(), suffix.size(), suffix) == 0)
            out.push_back(dir + "/" + n);
    }
    std::sort(out.begin(), out.end());
    return out;
}

std::vector<std::string> all_cases() {
    std::vector<std::string> out = corpus_files(QXRT_FUZZ_CORPUS, "");
    for (const std::string &f : corpus_files(QXRT_LINT_CORPUS, ".json")) out.push_back(f);
    for (const std::string &f : corpus_files(std::string(QXRT_SOURCE_DIR) + "/config", ".json"))
        out.push_back(f);
    return out;
}

// The names after every "Domain_ quote, each once, as the parser may meet them (keys or values).
std::vector<std::string> domain_names_in(const std::string &text) {
    std::vector<std::string> out;
    for (size_t p = text.find("\"Domain_"); p != std::string::npos;
         p = text.find("\"Domain_", p + 1)) {
        size_t end = text.find('"', p + 1);
        if (end == std::string::npos) break;
        std::string name = text.substr(p + 1, end - p - 1);
        if (name.size() >= RT_NAME_LEN || name.find('\0') != std::string::npos) continue;
        if (std::find(out.begin(), out.end(), name) == out.end()) out.push_back(name);
    }
    return out;
}

struct FreeDeleter {
    void operator()(void *p) const { free(p); }
};

// What the library reads, through the whole-file path of domain creation, on records of this
// test's own; found is the parse's success.
Reading library_itself(const std::string &text, const std::vector<std::string> &names) {
    Reading out;
    char path[] = "/tmp/qxrt_lint_agree_XXXXXX";
    int fd = mkstemp(path);
    EXPECT_GE(fd, 0);
    if (fd < 0) return out;
    EXPECT_EQ(write(fd, text.data(), text.size()), (ssize_t)text.size());
    close(fd);

    std::unique_ptr<QX_REALTIME_CENTRAL_t, FreeDeleter> central(
        (QX_REALTIME_CENTRAL_t *)calloc(1, sizeof(QX_REALTIME_CENTRAL_t)));
    std::unique_ptr<QX_REALTIME_TOP_t, FreeDeleter> top(
        (QX_REALTIME_TOP_t *)calloc(1, sizeof(QX_REALTIME_TOP_t)));
    std::unique_ptr<QX_REALTIME_DOMAIN_t, FreeDeleter> domain(
        (QX_REALTIME_DOMAIN_t *)malloc(RT_SHM_SIZE));
    top->pstCentral = central.get();
    QX_REALTIME_TOP_t *saved_top = pstTop;
    uint32_t saved_level = _u32DbgLevel;
    pstTop = top.get();
    _u32DbgLevel = 0;

    std::vector<std::string> each = names.empty() ? std::vector<std::string>{""} : names;
    for (const std::string &name : each) {
        QX_REALTIME_DOMAIN_t *d = domain.get();
        memset(d, 0, RT_SHM_SIZE);
        snprintf(d->szName, sizeof(d->szName), "%s", name.c_str());
        d->s32NextOffset = RT_DOMAIN_HEADER_SIZE;
        d->s32ClassStartOffset = RT_DOMAIN_HEADER_SIZE;
        uint32_t ret = _QX_REALTIME_JsonParser(path, d);
        if (names.empty()) break;
        DomainReading r;
        r.name = name;
        r.found = ret == RT_SUCCESS;
        r.util = d->s32UtilMax;
        r.cpuset = std::string(d->pszCpuset, strnlen(d->pszCpuset, RT_CPUSET_LEN));
        r.sched_type = (int)d->u32SchedType;
        for (int32_t i = 0; i < d->s32ClassNum; i++) {
            const QX_REALTIME_CLASS_t *c =
                (const QX_REALTIME_CLASS_t *)((const char *)d + d->s32ClassStartOffset +
                                              i * RT_CLASS_SIZE);
            ClassReading cr;
            cr.name = std::string(c->szClassName, strnlen(c->szClassName, RT_NAME_LEN));
            cr.util = c->s32Util;
            cr.rt_priority = c->s32RtPriority;
            cr.dl_runtime = c->s32DlRuntimeUs;
            cr.dl_deadline = c->s32DlDeadlineUs;
            cr.dl_period = c->s32DlPeriodUs;
            r.classes.push_back(cr);
        }
        out.domains.push_back(r);
    }
    out.cap_per_core = top->s32CapPerCore;
    out.reservation = top->s32UtilReservation;
    out.dbg_level = top->s32DbgLevel;
    out.enabled = top->Enabled;
    out.budget_cpu_num = top->s32BudgetCpuNum;

    pstTop = saved_top;
    _u32DbgLevel = saved_level;
    unlink(path);
    return out;
}

// Every field the library fills; found only where the parse succeeded (a failed parse may still
// have met the domain: mixed scheduling types, no room in the central lists).
std::string differences(const Reading &a, const Reading &b, bool compare_found) {
    std::ostringstream o;
    auto field = [&](const std::string &what, long long x, long long y) {
        if (x != y) o << what << ": " << x << " vs " << y << "\n";
    };
    field("CapPerCore", a.cap_per_core, b.cap_per_core);
    field("Reservation", a.reservation, b.reservation);
    field("DbgLevel", a.dbg_level, b.dbg_level);
    field("Enabled", a.enabled, b.enabled);
    field("BudgetCpuNum", a.budget_cpu_num, b.budget_cpu_num);
    field("domains", (long long)a.domains.size(), (long long)b.domains.size());
    for (size_t i = 0; i < a.domains.size() && i < b.domains.size(); i++) {
        const DomainReading &x = a.domains[i], &y = b.domains[i];
        std::string n = x.name + " ";
        if (x.name != y.name) o << "domain " << i << ": " << x.name << " vs " << y.name << "\n";
        if (compare_found)
            field(n + "found", x.found, y.found);
        else if (y.found && !x.found)
            o << n << "read by the library but not found by the linter\n";
        field(n + "Util", x.util, y.util);
        if (x.cpuset != y.cpuset)
            o << n << "Cpuset: \"" << x.cpuset << "\" vs \"" << y.cpuset << "\"\n";
        field(n + "sched type", x.sched_type, y.sched_type);
        field(n + "classes", (long long)x.classes.size(), (long long)y.classes.size());
        for (size_t c = 0; c < x.classes.size() && c < y.classes.size(); c++) {
            const ClassReading &p = x.classes[c], &q = y.classes[c];
            std::string cn = n + p.name + " ";
            if (p.name != q.name)
                o << n << "class " << c << ": " << p.name << " vs " << q.name << "\n";
            field(cn + "Util", p.util, q.util);
            field(cn + "RT_Priority", p.rt_priority, q.rt_priority);
            field(cn + "DL_RuntimeUs", p.dl_runtime, q.dl_runtime);
            field(cn + "DL_DeadlineUs", p.dl_deadline, q.dl_deadline);
            field(cn + "DL_PeriodUs", p.dl_period, q.dl_period);
        }
    }
    return o.str();
}

bool has_error(const std::vector<qxrt_lint::Diagnostic> &found) {
    for (const qxrt_lint::Diagnostic &d : found)
        if (d.severity == qxrt_lint::Severity::kError) return true;
    return false;
}

class LintReaderAgreement : public ::testing::TestWithParam<std::string> {};

std::string case_name(const ::testing::TestParamInfo<std::string> &info) {
    std::string p = info.param;
    std::string dir = p.substr(0, p.rfind('/'));
    std::string base = p.substr(p.rfind('/') + 1);
    std::string tag = dir.find("fuzz") != std::string::npos          ? "fuzz_"
                      : dir.find("lint_corpus") != std::string::npos ? "lint_"
                                                                     : "shipped_";
    std::string out = tag + base;
    for (char &c : out)
        if (!isalnum((unsigned char)c)) c = '_';
    return out;
}

}  // namespace

TEST(LintReaderAgreementCases, EveryCorpusTakesPart) {
    std::vector<std::string> cases = all_cases();
    EXPECT_GE(corpus_files(QXRT_FUZZ_CORPUS, "").size(), 40u);
    EXPECT_GE(corpus_files(QXRT_LINT_CORPUS, ".json").size(), 15u);
    EXPECT_GE(cases.size(), 60u);
}

TEST_P(LintReaderAgreement, TheLinterReadsWhatTheLibraryReads) {
    std::string text = qxt::read_file(GetParam());
    Reading written;
    bool strict = qxrt_lint::written_reading(text, &written);
    std::vector<std::string> names;
    if (strict)
        for (const DomainReading &d : written.domains) names.push_back(d.name);
    else
        names = domain_names_in(text);

    Reading itself = library_itself(text, names);
    Reading linter = qxrt_lint::library_reading(text, names);
    EXPECT_EQ(differences(linter, itself, false), "") << "linter's library view vs the library";

    qxrt_lint::Options options;
    options.cpu_count = 2;
    std::vector<qxrt_lint::Diagnostic> found = qxrt_lint::lint_text(text, options);
    if (!strict || has_error(found)) return;
    // A clean file: the library reads exactly what is written.
    EXPECT_EQ(differences(written, itself, true), "") << "as written vs the library";
}

INSTANTIATE_TEST_SUITE_P(Files, LintReaderAgreement, ::testing::ValuesIn(all_cases()), case_name);
