#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <mutex>
#include <string>
#include <syslog.h>
#include <vector>

#include "eeprom/eeprom.h"
#include "framEmulator/framChip.h"
#include "framEmulator/framDevice.h"
#include "support/sandbox.h"
#include "support/syslogCapture.h"

namespace testSupport {

using namespace std::chrono_literals;

struct Line {
    std::uint32_t id;
    std::string message;
    std::int32_t priority = 0; // this and the next do not count in a comparison
    std::uint64_t time = 0;
    bool operator==(const Line& other) const { return id == other.id && message == other.message; }
    friend std::ostream& operator<<(std::ostream& out, const Line& line) {
        return out << '[' << line.id << "] " << line.message;
    }
};

// The log as the FRAM cache sees it: lines that reached the log file, and the recent entries.
class RecordingSink : public qwk::LogSink {
public:
    void nextSequenceNumber(std::uint32_t& next) override { next = nextId; }
    void sink(std::uint32_t id, std::int32_t priority, const std::uint64_t& time,
              const std::string& message) override {
        EXPECT_TRUE(isLocked());
        written.push_back({id, message, priority, time});
    }
    void addToCache(std::uint32_t id, std::int32_t priority, const std::uint64_t& time,
                    const std::string& message) override {
        EXPECT_TRUE(isLocked());
        recent.push_back({id, message, priority, time});
        filled = true;
    }
    void clearCache() override {
        EXPECT_TRUE(isLocked());
        recent.clear();
    }
    bool isCacheFilled() override {
        EXPECT_TRUE(isLocked());
        return filled;
    }
    void lock() override { mutex_.lock(); }
    void unlock() override {
        if (onUnlock)
            onUnlock();
        mutex_.unlock();
    }
    bool isLocked() { return mutex_.try_lock() ? (mutex_.unlock(), false) : true; }

    std::uint32_t nextId = 0; // what the log file would say
    std::function<void()> onUnlock;
    bool filled = false;
    std::vector<Line> written;
    std::vector<Line> recent;

private:
    std::mutex mutex_;
};

// The board's chip at its place, and a cache over it whose every operation opens the device anew.
class Board : public testing::Test {
protected:
    template<typename Operation>
    auto use(Operation operation) {
        const std::unique_ptr<qwk::Eeprom> eeprom(qwk::Eeprom::open(&sink, 0));
        if (!eeprom)
            throw std::runtime_error("the stand-in chip does not open");
        return operation(*eeprom);
    }
    void append(const std::string& message, std::int32_t priority = 6, std::uint64_t time = 0) {
        use([&](qwk::Eeprom& eeprom) { eeprom.append(priority, time, message); });
    }
    int flush() {
        return use([](qwk::Eeprom& eeprom) { return eeprom.flush(); });
    }
    int clear() {
        return use([](qwk::Eeprom& eeprom) { return eeprom.clear(); });
    }
    // A new process would know nothing of the entries in the chip, but for what the load finds.
    void restart() {
        sink.recent.clear();
        sink.filled = false;
    }
    void load() {
        restart();
        use([](qwk::Eeprom&) {});
    }

    std::vector<std::uint8_t> bytes(std::size_t from, std::size_t count) {
        const framEmulator::Image image = chip.image();
        return {image.begin() + static_cast<std::ptrdiff_t>(from),
                image.begin() + static_cast<std::ptrdiff_t>(from + count)};
    }
    void poke(std::size_t at, const std::vector<std::uint8_t>& values) {
        framEmulator::Image image = chip.image();
        std::copy(values.begin(), values.end(), image.begin() + static_cast<std::ptrdiff_t>(at));
        chip.setImage(image);
    }
    // The diagnostics since the last call, with their severity unless they are errors.
    std::vector<std::string> said() {
        std::vector<std::string> texts;
        for (const SyslogMessage& message : syslog.take()) {
            const int severity = message.priority - LOG_DAEMON;
            const std::string prefix = severity == LOG_ERR       ? ""
                                       : severity == LOG_WARNING ? "warning: "
                                       : severity == LOG_INFO    ? "info: "
                                                                 : "unexpected severity: ";
            texts.push_back(prefix + message.text);
        }
        return texts;
    }

    SyslogCapture syslog;
    framEmulator::FramChip chip;
    framEmulator::FramDevice device{"/dev/i2c-2", chip};
    RecordingSink sink;
};

} // namespace testSupport
