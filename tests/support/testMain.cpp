#include <string_view>

#include <gtest/gtest.h>

#include "support/sandbox.h"

int main(int argc, char** argv) {
    // The build lists the tests, too, and may do so where no sandbox can be had.
    bool listing = false;
    for (int i = 1; i < argc; ++i)
        listing = listing || std::string_view(argv[i]) == "--gtest_list_tests";
    if (!listing)
        testSupport::restartInSandbox(argv);
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
