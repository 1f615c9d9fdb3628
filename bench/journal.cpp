// Reading the journal, compared with plain loops over the same entries and with journalctl.

#include <stdexcept>
#include <sys/resource.h>

#include "journal/journal.h"
#include "process.h"
#include "report.h"
#include "support/journalFixture.h"

namespace bench {

namespace {

constexpr int entryCount = 100000;
constexpr int entryPriority = 6;

// The work that no reader can avoid: open the journal, and for each entry get `fields`.
void readPlainly(const std::vector<const char*>& fields) {
    sd_journal* journal = nullptr;
    if (sd_journal_open(&journal, SD_JOURNAL_RUNTIME_ONLY) < 0)
        throw std::runtime_error("the journal does not open");
    const void* data = nullptr;
    std::size_t length = 0;
    for (int i = 0; i < entryCount && sd_journal_next(journal) > 0; ++i)
        for (const char* field : fields)
            benchmark::DoNotOptimize(sd_journal_get_data(journal, field, &data, &length));
    sd_journal_close(journal);
}

void readWith(int maxPriority, int wanted) {
    qwk::Journal journal(maxPriority);
    std::int32_t priority = 0;
    std::uint64_t time = 0;
    std::string text;
    for (int i = 0; i < entryCount; ++i)
        if (journal.readEntry(priority, time, text) != wanted)
            throw std::runtime_error("an entry was not read");
}

// The processor time of this thread, or of a child that does the work.
Comparison::Body once(const std::function<void()>& work) {
    return [work](benchmark::State& state) {
        const auto now = [] {
            return processorTime(RUSAGE_THREAD).total() + processorTime(RUSAGE_CHILDREN).total();
        };
        const double before = now();
        for (auto _ : state)
            work();
        state.counters["cpu"] = (now() - before) / static_cast<double>(state.iterations());
    };
}

} // namespace

void measureJournal() {
    testSupport::Journald journald;
    for (int i = 0; i < entryCount; ++i)
        journald.log(entryPriority, "bench",
                     "entry " + std::to_string(i) + " of a hundred thousand, of usual length");
    journald.sync();

    Comparison comparison;
    constexpr int passes = 8; // a single one is too short to measure
    comparison.add("plain loop, priority", passes, once([] { readPlainly({"PRIORITY"}); }));
    comparison.add("plain loop, fields", 1, once([] {
                       readPlainly({"PRIORITY", "_KERNEL_DEVICE", "SYSLOG_IDENTIFIER", "SYSLOG_PID",
                                    "_HOSTNAME", "MESSAGE"});
                   }));
    comparison.add("skipped", passes, once([] { readWith(entryPriority - 1, 0); }));
    comparison.add("delivered", 1, once([] { readWith(entryPriority, 1); }));
    comparison.add("journalctl -o short", 1, once([] {
                       testSupport::run("/bin/sh", {"-c", "journalctl -o short >/dev/null"});
                   }));
    comparison.run();

    section("Reading the journal",
            "The same 100,000 entries of a real journald each time, in processor time.",
            {"", "entries/s", "compared with", "ratio of the times", "target"});
    const auto add = [&](const char* name, const char* other, double limit) {
        const double spent = comparison.counter(name, "cpu");
        const double timeOfOther = comparison.counter(other, "cpu");
        row({name, number(entryCount * 1e6 / spent),
             std::string(other) + ": " + number(entryCount * 1e6 / timeOfOther),
             number(spent / timeOfOther, 2), limit > 0 ? atMost(spent / timeOfOther, limit) : ""});
    };
    add("skipped", "plain loop, priority", 1.1);
    add("delivered", "plain loop, fields", 0);
    add("delivered", "journalctl -o short", 1);
}

} // namespace bench
