// Bad input to the domain operations gets a result code and a message, never a crash.
#include <string.h>

#include "domain_suite.h"

using namespace qxt_domains;

namespace {

const char kCentralFlock[] = "/data/vendor/realtime/flock_rt_Global";

class BadInputTest : public DomainTest {};

// Without Init no central data exists: a NULL name is refused before the operation reaches for
// any lock file (which would also create the central one) or the central data.
TEST_F(BadInputTest, NullDomainNameIsRefusedBeforeAnyLock) {
    ASSERT_FALSE(qxt::file_exists(kCentralFlock));
    QX_REALTIME_UTIL_t util = {1, 0, 0, 0};
    int32_t left = -7;

    EXPECT_EQ(RT_ERR_INVALID_PARAM, QX_REALTIME_CreateDomain(nullptr));
    EXPECT_EQ((int32_t)RT_ERR_INVALID_PARAM, QX_REALTIME_DeleteDomain(nullptr));
    EXPECT_EQ(RT_ERR_INVALID_PARAM, QX_REALTIME_QueryBudget(nullptr, &util, &left));
    EXPECT_EQ(nullptr, _QX_REALTIME_GetDomainFromName(nullptr, nullptr));

    std::vector<std::string> got;
    for (const qxt::LogLine &line : log.lines()) {
        EXPECT_EQ(QX_LOG_PRIO_ERROR, line.priority) << line.message;
        got.push_back(line.file_form());
    }
    EXPECT_EQ((std::vector<std::string>{
                  "[RT_Impl][Err] [QX_REALTIME_CreateDomain] Arg is NULL.\n",
                  "[RT_Impl][Err] [QX_REALTIME_DeleteDomain] Arg is NULL.\n",
                  "[RT_Impl][Err] [QX_REALTIME_QueryBudget] Arg is NULL.\n",
              }),
              got);
    EXPECT_FALSE(qxt::file_exists(kCentralFlock));
    EXPECT_EQ(nullptr, pstTop);
    EXPECT_EQ(-7, left);
}

TEST_F(BadInputTest, NullDomainNameIsRefusedWithTheFrameworkRunning) {
    init_with(config_of({rr_domain("Domain_A", 100, "0")}));
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_CreateDomain("Domain_A"));
    QX_REALTIME_UTIL_t util = {1, 0, 0, 0};
    int32_t left = -7;
    EXPECT_EQ(RT_ERR_INVALID_PARAM, QX_REALTIME_CreateDomain(nullptr));
    EXPECT_EQ((int32_t)RT_ERR_INVALID_PARAM, QX_REALTIME_DeleteDomain(nullptr));
    EXPECT_EQ(RT_ERR_INVALID_PARAM, QX_REALTIME_QueryBudget(nullptr, &util, &left));
    EXPECT_EQ(-7, left);
    EXPECT_EQ(1u, pstTop->u32DomainMapNum);
    EXPECT_TRUE(segment_exists("Domain_A"));
    // The process mutex was never left taken.
    ASSERT_EQ(0, pthread_mutex_trylock(&mutex));
    pthread_mutex_unlock(&mutex);
}

TEST_F(BadInputTest, NameTooLongForThePathsIsRefusedEverywhere) {
    init_with(config_of({rr_domain("Domain_A", 100, "0")}));
    std::string name = "Domain_" + std::string(193, 'x');
    ASSERT_EQ(200u, name.size());
    QX_REALTIME_UTIL_t util = {1, 0, 0, 0};
    int32_t left = -7;
    log.clear();

    EXPECT_EQ(RT_ERR_SYSTEM, QX_REALTIME_CreateDomain(name.c_str()));
    EXPECT_TRUE(log.has_error("[RT_Impl][Err] [QX_REALTIME_CreateDomain] shared memory "
                              "initialization fails\n"))
        << log.dump();
    EXPECT_EQ((int32_t)RT_ERR_NULL, QX_REALTIME_DeleteDomain(name.c_str()));
    EXPECT_TRUE(log.has_error("[RT_Impl][Err] [QX_REALTIME_DeleteDomain] pstDomain is NULL.\n"));
    EXPECT_EQ(RT_ERR_NULL, QX_REALTIME_QueryBudget(name.c_str(), &util, &left));
    EXPECT_TRUE(log.has_error("[RT_Impl][Err] [QX_REALTIME_QueryBudget] pstDomain is NULL.\n"));
    EXPECT_EQ(-7, left);
    EXPECT_EQ(nullptr, _QX_REALTIME_GetDomainFromName(name.c_str(), nullptr));

    // Nothing was made under a cut name.
    EXPECT_EQ(0u, pstTop->u32DomainMapNum);
    EXPECT_EQ(0, pstTop->pstCentral->s32DomainNum);
    EXPECT_EQ((std::vector<std::string>{"rt_Global"}), files_in("/dev/shm/realtime"));
    EXPECT_EQ((std::vector<std::string>{"flock_rt_Global"}), files_in("/data/vendor/realtime"));
    EXPECT_EQ((std::vector<std::string>{}), files_in("/dev/cpuset", "Domain_"));
    EXPECT_EQ((std::vector<std::string>{}), files_in("/dev/cpuacct", "Domain_"));
}

TEST_F(BadInputTest, UnknownDomainNamesAreReportedMissing) {
    init_with(config_of({rr_domain("Domain_A", 100, "0")}));
    QX_REALTIME_UTIL_t util = {1, 0, 0, 0};
    int32_t left = -7;
    EXPECT_EQ((int32_t)RT_ERR_NULL, QX_REALTIME_DeleteDomain("Domain_Nope"));
    EXPECT_EQ(RT_ERR_NULL, QX_REALTIME_QueryBudget("Domain_Nope", &util, &left));
    EXPECT_EQ(RT_ERR_NULL, QX_REALTIME_QueryBudget("", &util, &left));
    EXPECT_EQ(-7, left);
    EXPECT_EQ(RT_ERR_INVALID_PARAM, QX_REALTIME_CreateDomain("Domain_Nope"));
    EXPECT_EQ(RT_ERR_INVALID_PARAM, QX_REALTIME_CreateDomain(""));
    EXPECT_EQ(0u, pstTop->u32DomainMapNum);
    EXPECT_FALSE(segment_exists("Domain_Nope"));
}

TEST_F(BadInputTest, OperationsWithoutInitAskForIt) {
    QX_REALTIME_UTIL_t util = {1, 0, 0, 0};
    int32_t left = -7;
    uint32_t us = 7;
    EXPECT_EQ(RT_ERR_NULL, QX_REALTIME_CreateDomain("Domain_A"));
    EXPECT_EQ((int32_t)RT_ERR_NULL, QX_REALTIME_DeleteDomain("Domain_A"));
    EXPECT_EQ(RT_ERR_NULL, QX_REALTIME_QueryBudget("Domain_A", &util, &left));
    EXPECT_EQ(RT_ERR_NULL, QX_REALTIME_DmipsToUs(1, &us));
    EXPECT_EQ(nullptr, _QX_REALTIME_GetDomainFromName("Domain_A", nullptr));
    EXPECT_EQ(-7, left);
    EXPECT_EQ(7u, us);
    EXPECT_EQ(5, log.count(QX_LOG_PRIO_ERROR,
                           "[RT_Impl][Err] Did you forget to invoke QX_REALTIME_Init()?\n"))
        << log.dump();
}

}  // namespace
