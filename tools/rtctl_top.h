// rtctl top: a live view of every domain, built from the same reports as `rtctl usage All` and
// `rtctl dump`.
#ifndef QXRT_RTCTL_TOP_H
#define QXRT_RTCTL_TOP_H

#include <stdint.h>

#include <functional>
#include <string>

namespace rtctl {

struct TopOptions {
    uint32_t interval_ms = 1000;
    uint32_t count = 0;  // refreshes before it ends; 0: until q (or forever without a terminal)
};

int run_top(const TopOptions &options);

// Runs one library call with its messages kept (report form, error tags removed) instead of
// printed; defined in rtctl.cpp next to the log sink.
std::string capture_report(const std::function<uint32_t()> &call, uint32_t *rc);

}  // namespace rtctl

#endif
