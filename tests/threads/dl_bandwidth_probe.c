/*
 * dl_bandwidth_probe: does switching a sleeping SCHED_DEADLINE thread back to SCHED_OTHER give
 * its bandwidth back to the kernel at once? Not part of the test suite (it disturbs every
 * deadline user of the machine while it runs); build and run it by hand, as root:
 *
 *   cc -O2 -pthread -o /tmp/dl_bandwidth_probe tests/threads/dl_bandwidth_probe.c
 *   /tmp/dl_bandwidth_probe [direct|stepped] [cycles]
 *
 * Each cycle gives a sleeping thread runtime 20 ms / period 100 ms (a fifth of a CPU, so that
 * about ten leaked reservations fill a 2-CPU machine) and then takes it back to SCHED_OTHER,
 * either directly ("direct") or through a minimal reservation first ("stepped"). A cycle whose
 * sched_setattr to DEADLINE fails with EBUSY shows that the bandwidth of the earlier cycles is
 * still held. If debugfs is mounted, the root domain's total_bw is printed after every cycle.
 * At the end the sched domains are rebuilt (a child cpuset created with cpus set, then removed),
 * which drops whatever reservation leaked, so the machine is left as it was found.
 */
#define _GNU_SOURCE
#include <errno.h>
#include <pthread.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

struct attr {
    uint32_t size, policy;
    uint64_t flags;
    int32_t nice;
    uint32_t priority;
    uint64_t runtime, deadline, period;
    uint32_t util_min, util_max;
};

static int set_attr(pid_t tid, uint32_t policy, uint64_t flags, uint64_t runtime, uint64_t deadline,
                    uint64_t period) {
    struct attr a;
    memset(&a, 0, sizeof(a));
    a.size = sizeof(a);
    a.policy = policy;
    a.flags = flags;
    a.runtime = runtime;
    a.deadline = deadline;
    a.period = period;
    return (int)syscall(SYS_sched_setattr, tid, &a, 0);
}

static volatile pid_t sleeper_tid;
static volatile int stop_sleeper;

static void *sleeper(void *arg) {
    (void)arg;
    sleeper_tid = (pid_t)syscall(SYS_gettid);
    while (!stop_sleeper) usleep(1000); /* the way a typical client thread waits for work */
    return NULL;
}

/* The root domain's total_bw from debugfs, or -1 when it is not readable. */
static long total_bw(void) {
    FILE *f = fopen("/sys/kernel/debug/sched/debug", "r");
    if (f == NULL) return -1;
    char line[256];
    long value = -1;
    while (fgets(line, sizeof(line), f) != NULL) {
        char *p = strstr(line, ".dl_bw->total_bw");
        if (p != NULL && (p = strchr(p, ':')) != NULL) {
            value = atol(p + 1);
            break;
        }
    }
    fclose(f);
    return value;
}

static int write_text(const char *path, const char *text) {
    FILE *f = fopen(path, "w");
    if (f == NULL) return -1;
    fputs(text, f);
    return fclose(f);
}

/* Rebuilds the sched domains: drops every reservation that no deadline task holds. */
static void rebuild_sched_domains(void) {
    char dir[128], file[160];
    snprintf(dir, sizeof(dir), "/sys/fs/cgroup/cpuset/dl_probe_rebuild_%d", (int)getpid());
    if (mkdir(dir, 0755) != 0) {
        perror("mkdir");
        return;
    }
    char cpus[64] = "";
    FILE *f = fopen("/sys/fs/cgroup/cpuset/cpuset.cpus", "r");
    if (f != NULL) {
        if (fgets(cpus, sizeof(cpus), f) == NULL) cpus[0] = '\0';
        fclose(f);
    }
    snprintf(file, sizeof(file), "%s/cpuset.cpus", dir);
    if (write_text(file, cpus) != 0) perror("cpuset.cpus");
    snprintf(file, sizeof(file), "%s/cpuset.mems", dir);
    if (write_text(file, "0") != 0) perror("cpuset.mems");
    if (rmdir(dir) != 0) perror("rmdir");
}

int main(int argc, char **argv) {
    int stepped = argc > 1 && strcmp(argv[1], "stepped") == 0;
    int cycles = argc > 2 ? atoi(argv[2]) : 30;
    const uint64_t runtime = 20000000, period = 100000000; /* 20 ms / 100 ms */

    pthread_t th;
    pthread_create(&th, NULL, sleeper, NULL);
    while (sleeper_tid == 0) usleep(100);

    printf("mode=%s cycles=%d runtime=20ms period=100ms baseline total_bw=%ld\n",
           stepped ? "stepped" : "direct", cycles, total_bw());
    int first_busy = 0, busy = 0;
    for (int i = 1; i <= cycles; i++) {
        usleep(2000); /* let the sleeper block again */
        if (set_attr(sleeper_tid, 6, 0x02, runtime, period, period) != 0) {
            printf("cycle %2d: DEADLINE refused, errno=%s total_bw=%ld\n", i, strerror(errno),
                   total_bw());
            if (errno == EBUSY && first_busy == 0) first_busy = i;
            if (++busy >= 3) break;
            continue;
        }
        usleep(2000); /* the sleeper wakes, runs a little and sleeps again as a deadline task */
        if (stepped && set_attr(sleeper_tid, 6, 0, 1024, 4000000000ull, 4000000000ull) != 0)
            printf("cycle %2d: minimal reservation refused, errno=%s\n", i, strerror(errno));
        if (set_attr(sleeper_tid, 0, 0, 0, 0, 0) != 0)
            printf("cycle %2d: back to SCHED_OTHER failed, errno=%s\n", i, strerror(errno));
        printf("cycle %2d: ok, total_bw=%ld\n", i, total_bw());
    }
    printf("result: mode=%s first EBUSY at cycle %d, %d refusals, total_bw=%ld\n",
           stepped ? "stepped" : "direct", first_busy, busy, total_bw());
    stop_sleeper = 1;
    pthread_join(th, NULL);
    rebuild_sched_domains();
    printf("after rebuild: total_bw=%ld\n", total_bw());
    return first_busy != 0;
}
