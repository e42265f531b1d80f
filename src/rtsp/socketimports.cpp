#include "rtsp/socketimports.h"

#include <algorithm>
#include <cstring>

#include "rtsp/socketbatch.h"

namespace socketimports {
namespace {

enum class Use {
    kRewrite,    // pointed at the buffered reader's replacement
    kTls,        // reads only sockets handed to TLS, which are never batched
    kEventLoop,  // live555's own select() loop, which the receiver replaces with its own
    kRefused,    // reads, waits on or closes a socket behind the buffer's back
};

struct SocketCall {
    const char* name;
    Use use;
    void* replacement;
};

template <typename F>
void* Fn(F* function) {
    return reinterpret_cast<void*>(function);
}

// Every import of libc and OpenSSL through which bytes of a socket can be taken, a socket be
// waited on, closed (or its number reused), or handed to code that reads it by itself.
const SocketCall kSocketCalls[] = {
    {"recvfrom", Use::kRewrite, Fn(socketbatch::RecvFrom)},
    {"recv", Use::kRewrite, Fn(socketbatch::Recv)},
    {"read", Use::kRewrite, Fn(socketbatch::Read)},
    {"close", Use::kRewrite, Fn(socketbatch::Close)},
    {"getpeername", Use::kRewrite, Fn(socketbatch::GetPeerName)},
    {"BIO_new_socket", Use::kRewrite, Fn(socketbatch::NewTlsSocket)},
    {"SSL_read", Use::kTls, nullptr},
    {"SSL_read_ex", Use::kTls, nullptr},
    {"SSL_peek", Use::kTls, nullptr},
    {"SSL_peek_ex", Use::kTls, nullptr},
    {"select", Use::kEventLoop, nullptr},
    {"__recv_chk", Use::kRefused, nullptr},
    {"__recvfrom_chk", Use::kRefused, nullptr},
    {"__read_chk", Use::kRefused, nullptr},
    {"recvmsg", Use::kRefused, nullptr},
    {"recvmmsg", Use::kRefused, nullptr},
    {"readv", Use::kRefused, nullptr},
    {"pread", Use::kRefused, nullptr},
    {"pread64", Use::kRefused, nullptr},
    {"preadv", Use::kRefused, nullptr},
    {"preadv64", Use::kRefused, nullptr},
    {"preadv2", Use::kRefused, nullptr},
    {"preadv64v2", Use::kRefused, nullptr},
    {"__pread_chk", Use::kRefused, nullptr},
    {"__pread64_chk", Use::kRefused, nullptr},
    {"splice", Use::kRefused, nullptr},
    {"tee", Use::kRefused, nullptr},
    {"sendfile", Use::kRefused, nullptr},
    {"sendfile64", Use::kRefused, nullptr},
    {"copy_file_range", Use::kRefused, nullptr},
    {"fdopen", Use::kRefused, nullptr},
    {"ioctl", Use::kRefused, nullptr},
    {"syscall", Use::kRefused, nullptr},
    {"aio_read", Use::kRefused, nullptr},
    {"aio_read64", Use::kRefused, nullptr},
    {"lio_listio", Use::kRefused, nullptr},
    {"lio_listio64", Use::kRefused, nullptr},
    {"io_uring_submit", Use::kRefused, nullptr},
    {"poll", Use::kRefused, nullptr},
    {"ppoll", Use::kRefused, nullptr},
    {"__poll_chk", Use::kRefused, nullptr},
    {"__ppoll_chk", Use::kRefused, nullptr},
    {"pselect", Use::kRefused, nullptr},
    {"epoll_wait", Use::kRefused, nullptr},
    {"epoll_pwait", Use::kRefused, nullptr},
    {"epoll_pwait2", Use::kRefused, nullptr},
    {"__close", Use::kRefused, nullptr},
    {"close_range", Use::kRefused, nullptr},
    {"closefrom", Use::kRefused, nullptr},
    {"dup2", Use::kRefused, nullptr},
    {"dup3", Use::kRefused, nullptr},
    {"SSL_set_fd", Use::kRefused, nullptr},
    {"SSL_set_rfd", Use::kRefused, nullptr},
    {"BIO_new_fd", Use::kRefused, nullptr},
    {"BIO_new_connect", Use::kRefused, nullptr},
    {"BIO_new_accept", Use::kRefused, nullptr},
    {"BIO_s_socket", Use::kRefused, nullptr},
    {"BIO_s_fd", Use::kRefused, nullptr},
    {"BIO_read", Use::kRefused, nullptr},
    {"BIO_read_ex", Use::kRefused, nullptr},
};

const SocketCall* Find(const std::string& name) {
    for (const SocketCall& call : kSocketCalls)
        if (name == call.name)
            return &call;
    return nullptr;
}

// live555's select() sits in the basic task scheduler, whose loop the receiver never runs.
bool IsEventLoopLibrary(const std::string& soname) {
    return soname.rfind("libBasicUsageEnvironment.so", 0) == 0;
}

}  // namespace

bool Plan(const std::string& soname, const std::map<std::string, importslot::Import>& imports,
          const std::vector<std::string>& recorded, std::vector<Rewrite>& rewrites,
          std::string& why) {
    std::vector<Rewrite> mine;
    const char* tlsRead = nullptr;
    bool handsOverTls = false;
    for (const auto& [name, import] : imports) {
        if (!std::binary_search(recorded.begin(), recorded.end(), name)) {
            why = soname + " imports " + name + ", which this build did not record";
            return false;
        }
        const SocketCall* call = Find(name);
        if (!call)
            continue;
        switch (call->use) {
            case Use::kRewrite:
                if (import.otherReferences) {
                    why = soname + " takes the address of " + name +
                          ", which no slot rewrite reaches";
                    return false;
                }
                for (void** slot : import.slots)
                    mine.push_back({slot, call->replacement});
                handsOverTls = handsOverTls || name == "BIO_new_socket";
                break;
            case Use::kTls:
                tlsRead = call->name;
                break;
            case Use::kEventLoop:
                if (IsEventLoopLibrary(soname))
                    break;
                [[fallthrough]];
            case Use::kRefused:
                why = soname + " reaches sockets through " + name +
                      ", which the read buffer cannot sit under";
                return false;
        }
    }
    if (tlsRead && !handsOverTls) {
        why = soname + " reads TLS through " + tlsRead +
              " but hands it no socket through BIO_new_socket";
        return false;
    }
    rewrites.insert(rewrites.end(), mine.begin(), mine.end());
    return true;
}

}  // namespace socketimports
