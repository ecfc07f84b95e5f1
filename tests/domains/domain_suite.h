// Helpers of the domain suite: configuration texts with domains, a fixture that initialises the
// library on them, and questions to the kernel about the control groups a domain owns.
#ifndef QXRT_DOMAIN_SUITE_H
#define QXRT_DOMAIN_SUITE_H

#include <string>
#include <vector>

#include "test_support.h"

namespace qxt_domains {

// A round-robin domain object: the domain's own keys, then one class.
std::string rr_domain(const std::string &name, int util, const std::string &cpuset,
                      int class_util = 10, int priority = 50,
                      const std::string &class_name = "Class_Rr");
// A deadline domain object with one class.
std::string dl_domain(const std::string &name, int util, const std::string &cpuset,
                      int runtime_us = 1000, int deadline_us = 10000, int period_us = 100000,
                      const std::string &class_name = "Class_Dl");
// Domain objects joined into the member list that qxt::config_with expects.
std::string join(const std::vector<std::string> &domains);
// "Domain_<i>" for i = first .. last, each an RR domain of `util` units on every CPU.
std::vector<std::string> numbered_domains(int first, int last, int util = 10);
std::string numbered_name(int i);

// Every test runs in a fresh sandbox; the fixture only checks that it is there and captures the
// log from the start.
class DomainTest : public ::testing::Test {
protected:
    void SetUp() override;
    // Installs the configuration and initialises the library on it. The suite's configurations
    // carry DbgLevel 4 (internal level 64), so info and debug messages reach the log, here and in
    // every process that attaches later.
    void init_with(const std::string &json);
    qxt::LogCapture log;
};

// The suite's usual configuration: one CPU = 1024 units, 80 percent of 2 CPUs (1638 units),
// DbgLevel 4.
std::string config_of(const std::vector<std::string> &domains);

// Runs fn in a forked child that behaves like a process that never initialised the library: the
// per-process top object inherited from this process is dropped, so the child attaches to the
// central segment on its first call and starts with an empty mapping table. Returns fn's result
// (or 128 + signal).
int run_in_fresh_process(const std::function<int()> &fn);

// The kernel's cpuset control file <dir>/<name> as the host names it: the plain name where the
// hierarchy is mounted with plain names, else the prefixed one.
std::string cpuset_file(const std::string &dir, const std::string &name);
// The first line of a kernel file ("" when unreadable).
std::string first_line(const std::string &path);

// A process id that no longer exists (a child that has exited and been reaped).
pid_t dead_pid();
// Number of open descriptors of this process.
int open_fd_count();
// Whether an address is mapped in this process.
bool is_mapped(const void *addr);
// The library's own text of an errno value, as its messages print it.
std::string errno_text(int err);
// Whether the domain's segment file exists under /dev/shm/realtime.
bool segment_exists(const std::string &domain);
// The entries of a directory whose names begin with prefix, sorted.
std::vector<std::string> files_in(const std::string &dir, const std::string &prefix = "");
// The names of the used entries of this process's mapping table, in order.
std::vector<std::string> mapped_names();

}  // namespace qxt_domains

#endif
