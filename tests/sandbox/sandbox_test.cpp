// The test sandbox itself: private mounts for the library's fixed paths, cgroup hierarchies
// rooted at a per-run child group, a clean host after the run, and a clear skip outside it.
#include <dirent.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/wait.h>
#include <linux/magic.h>

#include <algorithm>
#include <cctype>
#include <fstream>
#include <sstream>

#include "test_support.h"

namespace {

struct Outcome {
    int status;
    std::string output;
};

// Runs a shell command and collects its standard output and error.
Outcome run_shell(const std::string &command) {
    Outcome r{-1, ""};
    FILE *pipe = popen((command + " 2>&1").c_str(), "r");
    if (pipe == nullptr) return r;
    char buf[512];
    size_t n;
    while ((n = fread(buf, 1, sizeof(buf), pipe)) > 0) r.output.append(buf, n);
    int status = pclose(pipe);
    r.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return r;
}

// This test binary, as a path another process can execute.
std::string self_exe() {
    char path[4096];
    ssize_t n = readlink("/proc/self/exe", path, sizeof(path) - 1);
    if (n < 0) return "";
    path[n] = '\0';
    return path;
}

std::string sandbox_tool() {
    return std::string(QXRT_SOURCE_DIR) + "/tools/rt_sandbox";
}

bool is_directory(const std::string &path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

long fs_type(const std::string &path) {
    struct statfs st;
    return statfs(path.c_str(), &st) == 0 ? (long)st.f_type : -1;
}

// The file system type of the mount point exactly at path, from this process's mount table.
std::string mount_type_at(const std::string &path) {
    std::istringstream in(qxt::read_file("/proc/self/mounts"));
    std::string line, type;
    while (std::getline(in, line)) {
        std::istringstream fields(line);
        std::string source, target, fstype;
        fields >> source >> target >> fstype;
        if (target == path) type = fstype;  // the last mount there is the visible one
    }
    return type;
}

const char *const kPrivateDirs[] = {"/dev/shm/realtime", "/data/vendor/realtime",
                                    "/vendor/etc/realtime"};

}  // namespace

TEST(Sandbox, LibraryDirectoriesExistOnPrivateTmpfs) {
    QXT_REQUIRE_SANDBOX();
    for (const char *dir : kPrivateDirs) {
        EXPECT_TRUE(is_directory(dir)) << dir;
        EXPECT_EQ((long)TMPFS_MAGIC, fs_type(dir)) << dir;
    }
    EXPECT_EQ("tmpfs", mount_type_at("/dev/shm"));
    EXPECT_EQ("tmpfs", mount_type_at("/data"));
    EXPECT_EQ("tmpfs", mount_type_at("/vendor"));
    EXPECT_TRUE(is_directory(QX_HOST_PROPERTY_DIR));
}

TEST(Sandbox, FilesCreatedHereAreSeenNeitherByAnotherSandboxNorByTheHost) {
    QXT_REQUIRE_SANDBOX();
    std::string marker = qxt::format("qxrt_marker_%d", getpid());
    for (const char *dir : kPrivateDirs) {
        qxt::write_file(std::string(dir) + "/" + marker, "x");
        ASSERT_TRUE(qxt::file_exists(std::string(dir) + "/" + marker)) << dir;
    }
    qxt::set_property(marker, "x");

    std::string list = "ls -A";
    for (const char *dir : kPrivateDirs) list += std::string(" ") + dir;
    Outcome other =
        run_shell(sandbox_tool() + " sh -c 'echo run=$QXRT_SANDBOX; " + list + "; for d in " +
                  list.substr(6) + " " QX_HOST_PROPERTY_DIR "; do echo y > $d/from_other; done'");
    ASSERT_EQ(0, other.status) << other.output;
    EXPECT_NE(std::string::npos, other.output.find("run=qxrt_sbx_")) << other.output;
    EXPECT_EQ(std::string::npos, other.output.find(marker)) << other.output;

    // Nothing the other run wrote comes back here. (A run started from inside this one begins
    // with a copy of this run's property store; its changes stay its own.)
    for (const char *dir : kPrivateDirs)
        EXPECT_FALSE(qxt::file_exists(std::string(dir) + "/from_other")) << dir;
    EXPECT_FALSE(qxt::file_exists(QX_HOST_PROPERTY_DIR "/from_other"));
    // The host's side (no marker there, nothing of the run left) is checked from the host by
    // host_isolation_test.sh: nothing in here can see it.
}

// Process 1 here is the sandbox's own launcher, /proc shows the sandbox's processes only (no
// kernel thread, which lives in the host's PID namespace alone), and this process's group lies
// inside the namespace: the library takes a thread whose group reads as 0 for process 0.
TEST(Sandbox, OwnPidNamespaceShowsOnlyTheSandboxsProcesses) {
    QXT_REQUIRE_SANDBOX();
    std::string init = qxt::read_file("/proc/1/cmdline");
    std::replace(init.begin(), init.end(), '\0', ' ');
    EXPECT_NE(std::string::npos, init.find("rt_sandbox --inner")) << init;
    EXPECT_EQ("proc", mount_type_at("/proc"));

    int processes = 0;
    DIR *dir = opendir("/proc");
    ASSERT_NE(nullptr, dir);
    while (struct dirent *entry = readdir(dir)) {
        if (!isdigit((unsigned char)entry->d_name[0])) continue;
        processes++;
        std::string comm = qxt::read_file(std::string("/proc/") + entry->d_name + "/comm");
        EXPECT_NE("kthreadd\n", comm) << entry->d_name;
    }
    closedir(dir);
    EXPECT_GT(processes, 0);
    EXPECT_LT(processes, 20);

    EXPECT_EQ(0, getpgid(1));  // made on the host
    EXPECT_GT(getpgid(0), 1);  // made here
}

TEST(Sandbox, CpusetAndCpuacctAreRootedAtThisRunsChildGroup) {
    QXT_REQUIRE_SANDBOX();
    EXPECT_EQ("/", qxt::cgroup_of(getpid(), "cpuset"));
    EXPECT_EQ("/", qxt::cgroup_of(getpid(), "cpuacct"));
    EXPECT_EQ((long)CGROUP_SUPER_MAGIC, fs_type("/dev/cpuset"));
    EXPECT_EQ((long)CGROUP_SUPER_MAGIC, fs_type("/dev/cpuacct"));
    EXPECT_TRUE(qxt::tasks_file_lists("/dev/cpuset/tasks", getpid()));
    EXPECT_TRUE(qxt::tasks_file_lists("/dev/cpuacct/tasks", getpid()));

    // On the host's view of the hierarchy this is a child group named after the run.
    const char *name = getenv("QXRT_SANDBOX");
    ASSERT_NE(nullptr, name);
    ASSERT_EQ(0, strncmp(name, "qxrt_sbx_", 9)) << name;
    std::string host_group = std::string("/sys/fs/cgroup/cpuset/") + name;
    ASSERT_TRUE(is_directory(host_group)) << host_group;
    EXPECT_TRUE(qxt::tasks_file_lists(host_group + "/tasks", getpid()));
    EXPECT_TRUE(is_directory(std::string("/sys/fs/cgroup/cpuacct/") + name));
    // Usable for tasks: its CPUs and memory nodes are copied from the parent.
    std::string cpus = qxt::read_file("/dev/cpuset/cpuset.cpus");
    EXPECT_FALSE(cpus.empty() || cpus == "\n");
    EXPECT_EQ(qxt::read_file("/sys/fs/cgroup/cpuset/cpuset.cpus"), cpus);
}

TEST(Sandbox, NestedRunRemovesItsCgroups) {
    QXT_REQUIRE_SANDBOX();
    Outcome nested =
        run_shell(sandbox_tool() +
                  " sh -c 'echo run=$QXRT_SANDBOX; mkdir /dev/cpuset/Domain_Nested && exit 7'");
    EXPECT_EQ(7, nested.status) << nested.output;  // the command's own exit status
    size_t at = nested.output.find("run=");
    ASSERT_NE(std::string::npos, at) << nested.output;
    std::string name = nested.output.substr(at + 4);
    name = name.substr(0, name.find('\n'));
    ASSERT_EQ(0u, name.rfind("qxrt_sbx_", 0)) << nested.output;
    EXPECT_STRNE(getenv("QXRT_SANDBOX"), name.c_str());

    EXPECT_FALSE(qxt::file_exists("/sys/fs/cgroup/cpuset/" + name));
    EXPECT_FALSE(qxt::file_exists("/sys/fs/cgroup/cpuacct/" + name));
    // This run's own group and view are untouched.
    EXPECT_TRUE(is_directory(std::string("/sys/fs/cgroup/cpuset/") + getenv("QXRT_SANDBOX")));
    EXPECT_FALSE(qxt::file_exists("/dev/cpuset/Domain_Nested"));
    // The nested run took this run's groups for neither stale nor its own: this process is still
    // in them (a run inside another sees no other run's launcher, so it must not judge by pids).
    std::string host_group = std::string("/sys/fs/cgroup/cpuset/") + getenv("QXRT_SANDBOX");
    EXPECT_TRUE(qxt::tasks_file_lists(host_group + "/tasks", getpid()));
    EXPECT_TRUE(qxt::tasks_file_lists(
        std::string("/sys/fs/cgroup/cpuacct/") + getenv("QXRT_SANDBOX") + "/tasks", getpid()));
    EXPECT_EQ("/", qxt::cgroup_of(getpid(), "cpuset"));
}

TEST(Sandbox, TestsNeedingItSkipWithOneClearReasonOutsideIt) {
    // This test binary run again with the sandbox's variables removed.
    // Its output holds gtest's skip marker, so failure messages print it through quoted_output:
    // ctest would count this test as skipped, not failed, if the marker showed.
    std::string filter = " --gtest_filter=Sandbox.LibraryDirectoriesExistOnPrivateTmpfs";
    std::string self = qxt::target_shell_command(self_exe());
    Outcome plain = run_shell("env -u QXRT_SANDBOX -u QXRT_SANDBOX_UNAVAILABLE " + self + filter);
    EXPECT_EQ(0, plain.status) << qxt::quoted_output(plain.output);
    EXPECT_NE(std::string::npos,
              plain.output.find("[  SKIPPED ] Sandbox.LibraryDirectoriesExistOnPrivateTmpfs"))
        << qxt::quoted_output(plain.output);
    EXPECT_NE(std::string::npos,
              plain.output.find("needs the test sandbox (tools/rt_sandbox): not started inside it"))
        << qxt::quoted_output(plain.output);

    Outcome why = run_shell(
        "env -u QXRT_SANDBOX QXRT_SANDBOX_UNAVAILABLE='the sandbox needs root' " + self + filter);
    EXPECT_EQ(0, why.status) << qxt::quoted_output(why.output);
    EXPECT_NE(std::string::npos,
              why.output.find("needs the test sandbox (tools/rt_sandbox): the sandbox needs root"))
        << qxt::quoted_output(why.output);
}

TEST(Sandbox, FailureMessagesNeverShowTheSkipMarker) {
    // ctest reads a failing test that prints "[  SKIPPED ]" as skipped: the quoting of another
    // run's output must leave no such marker, and keep the rest of the text.
    std::string output = "[ RUN      ] A.B\n[  SKIPPED ] A.B (0 ms)\n[  SKIPPED ] 1 test\n";
    std::string quoted = qxt::quoted_output(output);
    EXPECT_EQ(std::string::npos, quoted.find("[  SKIPPED ]"));
    EXPECT_NE(std::string::npos, quoted.find("A.B (0 ms)"));
    EXPECT_NE(std::string::npos, quoted.find("[ RUN      ] A.B"));
}

TEST(Sandbox, InSandboxReportsWhyNot) {
    std::string why;
    unsetenv("QXRT_SANDBOX");
    unsetenv("QXRT_SANDBOX_UNAVAILABLE");
    EXPECT_FALSE(qxt::in_sandbox(&why));
    EXPECT_EQ("needs the test sandbox (tools/rt_sandbox): not started inside it", why);
    setenv("QXRT_SANDBOX_UNAVAILABLE", "mount or cgroup namespaces are not available", 1);
    EXPECT_FALSE(qxt::in_sandbox(&why));
    EXPECT_EQ(
        "needs the test sandbox (tools/rt_sandbox): mount or cgroup namespaces are not available",
        why);
    setenv("QXRT_SANDBOX", "qxrt_sbx_1_2", 1);
    EXPECT_TRUE(qxt::in_sandbox(&why));
}

TEST(Sandbox, EmulatorOptionStartsTheCommandThroughItAndHandsItOn) {
    QXT_REQUIRE_SANDBOX();
    // Any command line serves as an "emulator" here: env with an extra variable shows that the
    // command was started through it.
    Outcome through = run_shell(
        sandbox_tool() +
        " --emulator 'env QXRT_THROUGH=yes' sh -c 'echo \"$QXRT_EMULATOR|$QXRT_THROUGH\"'");
    EXPECT_EQ(0, through.status) << through.output;
    EXPECT_NE(std::string::npos, through.output.find("env QXRT_THROUGH=yes|yes")) << through.output;

    // A nested run without the option runs its command directly, whatever this run was given.
    Outcome plain = run_shell("QXRT_EMULATOR=false " + sandbox_tool() +
                              " sh -c 'echo \"[${QXRT_EMULATOR-unset}]\"'");
    EXPECT_EQ(0, plain.status) << plain.output;
    EXPECT_NE(std::string::npos, plain.output.find("[unset]")) << plain.output;
}

// --layout android: cpuset as always, and no cpuacct hierarchy anywhere in the sandbox, as on
// Android 12 and later; the run makes no cpuacct group. An unknown layout is a usage error.
TEST(Sandbox, AndroidLayoutHasCpusetAndNoCpuacctHierarchy) {
    QXT_REQUIRE_SANDBOX();
    Outcome android = run_shell(
        sandbox_tool() +
        " --layout android sh -c 'echo \"run=$QXRT_SANDBOX layout=$QXRT_SANDBOX_LAYOUT\"; "
        "awk \"\\$3 == \\\"cgroup\\\" { print \\\"mount \\\" \\$4 }\" /proc/self/mounts; "
        "test -e /dev/cpuset/tasks && echo cpuset=yes; test -e /dev/cpuacct || echo cpuacct=no; "
        "test -d /sys/fs/cgroup/cpuacct/$QXRT_SANDBOX || echo group=no'");
    ASSERT_EQ(0, android.status) << android.output;
    EXPECT_NE(std::string::npos, android.output.find(" layout=android\n")) << android.output;
    EXPECT_NE(std::string::npos, android.output.find("cpuset=yes")) << android.output;
    EXPECT_NE(std::string::npos, android.output.find("cpuacct=no")) << android.output;
    EXPECT_EQ(std::string::npos, android.output.find("cpuacct,")) << android.output;
    EXPECT_EQ(std::string::npos, android.output.find(",cpuacct")) << android.output;
    EXPECT_NE(std::string::npos, android.output.find("mount rw")) << android.output;  // cpuset's

    Outcome bad = run_shell(sandbox_tool() + " --layout v7 true");
    EXPECT_EQ(2, bad.status) << bad.output;
    EXPECT_NE(std::string::npos, bad.output.find("rt_sandbox: unknown layout 'v7'")) << bad.output;
    // This run is the default layout.
    EXPECT_STREQ("linux-v1", getenv("QXRT_SANDBOX_LAYOUT"));
}
