#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <syslog.h>
#include <vector>

#include "eeprom/eeprom.h"
#include "framEmulator/framChip.h"
#include "framEmulator/framDevice.h"
#include "support/paths.h"
#include "support/sandbox.h"
#include "support/syslogCapture.h"

namespace testSupport {

using namespace std::chrono_literals;

struct Line {
    std::uint32_t id;
    std::string message;
    std::int32_t priority = 0; ///< this and the next do not count in a comparison
    std::uint64_t time = 0;
    bool operator==(const Line& other) const { return id == other.id && message == other.message; }
    friend std::ostream& operator<<(std::ostream& out, const Line& line) {
        return out << '[' << line.id << "] " << line.message;
    }
};
using Lines = std::vector<Line>;
using File = std::unique_ptr<std::FILE, int (*)(std::FILE*)>;
using Bytes = std::vector<std::uint8_t>;

/// The log as the FRAM cache uses it: lines that reached the log file, and the recent entries.
class RecordingSink : public qwk::LogSink {
public:
    void nextSequenceNumber(std::uint32_t& next) override { next = nextId; }
    void sink(std::uint32_t id, std::int32_t priority, const std::uint64_t& time,
              const std::string& message) override {
        EXPECT_TRUE(isLocked);
        written.push_back({id, message, priority, time});
    }
    void addToCache(std::uint32_t id, std::int32_t priority, const std::uint64_t& time,
                    const std::string& message) override {
        EXPECT_TRUE(isLocked);
        recent.push_back({id, message, priority, time});
        filled = true;
    }
    void clearCache() override {
        EXPECT_TRUE(isLocked);
        recent.clear();
    }
    bool isCacheFilled() override {
        EXPECT_TRUE(isLocked);
        return filled;
    }
    void lock() override {
        mutex_.lock();
        isLocked = true;
    }
    void unlock() override {
        if (onUnlock)
            onUnlock();
        isLocked = false;
        mutex_.unlock();
    }

    std::uint32_t nextId = 0; ///< after the last line of the log file
    std::function<void()> onUnlock;
    bool isLocked = false;
    bool filled = false;
    Lines written;
    Lines recent;

private:
    std::mutex mutex_;
};

/// The board's chip at its place, and a cache over it whose every operation opens the device anew.
template<class Device>
class BoardOver : public testing::Test {
protected:
    qwk::Eeprom openEeprom() {
        return qwk::Eeprom(qwk::eepromDevicePath, qwk::eepromSlaveAddress, &sink);
    }
    void append(const std::string& message) { openEeprom().append(6, 0, message); }
    /// Loads the entries in the chip like a new process.
    void load() {
        sink.recent.clear();
        sink.filled = false;
        openEeprom();
    }

    Bytes bytes(std::size_t from, std::size_t count) {
        const framEmulator::Image image = chip.image();
        return {&image[from], &image[from] + count};
    }
    void poke(std::size_t at, const Bytes& values) {
        framEmulator::Image image = chip.image();
        std::copy(values.begin(), values.end(), &image[at]);
        chip.setImage(image);
    }
    /// The transfers since the last call: w or r, the address, the length with a write's address.
    std::string transfers() {
        std::string all;
        for (const framEmulator::Transfer& transfer : chip.record())
            all += (transfer.kind == framEmulator::TransferKind::write ? " w" : " r") +
                   std::to_string(transfer.address) + ':' + std::to_string(transfer.requested);
        chip.clearRecord();
        return all;
    }

    framEmulator::FramChip chip;
    Device device{qwk::eepromDevicePath, chip};
    RecordingSink sink;
    File devNull{std::fopen("/dev/null", "w"), std::fclose};
};

class Board : public BoardOver<framEmulator::FramDevice> {
protected:
    /// The diagnostics since the last call, each with its severity unless it is an error, and a
    /// bar.
    std::string takeDiagnostics() {
        const std::map<int, std::string> severities = {{LOG_DAEMON | LOG_ERR, ""},
                                                       {LOG_DAEMON | LOG_WARNING, "warning: "},
                                                       {LOG_DAEMON | LOG_INFO, "info: "}};
        std::string all;
        for (const SyslogMessage& message : syslog.take())
            all += severities.at(message.priority) + message.text + '|';
        return all;
    }

    SyslogCapture syslog;
};

} // namespace testSupport
