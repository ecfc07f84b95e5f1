// Configuration linter: checks a realtime configuration file before it ships.
//
// The library reads its configuration twice and neither reader refuses much: QX_REALTIME_Init
// scans it line by line for "Util", "Enabled" and "DbgLevel", and every QX_REALTIME_CreateDomain
// walks the jsmn tokens in document order, telling scopes apart by key prefix and assigning each
// number to the first key still waiting for one. A mistake therefore rarely fails loudly: it
// turns into a domain without a CPU set, a class key read as another class's, or a framework that
// is silently off. The linter reads the file strictly, as a person reads it, then runs the
// library's own readers on it (on private records: no shared state is touched) and reports every
// trap where the two part, with its line.
#ifndef QXRT_CONFIG_LINT_H
#define QXRT_CONFIG_LINT_H

#include <string>
#include <vector>

namespace qxrt_lint {

enum class Severity { kError, kWarning };

struct Diagnostic {
    int line;  // 1-based
    Severity severity;
    std::string message;
    std::string fix;  // what to change; may be empty
};

struct Options {
    Options();
    int cpu_count;  // CPUs of the target machine; get_nprocs() of this one by default
    // The cgroup layout the configuration is for ("v1", "android", "v2"; empty: no layout rule)
    // and, on v2, the CPUs its hierarchy grants (empty: not known), as a list and as written.
    std::string layout;
    std::vector<long> granted_cpus;
    std::string granted_text;
};

// Every problem of the configuration text, in line order.
std::vector<Diagnostic> lint_text(const std::string &text, const Options &options);

// "FILE:LINE: error|warning: message (fix: suggestion)"
std::string format_diagnostic(const std::string &file, const Diagnostic &d);

// ---- what a configuration says: as written, and as the library reads it ----

// A value the file does not give reads as 0; kNotANumber marks a value written in a form that is
// not a plain integer (a string, a literal, a fraction), which the linter reports itself.
constexpr long long kNotANumber = -(1LL << 62);

struct ClassReading {
    std::string name;
    int line = 0;  // as written only
    long long util = 0, rt_priority = 0, dl_runtime = 0, dl_deadline = 0, dl_period = 0;
};

struct DomainReading {
    std::string name;
    int line = 0;  // as written only
    bool found = false;
    long long util = 0;
    std::string cpuset;
    int sched_type = 0;  // 0 none, 1 round-robin, 2 deadline, 3 both
    std::vector<ClassReading> classes;
};

// The start-up scan of QX_REALTIME_Init: Util, Enabled and DbgLevel, each with the line it came
// from (0: not found).
struct StartupReading {
    long long value[3] = {0, 0, 0};
    int line[3] = {0, 0, 0};
};

struct Reading {
    int system_line = 0;  // as written only
    long long cap_per_core = 0, reservation = 0, dbg_level = 0, enabled = 0, budget_cpu_num = 0;
    std::vector<DomainReading> domains;
};

// The file as written: the linter's own strict parse, scopes nested as written. False when the
// text is not one strict JSON object.
bool written_reading(const std::string &text, Reading *out);

// The file as the library reads it: the library's own reader, run for each of the named domains
// in turn (as creating them one after another would), on private records; nothing shared is
// touched and the library's messages are not shown.
Reading library_reading(const std::string &text, const std::vector<std::string> &domains);

// The library's own start-up scan over the text.
StartupReading library_startup_reading(const std::string &text);

struct Difference {
    int line;  // of the scope the value belongs to, as written
    std::string what;
};

// Where the library reads something other than what is written; empty when they agree.
std::vector<Difference> compare_readings(const Reading &written, const Reading &library);

// Reads a whole file; false with the reason when it can't.
bool read_file(const std::string &path, std::string *text, std::string *error);

}  // namespace qxrt_lint

#endif
