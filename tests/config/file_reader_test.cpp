// The whole-file reader: text read back unchanged, its buffer enlarged by doubling with one info
// line per enlargement, and the failures to open.
#include <errno.h>

#include "config_support.h"

using qxt::LogCapture;
using namespace qxt;

namespace {

// A text of exactly `size` bytes in lines of 100 bytes (99 characters and a newline); the last
// line takes what is left.
std::string text_of_size(size_t size) {
    std::string text;
    while (text.size() < size) {
        size_t left = size - text.size();
        if (left >= 100) {
            text += std::string(99, 'x') + "\n";
        } else {
            text += std::string(left, 'y');
        }
    }
    return text;
}

std::string realloc_line(const std::string &path, int size) {
    return qxt::format(
        "[RT_Impl][Info] [_QX_REALTIME_FileReader]: The file [%s] is realloc to "
        "[%d] bytes.\n",
        path.c_str(), size);
}

class FileReaderTest : public ::testing::Test {
protected:
    void SetUp() override {
        QXT_REQUIRE_SANDBOX();
        _u32DbgLevel = RT_DBG_LEVEL_INFO;
    }

    // Reads the file back; the text is owned by the test.
    uint32_t read(const std::string &path, std::string *text) {
        char *raw = (char *)0x1;  // must be overwritten on success
        uint32_t ret = _QX_REALTIME_FileReader(path.c_str(), &raw);
        if (ret == RT_SUCCESS) {
            EXPECT_NE(raw, nullptr);
            if (raw != nullptr && raw != (char *)0x1) {
                *text = raw;
                free(raw);
            }
        }
        return ret;
    }
};

}  // namespace

TEST_F(FileReaderTest, FileOf5000BytesIsEnlargedOnceTo8192Bytes) {
    std::string content = text_of_size(5000);
    std::string path = write_config(content);
    LogCapture log;
    std::string text;
    ASSERT_EQ(read(path, &text), RT_SUCCESS);
    EXPECT_EQ(text, content);
    EXPECT_EQ(log.count(QX_LOG_PRIO_INFO, realloc_line(path, 8192)), 1) << log.dump();
    EXPECT_EQ(log.count_containing("is realloc to"), 1) << log.dump();
}

TEST_F(FileReaderTest, FileOfExactly4000BytesIsEnlargedOnceBecauseOfTheLineReserve) {
    std::string content = text_of_size(4000);
    std::string path = write_config(content);
    LogCapture log;
    std::string text;
    ASSERT_EQ(read(path, &text), RT_SUCCESS);
    EXPECT_EQ(text, content);
    EXPECT_EQ(log.count(QX_LOG_PRIO_INFO, realloc_line(path, 8192)), 1) << log.dump();
    EXPECT_EQ(log.count_containing("is realloc to"), 1) << log.dump();
}

TEST_F(FileReaderTest, EnlargementStartsWhenTheLineReserveNoLongerFits) {
    // 3968 + 128 reaches the 4096 bytes of the first buffer; 3967 + 128 does not.
    std::string below = write_config(text_of_size(3967));
    std::string at = write_config(text_of_size(3968));
    LogCapture log;
    std::string text;
    ASSERT_EQ(read(below, &text), RT_SUCCESS);
    EXPECT_EQ(text.size(), 3967u);
    EXPECT_EQ(log.count_containing("is realloc to"), 0) << log.dump();
    ASSERT_EQ(read(at, &text), RT_SUCCESS);
    EXPECT_EQ(text.size(), 3968u);
    EXPECT_EQ(log.count(QX_LOG_PRIO_INFO, realloc_line(at, 8192)), 1) << log.dump();
    EXPECT_EQ(log.count_containing("is realloc to"), 1) << log.dump();
}

TEST_F(FileReaderTest, LargeFileDoublesTheBufferOnceEachStep) {
    std::string content = text_of_size(20000);
    std::string path = write_config(content);
    LogCapture log;
    std::string text;
    ASSERT_EQ(read(path, &text), RT_SUCCESS);
    EXPECT_EQ(text, content);
    EXPECT_EQ(log.count(QX_LOG_PRIO_INFO, realloc_line(path, 8192)), 1) << log.dump();
    EXPECT_EQ(log.count(QX_LOG_PRIO_INFO, realloc_line(path, 16384)), 1) << log.dump();
    EXPECT_EQ(log.count(QX_LOG_PRIO_INFO, realloc_line(path, 32768)), 1) << log.dump();
    EXPECT_EQ(log.count_containing("is realloc to"), 3) << log.dump();
}

TEST_F(FileReaderTest, LinesLongerThanTheLineBufferAreReadWhole) {
    std::string content = std::string(300, 'a') + "\n" + std::string(1000, 'b') + "\nend";
    std::string path = write_config(content);
    std::string text;
    ASSERT_EQ(read(path, &text), RT_SUCCESS);
    EXPECT_EQ(text, content);
}

TEST_F(FileReaderTest, EmptyFileGivesAnEmptyText) {
    std::string path = write_config("");
    LogCapture log;
    std::string text = "not read";
    ASSERT_EQ(read(path, &text), RT_SUCCESS);
    EXPECT_EQ(text, "");
    EXPECT_EQ(log.count_containing("[RT_Impl][Err]"), 0) << log.dump();
}

TEST_F(FileReaderTest, MissingFileIsASystemErrorWithTheOpenFailure) {
    const std::string path = "/vendor/etc/realtime/rt-absent.json";
    LogCapture log;
    char *raw = nullptr;
    EXPECT_EQ(_QX_REALTIME_FileReader(path.c_str(), &raw), RT_ERR_SYSTEM);
    EXPECT_EQ(raw, nullptr);
    EXPECT_TRUE(log.has_error(
        qxt::format("[RT_Impl][Err] [_QX_REALTIME_FileReader] Failed to open %s: %s.\n",
                    path.c_str(), errno_text(ENOENT).c_str())))
        << log.dump();
}

TEST_F(FileReaderTest, UnreadablePathIsASystemErrorWithTheOpenFailure) {
    // A path through a regular file can't be opened, even by root.
    std::string file = write_config("{}");
    std::string path = file + "/inner.json";
    LogCapture log;
    char *raw = nullptr;
    EXPECT_EQ(_QX_REALTIME_FileReader(path.c_str(), &raw), RT_ERR_SYSTEM);
    EXPECT_TRUE(log.has_error(
        qxt::format("[RT_Impl][Err] [_QX_REALTIME_FileReader] Failed to open %s: %s.\n",
                    path.c_str(), errno_text(ENOTDIR).c_str())))
        << log.dump();
}
