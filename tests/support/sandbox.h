#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <string_view>

namespace testSupport {

bool isInSandbox();

/// Starts the program again, with the same arguments, under the script `sandbox` beside this file,
/// which tells what a program sees there; returns if it is there already. The script ends with the
/// program's status.
void restartInSandbox(char** argv);

/// Both throw std::runtime_error. writeFile() replaces the content.
void writeFile(const std::string& path, std::string_view text);
std::string readFile(const std::string& path);

/// Checks the condition every few milliseconds until it holds; false if it still fails at the
/// limit.
bool eventually(std::chrono::milliseconds limit, const std::function<bool()>& condition);

} // namespace testSupport
