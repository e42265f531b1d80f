#include "core/bufferalloc.h"

#include <atomic>
#include <cstdint>

namespace camfetch {
namespace {
std::atomic<size_t> g_limit{SIZE_MAX};
}

void* AllocBuffer(size_t size) {
    if (size > g_limit.load(std::memory_order_relaxed))
        return nullptr;
    return malloc(size);
}

size_t SetBufferAllocLimit(size_t bytes) {
    return g_limit.exchange(bytes);
}

}  // namespace camfetch
