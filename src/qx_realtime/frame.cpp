// Library frame: the lifecycle (QX_REALTIME_Init, QX_REALTIME_Deinit, QX_REALTIME_SetDebugLevel,
// QX_REALTIME_SelfTest). The process-wide state and the diagnostics are in diagnostics.cpp.
#include <fcntl.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdlib.h>
#include <sys/file.h>

#include "qx_realtime_internal.h"

// ---- lifecycle ----

// Quick line scan of the configuration for "Util", "Enabled" and "DbgLevel" (not a JSON parse).
uint32_t _QX_REALTIME_GetCapability(void) {
    static const char kName[] = "_QX_REALTIME_GetCapability";
    FILE *pFile = fopen(pstJsonPath, "r");
    if (pFile == NULL) {
        RT_LOGE("[RT_Impl][Err] [%s] Can't open %s, errno=%s\n", kName, pstJsonPath,
                RT_ERRNO_STR);
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
    FILE *pFile = fopen(szPath, "w");
    if (pFile == NULL) return RT_ERR_SYSTEM;
    rtlog = pFile;  // a stream opened by an earlier Init is left open, as before
    return RT_SUCCESS;
}

uint32_t QX_REALTIME_Init(uint32_t u32Mode) {
    static const char kName[] = "QX_REALTIME_Init";
    int32_t s32Flock = -1;
    uint32_t u32Ret;

    RT_ENTER(kName);
    pthread_mutex_lock(&mutex);
    u32Ret = _QX_REALTIME_GetFlock(RT_CENTRAL_NAME, &s32Flock);
    if (u32Ret != RT_SUCCESS) {
        // The lock-file step's code is logged, RT_ERR_FAILED returned: kept as designed.
        RT_EXIT(kName, u32Ret);
        pthread_mutex_unlock(&mutex);
        return RT_ERR_FAILED;
    }
    pthread_mutex_unlock(&mutex);
    pthread_mutex_lock(&mutex);
    flock(s32Flock, LOCK_EX);

    do {
        if (u32Mode == 0) {
            char szValue[QX_PROPERTY_VALUE_MAX];
            memset(szValue, 0, sizeof(szValue));
            qx_property_get(RT_PROP_CFG_NAME, szValue, "0");
            if (RT_FORMAT_PATH(u8JsonPath, "%s%s.json", RT_JSON_PREFIX, szValue) < 0) {
                u32Ret = RT_ERR_FAILED;
                break;
            }
            pstJsonPath = u8JsonPath;
        } else if (u32Mode == 1) {
            pstJsonPath = RT_JSON_VERIFY_ONLY;
        } else {
            RT_LOGE("[RT_Impl][Err] [%s] Unknown init mode: [%u].\n", kName, u32Mode);
            u32Ret = RT_ERR_FAILED;
            break;
        }
        RT_LOGI("[RT_Impl][Info] [%s] JsonPath is %s\n", kName, pstJsonPath);

        if (pstTop == NULL) {
            pstTop = (QX_REALTIME_TOP_t *)calloc(1, sizeof(QX_REALTIME_TOP_t));
            if (pstTop == NULL) {
                u32Ret = RT_ERR_NULL;
                break;
            }
            pstTop->s32ShmFd = -1;
            u32Ret = _QX_REALTIME_SharedMemoryAlloc(RT_CENTRAL_NAME, &pstTop->s32ShmFd,
                                                    (void **)&pstTop->pstCentral);
            if (u32Ret != RT_SUCCESS) {
                RT_LOGE("[RT_Impl][Err] [%s] shared memory initialization fails\n", kName);
                break;
            }
        } else if (pstTop->pstCentral == NULL) {
            // An earlier attach left the top object without a mapping: map it now.
            u32Ret = _QX_REALTIME_SharedMemoryAlloc(RT_CENTRAL_NAME, &pstTop->s32ShmFd,
                                                    (void **)&pstTop->pstCentral);
            if (u32Ret != RT_SUCCESS) {
                RT_LOGE("[RT_Impl][Err] [%s] shared memory initialization fails\n", kName);
                break;
            }
        }

        if (!qx_central_intact(kName)) {
            u32Ret = RT_ERR_FAILED;
            break;
        }

        uint32_t u32Cap = _QX_REALTIME_GetCapability();
        if (u32Cap != RT_SUCCESS) {
            RT_LOGE("[RT_Impl][Err] [%s] _QX_REALTIME_GetCapability() return %d\n", kName,
                    (int)u32Cap);
            u32Ret = RT_ERR_INVALID_PARAM;
            break;
        }

        QX_REALTIME_CENTRAL_t *pstCentral = pstTop->pstCentral;
        pstCentral->s32CapPerCore = pstTop->s32CapPerCore;
        pstCentral->s32UtilReservation = pstTop->s32UtilReservation;
        pstCentral->s32DbgLevel = pstTop->s32DbgLevel;
        pstCentral->u8Enabled = (uint8_t)pstTop->Enabled;

        _u32DbgLevel = qx_dbg_level_from_config(pstTop->s32DbgLevel);
        u32Ret = RT_SUCCESS;
        if (pstTop->s32DbgLevel == 7) {
            _u32DbgLevel = RT_DBG_LEVEL_FILE;
            u32Ret = qx_open_log_file();
        }
    } while (0);

    qx_flock_release(s32Flock);
    pthread_mutex_unlock(&mutex);
    RT_EXIT(kName, u32Ret);
    return u32Ret;
}

uint32_t QX_REALTIME_Deinit(void) {
    static const char kName[] = "QX_REALTIME_Deinit";
    int32_t s32Flock = -1;

    RT_ENTER(kName);
    pthread_mutex_lock(&mutex);
    uint32_t u32Ret = _QX_REALTIME_GetCentralAndTop(&s32Flock);
    if (u32Ret != RT_SUCCESS) {
        RT_EXIT(kName, u32Ret);
        pthread_mutex_unlock(&mutex);
        return u32Ret;
    }
    pthread_mutex_unlock(&mutex);
    pthread_mutex_lock(&mutex);
    flock(s32Flock, LOCK_EX);

    _QX_REALTIME_SharedMemoryFree(RT_CENTRAL_NAME, &pstTop->s32ShmFd, pstTop->pstCentral);
    // Domain segments mapped by this process stay mapped; rtlog stays open.
    free(pstTop);
    pstTop = NULL;
    qx_flock_release(s32Flock);

    char szPath[RT_PATH_LEN];
    if (RT_FORMAT_PATH(szPath, "%s%s", RT_FLOCK_PREFIX, RT_CENTRAL_NAME) < 0) {
        pthread_mutex_unlock(&mutex);
        RT_EXIT(kName, RT_ERR_SYSTEM);
        return RT_ERR_SYSTEM;
    }
    if (unlink(szPath) == 0) {
        RT_LOGI("[RT_Impl][Info] [%s] unlink %s success\n", kName, szPath);
    } else if (errno == ENOENT) {
        RT_LOGI("[RT_Impl][Info] [%s] unlink %s has been unlinked, errno=%s\n", kName, szPath,
                RT_ERRNO_STR);
    } else {
        RT_LOGE("[RT_Impl][Err] [%s] unlink %s fails, errno=%s\n", kName, szPath, RT_ERRNO_STR);
    }
    pthread_mutex_unlock(&mutex);
    RT_EXIT(kName, RT_SUCCESS);
    return RT_SUCCESS;
}

uint32_t QX_REALTIME_SetDebugLevel(int32_t s32Level) {
    static const char kName[] = "QX_REALTIME_SetDebugLevel";
    int32_t s32Flock = -1;

    _u32DbgLevel = (uint32_t)s32Level;
    pthread_mutex_lock(&mutex);
    if (_QX_REALTIME_GetCentralAndTop(&s32Flock) != RT_SUCCESS) {
        pthread_mutex_unlock(&mutex);
        return RT_ERR_NULL;
    }
    close(s32Flock);
    pthread_mutex_unlock(&mutex);
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
