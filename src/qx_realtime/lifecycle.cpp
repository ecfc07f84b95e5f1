// Lifecycle: QX_REALTIME_Init (the configuration's quick scan, the central segment published for
// every process), QX_REALTIME_Deinit, QX_REALTIME_SetDebugLevel and QX_REALTIME_SelfTest.
#include <fcntl.h>
#include <pthread.h>
#include <stdlib.h>
#include <sys/file.h>

#include "qx_realtime_internal.h"

// Quick line scan of the configuration for "Util", "Enabled" and "DbgLevel" (not a JSON parse).
uint32_t _QX_REALTIME_GetCapability(void) {
    static const char kName[] = "_QX_REALTIME_GetCapability";
    FILE *pFile = fopen(pstJsonPath, "re");
    if (pFile == NULL) {
        RT_LOGE("[RT_Impl][Err] [%s] Can't open %s, errno=%s\n", kName, pstJsonPath, RT_ERRNO_STR);
        return RT_ERR_SYSTEM;
    }
    char *pszLine = (char *)malloc(QX_CFG_SCAN_LINE_LEN);
    if (pszLine == NULL) return fclose(pFile) != 0 ? RT_ERR_SYSTEM : RT_ERR_NULL;

    qx_startup_scan_t stScan;
    qx_config_scan_startup(pFile, pszLine, &stScan);
    int32_t s32Cap = stScan.as32Value[0], s32Enabled = stScan.as32Value[1],
            s32DbgLevel = stScan.as32Value[2];
    pstTop->s32CapPerCore = s32Cap;
    pstTop->s32DbgLevel = s32DbgLevel;
    pstTop->Enabled = (uint32_t)s32Enabled;
    RT_LOGI("[RT_Impl][Info] [%s] CapPerCore = %d, Enable=%d, DbgLevel=%d\n", kName, s32Cap,
            (int)(uint8_t)s32Enabled, s32DbgLevel);
    free(pszLine);
    return fclose(pFile) != 0 ? RT_ERR_SYSTEM : RT_SUCCESS;
}

// Opens the per-process log file for level 241; the name carries the top object's address.
static uint32_t qx_open_log_file(void) {
    char szPath[RT_PATH_LEN];
    if (RT_FORMAT_PATH(szPath, "%s%d", RT_LOG_FILE_PREFIX, (int32_t)(intptr_t)pstTop) < 0)
        return RT_ERR_SYSTEM;
    FILE *pFile = fopen(szPath, "we");
    if (pFile == NULL) return RT_ERR_SYSTEM;
    rtlog = pFile;  // a stream opened by an earlier Init is left open, as before
    return RT_SUCCESS;
}

// Where Init reads the configuration from: the property-named file (mode 0) or the verification
// stand-in (mode 1).
static uint32_t qx_init_json_path(const char *kName, uint32_t u32Mode) {
    if (u32Mode == 0) {
        char szValue[QX_PROPERTY_VALUE_MAX];
        memset(szValue, 0, sizeof(szValue));
        qx_property_get(RT_PROP_CFG_NAME, szValue, "0");
        // The bounded formatter, not the path builder: a name too long for the 64-byte buffer is
        // cut to its 63 characters and that file is read, the formatter's answer, not a failure.
        if (RT_SNPRINTF(u8JsonPath, "%s%s.json", RT_JSON_PREFIX, szValue) < 0) return RT_ERR_FAILED;
        pstJsonPath = u8JsonPath;
    } else if (u32Mode == 1) {
        pstJsonPath = RT_JSON_VERIFY_ONLY;
    } else {
        RT_LOGE_AS(kName, "[RT_Impl][Err] [%s] Unknown init mode: [%u].\n", kName, u32Mode);
        return RT_ERR_FAILED;
    }
    RT_LOGI("[RT_Impl][Info] [%s] JsonPath is %s\n", kName, pstJsonPath);
    return RT_SUCCESS;
}

// The central segment of this process: the top object made and the segment mapped (created when
// it is the first), or only mapped when an earlier attach left the top object without it.
static uint32_t qx_init_central(const char *kName) {
    if (pstTop == NULL) {
        pstTop = (QX_REALTIME_TOP_t *)calloc(1, sizeof(QX_REALTIME_TOP_t));
        if (pstTop == NULL) return RT_ERR_NULL;
        pstTop->s32ShmFd = -1;
    } else if (pstTop->pstCentral != NULL) {
        return RT_SUCCESS;
    }
    uint32_t u32Ret = _QX_REALTIME_SharedMemoryAlloc(RT_CENTRAL_NAME, &pstTop->s32ShmFd,
                                                     (void **)&pstTop->pstCentral);
    if (u32Ret != RT_SUCCESS)
        RT_LOGE_AS(kName, "[RT_Impl][Err] [%s] shared memory initialization fails\n", kName);
    return u32Ret;
}

// Init's work under the central lock: the configuration read and published in the central
// segment for every process.
static uint32_t qx_init_locked(const char *kName, uint32_t u32Mode) {
    uint32_t u32Ret = qx_init_json_path(kName, u32Mode);
    if (u32Ret != RT_SUCCESS) return u32Ret;
    u32Ret = qx_init_central(kName);
    if (u32Ret != RT_SUCCESS) return u32Ret;
    if (!qx_central_intact(kName)) return RT_ERR_FAILED;

    uint32_t u32Cap = _QX_REALTIME_GetCapability();
    if (u32Cap != RT_SUCCESS) {
        RT_LOGE_AS(kName, "[RT_Impl][Err] [%s] _QX_REALTIME_GetCapability() return %d\n", kName,
                   (int)u32Cap);
        return RT_ERR_INVALID_PARAM;
    }

    QX_REALTIME_CENTRAL_t *pstCentral = pstTop->pstCentral;
    pstCentral->s32CapPerCore = pstTop->s32CapPerCore;
    pstCentral->s32UtilReservation = pstTop->s32UtilReservation;
    pstCentral->s32DbgLevel = pstTop->s32DbgLevel;
    pstCentral->u8Enabled = (uint8_t)pstTop->Enabled;

    _u32DbgLevel = qx_dbg_level_from_config(pstTop->s32DbgLevel);
    if (pstTop->s32DbgLevel != 7) return RT_SUCCESS;
    _u32DbgLevel = RT_DBG_LEVEL_FILE;
    return qx_open_log_file();
}

uint32_t QX_REALTIME_Init(uint32_t u32Mode) {
    static const char kName[] = "QX_REALTIME_Init";
    qx_lock_file stCentral;

    RT_ENTER(kName);
    {
        qx_mutex_hold stHold;
        uint32_t u32Ret = _QX_REALTIME_GetFlock(RT_CENTRAL_NAME, stCentral.slot());
        if (u32Ret != RT_SUCCESS) {
            // The lock-file step's code is logged, RT_ERR_FAILED returned: kept as designed.
            RT_EXIT(kName, u32Ret);
            return RT_ERR_FAILED;
        }
    }
    qx_mutex_hold stHold;
    if (!stCentral.lock()) {
        // A lock the kernel refuses is a lock file that can't be had: the same code logged and
        // returned as when it can't be opened.
        stCentral.release();
        stHold.unlock();
        qx_no_central_lock();
        RT_EXIT(kName, RT_ERR_SYSTEM);
        return RT_ERR_FAILED;
    }
    uint32_t u32Ret = qx_init_locked(kName, u32Mode);
    stCentral.release();
    stHold.unlock();
    RT_EXIT(kName, u32Ret);
    return u32Ret;
}

// Removes the central lock file (Deinit's last step).
static uint32_t qx_unlink_central_lock(const char *kName) {
    char szPath[RT_PATH_LEN];
    if (qx_lock_path(szPath, sizeof(szPath), RT_CENTRAL_NAME) < 0) return RT_ERR_SYSTEM;
    if (unlink(szPath) == 0) {
        RT_LOGI("[RT_Impl][Info] [%s] unlink %s success\n", kName, szPath);
    } else if (errno == ENOENT) {
        RT_LOGI("[RT_Impl][Info] [%s] unlink %s has been unlinked, errno=%s\n", kName, szPath,
                RT_ERRNO_STR);
    } else {
        RT_LOGE_AS(kName, "[RT_Impl][Err] [%s] unlink %s fails, errno=%s\n", kName, szPath,
                   RT_ERRNO_STR);
    }
    return RT_SUCCESS;
}

uint32_t QX_REALTIME_Deinit(void) {
    static const char kName[] = "QX_REALTIME_Deinit";
    qx_lock_file stCentral;

    RT_ENTER(kName);
    {
        qx_mutex_hold stHold;
        uint32_t u32Ret = _QX_REALTIME_GetCentralAndTop(stCentral.slot());
        if (u32Ret != RT_SUCCESS) {
            RT_EXIT(kName, u32Ret);
            return u32Ret;
        }
    }
    qx_mutex_hold stHold;
    if (!stCentral.lock()) {
        stCentral.release();
        stHold.unlock();
        return qx_central_lock_refused(kName);
    }
    _QX_REALTIME_SharedMemoryFree(RT_CENTRAL_NAME, &pstTop->s32ShmFd, pstTop->pstCentral);
    // Domain segments mapped by this process stay mapped; rtlog stays open.
    free(pstTop);
    pstTop = NULL;
    stCentral.release();
    uint32_t u32Ret = qx_unlink_central_lock(kName);
    stHold.unlock();
    RT_EXIT(kName, u32Ret);
    return u32Ret;
}

uint32_t QX_REALTIME_SetDebugLevel(int32_t s32Level) {
    static const char kName[] = "QX_REALTIME_SetDebugLevel";

    _u32DbgLevel = (uint32_t)s32Level;
    {
        qx_mutex_hold stHold;
        int32_t s32Flock = -1;
        if (_QX_REALTIME_GetCentralAndTop(&s32Flock) != RT_SUCCESS) return RT_ERR_NULL;
        qx_fd stCentral(s32Flock);  // only the attach was wanted: closed before the unlock
    }
    if (!qx_central_intact(kName)) return RT_ERR_NULL;
    // Written without any lock; later attachers map it through the 0..7 table, so an internal
    // level stored here reads differently to them. Both are kept as designed.
    if ((pstTop->Enabled & 0xFFu) != 0) {
        pstTop->pstCentral->s32DbgLevel = s32Level;
        RT_LOGI("[RT_Impl][Info] [%s] set DbgLvl = %d in central data\n", kName, s32Level);
    }
    return RT_SUCCESS;
}

uint32_t QX_REALTIME_SelfTest(void) {
    return RT_SUCCESS;
}
