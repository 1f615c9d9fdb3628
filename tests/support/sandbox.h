#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <string_view>

namespace testSupport {

// Puts the rest of the program into mount and PID namespaces of its own. There the machine's files
// are where they always are (and the old root is /host), but /run, /etc/quillwick.conf,
// /var/logperm, /tmp/quillwick, /dev/log, /dev/i2c-2 and /dev/kmsg are not the machine's: they are
// absent, and /run and /var/logperm are empty directories. New files in /etc, /var, /dev, /tmp and
// /run live in memory and vanish, as all processes do, when the program ends. Older files in the
// first four are links to the machine's own: to replace one, remove the link first.
// Call it before any thread exists. It returns in a child process and forwards that child's end to
// the caller's parent; on refusal it says why and exits with 1.
void enterSandbox();

// Starts the program again in a sandbox, with the same arguments; returns if it is in one already.
// A library may have started threads before main(), and enterSandbox() would leave those behind.
void restartInSandbox(char** argv);

// Both throw std::runtime_error. writeFile() replaces the content.
void writeFile(const std::string& path, std::string_view text);
std::string readFile(const std::string& path);

// Checks the condition every few milliseconds until it holds; false if it still fails at the limit.
bool eventually(std::chrono::milliseconds limit, const std::function<bool()>& condition);

} // namespace testSupport
