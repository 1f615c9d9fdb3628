#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "eeprom/framLayout.h"

namespace qwk::decode {

/// All bytes of a chip.
using Image = std::array<std::uint8_t, framLayout::chipSize>;

/// The image in `content`, which is one of three: the chip's bytes, the lines of `quillwick -p`, or
/// the numbers that i2ctransfer prints. Nothing when it is none of them, with the reason in
/// `error`.
std::optional<Image> parseImage(std::string_view content, std::string& error);

/// Reads the image in the file at `path`, or in standard input when that is "-". Nothing when it
/// cannot be read or is no image, with the reason in `error`.
std::optional<Image> readImageFile(const std::string& path, std::string& error);

} // namespace qwk::decode
