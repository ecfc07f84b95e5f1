// Helpers of the monitoring suite: counters under the test's control, configuration snippets,
// threads with a known CPU demand, and parsers for the printed samples.
#ifndef QXRT_MONITORING_SUPPORT_H
#define QXRT_MONITORING_SUPPORT_H

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "test_support.h"

namespace qxt {

// Hands one text to each reader of a counter file, in order: the reader that opens `target` gets
// the next text and then end of file. Every text travels through a pipe of its own: when a reader
// shows up at pipe k, pipe k + 1 is bound over `target` before pipe k is written and closed, so the
// next reader can only reach the next pipe, and two reads never merge nor wait for each other's
// close. When the list is used up the last text is served again, so a reader that reads more often
// than expected never blocks.
//
// Nothing here waits without a bound. A reader is served within about a millisecond of opening;
// if the next pipe cannot be put in place, every later reader gets end of file at once (an empty
// read, which the library reports as unreadable) and ok() turns false with the reason in error(),
// so the test fails saying why instead of leaving the library blocked in open().
//
// `target` is bound over (it is created as an empty file first when missing), in this test's own
// mount namespace: /proc/stat, or the path a domain's cpuacct statistics are read from. The pipes
// are named 0, 1, 2... in pipe_dir, an existing directory; by default a fresh one under /dev/shm.
// When the feeder ends, the target reads as it did before.
class CounterFeeder {
public:
    CounterFeeder(const std::string &target, std::vector<std::string> texts,
                  const std::string &pipe_dir = "");
    ~CounterFeeder();
    CounterFeeder(const CounterFeeder &) = delete;
    CounterFeeder &operator=(const CounterFeeder &) = delete;
    const std::string &target() const { return target_; }
    // How many readers were served. Final once the call that reads has returned: a reader gets
    // its end of file only after it has been counted.
    int reads() const { return served_.load(); }
    // Set up, and every reader so far served its text.
    bool ok() const { return !failed_.load(); }
    std::string error() const;

private:
    std::string pipe_path(int generation) const;
    bool install(int generation);  // creates pipe `generation` and binds it over the target
    void fail(const std::string &why);
    bool make_empty_file(const std::string &path);
    void run();
    void release_readers(int generation);
    std::string target_;
    std::string dir_;
    std::vector<std::string> texts_;
    bool kept_original_ = false;
    int installed_ = -1;  // the generation currently bound over the target
    std::atomic<bool> stop_{false};
    std::atomic<bool> failed_{false};
    std::atomic<int> served_{0};
    mutable std::mutex mutex_;
    std::string error_;
    std::thread thread_;
};

// The two counter texts the sampler parses.
std::string proc_stat_text(int32_t total);     // first line "cpu" + seven numbers summing to total
std::string cpuacct_stat_text(int32_t group);  // "user N\nsystem M\n", N + M == group

// Points a domain's cpuacct statistics path at another file (in the shared record).
void set_cpuacct_stat_path(const std::string &domain, const std::string &path);

// Writes the configuration (Enabled, CapPerCore cap, Reservation 80, BudgetCpuNum 2) and inits.
// Returns the result of QX_REALTIME_Init.
uint32_t start_framework(const std::string &domains, int cap = 1024, int enabled = 1,
                         int dbg_level = 2);

// The file forms of captured lines, in order; without the "[RT_Impl][DBG]" lines when asked.
std::vector<std::string> forms(const qxt::LogCapture &log, bool drop_debug = true);
// Only the error-level lines.
std::vector<std::string> error_forms(const qxt::LogCapture &log);
std::string join_lines(const std::vector<std::string> &lines);

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

// Held while a test keeps a core busy: such tests of concurrent runs (ctest -j) take turns
// instead of sharing the cores and measuring each other. A lock file outside the sandbox, so that
// every run on the machine sees it. The wait is bounded: a turn not had within a minute (another
// run holding it far longer than any such test takes) leaves held() false with the reason, and the
// test fails on that instead of waiting until ctest kills it.
class BusyCpuTurn {
public:
    BusyCpuTurn();
    ~BusyCpuTurn();
    bool held() const { return held_; }
    const std::string &why() const { return why_; }

private:
    int fd_ = -1;
    bool held_ = false;
    std::string why_;
};

}  // namespace qxt

#endif
