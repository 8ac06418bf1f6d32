// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include "call.h"

// The virtual machine handles its own signals and leaves its own blocks. A size that no machine has
// is refused, and one that only clears pages for minutes as well.
extern "C" const char* __asan_default_options() {
  return "handle_segv=0:detect_leaks=0:allocator_may_return_null=1:max_allocation_size_mb=1024";
}

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  return startJava() ? RUN_ALL_TESTS() : 2;
}
