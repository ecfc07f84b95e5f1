// Monitoring: per-domain CPU usage sampled from the domain's CPU time (cpuacct, or its threads'
// own where there is no cpuacct) and /proc/stat, and the diagnostic dump.
#include <pthread.h>
#include <stdlib.h>
#include <sys/file.h>
#include <sys/sysinfo.h>

#include "qx_realtime_internal.h"

#define RT_PROC_STAT "/proc/stat"

// A text field of a shared record, copied and terminated for printing.
template <size_t N>
struct qx_field {
    char sz[N];
    explicit qx_field(const char *pszField) {
        memcpy(sz, pszField, N);
        sz[N - 1] = '\0';
    }
};

uint32_t _QX_REALTIME_GetGroupCpuStat(QX_REALTIME_DOMAIN_t *pstDomain, int32_t *ps32Time) {
    char *pszText = NULL;
    if (pstDomain == NULL || ps32Time == NULL) {
        RT_LOGE("[RT_Impl][Err] [%s] Arg is NULL.\n", __func__);
        return RT_ERR_SYSTEM;
    }
    if (!qx_cgroup_has_cpuacct()) return qx_cgroup_threads_time(pstDomain, ps32Time);
    qx_field<RT_PATH_LEN> stPath(pstDomain->pszCpuacctPathStat);
    if (_QX_REALTIME_FileReader(stPath.sz, &pszText) != RT_SUCCESS) {
        RT_LOGE("[RT_Impl][Err] Read %s failed in %s.\n", stPath.sz, __func__);
        free(pszText);
        *ps32Time = 0;
        return RT_ERR_SYSTEM;
    }
    int s32User = 0, s32System = 0;
    int n = sscanf(pszText, "%*s %d%*[\n] %*s %d%*[\n]", &s32User, &s32System);
    free(pszText);
    if (n != 2) return RT_ERR_SYSTEM;
    *ps32Time = qx_wrap_add(s32User, s32System);
    return RT_SUCCESS;
}

uint32_t _QX_REALTIME_GetTotalCpuStat(int32_t *ps32Time) {
    char *pszText = NULL;
    if (ps32Time == NULL) {
        RT_LOGE("[RT_Impl][Err] [%s] Arg is NULL.\n", __func__);
        return RT_ERR_SYSTEM;
    }
    if (_QX_REALTIME_FileReader(RT_PROC_STAT, &pszText) != RT_SUCCESS) {
        RT_LOGE("[RT_Impl][Err] Read %s failed in %s.\n", RT_PROC_STAT, __func__);
        free(pszText);
        *ps32Time = 1;  // not 0: a later division by a difference of totals must not see 0
        return RT_ERR_SYSTEM;
    }
    int as32[7] = {0, 0, 0, 0, 0, 0, 0};
    int n = sscanf(pszText, "%*s %d %d %d %d %d %d %d", &as32[0], &as32[1], &as32[2], &as32[3],
                   &as32[4], &as32[5], &as32[6]);
    free(pszText);
    if (n != 7) return RT_ERR_SYSTEM;
    int32_t s32Sum = 0;
    for (int i = 0; i < 7; i++) s32Sum = qx_wrap_add(s32Sum, as32[i]);
    *ps32Time = s32Sum;
    return RT_SUCCESS;
}

// Elapsed ticks between two total readings; never 0, so it can always divide.
static float qx_total_delta(int32_t s32Now, int32_t s32Before) {
    uint32_t u32Delta = (uint32_t)s32Now - (uint32_t)s32Before;
    return (float)(u32Delta == 0 ? 1u : u32Delta);
}

static void qx_sleep_interval(const char *pszOp, uint32_t u32IntervalMs) {
    if (usleep(u32IntervalMs * 1000u) != 0)
        RT_LOGE("[RT_Impl][Err] [%s] usleep errno=%s\n", pszOp, RT_ERRNO_STR);
}

// The domain lookup of the sampler, under `mutex` for this process's mapping table.
static QX_REALTIME_DOMAIN_t *qx_sampler_lookup(const char *pszDomainName) {
    qx_mutex_hold stHold;
    return _QX_REALTIME_GetDomainFromName(pszDomainName, NULL);
}

// A budget in percent of one core. With a per-core capability of 0 no budget can be expressed:
// it reads 0.00 rather than a division by zero.
static float qx_budget_percent(float fUnits, float fDivisor) {
    return fDivisor == 0.0f ? 0.0f : fUnits / fDivisor;
}

// Said once per call, just before the first line that shows a budget: before the first sample in
// the one-domain mode (so not at all with 0 samples), before the Util Setting lines in the
// all-domains mode (which show budgets even with 0 samples). A call that prints no budget says
// nothing, so the warning always explains lines that follow it.
static void qx_warn_zero_capability(const char *pszOp, int32_t s32Cap) {
    if (s32Cap == 0)
        RT_LOGE("[RT_Impl][Err] [%s] s32CapPerCore is 0: budgets are shown as 0.00.\n", pszOp);
}

static uint32_t qx_sample_one_domain(const char *pszOp, const char *pszDomainName,
                                     uint32_t u32IntervalMs, uint32_t u32SampleNum) {
    QX_REALTIME_DOMAIN_t *pstDomain = qx_sampler_lookup(pszDomainName);
    if (pstDomain == NULL) {
        RT_LOGE("[RT_Impl][Err] [%s] pstDomain is NULL.\n", pszOp);
        return RT_ERR_NULL;
    }
    int s32Procs = qx_cpu_count();
    int32_t s32Cap = pstTop->s32CapPerCore;
    int32_t s32G0 = 0, s32T0 = 0;
    if (_QX_REALTIME_GetGroupCpuStat(pstDomain, &s32G0) != RT_SUCCESS ||
        _QX_REALTIME_GetTotalCpuStat(&s32T0) != RT_SUCCESS)
        return RT_ERR_SYSTEM;
    if (u32SampleNum == 0) return RT_SUCCESS;

    qx_warn_zero_capability(pszOp, s32Cap);
    float fDivisor = (float)((uint32_t)s32Procs * (uint32_t)s32Cap);
    for (uint32_t n = 0; n < u32SampleNum; n++) {
        qx_sleep_interval(pszOp, u32IntervalMs);
        int32_t s32G1 = s32G0, s32T1 = s32T0;
        _QX_REALTIME_GetGroupCpuStat(pstDomain, &s32G1);
        _QX_REALTIME_GetTotalCpuStat(&s32T1);
        uint32_t u32Busy = (uint32_t)qx_cpu_count() * ((uint32_t)s32G1 - (uint32_t)s32G0) * 100u;
        float fUsage = (float)u32Busy / qx_total_delta(s32T1, s32T0);
        int32_t s32Units =
            (int32_t)((uint32_t)pstDomain->s32UtilMax * (uint32_t)qx_cpu_count() * 100u);
        float fBudget = qx_budget_percent((float)s32Units, fDivisor);
        RT_LOGE("[RT_Impl][Err] %5.2f %% (budget %5.2f%%) %s\n", (double)fUsage, (double)fBudget,
                fUsage > fBudget ? "Overbudget" : "");
        s32G0 = s32G1;
        s32T0 = s32T1;
    }
    return RT_SUCCESS;
}

static uint32_t qx_sample_all_domains(uint32_t u32IntervalMs, uint32_t u32SampleNum) {
    static const char kAll[] = "_QX_REALTIME_GetAllDomainCpuUsage";
    int32_t as32Prev[RT_MAX_DOMAIN];
    float afBudget[RT_MAX_DOMAIN];
    memset(as32Prev, 0, sizeof(as32Prev));
    memset(afBudget, 0, sizeof(afBudget));
    QX_REALTIME_CENTRAL_t *pstCentral = pstTop->pstCentral;
    int32_t s32Cap = pstCentral->s32CapPerCore;
    float fDivisor = (float)((uint32_t)qx_cpu_count() * (uint32_t)s32Cap);
    int32_t s32T0 = 0;
    if (_QX_REALTIME_GetTotalCpuStat(&s32T0) != RT_SUCCESS) return RT_SUCCESS;
    qx_warn_zero_capability(kAll, s32Cap);

    int32_t s32Num = qx_central_domain_num(pstCentral);
    int32_t s32Sum0 = 0;
    for (int32_t i = 0; i < s32Num; i++) {
        qx_name_t stName = qx_name_of(pstCentral->szDomainNameList[i]);
        int32_t s32Setting = pstCentral->s32DomainUtilList[i];
        afBudget[i] = qx_budget_percent((float)(int32_t)((uint32_t)s32Setting * 100u), fDivisor);
        RT_LOGE("[RT_Impl][Err] [%-30s] Util Setting:%6d (%5.2f%%)\n", stName.sz, s32Setting,
                (double)(afBudget[i] * (float)qx_cpu_count()));
        QX_REALTIME_DOMAIN_t *pstDomain = qx_sampler_lookup(stName.sz);
        if (pstDomain == NULL) {
            RT_LOGE("[RT_Impl][Err] [%s] pstDomain is NULL.\n", kAll);
            continue;
        }
        if (_QX_REALTIME_GetGroupCpuStat(pstDomain, &as32Prev[i]) != RT_SUCCESS) return RT_SUCCESS;
        s32Sum0 = qx_wrap_add(s32Sum0, as32Prev[i]);
    }
    int32_t s32Total = pstCentral->s32UtilTotal;
    RT_LOGE("[RT_Impl][Err] Current total Util = %d (%5.2f%%)\n", s32Total,
            (double)qx_budget_percent((float)qx_cpu_count() * (float)s32Total * 100.0f, fDivisor));
    uint32_t u32Budget = (uint32_t)s32Cap * (uint32_t)pstCentral->s32BudgetCpuNum *
                         (uint32_t)pstCentral->s32UtilReservation / 100u;
    RT_LOGE("[RT_Impl][Err] Util Budget = %d * %d * %d / 100 = %d (%5.2f%%)\n", s32Cap,
            pstCentral->s32BudgetCpuNum, pstCentral->s32UtilReservation, (int)u32Budget,
            (double)qx_budget_percent((float)qx_cpu_count() * (float)u32Budget * 100.0f, fDivisor));
    RT_LOGE("[RT_Impl][Err] ============================================================\n");
    if (u32SampleNum == 0) return RT_SUCCESS;

    for (uint32_t n = 0; n < u32SampleNum; n++) {
        qx_sleep_interval(kAll, u32IntervalMs);
        int32_t s32T1 = s32T0;
        _QX_REALTIME_GetTotalCpuStat(&s32T1);
        float fDelta = qx_total_delta(s32T1, s32T0);
        s32T0 = s32T1;
        int32_t s32Sum1 = 0;
        for (int32_t i = 0; i < s32Num; i++) {
            qx_name_t stName = qx_name_of(pstCentral->szDomainNameList[i]);
            QX_REALTIME_DOMAIN_t *pstDomain = qx_sampler_lookup(stName.sz);
            if (pstDomain == NULL) {
                RT_LOGE("[RT_Impl][Err] [%s] pstDomain is NULL.\n", kAll);
                continue;
            }
            int32_t s32G = 0;
            if (_QX_REALTIME_GetGroupCpuStat(pstDomain, &s32G) != RT_SUCCESS) return RT_SUCCESS;
            float fUsage = (float)(((uint32_t)s32G - (uint32_t)as32Prev[i]) * 100u) / fDelta;
            as32Prev[i] = s32G;
            s32Sum1 = qx_wrap_add(s32Sum1, s32G);
            float fProcs = (float)qx_cpu_count();
            RT_LOGE("[RT_Impl][Err] [%-30s] %5.2f %% (budget %5.2f%%) %s\n", stName.sz,
                    (double)(fUsage * fProcs), (double)(afBudget[i] * fProcs),
                    fUsage > afBudget[i] ? "Overbudget" : "");
        }
        float fAll = (float)(((uint32_t)s32Sum1 - (uint32_t)s32Sum0) * 100u) / fDelta;
        RT_LOGE("[RT_Impl][Err] CPU usage of RT tasks in Realtime Framework: %5.2f%%\n",
                (double)(fAll * (float)qx_cpu_count()));
        s32Sum0 = s32Sum1;
        RT_LOGE("[RT_Impl][Err] \n");
    }
    return RT_SUCCESS;
}

uint32_t QX_REALTIME_GetDomainCpuUsage(const char *pszDomainName, uint32_t u32IntervalMs,
                                       uint32_t u32SampleNum) {
    static const char kName[] = "QX_REALTIME_GetDomainCpuUsage";
    int32_t s32Central = -1;
    RT_ENTER(kName);
    RT_REQUIRE_ARG(kName, pszDomainName);
    // "All" (its first three characters) names every domain, not a file.
    if (strncmp(pszDomainName, "All", 3) != 0) RT_REQUIRE_LOOKUP_NAME(kName, pszDomainName);
    uint32_t u32Ret;
    if (qx_frame_open(kName, &s32Central, &u32Ret) != QX_FRAME_GO) return u32Ret;
    // The measurement takes no lock file: it only reads, and it may run for a long time.
    close(s32Central);
    // Only the first three characters are compared: "Allocator" samples every domain too.
    if (strncmp(pszDomainName, "All", 3) == 0)
        u32Ret = qx_sample_all_domains(u32IntervalMs, u32SampleNum);
    else
        u32Ret = qx_sample_one_domain(kName, pszDomainName, u32IntervalMs, u32SampleNum);
    RT_EXIT(kName, u32Ret);
    return u32Ret;
}

// ---- the dump ----

static void qx_dump_record(QX_REALTIME_DOMAIN_t *pstDomain) {
    RT_LOGE("[RT_Impl][Err] %30s=%p\n", "DomainStartAddr", (void *)pstDomain);
    RT_LOGE("[RT_Impl][Err] %30s=0x%x\n", "s32NextOffset", (unsigned)pstDomain->s32NextOffset);
    RT_LOGE("[RT_Impl][Err] %30s=0x%x\n", "s32ClassStartOffset",
            (unsigned)pstDomain->s32ClassStartOffset);
    RT_LOGE("[RT_Impl][Err] %30s=%20d\n", "s32ClassNum", pstDomain->s32ClassNum);
    RT_LOGE("[RT_Impl][Err] %30s=0x%x\n", "s32ThreadStartOffset",
            (unsigned)pstDomain->s32ThreadStartOffset);
    RT_LOGE("[RT_Impl][Err] %30s=%20d\n", "s32ThreadNum", pstDomain->s32ThreadNum);
    RT_LOGE("[RT_Impl][Err] ==================================\n");
    RT_LOGE("[RT_Impl][Err] %30s=%20d\n", "s32CapPerCore", pstTop->s32CapPerCore);
    RT_LOGE("[RT_Impl][Err] %30s=%20d\n", "s32UtilMax", pstDomain->s32UtilMax);
    RT_LOGE("[RT_Impl][Err] %30s=%20d\n", "s32UtilCurrent", pstDomain->s32UtilCurrent);
    RT_LOGE("[RT_Impl][Err] %30s=%20s\n", "pszCpuset",
            qx_field<RT_CPUSET_LEN>(pstDomain->pszCpuset).sz);
    RT_LOGE("[RT_Impl][Err] %30s=%20d\n", "s32CpuNum", pstDomain->s32CpuNum);
    RT_LOGE("[RT_Impl][Err] %30s=%20d\n", "s32RtRuntimeUs", pstDomain->s32RtRuntimeUs);
    RT_LOGE("[RT_Impl][Err] %30s=%60s\n", "pszCpusetPathTasks",
            qx_field<RT_PATH_LEN>(pstDomain->pszCpusetPathTasks).sz);
    RT_LOGE("[RT_Impl][Err] %30s=%60s\n", "pszCpuacctPathTasks",
            qx_field<RT_PATH_LEN>(pstDomain->pszCpuacctPathTasks).sz);
    RT_LOGE("[RT_Impl][Err] %30s=%20d\n", "s32MemHighPrioResource",
            pstDomain->s32MemHighPrioResource);
    RT_LOGE("[RT_Impl][Err] %30s=%20d\n", "s32MemHighPrioUsage", pstDomain->s32MemHighPrioUsage);
    RT_LOGE("[RT_Impl][Err] %30s=%20d\n", "s32MemHighPrioAvailable",
            pstDomain->s32MemHighPrioAvailable);
    RT_LOGE("[RT_Impl][Err] %30s=[ ", "s32ProcessIDList");
    int32_t s32Pids = qx_domain_pid_list_num(pstDomain);
    for (int32_t i = 0; i < s32Pids; i++)
        if (pstDomain->s32ProcessIDList[i] != 0)
            RT_LOGE("[RT_Impl][Err] %5d ", pstDomain->s32ProcessIDList[i]);
    // At info level: at the default level the list stays unclosed in the log (kept).
    RT_LOGI("[RT_Impl][Info]  ]\n");
}

// The class options the domain's identity file keeps (all zero, the defaults, when it has none).
static void qx_read_class_options(const QX_REALTIME_DOMAIN_t *pstDomain, uint8_t *pu8Options) {
    memset(pu8Options, 0, RT_CLASS_OPTIONS_NUM);
    int32_t s32Fd = qx_identity_open(qx_name_of(pstDomain->szName).sz, QX_IDENTITY_EXISTING);
    if (s32Fd < 0) return;
    static QX_REALTIME_IDENTITY_t astEntries[RT_IDENTITY_SLOTS];  // the dump's lock is held
    if (qx_identity_read(s32Fd, astEntries, pu8Options) != 0)
        memset(pu8Options, 0, RT_CLASS_OPTIONS_NUM);
    close(s32Fd);
}

static void qx_dump_classes_and_threads(QX_REALTIME_DOMAIN_t *pstDomain) {
    uint8_t au8Options[RT_CLASS_OPTIONS_NUM];
    qx_read_class_options(pstDomain, au8Options);
    int32_t s32Classes = qx_domain_class_num(pstDomain);
    for (int32_t i = 0; i < s32Classes; i++) {
        QX_REALTIME_CLASS_t *pstClass = qx_domain_class(pstDomain, i);
        RT_LOGE(
            "[RT_Impl][Err] -------- Class[%2d]: [%s], ClassUtil/thread = [%d], RT_Priority = "
            "[%d], DL_DeadlineUs = [%d], DL_RuntimeUs = [%d], DL_PeriodUs = [%d];--------\n",
            i, qx_name_of(pstClass->szClassName).sz, pstClass->s32Util, pstClass->s32RtPriority,
            pstClass->s32DlDeadlineUs, pstClass->s32DlRuntimeUs, pstClass->s32DlPeriodUs);
        // Only a class that chose it says so: the lines above stay what they always were.
        if (i < RT_CLASS_OPTIONS_NUM && (au8Options[i] & RT_CLASS_OPT_NO_RECLAIM) != 0)
            RT_LOGE(
                "[RT_Impl][Err] -------- Class[%2d]: [%s] holds its reservation (DL_Reclaim 0: "
                "admitted without SCHED_FLAG_RECLAIM);--------\n",
                i, qx_name_of(pstClass->szClassName).sz);
    }
    RT_LOGE("[RT_Impl][Err] ==============================\n");
    int32_t s32Threads = qx_domain_thread_num(pstDomain);
    for (int32_t i = 0; i < s32Threads; i++) {
        const QX_REALTIME_THREAD_t *pstThread = qx_domain_thread(pstDomain, i);
        RT_LOGE("[RT_Impl][Err]     ThreadIdx   = [%10d]\n", i);
        RT_LOGE("[RT_Impl][Err]     ClassIdx    = [%10d]\n", pstThread->ClassIdx);
        RT_LOGE("[RT_Impl][Err]     Alive       = [%10d]\n", pstThread->Alive);
        RT_LOGE("[RT_Impl][Err]     ProcessID   = [%10d]\n", pstThread->ProcessID);
        RT_LOGE("[RT_Impl][Err]     Pid         = [%10d]\n", pstThread->Pid);
        RT_LOGE("[RT_Impl][Err]     Util        = [%10d]\n", pstThread->Util);
        RT_LOGE("[RT_Impl][Err]     Priority    = [%10d]\n", pstThread->Priority);
        RT_LOGE("[RT_Impl][Err]     DeadlineUs  = [%10d]\n", pstThread->DeadlineUs);
        RT_LOGE("[RT_Impl][Err]     RuntimeUs   = [%10d]\n", pstThread->RuntimeUs);
        RT_LOGE("[RT_Impl][Err]     PeriodUs    = [%10d]\n", pstThread->PeriodUs);
        RT_LOGE("[RT_Impl][Err] \n");
    }
    RT_LOGE("[RT_Impl][Err] --------End of Threads--------\n");
}

static void qx_dump_kernel_view(const char *pszOp, QX_REALTIME_DOMAIN_t *pstDomain) {
    qx_tasks_file_t astFiles[2];
    int s32Files = qx_cgroup_tasks_files(pstDomain, astFiles);
    for (int i = 0; i < s32Files; i++) {
        const qx_tasks_file_t &stFile = astFiles[i];
        qx_field<RT_PATH_LEN> stPath(stFile.pszField);
        char *pszText = NULL;
        // A tasks path other than the one the domain's name implies was written by someone else
        // and may name any file: it is never opened, and reads as a file that can't be read.
        uint32_t u32Read = qx_path_field_is(stFile.pszField, stFile.pszRoot,
                                            qx_name_of(pstDomain->szName).sz, "/tasks")
                               ? _QX_REALTIME_FileReader(stPath.sz, &pszText)
                               : qx_read_refused(stPath.sz);
        if (u32Read == RT_SUCCESS) {
            RT_LOGI("[RT_Impl][Info] Info from [%s]:\n%s\n", stPath.sz, pszText);
        } else {
            RT_LOGE("[RT_Impl][Err] Read %s failed in %s.\n", stPath.sz, pszOp);
        }
        free(pszText);
    }
}

uint32_t QX_REALTIME_DumpDomainInfo(const char *pszDomainName) {
    static const char kName[] = "QX_REALTIME_DumpDomainInfo";
    int32_t s32Central = -1;
    RT_ENTER(kName);
    RT_REQUIRE_ARG(kName, pszDomainName);
    // "All" (its first three characters) names every domain, not a file.
    if (strncmp(pszDomainName, "All", 3) != 0) RT_REQUIRE_LOOKUP_NAME(kName, pszDomainName);
    uint32_t u32Ret;
    if (qx_frame_open(kName, &s32Central, &u32Ret) != QX_FRAME_GO) return u32Ret;
    if (strncmp(pszDomainName, "All", 3) == 0) {
        // No lock file is taken on this path; the descriptor is closed rather than leaked.
        close(s32Central);
        _QX_REALTIME_GetAllDomainInfo();
        RT_EXIT(kName, RT_SUCCESS);
        return RT_SUCCESS;
    }

    // The domain hold's order, with the refusal logged while the central lock is still held.
    qx_mutex_hold stMutex;
    qx_lock_file stCentral;
    *stCentral.slot() = s32Central;
    if (!stCentral.lock()) {
        stCentral.release();
        stMutex.unlock();
        return qx_central_lock_refused(kName);
    }
    qx_lock_file stDomainFile;
    QX_REALTIME_DOMAIN_t *pstDomain = qx_get_domain_to_read(pszDomainName, stDomainFile.slot());
    // A domain whose lock file can't be locked is one whose lock file can't be had.
    if (pstDomain != NULL && !stDomainFile.lock()) {
        qx_domain_lock_refused(pszDomainName);
        pstDomain = NULL;
    }
    if (pstDomain == NULL) {
        RT_LOGE("[RT_Impl][Err] [%s] pstDomain is NULL for [%s].\n", kName, pszDomainName);
        stCentral.release();
        stMutex.unlock();
        return RT_ERR_NULL;
    }
    stCentral.release();

    uint32_t u32MapNum = pstTop->u32DomainMapNum;
    if (u32MapNum > RT_MAX_DOMAIN_MAP) u32MapNum = RT_MAX_DOMAIN_MAP;
    for (uint32_t i = 0; i < u32MapNum; i++)
        RT_LOGE("[RT_Impl][Err] [%s] %s is used in pid(%d)\n", kName,
                qx_name_of(pstTop->astDomainMap[i].szDomainName).sz, getpid());
    RT_LOGE("[RT_Impl][Err] ==================================\n");
    RT_LOGE("[RT_Impl][Err] ========== Domain: [%s] ==========\n",
            qx_name_of(pstDomain->szName).sz);
    qx_dump_record(pstDomain);
    qx_dump_classes_and_threads(pstDomain);
    qx_dump_kernel_view(kName, pstDomain);
    RT_LOGE("[RT_Impl][Err] =========================\n");

    stDomainFile.release();
    stMutex.unlock();
    RT_EXIT(kName, RT_SUCCESS);
    return RT_SUCCESS;
}
