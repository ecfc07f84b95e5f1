// rtctl run and add -a: a program, or every thread of a process, admitted to a domain's class, as
// chrt and taskset do for one policy or one CPU set.
#ifndef QXRT_RTCTL_RUN_H
#define QXRT_RTCTL_RUN_H

#include <stdint.h>
#include <sys/types.h>

#include <functional>
#include <set>
#include <string>
#include <vector>

namespace rtctl {

struct Admission {
    std::string domain, cls;
    bool overrun = false;
};

// The thread ids of process pid (its /proc/<pid>/task), ascending; empty when it is gone.
std::vector<pid_t> threads_of(pid_t pid);

// Admits every thread of process pid that is not in done yet (done grows by each one tried);
// each failure is reported on stderr as "rtctl: NAME: thread TID: RESULT". The first failing
// result, or RT_SUCCESS.
uint32_t admit_threads(const char *name, const Admission &a, pid_t pid, std::set<pid_t> *done);

// rtctl run: starts argv with its main thread admitted before the program runs (or, with all,
// every thread it has, and each one it creates while it runs), waits for it and returns its
// exit status (128 + signal when killed; 127 when it can't be found, 126 when it can't be run).
// A refused admission ends it before it runs: *refused is then the library's result. reap is
// called once the program has ended, to give its charge back.
int run_program(const char *name, const Admission &a, bool all,
                const std::vector<std::string> &argv, uint32_t *refused,
                const std::function<void()> &reap);

}  // namespace rtctl

#endif
