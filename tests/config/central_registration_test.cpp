// Registration of parsed domains in the central record: counted once each, the 24 places of its
// lists, and the refusal of a 25th domain without writing past them.
#include "config_support.h"

using qxt::format;
using qxt::LogCapture;
using namespace qxt;

namespace {

class CentralRegistrationTest : public ::testing::Test {
protected:
    void SetUp() override {
        QXT_REQUIRE_SANDBOX();
        init_with_central();
    }
};

std::string domain_name(int i) {
    return format("Domain_D%02d", i);
}

// 25 domains; the 24th also has a spare number after its Util.
std::string twenty_five_domains() {
    std::string text = "{\n";
    for (int i = 0; i < 25; i++) {
        text += format("  \"%s\": {\"Util\": %d%s}%s\n", domain_name(i).c_str(), 10 + i,
                       i == 23 ? ", \"Spare\": 5" : "", i < 24 ? "," : "");
    }
    return text + "}\n";
}

}  // namespace

TEST_F(CentralRegistrationTest, EachParsedDomainIsListedWithItsUtil) {
    const std::string text = R"({"Domain_A": {"Util": 300, "Cpuset": "0"},
                                 "Domain_B": {"Util": 200, "Cpuset": "1"}})";
    DomainRecord a("Domain_A"), b("Domain_B");
    LogCapture log;
    ASSERT_EQ(parse_text(text, a), RT_SUCCESS);
    ASSERT_EQ(parse_text(text, b), RT_SUCCESS);
    QX_REALTIME_CENTRAL_t *central = pstTop->pstCentral;
    EXPECT_EQ(central->s32DomainNum, 2);
    EXPECT_EQ(central->s32UtilTotal, 500);
    EXPECT_EQ(central->s32DomainUtilList[0], 300);
    EXPECT_EQ(central->s32DomainUtilList[1], 200);
    EXPECT_STREQ(central->szDomainNameList[0], "Domain_A");
    EXPECT_STREQ(central->szDomainNameList[1], "Domain_B");
    EXPECT_TRUE(log.has_info("[RT_Impl][Info] Domain [Domain_A] UtilMax = [300].\n")) << log.dump();
    EXPECT_TRUE(log.has_info("[RT_Impl][Info] Domain [Domain_B] UtilMax = [200].\n")) << log.dump();
}

TEST_F(CentralRegistrationTest, DomainParsedAgainIsRecognisedAndCountedOnce) {
    const std::string text = R"({"Domain_A": {"Util": 300, "Cpuset": "0"}})";
    DomainRecord first("Domain_A"), again("Domain_A");
    ASSERT_EQ(parse_text(text, first), RT_SUCCESS);
    LogCapture log;
    ASSERT_EQ(parse_text(text, again), RT_SUCCESS);
    EXPECT_TRUE(log.has_info("[RT_Impl][Info] [Domain_A] existed in central data\n")) << log.dump();
    EXPECT_TRUE(log.has_info("[RT_Impl][Info] Domain [Domain_A] UtilMax = [300].\n")) << log.dump();
    EXPECT_EQ(pstTop->pstCentral->s32DomainNum, 1);
    EXPECT_EQ(pstTop->pstCentral->s32UtilTotal, 300);
    EXPECT_EQ(again->s32UtilMax, 300);
}

TEST_F(CentralRegistrationTest, The24thDomainIsRecordedWithoutItsUtilMessageAndItsUtilBitStays) {
    const std::string text = twenty_five_domains();
    for (int i = 0; i < 23; i++) {
        DomainRecord domain(domain_name(i));
        ASSERT_EQ(parse_text(text, domain), RT_SUCCESS) << i;
    }
    QX_REALTIME_CENTRAL_t *central = pstTop->pstCentral;
    ASSERT_EQ(central->s32DomainNum, 23);

    DomainRecord last("Domain_D23");
    LogCapture log;
    ASSERT_EQ(parse_text(text, last), RT_SUCCESS) << log.dump();
    EXPECT_EQ(central->s32DomainNum, 24);
    EXPECT_STREQ(central->szDomainNameList[23], "Domain_D23");
    EXPECT_EQ(central->s32DomainUtilList[23], 33);
    int total = 0;
    for (int i = 0; i < 24; i++) total += 10 + i;
    EXPECT_EQ(central->s32UtilTotal, total);
    EXPECT_FALSE(log.has_info("[RT_Impl][Info] Domain [Domain_D23] UtilMax = [33].\n"))
        << log.dump();
    // The Util bit was left set: the spare number after it is taken as the domain's Util.
    EXPECT_TRUE(log.has_info("[RT_Impl][Info] [Domain_D23] existed in central data\n"))
        << log.dump();
    EXPECT_TRUE(log.has_info("[RT_Impl][Info] Domain [Domain_D23] UtilMax = [5].\n")) << log.dump();
    EXPECT_EQ(last->s32UtilMax, 5);
    EXPECT_EQ(log.count_containing("Unknown Domain"), 0) << log.dump();
    EXPECT_EQ(central->s32UtilTotal, total);
}

TEST_F(CentralRegistrationTest, A25thDistinctDomainIsRefusedWithoutWritingPastTheLists) {
    const std::string text = twenty_five_domains();
    for (int i = 0; i < 24; i++) {
        DomainRecord domain(domain_name(i));
        ASSERT_EQ(parse_text(text, domain), RT_SUCCESS) << i;
    }
    QX_REALTIME_CENTRAL_t *central = pstTop->pstCentral;
    ASSERT_EQ(central->s32DomainNum, 24);
    const int total = central->s32UtilTotal;
    QX_REALTIME_CENTRAL_t before;
    memcpy(&before, central, sizeof(before));

    DomainRecord refused("Domain_D24");
    LogCapture log;
    EXPECT_EQ(parse_text(text, refused), RT_ERR_INVALID_PARAM);
    EXPECT_TRUE(
        log.has_error("[RT_Impl][Err] [_QX_REALTIME_ParsingScope] Domain [Domain_D24] "
                      "can't be recorded: the central data holds at most 24 domains.\n"))
        << log.dump();
    EXPECT_EQ(log.count_containing("Failed to find"), 0) << log.dump();
    EXPECT_EQ(central->s32DomainNum, 24);
    EXPECT_EQ(central->s32UtilTotal, total);
    EXPECT_EQ(memcmp(&before, central, sizeof(before)), 0);
    // The central segment beyond the record is untouched (zero since it was created).
    const unsigned char *segment = (const unsigned char *)central;
    size_t nonzero = 0;
    for (size_t i = sizeof(QX_REALTIME_CENTRAL_t); i < RT_SHM_SIZE; i++)
        if (segment[i] != 0) nonzero++;
    EXPECT_EQ(nonzero, 0u);

    // A listed domain is still found and parsed while the lists are full.
    DomainRecord listed("Domain_D00");
    log.clear();
    EXPECT_EQ(parse_text(text, listed), RT_SUCCESS) << log.dump();
    EXPECT_TRUE(log.has_info("[RT_Impl][Info] [Domain_D00] existed in central data\n"))
        << log.dump();
}

TEST_F(CentralRegistrationTest, A25thDomainIsRefusedByCreationAndLeavesNoSegment) {
    std::string domains;
    for (int i = 0; i < 25; i++)
        domains += format(
            "%s    \"%s\": {\"Util\": 0, \"Cpuset\": \"0\", \"Class_C\": "
            "{\"Util\": 0, \"RT_Priority\": 1}}",
            i ? ",\n" : "", domain_name(i).c_str());
    qxt::install_config("full", qxt::config_with(1, 1024, 2, 80, 2, domains));
    ASSERT_EQ(QX_REALTIME_Init(0), RT_SUCCESS);
    // Creation lists each domain; eight fit this process's table, the others are listed before
    // the table refuses them, so the central lists fill up all the same.
    for (int i = 0; i < 24; i++) QX_REALTIME_CreateDomain(domain_name(i).c_str());
    ASSERT_EQ(pstTop->pstCentral->s32DomainNum, 24);
    LogCapture log;
    EXPECT_NE(QX_REALTIME_CreateDomain("Domain_D24"), RT_SUCCESS);
    EXPECT_TRUE(
        log.has_error("[RT_Impl][Err] [_QX_REALTIME_ParsingScope] Domain [Domain_D24] "
                      "can't be recorded: the central data holds at most 24 domains.\n"))
        << log.dump();
    EXPECT_FALSE(qxt::file_exists(RT_SHM_PREFIX "Domain_D24"));
    EXPECT_EQ(pstTop->pstCentral->s32DomainNum, 24);
}
