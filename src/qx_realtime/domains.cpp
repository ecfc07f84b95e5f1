// Domains: lookup with the per-process mapping table, creation, enumeration, deletion, the budget
// check (shared with admission), the budget query and the DMIPS conversion.
#include <fcntl.h>
#include <pthread.h>
#include <stdlib.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/sysinfo.h>

#include "qx_realtime_internal.h"

// ---- names and the trust placed in a segment ----

static uint32_t qx_creation_mark(const QX_REALTIME_DOMAIN_t *pstDomain) {
    uint32_t u32Mark;
    memcpy(&u32Mark, (const char *)pstDomain + RT_DOMAIN_MARK_OFFSET, sizeof(u32Mark));
    return u32Mark;
}

void qx_set_creation_mark(QX_REALTIME_DOMAIN_t *pstDomain, uint32_t u32Mark) {
    memcpy((char *)pstDomain + RT_DOMAIN_MARK_OFFSET, &u32Mark, sizeof(u32Mark));
}

// What a mapped segment may be trusted with. A record whose creation never finished (its mark
// still set, or not even its name written) is unfinished; one whose name or the cgroup paths the
// library writes to are not those its name implies, or whose file is shorter than a segment, is
// broken: another process wrote over it, and acting on it could write into any file. A lookup
// that only reads the record (bWrites 0) leaves the paths to its caller, which must not open one
// that is not the domain's own.
static int qx_check_segment(const char *pszOp, const char *pszName,
                            const QX_REALTIME_DOMAIN_t *pstDomain, int32_t s32ShmFd, int bWrites) {
    long long s64Size = 0;
    if (qx_fd_is_short(s32ShmFd, &s64Size)) {
        RT_LOGE("[RT_Impl][Err] [%s] %s%s is %lld bytes, not %d: refused.\n", pszOp, RT_SHM_PREFIX,
                pszName, s64Size, RT_SHM_SIZE);
        return QX_LOOKUP_BROKEN;
    }
    if (qx_creation_mark(pstDomain) == RT_DOMAIN_CREATING || pstDomain->szName[0] == '\0')
        return QX_LOOKUP_UNFINISHED;
    const char *pszBad = NULL;
    if (strncmp(pstDomain->szName, pszName, RT_NAME_LEN) != 0)
        pszBad = "szName";
    else if (!bWrites)
        return QX_LOOKUP_FOUND;
    else
        pszBad = qx_cgroup_foreign_path(pszName, pstDomain);
    if (pszBad == NULL) return QX_LOOKUP_FOUND;
    RT_LOGE("[RT_Impl][Err] [%s] Domain [%s] is corrupted (%s): refused.\n", pszOp, pszName,
            pszBad);
    return QX_LOOKUP_BROKEN;
}

// ---- lookup ----

// Opens and maps the segment of a domain this process has not mapped yet, and enters a sound one
// in the table. 0: the lookup ends with NULL (*ps32Status says why; nothing stays open). 1: the
// lookup goes on to the lock file with *ppvAddr (NULL after a failed mapping, whose descriptor
// stays open) and *ps32ShmFd.
static int qx_map_domain(const char *kName, const char *pszDomainName, void **ppvAddr,
                         int32_t *ps32ShmFd, QX_REALTIME_DOMAIN_MAP_t **ppstEntry, int *ps32Status,
                         int bWrites) {
    char szPath[RT_PATH_LEN];
    if (qx_segment_path(szPath, sizeof(szPath), pszDomainName) < 0) return 0;
    qx_fd stShm(open(szPath, O_RDWR | O_CLOEXEC | O_NOFOLLOW));
    // No such domain (or a symlink, which is never followed): the caller reports it.
    *ps32Status = QX_LOOKUP_MISSING;
    if (!stShm.ok()) return 0;
    long long s64Size = qx_regular_size(stShm.get());
    if (s64Size < 0) {
        // Not a segment (a FIFO, a device): it fails as its ftruncate would.
        RT_LOGE("[RT_Impl][Err] [%s] ftruncate fails, errno=%s\n", kName, RT_ERRNO_STR);
        return 0;
    }
    // Sizing makes a short file whole again with zeros where its end was: a segment that is
    // shorter than it should be is not sized and used but refused. An empty one is what a
    // creator killed before it sized the segment leaves: unfinished.
    if (s64Size < RT_SHM_SIZE) {
        stShm.reset();
        if (s64Size == 0) {
            *ps32Status = QX_LOOKUP_UNFINISHED;
            return 0;
        }
        RT_LOGE("[RT_Impl][Err] [%s] %s is %lld bytes, not %d: refused.\n", kName, szPath, s64Size,
                RT_SHM_SIZE);
        *ps32Status = QX_LOOKUP_BROKEN;
        return 0;
    }
    *ps32Status = QX_LOOKUP_FAILED;
    if (ftruncate(stShm.get(), RT_SHM_SIZE) != 0) {
        RT_LOGE("[RT_Impl][Err] [%s] ftruncate fails, errno=%s\n", kName, RT_ERRNO_STR);
        return 0;
    }
    if (pstTop->u32DomainMapNum >= RT_MAX_DOMAIN_MAP) {
        // The table has room for 8 mappings; a further domain is refused, never written
        // past the table.
        RT_LOGE(
            "[RT_Impl][Err] [%s] Can't map domain [%s]: this process maps at most %d "
            "domains.\n",
            kName, pszDomainName, RT_MAX_DOMAIN_MAP);
        return 0;
    }
    qx_mapping stMap;
    *ppvAddr = NULL;
    if (!stMap.map(stShm.get())) {
        RT_LOGE("[RT_Impl][Err] [%s][PID=%d][TID=%ld] mmap fails\n", kName, getpid(), qx_gettid());
        // The lookup goes on to the lock file; the descriptor stays open.
        *ps32ShmFd = stShm.release();
        return 1;
    }
    // Only a finished, sound domain enters the table.
    *ps32Status = qx_check_segment(kName, pszDomainName, (QX_REALTIME_DOMAIN_t *)stMap.get(),
                                   stShm.get(), bWrites);
    if (*ps32Status != QX_LOOKUP_FOUND) return 0;
    QX_REALTIME_DOMAIN_MAP_t *pstEntry = &pstTop->astDomainMap[pstTop->u32DomainMapNum];
    *ppstEntry = pstEntry;
    *ppvAddr = stMap.release();
    pstEntry->pvDomainAddr = *ppvAddr;
    qx_copy_name(pstEntry->szDomainName, pszDomainName);
    pstEntry->s32ShmFd = stShm.release();
    pstTop->u32DomainMapNum += 1;
    RT_LOGI("[RT_Impl][Info] [%s][PID=%d][TID=%ld] shm exists. mmap=%p, s32ShmFd=%d\n", kName,
            getpid(), qx_gettid(), *ppvAddr, pstEntry->s32ShmFd);
    *ps32ShmFd = pstEntry->s32ShmFd;
    return 1;
}

void qx_domain_lock_refused(const char *pszDomainName) {
    RT_LOGE("[RT_Impl][Err] %s (%d), can't get %s flock\n", "_QX_REALTIME_GetDomainFromName",
            __LINE__, pszDomainName);
}

// The lookup; bWrites 0 for a caller that only reads the record (see qx_check_segment).
static QX_REALTIME_DOMAIN_t *qx_lookup(const char *pszDomainName, int32_t *pFlockFd,
                                       int *ps32Status, int bWrites) {
    static const char kName[] = "_QX_REALTIME_GetDomainFromName";
    int s32Status = QX_LOOKUP_FAILED;
    if (ps32Status == NULL) ps32Status = &s32Status;
    *ps32Status = QX_LOOKUP_FAILED;
    if (pszDomainName == NULL) return NULL;
    if (pstTop == NULL || pstTop->pstCentral == NULL) {
        if (_QX_REALTIME_GetCentralShm() != RT_SUCCESS) {
            RT_LOGE("[RT_Impl][Err] %s (%d), can't get existing central data\n", kName, __LINE__);
            return NULL;
        }
    }
    // A name that could leave the segment directory names no domain (names read from a
    // corrupted central list come this way too).
    if (!qx_domain_name_ok(pszDomainName)) {
        *ps32Status = QX_LOOKUP_MISSING;
        return NULL;
    }

    void *pvAddr = NULL;
    int32_t s32ShmFd = -1;
    QX_REALTIME_DOMAIN_MAP_t *pstEntry = NULL;
    uint32_t u32MapNum = pstTop->u32DomainMapNum;
    if (u32MapNum > RT_MAX_DOMAIN_MAP) u32MapNum = RT_MAX_DOMAIN_MAP;
    // An entry without an address (left by a creation that failed after its segment was freed)
    // counts as not found; a later entry of the same name may hold the domain's live mapping.
    for (uint32_t i = 0; i < u32MapNum; i++) {
        if (pstTop->astDomainMap[i].pvDomainAddr != NULL &&
            strcmp(pstTop->astDomainMap[i].szDomainName, pszDomainName) == 0) {
            pvAddr = pstTop->astDomainMap[i].pvDomainAddr;
            *ps32Status = qx_check_segment(kName, pszDomainName, (QX_REALTIME_DOMAIN_t *)pvAddr,
                                           pstTop->astDomainMap[i].s32ShmFd, bWrites);
            if (*ps32Status != QX_LOOKUP_FOUND) return NULL;
            break;
        }
    }

    if (pvAddr == NULL &&
        !qx_map_domain(kName, pszDomainName, &pvAddr, &s32ShmFd, &pstEntry, ps32Status, bWrites))
        return NULL;

    if (_QX_REALTIME_GetFlock(pszDomainName, pFlockFd) != RT_SUCCESS) {
        qx_domain_lock_refused(pszDomainName);
        // A descriptor that entered the table stays open with it: it is how a later lookup
        // sees that another process cut the file short.
        if (s32ShmFd >= 0 && pstEntry == NULL) close(s32ShmFd);
        *ps32Status = QX_LOOKUP_FAILED;
        return NULL;
    }
    if (pvAddr == NULL) return NULL;
    *ps32Status = QX_LOOKUP_FOUND;
    return (QX_REALTIME_DOMAIN_t *)pvAddr;
}

QX_REALTIME_DOMAIN_t *qx_find_domain(const char *pszDomainName, int32_t *pFlockFd,
                                     int *ps32Status) {
    return qx_lookup(pszDomainName, pFlockFd, ps32Status, 1);
}

// The lookup with a domain whose creation never finished reported.
static QX_REALTIME_DOMAIN_t *qx_lookup_reported(const char *pszDomainName, int32_t *pFlockFd,
                                                int bWrites) {
    int s32Status = QX_LOOKUP_FAILED;
    QX_REALTIME_DOMAIN_t *pstDomain = qx_lookup(pszDomainName, pFlockFd, &s32Status, bWrites);
    if (s32Status == QX_LOOKUP_UNFINISHED)
        RT_LOGE(
            "[RT_Impl][Err] [%s] Domain [%s] is being created, or its creator died before "
            "it was done: refused.\n",
            "_QX_REALTIME_GetDomainFromName", pszDomainName);
    return pstDomain;
}

QX_REALTIME_DOMAIN_t *_QX_REALTIME_GetDomainFromName(const char *pszDomainName, int32_t *pFlockFd) {
    return qx_lookup_reported(pszDomainName, pFlockFd, 1);
}

QX_REALTIME_DOMAIN_t *qx_get_domain_to_read(const char *pszDomainName, int32_t *pFlockFd) {
    return qx_lookup_reported(pszDomainName, pFlockFd, 0);
}

// The charge as the in-use records add it up, after a holder died under the domain's lock.
static void qx_recount_charge(const char *pszOp, QX_REALTIME_DOMAIN_t *pstDomain) {
    int32_t s32Sum = 0;
    int32_t s32Num = qx_domain_thread_num(pstDomain);
    for (int32_t i = 0; i < s32Num; i++) {
        const QX_REALTIME_THREAD_t *pstThread = qx_domain_thread(pstDomain, i);
        if (pstThread->Alive != 0) s32Sum = qx_wrap_add(s32Sum, pstThread->Util);
    }
    RT_LOGI(
        "[RT_Impl][Info] [%s] the last holder of Domain[%s] died under its lock: "
        "s32UtilCurrent %d taken again from the records as %d.\n",
        pszOp, qx_name_of(pstDomain->szName).sz, pstDomain->s32UtilCurrent, s32Sum);
    pstDomain->s32UtilCurrent = s32Sum;
}

int qx_domain_hold::take(const char *pszOp, const char *pszDomainName, uint32_t *pu32Ret) {
    int32_t s32Central = -1;
    int s32Frame = qx_frame_open(pszOp, &s32Central, pu32Ret);
    if (s32Frame == QX_FRAME_FAILED) return QX_DOMAIN_NO_CENTRAL;
    if (s32Frame == QX_FRAME_DISABLED) return QX_DOMAIN_DISABLED;
    stMutex_.lock();
    qx_lock_file stCentral;
    *stCentral.slot() = s32Central;
    if (!stCentral.lock()) {
        stCentral.release();
        release();
        *pu32Ret = qx_central_lock_refused(pszOp);
        return QX_DOMAIN_NO_CENTRAL;
    }
    QX_REALTIME_DOMAIN_t *pstDomain = _QX_REALTIME_GetDomainFromName(pszDomainName, stFile_.slot());
    stCentral.release();
    // A domain whose lock file can't be locked is one whose lock file can't be had.
    if (pstDomain != NULL && !stFile_.lock()) {
        qx_domain_lock_refused(pszDomainName);
        pstDomain = NULL;
    }
    if (pstDomain == NULL) {
        release();
        *pu32Ret = RT_ERR_NULL;
        return QX_DOMAIN_MISSING;
    }
    if (qx_creation_mark(pstDomain) == RT_DOMAIN_BUSY) qx_recount_charge(pszOp, pstDomain);
    qx_set_creation_mark(pstDomain, RT_DOMAIN_BUSY);
    pstDomain_ = pstDomain;
    *pu32Ret = RT_SUCCESS;
    return QX_DOMAIN_LOCKED;
}

// ---- creation ----

// Fills the domain record from the parsed configuration and builds its control groups
// (steps after the parse of QX_REALTIME_CreateDomain).
static uint32_t qx_create_domain_impl(QX_REALTIME_DOMAIN_t *pstDomain) {
    static const char kImpl[] = "QX_REALTIME_CreateDomain_Impl";
    RT_ENTER(kImpl);
    pstDomain->processIDListNum = RT_PROCESS_ID_LIST_NUM;
    pstDomain->s32MemHighPrioResource = 3;
    pstDomain->s32MemHighPrioUsage = 0;
    pstDomain->s32MemHighPrioAvailable = 3;
    pstDomain->szName[RT_NAME_LEN - 1] = '\0';
    const char *pszName = pstDomain->szName;

    if (qx_cgroup_domain_paths(pstDomain) != RT_SUCCESS) return RT_ERR_FAILED;
    if (qx_cgroup_make_accounting_group(pstDomain) != RT_SUCCESS) return RT_ERR_FAILED;

    uint32_t u32Limit = (uint32_t)pstTop->s32BudgetCpuNum * (uint32_t)pstTop->s32CapPerCore *
                        (uint32_t)pstTop->s32UtilReservation / 100u;
    int32_t s32Total = pstTop->pstCentral->s32UtilTotal;
    if ((uint32_t)s32Total > u32Limit) {
        RT_LOGE(
            "[RT_Impl][Err] [%s] The total utilization (%d) of all domains overflows, %s fails\n",
            kImpl, s32Total, pszName);
        RT_LOGE(
            "[RT_Impl][Err] [%s] It shouldn't exceed (CapPerCore * BudgetCpuNums  * "
            "CapResrvation)=(%d * %d * %d%%)\n",
            kImpl, pstTop->s32CapPerCore, pstTop->s32BudgetCpuNum, pstTop->s32UtilReservation);
        return RT_ERR_FAILED;
    }

    if (pstDomain->s32CpuNum == 0 || pstDomain->s32CpuNum > qx_cpu_count()) {
        RT_LOGE("[RT_Impl][Err] [%s] Domain [%s] Cpuset = [%s] CpuMask = [0x%x], CpuNum = [%d]\n",
                kImpl, pszName, pstDomain->pszCpuset, pstDomain->u32CpuMask, pstDomain->s32CpuNum);
        return RT_ERR_FAILED;
    }

    if (qx_cgroup_make_cpuset_group(pstDomain) != RT_SUCCESS) return RT_ERR_FAILED;

    if (pstDomain->s32UtilMax == 0) {
        if (pstDomain->u32SchedType != RT_SCHED_TYPE_RR) {
            RT_LOGE("[RT_Impl][Err] [%s] %s should be with SCHED_RR since its Util is 0\n", kImpl,
                    pszName);
            return RT_ERR_FAILED;
        }
        RT_LOGI("[RT_Impl][Info] [%s] %s Util is 0, so skip and 'cpu' cgroup setting\n", kImpl,
                pszName);
    } else {
        RT_EXIT(kImpl, RT_SUCCESS);
    }
    return RT_SUCCESS;
}

// Whether a creation makes the domain. A domain whose segment exists is never initialised
// again, even when this process can't map it (its table is full): that would wipe the records of
// a live domain. A damaged one is refused; one whose creator died half-way is removed and made
// anew (creations hold the central lock, so under it an unfinished domain is one nobody will
// finish).
enum { QX_CREATE_NEW = 0, QX_CREATE_EXISTS, QX_CREATE_REFUSED };
static int qx_creation_wanted(const char *kName, const char *pszDomainName) {
    int s32Found = QX_LOOKUP_FAILED;
    if (qx_find_domain(pszDomainName, NULL, &s32Found) != NULL) return QX_CREATE_EXISTS;
    if (s32Found == QX_LOOKUP_BROKEN) return QX_CREATE_REFUSED;
    char szShmPath[RT_PATH_LEN];
    if (qx_segment_path(szShmPath, sizeof(szShmPath), pszDomainName) < 0) return QX_CREATE_NEW;
    if (s32Found == QX_LOOKUP_UNFINISHED) {
        RT_LOGE(
            "[RT_Impl][Err] [%s]: Domain [%s] was left half-created by a process that died: "
            "created again.\n",
            kName, pszDomainName);
        unlink(szShmPath);
        return QX_CREATE_NEW;
    }
    struct stat st;
    return lstat(szShmPath, &st) == 0 && S_ISREG(st.st_mode) ? QX_CREATE_EXISTS : QX_CREATE_NEW;
}

// A new segment's header: marked as being created, empty, named, records starting after it.
static void qx_start_domain_record(QX_REALTIME_DOMAIN_t *pstDomain, const char *pszDomainName) {
    qx_set_creation_mark(pstDomain, RT_DOMAIN_CREATING);
    pstDomain->s32NextOffset = 0;
    pstDomain->s32ClassStartOffset = 0;
    pstDomain->s32ClassNum = 0;
    pstDomain->s32ThreadStartOffset = 0;
    pstDomain->s32ThreadNum = 0;
    pstDomain->u32SchedType = 0;
    qx_copy_name(pstDomain->szName, pszDomainName);
    pstDomain->s32NextOffset = RT_DOMAIN_HEADER_SIZE;
    pstDomain->s32ClassStartOffset = RT_DOMAIN_HEADER_SIZE;
}

// Enters a created domain in this process's mapping table. Write, count, then test: the order of
// the table's bookkeeping is kept as designed.
static uint32_t qx_enter_created_domain(const char *pszDomainName, int32_t s32ShmFd, void *pvAddr) {
    uint32_t u32Index = pstTop->u32DomainMapNum;
    QX_REALTIME_DOMAIN_MAP_t *pstEntry = NULL;
    if (u32Index < RT_MAX_DOMAIN_MAP) {
        pstEntry = &pstTop->astDomainMap[u32Index];
        qx_copy_name(pstEntry->szDomainName, pszDomainName);
        pstEntry->s32ShmFd = s32ShmFd;
        pstEntry->pvDomainAddr = pvAddr;
        pstTop->u32DomainMapNum = u32Index + 1;
    }
    if (u32Index + 1 < RT_MAX_DOMAIN_MAP) return RT_SUCCESS;
    RT_LOGE_AS("QX_REALTIME_CreateDomain",
               "[RT_Impl][Err] Domain number (%d) in the process shouldn't more than %d\n",
               (int)(u32Index + 1), RT_MAX_DOMAIN_MAP);
    // The entry stays, but without its address: no later lookup may hand out a mapping that the
    // creation's undo releases.
    if (pstEntry != NULL) {
        pstEntry->pvDomainAddr = NULL;
        pstEntry->s32ShmFd = -1;
    }
    return RT_ERR_FAILED;
}

uint32_t QX_REALTIME_CreateDomain(const char *pszDomainName) {
    static const char kName[] = "QX_REALTIME_CreateDomain";
    int32_t s32Central = -1;

    RT_ENTER(kName);
    RT_REQUIRE_ARG(kName, pszDomainName);
    RT_REQUIRE_DOMAIN_NAME(kName, pszDomainName);
    uint32_t u32Ret;
    if (qx_frame_open(kName, &s32Central, &u32Ret) != QX_FRAME_GO) return u32Ret;
    qx_central_hold stCentral(s32Central);
    if (!stCentral.locked()) {
        stCentral.release();
        return qx_central_lock_refused(kName);
    }

    switch (qx_creation_wanted(kName, pszDomainName)) {
    case QX_CREATE_REFUSED:
        return RT_ERR_FAILED;
    case QX_CREATE_EXISTS:
        RT_LOGI("[RT_Impl][Info] [%s]: Domain [%s] is already created, skipped.\n", kName,
                pszDomainName);
        return RT_SUCCESS;
    default:
        break;
    }

    int32_t s32ShmFd = -1;
    void *pvAddr = NULL;
    u32Ret = _QX_REALTIME_SharedMemoryAlloc(pszDomainName, &s32ShmFd, &pvAddr);
    if (u32Ret != RT_SUCCESS || pvAddr == NULL) {
        if (u32Ret != RT_SUCCESS) {
            RT_LOGE("[RT_Impl][Err] [%s] shared memory initialization fails\n", kName);
        } else {
            RT_LOGE("[RT_Impl][Err] Can't allocate for pstDomain, errno=%s.\n", RT_ERRNO_STR);
            u32Ret = RT_ERR_FAILED;
        }
        return u32Ret;
    }

    QX_REALTIME_DOMAIN_t *pstDomain = (QX_REALTIME_DOMAIN_t *)pvAddr;
    qx_start_domain_record(pstDomain, pszDomainName);
    // The identities of the threads to come, in a file of their own made while the domain is still
    // marked as being created (a creation cut short is done again, file included). Without it
    // the domain works as before; its first admission tries to make it again.
    // The classes' options go into it once the configuration is read.
    qx_fd stIdentities(qx_identity_open(pszDomainName, QX_IDENTITY_FRESH));
    uint8_t au8ClassOptions[RT_CLASS_OPTIONS_NUM];
    u32Ret = qx_config_parse_domain(pstJsonPath, pstDomain, au8ClassOptions);
    // Written only when a class chose something: all defaults are what the new file holds.
    bool bChosen = false;
    for (uint8_t u8Option : au8ClassOptions) bChosen = bChosen || u8Option != 0;
    if (u32Ret == RT_SUCCESS && stIdentities.ok() && bChosen &&
        qx_identity_write_options(stIdentities.get(), au8ClassOptions) != 0)
        RT_LOGE("[RT_Impl][Err] [%s] Domain [%s]: the class options can't be kept, errno=%s.\n",
                kName, pszDomainName, RT_ERRNO_STR);
    stIdentities.reset();
    if (u32Ret != RT_SUCCESS) {
        RT_LOGE("[RT_Impl][Err] Failed to parse Json at [%s].\n",
                pstJsonPath != NULL ? pstJsonPath : "(none)");
    } else {
        u32Ret = qx_create_domain_impl(pstDomain);
    }
    if (u32Ret == RT_SUCCESS) u32Ret = qx_enter_created_domain(pszDomainName, s32ShmFd, pvAddr);

    if (u32Ret != RT_SUCCESS) {
        _QX_REALTIME_SharedMemoryFree(pszDomainName, &s32ShmFd, pvAddr);
        qx_identity_remove(pszDomainName);
        return u32Ret;
    }
    qx_set_creation_mark(pstDomain, 0);  // complete: from here on it is a domain
    stCentral.release();
    RT_EXIT(kName, RT_SUCCESS);
    return RT_SUCCESS;
}

// ---- enumeration ----

uint32_t QX_REALTIME_GetAllDomainName(char *pNames, uint32_t u32BufSize) {
    static const char kName[] = "QX_REALTIME_GetAllDomainName";
    int32_t s32Central = -1;

    RT_ENTER(kName);
    uint32_t u32Ret;
    if (qx_frame_open(kName, &s32Central, &u32Ret) != QX_FRAME_GO) return u32Ret;
    qx_central_hold stCentral(s32Central);
    if (!stCentral.locked()) {
        stCentral.release();
        return qx_central_lock_refused(kName);
    }

    QX_REALTIME_CENTRAL_t *pstCentral = pstTop->pstCentral;
    RT_LOGI("[RT_Impl][Info] ==================================\n");
    RT_LOGI("[RT_Impl][Info] Total Used Util for all processes=%d\n", pstCentral->s32UtilTotal);
    if (pNames != NULL) {
        memset(pNames, 0, u32BufSize);
        int32_t s32Num = qx_central_domain_num(pstCentral);
        for (int32_t i = 0; i < s32Num; i++) {
            RT_LOGI("[RT_Impl][Info] %-30s=%6d\n", qx_name_of(pstCentral->szDomainNameList[i]).sz,
                    pstCentral->s32DomainUtilList[i]);
            uint32_t u32Offset = (uint32_t)RT_NAME_LEN * (uint32_t)i;
            // Only the slot's start is tested, as designed: size the buffer as 64 x domains.
            if (u32Offset >= u32BufSize) {
                RT_LOGE("[RT_Impl][Err] [%s] Buffer overflows: outlen=%d, bufsize=%d", kName,
                        (int)u32Offset, (int)u32BufSize);
                u32Ret = RT_ERR_SYSTEM;
                break;
            }
            memcpy(pNames + u32Offset, pstCentral->szDomainNameList[i], RT_NAME_LEN);
        }
    }
    stCentral.release();
    RT_EXIT(kName, u32Ret);
    return u32Ret;
}

// Reads a small /proc file whole; NULL when the path is unusable or the file can't be read.
static char *qx_read_whole(const char *pszPath, int s32PathLen) {
    char *pszText = NULL;
    if (s32PathLen < 0) return NULL;
    if (_QX_REALTIME_FileReader(pszPath, &pszText) != RT_SUCCESS) {
        free(pszText);
        return NULL;
    }
    return pszText;
}

// Drops the last character (the line end of a comm file).
static void qx_strip_last(char *pszText) {
    size_t uLen = strlen(pszText);
    if (uLen > 0) pszText[uLen - 1] = '\0';
}

uint32_t _QX_REALTIME_GetAllDomainInfo(void) {
    static const char kName[] = "_QX_REALTIME_GetAllDomainInfo";
    if (pstTop == NULL || pstTop->pstCentral == NULL) return RT_ERR_NULL;
    if (!qx_central_intact(kName)) return RT_ERR_NULL;
    QX_REALTIME_CENTRAL_t *pstCentral = pstTop->pstCentral;
    int32_t s32Num = qx_central_domain_num(pstCentral);
    for (int32_t i = 0; i < s32Num; i++) {
        qx_name_t stName = qx_name_of(pstCentral->szDomainNameList[i]);
        QX_REALTIME_DOMAIN_t *pstDomain = _QX_REALTIME_GetDomainFromName(stName.sz, NULL);
        if (pstDomain == NULL) {
            RT_LOGE("[RT_Impl][Err] [%s] pstDomain is NULL.\n", kName);
            continue;
        }
        RT_LOGE(
            "[RT_Impl][Err] ============================ Domain: [%s] "
            "===========================\n",
            qx_name_of(pstDomain->szName).sz);
        int32_t s32Threads = qx_domain_thread_num(pstDomain);
        for (int32_t j = 0; j < s32Threads; j++) {
            QX_REALTIME_THREAD_t *pstThread = qx_domain_thread(pstDomain, j);
            if (pstThread->Alive == 0) continue;
            QX_REALTIME_CLASS_t *pstClass = qx_domain_class(pstDomain, pstThread->ClassIdx);
            qx_name_t stClass = qx_name_of(pstClass != NULL ? pstClass->szClassName : "");
            char szPath[RT_PATH_LEN];
            if (pstThread->ProcessID != 0) {
                // The program is the command line's first word only: the reader joins 127-byte
                // pieces, each cut at its first zero byte, so a longer command line would bring
                // the first word of every piece along.
                char *pszCmd = NULL;
                size_t uArgv0 = 0;
                if (RT_FORMAT_PATH(szPath, "/proc/%d/cmdline", pstThread->ProcessID) < 0 ||
                    qx_read_file_first_word(szPath, &pszCmd, &uArgv0) != RT_SUCCESS) {
                    free(pszCmd);
                    continue;  // the process has gone
                }
                pszCmd[uArgv0] = '\0';
                char *pszSlash = strrchr(pszCmd, '/');
                const char *pszProgram = pszSlash != NULL ? pszSlash + 1 : pszCmd;
                char *pszComm =
                    qx_read_whole(szPath, RT_FORMAT_PATH(szPath, "/proc/%d/task/%d/comm",
                                                         pstThread->ProcessID, pstThread->Pid));
                if (pszComm != NULL && pszComm[0] != '\0') {
                    qx_strip_last(pszComm);
                    RT_LOGE("[RT_Impl][Err] [%5d]%-45s [%5d]%-16s %s\n", pstThread->ProcessID,
                            pszProgram, pstThread->Pid, pszComm, stClass.sz);
                }
                free(pszComm);
                free(pszCmd);
            } else {
                char *pszComm =
                    qx_read_whole(szPath, RT_FORMAT_PATH(szPath, "/proc/%d/comm", pstThread->Pid));
                if (pszComm == NULL) return RT_ERR_SYSTEM;  // deliberately unlike the branch above
                if (pszComm[0] != '\0') {
                    qx_strip_last(pszComm);
                    RT_LOGE("[RT_Impl][Err] [%5d]%-16s %s\n", pstThread->Pid, pszComm, stClass.sz);
                }
                free(pszComm);
            }
        }
        RT_LOGE("[RT_Impl][Err] \n");
    }
    return RT_SUCCESS;
}

// ---- deletion ----

// Drops this process's mapping of a domain without reading the segment (it may be cut short).
static void qx_forget_mapping(const char *pszDomainName) {
    uint32_t u32MapNum = pstTop->u32DomainMapNum;
    if (u32MapNum > RT_MAX_DOMAIN_MAP) u32MapNum = RT_MAX_DOMAIN_MAP;
    for (uint32_t i = 0; i < u32MapNum; i++) {
        QX_REALTIME_DOMAIN_MAP_t *pstEntry = &pstTop->astDomainMap[i];
        if (pstEntry->pvDomainAddr == NULL ||
            strncmp(pstEntry->szDomainName, pszDomainName, RT_NAME_LEN) != 0)
            continue;
        munmap(pstEntry->pvDomainAddr, RT_SHM_SIZE);
        if (pstEntry->s32ShmFd >= 0) close(pstEntry->s32ShmFd);
        for (uint32_t j = i; j + 1 < u32MapNum; j++)
            pstTop->astDomainMap[j] = pstTop->astDomainMap[j + 1];
        memset(&pstTop->astDomainMap[u32MapNum - 1], 0, sizeof(QX_REALTIME_DOMAIN_MAP_t));
        pstTop->u32DomainMapNum -= 1;
        return;
    }
}

int32_t QX_REALTIME_DeleteDomain(const char *pszDomainName) {
    static const char kName[] = "QX_REALTIME_DeleteDomain";
    int32_t s32Central = -1;

    RT_ENTER(kName);
    RT_REQUIRE_ARG(kName, pszDomainName);
    RT_REQUIRE_LOOKUP_NAME(kName, pszDomainName);
    uint32_t u32Ret;
    if (qx_frame_open(kName, &s32Central, &u32Ret) != QX_FRAME_GO) return (int32_t)u32Ret;
    qx_central_hold stCentral(s32Central);
    if (!stCentral.locked()) {
        stCentral.release();
        return (int32_t)qx_central_lock_refused(kName);
    }
    int s32Found = QX_LOOKUP_FAILED;
    QX_REALTIME_DOMAIN_t *pstDomain = qx_find_domain(pszDomainName, NULL, &s32Found);
    if (s32Found == QX_LOOKUP_UNFINISHED || s32Found == QX_LOOKUP_BROKEN) {
        // Nothing in it can be trusted or used: this process lets go of its mapping without
        // reading it, and the files go, as a domain's would.
        qx_forget_mapping(pszDomainName);
        char szShmPath[RT_PATH_LEN];
        if (qx_segment_path(szShmPath, sizeof(szShmPath), pszDomainName) >= 0 &&
            unlink(szShmPath) == 0)
            RT_LOGE("[RT_Impl][Err] [%s] unlink %s success\n", kName, szShmPath);
        qx_identity_remove(pszDomainName);
    } else if (pstDomain == NULL) {
        RT_LOGE("[RT_Impl][Err] [%s] pstDomain is NULL.\n", kName);
        return (int32_t)RT_ERR_NULL;
    }

    uint32_t u32MapNum = pstTop->u32DomainMapNum;
    if (u32MapNum > RT_MAX_DOMAIN_MAP) u32MapNum = RT_MAX_DOMAIN_MAP;
    for (uint32_t i = 0; pstDomain != NULL && i < u32MapNum; i++) {
        QX_REALTIME_DOMAIN_MAP_t *pstEntry = &pstTop->astDomainMap[i];
        // The entry that the lookup used: an earlier entry of the same name may be one left
        // without a mapping by a failed creation, and freeing it would leave this one behind.
        if (pstEntry->pvDomainAddr != (void *)pstDomain ||
            strncmp(pstEntry->szDomainName, pszDomainName, RT_NAME_LEN) != 0)
            continue;
        qx_name_t stName = qx_name_of(pstDomain->szName);
        _QX_REALTIME_SharedMemoryFree(stName.sz, &pstEntry->s32ShmFd, pstEntry->pvDomainAddr);
        // The identities go with the records they belong to.
        qx_identity_remove(stName.sz);
        for (uint32_t j = i; j + 1 < u32MapNum; j++)
            pstTop->astDomainMap[j] = pstTop->astDomainMap[j + 1];
        memset(&pstTop->astDomainMap[u32MapNum - 1], 0, sizeof(QX_REALTIME_DOMAIN_MAP_t));
        pstTop->u32DomainMapNum -= 1;
        break;
    }

    char szPath[RT_PATH_LEN];
    if (qx_lock_path(szPath, sizeof(szPath), pszDomainName) < 0) {
        u32Ret = RT_ERR_SYSTEM;
    } else if (unlink(szPath) == 0) {
        // At error level on purpose, so that a deletion is always seen.
        RT_LOGE("[RT_Impl][Err] [%s] unlink %s success\n", kName, szPath);
    } else if (errno == ENOENT) {
        RT_LOGI("[RT_Impl][Info] [%s] unlink %s has been unlinked, errno=%s\n", kName, szPath,
                RT_ERRNO_STR);
    } else {
        RT_LOGE("[RT_Impl][Err] [%s] unlink %s fails, errno=%s\n", kName, szPath, RT_ERRNO_STR);
    }
    stCentral.release();
    RT_EXIT(kName, u32Ret);
    return (int32_t)u32Ret;
}

// ---- the budget check, the budget query and the DMIPS conversion ----

// Whether a utilisation (RR) or a reservation (deadline, converted to a utilisation in
// *ps32Util) fits the domain's budget in place of s32OrigUtil.
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
            RT_LOGE(
                "[RT_Impl][Err] [%s] Invalid Deadline parameter: (should) DlPeriodUs=%d >= "
                "DlDeadlineUs=%d >= DlRuntimeUs=%d.\n",
                __func__, s32PeriodUs, s32DeadlineUs, s32RuntimeUs);
            return RT_ERR_INVALID_PARAM;
        }
        int32_t s32Cap = pstTop->s32CapPerCore;
        *ps32Util =
            s32PeriodUs == 0
                ? 0
                : (int32_t)(((uint32_t)s32RuntimeUs * (uint32_t)s32Cap) / (uint32_t)s32PeriodUs);
        RT_LOGI(
            "[RT_Impl][Info] Get converted Util=[%d] from DlRuntimeUs=[%d], DlPeriodUs=[%d], "
            "s32CapPerCore=[%d].\n",
            *ps32Util, s32RuntimeUs, s32PeriodUs, s32Cap);
    }
    int64_t s64After = (int64_t)pstDomain->s32UtilCurrent - s32OrigUtil + *ps32Util;
    if (pstDomain->s32UtilMax >= 1 && s64After > pstDomain->s32UtilMax) {
        RT_LOGE(
            "[RT_Impl][Err] [%s] Domain[%s] over s32Util: new Util is %d, original Util is "
            "%d,domain current total Util is %d, max. domain Util is %d\n",
            __func__, qx_name_of(pstDomain->szName).sz, *ps32Util, s32OrigUtil,
            pstDomain->s32UtilCurrent, pstDomain->s32UtilMax);
        return RT_ERR_OVER_BUDGET;
    }
    return RT_SUCCESS;
}

uint32_t QX_REALTIME_QueryBudget(const char *pszDomainName, QX_REALTIME_UTIL_t *pstUtil,
                                 int32_t *ps32UtilLeft) {
    static const char kName[] = "QX_REALTIME_QueryBudget";
    RT_ENTER(kName);
    RT_REQUIRE_ARG(kName, pszDomainName);
    if (pstUtil == NULL) {
        RT_LOGE("[RT_Impl][Err] [%s] pstUtil is NULL.\n", kName);
        return RT_ERR_NULL;
    }
    if (ps32UtilLeft == NULL) {
        RT_LOGE("[RT_Impl][Err] [%s] ps32UtilLeft is NULL.\n", kName);
        return RT_ERR_NULL;
    }
    RT_REQUIRE_LOOKUP_NAME(kName, pszDomainName);
    qx_domain_hold stHold;
    uint32_t u32Ret;
    int s32Outcome = stHold.take(kName, pszDomainName, &u32Ret);
    if (s32Outcome == QX_DOMAIN_MISSING) RT_LOGE("[RT_Impl][Err] [%s] pstDomain is NULL.\n", kName);
    if (s32Outcome != QX_DOMAIN_LOCKED) return u32Ret;
    QX_REALTIME_DOMAIN_t *pstDomain = stHold.domain();

    u32Ret = _QX_REALTIME_CheckOverUtil(pstDomain, pstUtil->DlRuntimeUs, pstUtil->DlDeadlineUs,
                                        pstUtil->DlPeriodUs, &pstUtil->s32Util, 0);
    *ps32UtilLeft = qx_wrap_sub(pstDomain->s32UtilMax, pstDomain->s32UtilCurrent);
    if (u32Ret == RT_SUCCESS)
        RT_LOGD("[RT_Impl][DBG] [%s] successfully.\n", kName);
    else
        RT_LOGD("[RT_Impl][DBG] [%s] fails.\n", kName);
    stHold.release();
    RT_EXIT(kName, u32Ret);
    return u32Ret;
}

uint32_t QX_REALTIME_DmipsToUs(uint32_t u32Dmips, uint32_t *u32MiscroSec) {
    static const char kName[] = "QX_REALTIME_DmipsToUs";
    int32_t s32Central = -1;
    if (u32MiscroSec == NULL) {
        RT_LOGE("[RT_Impl][Err] [%s] u32MiscroSec is NULL.\n", kName);
        return RT_ERR_NULL;
    }
    {
        qx_mutex_hold stHold;
        if (_QX_REALTIME_GetCentralAndTop(&s32Central) != RT_SUCCESS)
            return RT_ERR_NULL;       // whatever the code was: unlike the budget query, kept
        qx_fd stCentral(s32Central);  // only the attach was wanted: closed before the unlock
    }
    if (!qx_enabled()) return RT_SUCCESS;

    int32_t s32Cap = pstTop->s32CapPerCore;
    if (s32Cap == 0) {
        RT_LOGE("[RT_Impl][Err] [%s] SystemCpapbility should not be 0\n", kName);
        *u32MiscroSec = 0;
        return RT_ERR_INVALID_PARAM;
    }
    if (u32Dmips > (uint32_t)s32Cap) {
        RT_LOGE("[RT_Impl][Err] [%s] u32Dmips (%d) should be less than systemCapability (%d)\n",
                kName, (int)u32Dmips, s32Cap);
        *u32MiscroSec = 0;
        return RT_ERR_INVALID_PARAM;
    }
    // The 32-bit product wraps above 4294 DMIPS: deliberate in this design.
    uint32_t u32Us = (u32Dmips * 1000000u) / (uint32_t)s32Cap;
    *u32MiscroSec = u32Us;
    RT_LOGI("[RT_Impl][Info] [%s] dmips=%d us=%d, SystemCapability=%d\n", kName, (int)u32Dmips,
            (int)u32Us, s32Cap);
    return RT_SUCCESS;
}
