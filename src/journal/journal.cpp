#include "journal/journal.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <unistd.h>
#include <utility>

#include "support/diagnostics.h"
#include "support/numbers.h"
#include "support/paths.h"
#include "support/stopRequest.h"

namespace qwk {

namespace {

constexpr std::size_t bufferSize = 65536;
constexpr std::size_t maxValueLength = bufferSize - 1;

// libsystemd may cut a compressed field, its name included, at this length: room for every value
// that fits the buffer, after the longest name that is asked for.
constexpr std::size_t dataThreshold = maxValueLength + sizeof "SYSLOG_IDENTIFIER=";

constexpr std::chrono::milliseconds folderRetryInterval{100};

} // namespace

Journal::Journal(int maxPriority, std::vector<FileDescriptor> wakeUps)
    : buffer_(static_cast<char*>(std::malloc(bufferSize))), maxPriority_(maxPriority),
      wakeUps_(std::move(wakeUps)) {
    if (!buffer_) {
        report(LOG_ERR, "Out of memory");
        return;
    }
    sd_journal* opened = nullptr;
    const int result = sd_journal_open(&opened, SD_JOURNAL_RUNTIME_ONLY);
    if (result < 0) {
        report(LOG_ERR, "Failed to open journal: %s", errorText(-result).c_str());
        return;
    }
    journal_.reset(opened);
    static_cast<void>(sd_journal_set_data_threshold(opened, dataThreshold)); // cannot fail
}

int Journal::readEntry(std::int32_t& priority, std::uint64_t& timestamp, std::string& text) {
    if (!journal_)
        return -1;
    const int result = advance();
    wakeUps_.beginWork(); // the caller stores the entry, or sleeps after a failure
    if (result != 0)
        return -1;
    std::int32_t entryPriority = 0;
    const int wanted = readPriority(entryPriority);
    if (wanted != 1)
        return wanted;

    const std::string device = fieldWithSuffix("_KERNEL_DEVICE", ": ");
    std::string sender = senderPrefix("SYSLOG_IDENTIFIER", "SYSLOG_PID");
    if (sender.empty())
        sender = senderPrefix("_COMM", "_PID");
    const std::string host = fieldWithSuffix("_HOSTNAME", " ");

    std::uint64_t realtime = 0;
    const char* message = nullptr;
    if (sd_journal_get_realtime_usec(journal_.get(), &realtime) != 0 ||
        getField("MESSAGE", message) != 0)
        return -1;

    text.clear();
    text.append(host).append(device).append(sender).append(message);
    priority = entryPriority;
    timestamp = realtime;
    return 1;
}

int Journal::advance() {
    for (;;) {
        const int result = sd_journal_next(journal_.get());
        if (result > 0) {
            wakeUps_.entryCame();
            return 0;
        }
        if (result < 0) {
            report(LOG_ERR, "Failed to iterate to next entry: %s", errorText(-result).c_str());
            return -1;
        }
        if (waitForChanges() < 0 || stopRequest().isRequested())
            return -1;
    }
}

int Journal::waitForChanges() {
    int result = 0;
    bool hasChanges = true;
    if (descriptor_ < 0) {
        // Notification begins here. An entry that came just before causes none, so the loop looks
        // at the journal once more before the first wait.
        result = beginWatch();
    } else {
        hasChanges = wakeUps_.wait(descriptor_, stopRequest().descriptor());
    }
    // After a hint alone libsystemd has nothing to process: it finds an entry in a file that it
    // knows without that, and a new file makes the descriptor readable at once.
    if (result >= 0 && hasChanges)
        result = sd_journal_process(journal_.get());
    if (result < 0)
        reportWaitFailure(result);
    else
        waitFailureReported_ = false;
    return result;
}

int Journal::beginWatch() {
    // If the folder were missing, libsystemd would never watch it, not even later.
    bool waits = false;
    while (access(journalFolderPath, F_OK) != 0 && !stopRequest().isRequested()) {
        if (!std::exchange(waits, true))
            folderObserver_(true);
        stopRequest().sleepFor(folderRetryInterval);
    }
    if (waits)
        folderObserver_(false);
    const int descriptor = sd_journal_get_fd(journal_.get());
    if (descriptor >= 0)
        descriptor_ = descriptor;
    return descriptor;
}

void Journal::reportWaitFailure(int error) {
    // The caller tries again every 100 ms. While notification cannot begin, one report is enough:
    // each is a journal entry itself.
    if (descriptor_ >= 0 || !waitFailureReported_)
        report(LOG_ERR, "Failed to wait for changes: %s", errorText(-error).c_str());
    waitFailureReported_ = descriptor_ < 0;
}

int Journal::readPriority(std::int32_t& priority) {
    const char* text = nullptr;
    if (getField("PRIORITY", text) != 0) {
        // Nothing was refused: the text of EPERM stays because users search their logs for it.
        report(LOG_ERR, "Failed to read priority field: %s", errorText(EPERM).c_str());
        return -1;
    }
    const char* end = nullptr;
    const std::int32_t number = parseDecimal(text, end);
    if (*end != '\0') {
        report(LOG_ERR, "Failed to parse priority field (\"%s\")", text);
        return -1;
    }
    priority = number;
    return priority > maxPriority_ ? 0 : 1;
}

int Journal::getField(const char* name, const char*& value) {
    const void* data = nullptr;
    std::size_t length = 0;
    if (sd_journal_get_data(journal_.get(), name, &data, &length) != 0)
        return -1;
    const std::size_t prefix = std::strlen(name) + 1; // the name and the equals sign
    if (length <= prefix)
        return -1;
    length = std::min(length - prefix, maxValueLength);
    std::memcpy(buffer_.get(), static_cast<const char*>(data) + prefix, length);
    buffer_.get()[length] = '\0';
    value = buffer_.get();
    return 0;
}

std::string Journal::fieldWithSuffix(const char* name, const char* suffix) {
    const char* value = nullptr;
    return getField(name, value) == 0 ? std::string(value) + suffix : std::string();
}

std::string Journal::senderPrefix(const char* nameField, const char* pidField) {
    std::string name = fieldWithSuffix(nameField, "[");
    const std::string pid = name.empty() ? std::string() : fieldWithSuffix(pidField, "]: ");
    return pid.empty() ? std::string() : name + pid;
}

} // namespace qwk
