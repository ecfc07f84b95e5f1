// The CPU-list reader: range and list forms, the refused ranges that leave the outputs alone, and
// CPU numbers beyond the 32-bit mask.
#include "config_support.h"

using qxt::LogCapture;

namespace {

// Outputs preset to values the reader must either overwrite or leave alone.
constexpr int32_t kUntouchedNum = 77;
constexpr uint32_t kUntouchedMask = 0xdeadbeefu;

struct Selection {
    int32_t num = kUntouchedNum;
    uint32_t mask = kUntouchedMask;
};

Selection parse(const char *text) {
    Selection s;
    _QX_REALTIME_ParseCpuSelection(text, &s.num, &s.mask);
    return s;
}

std::string parsed_line(const char *text, int num, unsigned mask) {
    return qxt::format("[RT_Impl][DBG] %s parsed to %d cpus, Mask=0x%x\n", text, num, mask);
}

std::string error_line(const char *text) {
    return qxt::format("[RT_Impl][Err] [_QX_REALTIME_ParseCpuSelection] %s parsing error.\n", text);
}

class CpuSelectionTest : public ::testing::Test {
protected:
    void SetUp() override { _u32DbgLevel = RT_DBG_LEVEL_INFO; }
};

}  // namespace

TEST_F(CpuSelectionTest, RangeFourToSevenSelectsFourCpusWithMaskF0) {
    LogCapture log;
    Selection s = parse("4-7");
    EXPECT_EQ(s.num, 4);
    EXPECT_EQ(s.mask, 0xf0u);
    EXPECT_TRUE(log.has_info(parsed_line("4-7", 4, 0xf0))) << log.dump();
}

TEST_F(CpuSelectionTest, ListZeroTwoFiveSelectsThreeCpusWithMask25) {
    LogCapture log;
    Selection s = parse("0,2,5");
    EXPECT_EQ(s.num, 3);
    EXPECT_EQ(s.mask, 0x25u);
    EXPECT_TRUE(log.has_info(parsed_line("0,2,5", 3, 0x25))) << log.dump();
}

TEST_F(CpuSelectionTest, SingleCpuIsAListOfOne) {
    Selection s = parse("1");
    EXPECT_EQ(s.num, 1);
    EXPECT_EQ(s.mask, 0x2u);
}

TEST_F(CpuSelectionTest, ReversedRangeSelectsNoCpu) {
    LogCapture log;
    Selection s = parse("2-1");
    EXPECT_EQ(s.num, 0);
    EXPECT_EQ(s.mask, 0u);
    EXPECT_TRUE(log.has_info(parsed_line("2-1", 0, 0))) << log.dump();
    EXPECT_EQ(log.count_containing("[RT_Impl][Err]"), 0) << log.dump();
}

TEST_F(CpuSelectionTest, RangeEndingAtZeroIsAParsingErrorAndLeavesTheOutputsAlone) {
    LogCapture log;
    Selection s = parse("0-0");
    EXPECT_EQ(s.num, kUntouchedNum);
    EXPECT_EQ(s.mask, kUntouchedMask);
    EXPECT_TRUE(log.has_error(error_line("0-0"))) << log.dump();
    EXPECT_EQ(log.count_containing("parsed to"), 0) << log.dump();
}

TEST_F(CpuSelectionTest, RangeWithANonNumericEndIsAParsingErrorAndLeavesTheOutputsAlone) {
    LogCapture log;
    Selection s = parse("3-x");
    EXPECT_EQ(s.num, kUntouchedNum);
    EXPECT_EQ(s.mask, kUntouchedMask);
    EXPECT_TRUE(log.has_error(error_line("3-x"))) << log.dump();
    EXPECT_EQ(log.count_containing("parsed to"), 0) << log.dump();
}

TEST_F(CpuSelectionTest, EmptyTextSelectsNoCpu) {
    LogCapture log;
    Selection s = parse("");
    EXPECT_EQ(s.num, 0);
    EXPECT_EQ(s.mask, 0u);
    EXPECT_TRUE(log.has_info(parsed_line("", 0, 0))) << log.dump();
}

TEST_F(CpuSelectionTest, CpusBeyondTheMaskCountButSetNoBit) {
    Selection s = parse("40-41");
    EXPECT_EQ(s.num, 2);
    EXPECT_EQ(s.mask, 0u);
    s = parse("30-33");
    EXPECT_EQ(s.num, 4);
    EXPECT_EQ(s.mask, 0xc0000000u);
    s = parse("1,31,32,64");
    EXPECT_EQ(s.num, 4);
    EXPECT_EQ(s.mask, 0x80000002u);
}

TEST_F(CpuSelectionTest, ListOfMoreThanEightCpusCountsThemAll) {
    // The table of eight numbers is never written past (the ASan build checks it); every piece
    // still counts and sets its bit.
    LogCapture log;
    const char *text = "0,1,2,3,4,5,6,7,8,9,10,11,12,13,14,15,16,17,18,19";
    Selection s = parse(text);
    EXPECT_EQ(s.num, 20);
    EXPECT_EQ(s.mask, 0xfffffu);
    EXPECT_TRUE(log.has_info(parsed_line(text, 20, 0xfffff))) << log.dump();
}

TEST_F(CpuSelectionTest, TextAfterACommaInTheRangeEndIsIgnored) {
    Selection s = parse("2-3,7");
    EXPECT_EQ(s.num, 2);
    EXPECT_EQ(s.mask, 0xcu);
}

TEST_F(CpuSelectionTest, TextLongerThanTheWorkBufferIsCutNotOverrun) {
    // 100 pieces of "1,": only the first 63 characters are read (32 pieces).
    std::string text;
    for (int i = 0; i < 100; i++) text += "1,";
    Selection s = parse(text.c_str());
    EXPECT_EQ(s.num, 32);
    EXPECT_EQ(s.mask, 0x2u);
}
