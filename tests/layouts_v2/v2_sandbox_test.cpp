// The test sandbox on the v2 layout (rt_sandbox --layout v2), as the kernel reports it: one
// cgroup2 hierarchy at /sys/fs/cgroup, rooted at the run's group, the processes in its leaf,
// cpuset available there, no v1 hierarchy and no /dev/cpuset or /dev/cpuacct; a nested run
// removes every group it made, threaded children included, and changes nothing else.
#include <sys/stat.h>
#include <sys/wait.h>

#include <sstream>
#include <string>

#include "test_support.h"

using namespace qxt;

namespace {

bool has_word(const std::string &text, const std::string &word) {
    std::istringstream in(text);
    std::string w;
    while (in >> w)
        if (w == word) return true;
    return false;
}

// The cgroup mounts of this mount namespace, one "DIR TYPE" a line.
std::string cgroup_mounts() {
    std::istringstream in(read_file("/proc/self/mounts"));
    std::string dev, dir, type, rest, out;
    while (in >> dev >> dir >> type && std::getline(in, rest))
        if (type == "cgroup" || type == "cgroup2" || type == "cpuset")
            out += dir + " " + type + "\n";
    return out;
}

class V2Sandbox : public SandboxTest {
protected:
    void SetUpInSandbox() override {
        const char *layout = getenv("QXRT_SANDBOX_LAYOUT");
        if (layout == nullptr || strcmp(layout, "v2") != 0)
            GTEST_SKIP() << "runs in a sandbox with --layout v2 only";
    }
};

TEST_F(V2Sandbox, ProcessesLiveInTheRunsLeafWithCpusetAndNoV1HierarchyIsInSight) {
    EXPECT_EQ("/sys/fs/cgroup cgroup2\n", cgroup_mounts());
    EXPECT_NE(std::string::npos, read_file("/proc/self/cgroup").find("0::/main\n"))
        << read_file("/proc/self/cgroup");
    EXPECT_TRUE(tasks_file_lists("/sys/fs/cgroup/main/cgroup.procs", getpid()));
    EXPECT_TRUE(has_word(read_file("/sys/fs/cgroup/main/cgroup.controllers"), "cpuset"));
    EXPECT_EQ("domain\n", read_file("/sys/fs/cgroup/main/cgroup.type"));
    // The run group itself holds no process: its leaf can become a thread root.
    EXPECT_EQ("", read_file("/sys/fs/cgroup/cgroup.procs"));
    EXPECT_FALSE(file_exists("/dev/cpuset"));
    EXPECT_FALSE(file_exists("/dev/cpuacct"));
}

TEST_F(V2Sandbox, NestedRunRemovesEveryGroupItMadeAndChangesNothingElse) {
    const std::string before = read_file("/sys/fs/cgroup/main/cgroup.subtree_control");
    std::string out_file = "/tmp/qxrt_nested_v2.out";
    std::string command = std::string(QXRT_SOURCE_DIR) +
                          "/tools/rt_sandbox --layout v2 sh -c '"
                          "cat /proc/self/cgroup; echo run=$QXRT_SANDBOX; "
                          "mkdir /sys/fs/cgroup/main/qxrt-Domain_Nested && "
                          "echo threaded > /sys/fs/cgroup/main/qxrt-Domain_Nested/cgroup.type && "
                          "echo $$ > /sys/fs/cgroup/main/qxrt-Domain_Nested/cgroup.threads && "
                          "exit 7' > " +
                          out_file + " 2>&1";
    int status = system(command.c_str());
    std::string out = read_file(out_file);
    unlink(out_file.c_str());
    ASSERT_TRUE(WIFEXITED(status)) << out;
    EXPECT_EQ(7, WEXITSTATUS(status)) << out;  // the command's own exit status
    EXPECT_NE(std::string::npos, out.find("0::/main\n")) << out;
    ASSERT_NE(std::string::npos, out.find("run=qxrt_sbx_")) << out;

    // Its groups went beside this run's leaf, in this run's group, and none is left; this run's
    // groups are as they were.
    EXPECT_FALSE(file_exists("/sys/fs/cgroup/qxrt_sandbox"));
    EXPECT_FALSE(file_exists("/sys/fs/cgroup/main/qxrt-Domain_Nested"));
    EXPECT_EQ(before, read_file("/sys/fs/cgroup/main/cgroup.subtree_control"));
    EXPECT_EQ("domain\n", read_file("/sys/fs/cgroup/main/cgroup.type"));
    EXPECT_TRUE(tasks_file_lists("/sys/fs/cgroup/main/cgroup.procs", getpid()));
}

}  // namespace
