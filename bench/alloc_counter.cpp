/*
 * Counting replacements of the C and C++ heap functions (see alloc_counter.h). They pass
 * every request to glibc's own allocator (__libc_malloc and friends) and keep two counters:
 * the number of allocations and the usable bytes currently allocated.
 */
#include "alloc_counter.h"

#include <malloc.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <new>

extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t n, size_t size);
void* __libc_realloc(void* p, size_t size);
void __libc_free(void* p);
void* __libc_memalign(size_t alignment, size_t size);
void* __libc_valloc(size_t size);
void* __libc_pvalloc(size_t size);
}

namespace {
std::atomic<long long> g_allocations(0);
std::atomic<long long> g_liveBytes(0);

inline void* noteAllocated(void* p)
{
    if (p) {
        g_allocations.fetch_add(1, std::memory_order_relaxed);
        g_liveBytes.fetch_add(static_cast<long long>(malloc_usable_size(p)), std::memory_order_relaxed);
    }
    return p;
}

inline void noteFreed(void* p)
{
    if (p)
        g_liveBytes.fetch_sub(static_cast<long long>(malloc_usable_size(p)), std::memory_order_relaxed);
}
}  // namespace

namespace adsbench {
HeapSnapshot heapNow()
{
    HeapSnapshot s;
    s.allocations = g_allocations.load(std::memory_order_relaxed);
    s.liveBytes = g_liveBytes.load(std::memory_order_relaxed);
    return s;
}
}  // namespace adsbench

extern "C" {

void* malloc(size_t size) { return noteAllocated(__libc_malloc(size)); }

void* calloc(size_t n, size_t size) { return noteAllocated(__libc_calloc(n, size)); }

void* realloc(void* p, size_t size)
{
    if (!p)
        return malloc(size);
    if (size == 0) {
        noteFreed(p);
        __libc_free(p);
        return nullptr;
    }
    size_t before = malloc_usable_size(p);
    void* q = __libc_realloc(p, size);
    if (!q)
        return nullptr; /* p is untouched */
    g_allocations.fetch_add(1, std::memory_order_relaxed);
    g_liveBytes.fetch_add(
        static_cast<long long>(malloc_usable_size(q)) - static_cast<long long>(before), std::memory_order_relaxed);
    return q;
}

void free(void* p)
{
    noteFreed(p);
    __libc_free(p);
}

void* memalign(size_t alignment, size_t size) { return noteAllocated(__libc_memalign(alignment, size)); }

void* aligned_alloc(size_t alignment, size_t size) { return noteAllocated(__libc_memalign(alignment, size)); }

int posix_memalign(void** out, size_t alignment, size_t size)
{
    if (alignment < sizeof(void*) || (alignment & (alignment - 1)) != 0)
        return EINVAL;
    void* p = noteAllocated(__libc_memalign(alignment, size));
    if (!p)
        return ENOMEM;
    *out = p;
    return 0;
}

void* valloc(size_t size) { return noteAllocated(__libc_valloc(size)); }

void* pvalloc(size_t size) { return noteAllocated(__libc_pvalloc(size)); }

}  // extern "C"

/* operator new/delete on top of the counted malloc/free, so that each is counted once. */
void* operator new(size_t size)
{
    void* p = malloc(size ? size : 1);
    if (!p)
        throw std::bad_alloc();
    return p;
}
void* operator new[](size_t size) { return operator new(size); }
void* operator new(size_t size, const std::nothrow_t&) noexcept { return malloc(size ? size : 1); }
void* operator new[](size_t size, const std::nothrow_t&) noexcept { return malloc(size ? size : 1); }
void operator delete(void* p) noexcept { free(p); }
void operator delete[](void* p) noexcept { free(p); }
void operator delete(void* p, size_t) noexcept { free(p); }
void operator delete[](void* p, size_t) noexcept { free(p); }
void operator delete(void* p, const std::nothrow_t&) noexcept { free(p); }
void operator delete[](void* p, const std::nothrow_t&) noexcept { free(p); }
