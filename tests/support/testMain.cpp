#include <cstdio>
#include <cstdlib>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>
#include <unistd.h>

#include "support/sandbox.h"

int main(int argc, char** argv) {
    // The build lists the tests, too, and may do so where no sandbox can be had.
    bool inPlace = std::getenv("QUILLWICK_SANDBOX") != nullptr;
    for (int i = 1; i < argc; ++i)
        inPlace = inPlace || std::string_view(argv[i]) == "--gtest_list_tests";
    if (!inPlace) {
        testSupport::enterSandbox();
        // A library may have started threads before main(), and a fork leaves those behind.
        setenv("QUILLWICK_SANDBOX", "entered", 1);
        std::vector<const char*> command = {QUILLWICK_TEST_LAUNCHER};
        command.insert(command.end(), argv, argv + argc + 1); // with the null at the end
        execvp(command[0], const_cast<char**>(command.data()));
        std::perror("cannot start again in the sandbox");
        return EXIT_FAILURE;
    }
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
