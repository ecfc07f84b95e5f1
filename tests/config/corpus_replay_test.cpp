// Every file of the configuration fuzz corpus goes through the readers of the configuration
// without a crash (the ASan + UBSan build checks memory safety on the same run), with messages
// formatted as at debug level 64.
#include "../../fuzz/config_input.h"
#include "config_support.h"

using qxt::LogCapture;
using namespace qxt;

TEST(ConfigCorpusReplayTest, EveryCorpusFileGoesThroughReaderParserAndCpuListReader) {
    QXT_REQUIRE_SANDBOX();
    init_with_central();
    std::vector<std::string> files = regular_files_in(QXRT_SOURCE_DIR "/fuzz/corpus/config");
    ASSERT_GE(files.size(), 10u) << "seed corpus missing";

    DomainRecord domain("Domain_Replay");
    const char *pszSavedPath = pstJsonPath;
    int parsed = 0;
    for (const std::string &file : files) {
        SCOPED_TRACE(file);
        // A fresh central record for each file, as a fresh system would have.
        memset(pstTop->pstCentral, 0, sizeof(QX_REALTIME_CENTRAL_t));
        LogCapture log;  // messages are formatted and kept, not printed
        pstJsonPath = file.c_str();
        parsed += qxrt_fuzz::run_config_file(file.c_str(), domain.get());
        // The parser never lists more than the central record holds.
        EXPECT_LE(pstTop->pstCentral->s32DomainNum, RT_MAX_DOMAIN);
        EXPECT_LE(domain->s32NextOffset, RT_SHM_SIZE);
    }
    pstJsonPath = pszSavedPath;
    EXPECT_GE(parsed, (int)files.size());
}
