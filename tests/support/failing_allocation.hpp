// Makes memory run short on demand: while a FailingAllocation lives, every
// operator new on the same thread throws std::bad_alloc. Other threads and
// the rest of the test run allocate normally. Linked into the unit-test
// program only, which replaces the global operator new and delete for it.
#pragma once

namespace ocp_test {

class FailingAllocation {
public:
    FailingAllocation();
    ~FailingAllocation();
    FailingAllocation(const FailingAllocation&) = delete;
    FailingAllocation& operator=(const FailingAllocation&) = delete;
};

}  // namespace ocp_test
