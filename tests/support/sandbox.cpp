#include "support/sandbox.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <unistd.h>
#include <vector>

namespace testSupport {

bool isInSandbox() {
    return std::getenv("QUILLWICK_SANDBOX") != nullptr && access("/host", F_OK) == 0;
}

void restartInSandbox(char** argv) {
    if (isInSandbox())
        return;
    std::vector<const char*> command = {QUILLWICK_SANDBOX_SCRIPT, QUILLWICK_TEST_LAUNCHER};
    do
        command.push_back(*argv);
    while (*argv++ != nullptr); // which ends the command, too
    execv(command[0], const_cast<char**>(command.data()));
    std::perror("cannot start again in the sandbox");
    std::_Exit(EXIT_FAILURE);
}

void writeFile(const std::string& path, std::string_view text) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << text << std::flush;
    if (!file)
        throw std::runtime_error("cannot write " + path);
}

std::string readFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file)
        throw std::runtime_error("cannot read " + path);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

bool eventually(std::chrono::milliseconds limit, const std::function<bool()>& condition) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= end)
            return condition();
        std::this_thread::sleep_for(std::chrono::milliseconds(3));
    }
    return true;
}

} // namespace testSupport
