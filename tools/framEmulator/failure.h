#pragma once

#include <cerrno>
#include <string>
#include <system_error>

namespace framEmulator {

/// Throws the failure of the last system call, with a sentence for the user on its consequence.
[[noreturn]] inline void failWithErrno(const std::string& sentence) {
    throw std::system_error(errno, std::generic_category(), sentence);
}

} // namespace framEmulator
