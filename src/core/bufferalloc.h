// The fetchers' large buffers (receive buffers of megabytes, the MP4 box buffer) come from
// here: taken with malloc and null when the memory cannot be had, so that their owner
// answers with a result code (or the factory with no fetcher) instead of an exception
// reaching the host.
#pragma once

#include <cstddef>
#include <cstdlib>
#include <memory>

namespace camfetch {

struct FreeDeleter {
    void operator()(void* p) const { free(p); }
};
using MallocBytes = std::unique_ptr<unsigned char, FreeDeleter>;

// size bytes, not initialised; null when they cannot be had. Released with free().
void* AllocBuffer(size_t size);
// Makes AllocBuffer fail for larger requests, as on a machine short of memory, so that the
// out-of-memory paths can be walked; SIZE_MAX (the default) sets no limit. Process-wide;
// returns the previous limit.
size_t SetBufferAllocLimit(size_t bytes);

}  // namespace camfetch
