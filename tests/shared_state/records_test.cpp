// Records inside the segments: thread slots appended at the end of a domain segment, records
// shared by processes that map the segment at different addresses, and the saved scheduling
// attributes in slots that are only 4-byte aligned.
#include <sched.h>
#include <sys/mman.h>
#include <sys/wait.h>

#include "shared_state_support.h"

using qxt::LogCapture;

namespace {

const char kTooSmall[] =
    "[RT_Impl][Err] [_QX_AddThreadDataAtHead] shared memory size (16384 Byte) is too small. "
    "sizeof(QX_REALTIME_THREAD_t)=96\n";

QX_REALTIME_DOMAIN_t *new_domain_segment(const char *name) {
    int32_t fd = -1;
    void *addr = nullptr;
    if (_QX_REALTIME_SharedMemoryAlloc(name, &fd, &addr) != RT_SUCCESS) return nullptr;
    return (QX_REALTIME_DOMAIN_t *)addr;
}

QX_REALTIME_CLASS_t *class_at(QX_REALTIME_DOMAIN_t *domain, int32_t offset) {
    return (QX_REALTIME_CLASS_t *)((char *)domain + offset);
}

QX_REALTIME_THREAD_t *thread_at(QX_REALTIME_DOMAIN_t *domain, int32_t offset) {
    return (QX_REALTIME_THREAD_t *)((char *)domain + offset);
}

// A domain with one class at 1100 and `slots` live thread slots that end at next_offset.
QX_REALTIME_CLASS_t *fill_domain_ending_at(QX_REALTIME_DOMAIN_t *domain, int32_t next_offset,
                                           int32_t thread_start, int32_t slots) {
    domain->processIDListNum = RT_PROCESS_ID_LIST_NUM;
    domain->s32ClassStartOffset = RT_DOMAIN_HEADER_SIZE;
    domain->s32ClassNum = 1;
    QX_REALTIME_CLASS_t *cls = class_at(domain, RT_DOMAIN_HEADER_SIZE);
    cls->s32ClassId = 5;
    cls->s32RtPriority = 10;
    domain->s32ThreadStartOffset = thread_start;
    domain->s32ThreadNum = slots;
    for (int32_t i = 0; i < slots; i++) {
        QX_REALTIME_THREAD_t *t = thread_at(domain, thread_start + RT_THREAD_SIZE * i);
        t->ThreadIdx = i;
        t->Alive = 1;
        t->Pid = 1000 + i;
    }
    domain->s32NextOffset = next_offset;
    return cls;
}

}  // namespace

using DomainRecord = qxt::SandboxTest;

TEST_F(DomainRecord, ThreadSlotIsAppendedWhenNextOffsetIs16288) {
    QX_REALTIME_DOMAIN_t *domain = new_domain_segment("Domain_Full");
    ASSERT_NE(nullptr, domain);
    // Three slots end at 16288: the fourth one fills the segment to its last byte.
    QX_REALTIME_CLASS_t *cls = fill_domain_ending_at(domain, 16288, 16288 - 3 * RT_THREAD_SIZE, 3);
    QX_REALTIME_UTIL_t util = {100, 4, 3, 5};
    uint8_t saved[QX_SCHED_ATTR_SIZE];
    for (unsigned i = 0; i < sizeof(saved); i++) saved[i] = (uint8_t)(i + 1);

    LogCapture log;
    ASSERT_EQ(RT_SUCCESS, _QX_AddThreadDataAtHead(domain, cls, &util, 4321, 77, saved));
    EXPECT_EQ(16384, domain->s32NextOffset);
    EXPECT_EQ(4, domain->s32ThreadNum);
    QX_REALTIME_THREAD_t *slot = thread_at(domain, 16288);
    EXPECT_EQ(3, slot->ThreadIdx);
    EXPECT_EQ(5, slot->ClassIdx);
    EXPECT_EQ(1, slot->Alive);
    EXPECT_EQ(77, slot->ProcessID);
    EXPECT_EQ(4321, slot->Pid);
    EXPECT_EQ(100, slot->Util);
    EXPECT_EQ(10, slot->Priority);
    EXPECT_EQ(4, slot->DeadlineUs);
    EXPECT_EQ(3, slot->RuntimeUs);
    EXPECT_EQ(5, slot->PeriodUs);
    EXPECT_EQ(0, memcmp(saved, slot->stSavedAttr, sizeof(saved)));
    EXPECT_EQ(0, log.count_containing("too small")) << log.dump();

    // Now full: the next one is refused.
    EXPECT_EQ(RT_ERR_NOT_EXIST, _QX_AddThreadDataAtHead(domain, cls, &util, 4322, 77, saved));
    EXPECT_EQ(4, domain->s32ThreadNum);
}

TEST_F(DomainRecord, ThreadSlotIsRefusedWhenNextOffsetIs16289) {
    QX_REALTIME_DOMAIN_t *domain = new_domain_segment("Domain_Full");
    ASSERT_NE(nullptr, domain);
    QX_REALTIME_CLASS_t *cls = fill_domain_ending_at(domain, 16289, 16288 - 3 * RT_THREAD_SIZE, 3);
    // A freed slot does not help: the room test comes first.
    thread_at(domain, domain->s32ThreadStartOffset + RT_THREAD_SIZE)->Alive = 0;
    std::vector<char> before((char *)domain, (char *)domain + RT_SHM_SIZE);
    QX_REALTIME_UTIL_t util = {100, 0, 0, 0};

    LogCapture log;
    EXPECT_EQ(RT_ERR_NOT_EXIST, _QX_AddThreadDataAtHead(domain, cls, &util, 4321, 77, nullptr));
    EXPECT_EQ(1, log.count(QX_LOG_PRIO_ERROR, kTooSmall)) << log.dump();
    EXPECT_EQ(0, memcmp(before.data(), domain, RT_SHM_SIZE));
}

TEST_F(DomainRecord, TwoProcessesMapSameDomainAtDifferentAddressesAndAgree) {
    QX_REALTIME_DOMAIN_t *domain = new_domain_segment("Domain_Shared");
    ASSERT_NE(nullptr, domain);
    snprintf(domain->szName, sizeof(domain->szName), "Domain_Shared");
    domain->s32UtilMax = 512;
    QX_REALTIME_CLASS_t *cls =
        fill_domain_ending_at(domain, RT_DOMAIN_HEADER_SIZE + RT_CLASS_SIZE + RT_THREAD_SIZE,
                              RT_DOMAIN_HEADER_SIZE + RT_CLASS_SIZE, 1);
    snprintf(cls->szClassName, sizeof(cls->szClassName), "Class_Shared");

    int rc = qxt::run_in_child([domain] {
        // Keep the parent's address taken, so the segment must land elsewhere here.
        if (munmap(domain, RT_SHM_SIZE) != 0) return 1;
        if (mmap(domain, RT_SHM_SIZE, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0) !=
            (void *)domain)
            return 2;
        QX_REALTIME_DOMAIN_t *mine = new_domain_segment("Domain_Shared");
        if (mine == nullptr) return 3;
        if (mine == domain) return 4;
        // Every record is found from offsets alone.
        if (strcmp(mine->szName, "Domain_Shared") != 0 || mine->s32UtilMax != 512) return 5;
        QX_REALTIME_CLASS_t *c = qx_domain_class(mine, 0);
        if (c == nullptr || strcmp(c->szClassName, "Class_Shared") != 0 || c->s32ClassId != 5)
            return 6;
        QX_REALTIME_THREAD_t *t = qx_domain_thread(mine, 0);
        if (t == nullptr || t->Pid != 1000 || t->Alive != 1) return 7;
        // And what is written here is what the parent reads.
        QX_REALTIME_UTIL_t util = {64, 0, 0, 0};
        if (_QX_AddThreadDataAtHead(mine, c, &util, 5555, getpid(), nullptr) != RT_SUCCESS)
            return 8;
        mine->s32UtilCurrent = 64;
        return 0;
    });
    ASSERT_EQ(0, rc);
    EXPECT_EQ(2, domain->s32ThreadNum);
    EXPECT_EQ(64, domain->s32UtilCurrent);
    QX_REALTIME_THREAD_t *t = qx_domain_thread(domain, 1);
    ASSERT_NE(nullptr, t);
    EXPECT_EQ(5555, t->Pid);
    EXPECT_EQ(1, t->Alive);
    EXPECT_EQ(1, t->ThreadIdx);
}

TEST_F(DomainRecord, SavedAttributesRoundTripInSlotThatIsNot8Aligned) {
    QX_REALTIME_DOMAIN_t *domain = new_domain_segment("Domain_Align");
    ASSERT_NE(nullptr, domain);
    // One class: the slots start at 1188, and stSavedAttr at 1228, which is 4 mod 8.
    int32_t start = RT_DOMAIN_HEADER_SIZE + RT_CLASS_SIZE;
    QX_REALTIME_CLASS_t *cls = fill_domain_ending_at(domain, start, start, 0);
    ASSERT_EQ(4u, ((uintptr_t)domain + start + offsetof(QX_REALTIME_THREAD_t, stSavedAttr)) % 8);

    struct qx_sched_attr attr;
    memset(&attr, 0, sizeof(attr));
    attr.size = QX_SCHED_ATTR_SIZE;
    attr.sched_policy = SCHED_DEADLINE;
    attr.sched_flags = 0x0102030405060708ull;
    attr.sched_runtime = 2000000ull;
    attr.sched_deadline = 8000000000ull;
    attr.sched_period = 16000000000ull;
    QX_REALTIME_UTIL_t util = {128, 8000, 2000, 16000};
    ASSERT_EQ(RT_SUCCESS,
              _QX_AddThreadDataAtHead(domain, cls, &util, 1234, 99, (const uint8_t *)&attr));

    QX_REALTIME_THREAD_t *slot = qx_domain_thread(domain, 0);
    ASSERT_EQ((char *)domain + start, (char *)slot);
    struct qx_sched_attr back;
    memcpy(&back, slot->stSavedAttr, sizeof(back));
    EXPECT_EQ(0, memcmp(&attr, &back, sizeof(back)));
    EXPECT_EQ(16000000000ull, back.sched_period);
}

TEST_F(DomainRecord, AdmittedThreadInUnalignedSlotIsRestoredFromSavedAttributes) {
    // The shipped configuration: Domain_Audio has two classes, so its slots start at 1276.
    qxt::write_file("/vendor/etc/realtime/rt-0.json",
                    qxt::read_file(std::string(QXRT_SOURCE_DIR) + "/config/rt-0.json"));
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_Init(0));
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_CreateDomain("Domain_Audio"));
    qxt::TestThread thread;
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_AddThread("Domain_Audio", "Class_Render", thread.tid(), 0));
    qxt::SchedInfo admitted = qxt::sched_of(thread.tid());
    ASSERT_TRUE(admitted.ok);
    EXPECT_EQ((uint32_t)SCHED_RR, admitted.policy);

    QX_REALTIME_DOMAIN_t *domain = qxt::map_domain_file("Domain_Audio");
    ASSERT_NE(nullptr, domain);
    QX_REALTIME_THREAD_t *slot = qx_domain_thread(domain, 0);
    ASSERT_NE(nullptr, slot);
    EXPECT_EQ(4u, (uintptr_t)slot->stSavedAttr % 8);
    EXPECT_EQ(thread.tid(), slot->Pid);
    struct qx_sched_attr saved;
    memcpy(&saved, slot->stSavedAttr, sizeof(saved));
    EXPECT_EQ((uint32_t)SCHED_OTHER, saved.sched_policy);
    EXPECT_EQ(QX_SCHED_ATTR_SIZE, saved.size);

    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_RemoveThread("Domain_Audio", thread.tid()));
    qxt::SchedInfo restored = qxt::sched_of(thread.tid());
    ASSERT_TRUE(restored.ok);
    EXPECT_EQ((uint32_t)SCHED_OTHER, restored.policy);
    EXPECT_EQ(0u, restored.priority);
}
