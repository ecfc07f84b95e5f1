// QX_REALTIME_Init: choice of the configuration file, the central segment, the quick settings
// scan, the copy into the central record, and every failing path.
#include <sys/stat.h>

#include <vector>

#include "lifecycle_support.h"

using qxt::central_path;
using qxt::LogCapture;
using qxt::system_config;
using qxt::tid_text;

using Init = qxt::SandboxTest;

TEST_F(Init, Mode0WithoutPropertyReadsRt0Json) {
    qxt::clear_property(RT_PROP_CFG_NAME);
    qxt::write_file("/vendor/etc/realtime/rt-0.json", system_config(1, 777, 4));
    _u32DbgLevel = 64;
    LogCapture log;
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_Init(0));
    EXPECT_STREQ("/vendor/etc/realtime/rt-0.json", u8JsonPath);
    EXPECT_EQ((const char *)u8JsonPath, pstJsonPath);
    QXT_EXPECT_INFO(
        log, "[RT_Impl][Info] [QX_REALTIME_Init] JsonPath is /vendor/etc/realtime/rt-0.json\n");
    EXPECT_EQ(777, pstTop->s32CapPerCore);
    QX_REALTIME_CENTRAL_t *central = qxt::map_central_file();
    ASSERT_NE(nullptr, central);
    EXPECT_EQ(777, central->s32CapPerCore);
}

TEST_F(Init, EmptyPropertyValueFallsBackToRt0Json) {
    qxt::set_property(RT_PROP_CFG_NAME, "");
    qxt::write_file("/vendor/etc/realtime/rt-0.json", system_config(1, 777, 2));
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_Init(0));
    EXPECT_STREQ("/vendor/etc/realtime/rt-0.json", u8JsonPath);
}

TEST_F(Init, PropertyChoosesAnotherConfigurationFile) {
    qxt::write_file("/vendor/etc/realtime/rt-0.json", system_config(1, 777, 2));
    qxt::install_config("camera", system_config(1, 555, 2));
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_Init(0));
    EXPECT_STREQ("/vendor/etc/realtime/rt-camera.json", u8JsonPath);
    EXPECT_EQ(555, qxt::map_central_file()->s32CapPerCore);

    // The property is read afresh by every Init.
    qxt::install_config("audio", system_config(1, 333, 2));
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_Init(0));
    EXPECT_STREQ("/vendor/etc/realtime/rt-audio.json", u8JsonPath);
    EXPECT_EQ(333, qxt::map_central_file()->s32CapPerCore);
}

TEST_F(Init, Mode1ReadsVerifyOnlyConfiguration) {
    qxt::write_file("/vendor/etc/realtime/rt-0.json", system_config(1, 777, 2));
    qxt::install_verify_only_config(system_config(1, 999, 2));
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_Init(1));
    EXPECT_STREQ(RT_JSON_VERIFY_ONLY, pstJsonPath);
    EXPECT_STREQ("", u8JsonPath);
    EXPECT_EQ(999, qxt::map_central_file()->s32CapPerCore);
}

TEST_F(Init, Mode2InFreshProcessFailsWithoutCreatingCentralSegment) {
    qxt::write_file("/vendor/etc/realtime/rt-0.json", system_config(1, 777, 2));
    LogCapture log;
    EXPECT_EQ(RT_ERR_FAILED, QX_REALTIME_Init(2));
    EXPECT_EQ(1, log.count(QX_LOG_PRIO_ERROR,
                           "[RT_Impl][Err] [QX_REALTIME_Init] Unknown init mode: [2].\n"))
        << log.dump();
    EXPECT_FALSE(qxt::file_exists(central_path()));
    EXPECT_EQ(nullptr, pstTop);
    EXPECT_EQ(nullptr, pstJsonPath);
    qxt::expect_locks_free();
}

TEST_F(Init, Mode2LeavesExistingCentralSegmentUntouched) {
    QX_REALTIME_CENTRAL_t *central = nullptr;
    ASSERT_NO_FATAL_FAILURE(qxt::init_and_map(1, 777, 2, &central));
    central->s32UtilReservation = 55;
    central->s32DbgLevel = 6;
    std::vector<char> before((char *)central, (char *)central + RT_SHM_SIZE);
    // A configuration that would change every setting, were it read.
    qxt::write_file("/vendor/etc/realtime/rt-0.json", system_config(0, 111, 4));
    uint32_t level = _u32DbgLevel;

    EXPECT_EQ(RT_ERR_FAILED, QX_REALTIME_Init(2));
    EXPECT_EQ(0, memcmp(before.data(), central, RT_SHM_SIZE));
    EXPECT_EQ(level, _u32DbgLevel);
    EXPECT_EQ(777, pstTop->s32CapPerCore);
    qxt::expect_locks_free();
}

// "/vendor/etc/realtime/rt-" + name + ".json" is formatted into the 64-byte u8JsonPath by the
// bounded formatter, which does not report a cut: a longer path is cut to its first 63
// characters and the file of that name is the one read.
TEST_F(Init, ConfigurationPathTooLongForItsBufferIsCutTo63Characters) {
    const std::string name(60, 'c');
    const std::string cut = "/vendor/etc/realtime/rt-" + name.substr(0, 39);
    ASSERT_EQ(63u, cut.size());
    qxt::set_property(RT_PROP_CFG_NAME, name);

    // No file of the cut name yet: the scan fails on it, as on any missing configuration.
    LogCapture log;
    EXPECT_EQ(RT_ERR_INVALID_PARAM, QX_REALTIME_Init(0));
    std::vector<std::string> expected = {
        "[RT_Impl][Err] [_QX_REALTIME_GetCapability] Can't open " + cut +
            ", errno=No such file or directory\n",
        "[RT_Impl][Err] [QX_REALTIME_Init] _QX_REALTIME_GetCapability() return 12\n"};
    std::vector<std::string> errors;
    for (const qxt::LogLine &line : log.lines())
        if (line.priority == QX_LOG_PRIO_ERROR) errors.push_back(line.file_form());
    EXPECT_EQ(expected, errors) << log.dump();
    EXPECT_EQ(cut, std::string(u8JsonPath));
    EXPECT_EQ((const char *)u8JsonPath, pstJsonPath);
    qxt::expect_locks_free();

    // With the file of the cut name in place, that file is read.
    qxt::write_file(cut, system_config(1, 432, 2));
    _u32DbgLevel = 64;
    log.clear();
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_Init(0));
    EXPECT_EQ(cut, std::string(u8JsonPath));
    EXPECT_EQ('\0', u8JsonPath[63]);
    QXT_EXPECT_INFO(log, "[RT_Impl][Info] [QX_REALTIME_Init] JsonPath is " + cut + "\n");
    EXPECT_EQ(432, qxt::map_central_file()->s32CapPerCore);
    EXPECT_EQ(432, pstTop->s32CapPerCore);
    qxt::expect_locks_free();
}

// One character more than fits: ".json" loses its last character.
TEST_F(Init, ConfigurationPathOneCharacterTooLongLosesItsLast) {
    qxt::set_property(RT_PROP_CFG_NAME, std::string(35, 'n'));
    const std::string cut = "/vendor/etc/realtime/rt-" + std::string(35, 'n') + ".jso";
    ASSERT_EQ(63u, cut.size());
    qxt::write_file(cut, system_config(1, 123, 2));
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_Init(0));
    EXPECT_EQ(cut, std::string(u8JsonPath));
    EXPECT_EQ(123, qxt::map_central_file()->s32CapPerCore);

    // One byte shorter fits exactly (63 characters) and is used whole.
    std::string name(34, 'n');
    qxt::install_config(name, system_config(1, 321, 2));
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_Init(0));
    EXPECT_EQ(63u, strlen(u8JsonPath));
    EXPECT_EQ("/vendor/etc/realtime/rt-" + name + ".json", std::string(u8JsonPath));
    EXPECT_EQ(321, qxt::map_central_file()->s32CapPerCore);
}

TEST_F(Init, MissingConfigurationReturnsInvalidParam) {
    LogCapture log;
    EXPECT_EQ(RT_ERR_INVALID_PARAM, QX_REALTIME_Init(0));
    QXT_EXPECT_ERROR(log,
                     "[RT_Impl][Err] [_QX_REALTIME_GetCapability] Can't open "
                     "/vendor/etc/realtime/rt-0.json, errno=No such file or directory\n");
    QXT_EXPECT_ERROR(log,
                     "[RT_Impl][Err] [QX_REALTIME_Init] _QX_REALTIME_GetCapability() return 12\n");
    // The central segment was set up before the scan and stays; no setting reached it.
    ASSERT_NE(nullptr, pstTop);
    QX_REALTIME_CENTRAL_t *central = qxt::map_central_file();
    ASSERT_NE(nullptr, central);
    EXPECT_EQ(0, central->s32CapPerCore);
    EXPECT_EQ(0, central->s32DbgLevel);
    EXPECT_EQ(32u, _u32DbgLevel);
    qxt::expect_locks_free();
}

TEST_F(Init, CopiesSettingsIntoCentralRecord) {
    QX_REALTIME_CENTRAL_t *central = nullptr;
    ASSERT_NO_FATAL_FAILURE(qxt::init_and_map(1, 1024, 2, &central));
    EXPECT_EQ(1024, central->s32CapPerCore);
    EXPECT_EQ(2, central->s32DbgLevel);
    EXPECT_EQ(1, central->u8Enabled);
    EXPECT_EQ(0, central->s32UtilReservation);

    // What others stored is overwritten; what Init does not own is left alone. The reservation
    // copied is this process's own (0 until a full parse), so it resets the central value.
    central->s32UtilReservation = 55;
    central->s32BudgetCpuNum = 3;
    central->s32UtilTotal = 700;
    central->s32DbgLevel = 64;
    central->au8Reserved[0] = 0xAA;
    qxt::write_file("/vendor/etc/realtime/rt-0.json",
                    "{\n  \"System_Config\": {\n    \"Enabled\": 257,\n    \"Util\": 2048,\n"
                    "    \"DbgLevel\": 5\n  }\n}\n");
    _u32DbgLevel = 64;
    LogCapture log;
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_Init(0));
    EXPECT_EQ(2048, central->s32CapPerCore);
    EXPECT_EQ(5, central->s32DbgLevel);
    EXPECT_EQ(1, central->u8Enabled);  // the low byte of 257
    EXPECT_EQ(0xAA, central->au8Reserved[0]);
    EXPECT_EQ(0, central->s32UtilReservation);
    EXPECT_EQ(3, central->s32BudgetCpuNum);
    EXPECT_EQ(700, central->s32UtilTotal);
    EXPECT_EQ(80u, _u32DbgLevel);
    QXT_EXPECT_INFO(
        log,
        "[RT_Impl][Info] [_QX_REALTIME_GetCapability] CapPerCore = 2048, Enable=1, DbgLevel=5\n");
}

TEST_F(Init, SettingsScanTakesLastValueBeforeAllKeysAreSeen) {
    // No "Enabled" in the system scope: the scan runs on into the domains, and a domain's
    // "Util" overwrites the system value until all three keys have been seen.
    qxt::write_file(
        "/vendor/etc/realtime/rt-0.json",
        "{\n  \"System_Config\": {\n    \"Util\": 1024,\n    \"DbgLevel\": 2\n  },\n"
        "  \"Domain_A\": {\n    \"Util\": 300,\n    \"Enabled\": 1,\n    \"Util\": 400\n  }\n}\n");
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_Init(0));
    EXPECT_EQ(300, pstTop->s32CapPerCore);
    EXPECT_EQ(1u, pstTop->Enabled);
}

TEST_F(Init, SecondInitRereadsSettingsAndReusesTopObjectAndMapping) {
    qxt::write_file("/vendor/etc/realtime/rt-0.json", system_config(1, 1024, 2));
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_Init(0));
    QX_REALTIME_TOP_t *top = pstTop;
    QX_REALTIME_CENTRAL_t *central = pstTop->pstCentral;
    int32_t fd = pstTop->s32ShmFd;
    ASSERT_EQ(32u, _u32DbgLevel);

    qxt::write_file("/vendor/etc/realtime/rt-0.json", system_config(1, 2000, 4));
    LogCapture log;
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_Init(0));
    EXPECT_EQ(top, pstTop);
    EXPECT_EQ(central, pstTop->pstCentral);
    EXPECT_EQ(fd, pstTop->s32ShmFd);
    EXPECT_EQ(64u, _u32DbgLevel);
    EXPECT_EQ(2000, central->s32CapPerCore);
    EXPECT_EQ(4, central->s32DbgLevel);
    // No segment was created or opened again.
    EXPECT_EQ(0, log.count_containing("_QX_REALTIME_SharedMemoryAlloc")) << log.dump();
    QXT_EXPECT_INFO(log, "[RT_Impl][DBG] [QX_REALTIME_Init] exit, OK.\n");
}

TEST_F(Init, DbgLevel9SetsLevel32) {
    qxt::write_file("/vendor/etc/realtime/rt-0.json", system_config(1, 1024, 9));
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_Init(0));
    EXPECT_EQ(32u, _u32DbgLevel);
    EXPECT_EQ(9, qxt::map_central_file()->s32DbgLevel);
    EXPECT_EQ(nullptr, rtlog);
}

TEST_F(Init, DbgLevel7CreatesPerProcessLogFileAndSetsLevel241) {
    qxt::write_file("/vendor/etc/realtime/rt-0.json", system_config(1, 1024, 7));
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_Init(0));
    EXPECT_EQ(241u, _u32DbgLevel);
    ASSERT_NE(nullptr, rtlog);
    EXPECT_TRUE(qxt::file_exists(qxt::own_log_file())) << qxt::own_log_file();
    // A later Init opens it again (truncating); the earlier stream is not closed.
    FILE *first = rtlog;
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_Init(0));
    EXPECT_NE(first, rtlog);
    EXPECT_EQ("[RT_Impl][DBG] [QX_REALTIME_Init] exit, OK.\n", qxt::read_file(qxt::own_log_file()));
}

TEST_F(Init, LogFileThatCannotBeOpenedReturnsSystemErrorWithSettingsStored) {
    qxt::write_file("/vendor/etc/realtime/rt-0.json", system_config(1, 1024, 2));
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_Init(0));
    // The log file name is fixed by the top object: put a directory in its place.
    ASSERT_EQ(0, mkdir(qxt::own_log_file().c_str(), 0755));
    qxt::write_file("/vendor/etc/realtime/rt-0.json", system_config(1, 4096, 7));
    EXPECT_EQ(RT_ERR_SYSTEM, QX_REALTIME_Init(0));
    EXPECT_EQ(241u, _u32DbgLevel);
    EXPECT_EQ(nullptr, rtlog);
    EXPECT_EQ(4096, qxt::map_central_file()->s32CapPerCore);
    EXPECT_EQ(7, qxt::map_central_file()->s32DbgLevel);
    qxt::expect_locks_free();
}

TEST_F(Init, LockFileFailureReturnsFailedWhileExitTraceSaysErr12) {
    qxt::write_file("/vendor/etc/realtime/rt-0.json", system_config(1, 1024, 2));
    ASSERT_EQ(0, mkdir(qxt::central_lock_path(), 0755));
    _u32DbgLevel = 64;
    LogCapture log;
    EXPECT_EQ(RT_ERR_FAILED, QX_REALTIME_Init(0));
    QXT_EXPECT_ERROR(log, qxt::global_flock_open_failed("Is a directory"));
    QXT_EXPECT_INFO(log, "[RT_Impl][DBG] [QX_REALTIME_Init] exit, err=12.\n");
    EXPECT_EQ(0, log.count_containing("exit, err=4.")) << log.dump();
    EXPECT_EQ(nullptr, pstTop);
    EXPECT_FALSE(qxt::file_exists(central_path()));
    EXPECT_TRUE(qxt::process_mutex_is_free());
}

TEST_F(Init, MissingLockDirectoryReturnsFailed) {
    qxt::write_file("/vendor/etc/realtime/rt-0.json", system_config(1, 1024, 2));
    ASSERT_EQ(0, rmdir("/data/vendor/realtime"));
    LogCapture log;
    EXPECT_EQ(RT_ERR_FAILED, QX_REALTIME_Init(0));
    QXT_EXPECT_ERROR(log, qxt::global_flock_open_failed("No such file or directory"));
    // The library never creates its directories.
    EXPECT_FALSE(qxt::file_exists("/data/vendor/realtime"));
}

TEST_F(Init, CentralSegmentThatCannotBeOpenedFailsAndRetrySucceeds) {
    qxt::write_file("/vendor/etc/realtime/rt-0.json", system_config(1, 1024, 2));
    ASSERT_EQ(0, mkdir(central_path(), 0755));
    LogCapture log;
    EXPECT_EQ(RT_ERR_FAILED, QX_REALTIME_Init(0));
    QXT_EXPECT_ERROR(log, "[RT_Impl][Err] [QX_REALTIME_Init] shared memory initialization fails\n");
    QXT_EXPECT_ERROR(
        log, qxt::format("[RT_Impl][Err] [_QX_REALTIME_SharedMemoryAlloc][PID=%d][TID=%s] shm_open "
                         "(/dev/shm/realtime/rt_Global) return -1, errno=Is a directory\n",
                         getpid(), tid_text().c_str()));
    // The top object stays allocated; a later Init maps the segment into it.
    ASSERT_NE(nullptr, pstTop);
    QX_REALTIME_TOP_t *top = pstTop;
    qxt::expect_locks_free();

    ASSERT_EQ(0, rmdir(central_path()));
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_Init(0));
    EXPECT_EQ(top, pstTop);
    ASSERT_NE(nullptr, pstTop->pstCentral);
    EXPECT_EQ(1024, pstTop->pstCentral->s32CapPerCore);
}

TEST_F(Init, ReleasesLockFileAndMutexOnSuccess) {
    qxt::write_file("/vendor/etc/realtime/rt-0.json", system_config(1, 1024, 2));
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_Init(0));
    qxt::expect_locks_free();
    // Only the central segment's descriptor stays open.
    struct stat st;
    ASSERT_EQ(0, fstat(pstTop->s32ShmFd, &st));
    EXPECT_EQ(RT_SHM_SIZE, st.st_size);
}

using SelfTest = qxt::SandboxTest;

TEST_F(SelfTest, ReturnsSuccessAndDoesNothing) {
    _u32DbgLevel = 241;
    LogCapture log;
    EXPECT_EQ(RT_SUCCESS, QX_REALTIME_SelfTest());
    QXT_EXPECT_SILENT(log);
    EXPECT_EQ(nullptr, pstTop);
    EXPECT_FALSE(qxt::file_exists(central_path()));
    EXPECT_FALSE(qxt::file_exists(qxt::central_lock_path()));
}
