// Diagnostics: the debug level and its table, errno text, the two message forms (log file and
// Android log) and their emission. The lowest layer: it calls only the platform.
#include <fcntl.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdlib.h>
#include <sys/file.h>

#include "qx_realtime_internal.h"

// ---- the diagnostics' process-wide state ----

FILE *rtlog = NULL;
char strerrBuf[128];

uint32_t _u32DbgLevel = RT_DBG_LEVEL_DEFAULT;

// ---- diagnostics ----

const char *qx_errno_text(void) {
    // The returned pointer is what is printed (it may be a static string, not strerrBuf).
    return qx_strerror(errno, strerrBuf, sizeof(strerrBuf));
}

uint32_t qx_dbg_level_from_config(int32_t s32DbgLevel) {
    switch (s32DbgLevel) {
    case 0:
        return 0;
    case 1:
        return 16;
    case 3:
        return 48;
    case 4:
        return 64;
    case 5:
        return 80;
    case 6:
        return 240;
    case 7:
        return 241;
    default:
        return 32;
    }
}

// Formats into buf when it fits, else into a heap block; the caller frees *heap.
__attribute__((format(printf, 4, 0))) static const char *qx_vformat(char *buf, size_t size,
                                                                    char **heap, const char *fmt,
                                                                    va_list ap) {
    va_list copy;
    va_copy(copy, ap);
    int n = vsnprintf(buf, size, fmt, copy);
    va_end(copy);
    *heap = NULL;
    if (n < 0) return NULL;
    if ((size_t)n < size) return buf;
    *heap = (char *)malloc((size_t)n + 1);
    if (*heap == NULL) return buf;  // the cut text is better than nothing
    vsnprintf(*heap, (size_t)n + 1, fmt, ap);
    return *heap;
}

// Writes the Android form: "<ERR>func[line]: " or "<INFO>" in front of the file form.
static void qx_android_line(int prio, const char *func, int line, const char *text) {
    char prefix[160];
    if (prio == QX_LOG_PRIO_ERROR)
        snprintf(prefix, sizeof(prefix), "<ERR>%s[%d]: ", func, line);
    else
        snprintf(prefix, sizeof(prefix), "<INFO>");
    size_t prefix_len = strlen(prefix);
    size_t text_len = strlen(text);
    char buf[640];
    char *out = buf;
    if (prefix_len + text_len + 1 > sizeof(buf)) {
        out = (char *)malloc(prefix_len + text_len + 1);
        if (out == NULL) return;
    }
    memcpy(out, prefix, prefix_len);
    memcpy(out + prefix_len, text, text_len + 1);
    qx_platform_log(prio, out);
    if (out != buf) free(out);
}

void qx_log_emit(int kind, const char *func, int line, const char *fmt, ...) {
    char buf[512];
    char *heap = NULL;
    va_list ap;
    va_start(ap, fmt);
    const char *text = qx_vformat(buf, sizeof(buf), &heap, fmt, ap);
    va_end(ap);
    if (text == NULL) return;

    // The level is read afresh at each step.
    if (_u32DbgLevel == RT_DBG_LEVEL_FILE && rtlog != NULL) {
        fputs(text, rtlog);
        fflush(rtlog);
    }
    if (kind == QX_MSG_ERR) {
        if (_u32DbgLevel >= RT_DBG_LEVEL_ERR) qx_android_line(QX_LOG_PRIO_ERROR, func, line, text);
    } else {
        if (_u32DbgLevel >= RT_DBG_LEVEL_INFO) qx_android_line(QX_LOG_PRIO_INFO, func, line, text);
    }
    free(heap);
}

void qx_trace_line(const char *func, int line) {
    if (_u32DbgLevel < RT_DBG_LEVEL_TRACE) return;
    char buf[160];
    snprintf(buf, sizeof(buf), "<INFO>>>>%s[%d] \n", func, line);
    qx_platform_log(QX_LOG_PRIO_INFO, buf);
}
