// Helpers of the domain suite: configuration texts with domains, a fixture that initialises the
// library on them, and questions to the kernel about the control groups a domain owns.
#ifndef QXRT_DOMAIN_SUITE_H
#define QXRT_DOMAIN_SUITE_H

#include <string>
#include <vector>

#include "test_support.h"

namespace qxt {

// "Domain_<i>" for i = first .. last, each an RR domain of `util` units on every CPU.
std::vector<std::string> numbered_domains(int first, int last, int util = 10);
std::string numbered_name(int i);

// Every test runs in a fresh sandbox; the fixture only checks that it is there and captures the
// log from the start.
class DomainTest : public SandboxTest {
protected:
    // Installs the configuration and initialises the library on it. The suite's configurations
    // carry DbgLevel 4 (internal level 64), so info and debug messages reach the log, here and in
    // every process that attaches later.
    void init_with(const std::string &json);
    // CreateDomain(domain) returns code, the log has the error line, and no segment is left.
    void expect_creation_refused(const std::string &domain, uint32_t code,
                                 const std::string &error);
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

// Whether an address is mapped in this process.
bool is_mapped(const void *addr);
// Whether the domain's segment file exists under /dev/shm/realtime.
bool segment_exists(const std::string &domain);
// The names of the used entries of this process's mapping table, in order.
std::vector<std::string> mapped_names();

}  // namespace qxt

#endif
