// Batched reads for live555's RTP-over-TCP connections. live555 reads an interleaved RTSP
// connection a few bytes at a time: one recvfrom per header byte, one per packet, a select and
// a getpeername in between, some eight system calls per RTP packet, which is most of what a
// TCP stream costs. For the sockets it is told about, this layer serves live555's reads from a
// user-space buffer filled by one large recv; the receiver's event loop (pollscheduler.h)
// treats a socket whose buffer holds data as ready.
//
// It sits under live555 alone, by rewriting its libraries' import slots, and only when that
// cannot lose a byte: the libraries are this library's own private copy, they import nothing
// the build did not record, and every import through which they can read, wait on or close a
// socket is one the layer handles (socketimports.h). Otherwise live555 reads as it always
// does, and the reason is logged once. Only the sockets the registering thread batches are
// buffered; every other caller, thread and socket goes straight to the system. A socket live555
// hands to TLS is never buffered.
#pragma once

#include <sys/socket.h>

struct bio_st;

namespace socketbatch {

// Puts the layer under live555, once per process: the first call decides. With `wanted`
// false (the first RTSP fetcher asked for no batching) live555 is left as it is. True when the
// layer is in place.
bool Install(bool wanted);
bool Installed();
// Batches the reads of a connected stream socket for the calling thread. Undone by Release on
// that thread, or when live555 closes the socket on any thread. Does nothing for a socket
// handed to TLS.
void Batch(int fd);
void Release(int fd);
// True when the calling thread batches `fd` and bytes of it wait in the buffer.
bool Buffered(int fd);

// The replacements themselves (public for tests).
ssize_t RecvFrom(int fd, void* buffer, size_t length, int flags, sockaddr* from,
                 socklen_t* fromLength);
ssize_t Recv(int fd, void* buffer, size_t length, int flags);
ssize_t Read(int fd, void* buffer, size_t length);
int GetPeerName(int fd, sockaddr* address, socklen_t* length);
int Close(int fd);
// live555 hands a socket to TLS: it is marked so that it is never batched. Refused (null,
// as OpenSSL reports a failure) when bytes of it already wait in a buffer.
bio_st* NewTlsSocket(int fd, int closeFlag);

}  // namespace socketbatch
