#pragma once

#include <string>
#include <vector>

#include "decode/imageFile.h"
#include "decode/numbering.h"

namespace qwk::decode {

/// Entries that are not in the cache, or no longer.
struct Section {
    std::string title;
    std::vector<NumberedEntry> entries;
};

/// What an image holds.
struct Contents {
    /// The entries in the cache, oldest first. Where no header tells how far the cache reaches:
    /// whatever looks like an entry, in the order of addresses.
    std::vector<NumberedEntry> entries;
    /// What is wrong with the image, a sentence each; empty for an intact one.
    std::vector<std::string> damage;
    /// What an older header copy and the bytes after the cache's end tell.
    std::vector<Section> remains;
    /// A header says that the cache is empty; `note` is a sentence on that.
    bool isEmptyCache = false;
    std::string note;
};

Contents readContents(const Image& image);

} // namespace qwk::decode
