#include "framEmulator/framChip.h"

#include <algorithm>

namespace framEmulator {

namespace {

constexpr std::size_t addressBytes = 2;

std::uint16_t wrapped(std::size_t address) {
    return static_cast<std::uint16_t>(address % chipSize);
}

} // namespace

Transfer FramChip::write(const std::uint8_t* data, std::size_t length, std::uint64_t opener) {
    const std::lock_guard lock(mutex_);
    Transfer transfer{TransferKind::write, counter_, length, 0, 0, opener};
    if (length >= addressBytes)
        transfer.address = wrapped(static_cast<std::size_t>(data[0]) << 8 | data[1]);

    Plan plan = planTransfer(length);
    std::uint8_t overwritten = 0;
    for (std::size_t i = 0; i < plan.bytes; ++i) {
        overwritten = memory_[counter_];
        acceptByte(i, data[i]);
    }
    const bool storedAny = plan.bytes > addressBytes;
    if (plan.losesPower && storedAny && powerCut_->torn != TornByte::newValue) {
        memory_[wrapped(counter_ + chipSize - 1)] = tornValue(overwritten);
        plan.result = -EREMOTEIO;
    }

    if (plan.losesPower && powerCut_->isReset && plan.bytes > 0) {
        acceptByte(plan.bytes, 0xFF);
        plan.result = -EREMOTEIO;
    }

    finish(transfer, plan);
    return transfer;
}

Transfer FramChip::read(std::uint8_t* data, std::size_t length, std::uint64_t opener) {
    const std::lock_guard lock(mutex_);
    Transfer transfer{TransferKind::read, counter_, length, 0, 0, opener};
    const Plan plan = planTransfer(length);
    for (std::size_t i = 0; i < plan.bytes; ++i) {
        data[i] = memory_[counter_];
        counter_ = wrapped(counter_ + 1U);
    }
    finish(transfer, plan);
    return transfer;
}

FramChip::Plan FramChip::planTransfer(std::size_t length) {
    const std::uint64_t number = ++transfersEver_;
    if (!answers(number))
        return {0, -EREMOTEIO, false};
    Plan plan{length, 0, false};
    if (const auto cut = cuts_.find(number); cut != cuts_.end())
        plan.bytes = std::min(plan.bytes, cut->second);
    plan.result = static_cast<int>(plan.bytes);
    if (powerCut_)
        limitByPower(plan);
    return plan;
}

bool FramChip::answers(std::uint64_t number) const {
    return powered_ && failures_.count(number) == 0 && (!failFrom_ || number < *failFrom_);
}

void FramChip::limitByPower(Plan& plan) {
    if (plan.bytes > powerCut_->bytesLeft) {
        plan.bytes = static_cast<std::size_t>(powerCut_->bytesLeft);
        plan.result = -EREMOTEIO;
    }
    powerCut_->bytesLeft -= plan.bytes;
    plan.losesPower = powerCut_->bytesLeft == 0;
}

void FramChip::acceptByte(std::size_t index, std::uint8_t value) {
    if (index == 0) {
        counter_ = wrapped(static_cast<std::size_t>(value) << 8 | (counter_ & 0xFFU));
    } else if (index == 1) {
        counter_ = wrapped((counter_ & 0xFF00U) | value);
    } else {
        memory_[counter_] = value;
        counter_ = wrapped(counter_ + 1U);
    }
}

std::uint8_t FramChip::tornValue(std::uint8_t overwritten) {
    return powerCut_->torn == TornByte::oldValue
               ? overwritten
               : static_cast<std::uint8_t>(powerCut_->random() & 0xFFU);
}

void FramChip::finish(Transfer& transfer, const Plan& plan) {
    if (plan.losesPower) {
        powered_ = false;
        powerCut_.reset();
    }
    transfer.transferred = plan.bytes;
    transfer.result = plan.result;
    transfer.end = std::chrono::steady_clock::now();
    ++transferCount_;
    wireBytes_ += plan.bytes;
    if (recording_)
        record_.push_back(transfer);
}

Image FramChip::image() const {
    const std::lock_guard lock(mutex_);
    return memory_;
}

void FramChip::setImage(const Image& image) {
    const std::lock_guard lock(mutex_);
    memory_ = image;
}

void FramChip::failTransfer(std::uint64_t number) {
    const std::lock_guard lock(mutex_);
    failures_.insert(transfersEver_ + number);
}

void FramChip::failFrom(std::uint64_t number) {
    const std::lock_guard lock(mutex_);
    failFrom_ = transfersEver_ + number;
}

void FramChip::cutTransfer(std::uint64_t number, std::size_t bytes) {
    const std::lock_guard lock(mutex_);
    cuts_[transfersEver_ + number] = bytes;
}

void FramChip::cutPowerAfter(std::uint64_t bytes, TornByte torn, std::uint32_t seed) {
    const std::lock_guard lock(mutex_);
    if (bytes == 0)
        powered_ = false;
    else
        powerCut_ = PowerCut{false, bytes, torn, std::mt19937(seed)};
}

void FramChip::resetMasterAfter(uint64_t bytes) {
    cutPowerAfter(bytes);
    const std::lock_guard lock(mutex_);
    if (powerCut_)
        powerCut_->isReset = true;
}

void FramChip::powerOn() {
    const std::lock_guard lock(mutex_);
    if (!powered_)
        counter_ = 0;
    powered_ = true;
    powerCut_.reset();
}

bool FramChip::isPowered() const {
    const std::lock_guard lock(mutex_);
    return powered_;
}

void FramChip::refuseOpens(int error) {
    openRefusal_ = error;
}

void FramChip::clearFaults() {
    const std::lock_guard lock(mutex_);
    failures_.clear();
    failFrom_.reset();
    cuts_.clear();
    powerCut_.reset();
    openRefusal_ = 0;
}

void FramChip::setRecording(bool on) {
    const std::lock_guard lock(mutex_);
    recording_ = on;
}

std::vector<Transfer> FramChip::record() const {
    const std::lock_guard lock(mutex_);
    return record_;
}

void FramChip::clearRecord() {
    const std::lock_guard lock(mutex_);
    record_.clear();
    transferCount_ = 0;
    wireBytes_ = 0;
}

std::uint64_t FramChip::transferCount() const {
    const std::lock_guard lock(mutex_);
    return transferCount_;
}

std::uint64_t FramChip::wireBytes() const {
    const std::lock_guard lock(mutex_);
    return wireBytes_;
}

} // namespace framEmulator
