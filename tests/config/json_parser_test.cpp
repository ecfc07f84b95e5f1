// The configuration parser on whole files: token array growth, scopes recognised by key order,
// values and their conversions, refused files, and what reaches pstTop and the central record.
#include <errno.h>
#include <pthread.h>

#include "config_support.h"

using qxt::format;
using qxt::LogCapture;
using namespace qxt;

namespace {

class ConfigParserTest : public ::testing::Test {
protected:
    void SetUp() override {
        QXT_REQUIRE_SANDBOX();
        init_with_central();
    }
};

int error_lines(const LogCapture &log) {
    int n = 0;
    for (const qxt::LogLine &line : log.lines())
        if (line.priority == QX_LOG_PRIO_ERROR) n++;
    return n;
}

std::string not_found_line(const std::string &domain, const std::string &path) {
    return format("[RT_Impl][Err] Failed to find Domain[%s] in Json[%s].\n", domain.c_str(),
                  path.c_str());
}

// A domain with `classes` RR classes: 6 tokens a class, 5 for the root and the domain.
std::string domain_with_classes(int classes) {
    std::string text = "{\n  \"Domain_Many\": {\n    \"Util\": 100";
    for (int i = 0; i < classes; i++)
        text += format(",\n    \"Class_%03d\": { \"Util\": %d, \"RT_Priority\": %d }", i, i + 1,
                       i % 99 + 1);
    return text + "\n  }\n}\n";
}

std::string grow_line(int from, int to) {
    return format("[RT_Impl][DBG] Prev Tok count = %d is not enough, enlarge it to %d.\n", from,
                  to);
}

}  // namespace

// ---- token array ----

TEST_F(ConfigParserTest, MoreThan160TokensEnlargeTheTokenArrayOnce) {
    DomainRecord domain("Domain_Many");
    LogCapture log;
    ASSERT_EQ(parse_text(domain_with_classes(30), domain), RT_SUCCESS) << log.dump();  // 185 tokens
    EXPECT_EQ(log.count(QX_LOG_PRIO_INFO, grow_line(160, 320)), 1) << log.dump();
    EXPECT_EQ(log.count_containing("is not enough"), 1) << log.dump();
    EXPECT_EQ(domain->s32ClassNum, 30);
    EXPECT_STREQ(domain.cls(29)->szClassName, "Class_029");
    EXPECT_EQ(domain.cls(29)->s32Util, 30);
}

TEST_F(ConfigParserTest, TokenArrayDoublesAsOftenAsNeededEachStepLoggedOnce) {
    DomainRecord domain("Domain_Many");
    LogCapture log;
    ASSERT_EQ(parse_text(domain_with_classes(120), domain), RT_SUCCESS) << log.dump();  // 725
    EXPECT_EQ(log.count(QX_LOG_PRIO_INFO, grow_line(160, 320)), 1) << log.dump();
    EXPECT_EQ(log.count(QX_LOG_PRIO_INFO, grow_line(320, 640)), 1) << log.dump();
    EXPECT_EQ(log.count(QX_LOG_PRIO_INFO, grow_line(640, 1280)), 1) << log.dump();
    EXPECT_EQ(log.count_containing("is not enough"), 3) << log.dump();
    EXPECT_EQ(error_lines(log), 0) << log.dump();
    // Tokenizing resumed where it stopped: every class is there, in order, with its values.
    ASSERT_EQ(domain->s32ClassNum, 120);
    for (int i = 0; i < 120; i++) {
        EXPECT_EQ(domain.cls(i)->s32ClassId, i);
        EXPECT_EQ(domain.cls(i)->s32Util, i + 1);
        EXPECT_EQ(domain.cls(i)->s32RtPriority, i % 99 + 1);
    }
    EXPECT_EQ(domain->s32UtilMax, 100);
}

TEST_F(ConfigParserTest, FewerThan160TokensNeedNoEnlargement) {
    DomainRecord domain("Domain_Many");
    LogCapture log;
    ASSERT_EQ(parse_text(domain_with_classes(25), domain), RT_SUCCESS);  // 155 tokens
    EXPECT_EQ(log.count_containing("is not enough"), 0) << log.dump();
}

// ---- scopes ----

TEST_F(ConfigParserTest, ClassRecordsAreAppendedAfterTheHeaderInFileOrder) {
    DomainRecord domain("Domain_A");
    ASSERT_EQ(parse_text(R"({"Domain_A": {"Util": 100, "Cpuset": "0",
        "Class_One": {"Util": 10, "RT_Priority": 5},
        "Class_Two": {"PerThreadUtil": 20, "RT_Priority": 6}}})",
                         domain),
              RT_SUCCESS);
    EXPECT_EQ(domain->s32ClassNum, 2);
    EXPECT_EQ(domain->s32ClassStartOffset, RT_DOMAIN_HEADER_SIZE);
    EXPECT_EQ(domain->s32NextOffset, RT_DOMAIN_HEADER_SIZE + 2 * RT_CLASS_SIZE);
    EXPECT_EQ(domain->s32ThreadStartOffset, RT_DOMAIN_HEADER_SIZE + 2 * RT_CLASS_SIZE);
    EXPECT_EQ(domain.cls(0)->s32ClassId, 0);
    EXPECT_STREQ(domain.cls(0)->szClassName, "Class_One");
    EXPECT_EQ(domain.cls(0)->s32Util, 10);
    EXPECT_EQ(domain.cls(1)->s32ClassId, 1);
    EXPECT_STREQ(domain.cls(1)->szClassName, "Class_Two");
    EXPECT_EQ(domain.cls(1)->s32Util, 20);
    EXPECT_EQ(domain.cls(1)->s32RtPriority, 6);
    EXPECT_EQ(domain->u32SchedType, RT_SCHED_TYPE_RR);
}

TEST_F(ConfigParserTest, ClassWrittenAfterItsDomainObjectStillBelongsToThatDomain) {
    DomainRecord domain("Domain_A");
    ASSERT_EQ(parse_text(R"({"Domain_A": {"Util": 100, "Cpuset": "0"},
        "Class_Late": {"Util": 10, "RT_Priority": 5},
        "Domain_B": {"Util": 50},
        "Class_OfB": {"Util": 1, "RT_Priority": 1}})",
                         domain),
              RT_SUCCESS);
    ASSERT_EQ(domain->s32ClassNum, 1);
    EXPECT_STREQ(domain.cls(0)->szClassName, "Class_Late");
}

TEST_F(ConfigParserTest, SecondDomainIsSkippedWithItsClasses) {
    const std::string text = R"({
        "Domain_A": {"Util": 100, "Cpuset": "0",
            "Class_A1": {"Util": 10, "RT_Priority": 5}},
        "Domain_B": {"Util": 200, "Cpuset": "1",
            "Class_B1": {"DL_RuntimeUs": 1000, "DL_DeadlineUs": 2000, "DL_PeriodUs": 4000},
            "Class_B2": {"DL_RuntimeUs": 10, "DL_DeadlineUs": 20, "DL_PeriodUs": 40}}
    })";
    DomainRecord a("Domain_A");
    LogCapture log;
    ASSERT_EQ(parse_text(text, a), RT_SUCCESS) << log.dump();
    EXPECT_TRUE(log.has_info("[RT_Impl][DBG] Skip Domain = [Domain_B]\n")) << log.dump();
    EXPECT_EQ(error_lines(log), 0) << log.dump();
    ASSERT_EQ(a->s32ClassNum, 1);
    EXPECT_STREQ(a.cls(0)->szClassName, "Class_A1");
    EXPECT_EQ(a->s32UtilMax, 100);
    EXPECT_STREQ(a->pszCpuset, "0");
    EXPECT_EQ(a->u32SchedType, RT_SCHED_TYPE_RR);

    DomainRecord b("Domain_B");
    log.clear();
    ASSERT_EQ(parse_text(text, b), RT_SUCCESS) << log.dump();
    EXPECT_TRUE(log.has_info("[RT_Impl][DBG] Skip Domain = [Domain_A]\n")) << log.dump();
    ASSERT_EQ(b->s32ClassNum, 2);
    EXPECT_STREQ(b.cls(0)->szClassName, "Class_B1");
    EXPECT_STREQ(b.cls(1)->szClassName, "Class_B2");
    EXPECT_EQ(b->s32UtilMax, 200);
    EXPECT_EQ(b->u32SchedType, RT_SCHED_TYPE_DEADLINE);
}

TEST_F(ConfigParserTest, DescriptionFirstInAClassHidesTheErrorsForAMisspeltKey) {
    DomainRecord domain("Domain_A");
    LogCapture log;
    ASSERT_EQ(parse_text(R"({"Domain_A": {"Util": 100, "Cpuset": "0",
        "Class_X": {"_description": "quiet class", "RT_Prioirty": 5, "Util": 7}}})",
                         domain),
              RT_SUCCESS);
    EXPECT_EQ(error_lines(log), 0) << log.dump();
    EXPECT_EQ(domain.cls(0)->s32Util, 7);  // known keys are still taken
    EXPECT_EQ(domain.cls(0)->s32RtPriority, 0);
}

TEST_F(ConfigParserTest, MisspeltClassKeyWithoutDescriptionIsComplainedAbout) {
    DomainRecord domain("Domain_A");
    LogCapture log;
    ASSERT_EQ(parse_text(R"({"Domain_A": {"Util": 100, "Cpuset": "0",
        "Class_X": {"RT_Prioirty": 5}}})",
                         domain),
              RT_SUCCESS);
    EXPECT_TRUE(
        log.has_error("[RT_Impl][Err] [_QX_REALTIME_ParsingString] Unknown str: "
                      "'RT_Prioirty'; ParsingStatus=[4].\n"))
        << log.dump();
    EXPECT_TRUE(log.has_error(
        "[RT_Impl][Err] [_QX_REALTIME_ParsingScope] Unknown Class: [5]; ParsingStatus=[4].\n"))
        << log.dump();
    EXPECT_EQ(error_lines(log), 2) << log.dump();
}

TEST_F(ConfigParserTest, DescriptionSilencesOnlyUntilTheNextScopeKey) {
    DomainRecord domain("Domain_A");
    LogCapture log;
    ASSERT_EQ(parse_text(R"({"Domain_A": {"Util": 100, "Cpuset": "0",
        "Class_X": {"_description": "quiet", "Typo": 1},
        "Class_Y": {"Typo": 2}}})",
                         domain),
              RT_SUCCESS);
    EXPECT_TRUE(log.has_error(
        "[RT_Impl][Err] [_QX_REALTIME_ParsingString] Unknown str: 'Typo'; ParsingStatus=[4].\n"))
        << log.dump();
    EXPECT_TRUE(log.has_error(
        "[RT_Impl][Err] [_QX_REALTIME_ParsingScope] Unknown Class: [2]; ParsingStatus=[4].\n"))
        << log.dump();
    EXPECT_EQ(error_lines(log), 2) << log.dump();
}

TEST_F(ConfigParserTest, DescriptionSilencesUnknownDomainValues) {
    DomainRecord domain("Domain_A");
    LogCapture log;
    ASSERT_EQ(parse_text(R"({"Domain_A": {"Util": 100, "Cpuset": "0", "Spare": 3}})", domain),
              RT_SUCCESS);
    EXPECT_TRUE(
        log.has_error("[RT_Impl][Err] [_QX_REALTIME_ParsingScope] Unknown Domain: [3]; "
                      "ParsingStatus = [2]\n"))
        << log.dump();

    DomainRecord quiet("Domain_Q");
    log.clear();
    ASSERT_EQ(parse_text(R"({"Domain_Q": {"_description": "d", "Util": 100, "Spare": 3}})", quiet),
              RT_SUCCESS);
    EXPECT_EQ(error_lines(log), 0) << log.dump();
}

TEST_F(ConfigParserTest, DomainKeyAfterAClassIsTakenAsAClassKey) {
    DomainRecord domain("Domain_A");
    LogCapture log;
    ASSERT_EQ(parse_text(R"({"Domain_A": {
        "Class_X": {"RT_Priority": 5},
        "Cpuset": "0-1",
        "Util": 300,
        "Reservation": 9}})",
                         domain),
              RT_SUCCESS);
    // Cpuset in the class scope: complained about, the domain keeps none.
    EXPECT_TRUE(
        log.has_error("[RT_Impl][Err] [_QX_REALTIME_ParsingString] Unknown str: '0-1'; "
                      "ParsingStatus=[516].\n"))
        << log.dump();
    EXPECT_STREQ(domain->pszCpuset, "");
    EXPECT_EQ(domain->s32CpuNum, 0);
    EXPECT_EQ(domain->u32CpuMask, 0u);
    // Util in the class scope is the class's Util, not the domain's.
    EXPECT_EQ(domain.cls(0)->s32Util, 300);
    EXPECT_EQ(domain->s32UtilMax, 0);
    EXPECT_EQ(pstTop->pstCentral->s32DomainNum, 0);
    // A value no class key asked for: the Cpuset bit still pending shows in the status.
    EXPECT_TRUE(
        log.has_error("[RT_Impl][Err] [_QX_REALTIME_ParsingScope] Unknown Class: [9]; "
                      "ParsingStatus=[548].\n"))
        << log.dump();
}

TEST_F(ConfigParserTest, DomainWhoseCpusetFollowsItsClassFailsCreationOnTheCpuCount) {
    qxt::install_config("late", qxt::config_with(1, 1024, 4, 80, 2, R"(
    "Domain_Late": {
        "Util": 100,
        "Class_X": {"Util": 10, "RT_Priority": 5},
        "Cpuset": "0"
    })"));
    ASSERT_EQ(QX_REALTIME_Init(0), RT_SUCCESS);
    LogCapture log;
    EXPECT_EQ(QX_REALTIME_CreateDomain("Domain_Late"), RT_ERR_FAILED);
    EXPECT_TRUE(
        log.has_error("[RT_Impl][Err] [_QX_REALTIME_ParsingString] Unknown str: '0'; "
                      "ParsingStatus=[516].\n"))
        << log.dump();
    EXPECT_TRUE(
        log.has_error("[RT_Impl][Err] [QX_REALTIME_CreateDomain_Impl] Domain [Domain_Late] "
                      "Cpuset = [] CpuMask = [0x0], CpuNum = [0]\n"))
        << log.dump();
    EXPECT_FALSE(qxt::file_exists(RT_SHM_PREFIX "Domain_Late"));
}

TEST_F(ConfigParserTest, StringValueBeginningWithDomainSwitchesTheScope) {
    DomainRecord domain("Domain_A");
    LogCapture log;
    ASSERT_EQ(parse_text(R"({"Domain_A": {
        "_description": "Domain_Backup mirrors this one",
        "Util": 100,
        "Cpuset": "1"}})",
                         domain),
              RT_SUCCESS);
    EXPECT_TRUE(log.has_info("[RT_Impl][DBG] Skip Domain = [Domain_Backup mirrors this one]\n"))
        << log.dump();
    EXPECT_EQ(domain->s32UtilMax, 0);
    EXPECT_STREQ(domain->pszCpuset, "");
    EXPECT_EQ(pstTop->pstCentral->s32DomainNum, 0);
}

TEST_F(ConfigParserTest, StringValueEqualToTheWantedDomainOpensItsScope) {
    DomainRecord domain("Domain_A");
    ASSERT_EQ(parse_text(R"({"Domain_B": {"_description": "Domain_A", "Util": 77}})", domain),
              RT_SUCCESS);
    EXPECT_EQ(domain->s32UtilMax, 77);
}

TEST_F(ConfigParserTest, StringValueBeginningWithSystemSwitchesToTheSystemScope) {
    DomainRecord domain("Domain_A");
    LogCapture log;
    ASSERT_EQ(parse_text(R"({"Domain_A": {
        "_description": "System_ wide budget applies",
        "Util": 300}})",
                         domain),
              RT_SUCCESS);
    EXPECT_TRUE(log.has_info("[RT_Impl][Info] (Global)  UtilMax per core = [300].\n"))
        << log.dump();
    EXPECT_EQ(pstTop->s32CapPerCore, 300);
    EXPECT_EQ(pstTop->pstCentral->s32CapPerCore, 300);
    EXPECT_EQ(domain->s32UtilMax, 0);
    EXPECT_EQ(pstTop->pstCentral->s32DomainNum, 0);
}

TEST_F(ConfigParserTest, DuplicateDomainKeyIsParsedTwiceAndTheLaterValuesWin) {
    DomainRecord domain("Domain_A");
    LogCapture log;
    ASSERT_EQ(parse_text(R"({
        "Domain_A": {"Util": 100, "Cpuset": "0",
            "Class_X": {"Util": 10, "RT_Priority": 5}},
        "Domain_A": {"Util": 200, "Cpuset": "1",
            "Class_X": {"Util": 20, "RT_Priority": 6}}})",
                         domain),
              RT_SUCCESS);
    ASSERT_EQ(domain->s32ClassNum, 2);
    EXPECT_STREQ(domain.cls(0)->szClassName, "Class_X");
    EXPECT_STREQ(domain.cls(1)->szClassName, "Class_X");
    EXPECT_EQ(domain.cls(0)->s32Util, 10);
    EXPECT_EQ(domain.cls(1)->s32Util, 20);
    EXPECT_EQ(domain.cls(1)->s32RtPriority, 6);
    EXPECT_EQ(domain->s32UtilMax, 200);
    EXPECT_STREQ(domain->pszCpuset, "1");
    EXPECT_EQ(domain->u32CpuMask, 0x2u);
    // Registered once, with the first value; the second is recognised as already there.
    QX_REALTIME_CENTRAL_t *central = pstTop->pstCentral;
    EXPECT_EQ(central->s32DomainNum, 1);
    EXPECT_EQ(central->s32UtilTotal, 100);
    EXPECT_EQ(central->s32DomainUtilList[0], 100);
    EXPECT_EQ(log.count(QX_LOG_PRIO_INFO, "[RT_Impl][Info] [Domain_A] existed in central data\n"),
              1)
        << log.dump();
    EXPECT_TRUE(log.has_info("[RT_Impl][Info] Domain [Domain_A] UtilMax = [100].\n"));
    EXPECT_TRUE(log.has_info("[RT_Impl][Info] Domain [Domain_A] UtilMax = [200].\n"));
}

// ---- values ----

TEST_F(ConfigParserTest, SystemValuesGoToTheTopObjectAndTheCentralRecord) {
    DomainRecord domain("Domain_A");
    _u32DbgLevel = RT_DBG_LEVEL_INFO;
    LogCapture log;
    ASSERT_EQ(parse_text(R"({"System_Anything": {"Enabled": 3, "Util": 900, "DbgLevel": 6,
        "Reservation": 70, "BudgetCpuNum": 5},
        "Domain_A": {"Util": 0, "Cpuset": "0"}})",
                         domain),
              RT_SUCCESS);
    QX_REALTIME_CENTRAL_t *central = pstTop->pstCentral;
    EXPECT_EQ(pstTop->s32CapPerCore, 900);
    EXPECT_EQ(central->s32CapPerCore, 900);
    EXPECT_EQ(pstTop->s32UtilReservation, 70);
    EXPECT_EQ(central->s32UtilReservation, 70);
    EXPECT_EQ(pstTop->s32BudgetCpuNum, 5);
    EXPECT_EQ(central->s32BudgetCpuNum, 5);
    EXPECT_EQ(pstTop->s32DbgLevel, 6);
    EXPECT_EQ(central->s32DbgLevel, 4);          // the parser writes DbgLevel to pstTop only
    EXPECT_EQ(_u32DbgLevel, RT_DBG_LEVEL_INFO);  // and does not change the running level
    EXPECT_EQ(pstTop->Enabled, 3u);
    EXPECT_EQ(central->u8Enabled, 1);  // Enabled too
    EXPECT_TRUE(log.has_info("[RT_Impl][Info] (Global)  Enabled = [3].\n")) << log.dump();
    EXPECT_TRUE(log.has_info("[RT_Impl][Info] (Global)  UtilMax per core = [900].\n"));
    EXPECT_TRUE(log.has_info("[RT_Impl][Info] (Global)  DbgLevel = [6].\n"));
    EXPECT_TRUE(log.has_info("[RT_Impl][Info] (Global)  Util Reservation = [70%].\n"));
    EXPECT_TRUE(log.has_info("[RT_Impl][Info] (Global)  BudgetCpuNum = [5].\n"));
    EXPECT_EQ(error_lines(log), 0) << log.dump();
}

TEST_F(ConfigParserTest, EnabledKeepsOnlyItsLowByte) {
    DomainRecord domain("Domain_A");
    ASSERT_EQ(parse_text(R"({"System_C": {"Enabled": 257}, "Domain_A": {"Util": 1}})", domain),
              RT_SUCCESS);
    EXPECT_EQ(pstTop->Enabled, 1u);
}

TEST_F(ConfigParserTest, UnknownSystemValueIsComplainedAboutEvenAfterADescription) {
    DomainRecord domain("Domain_A");
    LogCapture log;
    ASSERT_EQ(parse_text(R"({"System_C": {"_description": "s", "Spare": 5},
        "Domain_A": {"Util": 1}})",
                         domain),
              RT_SUCCESS);
    EXPECT_TRUE(log.has_error(
        "[RT_Impl][Err] [_QX_REALTIME_ParsingScope] Unknown System: [5]; ParsingStatus=[16387]\n"))
        << log.dump();
}

TEST_F(ConfigParserTest, CpusetInTheSystemScopeSetsTheDomainsCpuset) {
    DomainRecord domain("Domain_A");
    ASSERT_EQ(parse_text(R"({"System_C": {"Cpuset": "0-1"}, "Domain_A": {"Util": 1}})", domain),
              RT_SUCCESS);
    EXPECT_STREQ(domain->pszCpuset, "0-1");
    EXPECT_EQ(domain->s32CpuNum, 2);
    EXPECT_EQ(domain->u32CpuMask, 0x3u);
}

TEST_F(ConfigParserTest, EnabledWrittenAsTrueReadsZeroAndTurnsTheFrameworkOff) {
    DomainRecord domain("Domain_A");
    LogCapture log;
    ASSERT_EQ(parse_text(R"({"System_C": {"Enabled": true},
        "Domain_A": {"Util": 100, "Cpuset": "0", "Class_X": {"Util": 1, "RT_Priority": 1}}})",
                         domain),
              RT_SUCCESS);
    EXPECT_TRUE(log.has_info("[RT_Impl][Info] (Global)  Enabled = [0].\n")) << log.dump();
    EXPECT_EQ(pstTop->Enabled, 0u);
    // Off: creation succeeds having done nothing.
    EXPECT_EQ(QX_REALTIME_CreateDomain("Domain_A"), RT_SUCCESS);
    EXPECT_FALSE(qxt::file_exists(RT_SHM_PREFIX "Domain_A"));
}

TEST_F(ConfigParserTest, QuotedDomainUtilDoesNotSetTheDomainsUtil) {
    DomainRecord domain("Domain_A");
    LogCapture log;
    ASSERT_EQ(parse_text(R"({"Domain_A": {"Util": "512", "Cpuset": "1"}})", domain), RT_SUCCESS);
    EXPECT_EQ(domain->s32UtilMax, 0);
    EXPECT_EQ(pstTop->pstCentral->s32DomainNum, 0);
    EXPECT_EQ(pstTop->pstCentral->s32UtilTotal, 0);
    EXPECT_EQ(domain->s32CpuNum, 1);
    EXPECT_EQ(error_lines(log), 0) << log.dump();
}

TEST_F(ConfigParserTest, NumbersWrittenAsStringsOrLiteralsAreNotTakenAsNumbers) {
    DomainRecord domain("Domain_A");
    LogCapture log;
    // Each System_ value in its own scope: a value bit left pending would take the next number.
    ASSERT_EQ(parse_text(R"({
        "System_C1": {"Util": "2048"},
        "System_C2": {"Reservation": 50, "Reservation": true},
        "System_C3": {"BudgetCpuNum": 4, "BudgetCpuNum": null},
        "Domain_A": {"Util": false, "Cpuset": "0",
            "Class_S": {"RT_Priority": "90"},
            "Class_D": {"DL_RuntimeUs": true, "DL_PeriodUs": null}}})",
                         domain),
              RT_SUCCESS);
    EXPECT_EQ(pstTop->s32CapPerCore, 1024);  // the quoted value is ignored; Init's value stays
    EXPECT_EQ(pstTop->s32UtilReservation, 0);
    EXPECT_EQ(pstTop->s32BudgetCpuNum, 0);
    EXPECT_TRUE(log.has_info("[RT_Impl][Info] (Global)  Util Reservation = [0%].\n")) << log.dump();
    EXPECT_TRUE(log.has_info("[RT_Impl][Info] (Global)  BudgetCpuNum = [0].\n")) << log.dump();
    EXPECT_EQ(domain->s32UtilMax, 0);
    EXPECT_EQ(pstTop->pstCentral->s32DomainNum, 1);  // false is a number to the parser: 0
    EXPECT_TRUE(
        log.has_error("[RT_Impl][Err] [_QX_REALTIME_ParsingString] Unknown str: '90'; "
                      "ParsingStatus=[1028].\n"))
        << log.dump();
    EXPECT_EQ(domain.cls(0)->s32RtPriority, 0);
    EXPECT_EQ(domain.cls(1)->s32DlRuntimeUs, 0);
    EXPECT_EQ(domain.cls(1)->s32DlPeriodUs, 0);
    // A runtime of true still marks the domain deadline; the quoted priority marked nothing.
    EXPECT_EQ(domain->u32SchedType, RT_SCHED_TYPE_DEADLINE);
}

TEST_F(ConfigParserTest, ValueBitLeftPendingTakesTheNextNumberOfItsScope) {
    DomainRecord domain("Domain_A");
    ASSERT_EQ(parse_text(R"({"System_C": {"Util": "2048", "Reservation": 60},
        "Domain_A": {"Util": 5}})",
                         domain),
              RT_SUCCESS);
    // The quoted Util left its bit set: 60 is taken as the capacity, Reservation stays due.
    EXPECT_EQ(pstTop->s32CapPerCore, 60);
    EXPECT_EQ(pstTop->s32UtilReservation, 0);
}

TEST_F(ConfigParserTest, NumbersAreReadAsDecimalIntegers) {
    DomainRecord domain("Domain_A");
    ASSERT_EQ(parse_text(R"({"Domain_A": {"Util": 1.5, "Cpuset": "0",
        "Class_X": {"Util": -3, "DL_RuntimeUs": 12e3, "DL_DeadlineUs": 0x10, "DL_PeriodUs": 40000}}})",
                         domain),
              RT_SUCCESS);
    EXPECT_EQ(domain->s32UtilMax, 1);
    EXPECT_EQ(domain.cls(0)->s32Util, 0);  // the runtime clears it
    EXPECT_EQ(domain.cls(0)->s32DlRuntimeUs, 12);
    EXPECT_EQ(domain.cls(0)->s32DlDeadlineUs, 0);
    EXPECT_EQ(domain.cls(0)->s32DlPeriodUs, 40000);
}

TEST_F(ConfigParserTest, DeadlineRuntimeClearsTheClassUtilAndPriority) {
    DomainRecord domain("Domain_A");
    LogCapture log;
    ASSERT_EQ(parse_text(R"({"Domain_A": {"Util": 100, "Cpuset": "0",
        "Class_X": {"Util": 50, "DL_RuntimeUs": 1000, "DL_DeadlineUs": 2000, "DL_PeriodUs": 3000}}})",
                         domain),
              RT_SUCCESS);
    EXPECT_EQ(domain.cls(0)->s32Util, 0);
    EXPECT_EQ(domain.cls(0)->s32RtPriority, 0);
    EXPECT_EQ(domain.cls(0)->s32DlRuntimeUs, 1000);
    EXPECT_EQ(domain.cls(0)->s32DlDeadlineUs, 2000);
    EXPECT_EQ(domain.cls(0)->s32DlPeriodUs, 3000);
    EXPECT_EQ(domain->u32SchedType, RT_SCHED_TYPE_DEADLINE);
    EXPECT_TRUE(log.has_info("[RT_Impl][Info] Domain [Domain_A] is set as DEADLINE.\n"));
    EXPECT_TRUE(
        log.has_info("[RT_Impl][Info] Domain [Domain_A] Class [Class_X] DL_RuntimeUs = "
                     "[1000].\n"));
    EXPECT_TRUE(
        log.has_info("[RT_Impl][Info] Domain [Domain_A] Class [Class_X] DL_DeadlineUs = "
                     "[2000].\n"));
    EXPECT_TRUE(
        log.has_info("[RT_Impl][Info] Domain [Domain_A] Class [Class_X] DL_PeriodUs = "
                     "[3000].\n"));
}

TEST_F(ConfigParserTest, CpusetOfSixteenOrMoreCharactersIsKeptToFifteen) {
    DomainRecord domain("Domain_A");
    LogCapture log;
    ASSERT_EQ(parse_text(R"({"System_C": {"Util": 1024, "Reservation": 80},
        "Domain_A": {"Util": 100, "Cpuset": "0,1,2,3,4,5,6,7,8,9"}})",
                         domain),
              RT_SUCCESS);
    EXPECT_STREQ(domain->pszCpuset, "0,1,2,3,4,5,6,7");
    EXPECT_EQ(domain->s32CpuNum, 8);
    EXPECT_EQ(domain->u32CpuMask, 0xffu);
    EXPECT_TRUE(log.has_info(
        "[RT_Impl][Info] [_QX_REALTIME_ParsingString] Domain [Domain_A] Cpuset = "
        "[0,1,2,3,4,5,6,7] , CpuNum = [8], CpuMask = [0xff], CapabilityPerCore = 1024, "
        "CapabilityReservation = 80%\n"))
        << log.dump();
    // Nothing spilled into the field after it.
    EXPECT_EQ(domain->pszCpuset[RT_CPUSET_LEN - 1], '\0');
}

TEST_F(ConfigParserTest, RefusedCpuRangeLeavesTheDomainWithoutCpus) {
    DomainRecord domain("Domain_A");
    LogCapture log;
    ASSERT_EQ(parse_text(R"({"Domain_A": {"Util": 100, "Cpuset": "0-0"}})", domain), RT_SUCCESS);
    EXPECT_TRUE(
        log.has_error("[RT_Impl][Err] [_QX_REALTIME_ParseCpuSelection] 0-0 parsing error.\n"))
        << log.dump();
    EXPECT_STREQ(domain->pszCpuset, "0-0");
    EXPECT_EQ(domain->s32CpuNum, 0);
    EXPECT_EQ(domain->u32CpuMask, 0u);
}

// ---- names ----

TEST_F(ConfigParserTest, DomainNameOf63CharactersIsFoundAndRegistered) {
    std::string name = "Domain_" + std::string(56, 'n');
    ASSERT_EQ(name.size(), 63u);
    DomainRecord domain(name);
    ASSERT_EQ(parse_text("{\"" + name + "\": {\"Util\": 10}}", domain), RT_SUCCESS);
    EXPECT_EQ(domain->s32UtilMax, 10);
    EXPECT_EQ(std::string(pstTop->pstCentral->szDomainNameList[0]), name);
}

TEST_F(ConfigParserTest, DomainKeysOf64And200CharactersNeverMatchAStoredName) {
    for (size_t len : {64u, 200u}) {
        std::string key = "Domain_" + std::string(len - 7, 'n');
        DomainRecord domain(key);  // kept to 63 characters, as creation keeps it
        ASSERT_EQ(strlen(domain->szName), 63u);
        std::string path;
        LogCapture log;
        EXPECT_EQ(parse_text("{\"" + key + "\": {\"Util\": 10}}", domain, &path),
                  RT_ERR_INVALID_PARAM);
        EXPECT_TRUE(log.has_info("[RT_Impl][DBG] Skip Domain = [" + key + "]\n")) << log.dump();
        EXPECT_TRUE(log.has_error(not_found_line(domain->szName, path))) << log.dump();
        EXPECT_EQ(domain->s32UtilMax, 0);
    }
}

TEST_F(ConfigParserTest, ClassNamesAreKeptTo63Characters) {
    std::string c63 = "Class_" + std::string(57, 'a');
    std::string c64 = "Class_" + std::string(58, 'b');
    std::string c200 = "Class_" + std::string(194, 'c');
    DomainRecord domain("Domain_A");
    LogCapture log;
    ASSERT_EQ(parse_text("{\"Domain_A\": {\"Util\": 10, \"" + c63 + "\": {\"Util\": 1}, \"" + c64 +
                             "\": {\"Util\": 2}, \"" + c200 + "\": {\"Util\": 3}}}",
                         domain),
              RT_SUCCESS);
    ASSERT_EQ(domain->s32ClassNum, 3);
    EXPECT_EQ(std::string(domain.cls(0)->szClassName), c63);
    EXPECT_EQ(std::string(domain.cls(1)->szClassName), c64.substr(0, 63));
    EXPECT_EQ(std::string(domain.cls(2)->szClassName), c200.substr(0, 63));
    EXPECT_EQ(domain.cls(2)->s32Util, 3);
    EXPECT_TRUE(log.has_info("[RT_Impl][Info] Domain [Domain_A] Class [" + c200.substr(0, 63) +
                             "] Util = [3].\n"))
        << log.dump();
}

TEST_F(ConfigParserTest, UnknownStringOf200CharactersIsReportedWhole) {
    std::string value(200, 'v');
    DomainRecord domain("Domain_A");
    LogCapture log;
    ASSERT_EQ(
        parse_text("{\"Domain_A\": {\"Class_X\": {\"RT_Priority\": \"" + value + "\"}}}", domain),
        RT_SUCCESS);
    EXPECT_TRUE(log.has_error("[RT_Impl][Err] [_QX_REALTIME_ParsingString] Unknown str: '" + value +
                              "'; ParsingStatus=[1028].\n"))
        << log.dump();
}

// ---- refused files ----

TEST_F(ConfigParserTest, MixedRoundRobinAndDeadlineClassesAreRefused) {
    DomainRecord domain("Domain_M");
    std::string path;
    LogCapture log;
    EXPECT_EQ(parse_text(R"({"Domain_M": {"Util": 100, "Cpuset": "0",
        "Class_R": {"Util": 10, "RT_Priority": 5},
        "Class_D": {"DL_RuntimeUs": 1000, "DL_DeadlineUs": 2000, "DL_PeriodUs": 4000}}})",
                         domain, &path),
              RT_ERR_INVALID_PARAM);
    EXPECT_EQ(domain->u32SchedType, RT_SCHED_TYPE_BOTH);
    EXPECT_TRUE(log.has_info("[RT_Impl][Info] Domain [Domain_M] is set as RR.\n")) << log.dump();
    EXPECT_TRUE(
        log.has_error("[RT_Impl][Err] [_QX_REALTIME_ParsingScope] Undefined behavior! The "
                      "domain is already set as RR, and SHOULD NOT be set as DEADLINE.\n"))
        << log.dump();
    EXPECT_TRUE(log.has_error(
        format("[RT_Impl][Err] Please check [%s], the sched type of domain[Domain_M] is wrong.\n",
               path.c_str())))
        << log.dump();
    EXPECT_EQ(log.count_containing("Failed to find"), 0) << log.dump();
}

TEST_F(ConfigParserTest, DeadlineThenRoundRobinClassesAreRefused) {
    DomainRecord domain("Domain_M");
    std::string path;
    LogCapture log;
    EXPECT_EQ(parse_text(R"({"Domain_M": {"Util": 100, "Cpuset": "0",
        "Class_D": {"DL_RuntimeUs": 1000, "DL_DeadlineUs": 2000, "DL_PeriodUs": 4000},
        "Class_R": {"RT_Priority": 5}}})",
                         domain, &path),
              RT_ERR_INVALID_PARAM);
    EXPECT_EQ(domain->u32SchedType, RT_SCHED_TYPE_BOTH);
    EXPECT_TRUE(
        log.has_error("[RT_Impl][Err] [_QX_REALTIME_ParsingScope] Undefined behavior! The "
                      "domain is already set as DEADLINE, and SHOULD NOT be set as RR.\n"))
        << log.dump();
    EXPECT_TRUE(log.has_error(
        format("[RT_Impl][Err] Please check [%s], the sched type of domain[Domain_M] is wrong.\n",
               path.c_str())))
        << log.dump();
}

TEST_F(ConfigParserTest, ParsingErrorsNameTheWalkStepsInTheAndroidForm) {
    DomainRecord domain("Domain_A");
    LogCapture log;
    ASSERT_EQ(parse_text(R"({"Domain_A": {"Class_X": {"Typo": 1}}})", domain), RT_SUCCESS);
    int by_string = 0, by_scope = 0;
    for (const qxt::LogLine &line : log.lines()) {
        if (line.priority != QX_LOG_PRIO_ERROR) continue;
        if (line.message.rfind("<ERR>_QX_REALTIME_ParsingString[", 0) == 0) by_string++;
        if (line.message.rfind("<ERR>_QX_REALTIME_ParsingScope[", 0) == 0) by_scope++;
    }
    EXPECT_EQ(by_string, 1) << log.dump();
    EXPECT_EQ(by_scope, 1) << log.dump();
}

TEST_F(ConfigParserTest, MissingDomainIsNotFound) {
    DomainRecord domain("Domain_Absent");
    std::string path;
    LogCapture log;
    EXPECT_EQ(parse_text(R"({"Domain_A": {"Util": 100, "Cpuset": "0"}})", domain, &path),
              RT_ERR_INVALID_PARAM);
    EXPECT_TRUE(log.has_error(not_found_line("Domain_Absent", path))) << log.dump();
    EXPECT_EQ(pstTop->pstCentral->s32DomainNum, 0);
}

TEST_F(ConfigParserTest, TruncatedJsonIsReportedAsDomainNotFound) {
    DomainRecord domain("Domain_A");
    std::string path;
    LogCapture log;
    EXPECT_EQ(parse_text(R"({"Domain_A": {"Util": 100, "Cpuset": "0")", domain, &path),
              RT_ERR_INVALID_PARAM);
    EXPECT_TRUE(log.has_error(not_found_line("Domain_A", path))) << log.dump();
    // No token was walked.
    EXPECT_EQ(domain->s32UtilMax, 0);
    EXPECT_STREQ(domain->pszCpuset, "");
    EXPECT_EQ(pstTop->pstCentral->s32DomainNum, 0);
}

TEST_F(ConfigParserTest, MalformedJsonIsReportedAsDomainNotFound) {
    for (const char *text : {R"({"Domain_A": {"Util": 100]})", R"({"Domain_A": {"Util": "1}})", "]",
                             "{\"Domain_A\": {\"Util\": 100, \"Cpuset\": \"0\"}}}}"}) {
        DomainRecord domain("Domain_A");
        std::string path;
        LogCapture log;
        EXPECT_EQ(parse_text(text, domain, &path), RT_ERR_INVALID_PARAM) << text;
        EXPECT_TRUE(log.has_error(not_found_line("Domain_A", path))) << text << "\n" << log.dump();
        EXPECT_EQ(domain->s32UtilMax, 0) << text;
    }
}

TEST_F(ConfigParserTest, EmptyFileIsReportedAsDomainNotFound) {
    DomainRecord domain("Domain_A");
    std::string path;
    LogCapture log;
    EXPECT_EQ(parse_text("", domain, &path), RT_ERR_INVALID_PARAM);
    EXPECT_TRUE(log.has_error(not_found_line("Domain_A", path))) << log.dump();
    EXPECT_EQ(log.count_containing("Failed to open"), 0) << log.dump();
}

TEST_F(ConfigParserTest, MissingFileIsASystemError) {
    DomainRecord domain("Domain_A");
    const std::string path = "/vendor/etc/realtime/rt-missing.json";
    LogCapture log;
    EXPECT_EQ(_QX_REALTIME_JsonParser(path.c_str(), domain.get()), RT_ERR_SYSTEM);
    EXPECT_TRUE(
        log.has_error(format("[RT_Impl][Err] [_QX_REALTIME_FileReader] Failed to open %s: %s.\n",
                             path.c_str(), errno_text(ENOENT).c_str())))
        << log.dump();
    EXPECT_TRUE(log.has_error(
        format("[RT_Impl][Err] [_QX_REALTIME_JsonParser] Read %s failed.\n", path.c_str())))
        << log.dump();
    EXPECT_EQ(log.count_containing("Failed to find"), 0) << log.dump();
}

TEST_F(ConfigParserTest, UnreadableFileIsASystemError) {
    DomainRecord domain("Domain_A");
    const std::string path = write_config("{}") + "/below-a-file.json";
    LogCapture log;
    EXPECT_EQ(_QX_REALTIME_JsonParser(path.c_str(), domain.get()), RT_ERR_SYSTEM);
    EXPECT_TRUE(
        log.has_error(format("[RT_Impl][Err] [_QX_REALTIME_FileReader] Failed to open %s: %s.\n",
                             path.c_str(), errno_text(ENOTDIR).c_str())))
        << log.dump();
    EXPECT_TRUE(log.has_error(
        format("[RT_Impl][Err] [_QX_REALTIME_JsonParser] Read %s failed.\n", path.c_str())))
        << log.dump();
}

TEST_F(ConfigParserTest, DeeplyNestedValuesAreWalkedWithoutExhaustingTheStack) {
    // Far deeper than any configuration, parsed on a thread with a small stack (256 KiB): a walk
    // that recursed once per level would run off it; the walk must neither crash nor lose the
    // keys that follow the nesting.
    const int depth = 20000;
    std::string deep = std::string(depth, '[') + std::string(depth, ']');
    std::string path = write_config("{\"Domain_A\": {\"Util\": 100, \"Deep\": " + deep +
                                    ", \"Cpuset\": \"1\", \"Class_X\": {\"RT_Priority\": 3}}}");
    DomainRecord domain("Domain_A");
    struct Job {
        const char *path;
        QX_REALTIME_DOMAIN_t *domain;
        uint32_t ret;
    } job{path.c_str(), domain.get(), 0xffffffffu};
    _u32DbgLevel = RT_DBG_LEVEL_ERR;
    pthread_attr_t attr;
    ASSERT_EQ(pthread_attr_init(&attr), 0);
    ASSERT_EQ(pthread_attr_setstacksize(&attr, 256 * 1024), 0);
    pthread_t thread;
    ASSERT_EQ(pthread_create(
                  &thread, &attr,
                  [](void *arg) -> void * {
                      Job *j = (Job *)arg;
                      j->ret = _QX_REALTIME_JsonParser(j->path, j->domain);
                      return nullptr;
                  },
                  &job),
              0);
    pthread_join(thread, nullptr);
    pthread_attr_destroy(&attr);
    EXPECT_EQ(job.ret, RT_SUCCESS);
    EXPECT_EQ(domain->s32UtilMax, 100);
    EXPECT_STREQ(domain->pszCpuset, "1");
    ASSERT_EQ(domain->s32ClassNum, 1);
    EXPECT_EQ(domain.cls(0)->s32RtPriority, 3);
}

TEST_F(ConfigParserTest, WalkCountsTheTokensOfEachShape) {
    // The walk's count, on token arrays from the tokenizer itself.
    struct Case {
        const char *json;
        int expected;
    } cases[] = {
        {"{}", 1},
        {"[]", 1},
        {"\"text\"", 1},
        {"12", 1},
        {"{\"a\": 1, \"b\": [1, 2, {\"c\": null}]}", 10},
        {"[[[[]]]]", 4},
        {"{\"a\": {\"b\": {\"c\": {}}}}", 7},
    };
    for (const Case &c : cases) {
        jsmn_parser parser;
        jsmn_init(&parser);
        jsmntok_t toks[32];
        int n = jsmn_parse(&parser, c.json, strlen(c.json), toks, 32);
        ASSERT_GT(n, 0) << c.json;
        uint64_t status = 0;
        uint8_t found = 0;
        DomainRecord domain("Domain_A");
        EXPECT_EQ(_QX_JSMN_TokParsing(domain.get(), c.json, toks, &status, &found), c.expected)
            << c.json;
        EXPECT_EQ(n, c.expected) << c.json;
    }
}

TEST_F(ConfigParserTest, WalkOfASubtreeCountsOnlyThatSubtree) {
    const char *json =
        "{\"Domain_A\": {\"Util\": 5, \"Class_X\": {\"RT_Priority\": 7}}, \"Domain_B\": {}}";
    jsmn_parser parser;
    jsmn_init(&parser);
    jsmntok_t toks[32];
    ASSERT_EQ(jsmn_parse(&parser, json, strlen(json), toks, 32), 11);
    uint64_t status = 0;
    uint8_t found = 0;
    DomainRecord domain("Domain_A");
    // The key "Domain_A" alone, then its value object (7 tokens), as the object walk does it.
    EXPECT_EQ(_QX_JSMN_TokParsing(domain.get(), json, &toks[1], &status, &found), 1);
    EXPECT_EQ(found, 1);
    EXPECT_EQ(status, 0x2u);
    EXPECT_EQ(_QX_JSMN_TokParsing(domain.get(), json, &toks[2], &status, &found), 7);
    EXPECT_EQ(status, 0x4u);
    EXPECT_EQ(domain->s32UtilMax, 5);
    ASSERT_EQ(domain->s32ClassNum, 1);
    EXPECT_EQ(domain.cls(0)->s32RtPriority, 7);
}
