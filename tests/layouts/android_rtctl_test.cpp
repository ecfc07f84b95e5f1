// rtctl on Android's cgroup layout (no cpuacct hierarchy), as an operator runs it: the layout it
// names, usage (text, JSON, SVG), top, the dump, and check with its repairs, on the shipped
// configuration.
#include <sys/stat.h>

#include "cli_support.h"
#include "test_support.h"

using qxt::contains;
using qxt::Result;
using qxt::rtctl;

namespace {

class AndroidRtctl : public qxt::ShippedConfigTest {
protected:
    void SetUpInSandbox() override {
        const char *layout = getenv("QXRT_SANDBOX_LAYOUT");
        if (layout == nullptr || strcmp(layout, "android") != 0)
            GTEST_SKIP() << "runs in a sandbox with --layout android only";
        ASSERT_NO_FATAL_FAILURE(qxt::start_shipped_domains());
    }
};

}  // namespace

TEST_F(AndroidRtctl, LayoutNamesAndroidAndTheThreadsAsTheUsageSource) {
    Result text = rtctl({"layout"});
    EXPECT_EQ(text.status, 0) << text.err;
    EXPECT_EQ(text.out,
              "layout: android\ncpuset: /dev/cpuset/\ncpuacct: none (no cpuacct hierarchy is "
              "mounted)\nusage from: the CPU time of each domain's admitted threads\n");
    Result json = rtctl({"--json", "layout"});
    EXPECT_EQ(json.status, 0) << json.err;
    EXPECT_EQ(json.out,
              "{\"command\":\"layout\",\"result\":0,\"result_name\":\"RT_SUCCESS\",\"layout\":"
              "\"android\",\"cpuset\":\"/dev/cpuset/\",\"cpuacct\":null,\"usage_from\":"
              "\"threads\"}\n");
}

TEST_F(AndroidRtctl, UsageTopAndDumpWork) {
    qxt::TestThread t(5, 5);
    ASSERT_EQ(rtctl({"add", "Domain_Audio", "Class_Render", std::to_string(t.tid())}).status, 0);
    Result usage = rtctl({"usage", "Domain_Audio", "200", "2"});
    EXPECT_EQ(usage.status, 0) << usage.err;
    EXPECT_EQ(2, std::count(usage.out.begin(), usage.out.end(), '\n')) << usage.out;
    EXPECT_TRUE(contains(usage.out, "(budget 50.00%)")) << usage.out;

    Result svg = rtctl({"usage", "--svg", "/dev/shm/usage.svg", "All", "100", "2"});
    EXPECT_EQ(svg.status, 0) << svg.err;
    EXPECT_TRUE(contains(qxt::read_file("/dev/shm/usage.svg"), "Domain_Audio"));

    Result top = rtctl({"top", "--count", "1", "--interval", "100"});
    EXPECT_EQ(top.status, 0) << top.err;
    EXPECT_TRUE(contains(top.out, "Domain_Audio")) << top.out;
    EXPECT_TRUE(contains(top.out, std::to_string(t.tid()))) << top.out;

    Result dump = rtctl({"-v", "dump", "Domain_Audio"});  // the tasks files are info lines
    EXPECT_EQ(dump.status, 0) << dump.err;
    EXPECT_TRUE(contains(dump.out, "Info from [/dev/cpuset/Domain_Audio/tasks]")) << dump.out;
    EXPECT_FALSE(contains(dump.out + dump.err, "cpuacct")) << dump.out << dump.err;
    EXPECT_FALSE(contains(dump.out + dump.err, "failed")) << dump.out << dump.err;

    qxt::expect_check_consistent();
    EXPECT_EQ(rtctl({"remove", "Domain_Audio", std::to_string(t.tid())}).status, 0);
    qxt::expect_check_consistent();
}

// A thread in the domain's cpuset with no record: found and moved back to the root cpuset.
TEST_F(AndroidRtctl, CheckFindsAndRepairsAStrayInTheDomainsCpuset) {
    qxt::TestThread stray;
    qxt::write_file("/dev/cpuset/Domain_Audio/tasks", std::to_string(stray.tid()));
    ASSERT_EQ("/Domain_Audio", qxt::cgroup_of(stray.tid(), "cpuset"));
    Result found = rtctl({"check"});
    EXPECT_EQ(found.status, 1) << found.out << found.err;
    EXPECT_TRUE(contains(found.out, qxt::format("thread %d is in the domain's groups without a "
                                                "record",
                                                (int)stray.tid())))
        << found.out;
    Result fixed = rtctl({"check", "--repair"});
    EXPECT_EQ(fixed.status, 0) << fixed.out << fixed.err;
    EXPECT_TRUE(contains(fixed.out, "repaired: moved to the root groups")) << fixed.out;
    EXPECT_EQ("/", qxt::cgroup_of(stray.tid(), "cpuset"));
    qxt::expect_check_consistent();
}

// A thread moved out of its domain's cpuset behind the library's back: found, and put back.
TEST_F(AndroidRtctl, CheckFindsAndRepairsAThreadOutsideItsCpuset) {
    qxt::TestThread t;
    ASSERT_EQ(rtctl({"add", "Domain_Audio", "Class_Render", std::to_string(t.tid())}).status, 0);
    qxt::write_file("/dev/cpuset/tasks", std::to_string(t.tid()));
    Result found = rtctl({"check"});
    EXPECT_EQ(found.status, 1) << found.out << found.err;
    EXPECT_TRUE(contains(found.out, "outside the domain's groups")) << found.out;
    Result fixed = rtctl({"check", "--repair"});
    EXPECT_EQ(fixed.status, 0) << fixed.out << fixed.err;
    EXPECT_EQ("/Domain_Audio", qxt::cgroup_of(t.tid(), "cpuset"));
    qxt::expect_check_consistent();
    EXPECT_EQ(rtctl({"remove", "Domain_Audio", std::to_string(t.tid())}).status, 0);
}
