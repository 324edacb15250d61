#include "support/failing_allocation.hpp"

#include <cstdlib>
#include <new>

namespace {

thread_local bool allocations_fail = false;

void* allocate(std::size_t size) {
    if (allocations_fail) throw std::bad_alloc();
    if (void* memory = std::malloc(size == 0 ? 1 : size)) return memory;
    throw std::bad_alloc();
}

}  // namespace

namespace ocp_test {

FailingAllocation::FailingAllocation() { allocations_fail = true; }
FailingAllocation::~FailingAllocation() { allocations_fail = false; }

}  // namespace ocp_test

void* operator new(std::size_t size) { return allocate(size); }
void* operator new[](std::size_t size) { return allocate(size); }
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete[](void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete[](void* memory, std::size_t) noexcept { std::free(memory); }
