// The C23 strto*/scanf names live555 imports, as this process binds them (glibc's own on 2.38+,
// the library's compatibility definitions before): C23's binary prefix, everything else as
// before.
#include <dlfcn.h>

#include <gtest/gtest.h>

#include <climits>

namespace {

template <typename F>
F Bound(const char* name) {
    return reinterpret_cast<F>(dlsym(RTLD_DEFAULT, name));
}

TEST(GlibcCompat, C23ConversionsReadTheBinaryPrefix) {
    const auto strtol23 = Bound<long (*)(const char*, char**, int)>("__isoc23_strtol");
    const auto strtoull23 =
        Bound<unsigned long long (*)(const char*, char**, int)>("__isoc23_strtoull");
    const auto wcstol23 = Bound<long (*)(const wchar_t*, wchar_t**, int)>("__isoc23_wcstol");
    const auto sscanf23 = Bound<int (*)(const char*, const char*, ...)>("__isoc23_sscanf");
    ASSERT_TRUE(strtol23 && strtoull23 && wcstol23 && sscanf23);
    const struct {
        const char* text;
        int base;
        long value;
        int consumed;
    } cases[] = {
        {"0b101", 0, 5, 5},
        {" -0B11", 0, -3, 6},
        {"+0b1x", 2, 1, 4},
        {"0b102", 0, 2, 4},
        {"0b2", 0, 0, 1},
        {"0b101", 10, 0, 1},
        {"0x1f", 0, 31, 4},
        {"-0b1000000000000000000000000000000000000000000000000000000000000000", 0, LONG_MIN, 67},
    };
    for (const auto& c : cases) {
        char* end = nullptr;
        EXPECT_EQ(strtol23(c.text, &end, c.base), c.value) << c.text;
        EXPECT_EQ(end - c.text, c.consumed) << c.text;
    }
    EXPECT_EQ(strtoull23("-0b1", nullptr, 0), ULLONG_MAX);
    EXPECT_EQ(wcstol23(L"0b110", nullptr, 0), 6);
    int number = 0;
    unsigned hex = 0;
    EXPECT_EQ(sscanf23("RTSP/1.0 200 a", "RTSP/%*s %d %x", &number, &hex), 2);
    EXPECT_EQ(number, 200);
    EXPECT_EQ(hex, 0xau);
}

}  // namespace
