// Bounded stress run: 8 client processes with 3 sleeping threads each admit, update and remove
// their threads in a round-robin and a deadline domain as fast as they can, while a supervisor
// SIGKILLs random clients and starts new ones. At the end, after one reaping admission per domain,
// the books must agree: s32UtilCurrent equals the sum of the in-use slots, the process-ID list
// names no dead process, and the thread of another live process that the clients admit and
// remove in turn is SCHED_OTHER in the root groups unless a slot names it.
//
//   QXRT_STRESS_SECONDS   length of the run (default 5; CI runs 60)
//   QXRT_STRESS_SEED      seed of the supervisor's and clients' choices (default 1)
//
// Prints calls per second and kills; exits 0 when the invariants hold, 1 otherwise, 77 when the
// sandbox is missing (ctest counts that as skipped).
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <vector>

#include "hardening_support.h"

using namespace qxt;

namespace {

constexpr int kClients = 8;
constexpr int kThreadsPerClient = 3;

struct Shared {
    std::atomic<int> stop;
    std::atomic<long> calls;
    std::atomic<long> admitted;
    std::atomic<long> refused_budget;
    std::atomic<long> unexpected;  // codes other than 0 and RT_ERR_OVER_BUDGET
    std::atomic<int> last_unexpected;
};

[[noreturn]] void client(Shared *sh, unsigned seed, pid_t foreign_tid) {
    int fd = open("/dev/null", O_WRONLY);  // errors of refused calls are expected: keep quiet
    if (fd >= 0 && getenv("QXRT_HARDENING_VERBOSE") == nullptr) dup2(fd, 2);
    pid_t tids[kThreadsPerClient];
    const char *domain[kThreadsPerClient];
    bool in[kThreadsPerClient] = {false, false, false};
    for (int i = 0; i < kThreadsPerClient; i++) {
        tids[i] = start_sleeper();
        domain[i] = nullptr;
    }
    auto count = [sh](uint32_t rc) {
        sh->calls.fetch_add(1);
        if (rc == RT_ERR_OVER_BUDGET) {
            sh->refused_budget.fetch_add(1);
        } else if (rc != RT_SUCCESS) {
            sh->unexpected.fetch_add(1);
            sh->last_unexpected.store((int)rc);
        }
        return rc;
    };
    while (sh->stop.load() == 0) {
        if (rand_r(&seed) % 8 == 0) {
            // The thread of another live process, shared by all clients: admitted by one, removed
            // by another, or found already there (0) or already gone (11).
            uint32_t rc = rand_r(&seed) % 2 ? QX_REALTIME_AddThread(kRr, kRrClass, foreign_tid, 0)
                                            : QX_REALTIME_RemoveThread(kRr, foreign_tid);
            sh->calls.fetch_add(1);
            if (rc != RT_SUCCESS && rc != RT_ERR_OVER_BUDGET && rc != RT_ERR_NOT_EXIST) {
                sh->unexpected.fetch_add(1);
                sh->last_unexpected.store((int)rc);
            }
            continue;
        }
        int i = (int)(rand_r(&seed) % kThreadsPerClient);
        if (!in[i]) {
            domain[i] = rand_r(&seed) % 2 ? kRr : kDl;
            std::string cls = class_of(domain[i]);
            uint32_t rc;
            if (rand_r(&seed) % 4 == 0) {
                QX_REALTIME_UTIL_t u = is_dl(domain[i])
                                           ? QX_REALTIME_UTIL_t{10, 10000, 1000, 100000}
                                           : QX_REALTIME_UTIL_t{100, 0, 0, 0};
                rc = count(QX_REALTIME_AddThread_Lite(domain[i], cls.c_str(), &u, tids[i], 0));
            } else {
                rc = count(QX_REALTIME_AddThread(domain[i], cls.c_str(), tids[i], 0));
            }
            in[i] = rc == RT_SUCCESS;
            if (in[i]) sh->admitted.fetch_add(1);
        } else if (rand_r(&seed) % 3 == 0) {
            QX_REALTIME_UTIL_t u;
            if (is_dl(domain[i]))
                u = {0, (int32_t)(5000 + rand_r(&seed) % 15000),
                     (int32_t)(500 + rand_r(&seed) % 1500), 100000};
            else
                u = {(int32_t)(50 + rand_r(&seed) % 100), 0, 0, 0};
            count(QX_REALTIME_UpdateThreadUtil(domain[i], &u, tids[i]));
        } else {
            uint32_t rc = count(QX_REALTIME_RemoveThread(domain[i], tids[i]));
            if (rc == RT_SUCCESS) in[i] = false;
        }
    }
    // A graceful end: every admitted thread is removed.
    for (int i = 0; i < kThreadsPerClient; i++)
        if (in[i]) count(QX_REALTIME_RemoveThread(domain[i], tids[i]));
    qxt::exit_child(0);
}

pid_t start_client(Shared *sh, unsigned seed, pid_t foreign_tid) {
    fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0) client(sh, seed, foreign_tid);
    return pid;
}

}  // namespace

int main() {
    std::string why;
    if (!qxt::in_sandbox(&why)) {
        printf("hardening_stress: not run: %s\n", why.c_str());
        return 77;
    }
    double seconds = 5;
    if (const char *env = getenv("QXRT_STRESS_SECONDS")) seconds = atof(env);
    unsigned seed = 1;
    if (const char *env = getenv("QXRT_STRESS_SEED")) seed = (unsigned)atoi(env);

    install(0);
    std::string err = reset({kRr, kDl});
    if (!err.empty()) {
        printf("hardening_stress: %s\n", err.c_str());
        return 1;
    }
    auto *sh = (Shared *)mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE,
                              MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (sh == MAP_FAILED) return 1;
    new (sh) Shared{};

    Foreign foreign = start_foreign();
    if (foreign.pid <= 0) {
        printf("hardening_stress: the foreign process did not start\n");
        return 1;
    }
    std::vector<pid_t> clients;
    unsigned next_seed = seed * 1000;
    for (int c = 0; c < kClients; c++)
        clients.push_back(start_client(sh, next_seed++, foreign.tid));
    long kills = 0;
    const double t0 = now_s();
    while (now_s() - t0 < seconds) {
        usleep(20000 + rand_r(&seed) % 180000);  // 20 to 200 ms between kills
        int victim = (int)(rand_r(&seed) % kClients);
        kill(clients[victim], SIGKILL);
        waitpid(clients[victim], nullptr, 0);
        kills++;
        clients[victim] = start_client(sh, next_seed++, foreign.tid);
    }
    sh->stop.store(1);
    const double elapsed = now_s() - t0;
    int stragglers = 0;
    const double end_by = now_s() + 10;
    for (pid_t pid : clients) {
        int status = 0;
        while (waitpid(pid, &status, WNOHANG) == 0) {
            if (now_s() > end_by) {
                kill(pid, SIGKILL);
                waitpid(pid, &status, 0);
                stragglers++;
                break;
            }
            usleep(1000);
        }
    }

    // One reaping admission per domain, then the invariants.
    bool ok = true;
    for (const char *domain : {kRr, kDl}) {
        pid_t ftid = domain == kRr ? foreign.tid : -1;  // it only ever enters the RR domain
        ChildResult r =
            run_child([domain, ftid] { return admit_remove_and_check(domain, ftid, false); });
        if (!r.describe().empty()) {
            ok = false;
            printf("hardening_stress: %s broken after the run:\n%s\n", domain,
                   r.describe().c_str());
        }
    }
    printf(
        "[ stress ] %.1f s, %d clients x %d threads: %ld calls (%.0f calls/s), %ld admissions, "
        "%ld refused over budget, %ld other non-zero codes (last %d), %ld clients killed, %d did "
        "not end when asked; invariants %s\n",
        elapsed, kClients, kThreadsPerClient, sh->calls.load(), sh->calls.load() / elapsed,
        sh->admitted.load(), sh->refused_budget.load(), sh->unexpected.load(),
        sh->last_unexpected.load(), kills, stragglers, ok ? "hold" : "BROKEN");
    stop_foreign(foreign);
    rebuild_sched_domains();  // nothing booked by this run stays behind for the next tests
    if (stragglers != 0) ok = false;
    return ok ? 0 : 1;
}
