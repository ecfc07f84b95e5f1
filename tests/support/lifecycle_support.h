// Helpers of the lifecycle suite.
#ifndef QXRT_LIFECYCLE_HELPERS_H
#define QXRT_LIFECYCLE_HELPERS_H

#include <fcntl.h>
#include <pthread.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "test_support.h"

namespace qxt {

// A system scope with the given values and no domains.
inline std::string system_config(int enabled, int util, int dbg_level) {
    return qxt::config_with(enabled, util, dbg_level, 80, 2, "");
}

inline const char *central_path() {
    return RT_SHM_PREFIX "Global";
}

inline const char *central_lock_path() {
    return RT_FLOCK_PREFIX "Global";
}

// Whether nobody holds the "Global" lock file (a fresh descriptor can take it at once).
inline bool central_lock_is_free() {
    int fd = open(central_lock_path(), O_RDWR);
    if (fd < 0) return true;
    bool free_now = flock(fd, LOCK_EX | LOCK_NB) == 0;
    close(fd);
    return free_now;
}

// Whether the process mutex is free (it is never left locked by a returning operation).
inline bool process_mutex_is_free() {
    if (pthread_mutex_trylock(&mutex) != 0) return false;
    pthread_mutex_unlock(&mutex);
    return true;
}

// The error of a "Global" lock file that cannot be opened, errno printed as why.
inline std::string global_flock_open_failed(const char *why) {
    return format(
        "[RT_Impl][Err] [_QX_REALTIME_GetFlock][PID=%d][TID=%s] flock open "
        "(/data/vendor/realtime/flock_rt_Global) return -1, errno=%s\n",
        getpid(), tid_text().c_str(), why);
}

// Neither the "Global" lock nor the process mutex is left held.
inline void expect_locks_free() {
    EXPECT_TRUE(central_lock_is_free());
    EXPECT_TRUE(process_mutex_is_free());
}

// rt-0.json with the given system scope, the library initialised on it, and the central record
// mapped for checking.
inline void init_and_map(int enabled, int util, int dbg_level, QX_REALTIME_CENTRAL_t **central) {
    write_file("/vendor/etc/realtime/rt-0.json", system_config(enabled, util, dbg_level));
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_Init(0));
    *central = map_central_file();
    ASSERT_NE(nullptr, *central);
}

// The per-process log file name for this process's top object.
inline std::string own_log_file() {
    return std::string(RT_LOG_FILE_PREFIX) + std::to_string((int32_t)(intptr_t)pstTop);
}

}  // namespace qxt

#endif
