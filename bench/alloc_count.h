#pragma once
// Heap bytes in use, counted by the replacement global operator new and delete of pimsm-bench
// (alloc_count.cc), and the record pool's slabs, which it maps from the system itself. A
// difference of two readings is what the code between them kept on the heap, in the
// allocator's own block sizes.

#include <cstddef>

namespace Bench {

std::size_t heapBytesInUse();
std::size_t heapBlocksInUse();

}  // namespace Bench
