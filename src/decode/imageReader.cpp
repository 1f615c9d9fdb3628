#include "decode/imageReader.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <optional>

#include "decode/recordScan.h"
#include "logger/sequenceNumber.h"

namespace qwk::decode {

using namespace framLayout;

namespace {

[[gnu::format(printf, 1, 2)]] std::string sentence(const char* format, ...) {
    char text[256];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    return text;
}

std::string entryCount(std::size_t count) {
    return std::to_string(count) + (count == 1 ? " entry" : " entries");
}

const char* fieldName(Flaw flaw) {
    return flaw == Flaw::key ? "key" : flaw == Flaw::length ? "length" : "time";
}

// If no record of a cache is missing, a gap is the end of the record before it.
void joinGaps(Scan& scan, const Image& image) {
    std::vector<Gap> left;
    for (const Gap& gap : scan.gaps) {
        const auto record =
            std::find_if(scan.records.begin(), scan.records.end(), [&](const Record& candidate) {
                return candidate.address + candidate.size == gap.from;
            });
        if (record == scan.records.end() || gap.to - record->address > maxEntrySize) {
            left.push_back(gap);
            continue;
        }
        record->size = gap.to - record->address;
        record->flaw = Flaw::length;
        record->entry = entryOfSize(&image[record->address], record->size);
    }
    scan.gaps = left;
}

class ImageReader {
public:
    explicit ImageReader(const Image& image) : image_(image) {}

    Contents read() {
        if (readHeaders()) {
            readCache();
            readOlderCopy();
            readRemains();
            noteEmptyCache();
        } else {
            readWithoutState();
        }
        return contents_;
    }

private:
    const std::uint8_t* copyAt(unsigned copy) const {
        return &image_[std::size_t{copy} * headerSize];
    }

    bool isValid(unsigned copy) const {
        const std::uint8_t* block = copyAt(copy);
        return hasHeaderKey(block) && klvLength(block) == headerSize &&
               storedCrc(block) == computedCrc(block) && isPossible(decodeHeader(block));
    }

    static bool isPossible(const Header& header) {
        return header.end >= entryAreaStart && header.end <= chipSize;
    }

    // Sets the state of the cache; false when no header copy tells it.
    bool readHeaders() {
        const bool valid[2] = {isValid(0), isValid(1)};
        for (const unsigned copy : {0U, 1U})
            if (!valid[copy] && valid[1 - copy])
                contents_.damage.push_back(
                    sentence("Header copy %u is damaged; copy %u counts.", copy, 1 - copy));
        if (!valid[0] && !valid[1])
            return restoreHeader(0) || restoreHeader(1) || adoptHeadersThatAgree();
        // As the daemon does: copy 0 is written first and is never the older one.
        state_ = decodeHeader(copyAt(valid[0] ? 0 : 1));
        if (valid[0] && valid[1] && !std::equal(copyAt(0), copyAt(1), copyAt(1))) {
            older_ = decodeHeader(copyAt(1));
            contents_.damage.push_back(
                sentence("The header copies differ: copy 1 is older and tells of %s, next number "
                         "[%08x].",
                         entryCount(older_->count).c_str(), older_->nextId));
        }
        return true;
    }

    // If restoring its key and size makes a copy's checksum right, its numbers are right.
    bool restoreHeader(unsigned copy) {
        const Header header = decodeHeader(copyAt(copy));
        const auto restored = encodeHeader(header);
        if (storedCrc(restored.data()) != storedCrc(copyAt(copy)) || !isPossible(header))
            return false;
        contents_.damage.push_back(
            sentence("Both header copies are damaged. Copy %u lost only its key or size.", copy));
        state_ = header;
        return true;
    }

    // Two copies without a right checksum that have the end and count of the records, and the same
    // next number, are most likely right.
    bool adoptHeadersThatAgree() {
        const Header copies[2] = {decodeHeader(copyAt(0)), decodeHeader(copyAt(1))};
        if (copies[0].nextId != copies[1].nextId || !fitsRecords(copies[0]) ||
            !fitsRecords(copies[1]))
            return false;
        contents_.damage.emplace_back("Both header copies are damaged. They fit the entries and "
                                      "agree on the numbers, which are likely to be right.");
        state_ = copies[0];
        certainty_ = Certainty::about;
        return true;
    }

    bool fitsRecords(const Header& header) const {
        if (header.count == 0 || !isPossible(header))
            return false;
        const Scan scan = scanRecords(image_, entryAreaStart, header.end, AreaEnd::lastRecord);
        return scan.gaps.empty() && scan.records.size() == header.count;
    }

    void readCache() {
        Scan scan = scanRecords(image_, entryAreaStart, state_.end, AreaEnd::lastRecord);
        if (scan.records.size() == state_.count)
            joinGaps(scan, image_);
        reportFlaws(scan);
        if (scan.records.size() != state_.count)
            contents_.damage.push_back(sentence("The header counts %s, %zu can be read.",
                                                entryCount(state_.count).c_str(),
                                                scan.records.size()));
        contents_.entries = numberCovered(scan, state_, certainty_);
    }

    void reportFlaws(const Scan& scan) {
        for (const Record& record : scan.records)
            if (record.flaw != Flaw::none)
                contents_.damage.push_back(sentence("The %s of the entry at 0x%04x is damaged.",
                                                    fieldName(record.flaw), record.address));
        for (const Gap& gap : scan.gaps)
            contents_.damage.push_back(sentence(
                "The %u bytes at 0x%04x cannot be read as an entry.", gap.to - gap.from, gap.from));
    }

    // A power cut between the two header copies of a flush leaves all entries under the older one.
    void readOlderCopy() {
        remainsAt_ = state_.end;
        beforeRemains_ = state_.nextId - state_.count - 1;
        if (!older_)
            return;
        Section section;
        section.title = "Header copy 1, older: " + entryCount(older_->count) + ", next number " +
                        sequenceTag(older_->nextId);
        if (state_.end == entryAreaStart && older_->end > entryAreaStart) {
            section.entries =
                numberCovered(scanRecords(image_, entryAreaStart, older_->end, AreaEnd::lastRecord),
                              *older_, Certainty::certain);
            remainsAt_ = older_->end;
            beforeRemains_ = older_->nextId - older_->count - 1;
        }
        contents_.remains.push_back(section);
    }

    // The bytes after the cache's end come from earlier fills: a flush leaves them as they are. The
    // first run of records is the end of the previous fill, unless that fill was shorter than this
    // one, so its numbers are only likely. If an older record follows the run directly, its end is
    // unknown and it gets no numbers.
    void readRemains() {
        std::vector<Record> left =
            scanRecords(image_, remainsAt_, chipSize, AreaEnd::unknown).records;
        if (beginsWithUnfinishedAppend(left)) {
            contents_.remains.push_back(
                {sentence("At the cache's end, 0x%04x: perhaps being stored when the power failed; "
                          "then the end of its text is older",
                          left.front().address),
                 withoutNumbers({left.front()})});
            left.erase(left.begin());
        }
        bool isFirst = true;
        for (auto next = left.begin(); next != left.end(); isFirst = false) {
            const auto start = next++;
            while (next != left.end() && continuesRun(*start, *(next - 1), *next))
                ++next;
            addRun({start, next}, isFirst && (next == left.end() || !follows(*(next - 1), *next)));
        }
    }

    // An append that was cut off leaves its record, or the start of it, at the cache's end. Entries
    // of earlier fills are never younger than the cache or, when it is empty, than the entries
    // after them. If none follow, a single entry that was flushed looks the same.
    bool beginsWithUnfinishedAppend(const std::vector<Record>& left) const {
        if (left.empty() || left.front().address != state_.end)
            return false;
        const std::uint64_t time = left.front().entry.time;
        return contents_.entries.empty() ? left.size() == 1 || time > left[1].entry.time
                                         : time > contents_.entries.back().entry.time;
    }

    // Within a fill, times step back where the daemon was restarted and read the journal from its
    // oldest entry again, but hardly to before the first of the run.
    static bool continuesRun(const Record& first, const Record& last, const Record& next) {
        return follows(last, next) && next.entry.time >= first.entry.time;
    }
    static bool follows(const Record& last, const Record& next) {
        return next.address == last.address + last.size;
    }

    void addRun(const std::vector<Record>& run, bool hasNumbers) {
        Section section;
        section.title = sentence("Left by earlier flushes at 0x%04x: %s", run.front().address,
                                 entryCount(run.size()).c_str());
        section.entries = hasNumbers ? numberBackwards(run, beforeRemains_) : withoutNumbers(run);
        contents_.remains.push_back(section);
    }

    void noteEmptyCache() {
        if (state_.count != 0 || state_.end != entryAreaStart)
            return;
        contents_.isEmptyCache = true;
        std::size_t count = 0;
        for (const Section& section : contents_.remains)
            count += section.entries.size();
        contents_.note =
            "The cache is empty; the next number is " + sequenceTag(state_.nextId) + '.';
        if (count > 0)
            contents_.note += " With --damage: " + entryCount(count) + " of earlier flushes.";
    }

    void readWithoutState() {
        const Scan scan = scanRecords(image_, entryAreaStart, chipSize, AreaEnd::unknown);
        contents_.entries = withoutNumbers(scan.records);
        if (scan.records.empty()) {
            reportNothing();
            return;
        }
        contents_.damage.emplace_back("Both header copies are damaged: the numbers are unknown, "
                                      "and entries that were flushed before may be among these.");
        reportGapsAndAge(scan);
    }

    void reportGapsAndAge(const Scan& scan) {
        Scan within = scan; // no record follows the gap at the end
        if (!within.gaps.empty() && within.gaps.back().to == chipSize)
            within.gaps.pop_back();
        reportFlaws(within);
        for (std::size_t i = 1; i < scan.records.size(); ++i)
            if (scan.records[i].entry.time < scan.records[i - 1].entry.time)
                contents_.damage.push_back(
                    sentence("From 0x%04x on the entries are older.", scan.records[i].address));
    }

    void reportNothing() {
        const bool isBlank = std::all_of(image_.begin(), image_.end(),
                                         [&](std::uint8_t byte) { return byte == image_[0]; });
        contents_.damage.push_back(
            isBlank ? sentence("Every byte is 0x%02x: the chip is new or was cleared, or it did "
                               "not answer.",
                               image_[0])
                    : "There is neither a header nor an entry: this is no image of the chip.");
    }

    const Image& image_;
    Contents contents_;
    Header state_{};
    Certainty certainty_ = Certainty::certain;
    std::optional<Header> older_;
    std::uint32_t remainsAt_ = 0;     // address
    std::uint32_t beforeRemains_ = 0; // number of the last entry of the fill before
};

} // namespace

Contents readContents(const Image& image) {
    return ImageReader(image).read();
}

} // namespace qwk::decode
