#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <thread>

#include "framEmulator/framChip.h"
#include "support/fileDescriptor.h"
#include "support/paths.h"

struct fuse_session;

namespace framEmulator {

struct DeviceOptions {
    /// 7-bit bus address at which the chip answers.
    std::uint8_t slaveAddress = qwk::eepromSlaveAddress;
    /// Bus clock; each transfer lasts as long as its bits take at this speed. 0: no delay.
    std::uint32_t clockHz = 0;
    /// Called on the serving thread after each transfer, before the client gets its result, also
    /// for transfers to an address without a chip. Must neither throw nor use the device.
    std::function<void(const Transfer&)> onTransfer;
};

/// A file that behaves like an I2C bus device with one chip on the bus, served through FUSE.
///
/// Each read() or write() is one transfer of at most 8192 bytes; like the real device, it cuts off
/// more. Each open of the file selects its own slave by ioctl I2C_SLAVE (EINVAL above 0x7F; other
/// requests: ENOTTY). A transfer with no slave selected or to an address without a chip fails with
/// ENXIO, one that the chip does not answer with EREMOTEIO.
///
/// Clients may be in the process that owns the device, or in its children. An owner that is killed
/// while it waits for a transfer of its own cannot end, because no thread is left to answer: set no
/// clock for such transfers.
class FramDevice {
public:
    /// Mounts the file over `path` and serves it on a thread of its own until stop(). Creates a
    /// missing `path` and removes it in the end; also removes an empty one that a killed server
    /// left mounted. The chip outlives the device. Throws std::system_error or std::runtime_error
    /// with a sentence for the user.
    FramDevice(const std::string& path, FramChip& chip, DeviceOptions options = {});
    FramDevice(const FramDevice&) = delete;
    FramDevice& operator=(const FramDevice&) = delete;
    /// Stops and unmounts, even if clients still have the file open; then their calls fail.
    ~FramDevice();

    /// Ends serving. Does not wait; any thread or signal handler may call it.
    void stop() noexcept;
    /// Returns when serving has ended: by stop(), or because another process unmounted the file.
    /// Only the owner's thread may call it.
    void wait();

private:
    struct Operations; // the FUSE handlers, run by thread_

    /// An existing file at an absolute path; removes it in the end if it was created for a mount.
    class MountPoint {
    public:
        explicit MountPoint(const std::string& path);
        MountPoint(const MountPoint&) = delete;
        MountPoint& operator=(const MountPoint&) = delete;
        ~MountPoint();
        const std::string& path() const { return path_; }

    private:
        std::string path_;
        bool created_ = false;
    };

    struct SessionEnd {
        std::string mountedAt; // empty: not mounted
        void operator()(fuse_session* session) const noexcept;
    };

    void mount();
    void serve();
    Transfer transfer(std::uint64_t opener, TransferKind kind, std::uint8_t* data,
                      std::size_t length);
    Transfer transferToNobody(std::uint64_t opener, TransferKind kind, std::size_t length) const;

    // Constant after construction, in the order of the set-up; destruction reverses it.
    FramChip& chip_;
    DeviceOptions options_;
    MountPoint mountPoint_;
    qwk::FileDescriptor stopEvent_;
    std::unique_ptr<fuse_session, SessionEnd> session_;

    // Used by thread_ only.
    std::map<std::uint64_t, std::uint8_t> selectedSlaves_; // by opener; 0 until one is selected

    std::thread thread_;
};

} // namespace framEmulator
