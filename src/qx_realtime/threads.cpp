// Threads: scheduling attributes and cgroup files, admission, removal, utilisation update, the
// reaping of dead clients, and the reserved memory high-priority calls.
#include <dirent.h>
#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <stdlib.h>
#include <sys/sysinfo.h>

#include "qx_realtime_internal.h"

#define RT_SCHED_NORMAL 0u
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
                                   uint8_t bDlOverrun) {
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
        stAttr.sched_flags =
            bDlOverrun ? (RT_SCHED_FLAG_RECLAIM | RT_SCHED_FLAG_DL_OVERRUN) : RT_SCHED_FLAG_RECLAIM;
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
            RT_LOGE("[RT_Impl][Err] [%s]: Rt priority = [%d] is invalid. It should between 1 to 99.\n",
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
        RT_LOGE("[RT_Impl][Err] [%s] _QX_REALTMIE_SchedSetAttr failed to set the sched for pid=%d, "
                "policy=%u, priority=%u, runtime=%llu, deadline=%llu, period=%llu, errno=%s\n",
                __func__, s32Tid, stAttr.sched_policy, stAttr.sched_priority,
                (unsigned long long)stAttr.sched_runtime, (unsigned long long)stAttr.sched_deadline,
                (unsigned long long)stAttr.sched_period, RT_ERRNO_STR);
        return RT_ERR_SCHED_SETATTR;
    }
    return RT_SUCCESS;
}

uint32_t _QX_WriteStrToPath(const char *pszValue, const char *pszPath) {
    if (pszValue == NULL || pszPath == NULL) {
        RT_LOGE("[RT_Impl][Err] [%s] Arg is NULL.\n", __func__);
        return RT_ERR_SYSTEM;
    }
    FILE *pFile = fopen(pszPath, "w");
    if (pFile == NULL) {
        RT_LOGE("[RT_Impl][Err] [%s] Can't open %s, errno=%s\n", __func__, pszPath, RT_ERRNO_STR);
        return RT_ERR_SYSTEM;
    }
    fwrite(pszValue, 1, strlen(pszValue), pFile);
    // A cgroup refuses a write (dead thread, unusable CPU list) only when the buffer is flushed.
    if (fclose(pFile) != 0) {
        RT_LOGE("[RT_Impl][Err] [%s] Can't close %s, errno=%s.\n", __func__, pszPath, RT_ERRNO_STR);
        return RT_ERR_SYSTEM;
    }
    return RT_SUCCESS;
}

uint32_t _QX_WriteS32ToPath(int32_t s32Value, const char *pszPath) {
    char szBuf[64];
    memset(szBuf, 0, sizeof(szBuf));
    if (RT_SNPRINTF(szBuf, "%d", s32Value) < 0) {
        RT_LOGE("[RT_Impl][Err] [%s] snprintf failed, errno=%s.\n", __func__, RT_ERRNO_STR);
        return RT_ERR_INVALID_PARAM;
    }
    return _QX_WriteStrToPath(szBuf, pszPath) != RT_SUCCESS ? RT_ERR_SYSTEM : RT_SUCCESS;
}

void _QX_REALTIME_Overwrite_Cpuset(QX_REALTIME_DOMAIN_t *pstDomain) {
    char szValue[QX_PROPERTY_VALUE_MAX];
    char szPath[RT_PATH_LEN];
    if (pstDomain == NULL) return;
    memset(szValue, 0, sizeof(szValue));
    qx_property_get(RT_PROP_OVERWRITE_CPUSET, szValue, "0");
    if (szValue[0] == '0') return;

    char szRoot[RT_PATH_LEN];
    memcpy(szRoot, pstDomain->pszCpusetPathRoot, RT_PATH_LEN);
    szRoot[RT_PATH_LEN - 1] = '\0';
    if (qx_cpuset_file_path(szPath, sizeof(szPath), szRoot, "cpus") < 0) return;
    // The shared record changes for every process: at most 15 characters are kept.
    RT_SNPRINTF(pstDomain->pszCpuset, "%.*s", RT_CPUSET_LEN - 1, szValue);
    if (_QX_WriteStrToPath(pstDomain->pszCpuset, szPath) == RT_SUCCESS)
        RT_LOGI("[RT_Impl][Info] %s is reset to %s.\n", szPath, pstDomain->pszCpuset);
    _QX_REALTIME_ParseCpuSelection(pstDomain->pszCpuset, &pstDomain->s32CpuNum,
                                   &pstDomain->u32CpuMask);
}

// ---- the budget check and thread records ----

uint32_t _QX_REALTIME_CheckOverUtil(QX_REALTIME_DOMAIN_t *pstDomain, int32_t s32RuntimeUs,
                                    int32_t s32DeadlineUs, int32_t s32PeriodUs, int32_t *ps32Util,
                                    int32_t s32OrigUtil) {
    if (pstDomain == NULL || ps32Util == NULL) {
        RT_LOGE("[RT_Impl][Err] [%s] Arg is NULL.\n", __func__);
        return RT_ERR_INVALID_PARAM;
    }
    if (pstDomain->u32SchedType == RT_SCHED_TYPE_RR) {
        if (*ps32Util < 0) {
            RT_LOGE("[RT_Impl][Err] [%s] Invalid parameter %d: (should) s32Util >= 0.\n", __func__,
                    *ps32Util);
            return RT_ERR_INVALID_PARAM;
        }
    } else if (pstDomain->u32SchedType == RT_SCHED_TYPE_DEADLINE) {
        if (!(s32DeadlineUs >= s32RuntimeUs && s32PeriodUs >= s32DeadlineUs)) {
            RT_LOGE("[RT_Impl][Err] [%s] Invalid Deadline parameter: (should) DlPeriodUs=%d >= "
                    "DlDeadlineUs=%d >= DlRuntimeUs=%d.\n",
                    __func__, s32PeriodUs, s32DeadlineUs, s32RuntimeUs);
            return RT_ERR_INVALID_PARAM;
        }
        int32_t s32Cap = pstTop->s32CapPerCore;
        *ps32Util = s32PeriodUs == 0
                        ? 0
                        : (int32_t)(((uint32_t)s32RuntimeUs * (uint32_t)s32Cap) /
                                    (uint32_t)s32PeriodUs);
        RT_LOGI("[RT_Impl][Info] Get converted Util=[%d] from DlRuntimeUs=[%d], DlPeriodUs=[%d], "
                "s32CapPerCore=[%d].\n",
                *ps32Util, s32RuntimeUs, s32PeriodUs, s32Cap);
    }
    int64_t s64After = (int64_t)pstDomain->s32UtilCurrent - s32OrigUtil + *ps32Util;
    if (pstDomain->s32UtilMax >= 1 && s64After > pstDomain->s32UtilMax) {
        RT_LOGE("[RT_Impl][Err] [%s] Domain[%s] over s32Util: new Util is %d, original Util is "
                "%d,domain current total Util is %d, max. domain Util is %d\n",
                __func__, qx_name_of(pstDomain->szName).sz, *ps32Util, s32OrigUtil,
                pstDomain->s32UtilCurrent, pstDomain->s32UtilMax);
        return RT_ERR_OVER_BUDGET;
    }
    return RT_SUCCESS;
}

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

// Reads the thread-group id from the first 79 bytes of /proc/<tid>/status.
static uint32_t qx_read_tgid(int32_t s32Tid, int32_t *ps32Tgid) {
    char szPath[80];
    char szBuf[80];
    if (RT_FORMAT_PATH(szPath, "/proc/%d/status", s32Tid) < 0) return RT_ERR_SYSTEM;
    int fd = open(szPath, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        RT_LOGE("[RT_Impl][Err] [%s] Can't open %s, errno=%s\n", "_QX_REALTIME_getProcessID",
                szPath, RT_ERRNO_STR);
        return RT_ERR_SYSTEM;
    }
    ssize_t n = read(fd, szBuf, sizeof(szBuf) - 1);
    if (n < 0) {
        RT_LOGE("[RT_Impl][Err] [%s] Can't read from %s, errno=%s.\n", "_QX_REALTIME_getProcessID",
                szPath, RT_ERRNO_STR);
        close(fd);
        return RT_ERR_SYSTEM;
    }
    szBuf[n] = '\0';
    close(fd);
    char *pszTgid = strstr(szBuf, "Tgid");
    if (pszTgid == NULL) {
        RT_LOGE("[RT_Impl][Err] [%s] Can't get Tgid from %s\n", "_QX_REALTIME_getProcessID",
                szPath);
        return RT_ERR_SYSTEM;
    }
    char szKey[11];
    int s32Tgid = 0;
    if (sscanf(pszTgid, "%10s %d", szKey, &s32Tgid) < 2) return RT_ERR_SYSTEM;
    *ps32Tgid = s32Tgid;
    return RT_SUCCESS;
}

uint32_t _QX_REALTIME_getProcessID(QX_REALTIME_DOMAIN_t *pstDomain, int32_t s32Tid,
                                   int32_t *ps32ProcessID) {
    if (pstDomain == NULL || ps32ProcessID == NULL) {
        RT_LOGE("[RT_Impl][Err] [%s] Arg is NULL.\n", __func__);
        return RT_ERR_SYSTEM;
    }
    pid_t pgid = getpgid(s32Tid);
    if (pgid < 0) {
        RT_LOGE("[RT_Impl][Err] [%s] Thread %d can't get its process ID. errnor=%s\n", __func__,
                s32Tid, RT_ERRNO_STR);
    } else if (pgid == 0) {
        *ps32ProcessID = 0;
    } else {
        uint32_t u32Ret = qx_read_tgid(s32Tid, ps32ProcessID);
        if (u32Ret != RT_SUCCESS) return u32Ret;
    }
    // Stops at the first free slot: an id already present further on is entered again (kept).
    int32_t s32Num = qx_domain_pid_list_num(pstDomain);
    for (int32_t i = 0; i < s32Num; i++) {
        if (pstDomain->s32ProcessIDList[i] == 0) {
            pstDomain->s32ProcessIDList[i] = *ps32ProcessID;
            return RT_SUCCESS;
        }
        if (pstDomain->s32ProcessIDList[i] == *ps32ProcessID) return RT_SUCCESS;
    }
    RT_LOGE("[RT_Impl][Err] [%s] processIDListNum=%d. it is full !!!\n", __func__,
            pstDomain->processIDListNum);
    return RT_ERR_SYSTEM;
}

void _QX_REALTIME_CheckProcessAlive(QX_REALTIME_DOMAIN_t *pstDomain) {
    if (pstDomain == NULL) return;
    int32_t s32Num = qx_domain_pid_list_num(pstDomain);
    for (int32_t i = 0; i < s32Num; i++) {
        int32_t s32Pid = pstDomain->s32ProcessIDList[i];
        if (s32Pid == 0) continue;
        if (getpgid(s32Pid) < 0) {
            if (errno != ESRCH) continue;
            RT_LOGE("[RT_Impl][Err] [%s] Process %d doesn't exist. errnor=%s\n", __func__, s32Pid,
                    RT_ERRNO_STR);
        } else {
            char szPath[80];
            if (RT_FORMAT_PATH(szPath, "/proc/%d", s32Pid) < 0) return;
            DIR *pDir = opendir(szPath);
            if (pDir != NULL) {
                closedir(pDir);
                continue;
            }
            RT_LOGE("[RT_Impl][Err] [%s] %s doesn't exist. It has been killed, errnor=%s\n",
                    __func__, szPath, RT_ERRNO_STR);
        }
        QX_REALTIME_RemoveKilledThread(pstDomain, s32Pid);
        pstDomain->s32ProcessIDList[i] = 0;
    }
}

uint32_t _QX_AddThreadDataAtHead(QX_REALTIME_DOMAIN_t *pstDomain, QX_REALTIME_CLASS_t *pstClass,
                                 const QX_REALTIME_UTIL_t *pstUtil, int32_t s32Tid,
                                 int32_t s32ProcessID, const uint8_t *stSavedAttr) {
    if (pstDomain == NULL || pstClass == NULL || pstUtil == NULL) {
        RT_LOGE("[RT_Impl][Err] [%s] pstClass (%p) or pstUtil (%p) should not be NULL.\n",
                __func__, (const void *)pstClass, (const void *)pstUtil);
        return RT_ERR_NULL;
    }
    // Tested before the search for a free slot: a full segment refuses even when a freed slot
    // could be reused (kept).
    if (pstDomain->s32NextOffset > RT_SHM_SIZE - RT_THREAD_SIZE) {
        RT_LOGE("[RT_Impl][Err] [%s] shared memory size (%d Byte) is too small. "
                "sizeof(QX_REALTIME_THREAD_t)=%d\n",
                __func__, RT_SHM_SIZE, RT_THREAD_SIZE);
        return RT_ERR_NOT_EXIST;
    }
    int32_t s32Num = qx_domain_thread_num(pstDomain);
    int32_t s32Slot = s32Num;
    for (int32_t i = 0; i < s32Num; i++) {
        if (qx_domain_thread(pstDomain, i)->Alive == 0) {
            s32Slot = i;
            break;
        }
    }
    if (s32Slot == s32Num) {
        // A new slot past the last; its place must lie inside the segment, after the header.
        int32_t s32Start = pstDomain->s32ThreadStartOffset;
        if (s32Num != pstDomain->s32ThreadNum || s32Start < RT_DOMAIN_HEADER_SIZE ||
            s32Start % 4 != 0 || s32Start > RT_SHM_SIZE - RT_THREAD_SIZE * (s32Num + 1)) {
            RT_LOGE("[RT_Impl][Err] [%s] shared memory size (%d Byte) is too small. "
                    "sizeof(QX_REALTIME_THREAD_t)=%d\n",
                    __func__, RT_SHM_SIZE, RT_THREAD_SIZE);
            return RT_ERR_NOT_EXIST;
        }
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

// The smallest reservation the kernel accepts: 1024 ns every 4 s. Its bandwidth rounds to zero in
// the kernel's fixed-point accounting, so nothing stays booked for it.
#define QX_DL_MINIMAL_RUNTIME_NS 1024ull
#define QX_DL_MINIMAL_PERIOD_NS 4000000000ull

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

// Admission, shared by QX_REALTIME_AddThread (pstUtil NULL: the class's parameters, checked
// against the budget) and QX_REALTIME_AddThread_Lite (the caller's, unchecked).
static uint32_t qx_add_thread(const char *pszOp, const char *pszDomainName,
                              const char *pszClassName, const QX_REALTIME_UTIL_t *pstLiteUtil,
                              int32_t s32Tid, uint8_t bDlOverrun) {
    uint8_t au8Saved[QX_SCHED_ATTR_SIZE];
    memset(au8Saved, 0, sizeof(au8Saved));
    int32_t s32ProcessID = getpid();
    QX_REALTIME_DOMAIN_t *pstDomain = NULL;
    int32_t s32DomainFd = -1;
    uint32_t u32Ret;

    int s32Outcome = qx_domain_lock(pszOp, pszDomainName, &pstDomain, &s32DomainFd, &u32Ret);
    if (s32Outcome == QX_DOMAIN_MISSING) {
        if (pstLiteUtil == NULL)
            RT_LOGE("[RT_Impl][Err] [%s] pstDomain:[%s] is NULL.\n", pszOp, pszDomainName);
        else
            RT_LOGE("[RT_Impl][Err] [%s] pstDomain is NULL.\n", pszOp);
    }
    if (s32Outcome != QX_DOMAIN_LOCKED) return u32Ret;

    _QX_REALTIME_CheckProcessAlive(pstDomain);
    do {
        QX_REALTIME_CLASS_t *pstClass = qx_find_class(pstDomain, pszClassName);
        if (pstClass == NULL) {
            RT_LOGE("[RT_Impl][Err] [%s] Class:[%s] does not exist.\n", pszOp, pszClassName);
            u32Ret = RT_ERR_NOT_EXIST;
            break;
        }
        if (_QX_GetThreadByPid(pstDomain, pstClass, s32Tid, NULL) == RT_SUCCESS) {
            // A repeated admission is harmless and keeps the thread's first class.
            RT_LOGE("[RT_Impl][Err] [%s] Pid [%d] already exists.\n", pszOp, s32Tid);
            RT_LOGD("[RT_Impl][DBG] [%s] for [%d] successfully.\n", pszOp, s32Tid);
            u32Ret = RT_SUCCESS;
            break;
        }
        if (pstLiteUtil == NULL) {
            // The class record's own field: in a deadline domain it takes the converted value.
            u32Ret = _QX_REALTIME_CheckOverUtil(pstDomain, pstClass->s32DlRuntimeUs,
                                                pstClass->s32DlDeadlineUs,
                                                pstClass->s32DlPeriodUs, &pstClass->s32Util, 0);
            if (u32Ret != RT_SUCCESS) break;
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
        // A deadline thread admitted into a round-robin domain leaves SCHED_DEADLINE here: step
        // it down first (see qx_dl_step_down), and give it back its reservation if the new policy
        // is refused, so that a refusal leaves it as it was.
        int bSteppedDown = 0;
        if (stSaved.sched_policy == RT_SCHED_DEADLINE &&
            pstDomain->u32SchedType != RT_SCHED_TYPE_DEADLINE) {
            qx_dl_step_down(s32Tid);
            bSteppedDown = 1;
        }
        u32Ret = _QX_REALTIME_SetSchedAttr(pstDomain, pstClass, &stUtil, s32Tid, bDlOverrun != 0);
        if (u32Ret != RT_SUCCESS) {
            if (bSteppedDown) (void)qx_sched_setattr(s32Tid, &stSaved, 0);
            break;
        }

        // The policy is applied before the cpuset move: the kernel refuses SCHED_DEADLINE to a
        // thread that already sits in a narrower cpuset.
        const char *pszMoveTo = NULL;
        if (pstDomain->s32UtilMax >= 1) {
            _QX_REALTIME_Overwrite_Cpuset(pstDomain);
            if (pstDomain->s32CpuNum != qx_cpu_count() &&
                _QX_WriteS32ToPath(s32Tid, pstDomain->pszCpusetPathTasks) != RT_SUCCESS)
                pszMoveTo = pstDomain->pszCpusetPathTasks;
        }
        if (pszMoveTo == NULL &&
            _QX_WriteS32ToPath(s32Tid, pstDomain->pszCpuacctPathTasks) != RT_SUCCESS)
            pszMoveTo = pstDomain->pszCpuacctPathTasks;
        if (pszMoveTo != NULL) {
            RT_LOGE("[RT_Impl][Err] [%s] Move pid = [%d] to [%s] failed.\n", pszOp, s32Tid,
                    pszMoveTo);
            u32Ret = RT_ERR_SYSTEM;
            break;
        }

        pstDomain->s32UtilCurrent = qx_wrap_add(pstDomain->s32UtilCurrent, stUtil.s32Util);
        RT_LOGI("[RT_Impl][Info] s32UtilCurrent in Domain[%s] is [%d] after add pid=[%d].\n",
                qx_name_of(pstDomain->szName).sz, pstDomain->s32UtilCurrent, s32Tid);

        if (_QX_REALTIME_getProcessID(pstDomain, s32Tid, &s32ProcessID) != RT_SUCCESS) {
            RT_LOGE("[RT_Impl][Err] [%s] getProcessID for tid [%d] failed.\n", pszOp, s32Tid);
            u32Ret = RT_ERR_NOT_EXIST;  // the admission goes on
        }
        if (_QX_AddThreadDataAtHead(pstDomain, pstClass, &stUtil, s32Tid, s32ProcessID,
                                    au8Saved) != RT_SUCCESS) {
            RT_LOGE("[RT_Impl][Err] [%s] Add pid = [%d] to Thread at Class = [%s] failed.\n",
                    pszOp, s32Tid, pszClassName);
            u32Ret = RT_ERR_NOT_EXIST;
        }
        if (u32Ret == RT_SUCCESS) RT_LOGD("[RT_Impl][DBG] [%s] for [%d] successfully.\n", pszOp, s32Tid);
    } while (0);

    if (u32Ret != RT_SUCCESS) {
        if (pstLiteUtil == NULL)
            RT_LOGE("[RT_Impl][Err] [%s] Add pid = [%d] to Thread at Class = [%s] failed. ret is %d\n",
                    pszOp, s32Tid, pszClassName, (int)u32Ret);
        else
            RT_LOGE("[RT_Impl][Err] [%s] Add pid = [%d] to Thread at Class = [%s] failed.\n", pszOp,
                    s32Tid, pszClassName);
    }
    qx_domain_unlock(s32DomainFd);
    RT_EXIT(pszOp, u32Ret);
    return u32Ret;
}

uint32_t QX_REALTIME_AddThread(const char *pszDomainName, const char *pszClassName,
                               int32_t s32Tid, uint8_t bDlOverrun) {
    static const char kName[] = "QX_REALTIME_AddThread";
    RT_ENTER_ARGPID(kName, s32Tid);
    if (pszDomainName == NULL || pszClassName == NULL) {
        RT_LOGE("[RT_Impl][Err] [%s] Arg is NULL.\n", kName);
        return RT_ERR_INVALID_PARAM;
    }
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
    return qx_add_thread(kName, pszDomainName, pszClassName, pstUtil, s32Tid, bDlOverrun);
}

// ---- removal and update ----

// Restores the attributes saved at admission; a deadline thread leaves SCHED_DEADLINE through
// the minimal reservation (see qx_dl_step_down).
static int qx_restore_attr(const QX_REALTIME_DOMAIN_t *pstDomain, int32_t s32Tid,
                           const QX_REALTIME_THREAD_t *pstThread) {
    struct qx_sched_attr stAttr;
    memcpy(&stAttr, pstThread->stSavedAttr, sizeof(stAttr));
    if (pstDomain->u32SchedType == RT_SCHED_TYPE_DEADLINE &&
        stAttr.sched_policy != RT_SCHED_DEADLINE) {
        struct qx_sched_attr stNow;
        memset(&stNow, 0, sizeof(stNow));
        if (qx_sched_getattr(s32Tid, &stNow, QX_SCHED_ATTR_SIZE, 0) == 0 &&
            stNow.sched_policy == RT_SCHED_DEADLINE)
            qx_dl_step_down(s32Tid);
    }
    return qx_sched_setattr(s32Tid, &stAttr, 0);
}

uint32_t QX_REALTIME_RemoveThread(const char *pszDomainName, int32_t s32Tid) {
    static const char kName[] = "QX_REALTIME_RemoveThread";
    QX_REALTIME_DOMAIN_t *pstDomain = NULL;
    int32_t s32DomainFd = -1;
    uint32_t u32Ret;

    RT_ENTER_ARGPID(kName, s32Tid);
    RT_REQUIRE_ARG(kName, pszDomainName);
    int s32Outcome = qx_domain_lock(kName, pszDomainName, &pstDomain, &s32DomainFd, &u32Ret);
    // The arguments are in the reverse order of the other messages: kept.
    if (s32Outcome == QX_DOMAIN_MISSING)
        RT_LOGE("[RT_Impl][Err] [%s] pstDomain [%s] is NULL.\n", pszDomainName, kName);
    if (s32Outcome != QX_DOMAIN_LOCKED) return u32Ret;

    qx_name_t stDomain = qx_name_of(pstDomain->szName);
    do {
        QX_REALTIME_THREAD_t *pstThread = qx_find_thread(pstDomain, s32Tid);
        if (pstThread == NULL) {
            RT_LOGE("[RT_Impl][Err] [%s]: Thread [%d] doesn't exist in [%s].\n", kName, s32Tid,
                    pszDomainName);
            u32Ret = RT_ERR_NOT_EXIST;
            break;
        }
        RT_LOGD("[RT_Impl][DBG] [%s]: pid=[%d] exists in [%s].\n", kName, s32Tid, pszDomainName);
        const char *pszMoveTo = NULL;
        if (pstDomain->s32CpuNum != qx_cpu_count() &&
            _QX_WriteS32ToPath(s32Tid, RT_CPUSET_ROOT_TASKS) != RT_SUCCESS)
            pszMoveTo = RT_CPUSET_ROOT_TASKS;
        if (pszMoveTo == NULL && _QX_WriteS32ToPath(s32Tid, RT_CPUACCT_ROOT_TASKS) != RT_SUCCESS)
            pszMoveTo = RT_CPUACCT_ROOT_TASKS;
        if (pszMoveTo != NULL) {
            RT_LOGE("[RT_Impl][Err] [%s] Move pid=[%d] to %s failed.\n", kName, s32Tid, pszMoveTo);
            u32Ret = RT_ERR_SYSTEM;
            break;
        }
        if (qx_restore_attr(pstDomain, s32Tid, pstThread) == -1) {
            RT_LOGE("[RT_Impl][Err] _QX_REALTMIE_SchedSetAttr fails to restore setting, errno=%s\n",
                    RT_ERRNO_STR);
            u32Ret = RT_ERR_SCHED_SETATTR;
            break;
        }
        pstDomain->s32UtilCurrent = qx_wrap_sub(pstDomain->s32UtilCurrent, pstThread->Util);
        RT_LOGI("[RT_Impl][Info] s32UtilCurrent in Domain(%s) is %d.\n", stDomain.sz,
                pstDomain->s32UtilCurrent);
        if (_QX_ThreadDataDelete(pstThread) != RT_SUCCESS) {
            QX_REALTIME_CLASS_t *pstClass = qx_domain_class(pstDomain, pstThread->ClassIdx);
            RT_LOGE("[RT_Impl][Err] Remove Thread of pid=[%d] from Class=%s failed.\n", s32Tid,
                    qx_name_of(pstClass != NULL ? pstClass->szClassName : "").sz);
            u32Ret = RT_ERR_NOT_EXIST;
            break;
        }
        RT_LOGD("[RT_Impl][DBG] [%s] for pid=[%d] successfully.\n", kName, s32Tid);
        u32Ret = RT_SUCCESS;
    } while (0);

    qx_domain_unlock(s32DomainFd);
    RT_EXIT(kName, u32Ret);
    return u32Ret;
}

uint32_t QX_REALTIME_UpdateThreadUtil(const char *pszDomainName, QX_REALTIME_UTIL_t *pstUtil,
                                      int32_t s32Tid) {
    static const char kName[] = "QX_REALTIME_UpdateThreadUtil";
    QX_REALTIME_DOMAIN_t *pstDomain = NULL;
    int32_t s32DomainFd = -1;
    uint32_t u32Ret;

    RT_ENTER(kName);
    if (pstUtil == NULL) {
        RT_LOGE("[RT_Impl][Err] [%s] pstUtil is NULL.\n", kName);
        return RT_ERR_NULL;
    }
    RT_REQUIRE_ARG(kName, pszDomainName);
    int s32Outcome = qx_domain_lock(kName, pszDomainName, &pstDomain, &s32DomainFd, &u32Ret);
    if (s32Outcome == QX_DOMAIN_MISSING) RT_LOGE("[RT_Impl][Err] [%s] pstDomain is NULL.\n", kName);
    if (s32Outcome != QX_DOMAIN_LOCKED) return u32Ret;

    do {
        QX_REALTIME_THREAD_t *pstThread = qx_find_thread(pstDomain, s32Tid);
        if (pstThread == NULL) {
            RT_LOGE("[RT_Impl][Err] [%s]: Thread of pid=[%d] does not exist in RT.\n", kName,
                    s32Tid);
            u32Ret = RT_ERR_NOT_EXIST;
            break;
        }
        RT_LOGD("[RT_Impl][DBG] [%s]: pid=[%d] exists in RT.\n", kName, s32Tid);
        u32Ret = _QX_REALTIME_CheckOverUtil(pstDomain, pstUtil->DlRuntimeUs, pstUtil->DlDeadlineUs,
                                            pstUtil->DlPeriodUs, &pstUtil->s32Util,
                                            pstThread->Util);
        if (u32Ret != RT_SUCCESS) break;

        if (pstDomain->u32SchedType == RT_SCHED_TYPE_DEADLINE) {
            struct qx_sched_attr stNow;
            memset(&stNow, 0, sizeof(stNow));
            uint8_t bOverrun = 0;
            if (qx_sched_getattr(s32Tid, &stNow, QX_SCHED_ATTR_SIZE, 0) != 0)
                RT_LOGE("[RT_Impl][Err] _QX_REALTMIE_SchedGetAttr fails, s32Pid=[%d]\n", s32Tid);
            else
                bOverrun = (stNow.sched_flags & RT_SCHED_FLAG_DL_OVERRUN) != 0;
            // New parameters are applied in the root cpuset: deliberate, as at admission.
            if (_QX_WriteS32ToPath(s32Tid, RT_CPUSET_ROOT_TASKS) != RT_SUCCESS) {
                RT_LOGE("[RT_Impl][Err] [%s] Move pid=[%d] to %s failed.\n", kName, s32Tid,
                        RT_CPUSET_ROOT_TASKS);
                u32Ret = RT_ERR_SYSTEM;
                break;
            }
            u32Ret = _QX_REALTIME_SetSchedAttr(pstDomain,
                                               qx_domain_class(pstDomain, pstThread->ClassIdx),
                                               pstUtil, s32Tid, bOverrun);
            if (u32Ret != RT_SUCCESS) break;
            if (_QX_WriteS32ToPath(s32Tid, pstDomain->pszCpusetPathTasks) != RT_SUCCESS) {
                RT_LOGE("[RT_Impl][Err] [%s] Move pid = [%d] to [%s] failed.\n", kName, s32Tid,
                        pstDomain->pszCpusetPathTasks);
                u32Ret = RT_ERR_SYSTEM;
                break;
            }
        }
        pstDomain->s32UtilCurrent = qx_wrap_add(
            qx_wrap_sub(pstDomain->s32UtilCurrent, pstThread->Util), pstUtil->s32Util);
        RT_LOGI("[RT_Impl][Info] s32UtilCurrent in Domain[%s] is [%d] after add pid=[%d].\n",
                qx_name_of(pstDomain->szName).sz, pstDomain->s32UtilCurrent, s32Tid);
        pstThread->Util = pstUtil->s32Util;
        pstThread->DeadlineUs = pstUtil->DlDeadlineUs;
        pstThread->RuntimeUs = pstUtil->DlRuntimeUs;
        pstThread->PeriodUs = pstUtil->DlPeriodUs;
        RT_LOGD("[RT_Impl][DBG] [%s] for [%d] successfully.\n", kName, s32Tid);
    } while (0);

    qx_domain_unlock(s32DomainFd);
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
