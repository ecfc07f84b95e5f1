// The call frame of the lifecycle operations: what is held while the entry and exit messages are
// written. A logger of our own looks at the process mutex and the "Global" lock file at the very
// moment each message arrives.
#include "log_sink.h"

#include <vector>

#include "lifecycle_support.h"

using qxt::system_config;

namespace {

struct Seen {
    std::string message;
    bool mutex_free;
    bool lock_free;
};
std::vector<Seen> g_seen;

void observing_logger(int, const char *, const char *message) {
    g_seen.push_back(Seen{message, qxt::process_mutex_is_free(), qxt::central_lock_is_free()});
}

// Runs fn with the observing logger and returns what it saw for the messages containing text.
std::vector<Seen> observe(const std::function<void()> &fn, const std::string &text) {
    g_seen.clear();
    qx_log_sink::set(observing_logger);
    fn();
    qx_log_sink::restore_default();
    std::vector<Seen> out;
    for (const Seen &s : g_seen)
        if (s.message.find(text) != std::string::npos) out.push_back(s);
    return out;
}

}  // namespace

using CallFrame = qxt::SandboxTest;

TEST_F(CallFrame, InitExitMessageIsWrittenAfterLockFileAndMutexAreReleased) {
    qxt::write_file("/vendor/etc/realtime/rt-0.json", system_config(1, 1024, 4));
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_Init(0));
    for (uint32_t mode : {0u, 2u}) {
        std::vector<Seen> exits =
            observe([mode] { QX_REALTIME_Init(mode); }, "[QX_REALTIME_Init] exit");
        ASSERT_EQ(1u, exits.size()) << mode;
        EXPECT_TRUE(exits[0].mutex_free) << mode;
        EXPECT_TRUE(exits[0].lock_free) << mode;
        std::vector<Seen> entries =
            observe([mode] { QX_REALTIME_Init(mode); }, "[QX_REALTIME_Init] enter");
        ASSERT_EQ(1u, entries.size()) << mode;
        EXPECT_TRUE(entries[0].mutex_free) << mode;
    }
    // Work inside the frame happens with both held.
    std::vector<Seen> inner = observe([] { QX_REALTIME_Init(0); }, "JsonPath is");
    ASSERT_EQ(1u, inner.size());
    EXPECT_FALSE(inner[0].mutex_free);
    EXPECT_FALSE(inner[0].lock_free);
}

TEST_F(CallFrame, InitFailingBeforeLockFileWritesExitMessageWhileMutexIsHeld) {
    ASSERT_EQ(0, mkdir(qxt::central_lock_path(), 0755));
    _u32DbgLevel = 64;
    std::vector<Seen> exits =
        observe([] { QX_REALTIME_Init(0); }, "[QX_REALTIME_Init] exit, err=12.");
    ASSERT_EQ(1u, exits.size());
    EXPECT_FALSE(exits[0].mutex_free);
    EXPECT_TRUE(qxt::process_mutex_is_free());
}

TEST_F(CallFrame, DeinitExitMessageIsWrittenAfterLockFileAndMutexAreReleased) {
    qxt::write_file("/vendor/etc/realtime/rt-0.json", system_config(1, 1024, 4));
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_Init(0));
    std::vector<Seen> seen = observe([] { QX_REALTIME_Deinit(); }, "[QX_REALTIME_Deinit]");
    ASSERT_EQ(3u, seen.size());  // enter, lock file unlinked, exit
    EXPECT_TRUE(seen[0].mutex_free);
    EXPECT_FALSE(seen[1].mutex_free);  // the lock file is removed under the mutex
    EXPECT_TRUE(seen[2].mutex_free);
    EXPECT_TRUE(seen[2].lock_free);
}

// Another process cuts the central segment short under a process that has it mapped: touching
// the mapping past the file's end would end this process with SIGBUS, so every entry refuses it
// with its own name in the message, and nothing writes the file.
TEST_F(CallFrame, CentralSegmentCutShortUnderAMappedProcessIsRefused) {
    qxt::write_file("/vendor/etc/realtime/rt-0.json", system_config(1, 1024, 4));
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_Init(0));
    ASSERT_EQ(0, truncate(qxt::central_path(), 100));
    auto refused = [](const char *op) {
        return qxt::format("[RT_Impl][Err] [%s] %s is 100 bytes, not 16384: refused.\n", op,
                           qxt::central_path());
    };
    qxt::LogCapture log;
    QX_REALTIME_UTIL_t util = {10, 0, 0, 0};
    int32_t left = 0;
    EXPECT_EQ(RT_ERR_NULL, QX_REALTIME_QueryBudget("Domain_X", &util, &left));
    QXT_EXPECT_ERROR(log, refused("QX_REALTIME_QueryBudget"));
    EXPECT_EQ(RT_ERR_NULL, QX_REALTIME_SetDebugLevel(32));
    QXT_EXPECT_ERROR(log, refused("QX_REALTIME_SetDebugLevel"));
    EXPECT_EQ(RT_ERR_NULL, _QX_REALTIME_GetAllDomainInfo());
    QXT_EXPECT_ERROR(log, refused("_QX_REALTIME_GetAllDomainInfo"));
    EXPECT_EQ(RT_ERR_FAILED, QX_REALTIME_Init(0));
    QXT_EXPECT_ERROR(log, refused("QX_REALTIME_Init"));
    struct stat st;
    ASSERT_EQ(0, stat(qxt::central_path(), &st));
    EXPECT_EQ(100, st.st_size);
    // Quiet at level 0: the same refusals, nothing logged.
    log.clear();
    _u32DbgLevel = 0;
    EXPECT_EQ(RT_ERR_NULL, QX_REALTIME_QueryBudget("Domain_X", &util, &left));
    EXPECT_EQ(RT_ERR_FAILED, QX_REALTIME_Init(0));
    _u32DbgLevel = RT_DBG_LEVEL_DEFAULT;
    QXT_EXPECT_SILENT(log);
}
