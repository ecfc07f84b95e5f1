// Runs the built rtctl as its own process, as an operator would, and keeps what it printed.
#ifndef QXRT_CLI_SUPPORT_H
#define QXRT_CLI_SUPPORT_H

#include <string>
#include <vector>

#include "test_support.h"

namespace qxt {

struct Result {
    int status;  // exit status, or 128 + signal
    std::string out;
    std::string err;
};

// Whether text holds part anywhere.
inline bool contains(const std::string &text, const std::string &part) {
    return text.find(part) != std::string::npos;
}

// rtctl ARGS..., with stdout and stderr kept apart.
Result rtctl(const std::vector<std::string> &args);

// The same, started through the words of `prefix` (e.g. setpriv and its options) and with `input`
// on its standard input (empty: none, /dev/null).
Result rtctl_via(const std::vector<std::string> &prefix, const std::vector<std::string> &args,
                 const std::string &input = "");

// rtctl ARGS... as the unprivileged user nobody (uid and gid 65534, no supplementary groups).
Result rtctl_as_nobody(const std::vector<std::string> &args);

// rtctl check says "consistent" with status 0.
void expect_check_consistent();

// The base of the tests on the shipped configuration: it needs the sandbox and 2 CPUs.
class ShippedConfigTest : public SandboxTest {
protected:
    ShippedConfigTest() : SandboxTest(2, "the shipped configuration needs 2 CPUs") {}
};

// The shipped configuration installed as /vendor/etc/realtime/rt-0.json.
void install_shipped_config();

// The shipped configuration installed, the framework initialised and both of its domains created,
// each by its own rtctl process. Fails the calling test (fatally) when a step fails.
void start_shipped_domains();

}  // namespace qxt

#endif
