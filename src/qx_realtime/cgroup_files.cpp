// Control-group files: where a cpuset file of a domain is (with or without the "cpuset." prefix
// of the mounted hierarchy), the writes of values and thread ids, and the cpuset override by
// system property. Used by domain creation and by thread admission alike.
#include <stdlib.h>

#include "qx_realtime_internal.h"

int qx_cpuset_file_path(char *dst, size_t dst_size, const char *pszDir, const char *pszName) {
    if (qx_format_path(dst, dst_size, "%s/%s", pszDir, pszName) < 0) return -1;
    if (access(dst, F_OK) == 0) return 0;
    char szPrefixed[RT_PATH_LEN];
    if (RT_FORMAT_PATH(szPrefixed, "%s/cpuset.%s", pszDir, pszName) >= 0 &&
        access(szPrefixed, F_OK) == 0)
        return qx_format_path(dst, dst_size, "%s", szPrefixed) < 0 ? -1 : 0;
    return 0;
}

uint32_t _QX_WriteStrToPath(const char *pszValue, const char *pszPath) {
    if (pszValue == NULL || pszPath == NULL) {
        RT_LOGE("[RT_Impl][Err] [%s] Arg is NULL.\n", __func__);
        return RT_ERR_SYSTEM;
    }
    FILE *pFile = fopen(pszPath, "we");
    if (pFile == NULL) {
        RT_LOGE("[RT_Impl][Err] [%s] Can't open %s, errno=%s\n", __func__, pszPath, RT_ERRNO_STR);
        return RT_ERR_SYSTEM;
    }
    // A buffer of our own that holds the whole value: the stream then needn't ask the file's
    // block size (one fstat less per write), and the value still reaches the kernel in one
    // write at the close. A longer value keeps the stream's own buffer.
    char acBuf[RT_PATH_LEN];
    size_t uLen = strlen(pszValue);
    if (uLen < sizeof(acBuf)) setvbuf(pFile, acBuf, _IOFBF, sizeof(acBuf));
    fwrite(pszValue, 1, uLen, pFile);
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
