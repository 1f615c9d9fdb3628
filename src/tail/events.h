#pragma once

#include <cstdint>
#include <string>

namespace qwk::tail {

/// The reader's messages on standard error. Each is a sentence or a JSON object, on one line.
class Events {
public:
    explicit Events(bool json) : json_(json) {}

    void resumed(std::uint32_t last) const;
    /// The entries `from` to `to` are missing.
    void gap(std::uint32_t from, std::uint32_t to) const;
    /// The daemon removed the files of these entries before they were printed.
    void cursorTooOld(std::uint32_t from, std::uint32_t to) const;
    void wentBack(std::uint32_t last, std::uint32_t next) const;
    /// The log files hold these twice, and they are printed once.
    void repeated(std::uint32_t from, std::uint32_t to) const;
    /// The control socket is closed to this user: printing goes on from the files alone.
    void noRights() const;
    void failure(const std::string& text) const;

private:
    void tell(const std::string& object, const std::string& sentence) const;

    const bool json_;
};

} // namespace qwk::tail
