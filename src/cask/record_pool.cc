#include "cask/record_pool.h"

#include <sys/mman.h>

#include <algorithm>

namespace Cask {

namespace {

// Slabs double from `RecordPool::slabBytes` up to this size, so that a VRF
// making routes by the hundred thousand takes its memory in a few large
// steps while a small one stays small.
constexpr std::size_t largestSlabBytes = 2 * 1024 * 1024;

// A slab comes straight from the system with its pages already in place:
// records are written as soon as they are carved, and faulting a fresh slab
// in one call costs a fraction of taking a fault on each page as records
// first touch it.
char* mapSlab(std::size_t bytes) {
    void* p = ::mmap(nullptr, bytes, PROT_READ | PROT_WRITE,
                     MAP_PRIVATE | MAP_ANONYMOUS | MAP_POPULATE, -1, 0);
    if (p == MAP_FAILED) throw std::bad_alloc();
    return static_cast<char*>(p);
}

}  // namespace

void* RecordPool::carve(std::size_t bytes) {
    if (static_cast<std::size_t>(end_ - next_) < bytes) {
        // The rest of the slab (less than a large record) is left unused.
        // Slabs are never given back, so none is kept track of: leak
        // checkers do not watch mapped memory, and sanitizer builds bypass
        // the pool.
        // While slabs double, each is as large as all before it together
        // plus the first.
        const std::size_t size = std::min(slabBytesHeld_ + slabBytes, largestSlabBytes);
        char* slab = mapSlab(size);
        slabBytesHeld_ += size;
        next_ = slab;
        end_ = slab + size;
    }
    void* p = next_;
    next_ += bytes;
    return p;
}

}  // namespace Cask
