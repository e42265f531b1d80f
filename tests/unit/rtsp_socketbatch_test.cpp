// Batched reads under live555: small reads served from one large read, buffered bytes ready
// without the kernel, and everything else (other threads, flags, closed sockets) left to the
// system.
#include "rtsp/socketbatch.h"

#include <BasicUsageEnvironment.hh>
#include <GroupsockHelper.hh>

#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <thread>

namespace {

// Non-blocking, as live555 makes every socket it reads.
class SocketBatch : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(socketbatch::Install()) << "live555's import slots were not found";
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, m_fds), 0);
    }
    void TearDown() override {
        socketbatch::Release(m_fds[0]);
        close(m_fds[0]);
        close(m_fds[1]);
    }
    void Send(const std::string& bytes) {
        ASSERT_EQ(write(m_fds[1], bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    }
    int Queued() {
        int n = -1;
        ioctl(m_fds[0], FIONREAD, &n);
        return n;
    }
    // What the event loop sees: bytes in this thread's buffer, else the kernel's answer.
    int Ready(int fd) {
        if (socketbatch::Buffered(fd))
            return 1;
        pollfd p{fd, POLLIN, 0};
        return poll(&p, 1, 0);
    }
    std::string Read(size_t n) {
        std::string out(n, '\0');
        const ssize_t got = socketbatch::RecvFrom(m_fds[0], &out[0], n, 0, nullptr, nullptr);
        out.resize(got > 0 ? static_cast<size_t>(got) : 0);
        return out;
    }

    int m_fds[2];
};

TEST_F(SocketBatch, SmallReadsComeFromOneLargeRead) {
    socketbatch::Batch(m_fds[0]);
    Send(std::string("$\x01\x00\x04", 4) + "abcd" + "RTSP/1.0 200 OK\r\n");
    EXPECT_EQ(Read(1), "$");
    EXPECT_EQ(Queued(), 0) << "everything was taken in the first read";
    EXPECT_EQ(Read(1), "\x01");
    EXPECT_EQ(Read(2), std::string("\x00\x04", 2));
    EXPECT_EQ(Ready(m_fds[0]), 1) << "buffered bytes are ready without the kernel";
    EXPECT_EQ(Read(4), "abcd");
    EXPECT_EQ(Read(100), "RTSP/1.0 200 OK\r\n");
    EXPECT_EQ(Ready(m_fds[0]), 0);
    errno = 0;
    char c;
    EXPECT_EQ(socketbatch::RecvFrom(m_fds[0], &c, 1, 0, nullptr, nullptr), -1);
    EXPECT_EQ(errno, EAGAIN);
    Send("xy");
    EXPECT_EQ(Ready(m_fds[0]), 1);
    EXPECT_EQ(Read(5), "xy");
}

TEST_F(SocketBatch, EndOfStreamReachesTheCaller) {
    socketbatch::Batch(m_fds[0]);
    Send("z");
    close(m_fds[1]);
    m_fds[1] = -1;
    EXPECT_EQ(Read(8), "z");
    char c;
    EXPECT_EQ(socketbatch::RecvFrom(m_fds[0], &c, 1, 0, nullptr, nullptr), 0);
}

TEST_F(SocketBatch, OtherThreadsFlagsAndSocketsGoToTheSystem) {
    socketbatch::Batch(m_fds[0]);
    Send("0123456789");
    EXPECT_EQ(Read(1), "0");  // the other nine wait in this thread's buffer
    std::thread([&] {
        char c;
        errno = 0;
        EXPECT_EQ(socketbatch::RecvFrom(m_fds[0], &c, 1, 0, nullptr, nullptr), -1);
        EXPECT_EQ(errno, EAGAIN) << "another thread reads the kernel's queue";
        EXPECT_EQ(Ready(m_fds[0]), 0);
    }).join();
    Send("A");
    char peek = 0;
    EXPECT_EQ(socketbatch::RecvFrom(m_fds[0], &peek, 1, MSG_PEEK, nullptr, nullptr), 1);
    EXPECT_EQ(peek, 'A');
    EXPECT_EQ(Read(20), "123456789");
    EXPECT_EQ(Read(20), "A");
    // An unbatched socket is read as it is.
    Send("B");
    socketbatch::Release(m_fds[0]);
    EXPECT_EQ(Read(20), "B");
}

TEST_F(SocketBatch, ClosingReleasesSoTheNumberStartsClean) {
    socketbatch::Batch(m_fds[0]);
    Send("stale bytes");
    EXPECT_EQ(Read(1), "s");
    const int number = m_fds[0];
    EXPECT_EQ(socketbatch::Close(m_fds[0]), 0);
    int again[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, again), 0);
    ASSERT_EQ(again[0], number) << "the descriptor number was not reused";
    m_fds[0] = again[0];
    close(m_fds[1]);
    m_fds[1] = again[1];
    EXPECT_EQ(Ready(m_fds[0]), 0) << "nothing of the closed socket is left";
    Send("fresh");
    EXPECT_EQ(Read(20), "fresh");
}

TEST_F(SocketBatch, PeerNameIsKept) {
    socketbatch::Batch(m_fds[0]);
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    ASSERT_EQ(socketbatch::GetPeerName(m_fds[0], reinterpret_cast<sockaddr*>(&address), &length),
              0);
    EXPECT_EQ(address.ss_family, AF_UNIX);
}

TEST_F(SocketBatch, Live555ReadsGoThroughTheBatch) {
    TaskScheduler* scheduler = BasicTaskScheduler::createNew();
    UsageEnvironment* env = BasicUsageEnvironment::createNew(*scheduler);
    socketbatch::Batch(m_fds[0]);
    Send("live555");
    unsigned char byte = 0;
    sockaddr_storage from;
    // live555's own reader, in libgroupsock.
    EXPECT_EQ(readSocket(*env, m_fds[0], &byte, 1, from), 1);
    EXPECT_EQ(byte, 'l');
    EXPECT_EQ(Queued(), 0) << "live555's read did not go through the batch";
    env->reclaim();
    delete scheduler;
}

}  // namespace
