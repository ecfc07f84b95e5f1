// The one seam between the library and its platform: the log sink, system properties and the raw
// scheduling system calls. Only platform.cpp knows whether it runs on Android or a Linux host.
#ifndef QXRT_PLATFORM_H
#define QXRT_PLATFORM_H

#include <stdarg.h>
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

// The fixed places the library works in on a device, the same on every build (tests and the demo
// run in tools/rt_sandbox, which mounts private copies at exactly these paths). Every path of the
// library is built from these.
#define QX_SHM_DIR "/dev/shm/realtime/"        // segments (tmpfs)
#define QX_DATA_DIR "/data/vendor/realtime/"   // lock files, per-process log files
#define QX_CONFIG_DIR "/vendor/etc/realtime/"  // configuration files (read only)
#define QX_CPUSET_MOUNT "/dev/cpuset/"         // cgroup v1 cpuset hierarchy
#define QX_CPUACCT_MOUNT "/dev/cpuacct/"       // cgroup v1 cpuacct hierarchy
#define QX_CGROUP2_MOUNT "/sys/fs/cgroup"      // cgroup v2 hierarchy (where there is no v1 cpuset)

// Writes one already formatted line to the Android log with tag "<QXT>".
void qx_platform_log(int prio, const char *text);

// Reads a system property into value (QX_PROPERTY_VALUE_MAX bytes); the default when unset or
// empty. Returns the length of what was stored, as libcutils' property_get does.
int qx_property_get(const char *key, char *value, const char *default_value);

// Number of CPUs online now.
int qx_cpu_count(void);

// Text for the error number err: a pointer into buf (size bytes) or to a static string, never
// NULL, whichever strerror_r variant the C library offers.
const char *qx_strerror(int err, char *buf, size_t size);

// vsnprintf that aborts instead of writing past objsize bytes of dst (the C library's fortified
// formatter); returns what vsnprintf returns.
int qx_vsnprintf_checked(char *dst, size_t maxlen, size_t objsize, const char *fmt, va_list ap)
    __attribute__((format(printf, 4, 0)));

// Raw system calls with the numbers of the target ABI; -1 and errno on failure.
int qx_sched_setattr(int32_t tid, const struct qx_sched_attr *attr, unsigned int flags);
int qx_sched_getattr(int32_t tid, struct qx_sched_attr *attr, unsigned int size,
                     unsigned int flags);
long qx_gettid(void);

#ifdef __cplusplus
}
#endif

#endif
