// libFuzzer target for the configuration linter (rtctl lint): its strict JSON parse, the checks
// of the file as written and the comparison with the library's reader, on any text. Beyond
// crashes and sanitizer reports, it holds the linter to what its callers rely on: every
// diagnostic names a line of the text and says what to change, a text the strict parse refuses
// is reported as malformed (and nothing else), and the verdict does not depend on the run.
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "../src/platform/log_sink.h"
#include "config_lint.h"

namespace {

void discard_log(int, const char *, const char *) {}

[[noreturn]] void broken(const char *what, const std::string &detail) {
    fprintf(stderr, "lint_fuzzer: %s: %s\n", what, detail.c_str());
    abort();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    qx_log_sink::set(discard_log);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pu8Data, size_t uSize) {
    const std::string text(reinterpret_cast<const char *>(pu8Data), uSize);
    qxrt_lint::Options options;
    options.cpu_count = 4;
    std::vector<qxrt_lint::Diagnostic> found = qxrt_lint::lint_text(text, options);

    int lines = 1;
    for (char c : text) lines += c == '\n';
    for (const qxrt_lint::Diagnostic &d : found) {
        std::string shown = qxrt_lint::format_diagnostic("f", d);
        if (d.line < 1 || d.line > lines) broken("diagnostic outside the text", shown);
        if (d.message.empty() || d.fix.empty()) broken("diagnostic without message or fix", shown);
    }

    qxrt_lint::Reading written;
    bool strict = qxrt_lint::written_reading(text, &written);
    bool malformed = !found.empty() && (found[0].message.rfind("malformed JSON", 0) == 0 ||
                                        found[0].message.rfind("the file must be one", 0) == 0);
    if (strict == malformed) broken("strict parse and report disagree", text.substr(0, 200));
    if (malformed && found.size() != 1) broken("more than the malformed JSON reported", "");

    if (qxrt_lint::lint_text(text, options).size() != found.size())
        broken("a second run reports otherwise", "");
    return 0;
}
