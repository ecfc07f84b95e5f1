// Time per operation, on the real kernel inside the sandbox.
#include <benchmark/benchmark.h>

#include <vector>

#include "bench_common.h"
#include "log_sink.h"
#include "qx_realtime_internal.h"

static pid_t g_tid;

// One admission and one removal of the same thread per iteration.
static void BM_AddRemove(benchmark::State &state, const char *domain, const char *cls) {
    for (auto _ : state) {
        if (QX_REALTIME_AddThread(domain, cls, g_tid, 0) != RT_SUCCESS ||
            QX_REALTIME_RemoveThread(domain, g_tid) != RT_SUCCESS) {
            state.SkipWithError("admission failed");
            break;
        }
    }
}
BENCHMARK_CAPTURE(BM_AddRemove, RoundRobin, "Domain_BenchRR", "Class_Work")
    ->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_AddRemove, Deadline, "Domain_BenchDL", "Class_Periodic")
    ->Unit(benchmark::kMicrosecond);

// The same cycle with N other threads admitted in the domain, each of them a thread of this
// process: admission's liveness walk asks the kernel for the start time of each one it keeps an
// identity for (the process's own once), so this is where that walk's cost per thread shows.
static void BM_AddRemoveBeside(benchmark::State &state) {
    static std::vector<pid_t> others;
    while (others.size() < (size_t)state.range(0)) others.push_back(bench_sleeper());
    for (int64_t i = 0; i < state.range(0); i++)
        if (QX_REALTIME_AddThread("Domain_BenchRR", "Class_Work", others[i], 0) != RT_SUCCESS) {
            state.SkipWithError("admission of the others failed");
            return;
        }
    for (auto _ : state) {
        if (QX_REALTIME_AddThread("Domain_BenchRR", "Class_Work", g_tid, 0) != RT_SUCCESS ||
            QX_REALTIME_RemoveThread("Domain_BenchRR", g_tid) != RT_SUCCESS) {
            state.SkipWithError("admission failed");
            break;
        }
    }
    for (int64_t i = 0; i < state.range(0); i++)
        QX_REALTIME_RemoveThread("Domain_BenchRR", others[i]);
}
BENCHMARK(BM_AddRemoveBeside)->Arg(0)->Arg(8)->Arg(32)->Unit(benchmark::kMicrosecond);

static void BM_QueryBudget(benchmark::State &state) {
    QX_REALTIME_UTIL_t util = {1, 0, 0, 0};
    int32_t left = 0;
    for (auto _ : state)
        benchmark::DoNotOptimize(QX_REALTIME_QueryBudget("Domain_BenchRR", &util, &left));
}
BENCHMARK(BM_QueryBudget)->Unit(benchmark::kMicrosecond);

static void BM_DmipsToUs(benchmark::State &state) {
    uint32_t us = 0;
    for (auto _ : state) benchmark::DoNotOptimize(QX_REALTIME_DmipsToUs(500, &us));
}
BENCHMARK(BM_DmipsToUs)->Unit(benchmark::kMicrosecond);

static void BM_CreateExistingDomain(benchmark::State &state) {
    for (auto _ : state) benchmark::DoNotOptimize(QX_REALTIME_CreateDomain("Domain_BenchRR"));
}
BENCHMARK(BM_CreateExistingDomain)->Unit(benchmark::kMicrosecond);

// The thread listing of the dump with one admitted thread (its lines formatted and handed to a
// sink that drops them, so that the terminal's speed is not measured).
static void drop_message(int, const char *, const char *) {}
static void BM_ThreadListing(benchmark::State &state) {
    if (QX_REALTIME_AddThread("Domain_BenchRR", "Class_Work", g_tid, 0) != RT_SUCCESS) {
        state.SkipWithError("admission failed");
        return;
    }
    qx_log_sink::set(drop_message);
    for (auto _ : state) benchmark::DoNotOptimize(_QX_REALTIME_GetAllDomainInfo());
    qx_log_sink::restore_default();
    QX_REALTIME_RemoveThread("Domain_BenchRR", g_tid);
}
BENCHMARK(BM_ThreadListing)->Unit(benchmark::kMicrosecond);

// A message below the current level: no formatting, no system call.
static int g_evaluated;
static int count_evaluation() {
    return ++g_evaluated;
}
static void BM_SuppressedInfoMessage(benchmark::State &state) {
    for (auto _ : state)
        RT_LOGI("[RT_Impl][Info] [%s] %d %ld\n", "bench", count_evaluation(), qx_gettid());
    if (g_evaluated != 0) state.SkipWithError("a suppressed message evaluated its arguments");
}
BENCHMARK(BM_SuppressedInfoMessage);

int main(int argc, char **argv) {
    if (!bench_setup()) return 1;
    g_tid = bench_sleeper();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    QX_REALTIME_Deinit();
    return 0;
}
