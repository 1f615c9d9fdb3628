#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <string_view>

namespace testSupport {

bool isInSandbox();

/// Starts the program again, with the same arguments, in the sandbox of the script `sandbox` in
/// this folder; returns if it already runs there. The script ends with the program's status.
void restartInSandbox(char** argv);

/// Both throw std::runtime_error on failure. writeFile() replaces the content.
void writeFile(const std::string& path, std::string_view text);
std::string readFile(const std::string& path);

/// Checks the condition every few milliseconds until it holds; false if it still fails after the
/// limit.
bool eventually(std::chrono::milliseconds limit, const std::function<bool()>& condition);

} // namespace testSupport
