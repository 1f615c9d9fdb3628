// Long lives of a board, by chance and from a printed seed: appends of all sizes, flushes, clears,
// restarts, power cuts, resets and bus faults, at any byte. A model says after every step what the
// chip and the log must hold. QUILLWICK_CYCLES is the number of power cycles, 2000 without it.

#include <chrono>
#include <cstdlib>
#include <optional>
#include <random>
#include <set>

#include "support/directChip.h"

using namespace testSupport;
using namespace qwk::framLayout;
using framEmulator::Transfer;
using framEmulator::TransferKind;

namespace {

// What each operation makes of the chip's bytes and of the log, told which of its transfers failed.
class Model {
public:
    // An operation was carried out: its transfers, whether a reset broke the last one that the chip
    // took part in, and the chip's bytes after it.
    void follow(std::vector<Transfer> transfers, bool wasReset, const framEmulator::Image& after) {
        transfers_ = std::move(transfers);
        actual_ = after;
        done_ = 0;
        broken_ = 0;
        for (std::size_t i = 0; wasReset && i < transfers_.size(); ++i)
            broken_ = transfers_[i].transferred > 0 ? i + 1 : broken_;
        loss = nullptr;
    }
    // To be asked when the operation was modelled.
    bool agrees() const { return done_ == transfers_.size() && image == actual_; }

    void load() {
        if (filled)
            return;
        if (const auto header = readHeaders())
            walk(*header, recent);
        filled = filled || !recent.empty();
    }
    // True when the entry is promised from now on.
    bool append(const std::string& message) {
        std::optional<Header> header = readHeaders();
        if (!header) {
            lose(stored().empty() ? nullptr : "headers not read by an append");
            header = Header{entryAreaStart, 0, nextInFile()};
        }
        const std::uint32_t length = entrySize(message);
        if (header->end + length > chipSize) {
            if (!flush())
                lose("headers not read by the flush of an append");
            header = Header{entryAreaStart, 0, header->nextId};
        }
        recent.push_back({header->nextId, message});
        filled = true;
        appended = header->nextId;
        std::uint8_t record[maxEntrySize];
        encodeEntry(record, 6, 0, message);
        return write(header->end, record, length) &&
               writeHeaders({header->end + length, header->count + 1, header->nextId + 1});
    }
    // False when no header could be read.
    bool flush() {
        recent.clear();
        const auto header = readHeaders();
        if (!header || (header->end == entryAreaStart && header->count == 0))
            return header.has_value();
        if (!walk(*header, written))
            lose("record not read by a flush");
        writeHeaders({entryAreaStart, 0, header->nextId});
        return true;
    }
    void clear() {
        lose(clearing);
        const std::uint8_t zeros[chipSize] = {};
        write(0, zeros, chipSize);
        recent.clear();
    }
    // The entries that a start without faults would find, up to the first that is not readable.
    Lines stored() const {
        Model start;
        start.image = image;
        start.faultless_ = true;
        start.load();
        return start.recent;
    }
    std::uint32_t nextInFile() const { return written.empty() ? 0 : written.back().id + 1; }

    framEmulator::Image image{};
    Lines written;
    Lines recent;
    bool filled = false;
    std::uint32_t appended = 0;
    // Why entries may be missing after the operation, that are not in the log file either.
    const char* loss = nullptr;
    static constexpr const char* clearing = "clear";

private:
    void lose(const char* reason) { loss = reason != nullptr ? reason : loss; }
    // The next transfer must be this one; whether it succeeded.
    bool transfer(TransferKind kind, std::uint32_t address, std::size_t length) {
        if (faultless_)
            return true;
        if (done_ == transfers_.size())
            return false;
        const Transfer& next = transfers_[done_];
        if (next.kind != kind || next.requested != length || next.address != address % chipSize)
            return false; // and stays there
        ++done_;
        return next.result == static_cast<int>(length);
    }
    bool read(std::uint32_t address, std::uint32_t length, std::uint8_t* out) {
        if (!transfer(TransferKind::write, address, 2))
            return spoil(address);
        for (std::uint32_t at = 0; at < length; ++at)
            out[at] = image[(address + at) % chipSize];
        for (std::uint32_t at = 0; at < length; at += 4096)
            if (!transfer(TransferKind::read, address + at, std::min(length - at, 4096U)))
                return false;
        return true;
    }
    bool write(std::uint32_t address, const std::uint8_t* data, std::uint32_t length) {
        if (address + length > chipSize)
            return false;
        for (std::uint32_t done = 0, chunk; done < length; done += chunk) {
            const std::uint32_t start = address + done;
            chunk = std::min(length - done, 4094 - start % 4094);
            const bool succeeded = transfer(TransferKind::write, start, chunk + 2);
            const std::size_t taken = lastTaken();
            std::copy_n(data + done, taken, image.begin() + start);
            if (!succeeded) {
                if (taken > 0) // a torn byte
                    image[start + taken - 1] = actual_[start + taken - 1];
                return spoil(start + static_cast<std::uint32_t>(taken));
            }
        }
        return true;
    }
    // Data bytes of the last transfer, a write, that the chip has stored.
    std::size_t lastTaken() const {
        if (faultless_ || done_ == 0)
            return 0;
        return std::max<std::size_t>(transfers_[done_ - 1].transferred, 2) - 2;
    }
    // A write was broken off before `address`, perhaps by a reset. False, as the result of it.
    bool spoil(std::uint32_t address) {
        if (done_ == broken_ && done_ > 0 && transfers_[done_ - 1].transferred >= 2) {
            lose("byte of a bus recovery");
            image[address % chipSize] = 0xff;
        }
        return false;
    }
    bool readKlv(std::uint32_t address, std::uint8_t* klv) {
        if (!read(address & 0xffff, klvHeadSize, klv))
            return false;
        const std::uint32_t length = klvLength(klv);
        return length >= klvHeadSize && length < chipSize &&
               read((address + klvHeadSize) & 0xffff, length - klvHeadSize, klv + klvHeadSize);
    }
    std::optional<Header> readHeader(unsigned copy) {
        std::uint8_t block[chipSize];
        if (!readKlv(copy * headerSize, block) || klvLength(block) != headerSize ||
            !hasHeaderKey(block) || storedCrc(block) != computedCrc(block))
            return std::nullopt;
        return decodeHeader(block);
    }
    std::optional<Header> readHeaders() {
        const std::optional<Header> copies[] = {readHeader(0), readHeader(1)};
        if (!copies[0] && !copies[1])
            return std::nullopt;
        if (!copies[0]) {
            if (encodeHeader(*copies[1]) != newest_)
                lose("older state in copy 1");
            writeHeader(0, *copies[1]);
        } else if (!copies[1]) {
            writeHeader(1, *copies[0]);
        }
        return copies[0] ? copies[0] : copies[1];
    }
    bool writeHeader(unsigned copy, const Header& header) {
        const auto block = encodeHeader(header);
        const bool succeeded = write(copy * headerSize, block.data(), headerSize);
        if (std::equal(block.begin(), block.end(), image.begin()))
            newest_ = block;
        return succeeded;
    }
    bool writeHeaders(const Header& header) {
        return writeHeader(0, header) && writeHeader(1, header);
    }
    bool walk(const Header& header, Lines& lines) {
        std::uint32_t address = entryAreaStart;
        for (std::uint32_t id = header.nextId - header.count; address < header.end; ++id) {
            std::uint8_t record[chipSize];
            if (!readKlv(address, record) || !hasEntryKey(record) ||
                klvLength(record) < minEntrySize)
                return false;
            Entry entry;
            decodeEntry(record, entry);
            lines.push_back({id, entry.message});
            address += klvLength(record);
        }
        return address == header.end;
    }

    std::vector<Transfer> transfers_;
    std::size_t done_ = 0;
    std::size_t broken_ = 0; // by a reset: this one, from 1
    framEmulator::Image actual_{};
    bool faultless_ = false;
    std::array<std::uint8_t, headerSize> newest_{}; // what copy 0 last said when it was whole
};

class LifeTest : public DirectBoard {
protected:
    LifeTest() {
        // A line is on stable storage when the lock is released, if there still is power then.
        sink.onUnlock = [this] { stable = chip.isPowered() ? sink.written.size() : stable; };
    }

    std::uint32_t upTo(std::uint32_t highest) {
        return static_cast<std::uint32_t>(random() % (highest + 1));
    }
    bool oneIn(std::uint32_t count) { return random() % count == 0; }
    void note(const char* what, std::uint32_t number = 0, std::uint32_t other = 0) {
        steps.push_back({what, number, other});
    }

    // One life of a board, which begins with a new chip and an empty log file.
    void live(std::uint32_t seed, std::uint32_t cycles) {
        random.seed(seed);
        takeDiagnostics(); // which the model has no use for
        chip.setImage({});
        sink.written.clear();
        model = {};
        steps.clear();
        promised.clear();
        given.clear();
        messages = stable = delivered = 0;
        isTrusted = true;
        restart();
        // What sets lives apart: their faults, how often they flush and how much they say.
        hasBusFaults = oneIn(3);
        hasResets = oneIn(3);
        flushesOneIn = 3U << (2 * upTo(3));
        longest = 20 + upTo(1) * 280;
        for (; cycles > 0 && !HasFatalFailure(); --cycles)
            cycle();
    }
    // From one start of the board to the end of its power.
    void cycle() {
        for (std::uint32_t count = upTo(20); count > 0 && !HasFatalFailure(); --count)
            step();
        const std::uint32_t at = upTo(oneIn(4) ? 6000 : 400), seed = upTo(0xffff);
        wasReset = hasResets && oneIn(2);
        note(wasReset ? "reset after this many bytes" : "cut after this many bytes", at);
        if (wasReset)
            chip.resetMasterAfter(at);
        else
            chip.cutPowerAfter(at, static_cast<framEmulator::TornByte>(upTo(2)), seed);
        while (chip.isPowered() && !HasFatalFailure())
            step();
        chip.clearFaults();
        chip.powerOn();
        if (oneIn(2)) // lines that were not synced are gone
            sink.written.resize(stable);
        stable = sink.written.size();
        model.written = sink.written;
        restart();
    }
    void restart() {
        note("start");
        sink.recent.clear();
        sink.filled = false;
        model.recent.clear();
        model.filled = false;
    }
    void step() {
        for (int faults = hasBusFaults && oneIn(8) ? 1 + oneIn(3) : 0; faults > 0; --faults) {
            const std::uint32_t number = 1 + upTo(30), bytes = upTo(20);
            const bool isShort = oneIn(3);
            note(isShort ? "transfer cut short" : "transfer fails", number, bytes);
            isShort ? chip.cutTransfer(number, bytes) : chip.failTransfer(number);
        }
        if (oneIn(30))
            restart();
        sink.nextId = model.nextInFile();
        const std::size_t lines = sink.written.size();
        bool isPromised = false;
        std::string message;
        {
            qwk::Eeprom eeprom = openEeprom();
            const std::uint32_t kind = upTo(199);
            if (kind == 0) {
                note("clear");
                eeprom.clear();
                followed();
                model.clear();
            } else if (kind % flushesOneIn == 1) {
                note("flush");
                eeprom.flush();
                followed();
                model.flush();
            } else {
                message = std::to_string(messages++) + std::string(upTo(longest), '.');
                note("append of this length", static_cast<std::uint32_t>(message.size()));
                eeprom.append(6, 0, message);
                followed();
                const bool isStored = model.append(message);
                ASSERT_EQ(eeprom.hasStored(), isStored);
                isPromised = isStored && chip.isPowered();
            }
        }
        ASSERT_TRUE(model.agrees());
        ASSERT_EQ(sink.written.size(), model.written.size());
        ASSERT_TRUE(std::equal(sink.written.begin() + static_cast<std::ptrdiff_t>(lines),
                               sink.written.end(),
                               model.written.begin() + static_cast<std::ptrdiff_t>(lines)));
        ASSERT_EQ(sink.recent, model.recent);
        if (!message.empty())
            give(message, isPromised);
        expectPromisesKept(lines, isPromised);
    }
    // The operation is over; the load before it is modelled here.
    void followed() {
        model.follow(chip.record(), wasReset && !chip.isPowered(), chip.image());
        chip.clearRecord();
        model.load();
    }
    void give(const std::string& message, bool isPromised) {
        std::uint8_t record[maxEntrySize];
        encodeEntry(record, 6, 0, message);
        Entry entry;
        decodeEntry(record, entry);
        // Behind an unreadable record an entry is as lost as that one.
        if (isPromised && !model.stored().empty() && model.stored().back().id == model.appended)
            promised[model.appended] = entry.message;
        isTrusted = isTrusted && model.loss == nullptr;
        if (!isTrusted)
            return;
        ASSERT_LE(model.appended, given.size());
        given.resize(std::max<std::size_t>(given.size(), model.appended + 1U));
        given[model.appended] = entry.message;
    }
    void expectPromisesKept(std::size_t linesBefore, bool isPromised) {
        for (; delivered < stable; ++delivered) {
            const auto found = promised.find(sink.written[delivered].id);
            if (found != promised.end() && found->second == sink.written[delivered].message)
                promised.erase(found);
        }
        const Lines stored = model.stored();
        const auto isStored = [&](std::uint32_t id, const std::string& message) {
            const std::size_t place = stored.empty() ? 0 : id - stored[0].id;
            return place < stored.size() && stored[place].message == message;
        };
        for (auto entry = promised.begin(); entry != promised.end();)
            if (isStored(entry->first, entry->second)) {
                ++entry;
            } else {
                ASSERT_TRUE(model.loss != nullptr) << "lost: " << entry->first;
                entry = promised.erase(entry);
                ++lost[model.loss];
            }
        if (model.loss == Model::clearing && stored.empty())
            given.resize(std::min<std::size_t>(given.size(), model.nextInFile()));
        isTrusted = isTrusted && (model.loss == nullptr || model.loss == Model::clearing);
        if (!isTrusted)
            return;
        // One text for each number, and no gap.
        ASSERT_TRUE(!isPromised || promised.count(model.appended) == 1);
        ASSERT_TRUE(stored.empty() || stored[0].id <= model.nextInFile());
        for (const Line& line : stored)
            ASSERT_TRUE(line.id < given.size() && given[line.id] == line.message) << line;
        for (std::size_t i = linesBefore; i < sink.written.size(); ++i) {
            ASSERT_EQ(given.at(sink.written[i].id), sink.written[i].message);
            ASSERT_LE(sink.written[i].id, i == 0 ? 0 : sink.written[i - 1].id + 1);
        }
    }

    struct Step {
        const char* what;
        std::uint32_t number;
        std::uint32_t other;
    };
    std::vector<Step> steps;
    std::mt19937 random;
    bool hasBusFaults = false, hasResets = false, wasReset = false;
    std::uint32_t flushesOneIn = 0, longest = 0;
    Model model;
    std::map<std::uint32_t, std::string> promised; // and not yet safe in the log file
    std::vector<std::string> given;                // by number; the last text that got it
    bool isTrusted = true;                         // no loss so far: each number has one text
    std::size_t stable = 0, delivered = 0;         // lines of the log file
    std::size_t messages = 0;
    std::map<std::string, std::size_t> lost; // promises that a fault has broken, by the reason
};

} // namespace

TEST_F(LifeTest, keepsEveryPromise) {
    const char* wanted = std::getenv("QUILLWICK_CYCLES");
    const auto cycles = static_cast<std::uint32_t>(wanted != nullptr ? std::stoul(wanted) : 2000);
    constexpr std::uint32_t cyclesOfALife = 100, seeds = 99999;
    const auto chosen = static_cast<std::uint32_t>(testing::GTEST_FLAG(random_seed));
    const std::uint32_t first = chosen != 0 ? chosen : 1 + std::random_device()() % seeds;
    std::printf("--gtest_random_seed=%u\n", first);
    const auto start = std::chrono::steady_clock::now();
    for (std::uint32_t life = 0; life < cycles / cyclesOfALife; ++life) {
        const std::uint32_t seed = 1 + (first - 1 + life) % seeds;
        live(seed, cyclesOfALife);
        if (HasFatalFailure()) {
            std::printf("Fails again with --gtest_random_seed=%u\n", seed);
            for (const Step& step : steps)
                std::printf("%s %u %u\n", step.what, step.number, step.other);
            return;
        }
    }
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
    std::printf("%u power cycles, %.0f a second\n", cycles, cycles / elapsed.count());
    for (const auto& [reason, count] : lost)
        std::printf("%9zu entries lost: %s\n", count, reason.c_str());
}
