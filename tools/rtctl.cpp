// rtctl: the operator's command line for libqxt_realtime_hal.
//
// One subcommand per exported operation. Every invocation is its own process: it attaches to the
// shared state that QX_REALTIME_Init created (the library does that lazily), does one call, and
// exits with the call's result code, so scripts can test `$?` against the RT_* values. Bad
// arguments never reach the library: they give a usage message and exit status 2, which is not a
// result code.
//
// The library reports through the Android log. A log sink installed here prints each message's
// text plainly (without liblog's tag/time/pid decorations and without the "<ERR>func[line]: " or
// "<INFO>" prefix of the Android form), so that a dump or a CPU-usage sample reads like output.
#include <android/log.h>
#include <ctype.h>
#include <errno.h>
#include <fcntl.h>
#include <getopt.h>
#include <limits.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <fstream>
#include <functional>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "../src/platform/log_sink.h"
#include "config_lint.h"
#include "rt_check.h"
#include "qx_realtime.h"
#include "qx_realtime_internal.h"  // the central record's layout and the segment path
#include "rtctl_hints.h"
#include "rtctl_report.h"
#include "rtctl_run.h"
#include "rtctl_top.h"
#include "result_name.h"

namespace {

constexpr int kExitUsage = 2;
constexpr int kExitInconsistent = 1;  // check: inconsistent; list: a damaged central record

// ---- log sink ----

FILE *g_log_out = stderr;          // where the library's messages go for this invocation
bool g_print = true;               // print them at all (not while a report is only captured)
std::string *g_capture = nullptr;  // also keep them here (a report read back for --json, top)
bool g_report = false;             // the messages are this command's report (dump, usage)
bool g_log_muted = false;  // set around calls whose messages are not the operator's business
bool g_line_open = false;  // the last message had no line end (a list printed piecewise)

bool starts_with(const std::string &s, const char *prefix) {
    return s.compare(0, strlen(prefix), prefix) == 0;
}

// The message without its Android prefix: what the library calls the file form.
std::string file_form(const char *message) {
    std::string text = message ? message : "";
    if (starts_with(text, "<INFO>")) return text.substr(6);
    if (starts_with(text, "<ERR>")) {
        size_t pos = text.find("]: ");
        if (pos != std::string::npos) return text.substr(pos + 3);
    }
    return text;
}

// The text after the "[RT_Impl][...] " tag, for pieces appended to an open line.
std::string without_tag(const std::string &text) {
    if (starts_with(text, "[RT_Impl][")) {
        size_t pos = text.find("] ", 10);
        if (pos != std::string::npos) return text.substr(pos + 2);
    }
    return text;
}

void put(const std::string &text) {
    if (g_capture != nullptr) g_capture->append(text);
    if (g_print) fputs(text.c_str(), g_log_out);
}

void close_open_line() {
    if (g_line_open) {
        put("\n");
        g_line_open = false;
    }
}

void plain_logger(int, const char *, const char *message) {
    if (g_log_muted) return;
    std::string text = file_form(message);
    // A dump or a usage sample is printed at error level only so that it shows at the default
    // level; as the command's report it reads better without the error tag.
    if (g_report && starts_with(text, "[RT_Impl][Err] ")) text = text.substr(15);
    bool line_end = false;
    while (!text.empty() && text.back() == '\n') {
        text.pop_back();
        line_end = true;
    }
    if (g_line_open) {
        // A message without a line end (the dump's process-ID list) is continued by the pieces
        // that follow it, also without line ends; its closing " ]" is an info line that the
        // default level drops, so any other complete message ends the open line first.
        std::string piece = without_tag(text);
        if (!line_end) {
            put(piece);
            return;
        }
        if (piece.find_first_not_of(' ') != std::string::npos &&
            piece.substr(piece.find_first_not_of(' ')) == "]") {
            put(piece + "\n");
            g_line_open = false;
            return;
        }
        close_open_line();
    }
    put(text);
    if (line_end)
        put("\n");
    else
        g_line_open = true;
    if (g_print) fflush(g_log_out);
}

// ---- results ----

// The domain the command names ("" for none), for the hints of a failure.
std::string g_domain;
// Hints a command found itself (the order of a deadline triple), printed before the general ones.
std::vector<std::string> g_hints;

void print_hints(const std::string &command, uint32_t code) {
    std::vector<std::string> hints = g_hints;
    std::vector<std::string> causes = rtctl::failure_causes(command, code, g_domain);
    hints.insert(hints.end(), causes.begin(), causes.end());
    for (const std::string &h : hints) fprintf(stderr, "rtctl: hint: %s\n", h.c_str());
}

// The exit status is the result code itself (all of them are below 256). A failure is named, and
// followed by what the files show of its likely cause.
int finish(const char *command, uint32_t code) {
    close_open_line();
    fflush(stdout);
    if (code != RT_SUCCESS) {
        fprintf(stderr, "rtctl: %s: %s (%u)\n", command, result_name(code), code);
        std::string base = command;
        print_hints(base.substr(0, base.find(':')), code);
    }
    return (int)(code & 0xFFu);
}

// ---- commands ----

// Options a command accepts besides -v, --help and (where it has one) --json.
enum : unsigned {
    kOptOverrun = 1u << 0,   // --overrun
    kOptCpus = 1u << 1,      // --cpus N
    kOptSvg = 1u << 2,       // --svg FILE
    kOptJson = 1u << 3,      // --json
    kOptCount = 1u << 4,     // --count N
    kOptInterval = 1u << 5,  // --interval MS
    kOptRepair = 1u << 6,    // --repair
    kOptDemand = 1u << 7,    // -T/--runtime, -D/--deadline, -P/--period
    kOptAll = 1u << 8,       // -a/--all
};

struct Args {
    std::vector<std::string> pos;  // positional arguments after the subcommand
    bool overrun = false;
    bool json = false;
    std::string cpus, svg, count, interval;
    bool verbose = false;
    bool repair = false;
    bool all = false;
    std::string runtime, deadline, period;  // the named deadline parameters ("" when not given)
};

typedef int (*Handler)(const char *name, const Args &args);

// One row per subcommand: adding a command is adding a row (and its handler).
struct Command {
    const char *name;
    const char *synopsis;  // arguments and options, as shown in the usage line
    const char *help;      // what it does; the first line is the summary in `rtctl --help`
    const char *json;      // the shape of the --json document (nullptr: no --json)
    int min_args;
    int max_args;
    unsigned options;    // kOpt* bits
    bool output_is_log;  // the library's messages are this command's output: print them on stdout
    Handler run;
};

const Command *find_command(const std::string &name);
void print_usage(FILE *out);

// The one-line usage (a usage error shows it); alternative forms are separated by " | ".
std::string usage_line(const Command &c) {
    return std::string("usage: rtctl [-v] ") + c.name + (c.synopsis[0] ? " " : "") + c.synopsis;
}

// The synopsis's alternative forms, each whole, for the help and the manual page.
std::vector<std::string> forms(const Command &c) {
    std::vector<std::string> out;
    std::string rest = c.synopsis;
    for (size_t bar = rest.find(" | "); bar != std::string::npos; bar = rest.find(" | ")) {
        out.push_back(rest.substr(0, bar));
        rest = rest.substr(bar + 3);
    }
    out.push_back(rest);
    return out;
}

void print_command_help(FILE *out, const Command &c) {
    std::string usage;
    for (const std::string &form : forms(c))
        usage += std::string(usage.empty() ? "usage: " : "\n       ") + "rtctl [-v] " + c.name +
                 (form.empty() ? "" : " ") + form;
    fprintf(out, "%s\n\n%s\n", usage.c_str(), c.help);
    if (c.json != nullptr) fprintf(out, "\n--json prints one JSON object:\n%s\n", c.json);
}

bool g_json = false;  // --json was given: a usage error is a JSON document too

// Two lines on stderr, the mistake and the usage, never the whole help; exit status 2. With
// --json also one document on stdout, so that a script reading it is not left with nothing.
int usage_error(const Command *c, const std::string &message) {
    std::string usage = c != nullptr ? usage_line(*c) : "usage: rtctl [-v] COMMAND [ARGS...]";
    std::string help = c != nullptr ? std::string("rtctl ") + c->name + " --help" : "rtctl --help";
    fprintf(stderr, "rtctl: %s\n%s; try '%s'\n", message.c_str(), usage.c_str(), help.c_str());
    if (g_json) {
        rtctl::Json j;
        j.begin_object().key("command");
        if (c != nullptr)
            j.value(c->name);
        else
            j.null();
        j.key("status").value((int64_t)kExitUsage).key("error").value("usage");
        j.key("message").value(message).key("usage").value(usage.substr(strlen("usage: ")));
        j.end_object();
        printf("%s\n", j.str().c_str());
    }
    return kExitUsage;
}

// Whole-text decimal conversions, refused when anything is left over or the value does not fit
// the parameter's C type.
bool parse_s32(const std::string &text, int32_t *out) {
    if (text.empty()) return false;
    errno = 0;
    char *end = nullptr;
    long long v = strtoll(text.c_str(), &end, 10);
    if (errno != 0 || end == text.c_str() || *end != '\0') return false;
    if (v < INT32_MIN || v > INT32_MAX) return false;
    *out = (int32_t)v;
    return true;
}

bool parse_u32(const std::string &text, uint32_t *out) {
    if (text.empty() || text[0] == '-' || text[0] == '+' || text[0] == ' ') return false;
    errno = 0;
    char *end = nullptr;
    unsigned long long v = strtoull(text.c_str(), &end, 10);
    if (errno != 0 || end == text.c_str() || *end != '\0') return false;
    if (v > UINT32_MAX) return false;
    *out = (uint32_t)v;
    return true;
}

// Reports the first argument that is not a number of the wanted type; true when all are.
struct NumberParser {
    const Command *cmd;
    bool ok = true;
    explicit NumberParser(const Command *c) : cmd(c) {}
    void s32(const std::string &text, const char *label, int32_t *out) {
        if (ok && !parse_s32(text, out)) {
            ok = false;
            usage_error(cmd,
                        std::string(label) + ": '" + text + "' is not a signed 32-bit integer");
        }
    }
    void u32(const std::string &text, const char *label, uint32_t *out) {
        if (ok && !parse_u32(text, out)) {
            ok = false;
            usage_error(cmd,
                        std::string(label) + ": '" + text + "' is not an unsigned 32-bit integer");
        }
    }
};

const Command *cmd_of(const char *name) {
    return find_command(name);
}

// ---- debug level of one invocation ----

// QX_REALTIME_SetDebugLevel also stores the level in the shared settings when the framework is
// enabled, where every process that attaches later reads it. `-v` is meant for one invocation,
// so the stored value is read first (straight from the central segment, without a lock: a
// diagnostic setting) and put back when the command is done.
bool read_stored_level(int32_t *level) {
    char path[RT_PATH_LEN];
    if (qx_segment_path(path, sizeof(path), RT_CENTRAL_NAME) < 0) return false;
    int fd = open(path, O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) return false;
    ssize_t got = pread(fd, level, sizeof(*level), offsetof(QX_REALTIME_CENTRAL_t, s32DbgLevel));
    close(fd);
    return got == (ssize_t)sizeof(*level);
}

bool g_verbose = false;
bool g_have_stored_level = false;
int32_t g_stored_level = 0;

// Raises this process's level to 64. The first call may attach to the central segment, and
// attaching sets the level from the shared settings, so the level is set once more afterwards.
// Its own messages (a missing central segment before `init`) are not what the operator asked
// to see.
void raise_debug_level() {
    if (!g_verbose) return;
    g_log_muted = true;
    QX_REALTIME_SetDebugLevel(64);
    QX_REALTIME_SetDebugLevel(64);
    g_log_muted = false;
}

void restore_stored_level(const char *command) {
    int32_t now = 0;
    // debug-level stores its own level; init and create reread it from the configuration.
    if (!g_have_stored_level || strcmp(command, "debug-level") == 0) return;
    if (!read_stored_level(&now) || now != 64 || g_stored_level == 64) return;
    g_log_muted = true;
    QX_REALTIME_SetDebugLevel(g_stored_level);
    g_log_muted = false;
}

// ---- JSON documents ----

// Every --json document starts with the command and its result.
void json_head(rtctl::Json &j, const char *command, uint32_t code) {
    j.begin_object()
        .key("command")
        .value(command)
        .key("result")
        .value((int64_t)code)
        .key("result_name")
        .value(result_name(code));
}

void json_print(rtctl::Json &j) {
    j.end_object();
    printf("%s\n", j.str().c_str());
}

}  // namespace

namespace rtctl {

std::string capture_report(const std::function<uint32_t()> &call, uint32_t *rc) {
    std::string text;
    std::string *saved_capture = g_capture;
    bool saved_print = g_print, saved_report = g_report;
    g_capture = &text;
    g_print = false;
    g_report = true;
    *rc = call();
    close_open_line();
    g_capture = saved_capture;
    g_print = saved_print;
    g_report = saved_report;
    return text;
}

}  // namespace rtctl

namespace {

int run_init(const char *name, const Args &a) {
    NumberParser p(cmd_of(name));
    uint32_t mode = 0;
    if (!a.pos.empty()) p.u32(a.pos[0], "mode", &mode);
    if (!p.ok) return kExitUsage;
    return finish(name, QX_REALTIME_Init(mode));
}

int run_deinit(const char *name, const Args &) {
    return finish(name, QX_REALTIME_Deinit());
}

int run_debug_level(const char *name, const Args &a) {
    NumberParser p(cmd_of(name));
    int32_t level = 0;
    p.s32(a.pos[0], "LEVEL", &level);
    if (!p.ok) return kExitUsage;
    // The library stores any number. Processes attaching later read it on the configuration's
    // DbgLevel scale 0..7, the caller itself as an internal level: anything else selects nothing.
    static const int32_t kInternal[] = {16, 32, 48, 64, 80, 240, 241};
    bool known = level >= 0 && level <= 7;
    for (int32_t l : kInternal) known = known || l == level;
    if (!known)
        return usage_error(cmd_of(name), "LEVEL: " + a.pos[0] +
                                             " is not a debug level (0..7, or the internal 16, "
                                             "32, 48, 64, 80, 240, 241)");
    return finish(name, QX_REALTIME_SetDebugLevel(level));
}

int run_self_test(const char *name, const Args &) {
    return finish(name, QX_REALTIME_SelfTest());
}

// The configuration path is chosen per process by QX_REALTIME_Init; a process that merely
// attached to the shared state has none, and its CreateDomain could not read the file. So create
// initialises this process first, exactly as a client does before creating its domains.
int run_create(const char *name, const Args &a) {
    NumberParser p(cmd_of(name));
    uint32_t mode = 0;
    if (a.pos.size() > 1) p.u32(a.pos[1], "MODE", &mode);
    if (!p.ok) return kExitUsage;
    uint32_t rc = QX_REALTIME_Init(mode);
    if (rc != RT_SUCCESS) return finish("create: init", rc);
    raise_debug_level();  // Init set this process's level from the configuration
    return finish(name, QX_REALTIME_CreateDomain(a.pos[0].c_str()));
}

int run_delete(const char *name, const Args &a) {
    return finish(name, (uint32_t)QX_REALTIME_DeleteDomain(a.pos[0].c_str()));
}

int run_list(const char *name, const Args &a) {
    // Room for every domain the central record can hold: 24 slots of 64 bytes.
    static char names[RT_NAME_LEN * RT_MAX_DOMAIN];
    memset(names, 0, sizeof(names));
    uint32_t rc = QX_REALTIME_GetAllDomainName(names, sizeof(names));
    close_open_line();
    // Names copied before a failure stay valid, so they are shown either way. An entry that is
    // not a name (a damaged central record) is never printed: it is counted and named as such.
    std::vector<std::string> found;
    int damaged = 0;
    for (size_t slot = 0; slot < RT_MAX_DOMAIN; slot++) {
        const char *entry = names + RT_NAME_LEN * slot;
        size_t len = strnlen(entry, RT_NAME_LEN);
        if (len == 0) continue;
        if (rtcheck::is_domain_name(entry, RT_NAME_LEN))
            found.push_back(std::string(entry, len));
        else
            damaged++;
    }
    if (a.json) {
        rtctl::Json j;
        json_head(j, name, rc);
        j.key("domains").strings(found);
        j.key("damaged_entries").value((int64_t)damaged);
        json_print(j);
    } else {
        for (const std::string &n : found) printf("%s\n", n.c_str());
    }
    int status = finish(name, rc);
    if (damaged > 0) {
        fprintf(stderr,
                "rtctl: list: %d entr%s of the central record's domain list %s not a domain name: "
                "the record is damaged (rtctl check --repair rebuilds the list)\n",
                damaged, damaged == 1 ? "y" : "ies", damaged == 1 ? "is" : "are");
        if (status == 0) status = kExitInconsistent;
    }
    return status;
}

// The cgroup layout the library runs on here, as it tells it itself, and where a domain's CPU
// time comes from on it.
int run_layout(const char *name, const Args &a) {
    int layout = qx_cgroup_layout();
    bool cpuacct = qx_cgroup_has_cpuacct();
    bool v2 = layout == QX_CGROUP_V2;
    const char *cpuset = v2 ? QX_CGROUP2_MOUNT : RT_CPUSET_ROOT;
    const char *source = cpuacct ? "cpuacct" : "threads";
    if (a.json) {
        rtctl::Json j;
        json_head(j, name, RT_SUCCESS);
        j.key("layout").value(qx_cgroup_layout_name(layout)).key("cpuset").value(cpuset);
        j.key("cpuacct");
        if (cpuacct)
            j.value(RT_CPUACCT_ROOT);
        else
            j.null();
        j.key("usage_from").value(source);
        json_print(j);
    } else {
        printf("layout: %s\ncpuset: %s%s\ncpuacct: %s\nusage from: %s\n",
               qx_cgroup_layout_name(layout), cpuset,
               v2 ? " (cgroup v2: a threaded group " QX_CGROUP2_GROUP_PREFIX
                    "DOMAIN in each admitted thread's own group)"
                  : "",
               cpuacct ? RT_CPUACCT_ROOT : "none (no cpuacct hierarchy is mounted)",
               cpuacct ? "each domain's cpuacct group"
                       : "the CPU time of each domain's admitted threads");
    }
    return finish(name, RT_SUCCESS);
}

int run_add(const char *name, const Args &a) {
    NumberParser p(cmd_of(name));
    int32_t tid = 0;
    p.s32(a.pos[2], a.all ? "PID" : "TID", &tid);
    if (!p.ok) return kExitUsage;
    if (!a.all)
        return finish(name, QX_REALTIME_AddThread(a.pos[0].c_str(), a.pos[1].c_str(), tid,
                                                  a.overrun ? 1 : 0));
    // -a: every thread the process has now, as chrt -a and taskset -a take them.
    if (rtctl::threads_of(tid).empty()) {
        fprintf(stderr, "rtctl: %s: no process %d\n", name, (int)tid);
        return finish(name, RT_ERR_NOT_EXIST);
    }
    std::set<pid_t> done;
    return finish(name, rtctl::admit_threads(name, {a.pos[0], a.pos[1], a.overrun}, tid, &done));
}

// The library gives a dead client's charge back at the start of every admission to its domain,
// before it looks the class up: an admission that names no class does that and nothing else.
void reap_domain(const std::string &domain) {
    bool saved = g_print;
    g_print = false;
    (void)QX_REALTIME_AddThread(domain.c_str(), "", (int32_t)getpid(), 0);
    g_print = saved;
}

int run_run(const char *name, const Args &a) {
    rtctl::Admission admission{a.pos[0], a.pos[1], a.overrun};
    std::vector<std::string> argv(a.pos.begin() + 2, a.pos.end());
    uint32_t refused = RT_SUCCESS;
    int status =
        rtctl::run_program(name, admission, a.all, argv, &refused, [&] { reap_domain(a.pos[0]); });
    return refused != RT_SUCCESS ? finish(name, refused) : status;
}

// The demand of add-lite, update and budget, from the arguments after the first `first` ones.
// Positional, the utilisation record's order: UTIL DEADLINE_US RUNTIME_US PERIOD_US (UTIL alone
// leaves the triple at 0). Named, the kernel's order and chrt's letters: [UTIL] -T RUNTIME_US
// -D DEADLINE_US -P PERIOD_US, where a missing deadline is the period and a missing period the
// deadline, as the kernel's implicit-deadline tasks have them.
struct Demand {
    QX_REALTIME_UTIL_t util = {0, 0, 0, 0};
    bool named = false;
};

bool parse_demand(NumberParser &p, const Args &a, size_t first, Demand *d) {
    size_t given = a.pos.size() - first;
    d->named = !a.runtime.empty() || !a.deadline.empty() || !a.period.empty();
    if (d->named ? given > 1 : (given != 1 && given != 4)) {
        p.ok = false;
        usage_error(p.cmd, std::string(p.cmd->name) +
                               (d->named ? ": the deadline parameters are given both by position "
                                           "and by name: give UTIL and -T/-D/-P, or four numbers"
                                         : ": give UTIL DEADLINE_US RUNTIME_US PERIOD_US, UTIL "
                                           "alone, or -T RUNTIME_US -D DEADLINE_US -P PERIOD_US"));
        return false;
    }
    if (given >= 1) p.s32(a.pos[first], "UTIL", &d->util.s32Util);
    if (given == 4) {
        p.s32(a.pos[first + 1], "DEADLINE_US", &d->util.DlDeadlineUs);
        p.s32(a.pos[first + 2], "RUNTIME_US", &d->util.DlRuntimeUs);
        p.s32(a.pos[first + 3], "PERIOD_US", &d->util.DlPeriodUs);
    }
    if (!d->named || !p.ok) return p.ok;
    if (a.runtime.empty() || (a.deadline.empty() && a.period.empty())) {
        p.ok = false;
        usage_error(p.cmd, std::string(p.cmd->name) +
                               ": -T RUNTIME_US needs -D DEADLINE_US or -P PERIOD_US (or both)");
        return false;
    }
    p.s32(a.runtime, "-T/--runtime", &d->util.DlRuntimeUs);
    if (!a.deadline.empty()) p.s32(a.deadline, "-D/--deadline", &d->util.DlDeadlineUs);
    if (!a.period.empty()) p.s32(a.period, "-P/--period", &d->util.DlPeriodUs);
    if (a.deadline.empty()) d->util.DlDeadlineUs = d->util.DlPeriodUs;
    if (a.period.empty()) d->util.DlPeriodUs = d->util.DlDeadlineUs;
    return p.ok;
}

// Names on stderr what the domain's policy makes the library ignore of a demand, so that a value
// typed in is never dropped without a word. add-lite books UTIL as given in either policy.
void note_ignored(const char *command, const std::string &domain, const Demand &d) {
    uint32_t type = rtctl::domain_sched_type(domain);
    const QX_REALTIME_UTIL_t &u = d.util;
    if (type == 2 && u.s32Util != 0 && strcmp(command, "add-lite") != 0)
        fprintf(stderr,
                "rtctl: note: %s: UTIL %d is ignored in the deadline domain %s: the demand is "
                "computed from the runtime and the period\n",
                command, u.s32Util, domain.c_str());
    if (type == 1 && (u.DlDeadlineUs != 0 || u.DlRuntimeUs != 0 || u.DlPeriodUs != 0))
        fprintf(stderr,
                "rtctl: note: %s: the deadline parameters are ignored in the round-robin domain "
                "%s: UTIL is the demand\n",
                command, domain.c_str());
}

// A deadline triple the library refused because it was typed in the kernel's order into the
// positional form: say which order that form takes.
void hint_order(const Demand &d, uint32_t code) {
    const QX_REALTIME_UTIL_t &u = d.util;
    if (code == RT_ERR_INVALID_PARAM && !d.named && u.DlRuntimeUs > u.DlDeadlineUs)
        g_hints.push_back("runtime " + std::to_string(u.DlRuntimeUs) + " us > deadline " +
                          std::to_string(u.DlDeadlineUs) +
                          " us: the positional order is UTIL DEADLINE_US RUNTIME_US PERIOD_US; in "
                          "the kernel's order, name them: -T RUNTIME_US -D DEADLINE_US -P "
                          "PERIOD_US");
}

int run_add_lite(const char *name, const Args &a) {
    NumberParser p(cmd_of(name));
    int32_t tid = 0;
    Demand d;
    p.s32(a.pos[2], "TID", &tid);
    if (!p.ok || !parse_demand(p, a, 3, &d)) return kExitUsage;
    note_ignored(name, a.pos[0], d);
    uint32_t rc = QX_REALTIME_AddThread_Lite(a.pos[0].c_str(), a.pos[1].c_str(), &d.util, tid,
                                             a.overrun ? 1 : 0);
    hint_order(d, rc);
    return finish(name, rc);
}

int run_remove(const char *name, const Args &a) {
    NumberParser p(cmd_of(name));
    int32_t tid = 0;
    p.s32(a.pos[1], "TID", &tid);
    if (!p.ok) return kExitUsage;
    return finish(name, QX_REALTIME_RemoveThread(a.pos[0].c_str(), tid));
}

int run_update(const char *name, const Args &a) {
    NumberParser p(cmd_of(name));
    int32_t tid = 0;
    Demand d;
    p.s32(a.pos[1], "TID", &tid);
    if (!p.ok || !parse_demand(p, a, 2, &d)) return kExitUsage;
    note_ignored(name, a.pos[0], d);
    uint32_t rc = QX_REALTIME_UpdateThreadUtil(a.pos[0].c_str(), &d.util, tid);
    hint_order(d, rc);
    return finish(name, rc);
}

int run_budget(const char *name, const Args &a) {
    NumberParser p(cmd_of(name));
    Demand d;
    if (!parse_demand(p, a, 1, &d)) return kExitUsage;
    note_ignored(name, a.pos[0], d);
    QX_REALTIME_UTIL_t &util = d.util;
    // The library writes the answer only on the paths that reach the domain; an untouched
    // sentinel means there is nothing to show (unknown domain, framework disabled).
    const int32_t kUnset = INT32_MIN;
    int32_t left = kUnset;
    uint32_t rc = QX_REALTIME_QueryBudget(a.pos[0].c_str(), &util, &left);
    close_open_line();
    hint_order(d, rc);
    if (a.json) {
        rtctl::Json j;
        json_head(j, name, rc);
        j.key("domain").value(a.pos[0]).key("demand").value((int64_t)util.s32Util).key("left");
        if (left != kUnset)
            j.value((int64_t)left);
        else
            j.null();
        j.key("fits").value(rc == RT_SUCCESS && left != kUnset);
        json_print(j);
    } else if (left != kUnset) {
        printf("%s: utilisation left %d (demand %d)%s\n", a.pos[0].c_str(), left, util.s32Util,
               rc == RT_SUCCESS           ? ""
               : rc == RT_ERR_OVER_BUDGET ? ", does not fit"
                                          : ", refused");
    }
    return finish(name, rc);
}

int run_dmips(const char *name, const Args &a) {
    NumberParser p(cmd_of(name));
    uint32_t dmips = 0;
    p.u32(a.pos[0], "N", &dmips);
    if (!p.ok) return kExitUsage;
    uint32_t us = 0;
    uint32_t rc = QX_REALTIME_DmipsToUs(dmips, &us);
    close_open_line();
    if (a.json) {
        rtctl::Json j;
        json_head(j, name, rc);
        j.key("dmips").value((int64_t)dmips).key("us_per_second");
        if (rc == RT_SUCCESS)
            j.value((int64_t)us);
        else
            j.null();
        json_print(j);
    } else if (rc == RT_SUCCESS) {
        printf("%u DMIPS = %u us of CPU time per second on one core\n", dmips, us);
    }
    return finish(name, rc);
}

// The library selects its all-domains mode by the first three characters of the name.
bool names_all(const std::string &domain) {
    return domain.compare(0, 3, "All") == 0;
}

int run_usage(const char *name, const Args &a) {
    NumberParser p(cmd_of(name));
    uint32_t interval = 0, samples = 0;
    p.u32(a.pos[1], "INTERVAL_MS", &interval);
    p.u32(a.pos[2], "SAMPLES", &samples);
    if (!p.ok) return kExitUsage;
    const std::string &domain = a.pos[0];
    if (!a.json && a.svg.empty())
        return finish(name, QX_REALTIME_GetDomainCpuUsage(domain.c_str(), interval, samples));

    // The samples are read back from the report; without --json it is printed as it comes.
    std::string text;
    g_capture = &text;
    g_print = !a.json;
    uint32_t rc = QX_REALTIME_GetDomainCpuUsage(domain.c_str(), interval, samples);
    close_open_line();
    g_capture = nullptr;
    g_print = true;
    rtctl::UsageReport report = rtctl::parse_usage(text, domain, names_all(domain));
    int status = -1;
    if (!a.svg.empty()) {
        std::string error;
        std::string title =
            (report.all ? std::string("CPU usage of every domain") : "CPU usage of " + domain) +
            " against its budget, one sample every " + std::to_string(interval) + " ms";
        if (!rtctl::write_usage_svg(a.svg, report, interval, title, &error)) {
            fprintf(stderr, "rtctl: usage: cannot write %s: %s\n", a.svg.c_str(), error.c_str());
            status = 1;
        }
    }
    if (a.json) {
        rtctl::Json j;
        json_head(j, name, rc);
        j.key("domain")
            .value(domain)
            .key("all")
            .value(report.all)
            .key("interval_ms")
            .value((int64_t)interval)
            .key("sample_count")
            .value((int64_t)samples);
        rtctl::usage_to_json(j, report);
        json_print(j);
    }
    int code = finish(name, rc);
    return status >= 0 && code == 0 ? status : code;
}

int run_dump(const char *name, const Args &a) {
    const std::string &domain = a.pos[0];
    if (!a.json) return finish(name, QX_REALTIME_DumpDomainInfo(domain.c_str()));
    uint32_t rc = 0;
    std::string text =
        rtctl::capture_report([&] { return QX_REALTIME_DumpDomainInfo(domain.c_str()); }, &rc);
    rtctl::Json j;
    json_head(j, name, rc);
    j.key("domain").value(domain).key("all").value(names_all(domain));
    if (names_all(domain))
        rtctl::dump_all_to_json(j, rtctl::parse_dump_all(text));
    else
        rtctl::dump_to_json(j, rtctl::parse_dump(text));
    json_print(j);
    return finish(name, rc);
}

int run_top(const char *name, const Args &a) {
    rtctl::TopOptions o;
    NumberParser p(cmd_of(name));
    if (!a.interval.empty()) p.u32(a.interval, "--interval", &o.interval_ms);
    if (!a.count.empty()) p.u32(a.count, "--count", &o.count);
    if (!p.ok) return kExitUsage;
    if (o.interval_ms < 100 || o.interval_ms > 3600000)
        return usage_error(cmd_of(name), "--interval: between 100 and 3600000 ms");
    return rtctl::run_top(o);
}

int run_mem_enable(const char *name, const Args &) {
    return finish(name, QX_REALTIME_EnableMemoryHighPriority());
}

int run_mem_disable(const char *name, const Args &) {
    return finish(name, QX_REALTIME_DisableMemoryHighPriority());
}

int run_mem_available(const char *name, const Args &a) {
    NumberParser p(cmd_of(name));
    int32_t value = 0;
    if (!a.pos.empty()) p.s32(a.pos[0], "VALUE", &value);
    if (!p.ok) return kExitUsage;
    uint32_t rc = QX_REALTIME_GetAvailableHighPriorityResource(&value);
    close_open_line();
    printf("available: %d\n", value);
    return finish(name, rc);
}

bool read_stdin(std::string *text, std::string *error) {
    char buf[65536];
    size_t n;
    while ((n = fread(buf, 1, sizeof(buf), stdin)) > 0) text->append(buf, n);
    if (ferror(stdin)) {
        *error = strerror(errno);
        return false;
    }
    return true;
}

// A kernel CPU list ("0-3,6"): its CPUs; an unreadable or malformed list gives none.
std::vector<long> parse_cpu_list(const std::string &text) {
    std::vector<long> cpus;
    std::istringstream in(text);
    std::string part;
    while (std::getline(in, part, ',')) {
        long a = 0, b = 0;
        int n = sscanf(part.c_str(), "%ld-%ld", &a, &b);
        if (n < 1 || a < 0 || (n == 2 && (b < a || b - a > 4096))) return {};
        for (long c = a; c <= (n == 2 ? b : a); c++) cpus.push_back(c);
    }
    return cpus;
}

// The layout this machine has, for the linter's layout rules: the library's own telling, and on
// cgroup v2 the CPUs the hierarchy grants.
void lint_layout_of_this_machine(qxrt_lint::Options *options) {
    int layout = qx_cgroup_layout();
    options->layout = qx_cgroup_layout_name(layout);
    if (layout != QX_CGROUP_V2) return;
    std::ifstream in(QX_CGROUP2_MOUNT "/cpuset.cpus.effective");
    std::string text;
    if (std::getline(in, text)) {
        options->granted_cpus = parse_cpu_list(text);
        if (!options->granted_cpus.empty()) options->granted_text = text;
    }
}

// The linter reads the files only: no shared state, no library call but the layout's telling.
int run_lint(const char *, const Args &a) {
    qxrt_lint::Options options;
    lint_layout_of_this_machine(&options);
    if (!a.cpus.empty()) {
        uint32_t cpus = 0;
        if (!parse_u32(a.cpus, &cpus) || cpus < 1 || cpus > 4096)
            return usage_error(cmd_of("lint"),
                               "--cpus: '" + a.cpus + "' is not a CPU count (1..4096)");
        options.cpu_count = (int)cpus;
    }
    int status = 0;
    bool stdin_read = false;
    for (const std::string &arg : a.pos) {
        // "-" is the standard input, read once; its diagnostics name it "<stdin>".
        bool from_stdin = arg == "-";
        std::string path = from_stdin ? "<stdin>" : arg;
        std::string text, error;
        bool read = from_stdin ? !stdin_read && read_stdin(&text, &error)
                               : qxrt_lint::read_file(path, &text, &error);
        if (from_stdin && stdin_read) error = "the standard input was read already";
        stdin_read = stdin_read || from_stdin;
        if (!read) {
            printf("%s: error: cannot read the file: %s\n", path.c_str(), error.c_str());
            status = 1;
            continue;
        }
        std::vector<qxrt_lint::Diagnostic> found = qxrt_lint::lint_text(text, options);
        int errors = 0, warnings = 0;
        for (const qxrt_lint::Diagnostic &d : found) {
            printf("%s\n", qxrt_lint::format_diagnostic(path, d).c_str());
            if (d.severity == qxrt_lint::Severity::kError)
                errors++;
            else
                warnings++;
        }
        printf("%s: %d error%s, %d warning%s\n", path.c_str(), errors, errors == 1 ? "" : "s",
               warnings, warnings == 1 ? "" : "s");
        if (errors > 0) status = 1;
    }
    return status;
}

const char kJsonUsage[] =
    "  {\"command\":\"usage\", \"result\":0, \"result_name\":\"RT_SUCCESS\", \"domain\":\"All\",\n"
    "   \"all\":true, \"interval_ms\":500, \"sample_count\":6,\n"
    "   \"settings\":[{\"name\":\"Domain_Audio\", \"util\":512, \"percent\":50.00}, ...],  (All "
    "only)\n"
    "   \"total_util\":{\"value\":1536, \"percent\":150.00},                         (All only)\n"
    "   \"util_budget\":{\"cap_per_core\":1024, \"budget_cpu_num\":2, \"reservation\":80,\n"
    "                  \"value\":1638, \"percent\":159.96},                       (All only)\n"
    "   \"samples\":[{\"domains\":[{\"name\":\"Domain_Audio\", \"usage_percent\":81.20,\n"
    "                \"budget_percent\":50.00, \"over_budget\":true}, ...],\n"
    "               \"rt_total_percent\":84.30}, ...],              (rt_total_percent: All only)\n"
    "   \"messages\":[lines of the report that are not samples, e.g. errors]}\n"
    "Percentages are percent of one core.";

const char kJsonDump[] =
    "  one domain: {\"command\":\"dump\", \"result\":0, \"result_name\":\"RT_SUCCESS\",\n"
    "   \"domain\":\"Domain_Audio\", \"all\":false, \"found\":true, \"name\":\"Domain_Audio\",\n"
    "   \"fields\":{\"s32UtilMax\":512, \"s32UtilCurrent\":300, \"pszCpuset\":\"1\", ...},\n"
    "   \"process_ids\":[1234], \"classes\":[{\"index\":0, \"name\":\"Class_Render\",\n"
    "   \"util_per_thread\":200, \"rt_priority\":90, \"dl_deadline_us\":0, \"dl_runtime_us\":0,\n"
    "   \"dl_period_us\":0}, ...], \"threads\":[{\"slot\":0, \"class_index\":0, \"alive\":1,\n"
    "   \"process_id\":1234, \"tid\":1240, \"util\":200, \"priority\":90, \"deadline_us\":0,\n"
    "   \"runtime_us\":0, \"period_us\":0}, ...], \"messages\":[...]}\n"
    "  All: {\"command\":\"dump\", ..., \"domain\":\"All\", \"all\":true,\n"
    "   \"domains\":[{\"name\":\"Domain_Audio\", \"threads\":[{\"process_id\":1234,\n"
    "   \"program\":\"audio_client\", \"tid\":1240, \"thread\":\"render\",\n"
    "   \"class\":\"Class_Render\"}, ...]}, ...], \"messages\":[...]}\n"
    "\"fields\" holds every record field the dump prints, numbers as numbers.";

// Every inconsistency on its own line, with the repair's action under it; exit 0 only when there
// was none (or, with --repair, when every one was repaired).
int run_check(const char *name, const Args &a) {
    std::string error;
    std::vector<rtcheck::Finding> findings;
    // A file this user may not open is no inconsistency to repair: the walk needs root (or the
    // segments' group) then, and says so instead of reporting what it could not see.
    std::vector<std::string> denied;
    if (geteuid() != 0) denied = rtctl::access_problems();
    if (!denied.empty())
        error = "needs root: " + denied[0] +
                (denied.size() > 1 ? " and " + std::to_string(denied.size() - 1) + " more" : "");
    else if (a.repair && geteuid() != 0)
        error = "--repair needs root: it changes the scheduling and control groups of threads";
    else
        findings = rtcheck::run(a.repair, &error);
    size_t repaired = 0;
    for (const rtcheck::Finding &f : findings) repaired += f.repaired() ? 1 : 0;
    int status = !error.empty()                            ? 1
                 : findings.empty()                        ? 0
                 : a.repair && repaired == findings.size() ? 0
                                                           : 1;
    if (a.json) {
        rtctl::Json j;
        j.begin_object().key("command").value(name).key("status").value((int64_t)status);
        j.key("repair").value(a.repair).key("consistent").value(error.empty() && findings.empty());
        j.key("error");
        if (error.empty())
            j.null();
        else
            j.value(error);
        j.key("findings").begin_array();
        for (const rtcheck::Finding &f : findings) {
            j.begin_object().key("where").value(f.where).key("what").value(f.what).key("action");
            if (f.action.empty())
                j.null();
            else
                j.value(f.action);
            j.end_object();
        }
        j.end_array();
        // Only when there is something to say: the document is otherwise as it always was.
        std::string cpus = rtcheck::cpu_note(a.verbose);
        if (!cpus.empty()) j.key("cpus").value(cpus);
        json_print(j);
        return status;
    }
    if (!error.empty()) {
        fprintf(stderr, "rtctl check: %s\n", error.c_str());
        if (denied.empty()) print_hints(name, RT_ERR_FAILED);
        return status;
    }
    std::string cpus = rtcheck::cpu_note(a.verbose);
    if (!cpus.empty()) printf("%s\n", cpus.c_str());
    for (const rtcheck::Finding &f : findings) {
        printf("%s: %s\n", f.where.c_str(), f.what.c_str());
        if (!f.action.empty()) printf("    repaired: %s\n", f.action.c_str());
    }
    if (findings.empty())
        printf("consistent\n");
    else if (a.repair)
        printf("%zu inconsistencies, %zu repaired\n", findings.size(), repaired);
    else
        printf("%zu inconsistencies (rtctl check --repair%s repairs them)\n", findings.size(),
               geteuid() != 0 ? ", as root," : "");
    return status;
}

const char kJsonCheck[] =
    "  {\"command\":\"check\", \"status\":1, \"repair\":false, \"consistent\":false,\n"
    "   \"error\":null, \"findings\":[{\"where\":\"Domain_Audio\",\n"
    "   \"what\":\"process 1234 is listed but has died\", \"action\":null}, ...],\n"
    "   \"cpus\":\"CPUs online 0, offline 1\"}\n"
    "\"status\" is the exit status; \"action\" is what --repair did (null without it);\n"
    "\"error\" says why the walk could not be done (no central segment, ...);\n"
    "\"cpus\" names the CPUs online and offline and the deadline bandwidth held; present only\n"
    "when a CPU is offline, or with -v while a thread is SCHED_DEADLINE.";

// The two forms of a demand (add-lite, update, budget), and what a policy ignores of it.
#define RTCTL_DEMAND_HELP                                                                       \
    "\nThe positional form takes the utilisation record's order, UTIL DEADLINE_US RUNTIME_US\n" \
    "PERIOD_US (not chrt's); UTIL alone leaves the three at 0. The named form takes the\n"      \
    "kernel's order with chrt's letters, -T/--runtime, -D/--deadline, -P/--period (us), UTIL\n" \
    "then optional (0): a missing -D is the period, a missing -P the deadline."
#define RTCTL_DEMAND_IGNORED                                                                \
    "\nWhat the domain's policy ignores is named on stderr (rtctl: note: ...): UTIL in a\n" \
    "deadline domain (the demand is computed from runtime and period), the deadline\n"      \
    "parameters in a round-robin domain."

const Command kCommands[] = {
    {"init", "[MODE]",
     "Creates the shared state and reads the system settings of the configuration.\n"
     "MODE 0 (default): /vendor/etc/realtime/rt-<vendor.kpo.realtime.cfg_name>.json;\n"
     "MODE 1: /vendor/etc/realtime/rt_verify_only.json.",
     nullptr, 0, 1, 0, false, run_init},
    {"deinit", "", "Removes the shared state for every process (QX_REALTIME_Deinit).", nullptr, 0,
     0, 0, false, run_deinit},
    {"debug-level", "LEVEL",
     "Stores a debug level in the shared settings, for the processes that attach after it.\n"
     "They read LEVEL as the configuration's DbgLevel, 0..7: 0/1 silent, 2/3 errors, 4/5 info\n"
     "and debug, 6 plus entry traces, 7 plus a log file per process. The library's internal\n"
     "levels 16, 32, 48, 64, 80, 240, 241 (QX_REALTIME_SetDebugLevel sets one for the calling\n"
     "process) are accepted too, but a process attaching later reads them as 2. Any other\n"
     "LEVEL is a usage error (exit 2). Stored only while the framework is enabled.",
     nullptr, 1, 1, 0, false, run_debug_level},
    {"self-test", "", "Runs the library's self test (QX_REALTIME_SelfTest).", nullptr, 0, 0, 0,
     false, run_self_test},
    {"create", "DOMAIN [MODE]",
     "Creates DOMAIN from the configuration file: segment, cgroups, budget check.\n"
     "The domain's keys are read from the file that QX_REALTIME_Init(MODE) chooses (default 0),\n"
     "so this process is initialised first, as a client is; that also rereads the system\n"
     "settings into the shared state.",
     nullptr, 1, 2, 0, false, run_create},
    {"delete", "DOMAIN", "Removes DOMAIN's segment and lock file (QX_REALTIME_DeleteDomain).",
     nullptr, 1, 1, 0, false, run_delete},
    {"list", "[--json]",
     "Prints the names of the registered domains, one per line.\n"
     "An entry of the central record that is not a name is never printed: list then says how\n"
     "many there are on stderr and exits 1 (rtctl check --repair rebuilds the list).",
     "  {\"command\":\"list\", \"result\":0, \"result_name\":\"RT_SUCCESS\",\n"
     "   \"domains\":[\"Domain_Audio\", \"Domain_Camera\"], \"damaged_entries\":0}",
     0, 0, kOptJson, false, run_list},
    {"layout", "[--json]",
     "Prints the cgroup layout the library finds here and where CPU usage comes from.\n"
     "One of v1 (cpuset and cpuacct hierarchies at /dev/cpuset, /dev/cpuacct), android\n"
     "(cpuset only, as Android 12 and later mount it: a domain's usage is the CPU time of its\n"
     "admitted threads) or v2 (one cgroup v2 hierarchy at /sys/fs/cgroup: a domain's threads\n"
     "go into a threaded group qxrt-DOMAIN inside their own process's group; usage as on\n"
     "android). The property vendor.kpo.realtime.cgroup_layout (v1, android or v2) overrides\n"
     "what the mount table says.",
     "  {\"command\":\"layout\", \"result\":0, \"result_name\":\"RT_SUCCESS\",\n"
     "   \"layout\":\"android\", \"cpuset\":\"/dev/cpuset/\", \"cpuacct\":null,\n"
     "   \"usage_from\":\"threads\"}      (\"cpuacct\" and \"usage_from\" on v1: the path, "
     "\"cpuacct\")",
     0, 0, kOptJson, false, run_layout},
    {"add", "DOMAIN CLASS TID [--overrun] | -a DOMAIN CLASS PID [--overrun]",
     "Admits thread TID to CLASS of DOMAIN with the class's parameters and a budget check.\n"
     "-a/--all admits every thread process PID has now (each a booking of its own; a failure\n"
     "is named per thread, and the first one's result is the exit status).\n"
     "--overrun asks a deadline domain for SCHED_FLAG_DL_OVERRUN: the kernel then sends the\n"
     "thread SIGXCPU whenever it overruns its runtime.",
     nullptr, 3, 3, kOptOverrun | kOptAll, false, run_add},
    {"run", "[-a] DOMAIN CLASS [--] PROGRAM [ARGS...]",
     "Runs PROGRAM with its main thread admitted to CLASS of DOMAIN before it starts.\n"
     "rtctl waits for it, gives its charge back when it ends and exits with its status (127:\n"
     "not found, 126: not runnable; a refused admission: the result's status, PROGRAM never\n"
     "runs).\n"
     "Threads a round-robin program creates inherit its policy and CPUs from the kernel but\n"
     "are not booked; -a/--all books each one as it appears. A deadline thread cannot create\n"
     "threads (the kernel refuses with EAGAIN): with a deadline class -a starts PROGRAM\n"
     "unadmitted and admits all its threads once their set has held still for 200 ms.\n"
     "Put -- before PROGRAM when it takes options of its own.",
     nullptr, 3, INT_MAX, kOptOverrun | kOptAll, false, run_run},
    {"add-lite",
     "DOMAIN CLASS TID UTIL [DEADLINE_US RUNTIME_US PERIOD_US] [--overrun] | DOMAIN CLASS TID "
     "[UTIL] -T RUNTIME_US -D DEADLINE_US -P PERIOD_US [--overrun]",
     "Admits thread TID with the given parameters and no checks (QX_REALTIME_AddThread_Lite).\n"
     "UTIL is booked as given, in either policy." RTCTL_DEMAND_HELP
     "\nIn a round-robin domain the deadline parameters are ignored (a note says so).",
     nullptr, 3, 7, kOptOverrun | kOptDemand, false, run_add_lite},
    {"remove", "DOMAIN TID",
     "Takes thread TID out of DOMAIN and restores its former scheduling and cgroups.", nullptr, 2,
     2, 0, false, run_remove},
    {"update",
     "DOMAIN TID UTIL [DEADLINE_US RUNTIME_US PERIOD_US] | DOMAIN TID [UTIL] "
     "-T RUNTIME_US -D DEADLINE_US -P PERIOD_US",
     "Changes an admitted thread's utilisation (and deadline parameters in a deadline "
     "domain)." RTCTL_DEMAND_HELP RTCTL_DEMAND_IGNORED,
     nullptr, 2, 6, kOptDemand, false, run_update},
    {"budget",
     "[--json] DOMAIN UTIL [DEADLINE_US RUNTIME_US PERIOD_US] | DOMAIN [UTIL] "
     "-T RUNTIME_US -D DEADLINE_US -P PERIOD_US",
     "Prints the utilisation DOMAIN has left and whether this demand would fit.\n"
     "In a deadline domain the demand is RUNTIME_US x Util-per-core / PERIOD_US." RTCTL_DEMAND_HELP
         RTCTL_DEMAND_IGNORED,
     "  {\"command\":\"budget\", \"result\":9, \"result_name\":\"RT_ERR_OVER_BUDGET\",\n"
     "   \"domain\":\"Domain_Audio\", \"demand\":513, \"left\":512, \"fits\":false}\n"
     "\"left\" is null when the library gave no figure (unknown domain, framework disabled).",
     1, 5, kOptJson | kOptDemand, false, run_budget},
    {"dmips", "[--json] N",
     "Converts N DMIPS into microseconds of CPU time per second on one core.",
     "  {\"command\":\"dmips\", \"result\":0, \"result_name\":\"RT_SUCCESS\", \"dmips\":512,\n"
     "   \"us_per_second\":500000}            (us_per_second is null on failure)",
     1, 1, kOptJson, false, run_dmips},
    {"usage", "[--json] [--svg FILE] DOMAIN|All INTERVAL_MS SAMPLES",
     "Samples the CPU usage of DOMAIN (or of every domain) against its budget.\n"
     "SAMPLES samples, one every INTERVAL_MS; samples above the budget are marked Overbudget.\n"
     "--svg FILE also writes an SVG chart of each domain's usage over time, with its budget\n"
     "as a dashed line and the samples above it in red.",
     kJsonUsage, 3, 3, kOptJson | kOptSvg, true, run_usage},
    {"dump", "[--json] DOMAIN|All",
     "Prints DOMAIN's records, classes, thread slots and cgroup task lists.\n"
     "With All: every live thread of every domain, with its program and class.",
     kJsonDump, 1, 1, kOptJson, true, run_dump},
    {"top", "[--interval MS] [--count N]",
     "Shows every domain and its threads live, refreshed every MS milliseconds (default 1000).\n"
     "Each domain: policy, CPUs, budget and booked utilisation (capacity units), and the CPU\n"
     "usage measured over the last interval as a bar against the budget (OVER when above it).\n"
     "Each admitted thread: tid, process, class and the policy the kernel reports for it.\n"
     "q quits; --count N ends after N refreshes. When stdout is not a terminal it prints one\n"
     "plain-text block per refresh instead.",
     nullptr, 0, 0, kOptCount | kOptInterval, false, run_top},
    {"mem-enable", "", "QX_REALTIME_EnableMemoryHighPriority (reserved, does nothing).", nullptr, 0,
     0, 0, false, run_mem_enable},
    {"mem-disable", "", "QX_REALTIME_DisableMemoryHighPriority (reserved, does nothing).", nullptr,
     0, 0, 0, false, run_mem_disable},
    {"mem-available", "[VALUE]",
     "QX_REALTIME_GetAvailableHighPriorityResource with *ps32Avai = VALUE (default 0).", nullptr, 0,
     1, 0, false, run_mem_available},
    {"check", "[--json] [--repair]",
     "Checks the shared state against its records and the kernel, and can repair it.\n"
     "Under their lock files it looks for charges without a record, records of dead processes\n"
     "or threads, threads in a domain's groups without a record, records the kernel disagrees\n"
     "with, half-created or damaged domains, segment sizes and modes. Prints each; exits 0\n"
     "only when there is none. --repair fixes each one and says what it did (exit 0 when all\n"
     "were repaired). It needs root, or the segments' group without --repair: a segment it may\n"
     "not open is named as such, never reported as an inconsistency.",
     kJsonCheck, 0, 0, kOptRepair | kOptJson, false, run_check},
    {"lint", "[--cpus N] FILE|-...",
     "Checks configuration files without touching the shared state.\n"
     "Prints every problem as FILE:LINE: error|warning: message (fix: suggestion), then a\n"
     "summary per file; - reads the standard input (named <stdin>). Exits 1 when any file has\n"
     "an error or cannot be read, 0 otherwise (warnings alone included).\n"
     "CPU sets and BudgetCpuNum are checked against this machine's CPUs, or N with --cpus.",
     nullptr, 1, INT_MAX, kOptCpus, false, run_lint},
};
const size_t kCommandCount = sizeof(kCommands) / sizeof(kCommands[0]);

const Command *find_command(const std::string &name) {
    for (size_t i = 0; i < kCommandCount; i++)
        if (name == kCommands[i].name) return &kCommands[i];
    return nullptr;
}

const char kDescription[] =
    "Operates the realtime framework shared by every process that loads\n"
    "libqxt_realtime_hal. Each call prints the library's messages and exits with the\n"
    "call's result code (0 = RT_SUCCESS); bad arguments exit with 2.";

// Options common to every command: name, argument, explanation.
const struct {
    const char *name;
    const char *help;
} kGlobalOptions[] = {
    {"-v, --verbose",
     "debug level 64 for this invocation: info and debug messages\n"
     "too. The level stored in the shared settings (read by every\n"
     "process that attaches later) is put back afterwards, except\n"
     "by debug-level, whose job it is to store one"},
    {"--json", nullptr},  // its text names the commands that take it: json_option_help()
    {"--version", "the version of rtctl and of the library it was built with"},
    {"--man", "this help as a manual page (troff)"},
    {"-h, --help", "this text; rtctl COMMAND --help explains one command"},
};

// The text of --json, from the table: every command that takes it, wrapped as the other options.
std::string json_option_help() {
    std::string text =
        "one JSON document on stdout (also for a usage error);\n"
        "rtctl COMMAND --help shows its shape. Taken by\n";
    size_t line_start = text.size();
    bool first = true;
    for (size_t i = 0; i < kCommandCount; i++) {
        if ((kCommands[i].options & kOptJson) == 0) continue;
        std::string item = std::string(first ? "" : ", ") + kCommands[i].name;
        if (text.size() - line_start + item.size() > 60) {
            text += ",\n";
            line_start = text.size();
            item = kCommands[i].name;
        }
        text += item;
        first = false;
    }
    return text + ".";
}

std::string option_help(const char *name, const char *help) {
    return help != nullptr ? help : strcmp(name, "--json") == 0 ? json_option_help() : "";
}

// Exit statuses: the result codes, then rtctl's own.
const struct {
    int status;
    const char *meaning;
} kExitStatuses[] = {
    {0, "RT_SUCCESS; lint: no error; check: consistent (or every finding repaired)"},
    {1,
     "lint: a file has an error; check: an inconsistency, or the walk could not be done;\n"
     "list: the central record's domain list is damaged"},
    {2, "bad arguments (a usage error): nothing was done"},
    {4, "RT_ERR_FAILED"},
    {8, "RT_ERR_INVALID_PARAM"},
    {9, "RT_ERR_OVER_BUDGET"},
    {10, "RT_ERR_NULL (no framework, no such domain, or no permission: see the hint)"},
    {11, "RT_ERR_NOT_EXIST"},
    {12, "RT_ERR_SYSTEM"},
    {14, "RT_ERR_SCHED_SETATTR"},
};

const char kResultCodes[] =
    "0 RT_SUCCESS, 4 RT_ERR_FAILED, 8 RT_ERR_INVALID_PARAM,\n"
    "9 RT_ERR_OVER_BUDGET, 10 RT_ERR_NULL, 11 RT_ERR_NOT_EXIST, 12 RT_ERR_SYSTEM,\n"
    "14 RT_ERR_SCHED_SETATTR; 2 bad arguments; lint exits 1 when a file has an error,\n"
    "check when it finds an inconsistency, list when the central record's list is damaged.";

void print_usage(FILE *out) {
    fprintf(out,
            "usage: rtctl [-v] COMMAND [ARGS...]\n"
            "       rtctl --help | rtctl COMMAND --help | rtctl --version\n"
            "\n%s\n\noptions:\n",
            kDescription);
    for (const auto &o : kGlobalOptions) {
        std::string help = option_help(o.name, o.help);
        for (size_t pos = help.find('\n'); pos != std::string::npos; pos = help.find('\n', pos + 1))
            help.insert(pos + 1, 16, ' ');
        fprintf(out, "  %-13s %s\n", o.name, help.c_str());
    }
    fprintf(out, "\ncommands:\n");
    for (size_t i = 0; i < kCommandCount; i++) {
        std::string line;
        for (const std::string &form : forms(kCommands[i]))
            line += std::string(line.empty() ? "" : "\n  ") + kCommands[i].name +
                    (form.empty() ? "" : " ") + form;
        const char *help = kCommands[i].help;
        const char *nl = strchr(help, '\n');
        int first_len = nl ? (int)(nl - help) : (int)strlen(help);
        fprintf(out, "  %s\n      %.*s\n", line.c_str(), first_len, help);
    }
    fprintf(out, "\nresult codes: %s\n", kResultCodes);
}

// ---- manual page, from the same table as the help ----

std::string roff(const std::string &text) {
    std::string out;
    bool line_start = true;
    for (char c : text) {
        if (line_start && (c == '.' || c == '\'')) out += "\\&";
        if (c == '\\')
            out += "\\e";
        else if (c == '-')
            out += "\\-";
        else
            out += c;
        line_start = c == '\n';
    }
    return out;
}

// Help text keeps its line breaks in the manual (.nf), as it was written for 80 columns.
void man_block(const std::string &text) {
    printf(".nf\n%s\n.fi\n", roff(text).c_str());
}

void print_man() {
    printf(".TH RTCTL 1 \"\" \"libqxt_realtime_hal %s\" \"User Commands\"\n", QX_REALTIME_VERSION);
    printf(".SH NAME\nrtctl \\- operate the realtime framework of libqxt_realtime_hal\n");
    printf(
        ".SH SYNOPSIS\n.B rtctl\n[\\fB\\-v\\fR] \\fICOMMAND\\fR [\\fIARGS\\fR...]\n.br\n"
        ".B rtctl\n\\fB\\-\\-help\\fR | \\fICOMMAND\\fR \\fB\\-\\-help\\fR | "
        "\\fB\\-\\-version\\fR\n");
    printf(".SH DESCRIPTION\n");
    man_block(kDescription);
    printf(
        ".PP\nEvery call is its own process working on the shared state, so a thread admitted\n"
        "from one shell can be dumped from another.\n");
    printf(".SH OPTIONS\n");
    for (const auto &o : kGlobalOptions) {
        printf(".TP\n.B %s\n", roff(o.name).c_str());
        man_block(option_help(o.name, o.help));
    }
    printf(".SH COMMANDS\n");
    for (size_t i = 0; i < kCommandCount; i++) {
        const Command &c = kCommands[i];
        std::string heading;
        for (const std::string &form : forms(c))
            heading += std::string(heading.empty() ? "" : "\n.br\n") + "\\fB" + roff(c.name) +
                       "\\fR " + roff(form);
        printf(".TP\n%s\n", heading.c_str());
        man_block(c.help);
        if (c.json != nullptr) {
            printf(".IP\n\\fB\\-\\-json\\fR prints one JSON object:\n");
            man_block(c.json);
        }
    }
    printf(".SH EXIT STATUS\n");
    for (const auto &e : kExitStatuses) {
        printf(".TP\n.B %d\n", e.status);
        man_block(e.meaning);
    }
    printf(
        ".SH FILES\n.TP\n/vendor/etc/realtime/rt\\-*.json\nthe configuration\n"
        ".TP\n/dev/shm/realtime/, /data/vendor/realtime/\nshared segments and lock files\n"
        ".TP\n/dev/cpuset/, /dev/cpuacct/\nthe domains' control groups (cgroup v1)\n");
    printf(
        ".SH EXAMPLES\n.nf\nrtctl init\nrtctl create Domain_Audio\n"
        "rtctl add Domain_Audio Class_Render 4242\nrtctl top\n"
        "rtctl usage All 500 20 \\-\\-svg usage.svg\nrtctl \\-\\-json dump Domain_Audio\n.fi\n");
    printf(
        ".SH SEE ALSO\n.BR chrt (1),\n.BR taskset (1),\n.BR cgroups (7),\n.BR sched (7),\n"
        ".BR sched_setattr (2)\n");
}

// Whether the command's first argument is a domain (or All): the first word of its synopsis
// outside brackets.
bool names_domain(const Command &c) {
    int depth = 0;
    for (const char *p = c.synopsis; *p != '\0'; p++) {
        if (*p == '[') depth++;
        if (*p == ']') depth--;
        if (depth == 0 && isupper((unsigned char)*p)) return strncmp(p, "DOMAIN", 6) == 0;
    }
    return false;
}

// The reports of every domain (usage, dump All, top) answer for the domains this user may read
// and leave the others out with a bare "pstDomain is NULL": name the cause once they are done.
void note_unreadable(const Command &c, int status) {
    bool every_domain =
        strcmp(c.name, "top") == 0 ||
        (names_domain(c) && (strcmp(c.name, "usage") == 0 || strcmp(c.name, "dump") == 0) &&
         g_domain.compare(0, 3, "All") == 0);
    if (!every_domain || status != 0 || geteuid() == 0) return;
    for (const std::string &problem : rtctl::access_problems())
        fprintf(stderr, "rtctl: note: %s: its domain is left out\n", problem.c_str());
}

// Arguments that look like negative numbers are values, not options: getopt would read "-5"
// as the option 5. They are hidden from getopt behind this mark and restored afterwards.
const char kNumberMark = '\x1f';

bool is_negative_number(const char *arg) {
    return arg[0] == '-' && isdigit((unsigned char)arg[1]);
}

}  // namespace

int main(int argc, char **argv) {
    qx_log_sink::set(plain_logger);

    enum { kJson = 256, kVersion, kMan, kOverrun, kCpus, kSvg, kCount, kInterval, kRepair };
    // The deadline parameters by name take chrt's letters.
    static const struct option kLong[] = {{"help", no_argument, nullptr, 'h'},
                                          {"verbose", no_argument, nullptr, 'v'},
                                          {"json", no_argument, nullptr, kJson},
                                          {"version", no_argument, nullptr, kVersion},
                                          {"man", no_argument, nullptr, kMan},
                                          {"overrun", no_argument, nullptr, kOverrun},
                                          {"cpus", required_argument, nullptr, kCpus},
                                          {"svg", required_argument, nullptr, kSvg},
                                          {"count", required_argument, nullptr, kCount},
                                          {"interval", required_argument, nullptr, kInterval},
                                          {"repair", no_argument, nullptr, kRepair},
                                          {"all", no_argument, nullptr, 'a'},
                                          {"runtime", required_argument, nullptr, 'T'},
                                          {"deadline", required_argument, nullptr, 'D'},
                                          {"period", required_argument, nullptr, 'P'},
                                          {nullptr, 0, nullptr, 0}};

    std::vector<std::string> marked;
    marked.reserve((size_t)argc);
    std::vector<char *> av(argv, argv + argc);
    for (int i = 1; i < argc; i++) {
        if (is_negative_number(argv[i])) {
            marked.push_back(std::string(1, kNumberMark) + argv[i]);
            av[(size_t)i] = &marked.back()[0];
        }
    }
    av.push_back(nullptr);

    Args args;
    unsigned given = 0;  // kOpt* bits of the command options given
    bool want_help = false, want_version = false, want_man = false;
    // The first mistake among the options; told once the command is known, so that the usage
    // shown is that command's.
    std::string option_error;
    auto value = [](const char *text) {
        return text[0] == kNumberMark ? std::string(text + 1) : std::string(text);
    };
    opterr = 0;
    int c;
    while ((c = getopt_long(argc, av.data(), ":hvaT:D:P:", kLong, nullptr)) != -1) {
        switch (c) {
        case 'h':
            want_help = true;
            break;
        case 'v':
            args.verbose = true;
            break;
        case kJson:
            args.json = true;
            given |= kOptJson;
            break;
        case kVersion:
            want_version = true;
            break;
        case kMan:
            want_man = true;
            break;
        case kOverrun:
            args.overrun = true;
            given |= kOptOverrun;
            break;
        case kCpus:
            args.cpus = optarg;
            given |= kOptCpus;
            break;
        case kSvg:
            args.svg = optarg;
            given |= kOptSvg;
            break;
        case kCount:
            args.count = optarg;
            given |= kOptCount;
            break;
        case kInterval:
            args.interval = optarg;
            given |= kOptInterval;
            break;
        case kRepair:
            args.repair = true;
            given |= kOptRepair;
            break;
        case 'a':
            args.all = true;
            given |= kOptAll;
            break;
        case 'T':
            args.runtime = value(optarg);
            given |= kOptDemand;
            break;
        case 'D':
            args.deadline = value(optarg);
            given |= kOptDemand;
            break;
        case 'P':
            args.period = value(optarg);
            given |= kOptDemand;
            break;
        case ':':
            if (option_error.empty())
                option_error = std::string(av[(size_t)optind - 1]) + " needs a value";
            break;
        default:
            if (option_error.empty())
                option_error = "unknown option '" +
                               (optopt != 0 ? std::string("-") + (char)optopt
                                            : std::string(av[(size_t)optind - 1])) +
                               "'";
            break;
        }
    }
    g_json = args.json;
    if (want_version) {
        printf("rtctl (libqxt_realtime_hal) %s\n", QX_REALTIME_VERSION);
        return 0;
    }
    if (want_man) {
        print_man();
        return 0;
    }

    const Command *cmd = nullptr;
    std::string unknown;  // a command name that is none
    for (int i = optind; i < argc; i++) {
        std::string arg = value(av[(size_t)i]);
        if (cmd == nullptr && unknown.empty() && arg == "help" && !want_help) {
            want_help = true;
        } else if (cmd == nullptr && unknown.empty()) {
            cmd = find_command(arg);
            if (cmd == nullptr) unknown = arg;
        } else {
            args.pos.push_back(arg);
        }
    }
    if (!option_error.empty()) return usage_error(cmd, option_error);
    if (!unknown.empty()) return usage_error(nullptr, "unknown command '" + unknown + "'");
    if (want_help) {
        if (cmd != nullptr)
            print_command_help(stdout, *cmd);
        else
            print_usage(stdout);
        return 0;
    }
    if (cmd == nullptr) return usage_error(nullptr, "no command given");
    static const struct {
        unsigned bit;
        const char *name;
    } kOptionNames[] = {
        {kOptOverrun, "--overrun"}, {kOptCpus, "--cpus"},     {kOptSvg, "--svg"},
        {kOptJson, "--json"},       {kOptCount, "--count"},   {kOptInterval, "--interval"},
        {kOptRepair, "--repair"},   {kOptDemand, "-T/-D/-P"}, {kOptAll, "-a/--all"}};
    for (const auto &o : kOptionNames)
        if ((given & o.bit) != 0 && (cmd->options & o.bit) == 0)
            return usage_error(cmd, std::string(o.name) + " does not apply to " + cmd->name);
    if ((int)args.pos.size() < cmd->min_args)
        return usage_error(cmd, std::string(cmd->name) + ": missing argument");
    if ((int)args.pos.size() > cmd->max_args)
        return usage_error(cmd,
                           "too many arguments, from '" + args.pos[(size_t)cmd->max_args] + "' on");

    if (names_domain(*cmd)) g_domain = args.pos[0];
    if (cmd->output_is_log) {
        g_log_out = stdout;
        g_report = true;
    }
    g_verbose = args.verbose && strcmp(cmd->name, "lint") != 0;
    if (g_verbose) {
        g_have_stored_level = read_stored_level(&g_stored_level);
        raise_debug_level();
    }
    int status = cmd->run(cmd->name, args);
    close_open_line();
    note_unreadable(*cmd, status);
    if (g_verbose) restore_stored_level(cmd->name);
    return status;
}
