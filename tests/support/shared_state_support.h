// Helpers of the shared-state suite.
#ifndef QXRT_SHARED_STATE_HELPERS_H
#define QXRT_SHARED_STATE_HELPERS_H

#include <dirent.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "test_support.h"

namespace qxt {

// "[RT_Impl][Info] [func][PID=..][TID=..] " for messages of this thread.
inline std::string info_head(const char *func) {
    return qxt::format("[RT_Impl][Info] [%s][PID=%d][TID=%s] ", func, getpid(), tid_text().c_str());
}
inline std::string err_head(const char *func) {
    return qxt::format("[RT_Impl][Err] [%s][PID=%d][TID=%s] ", func, getpid(), tid_text().c_str());
}

inline bool fd_is_open(int fd) {
    return fd >= 0 && fcntl(fd, F_GETFD) != -1;
}

// Whether [addr, addr + RT_SHM_SIZE) is still mapped in this process.
inline bool segment_mapped(const void *addr) {
    return qxt::range_mapped(addr, RT_SHM_SIZE);
}

inline bool all_zero(const void *addr, size_t size) {
    const unsigned char *p = (const unsigned char *)addr;
    for (size_t i = 0; i < size; i++)
        if (p[i] != 0) return false;
    return true;
}

inline off_t file_size(const std::string &path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? st.st_size : -1;
}

}  // namespace qxt

#endif
