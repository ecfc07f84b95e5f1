// Helpers of the thread suite: configurations with RR and deadline domains, a started library,
// views of the domain segment for bookkeeping checks (the sched-domain rebuild is in the shared
// test support).
#ifndef QXRT_THREADS_SUPPORT_H
#define QXRT_THREADS_SUPPORT_H

#include <stdint.h>
#include <sys/types.h>

#include <initializer_list>
#include <string>
#include <vector>

#include "test_support.h"

namespace qxt {

// The suite's round-robin and deadline domains (each test file configures its own classes).
constexpr char kRr[] = "Domain_Rr", kDl[] = "Domain_Dl";
// The thread operations, as their messages name them.
constexpr char kAdd[] = "QX_REALTIME_AddThread";
constexpr char kLite[] = "QX_REALTIME_AddThread_Lite";
constexpr char kRemove[] = "QX_REALTIME_RemoveThread";
constexpr char kUpdate[] = "QX_REALTIME_UpdateThreadUtil";

// Capacity units of one busy core in every configuration of this suite; the budget of all
// domains is 2 CPUs x 1000 x 100 % = 2000.
constexpr int kCapPerCore = 1000;

// The deadline domain kDl on CPU 1 with one class, Class_Isp: 2 ms every 10 ms, deadline 8 ms.
std::string dl_isp_domain();

// Installs a configuration with the given domain objects (joined by commas), initialises the
// library at debug level 64 (so info and debug messages reach the log) and creates the domains.
// Fails the current test (fatally for the caller: check HasFatalFailure) when any step fails.
void start(const std::vector<std::string> &domain_objects,
           std::initializer_list<const char *> create);

// The whole domain segment, for byte-for-byte "nothing changed" checks.
std::vector<uint8_t> segment_bytes(const std::string &domain);
std::vector<uint8_t> central_bytes();

// Thread slot i of a mapped domain segment.
QX_REALTIME_THREAD_t *slot(QX_REALTIME_DOMAIN_t *pstDomain, int i);
// The in-use slot of a thread id, or nullptr.
QX_REALTIME_THREAD_t *live_slot(QX_REALTIME_DOMAIN_t *pstDomain, pid_t tid);
int live_slot_count(QX_REALTIME_DOMAIN_t *pstDomain);
// Sum of Util over the in-use slots.
int live_util_sum(QX_REALTIME_DOMAIN_t *pstDomain);
// The in-use record of tid holds this share and reservation; *rec (when asked) is the record.
void expect_record(QX_REALTIME_DOMAIN_t *pstDomain, pid_t tid, int util, int runtime_us,
                   int deadline_us, int period_us, QX_REALTIME_THREAD_t **rec = nullptr);
// The class record of a name, or nullptr.
QX_REALTIME_CLASS_t *class_record(QX_REALTIME_DOMAIN_t *pstDomain, const std::string &name);
// The policy saved in a slot's stSavedAttr.
uint32_t saved_policy(const QX_REALTIME_THREAD_t *pstThread);

// Sets a thread's scheduling through the kernel directly (the state it has before admission).
bool set_other_nice(pid_t tid, int nice);
bool set_rr(pid_t tid, int priority);
bool set_deadline(pid_t tid, uint64_t runtime_ns, uint64_t deadline_ns, uint64_t period_ns);

// The error that closes a refused admission of tid into cls with the given result code.
std::string add_failed(pid_t tid, const char *cls, unsigned code);
// The error of an operation given a null pointer.
std::string arg_is_null(const char *op);

// The error of the liveness check for a process that is gone.
std::string process_gone(pid_t pid);
// The kernel runs tid under policy, in the cpuset group (as /proc shows it, e.g. "/Domain_Rr").
void expect_placed(pid_t tid, uint32_t policy, const std::string &cpuset_group);

// Number of captured lines at the error priority.
int error_count(const qxt::LogCapture &log);

// A client process admits its thread to cls of domain (units each) and is killed; the next
// admission, of a thread of this process, reaps it: its units go back, one live record stays
// (removed again at the end).
void expect_dead_client_reaped(const char *domain, const char *cls, int32_t units,
                               const qxt::LogCapture &log);

// An admission to a domain whose record names another file in its path field `field` (written
// by something else) is refused in a new client: RT_ERR_NULL and "is corrupted (FIELD)".
void expect_admission_refused_for_field(const char *domain, const char *cls, const char *field);

}  // namespace qxt

#endif
