// What rtctl can tell an operator about the cause of a failure, from the files the library uses.
//
// The library answers with a result code and its own message (`pstDomain is NULL`,
// `can't get central flock`): true, but it names the symptom. The usual causes show in the file
// system: a segment this user may not open, the directory of the lock files missing, no central
// segment because nobody ran `rtctl init`. These helpers look, without taking any lock and
// without going through the library, and say so in one line each.
#ifndef QXRT_RTCTL_HINTS_H
#define QXRT_RTCTL_HINTS_H

#include <stdint.h>

#include <string>
#include <vector>

namespace rtctl {

// The likely causes of COMMAND's failure with CODE, most specific first; DOMAIN is the domain
// the command named ("" for none). Each entry is one line, without "rtctl: hint: ".
std::vector<std::string> failure_causes(const std::string &command, uint32_t code,
                                        const std::string &domain);

// "permission denied on PATH (run as root or in its group)" for the first of the domain's
// segment and lock file that exists and this process may not read and write; "" when none.
std::string domain_access_problem(const std::string &domain);

// The same for every segment and lock file of the framework (central and domains), one entry each.
std::vector<std::string> access_problems();

// A domain's scheduling type (1 round-robin, 2 deadline) read from its segment, or 0 when the
// segment can't be read.
uint32_t domain_sched_type(const std::string &domain);

}  // namespace rtctl

#endif
