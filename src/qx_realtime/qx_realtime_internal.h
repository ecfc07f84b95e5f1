// Private header of libqxt_realtime_hal: the shared records, the per-process top object, the
// diagnostics macros and every internal operation.
#ifndef QX_REALTIME_INTERNAL_H
#define QX_REALTIME_INTERNAL_H

#include <errno.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>
#include <pthread.h>
#include <sys/file.h>
#include <sys/mman.h>

#define JSMN_HEADER  // declarations only: the tokenizer is compiled once, in src/platform/jsmn.c
#include <jsmn.h>

#include "../platform/platform.h"
#include "qx_realtime.h"
#include "config_schema.h"

#ifdef __cplusplus
extern "C" {
#endif

// ---------------------------------------------------------------------------------------------
// Sizes and fixed paths
// ---------------------------------------------------------------------------------------------

#define RT_SHM_SIZE 16384
#define RT_MAX_DOMAIN QX_CFG_MAX_DOMAINS
#define RT_MAX_DOMAIN_MAP 8
#define RT_NAME_LEN QX_CFG_NAME_LEN
#define RT_PATH_LEN QX_CFG_PATH_LEN
#define RT_CPUSET_LEN QX_CFG_CPUSET_LEN
#define RT_PROCESS_ID_LIST_NUM 80
#define RT_DOMAIN_HEADER_SIZE 1100
#define RT_JSON_PATH_LEN 64

#define RT_SCHED_TYPE_RR 1u
#define RT_SCHED_TYPE_DEADLINE 2u
#define RT_SCHED_TYPE_BOTH 3u

#define RT_SHM_PREFIX QX_SHM_DIR "rt_"
#define RT_FLOCK_PREFIX QX_DATA_DIR "flock_rt_"
#define RT_LOG_FILE_PREFIX QX_DATA_DIR "rtlog_"
#define RT_JSON_PREFIX QX_CONFIG_DIR "rt-"
#define RT_JSON_VERIFY_ONLY QX_CONFIG_DIR "rt_verify_only.json"
#define RT_CENTRAL_NAME "Global"
#define RT_PROP_CFG_NAME "vendor.kpo.realtime.cfg_name"
#define RT_PROP_OVERWRITE_CPUSET "vendor.kpo.realtime.debug.overwrite_cpuset"
#define RT_PROP_CGROUP_LAYOUT "vendor.kpo.realtime.cgroup_layout"
#define RT_CPUSET_ROOT QX_CPUSET_MOUNT
#define RT_CPUACCT_ROOT QX_CPUACCT_MOUNT
#define RT_CPUSET_ROOT_TASKS QX_CPUSET_MOUNT "tasks"
#define RT_CPUACCT_ROOT_TASKS QX_CPUACCT_MOUNT "tasks"

// ---------------------------------------------------------------------------------------------
// Shared records (the same layout in 32-bit and 64-bit processes)
// ---------------------------------------------------------------------------------------------

typedef struct {
    int32_t s32BudgetCpuNum;
    int32_t s32UtilTotal;
    int32_t s32CapPerCore;
    int32_t s32UtilReservation;
    int32_t s32DbgLevel;
    uint8_t u8Enabled;
    uint8_t au8Reserved[3];
    int32_t s32DomainNum;
    int32_t s32DomainUtilList[RT_MAX_DOMAIN];
    char szDomainNameList[RT_MAX_DOMAIN][RT_NAME_LEN];
} QX_REALTIME_CENTRAL_t;

typedef struct {
    int32_t s32NextOffset;
    int32_t s32ClassStartOffset;
    int32_t s32ClassNum;
    int32_t s32ThreadStartOffset;
    int32_t s32ThreadNum;
    char szName[RT_NAME_LEN];
    int32_t s32UtilMax;
    int32_t s32UtilCurrent;
    char pszCpuset[RT_CPUSET_LEN];
    int32_t s32CpuNum;
    uint32_t u32CpuMask;
    int32_t s32RtRuntimeUs;
    uint32_t u32SchedType;
    char pszCpusetPathRoot[RT_PATH_LEN];
    char pszCpusetPathTasks[RT_PATH_LEN];
    char pszCpuacctPathRoot[RT_PATH_LEN];
    char pszCpuacctPathTasks[RT_PATH_LEN];
    char pszCpuacctPathStat[RT_PATH_LEN];
    int32_t s32MemHighPrioResource;
    int32_t s32MemHighPrioUsage;
    int32_t s32MemHighPrioAvailable;
    int32_t processIDListNum;
    int32_t s32ProcessIDList[RT_PROCESS_ID_LIST_NUM];
} QX_REALTIME_DOMAIN_t;

typedef struct {
    int32_t s32ClassId;
    char szClassName[RT_NAME_LEN];
    int32_t s32Util;
    int32_t s32RtPriority;
    int32_t s32DlDeadlineUs;
    int32_t s32DlRuntimeUs;
    int32_t s32DlPeriodUs;
} QX_REALTIME_CLASS_t;

// One entry of the per-process table of mapped domain segments.
typedef struct {
    char szDomainName[RT_NAME_LEN];
    int32_t s32ShmFd;
    void *pvDomainAddr;
} QX_REALTIME_DOMAIN_MAP_t;

// The per-process top object.
typedef struct {
    int32_t s32BudgetCpuNum;
    int32_t s32CapPerCore;
    int32_t s32UtilReservation;
    int32_t s32DbgLevel;
    uint32_t Enabled;  // only the low byte is meaningful
    int32_t s32ShmFd;
    QX_REALTIME_CENTRAL_t *pstCentral;
    uint32_t u32DomainMapNum;
    QX_REALTIME_DOMAIN_MAP_t astDomainMap[RT_MAX_DOMAIN_MAP];
} QX_REALTIME_TOP_t;

// The byte layout is a cross-process format: pin every offset and size.
#define RT_ASSERT_AT(type, field, off) \
    static_assert(offsetof(type, field) == (off), #type "." #field " offset")
RT_ASSERT_AT(QX_REALTIME_CENTRAL_t, s32BudgetCpuNum, 0);
RT_ASSERT_AT(QX_REALTIME_CENTRAL_t, s32UtilTotal, 4);
RT_ASSERT_AT(QX_REALTIME_CENTRAL_t, s32CapPerCore, 8);
RT_ASSERT_AT(QX_REALTIME_CENTRAL_t, s32UtilReservation, 12);
RT_ASSERT_AT(QX_REALTIME_CENTRAL_t, s32DbgLevel, 16);
RT_ASSERT_AT(QX_REALTIME_CENTRAL_t, u8Enabled, 20);
RT_ASSERT_AT(QX_REALTIME_CENTRAL_t, au8Reserved, 21);
RT_ASSERT_AT(QX_REALTIME_CENTRAL_t, s32DomainNum, 24);
RT_ASSERT_AT(QX_REALTIME_CENTRAL_t, s32DomainUtilList, 28);
RT_ASSERT_AT(QX_REALTIME_CENTRAL_t, szDomainNameList, 124);
static_assert(sizeof(QX_REALTIME_CENTRAL_t) == 1660, "central record size");

RT_ASSERT_AT(QX_REALTIME_DOMAIN_t, s32NextOffset, 0);
RT_ASSERT_AT(QX_REALTIME_DOMAIN_t, s32ClassStartOffset, 4);
RT_ASSERT_AT(QX_REALTIME_DOMAIN_t, s32ClassNum, 8);
RT_ASSERT_AT(QX_REALTIME_DOMAIN_t, s32ThreadStartOffset, 12);
RT_ASSERT_AT(QX_REALTIME_DOMAIN_t, s32ThreadNum, 16);
RT_ASSERT_AT(QX_REALTIME_DOMAIN_t, szName, 20);
RT_ASSERT_AT(QX_REALTIME_DOMAIN_t, s32UtilMax, 84);
RT_ASSERT_AT(QX_REALTIME_DOMAIN_t, s32UtilCurrent, 88);
RT_ASSERT_AT(QX_REALTIME_DOMAIN_t, pszCpuset, 92);
RT_ASSERT_AT(QX_REALTIME_DOMAIN_t, s32CpuNum, 108);
RT_ASSERT_AT(QX_REALTIME_DOMAIN_t, u32CpuMask, 112);
RT_ASSERT_AT(QX_REALTIME_DOMAIN_t, s32RtRuntimeUs, 116);
RT_ASSERT_AT(QX_REALTIME_DOMAIN_t, u32SchedType, 120);
RT_ASSERT_AT(QX_REALTIME_DOMAIN_t, pszCpusetPathRoot, 124);
RT_ASSERT_AT(QX_REALTIME_DOMAIN_t, pszCpusetPathTasks, 252);
RT_ASSERT_AT(QX_REALTIME_DOMAIN_t, pszCpuacctPathRoot, 380);
RT_ASSERT_AT(QX_REALTIME_DOMAIN_t, pszCpuacctPathTasks, 508);
RT_ASSERT_AT(QX_REALTIME_DOMAIN_t, pszCpuacctPathStat, 636);
RT_ASSERT_AT(QX_REALTIME_DOMAIN_t, s32MemHighPrioResource, 764);
RT_ASSERT_AT(QX_REALTIME_DOMAIN_t, s32MemHighPrioUsage, 768);
RT_ASSERT_AT(QX_REALTIME_DOMAIN_t, s32MemHighPrioAvailable, 772);
RT_ASSERT_AT(QX_REALTIME_DOMAIN_t, processIDListNum, 776);
RT_ASSERT_AT(QX_REALTIME_DOMAIN_t, s32ProcessIDList, 780);
static_assert(sizeof(QX_REALTIME_DOMAIN_t) == RT_DOMAIN_HEADER_SIZE, "domain record size");

RT_ASSERT_AT(QX_REALTIME_CLASS_t, s32ClassId, 0);
RT_ASSERT_AT(QX_REALTIME_CLASS_t, szClassName, 4);
RT_ASSERT_AT(QX_REALTIME_CLASS_t, s32Util, 68);
RT_ASSERT_AT(QX_REALTIME_CLASS_t, s32RtPriority, 72);
RT_ASSERT_AT(QX_REALTIME_CLASS_t, s32DlDeadlineUs, 76);
RT_ASSERT_AT(QX_REALTIME_CLASS_t, s32DlRuntimeUs, 80);
RT_ASSERT_AT(QX_REALTIME_CLASS_t, s32DlPeriodUs, 84);
static_assert(sizeof(QX_REALTIME_CLASS_t) == 88, "class record size");

RT_ASSERT_AT(QX_REALTIME_THREAD_t, ThreadIdx, 0);
RT_ASSERT_AT(QX_REALTIME_THREAD_t, ClassIdx, 4);
RT_ASSERT_AT(QX_REALTIME_THREAD_t, Alive, 8);
RT_ASSERT_AT(QX_REALTIME_THREAD_t, ProcessID, 12);
RT_ASSERT_AT(QX_REALTIME_THREAD_t, Pid, 16);
RT_ASSERT_AT(QX_REALTIME_THREAD_t, Util, 20);
RT_ASSERT_AT(QX_REALTIME_THREAD_t, Priority, 24);
RT_ASSERT_AT(QX_REALTIME_THREAD_t, DeadlineUs, 28);
RT_ASSERT_AT(QX_REALTIME_THREAD_t, RuntimeUs, 32);
RT_ASSERT_AT(QX_REALTIME_THREAD_t, PeriodUs, 36);
RT_ASSERT_AT(QX_REALTIME_THREAD_t, stSavedAttr, 40);
static_assert(sizeof(QX_REALTIME_THREAD_t) == 96, "thread record size");
// Slots start at 1100 + 88 x classes: 4-aligned only, hence no 64-bit field in the record.
static_assert(alignof(QX_REALTIME_THREAD_t) == 4, "thread slots are only 4-byte aligned");
static_assert(alignof(QX_REALTIME_CLASS_t) == 4, "class records are only 4-byte aligned");

static_assert(sizeof(QX_REALTIME_UTIL_t) == 16, "utilisation record is four words");

#define RT_CLASS_SIZE ((int32_t)sizeof(QX_REALTIME_CLASS_t))
#define RT_THREAD_SIZE ((int32_t)sizeof(QX_REALTIME_THREAD_t))
static_assert(RT_DOMAIN_HEADER_SIZE % 8 == 4 && sizeof(QX_REALTIME_CLASS_t) % 8 == 0 &&
                  sizeof(QX_REALTIME_THREAD_t) % 8 == 0 && RT_SHM_SIZE % 8 == 0,
              "no record reaches the last word of a domain segment (the creation mark)");

// ---------------------------------------------------------------------------------------------
// Process-wide state
// ---------------------------------------------------------------------------------------------

extern uint32_t _u32DbgLevel;
extern QX_REALTIME_TOP_t *pstTop;
extern const char *pstJsonPath;

// ---------------------------------------------------------------------------------------------
// Diagnostics
// ---------------------------------------------------------------------------------------------

#define RT_DBG_LEVEL_DEFAULT 32u
#define RT_DBG_LEVEL_ERR 32u
#define RT_DBG_LEVEL_INFO 64u
#define RT_DBG_LEVEL_TRACE 240u
#define RT_DBG_LEVEL_FILE 241u

enum qx_msg_kind { QX_MSG_ERR = 0, QX_MSG_INFO = 1 };

// Whether a message of this threshold goes anywhere at the current level.
static inline int qx_log_wanted(uint32_t threshold) {
    return (_u32DbgLevel == RT_DBG_LEVEL_FILE && rtlog != NULL) || _u32DbgLevel >= threshold;
}

// Writes one message in both forms (per-process file at 241, Android log at its threshold).
void qx_log_emit(int kind, const char *func, int line, const char *fmt, ...)
    __attribute__((format(printf, 4, 5)));

// The level is tested before any argument is evaluated: a suppressed message formats nothing and
// makes no system call.
#define RT_LOGE(...) RT_LOGE_AS(__func__, __VA_ARGS__)
// An error reported under the name of the step it belongs to, from a helper of that step: the
// Android form names the reporting function, and splitting a step into helpers must not change it.
#define RT_LOGE_AS(func, ...)                                       \
    do {                                                            \
        if (qx_log_wanted(RT_DBG_LEVEL_ERR))                        \
            qx_log_emit(QX_MSG_ERR, (func), __LINE__, __VA_ARGS__); \
    } while (0)
#define RT_LOGI(...)                                                   \
    do {                                                               \
        if (qx_log_wanted(RT_DBG_LEVEL_INFO))                          \
            qx_log_emit(QX_MSG_INFO, __func__, __LINE__, __VA_ARGS__); \
    } while (0)
#define RT_LOGD(...) RT_LOGI(__VA_ARGS__)

// The text of errno, formatted into strerrBuf.
const char *qx_errno_text(void);
#define RT_ERRNO_STR qx_errno_text()

// Entry trace of an exported function, with the Android-only ">>>" line at level 240 and above.
void qx_trace_line(const char *func, int line);
#define RT_ENTER(name)                                                                   \
    do {                                                                                 \
        if (qx_log_wanted(RT_DBG_LEVEL_INFO)) {                                          \
            qx_log_emit(QX_MSG_INFO, __func__, __LINE__,                                 \
                        "[RT_Impl][DBG] [%s] enter: pid=%d, tid=%ld;\n", name, getpid(), \
                        qx_gettid());                                                    \
            qx_trace_line(name, __LINE__);                                               \
        }                                                                                \
    } while (0)
#define RT_ENTER_ARGPID(name, tid)                                                          \
    do {                                                                                    \
        if ((tid) < 1) {                                                                    \
            RT_ENTER(name);                                                                 \
        } else if (qx_log_wanted(RT_DBG_LEVEL_INFO)) {                                      \
            qx_log_emit(QX_MSG_INFO, __func__, __LINE__,                                    \
                        "[RT_Impl][DBG] [%s] enter: pid=%d, tid=%ld; argPid=[%d].\n", name, \
                        getpid(), qx_gettid(), (int)(tid));                                 \
            qx_trace_line(name, __LINE__);                                                  \
        }                                                                                   \
    } while (0)
// A NULL argument ends the operation before any lock is taken.
#define RT_REQUIRE_ARG(name, arg)                                \
    do {                                                         \
        if ((arg) == NULL) {                                     \
            RT_LOGE("[RT_Impl][Err] [%s] Arg is NULL.\n", name); \
            return RT_ERR_INVALID_PARAM;                         \
        }                                                        \
    } while (0)
#define RT_EXIT(name, ret)                                                         \
    do {                                                                           \
        if ((ret) == RT_SUCCESS)                                                   \
            RT_LOGD("[RT_Impl][DBG] [%s] exit, OK.\n", name);                      \
        else                                                                       \
            RT_LOGD("[RT_Impl][DBG] [%s] exit, err=%u.\n", name, (unsigned)(ret)); \
    } while (0)

// A 64-byte name field of a shared record, copied and terminated for printing: a corrupted
// record never makes a message read past its field.
typedef struct {
    char sz[RT_NAME_LEN];
} qx_name_t;
qx_name_t qx_name_of(const char *pszField);

// Copies a name into a 64-byte field: cut to 63 characters, the rest of the field zeroed.
static inline void qx_copy_name(char *pszField, const char *pszName) {
    size_t uLen = strnlen(pszName, RT_NAME_LEN - 1);
    memcpy(pszField, pszName, uLen);
    memset(pszField + uLen, 0, RT_NAME_LEN - uLen);
}

static inline int qx_enabled(void) {
    return (pstTop->Enabled & 0xFFu) != 0;
}

// Maps a configured DbgLevel (0..7) to the internal level.
uint32_t qx_dbg_level_from_config(int32_t s32DbgLevel);

// ---------------------------------------------------------------------------------------------
// Shared state: segments, lock files, the bounded formatter
// ---------------------------------------------------------------------------------------------

// snprintf through the fortified vsnprintf: an overflow of the object aborts instead of
// corrupting memory. Returns what vsnprintf returns (truncation is not reported).
int qx_snprintf(char *dst, size_t maxlen, size_t objsize, const char *fmt, ...)
    __attribute__((format(printf, 4, 5)));
#define RT_SNPRINTF(buf, ...) qx_snprintf((buf), sizeof(buf), sizeof(buf), __VA_ARGS__)
// Paths must never be cut: a cut path would name another file. A path that does not fit its
// buffer counts as a formatting failure (-1).
int qx_format_path(char *dst, size_t dst_size, const char *fmt, ...)
    __attribute__((format(printf, 3, 4)));
#define RT_FORMAT_PATH(buf, ...) qx_format_path((buf), sizeof(buf), __VA_ARGS__)

// The paths of the shared segment and of the lock file of a name ("Global" or a domain's): the
// one place each is formatted, for the library and its tools. The formatter's result: negative
// when it fails.
int qx_segment_path(char *dst, size_t dst_size, const char *pszName);
int qx_lock_path(char *dst, size_t dst_size, const char *pszName);

uint32_t _QX_REALTIME_GetFlock(const char *pszName, int32_t *ps32Fd);
uint32_t _QX_REALTIME_SharedMemoryAlloc(const char *pszName, int32_t *ps32ShmFd, void **ppvAddr);
void _QX_REALTIME_SharedMemoryFree(const char *pszName, int32_t *ps32ShmFd, void *pvAddr);
uint32_t _QX_REALTIME_GetCentralShm(void);
uint32_t _QX_REALTIME_GetCentralAndTop(int32_t *ps32FlockFd);

// The opening steps of the exported operations after QX_REALTIME_Init: under `mutex`, open the
// central lock file and attach the central segment (on failure: exit trace, `mutex` released,
// QX_FRAME_FAILED); then, `mutex` released, the Enabled test (disabled: descriptor closed,
// QX_FRAME_DISABLED, the operation succeeds doing nothing). QX_FRAME_GO leaves *ps32Central open
// and unlocked, `mutex` not held. *pu32Ret is what the operation returns unless it goes on.
enum { QX_FRAME_GO = 0, QX_FRAME_FAILED, QX_FRAME_DISABLED };
int qx_frame_open(const char *pszOp, int32_t *ps32Central, uint32_t *pu32Ret);

// The size of the regular file behind a descriptor; -1 when it is not a regular file (errno
// EINVAL) or can't be asked.
long long qx_regular_size(int32_t s32Fd);
// Whether the file behind a segment descriptor is shorter than a segment (its size in
// *ps64Size): such a mapping must not be touched. A descriptor of -1 can't tell and says no.
int qx_fd_is_short(int32_t s32Fd, long long *ps64Size);
// The one report of a central lock file that can't be had, whether it can't be opened or the
// kernel refuses its lock (flock failing otherwise than by a signal): the error of
// _QX_REALTIME_GetCentralAndTop; returns that step's code, RT_ERR_FAILED.
uint32_t qx_no_central_lock(void);
// The same, then pszOp's exit trace, for an operation that has released the lock file and the
// mutex and fails as when the central lock file can't be opened.
uint32_t qx_central_lock_refused(const char *pszOp);
// Whether this process's central mapping is whole; if not, says so in an error message.
int qx_central_intact(const char *pszOp);

// Record access with bounds checks against the segment: NULL when the record would not lie
// wholly inside the 16384 bytes (a corrupted or hostile segment never makes us read past it).
QX_REALTIME_CLASS_t *qx_domain_class(QX_REALTIME_DOMAIN_t *pstDomain, int32_t s32Index);
QX_REALTIME_THREAD_t *qx_domain_thread(QX_REALTIME_DOMAIN_t *pstDomain, int32_t s32Index);
int32_t qx_domain_class_num(const QX_REALTIME_DOMAIN_t *pstDomain);
int32_t qx_domain_thread_num(const QX_REALTIME_DOMAIN_t *pstDomain);
int32_t qx_domain_pid_list_num(const QX_REALTIME_DOMAIN_t *pstDomain);
int32_t qx_central_domain_num(const QX_REALTIME_CENTRAL_t *pstCentral);

// ---------------------------------------------------------------------------------------------
// Lifecycle
// ---------------------------------------------------------------------------------------------

uint32_t _QX_REALTIME_GetCapability(void);

// ---------------------------------------------------------------------------------------------
// Configuration
// ---------------------------------------------------------------------------------------------

uint32_t _QX_REALTIME_FileReader(const char *pszPath, char **ppszText);
// The whole-file reader on an open stream, which it closes; the messages name pszPath.
// puFirstWordLen, when not NULL, receives the length of the text's first word: the file's bytes
// up to its first zero byte (a command line's program), which always starts the text.
uint32_t qx_config_read_stream(FILE *pFile, const char *pszPath, char **ppszText,
                               size_t *puFirstWordLen = NULL);
// The reader's answer for a file it must not open (a path a damaged record names): the failure
// of a file that can't be read, as the reader reports it (EACCES), without any system call.
uint32_t qx_read_refused(const char *pszPath);
// _QX_REALTIME_FileReader, with the first word's length as above.
uint32_t qx_read_file_first_word(const char *pszPath, char **ppszText, size_t *puFirstWordLen);

// One parse of a configuration text for one domain: the records it fills and where the walk
// stands. Passed explicitly so that a parse depends on nothing but its arguments; the linter
// runs the reader on records of its own.
typedef struct {
    QX_REALTIME_DOMAIN_t *pstDomain;  // the record being built (RT_SHM_SIZE bytes)
    QX_REALTIME_TOP_t *pstTop;        // receives the System_ values; pstTop->pstCentral the lists
    const char *pszJson;              // the whole text
    const jsmntok_t *pstTokEnd;       // one past the last token jsmn produced; NULL: unbounded
    uint64_t u64Status;               // the ParsingStatus word
    uint8_t bFound;                   // the wanted domain's key was seen
    uint8_t bCentralListFull;         // the central lists had no room for the domain
    uint8_t *pu8ClassOptions;         // RT_CLASS_OPTIONS_NUM bytes, by class index; NULL: not kept
} qx_parse_ctx_t;

// Tokenizes pstCtx->pszJson, walks it into the records and applies the checks of a whole parse;
// the messages name pszJsonPath. RT_SUCCESS, RT_ERR_INVALID_PARAM or RT_ERR_SYSTEM.
uint32_t qx_config_parse_text(qx_parse_ctx_t *pstCtx, const char *pszJsonPath);
// Walks the token and everything below it; returns the number of tokens consumed.
int qx_config_walk(qx_parse_ctx_t *pstCtx, const jsmntok_t *pstTok);

// The start-up line scan: lines of at most 127 characters, each holding one of the keys of
// kQxCfgStartupKeys; the value after its first ':' up to ',' through atoi, until all three were
// seen. as64Offset: where the line each value came from starts (bytes from the start).
typedef struct {
    int32_t as32Value[3];  // Util, Enabled, DbgLevel
    int64_t as64Offset[3];
    uint32_t u32Found;  // bit n: key n was seen
} qx_startup_scan_t;
void qx_config_scan_startup(FILE *pFile, char *pszLine, qx_startup_scan_t *pstScan);
uint32_t _QX_REALTIME_JsonParser(const char *pszJsonPath, QX_REALTIME_DOMAIN_t *pstDomain);
// The same, keeping the options of each class the text gives (see the class options below) in
// pu8ClassOptions (RT_CLASS_OPTIONS_NUM bytes, zeroed first).
uint32_t qx_config_parse_domain(const char *pszJsonPath, QX_REALTIME_DOMAIN_t *pstDomain,
                                uint8_t *pu8ClassOptions);
int _QX_JSMN_TokParsing(QX_REALTIME_DOMAIN_t *pstDomain, const char *pszJson, jsmntok_t *pstTok,
                        uint64_t *pu64ParsingStatus, uint8_t *pbFound);
int _QX_JSMN_TokEqual(const char *pszJson, const jsmntok_t *pstTok, const char *pszKey);
int32_t _QX_VarStrToInt(const char *pszStr, int32_t s32Len);
void _QX_REALTIME_ParseCpuSelection(const char *pszCpuSelection, int32_t *ps32CpuNum,
                                    uint32_t *pu32CpuMask);

// ---------------------------------------------------------------------------------------------
// Domains
// ---------------------------------------------------------------------------------------------

QX_REALTIME_DOMAIN_t *_QX_REALTIME_GetDomainFromName(const char *pszDomainName, int32_t *pFlockFd);

// The lookup with its outcome told apart: a domain that does not exist, one whose creation never
// finished (left by a creator that died, or under way in another process), one whose segment or
// record another process damaged, or another failure (its message already given).
enum {
    QX_LOOKUP_FOUND = 0,
    QX_LOOKUP_MISSING,
    QX_LOOKUP_UNFINISHED,
    QX_LOOKUP_BROKEN,
    QX_LOOKUP_FAILED
};
QX_REALTIME_DOMAIN_t *qx_find_domain(const char *pszDomainName, int32_t *pFlockFd, int *ps32Status);
// _QX_REALTIME_GetDomainFromName for a caller that only reads the record and opens none of the
// files its paths name (the dump): a record whose cgroup paths are not those its name implies is
// still found, and the caller tests each path with qx_path_field_is before it reads that file.
QX_REALTIME_DOMAIN_t *qx_get_domain_to_read(const char *pszDomainName, int32_t *pFlockFd);
// Whether a path field of a record reads exactly pszBase + pszName + pszTail.
int qx_path_field_is(const char *pszField, const char *pszBase, const char *pszName,
                     const char *pszTail);

// A domain's lock refused by the kernel: the lookup's error for a lock file it can't get. The
// caller then fails as for a domain that can't be found.
void qx_domain_lock_refused(const char *pszDomainName);

// A domain name names files and directories: 1 to 63 characters (the record's name field), no
// '/', and neither "." nor "..", so that it can never lead out of the directories it is used in.
#define RT_DOMAIN_NAME_MAX (RT_NAME_LEN - 1)
int qx_domain_name_ok(const char *pszName);
#define RT_REQUIRE_DOMAIN_NAME(name, arg)                                                  \
    do {                                                                                   \
        if (!qx_domain_name_ok(arg)) {                                                     \
            RT_LOGE(                                                                       \
                "[RT_Impl][Err] [%s] Invalid domain name: it must be 1 to 63 characters, " \
                "not \".\" or \"..\", without '/'.\n",                                     \
                name);                                                                     \
            return RT_ERR_INVALID_PARAM;                                                   \
        }                                                                                  \
    } while (0)

// The name check of the operations that look a domain up. The empty name names no domain and no
// file: it is looked up and not found, with the operation's answer for any unknown name. The
// other names qx_domain_name_ok refuses could lead out of the library's directories and are
// refused before any file is touched.
#define RT_REQUIRE_LOOKUP_NAME(name, arg)                        \
    do {                                                         \
        if ((arg)[0] != '\0') RT_REQUIRE_DOMAIN_NAME(name, arg); \
    } while (0)

// The smallest deadline reservation the kernel accepts: 1024 ns every 4 s. Its bandwidth rounds
// to zero in the kernel's fixed-point accounting; a sleeping deadline thread is stepped through it
// before it leaves SCHED_DEADLINE, so that its bandwidth is given back at once.
#define QX_DL_MINIMAL_RUNTIME_NS 1024ull
#define QX_DL_MINIMAL_PERIOD_NS 4000000000ull

// The creation mark: the last word of a domain segment holds RT_DOMAIN_CREATING from the moment
// the segment is made until its creation is complete, so that a creation cut short by the death
// of its process is recognised and done again. No record ever reaches that word: the header is
// 4 bytes past a multiple of 8 and class and thread records are multiples of 8, so every record
// ends 4 bytes past a multiple of 8, at most at RT_SHM_SIZE - 4.
#define RT_DOMAIN_MARK_OFFSET (RT_SHM_SIZE - 4)
#define RT_DOMAIN_CREATING 0x51585243u
// The same word holds RT_DOMAIN_BUSY while an operation holds the domain's lock file (a finished
// domain is never being created meanwhile). A holder killed under the lock leaves it set, and may
// have left the charge and the records apart: the charge and a record are two stores that no lock
// makes one. The next holder then takes the charge again from the records.
#define RT_DOMAIN_BUSY 0x51585242u
void qx_set_creation_mark(QX_REALTIME_DOMAIN_t *pstDomain, uint32_t u32Mark);

// The outcomes of taking one domain for an operation (qx_domain_hold::take).
enum { QX_DOMAIN_LOCKED = 0, QX_DOMAIN_NO_CENTRAL, QX_DOMAIN_DISABLED, QX_DOMAIN_MISSING };

// a - b and a + b on 32-bit words, wrapping as the shared counters always have.
static inline int32_t qx_wrap_sub(int32_t a, int32_t b) {
    return (int32_t)((uint32_t)a - (uint32_t)b);
}
static inline int32_t qx_wrap_add(int32_t a, int32_t b) {
    return (int32_t)((uint32_t)a + (uint32_t)b);
}

// The cpuset control file <dir>/<name>: Android mounts cpuset with plain names ("cpus"), most
// Linux hosts with prefixed ones ("cpuset.cpus"); the plain name wins when it exists.
int qx_cpuset_file_path(char *dst, size_t dst_size, const char *pszDir, const char *pszName);

// ---------------------------------------------------------------------------------------------
// The cgroup layer (cgroup_files.cpp)
// ---------------------------------------------------------------------------------------------

// The layouts of control groups the library runs on, told once per process:
//   QX_CGROUP_V1       cpuset and cpuacct cgroup v1 hierarchies at /dev/cpuset and /dev/cpuacct
//                      (the device's layout; a missing hierarchy fails as it always has);
//   QX_CGROUP_ANDROID  cpuset at /dev/cpuset and no cpuacct hierarchy at all, as Android 12 and
//                      later mount them: a domain's CPU time is its admitted threads' own;
//   QX_CGROUP_V2       no cgroup v1 cpuset at all, one cgroup v2 hierarchy at /sys/fs/cgroup with
//                      the cpuset controller: a domain's threads are placed in a threaded group
//                      "qxrt-<domain>" made inside their own process's group (the process stays
//                      where its service manager put it); CPU time as on QX_CGROUP_ANDROID.
// The property vendor.kpo.realtime.cgroup_layout ("v1", "android" or "v2") decides; unset, the
// mount table does: any mounted cgroup v1 hierarchy with the cpuacct controller means
// QX_CGROUP_V1, else a v1 cpuset hierarchy QX_CGROUP_ANDROID, else a cgroup v2 hierarchy at
// /sys/fs/cgroup offering cpuset QX_CGROUP_V2 (and nothing of these QX_CGROUP_ANDROID).
enum { QX_CGROUP_V1 = 0, QX_CGROUP_ANDROID = 1, QX_CGROUP_V2 = 2 };
int qx_cgroup_layout(void);
const char *qx_cgroup_layout_name(int s32Layout);
// Whether the layout has a cpuacct hierarchy (QX_CGROUP_V1); elsewhere a domain's CPU time is
// its threads' own (qx_cgroup_threads_time).
int qx_cgroup_has_cpuacct(void);
// The prefix of a domain's threaded group on QX_CGROUP_V2.
#define QX_CGROUP2_GROUP_PREFIX "qxrt-"
// Room for a cgroup v2 group's path: no record keeps one, and a service manager's groups nest
// deeper than a record's path field holds. A deeper group refuses the move.
#define QX_CGROUP2_PATH_LEN 1024
// On QX_CGROUP_V2: the group a thread sits in (absolute path under /sys/fs/cgroup) and its home,
// the group of its process it returns to: its group, or the parent when it sits in a domain's
// threaded group. -1 when the thread's group can't be read.
int qx_cgroup2_thread_group(int32_t s32Tid, char *pszGroup, size_t uSize);
int qx_cgroup2_thread_home(int32_t s32Tid, char *pszHome, size_t uSize);

// A new domain's path fields, each announced at debug level (the cpuacct ones only where there
// is a cpuacct hierarchy; otherwise they stay empty). RT_ERR_FAILED when one can't be formatted.
uint32_t qx_cgroup_domain_paths(QX_REALTIME_DOMAIN_t *pstDomain);
// The first path field of a mapped record that is not the one its name implies (an empty
// cpuacct field where there is no cpuacct hierarchy), by field name; NULL when all are.
const char *qx_cgroup_foreign_path(const char *pszName, const QX_REALTIME_DOMAIN_t *pstDomain);
// Creation's groups: the accounting group (cpuacct; nothing to do without it), then the cpuset
// group with its cpus and mems. RT_ERR_FAILED as creation reports it.
uint32_t qx_cgroup_make_accounting_group(const QX_REALTIME_DOMAIN_t *pstDomain);
uint32_t qx_cgroup_make_cpuset_group(QX_REALTIME_DOMAIN_t *pstDomain);
// Moves a thread into the domain's groups (the cpuset only when the domain has a budget and
// fewer CPUs than the machine) or back into the root groups; NULL, or the tasks file that
// refused it.
const char *qx_cgroup_join_domain(QX_REALTIME_DOMAIN_t *pstDomain, int32_t s32Tid);
const char *qx_cgroup_leave_domain(const QX_REALTIME_DOMAIN_t *pstDomain, int32_t s32Tid);
// A deadline update's two moves: into the root cpuset (where the kernel accepts the new
// parameters) and back into the domain's; NULL, or the tasks file that refused it.
const char *qx_cgroup_park_in_root_cpuset(int32_t s32Tid);
const char *qx_cgroup_return_to_domain_cpuset(const QX_REALTIME_DOMAIN_t *pstDomain,
                                              int32_t s32Tid);
// CPU hotplug on cgroup v1 (an offlined CPU leaves every cpuset's cpus for good): the CPUs the
// kernel lists as offline (a mask; their list in pszText), the CPU list a domain's cpuset holds now
// (-1 when unreadable), and the record's CPUs written back into the cpuset when it holds others
// (1 written, 0 nothing to do, -1 refused: a CPU of them is still offline). Whether the latest
// refused move of this thread into a cpuset was refused because none of its CPUs is online.
#define QX_CPU_OFFLINE_FILE "/sys/devices/system/cpu/offline"
#define QX_CPU_ONLINE_FILE "/sys/devices/system/cpu/online"
uint32_t qx_offline_cpus(char *pszText, size_t uSize);
int qx_cgroup_domain_cpus(const QX_REALTIME_DOMAIN_t *pstDomain, char *pszCpus, size_t uSize);
int qx_cgroup_restore_cpus(const QX_REALTIME_DOMAIN_t *pstDomain);
int qx_cgroup_refused_no_cpu_online(void);
// The tasks files that show the domain's threads, as the kernel sees them (each path field with
// the hierarchy it must lie in: the caller opens only a field that is the domain's own): how
// many of the two there are.
typedef struct {
    const char *pszField;
    const char *pszRoot;
} qx_tasks_file_t;
int qx_cgroup_tasks_files(const QX_REALTIME_DOMAIN_t *pstDomain, qx_tasks_file_t astFiles[2]);
// Without cpuacct: the domain's CPU time in clock ticks, the sum of what its admitted threads
// used since this process first found each of them admitted (and kept after they leave).
uint32_t qx_cgroup_threads_time(QX_REALTIME_DOMAIN_t *pstDomain, int32_t *ps32Time);
// One thread's user + system time in clock ticks and its start time; -1 when it can't be read.
int qx_thread_cpu_ticks(int32_t s32Tid, uint64_t *pu64Ticks, uint64_t *pu64Start);

// ---------------------------------------------------------------------------------------------
// Threads
// ---------------------------------------------------------------------------------------------

uint32_t _QX_REALTIME_SetSchedAttr(QX_REALTIME_DOMAIN_t *pstDomain, QX_REALTIME_CLASS_t *pstClass,
                                   const QX_REALTIME_UTIL_t *pstUtil, int32_t s32Tid,
                                   uint8_t bDlOverrun, uint8_t u8ClassOptions = 0);
uint32_t _QX_WriteStrToPath(const char *pszValue, const char *pszPath);
uint32_t _QX_WriteS32ToPath(int32_t s32Value, const char *pszPath);
void _QX_REALTIME_Overwrite_Cpuset(QX_REALTIME_DOMAIN_t *pstDomain);
uint32_t _QX_REALTIME_CheckOverUtil(QX_REALTIME_DOMAIN_t *pstDomain, int32_t s32RuntimeUs,
                                    int32_t s32DeadlineUs, int32_t s32PeriodUs, int32_t *ps32Util,
                                    int32_t s32OrigUtil);
uint32_t _QX_GetThreadByPid(QX_REALTIME_DOMAIN_t *pstDomain, QX_REALTIME_CLASS_t *pstClass,
                            int32_t s32Tid, QX_REALTIME_THREAD_t **ppstThread);
uint32_t _QX_REALTIME_getProcessID(QX_REALTIME_DOMAIN_t *pstDomain, int32_t s32Tid,
                                   int32_t *ps32ProcessID);
void _QX_REALTIME_CheckProcessAlive(QX_REALTIME_DOMAIN_t *pstDomain);
uint32_t _QX_AddThreadDataAtHead(QX_REALTIME_DOMAIN_t *pstDomain, QX_REALTIME_CLASS_t *pstClass,
                                 const QX_REALTIME_UTIL_t *pstUtil, int32_t s32Tid,
                                 int32_t s32ProcessID, const uint8_t *stSavedAttr);
void QX_REALTIME_RemoveKilledThread(QX_REALTIME_DOMAIN_t *pstDomain, int32_t s32ProcessID);
uint32_t _QX_ThreadDataDelete(QX_REALTIME_THREAD_t *pstThread);

// ---------------------------------------------------------------------------------------------
// Thread identities
// ---------------------------------------------------------------------------------------------

// The kernel reuses process and thread ids, so the ids of a record may come to name a thread
// that was never admitted. What tells two threads with one id apart is their start time (clock
// ticks since boot, /proc/<tid>/task/<tid>/stat): beside each domain segment a small file,
// /dev/shm/realtime/id_<domain>, holds for every thread slot the start times of the admitted
// thread and of its process. The records keep their layout. An entry counts only while its ids
// are those of the slot's in-use record and its thread start is known; otherwise the record is
// trusted by its ids alone, as records always were (one written by an older build, or by a holder
// killed between the record and its entry). Write order: the entry after the record it belongs
// to, and cleared before its slot is freed, so a free slot carries none.
typedef struct {
    int32_t s32Tid;            // the record's Pid
    int32_t s32ProcessID;      // the record's ProcessID
    uint64_t u64ProcessStart;  // 0: unknown (no process, or it could not be read)
    uint64_t u64ThreadStart;   // 0: the entry is unknown
} QX_REALTIME_IDENTITY_t;
RT_ASSERT_AT(QX_REALTIME_IDENTITY_t, s32Tid, 0);
RT_ASSERT_AT(QX_REALTIME_IDENTITY_t, s32ProcessID, 4);
RT_ASSERT_AT(QX_REALTIME_IDENTITY_t, u64ProcessStart, 8);
RT_ASSERT_AT(QX_REALTIME_IDENTITY_t, u64ThreadStart, 16);
static_assert(sizeof(QX_REALTIME_IDENTITY_t) == 24, "identity entry size");
#define RT_IDENTITY_PREFIX QX_SHM_DIR "id_"
// Entry i belongs to thread slot i; no segment has room for more slots than this.
#define RT_IDENTITY_SLOTS ((RT_SHM_SIZE - RT_DOMAIN_HEADER_SIZE) / RT_THREAD_SIZE)
#define RT_IDENTITY_SIZE (RT_IDENTITY_SLOTS * (int32_t)sizeof(QX_REALTIME_IDENTITY_t))

// Class options. What a class may choose beyond its record (which has no room left) is kept in
// the identity file too, after the entries: one byte per class record, by class index, written
// once when the domain is created. Zero is every default, so a file made by an older build (or a
// new one made for an older domain at its first admission), which ends before this region or
// holds zeros there, gives every class the behaviour classes always had.
#define RT_CLASS_OPTIONS_NUM ((RT_SHM_SIZE - RT_DOMAIN_HEADER_SIZE) / RT_CLASS_SIZE)
#define RT_CLASS_OPTIONS_AT RT_IDENTITY_SIZE
#define RT_IDENTITY_FILE_SIZE (RT_CLASS_OPTIONS_AT + RT_CLASS_OPTIONS_NUM)
// A deadline class whose threads hold their reservation: admitted without SCHED_FLAG_RECLAIM.
#define RT_CLASS_OPT_NO_RECLAIM 0x01u

int qx_identity_path(char *dst, size_t dst_size, const char *pszName);
// How qx_identity_open gets a domain's identity file: only an existing one; an existing one or,
// where there is none, a new empty one; or a new one in place of any old one (a new domain).
enum { QX_IDENTITY_EXISTING = 0, QX_IDENTITY_MAKE, QX_IDENTITY_FRESH };
// Its descriptor (close-on-exec, a regular file, never through a symlink), or -1. A new file is
// made as a domain segment is: exclusive create, mode 0660 whatever the umask, all zeros.
int32_t qx_identity_open(const char *pszName, int s32How);
// Removes a domain's identity file, quietly: it goes with the domain.
void qx_identity_remove(const char *pszName);
// All entries (RT_IDENTITY_SLOTS); what the file does not hold reads as unknown. -1: unreadable.
// pu8Options, when not NULL, receives the class options in the same read (RT_CLASS_OPTIONS_NUM
// bytes; what the file does not hold reads as zero, the defaults).
int qx_identity_read(int32_t s32Fd, QX_REALTIME_IDENTITY_t *astEntries, uint8_t *pu8Options);
// Writes the class options of a new domain; -1 when they can't be written.
int qx_identity_write_options(int32_t s32Fd, const uint8_t *pu8Options);
// Writes entry s32Slot; -1 when it can't be written.
int qx_identity_write(int32_t s32Fd, int32_t s32Slot, const QX_REALTIME_IDENTITY_t *pstEntry);

// The entry kept for an in-use record, or NULL when its identity is unknown.
static inline const QX_REALTIME_IDENTITY_t *qx_identity_of(const QX_REALTIME_THREAD_t *pstThread,
                                                           const QX_REALTIME_IDENTITY_t *pstEntry) {
    if (pstEntry == NULL || pstEntry->u64ThreadStart == 0 || pstEntry->s32Tid != pstThread->Pid ||
        pstEntry->s32ProcessID != pstThread->ProcessID)
        return NULL;
    return pstEntry;
}

// Start times read during one operation, each id read once.
#define QX_START_CACHE_NUM 16
typedef struct {
    int32_t s32Num;
    int32_t as32Id[QX_START_CACHE_NUM];
    uint64_t au64Start[QX_START_CACHE_NUM];
} qx_start_cache_t;
// The two below are inline so that rtctl's check asks the same questions without taking the
// threads' code (and its state) from the core archive.

// The start time of the thread (or of the process, by its leader) with this id; 0 when there is
// none or it can't be read. pstCache may be NULL.
static inline uint64_t qx_start_time(qx_start_cache_t *pstCache, int32_t s32Id) {
    if (s32Id <= 0) return 0;
    for (int32_t i = 0; pstCache != NULL && i < pstCache->s32Num; i++)
        if (pstCache->as32Id[i] == s32Id) return pstCache->au64Start[i];
    uint64_t u64Ticks = 0, u64Start = 0;
    if (qx_thread_cpu_ticks(s32Id, &u64Ticks, &u64Start) != 0) u64Start = 0;
    if (pstCache != NULL && pstCache->s32Num < QX_START_CACHE_NUM) {
        pstCache->as32Id[pstCache->s32Num] = s32Id;
        pstCache->au64Start[pstCache->s32Num] = u64Start;
        pstCache->s32Num++;
    }
    return u64Start;
}

// What the ids of a record name now, against the identity kept for it (NULL: unknown).
enum { QX_IDENTITY_SAME = 0, QX_IDENTITY_OTHER_PROCESS, QX_IDENTITY_OTHER_THREAD };
// QX_IDENTITY_SAME also when it can't be told: a process or thread that has gone is no other one
// (the liveness walk deals with a dead process as it always has).
static inline int qx_identity_check(const QX_REALTIME_THREAD_t *pstThread,
                                    const QX_REALTIME_IDENTITY_t *pstId,
                                    qx_start_cache_t *pstCache) {
    if (pstId == NULL) return QX_IDENTITY_SAME;
    // The process first: when it is another one, so is every thread the record could name.
    if (pstThread->ProcessID > 0 && pstId->u64ProcessStart != 0) {
        uint64_t u64Now = qx_start_time(pstCache, pstThread->ProcessID);
        if (u64Now != 0 && u64Now != pstId->u64ProcessStart) return QX_IDENTITY_OTHER_PROCESS;
    }
    uint64_t u64Now = qx_start_time(pstCache, pstThread->Pid);
    return u64Now != 0 && u64Now != pstId->u64ThreadStart ? QX_IDENTITY_OTHER_THREAD
                                                          : QX_IDENTITY_SAME;
}

// ---------------------------------------------------------------------------------------------
// Monitoring
// ---------------------------------------------------------------------------------------------

uint32_t _QX_REALTIME_GetGroupCpuStat(QX_REALTIME_DOMAIN_t *pstDomain, int32_t *ps32Time);
uint32_t _QX_REALTIME_GetTotalCpuStat(int32_t *ps32Time);

#ifdef __cplusplus
}

// ---- ownership of descriptors, lock files, mappings and the process mutex ----
// Each releases what it owns at the end of its scope; an operation whose messages or further
// steps must follow a release calls it early, by name. The order of releases is part of the
// library's behaviour (lock file before mutex, lookup before domain lock), so it is written here
// once and the operations only choose where a scope ends.

// The process mutex: taken on construction (or later with lock()), given back by unlock() or at
// the end of the scope.
class qx_mutex_hold {
public:
    explicit qx_mutex_hold(bool bTakeNow = true) {
        if (bTakeNow) lock();
    }
    ~qx_mutex_hold() { unlock(); }
    qx_mutex_hold(const qx_mutex_hold &) = delete;
    qx_mutex_hold &operator=(const qx_mutex_hold &) = delete;
    void lock() {
        if (bHeld_) return;
        pthread_mutex_lock(&mutex);
        bHeld_ = true;
    }
    void unlock() {
        if (!bHeld_) return;
        pthread_mutex_unlock(&mutex);
        bHeld_ = false;
    }

private:
    bool bHeld_ = false;
};

// A descriptor closed at the end of the scope unless handed on with release().
class qx_fd {
public:
    explicit qx_fd(int32_t s32Fd = -1) : s32Fd_(s32Fd) {}
    ~qx_fd() { reset(); }
    qx_fd(const qx_fd &) = delete;
    qx_fd &operator=(const qx_fd &) = delete;
    int32_t get() const { return s32Fd_; }
    bool ok() const { return s32Fd_ >= 0; }
    // The caller owns the descriptor from here on.
    int32_t release() {
        int32_t s32Fd = s32Fd_;
        s32Fd_ = -1;
        return s32Fd;
    }
    void reset(int32_t s32Fd = -1) {
        if (s32Fd_ >= 0) close(s32Fd_);
        s32Fd_ = s32Fd;
    }

private:
    int32_t s32Fd_;
};

// A lock file's descriptor: lock() takes the exclusive flock; release() (or the end of the scope)
// unlocks a taken lock and closes the file. A file never locked is only closed.
class qx_lock_file {
public:
    qx_lock_file() = default;
    ~qx_lock_file() { release(); }
    qx_lock_file(const qx_lock_file &) = delete;
    qx_lock_file &operator=(const qx_lock_file &) = delete;
    // Where the lock-file opener stores the descriptor.
    int32_t *slot() { return &s32Fd_; }
    int32_t get() const { return s32Fd_; }
    // Waits for the exclusive lock, through any signal that interrupts the wait (a handler
    // installed without SA_RESTART makes flock return EINTR). false: the kernel refused the lock,
    // and nothing may be done as if it were held.
    [[nodiscard]] bool lock() {
        while (flock(s32Fd_, LOCK_EX) != 0) {
            if (errno != EINTR) return false;
        }
        bLocked_ = true;
        return true;
    }
    void release() {
        if (s32Fd_ < 0) return;
        if (bLocked_) flock(s32Fd_, LOCK_UN);
        close(s32Fd_);
        s32Fd_ = -1;
        bLocked_ = false;
    }

private:
    int32_t s32Fd_ = -1;
    bool bLocked_ = false;
};

// A shared mapping of one segment, unmapped at the end of the scope unless handed on.
class qx_mapping {
public:
    qx_mapping() = default;
    ~qx_mapping() { reset(); }
    qx_mapping(const qx_mapping &) = delete;
    qx_mapping &operator=(const qx_mapping &) = delete;
    // Maps a whole segment of s32Fd; false (nothing mapped) when mmap fails.
    bool map(int32_t s32Fd) {
        reset();
        void *pvAddr = mmap(NULL, RT_SHM_SIZE, PROT_READ | PROT_WRITE, MAP_SHARED, s32Fd, 0);
        if (pvAddr == MAP_FAILED) return false;
        pvAddr_ = pvAddr;
        return true;
    }
    void *get() const { return pvAddr_; }
    void *release() {
        void *pvAddr = pvAddr_;
        pvAddr_ = NULL;
        return pvAddr;
    }
    void reset() {
        if (pvAddr_ != NULL) munmap(pvAddr_, RT_SHM_SIZE);
        pvAddr_ = NULL;
    }

private:
    void *pvAddr_ = NULL;
};

// The central lock file held to the end of an operation (creation, deletion, enumeration, the
// one-domain dump's lookup): taken under the process mutex on construction; release() (or the
// end of the scope) unlocks and closes the lock file, then unlocks the mutex, in that order.
// Operations whose exit message follows the release call release() before it. An operation
// whose lock the kernel refused (locked() false) does nothing but release and fail.
class qx_central_hold {
public:
    explicit qx_central_hold(int32_t s32Fd) {
        *stFile_.slot() = s32Fd;
        bLocked_ = stFile_.lock();
    }
    bool locked() const { return bLocked_; }
    ~qx_central_hold() { release(); }
    qx_central_hold(const qx_central_hold &) = delete;
    qx_central_hold &operator=(const qx_central_hold &) = delete;
    // Unlocks and closes the lock file but keeps the mutex: the lookup-then-domain-lock order.
    void release_file() { stFile_.release(); }
    void release() {
        release_file();
        stMutex_.unlock();
    }

private:
    qx_mutex_hold stMutex_;  // declared first: taken before, given back after the lock file
    qx_lock_file stFile_;
    bool bLocked_ = false;
};

// One domain held for an operation, in the calling order of every operation that works on one
// domain: the process mutex, the central lock around the lookup only, then the domain's lock
// file. take() answers QX_DOMAIN_LOCKED with the domain lock and the mutex held (given back by
// release() or at the end of the scope, lock file first); any other outcome has given back the
// locks and set *pu32Ret to the operation's result; QX_DOMAIN_MISSING leaves the message to the
// caller.
class qx_domain_hold {
public:
    qx_domain_hold() : stMutex_(false) {}
    ~qx_domain_hold() { release(); }
    qx_domain_hold(const qx_domain_hold &) = delete;
    qx_domain_hold &operator=(const qx_domain_hold &) = delete;
    int take(const char *pszOp, const char *pszDomainName, uint32_t *pu32Ret);
    QX_REALTIME_DOMAIN_t *domain() const { return pstDomain_; }
    void release() {
        if (pstDomain_ != NULL) qx_set_creation_mark(pstDomain_, 0);
        pstDomain_ = NULL;
        stFile_.release();
        stMutex_.unlock();
    }

private:
    qx_mutex_hold stMutex_;
    qx_lock_file stFile_;
    QX_REALTIME_DOMAIN_t *pstDomain_ = NULL;  // set only while its lock file is held
};
#endif

#endif
