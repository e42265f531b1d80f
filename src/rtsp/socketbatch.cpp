#include "rtsp/socketbatch.h"

#include <dlfcn.h>
#include <openssl/bio.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <vector>

#include "core/log.h"
#include "rtsp/importslot.h"
#include "rtsp/live555copy.h"
#include "rtsp/socketimports.h"

namespace socketbatch {
namespace {

// Sockets numbered higher are read unbatched.
constexpr int kMaxFd = 65536;
constexpr size_t kChunk = 64 * 1024;
// Flags under which a read may be served from the buffer: they change nothing about which
// bytes come next.
constexpr int kPlainFlags = MSG_DONTWAIT | MSG_NOSIGNAL | MSG_CMSG_CLOEXEC;

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
// Sockets live555 handed to TLS: OpenSSL reads them itself, so they are never buffered.
std::atomic<bool> g_tls[kMaxFd];
std::atomic<bool> g_installed{false};
decltype(&BIO_new_socket) g_bioNewSocket = nullptr;

bool Valid(int fd) {
    return fd >= 0 && fd < kMaxFd;
}

ReadBuffer* Owned(int fd) {
    if (!Valid(fd))
        return nullptr;
    ReadBuffer* b = g_batches[fd].load(std::memory_order_acquire);
    return b && pthread_equal(b->owner, pthread_self()) ? b : nullptr;
}

void Drop(int fd) {
    if (Valid(fd))
        delete g_batches[fd].exchange(nullptr, std::memory_order_acq_rel);
}

// A read of a batched socket: from the buffer while it holds bytes, else refilled by one
// large read when the flags allow, else the system's answer.
ssize_t Take(ReadBuffer& b, int fd, void* buffer, size_t length, int flags) {
    if (b.begin == b.end) {
        if (flags & ~kPlainFlags)
            return ::recv(fd, buffer, length, flags);
        const ssize_t n = ::recv(fd, b.data.get(), kChunk, MSG_DONTWAIT);
        if (n <= 0)
            return n;  // end of stream, or the error (errno) live555 must see
        b.begin = 0;
        b.end = static_cast<size_t>(n);
    }
    const size_t n = std::min(length, b.end - b.begin);
    memcpy(buffer, b.data.get() + b.begin, n);
    if (!(flags & MSG_PEEK))
        b.begin += n;
    return static_cast<ssize_t>(n);
}

// Points every planned slot at its replacement, all or none.
bool Rewrite(const std::vector<socketimports::Rewrite>& rewrites, std::string& why) {
    std::vector<std::pair<void**, void*>> done;
    for (const socketimports::Rewrite& r : rewrites) {
        void* original = __atomic_load_n(r.slot, __ATOMIC_ACQUIRE);
        if (!importslot::Redirect(r.slot, r.replacement)) {
            for (auto it = done.rbegin(); it != done.rend(); ++it)
                importslot::Redirect(it->first, it->second);
            why = "an import slot of live555 could not be rewritten with its protection kept";
            return false;
        }
        done.emplace_back(r.slot, original);
    }
    return true;
}

// Whether the layer can sit under the loaded live555; if so, puts it there.
bool PutUnderLive555(std::string& why, size_t& slots) {
#if defined(__x86_64__)
    std::vector<live555copy::Library> libraries;
    if (!live555copy::FindPrivateCopy(libraries, why))
        return false;
    std::vector<socketimports::Rewrite> rewrites;
    for (const live555copy::Library& library : libraries)
        if (!socketimports::Plan(library.soname, importslot::Imports(library.object),
                                 library.recorded, rewrites, why))
            return false;
    const bool reads = std::any_of(rewrites.begin(), rewrites.end(), [](const auto& r) {
        return r.replacement == reinterpret_cast<void*>(RecvFrom) ||
               r.replacement == reinterpret_cast<void*>(Recv) ||
               r.replacement == reinterpret_cast<void*>(Read);
    });
    if (!reads) {
        why = "live555 reads no socket through an import the buffer can sit under";
        return false;
    }
    g_bioNewSocket =
        reinterpret_cast<decltype(&BIO_new_socket)>(dlsym(RTLD_DEFAULT, "BIO_new_socket"));
    const bool needsTls = std::any_of(rewrites.begin(), rewrites.end(), [](const auto& r) {
        return r.replacement == reinterpret_cast<void*>(NewTlsSocket);
    });
    if (needsTls && !g_bioNewSocket) {
        why = "OpenSSL's BIO_new_socket, which live555 imports, cannot be found";
        return false;
    }
    if (!Rewrite(rewrites, why))
        return false;
    slots = rewrites.size();
    return true;
#else
    (void)slots;
    why = "import slots are rewritten on x86-64 only";
    return false;
#endif
}

}  // namespace

ssize_t RecvFrom(int fd, void* buffer, size_t length, int flags, sockaddr* from,
                 socklen_t* fromLength) {
    ReadBuffer* b = Owned(fd);
    if (!b)
        return ::recvfrom(fd, buffer, length, flags, from, fromLength);
    const ssize_t n = Take(*b, fd, buffer, length, flags);
    // What recvfrom reports for the peer of a connected stream socket.
    if (n >= 0 && fromLength)
        *fromLength = 0;
    return n;
}

ssize_t Recv(int fd, void* buffer, size_t length, int flags) {
    ReadBuffer* b = Owned(fd);
    return b ? Take(*b, fd, buffer, length, flags) : ::recv(fd, buffer, length, flags);
}

ssize_t Read(int fd, void* buffer, size_t length) {
    ReadBuffer* b = Owned(fd);
    return b ? Take(*b, fd, buffer, length, 0) : ::read(fd, buffer, length);
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
    // Whichever thread closes it, the number may come back for another socket at once.
    if (Valid(fd)) {
        Drop(fd);
        g_tls[fd].store(false, std::memory_order_release);
    }
    return ::close(fd);
}

bio_st* NewTlsSocket(int fd, int closeFlag) {
    if (Valid(fd)) {
        g_tls[fd].store(true, std::memory_order_release);
        if (Buffered(fd)) {
            CF_LOG(LOG_CATEG_RTSP, LOG_LEVEL_ERROR,
                   "Socket[%d] has bytes read ahead of TLS: TLS refused.\n", fd);
            return nullptr;
        }
        Drop(fd);
    }
    return g_bioNewSocket(fd, closeFlag);
}

bool Install(bool wanted) {
    static std::once_flag once;
    std::call_once(once, [wanted] {
        std::string why;
        size_t slots = 0;
        try {
            if (!wanted)
                why = "the first RTSP fetcher asked for none (FETCH_FLAG_NO_SOCKET_BATCH)";
            else if (PutUnderLive555(why, slots))
                g_installed = true;
        } catch (const std::bad_alloc&) {
            why = "out of memory";
        }
        if (g_installed)
            CF_LOG(LOG_CATEG_RTSP, LOG_LEVEL_INFO, "live555 socket reads are batched (%d slots).\n",
                   static_cast<int>(slots));
        else
            CF_LOG(LOG_CATEG_RTSP, LOG_LEVEL_NOTICE, "live555 socket reads stay unbatched: %s.\n",
                   why.c_str());
    });
    return g_installed;
}

bool Installed() {
    return g_installed;
}

void Batch(int fd) {
    if (!g_installed || !Valid(fd) || g_tls[fd].load(std::memory_order_acquire))
        return;
    ReadBuffer* current = g_batches[fd].load(std::memory_order_acquire);
    if (current && !pthread_equal(current->owner, pthread_self()))
        return;  // another loop's socket: never touched from here
    std::unique_ptr<ReadBuffer> b;
    try {
        b.reset(new ReadBuffer);
    } catch (const std::bad_alloc&) {
        return;  // read unbatched
    }
    b->owner = pthread_self();
    b->peerLength = sizeof b->peer;
    if (::getpeername(fd, reinterpret_cast<sockaddr*>(&b->peer), &b->peerLength) != 0)
        b->peerLength = 0;
    delete g_batches[fd].exchange(b.release(), std::memory_order_acq_rel);
}

void Release(int fd) {
    if (Owned(fd))
        Drop(fd);
}

bool Buffered(int fd) {
    const ReadBuffer* b = Owned(fd);
    return b && b->begin < b->end;
}

}  // namespace socketbatch
