#pragma once

#include <algorithm>
#include <array>
#include <optional>

#include "support/board.h"

namespace testSupport {

using namespace qwk::framLayout;
using framEmulator::Transfer;
using framEmulator::TransferKind;

/// The effect of each operation on the chip's bytes and on the log, given the transfers that
/// failed.
class ChipModel {
public:
    // An operation was carried out: its transfers, whether a reset ended them, and the chip's bytes
    // after it.
    void follow(std::vector<Transfer> transfers, bool wasReset, const framEmulator::Image& after) {
        transfers_ = std::move(transfers);
        before_ = image;
        actual_ = after;
        done_ = 0;
        isOther_ = false;
        wasReset_ = wasReset;
        loss_ = nullptr;
    }
    // Call it after modelling the operation.
    bool agrees() const { return !isOther_ && done_ == transfers_.size() && image == actual_; }

    void load() {
        if (filled)
            return;
        if (const auto header = readHeaders())
            walk(*header, recent);
        filled = filled || !recent.empty();
    }
    // True when the entry is promised from now on.
    bool append(std::uint64_t time, const std::string& message) {
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
        encodeEntry(record, 6, time, message);
        Entry entry;
        decodeEntry(record, entry);
        appendedText = entry.message;
        const bool isWritten =
            write(header->end, record, length) &&
            writeHeaders({header->end + length, header->count + 1, header->nextId + 1});
        if (!isWritten && repairFailed_ && !started().readHeaders())
            lose("repair and new header both written in part by an append");
        return isWritten;
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
    void dump() {
        std::uint8_t bytes[chipSize];
        read(0, chipSize, bytes);
    }
    // The entries that a start without faults would find, up to the first that is not readable.
    Lines stored() const { return started().recent; }
    // The reason why entries may be in neither the chip nor the log file, also after a start. Null
    // while no loss is possible, such as when the chip's bytes are as they were.
    const char* loss() const {
        const char* later = started().loss_;
        return later != nullptr ? later : hasChanged() ? loss_ : nullptr;
    }
    bool hasChanged() const { return image != before_; }
    std::uint32_t nextInFile() const { return written.empty() ? 0 : written.back().id + 1; }

    framEmulator::Image image{};
    Lines written;
    Lines recent;
    bool filled = false;
    std::uint32_t appended = 0;
    std::string appendedText; // as the chip has it
    static constexpr const char* clearing = "clear";
    static constexpr const char* recovery = "byte of a bus recovery";

private:
    ChipModel started() const {
        ChipModel start;
        start.image = image;
        start.newest_ = newest_;
        start.faultless_ = true;
        start.load();
        return start;
    }
    // The first reason counts.
    void lose(const char* reason) { loss_ = loss_ != nullptr ? loss_ : reason; }
    // The next transfer must be this one; whether it succeeded.
    bool transfer(TransferKind kind, std::uint32_t address, std::size_t length) {
        taken_ = 0;
        if (faultless_)
            return true;
        if (done_ == transfers_.size() || transfers_[done_].kind != kind ||
            transfers_[done_].requested != length ||
            transfers_[done_].address != address % chipSize) {
            isOther_ = true;
            return false;
        }
        const Transfer& next = transfers_[done_++];
        taken_ = std::max<std::size_t>(next.transferred, 2) - 2;
        isCut_ = next.result < 0;
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
            std::copy_n(data + done, taken_, image.begin() + start);
            if (!succeeded) {
                if (isCut_ && taken_ > 0) // a torn byte, the last one that changes
                    image[start + taken_ - 1] = actual_[start + taken_ - 1];
                return spoil(start + static_cast<std::uint32_t>(taken_));
            }
        }
        return true;
    }
    // A write was broken off before `address`, perhaps by a reset. False, as the result of it.
    bool spoil(std::uint32_t address) {
        std::uint8_t& byte = image[address % chipSize];
        if (wasReset_ && actual_[address % chipSize] == 0xff && byte != 0xff) {
            lose(recovery);
            byte = 0xff;
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
        repairFailed_ = false;
        if (!copies[0] && !copies[1])
            return std::nullopt;
        if (!copies[0]) {
            if (encodeHeader(*copies[1]) != newest_)
                lose("older state in copy 1");
            writeHeader(0, *copies[1]);
        } else if (!copies[1]) {
            repairFailed_ = !writeHeader(1, *copies[0]);
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
    std::size_t taken_ = 0; // data bytes of the last one, a write, that the chip has stored
    bool isCut_ = false;    // by the end of the power
    bool isOther_ = false;  // one was another than it must be, or missing
    bool wasReset_ = false;
    bool repairFailed_ = false; // that of copy 1, in the last reading of the headers
    framEmulator::Image before_{}, actual_{};
    const char* loss_ = nullptr;
    bool faultless_ = false;
    std::array<std::uint8_t, headerSize> newest_{}; // copy 0 when it was last whole
};

} // namespace testSupport
