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
    /// Bus clock; each transfer lasts as long as its bits do at that speed. 0: no delay.
    std::uint32_t clockHz = 0;
    /// Called on the serving thread after each transfer, before its result reaches the client, also
    /// for transfers to an address without a chip. Must not throw and not use the device.
    std::function<void(const Transfer&)> onTransfer;
};

/// A file that behaves like an I2C bus device with one chip on the bus, served through FUSE.
///
/// Each read() or write() is one transfer of at most 8192 bytes; more are cut off, as the real
/// device does. Each open of the file selects its own slave by ioctl I2C_SLAVE (EINVAL above 0x7F;
/// other requests: ENOTTY). A transfer with no slave selected or to an address without a chip fails
/// with ENXIO, one that the chip does not answer with EREMOTEIO.
///
/// Clients may live in the process that owns the device, or in children of it. An owner that is
/// killed while it waits for a transfer of its own cannot end, as nobody is left to answer: give
/// such transfers no clock.
class FramDevice {
public:
    /// Mounts the file over `path` and serves it on a thread of its own until stop(). A missing
    /// `path` is created, and removed in the end; so is an empty one left mounted by a server that
    /// was killed. The chip outlives the device. Throws std::system_error or std::runtime_error
    /// with a sentence for the user.
    FramDevice(const std::string& path, FramChip& chip, DeviceOptions options = {});
    FramDevice(const FramDevice&) = delete;
    FramDevice& operator=(const FramDevice&) = delete;
    /// Stops and unmounts even if clients still have the file open; their calls fail from then on.
    ~FramDevice();

    /// Ends serving. Does not wait; may be called from any thread and from a signal handler.
    void stop() noexcept;
    /// Returns when serving has ended: by stop(), or because somebody unmounted the file. To be
    /// called by the owner's thread only.
    void wait();

private:
    struct Operations; // the FUSE handlers, run by thread_

    /// An existing file at an absolute path, removed in the end if it was created for such a mount.
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

    // Constant after construction. The order is that of the set-up; destruction reverses it.
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
