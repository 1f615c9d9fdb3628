#pragma once

#include "support/chipModel.h"
#include "support/directChip.h"

namespace testSupport {

enum class Work { append, flush, clear, load, dump };
/// How a cut ends: with the last byte new, old or of random bits; or the board is reset, the chip
/// keeps its supply, and the recovery of the bus stores one more byte after an unfinished write.
enum Ending : unsigned { newValue, oldValue, randomBits, warmReset, endings };

/// A board that compares each operation with the model. An entry whose append has returned stays in
/// the chip until its line is on stable storage, each number has one text, and there is no gap:
/// until a fault that the model knows costs entries.
class ModelledBoard : public BoardOver<DirectDevice> {
protected:
    /// The whole state of a board that has power.
    struct Moment {
        ChipModel model;                ///< also of the log file and the process
        std::vector<std::string> given; ///< the last text that got each number
        std::uint32_t promised = 0;     ///< so many of them must not be lost
        bool isTrusted = true;
        std::size_t stable = 0; ///< lines of the log file that no power cut takes
        std::size_t messages = 0;
    };

    ModelledBoard() {
        // A line is on stable storage when the lock is released, if there still is power then.
        sink.onUnlock = [this] {
            now.stable = chip.isPowered() ? sink.written.size() : now.stable;
        };
    }

    void restore(const Moment& moment) {
        now = moment;
        chip.clearFaults();
        chip.powerOn();
        chip.setImage(model.image);
        sink.written = model.written;
        sink.recent = model.recent;
        sink.filled = model.filled;
    }
    void setImage(const framEmulator::Image& image) {
        chip.setImage(image);
        model.image = image;
    }
    /// A new process, which knows the log file.
    void restart() {
        sink.recent.clear();
        sink.filled = false;
        model.recent.clear();
        model.filled = false;
    }
    void endAfter(std::uint64_t bytes, unsigned ending) {
        if (ending == warmReset)
            chip.resetMasterAfter(bytes);
        else
            chip.cutPowerAfter(bytes, static_cast<framEmulator::TornByte>(ending),
                               static_cast<std::uint32_t>(bytes));
        wasReset = ending == warmReset;
    }
    /// The board comes back. Lines that were not on stable storage may be lost.
    void comeBack(bool unsyncedLinesSurvive) {
        chip.clearFaults();
        chip.powerOn();
        if (!unsyncedLinesSurvive)
            sink.written.resize(now.stable);
        now.stable = sink.written.size();
        model.written = sink.written;
        restart();
    }

    /// One operation, after a load if the process has not loaded its entries yet.
    void work(Work kind, const std::string& message = {}) {
        sink.nextId = model.nextInFile();
        const std::uint64_t time = 1700000000000000 + now.messages;
        const std::size_t linesBefore = sink.written.size();
        qwk::Eeprom eeprom = openEeprom();
        kind == Work::append  ? eeprom.append(6, time, message)
        : kind == Work::flush ? void(eeprom.flush())
        : kind == Work::clear ? void(eeprom.clear())
        : kind == Work::dump  ? void(eeprom.hexDump(devNull.get()))
                              : void();
        transfersOfWork = chip.transferCount();
        bytesOfWork = chip.wireBytes();
        model.follow(chip.record(), wasReset && !chip.isPowered(), chip.image());
        chip.clearRecord();
        model.load();
        const bool isStored = kind == Work::append && model.append(time, message);
        kind == Work::flush   ? void(model.flush())
        : kind == Work::clear ? model.clear()
        : kind == Work::dump  ? model.dump()
                              : void();
        ASSERT_TRUE(model.agrees());
        ASSERT_FALSE(sink.isLocked);
        ASSERT_EQ(eeprom.hasStored(), isStored);
        ASSERT_EQ(sink.written.size(), model.written.size());
        const auto newLines = static_cast<std::ptrdiff_t>(linesBefore);
        ASSERT_TRUE(std::equal(sink.written.begin() + newLines, sink.written.end(),
                               model.written.begin() + newLines));
        ASSERT_EQ(sink.recent, model.recent);
        const char* loss = now.isTrusted ? model.loss() : nullptr;
        if (loss != nullptr)
            ++losses[loss];
        now.isTrusted = now.isTrusted && (loss == nullptr || loss == ChipModel::clearing);
        if (loss == ChipModel::clearing) // the numbers go on after those in the log file
            now.promised = std::min(now.promised, model.nextInFile());
        if (now.isTrusted)
            expectPromisesKept(linesBefore, kind == Work::append && model.hasChanged(),
                               isStored && chip.isPowered());
    }

    Moment now;
    ChipModel& model = now.model;
    std::uint64_t transfersOfWork = 0, bytesOfWork = 0; ///< the last one's, on the bus
    std::map<std::string, std::size_t> losses;          ///< by their reason

private:
    void expectPromisesKept(std::size_t linesBefore, bool isAppend, bool isPromised) {
        if (isAppend) {
            ASSERT_TRUE(model.appended >= now.promised && model.appended <= now.given.size());
            now.given.resize(model.appended);
            now.given.push_back(model.appendedText);
            now.promised = isPromised ? model.appended + 1 : now.promised;
        }
        const Lines stored = model.stored();
        const std::uint32_t delivered = now.stable == 0 ? 0 : sink.written[now.stable - 1].id + 1;
        ASSERT_TRUE(stored.empty() || stored[0].id <= delivered);
        const std::uint32_t kept =
            stored.empty() ? delivered : std::max(delivered, stored.back().id + 1);
        ASSERT_GE(kept, now.promised);
        for (const Line& line : stored)
            ASSERT_EQ(line.message, now.given.at(line.id)) << line.id;
        for (std::size_t i = linesBefore; i < sink.written.size(); ++i) {
            const Line& line = sink.written[i];
            ASSERT_EQ(line.message, now.given.at(line.id)) << line.id;
            ASSERT_LE(line.id, i == 0 ? 0 : sink.written[i - 1].id + 1);
        }
    }

    bool wasReset = false;
};

} // namespace testSupport
