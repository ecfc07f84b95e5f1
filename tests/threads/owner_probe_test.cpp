// The thread's process is read from the first 79 bytes of /proc/<tid>/status. When that file
// can't be opened, read or understood (another file bound over it in the sandbox's private mount
// namespace, as a thread that ends between the calls would leave it), admission still places the
// thread and stores its record, says why the process could not be told, and returns
// RT_ERR_NOT_EXIST; the process is not entered in the process-ID list.
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "threads_support.h"

using namespace qxt;

namespace {

const char kProbe[] = "_QX_REALTIME_getProcessID";

std::string status_path(pid_t tid) {
    return format("/proc/%d/status", (int)tid);
}

// A UNIX socket's inode: open() of it fails with ENXIO.
std::string make_socket(const std::string &path) {
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return "";
    struct sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    snprintf(addr.sun_path, sizeof(addr.sun_path), "%s", path.c_str());
    unlink(path.c_str());
    int rc = bind(fd, (struct sockaddr *)&addr, sizeof(addr));
    close(fd);  // the inode stays
    return rc == 0 ? path : "";
}

}  // namespace

class OwnerProbe : public qxt::SandboxTest {
protected:
    void SetUpInSandbox() override {
        start({rr_domain(kRr, 1000, "1", {{"Class_A", 10, 10}})}, {kRr});
    }
    void TearDown() override { umount2(status_path(t.tid()).c_str(), MNT_DETACH); }

    // Binds source over the thread's status file, admits the thread, and checks what every
    // failed probe has in common: RT_ERR_NOT_EXIST, the thread placed and recorded under the
    // caller's process, which is not listed.
    void admit_with_status_from(const std::string &source) {
        std::string why;
        ASSERT_TRUE(bind_over(source, status_path(t.tid()), &why)) << why;
        EXPECT_EQ(RT_ERR_NOT_EXIST, QX_REALTIME_AddThread(kRr, "Class_A", t.tid(), 0))
            << log.dump();
        QXT_EXPECT_ERROR(log, format("[RT_Impl][Err] [%s] getProcessID for tid [%d] failed.\n",
                                     kAdd, (int)t.tid()));
        expect_placed(t.tid(), SCHED_RR, "/" + std::string(kRr));
        QX_REALTIME_DOMAIN_t *d = map_domain_file(kRr);
        ASSERT_NE(nullptr, d);
        QX_REALTIME_THREAD_t *rec = live_slot(d, t.tid());
        ASSERT_NE(nullptr, rec);
        EXPECT_EQ(getpid(), rec->ProcessID);
        EXPECT_EQ(10, d->s32UtilCurrent);
        for (int i = 0; i < d->processIDListNum; i++) EXPECT_EQ(0, d->s32ProcessIDList[i]) << i;
    }

    TestThread t;
    LogCapture log;
};

TEST_F(OwnerProbe, StatusThatCannotBeOpenedIsReportedWithItsErrno) {
    std::string sock = make_socket("/dev/shm/qxt_status_socket");
    ASSERT_FALSE(sock.empty()) << strerror(errno);
    admit_with_status_from(sock);
    QXT_EXPECT_ERROR(log, format("[RT_Impl][Err] [%s] Can't open %s, errno=%s\n", kProbe,
                                 status_path(t.tid()).c_str(), errno_text(ENXIO).c_str()));
}

TEST_F(OwnerProbe, StatusThatCannotBeReadIsReportedWithItsErrno) {
    // This process's memory file: it opens, and a read at offset 0 (never mapped) fails.
    admit_with_status_from(format("/proc/%d/mem", (int)getpid()));
    QXT_EXPECT_ERROR(log, format("[RT_Impl][Err] [%s] Can't read from %s, errno=%s.\n", kProbe,
                                 status_path(t.tid()).c_str(), errno_text(EIO).c_str()));
}

TEST_F(OwnerProbe, TgidAfterTheFirst79BytesIsNotFound) {
    write_file("/dev/shm/qxt_status_late", "Name:\tqxt\n" + std::string(80, 'x') + "\nTgid:\t1\n");
    admit_with_status_from("/dev/shm/qxt_status_late");
    QXT_EXPECT_ERROR(log, format("[RT_Impl][Err] [%s] Can't get Tgid from %s\n", kProbe,
                                 status_path(t.tid()).c_str()));
}

TEST_F(OwnerProbe, TgidWithoutANumberFailsWithoutAMessageOfItsOwn) {
    write_file("/dev/shm/qxt_status_word", "Name:\tqxt\nTgid:\tnone\n");
    admit_with_status_from("/dev/shm/qxt_status_word");
    EXPECT_EQ(0, log.count_containing(kProbe)) << log.dump();
}

// The probe on its own: a NULL argument, and a thread that no longer exists (its process is then
// the one the caller gave, and it is listed).
TEST_F(OwnerProbe, ProbeRefusesNullAndListsTheCallersProcessForAGoneThread) {
    QX_REALTIME_DOMAIN_t *d = map_domain_file(kRr);
    ASSERT_NE(nullptr, d);
    int32_t pid = 4242;
    EXPECT_EQ(RT_ERR_SYSTEM, _QX_REALTIME_getProcessID(nullptr, t.tid(), &pid));
    EXPECT_EQ(RT_ERR_SYSTEM, _QX_REALTIME_getProcessID(d, t.tid(), nullptr));
    EXPECT_EQ(2, log.count(QX_LOG_PRIO_ERROR, format("[RT_Impl][Err] [%s] Arg is NULL.\n", kProbe)))
        << log.dump();
    pid_t gone = dead_pid();
    EXPECT_EQ(RT_SUCCESS, _QX_REALTIME_getProcessID(d, gone, &pid));
    QXT_EXPECT_ERROR(
        log, format("[RT_Impl][Err] [%s] Thread %d can't get its process ID. errnor=%s\n", kProbe,
                    (int)gone, errno_text(ESRCH).c_str()));
    EXPECT_EQ(4242, pid);
    EXPECT_EQ(4242, d->s32ProcessIDList[0]);
    // Its own thread: the process is found and listed once.
    pid = 0;
    EXPECT_EQ(RT_SUCCESS, _QX_REALTIME_getProcessID(d, t.tid(), &pid));
    EXPECT_EQ(getpid(), pid);
    EXPECT_EQ(getpid(), d->s32ProcessIDList[1]);
}

// A thread whose process group reads as 0 has process 0, which the walk stores in the first free
// slot, where it reads as free again. The sandbox's process 1 is such a thread (its group was
// made outside the sandbox's PID namespace, and a group from outside reads as 0 inside); where
// the tests run without a PID namespace of their own (a VM guest), the kernel thread kthreadd,
// process 2, is. Only the probe runs here: nothing is asked of the thread itself.
TEST_F(OwnerProbe, ProbeGivesProcessZeroForAThreadInProcessGroupZero) {
    pid_t zero = getpgid(1) == 0 ? 1 : (getpgid(2) == 0 ? 2 : 0);
    ASSERT_NE(0, zero) << "neither process 1 nor process 2 is in process group 0 here";
    QX_REALTIME_DOMAIN_t *d = map_domain_file(kRr);
    ASSERT_NE(nullptr, d);
    int32_t pid = 4242;
    EXPECT_EQ(RT_SUCCESS, _QX_REALTIME_getProcessID(d, zero, &pid));
    EXPECT_EQ(0, pid);
    EXPECT_EQ(0, d->s32ProcessIDList[0]);
    EXPECT_EQ(0, log.count_containing(kProbe)) << log.dump();
}

// A list with every slot taken by another process: the probe finds the process but cannot list
// it.
TEST_F(OwnerProbe, ProbeWithAFullProcessListFailsAndSaysSo) {
    QX_REALTIME_DOMAIN_t *d = map_domain_file(kRr);
    ASSERT_NE(nullptr, d);
    ASSERT_LE(d->processIDListNum, RT_PROCESS_ID_LIST_NUM);
    for (int i = 0; i < d->processIDListNum; i++) d->s32ProcessIDList[i] = 1;  // init, alive
    int32_t pid = 0;
    EXPECT_EQ(RT_ERR_SYSTEM, _QX_REALTIME_getProcessID(d, t.tid(), &pid));
    EXPECT_EQ(getpid(), pid);
    QXT_EXPECT_ERROR(log, format("[RT_Impl][Err] [%s] processIDListNum=%d. it is full !!!\n",
                                 kProbe, d->processIDListNum));
}

// The liveness walk reaps a listed process whose /proc directory can't be opened although the
// process answers getpgid (here /proc itself is hidden behind an empty file system for the
// walk): its threads' charge goes back, its records and its list entry are freed.
TEST_F(OwnerProbe, LivenessReapsAProcessWhoseProcDirectoryIsGone) {
    pid_t other = spawn_child([] {});
    QX_REALTIME_DOMAIN_t *d = map_domain_file(kRr);
    ASSERT_NE(nullptr, d);
    int32_t pid = other;
    ASSERT_EQ(RT_SUCCESS, _QX_REALTIME_getProcessID(d, other, &pid));
    ASSERT_EQ(other, d->s32ProcessIDList[0]);
    QX_REALTIME_CLASS_t *cls = class_record(d, "Class_A");
    ASSERT_NE(nullptr, cls);
    QX_REALTIME_UTIL_t util = {25, 0, 0, 0};
    ASSERT_EQ(RT_SUCCESS, _QX_AddThreadDataAtHead(d, cls, &util, other, other, nullptr));
    d->s32UtilCurrent += 25;
    log.clear();

    ASSERT_EQ(0, mount("qxt_noproc", "/proc", "tmpfs", 0, nullptr)) << strerror(errno);
    _QX_REALTIME_CheckProcessAlive(d);
    ASSERT_EQ(0, umount("/proc")) << strerror(errno);
    kill_and_reap(other);

    QXT_EXPECT_ERROR(log, format("[RT_Impl][Err] [_QX_REALTIME_CheckProcessAlive] /proc/%d "
                                 "doesn't exist. It has been killed, errnor=%s\n",
                                 (int)other, errno_text(ENOENT).c_str()));
    EXPECT_EQ(0, d->s32ProcessIDList[0]);
    EXPECT_EQ(0, d->s32UtilCurrent);
    EXPECT_EQ(0, live_slot_count(d));
}

// At debug level 0 every one of those probes ends the same way and nothing reaches the log.
TEST_F(OwnerProbe, AtLevel0TheSameResultsAndNothingLogged) {
    std::string sock = make_socket("/dev/shm/qxt_status_socket");
    ASSERT_FALSE(sock.empty()) << strerror(errno);
    write_file("/dev/shm/qxt_status_late", "Name:\tqxt\n" + std::string(80, 'x') + "\nTgid:\t1\n");
    write_file("/dev/shm/qxt_status_word", "Name:\tqxt\nTgid:\tnone\n");
    const std::vector<std::string> sources = {sock, format("/proc/%d/mem", (int)getpid()),
                                              "/dev/shm/qxt_status_late",
                                              "/dev/shm/qxt_status_word"};
    log.clear();
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_SetDebugLevel(0));
    for (const std::string &source : sources) {
        std::string why;
        ASSERT_TRUE(bind_over(source, status_path(t.tid()), &why)) << why;
        EXPECT_EQ(RT_ERR_NOT_EXIST, QX_REALTIME_AddThread(kRr, "Class_A", t.tid(), 0)) << source;
        EXPECT_EQ(RT_SUCCESS, QX_REALTIME_RemoveThread(kRr, t.tid())) << source;
        ASSERT_EQ(0, umount2(status_path(t.tid()).c_str(), MNT_DETACH)) << strerror(errno);
    }
    QXT_EXPECT_SILENT(log);
    QX_REALTIME_SetDebugLevel(64);
}
