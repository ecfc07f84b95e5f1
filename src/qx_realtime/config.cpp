// Configuration: the whole-file reader, the jsmn tokenizing step, the flat token walk that fills
// the domain being built, pstTop and the central record, and the CPU-list reader.
#include <limits.h>
#include <stdlib.h>

#include "qx_realtime_internal.h"
#include "../platform/jsmn_linear.h"

#define RT_TOK_COUNT_INIT 160
#define RT_READ_LINE 128
#define RT_READ_INIT 4096

// ParsingStatus bits.
#define PS_SYSTEM 0x1ull
#define PS_DOMAIN 0x2ull
#define PS_CLASS 0x4ull
#define PS_UTIL 0x10ull
#define PS_RESERVATION 0x20ull
#define PS_DBGLEVEL 0x40ull
#define PS_ENABLED 0x80ull
#define PS_BUDGETCPUNUM 0x100ull
#define PS_CPUSET 0x200ull
#define PS_RT_PRIORITY 0x400ull
#define PS_DL_DEADLINE 0x800ull
#define PS_DL_RUNTIME 0x1000ull
#define PS_DL_PERIOD 0x2000ull
#define PS_DESCRIPTION 0x4000ull

static const char kParsingString[] = "_QX_REALTIME_ParsingString";
static const char kParsingScope[] = "_QX_REALTIME_ParsingScope";

// The walk is bounded by the tokens jsmn actually produced: whatever shape a hostile file gives
// the token tree, no token past this end is read. Set by the tokenizing step (under `mutex` and
// the central lock); NULL means the caller vouches for the array.
static const jsmntok_t *s_pstTokEnd = NULL;
// Set by the walk when the central name list has no room for the domain being built.
static int s_bCentralListFull = 0;

uint32_t _QX_REALTIME_FileReader(const char *pszPath, char **ppszText) {
    if (pszPath == NULL || ppszText == NULL) {
        RT_LOGE("[RT_Impl][Err] [%s] Arg is NULL.\n", __func__);
        return RT_ERR_INVALID_PARAM;
    }
    FILE *pFile = fopen(pszPath, "r");
    if (pFile == NULL) {
        RT_LOGE("[RT_Impl][Err] [%s] Failed to open %s: %s.\n", __func__, pszPath, RT_ERRNO_STR);
        return RT_ERR_SYSTEM;
    }
    char *pszLine = (char *)calloc(1, RT_READ_LINE);
    char *pszText = (char *)calloc(1, RT_READ_INIT);
    if (pszLine == NULL || pszText == NULL) {
        free(pszLine);
        free(pszText);
        return fclose(pFile) != 0 ? RT_ERR_SYSTEM : RT_ERR_NULL;
    }
    size_t uSize = RT_READ_INIT;
    size_t uLen = 0;
    while (fgets(pszLine, RT_READ_LINE, pFile) != NULL) {
        // Appended at the running length, which is always the text's strlen: the same bytes as
        // strncat, without rescanning the whole text for every line of a large file.
        size_t uLineLen = strlen(pszLine);
        memcpy(pszText + uLen, pszLine, uLineLen + 1);
        uLen += uLineLen;
        if (uLen + RT_READ_LINE >= uSize) {
            uSize *= 2;
            char *pszGrown = (char *)realloc(pszText, uSize);
            RT_LOGI("[RT_Impl][Info] [%s]: The file [%s] is realloc to [%d] bytes.\n", __func__,
                    pszPath, (int)uSize);
            if (pszGrown == NULL) {
                RT_LOGE("[RT_Impl][Err] [%s]: The file [%s] is > [%d] bytes, realloc failed.\n",
                        __func__, pszPath, (int)uSize);
                // The old text is not released on this path, as the reader has always done;
                // the caller is handed no text and never sees it.
                *ppszText = NULL;
                free(pszLine);
                return fclose(pFile) != 0 ? RT_ERR_SYSTEM : RT_ERR_NULL;
            }
            pszText = pszGrown;
        }
    }
    *ppszText = pszText;
    free(pszLine);
    return fclose(pFile) != 0 ? RT_ERR_SYSTEM : RT_SUCCESS;
}

int _QX_JSMN_TokEqual(const char *pszJson, const jsmntok_t *pstTok, const char *pszKey) {
    if (pstTok->type != JSMN_STRING) return 0;
    size_t uLen = strlen(pszKey);
    return (size_t)(pstTok->end - pstTok->start) == uLen &&
           strncmp(pszJson + pstTok->start, pszKey, uLen) == 0;
}

int32_t _QX_VarStrToInt(const char *pszStr, int32_t s32Len) {
    char szBuf[24];
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
            int32_t s32Hi = s32Last > 31 ? 31 : s32Last;
            for (int32_t n = s32Lo; n <= s32Hi; n++) u32Mask |= 1u << n;
        }
    } else {
        // List form; strtok_r left the text whole (there was no second piece to cut off).
        pszSave = NULL;
        for (char *pszPiece = strtok_r(szBuf, ",", &pszSave); pszPiece != NULL;
             pszPiece = strtok_r(NULL, ",", &pszSave)) {
            int32_t n = atoi(pszPiece);
            if (s32Num < INT32_MAX) s32Num++;
            if (n >= 0 && n <= 31) u32Mask |= 1u << n;
        }
    }
    *ps32CpuNum = s32Num;
    *pu32CpuMask = u32Mask;
    RT_LOGD("[RT_Impl][DBG] %s parsed to %d cpus, Mask=0x%x\n", pszCpuSelection, s32Num, u32Mask);
}

// ---- the token walk ----

struct qx_key_bit {
    const char *pszKey;
    uint64_t u64Bit;
};

static const qx_key_bit kKeyBits[] = {
    {"Util", PS_UTIL},           {"PerThreadUtil", PS_UTIL},    {"Reservation", PS_RESERVATION},
    {"Enabled", PS_ENABLED},     {"DbgLevel", PS_DBGLEVEL},     {"BudgetCpuNum", PS_BUDGETCPUNUM},
    {"Cpuset", PS_CPUSET},       {"RT_Priority", PS_RT_PRIORITY}, {"DL_DeadlineUs", PS_DL_DEADLINE},
    {"DL_RuntimeUs", PS_DL_RUNTIME}, {"DL_PeriodUs", PS_DL_PERIOD}, {"_description", PS_DESCRIPTION},
};

static int qx_starts_with(const char *pszText, int s32Len, const char *pszPrefix) {
    int s32PrefixLen = (int)strlen(pszPrefix);
    return s32Len >= s32PrefixLen && strncmp(pszText, pszPrefix, (size_t)s32PrefixLen) == 0;
}

// A string token, key or value alike: scope keys switch the scope, value keys mark their value as
// due, and a due Cpuset text is taken. Named after the step its messages report.
static void _QX_REALTIME_ParsingString(QX_REALTIME_DOMAIN_t *pstDomain, const char *pszJson,
                                       const jsmntok_t *pstTok, uint64_t *pu64Status,
                                       uint8_t *pbFound) {
    const char *pszText = pszJson + pstTok->start;
    int s32Len = pstTok->end - pstTok->start;

    if (qx_starts_with(pszText, s32Len, "System_")) {
        *pu64Status = PS_SYSTEM | PS_DOMAIN;
        return;
    }
    if (qx_starts_with(pszText, s32Len, "Domain_")) {
        if (_QX_JSMN_TokEqual(pszJson, pstTok, pstDomain->szName)) {
            *pbFound = 1;
            *pu64Status = PS_DOMAIN;
        } else {
            RT_LOGD("[RT_Impl][DBG] Skip Domain = [%.*s]\n", s32Len, pszText);
            *pu64Status = 0;
        }
        return;
    }
    if ((*pu64Status & (PS_DOMAIN | PS_CLASS)) == 0) return;

    if (qx_starts_with(pszText, s32Len, "Class_")) {
        // A class record is appended only where it lies wholly inside the segment; past that
        // the class and its keys are dropped (status 0) rather than written out of bounds.
        int32_t s32Offset = pstDomain->s32NextOffset;
        if (s32Offset < RT_DOMAIN_HEADER_SIZE || s32Offset % 4 != 0 ||
            s32Offset > RT_SHM_SIZE - RT_CLASS_SIZE) {
            RT_LOGE("[RT_Impl][Err] [%s] No room for class [%.*s] in domain [%s].\n",
                    kParsingString, s32Len, pszText, pstDomain->szName);
            *pu64Status = 0;
            return;
        }
        QX_REALTIME_CLASS_t *pstClass = (QX_REALTIME_CLASS_t *)((char *)pstDomain + s32Offset);
        pstClass->s32ClassId = pstDomain->s32ClassNum;
        pstClass->s32Util = 0;
        RT_SNPRINTF(pstClass->szClassName, "%.*s", s32Len, pszText);
        pstDomain->s32NextOffset += RT_CLASS_SIZE;
        pstDomain->s32ClassNum += 1;
        pstDomain->s32ThreadStartOffset = pstDomain->s32NextOffset;
        *pu64Status = PS_CLASS;
        return;
    }
    for (const qx_key_bit &stKey : kKeyBits) {
        if (_QX_JSMN_TokEqual(pszJson, pstTok, stKey.pszKey)) {
            *pu64Status |= stKey.u64Bit;
            return;
        }
    }
    if (*pu64Status & PS_DOMAIN) {
        if (*pu64Status & PS_CPUSET) {
            RT_SNPRINTF(pstDomain->pszCpuset, "%.*s", s32Len, pszText);
            _QX_REALTIME_ParseCpuSelection(pstDomain->pszCpuset, &pstDomain->s32CpuNum,
                                           &pstDomain->u32CpuMask);
            RT_LOGI("[RT_Impl][Info] [%s] Domain [%s] Cpuset = [%s] , CpuNum = [%d], CpuMask = "
                    "[0x%x], CapabilityPerCore = %d, CapabilityReservation = %d%%\n",
                    kParsingString, pstDomain->szName, pstDomain->pszCpuset,
                    pstDomain->s32CpuNum, pstDomain->u32CpuMask, pstTop->s32CapPerCore,
                    pstTop->s32UtilReservation);
            *pu64Status &= ~PS_CPUSET;
        }
        return;
    }
    if ((*pu64Status & PS_DESCRIPTION) == 0)
        RT_LOGE("[RT_Impl][Err] [%s] Unknown str: '%.*s'; ParsingStatus=[%llu].\n", kParsingString,
                s32Len, pszText, (unsigned long long)*pu64Status);
}

// Domain Util: the domain's budget, and its registration in the central lists.
enum { QX_UTIL_TAKEN, QX_UTIL_LAST_PLACE, QX_UTIL_NO_ROOM };
static int qx_take_domain_util(QX_REALTIME_DOMAIN_t *pstDomain, int32_t s32Value) {
    QX_REALTIME_CENTRAL_t *pstCentral = pstTop->pstCentral;
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

// A primitive token (number, true, false, null): the value due in the current scope. Named after
// the step its messages report.
static void _QX_REALTIME_ParsingScope(QX_REALTIME_DOMAIN_t *pstDomain, const char *pszJson,
                                      const jsmntok_t *pstTok, uint64_t *pu64Status) {
    if ((*pu64Status & (PS_DOMAIN | PS_CLASS)) == 0) return;
    const char *pszText = pszJson + pstTok->start;
    int s32Len = pstTok->end - pstTok->start;
    // Every value takes the same conversion, so it is made once here.
    int32_t s32Value = _QX_VarStrToInt(pszText, s32Len);
    QX_REALTIME_CENTRAL_t *pstCentral = pstTop->pstCentral;

    if (*pu64Status & PS_SYSTEM) {
        if (*pu64Status & PS_UTIL) {
            pstTop->s32CapPerCore = s32Value;
            pstCentral->s32CapPerCore = s32Value;
            RT_LOGI("[RT_Impl][Info] (Global)  UtilMax per core = [%d].\n", s32Value);
            *pu64Status &= ~PS_UTIL;
        } else if (*pu64Status & PS_RESERVATION) {
            pstTop->s32UtilReservation = s32Value;
            pstCentral->s32UtilReservation = s32Value;
            RT_LOGI("[RT_Impl][Info] (Global)  Util Reservation = [%d%%].\n", s32Value);
            *pu64Status &= ~PS_RESERVATION;
        } else if (*pu64Status & PS_DBGLEVEL) {
            pstTop->s32DbgLevel = s32Value;
            RT_LOGI("[RT_Impl][Info] (Global)  DbgLevel = [%d].\n", s32Value);
            *pu64Status &= ~PS_DBGLEVEL;
        } else if (*pu64Status & PS_ENABLED) {
            pstTop->Enabled = (uint8_t)s32Value;
            RT_LOGI("[RT_Impl][Info] (Global)  Enabled = [%d].\n", (int)pstTop->Enabled);
            *pu64Status &= ~PS_ENABLED;
        } else if (*pu64Status & PS_BUDGETCPUNUM) {
            pstTop->s32BudgetCpuNum = s32Value;
            pstCentral->s32BudgetCpuNum = s32Value;
            RT_LOGI("[RT_Impl][Info] (Global)  BudgetCpuNum = [%d].\n", s32Value);
            *pu64Status &= ~PS_BUDGETCPUNUM;
        } else {
            RT_LOGE("[RT_Impl][Err] [%s] Unknown System: [%.*s]; ParsingStatus=[%llu]\n",
                    kParsingScope, s32Len, pszText, (unsigned long long)*pu64Status);
        }
        return;
    }

    if (*pu64Status & PS_DOMAIN) {
        if (*pu64Status & PS_UTIL) {
            int s32Taken = qx_take_domain_util(pstDomain, s32Value);
            if (s32Taken == QX_UTIL_NO_ROOM) {
                // The lists hold 24 domains; a further one is refused rather than written past
                // them, and the parse fails.
                RT_LOGE("[RT_Impl][Err] [%s] Domain [%s] can't be recorded: the central data "
                        "holds at most %d domains.\n",
                        kParsingScope, pstDomain->szName, RT_MAX_DOMAIN);
                s_bCentralListFull = 1;
                return;
            }
            // As designed: the 24th entry ends this step without its message, 0x10 left set.
            if (s32Taken == QX_UTIL_LAST_PLACE) return;
            RT_LOGI("[RT_Impl][Info] Domain [%s] UtilMax = [%d].\n", pstDomain->szName, s32Value);
            *pu64Status &= ~PS_UTIL;
        } else if ((*pu64Status & PS_DESCRIPTION) == 0) {
            RT_LOGE("[RT_Impl][Err] [%s] Unknown Domain: [%.*s]; ParsingStatus = [%llu]\n",
                    kParsingScope, s32Len, pszText, (unsigned long long)*pu64Status);
        }
        return;
    }

    QX_REALTIME_CLASS_t *pstClass = qx_domain_class(pstDomain, pstDomain->s32ClassNum - 1);
    if (pstClass == NULL) return;
    const char *pszDomain = pstDomain->szName;
    const char *pszClass = pstClass->szClassName;
    if (*pu64Status & PS_UTIL) {
        pstClass->s32Util = s32Value;
        RT_LOGI("[RT_Impl][Info] Domain [%s] Class [%s] Util = [%d].\n", pszDomain, pszClass,
                s32Value);
        *pu64Status &= ~PS_UTIL;
    } else if (*pu64Status & PS_RT_PRIORITY) {
        pstClass->s32RtPriority = s32Value;
        RT_LOGI("[RT_Impl][Info] Domain [%s] Class [%s] RT_Priority = [%d].\n", pszDomain,
                pszClass, pstClass->s32RtPriority);
        if (pstDomain->u32SchedType == 0) {
            pstDomain->u32SchedType = RT_SCHED_TYPE_RR;
            RT_LOGI("[RT_Impl][Info] Domain [%s] is set as RR.\n", pszDomain);
        } else if (pstDomain->u32SchedType == RT_SCHED_TYPE_DEADLINE) {
            pstDomain->u32SchedType = RT_SCHED_TYPE_BOTH;
            RT_LOGE("[RT_Impl][Err] [%s] Undefined behavior! The domain is already set as "
                    "DEADLINE, and SHOULD NOT be set as RR.\n",
                    kParsingScope);
        }
        *pu64Status &= ~PS_RT_PRIORITY;
    } else if (*pu64Status & PS_DL_DEADLINE) {
        pstClass->s32DlDeadlineUs = s32Value;
        RT_LOGI("[RT_Impl][Info] Domain [%s] Class [%s] DL_DeadlineUs = [%d].\n", pszDomain,
                pszClass, s32Value);
        *pu64Status &= ~PS_DL_DEADLINE;
    } else if (*pu64Status & PS_DL_RUNTIME) {
        pstClass->s32Util = 0;
        pstClass->s32RtPriority = 0;
        pstClass->s32DlRuntimeUs = s32Value;
        RT_LOGI("[RT_Impl][Info] Domain [%s] Class [%s] DL_RuntimeUs = [%d].\n", pszDomain,
                pszClass, s32Value);
        if (pstDomain->u32SchedType == 0) {
            pstDomain->u32SchedType = RT_SCHED_TYPE_DEADLINE;
            RT_LOGI("[RT_Impl][Info] Domain [%s] is set as DEADLINE.\n", pszDomain);
        } else if (pstDomain->u32SchedType == RT_SCHED_TYPE_RR) {
            pstDomain->u32SchedType = RT_SCHED_TYPE_BOTH;
            RT_LOGE("[RT_Impl][Err] [%s] Undefined behavior! The domain is already set as RR, "
                    "and SHOULD NOT be set as DEADLINE.\n",
                    kParsingScope);
        }
        *pu64Status &= ~PS_DL_RUNTIME;
    } else if (*pu64Status & PS_DL_PERIOD) {
        pstClass->s32DlPeriodUs = s32Value;
        RT_LOGI("[RT_Impl][Info] Domain [%s] Class [%s] DL_PeriodUs = [%d].\n", pszDomain,
                pszClass, s32Value);
        *pu64Status &= ~PS_DL_PERIOD;
    } else if ((*pu64Status & PS_DESCRIPTION) == 0) {
        RT_LOGE("[RT_Impl][Err] [%s] Unknown Class: [%.*s]; ParsingStatus=[%llu].\n",
                kParsingScope, s32Len, pszText, (unsigned long long)*pu64Status);
    }
}

// An object or array whose children are being walked.
typedef struct {
    const jsmntok_t *pstTok;
    int s32Left;      // members (object) or elements (array) not yet walked
    int s32Consumed;  // tokens consumed so far, the container's own included
    int bValueDue;    // object: the member's key has been walked and its value comes next
} qx_walk_frame_t;

#define RT_WALK_FRAMES_INLINE 16

// Walks the token and everything below it in document order and returns the number of tokens
// consumed: 1 for a string or primitive, 1 plus the children's counts for an object or array,
// 0 for a token of no known type or past the end. An object walks, for each member, its key
// and, when the key has a value (size at least 1), the token that follows. Nesting is unbounded
// in a hostile file, so the walk keeps its open containers on a stack of its own rather than
// recursing on the thread's stack.
int _QX_JSMN_TokParsing(QX_REALTIME_DOMAIN_t *pstDomain, const char *pszJson, jsmntok_t *pstTok,
                        uint64_t *pu64ParsingStatus, uint8_t *pbFound) {
    qx_walk_frame_t astInline[RT_WALK_FRAMES_INLINE];
    qx_walk_frame_t *pstFrames = astInline;
    size_t uCapacity = RT_WALK_FRAMES_INLINE;
    size_t uDepth = 0;
    const jsmntok_t *pstNext = pstTok;
    int s32Done = 0;  // count of the token (or container) just finished

    for (;;) {
        // Walk the token at pstNext: a leaf finishes at once, a container with children opens.
        if (s_pstTokEnd != NULL && pstNext >= s_pstTokEnd) {
            s32Done = 0;
        } else if ((pstNext->type == JSMN_OBJECT || pstNext->type == JSMN_ARRAY) &&
                   pstNext->size >= 1) {
            if (uDepth == uCapacity) {
                size_t uGrown = uCapacity * 2;
                qx_walk_frame_t *pstGrown = (qx_walk_frame_t *)malloc(uGrown * sizeof(*pstGrown));
                if (pstGrown == NULL) {
                    RT_LOGE("[RT_Impl][Err] [%s] Failed to malloc walk depth %d: %s.\n",
                            "_QX_JSMN_TokParsing", (int)uGrown, RT_ERRNO_STR);
                    if (pstFrames != astInline) free(pstFrames);
                    return (int)(pstNext - pstTok);
                }
                memcpy(pstGrown, pstFrames, uDepth * sizeof(*pstGrown));
                if (pstFrames != astInline) free(pstFrames);
                pstFrames = pstGrown;
                uCapacity = uGrown;
            }
            qx_walk_frame_t *pstOpen = &pstFrames[uDepth++];
            pstOpen->pstTok = pstNext;
            pstOpen->s32Left = pstNext->size;
            pstOpen->s32Consumed = 1;
            pstOpen->bValueDue = 0;
            pstNext = pstNext + 1;
            continue;
        } else {
            switch (pstNext->type) {
                case JSMN_OBJECT:
                case JSMN_ARRAY:
                    s32Done = 1;
                    break;
                case JSMN_STRING:
                    _QX_REALTIME_ParsingString(pstDomain, pszJson, pstNext, pu64ParsingStatus,
                                               pbFound);
                    s32Done = 1;
                    break;
                case JSMN_PRIMITIVE:
                    _QX_REALTIME_ParsingScope(pstDomain, pszJson, pstNext, pu64ParsingStatus);
                    s32Done = 1;
                    break;
                default:
                    s32Done = 0;
                    break;
            }
        }

        // Hand the finished count to the open containers, closing those that are complete.
        for (;;) {
            if (uDepth == 0) {
                if (pstFrames != astInline) free(pstFrames);
                return s32Done;
            }
            qx_walk_frame_t *pstOpen = &pstFrames[uDepth - 1];
            int bClose = 0;
            if (pstOpen->pstTok->type == JSMN_OBJECT && !pstOpen->bValueDue) {
                // A key: nothing consumed ends the object; a key with a value walks it next.
                const jsmntok_t *pstKey = pstOpen->pstTok + pstOpen->s32Consumed;
                if (s32Done == 0) {
                    bClose = 1;
                } else {
                    pstOpen->s32Consumed += s32Done;
                    if (pstKey->size >= 1)
                        pstOpen->bValueDue = 1;
                    else
                        bClose = --pstOpen->s32Left == 0;
                }
            } else if (pstOpen->pstTok->type == JSMN_OBJECT) {
                // A member's value: counted whatever it consumed.
                pstOpen->s32Consumed += s32Done;
                pstOpen->bValueDue = 0;
                bClose = --pstOpen->s32Left == 0;
            } else {
                // An array element: nothing consumed ends the array.
                if (s32Done == 0) {
                    bClose = 1;
                } else {
                    pstOpen->s32Consumed += s32Done;
                    bClose = --pstOpen->s32Left == 0;
                }
            }
            if (!bClose) {
                pstNext = pstOpen->pstTok + pstOpen->s32Consumed;
                break;
            }
            s32Done = pstOpen->s32Consumed;
            uDepth--;
        }
    }
}

uint32_t _QX_REALTIME_JsonParser(const char *pszJsonPath, QX_REALTIME_DOMAIN_t *pstDomain) {
    static const char kName[] = "_QX_REALTIME_JsonParser";
    uint32_t u32Ret;
    char *pszJson = NULL;

    RT_ENTER(kName);
    if (pszJsonPath == NULL || pstDomain == NULL) {
        RT_LOGE("[RT_Impl][Err] [%s] Arg is NULL.\n", kName);
        return RT_ERR_INVALID_PARAM;
    }
    if (_QX_REALTIME_FileReader(pszJsonPath, &pszJson) != RT_SUCCESS) {
        RT_LOGE("[RT_Impl][Err] [%s] Read %s failed.\n", kName, pszJsonPath);
        free(pszJson);
        RT_EXIT(kName, RT_ERR_SYSTEM);
        return RT_ERR_SYSTEM;
    }

    jsmn_parser stParser;
    jsmn_init(&stParser);
    unsigned int u32TokCount = RT_TOK_COUNT_INIT;
    jsmntok_t *pstToks = (jsmntok_t *)calloc(u32TokCount, sizeof(jsmntok_t));
    if (pstToks == NULL) {
        RT_LOGE("[RT_Impl][Err] [%s] Failed to malloc tok size=%d*%d: %s.\n", kName,
                (int)sizeof(jsmntok_t), RT_TOK_COUNT_INIT, RT_ERRNO_STR);
        free(pszJson);
        RT_EXIT(kName, RT_ERR_SYSTEM);
        return RT_ERR_SYSTEM;
    }
    size_t uJsonLen = strlen(pszJson);
    int s32Tokens = qx_jsmn_parse(&stParser, pszJson, uJsonLen, pstToks, u32TokCount);
    while (s32Tokens == JSMN_ERROR_NOMEM) {
        jsmntok_t *pstGrown = NULL;
        if (u32TokCount <= UINT_MAX / 2 / sizeof(jsmntok_t))
            pstGrown = (jsmntok_t *)realloc(pstToks, (size_t)u32TokCount * 2 * sizeof(jsmntok_t));
        if (pstGrown == NULL) {
            RT_LOGE("[RT_Impl][Err] [%s] Failed to parse pszJson for tok malloc issue: %s.\n",
                    kName, RT_ERRNO_STR);
            free(pstToks);
            free(pszJson);
            RT_EXIT(kName, RT_ERR_INVALID_PARAM);
            return RT_ERR_INVALID_PARAM;
        }
        RT_LOGD("[RT_Impl][DBG] Prev Tok count = %d is not enough, enlarge it to %d.\n",
                (int)u32TokCount, (int)(u32TokCount * 2));
        pstToks = pstGrown;
        u32TokCount *= 2;
        // The same parser state: jsmn resumes where it stopped.
        s32Tokens = qx_jsmn_parse(&stParser, pszJson, uJsonLen, pstToks, u32TokCount);
    }

    uint64_t u64Status = 0;
    uint8_t bFound = 0;
    s_bCentralListFull = 0;
    if (s32Tokens > 0) {
        s_pstTokEnd = pstToks + s32Tokens;
        _QX_JSMN_TokParsing(pstDomain, pszJson, pstToks, &u64Status, &bFound);
        s_pstTokEnd = NULL;
    }

    u32Ret = RT_SUCCESS;
    if (pstDomain->u32SchedType == RT_SCHED_TYPE_BOTH) {
        RT_LOGE("[RT_Impl][Err] Please check [%s], the sched type of domain[%s] is wrong.\n",
                pszJsonPath, pstDomain->szName);
        u32Ret = RT_ERR_INVALID_PARAM;
    }
    if (s_bCentralListFull) u32Ret = RT_ERR_INVALID_PARAM;
    if (!bFound) {
        RT_LOGE("[RT_Impl][Err] Failed to find Domain[%s] in Json[%s].\n", pstDomain->szName,
                pszJsonPath);
        u32Ret = RT_ERR_INVALID_PARAM;
    }
    free(pstToks);
    free(pszJson);
    RT_EXIT(kName, u32Ret);
    return u32Ret;
}
