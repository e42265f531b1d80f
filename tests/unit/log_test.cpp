#include "core/log.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "host/hostlog.h"
#include "log_capture.h"

namespace {

// Each test starts and ends without a configuration.
class LogDecision : public ::testing::Test {
protected:
    void SetUp() override { camfetch_host::LogClear(); }
    void TearDown() override { camfetch_host::LogClear(); }
};

TEST_F(LogDecision, WithoutConfigurationEverythingIsWritten) {
    EXPECT_TRUE(LogWanted(LOG_CATEG_RTSP, LOG_LEVEL_TRACE));
    EXPECT_FALSE(ChkPidLevel(LOG_LEVEL_NONE));
}

TEST_F(LogDecision, CategoryLevelThenProcessTable) {
    camfetch_host::LogInit(LOG_LEVEL_ERROR);
    camfetch_host::LogSetLevel(LOG_CATEG_PACKER, LOG_LEVEL_NOTICE);
    EXPECT_TRUE(LogWanted(LOG_CATEG_PACKER, LOG_LEVEL_NOTICE));
    EXPECT_FALSE(LogWanted(LOG_CATEG_PACKER, LOG_LEVEL_INFO));
    EXPECT_TRUE(LogWanted(LOG_CATEG_RTSP, LOG_LEVEL_ERROR));
    EXPECT_FALSE(LogWanted(LOG_CATEG_RTSP, LOG_LEVEL_WARNING));
    // An empty process table: not listed and level >= 1.
    EXPECT_FALSE(ChkPidLevel(LOG_LEVEL_NONE));

    camfetch_host::LogSetPidLevel(getpid() + 1, LOG_LEVEL_TRACE);  // someone else
    EXPECT_FALSE(LogWanted(LOG_CATEG_RTSP, LOG_LEVEL_WARNING));
    EXPECT_TRUE(ChkPidLevel(LOG_LEVEL_NONE));  // not listed, level < 1
    EXPECT_FALSE(ChkPidLevel(LOG_LEVEL_ERROR));

    camfetch_host::LogSetPidLevel(0, LOG_LEVEL_DEBUG);  // this process
    EXPECT_TRUE(LogWanted(LOG_CATEG_RTSP, LOG_LEVEL_DEBUG));
    EXPECT_FALSE(LogWanted(LOG_CATEG_RTSP, LOG_LEVEL_TRACE));
    EXPECT_TRUE(ChkPidLevel(LOG_LEVEL_DEBUG));
    EXPECT_FALSE(ChkPidLevel(LOG_LEVEL_TRACE));
}

TEST_F(LogDecision, MacroFillsBaseNameFunctionAndNames) {
    LogCapture log;
    CF_LOG(LOG_CATEG_MULTIPART, LOG_LEVEL_WARNING, "value %d\n", 5);
    camfetch_host::LogInit(LOG_LEVEL_ERROR);
    CF_LOG(LOG_CATEG_MULTIPART, LOG_LEVEL_WARNING, "filtered\n");
    CF_LOG_RAW("raw %s\n", "always");
    auto records = log.Records();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].text, "value 5");
    EXPECT_EQ(records[0].file, "log_test");
    EXPECT_EQ(records[0].categ, "multipart");
    EXPECT_EQ(records[0].level, "WARNING");
    EXPECT_EQ(records[0].function, "TestBody");
    EXPECT_EQ(records[1].categ, "-");
    EXPECT_EQ(records[1].text, "raw always");
}

TEST(LogFileName, StripsDirectoriesAndExtension) {
    constexpr camfetch::LogFileName<22> n("src/rtsp/rtspfetch.cc");
    EXPECT_STREQ(n.text, "rtspfetch");
    constexpr camfetch::LogFileName<5> plain("abcd");
    EXPECT_STREQ(plain.text, "abcd");
}

}  // namespace
