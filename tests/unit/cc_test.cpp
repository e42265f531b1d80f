// Caption extraction from the four user-data forms.
#include "packetizer/cc.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "nal_builder.h"

namespace {

using nal::Bytes;

struct Extracted {
    std::string data;  // triplets
    bool reorder;
    std::string present;  // one '1' or '0' per channel
};

Extracted Extract(const std::string& payload, bool reorderBefore = false) {
    CC_DATA cc;
    CCDataInit(&cc);
    cc.reorder = reorderBefore;
    CCDataExtract(&cc, reinterpret_cast<const uint8_t*>(payload.data()),
                  static_cast<int>(payload.size()));
    std::string present;
    for (bool p : cc.present)
        present += p ? '1' : '0';
    return {std::string(reinterpret_cast<char*>(cc.data), cc.size), cc.reorder, present};
}

TEST(ClosedCaptions, PayloadForms) {
    struct Case {
        const char* name;
        std::string payload;
        bool reorderBefore;
        std::string data;
        bool reorder;
        const char* present;
    };
    const std::string ga94 = Bytes({'G', 'A', '9', '4', 3, 0x43, 0xff});
    // SCTE-20: count 1, then 2 skipped bits, field 1, 5 skipped bits, 0x94 and 0x2c with
    // their bits reversed (0x29, 0x34), a marker bit.
    nal::BitWriter scte;
    scte.u(5, 1);
    scte.u(2, 0);
    scte.u(2, 1);
    scte.u(5, 0);
    scte.u(8, 0x29);
    scte.u(8, 0x34);
    scte.u(1, 1);
    const Case cases[] = {
        {"A/53: two line-21 pairs and a DTVCC triplet",
         ga94 + Bytes({0xfc, 0x94, 0x2c, 0xfd, 0x80, 0x80, 0xff, 0x11, 0x22, 0xff}), false,
         Bytes({0, 0x94, 0x2c, 1, 0x80, 0x80}), true, "1111"},
        {"A/53 without the marker after the triplets",
         ga94 + Bytes({0xfc, 0x94, 0x2c, 0xfd, 0x80, 0x80, 0xff, 0x11, 0x22, 0x00}), false, "",
         false, "0000"},
        {"A/53 triplet without cc_valid", ga94 + Bytes({0xf8, 1, 2, 0xfc, 3, 4, 0xff, 5, 6, 0xff}),
         false, Bytes({0, 3, 4}), true, "1100"},
        {"DVD with a pair count of 0", Bytes({0x43, 0x43, 0x01, 0xf8, 0x00, 0x00}), true, "", false,
         "0000"},
        // One pair, field order bit clear: the first triplet is field 2.
        {"DVD pair", Bytes({0x43, 0x43, 0x01, 0xf8, 0x02, 0xff, 1, 2, 0xfe, 3, 4}), true,
         Bytes({1, 1, 2, 0, 3, 4}), false, "1111"},
        {"DVD pair, field order set, truncated", Bytes({0x43, 0x43, 0x01, 0xf8, 0x83, 0xff, 1, 2}),
         true, Bytes({0, 1, 2}), false, "1100"},
        {"ReplayTV", Bytes({0xbb, 0x02, 5, 6, 0xcc, 0x02, 7, 8}), true, Bytes({1, 5, 6, 0, 7, 8}),
         false, "1111"},
        {"ReplayTV second form", Bytes({0x99, 0x02, 5, 6, 0xaa, 0x02, 7, 8}), true,
         Bytes({1, 5, 6, 0, 7, 8}), false, "1111"},
        {"SCTE-20", Bytes({0x03, 0x81}) + scte.str(), false, Bytes({0, 0x94, 0x2c}), true, "1100"},
        {"too short", Bytes({'G', 'A', '9'}), true, "", true, "0000"},
        {"unknown form", Bytes({1, 2, 3, 4, 5, 6, 7, 8}), true, "", true, "0000"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Extracted e = Extract(c.payload, c.reorderBefore);
        EXPECT_EQ(e.data, c.data);
        EXPECT_EQ(e.reorder, c.reorder);
        EXPECT_EQ(e.present, c.present);
    }
}

TEST(ClosedCaptions, DataNeverOverflowsAndFlushKeepsPresence) {
    CC_DATA cc;
    CCDataInit(&cc);
    std::string payload = Bytes({'G', 'A', '9', '4', 3, 0x40 | 31, 0xff});
    for (int i = 0; i < 31; ++i)
        payload += Bytes({0xfc, 0x11, 0x22});
    payload += '\xff';
    for (int i = 0; i < 100; ++i)
        CCDataExtract(&cc, reinterpret_cast<const uint8_t*>(payload.data()),
                      static_cast<int>(payload.size()));
    EXPECT_EQ(cc.size, kCcDataMax);
    const std::string replay = Bytes({0xbb, 0x02, 5, 6, 0xcc, 0x02, 7, 8});
    CCDataExtract(&cc, reinterpret_cast<const uint8_t*>(replay.data()), 8);
    EXPECT_EQ(cc.size, kCcDataMax);

    CCDataFlush(&cc);
    EXPECT_EQ(cc.size, 0);
    EXPECT_TRUE(cc.present[0]);
    EXPECT_FALSE(cc.present[2]);
    EXPECT_FALSE(cc.reorder) << "the ReplayTV form was recognised, though full";
}

}  // namespace
