// Configuration: the whole-file reader, the start-up line scan, the jsmn tokenizing step, the flat
// token walk that fills the domain being built, the top object and the central record, and the
// CPU-list reader. What a file may say (scopes, keys, sizes) is in config_schema.h.
#include <limits.h>
#include <stdlib.h>

#include "qx_realtime_internal.h"
#include "../platform/jsmn_linear.h"

#define RT_TOK_COUNT_INIT 160
#define RT_READ_LINE 128
#define RT_READ_INIT 4096

// ParsingStatus bits: the scope in the low bits, then one bit per key (config_schema.h) whose
// value is due.
#define PS_SYSTEM 0x1ull
#define PS_DOMAIN 0x2ull
#define PS_CLASS 0x4ull

static constexpr uint64_t qx_key_bit(qx_cfg_key_t eKey) {
    for (const qx_cfg_key_name_t &stKey : kQxCfgKeys)
        if (stKey.eKey == eKey) return stKey.u64Bit;
    return 0;
}
static constexpr uint64_t PS_UTIL = qx_key_bit(QX_CFG_KEY_UTIL);
static constexpr uint64_t PS_RESERVATION = qx_key_bit(QX_CFG_KEY_RESERVATION);
static constexpr uint64_t PS_DBGLEVEL = qx_key_bit(QX_CFG_KEY_DBG_LEVEL);
static constexpr uint64_t PS_ENABLED = qx_key_bit(QX_CFG_KEY_ENABLED);
static constexpr uint64_t PS_BUDGETCPUNUM = qx_key_bit(QX_CFG_KEY_BUDGET_CPU_NUM);
static constexpr uint64_t PS_CPUSET = qx_key_bit(QX_CFG_KEY_CPUSET);
static constexpr uint64_t PS_RT_PRIORITY = qx_key_bit(QX_CFG_KEY_RT_PRIORITY);
static constexpr uint64_t PS_DL_DEADLINE = qx_key_bit(QX_CFG_KEY_DL_DEADLINE);
static constexpr uint64_t PS_DL_RUNTIME = qx_key_bit(QX_CFG_KEY_DL_RUNTIME);
static constexpr uint64_t PS_DL_PERIOD = qx_key_bit(QX_CFG_KEY_DL_PERIOD);
static constexpr uint64_t PS_DESCRIPTION = qx_key_bit(QX_CFG_KEY_DESCRIPTION);
static constexpr uint64_t PS_DL_RECLAIM = qx_key_bit(QX_CFG_KEY_DL_RECLAIM);
static_assert(PS_UTIL == 0x10 && PS_RESERVATION == 0x20 && PS_DBGLEVEL == 0x40 &&
                  PS_ENABLED == 0x80 && PS_BUDGETCPUNUM == 0x100 && PS_CPUSET == 0x200 &&
                  PS_RT_PRIORITY == 0x400 && PS_DL_DEADLINE == 0x800 && PS_DL_RUNTIME == 0x1000 &&
                  PS_DL_PERIOD == 0x2000 && PS_DESCRIPTION == 0x4000 && PS_DL_RECLAIM == 0x8000,
              "the status word is shown in messages: its bits never move");

static const char kParsingString[] = "_QX_REALTIME_ParsingString";
static const char kParsingScope[] = "_QX_REALTIME_ParsingScope";
static const char kTokParsing[] = "_QX_JSMN_TokParsing";
static const char kJsonParser[] = "_QX_REALTIME_JsonParser";
static const char kFileReader[] = "_QX_REALTIME_FileReader";

// How many bytes the last fgets stored in a line buffer that was filled with non-zero bytes
// before it: its terminator is the last zero byte.
static size_t qx_line_stored(const char *pszLine) {
    const char *pszEnd = (const char *)memrchr(pszLine, '\0', RT_READ_LINE);
    return pszEnd != NULL ? (size_t)(pszEnd - pszLine) : 0;
}

uint32_t qx_config_read_stream(FILE *pFile, const char *pszPath, char **ppszText,
                               size_t *puFirstWordLen) {
    // The first word is still being read while no line has held a zero byte of the file.
    bool bInFirstWord = puFirstWordLen != NULL;
    char *pszLine = (char *)calloc(1, RT_READ_LINE);
    char *pszText = (char *)calloc(1, RT_READ_INIT);
    if (pszLine == NULL || pszText == NULL) {
        free(pszLine);
        free(pszText);
        return fclose(pFile) != 0 ? RT_ERR_SYSTEM : RT_ERR_NULL;
    }
    size_t uSize = RT_READ_INIT;
    size_t uLen = 0;
    for (;;) {
        if (bInFirstWord) memset(pszLine, 0xff, RT_READ_LINE);
        if (fgets(pszLine, RT_READ_LINE, pFile) == NULL) break;
        // Appended at the running length, which is always the text's strlen: the same bytes as
        // strncat, without rescanning the whole text for every line of a large file.
        size_t uLineLen = strlen(pszLine);
        memcpy(pszText + uLen, pszLine, uLineLen + 1);
        uLen += uLineLen;
        if (bInFirstWord && uLineLen < qx_line_stored(pszLine)) {
            // The line held a zero byte of the file: the first word ends where its text did.
            *puFirstWordLen = uLen;
            bInFirstWord = false;
        }
        if (uLen + RT_READ_LINE >= uSize) {
            uSize *= 2;
            char *pszGrown = (char *)realloc(pszText, uSize);
            RT_LOGI("[RT_Impl][Info] [%s]: The file [%s] is realloc to [%d] bytes.\n", kFileReader,
                    pszPath, (int)uSize);
            if (pszGrown == NULL) {
                RT_LOGE_AS(kFileReader,
                           "[RT_Impl][Err] [%s]: The file [%s] is > [%d] bytes, realloc failed.\n",
                           kFileReader, pszPath, (int)uSize);
                // The old text is not released on this path, as the reader has always done;
                // the caller is handed no text and never sees it.
                *ppszText = NULL;
                free(pszLine);
                return fclose(pFile) != 0 ? RT_ERR_SYSTEM : RT_ERR_NULL;
            }
            pszText = pszGrown;
        }
    }
    if (bInFirstWord) *puFirstWordLen = uLen;  // no zero byte at all: the whole text
    *ppszText = pszText;
    free(pszLine);
    return fclose(pFile) != 0 ? RT_ERR_SYSTEM : RT_SUCCESS;
}

uint32_t qx_read_file_first_word(const char *pszPath, char **ppszText, size_t *puFirstWordLen) {
    if (pszPath == NULL || ppszText == NULL) {
        RT_LOGE_AS(kFileReader, "[RT_Impl][Err] [%s] Arg is NULL.\n", kFileReader);
        return RT_ERR_INVALID_PARAM;
    }
    FILE *pFile = fopen(pszPath, "re");
    if (pFile == NULL) {
        RT_LOGE_AS(kFileReader, "[RT_Impl][Err] [%s] Failed to open %s: %s.\n", kFileReader,
                   pszPath, RT_ERRNO_STR);
        return RT_ERR_SYSTEM;
    }
    return qx_config_read_stream(pFile, pszPath, ppszText, puFirstWordLen);
}

uint32_t qx_read_refused(const char *pszPath) {
    errno = EACCES;
    RT_LOGE_AS(kFileReader, "[RT_Impl][Err] [%s] Failed to open %s: %s.\n", kFileReader, pszPath,
               RT_ERRNO_STR);
    return RT_ERR_SYSTEM;
}

uint32_t _QX_REALTIME_FileReader(const char *pszPath, char **ppszText) {
    return qx_read_file_first_word(pszPath, ppszText, NULL);
}

int _QX_JSMN_TokEqual(const char *pszJson, const jsmntok_t *pstTok, const char *pszKey) {
    if (pstTok->type != JSMN_STRING) return 0;
    size_t uLen = strlen(pszKey);
    return (size_t)(pstTok->end - pstTok->start) == uLen &&
           strncmp(pszJson + pstTok->start, pszKey, uLen) == 0;
}

int32_t _QX_VarStrToInt(const char *pszStr, int32_t s32Len) {
    char szBuf[QX_CFG_NUMBER_BUF];
    int s32Value = 0;
    memset(szBuf, 0, sizeof(szBuf));
    if (s32Len < 0 || RT_SNPRINTF(szBuf, "%.*s", (int)s32Len, pszStr) < 0) return 0;
    if (sscanf(szBuf, "%d", &s32Value) != 1) return 0;
    return s32Value;
}

void _QX_REALTIME_ParseCpuSelection(const char *pszCpuSelection, int32_t *ps32CpuNum,
                                    uint32_t *pu32CpuMask) {
    static const char kName[] = "_QX_REALTIME_ParseCpuSelection";
    RT_ENTER(kName);
    if (pszCpuSelection == NULL || ps32CpuNum == NULL || pu32CpuMask == NULL) {
        RT_LOGE("[RT_Impl][Err] [%s] Arg is NULL.\n", kName);
        return;
    }
    char szBuf[64];
    int32_t s32Num = 0;
    uint32_t u32Mask = 0;
    RT_SNPRINTF(szBuf, "%s", pszCpuSelection);
    szBuf[sizeof(szBuf) - 1] = '\0';

    char *pszSave = NULL;
    char *pszFirst = strtok_r(szBuf, "-", &pszSave);
    char *pszSecond = pszFirst != NULL ? strtok_r(NULL, "-", &pszSave) : NULL;
    if (pszFirst != NULL && pszSecond != NULL) {
        int32_t s32First = atoi(pszFirst);
        int32_t s32Last = atoi(pszSecond);
        if (s32Last == 0) {
            RT_LOGE("[RT_Impl][Err] [%s] %s parsing error.\n", kName, pszCpuSelection);
            return;
        }
        if (s32First <= s32Last) {
            int64_t s64Count = (int64_t)s32Last - s32First + 1;
            s32Num = s64Count > INT32_MAX ? INT32_MAX : (int32_t)s64Count;
            int32_t s32Lo = s32First < 0 ? 0 : s32First;
            int32_t s32Hi = s32Last > QX_CFG_CPU_MASK_BITS - 1 ? QX_CFG_CPU_MASK_BITS - 1 : s32Last;
            for (int32_t n = s32Lo; n <= s32Hi; n++) u32Mask |= 1u << n;
        }
    } else {
        // List form; strtok_r left the text whole (there was no second piece to cut off).
        pszSave = NULL;
        for (char *pszPiece = strtok_r(szBuf, ",", &pszSave); pszPiece != NULL;
             pszPiece = strtok_r(NULL, ",", &pszSave)) {
            int32_t n = atoi(pszPiece);
            if (s32Num < INT32_MAX) s32Num++;
            if (n >= 0 && n < QX_CFG_CPU_MASK_BITS) u32Mask |= 1u << n;
        }
    }
    *ps32CpuNum = s32Num;
    *pu32CpuMask = u32Mask;
    RT_LOGD("[RT_Impl][DBG] %s parsed to %d cpus, Mask=0x%x\n", pszCpuSelection, s32Num, u32Mask);
}

// ---- the start-up line scan ----

void qx_config_scan_startup(FILE *pFile, char *pszLine, qx_startup_scan_t *pstScan) {
    memset(pstScan, 0, sizeof(*pstScan));
    int64_t s64Offset = 0;
    while (pstScan->u32Found != 7 && fgets(pszLine, QX_CFG_SCAN_LINE_LEN, pFile) != NULL) {
        int64_t s64LineStart = s64Offset;
        s64Offset += (int64_t)strlen(pszLine);
        int s32Key = 0;
        while (s32Key < kQxCfgStartupKeyCount && strstr(pszLine, kQxCfgStartupKeys[s32Key]) == NULL)
            s32Key++;
        if (s32Key == kQxCfgStartupKeyCount) continue;
        char *pszSave = NULL;
        strtok_r(pszLine, ":", &pszSave);
        char *pszValue = strtok_r(NULL, ",", &pszSave);
        pstScan->as32Value[s32Key] = pszValue != NULL ? atoi(pszValue) : 0;
        pstScan->as64Offset[s32Key] = s64LineStart;
        pstScan->u32Found |= 1u << s32Key;
    }
}

// ---- the token walk ----

static int qx_starts_with(const char *pszText, int s32Len, const char *pszPrefix) {
    int s32PrefixLen = (int)strlen(pszPrefix);
    return s32Len >= s32PrefixLen && strncmp(pszText, pszPrefix, (size_t)s32PrefixLen) == 0;
}

// A class key: a class record appended to the domain, which the keys after it fill. The record
// is appended only where it lies wholly inside the segment; past that the class and its keys are
// dropped (status 0) rather than written out of bounds.
static void qx_open_class(qx_parse_ctx_t *pstCtx, const char *pszText, int s32Len) {
    QX_REALTIME_DOMAIN_t *pstDomain = pstCtx->pstDomain;
    int32_t s32Offset = pstDomain->s32NextOffset;
    if (s32Offset < RT_DOMAIN_HEADER_SIZE || s32Offset % 4 != 0 ||
        s32Offset > RT_SHM_SIZE - RT_CLASS_SIZE) {
        RT_LOGE_AS(kParsingString, "[RT_Impl][Err] [%s] No room for class [%.*s] in domain [%s].\n",
                   kParsingString, s32Len, pszText, pstDomain->szName);
        pstCtx->u64Status = 0;
        return;
    }
    QX_REALTIME_CLASS_t *pstClass = (QX_REALTIME_CLASS_t *)((char *)pstDomain + s32Offset);
    pstClass->s32ClassId = pstDomain->s32ClassNum;
    pstClass->s32Util = 0;
    RT_SNPRINTF(pstClass->szClassName, "%.*s", s32Len, pszText);
    pstDomain->s32NextOffset += RT_CLASS_SIZE;
    pstDomain->s32ClassNum += 1;
    pstDomain->s32ThreadStartOffset = pstDomain->s32NextOffset;
    pstCtx->u64Status = PS_CLASS;
}

// A string that is neither a scope key nor a key: a value, or an unknown key. Only a due Cpuset
// takes it.
static void qx_take_string(qx_parse_ctx_t *pstCtx, const char *pszText, int s32Len) {
    QX_REALTIME_DOMAIN_t *pstDomain = pstCtx->pstDomain;
    if (pstCtx->u64Status & PS_DOMAIN) {
        if (pstCtx->u64Status & PS_CPUSET) {
            RT_SNPRINTF(pstDomain->pszCpuset, "%.*s", s32Len, pszText);
            _QX_REALTIME_ParseCpuSelection(pstDomain->pszCpuset, &pstDomain->s32CpuNum,
                                           &pstDomain->u32CpuMask);
            RT_LOGI(
                "[RT_Impl][Info] [%s] Domain [%s] Cpuset = [%s] , CpuNum = [%d], CpuMask = "
                "[0x%x], CapabilityPerCore = %d, CapabilityReservation = %d%%\n",
                kParsingString, pstDomain->szName, pstDomain->pszCpuset, pstDomain->s32CpuNum,
                pstDomain->u32CpuMask, pstCtx->pstTop->s32CapPerCore,
                pstCtx->pstTop->s32UtilReservation);
            pstCtx->u64Status &= ~PS_CPUSET;
        }
        return;
    }
    if ((pstCtx->u64Status & PS_DESCRIPTION) == 0)
        RT_LOGE_AS(kParsingString,
                   "[RT_Impl][Err] [%s] Unknown str: '%.*s'; ParsingStatus=[%llu].\n",
                   kParsingString, s32Len, pszText, (unsigned long long)pstCtx->u64Status);
}

// A string token, key or value alike: scope keys switch the scope, value keys mark their value as
// due, and a due Cpuset text is taken. Named after the step its messages report.
static void _QX_REALTIME_ParsingString(qx_parse_ctx_t *pstCtx, const jsmntok_t *pstTok) {
    const char *pszText = pstCtx->pszJson + pstTok->start;
    int s32Len = pstTok->end - pstTok->start;

    if (qx_starts_with(pszText, s32Len, QX_CFG_PREFIX_SYSTEM)) {
        pstCtx->u64Status = PS_SYSTEM | PS_DOMAIN;
        return;
    }
    if (qx_starts_with(pszText, s32Len, QX_CFG_PREFIX_DOMAIN)) {
        if (_QX_JSMN_TokEqual(pstCtx->pszJson, pstTok, pstCtx->pstDomain->szName)) {
            pstCtx->bFound = 1;
            pstCtx->u64Status = PS_DOMAIN;
        } else {
            RT_LOGD("[RT_Impl][DBG] Skip Domain = [%.*s]\n", s32Len, pszText);
            pstCtx->u64Status = 0;
        }
        return;
    }
    if ((pstCtx->u64Status & (PS_DOMAIN | PS_CLASS)) == 0) return;

    if (qx_starts_with(pszText, s32Len, QX_CFG_PREFIX_CLASS)) {
        qx_open_class(pstCtx, pszText, s32Len);
        return;
    }
    for (const qx_cfg_key_name_t &stKey : kQxCfgKeys) {
        if (_QX_JSMN_TokEqual(pstCtx->pszJson, pstTok, stKey.pszName)) {
            pstCtx->u64Status |= stKey.u64Bit;
            return;
        }
    }
    qx_take_string(pstCtx, pszText, s32Len);
}

// ---- values due in a scope ----
//
// A primitive (number, true, false, null) goes to the first key of its scope whose value is due,
// in the order of the scope's table. A taker returns whether the key's bit is cleared.

typedef int (*qx_take_fn)(qx_parse_ctx_t *pstCtx, int32_t s32Value);

static int qx_take_cap_per_core(qx_parse_ctx_t *pstCtx, int32_t s32Value) {
    pstCtx->pstTop->s32CapPerCore = s32Value;
    pstCtx->pstTop->pstCentral->s32CapPerCore = s32Value;
    RT_LOGI("[RT_Impl][Info] (Global)  UtilMax per core = [%d].\n", s32Value);
    return 1;
}

static int qx_take_reservation(qx_parse_ctx_t *pstCtx, int32_t s32Value) {
    pstCtx->pstTop->s32UtilReservation = s32Value;
    pstCtx->pstTop->pstCentral->s32UtilReservation = s32Value;
    RT_LOGI("[RT_Impl][Info] (Global)  Util Reservation = [%d%%].\n", s32Value);
    return 1;
}

// The running level is not changed: Init takes it from the start-up scan.
static int qx_take_dbg_level(qx_parse_ctx_t *pstCtx, int32_t s32Value) {
    pstCtx->pstTop->s32DbgLevel = s32Value;
    RT_LOGI("[RT_Impl][Info] (Global)  DbgLevel = [%d].\n", s32Value);
    return 1;
}

static int qx_take_enabled(qx_parse_ctx_t *pstCtx, int32_t s32Value) {
    pstCtx->pstTop->Enabled = (uint8_t)s32Value;
    RT_LOGI("[RT_Impl][Info] (Global)  Enabled = [%d].\n", (int)pstCtx->pstTop->Enabled);
    return 1;
}

static int qx_take_budget_cpu_num(qx_parse_ctx_t *pstCtx, int32_t s32Value) {
    pstCtx->pstTop->s32BudgetCpuNum = s32Value;
    pstCtx->pstTop->pstCentral->s32BudgetCpuNum = s32Value;
    RT_LOGI("[RT_Impl][Info] (Global)  BudgetCpuNum = [%d].\n", s32Value);
    return 1;
}

// Domain Util: the domain's budget, and its registration in the central lists.
enum { QX_UTIL_TAKEN, QX_UTIL_LAST_PLACE, QX_UTIL_NO_ROOM };
static int qx_register_domain(qx_parse_ctx_t *pstCtx, int32_t s32Value) {
    QX_REALTIME_DOMAIN_t *pstDomain = pstCtx->pstDomain;
    QX_REALTIME_CENTRAL_t *pstCentral = pstCtx->pstTop->pstCentral;
    pstDomain->s32UtilMax = s32Value;
    int32_t s32Num = qx_central_domain_num(pstCentral);
    for (int32_t i = 0; i < s32Num; i++) {
        if (strncmp(pstCentral->szDomainNameList[i], pstDomain->szName, RT_NAME_LEN) == 0) {
            RT_LOGI("[RT_Impl][Info] [%s] existed in central data\n", pstDomain->szName);
            return QX_UTIL_TAKEN;
        }
    }
    if (pstCentral->s32DomainNum < 0 || pstCentral->s32DomainNum >= RT_MAX_DOMAIN)
        return QX_UTIL_NO_ROOM;
    int32_t s32Index = pstCentral->s32DomainNum;
    pstCentral->s32UtilTotal += s32Value;
    pstCentral->s32DomainUtilList[s32Index] = s32Value;
    memcpy(pstCentral->szDomainNameList[s32Index], pstDomain->szName, RT_NAME_LEN);
    pstCentral->szDomainNameList[s32Index][RT_NAME_LEN - 1] = '\0';
    pstCentral->s32DomainNum = s32Index + 1;
    return pstCentral->s32DomainNum < RT_MAX_DOMAIN ? QX_UTIL_TAKEN : QX_UTIL_LAST_PLACE;
}

static int qx_take_domain_util(qx_parse_ctx_t *pstCtx, int32_t s32Value) {
    int s32Taken = qx_register_domain(pstCtx, s32Value);
    if (s32Taken == QX_UTIL_NO_ROOM) {
        // The lists hold 24 domains; a further one is refused rather than written past them,
        // and the parse fails.
        RT_LOGE_AS(kParsingScope,
                   "[RT_Impl][Err] [%s] Domain [%s] can't be recorded: the central data holds at "
                   "most %d domains.\n",
                   kParsingScope, pstCtx->pstDomain->szName, RT_MAX_DOMAIN);
        pstCtx->bCentralListFull = 1;
        return 0;
    }
    // As designed: the 24th entry ends this step without its message, 0x10 left set.
    if (s32Taken == QX_UTIL_LAST_PLACE) return 0;
    RT_LOGI("[RT_Impl][Info] Domain [%s] UtilMax = [%d].\n", pstCtx->pstDomain->szName, s32Value);
    return 1;
}

// The class being filled: the last one appended.
static QX_REALTIME_CLASS_t *qx_last_class(qx_parse_ctx_t *pstCtx) {
    return qx_domain_class(pstCtx->pstDomain, pstCtx->pstDomain->s32ClassNum - 1);
}

static int qx_take_class_util(qx_parse_ctx_t *pstCtx, int32_t s32Value) {
    QX_REALTIME_CLASS_t *pstClass = qx_last_class(pstCtx);
    pstClass->s32Util = s32Value;
    RT_LOGI("[RT_Impl][Info] Domain [%s] Class [%s] Util = [%d].\n", pstCtx->pstDomain->szName,
            pstClass->szClassName, s32Value);
    return 1;
}

static int qx_take_rt_priority(qx_parse_ctx_t *pstCtx, int32_t s32Value) {
    QX_REALTIME_DOMAIN_t *pstDomain = pstCtx->pstDomain;
    QX_REALTIME_CLASS_t *pstClass = qx_last_class(pstCtx);
    pstClass->s32RtPriority = s32Value;
    RT_LOGI("[RT_Impl][Info] Domain [%s] Class [%s] RT_Priority = [%d].\n", pstDomain->szName,
            pstClass->szClassName, pstClass->s32RtPriority);
    if (pstDomain->u32SchedType == 0) {
        pstDomain->u32SchedType = RT_SCHED_TYPE_RR;
        RT_LOGI("[RT_Impl][Info] Domain [%s] is set as RR.\n", pstDomain->szName);
    } else if (pstDomain->u32SchedType == RT_SCHED_TYPE_DEADLINE) {
        pstDomain->u32SchedType = RT_SCHED_TYPE_BOTH;
        RT_LOGE_AS(kParsingScope,
                   "[RT_Impl][Err] [%s] Undefined behavior! The domain is already set as "
                   "DEADLINE, and SHOULD NOT be set as RR.\n",
                   kParsingScope);
    }
    return 1;
}

static int qx_take_dl_deadline(qx_parse_ctx_t *pstCtx, int32_t s32Value) {
    QX_REALTIME_CLASS_t *pstClass = qx_last_class(pstCtx);
    pstClass->s32DlDeadlineUs = s32Value;
    RT_LOGI("[RT_Impl][Info] Domain [%s] Class [%s] DL_DeadlineUs = [%d].\n",
            pstCtx->pstDomain->szName, pstClass->szClassName, s32Value);
    return 1;
}

// The runtime makes the class a deadline class: its Util and RT priority go back to 0.
static int qx_take_dl_runtime(qx_parse_ctx_t *pstCtx, int32_t s32Value) {
    QX_REALTIME_DOMAIN_t *pstDomain = pstCtx->pstDomain;
    QX_REALTIME_CLASS_t *pstClass = qx_last_class(pstCtx);
    pstClass->s32Util = 0;
    pstClass->s32RtPriority = 0;
    pstClass->s32DlRuntimeUs = s32Value;
    RT_LOGI("[RT_Impl][Info] Domain [%s] Class [%s] DL_RuntimeUs = [%d].\n", pstDomain->szName,
            pstClass->szClassName, s32Value);
    if (pstDomain->u32SchedType == 0) {
        pstDomain->u32SchedType = RT_SCHED_TYPE_DEADLINE;
        RT_LOGI("[RT_Impl][Info] Domain [%s] is set as DEADLINE.\n", pstDomain->szName);
    } else if (pstDomain->u32SchedType == RT_SCHED_TYPE_RR) {
        pstDomain->u32SchedType = RT_SCHED_TYPE_BOTH;
        RT_LOGE_AS(kParsingScope,
                   "[RT_Impl][Err] [%s] Undefined behavior! The domain is already set as RR, "
                   "and SHOULD NOT be set as DEADLINE.\n",
                   kParsingScope);
    }
    return 1;
}

static int qx_take_dl_period(qx_parse_ctx_t *pstCtx, int32_t s32Value) {
    QX_REALTIME_CLASS_t *pstClass = qx_last_class(pstCtx);
    pstClass->s32DlPeriodUs = s32Value;
    RT_LOGI("[RT_Impl][Info] Domain [%s] Class [%s] DL_PeriodUs = [%d].\n",
            pstCtx->pstDomain->szName, pstClass->szClassName, s32Value);
    return 1;
}

// Kept beside the class record, which has no room for it: 0 holds the class's threads to their
// reservation, anything else is the default. A parse that keeps no options (the linter's) reads
// it all the same.
static int qx_take_dl_reclaim(qx_parse_ctx_t *pstCtx, int32_t s32Value) {
    QX_REALTIME_DOMAIN_t *pstDomain = pstCtx->pstDomain;
    int32_t s32Idx = pstDomain->s32ClassNum - 1;
    if (pstCtx->pu8ClassOptions != NULL && s32Idx >= 0 && s32Idx < RT_CLASS_OPTIONS_NUM) {
        if (s32Value == 0)
            pstCtx->pu8ClassOptions[s32Idx] |= RT_CLASS_OPT_NO_RECLAIM;
        else
            pstCtx->pu8ClassOptions[s32Idx] &= (uint8_t)~RT_CLASS_OPT_NO_RECLAIM;
    }
    RT_LOGI("[RT_Impl][Info] Domain [%s] Class [%s] DL_Reclaim = [%d].\n", pstDomain->szName,
            qx_last_class(pstCtx)->szClassName, s32Value);
    return 1;
}

// A primitive for which no key of its scope is due.
static void qx_unknown_system(const qx_parse_ctx_t *pstCtx, const char *pszText, int s32Len) {
    // "_description" does not silence this one.
    RT_LOGE_AS(kParsingScope, "[RT_Impl][Err] [%s] Unknown System: [%.*s]; ParsingStatus=[%llu]\n",
               kParsingScope, s32Len, pszText, (unsigned long long)pstCtx->u64Status);
}

static void qx_unknown_domain(const qx_parse_ctx_t *pstCtx, const char *pszText, int s32Len) {
    if ((pstCtx->u64Status & PS_DESCRIPTION) == 0)
        RT_LOGE_AS(kParsingScope,
                   "[RT_Impl][Err] [%s] Unknown Domain: [%.*s]; ParsingStatus = [%llu]\n",
                   kParsingScope, s32Len, pszText, (unsigned long long)pstCtx->u64Status);
}

static void qx_unknown_class(const qx_parse_ctx_t *pstCtx, const char *pszText, int s32Len) {
    if ((pstCtx->u64Status & PS_DESCRIPTION) == 0)
        RT_LOGE_AS(kParsingScope,
                   "[RT_Impl][Err] [%s] Unknown Class: [%.*s]; ParsingStatus=[%llu].\n",
                   kParsingScope, s32Len, pszText, (unsigned long long)pstCtx->u64Status);
}

typedef struct {
    uint64_t u64Bit;
    qx_take_fn pfnTake;
} qx_value_rule_t;

typedef struct {
    uint64_t u64Scope;  // the status bit that selects the scope
    const qx_value_rule_t *pstRules;
    size_t uRules;
    void (*pfnUnknown)(const qx_parse_ctx_t *pstCtx, const char *pszText, int s32Len);
    int bNeedsClass;  // values go to the last class record, so there must be one
} qx_scope_rule_t;

static const qx_value_rule_t kSystemValues[] = {
    {PS_UTIL, qx_take_cap_per_core},           {PS_RESERVATION, qx_take_reservation},
    {PS_DBGLEVEL, qx_take_dbg_level},          {PS_ENABLED, qx_take_enabled},
    {PS_BUDGETCPUNUM, qx_take_budget_cpu_num},
};
static const qx_value_rule_t kDomainValues[] = {
    {PS_UTIL, qx_take_domain_util},
};
static const qx_value_rule_t kClassValues[] = {
    {PS_UTIL, qx_take_class_util},         {PS_RT_PRIORITY, qx_take_rt_priority},
    {PS_DL_DEADLINE, qx_take_dl_deadline}, {PS_DL_RUNTIME, qx_take_dl_runtime},
    {PS_DL_PERIOD, qx_take_dl_period},     {PS_DL_RECLAIM, qx_take_dl_reclaim},
};

#define QX_RULES(a) a, sizeof(a) / sizeof((a)[0])
// Tested in this order: a System_ scope carries the Domain_ bit as well.
static const qx_scope_rule_t kScopes[] = {
    {PS_SYSTEM, QX_RULES(kSystemValues), qx_unknown_system, 0},
    {PS_DOMAIN, QX_RULES(kDomainValues), qx_unknown_domain, 0},
    {PS_CLASS, QX_RULES(kClassValues), qx_unknown_class, 1},
};

// A primitive token: the value due in the current scope. Named after the step its messages
// report.
static void _QX_REALTIME_ParsingScope(qx_parse_ctx_t *pstCtx, const jsmntok_t *pstTok) {
    if ((pstCtx->u64Status & (PS_DOMAIN | PS_CLASS)) == 0) return;
    const qx_scope_rule_t *pstScope = NULL;
    for (const qx_scope_rule_t &stScope : kScopes) {
        if (pstCtx->u64Status & stScope.u64Scope) {
            pstScope = &stScope;
            break;
        }
    }
    if (pstScope == NULL) return;
    if (pstScope->bNeedsClass && qx_last_class(pstCtx) == NULL) return;
    const char *pszText = pstCtx->pszJson + pstTok->start;
    int s32Len = pstTok->end - pstTok->start;
    for (size_t i = 0; i < pstScope->uRules; i++) {
        const qx_value_rule_t *pstRule = &pstScope->pstRules[i];
        if ((pstCtx->u64Status & pstRule->u64Bit) == 0) continue;
        // Every value takes the same conversion.
        if (pstRule->pfnTake(pstCtx, _QX_VarStrToInt(pszText, s32Len)))
            pstCtx->u64Status &= ~pstRule->u64Bit;
        return;
    }
    pstScope->pfnUnknown(pstCtx, pszText, s32Len);
}

// ---- walking the token tree ----

// An object or array whose children are being walked.
typedef struct {
    const jsmntok_t *pstTok;
    int s32Left;      // members (object) or elements (array) not yet walked
    int s32Consumed;  // tokens consumed so far, the container's own included
    int bValueDue;    // object: the member's key has been walked and its value comes next
} qx_walk_frame_t;

#define RT_WALK_FRAMES_INLINE 16

// The open containers. Nesting is unbounded in a hostile file, so the walk keeps them on a stack
// of its own rather than recursing on the thread's stack.
typedef struct {
    qx_walk_frame_t astInline[RT_WALK_FRAMES_INLINE];
    qx_walk_frame_t *pstFrames;
    size_t uCapacity;
    size_t uDepth;
} qx_walk_stack_t;

static void qx_walk_stack_free(qx_walk_stack_t *pstStack) {
    if (pstStack->pstFrames != pstStack->astInline) free(pstStack->pstFrames);
}

// Opens a container; 0 when the stack could not grow.
static int qx_walk_open(qx_walk_stack_t *pstStack, const jsmntok_t *pstTok) {
    if (pstStack->uDepth == pstStack->uCapacity) {
        size_t uGrown = pstStack->uCapacity * 2;
        qx_walk_frame_t *pstGrown = (qx_walk_frame_t *)malloc(uGrown * sizeof(*pstGrown));
        if (pstGrown == NULL) {
            RT_LOGE_AS(kTokParsing, "[RT_Impl][Err] [%s] Failed to malloc walk depth %d: %s.\n",
                       kTokParsing, (int)uGrown, RT_ERRNO_STR);
            return 0;
        }
        memcpy(pstGrown, pstStack->pstFrames, pstStack->uDepth * sizeof(*pstGrown));
        qx_walk_stack_free(pstStack);
        pstStack->pstFrames = pstGrown;
        pstStack->uCapacity = uGrown;
    }
    qx_walk_frame_t *pstOpen = &pstStack->pstFrames[pstStack->uDepth++];
    pstOpen->pstTok = pstTok;
    pstOpen->s32Left = pstTok->size;
    pstOpen->s32Consumed = 1;
    pstOpen->bValueDue = 0;
    return 1;
}

// A token without children (or past the end): what it consumes.
static int qx_walk_leaf(qx_parse_ctx_t *pstCtx, const jsmntok_t *pstTok) {
    if (pstCtx->pstTokEnd != NULL && pstTok >= pstCtx->pstTokEnd) return 0;
    switch (pstTok->type) {
    case JSMN_OBJECT:
    case JSMN_ARRAY:
        return 1;
    case JSMN_STRING:
        _QX_REALTIME_ParsingString(pstCtx, pstTok);
        return 1;
    case JSMN_PRIMITIVE:
        _QX_REALTIME_ParsingScope(pstCtx, pstTok);
        return 1;
    default:
        return 0;
    }
}

// Hands the count of the token just finished to the innermost open container: whether that
// container is complete. An object walks, for each member, its key and, when the key has a value
// (size at least 1), the token that follows; a key or element that consumed nothing ends it.
static int qx_walk_count(qx_walk_frame_t *pstOpen, int s32Done) {
    if (pstOpen->pstTok->type == JSMN_OBJECT && !pstOpen->bValueDue) {
        const jsmntok_t *pstKey = pstOpen->pstTok + pstOpen->s32Consumed;
        if (s32Done == 0) return 1;
        pstOpen->s32Consumed += s32Done;
        if (pstKey->size >= 1) {
            pstOpen->bValueDue = 1;
            return 0;
        }
        return --pstOpen->s32Left == 0;
    }
    if (pstOpen->pstTok->type == JSMN_OBJECT) {
        // A member's value: counted whatever it consumed.
        pstOpen->s32Consumed += s32Done;
        pstOpen->bValueDue = 0;
        return --pstOpen->s32Left == 0;
    }
    if (s32Done == 0) return 1;
    pstOpen->s32Consumed += s32Done;
    return --pstOpen->s32Left == 0;
}

// Walks the token and everything below it in document order and returns the number of tokens
// consumed: 1 for a string or primitive, 1 plus the children's counts for an object or array,
// 0 for a token of no known type or past the end.
int qx_config_walk(qx_parse_ctx_t *pstCtx, const jsmntok_t *pstTok) {
    qx_walk_stack_t stStack;
    stStack.pstFrames = stStack.astInline;
    stStack.uCapacity = RT_WALK_FRAMES_INLINE;
    stStack.uDepth = 0;
    const jsmntok_t *pstNext = pstTok;

    for (;;) {
        int s32Done;
        int bInside = pstCtx->pstTokEnd == NULL || pstNext < pstCtx->pstTokEnd;
        if (bInside && (pstNext->type == JSMN_OBJECT || pstNext->type == JSMN_ARRAY) &&
            pstNext->size >= 1) {
            if (!qx_walk_open(&stStack, pstNext)) {
                qx_walk_stack_free(&stStack);
                return (int)(pstNext - pstTok);
            }
            pstNext = pstNext + 1;
            continue;
        }
        s32Done = qx_walk_leaf(pstCtx, pstNext);

        // Close the containers that are complete; the next token is the innermost open one's.
        for (;;) {
            if (stStack.uDepth == 0) {
                qx_walk_stack_free(&stStack);
                return s32Done;
            }
            qx_walk_frame_t *pstOpen = &stStack.pstFrames[stStack.uDepth - 1];
            if (!qx_walk_count(pstOpen, s32Done)) {
                pstNext = pstOpen->pstTok + pstOpen->s32Consumed;
                break;
            }
            s32Done = pstOpen->s32Consumed;
            stStack.uDepth--;
        }
    }
}

int _QX_JSMN_TokParsing(QX_REALTIME_DOMAIN_t *pstDomain, const char *pszJson, jsmntok_t *pstTok,
                        uint64_t *pu64ParsingStatus, uint8_t *pbFound) {
    // The caller vouches for the token array; the records are the process's own.
    qx_parse_ctx_t stCtx;
    memset(&stCtx, 0, sizeof(stCtx));
    stCtx.pstDomain = pstDomain;
    stCtx.pstTop = pstTop;
    stCtx.pszJson = pszJson;
    stCtx.u64Status = *pu64ParsingStatus;
    stCtx.bFound = *pbFound;
    int s32Consumed = qx_config_walk(&stCtx, pstTok);
    *pu64ParsingStatus = stCtx.u64Status;
    *pbFound = stCtx.bFound;
    return s32Consumed;
}

// ---- the whole parse ----

// jsmn over the whole text into *ppstToks, enlarging the array while jsmn runs out of tokens.
// Returns jsmn's result (the token count, or a negative error) or, when the array could not be
// allocated or grown, RT_ERR_SYSTEM / RT_ERR_INVALID_PARAM through *pu32Ret.
static int qx_tokenize(const char *pszJson, jsmntok_t **ppstToks, uint32_t *pu32Ret) {
    jsmn_parser stParser;
    jsmn_init(&stParser);
    unsigned int u32TokCount = RT_TOK_COUNT_INIT;
    jsmntok_t *pstToks = (jsmntok_t *)calloc(u32TokCount, sizeof(jsmntok_t));
    *ppstToks = NULL;
    *pu32Ret = RT_SUCCESS;
    if (pstToks == NULL) {
        RT_LOGE_AS(kJsonParser, "[RT_Impl][Err] [%s] Failed to malloc tok size=%d*%d: %s.\n",
                   kJsonParser, (int)sizeof(jsmntok_t), RT_TOK_COUNT_INIT, RT_ERRNO_STR);
        *pu32Ret = RT_ERR_SYSTEM;
        return 0;
    }
    size_t uJsonLen = strlen(pszJson);
    int s32Tokens = qx_jsmn_parse(&stParser, pszJson, uJsonLen, pstToks, u32TokCount);
    while (s32Tokens == JSMN_ERROR_NOMEM) {
        jsmntok_t *pstGrown = NULL;
        if (u32TokCount <= UINT_MAX / 2 / sizeof(jsmntok_t))
            pstGrown = (jsmntok_t *)realloc(pstToks, (size_t)u32TokCount * 2 * sizeof(jsmntok_t));
        if (pstGrown == NULL) {
            RT_LOGE_AS(kJsonParser,
                       "[RT_Impl][Err] [%s] Failed to parse pszJson for tok malloc issue: %s.\n",
                       kJsonParser, RT_ERRNO_STR);
            free(pstToks);
            *pu32Ret = RT_ERR_INVALID_PARAM;
            return 0;
        }
        RT_LOGD("[RT_Impl][DBG] Prev Tok count = %d is not enough, enlarge it to %d.\n",
                (int)u32TokCount, (int)(u32TokCount * 2));
        pstToks = pstGrown;
        u32TokCount *= 2;
        // The same parser state: jsmn resumes where it stopped.
        s32Tokens = qx_jsmn_parse(&stParser, pszJson, uJsonLen, pstToks, u32TokCount);
    }
    *ppstToks = pstToks;
    return s32Tokens;
}

uint32_t qx_config_parse_text(qx_parse_ctx_t *pstCtx, const char *pszJsonPath) {
    uint32_t u32Ret;
    jsmntok_t *pstToks = NULL;
    int s32Tokens = qx_tokenize(pstCtx->pszJson, &pstToks, &u32Ret);
    if (u32Ret != RT_SUCCESS) return u32Ret;

    QX_REALTIME_DOMAIN_t *pstDomain = pstCtx->pstDomain;
    pstCtx->u64Status = 0;
    pstCtx->bFound = 0;
    pstCtx->bCentralListFull = 0;
    if (s32Tokens > 0) {
        // The walk is bounded by the tokens jsmn actually produced: whatever shape a hostile
        // file gives the token tree, no token past this end is read.
        pstCtx->pstTokEnd = pstToks + s32Tokens;
        qx_config_walk(pstCtx, pstToks);
        pstCtx->pstTokEnd = NULL;
    }

    u32Ret = RT_SUCCESS;
    if (pstDomain->u32SchedType == RT_SCHED_TYPE_BOTH) {
        RT_LOGE_AS(kJsonParser,
                   "[RT_Impl][Err] Please check [%s], the sched type of domain[%s] is wrong.\n",
                   pszJsonPath, pstDomain->szName);
        u32Ret = RT_ERR_INVALID_PARAM;
    }
    if (pstCtx->bCentralListFull) u32Ret = RT_ERR_INVALID_PARAM;
    if (!pstCtx->bFound) {
        RT_LOGE_AS(kJsonParser, "[RT_Impl][Err] Failed to find Domain[%s] in Json[%s].\n",
                   pstDomain->szName, pszJsonPath);
        u32Ret = RT_ERR_INVALID_PARAM;
    }
    free(pstToks);
    return u32Ret;
}

uint32_t qx_config_parse_domain(const char *pszJsonPath, QX_REALTIME_DOMAIN_t *pstDomain,
                                uint8_t *pu8ClassOptions) {
    char *pszJson = NULL;

    RT_ENTER(kJsonParser);
    if (pszJsonPath == NULL || pstDomain == NULL) {
        RT_LOGE("[RT_Impl][Err] [%s] Arg is NULL.\n", kJsonParser);
        return RT_ERR_INVALID_PARAM;
    }
    if (_QX_REALTIME_FileReader(pszJsonPath, &pszJson) != RT_SUCCESS) {
        RT_LOGE("[RT_Impl][Err] [%s] Read %s failed.\n", kJsonParser, pszJsonPath);
        free(pszJson);
        RT_EXIT(kJsonParser, RT_ERR_SYSTEM);
        return RT_ERR_SYSTEM;
    }

    qx_parse_ctx_t stCtx;
    memset(&stCtx, 0, sizeof(stCtx));
    stCtx.pstDomain = pstDomain;
    stCtx.pstTop = pstTop;
    stCtx.pszJson = pszJson;
    stCtx.pu8ClassOptions = pu8ClassOptions;
    if (pu8ClassOptions != NULL) memset(pu8ClassOptions, 0, (size_t)RT_CLASS_OPTIONS_NUM);
    uint32_t u32Ret = qx_config_parse_text(&stCtx, pszJsonPath);
    free(pszJson);
    RT_EXIT(kJsonParser, u32Ret);
    return u32Ret;
}

uint32_t _QX_REALTIME_JsonParser(const char *pszJsonPath, QX_REALTIME_DOMAIN_t *pstDomain) {
    return qx_config_parse_domain(pszJsonPath, pstDomain, NULL);
}
