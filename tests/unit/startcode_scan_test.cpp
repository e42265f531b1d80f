// The vectorised start-code scanners against a byte-wise search, at every alignment and
// length, with codes planted at the edges of the vector steps and of the buffer.
#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "packetizer/mpeg4video_internal.h"

namespace {

const uint8_t* Naive(const uint8_t* begin, const uint8_t* end, const uint8_t* pattern, size_t n) {
    for (const uint8_t* p = begin; end - p >= static_cast<ptrdiff_t>(n); ++p)
        if (std::equal(pattern, pattern + n, p))
            return p;
    return nullptr;
}

TEST(StartCodeScan, MatchesAByteWiseSearch) {
    std::mt19937 rng(7);
    // Mostly zeros and ones so that near misses (00 00 00 00, 00 01, 00 00 02) abound.
    std::discrete_distribution<int> byte({40, 20, 5, 35});
    for (int round = 0; round < 3000; ++round) {
        const size_t size = rng() % 200;
        std::vector<uint8_t> buf(size + 64);
        for (auto& b : buf)
            b = byte(rng) == 3 ? static_cast<uint8_t>(0x80 | rng())
                               : static_cast<uint8_t>(byte(rng));
        const uint8_t* begin = buf.data() + rng() % 32;
        const uint8_t* end = begin + size;
        EXPECT_EQ(FindStartCode3(begin, end), Naive(begin, end, kStartCode3, 3)) << round;
        EXPECT_EQ(FindStartCode4(begin, end), Naive(begin, end, kStartCode4, 4)) << round;
    }
}

TEST(StartCodeScan, CodesAtEveryOffsetOfALongRun) {
    std::vector<uint8_t> buf(300, 0xaa);
    for (size_t at = 0; at + 4 <= buf.size(); ++at) {
        std::fill(buf.begin(), buf.end(), 0xaa);
        std::copy(kStartCode4, kStartCode4 + 4, buf.begin() + static_cast<long>(at));
        const uint8_t* b = buf.data();
        const uint8_t* e = b + buf.size();
        EXPECT_EQ(FindStartCode4(b, e), b + at) << at;
        EXPECT_EQ(FindStartCode3(b, e), b + at + 1) << at;
        // Cut one byte short of the code: not found.
        EXPECT_EQ(FindStartCode4(b, b + at + 3), nullptr) << at;
        EXPECT_EQ(FindStartCode3(b, b + at + 3), nullptr) << at;
    }
    EXPECT_EQ(FindStartCode3(nullptr, nullptr), nullptr);
}

}  // namespace
