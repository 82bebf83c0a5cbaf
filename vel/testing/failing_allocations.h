// Makes the allocations of a test program fail on demand. Include it in one source file of the program only: it
// replaces the global operators.
#pragma once

#include <cstdlib>
#include <new>

namespace vel::testing {

/// Lets the calling thread's allocations succeed `count` times and fail from then on, until the end of the scope.
class FailingAllocations {
public:
    explicit FailingAllocations(int count) { left() = count; }
    ~FailingAllocations() { left() = unlimited; }
    FailingAllocations(const FailingAllocations&) = delete;
    FailingAllocations& operator=(const FailingAllocations&) = delete;

    static bool refuse() {
        if (left() == unlimited) return false;
        if (left() == 0) return true;
        --left();
        return false;
    }

private:
    static constexpr int unlimited = -1;

    static int& left() {
        static thread_local int count = unlimited;
        return count;
    }
};

} // namespace vel::testing

// Not inlined: a compiler that looks inside takes the pair for mismatched. The whole family, since the address
// sanitizer would supply the rest by operators of its own.
[[gnu::noinline]] void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return vel::testing::FailingAllocations::refuse() ? nullptr : std::malloc(size ? size : 1);
}
[[gnu::noinline]] void* operator new(std::size_t size) {
    void* block = operator new(size, std::nothrow);
    if (!block) throw std::bad_alloc();
    return block;
}
[[gnu::noinline]] void operator delete(void* block) noexcept { std::free(block); }
[[gnu::noinline]] void operator delete(void* block, std::size_t) noexcept { std::free(block); }
void operator delete(void* block, const std::nothrow_t&) noexcept { operator delete(block); }
void* operator new[](std::size_t size) { return operator new(size); }
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept { return operator new(size, std::nothrow); }
void operator delete[](void* block) noexcept { operator delete(block); }
void operator delete[](void* block, std::size_t) noexcept { operator delete(block); }
void operator delete[](void* block, const std::nothrow_t&) noexcept { operator delete(block); }
