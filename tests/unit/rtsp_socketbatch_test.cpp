// Batched reads under live555: small reads served from one large read, buffered bytes ready
// without the kernel, and everything else (other threads, flags, closed sockets, TLS) left to
// the system; and the conditions under which the layer sits under live555 at all.
#include "rtsp/socketbatch.h"

#include <BasicUsageEnvironment.hh>
#include <GroupsockHelper.hh>

#include <dlfcn.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <thread>

#include "rtsp/importslot.h"
#include "rtsp/live555copy.h"
#include "rtsp/socketimports.h"

namespace {

// Non-blocking, as live555 makes every socket it reads.
class SocketBatch : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(socketbatch::Install(true)) << "batching is off: see the log";
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, m_fds), 0);
    }
    void TearDown() override {
        socketbatch::Close(m_fds[0]);  // as live555 closes: forgets the number's TLS mark too
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
    EXPECT_EQ(peek, '1') << "a peek sees the next byte in order, buffered or not";
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

TEST_F(SocketBatch, SocketsHandedToTlsAreNeverBuffered) {
    socketbatch::Batch(m_fds[0]);
    Send("ab");
    EXPECT_EQ(Read(1), "a");
    EXPECT_EQ(socketbatch::NewTlsSocket(m_fds[0], 0), nullptr) << "a byte was read ahead of TLS";
    EXPECT_EQ(Read(1), "b");
    socketbatch::Release(m_fds[0]);
    bio_st* bio = socketbatch::NewTlsSocket(m_fds[0], 0);
    ASSERT_NE(bio, nullptr);
    reinterpret_cast<int (*)(bio_st*)>(dlsym(RTLD_DEFAULT, "BIO_free"))(bio);
    socketbatch::Batch(m_fds[0]);
    Send("cd");
    EXPECT_EQ(Read(1), "c");
    EXPECT_EQ(Queued(), 1) << "a socket handed to TLS was buffered";
}

TEST(ImportSlot, RedirectPutsThePageProtectionBack) {
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    void* area = mmap(nullptr, page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(area, MAP_FAILED);
    auto** slot = static_cast<void**>(area);
    ASSERT_EQ(mprotect(area, page, PROT_READ), 0);
    int target = 0;
    ASSERT_TRUE(importslot::Redirect(slot, &target));
    EXPECT_EQ(*slot, &target);
    // The kernel refuses to write into a read-only page (EFAULT) where the program would crash.
    int pipeFds[2];
    ASSERT_EQ(pipe(pipeFds), 0);
    ASSERT_EQ(write(pipeFds[1], "12345678", 8), 8);
    EXPECT_EQ(read(pipeFds[0], slot, 8), -1) << "the slot's page was left writable";
    close(pipeFds[0]);
    close(pipeFds[1]);
    munmap(area, page);
}

// live555 as this process loaded it: the private copy, importing exactly what the build
// recorded, through nothing the buffer cannot sit under.
TEST(Live555Imports, TheLoadedLibrariesImportWhatTheBuildRecorded) {
    std::vector<live555copy::Library> libraries;
    std::string why;
    ASSERT_TRUE(live555copy::FindPrivateCopy(libraries, why)) << why;
    EXPECT_EQ(libraries.size(), 4u);
    for (const live555copy::Library& library : libraries) {
        const auto imports = importslot::Imports(library.object);
        std::vector<std::string> names;
        for (const auto& entry : imports)
            names.push_back(entry.first);
        EXPECT_EQ(names, library.recorded) << library.soname;
        std::vector<socketimports::Rewrite> rewrites;
        EXPECT_TRUE(socketimports::Plan(library.soname, imports, library.recorded, rewrites, why))
            << why;
    }
}

TEST(Live555Imports, PlanRefusesWhatTheBufferCannotSitUnder) {
    const std::vector<std::string> recorded = {"BIO_new_socket", "SSL_read", "close", "memcpy",
                                               "recvfrom",       "recvmsg",  "select"};
    void* slot = nullptr;
    const struct {
        const char* soname;
        std::vector<std::string> imports;
        std::string addressTaken;
        size_t rewrites;
        std::string why;  // empty: batching may sit under it
    } cases[] = {
        {"libgroupsock.so.33", {"close", "memcpy", "recvfrom"}, "", 2, ""},
        {"libgroupsock.so.33", {"recvfrom", "recv"}, "", 0, "imports recv, which this build did"},
        {"libgroupsock.so.33", {"recvfrom", "recvmsg"}, "", 0, "reaches sockets through recvmsg"},
        {"libgroupsock.so.33", {"recvfrom", "select"}, "", 0, "reaches sockets through select"},
        {"libBasicUsageEnvironment.so.2", {"select"}, "", 0, ""},
        {"libliveMedia.so.122", {"close", "recvfrom"}, "close", 0, "takes the address of close"},
        {"libliveMedia.so.122", {"SSL_read", "recvfrom"}, "", 0, "hands it no socket"},
        {"libliveMedia.so.122", {"BIO_new_socket", "SSL_read", "recvfrom"}, "", 2, ""},
    };
    for (const auto& c : cases) {
        std::map<std::string, importslot::Import> imports;
        for (const std::string& name : c.imports)
            imports[name] = {{&slot}, name == c.addressTaken};
        std::vector<socketimports::Rewrite> rewrites;
        std::string why;
        EXPECT_EQ(socketimports::Plan(c.soname, imports, recorded, rewrites, why), c.why.empty())
            << c.soname << ": " << why;
        EXPECT_NE(why.find(c.why), std::string::npos) << why;
        EXPECT_EQ(rewrites.size(), c.rewrites) << c.soname << ": " << why;
    }
}

}  // namespace
