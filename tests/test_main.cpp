#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <new>

#include "core/varnel.h"
#include "test_support.h"

namespace {
thread_local uint64_t allocations = 0;
}  // namespace

// Counts allocations per thread so tests can prove a path allocates nothing.
void* operator new(std::size_t size) {
  ++allocations;
  if (void* p = std::malloc(size ? size : 1))
    return p;
  throw std::bad_alloc();
}
void operator delete(void* p) noexcept {
  std::free(p);
}
void operator delete(void* p, std::size_t) noexcept {
  std::free(p);
}

uint64_t vn::test::allocationCount() {
  return allocations;
}

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  Varnel::initialize();
  int rc = RUN_ALL_TESTS();
  std::error_code ignored;
  std::filesystem::remove_all(vn::test::scratchDir(), ignored);
  return rc;
}
