// Helpers of the hardening suites: a fixed configuration with a round-robin and a deadline
// domain, a state reset that every case can repeat, sleeping threads and foreign processes, a
// bounds-checked reader of domain segments and the invariants that must hold after any failure.
//
// The test process itself never calls the library: every call runs in a forked child, so no
// mapping, lock or top object of one case leaks into the next, and a crash is seen as the
// child's signal, never as the end of the test.
#ifndef QXRT_HARDENING_SUPPORT_H
#define QXRT_HARDENING_SUPPORT_H

#include <stdint.h>
#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

#include "test_support.h"

// Whether a sanitizer is in the build: gcc defines a macro, clang answers __has_feature.
#if defined(__has_feature)
#define QXT_HAS_FEATURE(feature) __has_feature(feature)
#else
#define QXT_HAS_FEATURE(feature) 0
#endif

namespace qxt {

// Sanitizer builds fork a large process image, many times more slowly: the long loops of the
// corrupted-file suite run a share of their cases there, so that every case stays in its time.
#if defined(__SANITIZE_ADDRESS__) || QXT_HAS_FEATURE(address_sanitizer)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

// ThreadSanitizer builds: the memory-safety suites (corrupted files, hostile arguments) fork the
// instrumented image hundreds of times, which there takes longer than a case may run; they run
// in the plain and the ASan/UBSan builds, and ThreadSanitizer is for races.
#if defined(__SANITIZE_THREAD__) || QXT_HAS_FEATURE(thread_sanitizer)
constexpr bool kThreadSanitized = true;
#else
constexpr bool kThreadSanitized = false;
#endif
#define QXT_SKIP_UNDER_TSAN()                                                               \
    do {                                                                                    \
        if (qxt::kThreadSanitized)                                                          \
            GTEST_SKIP() << "memory-safety suite, run in the plain and ASan/UBSan builds: " \
                            "under ThreadSanitizer its hundreds of forks outlast the case"; \
    } while (0)

// Domains of the suite's configuration. Rr and Dl exist after reset(); New and NewDl are in the
// configuration but left for the creation cases.
extern const char kRr[];     // round-robin, CPU 0, Class_R (Util 100, priority 10)
extern const char kDl[];     // deadline, CPU 1, Class_D (1000 us every 100000 us: 10 units)
extern const char kNew[];    // round-robin, CPU 0, Class_N (Util 50, priority 12)
extern const char kNewDl[];  // deadline, CPU 1, Class_ND (1000 us every 100000 us)
extern const char kRrClass[];
extern const char kDlClass[];
extern const char kNewClass[];
extern const char kNewDlClass[];

// The class of a domain of the configuration ("" for an unknown one).
std::string class_of(const std::string &domain);
bool is_dl(const std::string &domain);

// The configuration text; dbg_level is the configured 0..7 level.
std::string config_text(int dbg_level);
// Writes the configuration and points the property at it.
void install(int dbg_level);

// Removes every entry under /dev/shm/realtime and /data/vendor/realtime (whatever its type).
void wipe_files();
// Removes the control groups of a domain (when no task is left in them).
void remove_groups(const std::string &domain);
// wipe_files(), then a child runs Init(0) and creates the given domains. "" on success, else
// what failed.
std::string reset(const std::vector<std::string> &create);

// A thread of the calling process that blocks in read() until the process ends: it never
// becomes runnable, as a client thread waiting for work. Returns its tid.
pid_t start_sleeper();

// A live process of its own, started by the test, with one sleeping thread.
struct Foreign {
    pid_t pid = -1;
    pid_t tid = -1;
};
Foreign start_foreign();
void stop_foreign(Foreign &f);  // SIGKILL, then reap_killed

// Waits until a killed child is gone and reaped (its wait status in *status when asked). A thread
// of it left in the library's minimal deadline reservation (1024 ns every 4 s: its caller was
// killed between the two steps by which a thread leaves SCHED_DEADLINE) gets about a
// microsecond of CPU every 4 s, and its exit can take hours while it holds kernel locks other
// processes wait on. Such threads are switched to SCHED_OTHER after a 2 s grace, so that the
// process can end; returns how many were (a known hazard of the two-step exit, counted by the
// kill-point suite rather than left to stall the machine).
int reap_killed(pid_t pid, int *status);

// Runs fn in a forked child; fn writes what it found wrong into its string ("" = fine).
// The result says how the child ended too: a child that died by a signal or exited with an
// unexpected status is reported as such.
struct ChildResult {
    bool normal_exit = false;  // exited (not killed by a signal)
    int exit_code = -1;
    int signal = 0;
    std::string text;  // what fn reported
    std::string describe() const;
};
ChildResult run_child(const std::function<std::string()> &fn, int timeout_s = 30);

// A domain segment read from its file, every field bounds-checked as the library must do it.
struct Segment {
    bool ok = false;  // the file exists, is a regular file and holds 16384 bytes
    std::string why;  // when not ok
    std::vector<uint8_t> bytes;
    QX_REALTIME_DOMAIN_t head{};
    struct Slot {
        int index;
        QX_REALTIME_THREAD_t rec;
    };
    std::vector<Slot> slots;  // every slot that lies inside the segment, in use or not
};
Segment read_segment(const std::string &domain);

// The invariants after a failure, checked in the calling process (which must be alive, and must
// be a process that has just made an admission into the domain so that dead clients are reaped):
// (a) s32UtilCurrent equals the (wrapping) sum of Util over the in-use slots;
// (b) the process-ID list names no dead process;
// (c) when foreign_tid > 0: that thread is SCHED_OTHER in the root groups, unless an in-use slot
//     names it.
// Returns "" when all hold, else one line per broken invariant.
std::string check_invariants(const std::string &domain, pid_t foreign_tid);

// One admission and removal of a sleeping thread of the calling process into the domain, then
// check_invariants. Runs in the calling process (call it in a fresh child). When
// with_init_and_create is set, QX_REALTIME_Init(0) and QX_REALTIME_CreateDomain(domain) come
// first and must return 0.
std::string admit_remove_and_check(const std::string &domain, pid_t foreign_tid,
                                   bool with_init_and_create);

// Whether the process is gone (no such process; zombies count as alive).
bool process_dead(pid_t pid);

// Names of the entries of a directory, sorted ("" entries never).
// Both library directories, each entry prefixed with its directory.
std::vector<std::string> library_files();

// Rebuilds the kernel's sched domains: drops deadline bandwidth that no task holds any more.

// A short text for a syscall number (its name for the usual ones).
std::string syscall_name(long nr);

// Monotonic seconds.
double now_s();

}  // namespace qxt

#endif
