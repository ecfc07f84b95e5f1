// Threads: scheduling attributes, admission, removal, utilisation update, the
// reaping of dead clients, and the reserved memory high-priority calls.
#include <dirent.h>
#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/sysinfo.h>

#include "qx_realtime_internal.h"

#define RT_SCHED_RR 2u
#define RT_SCHED_DEADLINE 6u
#define RT_SCHED_FLAG_RECLAIM 0x02ull
#define RT_SCHED_FLAG_DL_OVERRUN 0x04ull

// ---- scheduling attributes and cgroup files ----

// Microseconds to the kernel's nanoseconds: a signed 32-bit product, then sign-extended. A value
// above 2147483 us wraps before it reaches the kernel; kept on purpose.
static uint64_t qx_us_to_ns(int32_t s32Us) {
    int32_t s32Ns = (int32_t)((uint32_t)s32Us * 1000u);
    return (uint64_t)(int64_t)s32Ns;
}

uint32_t _QX_REALTIME_SetSchedAttr(QX_REALTIME_DOMAIN_t *pstDomain, QX_REALTIME_CLASS_t *pstClass,
                                   const QX_REALTIME_UTIL_t *pstUtil, int32_t s32Tid,
                                   uint8_t bDlOverrun, uint8_t u8ClassOptions) {
    struct qx_sched_attr stAttr;
    if (pstDomain == NULL) {
        RT_LOGE("[RT_Impl][Err] [%s] Arg is NULL.\n", __func__);
        return RT_ERR_INVALID_PARAM;
    }
    memset(&stAttr, 0, sizeof(stAttr));
    stAttr.size = QX_SCHED_ATTR_SIZE;
    if (pstDomain->u32SchedType == RT_SCHED_TYPE_DEADLINE) {
        if (pstUtil == NULL) {
            RT_LOGE("[RT_Impl][Err] [%s] Arg is NULL.\n", __func__);
            return RT_ERR_INVALID_PARAM;
        }
        stAttr.sched_policy = RT_SCHED_DEADLINE;
        // A class that holds its reservation does without reclaiming: its threads get their
        // runtime per period and no more, however idle the CPU is otherwise.
        uint64_t u64Reclaim =
            (u8ClassOptions & RT_CLASS_OPT_NO_RECLAIM) != 0 ? 0 : RT_SCHED_FLAG_RECLAIM;
        stAttr.sched_flags = bDlOverrun ? (u64Reclaim | RT_SCHED_FLAG_DL_OVERRUN) : u64Reclaim;
        stAttr.sched_runtime = qx_us_to_ns(pstUtil->DlRuntimeUs);
        stAttr.sched_deadline = qx_us_to_ns(pstUtil->DlDeadlineUs);
        stAttr.sched_period = qx_us_to_ns(pstUtil->DlPeriodUs);
    } else if (pstDomain->u32SchedType == RT_SCHED_TYPE_RR) {
        if (pstClass == NULL) {
            RT_LOGE("[RT_Impl][Err] [%s] Arg is NULL.\n", __func__);
            return RT_ERR_INVALID_PARAM;
        }
        int32_t s32Prio = pstClass->s32RtPriority;
        if ((uint32_t)s32Prio - 1u >= 99u) {
            RT_LOGE(
                "[RT_Impl][Err] [%s]: Rt priority = [%d] is invalid. It should between 1 to 99.\n",
                __func__, s32Prio);
            return RT_ERR_INVALID_PARAM;
        }
        stAttr.sched_policy = RT_SCHED_RR;
        stAttr.sched_priority = (uint32_t)s32Prio;
    } else {
        // Lenient on purpose: the thread goes back to normal scheduling.
        RT_LOGE("[RT_Impl][Err] [%s] invalid scheduler type. It should be RR or Deadline.\n",
                __func__);
    }
    if (qx_sched_setattr(s32Tid, &stAttr, 0) == -1) {
        RT_LOGE(
            "[RT_Impl][Err] [%s] _QX_REALTMIE_SchedSetAttr failed to set the sched for pid=%d, "
            "policy=%u, priority=%u, runtime=%llu, deadline=%llu, period=%llu, errno=%s\n",
            __func__, s32Tid, stAttr.sched_policy, stAttr.sched_priority,
            (unsigned long long)stAttr.sched_runtime, (unsigned long long)stAttr.sched_deadline,
            (unsigned long long)stAttr.sched_period, RT_ERRNO_STR);
        return RT_ERR_SCHED_SETATTR;
    }
    return RT_SUCCESS;
}

// ---- thread records ----

// The first in-use slot of the thread; NULL when it is not recorded.
static QX_REALTIME_THREAD_t *qx_find_thread(QX_REALTIME_DOMAIN_t *pstDomain, int32_t s32Tid) {
    int32_t s32Num = qx_domain_thread_num(pstDomain);
    for (int32_t i = 0; i < s32Num; i++) {
        QX_REALTIME_THREAD_t *pstThread = qx_domain_thread(pstDomain, i);
        if (pstThread->Alive != 0 && pstThread->Pid == s32Tid) return pstThread;
    }
    return NULL;
}

uint32_t _QX_GetThreadByPid(QX_REALTIME_DOMAIN_t *pstDomain, QX_REALTIME_CLASS_t *pstClass,
                            int32_t s32Tid, QX_REALTIME_THREAD_t **ppstThread) {
    (void)pstClass;  // a thread id is looked up across the whole domain
    if (pstDomain == NULL) {
        RT_LOGE("[RT_Impl][Err] [%s] pstDomain is NULL.\n", __func__);
        return RT_ERR_NULL;
    }
    QX_REALTIME_THREAD_t *pstThread = qx_find_thread(pstDomain, s32Tid);
    if (pstThread == NULL) return RT_ERR_NOT_EXIST;
    if (ppstThread != NULL) *ppstThread = pstThread;
    return RT_SUCCESS;
}

// ---- thread identities ----

// A domain's identity entries for one operation under its lock: the file is opened and read at
// the first question, and closed at the end of the scope. Without a file (a domain made by an
// older build, or one that can't be opened) every record's identity is unknown.
class qx_identities {
public:
    explicit qx_identities(const QX_REALTIME_DOMAIN_t *pstDomain, int s32How)
        : pstDomain_(pstDomain), s32How_(s32How) {}
    qx_identities(const qx_identities &) = delete;
    qx_identities &operator=(const qx_identities &) = delete;
    // The identity kept for in-use slot s32Slot, or NULL when it is unknown.
    const QX_REALTIME_IDENTITY_t *of(int32_t s32Slot, const QX_REALTIME_THREAD_t *pstThread) {
        if (s32Slot < 0 || s32Slot >= RT_IDENTITY_SLOTS || !load()) return NULL;
        return qx_identity_of(pstThread, &astEntries_[s32Slot]);
    }
    void set(int32_t s32Slot, const QX_REALTIME_IDENTITY_t *pstEntry) {
        if (s32Slot < 0 || s32Slot >= RT_IDENTITY_SLOTS || !load()) return;
        if (qx_identity_write(stFd_.get(), s32Slot, pstEntry) == 0)
            astEntries_[s32Slot] = *pstEntry;
    }
    // Before the slot is freed; a slot whose entry is already unknown costs no write.
    void clear(int32_t s32Slot) {
        if (s32Slot < 0 || s32Slot >= RT_IDENTITY_SLOTS || !load()) return;
        static const QX_REALTIME_IDENTITY_t stNone = {0, 0, 0, 0};
        if (memcmp(&astEntries_[s32Slot], &stNone, sizeof(stNone)) == 0) return;
        if (qx_identity_write(stFd_.get(), s32Slot, &stNone) == 0) astEntries_[s32Slot] = stNone;
    }
    qx_start_cache_t *starts() { return &stStarts_; }
    // The options of the class with this index, read with the entries; 0 (the defaults) when the
    // file does not hold them.
    uint8_t class_options(int32_t s32ClassIdx) {
        if (s32ClassIdx < 0 || s32ClassIdx >= RT_CLASS_OPTIONS_NUM || !load()) return 0;
        return au8Options_[s32ClassIdx];
    }

private:
    bool load() {
        if (!bTried_) {
            bTried_ = true;
            stFd_.reset(qx_identity_open(pstDomain_->szName, s32How_));
            bLoaded_ = stFd_.ok() && qx_identity_read(stFd_.get(), astEntries_, au8Options_) == 0;
        }
        return bLoaded_;
    }
    const QX_REALTIME_DOMAIN_t *pstDomain_;
    int s32How_;
    bool bTried_ = false;
    bool bLoaded_ = false;
    qx_fd stFd_;
    QX_REALTIME_IDENTITY_t astEntries_[RT_IDENTITY_SLOTS];
    uint8_t au8Options_[RT_CLASS_OPTIONS_NUM] = {};
    qx_start_cache_t stStarts_ = {};
};

// The slot number of a record of the domain.
static int32_t qx_slot_of(const QX_REALTIME_DOMAIN_t *pstDomain,
                          const QX_REALTIME_THREAD_t *pstThread) {
    return (int32_t)(((const char *)pstThread - (const char *)pstDomain -
                      pstDomain->s32ThreadStartOffset) /
                     RT_THREAD_SIZE);
}

// The first in-use record of the thread that still names it: a record whose ids now name another
// thread is not that thread's.
static QX_REALTIME_THREAD_t *qx_find_admitted(QX_REALTIME_DOMAIN_t *pstDomain, int32_t s32Tid,
                                              qx_identities *pstIds) {
    int32_t s32Num = qx_domain_thread_num(pstDomain);
    for (int32_t i = 0; i < s32Num; i++) {
        QX_REALTIME_THREAD_t *pstThread = qx_domain_thread(pstDomain, i);
        if (pstThread->Alive == 0 || pstThread->Pid != s32Tid) continue;
        // The thread's own start time decides: the one admitted, or (gone) no other one.
        const QX_REALTIME_IDENTITY_t *pstId = pstIds->of(i, pstThread);
        if (pstId == NULL) return pstThread;
        uint64_t u64Now = qx_start_time(pstIds->starts(), s32Tid);
        if (u64Now == 0 || u64Now == pstId->u64ThreadStart) return pstThread;
    }
    return NULL;
}

// ---- the thread's process ----

// What the process-id step found out about a thread, with the system calls done and the messages
// not yet given: admission asks before it changes anything and reports where the step stands.
enum {
    QX_OWNER_FOUND = 0,
    QX_OWNER_NO_PGID,
    QX_OWNER_NO_OPEN,
    QX_OWNER_NO_READ,
    QX_OWNER_NO_TGID,
    QX_OWNER_SILENT
};
typedef struct {
    int s32What;           // QX_OWNER_*
    int s32Errno;          // errno of the failed call
    int32_t s32ProcessID;  // the thread group, 0 for a pgid of 0, else as the caller had it
    char szPath[80];
} qx_owner_t;

static void qx_probe_owner(int32_t s32Tid, qx_owner_t *pstOwner) {
    pstOwner->s32What = QX_OWNER_FOUND;
    pstOwner->s32Errno = 0;
    pstOwner->szPath[0] = '\0';
    pid_t pgid = getpgid(s32Tid);
    if (pgid < 0) {
        pstOwner->s32What = QX_OWNER_NO_PGID;
        pstOwner->s32Errno = errno;
        return;
    }
    if (pgid == 0) {
        pstOwner->s32ProcessID = 0;
        return;
    }
    // The thread-group id from the first 79 bytes of /proc/<tid>/status.
    char szBuf[80];
    if (RT_FORMAT_PATH(pstOwner->szPath, "/proc/%d/status", s32Tid) < 0) {
        pstOwner->s32What = QX_OWNER_SILENT;
        return;
    }
    int fd = open(pstOwner->szPath, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        pstOwner->s32What = QX_OWNER_NO_OPEN;
        pstOwner->s32Errno = errno;
        return;
    }
    ssize_t n = read(fd, szBuf, sizeof(szBuf) - 1);
    pstOwner->s32Errno = errno;
    close(fd);
    if (n < 0) {
        pstOwner->s32What = QX_OWNER_NO_READ;
        return;
    }
    szBuf[n] = '\0';
    char *pszTgid = strstr(szBuf, "Tgid");
    if (pszTgid == NULL) {
        pstOwner->s32What = QX_OWNER_NO_TGID;
        return;
    }
    char szKey[11];
    int s32Tgid = 0;
    if (sscanf(pszTgid, "%10s %d", szKey, &s32Tgid) < 2) {
        pstOwner->s32What = QX_OWNER_SILENT;
        return;
    }
    pstOwner->s32ProcessID = s32Tgid;
}

// Gives the probe's message; RT_ERR_SYSTEM when the process could not be told and so must not be
// listed.
static uint32_t qx_report_owner(int32_t s32Tid, const qx_owner_t *pstOwner) {
    static const char kName[] = "_QX_REALTIME_getProcessID";
    errno = pstOwner->s32Errno;
    switch (pstOwner->s32What) {
    case QX_OWNER_NO_PGID:
        RT_LOGE("[RT_Impl][Err] [%s] Thread %d can't get its process ID. errnor=%s\n", kName,
                s32Tid, RT_ERRNO_STR);
        return RT_SUCCESS;  // listed as the caller had it
    case QX_OWNER_NO_OPEN:
        RT_LOGE("[RT_Impl][Err] [%s] Can't open %s, errno=%s\n", kName, pstOwner->szPath,
                RT_ERRNO_STR);
        return RT_ERR_SYSTEM;
    case QX_OWNER_NO_READ:
        RT_LOGE("[RT_Impl][Err] [%s] Can't read from %s, errno=%s.\n", kName, pstOwner->szPath,
                RT_ERRNO_STR);
        return RT_ERR_SYSTEM;
    case QX_OWNER_NO_TGID:
        RT_LOGE("[RT_Impl][Err] [%s] Can't get Tgid from %s\n", kName, pstOwner->szPath);
        return RT_ERR_SYSTEM;
    case QX_OWNER_SILENT:
        return RT_ERR_SYSTEM;
    default:
        return RT_SUCCESS;
    }
}

// Enters a process in the domain's process-ID list; the slot it wrote in *ps32Slot (-1 when it
// was there already). Stops at the first free slot: an id already present further on is entered
// again (kept). 0 when the list is full.
static int qx_list_owner(QX_REALTIME_DOMAIN_t *pstDomain, int32_t s32ProcessID, int32_t *ps32Slot) {
    *ps32Slot = -1;
    int32_t s32Num = qx_domain_pid_list_num(pstDomain);
    for (int32_t i = 0; i < s32Num; i++) {
        if (pstDomain->s32ProcessIDList[i] == 0) {
            pstDomain->s32ProcessIDList[i] = s32ProcessID;
            *ps32Slot = i;
            return 1;
        }
        if (pstDomain->s32ProcessIDList[i] == s32ProcessID) return 1;
    }
    return 0;
}

static void qx_report_list_full(const QX_REALTIME_DOMAIN_t *pstDomain) {
    RT_LOGE("[RT_Impl][Err] [%s] processIDListNum=%d. it is full !!!\n",
            "_QX_REALTIME_getProcessID", pstDomain->processIDListNum);
}

uint32_t _QX_REALTIME_getProcessID(QX_REALTIME_DOMAIN_t *pstDomain, int32_t s32Tid,
                                   int32_t *ps32ProcessID) {
    if (pstDomain == NULL || ps32ProcessID == NULL) {
        RT_LOGE("[RT_Impl][Err] [%s] Arg is NULL.\n", __func__);
        return RT_ERR_SYSTEM;
    }
    qx_owner_t stOwner;
    stOwner.s32ProcessID = *ps32ProcessID;
    qx_probe_owner(s32Tid, &stOwner);
    uint32_t u32Ret = qx_report_owner(s32Tid, &stOwner);
    if (u32Ret != RT_SUCCESS) return u32Ret;
    *ps32ProcessID = stOwner.s32ProcessID;
    int32_t s32Slot;
    if (qx_list_owner(pstDomain, *ps32ProcessID, &s32Slot)) return RT_SUCCESS;
    qx_report_list_full(pstDomain);
    return RT_ERR_SYSTEM;
}

// Frees the in-use records whose ids name another process or thread than the one admitted: the
// admitted thread has gone, and its id was given to a newcomer (which may never have used the
// library). Their utilisation goes back to the domain. A record of unknown identity is left to the
// process walk, as always.
static void qx_reap_reused(QX_REALTIME_DOMAIN_t *pstDomain, qx_identities *pstIds) {
    static const char kName[] = "_QX_REALTIME_CheckProcessAlive";
    int32_t s32Num = qx_domain_thread_num(pstDomain);
    for (int32_t i = 0; i < s32Num; i++) {
        QX_REALTIME_THREAD_t *pstThread = qx_domain_thread(pstDomain, i);
        if (pstThread->Alive == 0) continue;
        int s32What = qx_identity_check(pstThread, pstIds->of(i, pstThread), pstIds->starts());
        if (s32What == QX_IDENTITY_SAME) continue;
        RT_LOGE_AS(
            kName,
            "[RT_Impl][Err] [%s] Thread %d of process %d has gone and its %s id names another "
            "one now: its record is freed.\n",
            kName, pstThread->Pid, pstThread->ProcessID,
            s32What == QX_IDENTITY_OTHER_PROCESS ? "process" : "thread");
        pstDomain->s32UtilCurrent = qx_wrap_sub(pstDomain->s32UtilCurrent, pstThread->Util);
        pstIds->clear(i);
        (void)_QX_ThreadDataDelete(pstThread);
    }
}

// The liveness walk: the processes of the list that have died, then the records whose ids were
// given to a newcomer.
static void qx_check_alive(QX_REALTIME_DOMAIN_t *pstDomain, qx_identities *pstIds) {
    static const char kName[] = "_QX_REALTIME_CheckProcessAlive";
    int32_t s32Num = qx_domain_pid_list_num(pstDomain);
    for (int32_t i = 0; i < s32Num; i++) {
        int32_t s32Pid = pstDomain->s32ProcessIDList[i];
        if (s32Pid == 0) continue;
        if (getpgid(s32Pid) < 0) {
            if (errno != ESRCH) continue;
            RT_LOGE_AS(kName, "[RT_Impl][Err] [%s] Process %d doesn't exist. errnor=%s\n", kName,
                       s32Pid, RT_ERRNO_STR);
        } else {
            char szPath[80];
            if (RT_FORMAT_PATH(szPath, "/proc/%d", s32Pid) < 0) return;
            DIR *pDir = opendir(szPath);
            if (pDir != NULL) {
                closedir(pDir);
                continue;
            }
            RT_LOGE_AS(kName,
                       "[RT_Impl][Err] [%s] %s doesn't exist. It has been killed, errnor=%s\n",
                       kName, szPath, RT_ERRNO_STR);
        }
        // Entries first, then the records they belong to.
        int32_t s32Threads = qx_domain_thread_num(pstDomain);
        for (int32_t j = 0; j < s32Threads; j++) {
            const QX_REALTIME_THREAD_t *pstThread = qx_domain_thread(pstDomain, j);
            if (pstThread->Alive != 0 && pstThread->ProcessID == s32Pid) pstIds->clear(j);
        }
        QX_REALTIME_RemoveKilledThread(pstDomain, s32Pid);
        pstDomain->s32ProcessIDList[i] = 0;
    }
    qx_reap_reused(pstDomain, pstIds);
}

void _QX_REALTIME_CheckProcessAlive(QX_REALTIME_DOMAIN_t *pstDomain) {
    if (pstDomain == NULL) return;
    qx_identities stIds(pstDomain, QX_IDENTITY_EXISTING);
    qx_check_alive(pstDomain, &stIds);
}

// The slot a new thread record goes to: the first free one, else one past the last (then equal
// to s32ThreadNum). 0 when there is none; the tests and their order are those of the store.
static int qx_pick_slot(const QX_REALTIME_DOMAIN_t *pstDomain, int32_t *ps32Slot) {
    // Tested before the search for a free slot: a full segment refuses even when a freed slot
    // could be reused (kept).
    if (pstDomain->s32NextOffset > RT_SHM_SIZE - RT_THREAD_SIZE) return 0;
    int32_t s32Num = qx_domain_thread_num(pstDomain);
    for (int32_t i = 0; i < s32Num; i++) {
        if (qx_domain_thread((QX_REALTIME_DOMAIN_t *)pstDomain, i)->Alive == 0) {
            *ps32Slot = i;
            return 1;
        }
    }
    // A new slot past the last; its place must lie inside the segment, after the header.
    int32_t s32Start = pstDomain->s32ThreadStartOffset;
    if (s32Num != pstDomain->s32ThreadNum || s32Start < RT_DOMAIN_HEADER_SIZE ||
        s32Start % 4 != 0 || s32Start > RT_SHM_SIZE - RT_THREAD_SIZE * (s32Num + 1))
        return 0;
    *ps32Slot = s32Num;
    return 1;
}

uint32_t _QX_AddThreadDataAtHead(QX_REALTIME_DOMAIN_t *pstDomain, QX_REALTIME_CLASS_t *pstClass,
                                 const QX_REALTIME_UTIL_t *pstUtil, int32_t s32Tid,
                                 int32_t s32ProcessID, const uint8_t *stSavedAttr) {
    if (pstDomain == NULL || pstClass == NULL || pstUtil == NULL) {
        RT_LOGE("[RT_Impl][Err] [%s] pstClass (%p) or pstUtil (%p) should not be NULL.\n", __func__,
                (const void *)pstClass, (const void *)pstUtil);
        return RT_ERR_NULL;
    }
    int32_t s32Slot;
    if (!qx_pick_slot(pstDomain, &s32Slot)) {
        RT_LOGE(
            "[RT_Impl][Err] [%s] shared memory size (%d Byte) is too small. "
            "sizeof(QX_REALTIME_THREAD_t)=%d\n",
            __func__, RT_SHM_SIZE, RT_THREAD_SIZE);
        return RT_ERR_NOT_EXIST;
    }
    if (s32Slot == pstDomain->s32ThreadNum) {
        pstDomain->s32ThreadNum += 1;
        pstDomain->s32NextOffset += RT_THREAD_SIZE;
    }
    QX_REALTIME_THREAD_t *pstThread = qx_domain_thread(pstDomain, s32Slot);
    pstThread->ThreadIdx = s32Slot;
    pstThread->ClassIdx = pstClass->s32ClassId;
    pstThread->Alive = 1;
    pstThread->ProcessID = s32ProcessID;
    pstThread->Pid = s32Tid;
    pstThread->Util = pstUtil->s32Util;
    pstThread->DeadlineUs = pstUtil->DlDeadlineUs;
    pstThread->RuntimeUs = pstUtil->DlRuntimeUs;
    pstThread->PeriodUs = pstUtil->DlPeriodUs;
    pstThread->Priority = pstClass->s32RtPriority;
    if (stSavedAttr != NULL)
        memcpy(pstThread->stSavedAttr, stSavedAttr, QX_SCHED_ATTR_SIZE);
    else
        memset(pstThread->stSavedAttr, 0, QX_SCHED_ATTR_SIZE);
    return RT_SUCCESS;
}

uint32_t _QX_ThreadDataDelete(QX_REALTIME_THREAD_t *pstThread) {
    if (pstThread == NULL) {
        RT_LOGE("[RT_Impl][Err] [%s] Arg is NULL.\n", __func__);
        return RT_ERR_INVALID_PARAM;
    }
    pstThread->Alive = 0;
    return RT_SUCCESS;
}

void QX_REALTIME_RemoveKilledThread(QX_REALTIME_DOMAIN_t *pstDomain, int32_t s32ProcessID) {
    static const char kName[] = "QX_REALTIME_RemoveKilledThread";
    RT_ENTER(kName);
    if (pstDomain == NULL) return;
    int32_t s32Num = qx_domain_thread_num(pstDomain);
    for (int32_t i = 0; i < s32Num; i++) {
        QX_REALTIME_THREAD_t *pstThread = qx_domain_thread(pstDomain, i);
        if (pstThread->Alive == 0 || pstThread->ProcessID != s32ProcessID) continue;
        pstDomain->s32UtilCurrent = qx_wrap_sub(pstDomain->s32UtilCurrent, pstThread->Util);
        if (_QX_ThreadDataDelete(pstThread) != RT_SUCCESS) {
            RT_LOGE("[RT_Impl][Err] [%s] Delete Thread data of pid=[%d] failed.\n", kName,
                    pstThread->Pid);
            RT_EXIT(kName, RT_ERR_NOT_EXIST);
            return;
        }
        RT_LOGD("[RT_Impl][DBG] [%s] for pid=[%d] successfully.\n", kName, pstThread->Pid);
    }
    RT_EXIT(kName, RT_SUCCESS);
}

// ---- leaving SCHED_DEADLINE ----

// A SCHED_DEADLINE thread that is asleep when it is switched straight to another policy keeps
// its bandwidth booked in the kernel's admission control long after (40 s and more measured),
// and a handful of such switches leaves the machine unable to admit any deadline thread (EBUSY).
// A change of parameters *within* SCHED_DEADLINE gives the old bandwidth back at once, so such a
// thread is first stepped down to the minimal reservation; the caller then applies the policy it
// wants. If the kernel refuses the step, the caller's switch still happens.
static void qx_dl_step_down(int32_t s32Tid) {
    struct qx_sched_attr stMinimal;
    memset(&stMinimal, 0, sizeof(stMinimal));
    stMinimal.size = QX_SCHED_ATTR_SIZE;
    stMinimal.sched_policy = RT_SCHED_DEADLINE;
    stMinimal.sched_runtime = QX_DL_MINIMAL_RUNTIME_NS;
    stMinimal.sched_deadline = QX_DL_MINIMAL_PERIOD_NS;
    stMinimal.sched_period = QX_DL_MINIMAL_PERIOD_NS;
    (void)qx_sched_setattr(s32Tid, &stMinimal, 0);
}

// ---- admission ----

static QX_REALTIME_CLASS_t *qx_find_class(QX_REALTIME_DOMAIN_t *pstDomain, const char *pszName) {
    int32_t s32Num = qx_domain_class_num(pstDomain);
    for (int32_t i = 0; i < s32Num; i++) {
        QX_REALTIME_CLASS_t *pstClass = qx_domain_class(pstDomain, i);
        if (strncmp(pstClass->szClassName, pszName, RT_NAME_LEN) == 0) return pstClass;
    }
    return NULL;
}

// The bookkeeping of one admission, written before the kernel is asked anything so that the
// death of the caller at any point leaves a record for every thread it changed, and taken back
// exactly when the kernel refuses.
typedef struct {
    int32_t s32ListSlot;              // process-ID slot this admission filled, or -1
    QX_REALTIME_THREAD_t *pstThread;  // record stored, or NULL
    int32_t s32Slot;                  // its slot number
    uint8_t au8OldSlot[sizeof(QX_REALTIME_THREAD_t)];  // that slot's bytes before
    int32_t s32OldThreadNum;
    int32_t s32OldNextOffset;
    int32_t s32Charge;
} qx_booking_t;

// Returns 0 when the process-ID list had no room for the thread's process.
static int qx_book(QX_REALTIME_DOMAIN_t *pstDomain, QX_REALTIME_CLASS_t *pstClass,
                   const QX_REALTIME_UTIL_t *pstUtil, int32_t s32Tid, int32_t s32ProcessID,
                   int bListed, const uint8_t *pu8Saved, qx_booking_t *pstBooking) {
    pstBooking->s32ListSlot = -1;
    pstBooking->pstThread = NULL;
    pstBooking->s32Slot = -1;
    pstBooking->s32OldThreadNum = pstDomain->s32ThreadNum;
    pstBooking->s32OldNextOffset = pstDomain->s32NextOffset;
    int bListRoom = !bListed || qx_list_owner(pstDomain, s32ProcessID, &pstBooking->s32ListSlot);
    int32_t s32Slot;
    if (qx_pick_slot(pstDomain, &s32Slot)) {
        // qx_pick_slot has checked that the slot lies wholly inside the segment.
        QX_REALTIME_THREAD_t *pstThread =
            (QX_REALTIME_THREAD_t *)((char *)pstDomain + pstDomain->s32ThreadStartOffset +
                                     RT_THREAD_SIZE * s32Slot);
        memcpy(pstBooking->au8OldSlot, pstThread, sizeof(pstBooking->au8OldSlot));
        (void)_QX_AddThreadDataAtHead(pstDomain, pstClass, pstUtil, s32Tid, s32ProcessID, pu8Saved);
        pstBooking->pstThread = pstThread;
        pstBooking->s32Slot = s32Slot;
    }
    pstBooking->s32Charge = pstUtil->s32Util;
    pstDomain->s32UtilCurrent = qx_wrap_add(pstDomain->s32UtilCurrent, pstUtil->s32Util);
    return bListRoom;
}

static void qx_unbook(QX_REALTIME_DOMAIN_t *pstDomain, const qx_booking_t *pstBooking) {
    pstDomain->s32UtilCurrent = qx_wrap_sub(pstDomain->s32UtilCurrent, pstBooking->s32Charge);
    if (pstBooking->pstThread != NULL)
        memcpy(pstBooking->pstThread, pstBooking->au8OldSlot, sizeof(pstBooking->au8OldSlot));
    pstDomain->s32ThreadNum = pstBooking->s32OldThreadNum;
    pstDomain->s32NextOffset = pstBooking->s32OldNextOffset;
    if (pstBooking->s32ListSlot >= 0) pstDomain->s32ProcessIDList[pstBooking->s32ListSlot] = 0;
}

// Whether a process neither catches nor ignores SIGXCPU (the kernel's default for it ends the
// process), from the SigIgn and SigCgt masks of /proc/<pid>/status.
static int qx_sigxcpu_kills(int32_t s32Pid) {
    char szPath[RT_PATH_LEN];
    if (RT_FORMAT_PATH(szPath, "/proc/%d/status", s32Pid) < 0) return 0;
    FILE *pFile = fopen(szPath, "re");
    if (pFile == NULL) return 0;
    char szLine[256];
    unsigned long long u64Handled = 0;
    int s32Seen = 0;
    while (fgets(szLine, sizeof(szLine), pFile) != NULL) {
        unsigned long long u64Mask;
        if (sscanf(szLine, "SigIgn: %llx", &u64Mask) == 1 ||
            sscanf(szLine, "SigCgt: %llx", &u64Mask) == 1) {
            u64Handled |= u64Mask;
            s32Seen++;
        }
    }
    fclose(pFile);
    return s32Seen == 2 && (u64Handled & (1ull << (SIGXCPU - 1))) == 0;
}

static void qx_warn_overrun_signal(const char *pszOp, int32_t s32ProcessID, int32_t s32Tid) {
    int32_t s32Pid = s32ProcessID > 0 ? s32ProcessID : s32Tid;
    if (!qx_sigxcpu_kills(s32Pid)) return;
    char szPath[RT_PATH_LEN];
    char szComm[32] = "?";
    if (RT_FORMAT_PATH(szPath, "/proc/%d/comm", s32Pid) >= 0) {
        FILE *pFile = fopen(szPath, "re");
        if (pFile != NULL) {
            if (fgets(szComm, sizeof(szComm), pFile) == NULL) RT_SNPRINTF(szComm, "?");
            fclose(pFile);
            szComm[strcspn(szComm, "\n")] = '\0';
        }
    }
    RT_LOGE(
        "[RT_Impl][Err] [%s] Process %d (%s) neither catches nor ignores SIGXCPU: the first "
        "runtime overrun of thread %d will kill it.\n",
        pszOp, s32Pid, szComm, s32Tid);
}

// Gives a thread back the attributes it had before admission; a deadline domain's thread steps
// down first (see qx_dl_step_down).
static int qx_put_back_attr(const QX_REALTIME_DOMAIN_t *pstDomain, int32_t s32Tid,
                            const struct qx_sched_attr *pstSaved) {
    if (pstDomain->u32SchedType == RT_SCHED_TYPE_DEADLINE &&
        pstSaved->sched_policy != RT_SCHED_DEADLINE) {
        struct qx_sched_attr stNow;
        memset(&stNow, 0, sizeof(stNow));
        if (qx_sched_getattr(s32Tid, &stNow, QX_SCHED_ATTR_SIZE, 0) == 0 &&
            stNow.sched_policy == RT_SCHED_DEADLINE)
            qx_dl_step_down(s32Tid);
    }
    return qx_sched_setattr(s32Tid, pstSaved, 0);
}

// Applies the policy and moves the thread into the domain's groups (admission steps 13 to 15).
static uint32_t qx_admit_in_kernel(const char *pszOp, QX_REALTIME_DOMAIN_t *pstDomain,
                                   QX_REALTIME_CLASS_t *pstClass, const QX_REALTIME_UTIL_t *pstUtil,
                                   int32_t s32Tid, uint8_t bDlOverrun, uint8_t u8ClassOptions,
                                   const struct qx_sched_attr *pstSaved) {
    // A deadline thread admitted into a round-robin domain leaves SCHED_DEADLINE here: step it
    // down first (see qx_dl_step_down), and give it back its reservation if the new policy is
    // refused, so that a refusal leaves it as it was.
    int bSteppedDown = 0;
    if (pstSaved->sched_policy == RT_SCHED_DEADLINE &&
        pstDomain->u32SchedType != RT_SCHED_TYPE_DEADLINE) {
        qx_dl_step_down(s32Tid);
        bSteppedDown = 1;
    }
    uint32_t u32Ret =
        _QX_REALTIME_SetSchedAttr(pstDomain, pstClass, pstUtil, s32Tid, bDlOverrun, u8ClassOptions);
    if (u32Ret != RT_SUCCESS) {
        if (bSteppedDown) (void)qx_sched_setattr(s32Tid, pstSaved, 0);
        return u32Ret;
    }
    // The policy is applied before the cpuset move: the kernel refuses SCHED_DEADLINE to a
    // thread that already sits in a narrower cpuset.
    const char *pszMoveTo = qx_cgroup_join_domain(pstDomain, s32Tid);
    if (pszMoveTo != NULL) {
        RT_LOGE("[RT_Impl][Err] [%s] Move pid = [%d] to [%s] failed.\n", pszOp, s32Tid, pszMoveTo);
        // On cgroup v2 a refused move is the layout saying no (no cpuset for the thread's
        // process), on v1 a domain whose CPUs are all offline: the thread gets back what it had
        // rather than run real-time outside its domain's CPUs with no record.
        if (qx_cgroup_layout() == QX_CGROUP_V2 || qx_cgroup_refused_no_cpu_online())
            (void)qx_put_back_attr(pstDomain, s32Tid, pstSaved);
        return RT_ERR_SYSTEM;
    }
    return RT_SUCCESS;
}

// Admission's work under the domain lock (steps from the reaping on); the summary message and
// the release are the caller's.
static uint32_t qx_admit_locked(const char *pszOp, QX_REALTIME_DOMAIN_t *pstDomain,
                                const char *pszClassName, const QX_REALTIME_UTIL_t *pstLiteUtil,
                                int32_t s32Tid, uint8_t bDlOverrun) {
    uint8_t au8Saved[QX_SCHED_ATTR_SIZE];
    memset(au8Saved, 0, sizeof(au8Saved));
    uint32_t u32Ret = RT_SUCCESS;
    // One reading of the identity file serves the walk and the new record's entry; a domain made
    // by an older build gets its file here.
    qx_identities stIds(pstDomain, QX_IDENTITY_MAKE);
    qx_check_alive(pstDomain, &stIds);
    QX_REALTIME_CLASS_t *pstClass = qx_find_class(pstDomain, pszClassName);
    if (pstClass == NULL) {
        RT_LOGE("[RT_Impl][Err] [%s] Class:[%s] does not exist.\n", pszOp, pszClassName);
        return RT_ERR_NOT_EXIST;
    }
    if (_QX_GetThreadByPid(pstDomain, pstClass, s32Tid, NULL) == RT_SUCCESS) {
        // A repeated admission is harmless and keeps the thread's first class.
        RT_LOGE("[RT_Impl][Err] [%s] Pid [%d] already exists.\n", pszOp, s32Tid);
        RT_LOGD("[RT_Impl][DBG] [%s] for [%d] successfully.\n", pszOp, s32Tid);
        return RT_SUCCESS;
    }
    if (pstLiteUtil == NULL) {
        // The class record's own field: in a deadline domain it takes the converted value.
        u32Ret = _QX_REALTIME_CheckOverUtil(pstDomain, pstClass->s32DlRuntimeUs,
                                            pstClass->s32DlDeadlineUs, pstClass->s32DlPeriodUs,
                                            &pstClass->s32Util, 0);
        if (u32Ret != RT_SUCCESS) return u32Ret;
    }
    struct qx_sched_attr stSaved;
    memset(&stSaved, 0, sizeof(stSaved));
    if (qx_sched_getattr(s32Tid, &stSaved, QX_SCHED_ATTR_SIZE, 0) == 0)
        memcpy(au8Saved, &stSaved, QX_SCHED_ATTR_SIZE);

    QX_REALTIME_UTIL_t stUtil;
    if (pstLiteUtil == NULL) {
        stUtil.s32Util = pstClass->s32Util;
        stUtil.DlDeadlineUs = pstClass->s32DlDeadlineUs;
        stUtil.DlRuntimeUs = pstClass->s32DlRuntimeUs;
        stUtil.DlPeriodUs = pstClass->s32DlPeriodUs;
    } else {
        stUtil = *pstLiteUtil;
    }

    // Book first: the thread's process (the caller's own when it can't be told), its place
    // in the process-ID list, the record and the charge.
    qx_owner_t stOwner;
    stOwner.s32ProcessID = getpid();
    qx_probe_owner(s32Tid, &stOwner);
    int bOwnerKnown = stOwner.s32What == QX_OWNER_FOUND || stOwner.s32What == QX_OWNER_NO_PGID;
    // The thread's identity, to be kept beside its record.
    QX_REALTIME_IDENTITY_t stId;
    stId.s32Tid = s32Tid;
    stId.s32ProcessID = stOwner.s32ProcessID;
    stId.u64ThreadStart = qx_start_time(stIds.starts(), s32Tid);
    stId.u64ProcessStart = qx_start_time(stIds.starts(), stOwner.s32ProcessID);
    qx_booking_t stBooking;
    int bListFull = !qx_book(pstDomain, pstClass, &stUtil, s32Tid, stOwner.s32ProcessID,
                             bOwnerKnown, au8Saved, &stBooking);
    if (stBooking.pstThread != NULL && stId.u64ThreadStart != 0)
        stIds.set(stBooking.s32Slot, &stId);

    u32Ret = qx_admit_in_kernel(pszOp, pstDomain, pstClass, &stUtil, s32Tid, bDlOverrun != 0,
                                stIds.class_options(pstClass->s32ClassId), &stSaved);
    if (u32Ret != RT_SUCCESS) {
        if (stBooking.pstThread != NULL) stIds.clear(stBooking.s32Slot);
        qx_unbook(pstDomain, &stBooking);
        return u32Ret;
    }

    // Report the booking where the steps stand.
    RT_LOGI("[RT_Impl][Info] s32UtilCurrent in Domain[%s] is [%d] after add pid=[%d].\n",
            qx_name_of(pstDomain->szName).sz, pstDomain->s32UtilCurrent, s32Tid);
    int bOwnerFailed = qx_report_owner(s32Tid, &stOwner) != RT_SUCCESS;
    if (bListFull) qx_report_list_full(pstDomain);
    if (bOwnerFailed || bListFull) {
        RT_LOGE("[RT_Impl][Err] [%s] getProcessID for tid [%d] failed.\n", pszOp, s32Tid);
        u32Ret = RT_ERR_NOT_EXIST;  // the admission goes on
    }
    if (stBooking.pstThread == NULL) {
        // Says why, as the store does when it finds no room.
        (void)_QX_AddThreadDataAtHead(pstDomain, pstClass, &stUtil, s32Tid, stOwner.s32ProcessID,
                                      au8Saved);
        RT_LOGE("[RT_Impl][Err] [%s] Add pid = [%d] to Thread at Class = [%s] failed.\n", pszOp,
                s32Tid, pszClassName);
        u32Ret = RT_ERR_NOT_EXIST;
    }
    if (bDlOverrun != 0 && pstDomain->u32SchedType == RT_SCHED_TYPE_DEADLINE)
        qx_warn_overrun_signal(pszOp, stOwner.s32ProcessID, s32Tid);
    if (u32Ret == RT_SUCCESS)
        RT_LOGD("[RT_Impl][DBG] [%s] for [%d] successfully.\n", pszOp, s32Tid);
    return u32Ret;
}

// Admission, shared by QX_REALTIME_AddThread (pstUtil NULL: the class's parameters, checked
// against the budget) and QX_REALTIME_AddThread_Lite (the caller's, unchecked).
//
// Its messages and results are given in the order of the steps, but the work is done in another:
// the thread's process is found, the record stored and the utilisation charged before the kernel
// is asked to change the thread, and all three are taken back if it refuses. No other process
// sees the difference (the domain lock is held throughout); a caller killed half-way leaves a
// record for every thread it touched, and no charge without one.
static uint32_t qx_add_thread(const char *pszOp, const char *pszDomainName,
                              const char *pszClassName, const QX_REALTIME_UTIL_t *pstLiteUtil,
                              int32_t s32Tid, uint8_t bDlOverrun) {
    qx_domain_hold stHold;
    uint32_t u32Ret;

    int s32Outcome = stHold.take(pszOp, pszDomainName, &u32Ret);
    if (s32Outcome == QX_DOMAIN_MISSING) {
        if (pstLiteUtil == NULL)
            RT_LOGE("[RT_Impl][Err] [%s] pstDomain:[%s] is NULL.\n", pszOp, pszDomainName);
        else
            RT_LOGE("[RT_Impl][Err] [%s] pstDomain is NULL.\n", pszOp);
    }
    if (s32Outcome != QX_DOMAIN_LOCKED) return u32Ret;

    u32Ret = qx_admit_locked(pszOp, stHold.domain(), pszClassName, pstLiteUtil, s32Tid, bDlOverrun);

    if (u32Ret != RT_SUCCESS) {
        if (pstLiteUtil == NULL)
            RT_LOGE(
                "[RT_Impl][Err] [%s] Add pid = [%d] to Thread at Class = [%s] failed. ret is %d\n",
                pszOp, s32Tid, pszClassName, (int)u32Ret);
        else
            RT_LOGE("[RT_Impl][Err] [%s] Add pid = [%d] to Thread at Class = [%s] failed.\n", pszOp,
                    s32Tid, pszClassName);
    }
    stHold.release();
    RT_EXIT(pszOp, u32Ret);
    return u32Ret;
}

uint32_t QX_REALTIME_AddThread(const char *pszDomainName, const char *pszClassName, int32_t s32Tid,
                               uint8_t bDlOverrun) {
    static const char kName[] = "QX_REALTIME_AddThread";
    RT_ENTER_ARGPID(kName, s32Tid);
    if (pszDomainName == NULL || pszClassName == NULL) {
        RT_LOGE("[RT_Impl][Err] [%s] Arg is NULL.\n", kName);
        return RT_ERR_INVALID_PARAM;
    }
    RT_REQUIRE_LOOKUP_NAME(kName, pszDomainName);
    return qx_add_thread(kName, pszDomainName, pszClassName, NULL, s32Tid, bDlOverrun);
}

uint32_t QX_REALTIME_AddThread_Lite(const char *pszDomainName, const char *pszClassName,
                                    QX_REALTIME_UTIL_t *pstUtil, int32_t s32Tid,
                                    uint8_t bDlOverrun) {
    static const char kName[] = "QX_REALTIME_AddThread_Lite";
    RT_ENTER_ARGPID(kName, s32Tid);
    if (pstUtil == NULL) {
        RT_LOGE("[RT_Impl][Err] [%s] pstUtil is NULL.\n", kName);
        return RT_ERR_NULL;
    }
    if (pszDomainName == NULL || pszClassName == NULL) {
        RT_LOGE("[RT_Impl][Err] [%s] Arg is NULL.\n", kName);
        return RT_ERR_INVALID_PARAM;
    }
    RT_REQUIRE_LOOKUP_NAME(kName, pszDomainName);
    return qx_add_thread(kName, pszDomainName, pszClassName, pstUtil, s32Tid, bDlOverrun);
}

// ---- removal and update ----

// Restores the attributes saved at admission; a deadline thread leaves SCHED_DEADLINE through
// the minimal reservation (see qx_dl_step_down).
static int qx_restore_attr(const QX_REALTIME_DOMAIN_t *pstDomain, int32_t s32Tid,
                           const QX_REALTIME_THREAD_t *pstThread) {
    struct qx_sched_attr stAttr;
    memcpy(&stAttr, pstThread->stSavedAttr, sizeof(stAttr));
    return qx_put_back_attr(pstDomain, s32Tid, &stAttr);
}

// RemoveThread's work under the domain lock.
static uint32_t qx_remove_locked(const char *kName, const char *pszDomainName,
                                 QX_REALTIME_DOMAIN_t *pstDomain, int32_t s32Tid) {
    qx_name_t stDomain = qx_name_of(pstDomain->szName);
    qx_identities stIds(pstDomain, QX_IDENTITY_EXISTING);
    QX_REALTIME_THREAD_t *pstThread = qx_find_admitted(pstDomain, s32Tid, &stIds);
    if (pstThread == NULL) {
        RT_LOGE("[RT_Impl][Err] [%s]: Thread [%d] doesn't exist in [%s].\n", kName, s32Tid,
                pszDomainName);
        return RT_ERR_NOT_EXIST;
    }
    RT_LOGD("[RT_Impl][DBG] [%s]: pid=[%d] exists in [%s].\n", kName, s32Tid, pszDomainName);
    const char *pszMoveTo = qx_cgroup_leave_domain(pstDomain, s32Tid);
    if (pszMoveTo != NULL) {
        RT_LOGE("[RT_Impl][Err] [%s] Move pid=[%d] to %s failed.\n", kName, s32Tid, pszMoveTo);
        return RT_ERR_SYSTEM;
    }
    if (qx_restore_attr(pstDomain, s32Tid, pstThread) == -1) {
        RT_LOGE("[RT_Impl][Err] _QX_REALTMIE_SchedSetAttr fails to restore setting, errno=%s\n",
                RT_ERRNO_STR);
        return RT_ERR_SCHED_SETATTR;
    }
    // The release and the freed record go together, before the message: a caller killed while it
    // writes the message leaves no charge without a record.
    pstDomain->s32UtilCurrent = qx_wrap_sub(pstDomain->s32UtilCurrent, pstThread->Util);
    stIds.clear(qx_slot_of(pstDomain, pstThread));
    uint32_t u32Deleted = _QX_ThreadDataDelete(pstThread);
    RT_LOGI("[RT_Impl][Info] s32UtilCurrent in Domain(%s) is %d.\n", stDomain.sz,
            pstDomain->s32UtilCurrent);
    if (u32Deleted != RT_SUCCESS) {
        QX_REALTIME_CLASS_t *pstClass = qx_domain_class(pstDomain, pstThread->ClassIdx);
        RT_LOGE("[RT_Impl][Err] Remove Thread of pid=[%d] from Class=%s failed.\n", s32Tid,
                qx_name_of(pstClass != NULL ? pstClass->szClassName : "").sz);
        return RT_ERR_NOT_EXIST;
    }
    RT_LOGD("[RT_Impl][DBG] [%s] for pid=[%d] successfully.\n", kName, s32Tid);
    return RT_SUCCESS;
}

uint32_t QX_REALTIME_RemoveThread(const char *pszDomainName, int32_t s32Tid) {
    static const char kName[] = "QX_REALTIME_RemoveThread";
    qx_domain_hold stHold;
    uint32_t u32Ret;

    RT_ENTER_ARGPID(kName, s32Tid);
    RT_REQUIRE_ARG(kName, pszDomainName);
    RT_REQUIRE_LOOKUP_NAME(kName, pszDomainName);
    int s32Outcome = stHold.take(kName, pszDomainName, &u32Ret);
    // The arguments are in the reverse order of the other messages: kept.
    if (s32Outcome == QX_DOMAIN_MISSING)
        RT_LOGE("[RT_Impl][Err] [%s] pstDomain [%s] is NULL.\n", pszDomainName, kName);
    if (s32Outcome != QX_DOMAIN_LOCKED) return u32Ret;
    u32Ret = qx_remove_locked(kName, pszDomainName, stHold.domain(), s32Tid);
    stHold.release();
    RT_EXIT(kName, u32Ret);
    return u32Ret;
}

// A deadline thread's new parameters, applied in the root cpuset (deliberate, as at admission)
// and the thread moved back into the domain's.
static uint32_t qx_update_deadline(const char *kName, QX_REALTIME_DOMAIN_t *pstDomain,
                                   const QX_REALTIME_THREAD_t *pstThread,
                                   const QX_REALTIME_UTIL_t *pstUtil, int32_t s32Tid,
                                   uint8_t u8ClassOptions) {
    struct qx_sched_attr stNow;
    memset(&stNow, 0, sizeof(stNow));
    uint8_t bOverrun = 0;
    if (qx_sched_getattr(s32Tid, &stNow, QX_SCHED_ATTR_SIZE, 0) != 0)
        RT_LOGE("[RT_Impl][Err] _QX_REALTMIE_SchedGetAttr fails, s32Pid=[%d]\n", s32Tid);
    else
        bOverrun = (stNow.sched_flags & RT_SCHED_FLAG_DL_OVERRUN) != 0;
    const char *pszRefused = qx_cgroup_park_in_root_cpuset(s32Tid);
    if (pszRefused != NULL) {
        RT_LOGE("[RT_Impl][Err] [%s] Move pid=[%d] to %s failed.\n", kName, s32Tid, pszRefused);
        return RT_ERR_SYSTEM;
    }
    uint32_t u32Ret =
        _QX_REALTIME_SetSchedAttr(pstDomain, qx_domain_class(pstDomain, pstThread->ClassIdx),
                                  pstUtil, s32Tid, bOverrun, u8ClassOptions);
    if (u32Ret != RT_SUCCESS) return u32Ret;
    pszRefused = qx_cgroup_return_to_domain_cpuset(pstDomain, s32Tid);
    if (pszRefused != NULL) {
        RT_LOGE("[RT_Impl][Err] [%s] Move pid = [%d] to [%s] failed.\n", kName, s32Tid, pszRefused);
        return RT_ERR_SYSTEM;
    }
    return RT_SUCCESS;
}

// UpdateThreadUtil's work under the domain lock.
static uint32_t qx_update_locked(const char *kName, QX_REALTIME_DOMAIN_t *pstDomain,
                                 QX_REALTIME_UTIL_t *pstUtil, int32_t s32Tid) {
    qx_identities stIds(pstDomain, QX_IDENTITY_EXISTING);
    QX_REALTIME_THREAD_t *pstThread = qx_find_admitted(pstDomain, s32Tid, &stIds);
    if (pstThread == NULL) {
        RT_LOGE("[RT_Impl][Err] [%s]: Thread of pid=[%d] does not exist in RT.\n", kName, s32Tid);
        return RT_ERR_NOT_EXIST;
    }
    RT_LOGD("[RT_Impl][DBG] [%s]: pid=[%d] exists in RT.\n", kName, s32Tid);
    uint32_t u32Ret =
        _QX_REALTIME_CheckOverUtil(pstDomain, pstUtil->DlRuntimeUs, pstUtil->DlDeadlineUs,
                                   pstUtil->DlPeriodUs, &pstUtil->s32Util, pstThread->Util);
    if (u32Ret != RT_SUCCESS) return u32Ret;
    if (pstDomain->u32SchedType == RT_SCHED_TYPE_DEADLINE) {
        u32Ret = qx_update_deadline(kName, pstDomain, pstThread, pstUtil, s32Tid,
                                    stIds.class_options(pstThread->ClassIdx));
        if (u32Ret != RT_SUCCESS) return u32Ret;
    }
    // The charge and the record change together, before the message (see the removal).
    pstDomain->s32UtilCurrent =
        qx_wrap_add(qx_wrap_sub(pstDomain->s32UtilCurrent, pstThread->Util), pstUtil->s32Util);
    pstThread->Util = pstUtil->s32Util;
    pstThread->DeadlineUs = pstUtil->DlDeadlineUs;
    pstThread->RuntimeUs = pstUtil->DlRuntimeUs;
    pstThread->PeriodUs = pstUtil->DlPeriodUs;
    RT_LOGI("[RT_Impl][Info] s32UtilCurrent in Domain[%s] is [%d] after add pid=[%d].\n",
            qx_name_of(pstDomain->szName).sz, pstDomain->s32UtilCurrent, s32Tid);
    RT_LOGD("[RT_Impl][DBG] [%s] for [%d] successfully.\n", kName, s32Tid);
    return RT_SUCCESS;
}

uint32_t QX_REALTIME_UpdateThreadUtil(const char *pszDomainName, QX_REALTIME_UTIL_t *pstUtil,
                                      int32_t s32Tid) {
    static const char kName[] = "QX_REALTIME_UpdateThreadUtil";
    qx_domain_hold stHold;
    uint32_t u32Ret;

    RT_ENTER(kName);
    if (pstUtil == NULL) {
        RT_LOGE("[RT_Impl][Err] [%s] pstUtil is NULL.\n", kName);
        return RT_ERR_NULL;
    }
    RT_REQUIRE_ARG(kName, pszDomainName);
    RT_REQUIRE_LOOKUP_NAME(kName, pszDomainName);
    int s32Outcome = stHold.take(kName, pszDomainName, &u32Ret);
    if (s32Outcome == QX_DOMAIN_MISSING) RT_LOGE("[RT_Impl][Err] [%s] pstDomain is NULL.\n", kName);
    if (s32Outcome != QX_DOMAIN_LOCKED) return u32Ret;
    u32Ret = qx_update_locked(kName, stHold.domain(), pstUtil, s32Tid);
    stHold.release();
    RT_EXIT(kName, u32Ret);
    return u32Ret;
}

// ---- memory high-priority resource (reserved) ----

uint32_t QX_REALTIME_EnableMemoryHighPriority(void) {
    static const char kName[] = "QX_REALTIME_EnableMemoryHighPriority";
    RT_ENTER(kName);
    RT_EXIT(kName, RT_SUCCESS);
    return RT_SUCCESS;
}

uint32_t QX_REALTIME_DisableMemoryHighPriority(void) {
    static const char kName[] = "QX_REALTIME_DisableMemoryHighPriority";
    RT_ENTER(kName);
    RT_EXIT(kName, RT_SUCCESS);
    return RT_SUCCESS;
}

uint32_t QX_REALTIME_GetAvailableHighPriorityResource(int32_t *ps32Avai) {
    static const char kName[] = "QX_REALTIME_GetAvailableHighPriorityResource";
    RT_REQUIRE_ARG(kName, ps32Avai);
    // Reports that it is not implemented yet while still answering success: deliberate.
    RT_LOGE("[RT_Impl][Err] [%s] The function isn't ready. *ps32Avai=%d\n", kName, *ps32Avai);
    return RT_SUCCESS;
}
