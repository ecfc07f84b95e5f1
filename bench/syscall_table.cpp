// Runs each operation once between markers, so that `strace -f` output can be cut into a table
// of system calls per operation (scripts/bench does the cutting). A marker is a write to the
// invalid descriptor -1, which shows in the trace as: write(-1, "MARK <name>", ...) = -1 EBADF.
#include <string.h>
#include <unistd.h>

#include "bench_common.h"
#include "qx_realtime_internal.h"

static void mark(const char *name) {
    char text[96];
    int n = snprintf(text, sizeof(text), "MARK %s", name);
    if (write(-1, text, (size_t)n) < 0) {
        // expected: EBADF
    }
}

int main() {
    if (!bench_setup()) return 1;
    pid_t tid = bench_sleeper();
    QX_REALTIME_UTIL_t util = {1, 0, 0, 0};
    int32_t left = 0;
    uint32_t us = 0;
    // One warm-up pass so that every table entry and lock file already exists.
    QX_REALTIME_AddThread("Domain_BenchRR", "Class_Work", tid, 0);
    QX_REALTIME_RemoveThread("Domain_BenchRR", tid);

    mark("QX_REALTIME_AddThread(RR)");
    QX_REALTIME_AddThread("Domain_BenchRR", "Class_Work", tid, 0);
    mark("QX_REALTIME_RemoveThread(RR)");
    QX_REALTIME_RemoveThread("Domain_BenchRR", tid);
    mark("QX_REALTIME_AddThread(DEADLINE)");
    QX_REALTIME_AddThread("Domain_BenchDL", "Class_Periodic", tid, 0);
    mark("QX_REALTIME_UpdateThreadUtil(DEADLINE)");
    QX_REALTIME_UTIL_t dl = {0, 10000, 200, 10000};
    QX_REALTIME_UpdateThreadUtil("Domain_BenchDL", &dl, tid);
    mark("QX_REALTIME_RemoveThread(DEADLINE)");
    QX_REALTIME_RemoveThread("Domain_BenchDL", tid);
    mark("QX_REALTIME_QueryBudget");
    QX_REALTIME_QueryBudget("Domain_BenchRR", &util, &left);
    mark("QX_REALTIME_DmipsToUs");
    QX_REALTIME_DmipsToUs(500, &us);
    mark("QX_REALTIME_CreateDomain(existing)");
    QX_REALTIME_CreateDomain("Domain_BenchRR");
    mark("QX_REALTIME_GetAllDomainName");
    char names[64 * 24];
    QX_REALTIME_GetAllDomainName(names, sizeof(names));
    mark("QX_REALTIME_AddThread(RR, for the listing)");
    QX_REALTIME_AddThread("Domain_BenchRR", "Class_Work", tid, 0);
    mark("_QX_REALTIME_GetAllDomainInfo(one thread)");
    _QX_REALTIME_GetAllDomainInfo();
    mark("end");
    QX_REALTIME_RemoveThread("Domain_BenchRR", tid);
    QX_REALTIME_Deinit();
    return 0;
}
