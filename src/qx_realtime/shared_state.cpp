// Cross-process shared state: the process-wide state, the bounded formatter, domain names, lock
// files, the 16384-byte segments, the attach path to the central segment, and bounds-checked access
// to records inside a segment.
#include <fcntl.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdlib.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/uio.h>

#include "qx_realtime_internal.h"

// ---- process-wide state ----

pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
char u8JsonPath[RT_JSON_PATH_LEN];
QX_REALTIME_TOP_t *pstTop = NULL;
const char *pstJsonPath = NULL;

int qx_snprintf(char *dst, size_t maxlen, size_t objsize, const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    int n = qx_vsnprintf_checked(dst, maxlen, objsize, fmt, ap);
    va_end(ap);
    return n;
}

int qx_format_path(char *dst, size_t dst_size, const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    int n = qx_vsnprintf_checked(dst, dst_size, dst_size, fmt, ap);
    va_end(ap);
    if (n >= 0 && (size_t)n >= dst_size) {
        errno = ENAMETOOLONG;
        return -1;
    }
    return n;
}

long long qx_regular_size(int32_t s32Fd) {
    struct stat st;
    if (s32Fd < 0 || fstat(s32Fd, &st) != 0) return -1;
    if (S_ISREG(st.st_mode)) return (long long)st.st_size;
    errno = EINVAL;  // what ftruncate says of anything but a regular file
    return -1;
}

int qx_fd_is_short(int32_t s32Fd, long long *ps64Size) {
    *ps64Size = qx_regular_size(s32Fd);
    // No descriptor (or one that can't be asked) tells nothing.
    return *ps64Size >= 0 && *ps64Size < RT_SHM_SIZE;
}

// Only a regular file is sized and mapped: a FIFO, a device or a directory planted under a
// segment's name fails here as its ftruncate would.
static int qx_sizeable(int fd) {
    return qx_regular_size(fd) >= 0;
}

int qx_segment_path(char *dst, size_t dst_size, const char *pszName) {
    return qx_format_path(dst, dst_size, "%s%s", RT_SHM_PREFIX, pszName);
}

int qx_lock_path(char *dst, size_t dst_size, const char *pszName) {
    return qx_format_path(dst, dst_size, "%s%s", RT_FLOCK_PREFIX, pszName);
}

uint32_t _QX_REALTIME_GetFlock(const char *pszName, int32_t *ps32Fd) {
    char szPath[RT_PATH_LEN];
    if (pszName == NULL) {
        RT_LOGE("[RT_Impl][Err] [%s] Arg is NULL.\n", __func__);
        return RT_ERR_INVALID_PARAM;
    }
    if (qx_lock_path(szPath, sizeof(szPath), pszName) < 0) return RT_ERR_SYSTEM;
    if (ps32Fd == NULL) return RT_SUCCESS;  // checked after the formatting, deliberately

    // Owned here until it is handed on: a failing step leaves nothing open. Every descriptor of
    // the library is close-on-exec, so a client that starts a program hands it none of them.
    qx_fd stLock(open(szPath, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0666));
    int fd = stLock.get();
    *ps32Fd = fd;
    if (fd >= 0) {
        RT_LOGI("[RT_Impl][Info] [%s][PID=%d][TID=%ld] flock open (%s) return %d, newly created\n",
                __func__, getpid(), qx_gettid(), szPath, fd);
        // The umask must not narrow the mode: every client process needs the file.
        if (chmod(szPath, 0666) != 0) {
            RT_LOGE("[RT_Impl][Err] [%s][PID=%d][TID=%ld] chmod(%s,%d) fails, errno=%s\n", __func__,
                    getpid(), qx_gettid(), szPath, 0666, RT_ERRNO_STR);
            *ps32Fd = -1;
            return RT_ERR_SYSTEM;
        }
        *ps32Fd = stLock.release();
        return RT_SUCCESS;
    }
    if (errno == EEXIST) {
        // Never through a symlink; a lock file is only locked, never mapped or written, so
        // what else it is does not matter.
        fd = open(szPath, O_RDWR | O_CLOEXEC | O_NOFOLLOW);
        *ps32Fd = fd;
        if (fd >= 0) {
            RT_LOGI(
                "[RT_Impl][Info] [%s][PID=%d][TID=%ld] flock open (%s) return %d, open existed.\n",
                __func__, getpid(), qx_gettid(), szPath, fd);
            return RT_SUCCESS;
        }
    }
    RT_LOGE("[RT_Impl][Err] [%s][PID=%d][TID=%ld] flock open (%s) return %d, errno=%s\n", __func__,
            getpid(), qx_gettid(), szPath, fd, RT_ERRNO_STR);
    return RT_ERR_SYSTEM;
}

// ---- identity files ----

int qx_identity_path(char *dst, size_t dst_size, const char *pszName) {
    return qx_format_path(dst, dst_size, "%s%s", RT_IDENTITY_PREFIX, pszName);
}

// An opened identity file is used only when it is a regular file (a FIFO or a device planted
// under its name is not read or written).
static int32_t qx_identity_checked(qx_fd *pstFd) {
    if (!pstFd->ok() || !qx_sizeable(pstFd->get())) return -1;
    return pstFd->release();
}

int32_t qx_identity_open(const char *pszName, int s32How) {
    char szPath[RT_PATH_LEN];
    if (!qx_domain_name_ok(pszName) || qx_identity_path(szPath, sizeof(szPath), pszName) < 0)
        return -1;
    if (s32How == QX_IDENTITY_FRESH) {
        // A new domain's records are all new: nothing an older file holds may be taken for theirs.
        (void)unlink(szPath);
    } else {
        qx_fd stOld(open(szPath, O_RDWR | O_CLOEXEC | O_NOFOLLOW));
        if (stOld.ok() || errno != ENOENT || s32How == QX_IDENTITY_EXISTING)
            return qx_identity_checked(&stOld);
    }
    qx_fd stNew(open(szPath, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0660));
    if (!stNew.ok()) {
        if (errno != EEXIST) return -1;
        // Made meanwhile by another process.
        stNew.reset(open(szPath, O_RDWR | O_CLOEXEC | O_NOFOLLOW));
        return qx_identity_checked(&stNew);
    }
    if (fchmod(stNew.get(), 0660) != 0 || ftruncate(stNew.get(), RT_IDENTITY_FILE_SIZE) != 0) {
        stNew.reset();
        (void)unlink(szPath);
        return -1;
    }
    return stNew.release();
}

void qx_identity_remove(const char *pszName) {
    char szPath[RT_PATH_LEN];
    if (!qx_domain_name_ok(pszName) || qx_identity_path(szPath, sizeof(szPath), pszName) < 0)
        return;
    (void)unlink(szPath);
}

int qx_identity_read(int32_t s32Fd, QX_REALTIME_IDENTITY_t *astEntries, uint8_t *pu8Options) {
    memset(astEntries, 0, (size_t)RT_IDENTITY_SIZE);
    if (pu8Options != NULL) memset(pu8Options, 0, (size_t)RT_CLASS_OPTIONS_NUM);
    // The options follow the entries: one read takes both.
    struct iovec astIov[2] = {{astEntries, (size_t)RT_IDENTITY_SIZE},
                              {pu8Options, (size_t)RT_CLASS_OPTIONS_NUM}};
    ssize_t n;
    do {
        n = preadv(s32Fd, astIov, pu8Options != NULL ? 2 : 1, 0);
    } while (n < 0 && errno == EINTR);
    if (n < 0) {
        memset(astEntries, 0, (size_t)RT_IDENTITY_SIZE);
        if (pu8Options != NULL) memset(pu8Options, 0, (size_t)RT_CLASS_OPTIONS_NUM);
        return -1;
    }
    // A file cut short holds no whole entry past its end: a partial one reads as unknown. The
    // options it does not reach stay zero.
    size_t uRead = (size_t)n < (size_t)RT_IDENTITY_SIZE ? (size_t)n : (size_t)RT_IDENTITY_SIZE;
    size_t uWhole = uRead / sizeof(QX_REALTIME_IDENTITY_t) * sizeof(QX_REALTIME_IDENTITY_t);
    memset((char *)astEntries + uWhole, 0, (size_t)RT_IDENTITY_SIZE - uWhole);
    return 0;
}

int qx_identity_write_options(int32_t s32Fd, const uint8_t *pu8Options) {
    if (s32Fd < 0 || pu8Options == NULL) return -1;
    ssize_t n;
    do {
        n = pwrite(s32Fd, pu8Options, (size_t)RT_CLASS_OPTIONS_NUM, (off_t)RT_CLASS_OPTIONS_AT);
    } while (n < 0 && errno == EINTR);
    return n == (ssize_t)RT_CLASS_OPTIONS_NUM ? 0 : -1;
}

int qx_identity_write(int32_t s32Fd, int32_t s32Slot, const QX_REALTIME_IDENTITY_t *pstEntry) {
    if (s32Fd < 0 || s32Slot < 0 || s32Slot >= RT_IDENTITY_SLOTS) return -1;
    off_t s64At = (off_t)s32Slot * (off_t)sizeof(*pstEntry);
    ssize_t n;
    do {
        n = pwrite(s32Fd, pstEntry, sizeof(*pstEntry), s64At);
    } while (n < 0 && errno == EINTR);
    return n == (ssize_t)sizeof(*pstEntry) ? 0 : -1;
}

// Removes a segment file after a failed size or map step.
static void qx_unlink_segment(const char *pszFunc, const char *pszPath) {
    if (unlink(pszPath) != 0)
        RT_LOGE("[RT_Impl][Err] [%s] unlink %s fails, errno=%s\n", pszFunc, pszPath, RT_ERRNO_STR);
}

uint32_t _QX_REALTIME_SharedMemoryAlloc(const char *pszName, int32_t *ps32ShmFd, void **ppvAddr) {
    char szPath[RT_PATH_LEN];
    if (pszName == NULL || ps32ShmFd == NULL || ppvAddr == NULL) {
        RT_LOGE("[RT_Impl][Err] [%s] Arg is NULL.\n", __func__);
        return RT_ERR_INVALID_PARAM;
    }
    if (qx_segment_path(szPath, sizeof(szPath), pszName) < 0) return RT_ERR_SYSTEM;
    mode_t mode = strcmp(pszName, RT_CENTRAL_NAME) == 0 ? 0666 : 0660;
    int bNewCreate = 0;

    // Owned from the open on: the caller gets the descriptor only with the mapping, and -1 on
    // every failing path (the file stays where the steps below say so).
    qx_fd stShm(open(szPath, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, mode));
    int fd = stShm.get();
    *ps32ShmFd = -1;
    if (fd >= 0) {
        RT_LOGI("[RT_Impl][Info] [%s][PID=%d][TID=%ld] path=%s create success, shmFd=%d\n",
                __func__, getpid(), qx_gettid(), szPath, fd);
        if (chmod(szPath, mode) != 0) {
            RT_LOGE("[RT_Impl][Err] [%s][PID=%d][TID=%ld] chmod(%s,%d) fails, errno=%s\n", __func__,
                    getpid(), qx_gettid(), szPath, (int)mode, RT_ERRNO_STR);
            return RT_ERR_SYSTEM;
        }
        bNewCreate = 1;
    } else {
        if (errno == EEXIST) {
            stShm.reset(open(szPath, O_RDWR | O_CLOEXEC | O_NOFOLLOW));
            fd = stShm.get();
            if (fd >= 0)
                RT_LOGI(
                    "[RT_Impl][Info] [%s][PID=%d][TID=%ld] open %s an existed shared memory=%d\n",
                    __func__, getpid(), qx_gettid(), szPath, fd);
        }
        if (fd < 0) {
            RT_LOGE("[RT_Impl][Err] [%s][PID=%d][TID=%ld] shm_open (%s) return %d, errno=%s\n",
                    __func__, getpid(), qx_gettid(), szPath, fd, RT_ERRNO_STR);
            return RT_ERR_FAILED;
        }
    }

    // A failure from here closes the descriptor and removes the file.
    qx_mapping stMap;
    bool bSized = qx_sizeable(fd) && ftruncate(fd, RT_SHM_SIZE) == 0;
    if (!bSized)
        RT_LOGE("[RT_Impl][Err] [%s] ftruncate fails, errno=%s\n", __func__, RT_ERRNO_STR);
    else if (!stMap.map(fd))
        RT_LOGE("[RT_Impl][Err] [%s][PID=%d][TID=%ld] mmap fails\n", __func__, getpid(),
                qx_gettid());
    if (stMap.get() == NULL) {
        stShm.reset();
        qx_unlink_segment(__func__, szPath);
        return RT_ERR_FAILED;
    }
    *ps32ShmFd = stShm.release();
    void *pvAddr = stMap.release();
    *ppvAddr = pvAddr;
    RT_LOGI("[RT_Impl][Info] [%s][PID=%d][TID=%ld] mmap=%p, new_create=%d\n", __func__, getpid(),
            qx_gettid(), pvAddr, bNewCreate);
    if (bNewCreate) memset(pvAddr, 0, RT_SHM_SIZE);
    return RT_SUCCESS;
}

void _QX_REALTIME_SharedMemoryFree(const char *pszName, int32_t *ps32ShmFd, void *pvAddr) {
    char szPath[RT_PATH_LEN];
    if (pszName == NULL || ps32ShmFd == NULL) {
        RT_LOGE("[RT_Impl][Err] [%s] Arg is NULL.\n", __func__);
        return;
    }
    close(*ps32ShmFd);
    *ps32ShmFd = -1;
    if (qx_segment_path(szPath, sizeof(szPath), pszName) < 0) return;
    if (unlink(szPath) == 0) {
        if (pvAddr != NULL) munmap(pvAddr, RT_SHM_SIZE);
        RT_LOGI("[RT_Impl][Info] [%s] unlink %s success\n", __func__, szPath);
    } else if (errno == ENOENT) {
        RT_LOGI("[RT_Impl][Info] [%s] unlink %s has been unlinked, errno=%s\n", __func__, szPath,
                RT_ERRNO_STR);
    } else {
        RT_LOGE("[RT_Impl][Err] [%s] unlink %s fails, errno=%s\n", __func__, szPath, RT_ERRNO_STR);
    }
}

uint32_t _QX_REALTIME_GetCentralShm(void) {
    char szPath[RT_PATH_LEN];
    if (qx_segment_path(szPath, sizeof(szPath), RT_CENTRAL_NAME) < 0) return RT_ERR_SYSTEM;
    qx_fd stShm(open(szPath, O_RDWR | O_CLOEXEC | O_NOFOLLOW));
    if (!stShm.ok()) {
        RT_LOGE("[RT_Impl][Err] [%s][PID=%d][TID=%ld] shm_open (%s) return %d, errno=%s\n",
                __func__, getpid(), qx_gettid(), szPath, stShm.get(), RT_ERRNO_STR);
        RT_LOGE("[RT_Impl][Err] Did you forget to invoke QX_REALTIME_Init()?\n");
        return RT_ERR_NULL;
    }
    // A top object left by an earlier failed attach is reused rather than leaked.
    if (pstTop == NULL) {
        pstTop = (QX_REALTIME_TOP_t *)calloc(1, sizeof(QX_REALTIME_TOP_t));
        if (pstTop == NULL) return RT_ERR_NULL;
        pstTop->s32ShmFd = -1;
    }
    if (!qx_sizeable(stShm.get()) || ftruncate(stShm.get(), RT_SHM_SIZE) != 0) {
        stShm.reset();
        RT_LOGE("[RT_Impl][Err] [%s] ftruncate fails, errno=%s\n", __func__, RT_ERRNO_STR);
        return RT_ERR_NULL;
    }
    qx_mapping stMap;
    if (!stMap.map(stShm.get())) {
        stShm.reset();
        RT_LOGE("[RT_Impl][Err] [%s][PID=%d][TID=%ld] mmap fails\n", __func__, getpid(),
                qx_gettid());
        return RT_ERR_NULL;
    }
    void *pvAddr = stMap.release();
    int32_t fd = stShm.release();
    QX_REALTIME_CENTRAL_t *pstCentral = (QX_REALTIME_CENTRAL_t *)pvAddr;
    pstTop->s32ShmFd = fd;
    pstTop->pstCentral = pstCentral;
    pstTop->s32CapPerCore = pstCentral->s32CapPerCore;
    pstTop->s32UtilReservation = pstCentral->s32UtilReservation;
    pstTop->s32DbgLevel = pstCentral->s32DbgLevel;
    pstTop->Enabled = pstCentral->u8Enabled;

    _u32DbgLevel = qx_dbg_level_from_config(pstCentral->s32DbgLevel);
    if (pstCentral->s32DbgLevel >= 4 && pstCentral->s32DbgLevel <= 7)
        RT_LOGI("[RT_Impl][Info] [%s][PID=%d][TID=%ld] shm exists. mmap=%p, s32ShmFd=%d\n",
                __func__, getpid(), qx_gettid(), pvAddr, fd);
    return RT_SUCCESS;
}

uint32_t qx_no_central_lock(void) {
    RT_LOGE("[RT_Impl][Err] %s (%d), can't get central flock\n", "_QX_REALTIME_GetCentralAndTop",
            __LINE__);
    return RT_ERR_FAILED;
}

uint32_t qx_central_lock_refused(const char *pszOp) {
    uint32_t u32Ret = qx_no_central_lock();
    RT_EXIT(pszOp, u32Ret);
    return u32Ret;
}

uint32_t _QX_REALTIME_GetCentralAndTop(int32_t *ps32FlockFd) {
    if (_QX_REALTIME_GetFlock(RT_CENTRAL_NAME, ps32FlockFd) != RT_SUCCESS)
        return qx_no_central_lock();
    if (pstTop == NULL || pstTop->pstCentral == NULL) {
        if (_QX_REALTIME_GetCentralShm() != RT_SUCCESS) {
            RT_LOGE("[RT_Impl][Err] %s (%d), can't get central shared memory\n", __func__,
                    __LINE__);
            if (ps32FlockFd != NULL) {
                close(*ps32FlockFd);
                *ps32FlockFd = -1;
            }
            return RT_ERR_NULL;
        }
    }
    return RT_SUCCESS;
}

int qx_central_intact(const char *pszOp) {
    long long s64Size = 0;
    if (pstTop == NULL || !qx_fd_is_short(pstTop->s32ShmFd, &s64Size)) return 1;
    RT_LOGE("[RT_Impl][Err] [%s] %s%s is %lld bytes, not %d: refused.\n", pszOp, RT_SHM_PREFIX,
            RT_CENTRAL_NAME, s64Size, RT_SHM_SIZE);
    return 0;
}

int qx_frame_open(const char *pszOp, int32_t *ps32Central, uint32_t *pu32Ret) {
    qx_fd stCentral;
    *ps32Central = -1;
    {
        qx_mutex_hold stHold;
        int32_t s32Fd = -1;
        *pu32Ret = _QX_REALTIME_GetCentralAndTop(&s32Fd);
        stCentral.reset(s32Fd);
        // A central segment cut short by another process would end this one with SIGBUS at its
        // first access: refuse to touch it instead.
        if (*pu32Ret == RT_SUCCESS && !qx_central_intact(pszOp)) {
            stCentral.reset();
            *pu32Ret = RT_ERR_NULL;
        }
        if (*pu32Ret != RT_SUCCESS) {
            RT_EXIT(pszOp, *pu32Ret);
            return QX_FRAME_FAILED;
        }
    }
    if (!qx_enabled()) return QX_FRAME_DISABLED;
    *ps32Central = stCentral.release();
    return QX_FRAME_GO;
}

// ---- names ----

// Whether a domain name stays inside the segment directory and fits the record's name field.
int qx_domain_name_ok(const char *pszName) {
    if (pszName == NULL) return 0;
    size_t uLen = strnlen(pszName, RT_NAME_LEN);
    if (uLen == 0 || uLen > RT_DOMAIN_NAME_MAX) return 0;
    if (strchr(pszName, '/') != NULL) return 0;
    return strcmp(pszName, ".") != 0 && strcmp(pszName, "..") != 0;
}

// ---- records inside a segment ----

// A count read from shared memory, clamped to what can lie between offset and the segment end.
static int32_t qx_clamp_count(int32_t s32Count, int32_t s32Start, int32_t s32Size) {
    if (s32Count <= 0 || s32Start < 0 || s32Start > RT_SHM_SIZE || (s32Start % 4) != 0) return 0;
    int32_t s32Room = (RT_SHM_SIZE - s32Start) / s32Size;
    return s32Count < s32Room ? s32Count : s32Room;
}

int32_t qx_domain_class_num(const QX_REALTIME_DOMAIN_t *pstDomain) {
    return qx_clamp_count(pstDomain->s32ClassNum, pstDomain->s32ClassStartOffset, RT_CLASS_SIZE);
}

int32_t qx_domain_thread_num(const QX_REALTIME_DOMAIN_t *pstDomain) {
    return qx_clamp_count(pstDomain->s32ThreadNum, pstDomain->s32ThreadStartOffset, RT_THREAD_SIZE);
}

int32_t qx_domain_pid_list_num(const QX_REALTIME_DOMAIN_t *pstDomain) {
    int32_t n = pstDomain->processIDListNum;
    if (n < 0) return 0;
    return n < RT_PROCESS_ID_LIST_NUM ? n : RT_PROCESS_ID_LIST_NUM;
}

int32_t qx_central_domain_num(const QX_REALTIME_CENTRAL_t *pstCentral) {
    int32_t n = pstCentral->s32DomainNum;
    if (n < 0) return 0;
    return n < RT_MAX_DOMAIN ? n : RT_MAX_DOMAIN;
}

QX_REALTIME_CLASS_t *qx_domain_class(QX_REALTIME_DOMAIN_t *pstDomain, int32_t s32Index) {
    if (s32Index < 0 || s32Index >= qx_domain_class_num(pstDomain)) return NULL;
    return (QX_REALTIME_CLASS_t *)((char *)pstDomain + pstDomain->s32ClassStartOffset +
                                   RT_CLASS_SIZE * s32Index);
}

QX_REALTIME_THREAD_t *qx_domain_thread(QX_REALTIME_DOMAIN_t *pstDomain, int32_t s32Index) {
    if (s32Index < 0 || s32Index >= qx_domain_thread_num(pstDomain)) return NULL;
    return (QX_REALTIME_THREAD_t *)((char *)pstDomain + pstDomain->s32ThreadStartOffset +
                                    RT_THREAD_SIZE * s32Index);
}

qx_name_t qx_name_of(const char *pszField) {
    // Never more than the text: a short literal ("" for a missing class) is not 64 bytes long.
    qx_name_t stName;
    size_t uLen = strnlen(pszField, RT_NAME_LEN - 1);
    memcpy(stName.sz, pszField, uLen);
    memset(stName.sz + uLen, 0, RT_NAME_LEN - uLen);
    return stName;
}
