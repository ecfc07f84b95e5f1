// Platform seam: Android's liblog and libcutils on a device; liblog plus a small file-backed
// property store on a Linux host.
#include "platform.h"

#include <errno.h>
#include <fcntl.h>
#include <stddef.h>
#include <stdio.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>
#ifndef __ANDROID__
#include <sys/sysinfo.h>
#endif

#ifdef __ANDROID__
#include <cutils/properties.h>
#include <log/log.h>
#else
#include <android/log.h>
#endif

static_assert(sizeof(struct qx_sched_attr) == QX_SCHED_ATTR_SIZE, "kernel sched_attr is 56 bytes");
static_assert(offsetof(struct qx_sched_attr, sched_policy) == 4, "sched_attr layout");
static_assert(offsetof(struct qx_sched_attr, sched_flags) == 8, "sched_attr layout");
static_assert(offsetof(struct qx_sched_attr, sched_nice) == 16, "sched_attr layout");
static_assert(offsetof(struct qx_sched_attr, sched_priority) == 20, "sched_attr layout");
static_assert(offsetof(struct qx_sched_attr, sched_runtime) == 24, "sched_attr layout");
static_assert(offsetof(struct qx_sched_attr, sched_deadline) == 32, "sched_attr layout");
static_assert(offsetof(struct qx_sched_attr, sched_period) == 40, "sched_attr layout");
static_assert(offsetof(struct qx_sched_attr, sched_util_min) == 48, "sched_attr layout");
static_assert(offsetof(struct qx_sched_attr, sched_util_max) == 52, "sched_attr layout");

static const char kLogTag[] = "<QXT>";

void qx_platform_log(int prio, const char *text) {
    __android_log_print(prio, kLogTag, "%s", text);
}

#ifdef __ANDROID__

int qx_property_get(const char *key, char *value, const char *default_value) {
    return property_get(key, value, default_value);
}

#else

// The host store: QX_HOST_PROPERTY_DIR/<name> holds the value (a trailing newline is dropped,
// so `echo 4-7 > /dev/qxrt_properties/NAME` works). Every read opens the file afresh, so a value
// changed by any process takes effect at the next call.
int qx_property_get(const char *key, char *value, const char *default_value) {
    char path[256];
    ssize_t len = -1;
    int n = snprintf(path, sizeof(path), "%s/%s", QX_HOST_PROPERTY_DIR, key);
    if (n > 0 && (size_t)n < sizeof(path) && strchr(key, '/') == NULL) {
        int fd = open(path, O_RDONLY | O_CLOEXEC);
        if (fd >= 0) {
            len = read(fd, value, QX_PROPERTY_VALUE_MAX - 1);
            close(fd);
        }
    }
    if (len > 0 && value[len - 1] == '\n') len--;
    if (len > 0) {
        value[len] = '\0';
        return (int)len;
    }
    if (default_value == NULL) {
        value[0] = '\0';
        return 0;
    }
    size_t dlen = strnlen(default_value, QX_PROPERTY_VALUE_MAX - 1);
    memcpy(value, default_value, dlen);
    value[dlen] = '\0';
    return (int)dlen;
}

#endif

int qx_cpu_count(void) {
#ifdef __ANDROID__
    return (int)sysconf(_SC_NPROCESSORS_ONLN);
#else
    // glibc's get_nprocs reads /sys/devices/system/cpu/online directly, without sysconf's extra
    // work: it is called on every admission.
    return get_nprocs();
#endif
}

// strerror_r is the GNU variant (returns the text) in glibc and in bionic with _GNU_SOURCE, the
// POSIX one (returns a status, text in buf) otherwise: overloads take whichever it is (the other
// one is unused).
[[maybe_unused]] static const char *strerror_result(const char *text, char *) {
    return text;
}
[[maybe_unused]] static const char *strerror_result(int status, char *buf) {
    return status == 0 ? buf : "Unknown error";
}

const char *qx_strerror(int err, char *buf, size_t size) {
    return strerror_result(strerror_r(err, buf, size), buf);
}

// The fortified formatter of both C libraries (glibc and bionic export it under this name, with
// these arguments); flag 1 asks for the checks of _FORTIFY_SOURCE=2.
extern "C" int __vsnprintf_chk(char *s, size_t maxlen, int flag, size_t slen, const char *format,
                               va_list ap);

int qx_vsnprintf_checked(char *dst, size_t maxlen, size_t objsize, const char *fmt, va_list ap) {
    return __vsnprintf_chk(dst, maxlen, 1, objsize, fmt, ap);
}

int qx_sched_setattr(int32_t tid, const struct qx_sched_attr *attr, unsigned int flags) {
    return (int)syscall(SYS_sched_setattr, tid, attr, flags);
}

int qx_sched_getattr(int32_t tid, struct qx_sched_attr *attr, unsigned int size,
                     unsigned int flags) {
    return (int)syscall(SYS_sched_getattr, tid, attr, size, flags);
}

long qx_gettid(void) {
    return syscall(SYS_gettid);
}
