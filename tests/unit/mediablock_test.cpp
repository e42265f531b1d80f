#include "core/mediablock.h"

#include <gtest/gtest.h>

#include <cstring>

#include "log_capture.h"

namespace {

MediaBlock* MakeBlock(std::initializer_list<unsigned char> bytes) {
    std::vector<unsigned char> data(bytes);
    return new MediaBlock(static_cast<int>(data.size()), data.data());
}

MediaBlock* MakeChain(int n) {
    MediaBlock* head = nullptr;
    MediaBlock** tail = &head;
    for (int i = 0; i < n; ++i) {
        MediaBlock* b = new MediaBlock(1, nullptr);
        b->SetID(i);
        BlockChainLastAppend(&tail, b);
    }
    return head;
}

int ChainLength(MediaBlock* head) {
    int n = 0;
    BlockChainProperties(head, &n, nullptr, nullptr);
    return n;
}

TEST(MediaBlock, ConstructionAndBufferManagement) {
    MediaBlock zero(0, reinterpret_cast<const unsigned char*>("x"));
    EXPECT_EQ(zero.GetBuffer(), nullptr);

    MediaBlock b(4, reinterpret_cast<const unsigned char*>("abcd"));
    b.SetVdoOft(1);
    EXPECT_EQ(b.GetFrameSize(), 3u);
    EXPECT_EQ(0, memcmp(b.GetFrame(), "bcd", 3));

    b.SetSize(0);
    EXPECT_EQ(b.GetBuffer(), nullptr);
    EXPECT_EQ(b.GetBufferSize(), 0u);
}

TEST(MediaBlock, CopyKeepsLinkButDuplicateDetaches) {
    MediaBlock* next = new MediaBlock();
    MediaBlock* b = MakeBlock({1, 2, 3});
    b->SetNext(next);
    b->SetPTS(10);
    b->SetID(7);
    b->SetVdoOft(1);
    b->GetAvcList().push_back(3);

    MediaBlock copy(*b);
    EXPECT_EQ(copy.GetNext(), next);
    EXPECT_EQ(copy.GetID(), 7);
    EXPECT_NE(copy.GetBuffer(), b->GetBuffer());
    EXPECT_EQ(copy.GetAvcList().size(), 1u);
    copy.SetNext(nullptr);

    MediaBlock* dup = BlockDuplicate(b);
    EXPECT_EQ(dup->GetNext(), nullptr);
    EXPECT_EQ(dup->GetID(), -1);
    EXPECT_EQ(dup->GetVdoOft(), 0);
    EXPECT_EQ(dup->GetPTS(), 10);
    EXPECT_EQ(0, memcmp(dup->GetBuffer(), b->GetBuffer(), 3));
    delete dup;
    BlockChainRelease(b);
}

TEST(MediaBlock, StealLeavesSourceEmpty) {
    MediaBlock* src = MakeBlock({9, 8, 7});
    src->GetAvcList().push_back(3);
    unsigned char* bytes = src->GetBuffer();
    MediaBlock* thief = new MediaBlock(*src, true);
    EXPECT_EQ(thief->GetBuffer(), bytes);
    EXPECT_EQ(thief->GetBufferSize(), 3u);
    EXPECT_EQ(thief->GetAvcList().size(), 1u);
    EXPECT_EQ(src->GetBuffer(), nullptr);
    EXPECT_EQ(src->GetBufferSize(), 0u);
    EXPECT_TRUE(src->GetAvcList().empty());
    delete src;  // frees nothing twice (ASan checks)
    delete thief;
}

TEST(BlockChain, LengthLimitDropsOldestAndLogsEachDrop) {
    LogCapture log;
    MediaBlock* empty = nullptr;
    BlockChainAppend(&empty, new MediaBlock());
    EXPECT_NE(empty, nullptr);
    BlockChainRelease(empty);

    MediaBlock* head = MakeChain(513);
    BlockChainAppend(&head, new MediaBlock());
    EXPECT_EQ(ChainLength(head), 514);
    EXPECT_EQ(log.Count("Chain length is over maximum"), 0);

    BlockChainAppend(&head, new MediaBlock());
    EXPECT_EQ(ChainLength(head), 514);
    EXPECT_EQ(head->GetID(), 1) << "the oldest block is the one dropped";
    EXPECT_EQ(log.Count("Chain length is over maximum"), 1);
    auto records = log.Records();
    EXPECT_EQ(records.back().categ, "-");
    EXPECT_EQ(records.back().function, "BlockChainAppend");
    BlockChainRelease(head);

    // A much longer chain is cut back in one append, one line per dropped block.
    MediaBlock* longChain = MakeChain(600);
    BlockChainAppend(&longChain, new MediaBlock());
    EXPECT_EQ(ChainLength(longChain), 514);
    EXPECT_EQ(log.Count("Chain length is over maximum"), 1 + 87);
    BlockChainRelease(longChain);
}

TEST(BlockChain, GatherJoinsBytesAndKeepsHeadTiming) {
    MediaBlock* single = MakeBlock({1});
    EXPECT_EQ(BlockChainGather(single), single);
    delete single;

    MediaBlock* a = MakeBlock({1, 2, 3});
    MediaBlock* b = MakeBlock({4, 5, 6, 7, 8});
    a->SetPTS(100);
    a->SetDTS(90);
    a->SetFlags(2);
    a->SetLength(40);
    b->SetPTS(999);
    b->SetLength(20);
    b->SetFlags(8);
    MediaBlock* head = nullptr;
    BlockChainAppend(&head, a);
    BlockChainAppend(&head, b);
    MediaBlock* g = BlockChainGather(head);
    ASSERT_EQ(g->GetBufferSize(), 8u);
    const unsigned char expected[] = {1, 2, 3, 4, 5, 6, 7, 8};
    EXPECT_EQ(0, memcmp(g->GetBuffer(), expected, 8));
    EXPECT_EQ(g->GetPTS(), 100);
    EXPECT_EQ(g->GetDTS(), 90);
    EXPECT_EQ(g->GetFlags(), 2u);
    EXPECT_EQ(g->GetLength(), 60);
    EXPECT_EQ(g->GetNext(), nullptr);
    delete g;
}

TEST(BlockChain, PropertiesOfEmptyAndNullOutputs) {
    int n = -1;
    unsigned long s = 1;
    long long l = 1;
    BlockChainProperties(nullptr, &n, &s, &l);
    EXPECT_EQ(n, 0);
    EXPECT_EQ(s, 0u);
    EXPECT_EQ(l, 0);
    MediaBlock* chain = MakeChain(3);
    BlockChainProperties(chain, nullptr, &s, nullptr);
    EXPECT_EQ(s, 3u);
    BlockChainRelease(chain);
}

TEST(BufferChain, FifoOrderAndReuseAfterEmpty) {
    SOUT_BUFFER_CHAIN fifo;
    BufferChainInit(&fifo);
    EXPECT_EQ(BufferChainGet(&fifo), nullptr);
    EXPECT_EQ(fifo.i_depth, 0);

    BufferChainAppend(&fifo, MakeChain(2));  // a chain counts every block
    EXPECT_EQ(fifo.i_depth, 2);
    MediaBlock* first = BufferChainGet(&fifo);
    EXPECT_EQ(first->GetID(), 0);
    EXPECT_EQ(first->GetNext(), nullptr);
    delete first;
    delete BufferChainGet(&fifo);
    EXPECT_EQ(fifo.pp_last, &fifo.p_first);

    MediaBlock* again = new MediaBlock();
    BufferChainAppend(&fifo, again);
    EXPECT_EQ(fifo.p_first, again);
    EXPECT_EQ(BufferChainPeek(&fifo), again);
    BufferChainAppend(&fifo, MakeChain(3));
    EXPECT_EQ(fifo.i_depth, 4);
    BufferChainClean(&fifo);
    EXPECT_EQ(fifo.i_depth, 0);
    EXPECT_EQ(fifo.p_first, nullptr);
}

}  // namespace
