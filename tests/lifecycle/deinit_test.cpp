// QX_REALTIME_Deinit, QX_REALTIME_SetDebugLevel, and several processes starting and stopping.
#include <errno.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/wait.h>

#include "lifecycle_support.h"

using qxt::central_path;
using qxt::LogCapture;
using qxt::system_config;
using qxt::tid_text;

namespace {

const char kForgot[] = "[RT_Impl][Err] Did you forget to invoke QX_REALTIME_Init()?\n";

// A pipe used as a one-shot signal between processes.
struct Signal {
    int fds[2] = {-1, -1};
    Signal() {
        if (pipe(fds) != 0) fds[0] = fds[1] = -1;
    }
    ~Signal() {
        close(fds[0]);
        close(fds[1]);
    }
    void post(int n = 1) {
        for (int i = 0; i < n; i++) (void)!write(fds[1], "x", 1);
    }
    bool wait() {
        char c;
        return read(fds[0], &c, 1) == 1;
    }
};

int exit_code_of(pid_t pid) {
    int status = 0;
    if (waitpid(pid, &status, 0) != pid) return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// The internal level a freshly attaching process ends up with.
uint32_t level_of_fresh_attacher() {
    return (uint32_t)qxt::run_in_child([] {
        QX_REALTIME_TOP_t *none = nullptr;
        pstTop = none;  // a process that never called Init
        int32_t fd = -1;
        if (_QX_REALTIME_GetCentralAndTop(&fd) != RT_SUCCESS) return 255;
        close(fd);
        return (int)_u32DbgLevel;
    });
}

}  // namespace

using Deinit = qxt::SandboxTest;

TEST_F(Deinit, RemovesCentralSegmentAndLockFile) {
    qxt::write_file("/vendor/etc/realtime/rt-0.json", system_config(1, 1024, 4));
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_Init(0));
    ASSERT_TRUE(qxt::file_exists(central_path()));
    LogCapture log;
    EXPECT_EQ(RT_SUCCESS, QX_REALTIME_Deinit());
    EXPECT_EQ(nullptr, pstTop);
    EXPECT_FALSE(qxt::file_exists(central_path()));
    EXPECT_FALSE(qxt::file_exists(qxt::central_lock_path()));
    QXT_EXPECT_INFO(log,
                    "[RT_Impl][Info] [_QX_REALTIME_SharedMemoryFree] unlink "
                    "/dev/shm/realtime/rt_Global success\n");
    QXT_EXPECT_INFO(log,
                    "[RT_Impl][Info] [QX_REALTIME_Deinit] unlink "
                    "/data/vendor/realtime/flock_rt_Global success\n");
    QXT_EXPECT_INFO(log, "[RT_Impl][DBG] [QX_REALTIME_Deinit] exit, OK.\n");
    EXPECT_TRUE(qxt::process_mutex_is_free());

    // This process now has no top object and no central segment to attach to.
    log.clear();
    EXPECT_EQ(RT_ERR_NULL, QX_REALTIME_Deinit());
    QXT_EXPECT_ERROR(log, kForgot);
    QXT_EXPECT_INFO(log, "[RT_Impl][DBG] [QX_REALTIME_Deinit] exit, err=10.\n");
}

TEST_F(Deinit, WithoutCentralSegmentReturnsNull) {
    LogCapture log;
    EXPECT_EQ(RT_ERR_NULL, QX_REALTIME_Deinit());
    QXT_EXPECT_ERROR(
        log,
        qxt::format("[RT_Impl][Err] [_QX_REALTIME_GetCentralShm][PID=%d][TID=%s] shm_open "
                    "(/dev/shm/realtime/rt_Global) return -1, errno=No such file or directory\n",
                    getpid(), tid_text().c_str()));
    QXT_EXPECT_ERROR(log, kForgot);
    EXPECT_EQ(1, log.count_containing("_QX_REALTIME_GetCentralAndTop (")) << log.dump();
    EXPECT_EQ(1, log.count_containing("), can't get central shared memory\n")) << log.dump();
    EXPECT_TRUE(qxt::process_mutex_is_free());
}

TEST_F(Deinit, WithLockFileFailureReturnsFailed) {
    ASSERT_EQ(0, mkdir(qxt::central_lock_path(), 0755));
    LogCapture log;
    EXPECT_EQ(RT_ERR_FAILED, QX_REALTIME_Deinit());
    EXPECT_EQ(1, log.count_containing("), can't get central flock\n")) << log.dump();
    EXPECT_TRUE(qxt::process_mutex_is_free());
}

TEST_F(Deinit, LockFileThatCannotBeUnlinkedIsReportedAndDeinitStillSucceeds) {
    qxt::write_file("/vendor/etc/realtime/rt-0.json", system_config(1, 1024, 4));
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_Init(0));
    // A lock file that is a mount point (here a regular file bound over it) cannot be unlinked:
    // EBUSY. The lock and everything else work as before.
    qxt::write_file("/data/vendor/realtime/bound_lock", "");
    std::string why;
    ASSERT_TRUE(qxt::bind_over("/data/vendor/realtime/bound_lock", qxt::central_lock_path(), &why))
        << why;
    LogCapture log;
    EXPECT_EQ(RT_SUCCESS, QX_REALTIME_Deinit());
    umount2(qxt::central_lock_path(), MNT_DETACH);
    QXT_EXPECT_ERROR(log,
                     "[RT_Impl][Err] [QX_REALTIME_Deinit] unlink "
                     "/data/vendor/realtime/flock_rt_Global fails, errno=" +
                         qxt::errno_text(EBUSY) + "\n");
    QXT_EXPECT_INFO(log, "[RT_Impl][DBG] [QX_REALTIME_Deinit] exit, OK.\n");
    EXPECT_FALSE(qxt::file_exists(central_path()));
    EXPECT_EQ(nullptr, pstTop);
    EXPECT_TRUE(qxt::process_mutex_is_free());
}

TEST_F(Deinit, OtherProcessKeepsOldMappingWhileFreshAttachGetsNull) {
    qxt::write_file("/vendor/etc/realtime/rt-0.json", system_config(1, 1024, 2));
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_Init(0));
    QX_REALTIME_TOP_t *own_top = pstTop;
    pstTop = nullptr;  // the child must attach on its own, as an unrelated process would

    Signal attached, deinit_done;
    fflush(nullptr);
    pid_t worker = fork();
    if (worker == 0) {
        int32_t fd = -1;
        if (_QX_REALTIME_GetCentralAndTop(&fd) != RT_SUCCESS) qxt::exit_child(1);
        close(fd);
        attached.post();
        if (!deinit_done.wait()) qxt::exit_child(2);
        // Still working: its own mapping of the removed segment is intact, and operations that
        // need only its top object go on.
        if (pstTop == nullptr || pstTop->pstCentral == nullptr) qxt::exit_child(3);
        if (pstTop->pstCentral->s32CapPerCore != 1024) qxt::exit_child(4);
        pstTop->pstCentral->s32UtilTotal = 42;  // writable
        if (QX_REALTIME_SetDebugLevel(64) != RT_SUCCESS) qxt::exit_child(5);
        if (pstTop->pstCentral->s32DbgLevel != 64) qxt::exit_child(6);
        qxt::exit_child(0);
    }
    ASSERT_GT(worker, 0);
    ASSERT_TRUE(attached.wait());
    pstTop = own_top;
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_Deinit());
    deinit_done.post();
    EXPECT_EQ(0, exit_code_of(worker));

    // A process that attaches afresh finds nothing.
    int fresh = qxt::run_in_child([] {
        LogCapture log;
        int32_t fd = -1;
        if (_QX_REALTIME_GetCentralAndTop(&fd) != RT_ERR_NULL) return 1;
        if (!log.has_error(kForgot)) return 2;
        return pstTop == nullptr ? 0 : 3;
    });
    EXPECT_EQ(0, fresh);
    LogCapture log;
    EXPECT_EQ(RT_ERR_NULL, QX_REALTIME_SetDebugLevel(32));
    QXT_EXPECT_ERROR(log, kForgot);
}

using SetDebugLevel = qxt::SandboxTest;

TEST_F(SetDebugLevel, WithoutCentralSegmentReturnsNullButLevelIsSet) {
    LogCapture log;
    EXPECT_EQ(RT_ERR_NULL, QX_REALTIME_SetDebugLevel(64));
    EXPECT_EQ(64u, _u32DbgLevel);
    QXT_EXPECT_ERROR(log, kForgot);
    EXPECT_TRUE(qxt::process_mutex_is_free());
}

TEST_F(SetDebugLevel, TakesLevelAsItIsWithoutEntryMessage) {
    qxt::write_file("/vendor/etc/realtime/rt-0.json", system_config(1, 1024, 2));
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_Init(0));
    LogCapture log;
    EXPECT_EQ(RT_SUCCESS, QX_REALTIME_SetDebugLevel(240));
    EXPECT_EQ(240u, _u32DbgLevel);
    EXPECT_EQ(0, log.count_containing("enter:")) << log.dump();
    EXPECT_EQ(0, log.count_containing(">>>")) << log.dump();
    EXPECT_EQ(0, log.count_containing("exit")) << log.dump();
    EXPECT_EQ(RT_SUCCESS, QX_REALTIME_SetDebugLevel(7));  // not mapped: 7 means 7
    EXPECT_EQ(7u, _u32DbgLevel);
    EXPECT_TRUE(qxt::central_lock_is_free());
}

TEST_F(SetDebugLevel, WhenEnabledStoresLevelInCentralRecordThatAttachersMapAgain) {
    QX_REALTIME_CENTRAL_t *central = nullptr;
    ASSERT_NO_FATAL_FAILURE(qxt::init_and_map(1, 1024, 2, &central));

    LogCapture log;
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_SetDebugLevel(64));
    EXPECT_EQ(64u, _u32DbgLevel);
    EXPECT_EQ(64, central->s32DbgLevel);
    QXT_EXPECT_INFO(
        log, "[RT_Impl][Info] [QX_REALTIME_SetDebugLevel] set DbgLvl = 64 in central data\n");
    // 64 is outside 0..7 for an attaching process: it means 32 there.
    EXPECT_EQ(32u, level_of_fresh_attacher());

    // And the other way round: 4 silences this process, yet gives attachers 64.
    log.clear();
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_SetDebugLevel(4));
    EXPECT_EQ(4u, _u32DbgLevel);
    EXPECT_EQ(4, central->s32DbgLevel);
    QXT_EXPECT_SILENT(log);
    EXPECT_EQ(64u, level_of_fresh_attacher());
}

TEST_F(SetDebugLevel, WithoutEnabledChangesOnlyTheCallingProcess) {
    qxt::write_file(
        "/vendor/etc/realtime/rt-0.json",
        "{\n  \"System_Config\": {\n    \"Util\": 1024,\n    \"DbgLevel\": 3\n  }\n}\n");
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_Init(0));
    EXPECT_EQ(0u, pstTop->Enabled);
    QX_REALTIME_CENTRAL_t *central = qxt::map_central_file();
    ASSERT_NE(nullptr, central);
    EXPECT_EQ(0, central->u8Enabled);

    LogCapture log;
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_SetDebugLevel(64));
    EXPECT_EQ(64u, _u32DbgLevel);
    EXPECT_EQ(3, central->s32DbgLevel);
    EXPECT_EQ(0, log.count_containing("set DbgLvl")) << log.dump();
    EXPECT_EQ(48u, level_of_fresh_attacher());
}

using Init = qxt::SandboxTest;

TEST_F(Init, TwoProcessesAtOnceExactlyOneCreatesCentralSegment) {
    qxt::write_file("/vendor/etc/realtime/rt-0.json", system_config(1, 1024, 2));
    Signal go;
    pid_t children[2];
    for (pid_t &child : children) {
        fflush(nullptr);
        child = fork();
        if (child == 0) {
            _u32DbgLevel = 64;
            LogCapture log;
            if (!go.wait()) qxt::exit_child(10);
            if (QX_REALTIME_Init(0) != RT_SUCCESS) qxt::exit_child(11);
            std::string head =
                qxt::format("[RT_Impl][Info] [_QX_REALTIME_SharedMemoryAlloc][PID=%d][TID=%s] ",
                            getpid(), tid_text().c_str());
            int fd = pstTop->s32ShmFd;
            bool created =
                log.has_info(
                    head +
                    qxt::format("path=/dev/shm/realtime/rt_Global create success, shmFd=%d\n",
                                fd)) &&
                log.has_info(head +
                             qxt::format("mmap=%p, new_create=1\n", (void *)pstTop->pstCentral));
            bool opened =
                log.has_info(
                    head +
                    qxt::format("open /dev/shm/realtime/rt_Global an existed shared memory=%d\n",
                                fd)) &&
                log.has_info(head +
                             qxt::format("mmap=%p, new_create=0\n", (void *)pstTop->pstCentral));
            if (created == opened) qxt::exit_child(12);
            // Each marks the shared record; both marks must meet in one segment.
            pstTop->pstCentral->s32DomainUtilList[created ? 0 : 1] = getpid();
            qxt::exit_child(created ? 1 : 2);
        }
        ASSERT_GT(child, 0);
    }
    go.post(2);
    int a = exit_code_of(children[0]);
    int b = exit_code_of(children[1]);
    EXPECT_EQ(3, a + b) << a << " " << b;
    EXPECT_NE(a, b);
    QX_REALTIME_CENTRAL_t *central = qxt::map_central_file();
    ASSERT_NE(nullptr, central);
    EXPECT_EQ(a == 1 ? children[0] : children[1], central->s32DomainUtilList[0]);
    EXPECT_EQ(a == 2 ? children[0] : children[1], central->s32DomainUtilList[1]);
    EXPECT_EQ(1024, central->s32CapPerCore);
    EXPECT_EQ(0, central->s32DomainNum);
}
