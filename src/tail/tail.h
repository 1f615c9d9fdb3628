#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tail/cursorFile.h"
#include "tail/daemonLink.h"
#include "tail/events.h"
#include "tail/history.h"
#include "tail/logFiles.h"
#include "tail/merger.h"
#include "tail/output.h"

namespace qwk::tail {

struct Options {
    std::string cursorFile;
    bool follow = false;
    bool jsonEvents = false;
    /// Where to begin without a cursor; without both, with the oldest entry.
    std::optional<std::uint32_t> since;
};

/// Prints the entries after those of the cursor file, from the log files and from the daemon.
class Tail {
public:
    /// Throws std::runtime_error when the cursor file cannot be used.
    Tail(const Options& options, const Events& events);

    /// Prints all that there is, and with `follow` all that comes until a stop is requested. False
    /// when the output or the cursor file failed, which it reports. Throws std::system_error when a
    /// log file cannot be read.
    bool run();

private:
    using Clock = std::chrono::steady_clock;

    void catchUp();
    bool look(bool patient);
    bool readFiles(LogFiles& files, bool patient);
    bool takeRecentText(bool all, bool patient, bool& answered);
    bool settleFiles(const LogFiles& files);
    void tellMissingRights();

    void follow();
    bool followLive(DaemonLink& link);
    bool wait(int descriptor, Clock::time_point end);
    std::vector<Entry>::iterator afterTaken(std::vector<Entry>& entries) const;
    void waitForDaemon();

    bool save();
    void saveIfDue();
    bool isUnsaved() { return taken() != saved_; }
    /// Counts the entries that the output's reader has, with those of the cursor file.
    std::uint64_t taken() { return history_.added() - output_.untaken(); }

    const Options options_;
    const Events& events_;
    const CursorFile cursorFile_;
    History history_;
    Output output_;
    Merger merger_;
    /// How many of them the cursor file knows, and when it was written.
    std::uint64_t saved_ = 0;
    Clock::time_point savedAt_;
    int saveError_ = 0;
    bool rightsTold_ = false;
    /// The log file as it was before the last look at it.
    FileState looked_;
};

} // namespace qwk::tail
