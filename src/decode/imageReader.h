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

/// The contents of an image.
struct Contents {
    /// The entries in the cache, oldest first. If no header tells the cache's end: everything that
    /// looks like an entry, in the order of addresses.
    std::vector<NumberedEntry> entries;
    /// The faults of the image, one sentence each; empty for an intact one.
    std::vector<std::string> damage;
    /// Entries that an older header copy covers, and those after the cache's end.
    std::vector<Section> remains;
    /// A header says that the cache is empty; `note` is a sentence on that.
    bool isEmptyCache = false;
    std::string note;
};

Contents readContents(const Image& image);

} // namespace qwk::decode
