#include "core/utils.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>

#include "log_capture.h"

namespace {

TEST(Utils, FormatIsoTime) {
    EXPECT_EQ(FormatIsoTime(1500000), "19700101T000001.500Z");
    EXPECT_EQ(FormatIsoTime(1700000000123456LL), "20231114T221320.123Z");
}

TEST(Utils, BaseNameAndHex) {
    EXPECT_EQ(GetBaseName("a/b/c.cpp"), "c.cpp");
    EXPECT_EQ(GetBaseName("a\\b"), "b");
    EXPECT_EQ(GetBaseName("plain"), "plain");
    EXPECT_EQ(HexToInt("1fz", 3), 31);
    EXPECT_EQ(HexToInt("FF", 1), 15);
    EXPECT_EQ(HexToInt("ff", 0), 0);
    EXPECT_EQ(HexToInt("aB", 2), 0xAB);
}

TEST(Utils, UrlEncode) {
    EXPECT_EQ(UrlEncode("a b/c", ""), "a%20b%2Fc");
    EXPECT_EQ(UrlEncode("a b/c", "/"), "a%20b/c");
    EXPECT_EQ(UrlEncode("~_()*,-.", ""), "~_()*,-.");
    EXPECT_EQ(UrlEncode("\xff:", ""), "%FF%3A");
}

TEST(Utils, TextHelpers) {
    EXPECT_EQ(Trim("  x  ", " "), "x");
    EXPECT_EQ(Trim("    ", " "), "");
    EXPECT_EQ(Trim(" x ", nullptr), " x ");
    std::string t = "a-b-c";
    RemoveChar(t, '-');
    EXPECT_EQ(t, "abc");
    std::string r = "aaa";
    ReplaceAll(r, "a", "aa");
    EXPECT_EQ(r, "aaaaaa");
    char buf[4] = {'z', 'z', 'z', 'z'};
    SafeCopy(buf, "hello", sizeof(buf));
    EXPECT_STREQ(buf, "hel");
    SafeCopy(buf, "q", 0);
    EXPECT_STREQ(buf, "hel");
    EXPECT_EQ(Int64ToString(-9000000000LL), "-9000000000");
}

TEST(Utils, Base64AndDigest) {
    struct {
        const char* in;
        const char* out;
    } cases[] = {
        {"ab", "YWI="}, {"", ""}, {"a", "YQ=="}, {"abc", "YWJj"}, {"user:pass", "dXNlcjpwYXNz"}};
    for (auto& c : cases) {
        char* enc = Base64Encode(c.in);
        ASSERT_NE(enc, nullptr);
        EXPECT_STREQ(enc, c.out);
        free(enc);
    }
    unsigned char digest[16];
    for (int i = 0; i < 16; ++i)
        digest[i] = static_cast<unsigned char>(i * 17);
    EXPECT_EQ(DigestToHex(digest), "00112233445566778899aabbccddeeff");
}

TEST(Utils, SplitToInts) {
    EXPECT_EQ(SplitToInts("1,2;3", ",;"), (std::vector<int>{1, 2, 3}));
    EXPECT_TRUE(SplitToInts("", ",").empty());
    EXPECT_TRUE(SplitToInts("1,2", "").empty());
    EXPECT_EQ(SplitToInts(",,7,", ","), (std::vector<int>{7}));
}

TEST(Utils, WriteFdWritesAllOrReportsError) {
    EXPECT_EQ(WriteFd(-1, "x", 0), 0);
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    EXPECT_EQ(WriteFd(fds[1], "hello", 5), 5);
    char buf[8] = {0};
    EXPECT_EQ(read(fds[0], buf, sizeof(buf)), 5);
    close(fds[0]);
    close(fds[1]);

    LogCapture log;
    EXPECT_EQ(WriteFd(fds[1], "x", 1), 0);  // closed descriptor: EBADF
    EXPECT_EQ(log.Count("Write fd["), 1);
}

}  // namespace
