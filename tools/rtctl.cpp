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
#include <errno.h>
#include <limits.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include "../src/platform/log_sink.h"
#include "config_lint.h"
#include "qx_realtime.h"

namespace {

constexpr int kExitUsage = 2;

// ---- log sink ----

FILE *g_log_out = stderr;  // where the library's messages go for this invocation
bool g_report = false;     // the messages are this command's report (dump, usage)
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

void close_open_line() {
    if (g_line_open) {
        fputc('\n', g_log_out);
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
            fputs(piece.c_str(), g_log_out);
            return;
        }
        if (piece.find_first_not_of(' ') != std::string::npos &&
            piece.substr(piece.find_first_not_of(' ')) == "]") {
            fprintf(g_log_out, "%s\n", piece.c_str());
            g_line_open = false;
            return;
        }
        close_open_line();
    }
    fputs(text.c_str(), g_log_out);
    if (line_end)
        fputc('\n', g_log_out);
    else
        g_line_open = true;
    fflush(g_log_out);
}

// ---- results ----

const char *result_name(uint32_t code) {
    switch (code) {
    case RT_SUCCESS: return "RT_SUCCESS";
    case RT_ERR_FAILED: return "RT_ERR_FAILED";
    case RT_ERR_INVALID_PARAM: return "RT_ERR_INVALID_PARAM";
    case RT_ERR_OVER_BUDGET: return "RT_ERR_OVER_BUDGET";
    case RT_ERR_NULL: return "RT_ERR_NULL";
    case RT_ERR_NOT_EXIST: return "RT_ERR_NOT_EXIST";
    case RT_ERR_SYSTEM: return "RT_ERR_SYSTEM";
    case RT_ERR_SCHED_SETATTR: return "RT_ERR_SCHED_SETATTR";
    default: return "unknown result";
    }
}

// The exit status is the result code itself (all of them are below 256).
int finish(const char *command, uint32_t code) {
    close_open_line();
    fflush(stdout);
    if (code != RT_SUCCESS) fprintf(stderr, "rtctl: %s: %s (%u)\n", command, result_name(code), code);
    return (int)(code & 0xFFu);
}

// ---- commands ----

struct Args {
    std::vector<std::string> pos;  // positional arguments after the subcommand
    bool overrun = false;          // --overrun
    std::string cpus;              // lint --cpus N
};

typedef int (*Handler)(const char *name, const Args &args);

struct Command {
    const char *name;
    const char *synopsis;  // arguments, as shown in the usage line
    const char *help;      // what it does
    int min_args;
    int max_args;
    bool takes_overrun;
    bool output_is_log;  // the library's messages are this command's output: print them on stdout
    Handler run;
};

const Command *find_command(const std::string &name);
void print_usage(FILE *out);

void print_command_help(FILE *out, const Command &c) {
    fprintf(out, "usage: rtctl [-v] %s%s%s\n\n%s\n", c.name, c.synopsis[0] ? " " : "", c.synopsis,
            c.help);
}

int usage_error(const Command *c, const std::string &message) {
    fprintf(stderr, "rtctl: %s\n", message.c_str());
    if (c != nullptr)
        fprintf(stderr, "usage: rtctl [-v] %s%s%s\n(see rtctl %s --help)\n", c->name,
                c->synopsis[0] ? " " : "", c->synopsis, c->name);
    else
        print_usage(stderr);
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
            usage_error(cmd, std::string(label) + ": '" + text + "' is not a signed 32-bit integer");
        }
    }
    void u32(const std::string &text, const char *label, uint32_t *out) {
        if (ok && !parse_u32(text, out)) {
            ok = false;
            usage_error(cmd, std::string(label) + ": '" + text +
                                 "' is not an unsigned 32-bit integer");
        }
    }
};

const Command *cmd_of(const char *name) { return find_command(name); }

int run_init(const char *name, const Args &a) {
    NumberParser p(cmd_of(name));
    uint32_t mode = 0;
    if (!a.pos.empty()) p.u32(a.pos[0], "mode", &mode);
    if (!p.ok) return kExitUsage;
    return finish(name, QX_REALTIME_Init(mode));
}

int run_deinit(const char *name, const Args &) { return finish(name, QX_REALTIME_Deinit()); }

int run_debug_level(const char *name, const Args &a) {
    NumberParser p(cmd_of(name));
    int32_t level = 0;
    p.s32(a.pos[0], "LEVEL", &level);
    if (!p.ok) return kExitUsage;
    return finish(name, QX_REALTIME_SetDebugLevel(level));
}

int run_self_test(const char *name, const Args &) { return finish(name, QX_REALTIME_SelfTest()); }

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
    return finish(name, QX_REALTIME_CreateDomain(a.pos[0].c_str()));
}

int run_delete(const char *name, const Args &a) {
    return finish(name, (uint32_t)QX_REALTIME_DeleteDomain(a.pos[0].c_str()));
}

int run_list(const char *name, const Args &) {
    // Room for every domain the central record can hold: 24 slots of 64 bytes.
    static char names[64 * 24];
    memset(names, 0, sizeof(names));
    uint32_t rc = QX_REALTIME_GetAllDomainName(names, sizeof(names));
    close_open_line();
    // Names copied before a failure stay valid, so they are shown either way.
    for (size_t slot = 0; slot < 24; slot++) {
        const char *entry = names + 64 * slot;
        size_t len = strnlen(entry, 64);
        if (len > 0) printf("%.*s\n", (int)len, entry);
    }
    return finish(name, rc);
}

int run_add(const char *name, const Args &a) {
    NumberParser p(cmd_of(name));
    int32_t tid = 0;
    p.s32(a.pos[2], "TID", &tid);
    if (!p.ok) return kExitUsage;
    return finish(name, QX_REALTIME_AddThread(a.pos[0].c_str(), a.pos[1].c_str(), tid,
                                              a.overrun ? 1 : 0));
}

bool parse_util(NumberParser &p, const std::vector<std::string> &pos, size_t first,
                QX_REALTIME_UTIL_t *util) {
    p.s32(pos[first], "UTIL", &util->s32Util);
    p.s32(pos[first + 1], "DEADLINE_US", &util->DlDeadlineUs);
    p.s32(pos[first + 2], "RUNTIME_US", &util->DlRuntimeUs);
    p.s32(pos[first + 3], "PERIOD_US", &util->DlPeriodUs);
    return p.ok;
}

int run_add_lite(const char *name, const Args &a) {
    NumberParser p(cmd_of(name));
    int32_t tid = 0;
    QX_REALTIME_UTIL_t util = {0, 0, 0, 0};
    p.s32(a.pos[2], "TID", &tid);
    if (!parse_util(p, a.pos, 3, &util)) return kExitUsage;
    return finish(name, QX_REALTIME_AddThread_Lite(a.pos[0].c_str(), a.pos[1].c_str(), &util,
                                                   tid, a.overrun ? 1 : 0));
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
    QX_REALTIME_UTIL_t util = {0, 0, 0, 0};
    p.s32(a.pos[1], "TID", &tid);
    if (!parse_util(p, a.pos, 2, &util)) return kExitUsage;
    return finish(name, QX_REALTIME_UpdateThreadUtil(a.pos[0].c_str(), &util, tid));
}

int run_budget(const char *name, const Args &a) {
    NumberParser p(cmd_of(name));
    QX_REALTIME_UTIL_t util = {0, 0, 0, 0};
    if (!parse_util(p, a.pos, 1, &util)) return kExitUsage;
    // The library writes the answer only on the paths that reach the domain; an untouched
    // sentinel means there is nothing to show (unknown domain, framework disabled).
    const int32_t kUnset = INT32_MIN;
    int32_t left = kUnset;
    uint32_t rc = QX_REALTIME_QueryBudget(a.pos[0].c_str(), &util, &left);
    close_open_line();
    if (left != kUnset)
        printf("%s: utilisation left %d (demand %d)%s\n", a.pos[0].c_str(), left, util.s32Util,
               rc == RT_SUCCESS ? "" : rc == RT_ERR_OVER_BUDGET ? ", does not fit" : ", refused");
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
    if (rc == RT_SUCCESS) printf("%u DMIPS = %u us of CPU time per second on one core\n", dmips, us);
    return finish(name, rc);
}

int run_usage(const char *name, const Args &a) {
    NumberParser p(cmd_of(name));
    uint32_t interval = 0, samples = 0;
    p.u32(a.pos[1], "INTERVAL_MS", &interval);
    p.u32(a.pos[2], "SAMPLES", &samples);
    if (!p.ok) return kExitUsage;
    return finish(name, QX_REALTIME_GetDomainCpuUsage(a.pos[0].c_str(), interval, samples));
}

int run_dump(const char *name, const Args &a) {
    return finish(name, QX_REALTIME_DumpDomainInfo(a.pos[0].c_str()));
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

// The linter reads the file only: no shared state, no library call.
int run_lint(const char *, const Args &a) {
    qxrt_lint::Options options;
    if (!a.cpus.empty()) {
        uint32_t cpus = 0;
        if (!parse_u32(a.cpus, &cpus) || cpus < 1 || cpus > 4096)
            return usage_error(cmd_of("lint"), "--cpus: '" + a.cpus + "' is not a CPU count (1..4096)");
        options.cpu_count = (int)cpus;
    }
    const std::string &path = a.pos[0];
    std::string text;
    std::string error;
    if (!qxrt_lint::read_file(path, &text, &error)) {
        printf("%s: error: cannot read the file: %s\n", path.c_str(), error.c_str());
        return 1;
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
    return errors > 0 ? 1 : 0;
}

}  // namespace

namespace {
const Command kCommands[] = {
    {"init", "[MODE]",
     "Creates the shared state and reads the system settings of the configuration.\n"
     "MODE 0 (default): /vendor/etc/realtime/rt-<vendor.kpo.realtime.cfg_name>.json;\n"
     "MODE 1: /vendor/etc/realtime/rt_verify_only.json.",
     0, 1, false, false, run_init},
    {"deinit", "", "Removes the shared state for every process (QX_REALTIME_Deinit).", 0, 0, false,
     false, run_deinit},
    {"debug-level", "LEVEL",
     "Sets this process's internal debug level (0, 16, 32, 48, 64, 80, 240, 241).\n"
     "It is also stored in the shared settings when the framework is enabled.",
     1, 1, false, false, run_debug_level},
    {"self-test", "", "Runs the library's self test (QX_REALTIME_SelfTest).", 0, 0, false, false,
     run_self_test},
    {"create", "DOMAIN [MODE]",
     "Creates DOMAIN from the configuration file: segment, cgroups, budget check.\n"
     "The domain's keys are read from the file that QX_REALTIME_Init(MODE) chooses (default 0),\n"
     "so this process is initialised first, as a client is; that also rereads the system\n"
     "settings into the shared state.",
     1, 2, false, false, run_create},
    {"delete", "DOMAIN", "Removes DOMAIN's segment and lock file (QX_REALTIME_DeleteDomain).", 1, 1,
     false, false, run_delete},
    {"list", "", "Prints the names of the registered domains, one per line.", 0, 0, false, false,
     run_list},
    {"add", "DOMAIN CLASS TID [--overrun]",
     "Admits thread TID to CLASS of DOMAIN with the class's parameters and a budget check.\n"
     "--overrun asks a deadline domain for SCHED_FLAG_DL_OVERRUN: the kernel then sends the\n"
     "thread SIGXCPU whenever it overruns its runtime.",
     3, 3, true, false, run_add},
    {"add-lite", "DOMAIN CLASS TID UTIL DEADLINE_US RUNTIME_US PERIOD_US [--overrun]",
     "Admits thread TID with the given parameters and no checks (QX_REALTIME_AddThread_Lite).", 7,
     7, true, false, run_add_lite},
    {"remove", "DOMAIN TID",
     "Takes thread TID out of DOMAIN and restores its former scheduling and cgroups.", 2, 2, false,
     false, run_remove},
    {"update", "DOMAIN TID UTIL DEADLINE_US RUNTIME_US PERIOD_US",
     "Changes an admitted thread's utilisation (and deadline parameters in a deadline domain).", 6,
     6, false, false, run_update},
    {"budget", "DOMAIN UTIL DEADLINE_US RUNTIME_US PERIOD_US",
     "Prints the utilisation DOMAIN has left and whether this demand would fit.\n"
     "In a deadline domain the demand is RUNTIME_US x Util-per-core / PERIOD_US.",
     5, 5, false, false, run_budget},
    {"dmips", "N", "Converts N DMIPS into microseconds of CPU time per second on one core.", 1, 1,
     false, false, run_dmips},
    {"usage", "DOMAIN|All INTERVAL_MS SAMPLES",
     "Samples the CPU usage of DOMAIN (or of every domain) against its budget.\n"
     "SAMPLES samples, one every INTERVAL_MS; samples above the budget are marked Overbudget.",
     3, 3, false, true, run_usage},
    {"dump", "DOMAIN|All",
     "Prints DOMAIN's records, classes, thread slots and cgroup task lists.\n"
     "With All: every live thread of every domain, with its program and class.",
     1, 1, false, true, run_dump},
    {"mem-enable", "", "QX_REALTIME_EnableMemoryHighPriority (reserved, does nothing).", 0, 0,
     false, false, run_mem_enable},
    {"mem-disable", "", "QX_REALTIME_DisableMemoryHighPriority (reserved, does nothing).", 0, 0,
     false, false, run_mem_disable},
    {"mem-available", "[VALUE]",
     "QX_REALTIME_GetAvailableHighPriorityResource with *ps32Avai = VALUE (default 0).", 0, 1,
     false, false, run_mem_available},
    {"lint", "[--cpus N] FILE",
     "Checks a configuration file without touching the shared state.\n"
     "Prints every problem as FILE:LINE: error|warning: message (fix: suggestion);\n"
     "exits 1 when there is an error, 0 otherwise (warnings alone included).\n"
     "CPU sets and BudgetCpuNum are checked against this machine's CPUs, or N with --cpus.",
     1, 1, false, false, run_lint},
};
const size_t kCommandCount = sizeof(kCommands) / sizeof(kCommands[0]);

const Command *find_command(const std::string &name) {
    for (size_t i = 0; i < kCommandCount; i++)
        if (name == kCommands[i].name) return &kCommands[i];
    return nullptr;
}

void print_usage(FILE *out) {
    fprintf(out,
            "usage: rtctl [-v] COMMAND [ARGS...]\n"
            "       rtctl --help | rtctl COMMAND --help\n"
            "\n"
            "Operates the realtime framework shared by every process that loads\n"
            "libqxt_realtime_hal. Each call prints the library's messages and exits with the\n"
            "call's result code (0 = RT_SUCCESS); bad arguments exit with 2.\n"
            "\n"
            "options:\n"
            "  -v        debug level 64 for this invocation: info and debug messages too\n"
            "            (QX_REALTIME_SetDebugLevel, which also stores it in the shared settings)\n"
            "  --help    this text\n"
            "\n"
            "commands:\n");
    for (size_t i = 0; i < kCommandCount; i++) {
        std::string line = kCommands[i].name;
        if (kCommands[i].synopsis[0] != '\0') line += std::string(" ") + kCommands[i].synopsis;
        const char *help = kCommands[i].help;
        const char *nl = strchr(help, '\n');
        int first_len = nl ? (int)(nl - help) : (int)strlen(help);
        fprintf(out, "  %s\n      %.*s\n", line.c_str(), first_len, help);
    }
    fprintf(out,
            "\nresult codes: 0 RT_SUCCESS, 4 RT_ERR_FAILED, 8 RT_ERR_INVALID_PARAM,\n"
            "9 RT_ERR_OVER_BUDGET, 10 RT_ERR_NULL, 11 RT_ERR_NOT_EXIST, 12 RT_ERR_SYSTEM,\n"
            "14 RT_ERR_SCHED_SETATTR; lint exits 1 when the file has an error.\n");
}

// Before the operation proper: raise this process's level to 64. The first call may attach to
// the central segment, and attaching sets the level from the shared settings, so the level is
// set once more afterwards. Its own messages (a missing central segment before `init`) are
// not what the operator asked to see.
void raise_debug_level() {
    g_log_muted = true;
    QX_REALTIME_SetDebugLevel(64);
    QX_REALTIME_SetDebugLevel(64);
    g_log_muted = false;
}

}  // namespace

int main(int argc, char **argv) {
    qx_log_sink::set(plain_logger);

    bool verbose = false;
    const Command *cmd = nullptr;
    bool want_help = false;
    Args args;
    for (int i = 1; i < argc; i++) {
        std::string arg = argv[i];
        if (arg == "-v" || arg == "--verbose") {
            verbose = true;
        } else if (arg == "-h" || arg == "--help") {
            want_help = true;
        } else if (cmd != nullptr && arg == "--overrun" && cmd->takes_overrun) {
            args.overrun = true;
        } else if (cmd != nullptr && strcmp(cmd->name, "lint") == 0 && arg == "--cpus") {
            if (i + 1 >= argc) return usage_error(cmd, "--cpus needs a number");
            args.cpus = argv[++i];
        } else if (arg.size() > 1 && arg[0] == '-' && !(arg[1] >= '0' && arg[1] <= '9')) {
            return usage_error(cmd, "unknown option '" + arg + "'");
        } else if (cmd == nullptr) {
            if (arg == "help") {
                want_help = true;
                continue;
            }
            cmd = find_command(arg);
            if (cmd == nullptr) return usage_error(nullptr, "unknown command '" + arg + "'");
        } else {
            args.pos.push_back(arg);
        }
    }
    if (want_help) {
        if (cmd != nullptr)
            print_command_help(stdout, *cmd);
        else
            print_usage(stdout);
        return 0;
    }
    if (cmd == nullptr) return usage_error(nullptr, "no command given");
    if ((int)args.pos.size() < cmd->min_args)
        return usage_error(cmd, std::string(cmd->name) + ": missing argument");
    if ((int)args.pos.size() > cmd->max_args)
        return usage_error(cmd, "too many arguments, from '" + args.pos[cmd->max_args] + "' on");

    if (cmd->output_is_log) {
        g_log_out = stdout;
        g_report = true;
    }
    if (verbose && strcmp(cmd->name, "lint") != 0) raise_debug_level();
    int status = cmd->run(cmd->name, args);
    close_open_line();
    return status;
}
