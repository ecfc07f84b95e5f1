// The budget query and the DMIPS conversion.
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include "domains_support.h"

using namespace qxt;

namespace {

class QueryBudgetTest : public DomainTest {
protected:
    // A domain of 100 units with one thread of 60 admitted: 40 left.
    void domain_with_60_of_100_used() {
        init_with(config_of({rr_domain("Domain_Q", 100, "0-1", {{"Class_Rr", 60, 10}})}));
        ASSERT_EQ(RT_SUCCESS, QX_REALTIME_CreateDomain("Domain_Q")) << log.dump();
        ASSERT_EQ(RT_SUCCESS, QX_REALTIME_AddThread("Domain_Q", "Class_Rr", thread.tid(), 0))
            << log.dump();
        log.clear();
    }
    // QueryBudget of the demand returns code and writes the budget left.
    void expect_answer(const char *domain, QX_REALTIME_UTIL_t demand, uint32_t code, int32_t left) {
        int32_t written = -1;
        EXPECT_EQ(code, QX_REALTIME_QueryBudget(domain, &demand, &written)) << log.dump();
        EXPECT_EQ(left, written);
    }
    qxt::TestThread thread;  // sleeps: harmless under SCHED_RR
};

TEST_F(QueryBudgetTest, DemandThatFitsSucceedsAndGetsTheBudgetLeft) {
    domain_with_60_of_100_used();
    QX_REALTIME_UTIL_t util = {40, 0, 0, 0};
    int32_t left = -1;
    EXPECT_EQ(RT_SUCCESS, QX_REALTIME_QueryBudget("Domain_Q", &util, &left)) << log.dump();
    EXPECT_EQ(40, left);
    EXPECT_EQ(40, util.s32Util);
    QXT_EXPECT_INFO(log, "[RT_Impl][DBG] [QX_REALTIME_QueryBudget] successfully.\n");
    EXPECT_TRUE(log.has_info("[RT_Impl][DBG] [QX_REALTIME_QueryBudget] exit, OK.\n"));
    // Nothing was charged.
    EXPECT_EQ(60, qxt::map_domain_file("Domain_Q")->s32UtilCurrent);
}

TEST_F(QueryBudgetTest, DemandAboveTheBudgetLeftIsRefusedAndStillGetsIt) {
    domain_with_60_of_100_used();
    expect_answer("Domain_Q", {41, 0, 0, 0}, RT_ERR_OVER_BUDGET, 40);
    QXT_EXPECT_ERROR(log,
                     "[RT_Impl][Err] [_QX_REALTIME_CheckOverUtil] Domain[Domain_Q] over "
                     "s32Util: new Util is 41, original Util is 0,domain current total "
                     "Util is 60, max. domain Util is 100\n");
    QXT_EXPECT_INFO(log, "[RT_Impl][DBG] [QX_REALTIME_QueryBudget] fails.\n");
    EXPECT_TRUE(log.has_info("[RT_Impl][DBG] [QX_REALTIME_QueryBudget] exit, err=9.\n"));
}

TEST_F(QueryBudgetTest, QueryReleasesBothLockFiles) {
    domain_with_60_of_100_used();
    QX_REALTIME_UTIL_t util = {1, 0, 0, 0};
    int32_t left = 0;
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_QueryBudget("Domain_Q", &util, &left));
    EXPECT_EQ(0, qxt::run_in_child([] {
                  for (const char *path : {"/data/vendor/realtime/flock_rt_Global",
                                           "/data/vendor/realtime/flock_rt_Domain_Q"}) {
                      int fd = open(path, O_RDWR);
                      if (fd < 0 || flock(fd, LOCK_EX | LOCK_NB) != 0) return 1;
                  }
                  return 0;
              }));
}

TEST_F(QueryBudgetTest, DeadlineDemandIsConvertedToUnits) {
    init_with(config_of({dl_domain("Domain_Dl", 512, "0-1")}));
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_CreateDomain("Domain_Dl")) << log.dump();
    QX_REALTIME_UTIL_t util = {0, 4000, 1000, 4000};  // a quarter of a core: 256 units
    int32_t left = -1;
    EXPECT_EQ(RT_SUCCESS, QX_REALTIME_QueryBudget("Domain_Dl", &util, &left)) << log.dump();
    EXPECT_EQ(256, util.s32Util);
    EXPECT_EQ(512, left);
}

TEST_F(QueryBudgetTest, BadDeadlineParametersAreRefusedAndTheBudgetLeftIsWritten) {
    init_with(config_of({dl_domain("Domain_Dl", 512, "0-1")}));
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_CreateDomain("Domain_Dl")) << log.dump();
    // The deadline comes before the runtime.
    expect_answer("Domain_Dl", {0, 500, 1000, 4000}, RT_ERR_INVALID_PARAM, 512);
    QXT_EXPECT_ERROR(log,
                     "[RT_Impl][Err] [_QX_REALTIME_CheckOverUtil] Invalid Deadline "
                     "parameter: (should) DlPeriodUs=4000 >= DlDeadlineUs=500 >= "
                     "DlRuntimeUs=1000.\n");
}

TEST_F(QueryBudgetTest, DomainWithoutBudgetAdmitsAnyDemandAndReportsZeroLeft) {
    init_with(config_of({rr_domain("Domain_Free", 0, "0-1")}));
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_CreateDomain("Domain_Free")) << log.dump();
    QX_REALTIME_UTIL_t util = {100000, 0, 0, 0};
    int32_t left = -1;
    EXPECT_EQ(RT_SUCCESS, QX_REALTIME_QueryBudget("Domain_Free", &util, &left));
    EXPECT_EQ(0, left);
}

TEST_F(QueryBudgetTest, DisabledFrameworkLeavesTheOutputAsItWas) {
    init_with(qxt::config_with(0, 1024, 4, 80, 2, rr_domain("Domain_Q", 100, "0-1")));
    QX_REALTIME_UTIL_t util = {1, 0, 0, 0};
    int32_t left = -7;
    EXPECT_EQ(RT_SUCCESS, QX_REALTIME_QueryBudget("Domain_Q", &util, &left));
    EXPECT_EQ(-7, left);
    EXPECT_FALSE(qxt::file_exists("/data/vendor/realtime/flock_rt_Domain_Q"));
}

TEST_F(QueryBudgetTest, NullUtilisationRecordIsRefused) {
    init_with(config_of({rr_domain("Domain_Q", 100, "0-1")}));
    int32_t left = -7;
    EXPECT_EQ(RT_ERR_NULL, QX_REALTIME_QueryBudget("Domain_Q", nullptr, &left));
    QXT_EXPECT_ERROR(log, "[RT_Impl][Err] [QX_REALTIME_QueryBudget] pstUtil is NULL.\n");
    EXPECT_EQ(-7, left);
}

TEST_F(QueryBudgetTest, NullOutputIsRefused) {
    init_with(config_of({rr_domain("Domain_Q", 100, "0-1")}));
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_CreateDomain("Domain_Q"));
    QX_REALTIME_UTIL_t util = {1, 0, 0, 0};
    EXPECT_EQ(RT_ERR_NULL, QX_REALTIME_QueryBudget("Domain_Q", &util, nullptr));
    QXT_EXPECT_ERROR(log, "[RT_Impl][Err] [QX_REALTIME_QueryBudget] ps32UtilLeft is NULL.\n");
    EXPECT_FALSE(qxt::file_exists("/data/vendor/realtime/flock_rt_Domain_Q"));
}

TEST_F(QueryBudgetTest, UnknownDomainIsReportedAndTheOutputLeft) {
    init_with(config_of({rr_domain("Domain_Q", 100, "0-1")}));
    QX_REALTIME_UTIL_t util = {1, 0, 0, 0};
    int32_t left = -7;
    EXPECT_EQ(RT_ERR_NULL, QX_REALTIME_QueryBudget("Domain_Q", &util, &left));
    QXT_EXPECT_ERROR(log, "[RT_Impl][Err] [QX_REALTIME_QueryBudget] pstDomain is NULL.\n");
    EXPECT_EQ(-7, left);
}

// Without its lock-file directory the central data can't be reached: the query passes the code
// on, the conversion answers RT_ERR_NULL whatever the code was.
TEST_F(QueryBudgetTest, UnreachableCentralDataGivesTheQueryTheCodeAndTheConversionNull) {
    init_with(config_of({rr_domain("Domain_Q", 100, "0-1")}));
    ASSERT_EQ(0, unlink("/data/vendor/realtime/flock_rt_Global"));
    ASSERT_EQ(0, rmdir("/data/vendor/realtime"));
    log.clear();

    QX_REALTIME_UTIL_t util = {1, 0, 0, 0};
    int32_t left = -7;
    EXPECT_EQ(RT_ERR_FAILED, QX_REALTIME_QueryBudget("Domain_Q", &util, &left));
    QXT_EXPECT_INFO(log, "[RT_Impl][DBG] [QX_REALTIME_QueryBudget] exit, err=4.\n");
    EXPECT_EQ(-7, left);
    uint32_t us = 7;
    EXPECT_EQ(RT_ERR_NULL, QX_REALTIME_DmipsToUs(10, &us));
    EXPECT_EQ(7u, us);
}

// ---- DMIPS to microseconds ----

class DmipsTest : public DomainTest {
protected:
    void with_capability(int cap) { init_with(qxt::config_with(1, cap, 4, 80, 2, "")); }
    uint32_t convert(uint32_t dmips) {
        uint32_t us = 0xDEADBEEF;
        last_ret = QX_REALTIME_DmipsToUs(dmips, &us);
        return us;
    }
    // dmips converts, with success, to us.
    void expect_us(uint32_t dmips, uint32_t us) {
        EXPECT_EQ(us, convert(dmips)) << dmips << " DMIPS";
        EXPECT_EQ(RT_SUCCESS, last_ret) << dmips << " DMIPS";
    }
    uint32_t last_ret = 0xFFFFFFFF;
};

TEST_F(DmipsTest, HalfTheCapabilityIsHalfASecondPerSecond) {
    with_capability(1000);
    expect_us(500, 500000);
    QXT_EXPECT_INFO(log,
                    "[RT_Impl][Info] [QX_REALTIME_DmipsToUs] dmips=500 us=500000, "
                    "SystemCapability=1000\n");
}

TEST_F(DmipsTest, RemainderIsDropped) {
    with_capability(3);
    expect_us(1, 333333);
}

TEST_F(DmipsTest, DemandEqualToTheCapabilityIsAccepted) {
    with_capability(1000);
    expect_us(1000, 1000000);
}

TEST_F(DmipsTest, ProductWrapsAbove4294Dmips) {
    with_capability(5000);
    expect_us(5000, 141006);
    expect_us(4295, 6);
    EXPECT_EQ(858800u, convert(4294));  // the last exact one
}

TEST_F(DmipsTest, ZeroDmipsIsZeroMicroseconds) {
    with_capability(1000);
    expect_us(0, 0);
}

TEST_F(DmipsTest, DemandAboveTheCapabilityIsRefusedWithZero) {
    with_capability(1000);
    EXPECT_EQ(0u, convert(1001));
    EXPECT_EQ(RT_ERR_INVALID_PARAM, last_ret);
    QXT_EXPECT_ERROR(log,
                     "[RT_Impl][Err] [QX_REALTIME_DmipsToUs] u32Dmips (1001) should be "
                     "less than systemCapability (1000)\n");
}

TEST_F(DmipsTest, ZeroCapabilityIsRefusedWithZero) {
    with_capability(0);
    EXPECT_EQ(0u, convert(1));
    EXPECT_EQ(RT_ERR_INVALID_PARAM, last_ret);
    QXT_EXPECT_ERROR(log,
                     "[RT_Impl][Err] [QX_REALTIME_DmipsToUs] SystemCpapbility should not "
                     "be 0\n");
}

TEST_F(DmipsTest, NullOutputIsRefused) {
    with_capability(1000);
    EXPECT_EQ(RT_ERR_NULL, QX_REALTIME_DmipsToUs(1, nullptr));
    QXT_EXPECT_ERROR(log, "[RT_Impl][Err] [QX_REALTIME_DmipsToUs] u32MiscroSec is NULL.\n");
}

TEST_F(DmipsTest, DisabledFrameworkLeavesTheOutput) {
    init_with(qxt::config_with(0, 1000, 4, 80, 2, ""));
    EXPECT_EQ(0xDEADBEEFu, convert(500));
    EXPECT_EQ(RT_SUCCESS, last_ret);
}

TEST_F(DmipsTest, ConversionTakesNoLockFile) {
    with_capability(1000);
    // Another process holds the central lock: the conversion does not wait for it.
    int gate[2];
    ASSERT_EQ(0, pipe(gate));
    pid_t holder = qxt::spawn_child([&] {
        int fd = open("/data/vendor/realtime/flock_rt_Global", O_RDWR);
        flock(fd, LOCK_EX);
        (void)!write(gate[1], "x", 1);
    });
    char byte;
    ASSERT_EQ(1, read(gate[0], &byte, 1));
    expect_us(250, 250000);
    qxt::kill_and_reap(holder);
}

}  // namespace
