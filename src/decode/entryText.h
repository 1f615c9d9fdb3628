#pragma once

#include <string>

#include "decode/imageReader.h"
#include "logger/logLine.h"

namespace qwk::decode {

/// The entries as log lines, as the client prints them: a newline between two lines where the first
/// does not end with one, and a newline at the end. A number that is not certain is in round
/// brackets, an unknown one reads "[????????]".
std::string entriesText(const std::vector<NumberedEntry>& entries, TimeZone zone);

/// Each section after a line with its title, which begins with "-- ".
std::string sectionsText(const std::vector<Section>& sections, TimeZone zone);

/// `text` without the bytes that a terminal takes for commands: control characters but newline and
/// tab, and bytes that are no UTF-8, read "\xNN".
std::string harmless(const std::string& text);

} // namespace qwk::decode
