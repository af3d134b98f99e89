#include "CountingAllocator.h"

#include <malloc.h>

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

std::atomic<bool> g_Counting{false};
std::atomic<long long> g_Bytes{0};
std::atomic<long long> g_Blocks{0};

// The header glibc keeps in front of every block.
constexpr long long kHeader = sizeof(size_t);

}  // namespace

namespace BenchHeap {

void StartCounting() {
    g_Bytes = 0;
    g_Blocks = 0;
    g_Counting = true;
}

void StopCounting() {
    g_Counting = false;
}

long long LiveBytes() {
    return g_Bytes;
}

long long LiveBlocks() {
    return g_Blocks;
}

}  // namespace BenchHeap

void* operator new(size_t size) {
    void* block = std::malloc(size != 0 ? size : 1);
    if (block == nullptr) {
        throw std::bad_alloc();
    }
    if (g_Counting.load(std::memory_order_relaxed)) {
        g_Bytes += (long long)malloc_usable_size(block) + kHeader;
        ++g_Blocks;
    }
    return block;
}

void operator delete(void* block) noexcept {
    if (block != nullptr && g_Counting.load(std::memory_order_relaxed)) {
        g_Bytes -= (long long)malloc_usable_size(block) + kHeader;
        --g_Blocks;
    }
    std::free(block);
}

void operator delete(void* block, size_t) noexcept {
    operator delete(block);
}
