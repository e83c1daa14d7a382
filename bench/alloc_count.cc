#include "alloc_count.h"

#include <malloc.h>

#include <atomic>
#include <cstdlib>
#include <new>

#include "cask/record_pool.h"

namespace {

// Relaxed: the benchmarks run on one thread; the counts need no ordering with anything else.
std::atomic<std::size_t> bytes{0};
std::atomic<std::size_t> blocks{0};

void* counted(void* p) {
    if (p) {
        bytes.fetch_add(malloc_usable_size(p), std::memory_order_relaxed);
        blocks.fetch_add(1, std::memory_order_relaxed);
    }
    return p;
}

void release(void* p) noexcept {
    if (!p) return;
    bytes.fetch_sub(malloc_usable_size(p), std::memory_order_relaxed);
    blocks.fetch_sub(1, std::memory_order_relaxed);
    std::free(p);
}

void* allocate(std::size_t n) {
    if (void* p = counted(std::malloc(n ? n : 1))) return p;
    throw std::bad_alloc();
}

void* allocateAligned(std::size_t n, std::align_val_t a) {
    const auto align = static_cast<std::size_t>(a);
    // aligned_alloc wants a size that is a multiple of the alignment.
    const std::size_t rounded = (n + align - 1) / align * align;
    if (void* p = counted(std::aligned_alloc(align, rounded ? rounded : align))) return p;
    throw std::bad_alloc();
}

}  // namespace

namespace Bench {

std::size_t heapBytesInUse() {
    return bytes.load(std::memory_order_relaxed) + Cask::RecordPool::slabBytesHeld();
}
std::size_t heapBlocksInUse() {
    return blocks.load(std::memory_order_relaxed);
}

}  // namespace Bench

void* operator new(std::size_t n) {
    return allocate(n);
}
void* operator new[](std::size_t n) {
    return allocate(n);
}
void* operator new(std::size_t n, const std::nothrow_t&) noexcept {
    return counted(std::malloc(n ? n : 1));
}
void* operator new[](std::size_t n, const std::nothrow_t&) noexcept {
    return counted(std::malloc(n ? n : 1));
}
void* operator new(std::size_t n, std::align_val_t a) {
    return allocateAligned(n, a);
}
void* operator new[](std::size_t n, std::align_val_t a) {
    return allocateAligned(n, a);
}
void operator delete(void* p) noexcept {
    release(p);
}
void operator delete[](void* p) noexcept {
    release(p);
}
void operator delete(void* p, std::size_t) noexcept {
    release(p);
}
void operator delete[](void* p, std::size_t) noexcept {
    release(p);
}
void operator delete(void* p, std::align_val_t) noexcept {
    release(p);
}
void operator delete[](void* p, std::align_val_t) noexcept {
    release(p);
}
void operator delete(void* p, std::size_t, std::align_val_t) noexcept {
    release(p);
}
void operator delete[](void* p, std::size_t, std::align_val_t) noexcept {
    release(p);
}
