// Runs the built rtctl as its own process, as an operator would, and keeps what it printed.
#ifndef QXRT_CLI_SUPPORT_H
#define QXRT_CLI_SUPPORT_H

#include <string>
#include <vector>

namespace qxt {

struct Result {
    int status;  // exit status, or 128 + signal
    std::string out;
    std::string err;
};

// rtctl ARGS..., with stdout and stderr kept apart.
Result rtctl(const std::vector<std::string> &args);

// The shipped configuration installed as /vendor/etc/realtime/rt-0.json.
void install_shipped_config();

// The shipped configuration installed, the framework initialised and both of its domains created,
// each by its own rtctl process. Fails the calling test (fatally) when a step fails.
void start_shipped_domains();

}  // namespace qxt

#endif
