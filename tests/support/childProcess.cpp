#include "support/childProcess.h"

#include <cerrno>
#include <csignal>
#include <stdexcept>
#include <system_error>

#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>

#include "support/sandbox.h"

namespace testSupport {
namespace {

// Standard streams are files in memory: unlike pipes they never block either side.
Descriptor openMemoryFile(const std::string& text) {
    Descriptor file(::memfd_create("stream", MFD_CLOEXEC));
    if (file.get() < 0 ||
        ::pwrite(file.get(), text.data(), text.size(), 0) != static_cast<ssize_t>(text.size()))
        throw std::system_error(errno, std::generic_category(), "file in memory");
    return file;
}

} // namespace

ChildProcess::ChildProcess(const std::string& path, const std::vector<std::string>& args,
                           const std::string& input)
    : output_(openMemoryFile({})) {
    const Descriptor inputFile = openMemoryFile(input);
    std::vector<const char*> arguments = {path.c_str()};
    for (const std::string& argument : args)
        arguments.push_back(argument.c_str());
    arguments.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_adddup2(&actions, inputFile.get(), STDIN_FILENO);
    ::posix_spawn_file_actions_adddup2(&actions, output_.get(), STDOUT_FILENO);
    ::posix_spawn_file_actions_adddup2(&actions, output_.get(), STDERR_FILENO);
    // Not bound to the life of the starting thread: the sandbox's end is the child's end anyway.
    const int error = ::posix_spawn(&pid_, path.c_str(), &actions, nullptr,
                                    const_cast<char**>(arguments.data()), environ);
    ::posix_spawn_file_actions_destroy(&actions);
    if (error != 0)
        throw std::system_error(error, std::generic_category(), path);
}

ChildProcess::~ChildProcess() {
    kill(SIGKILL);
    while (!ending_)
        wait(std::chrono::seconds(1));
}

void ChildProcess::kill(int signal) {
    if (!ending_)
        ::kill(pid_, signal);
}

std::optional<int> ChildProcess::wait(std::chrono::milliseconds limit) {
    eventually(limit, [this] {
        int status = 0;
        if (!ending_ && ::waitpid(pid_, &status, WNOHANG) == pid_)
            ending_ = WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
        return ending_.has_value();
    });
    return ending_;
}

std::string ChildProcess::output() const {
    // Seen through /proc, a file's own position stays where the child writes.
    return readFile("/proc/self/fd/" + std::to_string(output_.get()));
}

bool ChildProcess::waitForOutput(std::string_view text, std::chrono::milliseconds limit) const {
    return eventually(
        limit, [&] { return output().find(text) != std::string::npos; });
}

RunResult run(const std::string& path, const std::vector<std::string>& args,
              const std::string& input) {
    ChildProcess child(path, args, input);
    const std::optional<int> ending = child.wait(std::chrono::minutes(1));
    if (!ending)
        throw std::runtime_error(path + " did not end in time; it wrote: " + child.output());
    return {*ending, child.output()};
}

std::string buildPath(const std::string& name) {
    return QUILLWICK_BUILD_DIR "/" + name;
}

} // namespace testSupport
