#include "packer/bitstream.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

// Packs a string of '0'/'1' into bytes, padding the last byte with zeros.
std::vector<uint8_t> Bits(const std::string& bits) {
    std::vector<uint8_t> out((bits.size() + 7) / 8, 0);
    for (size_t i = 0; i < bits.size(); ++i)
        if (bits[i] == '1')
            out[i / 8] |= static_cast<uint8_t>(0x80 >> (i % 8));
    return out;
}

TEST(BitStream, ExpGolombCodes) {
    struct {
        const char* bits;
        uint32_t ue;
        int32_t se;
    } cases[] = {{"1", 0, 0},     {"010", 1, 1},    {"011", 2, -1},
                 {"00100", 3, 2}, {"00101", 4, -2}, {"0001000", 7, 4}};
    for (auto& c : cases) {
        auto data = Bits(c.bits);
        BIT_STREAM s;
        BitStreamInit(&s, data.data(), static_cast<int>(data.size()));
        EXPECT_EQ(bs_read_ue(&s), c.ue) << c.bits;
        EXPECT_EQ(BitStreamPos(&s), static_cast<int>(strlen(c.bits))) << c.bits;
        BitStreamInit(&s, data.data(), static_cast<int>(data.size()));
        EXPECT_EQ(bs_read_se(&s), c.se) << c.bits;
    }
}

TEST(BitStream, HostileExpGolombIsBoundedAndStaysInside) {
    // All zeros: the leading-zero count stops at the end of the data.
    std::vector<uint8_t> zeros(2, 0);
    BIT_STREAM s;
    BitStreamInit(&s, zeros.data(), 2);
    bs_read_ue(&s);
    EXPECT_TRUE(BitStreamEof(&s));
    EXPECT_EQ(BitStreamRead(&s, 32), 0u);
    EXPECT_EQ(BitStreamRemain(&s), 0);

    // 31 zeros then a one then 31 ones: the largest code the reader takes.
    std::string big(31, '0');
    big += '1';
    big += std::string(31, '1');
    auto data = Bits(big);
    BitStreamInit(&s, data.data(), static_cast<int>(data.size()));
    EXPECT_EQ(bs_read_ue(&s), 0xFFFFFFFEu);
    std::string capped = std::string(31, '0') + "1" + std::string(30, '1') + "0";
    data = Bits(capped);
    BitStreamInit(&s, data.data(), static_cast<int>(data.size()));
    EXPECT_EQ(bs_read_ue(&s), 0xFFFFFFFDu);

    // 31 zeros, a one and 31 zero bits: k = 2^31 - 1, whose signed value is capped.
    data = Bits(std::string(31, '0') + "1" + std::string(31, '0'));
    BitStreamInit(&s, data.data(), static_cast<int>(data.size()));
    EXPECT_EQ(bs_read_se(&s), 0x3FFFFFFF);
}

TEST(BitStream, ReadAcrossBytesWithOffset) {
    const uint8_t data[] = {0xA5, 0x12, 0x34, 0x56, 0x78};
    BIT_STREAM s;
    BitStreamInit(&s, data, sizeof(data));
    EXPECT_EQ(BitStreamRead(&s, 4), 0xAu);
    EXPECT_EQ(BitStreamRead(&s, 32), 0x51234567u);
    EXPECT_EQ(s.i_left, 4);
    EXPECT_EQ(BitStreamRemain(&s), 4);
    EXPECT_EQ(BitStreamRead(&s, 8), 0x8u) << "stops early at the end with what it has";
    EXPECT_EQ(BitStreamRead(&s, 0), 0u);
    EXPECT_EQ(BitStreamRead1(&s), 0u);

    BitStreamInit(&s, data, sizeof(data));
    BitStreamSkip(&s, 12);
    EXPECT_EQ(BitStreamRead(&s, 4), 0x2u);
    BitStreamRead1(&s);
    BitStreamAlign(&s);
    EXPECT_EQ(BitStreamPos(&s), 24);
    BitStreamSkip(&s, 1000);  // never past the end
    EXPECT_EQ(BitStreamRemain(&s), 0);
    EXPECT_EQ(BitStreamRead(&s, 8), 0u);
}

std::vector<uint8_t> ReadRbsp(const std::vector<uint8_t>& nal) {
    BIT_STREAM s;
    unsigned history = 0;
    BitStreamInit(&s, nal.data(), static_cast<int>(nal.size()));
    s.pf_forward = hxxx_bsfw_ep3b_to_rbsp;
    s.p_fwdpriv = &history;
    std::vector<uint8_t> out;
    while (!BitStreamEof(&s))
        out.push_back(static_cast<uint8_t>(BitStreamRead(&s, 8)));
    return out;
}

// The reader starts on the NAL header, which is never zero; the payload follows it.
TEST(BitStream, EmulationPreventionIsSkipped) {
    EXPECT_EQ(ReadRbsp({0x67, 0x00, 0x00, 0x03, 0x01}),
              (std::vector<uint8_t>{0x67, 0x00, 0x00, 0x01}));
    EXPECT_EQ(ReadRbsp({0x67, 0x00, 0x00, 0x03}), (std::vector<uint8_t>{0x67, 0x00, 0x00, 0x03}))
        << "an escape as the very last byte is kept";
    EXPECT_EQ(ReadRbsp({0x67, 0x00, 0x00, 0x03, 0x00, 0x03, 0x01}),
              (std::vector<uint8_t>{0x67, 0x00, 0x00, 0x00, 0x03, 0x01}))
        << "the zero count restarts after an escape";
    EXPECT_EQ(ReadRbsp({0x67, 0x00, 0x00, 0x03, 0x00, 0x00, 0x03, 0x02}),
              (std::vector<uint8_t>{0x67, 0x00, 0x00, 0x00, 0x00, 0x02}));
    EXPECT_EQ(ReadRbsp({0x67, 0x05, 0x00, 0x03, 0x01}),
              (std::vector<uint8_t>{0x67, 0x05, 0x00, 0x03, 0x01}));
}

TEST(BitsBuffer, WritesMsbFirstAndAligns) {
    uint8_t buf[4] = {0xFF, 0xFF, 0xFF, 0xFF};
    BITS_BUFFER b;
    BitsInitwrite(&b, sizeof(buf), buf);
    EXPECT_EQ(buf[0], 0);
    BitsWrite(&b, 3, 0b101);
    BitsAlign(&b);
    EXPECT_EQ(buf[0], 0xA0);
    EXPECT_EQ(buf[1], 0) << "align clears the next byte";
    BitsWrite(&b, 12, 0xABC);
    EXPECT_EQ(buf[1], 0xAB);
    EXPECT_EQ(buf[2] & 0xF0, 0xC0);
    BitsWrite(&b, 64, ~0ULL);  // runs out of room without writing past the end
    EXPECT_EQ(b.i_data, 4);

    BITS_BUFFER owned;
    BitsInitwrite(&owned, 2, nullptr);
    BitsWrite(&owned, 16, 0x1234);
    EXPECT_EQ(owned.p_data[0], 0x12);
    EXPECT_EQ(owned.p_data[1], 0x34);
    delete[] owned.p_data;
}

}  // namespace
