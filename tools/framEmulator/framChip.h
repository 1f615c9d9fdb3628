#pragma once

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <random>
#include <set>
#include <vector>

namespace framEmulator {

constexpr std::size_t chipSize = 8192; // bytes

using Image = std::array<std::uint8_t, chipSize>;

enum class TransferKind { read, write };

struct Transfer {
    TransferKind kind = TransferKind::read;
    /// Where the data starts: the address a write names, or the address counter if the transfer is
    /// a read or a write of fewer than two bytes.
    std::uint16_t address = 0;
    std::size_t requested = 0;   ///< bytes, a write's two address bytes included
    std::size_t transferred = 0; ///< bytes that took effect, even if the transfer failed in the end
    int result = 0;              ///< seen by the bus master: transferred bytes or a negative errno
    std::uint64_t opener = 0;    ///< as given by the caller, see FramChip::newOpener()
    std::chrono::steady_clock::time_point end{};
};

/// The value of the last stored byte when power was lost while it was written.
enum class TornByte { newValue, oldValue, randomBits };

/// An 8 KiB FRAM chip as its bus shows it, with faults on demand.
///
/// The chip has one address counter for all of its users. Any thread may call any member; transfers
/// do not overlap.
///
/// A chip that does not answer fails the transfer with -EREMOTEIO, stores nothing and keeps its
/// counter. Such a transfer is still counted.
class FramChip {
public:
    /// A powered chip with memory of its own, in which all bytes are zero.
    FramChip() : FramChip(ownMemory_) {}
    /// A powered chip with its bytes in `memory`, which outlives it.
    explicit FramChip(Image& memory) : memory_(memory) {}

    /// The first byte sets the upper and the second the lower half of the address counter (modulo
    /// the chip's size); further bytes are stored from there on. A lone byte sets the upper half.
    Transfer write(const std::uint8_t* data, std::size_t length, std::uint64_t opener = 0);
    /// Fills `data` from the address counter on; sets only `transferred` bytes of it.
    Transfer read(std::uint8_t* data, std::size_t length, std::uint64_t opener = 0);

    /// The memory itself, without the bus: no fault applies and nothing is counted.
    Image image() const;
    void setImage(const Image& image);

    // Transfers are numbered from 1: the next one after the call that sets the fault.

    /// The chip does not answer this transfer. Can be called for several.
    void failTransfer(std::uint64_t number);
    /// The chip answers neither this transfer nor any later one, until clearFaults().
    void failFrom(std::uint64_t number);
    /// The chip takes or gives at most `bytes` bytes of this transfer, which succeeds with these.
    void cutTransfer(std::uint64_t number, std::size_t bytes);
    /// Power is lost after `bytes` more bytes on the wire, read or written, a write's address bytes
    /// included; 0 means at once. A transfer that ends with the last such byte still succeeds,
    /// unless that byte was stored torn; otherwise it fails, as all do until powerOn().
    void cutPowerAfter(std::uint64_t bytes, TornByte torn = TornByte::newValue,
                       std::uint32_t seed = 1);
    /// The bus master is reset after `bytes` more bytes on the wire, while the chip keeps its
    /// supply, and then recovers the bus by clock pulses. The transfer in which these bytes end,
    /// also at its last byte, gets no stop condition: it fails, and a write takes one more byte,
    /// 0xFF. All transfers fail from then on, until powerOn(). 0 means at once, between two
    /// transfers.
    void resetMasterAfter(std::uint64_t bytes);
    /// Ends a power cut or reset, or disarms a coming one; after a cut the address counter is 0.
    void powerOn();
    bool isPowered() const;
    /// Every open of the device fails with `error`; 0 lets them succeed again.
    void refuseOpens(int error = ENXIO);
    /// Removes all faults; power that is already lost stays lost.
    void clearFaults();

    /// 0, or the errno with which opens are refused.
    int openRefusal() const { return openRefusal_; }
    /// A number that no other opener of this chip has; never 0.
    std::uint64_t newOpener() { return ++openers_; }

    /// Whether transfers are added to the record, which has no bound; on at first.
    void setRecording(bool on);
    std::vector<Transfer> record() const;
    /// Also sets the two counters to 0; the numbering of faults does not change.
    void clearRecord();
    std::uint64_t transferCount() const;
    /// Bytes on the wire that took effect, a write's address bytes included.
    std::uint64_t wireBytes() const;

private:
    struct PowerCut {
        bool isReset; // of the master; the chip keeps its supply
        std::uint64_t bytesLeft;
        TornByte torn;
        std::mt19937 random;
    };
    struct Plan {
        std::size_t bytes; // that take effect
        int result;        // unless the last byte is torn
        bool losesPower;   // right after these bytes
    };

    // All of these need mutex_ held.
    Plan planTransfer(std::size_t length);
    bool answers(std::uint64_t number) const;
    void limitByPower(Plan& plan);
    void acceptByte(std::size_t index, std::uint8_t value);
    std::uint8_t tornValue(std::uint8_t overwritten);
    void finish(Transfer& transfer, const Plan& plan);

    Image ownMemory_{};
    std::atomic<int> openRefusal_{0};
    std::atomic<std::uint64_t> openers_{0};

    mutable std::mutex mutex_;
    // Guarded by mutex_.
    Image& memory_;
    std::uint16_t counter_ = 0; // below chipSize
    bool powered_ = true;
    std::uint64_t transfersEver_ = 0;
    // By transfer number since the start: the bytes that it may carry, and those that fail.
    std::map<std::uint64_t, std::size_t> cuts_;
    std::set<std::uint64_t> failures_;
    std::optional<std::uint64_t> failFrom_;
    std::optional<PowerCut> powerCut_;
    bool recording_ = true;
    std::vector<Transfer> record_;
    std::uint64_t transferCount_ = 0;
    std::uint64_t wireBytes_ = 0;
};

} // namespace framEmulator
