// libFuzzer target for the configuration readers. The input is the text of a configuration
// file: it is written to a private file that pstJsonPath names, then read as the library reads
// it (start-up line scan, whole-file reader, parser for every domain the text names, CPU-list
// reader). The top object and its central record are plain heap records of their exact size,
// so any write past them is an ASan finding; the shared segments are not involved.
#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include "../src/platform/log_sink.h"
#include "config_input.h"

namespace {

char s_szPath[64];
QX_REALTIME_DOMAIN_t *s_pstDomain;

void discard_log(int, const char *, const char *) {}

void remove_input_file() {
    unlink(s_szPath);
}

bool write_input(const uint8_t *pu8Data, size_t uSize) {
    int fd = open(s_szPath, O_WRONLY | O_TRUNC | O_CLOEXEC);
    if (fd < 0) return false;
    size_t uDone = 0;
    while (uDone < uSize) {
        ssize_t n = write(fd, pu8Data + uDone, uSize - uDone);
        if (n <= 0) break;
        uDone += (size_t)n;
    }
    close(fd);
    return uDone == uSize;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    const char *pszTmp = getenv("TMPDIR");
    snprintf(s_szPath, sizeof(s_szPath), "%s/qxrt_config_fuzz_XXXXXX",
             pszTmp != NULL && strlen(pszTmp) < 32 ? pszTmp : "/tmp");
    int fd = mkstemp(s_szPath);
    if (fd < 0) {
        perror("mkstemp");
        abort();
    }
    close(fd);
    atexit(remove_input_file);

    pstTop = (QX_REALTIME_TOP_t *)calloc(1, sizeof(QX_REALTIME_TOP_t));
    pstTop->pstCentral = (QX_REALTIME_CENTRAL_t *)calloc(1, sizeof(QX_REALTIME_CENTRAL_t));
    pstJsonPath = s_szPath;
    s_pstDomain = (QX_REALTIME_DOMAIN_t *)malloc(RT_SHM_SIZE);

    // Quiet by default. QXRT_FUZZ_LOG=1 formats every message at level 64 too (and discards
    // it), so that the message paths are fuzzed as well, at some cost in speed.
    const char *pszLog = getenv("QXRT_FUZZ_LOG");
    if (pszLog != NULL && strcmp(pszLog, "1") == 0) {
        qx_log_sink::set(discard_log);
        _u32DbgLevel = RT_DBG_LEVEL_INFO;
    } else {
        _u32DbgLevel = 0;
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pu8Data, size_t uSize) {
    if (!write_input(pu8Data, uSize)) return 0;
    // Every input starts from a fresh system: nothing parsed, nothing listed.
    QX_REALTIME_CENTRAL_t *pstCentral = pstTop->pstCentral;
    memset(pstCentral, 0, sizeof(*pstCentral));
    memset(pstTop, 0, sizeof(*pstTop));
    pstTop->pstCentral = pstCentral;
    uint32_t u32Level = _u32DbgLevel;

    qxrt_fuzz::run_config_file(s_szPath, s_pstDomain);

    _u32DbgLevel = u32Level;
    return 0;
}
