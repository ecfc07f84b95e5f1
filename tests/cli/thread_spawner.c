/* A program for rtctl run's tests: reports its main thread's scheduling and CPUs, waits, creates
 * threads that hold for a while and report their policy, and exits with the status it is given.
 *
 *   thread_spawner THREADS DELAY_MS HOLD_MS STATUS
 *
 * Lines on stdout: "main POLICY CPUS", then per thread "thread POLICY" (after its hold) or
 * "create failed ERRNO", then "threads N": how many threads the process had with all of them
 * running (a sanitizer's runtime may add its own). */
#define _GNU_SOURCE
#include <errno.h>
#include <pthread.h>
#include <sched.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <dirent.h>
#include <time.h>

static int hold_ms;

/* In the sanitizer build this program is instrumented too. Its leak check at exit stops the world
 * with a thread of its own, which a deadline thread can't create (the kernel's EAGAIN): off. */
__attribute__((visibility("default"), used)) int __lsan_is_turned_off(void);
int __lsan_is_turned_off(void) {
    return 1;
}

static void sleep_ms(int ms) {
    struct timespec ts = {ms / 1000, (long)(ms % 1000) * 1000000L};
    while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
    }
}

static void print_cpus(void) {
    FILE *f = fopen("/proc/self/status", "re");
    char line[256];
    while (f != NULL && fgets(line, sizeof(line), f) != NULL)
        if (strncmp(line, "Cpus_allowed_list:", 18) == 0) printf("%s", line + 19);
    if (f != NULL) fclose(f);
}

static int thread_count(void) {
    DIR *dir = opendir("/proc/self/task");
    int n = 0;
    for (struct dirent *e = dir != NULL ? readdir(dir) : NULL; e != NULL; e = readdir(dir))
        if (e->d_name[0] != '.') n++;
    if (dir != NULL) closedir(dir);
    return n;
}

static void *worker(void *arg) {
    (void)arg;
    sleep_ms(hold_ms);
    printf("thread %d\n", sched_getscheduler(0));
    fflush(stdout);
    return NULL;
}

int main(int argc, char **argv) {
    if (argc != 5) {
        fprintf(stderr, "usage: thread_spawner THREADS DELAY_MS HOLD_MS STATUS\n");
        return 2;
    }
    int threads = atoi(argv[1]), delay_ms = atoi(argv[2]), status = atoi(argv[4]);
    hold_ms = atoi(argv[3]);
    printf("main %d ", sched_getscheduler(0));
    print_cpus();
    fflush(stdout);
    sleep_ms(delay_ms);
    pthread_t ids[16];
    int made = 0;
    for (int i = 0; i < threads && i < 16; i++) {
        int err = pthread_create(&ids[made], NULL, worker, NULL);
        if (err != 0) {
            printf("create failed %d\n", err);
            fflush(stdout);
        } else {
            made++;
        }
    }
    int peak = thread_count();
    for (int i = 0; i < made; i++) pthread_join(ids[i], NULL);
    printf("threads %d\n", peak);
    return status;
}
