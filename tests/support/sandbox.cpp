#include "support/sandbox.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <vector>

#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace testSupport {
namespace {

[[noreturn]] void fail(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

void mountOrFail(const fs::path& source, const fs::path& target, const char* type,
                 unsigned long flags) {
    if (::mount(source.c_str(), target.c_str(), type, flags, nullptr) != 0)
        fail("mounting " + source.string() + " on " + target.string());
}

void createNamespaces() {
    if (::unshare(CLONE_NEWNS | CLONE_NEWPID) == 0)
        return;
    if (errno != EPERM)
        fail("creating mount and PID namespaces");
    const std::string user = std::to_string(::geteuid());
    const std::string group = std::to_string(::getegid());
    if (::unshare(CLONE_NEWUSER | CLONE_NEWNS | CLONE_NEWPID) != 0)
        fail("creating a user namespace");
    writeFile("/proc/self/setgroups", "deny"); // the kernel's condition for a gid_map
    writeFile("/proc/self/uid_map", "0 " + user + " 1");
    writeFile("/proc/self/gid_map", "0 " + group + " 1");
}

// Reaps whatever ends until the given child does, then ends this process with the child's status.
[[noreturn]] void exitLike(pid_t child) {
    int status = 0;
    for (pid_t ended = 0; ended != child;) {
        ended = ::waitpid(-1, &status, 0);
        if (ended < 0 && errno != EINTR)
            std::_Exit(EXIT_FAILURE);
    }
    // No exit handlers: they belong to the process that ran the tests.
    std::_Exit(WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status));
}

// Returns in a child that dies with this process; this process itself does not return.
void continueInChild() {
    const pid_t child = ::fork();
    if (child < 0)
        fail("forking");
    if (child > 0)
        exitLike(child);
    if (::prctl(PR_SET_PDEATHSIG, SIGKILL) != 0)
        fail("binding the child's life to its parent's");
}

// A directory whose entries lead to those of the same directory under /host.
void linkEntries(const fs::path& root, const fs::path& name, const std::set<fs::path>& absent) {
    fs::create_directory(root / name);
    for (const auto& entry : fs::directory_iterator("/" / name)) {
        if (absent.count(entry.path()) == 0) {
            fs::create_symlink("/host" + entry.path().string(),
                               root / name / entry.path().filename());
        }
    }
}

void composeRoot(const fs::path& root) {
    // The product's own paths, what would reach the machine's kernel log, and what is made anew.
    const std::set<fs::path> absent = {
        "/etc/quillwick.conf", "/etc/machine-id", "/var/logperm",  "/dev/log",
        "/dev/i2c-2",          "/dev/kmsg",       "/tmp/quillwick"};
    const std::set<fs::path> composed = {"/etc", "/var", "/dev", "/tmp", "/run", "/proc"};

    for (const fs::path name : {"etc", "var", "dev", "tmp"})
        linkEntries(root, name, absent);
    for (const fs::path name : {"host", "run", "proc", "var/logperm"})
        fs::create_directory(root / name);
    fs::permissions(root / "tmp", fs::perms::all | fs::perms::sticky_bit);
    writeFile(root / "etc/machine-id", "71756c6c776963b0a4e7465737473000\n");
    mountOrFail("/", root / "host", nullptr, MS_BIND | MS_REC);
    mountOrFail("proc", root / "proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC);
    for (const auto& entry : fs::directory_iterator("/")) {
        const fs::path target = root / entry.path().relative_path();
        if (entry.is_symlink())
            fs::copy_symlink(entry.path(), target);
        else if (entry.is_directory() && composed.count(entry.path()) == 0 &&
                 fs::create_directory(target))
            mountOrFail(entry.path(), target, nullptr, MS_BIND | MS_REC);
    }
}

void changeRoot() {
    const fs::path workingDirectory = fs::current_path();
    const fs::path root = QUILLWICK_BUILD_DIR "/sandbox";
    fs::create_directories(root);
    mountOrFail("none", "/", nullptr, MS_PRIVATE | MS_REC);
    mountOrFail("tmpfs", root, "tmpfs", MS_NOSUID);
    // Unbindable, lest the recursive bind mounts below copy the new root into itself.
    mountOrFail("none", root, nullptr, MS_UNBINDABLE);
    composeRoot(root);
    // A plain chroot, because pivot_root is refused where the old root is an initial ramdisk.
    if (::chroot(root.c_str()) != 0)
        fail("changing the root directory");
    fs::current_path(workingDirectory);
}

} // namespace

void enterSandbox() {
    try {
        createNamespaces();
        // Two generations: the first is process 1 of the namespace, with whose end all others in
        // it end; the tests run in the second, because process 1 ignores signals such as abort()'s.
        continueInChild();
        changeRoot();
        continueInChild();
    } catch (const std::exception& error) {
        std::fprintf(stderr,
                     "The tests need root or user namespaces, and FUSE, for a sandbox that was "
                     "refused here: %s.\n",
                     error.what());
        std::_Exit(EXIT_FAILURE);
    }
}

static bool otherThreadsSleep() {
    const std::string self = std::to_string(::getpid());
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        const std::string stat = readFile((task.path() / "stat").string());
        if (task.path().filename() != self && stat[stat.rfind(')') + 2] != 'S')
            return false;
    }
    return true;
}

void restartInSandbox(char** argv) {
    if (std::getenv("QUILLWICK_SANDBOX") != nullptr)
        return;
    // A library may have started threads before main(). None may hold a lock over the fork.
    eventually(std::chrono::seconds(10), otherThreadsSleep);
    enterSandbox();
    ::setenv("QUILLWICK_SANDBOX", "entered", 1);
    std::vector<const char*> command = {QUILLWICK_TEST_LAUNCHER};
    do
        command.push_back(*argv);
    while (*argv++ != nullptr); // which ends the command, too
    ::execvp(command[0], const_cast<char**>(command.data()));
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
