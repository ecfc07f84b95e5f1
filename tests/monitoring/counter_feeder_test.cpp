// The counter feeder of this suite, on its own: the counter tests rely on it handing each reader
// exactly one text, and on a feeder that cannot go on making the test fail rather than hang.
#include <sys/stat.h>

#include "monitoring_support.h"

using namespace qxt;

namespace {

const char kTarget[] = "/dev/shm/qxt_feeder_target";

class CounterFeederHarness : public qxt::SandboxTest {};

TEST_F(CounterFeederHarness, EachReaderGetsTheNextTextAndTheLastOneAgainWhenTheListIsUsedUp) {
    CounterFeeder feeder(kTarget, {"one\n", "two\n"});
    ASSERT_TRUE(feeder.ok()) << feeder.error();
    EXPECT_EQ(read_file(kTarget), "one\n");
    EXPECT_EQ(read_file(kTarget), "two\n");
    EXPECT_EQ(read_file(kTarget), "two\n");
    EXPECT_EQ(feeder.reads(), 3);
    EXPECT_TRUE(feeder.ok()) << feeder.error();
}

TEST_F(CounterFeederHarness,
       ReadersAfterTheNextPipeCannotBePutInPlaceGetEndOfFileAndTheFeederSaysWhy) {
    const std::string dir = "/dev/shm/qxt_feeder_pipes";
    ASSERT_EQ(mkdir(dir.c_str(), 0755), 0) << strerror(errno);
    // A directory where the second pipe would go: it cannot be made.
    ASSERT_EQ(mkdir((dir + "/1").c_str(), 0755), 0) << strerror(errno);
    CounterFeeder feeder(kTarget, {"one\n", "two\n"}, dir);
    ASSERT_TRUE(feeder.ok()) << feeder.error();
    EXPECT_EQ(read_file(kTarget), "one\n");
    EXPECT_EQ(read_file(kTarget), "");
    EXPECT_EQ(read_file(kTarget), "");
    EXPECT_EQ(feeder.reads(), 1);
    EXPECT_FALSE(feeder.ok());
    EXPECT_EQ(feeder.error(),
              "counter feeder for /dev/shm/qxt_feeder_target: mkfifo "
              "/dev/shm/qxt_feeder_pipes/1: File exists")
        << feeder.error();
}

TEST_F(CounterFeederHarness, TheTargetIsGivenBackWhenTheFeederEnds) {
    write_file(kTarget, "plain\n");
    {
        CounterFeeder feeder(kTarget, {"fed\n"});
        ASSERT_TRUE(feeder.ok()) << feeder.error();
        EXPECT_EQ(read_file(kTarget), "fed\n");
        EXPECT_EQ(read_file(kTarget), "fed\n");
    }
    EXPECT_EQ(read_file(kTarget), "plain\n");
}

}  // namespace
