#pragma once

#include <cerrno>
#include <chrono>
#include <csignal>
#include <optional>
#include <spawn.h>
#include <stdexcept>
#include <string>
#include <string_view>
#include <sys/mman.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>
#include <vector>

#include "support/fileDescriptor.h"
#include "support/sandbox.h"

namespace testSupport {

using Descriptor = qwk::FileDescriptor;

/// A program that runs as a child; the destructor kills and reaps it. Not for use by several
/// threads at once.
class ChildProcess {
public:
    /// PATH is not searched; args do not contain the program's name; the child reads input from its
    /// standard input. Throws std::system_error if it cannot be started.
    ChildProcess(const std::string& path, std::vector<std::string> args,
                 const std::string& input = {}) {
        if (write(input_.get(), input.data(), input.size()) < 0 ||
            lseek(input_.get(), 0, SEEK_SET) != 0)
            throw std::system_error(errno, std::generic_category(), "input of " + path);
        args.insert(args.begin(), path);
        std::vector<char*> arguments;
        for (std::string& argument : args)
            arguments.push_back(argument.data());
        arguments.push_back(nullptr);

        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, input_.get(), STDIN_FILENO);
        posix_spawn_file_actions_adddup2(&actions, output_.get(), STDOUT_FILENO);
        posix_spawn_file_actions_adddup2(&actions, output_.get(), STDERR_FILENO);
        // Needs no bond to the life of the starting thread: the child ends with the sandbox.
        const int error =
            posix_spawn(&pid_, path.c_str(), &actions, nullptr, arguments.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        if (error != 0)
            throw std::system_error(error, std::generic_category(), path);
    }
    ~ChildProcess() {
        kill(SIGKILL);
        while (!wait(std::chrono::seconds(1))) {
        }
    }

    /// Does not change after the end, when other processes may get the number.
    pid_t pid() const { return pid_; }
    /// Has no effect after wait() has seen the end.
    void kill(int signal) {
        if (!ending_)
            ::kill(pid_, signal);
    }
    /// Returns the exit status, or the negated number of the signal that ended the child; nothing
    /// if it still runs after the limit. May be repeated.
    std::optional<int> wait(std::chrono::milliseconds limit) {
        eventually(limit, [this] {
            int status = 0;
            if (!ending_ && waitpid(pid_, &status, WNOHANG) == pid_)
                ending_ = WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
            return ending_.has_value();
        });
        return ending_;
    }

    /// Everything that the child has written to standard output and standard error.
    std::string output() const {
        // Reading through /proc does not move the position at which the child writes.
        return readFile("/proc/self/fd/" + std::to_string(output_.get()));
    }
    bool waitForOutput(std::string_view text, std::chrono::milliseconds limit) const {
        const auto isThere = [&] { return output().find(text) != std::string::npos; };
        return eventually(limit, isThere);
    }

private:
    // Standard streams are files in memory: unlike pipes they never block either side.
    const Descriptor input_{memfd_create("input", MFD_CLOEXEC)};
    const Descriptor output_{memfd_create("output", MFD_CLOEXEC)};
    pid_t pid_ = -1;
    std::optional<int> ending_;
};

struct RunResult {
    int status; ///< as from ChildProcess::wait()
    std::string output;
};

/// Runs a program to its end. Throws std::runtime_error after a minute.
inline RunResult run(const std::string& path, const std::vector<std::string>& args,
                     const std::string& input = {}) {
    ChildProcess child(path, args, input);
    const std::optional<int> ending = child.wait(std::chrono::minutes(1));
    if (!ending)
        throw std::runtime_error(path + " did not end in time; it wrote: " + child.output());
    return {*ending, child.output()};
}

/// The path of a built program.
inline std::string buildPath(const std::string& name) {
    return QUILLWICK_BUILD_DIR "/" + name;
}

} // namespace testSupport
