#include "cask/record_pool.h"

namespace Cask {

void* RecordPool::carve(std::size_t bytes) {
    if (static_cast<std::size_t>(end_ - next_) < bytes) {
        // The rest of the slab (less than a large record) is left unused.
        // Each slab starts with a link to the one before, so that every slab
        // stays reachable, as leak checkers expect of memory still in use.
        char* slab = static_cast<char*>(::operator new(slabBytes));
        *reinterpret_cast<char**>(slab) = lastSlab_;
        lastSlab_ = slab;
        next_ = slab + sizeof(char*);
        end_ = slab + slabBytes;
    }
    void* p = next_;
    next_ += bytes;
    return p;
}

}  // namespace Cask
