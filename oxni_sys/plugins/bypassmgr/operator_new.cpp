/*
 * The C++ heap of the plug-in is the host's allocator, as for its other blocks: the host counts,
 * guards and limits them in one place. The runtime's own blocks for exceptions remain apart. Any
 * thread of the host.
 */
#include <new>

#include <stddef.h>

#include <oxni/base/memory.h>

void *operator new(size_t size)
{
    void *block = oxni_zero_malloc_(size);

    if (block == NULL)
        throw std::bad_alloc();
    return block;
}

void *operator new[](size_t size)
{
    return operator new(size);
}

void *operator new(size_t size, const std::nothrow_t &) noexcept
{
    return oxni_zero_malloc_(size);
}

void *operator new[](size_t size, const std::nothrow_t &) noexcept
{
    return oxni_zero_malloc_(size);
}

void operator delete(void *block) noexcept
{
    oxni_free_(block);
}

void operator delete[](void *block) noexcept
{
    oxni_free_(block);
}

void operator delete(void *block, size_t) noexcept
{
    oxni_free_(block);
}

void operator delete[](void *block, size_t) noexcept
{
    oxni_free_(block);
}
