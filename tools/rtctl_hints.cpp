#include "rtctl_hints.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stddef.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "qx_realtime.h"
#include "qx_realtime_internal.h"  // the paths of segments and lock files, the domain record

namespace rtctl {

namespace {

bool exists(const std::string &path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

// Whether this process, by its effective ids and groups, may read and write PATH (as the library
// opens segments and lock files). A missing file is no permission problem.
bool denied(const std::string &path) {
    return exists(path) && faccessat(AT_FDCWD, path.c_str(), R_OK | W_OK, AT_EACCESS) != 0 &&
           errno == EACCES;
}

std::string denied_text(const std::string &path) {
    return "permission denied on " + path + " (run as root or in its group)";
}

// The names of the domain segments present, from the segment directory (the central record may
// be the very thing this user cannot read).
std::vector<std::string> segment_names() {
    std::vector<std::string> names;
    DIR *dir = opendir(QX_SHM_DIR);
    if (dir == nullptr) return names;
    const size_t prefix = strlen("rt_");
    while (struct dirent *e = readdir(dir)) {
        std::string file = e->d_name;
        if (file.compare(0, prefix, "rt_") == 0 && file.size() > prefix &&
            file != std::string("rt_") + RT_CENTRAL_NAME)
            names.push_back(file.substr(prefix));
    }
    closedir(dir);
    return names;
}

bool names_all(const std::string &domain) {
    return domain.compare(0, 3, "All") == 0;
}

// Commands that change the kernel's view of threads or make control groups: as another user
// they fail for want of privilege, whatever the files say.
bool needs_privilege(const std::string &command) {
    static const char *const kPrivileged[] = {"init", "deinit",   "create", "delete",
                                              "add",  "add-lite", "remove", "update"};
    for (const char *c : kPrivileged)
        if (command == c) return true;
    return false;
}

}  // namespace

std::string domain_access_problem(const std::string &domain) {
    for (const std::string &path :
         {std::string(RT_SHM_PREFIX) + domain, std::string(RT_FLOCK_PREFIX) + domain})
        if (denied(path)) return denied_text(path);
    return "";
}

std::vector<std::string> access_problems() {
    std::vector<std::string> problems;
    std::vector<std::string> names = segment_names();
    names.insert(names.begin(), RT_CENTRAL_NAME);
    for (const std::string &name : names)
        for (const std::string &path :
             {std::string(RT_SHM_PREFIX) + name, std::string(RT_FLOCK_PREFIX) + name})
            if (denied(path)) problems.push_back(denied_text(path));
    return problems;
}

std::vector<std::string> failure_causes(const std::string &command, uint32_t code,
                                        const std::string &domain) {
    std::vector<std::string> causes;
    if (code == RT_SUCCESS) return causes;
    // Neither directory is made by the library: the platform provides both.
    if (!exists(QX_DATA_DIR)) {
        causes.push_back(std::string("the directory ") + QX_DATA_DIR +
                         " is missing: the library keeps its lock files there (create it as "
                         "root, as the device's init does, before rtctl init)");
        return causes;
    }
    if (!exists(QX_SHM_DIR)) {
        causes.push_back(std::string("the directory ") + QX_SHM_DIR +
                         " is missing: the library keeps its shared segments there (create it "
                         "as root, as the device's init does, before rtctl init)");
        return causes;
    }
    const std::string central = std::string(RT_SHM_PREFIX) + RT_CENTRAL_NAME;
    if (command != "init" && command != "create" && !exists(central)) {
        causes.push_back("no framework: run rtctl init");
        return causes;
    }
    for (const std::string &path : {central, std::string(RT_FLOCK_PREFIX) + RT_CENTRAL_NAME})
        if (denied(path)) causes.push_back(denied_text(path));
    if (!domain.empty() && !names_all(domain)) {
        std::string problem = domain_access_problem(domain);
        if (!problem.empty())
            causes.push_back(problem);
        else if (code == RT_ERR_NULL && command != "create" &&
                 !exists(std::string(RT_SHM_PREFIX) + domain))
            causes.push_back("no domain " + domain +
                             ": rtctl list shows the domains, rtctl create " + domain +
                             " makes it from the configuration");
    }
    if (causes.empty() && geteuid() != 0 && needs_privilege(command))
        causes.push_back("rtctl runs as user " + std::to_string(geteuid()) +
                         ": creating domains and changing the scheduling of threads needs root");
    return causes;
}

uint32_t domain_sched_type(const std::string &domain) {
    std::string path = std::string(RT_SHM_PREFIX) + domain;
    int fd = open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) return 0;
    uint32_t type = 0;
    ssize_t got = pread(fd, &type, sizeof(type), offsetof(QX_REALTIME_DOMAIN_t, u32SchedType));
    close(fd);
    return got == (ssize_t)sizeof(type) ? type : 0;
}

}  // namespace rtctl
