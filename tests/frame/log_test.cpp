// Diagnostics: debug levels, the two forms of every message, where each one goes, the entry and
// exit traces, and the per-process log file.
#include <dirent.h>

#include <regex>
#include <string>
#include <vector>

#include "test_support.h"

using qxt::LogCapture;

namespace {

std::string tid_text() {
    return std::to_string(qx_gettid());
}

// Installs a configuration with only the system scope and the given DbgLevel.
void install_level(int dbg_level) {
    qxt::install_config("frame", qxt::config_with(1, 1024, dbg_level, 80, 2, ""));
}

// The library initialised on DbgLevel dbg_level, which it maps to the internal level.
void init_at(int dbg_level, uint32_t level) {
    install_level(dbg_level);
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_Init(0));
    ASSERT_EQ(level, _u32DbgLevel);
}

std::vector<std::string> rtlog_files() {
    std::vector<std::string> out;
    DIR *dir = opendir("/data/vendor/realtime");
    if (dir == nullptr) return out;
    while (struct dirent *e = readdir(dir))
        if (strncmp(e->d_name, "rtlog_", 6) == 0) out.push_back(e->d_name);
    closedir(dir);
    return out;
}

std::string own_log_file() {
    return std::string(RT_LOG_FILE_PREFIX) + std::to_string((int32_t)(intptr_t)pstTop);
}

const char kUnknownMode[] = "[RT_Impl][Err] [QX_REALTIME_Init] Unknown init mode: [2].\n";

// Opens the log file (DbgLevel 7), then lowers the level through the configuration and checks
// that an error reaches neither the file nor the Android log.
void expect_silence_at(int dbg_level, uint32_t expected_level) {
    install_level(7);
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_Init(0));
    ASSERT_NE(nullptr, rtlog);
    std::string file = own_log_file();
    install_level(dbg_level);
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_Init(0));
    ASSERT_EQ(expected_level, _u32DbgLevel);
    std::string before = qxt::read_file(file);

    LogCapture log;
    EXPECT_EQ(RT_ERR_FAILED, QX_REALTIME_Init(2));
    RT_LOGE("[RT_Impl][Err] [%s] direct error\n", "test");
    QXT_EXPECT_SILENT(log);
    EXPECT_EQ(before, qxt::read_file(file));
}

int g_evaluations = 0;
int counted_argument() {
    return ++g_evaluations;
}

}  // namespace

TEST(DiagnosticsLog, NothingIsWrittenAnywhereAtLevel0) {
    QXT_REQUIRE_SANDBOX();
    expect_silence_at(0, 0u);
}

TEST(DiagnosticsLog, NothingIsWrittenAnywhereAtLevel16) {
    QXT_REQUIRE_SANDBOX();
    expect_silence_at(1, 16u);
}

TEST(DiagnosticsLog, Level241WithoutLogFileWritesOnlyToAndroidLog) {
    QXT_REQUIRE_SANDBOX();
    install_level(4);
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_Init(0));
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_SetDebugLevel(241));
    ASSERT_EQ(241u, _u32DbgLevel);
    ASSERT_EQ(nullptr, rtlog);

    LogCapture log;
    EXPECT_EQ(RT_ERR_FAILED, QX_REALTIME_Init(2));
    EXPECT_EQ(1, log.count(QX_LOG_PRIO_ERROR, kUnknownMode)) << log.dump();
    QXT_EXPECT_INFO(log, qxt::format("[RT_Impl][DBG] [QX_REALTIME_Init] enter: pid=%d, tid=%s;\n",
                                     getpid(), tid_text().c_str()));
    QXT_EXPECT_INFO(log, "[RT_Impl][DBG] [QX_REALTIME_Init] exit, err=4.\n");
    EXPECT_EQ(nullptr, rtlog);
    EXPECT_TRUE(rtlog_files().empty());
}

TEST(DiagnosticsLog, AttachingAtDbgLevel7GivesLevel241WithoutLogFile) {
    QXT_REQUIRE_SANDBOX();
    install_level(7);
    // Another process initialises at DbgLevel 7 and gets its own log file.
    ASSERT_EQ(0,
              qxt::run_in_child([] { return QX_REALTIME_Init(0) == RT_SUCCESS && rtlog ? 0 : 1; }));
    ASSERT_EQ(1u, rtlog_files().size());

    LogCapture log;
    int32_t fd = -1;
    ASSERT_EQ(RT_SUCCESS, _QX_REALTIME_GetCentralAndTop(&fd));
    close(fd);
    EXPECT_EQ(241u, _u32DbgLevel);
    EXPECT_EQ(nullptr, rtlog);
    EXPECT_EQ(1u, rtlog_files().size());
    QXT_EXPECT_INFO(log, qxt::format("[RT_Impl][Info] [_QX_REALTIME_GetCentralShm][PID=%d][TID=%s] "
                                     "shm exists. mmap=%p, s32ShmFd=%d\n",
                                     getpid(), tid_text().c_str(), (void *)pstTop->pstCentral,
                                     pstTop->s32ShmFd));
}

TEST(DiagnosticsLog, DbgLevel2And9AndNegativeAllGiveLevel32) {
    QXT_REQUIRE_SANDBOX();
    for (int dbg : {2, 9, -3}) {
        install_level(dbg);
        ASSERT_EQ(RT_SUCCESS, QX_REALTIME_Init(0)) << dbg;
        EXPECT_EQ(32u, _u32DbgLevel) << dbg;
        LogCapture log;
        EXPECT_EQ(RT_ERR_FAILED, QX_REALTIME_Init(2));
        // Errors only: the error line and nothing else.
        EXPECT_EQ(1u, log.lines().size()) << dbg << log.dump();
        EXPECT_TRUE(log.has_error(kUnknownMode)) << dbg << log.dump();
    }
}

TEST(DiagnosticsLog, ConfiguredDbgLevelMapsToInternalLevel) {
    QXT_REQUIRE_SANDBOX();
    const uint32_t expected[] = {0, 16, 32, 48, 64, 80, 240, 241, 32, 32};
    for (int dbg = 0; dbg <= 9; dbg++) {
        install_level(dbg);
        ASSERT_EQ(RT_SUCCESS, QX_REALTIME_Init(0)) << dbg;
        EXPECT_EQ(expected[dbg], _u32DbgLevel) << "DbgLevel " << dbg;
    }
}

TEST(DiagnosticsLog, InfoIsDroppedAndErrorDeliveredAtLevel48) {
    QXT_REQUIRE_SANDBOX();
    ASSERT_NO_FATAL_FAILURE(init_at(3, 48));
    LogCapture log;
    EXPECT_EQ(RT_ERR_FAILED, QX_REALTIME_Init(2));
    RT_LOGI("[RT_Impl][Info] [%s] direct info\n", "test");
    ASSERT_EQ(1u, log.lines().size()) << log.dump();
    EXPECT_EQ(1, log.count(QX_LOG_PRIO_ERROR, kUnknownMode)) << log.dump();
}

TEST(DiagnosticsLog, Level64DeliversInfoAndDebugAtInfoPriorityWithoutTraceLine) {
    QXT_REQUIRE_SANDBOX();
    ASSERT_NO_FATAL_FAILURE(init_at(4, 64));
    LogCapture log;
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_Init(0));
    QXT_EXPECT_INFO(log, qxt::format("[RT_Impl][DBG] [QX_REALTIME_Init] enter: pid=%d, tid=%s;\n",
                                     getpid(), tid_text().c_str()));
    QXT_EXPECT_INFO(
        log, "[RT_Impl][Info] [QX_REALTIME_Init] JsonPath is /vendor/etc/realtime/rt-frame.json\n");
    QXT_EXPECT_INFO(
        log,
        "[RT_Impl][Info] [_QX_REALTIME_GetCapability] CapPerCore = 1024, Enable=1, DbgLevel=4\n");
    QXT_EXPECT_INFO(log, "[RT_Impl][DBG] [QX_REALTIME_Init] exit, OK.\n");
    EXPECT_EQ(0, log.count_containing(">>>")) << log.dump();
    for (const qxt::LogLine &line : log.lines()) {
        EXPECT_EQ("<QXT>", line.tag);
        EXPECT_EQ(0u, line.message.rfind("<INFO>[RT_Impl][", 0)) << line.message;
    }
}

TEST(DiagnosticsLog, TraceLineFollowsEntryMessageAtLevel240) {
    QXT_REQUIRE_SANDBOX();
    ASSERT_NO_FATAL_FAILURE(init_at(6, 240));
    LogCapture log;
    EXPECT_EQ(RT_ERR_FAILED, QX_REALTIME_Init(2));
    std::vector<qxt::LogLine> lines = log.lines();
    ASSERT_GE(lines.size(), 2u) << log.dump();
    EXPECT_EQ(qxt::format("<INFO>[RT_Impl][DBG] [QX_REALTIME_Init] enter: pid=%d, tid=%s;\n",
                          getpid(), tid_text().c_str()),
              lines[0].message);
    EXPECT_TRUE(
        std::regex_match(lines[1].message, std::regex("<INFO>>>>QX_REALTIME_Init\\[[0-9]+\\] \n")))
        << lines[1].message;
    EXPECT_EQ(QX_LOG_PRIO_INFO, lines[1].priority);
    EXPECT_EQ("<QXT>", lines[1].tag);
    EXPECT_EQ(1, log.count_containing(">>>")) << log.dump();
}

TEST(DiagnosticsLog, LogFileAtDbgLevel7HoldsEveryMessageWhenTheCallReturns) {
    QXT_REQUIRE_SANDBOX();
    ASSERT_NO_FATAL_FAILURE(init_at(7, 241));
    ASSERT_NE(nullptr, rtlog);
    std::string file = own_log_file();
    ASSERT_TRUE(qxt::file_exists(file)) << file;
    EXPECT_EQ(std::vector<std::string>{file.substr(strlen("/data/vendor/realtime/"))},
              rtlog_files());
    // Opened during Init: the exit message of that call is already on disk.
    std::string after_init = qxt::read_file(file);
    EXPECT_EQ("[RT_Impl][DBG] [QX_REALTIME_Init] exit, OK.\n", after_init);

    LogCapture log;
    EXPECT_EQ(RT_ERR_FAILED, QX_REALTIME_Init(2));
    // Entry, the lock file opened again, the error, the exit: each on disk as the call returns.
    std::string expected_tail =
        qxt::format("[RT_Impl][DBG] [QX_REALTIME_Init] enter: pid=%d, tid=%s;\n", getpid(),
                    tid_text().c_str()) +
        qxt::format(
            "[RT_Impl][Info] [_QX_REALTIME_GetFlock][PID=%d][TID=%s] flock open "
            "(/data/vendor/realtime/flock_rt_Global) return FD, open existed.\n",
            getpid(), tid_text().c_str()) +
        kUnknownMode + "[RT_Impl][DBG] [QX_REALTIME_Init] exit, err=4.\n";
    std::string content = qxt::read_file(file);
    content = std::regex_replace(content, std::regex("return [0-9]+, open existed"),
                                 "return FD, open existed");
    EXPECT_EQ(after_init + expected_tail, content);
    // Both places at 241: the Android log got every message too, plus the trace line that has
    // no file form.
    QXT_EXPECT_ERROR(log, kUnknownMode);
    QXT_EXPECT_INFO(log, "[RT_Impl][DBG] [QX_REALTIME_Init] exit, err=4.\n");
    EXPECT_EQ(1, log.count_containing(">>>")) << log.dump();
}

TEST(DiagnosticsLog, SuppressedMessageEvaluatesNoArgument) {
    g_evaluations = 0;
    _u32DbgLevel = 32;
    RT_LOGI("[RT_Impl][Info] [%s] %d\n", "test", counted_argument());
    RT_LOGD("[RT_Impl][DBG] [%s] %d\n", "test", counted_argument());
    EXPECT_EQ(0, g_evaluations);
    _u32DbgLevel = 16;
    RT_LOGE("[RT_Impl][Err] [%s] %d\n", "test", counted_argument());
    EXPECT_EQ(0, g_evaluations);
    _u32DbgLevel = 0;
    RT_LOGE("[RT_Impl][Err] [%s] %d\n", "test", counted_argument());
    EXPECT_EQ(0, g_evaluations);

    // The same messages do evaluate their arguments once they are wanted.
    LogCapture log;
    _u32DbgLevel = 64;
    RT_LOGI("[RT_Impl][Info] [%s] %d\n", "test", counted_argument());
    RT_LOGE("[RT_Impl][Err] [%s] %d\n", "test", counted_argument());
    EXPECT_EQ(2, g_evaluations);
    QXT_EXPECT_INFO(log, "[RT_Impl][Info] [test] 1\n");
    QXT_EXPECT_ERROR(log, "[RT_Impl][Err] [test] 2\n");
}

TEST(DiagnosticsLog, ErrorAndroidFormNamesFunctionAndStableLine) {
    QXT_REQUIRE_SANDBOX();
    LogCapture log;
    EXPECT_EQ(RT_ERR_FAILED, QX_REALTIME_Init(2));
    EXPECT_EQ(RT_ERR_FAILED, QX_REALTIME_Init(2));
    std::vector<qxt::LogLine> lines = log.lines();
    ASSERT_EQ(2u, lines.size()) << log.dump();
    std::regex re(
        "<ERR>QX_REALTIME_Init\\[([0-9]+)\\]: \\[RT_Impl\\]\\[Err\\] \\[QX_REALTIME_Init\\] "
        "Unknown init mode: \\[2\\]\\.\n");
    std::smatch m0, m1;
    ASSERT_TRUE(std::regex_match(lines[0].message, m0, re)) << lines[0].message;
    ASSERT_TRUE(std::regex_match(lines[1].message, m1, re)) << lines[1].message;
    EXPECT_EQ(m0[1].str(), m1[1].str());
    EXPECT_EQ(QX_LOG_PRIO_ERROR, lines[0].priority);
    EXPECT_EQ("<QXT>", lines[0].tag);
}

TEST(DiagnosticsLog, ErrnoTextIsFormattedIntoStrerrBuf) {
    errno = 12345;  // no text of its own: GNU strerror_r writes "Unknown error N" into the buffer
    const char *text = qx_errno_text();
    EXPECT_STREQ("Unknown error 12345", text);
    EXPECT_EQ(strerrBuf, text);
    errno = ENOENT;
    EXPECT_STREQ("No such file or directory", qx_errno_text());
}

TEST(DiagnosticsLog, MessageLongerThanTheFormattingBufferIsWrittenWhole) {
    // Longer than the 512-byte first formatting attempt, within liblog's own 1024-byte line.
    std::string long_name(800, 'x');
    _u32DbgLevel = 64;
    LogCapture log;
    RT_LOGE("[RT_Impl][Err] [%s] too long\n", long_name.c_str());
    RT_LOGI("[RT_Impl][Info] [%s] too long\n", long_name.c_str());
    EXPECT_TRUE(log.has_error("[RT_Impl][Err] [" + long_name + "] too long\n"));
    EXPECT_TRUE(log.has_info("[RT_Impl][Info] [" + long_name + "] too long\n"));
    EXPECT_EQ(2u, log.lines().size()) << log.dump();
    EXPECT_EQ(2u, log.lines().size()) << log.dump();
}

TEST(DiagnosticsLog, DefaultLevelIs32BeforeAnyCall) {
    EXPECT_EQ(32u, _u32DbgLevel);
    EXPECT_EQ(nullptr, rtlog);
}

TEST(ResultCodes, HaveTheirFixedValues) {
    EXPECT_EQ(0u, RT_SUCCESS);
    EXPECT_EQ(4u, RT_ERR_FAILED);
    EXPECT_EQ(8u, RT_ERR_INVALID_PARAM);
    EXPECT_EQ(9u, RT_ERR_OVER_BUDGET);
    EXPECT_EQ(10u, RT_ERR_NULL);
    EXPECT_EQ(11u, RT_ERR_NOT_EXIST);
    EXPECT_EQ(12u, RT_ERR_SYSTEM);
    EXPECT_EQ(14u, RT_ERR_SCHED_SETATTR);
}
