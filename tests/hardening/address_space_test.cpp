// A process whose address space is full (RLIMIT_AS set at what it already has, in a child of its
// own): a mapping or an allocation the library needs fails. Each such failure gives its message
// and result code, leaves no file behind, and the same process works normally once the room is
// back. Messages go through a sink that writes them to a pipe, which allocates nothing.
//
// Not under the sanitizers or an emulator: both reserve their own address space up front, so the
// limit says nothing there about the library's own mappings.
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <unistd.h>

#include "hardening_support.h"
#include "log_sink.h"

using namespace qxt;

namespace {

int g_log_pipe = -1;

void pipe_sink(int, const char *, const char *message) {
    if (write(g_log_pipe, message, strlen(message)) < 0) {
    }
}

// This process's size in bytes, from VmSize in /proc/self/status.
size_t vm_size() {
    std::string status = read_file("/proc/self/status");
    size_t at = status.find("VmSize:");
    return at == std::string::npos ? 0 : strtoull(status.c_str() + at + 7, nullptr, 10) * 1024;
}

// Leaves no room for a new mapping or a larger heap. A 64 KiB block allocated and freed first
// stays with the heap, so small allocations still succeed from it.
bool fill_address_space(struct rlimit *saved) {
    void *block = malloc(64 * 1024);
    if (block == nullptr) return false;
    memset(block, 1, 64 * 1024);
    free(block);
    size_t size = vm_size();
    if (size == 0 || getrlimit(RLIMIT_AS, saved) != 0) return false;
    struct rlimit full = {size, saved->rlim_max};
    return setrlimit(RLIMIT_AS, &full) == 0;
}

// Runs fn in a child whose messages are collected; fn returns what it found wrong ("" if nothing).
struct Outcome {
    std::string problems;
    std::string log;
};
Outcome run_logged(const std::function<std::string()> &fn) {
    Outcome out;
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) {
        out.problems = "pipe failed";
        return out;
    }
    ChildResult r = run_child([&] {
        close(fds[0]);
        g_log_pipe = fds[1];
        qx_log_sink::set(pipe_sink);
        return fn();
    });
    close(fds[1]);
    char buf[4096];
    ssize_t n;
    while ((n = read(fds[0], buf, sizeof(buf))) > 0) out.log.append(buf, (size_t)n);
    close(fds[0]);
    out.problems = r.describe();
    return out;
}

#define EXPECT_LOGGED(outcome, fragment) \
    EXPECT_NE(std::string::npos, (outcome).log.find(fragment)) << (outcome).log

class HardeningAddressSpace : public qxt::SandboxTest {
protected:
    void SetUp() override {
        if (kSanitized || kThreadSanitized)
            GTEST_SKIP() << "a sanitizer reserves its own address space: RLIMIT_AS can't be aimed";
        QXT_SKIP_UNDER_EMULATOR("the emulator reserves the guest's address space up front");
        SandboxTest::SetUp();
    }
    void SetUpInSandbox() override {
        install(2);
        ASSERT_EQ("", reset({kRr}));
    }
};

}  // namespace

// A budget query of the round-robin domain while the address space is full (RT_ERR_NULL), then
// with room again (RT_SUCCESS); attach_first: the central segment is mapped before the limit.
Outcome query_while_full(bool attach_first) {
    return run_logged([attach_first] {
        if (attach_first && QX_REALTIME_GetAllDomainName(nullptr, 0) != RT_SUCCESS)
            return std::string("attach");
        struct rlimit saved;
        if (!fill_address_space(&saved)) return std::string("could not set the limit");
        QX_REALTIME_UTIL_t util = {10, 0, 0, 0};
        int32_t left = 0;
        uint32_t rc = QX_REALTIME_QueryBudget(kRr, &util, &left);
        setrlimit(RLIMIT_AS, &saved);
        if (rc != RT_ERR_NULL) return format("QueryBudget returned %u while full, not 10", rc);
        rc = QX_REALTIME_QueryBudget(kRr, &util, &left);
        return rc == RT_SUCCESS ? std::string() : format("QueryBudget returned %u after", rc);
    });
}

TEST_F(HardeningAddressSpace, CentralSegmentThatCannotBeMappedFailsTheAttach) {
    Outcome o = query_while_full(false);
    EXPECT_EQ("", o.problems) << o.log;
    EXPECT_LOGGED(o, "[RT_Impl][Err] [_QX_REALTIME_GetCentralShm][PID=");
    EXPECT_LOGGED(o, "] mmap fails\n");
}

// Attached to the central segment first: only the domain's mapping is still to come.
TEST_F(HardeningAddressSpace, DomainSegmentThatCannotBeMappedIsNotFound) {
    Outcome o = query_while_full(true);
    EXPECT_EQ("", o.problems) << o.log;
    EXPECT_LOGGED(o, "[RT_Impl][Err] [_QX_REALTIME_GetDomainFromName][PID=");
    EXPECT_LOGGED(o, "] mmap fails\n");
    EXPECT_LOGGED(o, "pstDomain is NULL");
}

TEST_F(HardeningAddressSpace, NewSegmentThatCannotBeMappedFailsCreationAndIsRemoved) {
    Outcome o = run_logged([] {
        if (QX_REALTIME_Init(0) != RT_SUCCESS) return std::string("Init failed");
        struct rlimit saved;
        if (!fill_address_space(&saved)) return std::string("could not set the limit");
        uint32_t rc = QX_REALTIME_CreateDomain(kNew);
        setrlimit(RLIMIT_AS, &saved);
        if (rc != RT_ERR_FAILED) return format("CreateDomain returned %u while full, not 4", rc);
        if (file_exists(std::string(RT_SHM_PREFIX) + kNew)) return std::string("segment left");
        rc = QX_REALTIME_CreateDomain(kNew);
        return rc == RT_SUCCESS ? std::string() : format("CreateDomain returned %u after", rc);
    });
    EXPECT_EQ("", o.problems) << o.log;
    EXPECT_LOGGED(o, "[RT_Impl][Err] [_QX_REALTIME_SharedMemoryAlloc][PID=");
    EXPECT_LOGGED(o, "] mmap fails\n");
    EXPECT_LOGGED(o,
                  "[RT_Impl][Err] [QX_REALTIME_CreateDomain] shared memory initialization fails\n");
}

// The whole-file reader: a file that outgrows the heap fails the enlargement with RT_ERR_NULL and
// its message, and hands out no text; with room again the same file is read whole.
TEST_F(HardeningAddressSpace, FileReaderThatCannotGrowReturnsNullAndNoText) {
    const std::string big = "/dev/shm/qxt_big_file";
    write_file(big, std::string(1 << 20, 'x'));
    Outcome o = run_logged([&big] {
        struct rlimit saved;
        if (!fill_address_space(&saved)) return std::string("could not set the limit");
        std::string out;
        char *text = (char *)1;
        uint32_t rc = _QX_REALTIME_FileReader(big.c_str(), &text);
        setrlimit(RLIMIT_AS, &saved);
        if (rc != RT_ERR_NULL || text != nullptr)
            out += format("while full: %u, text %p\n", rc, (void *)text);
        rc = _QX_REALTIME_FileReader(big.c_str(), &text);
        if (rc != RT_SUCCESS || text == nullptr || strlen(text) != (1u << 20))
            out += format("after: %u\n", rc);
        free(text);
        return out;
    });
    EXPECT_EQ("", o.problems) << o.log;
    EXPECT_LOGGED(o, "[RT_Impl][Err] [_QX_REALTIME_FileReader]: The file [" + big + "] is > [");
    EXPECT_LOGGED(o, "] bytes, realloc failed.\n");
}
