// Batched reads for live555's RTP-over-TCP connections. live555 reads an interleaved RTSP
// connection a few bytes at a time: one recvfrom per header byte, one per packet, a select and
// a getpeername in between, some eight system calls per RTP packet, which is most of what a
// TCP stream costs. For the sockets it is told about, this layer serves live555's recvfrom
// from a user-space buffer filled by one large recv; the receiver's event loop (pollscheduler.h)
// treats a socket whose buffer holds data as ready. It is put under live555 alone (its
// libraries' import slots for recvfrom, getpeername and close), for the thread that registered
// the socket; every other caller and socket goes straight to the system.
#pragma once

#include <sys/socket.h>

namespace socketbatch {

// Puts the layer under live555, once per process; false when its libraries could not all be
// redirected (then nothing is batched and live555 reads as it always does).
bool Install();
bool Installed();
// Batches the reads of a connected stream socket for the calling thread. Undone by Release,
// or when live555 closes the socket.
void Batch(int fd);
void Release(int fd);
// True when the calling thread batches `fd` and bytes of it wait in the buffer.
bool Buffered(int fd);

// The replacements themselves (public for tests).
ssize_t RecvFrom(int fd, void* buffer, size_t length, int flags, sockaddr* from,
                 socklen_t* fromLength);
int GetPeerName(int fd, sockaddr* address, socklen_t* length);
int Close(int fd);

}  // namespace socketbatch
