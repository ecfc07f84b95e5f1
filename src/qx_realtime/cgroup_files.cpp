// The cgroup layer: the one place that knows where a domain lives in the control-group tree,
// how a thread is moved there and back, and how the domain's CPU time is read, for each layout
// the library runs on (the layouts and how one is told from another: qx_cgroup_layout). Also the
// cpuset file names (with or without the "cpuset." prefix of the mounted hierarchy), the writes
// of values and thread ids, and the cpuset override by system property.
#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <stdlib.h>
#include <sys/stat.h>

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
    // On cgroup v2 there is no domain-wide group: each move writes the record's CPUs.
    if (qx_cgroup_layout() != QX_CGROUP_V2 &&
        _QX_WriteStrToPath(pstDomain->pszCpuset, szPath) == RT_SUCCESS)
        RT_LOGI("[RT_Impl][Info] %s is reset to %s.\n", szPath, pstDomain->pszCpuset);
    _QX_REALTIME_ParseCpuSelection(pstDomain->pszCpuset, &pstDomain->s32CpuNum,
                                   &pstDomain->u32CpuMask);
}

// ---- the layout ----

// What the mount table holds: a cgroup v1 hierarchy with the cpuacct controller, one with cpuset
// (wherever they are mounted), a cgroup v2 hierarchy at /sys/fs/cgroup. Unreadable table: as if
// cpuacct were there (the device's own layout stays the default).
enum { QX_MOUNTS_CPUACCT = 1, QX_MOUNTS_CPUSET = 2, QX_MOUNTS_CGROUP2 = 4 };
static int qx_mounted_cgroups(void) {
    FILE *pFile = fopen("/proc/self/mounts", "re");
    if (pFile == NULL) return QX_MOUNTS_CPUACCT;
    char szLine[512];
    int s32Found = 0;
    while (fgets(szLine, sizeof(szLine), pFile) != NULL) {
        char szDir[256], szType[32], szOptions[256];
        if (sscanf(szLine, "%*s %255s %31s %255s", szDir, szType, szOptions) != 3) continue;
        if (strcmp(szType, "cgroup2") == 0 && strcmp(szDir, QX_CGROUP2_MOUNT) == 0)
            s32Found |= QX_MOUNTS_CGROUP2;
        if (strcmp(szType, "cgroup") != 0) continue;
        for (char *pszSave = NULL, *pszOpt = strtok_r(szOptions, ",", &pszSave); pszOpt != NULL;
             pszOpt = strtok_r(NULL, ",", &pszSave)) {
            if (strcmp(pszOpt, "cpuacct") == 0) s32Found |= QX_MOUNTS_CPUACCT;
            if (strcmp(pszOpt, "cpuset") == 0) s32Found |= QX_MOUNTS_CPUSET;
        }
    }
    fclose(pFile);
    return s32Found;
}

// Reads a small control file whole (at most uSize - 1 bytes, NUL-terminated); its length, or -1.
static ssize_t qx_read_small(const char *pszPath, char *pszDst, size_t uSize) {
    int fd = open(pszPath, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return -1;
    ssize_t n = read(fd, pszDst, uSize - 1);
    close(fd);
    if (n < 0) return -1;
    pszDst[n] = '\0';
    return n;
}

// Whether a space-separated list (a controllers file) holds the word.
static int qx_list_has(const char *pszList, const char *pszWord) {
    size_t uLen = strlen(pszWord);
    for (const char *p = pszList; (p = strstr(p, pszWord)) != NULL; p += uLen) {
        int bStart = p == pszList || p[-1] == ' ';
        int bEnd = p[uLen] == '\0' || p[uLen] == ' ' || p[uLen] == '\n';
        if (bStart && bEnd) return 1;
    }
    return 0;
}

static int qx_cgroup2_offers_cpuset(void) {
    char szList[256];
    return qx_read_small(QX_CGROUP2_MOUNT "/cgroup.controllers", szList, sizeof(szList)) > 0 &&
           qx_list_has(szList, "cpuset");
}

static int s32Layout = QX_CGROUP_V1;
static pthread_once_t stLayoutOnce = PTHREAD_ONCE_INIT;

static void qx_detect_layout(void) {
    char szValue[QX_PROPERTY_VALUE_MAX];
    memset(szValue, 0, sizeof(szValue));
    qx_property_get(RT_PROP_CGROUP_LAYOUT, szValue, "");
    if (strcmp(szValue, "v1") == 0) {
        s32Layout = QX_CGROUP_V1;
    } else if (strcmp(szValue, "android") == 0) {
        s32Layout = QX_CGROUP_ANDROID;
    } else if (strcmp(szValue, "v2") == 0) {
        s32Layout = QX_CGROUP_V2;
    } else {
        int s32Mounts = qx_mounted_cgroups();
        if (s32Mounts & QX_MOUNTS_CPUACCT)
            s32Layout = QX_CGROUP_V1;
        else if (!(s32Mounts & QX_MOUNTS_CPUSET) && (s32Mounts & QX_MOUNTS_CGROUP2) &&
                 qx_cgroup2_offers_cpuset())
            s32Layout = QX_CGROUP_V2;
        else
            s32Layout = QX_CGROUP_ANDROID;
    }
}

int qx_cgroup_layout(void) {
    pthread_once(&stLayoutOnce, qx_detect_layout);
    return s32Layout;
}

const char *qx_cgroup_layout_name(int s32Layout_) {
    if (s32Layout_ == QX_CGROUP_V2) return "v2";
    return s32Layout_ == QX_CGROUP_ANDROID ? "android" : "v1";
}

int qx_cgroup_has_cpuacct(void) {
    return qx_cgroup_layout() == QX_CGROUP_V1;
}

// ---- a domain's groups ----

uint32_t qx_cgroup_domain_paths(QX_REALTIME_DOMAIN_t *pstDomain) {
    const char *pszName = pstDomain->szName;
    struct {
        const char *pszField;
        char *pszDst;
        const char *pszBase;
        const char *pszTail;
    } astPaths[] = {
        {"pszCpusetPathRoot", pstDomain->pszCpusetPathRoot, RT_CPUSET_ROOT, pszName},
        {"pszCpusetPathTasks", pstDomain->pszCpusetPathTasks, pstDomain->pszCpusetPathRoot,
         "/tasks"},
        {"pszCpuacctPathRoot", pstDomain->pszCpuacctPathRoot, RT_CPUACCT_ROOT, pszName},
        {"pszCpuacctPathTasks", pstDomain->pszCpuacctPathTasks, pstDomain->pszCpuacctPathRoot,
         "/tasks"},
        {"pszCpuacctPathStat", pstDomain->pszCpuacctPathStat, pstDomain->pszCpuacctPathRoot,
         "/cpuacct.stat"},
    };
    // Without a cpuacct hierarchy the three cpuacct fields stay empty: no record names a file
    // that does not exist. On cgroup v2 a domain has no group of its own (each process's threads
    // have theirs, see qx_cgroup2_join): all five stay empty.
    int s32Layout_ = qx_cgroup_layout();
    size_t uCount = s32Layout_ == QX_CGROUP_V1 ? 5 : s32Layout_ == QX_CGROUP_ANDROID ? 2 : 0;
    for (size_t i = 0; i < uCount; i++) {
        if (qx_format_path(astPaths[i].pszDst, RT_PATH_LEN, "%s%s", astPaths[i].pszBase,
                           astPaths[i].pszTail) < 0)
            return RT_ERR_FAILED;
        RT_LOGD("[RT_Impl][DBG] %s is %s\n", astPaths[i].pszField, astPaths[i].pszDst);
    }
    return RT_SUCCESS;
}

// Whether a path field of a record reads exactly pszBase + pszName + pszTail.
int qx_path_field_is(const char *pszField, const char *pszBase, const char *pszName,
                     const char *pszTail) {
    const char *apszParts[] = {pszBase, pszName, pszTail};
    size_t uAt = 0;
    for (const char *pszPart : apszParts) {
        size_t uLen = strlen(pszPart);
        if (uAt + uLen >= RT_PATH_LEN || memcmp(pszField + uAt, pszPart, uLen) != 0) return 0;
        uAt += uLen;
    }
    return pszField[uAt] == '\0';
}

static int qx_path_is_empty(const char *pszField) {
    for (int i = 0; i < RT_PATH_LEN; i++)
        if (pszField[i] != '\0') return 0;
    return 1;
}

const char *qx_cgroup_foreign_path(const char *pszName, const QX_REALTIME_DOMAIN_t *pstDomain) {
    if (qx_cgroup_layout() == QX_CGROUP_V2) {
        if (!qx_path_is_empty(pstDomain->pszCpusetPathRoot)) return "pszCpusetPathRoot";
        if (!qx_path_is_empty(pstDomain->pszCpusetPathTasks)) return "pszCpusetPathTasks";
        if (!qx_path_is_empty(pstDomain->pszCpuacctPathRoot)) return "pszCpuacctPathRoot";
        if (!qx_path_is_empty(pstDomain->pszCpuacctPathTasks)) return "pszCpuacctPathTasks";
        return NULL;
    }
    if (!qx_path_field_is(pstDomain->pszCpusetPathRoot, RT_CPUSET_ROOT, pszName, ""))
        return "pszCpusetPathRoot";
    if (!qx_path_field_is(pstDomain->pszCpusetPathTasks, RT_CPUSET_ROOT, pszName, "/tasks"))
        return "pszCpusetPathTasks";
    if (qx_cgroup_layout() == QX_CGROUP_ANDROID) {
        if (!qx_path_is_empty(pstDomain->pszCpuacctPathRoot)) return "pszCpuacctPathRoot";
        if (!qx_path_is_empty(pstDomain->pszCpuacctPathTasks)) return "pszCpuacctPathTasks";
        return NULL;
    }
    if (!qx_path_field_is(pstDomain->pszCpuacctPathRoot, RT_CPUACCT_ROOT, pszName, ""))
        return "pszCpuacctPathRoot";
    if (!qx_path_field_is(pstDomain->pszCpuacctPathTasks, RT_CPUACCT_ROOT, pszName, "/tasks"))
        return "pszCpuacctPathTasks";
    return NULL;
}

static uint32_t qx_make_group_dir(const char *pszDir, const char *pszTasks) {
    if (mkdir(pszDir, 0770) != 0) {
        if (errno != EEXIST) {
            RT_LOGE("[RT_Impl][Err] Can't mkdir %s, errno=%s.\n", pszDir, RT_ERRNO_STR);
            return RT_ERR_FAILED;
        }
        RT_LOGI("[RT_Impl][Info] %s already exists, mkdir failed as expected.\n", pszDir);
    }
    if (chmod(pszDir, 0770) != 0) {
        RT_LOGE("[RT_Impl][Err] chmod(%s,%d) fails, errno=%s\n", pszDir, 0770, RT_ERRNO_STR);
        return RT_ERR_FAILED;
    }
    if (chmod(pszTasks, 0664) != 0) {
        RT_LOGE("[RT_Impl][Err] chmod(%s,%d) fails, errno=%s\n", pszTasks, 0664, RT_ERRNO_STR);
        return RT_ERR_FAILED;
    }
    return RT_SUCCESS;
}

uint32_t qx_cgroup_make_accounting_group(const QX_REALTIME_DOMAIN_t *pstDomain) {
    if (!qx_cgroup_has_cpuacct()) return RT_SUCCESS;
    return qx_make_group_dir(pstDomain->pszCpuacctPathRoot, pstDomain->pszCpuacctPathTasks);
}

// Writes one cpuset control file of the domain ("cpus" or "mems").
static uint32_t qx_set_cpuset_file(const QX_REALTIME_DOMAIN_t *pstDomain, const char *pszName,
                                   const char *pszValue) {
    char szPath[RT_PATH_LEN];
    if (qx_cpuset_file_path(szPath, sizeof(szPath), pstDomain->pszCpusetPathRoot, pszName) < 0)
        return RT_ERR_FAILED;
    if (chmod(szPath, 0664) != 0) {
        RT_LOGE("[RT_Impl][Err] chmod(%s,%d) fails, errno=%s\n", szPath, 0664, RT_ERRNO_STR);
        return RT_ERR_FAILED;
    }
    if (_QX_WriteStrToPath(pszValue, szPath) == RT_SUCCESS)
        RT_LOGI("[RT_Impl][Info] %s is set to %s.\n", szPath, pszValue);
    return RT_SUCCESS;  // a refused value is not a failure of the creation
}

uint32_t qx_cgroup_make_cpuset_group(QX_REALTIME_DOMAIN_t *pstDomain) {
    pstDomain->pszCpuset[RT_CPUSET_LEN - 1] = '\0';
    // On cgroup v2 the groups are made where the threads' processes live, at admission.
    if (qx_cgroup_layout() == QX_CGROUP_V2) return RT_SUCCESS;
    if (qx_make_group_dir(pstDomain->pszCpusetPathRoot, pstDomain->pszCpusetPathTasks) !=
        RT_SUCCESS)
        return RT_ERR_FAILED;
    if (qx_set_cpuset_file(pstDomain, "cpus", pstDomain->pszCpuset) != RT_SUCCESS)
        return RT_ERR_FAILED;
    return qx_set_cpuset_file(pstDomain, "mems", "0");
}

// ---- cgroup v2: threaded groups inside each process's own group ----
//
// On cgroup v2 all threads of a process stay inside one threaded subtree, rooted at the group
// its service manager put it in (its home). A domain's threads are therefore placed in a threaded
// child "qxrt-<domain>" of their home, made at the first admission: the home becomes the root of
// a threaded subtree (it keeps its processes, and the memory and pids accounting stays there),
// cpuset is enabled for its children, and the child gets the domain's CPUs. Removal writes the
// thread back into its home and removes the child once it is empty.

int qx_cgroup2_thread_group(int32_t s32Tid, char *pszGroup, size_t uSize) {
    // A hybrid host lists its v1 hierarchies' lines first.
    char szPath[64], szText[4 * QX_CGROUP2_PATH_LEN];
    if (RT_FORMAT_PATH(szPath, "/proc/%d/task/%d/cgroup", s32Tid, s32Tid) < 0) return -1;
    if (qx_read_small(szPath, szText, sizeof(szText)) <= 0) return -1;
    // The unified hierarchy's line is "0::<path>" (a hybrid host lists v1 lines before it).
    const char *pszLine = strncmp(szText, "0::", 3) == 0 ? szText : strstr(szText, "\n0::");
    if (pszLine == NULL) return -1;
    pszLine += pszLine[0] == '\n' ? 4 : 3;
    size_t uLen = strcspn(pszLine, "\n");
    if (pszLine[0] != '/' || strstr(pszLine, "/..") != NULL) return -1;
    if (uLen == 1) uLen = 0;  // the root group: the mount itself
    return qx_format_path(pszGroup, uSize, "%s%.*s", QX_CGROUP2_MOUNT, (int)uLen, pszLine);
}

int qx_cgroup2_thread_home(int32_t s32Tid, char *pszHome, size_t uSize) {
    if (qx_cgroup2_thread_group(s32Tid, pszHome, uSize) < 0) return -1;
    char *pszLast = strrchr(pszHome, '/');
    if (pszLast == NULL ||
        strncmp(pszLast + 1, QX_CGROUP2_GROUP_PREFIX, sizeof(QX_CGROUP2_GROUP_PREFIX) - 1) != 0)
        return 0;
    char szType[QX_CGROUP2_PATH_LEN], szText[32];
    if (RT_FORMAT_PATH(szType, "%s/cgroup.type", pszHome) < 0) return -1;
    if (qx_read_small(szType, szText, sizeof(szText)) > 0 && strcmp(szText, "threaded\n") == 0)
        *pszLast = '\0';
    return 0;
}

// The path refused by the latest failed move of this thread, for the caller's message.
static thread_local char szCgroup2Refused[QX_CGROUP2_PATH_LEN];

static const char *qx_cgroup2_refuse(const char *pszPath) {
    RT_SNPRINTF(szCgroup2Refused, "%s", pszPath);
    return szCgroup2Refused;
}

// A thread whose group can't be read (it has ended): its cgroup file is what refused.
static const char *qx_cgroup2_unknown_group(int32_t s32Tid) {
    RT_SNPRINTF(szCgroup2Refused, "/proc/%d/task/%d/cgroup", s32Tid, s32Tid);
    return szCgroup2Refused;
}

// Makes <home>/qxrt-<domain> a threaded group with the domain's CPUs, cpuset enabled for it.
static const char *qx_cgroup2_make_group(const QX_REALTIME_DOMAIN_t *pstDomain, const char *pszHome,
                                         const char *pszGroup) {
    char szPath[QX_CGROUP2_PATH_LEN], szText[256];
    if (RT_FORMAT_PATH(szPath, "%s/cgroup.controllers", pszHome) < 0)
        return qx_cgroup2_refuse(pszHome);
    if (qx_read_small(szPath, szText, sizeof(szText)) < 0 || !qx_list_has(szText, "cpuset")) {
        RT_LOGE(
            "[RT_Impl][Err] The cpuset controller is not enabled for %s: its parent's "
            "cgroup.subtree_control must hold it.\n",
            pszHome);
        return qx_cgroup2_refuse(szPath);
    }
    if (mkdir(pszGroup, 0755) != 0 && errno != EEXIST) {
        RT_LOGE("[RT_Impl][Err] Can't mkdir %s, errno=%s.\n", pszGroup, RT_ERRNO_STR);
        return qx_cgroup2_refuse(pszGroup);
    }
    if (RT_FORMAT_PATH(szPath, "%s/cgroup.type", pszGroup) < 0) return qx_cgroup2_refuse(pszGroup);
    if ((qx_read_small(szPath, szText, sizeof(szText)) < 0 || strcmp(szText, "threaded\n") != 0) &&
        _QX_WriteStrToPath("threaded", szPath) != RT_SUCCESS) {
        RT_LOGE(
            "[RT_Impl][Err] %s can't be made threaded: %s must hold no domain groups with "
            "processes and enable no domain controllers for its children.\n",
            pszGroup, pszHome);
        return qx_cgroup2_refuse(szPath);
    }
    if (RT_FORMAT_PATH(szPath, "%s/cgroup.subtree_control", pszHome) < 0)
        return qx_cgroup2_refuse(pszHome);
    if ((qx_read_small(szPath, szText, sizeof(szText)) < 0 || !qx_list_has(szText, "cpuset")) &&
        _QX_WriteStrToPath("+cpuset", szPath) != RT_SUCCESS)
        return qx_cgroup2_refuse(szPath);
    if (RT_FORMAT_PATH(szPath, "%s/cpuset.cpus", pszGroup) < 0) return qx_cgroup2_refuse(pszGroup);
    char szCpus[RT_CPUSET_LEN];
    memcpy(szCpus, pstDomain->pszCpuset, RT_CPUSET_LEN);
    szCpus[RT_CPUSET_LEN - 1] = '\0';
    if (_QX_WriteStrToPath(szCpus, szPath) != RT_SUCCESS) return qx_cgroup2_refuse(szPath);
    return NULL;
}

// The domain's threaded group for a thread: <its home>/qxrt-<domain>.
static int qx_cgroup2_domain_group(const QX_REALTIME_DOMAIN_t *pstDomain, int32_t s32Tid,
                                   char *pszHome, char *pszGroup) {
    if (qx_cgroup2_thread_home(s32Tid, pszHome, QX_CGROUP2_PATH_LEN) < 0) return -1;
    return qx_format_path(pszGroup, QX_CGROUP2_PATH_LEN, "%s/" QX_CGROUP2_GROUP_PREFIX "%s",
                          pszHome, qx_name_of(pstDomain->szName).sz);
}

static const char *qx_cgroup2_write_thread(int32_t s32Tid, const char *pszGroup) {
    char szPath[QX_CGROUP2_PATH_LEN];
    if (RT_FORMAT_PATH(szPath, "%s/cgroup.threads", pszGroup) < 0)
        return qx_cgroup2_refuse(pszGroup);
    return _QX_WriteS32ToPath(s32Tid, szPath) == RT_SUCCESS ? NULL : qx_cgroup2_refuse(szPath);
}

static const char *qx_cgroup2_join(const QX_REALTIME_DOMAIN_t *pstDomain, int32_t s32Tid) {
    char szHome[QX_CGROUP2_PATH_LEN], szGroup[QX_CGROUP2_PATH_LEN];
    if (qx_cgroup2_domain_group(pstDomain, s32Tid, szHome, szGroup) < 0)
        return qx_cgroup2_unknown_group(s32Tid);
    const char *pszRefused = qx_cgroup2_make_group(pstDomain, szHome, szGroup);
    return pszRefused != NULL ? pszRefused : qx_cgroup2_write_thread(s32Tid, szGroup);
}

// Back into the thread's home; its domain group goes once empty (still in use: kept).
static const char *qx_cgroup2_leave(const QX_REALTIME_DOMAIN_t *pstDomain, int32_t s32Tid) {
    char szHome[QX_CGROUP2_PATH_LEN], szGroup[QX_CGROUP2_PATH_LEN];
    if (qx_cgroup2_domain_group(pstDomain, s32Tid, szHome, szGroup) < 0)
        return qx_cgroup2_unknown_group(s32Tid);
    const char *pszRefused = qx_cgroup2_write_thread(s32Tid, szHome);
    if (pszRefused == NULL) (void)rmdir(szGroup);
    return pszRefused;
}

// ---- CPU hotplug on cgroup v1 ----
//
// A CPU taken offline leaves the cpus of every v1 cpuset for good (it does not come back with the
// CPU), a cpuset left with none has its tasks moved to its parent and takes no new task (ENOSPC).
// So a domain's cpuset may hold fewer CPUs than its record says, or none. The record is what the
// configuration asked for: a move into the cpuset that the kernel refuses, or one that gives the
// thread other CPUs than the record's, writes the record's CPUs back into the cpuset (the kernel
// takes them once they are online again). The common path pays one sched_getaffinity.

// Reads one of the kernel's CPU lists ("0-1,3\n", or "\n" for none) into a mask; 0 when empty
// or unreadable.
static uint32_t qx_cpu_list_mask(const char *pszPath, char *pszText, size_t uSize) {
    pszText[0] = '\0';
    if (qx_read_small(pszPath, pszText, uSize) <= 0) return 0;
    pszText[strcspn(pszText, "\n")] = '\0';
    if (pszText[0] == '\0') return 0;
    int32_t s32Num = 0;
    uint32_t u32Mask = 0;
    _QX_REALTIME_ParseCpuSelection(pszText, &s32Num, &u32Mask);
    return u32Mask;
}

uint32_t qx_offline_cpus(char *pszText, size_t uSize) {
    return qx_cpu_list_mask(QX_CPU_OFFLINE_FILE, pszText, uSize);
}

int qx_cgroup_domain_cpus(const QX_REALTIME_DOMAIN_t *pstDomain, char *pszCpus, size_t uSize) {
    char szRoot[RT_PATH_LEN], szPath[RT_PATH_LEN];
    memcpy(szRoot, pstDomain->pszCpusetPathRoot, RT_PATH_LEN);
    szRoot[RT_PATH_LEN - 1] = '\0';
    if (szRoot[0] == '\0' || qx_cpuset_file_path(szPath, sizeof(szPath), szRoot, "cpus") < 0 ||
        qx_read_small(szPath, pszCpus, uSize) < 0)
        return -1;
    pszCpus[strcspn(pszCpus, "\n")] = '\0';
    return 0;
}

// A write of a value that may be refused, without the error message of _QX_WriteStrToPath: the
// caller tells what a refusal means.
static int qx_write_quietly(const char *pszPath, const char *pszValue) {
    int fd = open(pszPath, O_WRONLY | O_CLOEXEC);
    if (fd < 0) return -1;
    size_t uLen = strlen(pszValue);
    int s32Ok = write(fd, pszValue, uLen) == (ssize_t)uLen;
    close(fd);
    return s32Ok ? 0 : -1;
}

int qx_cgroup_restore_cpus(const QX_REALTIME_DOMAIN_t *pstDomain) {
    if (qx_cgroup_layout() == QX_CGROUP_V2) return 0;  // v2 gives effective CPUs back itself
    char szCpus[64], szWanted[RT_CPUSET_LEN], szPath[RT_PATH_LEN], szRoot[RT_PATH_LEN];
    memcpy(szWanted, pstDomain->pszCpuset, RT_CPUSET_LEN);
    szWanted[RT_CPUSET_LEN - 1] = '\0';
    if (qx_cgroup_domain_cpus(pstDomain, szCpus, sizeof(szCpus)) < 0) return -1;
    int32_t s32Num = 0;
    uint32_t u32Now = 0, u32Wanted = 0;
    if (szCpus[0] != '\0') _QX_REALTIME_ParseCpuSelection(szCpus, &s32Num, &u32Now);
    _QX_REALTIME_ParseCpuSelection(szWanted, &s32Num, &u32Wanted);
    if (u32Now == u32Wanted) return 0;
    memcpy(szRoot, pstDomain->pszCpusetPathRoot, RT_PATH_LEN);
    szRoot[RT_PATH_LEN - 1] = '\0';
    if (qx_cpuset_file_path(szPath, sizeof(szPath), szRoot, "cpus") < 0 ||
        qx_write_quietly(szPath, szWanted) != 0) {
        RT_LOGI("[RT_Impl][Info] %s holds [%s], not [%s]: a CPU of it is offline.\n", szPath,
                szCpus, szWanted);
        return -1;
    }
    RT_LOGI("[RT_Impl][Info] %s is reset to %s.\n", szPath, szWanted);
    return 1;
}

// Whether the kernel gave the thread other CPUs than the domain's record: its cpuset has lost
// CPUs to hotplug (or the thread narrowed its own affinity, which the check below tells apart).
static int qx_affinity_differs(const QX_REALTIME_DOMAIN_t *pstDomain, int32_t s32Tid) {
    cpu_set_t stSet;
    CPU_ZERO(&stSet);
    if (sched_getaffinity(s32Tid, sizeof(stSet), &stSet) != 0) return 0;
    uint32_t u32Mask = 0;
    for (int i = 0; i < 32; i++)
        if (CPU_ISSET(i, &stSet)) u32Mask |= 1u << i;
    return u32Mask != pstDomain->u32CpuMask;
}

// Set by the latest refused move of this thread into a domain's cpuset: none of the domain's
// CPUs is online.
static thread_local int bNoCpuOnline = 0;

int qx_cgroup_refused_no_cpu_online(void) {
    return bNoCpuOnline;
}

// The move into a v1 domain cpuset. The first try is quiet: a cpuset that lost its CPUs to
// hotplug gets them back from the record and the move is tried again; a move still refused is
// reported as any refused move is (the tasks file and its error), with a line saying why.
static const char *qx_cgroup1_join_cpuset(const QX_REALTIME_DOMAIN_t *pstDomain, int32_t s32Tid) {
    char szTid[16];
    bNoCpuOnline = 0;
    RT_SNPRINTF(szTid, "%d", s32Tid);
    if (qx_write_quietly(pstDomain->pszCpusetPathTasks, szTid) == 0) {
        if (qx_affinity_differs(pstDomain, s32Tid)) (void)qx_cgroup_restore_cpus(pstDomain);
        return NULL;
    }
    int s32Errno = errno;
    if (s32Errno == ENOSPC && qx_cgroup_restore_cpus(pstDomain) == 1 &&
        qx_write_quietly(pstDomain->pszCpusetPathTasks, szTid) == 0)
        return NULL;
    if (s32Errno == ENOSPC) {
        char szCpus[64], szOffline[64];
        if (qx_cgroup_domain_cpus(pstDomain, szCpus, sizeof(szCpus)) == 0 && szCpus[0] == '\0') {
            char szWanted[RT_CPUSET_LEN];
            memcpy(szWanted, pstDomain->pszCpuset, RT_CPUSET_LEN);
            szWanted[RT_CPUSET_LEN - 1] = '\0';
            (void)qx_offline_cpus(szOffline, sizeof(szOffline));
            bNoCpuOnline = 1;
            // On the device's own layout the refusal reads exactly as any refused move does
            // (rtctl check names the offline CPUs there); elsewhere this line says why.
            if (qx_cgroup_layout() != QX_CGROUP_V1)
                RT_LOGE(
                    "[RT_Impl][Err] Domain [%s] has no CPU online: its CPUs [%s], offline "
                    "[%s].\n",
                    qx_name_of(pstDomain->szName).sz, szWanted, szOffline);
        }
    }
    if (_QX_WriteS32ToPath(s32Tid, pstDomain->pszCpusetPathTasks) != RT_SUCCESS)
        return pstDomain->pszCpusetPathTasks;
    bNoCpuOnline = 0;  // taken at the third try: a CPU came back meanwhile
    return NULL;
}

// Whether admission moves the thread into the domain's cpuset: the domain has fewer CPUs than
// are online (the common path: nothing more is read); as many, but one of its own is offline (its
// count matches by chance, and its cpuset holds fewer CPUs or none); more, because CPUs of it are
// offline, and a CPU online is not its own. A domain that holds every CPU online stays out of its
// cpuset, which would keep the thread from the CPUs that come back.
static int qx_moves_into_cpuset(const QX_REALTIME_DOMAIN_t *pstDomain) {
    int s32Online = qx_cpu_count();
    if (pstDomain->s32CpuNum < s32Online) return 1;
    char szList[64];
    if (pstDomain->s32CpuNum == s32Online)
        return (qx_offline_cpus(szList, sizeof(szList)) & pstDomain->u32CpuMask) != 0;
    return (qx_cpu_list_mask(QX_CPU_ONLINE_FILE, szList, sizeof(szList)) &
            ~pstDomain->u32CpuMask) != 0;
}

// ---- task moves ----

const char *qx_cgroup_join_domain(QX_REALTIME_DOMAIN_t *pstDomain, int32_t s32Tid) {
    int s32Layout_ = qx_cgroup_layout();
    bNoCpuOnline = 0;
    if (pstDomain->s32UtilMax >= 1) {
        _QX_REALTIME_Overwrite_Cpuset(pstDomain);
        // cgroup v2 takes offline CPUs in a group's cpuset.cpus (its effective CPUs are then the
        // parent's, and the CPUs come back by themselves): the same rule keeps a thread admitted
        // while its domain's CPU is offline from staying off it once it returns.
        if (s32Layout_ == QX_CGROUP_V2) {
            if (qx_moves_into_cpuset(pstDomain)) return qx_cgroup2_join(pstDomain, s32Tid);
        } else if (qx_moves_into_cpuset(pstDomain)) {
            const char *pszRefused = qx_cgroup1_join_cpuset(pstDomain, s32Tid);
            if (pszRefused != NULL) return pszRefused;
        }
    }
    if (s32Layout_ != QX_CGROUP_V1) return NULL;
    if (_QX_WriteS32ToPath(s32Tid, pstDomain->pszCpuacctPathTasks) != RT_SUCCESS)
        return pstDomain->pszCpuacctPathTasks;
    return NULL;
}

const char *qx_cgroup_leave_domain(const QX_REALTIME_DOMAIN_t *pstDomain, int32_t s32Tid) {
    int s32Layout_ = qx_cgroup_layout();
    if (pstDomain->s32CpuNum != qx_cpu_count()) {
        if (s32Layout_ == QX_CGROUP_V2) return qx_cgroup2_leave(pstDomain, s32Tid);
        if (_QX_WriteS32ToPath(s32Tid, RT_CPUSET_ROOT_TASKS) != RT_SUCCESS)
            return RT_CPUSET_ROOT_TASKS;
    } else {
        // The count matches, but a CPU may be offline: the thread may still sit in the cpuset it
        // was given when the count differed. Back to the root (its home on v2), whatever it gives
        // (a thread already there, or one that has ended, changes nothing).
        char szOffline[64], szTid[16];
        if (qx_offline_cpus(szOffline, sizeof(szOffline)) != 0) {
            if (s32Layout_ == QX_CGROUP_V2)
                (void)qx_cgroup2_leave(pstDomain, s32Tid);
            else if (RT_SNPRINTF(szTid, "%d", s32Tid) >= 0)
                (void)qx_write_quietly(RT_CPUSET_ROOT_TASKS, szTid);
        }
    }
    if (s32Layout_ != QX_CGROUP_V1) return NULL;
    if (_QX_WriteS32ToPath(s32Tid, RT_CPUACCT_ROOT_TASKS) != RT_SUCCESS)
        return RT_CPUACCT_ROOT_TASKS;
    return NULL;
}

const char *qx_cgroup_park_in_root_cpuset(int32_t s32Tid) {
    if (qx_cgroup_layout() == QX_CGROUP_V2) {
        char szHome[QX_CGROUP2_PATH_LEN];
        if (qx_cgroup2_thread_home(s32Tid, szHome, sizeof(szHome)) < 0)
            return qx_cgroup2_unknown_group(s32Tid);
        return qx_cgroup2_write_thread(s32Tid, szHome);
    }
    return _QX_WriteS32ToPath(s32Tid, RT_CPUSET_ROOT_TASKS) == RT_SUCCESS ? NULL
                                                                          : RT_CPUSET_ROOT_TASKS;
}

const char *qx_cgroup_return_to_domain_cpuset(const QX_REALTIME_DOMAIN_t *pstDomain,
                                              int32_t s32Tid) {
    if (qx_cgroup_layout() == QX_CGROUP_V2) return qx_cgroup2_join(pstDomain, s32Tid);
    return qx_cgroup1_join_cpuset(pstDomain, s32Tid);
}

int qx_cgroup_tasks_files(const QX_REALTIME_DOMAIN_t *pstDomain, qx_tasks_file_t astFiles[2]) {
    astFiles[0] = {pstDomain->pszCpusetPathTasks, RT_CPUSET_ROOT};
    astFiles[1] = {pstDomain->pszCpuacctPathTasks, RT_CPUACCT_ROOT};
    // On cgroup v2 no one file holds a domain's threads (each process's group has its own).
    int s32Layout_ = qx_cgroup_layout();
    return s32Layout_ == QX_CGROUP_V1 ? 2 : s32Layout_ == QX_CGROUP_ANDROID ? 1 : 0;
}

// ---- CPU time without cpuacct ----

// One thread's CPU time (user + system, in clock ticks, the unit of cpuacct.stat) and its start
// time, from /proc/<tid>/task/<tid>/stat (/proc/<tid>/stat would sum the whole thread group).
// The fields after the command, which may hold spaces and parentheses, are counted from its
// last ')': utime and stime are the 14th and 15th of the line, the start time the 22nd.
int qx_thread_cpu_ticks(int32_t s32Tid, uint64_t *pu64Ticks, uint64_t *pu64Start) {
    char szPath[64];
    if (RT_FORMAT_PATH(szPath, "/proc/%d/task/%d/stat", s32Tid, s32Tid) < 0) return -1;
    int fd = open(szPath, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return -1;
    char szBuf[1024];
    ssize_t n = read(fd, szBuf, sizeof(szBuf) - 1);
    close(fd);
    if (n <= 0) return -1;
    szBuf[n] = '\0';
    const char *pszFields = strrchr(szBuf, ')');
    if (pszFields == NULL) return -1;
    unsigned long long u64User = 0, u64System = 0, u64Start = 0;
    if (sscanf(pszFields + 1,
               " %*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %llu %llu %*d %*d %*d %*d %*d %*d "
               "%llu",
               &u64User, &u64System, &u64Start) != 3)
        return -1;
    *pu64Ticks = u64User + u64System;
    *pu64Start = u64Start;
    return 0;
}

// What this process has seen of each domain's threads: a thread counts from the first reading
// that finds it admitted, and what it used until it left stays counted, so that a domain's time
// never runs backwards while threads come and go (cpuacct counts a task from its move into the
// group, and keeps the time of tasks that left).
#define QX_SEEN_THREADS ((RT_SHM_SIZE - RT_DOMAIN_HEADER_SIZE) / RT_THREAD_SIZE)
typedef struct {
    int32_t s32Tid;
    uint64_t u64Start;  // tells a thread from a later one with the same id
    uint64_t u64Base;   // its ticks when first seen
    uint64_t u64Last;   // its ticks at the latest reading
    int bSeen;
} qx_seen_thread_t;
typedef struct {
    char szName[RT_NAME_LEN];
    uint64_t u64Retired;  // the time of threads that left
    int32_t s32Count;
    qx_seen_thread_t astThreads[QX_SEEN_THREADS];
} qx_seen_domain_t;
// Allocated at the first reading: a process on a layout with cpuacct never pays for it.
static qx_seen_domain_t *pastSeen = NULL;
static pthread_mutex_t stSeenMutex = PTHREAD_MUTEX_INITIALIZER;

static qx_seen_domain_t *qx_seen_domain(const char *pszName) {
    qx_seen_domain_t *pstFree = NULL;
    for (int i = 0; i < RT_MAX_DOMAIN; i++) {
        qx_seen_domain_t &stSeen = pastSeen[i];
        if (strncmp(stSeen.szName, pszName, RT_NAME_LEN) == 0) return &stSeen;
        if (pstFree == NULL && stSeen.szName[0] == '\0') pstFree = &stSeen;
    }
    if (pstFree == NULL) pstFree = &pastSeen[0];  // more domains than the central lists hold
    memset(pstFree, 0, sizeof(*pstFree));
    memcpy(pstFree->szName, pszName, RT_NAME_LEN);
    pstFree->szName[RT_NAME_LEN - 1] = '\0';
    return pstFree;
}

static void qx_seen_update(qx_seen_domain_t *pstSeen, int32_t s32Tid, uint64_t u64Ticks,
                           uint64_t u64Start) {
    for (int32_t i = 0; i < pstSeen->s32Count; i++) {
        qx_seen_thread_t *pstThread = &pstSeen->astThreads[i];
        if (pstThread->s32Tid == s32Tid && pstThread->u64Start == u64Start) {
            pstThread->u64Last = u64Ticks;
            pstThread->bSeen = 1;
            return;
        }
    }
    if (pstSeen->s32Count >= QX_SEEN_THREADS) return;
    pstSeen->astThreads[pstSeen->s32Count++] = {s32Tid, u64Start, u64Ticks, u64Ticks, 1};
}

uint32_t qx_cgroup_threads_time(QX_REALTIME_DOMAIN_t *pstDomain, int32_t *ps32Time) {
    char szName[RT_NAME_LEN];
    memcpy(szName, pstDomain->szName, RT_NAME_LEN);
    szName[RT_NAME_LEN - 1] = '\0';
    pthread_mutex_lock(&stSeenMutex);
    if (pastSeen == NULL) pastSeen = (qx_seen_domain_t *)calloc(RT_MAX_DOMAIN, sizeof(*pastSeen));
    if (pastSeen == NULL) {
        pthread_mutex_unlock(&stSeenMutex);
        return RT_ERR_SYSTEM;
    }
    qx_seen_domain_t *pstSeen = qx_seen_domain(szName);
    for (int32_t i = 0; i < pstSeen->s32Count; i++) pstSeen->astThreads[i].bSeen = 0;
    int32_t s32Num = qx_domain_thread_num(pstDomain);
    for (int32_t i = 0; i < s32Num; i++) {
        const QX_REALTIME_THREAD_t *pstThread = qx_domain_thread(pstDomain, i);
        uint64_t u64Ticks = 0, u64Start = 0;
        if (pstThread->Alive == 0 || qx_thread_cpu_ticks(pstThread->Pid, &u64Ticks, &u64Start) != 0)
            continue;
        qx_seen_update(pstSeen, pstThread->Pid, u64Ticks, u64Start);
    }
    uint64_t u64Sum = pstSeen->u64Retired;
    int32_t s32Kept = 0;
    for (int32_t i = 0; i < pstSeen->s32Count; i++) {
        qx_seen_thread_t stThread = pstSeen->astThreads[i];
        uint64_t u64Used = stThread.u64Last - stThread.u64Base;
        u64Sum += u64Used;
        if (stThread.bSeen)
            pstSeen->astThreads[s32Kept++] = stThread;
        else
            pstSeen->u64Retired += u64Used;
    }
    pstSeen->s32Count = s32Kept;
    pthread_mutex_unlock(&stSeenMutex);
    *ps32Time = (int32_t)(uint32_t)u64Sum;  // read as a signed 32-bit counter, as cpuacct.stat is
    return RT_SUCCESS;
}
