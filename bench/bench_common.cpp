#include "bench_common.h"

#include <stdio.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <thread>

#include "qx_realtime_internal.h"

static const char kConfig[] = R"({
    "System_Bench": {
        "Enabled": 1,
        "Util": 1024,
        "DbgLevel": 2,
        "Reservation": 90,
        "BudgetCpuNum": 2
    },
    "Domain_BenchRR": {
        "Util": 1024,
        "Cpuset": "1",
        "Class_Work": {
            "Util": 1,
            "RT_Priority": 10
        }
    },
    "Domain_BenchDL": {
        "Util": 512,
        "Cpuset": "0-1",
        "Class_Periodic": {
            "DL_RuntimeUs": 100,
            "DL_DeadlineUs": 10000,
            "DL_PeriodUs": 10000
        }
    }
}
)";

bool bench_setup() {
    if (getenv("QXRT_SANDBOX") == nullptr) {
        fprintf(stderr, "run inside tools/rt_sandbox (scripts/bench does)\n");
        return false;
    }
    std::ofstream("/vendor/etc/realtime/rt-bench.json") << kConfig;
    std::ofstream(QX_HOST_PROPERTY_DIR "/" RT_PROP_CFG_NAME) << "bench";
    if (QX_REALTIME_Init(0) != RT_SUCCESS ||
        QX_REALTIME_CreateDomain("Domain_BenchRR") != RT_SUCCESS ||
        QX_REALTIME_CreateDomain("Domain_BenchDL") != RT_SUCCESS) {
        fprintf(stderr, "set-up failed\n");
        return false;
    }
    return true;
}

pid_t bench_sleeper() {
    static std::atomic<pid_t> tid{0};
    std::thread([] {
        tid = (pid_t)syscall(SYS_gettid);
        for (;;) pause();
    }).detach();
    while (tid.load() == 0) usleep(100);
    return tid.load();
}
