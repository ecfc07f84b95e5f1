// Helpers of the monitoring suite: counters under the test's control, configuration snippets,
// threads with a known CPU demand, and parsers for the printed samples.
#ifndef QXRT_MONITORING_SUPPORT_H
#define QXRT_MONITORING_SUPPORT_H

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "test_support.h"

namespace qxt_mon {

// A named pipe that hands one text to each reader, in order: the reader that opens it gets the
// next text and then end of file. The next text is offered only after that reader has closed the
// pipe (seen through inotify), so two reads never merge. When the list is used up the last text is
// served again, so a reader that reads more often than expected never blocks; reads() tells how
// many reads were served.
class CounterFeeder {
public:
    CounterFeeder(const std::string &fifo_path, std::vector<std::string> texts);
    ~CounterFeeder();
    const std::string &path() const { return path_; }
    int reads() const { return reads_.load(); }
    bool ok() const { return ok_; }
    // Once the readers are done: waits until every text handed out has been read to its close,
    // then returns how many reads there were.
    int settled_reads() const;

private:
    void run();
    std::string path_;
    std::vector<std::string> texts_;
    std::atomic<bool> stop_{false};
    std::atomic<int> reads_{0};
    std::atomic<int> served_{0};
    bool ok_ = false;
    int inotify_fd_ = -1;
    std::thread thread_;
};

// The two counter texts the sampler parses.
std::string proc_stat_text(int32_t total);      // first line "cpu" + seven numbers summing to total
std::string cpuacct_stat_text(int32_t group);   // "user N\nsystem M\n", N + M == group

// Binds source over target in this test's private mount namespace (each case has its own).
bool bind_over(const std::string &source, const std::string &target, std::string *why);

// Points a domain's cpuacct statistics path at another file (in the shared record).
void set_cpuacct_stat_path(const std::string &domain, const std::string &path);

// Configuration snippets (JSON object members, without the surrounding braces).
std::string rr_domain(const std::string &name, int util, const std::string &cpuset,
                      const std::string &cls, int class_util, int prio);
std::string dl_domain(const std::string &name, int util, const std::string &cpuset,
                      const std::string &cls, int runtime_us, int deadline_us, int period_us);

// Writes the configuration (Enabled, CapPerCore cap, Reservation 80, BudgetCpuNum 2) and inits.
// Returns the result of QX_REALTIME_Init.
uint32_t start_framework(const std::string &domains, int cap = 1024, int enabled = 1,
                         int dbg_level = 2);

// The file forms of captured lines, in order; without the "[RT_Impl][DBG]" lines when asked.
std::vector<std::string> forms(const qxt::LogCapture &log, bool drop_debug = true);
// Only the error-level lines.
std::vector<std::string> error_forms(const qxt::LogCapture &log);
std::string join(const std::vector<std::string> &lines);

// One sample of the one-domain mode: "[RT_Impl][Err] %5.2f %% (budget %5.2f%%) %s\n".
struct Sample {
    double usage = 0, budget = 0;
    bool over = false;
};
bool parse_sample(const std::string &form, Sample *out);
// One domain's sample in the all-domains mode: "[RT_Impl][Err] [%-30s] %5.2f %% (budget ...".
bool parse_domain_sample(const std::string &form, std::string *name, Sample *out);
std::vector<Sample> samples_of(const std::vector<std::string> &forms);

// The line the one-domain mode prints for the given usage and budget.
std::string sample_line(double usage, double budget, bool over);

// A real thread of this process that spins for spin_ms and then sleeps for sleep_ms, until stopped.
class DutyThread {
public:
    DutyThread(int spin_ms, int sleep_ms);
    ~DutyThread();
    pid_t tid() const { return tid_; }
    void stop();

private:
    std::atomic<bool> stop_{false};
    std::atomic<pid_t> tid_{0};
    std::thread thread_;
};

// Held while a test keeps a core busy: such tests of concurrent runs (ctest -j) take turns
// instead of sharing the cores and measuring each other. A lock file outside the sandbox, so that
// every run on the machine sees it.
class BusyCpuTurn {
public:
    BusyCpuTurn();
    ~BusyCpuTurn();

private:
    int fd_ = -1;
};

}  // namespace qxt_mon

#endif
