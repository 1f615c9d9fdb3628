#include <algorithm>
#include <string_view>

#include <gtest/gtest.h>

#include "support/sandbox.h"

int main(int argc, char** argv) {
    // The build lists the tests, too, and may do so where no sandbox can be had.
    if (std::count(argv, argv + argc, std::string_view("--gtest_list_tests")) == 0)
        testSupport::restartInSandbox(argv);
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
