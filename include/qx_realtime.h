/*
 * libqxt_realtime_hal: real-time scheduling of client threads inside named CPU domains.
 *
 * Every function returns one of the RT_* result codes below. All bookkeeping is shared between
 * processes. QX_REALTIME_Init() creates it in the first process; any other process attaches on
 * its first call for thread, budget and monitoring operations. A process that creates domains
 * calls QX_REALTIME_Init() itself first: creation reads the configuration file that Init chooses
 * in that process (without it, RT_ERR_INVALID_PARAM). This header compiles as C and as C++.
 */
#ifndef QX_REALTIME_H
#define QX_REALTIME_H

/* Version of this library and header. The build, the pkg-config file, the CMake package and
 * `rtctl --version` all take it from here. */
#define QX_REALTIME_VERSION_MAJOR 1
#define QX_REALTIME_VERSION_MINOR 0
#define QX_REALTIME_VERSION_PATCH 0
#define QX_REALTIME_VERSION "1.0.0"

#include <stdint.h>
#include <stdio.h>
#include <pthread.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define QX_REALTIME_API __attribute__((visibility("default")))
#else
#define QX_REALTIME_API
#endif

/* Result codes: one flat set of unsigned 32-bit values. */
#define RT_SUCCESS 0u            /* success */
#define RT_ERR_FAILED 4u         /* setup failure: lock file, init mode, config path, segment */
#define RT_ERR_INVALID_PARAM 8u  /* bad argument or configuration value (NULL, priority, triple) */
#define RT_ERR_OVER_BUDGET 9u    /* admission refused: the domain's budget would be exceeded */
#define RT_ERR_NULL 10u          /* missing object: domain, class, record, central segment */
#define RT_ERR_NOT_EXIST 11u     /* thread, class or process not present; no room for a record */
#define RT_ERR_SYSTEM 12u        /* a system or file operation failed; buffer too small */
#define RT_ERR_SCHED_SETATTR 14u /* the kernel refused the scheduling attributes */

/* Utilisation record passed by clients: capacity units, then microseconds. */
typedef struct {
    int32_t s32Util;
    int32_t DlDeadlineUs;
    int32_t DlRuntimeUs;
    int32_t DlPeriodUs;
} QX_REALTIME_UTIL_t;

/* One thread slot of a domain segment (96 bytes, the same on 32-bit and 64-bit processes).
 * stSavedAttr holds the kernel's 56-byte struct sched_attr as read before admission; slots are
 * only 4-byte aligned, so copy it out with memcpy before reading its 64-bit fields. */
typedef struct {
    int32_t ThreadIdx;
    int32_t ClassIdx;
    int32_t Alive;
    int32_t ProcessID;
    int32_t Pid;
    int32_t Util;
    int32_t Priority;
    int32_t DeadlineUs;
    int32_t RuntimeUs;
    int32_t PeriodUs;
    uint8_t stSavedAttr[56];
} QX_REALTIME_THREAD_t;

/* Exported process-wide objects. */
QX_REALTIME_API extern FILE *rtlog; /* per-process log file, open only at debug level 241 */
QX_REALTIME_API extern pthread_mutex_t mutex; /* the process mutex taken by every operation */
QX_REALTIME_API extern char strerrBuf[128]; /* text of errno for the last message that showed one */
QX_REALTIME_API extern char u8JsonPath[64]; /* configuration path chosen by QX_REALTIME_Init(0) */

/* ---- Lifecycle ---- */

/* mode 0: configuration named by property vendor.kpo.realtime.cfg_name; mode 1: verify-only.
 * RT_SUCCESS; RT_ERR_FAILED (lock file, unknown mode, path); RT_ERR_NULL (allocation);
 * RT_ERR_INVALID_PARAM (configuration file unreadable); RT_ERR_SYSTEM (log file at level 7);
 * or the segment code (4 or 12). */
QX_REALTIME_API uint32_t QX_REALTIME_Init(uint32_t u32Mode);
/* Removes the central segment and its lock file for every process.
 * RT_SUCCESS; RT_ERR_FAILED or RT_ERR_NULL when the central segment can't be had;
 * RT_ERR_SYSTEM when the lock-file path can't be formatted. */
QX_REALTIME_API uint32_t QX_REALTIME_Deinit(void);
/* Sets the internal level (0, 16, 32, 48, 64, 80, 240, 241) now; RT_SUCCESS, or RT_ERR_NULL
 * without a central segment (the level is set all the same). */
QX_REALTIME_API uint32_t QX_REALTIME_SetDebugLevel(int32_t s32Level);
/* Always RT_SUCCESS. */
QX_REALTIME_API uint32_t QX_REALTIME_SelfTest(void);

/* ---- Domains ---- */

/* Domain names name files and control groups: every operation that takes one refuses, with
 * RT_ERR_INVALID_PARAM and before it touches any file, a name that is empty, longer than 63
 * characters, "." or "..", or contains '/'. A domain whose shared files another process damaged
 * (a segment cut short, a record whose name or cgroup paths are not its own) or whose creation
 * was cut short by the death of its creator is not used: operations on it answer RT_ERR_NULL with
 * a message, QX_REALTIME_CreateDomain makes a half-created domain anew, and
 * QX_REALTIME_DeleteDomain removes a damaged one. Segment and lock files are never opened through
 * a symlink. */

/* RT_SUCCESS (also when it exists or the framework is disabled); RT_ERR_FAILED (budget, CPU
 * count, cgroups, a process maps at most 7 created domains); RT_ERR_INVALID_PARAM (configuration,
 * NULL name, no configuration chosen by QX_REALTIME_Init in this process); RT_ERR_SYSTEM;
 * RT_ERR_NULL (no central segment). */
QX_REALTIME_API uint32_t QX_REALTIME_CreateDomain(const char *pszDomainName);
/* Copies the names in 64-byte slots; a NULL buffer only logs them.
 * RT_SUCCESS; RT_ERR_SYSTEM when the buffer is too small; RT_ERR_FAILED or RT_ERR_NULL.
 * Hazard, kept by design: only the start of each slot is tested against u32BufSize, and the
 * whole 64-byte slot is copied. A buffer whose size is not a multiple of 64 is overrun by up to
 * 63 bytes; always pass 64 x the number of domains (24 at most: 1536 bytes is always enough). */
QX_REALTIME_API uint32_t QX_REALTIME_GetAllDomainName(char *pNames, uint32_t u32BufSize);
/* Prints every live thread of every domain. RT_SUCCESS or RT_ERR_SYSTEM. */
QX_REALTIME_API uint32_t _QX_REALTIME_GetAllDomainInfo(void);
/* RT_SUCCESS; RT_ERR_NULL for an unknown domain; RT_ERR_SYSTEM (lock-file path);
 * RT_ERR_INVALID_PARAM for a NULL name; RT_ERR_FAILED (central lock file). */
QX_REALTIME_API int32_t QX_REALTIME_DeleteDomain(const char *pszDomainName);
/* RT_SUCCESS when the demand fits; RT_ERR_INVALID_PARAM (deadline triple, negative utilisation,
 * NULL name); RT_ERR_OVER_BUDGET; RT_ERR_NULL (NULL record or output, unknown domain, no central
 * segment); RT_ERR_FAILED. *ps32UtilLeft = UtilMax - UtilCurrent whenever the domain was found. */
QX_REALTIME_API uint32_t QX_REALTIME_QueryBudget(const char *pszDomainName,
                                                 QX_REALTIME_UTIL_t *pstUtil,
                                                 int32_t *ps32UtilLeft);
/* Microseconds per second on one core for a DMIPS demand (32-bit product, wraps above 4294).
 * RT_SUCCESS; RT_ERR_INVALID_PARAM (capability 0, demand above it); RT_ERR_NULL. */
QX_REALTIME_API uint32_t QX_REALTIME_DmipsToUs(uint32_t u32Dmips, uint32_t *u32MiscroSec);

/* ---- Threads ---- */

/* RT_SUCCESS (also for a thread already admitted); RT_ERR_NULL (unknown domain);
 * RT_ERR_NOT_EXIST (class, record, process list); RT_ERR_INVALID_PARAM (priority, deadline
 * triple, negative utilisation, NULL or invalid name); RT_ERR_OVER_BUDGET; RT_ERR_SCHED_SETATTR;
 * RT_ERR_SYSTEM (cgroup move).
 * After RT_ERR_SCHED_SETATTR nothing has changed. After RT_ERR_SYSTEM the thread keeps the
 * class's policy (it is not rolled back) but nothing is recorded or charged. After
 * RT_ERR_NOT_EXIST from the record or process-list step the thread is admitted and charged all
 * the same. A caller killed during the call leaves a record for the thread if it changed it.
 * With bDlOverrun in a deadline domain the kernel sends SIGXCPU at each runtime overrun; a
 * process that neither catches nor ignores it is killed, and admission logs an error saying so.
 * Hazard, kept by design: s32Tid is used as given. 0 means the calling thread to the kernel: it
 * gets the policy and the groups, and its record is kept under thread id 0 (RT_ERR_NOT_EXIST,
 * since /proc/0 does not exist). Always pass a real thread id (gettid()). */
QX_REALTIME_API uint32_t QX_REALTIME_AddThread(const char *pszDomainName, const char *pszClassName,
                                               int32_t s32Tid, uint8_t bDlOverrun);
/* As QX_REALTIME_AddThread with the caller's parameters and no budget check;
 * RT_ERR_NULL for a NULL pstUtil. */
QX_REALTIME_API uint32_t QX_REALTIME_AddThread_Lite(const char *pszDomainName,
                                                    const char *pszClassName,
                                                    QX_REALTIME_UTIL_t *pstUtil, int32_t s32Tid,
                                                    uint8_t bDlOverrun);
/* Restores the attributes saved at admission and the root groups.
 * RT_SUCCESS; RT_ERR_NULL (unknown domain); RT_ERR_NOT_EXIST (thread not admitted);
 * RT_ERR_SYSTEM (cgroup move); RT_ERR_SCHED_SETATTR; RT_ERR_INVALID_PARAM (NULL name).
 * After RT_ERR_SYSTEM or RT_ERR_SCHED_SETATTR the record stays and the domain stays charged (not
 * rolled back, by design); the thread may already be in the root cpuset (RT_ERR_SYSTEM from the
 * cpuacct move) or in both root groups with the domain's policy (RT_ERR_SCHED_SETATTR). Calling
 * again once the cause is gone completes the removal. */
QX_REALTIME_API uint32_t QX_REALTIME_RemoveThread(const char *pszDomainName, int32_t s32Tid);
/* RT_SUCCESS; RT_ERR_NULL (NULL record, unknown domain); RT_ERR_NOT_EXIST; RT_ERR_INVALID_PARAM;
 * RT_ERR_OVER_BUDGET; RT_ERR_SYSTEM; RT_ERR_SCHED_SETATTR. In a deadline domain s32Util is
 * overwritten with the converted utilisation.
 * A deadline thread is given its new parameters in the root cpuset and then moved back into the
 * domain's (by design). After RT_ERR_SCHED_SETATTR it stays in the root cpuset with its old
 * parameters; after RT_ERR_SYSTEM from the move back it has the new parameters in the root
 * cpuset. Either way the record and the charge keep the old values; the same call, repeated once
 * the cause is gone, puts both right. */
QX_REALTIME_API uint32_t QX_REALTIME_UpdateThreadUtil(const char *pszDomainName,
                                                      QX_REALTIME_UTIL_t *pstUtil, int32_t s32Tid);
/* Reserved for a future memory resource: RT_SUCCESS (the query logs that it is not ready and
 * leaves *ps32Avai as it is; a NULL pointer gets RT_ERR_INVALID_PARAM). */
QX_REALTIME_API uint32_t QX_REALTIME_EnableMemoryHighPriority(void);
QX_REALTIME_API uint32_t QX_REALTIME_DisableMemoryHighPriority(void);
QX_REALTIME_API uint32_t QX_REALTIME_GetAvailableHighPriorityResource(int32_t *ps32Avai);

/* ---- Monitoring ---- */

/* Samples a domain's (or, for a name beginning with "All", every domain's) CPU usage.
 * RT_SUCCESS; RT_ERR_NULL (unknown domain, no central segment); RT_ERR_SYSTEM (first readings);
 * RT_ERR_INVALID_PARAM (NULL name); RT_ERR_FAILED (central lock file). */
QX_REALTIME_API uint32_t QX_REALTIME_GetDomainCpuUsage(const char *pszDomainName,
                                                       uint32_t u32IntervalMs,
                                                       uint32_t u32SampleNum);
/* Prints a domain's records and the kernel's task lists, or (for "All...") every live thread.
 * RT_SUCCESS; RT_ERR_NULL (unknown domain, no central segment); RT_ERR_INVALID_PARAM (NULL
 * name); RT_ERR_FAILED (central lock file). */
QX_REALTIME_API uint32_t QX_REALTIME_DumpDomainInfo(const char *pszDomainName);

#ifdef __cplusplus
}
#endif

#endif /* QX_REALTIME_H */
