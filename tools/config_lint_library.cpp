// The linter's view of the file as the library reads it: the library's own readers (the token
// walk of QX_REALTIME_CreateDomain and the start-up scan of QX_REALTIME_Init), run on records
// that belong to the linter alone.
//
// The reader is linked from the library's core archive. rtctl, which holds this file, takes
// every exported operation from the shared library: the reader's objects define none
// (diagnostics.cpp keeps the process-wide state apart from the lifecycle), and rtctl links the
// archive with its symbols hidden (tools/CMakeLists.txt).
#include <stdlib.h>
#include <string.h>

#include <memory>

#include "config_lint.h"
#include "qx_realtime_internal.h"

namespace qxrt_lint {

namespace {

// The library's messages are the library's: the linter reports in its own words. The level is
// the reader's process-wide one, put back as it was.
class QuietLibrary {
public:
    QuietLibrary() : saved_(_u32DbgLevel) { _u32DbgLevel = 0; }
    ~QuietLibrary() { _u32DbgLevel = saved_; }
    QuietLibrary(const QuietLibrary &) = delete;
    QuietLibrary &operator=(const QuietLibrary &) = delete;

private:
    uint32_t saved_;
};

const char kLintedFile[] = "(linted file)";

struct FreeDeleter {
    void operator()(void *p) const { free(p); }
};

// A domain record as domain creation sets it up before parsing into it.
void prepare_domain(QX_REALTIME_DOMAIN_t *domain, const std::string &name) {
    memset(domain, 0, RT_SHM_SIZE);
    size_t len = strnlen(name.c_str(), RT_NAME_LEN - 1);
    memcpy(domain->szName, name.c_str(), len);
    domain->szName[len] = '\0';
    domain->s32NextOffset = RT_DOMAIN_HEADER_SIZE;
    domain->s32ClassStartOffset = RT_DOMAIN_HEADER_SIZE;
}

DomainReading read_domain(QX_REALTIME_DOMAIN_t *domain, const std::string &name, bool found) {
    DomainReading d;
    d.name = name;
    d.found = found;
    d.util = domain->s32UtilMax;
    d.cpuset.assign(domain->pszCpuset, strnlen(domain->pszCpuset, RT_CPUSET_LEN));
    d.sched_type = (int)domain->u32SchedType;
    int32_t classes = qx_domain_class_num(domain);
    for (int32_t i = 0; i < classes; i++) {
        const QX_REALTIME_CLASS_t *c = qx_domain_class(domain, i);
        if (c == nullptr) break;
        ClassReading r;
        r.name.assign(c->szClassName, strnlen(c->szClassName, RT_NAME_LEN));
        r.util = c->s32Util;
        r.rt_priority = c->s32RtPriority;
        r.dl_runtime = c->s32DlRuntimeUs;
        r.dl_deadline = c->s32DlDeadlineUs;
        r.dl_period = c->s32DlPeriodUs;
        d.classes.push_back(r);
    }
    return d;
}

}  // namespace

Reading library_reading(const std::string &text, const std::vector<std::string> &domains) {
    Reading out;
    QuietLibrary quiet;
    std::unique_ptr<QX_REALTIME_CENTRAL_t, FreeDeleter> central(
        (QX_REALTIME_CENTRAL_t *)calloc(1, sizeof(QX_REALTIME_CENTRAL_t)));
    std::unique_ptr<QX_REALTIME_TOP_t, FreeDeleter> top(
        (QX_REALTIME_TOP_t *)calloc(1, sizeof(QX_REALTIME_TOP_t)));
    std::unique_ptr<QX_REALTIME_DOMAIN_t, FreeDeleter> domain(
        (QX_REALTIME_DOMAIN_t *)malloc(RT_SHM_SIZE));
    if (!central || !top || !domain) return out;
    top->pstCentral = central.get();

    // The text as the library's whole-file reader makes it of the file (a NUL byte, say, cuts
    // the rest of its line).
    char *json = nullptr;
    FILE *stream = text.empty() ? nullptr : fmemopen((void *)text.data(), text.size(), "r");
    if (stream == nullptr || qx_config_read_stream(stream, kLintedFile, &json) != RT_SUCCESS ||
        json == nullptr) {
        free(json);
        json = strdup("");
        if (json == nullptr) return out;
    }
    std::unique_ptr<char, FreeDeleter> json_owner(json);

    // The System_ values are read by every parse; with no domain named, by a parse for a name no
    // key can equal.
    std::vector<std::string> names = domains;
    bool any = !names.empty();
    if (!any) names.push_back("");
    for (const std::string &name : names) {
        prepare_domain(domain.get(), name);
        qx_parse_ctx_t ctx;
        memset(&ctx, 0, sizeof(ctx));
        ctx.pstDomain = domain.get();
        ctx.pstTop = top.get();
        ctx.pszJson = json;
        (void)qx_config_parse_text(&ctx, kLintedFile);
        if (any) out.domains.push_back(read_domain(domain.get(), name, ctx.bFound != 0));
    }
    out.cap_per_core = top->s32CapPerCore;
    out.reservation = top->s32UtilReservation;
    out.dbg_level = top->s32DbgLevel;
    out.enabled = top->Enabled;
    out.budget_cpu_num = top->s32BudgetCpuNum;
    return out;
}

StartupReading library_startup_reading(const std::string &text) {
    StartupReading out;
    if (text.empty()) return out;
    // The scan reads a stream; the text is handed to it as one.
    FILE *f = fmemopen((void *)text.data(), text.size(), "r");
    if (f == nullptr) return out;
    char line[QX_CFG_SCAN_LINE_LEN];
    qx_startup_scan_t scan;
    qx_config_scan_startup(f, line, &scan);
    fclose(f);
    for (int k = 0; k < kQxCfgStartupKeyCount && k < 3; k++) {
        if ((scan.u32Found & (1u << k)) == 0) continue;
        out.value[k] = scan.as32Value[k];
        size_t end = (size_t)scan.as64Offset[k];
        if (end > text.size()) end = text.size();
        int n = 1;
        for (size_t i = 0; i < end; i++)
            if (text[i] == '\n') n++;
        out.line[k] = n;
    }
    return out;
}

}  // namespace qxrt_lint
