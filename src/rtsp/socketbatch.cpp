#include "rtsp/socketbatch.h"

#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <vector>

#include "core/log.h"
#include "rtsp/importslot.h"

namespace socketbatch {
namespace {

// Sockets numbered higher are read unbatched.
constexpr int kMaxFd = 65536;
constexpr size_t kChunk = 64 * 1024;

// The buffered reads of one socket, used by its owner thread only.
struct ReadBuffer {
    pthread_t owner;
    std::unique_ptr<unsigned char[]> data{new unsigned char[kChunk]};
    size_t begin = 0;
    size_t end = 0;
    sockaddr_storage peer{};
    socklen_t peerLength = 0;
};

std::atomic<ReadBuffer*> g_batches[kMaxFd];
std::atomic<bool> g_installed{false};

ReadBuffer* Owned(int fd) {
    if (fd < 0 || fd >= kMaxFd)
        return nullptr;
    ReadBuffer* b = g_batches[fd].load(std::memory_order_acquire);
    return b && pthread_equal(b->owner, pthread_self()) ? b : nullptr;
}

// live555's imports redirected here: which library, which symbol, and whether batching is
// unsafe without it (a socket closed behind the buffer's back would leave its bytes to the
// next socket of that number).
struct Import {
    const char* library;
    const char* symbol;
    void* replacement;
    bool required;
};

}  // namespace

ssize_t RecvFrom(int fd, void* buffer, size_t length, int flags, sockaddr* from,
                 socklen_t* fromLength) {
    ReadBuffer* b = flags == 0 ? Owned(fd) : nullptr;
    if (!b)
        return ::recvfrom(fd, buffer, length, flags, from, fromLength);
    if (b->begin == b->end) {
        const ssize_t n = ::recv(fd, b->data.get(), kChunk, MSG_DONTWAIT);
        if (n <= 0)
            return n;  // end of stream, or the error (errno) live555 must see
        b->begin = 0;
        b->end = static_cast<size_t>(n);
    }
    const size_t n = std::min(length, b->end - b->begin);
    memcpy(buffer, b->data.get() + b->begin, n);
    b->begin += n;
    // What recvfrom reports for the peer of a connected stream socket.
    if (fromLength)
        *fromLength = 0;
    return static_cast<ssize_t>(n);
}

int GetPeerName(int fd, sockaddr* address, socklen_t* length) {
    ReadBuffer* b = Owned(fd);
    if (!b || b->peerLength == 0 || !address || !length)
        return ::getpeername(fd, address, length);
    memcpy(address, &b->peer, std::min(*length, b->peerLength));
    *length = b->peerLength;
    return 0;
}

int Close(int fd) {
    if (Owned(fd))
        Release(fd);
    return ::close(fd);
}

bool Install() {
    static std::once_flag once;
    std::call_once(once, [] {
#if defined(__x86_64__)
        // A host that does not want live555's import slots touched turns the layer off.
        const char* setting = getenv("CAMFETCH_SOCKET_BATCH");
        if (setting && strcmp(setting, "0") == 0) {
            CF_LOG(LOG_CATEG_RTSP, LOG_LEVEL_INFO,
                   "CAMFETCH_SOCKET_BATCH=0: live555 socket reads stay unbatched.\n");
            return;
        }
        const Import imports[] = {
            {"libgroupsock.so", "recvfrom", reinterpret_cast<void*>(RecvFrom), true},
            {"libliveMedia.so", "close", reinterpret_cast<void*>(Close), true},
            {"libgroupsock.so", "close", reinterpret_cast<void*>(Close), true},
            {"libliveMedia.so", "getpeername", reinterpret_cast<void*>(GetPeerName), false},
        };
        std::vector<std::pair<void**, void*>> redirects;
        for (const Import& i : imports) {
            const std::vector<void**> slots = importslot::Find(i.library, i.symbol);
            if (slots.empty() && i.required) {
                CF_LOG(LOG_CATEG_RTSP, LOG_LEVEL_WARNING,
                       "No %s import in %s: live555 socket reads stay unbatched.\n", i.symbol,
                       i.library);
                return;
            }
            for (void** slot : slots)
                redirects.emplace_back(slot, i.replacement);
        }
        // All or nothing.
        std::vector<std::pair<void**, void*>> done;
        for (const auto& [slot, replacement] : redirects) {
            void* original = __atomic_load_n(slot, __ATOMIC_ACQUIRE);
            if (!importslot::Redirect(slot, replacement)) {
                for (const auto& [s, o] : done)
                    importslot::Redirect(s, o);
                CF_LOG(LOG_CATEG_RTSP, LOG_LEVEL_WARNING,
                       "Import slot not writable: live555 socket reads stay unbatched.\n");
                return;
            }
            done.emplace_back(slot, original);
        }
        g_installed = true;
        CF_LOG(LOG_CATEG_RTSP, LOG_LEVEL_INFO, "live555 socket reads are batched (%d slots).\n",
               static_cast<int>(done.size()));
#endif
    });
    return g_installed;
}

bool Installed() {
    return g_installed;
}

void Batch(int fd) {
    if (!g_installed || fd < 0 || fd >= kMaxFd)
        return;
    ReadBuffer* current = g_batches[fd].load(std::memory_order_acquire);
    if (current && !pthread_equal(current->owner, pthread_self()))
        return;  // another loop's socket: never touched from here
    auto* b = new ReadBuffer;
    b->owner = pthread_self();
    b->peerLength = sizeof b->peer;
    if (::getpeername(fd, reinterpret_cast<sockaddr*>(&b->peer), &b->peerLength) != 0)
        b->peerLength = 0;
    delete g_batches[fd].exchange(b, std::memory_order_acq_rel);
}

void Release(int fd) {
    if (!Owned(fd))
        return;
    delete g_batches[fd].exchange(nullptr, std::memory_order_acq_rel);
}

bool Buffered(int fd) {
    const ReadBuffer* b = Owned(fd);
    return b && b->begin < b->end;
}

}  // namespace socketbatch
