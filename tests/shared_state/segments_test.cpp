// Lock files and shared segments: creation, modes, sizing, removal, and attaching to the central
// segment from a process that did not initialise.
#include <sys/file.h>
#include <sys/stat.h>

#include <regex>

#include "shared_state_support.h"

using qxt::err_head;
using qxt::info_head;
using qxt::LogCapture;

namespace {

const char kLockGlobal[] = "/data/vendor/realtime/flock_rt_Global";
const char kShmGlobal[] = "/dev/shm/realtime/rt_Global";
const char kForgot[] = "[RT_Impl][Err] Did you forget to invoke QX_REALTIME_Init()?\n";

// Writes a central segment file as another process would have left it.
void write_central_file(int32_t cap, int32_t reservation, int32_t dbg, uint8_t enabled,
                        int32_t budget_cpus, size_t size = RT_SHM_SIZE) {
    std::string bytes(size, '\0');
    QX_REALTIME_CENTRAL_t central{};
    central.s32CapPerCore = cap;
    central.s32UtilReservation = reservation;
    central.s32DbgLevel = dbg;
    central.u8Enabled = enabled;
    central.s32BudgetCpuNum = budget_cpus;
    memcpy(&bytes[0], &central, std::min(size, sizeof(central)));
    qxt::write_file(kShmGlobal, bytes);
}

int count_matching(const LogCapture &log, int priority, const std::string &pattern) {
    std::regex re(pattern);
    int n = 0;
    for (const qxt::LogLine &line : log.lines())
        if (line.priority == priority && std::regex_match(line.file_form(), re)) n++;
    return n;
}

// How often the log says _QX_REALTIME_GetCentralAndTop (with its thread id) could not get what.
int central_and_top_failures(const LogCapture &log, const std::string &what) {
    return count_matching(log, QX_LOG_PRIO_ERROR,
                          "\\[RT_Impl\\]\\[Err\\] _QX_REALTIME_GetCentralAndTop \\([0-9]+\\), "
                          "can't get central " +
                              what + "\n");
}

}  // namespace

// ---- lock files ----

using GetFlock = qxt::SandboxTest;

TEST_F(GetFlock, NullDescriptorPointerSucceedsAndOpensNothing) {
    _u32DbgLevel = 64;
    LogCapture log;
    int fds = qxt::open_fd_count();
    EXPECT_EQ(RT_SUCCESS, _QX_REALTIME_GetFlock("Global", nullptr));
    EXPECT_FALSE(qxt::file_exists(kLockGlobal));
    EXPECT_EQ(fds, qxt::open_fd_count());
    QXT_EXPECT_SILENT(log);
}

TEST_F(GetFlock, NullDescriptorPointerStillFailsOnNameThatDoesNotFit) {
    // The path is formatted before the pointer is looked at.
    EXPECT_EQ(RT_ERR_SYSTEM, _QX_REALTIME_GetFlock(std::string(97, 'n').c_str(), nullptr));
}

TEST_F(GetFlock, CreatesLockFileMode0666WhateverTheUmask) {
    umask(077);
    _u32DbgLevel = 64;
    LogCapture log;
    int32_t fd = -1;
    ASSERT_EQ(RT_SUCCESS, _QX_REALTIME_GetFlock("Global", &fd));
    ASSERT_TRUE(qxt::fd_is_open(fd));
    EXPECT_EQ(0666u, qxt::file_mode(kLockGlobal));
    QXT_EXPECT_INFO(log,
                    info_head("_QX_REALTIME_GetFlock") +
                        qxt::format("flock open (%s) return %d, newly created\n", kLockGlobal, fd));
    // Created close-on-exec; it is not locked by this step.
    EXPECT_NE(0, fcntl(fd, F_GETFD) & FD_CLOEXEC);
    int other = open(kLockGlobal, O_RDWR);
    EXPECT_EQ(0, flock(other, LOCK_EX | LOCK_NB));
    close(other);
    close(fd);
}

TEST_F(GetFlock, OpensExistingLockFileCloseOnExec) {
    qxt::write_file(kLockGlobal, "");
    chmod(kLockGlobal, 0600);
    _u32DbgLevel = 64;
    LogCapture log;
    int32_t fd = -1;
    ASSERT_EQ(RT_SUCCESS, _QX_REALTIME_GetFlock("Global", &fd));
    ASSERT_TRUE(qxt::fd_is_open(fd));
    QXT_EXPECT_INFO(log,
                    info_head("_QX_REALTIME_GetFlock") +
                        qxt::format("flock open (%s) return %d, open existed.\n", kLockGlobal, fd));
    // A client that starts a program hands it none of the library's descriptors.
    EXPECT_EQ(FD_CLOEXEC, fcntl(fd, F_GETFD) & FD_CLOEXEC);
    EXPECT_EQ(0600u, qxt::file_mode(kLockGlobal));  // an existing file keeps its mode
    close(fd);
}

TEST_F(GetFlock, NameThatDoesNotFitPathReturnsSystemError) {
    // "/data/vendor/realtime/flock_rt_" is 31 bytes: 96 more fill the 128-byte buffer exactly.
    int32_t fd = -1;
    ASSERT_EQ(RT_SUCCESS, _QX_REALTIME_GetFlock(std::string(96, 'n').c_str(), &fd));
    EXPECT_TRUE(qxt::file_exists(RT_FLOCK_PREFIX + std::string(96, 'n')));
    close(fd);

    _u32DbgLevel = 64;
    LogCapture log;
    fd = -1;
    EXPECT_EQ(RT_ERR_SYSTEM, _QX_REALTIME_GetFlock(std::string(97, 'n').c_str(), &fd));
    QXT_EXPECT_SILENT(log);
    EXPECT_EQ(-1, fd);
    EXPECT_FALSE(qxt::file_exists(RT_FLOCK_PREFIX + std::string(97, 'n')));
}

TEST_F(GetFlock, MissingDirectoryReturnsSystemError) {
    ASSERT_EQ(0, rmdir("/data/vendor/realtime"));
    LogCapture log;
    int32_t fd = 0;
    EXPECT_EQ(RT_ERR_SYSTEM, _QX_REALTIME_GetFlock("Global", &fd));
    EXPECT_EQ(-1, fd);
    QXT_EXPECT_ERROR(log,
                     err_head("_QX_REALTIME_GetFlock") +
                         qxt::format("flock open (%s) return -1, errno=No such file or directory\n",
                                     kLockGlobal));
    EXPECT_FALSE(qxt::file_exists("/data/vendor/realtime"));
}

// ---- segments ----

using SharedMemoryAlloc = qxt::SandboxTest;

TEST_F(SharedMemoryAlloc, NewSegmentIsAllZerosAndSized) {
    _u32DbgLevel = 64;
    LogCapture log;
    int32_t fd = -1;
    void *addr = nullptr;
    ASSERT_EQ(RT_SUCCESS, _QX_REALTIME_SharedMemoryAlloc("Domain_New", &fd, &addr));
    ASSERT_NE(nullptr, addr);
    EXPECT_TRUE(qxt::fd_is_open(fd));
    EXPECT_EQ(RT_SHM_SIZE, qxt::file_size("/dev/shm/realtime/rt_Domain_New"));
    EXPECT_TRUE(qxt::all_zero(addr, RT_SHM_SIZE));
    QX_REALTIME_DOMAIN_t *domain = (QX_REALTIME_DOMAIN_t *)addr;
    EXPECT_EQ(0, domain->s32ClassNum);
    EXPECT_EQ(0, domain->s32ThreadNum);
    EXPECT_EQ(0, domain->processIDListNum);
    // Close-on-exec, like every descriptor of the library.
    EXPECT_EQ(FD_CLOEXEC, fcntl(fd, F_GETFD) & FD_CLOEXEC);
    std::string head = info_head("_QX_REALTIME_SharedMemoryAlloc");
    QXT_EXPECT_INFO(
        log,
        head + qxt::format("path=/dev/shm/realtime/rt_Domain_New create success, shmFd=%d\n", fd));
    QXT_EXPECT_INFO(log, head + qxt::format("mmap=%p, new_create=1\n", addr));
}

TEST_F(SharedMemoryAlloc, NewCentralSegmentHasNoDomainsAndIsNotEnabled) {
    int32_t fd = -1;
    void *addr = nullptr;
    ASSERT_EQ(RT_SUCCESS, _QX_REALTIME_SharedMemoryAlloc("Global", &fd, &addr));
    QX_REALTIME_CENTRAL_t *central = (QX_REALTIME_CENTRAL_t *)addr;
    EXPECT_EQ(0, central->s32DomainNum);
    EXPECT_EQ(0, central->u8Enabled);
    EXPECT_TRUE(qxt::all_zero(addr, RT_SHM_SIZE));
}

TEST_F(SharedMemoryAlloc, SegmentModesAreFixedWhateverTheUmask) {
    umask(077);
    int32_t fd = -1;
    void *addr = nullptr;
    ASSERT_EQ(RT_SUCCESS, _QX_REALTIME_SharedMemoryAlloc("Global", &fd, &addr));
    EXPECT_EQ(0666u, qxt::file_mode(kShmGlobal));
    ASSERT_EQ(RT_SUCCESS, _QX_REALTIME_SharedMemoryAlloc("Domain_Mode", &fd, &addr));
    EXPECT_EQ(0660u, qxt::file_mode("/dev/shm/realtime/rt_Domain_Mode"));
    // The name decides, by exact comparison.
    ASSERT_EQ(RT_SUCCESS, _QX_REALTIME_SharedMemoryAlloc("Global2", &fd, &addr));
    EXPECT_EQ(0660u, qxt::file_mode("/dev/shm/realtime/rt_Global2"));
}

TEST_F(SharedMemoryAlloc, ExistingSegmentOfWrongSizeIsSizedTo16384AndKeepsItsContents) {
    for (size_t size : {size_t(100), size_t(40000)}) {
        std::string path = "/dev/shm/realtime/rt_Domain_Size";
        std::string pattern(size, '\0');
        for (size_t i = 0; i < size; i++) pattern[i] = (char)(1 + i % 200);
        qxt::write_file(path, pattern);
        _u32DbgLevel = 64;
        LogCapture log;
        int32_t fd = -1;
        void *addr = nullptr;
        ASSERT_EQ(RT_SUCCESS, _QX_REALTIME_SharedMemoryAlloc("Domain_Size", &fd, &addr)) << size;
        EXPECT_EQ(RT_SHM_SIZE, qxt::file_size(path)) << size;
        size_t kept = std::min(size, size_t(RT_SHM_SIZE));
        EXPECT_EQ(0, memcmp(addr, pattern.data(), kept)) << size;
        EXPECT_TRUE(qxt::all_zero((char *)addr + kept, RT_SHM_SIZE - kept)) << size;
        std::string head = info_head("_QX_REALTIME_SharedMemoryAlloc");
        QXT_EXPECT_INFO(
            log, head + qxt::format("open %s an existed shared memory=%d\n", path.c_str(), fd));
        QXT_EXPECT_INFO(log, head + qxt::format("mmap=%p, new_create=0\n", addr));
        munmap(addr, RT_SHM_SIZE);
        close(fd);
        unlink(path.c_str());
    }
}

TEST_F(SharedMemoryAlloc, NameThatDoesNotFitPathReturnsSystemError) {
    // "/dev/shm/realtime/rt_" is 21 bytes: 106 more fill the 128-byte buffer exactly.
    int32_t fd = -1;
    void *addr = nullptr;
    ASSERT_EQ(RT_SUCCESS,
              _QX_REALTIME_SharedMemoryAlloc(std::string(106, 'n').c_str(), &fd, &addr));
    fd = -1;
    addr = nullptr;
    LogCapture log;
    EXPECT_EQ(RT_ERR_SYSTEM,
              _QX_REALTIME_SharedMemoryAlloc(std::string(107, 'n').c_str(), &fd, &addr));
    EXPECT_EQ(-1, fd);
    EXPECT_EQ(nullptr, addr);
    EXPECT_FALSE(qxt::file_exists(RT_SHM_PREFIX + std::string(107, 'n')));
    QXT_EXPECT_SILENT(log);
}

TEST_F(SharedMemoryAlloc, MissingDirectoryReturnsFailed) {
    ASSERT_EQ(0, rmdir("/dev/shm/realtime"));
    LogCapture log;
    int32_t fd = 0;
    void *addr = nullptr;
    EXPECT_EQ(RT_ERR_FAILED, _QX_REALTIME_SharedMemoryAlloc("Domain_X", &fd, &addr));
    EXPECT_EQ(-1, fd);
    EXPECT_EQ(nullptr, addr);
    QXT_EXPECT_ERROR(log, err_head("_QX_REALTIME_SharedMemoryAlloc") +
                              "shm_open (/dev/shm/realtime/rt_Domain_X) return -1, errno=No such "
                              "file or directory\n");
    EXPECT_FALSE(qxt::file_exists("/dev/shm/realtime"));
}

TEST_F(SharedMemoryAlloc, ExistingPathThatCannotBeOpenedReturnsFailed) {
    ASSERT_EQ(0, mkdir("/dev/shm/realtime/rt_Domain_Dir", 0755));
    LogCapture log;
    int32_t fd = 0;
    void *addr = nullptr;
    EXPECT_EQ(RT_ERR_FAILED, _QX_REALTIME_SharedMemoryAlloc("Domain_Dir", &fd, &addr));
    EXPECT_EQ(-1, fd);
    QXT_EXPECT_ERROR(
        log, err_head("_QX_REALTIME_SharedMemoryAlloc") +
                 "shm_open (/dev/shm/realtime/rt_Domain_Dir) return -1, errno=Is a directory\n");
}

// ---- removal ----

using SharedMemoryFree = qxt::SandboxTest;

TEST_F(SharedMemoryFree, RemovesSegmentClosesDescriptorAndUnmaps) {
    int32_t fd = -1;
    void *addr = nullptr;
    ASSERT_EQ(RT_SUCCESS, _QX_REALTIME_SharedMemoryAlloc("Domain_Free", &fd, &addr));
    int32_t held = fd;
    _u32DbgLevel = 64;
    LogCapture log;
    _QX_REALTIME_SharedMemoryFree("Domain_Free", &fd, addr);
    EXPECT_FALSE(qxt::file_exists("/dev/shm/realtime/rt_Domain_Free"));
    EXPECT_FALSE(qxt::fd_is_open(held));
    EXPECT_FALSE(qxt::segment_mapped(addr));
    QXT_EXPECT_INFO(log,
                    "[RT_Impl][Info] [_QX_REALTIME_SharedMemoryFree] unlink "
                    "/dev/shm/realtime/rt_Domain_Free success\n");
}

TEST_F(SharedMemoryFree, SegmentAlreadyRemovedLogsHasBeenUnlinkedAndKeepsMapping) {
    int32_t fd = -1;
    void *addr = nullptr;
    ASSERT_EQ(RT_SUCCESS, _QX_REALTIME_SharedMemoryAlloc("Domain_Gone", &fd, &addr));
    ((QX_REALTIME_DOMAIN_t *)addr)->s32UtilMax = 321;
    int32_t held = fd;
    // Another process removes it first.
    ASSERT_EQ(0, qxt::run_in_child([] { return unlink("/dev/shm/realtime/rt_Domain_Gone"); }));
    _u32DbgLevel = 64;
    LogCapture log;
    _QX_REALTIME_SharedMemoryFree("Domain_Gone", &fd, addr);
    QXT_EXPECT_INFO(
        log,
        "[RT_Impl][Info] [_QX_REALTIME_SharedMemoryFree] unlink /dev/shm/realtime/rt_Domain_Gone "
        "has been unlinked, errno=No such file or directory\n");
    EXPECT_EQ(QX_LOG_PRIO_INFO, log.lines().at(0).priority);
    EXPECT_FALSE(qxt::fd_is_open(held));
    ASSERT_TRUE(qxt::segment_mapped(addr));
    EXPECT_EQ(321, ((QX_REALTIME_DOMAIN_t *)addr)->s32UtilMax);
}

TEST_F(SharedMemoryFree, UnlinkFailureIsAnErrorAndKeepsMapping) {
    int32_t fd = -1;
    void *addr = nullptr;
    ASSERT_EQ(RT_SUCCESS, _QX_REALTIME_SharedMemoryAlloc("Domain_Stuck", &fd, &addr));
    // Something that unlink refuses now stands at the segment's path.
    ASSERT_EQ(0, rename("/dev/shm/realtime/rt_Domain_Stuck", "/dev/shm/realtime/moved"));
    ASSERT_EQ(0, mkdir("/dev/shm/realtime/rt_Domain_Stuck", 0755));
    LogCapture log;
    _QX_REALTIME_SharedMemoryFree("Domain_Stuck", &fd, addr);
    QXT_EXPECT_ERROR(
        log,
        "[RT_Impl][Err] [_QX_REALTIME_SharedMemoryFree] unlink /dev/shm/realtime/rt_Domain_Stuck "
        "fails, errno=Is a directory\n");
    EXPECT_TRUE(qxt::segment_mapped(addr));
}

TEST_F(SharedMemoryFree, NameThatDoesNotFitClosesDescriptorOnly) {
    int32_t fd = -1;
    void *addr = nullptr;
    ASSERT_EQ(RT_SUCCESS, _QX_REALTIME_SharedMemoryAlloc("Domain_Kept", &fd, &addr));
    int32_t held = fd;
    LogCapture log;
    _QX_REALTIME_SharedMemoryFree(std::string(107, 'n').c_str(), &fd, addr);
    EXPECT_FALSE(qxt::fd_is_open(held));
    EXPECT_TRUE(qxt::segment_mapped(addr));
    EXPECT_TRUE(qxt::file_exists("/dev/shm/realtime/rt_Domain_Kept"));
    QXT_EXPECT_SILENT(log);
}

// ---- attaching to the central segment ----

using GetCentralShm = qxt::SandboxTest;

TEST_F(GetCentralShm, WithoutCentralSegmentReturnsNullWithHint) {
    LogCapture log;
    EXPECT_EQ(RT_ERR_NULL, _QX_REALTIME_GetCentralShm());
    std::vector<qxt::LogLine> lines = log.lines();
    ASSERT_EQ(2u, lines.size()) << log.dump();
    EXPECT_EQ(
        err_head("_QX_REALTIME_GetCentralShm") +
            "shm_open (/dev/shm/realtime/rt_Global) return -1, errno=No such file or directory\n",
        lines[0].file_form());
    EXPECT_EQ(kForgot, lines[1].file_form());
    EXPECT_EQ(QX_LOG_PRIO_ERROR, lines[0].priority);
    EXPECT_EQ(QX_LOG_PRIO_ERROR, lines[1].priority);
    EXPECT_EQ(nullptr, pstTop);
}

TEST_F(GetCentralShm, AttachCopiesSettingsButNotBudgetCpuNum) {
    write_central_file(1024, 80, 4, 1, 2);
    LogCapture log;
    ASSERT_EQ(RT_SUCCESS, _QX_REALTIME_GetCentralShm());
    ASSERT_NE(nullptr, pstTop);
    ASSERT_NE(nullptr, pstTop->pstCentral);
    EXPECT_TRUE(qxt::fd_is_open(pstTop->s32ShmFd));
    EXPECT_EQ(1024, pstTop->s32CapPerCore);
    EXPECT_EQ(80, pstTop->s32UtilReservation);
    EXPECT_EQ(4, pstTop->s32DbgLevel);
    EXPECT_EQ(1u, pstTop->Enabled);
    EXPECT_EQ(0, pstTop->s32BudgetCpuNum);
    EXPECT_EQ(0u, pstTop->u32DomainMapNum);
    EXPECT_EQ(64u, _u32DbgLevel);
    EXPECT_EQ(nullptr, rtlog);
    QXT_EXPECT_INFO(log, info_head("_QX_REALTIME_GetCentralShm") +
                             qxt::format("shm exists. mmap=%p, s32ShmFd=%d\n",
                                         (void *)pstTop->pstCentral, pstTop->s32ShmFd));
}

TEST_F(GetCentralShm, AttachBelowDbgLevel4WritesNothing) {
    write_central_file(1024, 80, 3, 1, 2);
    _u32DbgLevel = 64;  // the attach sets the level before it would write
    LogCapture log;
    ASSERT_EQ(RT_SUCCESS, _QX_REALTIME_GetCentralShm());
    EXPECT_EQ(48u, _u32DbgLevel);
    QXT_EXPECT_SILENT(log);
}

TEST_F(GetCentralShm, AttachSizesShortCentralFileTo16384) {
    write_central_file(512, 0, 2, 1, 2, 64);
    ASSERT_EQ(RT_SUCCESS, _QX_REALTIME_GetCentralShm());
    EXPECT_EQ(RT_SHM_SIZE, qxt::file_size(kShmGlobal));
    EXPECT_EQ(512, pstTop->s32CapPerCore);
    EXPECT_TRUE(qxt::all_zero((char *)pstTop->pstCentral + 64, RT_SHM_SIZE - 64));
}

using GetCentralAndTop = qxt::SandboxTest;

TEST_F(GetCentralAndTop, WithoutCentralSegmentReturnsNullAndClosesLockFile) {
    LogCapture log;
    int32_t fd = -1;
    EXPECT_EQ(RT_ERR_NULL, _QX_REALTIME_GetCentralAndTop(&fd));
    EXPECT_FALSE(qxt::fd_is_open(fd));
    QXT_EXPECT_ERROR(log, kForgot);
    EXPECT_EQ(1, central_and_top_failures(log, "shared memory")) << log.dump();
    EXPECT_EQ(nullptr, pstTop);
}

TEST_F(GetCentralAndTop, LockFileFailureReturnsFailed) {
    write_central_file(1024, 80, 2, 1, 2);
    ASSERT_EQ(0, mkdir(kLockGlobal, 0755));
    LogCapture log;
    int32_t fd = -1;
    EXPECT_EQ(RT_ERR_FAILED, _QX_REALTIME_GetCentralAndTop(&fd));
    QXT_EXPECT_ERROR(
        log, err_head("_QX_REALTIME_GetFlock") +
                 qxt::format("flock open (%s) return -1, errno=Is a directory\n", kLockGlobal));
    EXPECT_EQ(1, central_and_top_failures(log, "flock")) << log.dump();
    EXPECT_EQ(nullptr, pstTop);
}

TEST_F(GetCentralAndTop, AttachesOnceAndLeavesLockFileOpenButUnlocked) {
    write_central_file(1024, 80, 4, 1, 2);
    int32_t fd = -1;
    ASSERT_EQ(RT_SUCCESS, _QX_REALTIME_GetCentralAndTop(&fd));
    ASSERT_TRUE(qxt::fd_is_open(fd));
    ASSERT_NE(nullptr, pstTop);
    QX_REALTIME_CENTRAL_t *central = pstTop->pstCentral;
    int other = open(kLockGlobal, O_RDWR);
    EXPECT_EQ(0, flock(other, LOCK_EX | LOCK_NB));
    close(other);
    close(fd);

    // With a top object the central segment is not attached again.
    LogCapture log;
    ASSERT_EQ(RT_SUCCESS, _QX_REALTIME_GetCentralAndTop(&fd));
    close(fd);
    EXPECT_EQ(central, pstTop->pstCentral);
    EXPECT_EQ(0, log.count_containing("shm exists")) << log.dump();
}
