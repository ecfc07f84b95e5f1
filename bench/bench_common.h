// Set-up shared by the benchmark programs: a configuration with one round-robin domain on one CPU
// (so admission moves the thread between cpusets) and one deadline domain, and a sleeping thread.
#ifndef QXRT_BENCH_COMMON_H
#define QXRT_BENCH_COMMON_H

#include <sys/types.h>

// Installs the configuration, initialises the library and creates both domains; false (with a
// message on stderr) when that fails, e.g. outside the sandbox.
bool bench_setup();

// A thread of this process that sleeps until the program ends; returns its kernel id.
pid_t bench_sleeper();

#endif
