#pragma once

#include <cstdint>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <systemd/sd-journal.h>

#include "journal/wakeUps.h"

namespace qwk {

/// Reads the runtime journal of the current boot, oldest entry first. Used by the main thread only.
class Journal {
public:
    /// Opens the journal. When that fails it is reported, and every readEntry fails. Entries with a
    /// priority number above `maxPriority` (0 emergency to 7 debug) are not delivered. `wakeUps`
    /// are descriptors that become readable when an entry is on its way; see WakeUps.
    explicit Journal(int maxPriority, std::vector<FileDescriptor> wakeUps = {});
    virtual ~Journal() = default;

    Journal(const Journal&) = delete;
    Journal& operator=(const Journal&) = delete;

    /// Waits for the next entry. Returns 1 with its priority, its time stamp (microseconds since
    /// the Unix epoch) and its text; 0 when its priority is above the highest; -1 when the entry is
    /// unusable, the journal fails or the daemon is asked to stop. The out-parameters are set with
    /// 1 only. The next call continues with the next entry, also after -1.
    int readEntry(std::int32_t& priority, std::uint64_t& timestamp, std::string& text);

    /// `observer` is called with true when readEntry finds the journal's folder missing and waits
    /// for it, and with false when that wait is over.
    void observeFolder(std::function<void(bool isMissing)> observer) {
        folderObserver_ = std::move(observer);
    }

private:
    struct Free {
        void operator()(char* memory) const { std::free(memory); }
    };
    struct CloseJournal {
        void operator()(sd_journal* journal) const { sd_journal_close(journal); }
    };

    /// 0 at the next entry; -1, reported unless the daemon is to stop.
    int advance();
    /// Blocks until the journal has changed or the daemon is to stop. The result of
    /// sd_journal_process, or a negative error number.
    int waitForChanges();
    /// Starts change notification once the journal's folder exists. Returns the descriptor, or a
    /// negative error number.
    int beginWatch();
    void reportWaitFailure(int error);
    /// 1 when the entry's priority is to be logged, 0 when not, -1 when it has none.
    int readPriority(std::int32_t& priority);
    /// 0 and the field's text in buffer_, valid until the next call; -1 when it is absent or empty.
    int getField(const char* name, const char*& value);
    /// The field's text and `suffix`, or nothing when the field is absent or empty.
    std::string fieldWithSuffix(const char* name, const char* suffix);
    /// "name[process id]: ", or nothing when one of the two fields is absent or empty.
    std::string senderPrefix(const char* nameField, const char* pidField);

    std::unique_ptr<sd_journal, CloseJournal> journal_;
    const std::unique_ptr<char, Free> buffer_;
    const int maxPriority_;
    std::function<void(bool)> folderObserver_ = [](bool) {};
    /// The journal's descriptor, from the first wait on; -1 before.
    int descriptor_ = -1;
    /// The failure to get the descriptor was reported and lasts.
    bool waitFailureReported_ = false;
    WakeUps wakeUps_;
};

} // namespace qwk
