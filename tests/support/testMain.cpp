// Runs each test in a process and a sandbox of its own, so that no test affects another.

#include <csignal>
#include <cstdio>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/sandbox.h"

namespace {

std::vector<std::string> selectedTests() {
    testing::GTEST_FLAG(list_tests) = true; // select, but run none
    testing::internal::CaptureStdout();
    std::vector<std::string> names;
    if (RUN_ALL_TESTS() != 0)
        return names;
    testing::internal::GetCapturedStdout();
    const testing::UnitTest& program = *testing::UnitTest::GetInstance();
    for (int i = 0; i < program.total_test_suite_count(); ++i) {
        const testing::TestSuite& suite = *program.GetTestSuite(i);
        for (int j = 0; j < suite.total_test_count(); ++j)
            if (suite.GetTestInfo(j)->should_run())
                names.push_back(std::string(suite.name()) + '.' + suite.GetTestInfo(j)->name());
    }
    return names;
}

bool passes(const std::string& test, std::vector<char*> arguments) {
    std::string filter = "--gtest_filter=" + test, once = "--gtest_repeat=1";
    arguments.insert(arguments.end(), {filter.data(), once.data(), nullptr});
    const pid_t child = fork();
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL); // a test that is too slow ends with this process
        testSupport::restartInSandbox(arguments.data());
    }
    int status = -1;
    return waitpid(child, &status, 0) == child && status == 0;
}

} // namespace

int main(int argc, char** argv) {
    const std::vector<char*> arguments(argv, argv + argc);
    testing::InitGoogleTest(&argc, argv);
    // The build also lists the tests, perhaps on a machine without sandboxes.
    if (testing::GTEST_FLAG(list_tests) || testSupport::isInSandbox())
        return RUN_ALL_TESTS();
    std::vector<std::string> failed;
    const std::vector<std::string> tests = selectedTests();
    for (int round = 0; round != testing::GTEST_FLAG(repeat); ++round)
        for (const std::string& test : tests)
            if (!passes(test, arguments))
                failed.push_back(test);
    std::printf("%zu tests, %zu failures\n", tests.size(), failed.size());
    for (const std::string& test : failed)
        std::printf("  %s\n", test.c_str());
    return failed.empty() ? 0 : 1;
}
