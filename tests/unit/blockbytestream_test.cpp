#include "packer/blockbytestream.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "nal_builder.h"

namespace {

const uint8_t kStartCode3[] = {0x00, 0x00, 0x01};

// A byte stream fed with the given pieces, one block each.
struct Stream {
    BLOCK_BYTE_STREAM s;
    explicit Stream(const std::vector<std::string>& pieces) {
        BlockByteStreamInit(s);
        for (const auto& p : pieces)
            BlockByteStreamPush(&s,
                                new MediaBlock(static_cast<int>(p.size()),
                                               reinterpret_cast<const unsigned char*>(p.data())));
    }
    ~Stream() { BlockByteStreamRelease(&s); }
    int Find(size_t* offset) {
        return BlockFindStartCodeFromOffset(&s, offset, kStartCode3, 3, nullptr);
    }
};

TEST(BlockByteStream, GetPeekSkipAcrossBlocks) {
    Stream st({"ab", "", "cde"});
    uint8_t buf[8] = {0};
    EXPECT_EQ(BlockWaitBytes(&st.s, 5), 0);
    EXPECT_EQ(BlockWaitBytes(&st.s, 6), -1);
    EXPECT_EQ(BlockPeekOffsetBytes(&st.s, 1, buf, 3), 0);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(buf), 3), "bcd");
    EXPECT_EQ(BlockPeekOffsetBytes(&st.s, 3, buf, 3), -1);

    EXPECT_EQ(BlockGetBytes(&st.s, buf, 6), -1);
    EXPECT_EQ(BlockPeekBytes(&st.s, buf, 1), 0);
    EXPECT_EQ(buf[0], 'a') << "a failed read moves nothing";

    EXPECT_EQ(BlockSkipByte(&st.s), 0);
    EXPECT_EQ(BlockGetBytes(&st.s, buf, 4), 0);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(buf), 4), "bcde");
    EXPECT_EQ(st.s.i_block_offset, st.s.p_block->GetBufferSize()) << "ends at the last block's end";
    EXPECT_EQ(BlockSkipByte(&st.s), -1);
    EXPECT_EQ(BlockSkipBytes(&st.s, 0), 0);
}

TEST(BlockByteStream, SkipByteStepsOverEmptyBlocks) {
    Stream st({"a", "", "", "bc"});
    EXPECT_EQ(BlockSkipByte(&st.s), 0);
    EXPECT_EQ(BlockSkipByte(&st.s), 0);
    uint8_t c = 0;
    EXPECT_EQ(BlockPeekBytes(&st.s, &c, 1), 0);
    EXPECT_EQ(c, 'c');
}

TEST(BlockByteStream, FlushAndPopHandOverOwnership) {
    Stream st({"abc", "def", "gh"});
    BlockSkipBytes(&st.s, 4);
    BlockByteStreamFlush(&st.s);
    EXPECT_EQ(st.s.p_chain, st.s.p_block);
    int count = 0;
    BlockChainProperties(st.s.p_chain, &count, nullptr, nullptr);
    EXPECT_EQ(count, 2);

    MediaBlock* last = BlockByteStreamPop(&st.s);  // several blocks: the last one
    ASSERT_NE(last, nullptr);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(last->GetBuffer()), last->GetBufferSize()), "gh");
    delete last;

    MediaBlock* rest = BlockByteStreamPop(&st.s);  // one block: trimmed to what is unread
    ASSERT_NE(rest, nullptr);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(rest->GetBuffer()), rest->GetBufferSize()), "ef");
    delete rest;
    EXPECT_EQ(st.s.p_chain, nullptr);
    EXPECT_EQ(BlockByteStreamPop(&st.s), nullptr);

    Stream used({"ab"});
    BlockSkipBytes(&used.s, 2);
    BlockByteStreamFlush(&used.s);
    EXPECT_EQ(used.s.p_chain, nullptr) << "a block read to its end is deleted";
}

TEST(BlockByteStream, PopCurrentBlockAndExactSizeCheck) {
    Stream st({"abc", "de"});
    EXPECT_FALSE(IsRequiredDataInCurBlock(&st.s, 3)) << "not the last block";
    MediaBlock* cur = PopCurBlockFromList(&st.s);
    ASSERT_NE(cur, nullptr);
    EXPECT_EQ(cur->GetBufferSize(), 3u);
    EXPECT_EQ(cur->GetNext(), nullptr);
    delete cur;
    EXPECT_TRUE(IsRequiredDataInCurBlock(&st.s, 2));
    EXPECT_FALSE(IsRequiredDataInCurBlock(&st.s, 1));
}

TEST(BlockByteStream, PushPastTheChainLimitKeepsAValidPosition) {
    BLOCK_BYTE_STREAM s;
    BlockByteStreamInit(s);
    for (int i = 0; i < 600; ++i)
        BlockByteStreamPush(&s, new MediaBlock(1, nullptr));
    int count = 0;
    BlockChainProperties(s.p_chain, &count, nullptr, nullptr);
    EXPECT_EQ(count, 514);
    EXPECT_EQ(s.p_block, s.p_chain);
    EXPECT_EQ(BlockSkipBytes(&s, 514), 0);
    BlockByteStreamRelease(&s);
}

TEST(StartCodeSearch, FindsCodesSplitAcrossBlocks) {
    struct Case {
        std::vector<std::string> pieces;
        size_t expected;
    } cases[] = {
        {{nal::Bytes({0x11, 0x00, 0x00}), nal::Bytes({0x01, 0x22})}, 1},
        {{nal::Bytes({0x11, 0x00}), nal::Bytes({0x00}), nal::Bytes({0x01})}, 1},
        {{nal::Bytes({0x11, 0x00}), "", nal::Bytes({0x00}), "", nal::Bytes({0x01})}, 1},
        {{nal::Bytes({0x00, 0x00, 0x00, 0x00, 0x01})}, 2},
        {{nal::Bytes({0x00}), nal::Bytes({0x00, 0x00}), nal::Bytes({0x01})}, 1},
        {{nal::Bytes({0x00, 0x00, 0x02, 0x00, 0x00, 0x01})}, 3},
    };
    for (auto& c : cases) {
        Stream st(c.pieces);
        size_t offset = 0;
        EXPECT_EQ(st.Find(&offset), 0);
        EXPECT_EQ(offset, c.expected);
    }
}

TEST(StartCodeSearch, ResumesWithoutSearchingTwice) {
    Stream st({nal::Bytes({0x05, 0x06, 0x07, 0x00, 0x00})});
    size_t offset = 0;
    EXPECT_EQ(st.Find(&offset), -1);
    EXPECT_EQ(offset, 3u) << "stops before the pending partial match";
    BlockByteStreamPush(&st.s, new MediaBlock(1, reinterpret_cast<const unsigned char*>("\x01")));
    EXPECT_EQ(st.Find(&offset), 0);
    EXPECT_EQ(offset, 3u);
    offset = 4;  // searching past the match finds nothing more
    EXPECT_EQ(st.Find(&offset), -1);
    EXPECT_EQ(offset, 6u);
    offset = 6;
    EXPECT_EQ(st.Find(&offset), -1) << "an offset at the end has no block";
}

TEST(StartCodeSearch, FastFinderAndByteWiseTailAgree) {
    auto finder = [](const uint8_t* begin, const uint8_t* end) -> const uint8_t* {
        for (const uint8_t* p = begin; p + 3 <= end; ++p)
            if (p[0] == 0 && p[1] == 0 && p[2] == 1)
                return p;
        return nullptr;
    };
    Stream st({nal::Bytes({1, 2, 3, 4, 0}), nal::Bytes({0, 1, 9})});
    size_t offset = 0;
    EXPECT_EQ(BlockFindStartCodeFromOffset(&st.s, &offset, kStartCode3, 3, finder), 0);
    EXPECT_EQ(offset, 4u);
    Stream inBlock({nal::Bytes({1, 2, 0, 0, 1, 3})});
    offset = 0;
    EXPECT_EQ(BlockFindStartCodeFromOffset(&inBlock.s, &offset, kStartCode3, 3, finder), 0);
    EXPECT_EQ(offset, 2u);
}

}  // namespace
