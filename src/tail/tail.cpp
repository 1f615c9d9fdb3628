#include "tail/tail.h"

#include <algorithm>
#include <cerrno>
#include <poll.h>
#include <stdexcept>
#include <unistd.h>

#include "support/diagnostics.h"
#include "support/stopRequest.h"
#include "tail/entrySplitter.h"

namespace qwk::tail {

namespace {

using namespace std::chrono_literals;

// The daemon sends this much in one piece, which no change of the log can interrupt.
constexpr std::size_t recentSize = 16384;
// More than the 30 longest messages, which is all that fits into the chip.
constexpr std::size_t allRecentSize = 4194304;

// A look that finds a gap may have met a roll or a flush.
constexpr int patientLooks = 3;
constexpr int mostLooks = 10;
constexpr auto lookInterval = 20ms;

// The cursor file is not written more often: it may be in flash.
constexpr std::chrono::seconds saveInterval = 1s;
constexpr auto retryInterval = 1s;
// Entries that come in quick succession are taken together.
constexpr auto batchInterval = 20ms;
// A live stream can fall silent after `--clear`, so the daemon is asked now and then.
constexpr auto silenceInterval = 2s;

int milliseconds(std::chrono::steady_clock::duration duration) {
    return static_cast<int>(
        std::chrono::ceil<std::chrono::milliseconds>(std::max(duration, decltype(duration)::zero()))
            .count());
}

} // namespace

Tail::Tail(const Options& options, const Events& events)
    : options_(options), events_(events), cursorFile_(options.cursorFile),
      merger_(history_, output_, events, options.since) {
    cursorFile_.load(history_);
    if (!cursorFile_.save(history_, 0)) // before any output that could not be recorded
        throw std::runtime_error("Cannot write \"" + options.cursorFile + "\" (" +
                                 errorText(errno) + ").");
    saved_ = history_.added();
    savedAt_ = Clock::now();
    if (!history_.isEmpty())
        events_.resumed(history_.nextNumber() - 1);
}

bool Tail::run() {
    catchUp();
    if (options_.follow) {
        save(); // so a kill from now on makes the next start repeat nothing
        follow();
    }
    output_.drain();
    if (isUnsaved() || saveError_ != 0)
        save();
    if (output_.error() != 0)
        events_.failure("Cannot write the output (" + errorText(output_.error()) + ").");
    return output_.error() == 0 && saveError_ == 0;
}

// --- Everything up to now

void Tail::catchUp() {
    for (int count = 1; count <= mostLooks && !output_.isOver(); ++count) {
        if (look(count <= patientLooks))
            break;
        stopRequest().sleepFor(lookInterval);
    }
    output_.flush();
    saveIfDue();
}

// False when the entries do not fit together: files and chip may change during a look.
bool Tail::look(bool patient) {
    bool answered = false;
    merger_.beginLook();
    // The daemon's newest text usually begins before the last printed entry.
    if (merger_.hasPlace() && takeRecentText(false, patient, answered))
        return true;
    looked_ = logFileState();
    LogFiles files;
    if (!readFiles(files, patient))
        return false;
    for (const bool all : {false, true}) {
        if (takeRecentText(all, patient, answered) || output_.isOver())
            return true;
        if (!answered)
            return settleFiles(files);
    }
    merger_.drop();
    return false;
}

bool Tail::readFiles(LogFiles& files, bool patient) {
    if (options_.since && history_.isEmpty())
        files.placeAtNumber(*options_.since);
    else if (!files.placeAtKnown(history_) && !history_.isEmpty())
        merger_.placeIsLost();
    bool fits = true;
    files.read([&](Entry& entry) {
        fits = merger_.take(entry, Merger::Source::files, patient);
        saveIfDue();
        return fits && !output_.isOver();
    });
    if (!fits)
        merger_.drop();
    return fits;
}

// Takes the daemon's entries, in files and chip, that come after the newest one taken before. False
// when the daemon's text begins later than that, or when no daemon answers.
bool Tail::takeRecentText(bool all, bool patient, bool& answered) {
    const std::optional<std::string> text = recentText(all ? allRecentSize : recentSize);
    answered = text.has_value();
    if (!text)
        tellMissingRights();
    if (!text || output_.isOver())
        return false;
    std::vector<Entry> entries =
        splitEntries(EntrySplitter::Source::daemon, text->data(), text->size());
    const auto rest = afterTaken(entries);
    // The text may begin within a message that quotes a known entry: then other numbers follow.
    const bool begins =
        rest == entries.begin()
            ? !entries.empty() && merger_.isNext(entries.front().number)
            : all || rest == entries.end() || rest->number == (rest - 1)->number + 1;
    if (!begins && !(all && (!patient || !merger_.hasPlace())))
        return false;
    // A long answer goes out in pieces, and the log may change between them.
    if (all && rest != entries.end()) {
        const std::optional<std::string> again = recentText(allRecentSize);
        if (!again || !std::all_of(rest, entries.end(), [&](const Entry& entry) {
                return again->find(entry.text) != std::string::npos;
            }))
            return false;
    }
    for (auto entry = entries.begin(); entry != entries.end(); ++entry)
        if (entry >= rest || merger_.has(*entry))
            merger_.take(*entry, Merger::Source::daemon, false);
    merger_.settle();
    return true;
}

// Without a daemon, the last entry of the files is whole once the files no longer change.
bool Tail::settleFiles(const LogFiles& files) {
    stopRequest().sleepFor(lookInterval);
    const bool atRest = files.isAtRest();
    if (atRest)
        merger_.settle();
    else
        merger_.drop();
    return atRest;
}

void Tail::tellMissingRights() {
    if (errno == EACCES && !std::exchange(rightsTold_, true))
        events_.noRights();
}

// --- New entries

void Tail::follow() {
    while (!output_.isOver()) {
        DaemonLink link(DaemonLink::Kind::live, recentSize);
        if (!link.isOpen() || !followLive(link))
            waitForDaemon();
    }
}

// Returns true when the stream has fallen silent, false when the daemon has ended it. The stream is
// only a sign that entries came: after `--clear` its bytes can belong to other entries of the same
// number and length.
bool Tail::followLive(DaemonLink& link) {
    auto quiet = Clock::now() + silenceInterval;
    while (!output_.isOver()) {
        const bool hint = wait(link.descriptor(), quiet);
        if (!hint && Clock::now() < quiet)
            continue;
        const bool ended = hint && !link.discard();
        const std::uint64_t before = history_.added();
        catchUp();
        if (ended)
            return false;
        if (!hint && history_.added() != before)
            return true;
        if (hint)
            stopRequest().sleepFor(batchInterval);
        quiet = Clock::now() + silenceInterval;
    }
    return true;
}

// Without a daemon the files do not change. If its socket is closed to this user, a flush changes
// them.
void Tail::waitForDaemon() {
    wait(-1, Clock::now() + retryInterval);
    if (!output_.isOver() && !(logFileState() == looked_))
        catchUp();
}

// Waits for the descriptor (-1: none), but not longer than until `end`. Writes the cursor file when
// that is due, and notes when the output's reader has left.
bool Tail::wait(int descriptor, Clock::time_point end) {
    pollfd watched[3] = {
        {descriptor, POLLIN, 0}, {stopRequest().descriptor(), POLLIN, 0}, {STDOUT_FILENO, 0, 0}};
    const auto wake = isUnsaved() ? std::min(end, savedAt_ + Clock::duration(saveInterval)) : end;
    if (poll(watched, 3, milliseconds(wake - Clock::now())) < 0)
        return false;
    if (watched[2].revents != 0)
        output_.readerHasGone();
    saveIfDue();
    return watched[0].revents != 0;
}

// The place after the last entry that was printed or is held.
std::vector<Entry>::iterator Tail::afterTaken(std::vector<Entry>& entries) const {
    return std::find_if(
               entries.rbegin(), entries.rend(),
               [&](const Entry& entry) { return merger_.has(entry); })
        .base();
}

// --- The cursor file

bool Tail::save() {
    savedAt_ = Clock::now();
    const std::size_t untaken = output_.untaken();
    const std::uint64_t count = history_.added() - untaken;
    if (!history_.isEmpty() && untaken >= history_.marks().size())
        return true; // the reader has none of the remembered entries: the last file is still right
    output_.sync();
    const int before = saveError_;
    saveError_ = cursorFile_.save(history_, untaken) ? 0 : errno;
    if (saveError_ == 0)
        saved_ = count;
    else if (before == 0)
        events_.failure("Cannot write \"" + options_.cursorFile + "\" (" + errorText(saveError_) +
                        "); the next start may repeat entries.");
    return saveError_ == 0;
}

void Tail::saveIfDue() {
    if (Clock::now() >= savedAt_ + saveInterval && isUnsaved())
        save();
}

} // namespace qwk::tail
