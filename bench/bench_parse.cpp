// Configuration reading through QX_REALTIME_CreateDomain, by size and shape of the file: one
// domain object with many members, or many objects. The whole file is tokenized on every
// creation, so the time grows with the file; it should grow linearly.
#include <benchmark/benchmark.h>

#include <fstream>
#include <string>

#include "bench_common.h"
#include "qx_realtime_internal.h"

namespace {

const char kHead[] = R"({
    "System_Bench": { "Enabled": 1, "Util": 1024, "DbgLevel": 2, "Reservation": 90, "BudgetCpuNum": 2 },
)";

// About `bytes` of configuration: Domain_BenchBig with many members (wide: "_note" texts, which
// the parser passes over as it does "_description") or after many other domain objects.
std::string config_of(size_t bytes, bool wide) {
    std::string filler;
    for (int i = 0; filler.size() < bytes; i++) {
        if (wide)
            filler += "        \"_note" + std::to_string(i) + "\": \"text\",\n";
        else
            filler += "    \"Domain_F" + std::to_string(i) +
                      "\": { \"Util\": 1, \"Cpuset\": \"0\", \"Class_A\": { \"Util\": 1, "
                      "\"RT_Priority\": 10 } },\n";
    }
    std::string domain =
        "    \"Domain_BenchBig\": {\n        \"Util\": 1,\n        \"Cpuset\": \"0-1\",\n";
    if (wide) domain += filler;
    domain += "        \"Class_Work\": { \"Util\": 1, \"RT_Priority\": 10 }\n    }\n}\n";
    return std::string(kHead) + (wide ? "" : filler) + domain;
}

void BM_CreateDomainFromConfig(benchmark::State &state) {
    const bool wide = state.range(1) != 0;
    std::ofstream("/vendor/etc/realtime/rt-bench.json") << config_of((size_t)state.range(0), wide);
    for (auto _ : state) {
        if (QX_REALTIME_CreateDomain("Domain_BenchBig") != RT_SUCCESS ||
            QX_REALTIME_DeleteDomain("Domain_BenchBig") != RT_SUCCESS) {
            state.SkipWithError("creation failed");
            break;
        }
    }
    state.SetLabel(wide ? "one object, many members" : "many objects");
    state.SetBytesProcessed((int64_t)state.iterations() * state.range(0));
}
BENCHMARK(BM_CreateDomainFromConfig)
    ->ArgsProduct({{100 << 10, 1 << 20, 5 << 20}, {1, 0}})
    ->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char **argv) {
    if (!bench_setup()) return 1;
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
