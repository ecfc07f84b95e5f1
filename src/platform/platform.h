// The one seam between the library and its platform: the log sink, system properties and the raw
// scheduling system calls. Only platform.cpp knows whether it runs on Android or a Linux host.
#ifndef QXRT_PLATFORM_H
#define QXRT_PLATFORM_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

// The kernel's struct sched_attr in its 56-byte form (with the utilisation clamps).
struct qx_sched_attr {
    uint32_t size;
    uint32_t sched_policy;
    uint64_t sched_flags;
    int32_t sched_nice;
    uint32_t sched_priority;
    uint64_t sched_runtime;
    uint64_t sched_deadline;
    uint64_t sched_period;
    uint32_t sched_util_min;
    uint32_t sched_util_max;
};

#define QX_SCHED_ATTR_SIZE 56u

// Android log priorities used by the library (android_LogPriority values).
#define QX_LOG_PRIO_INFO 4
#define QX_LOG_PRIO_ERROR 6

// Largest property value including its terminator (Android's PROPERTY_VALUE_MAX).
#define QX_PROPERTY_VALUE_MAX 92

// Where the host's property store keeps one file per property (name = property, content = value).
#define QX_HOST_PROPERTY_DIR "/dev/qxrt_properties"

// Writes one already formatted line to the Android log with tag "<QXT>".
void qx_platform_log(int prio, const char *text);

// Reads a system property into value (QX_PROPERTY_VALUE_MAX bytes); the default when unset or
// empty. Returns the length of what was stored, as libcutils' property_get does.
int qx_property_get(const char *key, char *value, const char *default_value);

// Raw system calls with the numbers of the target ABI; -1 and errno on failure.
int qx_sched_setattr(int32_t tid, const struct qx_sched_attr *attr, unsigned int flags);
int qx_sched_getattr(int32_t tid, struct qx_sched_attr *attr, unsigned int size,
                     unsigned int flags);
long qx_gettid(void);

#ifdef __cplusplus
}
#endif

#endif
