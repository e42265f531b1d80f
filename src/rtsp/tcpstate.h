// What the kernel knows of a TCP connection live555 reads from, for the questions live555
// does not answer: did the camera send anything since a request went out, and has it closed
// the connection. Nothing here reads from or writes to the connection.
#pragma once

#include <cstdint>

namespace tcpstate {

// The bytes received on the connection so far; false when the kernel does not tell (then
// `bytes` is 0).
bool BytesReceived(int fd, uint64_t& bytes);
// True once the peer has closed or reset the connection, or when there is no descriptor.
bool PeerClosed(int fd);

}  // namespace tcpstate
