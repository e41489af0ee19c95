#pragma once

#include <cstddef>
#include <new>

namespace corv::engine {

// A per-thread cache of fixed-size memory blocks for the objects made on
// every hop of an event (sink events and event handles). A block freed on one
// thread goes to that thread's cache; a full cache hands blocks back to the
// heap. Sanitizer builds bypass the cache so that misuse stays visible.
template <std::size_t Size>
class BlockPool
{
public:
    static void *take()
    {
#ifndef CORV_NO_BLOCK_POOL
        Cache &cache = local();
        if (cache.count > 0 && !cache.dead)
            return cache.blocks[--cache.count];
#endif
        return ::operator new(Size);
    }

    static void give(void *block) noexcept
    {
#ifndef CORV_NO_BLOCK_POOL
        Cache &cache = local();
        if (cache.count < capacity && !cache.dead) {
            cache.blocks[cache.count++] = block;
            return;
        }
#endif
        ::operator delete(block);
    }

private:
    static constexpr int capacity = 1024;

    struct Cache {
        void *blocks[capacity];
        int count = 0;
        bool dead = false;
        ~Cache()
        {
            // Blocks given back later on this thread (from other thread-exit
            // destructors) go straight to the heap.
            dead = true;
            while (count > 0)
                ::operator delete(blocks[--count]);
        }
    };

    static Cache &local()
    {
        thread_local Cache cache;
        return cache;
    }
};

} // namespace corv::engine
