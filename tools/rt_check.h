// Consistency check of the framework's shared state against the kernel (`rtctl check`): every
// domain segment is walked under its lock file, each inconsistency is reported, and on request
// repaired. It reads the records by their shared layout and asks the kernel directly; it does
// not go through the library, so that it can look at what the library would refuse.
#ifndef QXRT_RT_CHECK_H
#define QXRT_RT_CHECK_H

#include <string>
#include <vector>

namespace rtcheck {

struct Finding {
    std::string where;   // "Global" or the domain's name
    std::string what;    // the inconsistency
    std::string action;  // what the repair did or why it could not ("" when not asked to)
    // Whether the repair was asked for and done: every action that failed begins "could not".
    bool repaired() const { return !action.empty() && action.compare(0, 9, "could not") != 0; }
};

// Walks the central segment and every domain segment; with repair, fixes what it finds. Returns
// the findings, empty when everything is consistent. *error says why the walk could not be done
// at all (no central segment, lock file unusable); the findings are then empty.
std::vector<Finding> run(bool repair, std::string *error);

// One line for the operator about CPU hotplug: the CPUs online and offline, and the deadline
// bandwidth the machine's SCHED_DEADLINE threads hold (which makes the kernel refuse to take a CPU
// offline when the CPUs left can't hold it). "" when every present CPU is online, unless
// with_bandwidth (rtctl -v) asks for it while a thread is SCHED_DEADLINE: a consistent machine's
// check says "consistent" and nothing else.
std::string cpu_note(bool with_bandwidth);

// Whether an entry of the central record's domain list (size bytes) holds a domain name: 1 to 63
// bytes before its terminating zero, not "." or "..", no '/' and no control character.
bool is_domain_name(const char *entry, size_t size);

}  // namespace rtcheck

#endif
