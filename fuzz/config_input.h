// One configuration file through every reader of it, as the library reads it: the start-up line
// scan, the whole-file reader, the parser for each domain the text names, and the CPU-list
// reader. Shared by the fuzz target and by the test that replays the seed corpus.
#ifndef QXRT_FUZZ_CONFIG_INPUT_H
#define QXRT_FUZZ_CONFIG_INPUT_H

#include <stdlib.h>
#include <string.h>

#include "qx_realtime_internal.h"

namespace qxrt_fuzz {

// More distinct names than the central lists hold, so a file can fill them and be refused.
constexpr int kMaxDomainsPerInput = 30;

// The names after every "Domain_ quote in the text (keys or values, as the parser sees them),
// each once, at most 63 characters, in order of appearance.
inline int domain_names_of(const char *pszText, char aszNames[][RT_NAME_LEN], int s32Max) {
    int s32Num = 0;
    for (const char *p = strstr(pszText, "\"Domain_"); p != NULL && s32Num < s32Max;
         p = strstr(p + 1, "\"Domain_")) {
        const char *pszStart = p + 1;
        const char *pszEnd = strchr(pszStart, '"');
        if (pszEnd == NULL) break;
        size_t uLen = (size_t)(pszEnd - pszStart);
        if (uLen >= RT_NAME_LEN) continue;
        char szName[RT_NAME_LEN];
        memcpy(szName, pszStart, uLen);
        szName[uLen] = '\0';
        int bSeen = 0;
        for (int i = 0; i < s32Num && !bSeen; i++) bSeen = strcmp(aszNames[i], szName) == 0;
        if (!bSeen) memcpy(aszNames[s32Num++], szName, RT_NAME_LEN);
    }
    return s32Num;
}

// Sets a domain record up as domain creation does before parsing into it.
inline void prepare_domain(QX_REALTIME_DOMAIN_t *pstDomain, const char *pszName) {
    memset(pstDomain, 0, RT_SHM_SIZE);
    size_t uLen = strnlen(pszName, RT_NAME_LEN - 1);
    memcpy(pstDomain->szName, pszName, uLen);
    pstDomain->szName[uLen] = '\0';
    pstDomain->s32NextOffset = RT_DOMAIN_HEADER_SIZE;
    pstDomain->s32ClassStartOffset = RT_DOMAIN_HEADER_SIZE;
}

// pstTop (with its central record) must exist and pstJsonPath must name pszPath. pstDomain is a
// buffer of RT_SHM_SIZE bytes. Returns how many domains were parsed.
inline int run_config_file(const char *pszPath, QX_REALTIME_DOMAIN_t *pstDomain) {
    (void)_QX_REALTIME_GetCapability();

    char *pszText = NULL;
    static char aszNames[kMaxDomainsPerInput][RT_NAME_LEN];
    int s32Names = 0;
    if (_QX_REALTIME_FileReader(pszPath, &pszText) == RT_SUCCESS && pszText != NULL) {
        s32Names = domain_names_of(pszText, aszNames, kMaxDomainsPerInput);
        // The CPU-list reader on arbitrary text (it keeps at most 63 characters of it).
        int32_t s32Num = 0;
        uint32_t u32Mask = 0;
        _QX_REALTIME_ParseCpuSelection(pszText, &s32Num, &u32Mask);
    }
    free(pszText);
    if (s32Names == 0) {
        strcpy(aszNames[0], "Domain_Audio");
        s32Names = 1;
    }

    for (int i = 0; i < s32Names; i++) {
        prepare_domain(pstDomain, aszNames[i]);
        (void)_QX_REALTIME_JsonParser(pszPath, pstDomain);
        // As an overriding cpuset text would be read again later.
        int32_t s32Num = 0;
        uint32_t u32Mask = 0;
        _QX_REALTIME_ParseCpuSelection(pstDomain->pszCpuset, &s32Num, &u32Mask);
    }
    return s32Names;
}

}  // namespace qxrt_fuzz

#endif
