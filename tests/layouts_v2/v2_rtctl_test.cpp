// rtctl on a cgroup v2 hierarchy, as an operator runs it: the layout it names, usage, top, the
// dump, check with its repairs, and lint's layout rules, on the shipped configuration
// (Domain_Audio: round-robin on CPU 1; Domain_Camera: deadline on CPUs 0-1).
#include "cli_support.h"
#include "test_support.h"

using qxt::contains;
using qxt::Result;
using qxt::rtctl;

namespace {

// The thread's group in the v2 hierarchy, relative to the mount.
std::string group_of(pid_t tid) {
    return qxt::cgroup_of(tid, "");
}

class V2Rtctl : public qxt::ShippedConfigTest {
protected:
    void SetUpInSandbox() override {
        const char *layout = getenv("QXRT_SANDBOX_LAYOUT");
        if (layout == nullptr || strcmp(layout, "v2") != 0)
            GTEST_SKIP() << "runs in a sandbox with --layout v2 only";
        ASSERT_NO_FATAL_FAILURE(qxt::start_shipped_domains());
        home_ = group_of(getpid());
        audio_group_ = (home_ == "/" ? "" : home_) + "/qxrt-Domain_Audio";
    }
    std::string home_, audio_group_;
};

}  // namespace

TEST_F(V2Rtctl, LayoutNamesV2AndTheThreadsAsTheUsageSource) {
    Result text = rtctl({"layout"});
    EXPECT_EQ(text.status, 0) << text.err;
    EXPECT_EQ(text.out,
              "layout: v2\ncpuset: /sys/fs/cgroup (cgroup v2: a threaded group qxrt-DOMAIN in "
              "each admitted thread's own group)\ncpuacct: none (no cpuacct hierarchy is "
              "mounted)\nusage from: the CPU time of each domain's admitted threads\n");
    Result json = rtctl({"--json", "layout"});
    EXPECT_EQ(json.status, 0) << json.err;
    EXPECT_EQ(json.out,
              "{\"command\":\"layout\",\"result\":0,\"result_name\":\"RT_SUCCESS\",\"layout\":"
              "\"v2\",\"cpuset\":\"/sys/fs/cgroup\",\"cpuacct\":null,\"usage_from\":"
              "\"threads\"}\n");
}

// rtctl add places a thread of another process (this one) in the domain's threaded group of
// that process; usage, top and the dump show it; remove brings it back.
TEST_F(V2Rtctl, AddUsageTopDumpAndRemoveWork) {
    qxt::TestThread t(5, 5);
    std::string tid = std::to_string(t.tid());
    ASSERT_EQ(rtctl({"add", "Domain_Audio", "Class_Render", tid}).status, 0);
    EXPECT_EQ(audio_group_, group_of(t.tid()));
    EXPECT_EQ(home_, group_of(getpid()));
    Result usage = rtctl({"usage", "Domain_Audio", "200", "2"});
    EXPECT_EQ(usage.status, 0) << usage.err;
    EXPECT_EQ(2, std::count(usage.out.begin(), usage.out.end(), '\n')) << usage.out;

    Result top = rtctl({"top", "--count", "1", "--interval", "100"});
    EXPECT_EQ(top.status, 0) << top.err;
    EXPECT_TRUE(contains(top.out, "Domain_Audio")) << top.out;
    EXPECT_TRUE(contains(top.out, tid)) << top.out;

    Result dump = rtctl({"-v", "dump", "Domain_Audio"});
    EXPECT_EQ(dump.status, 0) << dump.err;
    EXPECT_FALSE(contains(dump.out + dump.err, "failed")) << dump.out << dump.err;

    qxt::expect_check_consistent();
    EXPECT_EQ(rtctl({"remove", "Domain_Audio", tid}).status, 0);
    EXPECT_EQ(home_, group_of(t.tid()));
    qxt::expect_check_consistent();
}

// A thread put into a domain's threaded group behind the library's back: found (by its group's
// name), and moved back into its process's group.
TEST_F(V2Rtctl, CheckFindsAndRepairsAStrayInADomainsGroup) {
    qxt::TestThread held, stray;
    // The group exists while an admitted thread is in it.
    ASSERT_EQ(rtctl({"add", "Domain_Audio", "Class_Render", std::to_string(held.tid())}).status, 0);
    qxt::write_file("/sys/fs/cgroup" + audio_group_ + "/cgroup.threads",
                    std::to_string(stray.tid()));
    ASSERT_EQ(audio_group_, group_of(stray.tid()));
    Result found = rtctl({"check"});
    EXPECT_EQ(found.status, 1) << found.out << found.err;
    EXPECT_TRUE(contains(found.out, qxt::format("thread %d is in the domain's groups without a "
                                                "record",
                                                (int)stray.tid())))
        << found.out;
    Result fixed = rtctl({"check", "--repair"});
    EXPECT_EQ(fixed.status, 0) << fixed.out << fixed.err;
    EXPECT_EQ(home_, group_of(stray.tid()));
    qxt::expect_check_consistent();
    EXPECT_EQ(rtctl({"remove", "Domain_Audio", std::to_string(held.tid())}).status, 0);
}

// An admitted thread moved out of its group behind the library's back: found, and put back.
TEST_F(V2Rtctl, CheckFindsAndRepairsAThreadOutsideItsGroup) {
    qxt::TestThread t;
    ASSERT_EQ(rtctl({"add", "Domain_Audio", "Class_Render", std::to_string(t.tid())}).status, 0);
    std::string home_dir = home_ == "/" ? "/sys/fs/cgroup" : "/sys/fs/cgroup" + home_;
    qxt::write_file(home_dir + "/cgroup.threads", std::to_string(t.tid()));
    ASSERT_EQ(home_, group_of(t.tid()));
    Result found = rtctl({"check"});
    EXPECT_EQ(found.status, 1) << found.out << found.err;
    EXPECT_TRUE(contains(found.out, "outside the domain's groups")) << found.out;
    Result fixed = rtctl({"check", "--repair"});
    EXPECT_EQ(fixed.status, 0) << fixed.out << fixed.err;
    EXPECT_EQ(audio_group_, group_of(t.tid()));
    qxt::expect_check_consistent();
    EXPECT_EQ(rtctl({"remove", "Domain_Audio", std::to_string(t.tid())}).status, 0);
}

// lint on v2 says where the configuration asks for what the hierarchy can't give: a CPU the
// hierarchy does not grant, a deadline domain narrower than the machine.
TEST_F(V2Rtctl, LintWarnsWhereTheLayoutCannotGiveWhatIsAsked) {
    std::string config = qxt::config_with(
        1, 1024, 0, 80, 2,
        qxt::join_domains(
            {qxt::rr_domain("Domain_Far", 100, "1", {{"Class_Far", 10, 50}}),
             qxt::dl_domain("Domain_Narrow", 300, "1", {{"Class_Narrow", 1000, 10000, 10000}})}));
    qxt::write_file("/dev/shm/v2.json", config);
    Result r = rtctl({"lint", "/dev/shm/v2.json"});
    EXPECT_TRUE(contains(r.out, "on cgroup v2 a thread of the deadline domain \"Domain_Narrow\""))
        << r.out;
    EXPECT_FALSE(contains(r.out, "on cgroup v2 a thread of the deadline domain \"Domain_Far\""))
        << r.out;
    // The same file on a machine told as v1 by the property: no layout rule.
    qxt::set_property(RT_PROP_CGROUP_LAYOUT, "v1");
    Result v1 = rtctl({"lint", "/dev/shm/v2.json"});
    qxt::clear_property(RT_PROP_CGROUP_LAYOUT);
    EXPECT_FALSE(contains(v1.out, "cgroup v2")) << v1.out;
}
