#pragma once
// RecordPool: where records live on the heap.
//
// A VRF's routes come with a handful of records each (the route, its
// upstream record, its interfaces, its Join/Prune entries), made by the
// hundred thousand in a burst. The general allocator spends a search and
// a header word on each. The pool hands them out of slabs, one after the
// other, so a route's records sit together as they were made, and keeps a
// free list per size for the ones given back: a record costs its own size
// rounded up to a word, and a pop or a bump to make. Slabs grow from 64 KiB
// to 2 MiB as the pool does, and come from the system with their pages
// already faulted in.
//
// Memory given back stays with its size: a VRF that once held a million
// routes keeps room for them. Records belong to the event-loop thread, and
// so does the pool. Sanitizer builds bypass it so that every record is a
// heap block of its own, checked on every access.

#include <cstddef>
#include <new>

namespace Cask {

class RecordPool {
public:
    // Largest size the pool serves; larger records go to the heap.
    static constexpr std::size_t largest = 512;
    static constexpr std::size_t slabBytes = 64 * 1024;  // the first slab
    // Blocks are word-aligned: records hold pointers, integers and doubles.
    static constexpr std::size_t alignment = alignof(void*);

#if defined(__SANITIZE_ADDRESS__)
    static constexpr bool enabled = false;
#else
    static constexpr bool enabled = true;
#endif

    // The bytes of every slab taken from the system so far (none is ever
    // given back).
    static std::size_t slabBytesHeld() {
        return slabBytesHeld_;
    }

    // Sizes 1 to `largest`, in every build.
    static void* allocate(std::size_t n) {
        Free*& head = free_[classOf(n)];
        if (Free* f = head) {
            head = f->next;
            return f;
        }
        return carve(sizeOf(n));
    }
    static void deallocate(void* p, std::size_t n) noexcept {
        Free* f = static_cast<Free*>(p);
        Free*& head = free_[classOf(n)];
        f->next = head;
        head = f;
    }

    // Blocks of any size: the pool's up to `largest`, the heap's beyond.
    // Watcher arrays of records come from here.
    static void* take(std::size_t n) {
        return enabled && n <= largest ? allocate(n) : ::operator new(n);
    }
    static void give(void* p, std::size_t n) noexcept {
        if (enabled && n <= largest) return deallocate(p, n);
        ::operator delete(p, n);
    }

private:
    static constexpr std::size_t grain = alignment;
    struct Free {
        Free* next;
    };
    static constexpr std::size_t classOf(std::size_t n) {
        return (n + grain - 1) / grain;
    }
    static constexpr std::size_t sizeOf(std::size_t n) {
        return classOf(n) * grain;
    }
    static void* carve(std::size_t bytes);

    static inline Free* free_[largest / grain + 1] = {};
    static inline char* next_ = nullptr;
    static inline char* end_ = nullptr;
    static inline std::size_t slabBytesHeld_ = 0;
};

// For a record class T: its own objects come from the pool; objects of a
// class derived from it (another size) and over-aligned ones from the heap.
// A derived object is deleted with its own size (records that are derived
// from have virtual destructors), which tells the two apart.
template <class T>
struct PooledNew {
    static void* operator new(std::size_t n) {
        return own(n) ? RecordPool::take(n) : ::operator new(n);
    }
    static void operator delete(void* p, std::size_t n) noexcept {
        if (own(n)) return RecordPool::give(p, n);
        ::operator delete(p, n);
    }

private:
    static constexpr bool own(std::size_t n) {
        return n == sizeof(T) && alignof(T) <= RecordPool::alignment;
    }
};

}  // namespace Cask
