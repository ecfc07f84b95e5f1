// Bad input to the domain operations gets a result code and a message, never a crash.
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "domains_support.h"

using namespace qxt;

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

const char kInvalidName[] =
    "Invalid domain name: it must be 1 to 63 characters, not \".\" or \"..\", without '/'.\n";

std::string invalid_name_error(const char *op) {
    return qxt::format("[RT_Impl][Err] [%s] %s", op, kInvalidName);
}

// A name longer than the record's name field, empty, "." or "..", or with a '/' could name a
// file outside the library's directories (or another domain's, once cut): every operation that
// takes a domain name refuses it before it touches any file, the central lock file included.
TEST_F(BadInputTest, NamesThatCouldLeaveTheirDirectoryAreRefusedBeforeAnyFile) {
    const std::string names[] = {"Domain_" + std::string(193, 'x'),
                                 std::string(64, 'D'),
                                 ".",
                                 "..",
                                 "evil/../../../../tmp/x",
                                 "/abs",
                                 "Domain_A/",
                                 "../Domain_A"};
    QX_REALTIME_UTIL_t util = {1, 0, 0, 0};
    int32_t left = -7;
    for (const std::string &name : names) {
        SCOPED_TRACE(name);
        log.clear();
        const char *n = name.c_str();
        EXPECT_EQ(RT_ERR_INVALID_PARAM, QX_REALTIME_CreateDomain(n));
        EXPECT_EQ((int32_t)RT_ERR_INVALID_PARAM, QX_REALTIME_DeleteDomain(n));
        EXPECT_EQ(RT_ERR_INVALID_PARAM, QX_REALTIME_QueryBudget(n, &util, &left));
        EXPECT_EQ(RT_ERR_INVALID_PARAM, QX_REALTIME_AddThread(n, "Class_Rr", gettid(), 0));
        EXPECT_EQ(RT_ERR_INVALID_PARAM,
                  QX_REALTIME_AddThread_Lite(n, "Class_Rr", &util, gettid(), 0));
        EXPECT_EQ(RT_ERR_INVALID_PARAM, QX_REALTIME_RemoveThread(n, gettid()));
        EXPECT_EQ(RT_ERR_INVALID_PARAM, QX_REALTIME_UpdateThreadUtil(n, &util, gettid()));
        EXPECT_EQ(RT_ERR_INVALID_PARAM, QX_REALTIME_GetDomainCpuUsage(n, 1, 1));
        EXPECT_EQ(RT_ERR_INVALID_PARAM, QX_REALTIME_DumpDomainInfo(n));
        for (const char *op :
             {"QX_REALTIME_CreateDomain", "QX_REALTIME_DeleteDomain", "QX_REALTIME_QueryBudget",
              "QX_REALTIME_AddThread", "QX_REALTIME_AddThread_Lite", "QX_REALTIME_RemoveThread",
              "QX_REALTIME_UpdateThreadUtil", "QX_REALTIME_GetDomainCpuUsage",
              "QX_REALTIME_DumpDomainInfo"})
            EXPECT_TRUE(log.has_error(invalid_name_error(op))) << op << "\n" << log.dump();
        EXPECT_EQ(nullptr, _QX_REALTIME_GetDomainFromName(n, nullptr));
    }
    EXPECT_EQ(-7, left);
    EXPECT_FALSE(qxt::file_exists(kCentralFlock));
    EXPECT_EQ((std::vector<std::string>{}), files_in("/dev/shm/realtime"));
    EXPECT_EQ((std::vector<std::string>{}), files_in("/data/vendor/realtime"));
}

// The empty name names no domain and no file: every operation that looks a domain up finds
// nothing, with the result code and the messages of an unknown name, to the byte; the creation,
// which would make the domain's files, refuses it.
TEST_F(BadInputTest, EmptyNameIsADomainThatIsNotFound) {
    init_with(config_of({rr_domain("Domain_A", 100, "0")}));
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_CreateDomain("Domain_A"));
    qxt::TestThread t;
    struct Op {
        const char *function;
        std::function<uint32_t(const char *)> call;
    };
    const Op ops[] = {
        {"QX_REALTIME_DeleteDomain",
         [](const char *n) { return (uint32_t)QX_REALTIME_DeleteDomain(n); }},
        {"QX_REALTIME_QueryBudget",
         [](const char *n) {
             QX_REALTIME_UTIL_t util = {1, 0, 0, 0};
             int32_t left = -7;
             return QX_REALTIME_QueryBudget(n, &util, &left);
         }},
        {"QX_REALTIME_AddThread",
         [&t](const char *n) { return QX_REALTIME_AddThread(n, "Class_Rr", t.tid(), 0); }},
        {"QX_REALTIME_AddThread_Lite",
         [&t](const char *n) {
             QX_REALTIME_UTIL_t util = {1, 0, 0, 0};
             return QX_REALTIME_AddThread_Lite(n, "Class_Rr", &util, t.tid(), 0);
         }},
        {"QX_REALTIME_RemoveThread",
         [&t](const char *n) { return QX_REALTIME_RemoveThread(n, t.tid()); }},
        {"QX_REALTIME_UpdateThreadUtil",
         [&t](const char *n) {
             QX_REALTIME_UTIL_t util = {1, 0, 0, 0};
             return QX_REALTIME_UpdateThreadUtil(n, &util, t.tid());
         }},
        {"QX_REALTIME_GetDomainCpuUsage",
         [](const char *n) { return QX_REALTIME_GetDomainCpuUsage(n, 10, 1); }},
        {"QX_REALTIME_DumpDomainInfo", [](const char *n) { return QX_REALTIME_DumpDomainInfo(n); }},
    };
    // The answer of each operation for a name, both forms of every line (debug lines included),
    // the name itself left out.
    auto answer = [](const Op &op, const std::string &name) {
        qxt::LogCapture each;
        std::string out = qxt::format("%u\n", op.call(name.c_str()));
        for (const qxt::LogLine &line : each.lines()) {
            std::string text = line.message;
            size_t at = name.empty() ? std::string::npos : text.find(name);
            if (at != std::string::npos) text.erase(at, name.size());
            out += qxt::format("%d ", line.priority) + text;
        }
        return out;
    };
    _u32DbgLevel = 240;
    for (const Op &op : ops) {
        SCOPED_TRACE(op.function);
        std::string empty = answer(op, "");
        EXPECT_EQ(0u, empty.rfind("10\n", 0)) << empty;
        EXPECT_EQ(std::string::npos, empty.find("Invalid domain name")) << empty;
        EXPECT_EQ(empty, answer(op, "Domain_Nope"));
    }
    _u32DbgLevel = 32;
    qxt::LogCapture log;  // the fixture's capture ended with the last one above
    EXPECT_EQ(RT_ERR_NULL, QX_REALTIME_DumpDomainInfo(""));
    EXPECT_EQ(RT_ERR_NULL, QX_REALTIME_GetDomainCpuUsage("", 10, 1));
    EXPECT_EQ((int32_t)RT_ERR_NULL, QX_REALTIME_DeleteDomain(""));
    std::vector<std::string> expected = {
        "[RT_Impl][Err] [QX_REALTIME_DumpDomainInfo] pstDomain is NULL for [].\n",
        "[RT_Impl][Err] [QX_REALTIME_GetDomainCpuUsage] pstDomain is NULL.\n",
        "[RT_Impl][Err] [QX_REALTIME_DeleteDomain] pstDomain is NULL.\n"};
    std::vector<std::string> got;
    for (const qxt::LogLine &line : log.lines()) got.push_back(line.file_form());
    EXPECT_EQ(expected, got) << log.dump();
    // Nothing was admitted, and the domain is whole.
    EXPECT_EQ(0u, qxt::sched_of(t.tid()).policy);
    EXPECT_EQ(100, qxt::map_domain_file("Domain_A")->s32UtilMax);
    EXPECT_EQ(0, qxt::map_domain_file("Domain_A")->s32UtilCurrent);

    // The creation would make the domain's files: it refuses the name before any is touched.
    log.clear();
    EXPECT_EQ(RT_ERR_INVALID_PARAM, QX_REALTIME_CreateDomain(""));
    EXPECT_TRUE(log.has_error(invalid_name_error("QX_REALTIME_CreateDomain"))) << log.dump();
    EXPECT_FALSE(qxt::file_exists("/dev/shm/realtime/rt_"));
}

// A 63-character name is the longest the record holds: it is a domain like any other.
TEST_F(BadInputTest, SixtyThreeCharacterNameIsADomain) {
    std::string name = "Domain_" + std::string(56, 'x');
    ASSERT_EQ(63u, name.size());
    init_with(config_of({rr_domain(name, 100, "0")}));
    EXPECT_EQ(RT_SUCCESS, QX_REALTIME_CreateDomain(name.c_str()));
    QX_REALTIME_UTIL_t util = {1, 0, 0, 0};
    int32_t left = -7;
    EXPECT_EQ(RT_SUCCESS, QX_REALTIME_QueryBudget(name.c_str(), &util, &left));
    EXPECT_EQ(100, left);
    EXPECT_EQ((int32_t)RT_SUCCESS, QX_REALTIME_DeleteDomain(name.c_str()));
}

// The planted-directory attack: with rt_evil/ and flock_rt_evil/ in place, a name that climbs
// out through them would reach /tmp/x; it is refused and /tmp/x stays as it was.
TEST_F(BadInputTest, PlantedDirectoriesCannotLeadANameOutOfTheSegmentDirectory) {
    init_with(config_of({rr_domain("Domain_A", 100, "0")}));
    ASSERT_EQ(0, mkdir("/dev/shm/realtime/rt_evil", 0777));
    ASSERT_EQ(0, mkdir("/data/vendor/realtime/flock_rt_evil", 0777));
    char dir[] = "/tmp/qxrt_victim_XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(dir));
    std::string victim = std::string(dir) + "/x";
    qxt::write_file(victim, "precious");
    std::string name = "evil/../../../.." + victim;
    QX_REALTIME_UTIL_t util = {1, 0, 0, 0};
    int32_t left = -7;
    EXPECT_EQ(RT_ERR_INVALID_PARAM, QX_REALTIME_CreateDomain(name.c_str()));
    EXPECT_EQ(RT_ERR_INVALID_PARAM, QX_REALTIME_QueryBudget(name.c_str(), &util, &left));
    EXPECT_EQ((int32_t)RT_ERR_INVALID_PARAM, QX_REALTIME_DeleteDomain(name.c_str()));
    EXPECT_EQ("precious", qxt::read_file(victim));
    unlink(victim.c_str());
    rmdir(dir);
}

TEST_F(BadInputTest, UnknownDomainNamesAreReportedMissing) {
    init_with(config_of({rr_domain("Domain_A", 100, "0")}));
    QX_REALTIME_UTIL_t util = {1, 0, 0, 0};
    int32_t left = -7;
    EXPECT_EQ((int32_t)RT_ERR_NULL, QX_REALTIME_DeleteDomain("Domain_Nope"));
    EXPECT_EQ(RT_ERR_NULL, QX_REALTIME_QueryBudget("Domain_Nope", &util, &left));
    EXPECT_EQ(-7, left);
    EXPECT_EQ(RT_ERR_INVALID_PARAM, QX_REALTIME_CreateDomain("Domain_Nope"));
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
