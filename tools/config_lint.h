// Configuration linter: checks a realtime configuration file before it ships.
//
// The library reads its configuration twice and neither reader refuses much: QX_REALTIME_Init
// scans it line by line for "Util", "Enabled" and "DbgLevel", and every QX_REALTIME_CreateDomain
// walks the jsmn tokens in document order, telling scopes apart by key prefix and assigning each
// number to the first key still waiting for one. A mistake therefore rarely fails loudly: it
// turns into a domain without a CPU set, a class key read as another class's, or a framework that
// is silently off. The linter reads the file the way those readers will and reports every such
// trap with its line, without touching the shared state or calling the library.
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
};

// Every problem of the configuration text, in line order.
std::vector<Diagnostic> lint_text(const std::string &text, const Options &options);

// "FILE:LINE: error|warning: message (fix: suggestion)"
std::string format_diagnostic(const std::string &file, const Diagnostic &d);

// Reads a whole file; false with the reason when it can't.
bool read_file(const std::string &path, std::string *text, std::string *error);

}  // namespace qxrt_lint

#endif
