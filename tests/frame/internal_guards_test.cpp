// The library's internal operations are reached from the exported ones with valid pointers, but
// each still refuses a NULL argument with its own result code and message and touches nothing:
// a later caller inside the library must not be able to turn a slip into a crash. Quiet at debug
// level 0: the same results, nothing in the log.
#include <string.h>

#include <vector>

#include "test_support.h"

using qxt::LogCapture;

namespace {

std::string arg_is_null(const char *function) {
    return qxt::format("[RT_Impl][Err] [%s] Arg is NULL.\n", function);
}

// A zeroed domain segment of the library's size, of the given scheduling type, in plain memory.
struct ScratchDomain {
    explicit ScratchDomain(uint32_t sched_type) : bytes(RT_SHM_SIZE, 0) {
        record()->u32SchedType = sched_type;
    }
    QX_REALTIME_DOMAIN_t *record() { return (QX_REALTIME_DOMAIN_t *)bytes.data(); }
    std::vector<uint8_t> bytes;
};

// Every internal operation given a NULL where it needs a pointer; the result codes in order.
struct Calls {
    std::vector<uint32_t> codes;
};

Calls call_every_guard() {
    Calls c;
    ScratchDomain rr(RT_SCHED_TYPE_RR), dl(RT_SCHED_TYPE_DEADLINE);
    QX_REALTIME_CLASS_t cls = {};
    QX_REALTIME_UTIL_t util = {10, 0, 0, 0};
    char *text = nullptr;
    int32_t fd = -1, value = 0;
    void *addr = nullptr;
    c.codes.push_back(_QX_REALTIME_FileReader(nullptr, &text));
    c.codes.push_back(_QX_REALTIME_FileReader("/proc/self/stat", nullptr));
    c.codes.push_back(_QX_REALTIME_JsonParser(nullptr, rr.record()));
    c.codes.push_back(_QX_REALTIME_JsonParser("/vendor/etc/realtime/rt-0.json", nullptr));
    c.codes.push_back(_QX_REALTIME_GetFlock(nullptr, &fd));
    c.codes.push_back(_QX_REALTIME_SharedMemoryAlloc(nullptr, &fd, &addr));
    c.codes.push_back(_QX_REALTIME_SharedMemoryAlloc("Domain_X", nullptr, &addr));
    c.codes.push_back(_QX_REALTIME_SharedMemoryAlloc("Domain_X", &fd, nullptr));
    _QX_REALTIME_SharedMemoryFree(nullptr, &fd, nullptr);
    _QX_REALTIME_SharedMemoryFree("Domain_X", nullptr, nullptr);
    c.codes.push_back(_QX_REALTIME_SetSchedAttr(nullptr, &cls, &util, 1, 0));
    c.codes.push_back(_QX_REALTIME_SetSchedAttr(rr.record(), nullptr, &util, 1, 0));
    c.codes.push_back(_QX_REALTIME_SetSchedAttr(dl.record(), &cls, nullptr, 1, 0));
    c.codes.push_back(_QX_WriteStrToPath(nullptr, "/dev/null"));
    c.codes.push_back(_QX_WriteStrToPath("1", nullptr));
    c.codes.push_back(_QX_WriteS32ToPath(1, nullptr));
    c.codes.push_back(_QX_REALTIME_CheckOverUtil(nullptr, 0, 0, 0, &value, 0));
    c.codes.push_back(_QX_REALTIME_CheckOverUtil(rr.record(), 0, 0, 0, nullptr, 0));
    c.codes.push_back(_QX_ThreadDataDelete(nullptr));
    c.codes.push_back(_QX_REALTIME_GetGroupCpuStat(nullptr, &value));
    c.codes.push_back(_QX_REALTIME_GetGroupCpuStat(rr.record(), nullptr));
    c.codes.push_back(_QX_REALTIME_GetTotalCpuStat(nullptr));
    c.codes.push_back(_QX_GetThreadByPid(nullptr, &cls, 1, nullptr));
    c.codes.push_back(_QX_AddThreadDataAtHead(nullptr, &cls, &util, 1, 1, nullptr));
    c.codes.push_back(_QX_AddThreadDataAtHead(rr.record(), nullptr, &util, 1, 1, nullptr));
    c.codes.push_back(_QX_AddThreadDataAtHead(rr.record(), &cls, nullptr, 1, 1, nullptr));
    // The domain records were left as they were.
    if (rr.bytes != ScratchDomain(RT_SCHED_TYPE_RR).bytes ||
        dl.bytes != ScratchDomain(RT_SCHED_TYPE_DEADLINE).bytes)
        c.codes.push_back(0xdead);
    // Nothing is done on a NULL domain, whatever the process.
    _QX_REALTIME_CheckProcessAlive(nullptr);
    QX_REALTIME_RemoveKilledThread(nullptr, 1);
    return c;
}

const std::vector<uint32_t> kExpectedCodes = {
    RT_ERR_INVALID_PARAM, RT_ERR_INVALID_PARAM,                        // FileReader
    RT_ERR_INVALID_PARAM, RT_ERR_INVALID_PARAM,                        // JsonParser
    RT_ERR_INVALID_PARAM,                                              // GetFlock
    RT_ERR_INVALID_PARAM, RT_ERR_INVALID_PARAM, RT_ERR_INVALID_PARAM,  // SharedMemoryAlloc
    RT_ERR_INVALID_PARAM, RT_ERR_INVALID_PARAM, RT_ERR_INVALID_PARAM,  // SetSchedAttr
    RT_ERR_SYSTEM,        RT_ERR_SYSTEM,        RT_ERR_SYSTEM,         // the cgroup writers
    RT_ERR_INVALID_PARAM, RT_ERR_INVALID_PARAM,                        // CheckOverUtil
    RT_ERR_INVALID_PARAM,                                              // ThreadDataDelete
    RT_ERR_SYSTEM,        RT_ERR_SYSTEM,        RT_ERR_SYSTEM,         // the CPU counters
    RT_ERR_NULL,                                                       // GetThreadByPid
    RT_ERR_NULL,          RT_ERR_NULL,          RT_ERR_NULL,           // AddThreadDataAtHead
};

}  // namespace

TEST(InternalGuards, EachInternalOperationRefusesNullWithItsCodeAndMessage) {
    LogCapture log;
    Calls c = call_every_guard();
    EXPECT_EQ(kExpectedCodes, c.codes);
    const std::vector<std::pair<const char *, int>> nulls = {
        {"_QX_REALTIME_FileReader", 2},
        {"_QX_REALTIME_JsonParser", 2},
        {"_QX_REALTIME_GetFlock", 1},
        {"_QX_REALTIME_SharedMemoryAlloc", 3},
        {"_QX_REALTIME_SharedMemoryFree", 2},
        {"_QX_REALTIME_SetSchedAttr", 3},
        {"_QX_WriteStrToPath", 3},
        {"_QX_REALTIME_CheckOverUtil", 2},
        {"_QX_ThreadDataDelete", 1},
        {"_QX_REALTIME_GetGroupCpuStat", 2},
        {"_QX_REALTIME_GetTotalCpuStat", 1},
    };
    for (const auto &n : nulls)
        EXPECT_EQ(n.second, log.count(QX_LOG_PRIO_ERROR, arg_is_null(n.first))) << n.first << "\n"
                                                                                << log.dump();
    EXPECT_TRUE(log.has_error("[RT_Impl][Err] [_QX_GetThreadByPid] pstDomain is NULL.\n"))
        << log.dump();
    EXPECT_EQ(3, log.count_containing("[RT_Impl][Err] [_QX_AddThreadDataAtHead] pstClass ("))
        << log.dump();
}

TEST(InternalGuards, AtLevel0TheSameResultsAndNothingLogged) {
    uint32_t saved = _u32DbgLevel;
    _u32DbgLevel = 0;
    LogCapture log;
    Calls c = call_every_guard();
    _u32DbgLevel = saved;
    EXPECT_EQ(kExpectedCodes, c.codes);
    QXT_EXPECT_SILENT(log);
}
