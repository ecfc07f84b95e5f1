// The configuration files we ship, and the documented audio/camera example, parse cleanly.
#include "config_support.h"

using qxt::LogCapture;
using namespace qxt;

namespace {

class ShippedConfigTest : public ::testing::Test {
protected:
    void SetUp() override {
        QXT_REQUIRE_SANDBOX();
        init_with_central();
    }

    // Parses every domain of the file at debug level 64; no line may be an error.
    void expect_every_domain_parses_cleanly(const std::string &path) {
        std::string text = qxt::read_file(path);
        ASSERT_FALSE(text.empty()) << path;
        std::vector<std::string> domains = domain_keys_of(text);
        ASSERT_FALSE(domains.empty()) << path;
        for (const std::string &name : domains) {
            DomainRecord domain(name);
            LogCapture log;
            EXPECT_EQ(_QX_REALTIME_JsonParser(path.c_str(), domain.get()), RT_SUCCESS)
                << name << "\n"
                << log.dump();
            int errors = 0;
            for (const qxt::LogLine &line : log.lines())
                if (line.priority == QX_LOG_PRIO_ERROR) errors++;
            EXPECT_EQ(errors, 0) << name << "\n" << log.dump();
            EXPECT_GE(domain->s32CpuNum, 1) << name;
            EXPECT_GE(domain->s32ClassNum, 1) << name;
            EXPECT_TRUE(domain->u32SchedType == RT_SCHED_TYPE_RR ||
                        domain->u32SchedType == RT_SCHED_TYPE_DEADLINE)
                << name;
        }
    }
};

const std::string kExample = QXRT_SOURCE_DIR "/tests/config/audio_camera_example.json";

}  // namespace

TEST_F(ShippedConfigTest, DefaultConfigurationParsesEveryDomainWithoutAnError) {
    expect_every_domain_parses_cleanly(QXRT_SOURCE_DIR "/config/rt-0.json");
}

TEST_F(ShippedConfigTest, VerifyOnlyConfigurationParsesEveryDomainWithoutAnError) {
    expect_every_domain_parses_cleanly(QXRT_SOURCE_DIR "/config/rt_verify_only.json");
}

TEST_F(ShippedConfigTest, DocumentedExampleParsesEveryDomainWithoutAnError) {
    expect_every_domain_parses_cleanly(kExample);
}

TEST_F(ShippedConfigTest, DocumentedExampleGivesTheDocumentedRecords) {
    DomainRecord audio("Domain_Audio"), camera("Domain_Camera");
    ASSERT_EQ(_QX_REALTIME_JsonParser(kExample.c_str(), audio.get()), RT_SUCCESS);
    ASSERT_EQ(_QX_REALTIME_JsonParser(kExample.c_str(), camera.get()), RT_SUCCESS);

    EXPECT_EQ(pstTop->Enabled, 1u);
    EXPECT_EQ(pstTop->s32CapPerCore, 1024);
    EXPECT_EQ(pstTop->s32DbgLevel, 2);
    EXPECT_EQ(pstTop->s32UtilReservation, 80);
    EXPECT_EQ(pstTop->s32BudgetCpuNum, 4);

    EXPECT_EQ(audio->s32UtilMax, 512);
    EXPECT_STREQ(audio->pszCpuset, "4-7");
    EXPECT_EQ(audio->s32CpuNum, 4);
    EXPECT_EQ(audio->u32CpuMask, 0xf0u);
    EXPECT_EQ(audio->u32SchedType, RT_SCHED_TYPE_RR);
    ASSERT_EQ(audio->s32ClassNum, 2);
    EXPECT_STREQ(audio.cls(0)->szClassName, "Class_Render");
    EXPECT_EQ(audio.cls(0)->s32Util, 100);
    EXPECT_EQ(audio.cls(0)->s32RtPriority, 90);
    EXPECT_STREQ(audio.cls(1)->szClassName, "Class_Mix");
    EXPECT_EQ(audio.cls(1)->s32Util, 50);
    EXPECT_EQ(audio.cls(1)->s32RtPriority, 80);

    EXPECT_EQ(camera->s32UtilMax, 1024);
    EXPECT_STREQ(camera->pszCpuset, "0,1,2,3");
    EXPECT_EQ(camera->s32CpuNum, 4);
    EXPECT_EQ(camera->u32CpuMask, 0xfu);
    EXPECT_EQ(camera->u32SchedType, RT_SCHED_TYPE_DEADLINE);
    ASSERT_EQ(camera->s32ClassNum, 1);
    EXPECT_STREQ(camera.cls(0)->szClassName, "Class_Isp");
    EXPECT_EQ(camera.cls(0)->s32DlRuntimeUs, 2000);
    EXPECT_EQ(camera.cls(0)->s32DlDeadlineUs, 8000);
    EXPECT_EQ(camera.cls(0)->s32DlPeriodUs, 16000);

    // The budget of the example: 1024 x 4 x 80 / 100, of which both domains book 1536.
    QX_REALTIME_CENTRAL_t *central = pstTop->pstCentral;
    EXPECT_EQ(central->s32BudgetCpuNum * central->s32CapPerCore * central->s32UtilReservation / 100,
              3276);
    EXPECT_EQ(central->s32UtilTotal, 1536);
    EXPECT_EQ(central->s32DomainNum, 2);
}

TEST_F(ShippedConfigTest, DocumentedExampleSuitsTheStartUpScan) {
    qxt::install_config("example", qxt::read_file(kExample));
    ASSERT_EQ(QX_REALTIME_Init(0), RT_SUCCESS);
    EXPECT_EQ(pstTop->s32CapPerCore, 1024);
    EXPECT_EQ(pstTop->Enabled, 1u);
    EXPECT_EQ(pstTop->s32DbgLevel, 2);
    EXPECT_EQ(_u32DbgLevel, RT_DBG_LEVEL_DEFAULT);
}
