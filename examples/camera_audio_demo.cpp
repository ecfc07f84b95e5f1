// camera_audio_demo: two client processes of libqxt_realtime_hal, and a small window on what the
// kernel says about their threads.
//
//   camera_audio_demo camera STATE_DIR   camera pipeline: one periodic deadline thread per class
//   camera_audio_demo audio STATE_DIR    audio pipeline: round-robin render and mix threads;
//                                        SIGUSR1 makes the mix thread busy for a few seconds
//   camera_audio_demo show NAME=TID...   policy, parameters and cgroups of each thread
//   camera_audio_demo check TID "POLICY" [CPUSET CPUACCT]
//                                        exit 1 unless the kernel agrees
//
// A client does what every user of the library does: QX_REALTIME_Init in its own process (which
// also chooses the configuration file that its domain creation reads), QX_REALTIME_CreateDomain
// for the domain it uses (a no-op when another process created it already), then
// QX_REALTIME_AddThread for each thread, naming only the domain and the class: the scheduling
// parameters come from the configuration. The client then writes its thread ids to
// STATE_DIR/<client>.threads and STATE_DIR/<client>.ready, and waits for SIGTERM.
#include <errno.h>
#include <pthread.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

#include "../src/platform/log_sink.h"
#include "../src/platform/platform.h"
#include "qx_realtime.h"
#include "../tools/result_name.h"

namespace {

// ---- plain log lines, marked with the client's name ----

const char *g_client = "demo";

void client_logger(int, const char *, const char *message) {
    std::string text = message ? message : "";
    if (text.compare(0, 6, "<INFO>") == 0) {
        text = text.substr(6);
    } else if (text.compare(0, 5, "<ERR>") == 0) {
        size_t pos = text.find("]: ");
        if (pos != std::string::npos) text = text.substr(pos + 3);
    }
    while (!text.empty() && text.back() == '\n') text.pop_back();
    printf("    [%s] %s\n", g_client, text.c_str());
    fflush(stdout);
}

pid_t gettid_now() {
    return (pid_t)syscall(SYS_gettid);
}

// ---- workload threads ----

int64_t now_ns() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (int64_t)ts.tv_sec * 1000000000 + ts.tv_nsec;
}

void spin_for_us(int64_t us) {
    int64_t end = now_ns() + us * 1000;
    while (now_ns() < end) {
    }
}

void sleep_until_ns(int64_t t) {
    struct timespec ts;
    ts.tv_sec = t / 1000000000;
    ts.tv_nsec = t % 1000000000;
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &ts, nullptr) == EINTR) {
    }
}

std::atomic<bool> g_stop{false};
std::atomic<int64_t> g_busy_until_ns{0};  // the mix thread's load phase ends here

// A pipeline stage: some work every period. Under SCHED_DEADLINE the kernel guarantees the work
// its runtime within each period; before admission it simply runs as a normal thread.
struct Stage {
    const char *name;
    int period_us;
    int work_us;
    bool can_be_loaded;  // follows g_busy_until_ns
    std::atomic<pid_t> tid{0};
    std::thread thread;

    Stage(const char *n, int period, int work, bool loadable)
        : name(n), period_us(period), work_us(work), can_be_loaded(loadable) {}

    void start() {
        thread = std::thread([this] { run(); });
        while (tid.load() == 0) usleep(1000);
    }

    void run() {
        pthread_setname_np(pthread_self(), name);
        tid = gettid_now();
        int64_t next = now_ns();
        while (!g_stop.load()) {
            if (can_be_loaded && now_ns() < g_busy_until_ns.load()) {
                // Overload: 8 ms of work in every 10 ms, far above a half-core budget, but with
                // room left for everything else on the CPU.
                spin_for_us(8000);
                usleep(2000);
                next = now_ns();
                continue;
            }
            spin_for_us(work_us);
            next += (int64_t)period_us * 1000;
            sleep_until_ns(next);
        }
    }
};

bool write_file(const std::string &path, const std::string &text) {
    std::string tmp = path + ".tmp";
    {
        std::ofstream f(tmp);
        if (!f) return false;
        f << text;
    }
    return rename(tmp.c_str(), path.c_str()) == 0;
}

// Admits one thread and says so; false when the library refused.
bool admit(const char *domain, const char *klass, Stage &stage) {
    uint32_t rc = QX_REALTIME_AddThread(domain, klass, stage.tid, 0);
    printf("    [%s] QX_REALTIME_AddThread(%s, %s, %d \"%s\") = %s\n", g_client, domain, klass,
           (int)stage.tid, stage.name, result_name(rc));
    fflush(stdout);
    return rc == RT_SUCCESS;
}

int run_client(const std::string &which, const std::string &state_dir) {
    g_client = which == "camera" ? "camera" : "audio";
    qx_log_sink::set(client_logger);

    // The threads inherit this mask; only the main thread takes the signals, with sigwait.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    uint32_t rc = QX_REALTIME_Init(0);
    printf("    [%s] QX_REALTIME_Init(0) = %s\n", g_client, result_name(rc));
    if (rc != RT_SUCCESS) return 1;

    // Each stage does a little work every period; the classes of the configuration say how the
    // kernel schedules it once admitted.
    const bool camera = which == "camera";
    const char *domain = camera ? "Domain_Camera" : "Domain_Audio";
    Stage first(camera ? "isp" : "render", camera ? 16000 : 10000, camera ? 500 : 200, false);
    Stage second(camera ? "preview" : "mix", camera ? 10000 : 20000, camera ? 300 : 200, !camera);
    Stage *stages[2] = {&first, &second};
    const char *classes[2] = {camera ? "Class_Isp" : "Class_Render",
                              camera ? "Class_Preview" : "Class_Mix"};
    for (Stage *s : stages) s->start();
    if (!camera) {
        // The mix thread runs niced before admission; removal must bring that back.
        setpriority(PRIO_PROCESS, (id_t)stages[1]->tid.load(), 5);
    }

    rc = QX_REALTIME_CreateDomain(domain);
    printf("    [%s] QX_REALTIME_CreateDomain(%s) = %s\n", g_client, domain, result_name(rc));
    if (rc != RT_SUCCESS) return 1;
    bool ok = true;
    std::ostringstream threads;
    for (size_t i = 0; i < 2; i++) {
        ok = admit(domain, classes[i], *stages[i]) && ok;
        threads << stages[i]->name << " " << stages[i]->tid.load() << " " << classes[i] << "\n";
    }
    if (!write_file(state_dir + "/" + which + ".threads", threads.str()) ||
        !write_file(state_dir + "/" + which + ".ready", ok ? "ok\n" : "failed\n"))
        return 1;

    for (;;) {
        int sig = 0;
        if (sigwait(&signals, &sig) != 0) continue;
        if (sig == SIGUSR1) {
            const int64_t kLoadSeconds = 5;
            g_busy_until_ns = now_ns() + kLoadSeconds * 1000000000;
            printf("    [%s] mix thread busy for %d s\n", g_client, (int)kLoadSeconds);
            fflush(stdout);
            continue;
        }
        break;
    }
    // Leaving: the threads end with the process. Taking them out of the domain first is the
    // polite way; a process that dies without doing so is reaped by the next admission.
    g_stop = true;
    for (Stage *s : stages) s->thread.join();
    return 0;
}

// ---- the kernel's view of a thread ----

std::string policy_of(pid_t tid) {
    qx_sched_attr a;  // the kernel's struct sched_attr
    memset(&a, 0, sizeof(a));
    if (syscall(SYS_sched_getattr, tid, &a, sizeof(a), 0) != 0)
        return std::string("(sched_getattr: ") + strerror(errno) + ")";
    char buf[160];
    switch (a.sched_policy) {
    case 0:
        snprintf(buf, sizeof(buf), "SCHED_OTHER nice %d", a.sched_nice);
        break;
    case 1:
        snprintf(buf, sizeof(buf), "SCHED_FIFO priority %u", a.sched_priority);
        break;
    case 2:
        snprintf(buf, sizeof(buf), "SCHED_RR priority %u", a.sched_priority);
        break;
    case 3:
        snprintf(buf, sizeof(buf), "SCHED_BATCH nice %d", a.sched_nice);
        break;
    case 5:
        snprintf(buf, sizeof(buf), "SCHED_IDLE");
        break;
    case 6:
        snprintf(buf, sizeof(buf), "SCHED_DEADLINE runtime/deadline/period %llu/%llu/%llu us",
                 (unsigned long long)(a.sched_runtime / 1000),
                 (unsigned long long)(a.sched_deadline / 1000),
                 (unsigned long long)(a.sched_period / 1000));
        break;
    default:
        snprintf(buf, sizeof(buf), "policy %u", a.sched_policy);
        break;
    }
    return buf;
}

// The thread's group in the hierarchy that carries the controller, from /proc/<tid>/cgroup; where
// no cgroup v1 hierarchy carries it, the cgroup v2 group ("0::" line), which carries every
// controller the kernel offers there.
std::string cgroup_of(pid_t tid, const std::string &controller) {
    std::ifstream f("/proc/" + std::to_string(tid) + "/task/" + std::to_string(tid) + "/cgroup");
    std::string line, unified = "?";
    while (std::getline(f, line)) {
        size_t a = line.find(':');
        size_t b = a == std::string::npos ? a : line.find(':', a + 1);
        if (b == std::string::npos) continue;
        if (line.compare(0, 3, "0::") == 0 && controller == "cpuset") unified = line.substr(3);
        std::stringstream list(line.substr(a + 1, b - a - 1));
        std::string item;
        while (std::getline(list, item, ','))
            if (item == controller) return line.substr(b + 1);
    }
    return unified;
}

int run_show(int argc, char **argv) {
    printf("    %-16s %7s  %-56s %-16s %s\n", "thread", "tid", "scheduling (sched_getattr)",
           "cpuset", "cpuacct");
    for (int i = 0; i < argc; i++) {
        std::string arg = argv[i];
        size_t eq = arg.find('=');
        std::string name = eq == std::string::npos ? arg : arg.substr(0, eq);
        pid_t tid = atoi(eq == std::string::npos ? arg.c_str() : arg.c_str() + eq + 1);
        printf("    %-16s %7d  %-56s %-16s %s\n", name.c_str(), (int)tid, policy_of(tid).c_str(),
               cgroup_of(tid, "cpuset").c_str(), cgroup_of(tid, "cpuacct").c_str());
    }
    return 0;
}

int run_check(int argc, char **argv) {
    if (argc != 2 && argc != 4) {
        fprintf(stderr, "usage: camera_audio_demo check TID \"POLICY\" [CPUSET CPUACCT]\n");
        return 2;
    }
    pid_t tid = atoi(argv[0]);
    std::string got = policy_of(tid);
    bool ok = got == argv[1];
    std::string groups;
    // CPUACCT "-": the accounting group is not asked (a layout without cpuacct).
    bool acct = argc == 4 && strcmp(argv[3], "-") != 0;
    if (argc == 4) {
        std::string cs = cgroup_of(tid, "cpuset"), ca = cgroup_of(tid, "cpuacct");
        ok = ok && cs == argv[2] && (!acct || ca == argv[3]);
        groups = ", cpuset " + cs + (acct ? ", cpuacct " + ca : "");
    }
    if (ok) {
        printf("    ok: %d is %s%s\n", (int)tid, got.c_str(), groups.c_str());
        return 0;
    }
    printf("    MISMATCH: %d is %s%s; expected %s%s%s%s%s\n", (int)tid, got.c_str(), groups.c_str(),
           argv[1], argc == 4 ? ", cpuset " : "", argc == 4 ? argv[2] : "",
           acct ? ", cpuacct " : "", acct ? argv[3] : "");
    return 1;
}

}  // namespace

int main(int argc, char **argv) {
    std::string mode = argc > 1 ? argv[1] : "";
    if ((mode == "camera" || mode == "audio") && argc == 3) return run_client(mode, argv[2]);
    if (mode == "show") return run_show(argc - 2, argv + 2);
    if (mode == "check") return run_check(argc - 2, argv + 2);
    fprintf(stderr,
            "usage: camera_audio_demo camera|audio STATE_DIR\n"
            "       camera_audio_demo show NAME=TID...\n"
            "       camera_audio_demo check TID \"POLICY\" [CPUSET CPUACCT]\n");
    return 2;
}
