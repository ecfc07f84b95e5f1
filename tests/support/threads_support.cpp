#include "threads_support.h"

#include <errno.h>
#include <fcntl.h>
#include <sched.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace qxt {

std::string dl_isp_domain() {
    return dl_domain(kDl, 1000, "1", {{"Class_Isp", 2000, 8000, 10000}});
}

void start(const std::vector<std::string> &domain_objects,
           std::initializer_list<const char *> create) {
    std::string domains = qxt::join_domains(domain_objects);
    // DbgLevel 4: errors, info and debug messages all reach the log.
    qxt::install_config("threads", qxt::config_with(1, kCapPerCore, 4, 100, 2, domains));
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_Init(0));
    for (const char *name : create) ASSERT_EQ(RT_SUCCESS, QX_REALTIME_CreateDomain(name)) << name;
}

static std::vector<uint8_t> file_bytes(const std::string &path) {
    std::string text = qxt::read_file(path);
    return std::vector<uint8_t>(text.begin(), text.end());
}

std::vector<uint8_t> segment_bytes(const std::string &domain) {
    return file_bytes(RT_SHM_PREFIX + domain);
}

std::vector<uint8_t> central_bytes() {
    return file_bytes(RT_SHM_PREFIX "Global");
}

QX_REALTIME_THREAD_t *slot(QX_REALTIME_DOMAIN_t *pstDomain, int i) {
    return (QX_REALTIME_THREAD_t *)((char *)pstDomain + pstDomain->s32ThreadStartOffset +
                                    RT_THREAD_SIZE * i);
}

QX_REALTIME_THREAD_t *live_slot(QX_REALTIME_DOMAIN_t *pstDomain, pid_t tid) {
    for (int i = 0; i < pstDomain->s32ThreadNum; i++)
        if (slot(pstDomain, i)->Alive != 0 && slot(pstDomain, i)->Pid == tid)
            return slot(pstDomain, i);
    return nullptr;
}

int live_slot_count(QX_REALTIME_DOMAIN_t *pstDomain) {
    int n = 0;
    for (int i = 0; i < pstDomain->s32ThreadNum; i++) n += slot(pstDomain, i)->Alive != 0;
    return n;
}

int live_util_sum(QX_REALTIME_DOMAIN_t *pstDomain) {
    int sum = 0;
    for (int i = 0; i < pstDomain->s32ThreadNum; i++)
        if (slot(pstDomain, i)->Alive != 0) sum += slot(pstDomain, i)->Util;
    return sum;
}

void expect_record(QX_REALTIME_DOMAIN_t *pstDomain, pid_t tid, int util, int runtime_us,
                   int deadline_us, int period_us, QX_REALTIME_THREAD_t **rec) {
    QX_REALTIME_THREAD_t *found = live_slot(pstDomain, tid);
    if (rec != nullptr) *rec = found;
    ASSERT_NE(nullptr, found) << "no record of " << tid;
    EXPECT_EQ(util, found->Util);
    EXPECT_EQ(runtime_us, found->RuntimeUs);
    EXPECT_EQ(deadline_us, found->DeadlineUs);
    EXPECT_EQ(period_us, found->PeriodUs);
}

QX_REALTIME_CLASS_t *class_record(QX_REALTIME_DOMAIN_t *pstDomain, const std::string &name) {
    for (int i = 0; i < pstDomain->s32ClassNum; i++) {
        auto *pstClass =
            (QX_REALTIME_CLASS_t *)((char *)pstDomain + pstDomain->s32ClassStartOffset +
                                    RT_CLASS_SIZE * i);
        if (name == pstClass->szClassName) return pstClass;
    }
    return nullptr;
}

uint32_t saved_policy(const QX_REALTIME_THREAD_t *pstThread) {
    struct qx_sched_attr attr;
    memcpy(&attr, pstThread->stSavedAttr, sizeof(attr));
    return attr.sched_policy;
}

static bool set_attr(pid_t tid, uint32_t policy, uint32_t priority, uint64_t runtime_ns = 0,
                     uint64_t deadline_ns = 0, uint64_t period_ns = 0) {
    // size, policy, flags, nice, priority, runtime, deadline, period (utilisation clamps unused)
    struct qx_sched_attr attr = {sizeof(attr), policy,      0,         0, priority,
                                 runtime_ns,   deadline_ns, period_ns, 0, 0};
    return syscall(SYS_sched_setattr, tid, &attr, 0) == 0;
}

bool set_other_nice(pid_t tid, int nice) {
    return set_attr(tid, SCHED_OTHER, 0) && setpriority(PRIO_PROCESS, (id_t)tid, nice) == 0;
}

bool set_rr(pid_t tid, int priority) {
    return set_attr(tid, SCHED_RR, (uint32_t)priority);
}

bool set_deadline(pid_t tid, uint64_t runtime_ns, uint64_t deadline_ns, uint64_t period_ns) {
    return set_attr(tid, SCHED_DEADLINE, 0, runtime_ns, deadline_ns, period_ns);
}

std::string add_failed(pid_t tid, const char *cls, unsigned code) {
    return format(
        "[RT_Impl][Err] [QX_REALTIME_AddThread] Add pid = [%d] to Thread at Class = [%s] "
        "failed. ret is %u\n",
        (int)tid, cls, code);
}

std::string arg_is_null(const char *op) {
    return format("[RT_Impl][Err] [%s] Arg is NULL.\n", op);
}

std::string process_gone(pid_t pid) {
    return format(
        "[RT_Impl][Err] [_QX_REALTIME_CheckProcessAlive] Process %d doesn't exist. "
        "errnor=%s\n",
        (int)pid, errno_text(ESRCH).c_str());
}

void expect_placed(pid_t tid, uint32_t policy, const std::string &cpuset_group) {
    EXPECT_EQ(policy, sched_of(tid).policy) << "thread " << tid;
    EXPECT_EQ(cpuset_group, cgroup_of(tid, "cpuset")) << "thread " << tid;
}

int error_count(const qxt::LogCapture &log) {
    int n = 0;
    for (const qxt::LogLine &line : log.lines()) n += line.priority == QX_LOG_PRIO_ERROR;
    return n;
}

void expect_dead_client_reaped(const char *domain, const char *cls, int32_t units,
                               const qxt::LogCapture &log) {
    int ready[2];
    ASSERT_EQ(0, pipe(ready));
    pid_t client = qxt::spawn_child([&] {
        char rc = (char)QX_REALTIME_AddThread(domain, cls, (int32_t)qx_gettid(), 0);
        (void)!write(ready[1], &rc, 1);
    });
    char rc = -1;
    ASSERT_EQ(1, read(ready[0], &rc, 1));
    close(ready[0]);
    close(ready[1]);
    ASSERT_EQ(0, rc);
    QX_REALTIME_DOMAIN_t *d = qxt::map_domain_file(domain);
    ASSERT_NE(nullptr, d);
    EXPECT_EQ(units, d->s32UtilCurrent);
    qxt::kill_and_reap(client);

    qxt::TestThread t;
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_AddThread(domain, cls, t.tid(), 0)) << log.dump();
    EXPECT_EQ(units, d->s32UtilCurrent);  // the dead client's units went back, ours came in
    EXPECT_EQ(1, live_slot_count(d));
    EXPECT_EQ(RT_SUCCESS, QX_REALTIME_RemoveThread(domain, t.tid()));
}

void expect_admission_refused_for_field(const char *domain, const char *cls, const char *field) {
    ASSERT_EQ(0, qxt::run_in_child([&] {
                  qxt::LogCapture child_log;
                  qxt::TestThread t;
                  uint32_t rc = QX_REALTIME_AddThread(domain, cls, t.tid(), 0);
                  bool refused = child_log.has_error(qxt::format(
                      "[RT_Impl][Err] [_QX_REALTIME_GetDomainFromName] Domain [%s] is corrupted "
                      "(%s): refused.\n",
                      domain, field));
                  return rc == RT_ERR_NULL && refused ? 0 : 1;
              }));
}

}  // namespace qxt
