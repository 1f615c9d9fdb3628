#include <gtest/gtest.h>

#include "support/sandbox.h"

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** argv) {
    testSupport::restartInSandbox(*argv);
    testing::GTEST_FLAG(throw_on_failure) = true; // which ends the program and keeps the input
    return 0;
}
