#include "framEmulator/framDevice.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <linux/i2c-dev.h>
#include <poll.h>
#include <stdexcept>
#include <sys/eventfd.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

#define FUSE_USE_VERSION 35 // NOLINT(cppcoreguidelines-macro-usage): read by the header below
#include <fuse_lowlevel.h>

#include "framEmulator/failure.h"

namespace framEmulator {

namespace {

constexpr std::size_t maxTransfer = 8192; // bytes that the bus device moves per call
constexpr std::uintptr_t maxSlaveAddress = 0x7F;
constexpr long nanosecondsPerSecond = 1000000000;

// Absolute time on the monotonic clock at which a transfer that starts now leaves the bus.
class WireTime {
public:
    explicit WireTime(std::uint32_t clockHz) : clockHz_(clockHz) {
        clock_gettime(CLOCK_MONOTONIC, &start_);
    }

    // Sleeps for the time of the start, the slave address, `bytes` bytes with their acknowledge
    // bits, and the stop.
    void sleepFor(std::size_t bytes) const {
        if (clockHz_ == 0)
            return;
        const std::uint64_t clocks = 1 + 9 * (1 + static_cast<std::uint64_t>(bytes)) + 1;
        const std::uint64_t duration = clocks * nanosecondsPerSecond / clockHz_;
        timespec end = start_;
        end.tv_sec += static_cast<std::time_t>(duration / nanosecondsPerSecond);
        end.tv_nsec += static_cast<long>(duration % nanosecondsPerSecond);
        if (end.tv_nsec >= nanosecondsPerSecond) {
            end.tv_nsec -= nanosecondsPerSecond;
            ++end.tv_sec;
        }
        while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &end, nullptr) == EINTR) {
        }
    }

private:
    std::uint32_t clockHz_;
    timespec start_{};
};

// The program's other threads handle signals; the serving thread inherits this mask.
class AllSignalsBlocked {
public:
    AllSignalsBlocked() {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &before_);
    }
    AllSignalsBlocked(const AllSignalsBlocked&) = delete;
    AllSignalsBlocked& operator=(const AllSignalsBlocked&) = delete;
    ~AllSignalsBlocked() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }

private:
    sigset_t before_{};
};

// The library allocates and reuses the memory of the buffer it receives into.
struct ReceiveBuffer {
    ReceiveBuffer() = default;
    ReceiveBuffer(const ReceiveBuffer&) = delete;
    ReceiveBuffer& operator=(const ReceiveBuffer&) = delete;
    ~ReceiveBuffer() { std::free(value.mem); }

    fuse_buf value{};
};

// The library may replace the argument vector by one of its own, which must then be freed.
struct MountArguments {
    MountArguments() = default;
    MountArguments(const MountArguments&) = delete;
    MountArguments& operator=(const MountArguments&) = delete;
    ~MountArguments() { fuse_opt_free_args(&value); }

    char name[13] = "framEmulator";
    char options[32] = "-oallow_other,fsname=fram";
    char* vector[3] = {name, options, nullptr};
    fuse_args value{2, vector, 0};
};

struct stat fileAttributes(fuse_ino_t inode) {
    struct stat attributes {};
    attributes.st_ino = inode;
    attributes.st_mode = S_IFREG | 0666;
    attributes.st_nlink = 1;
    return attributes;
}

// The file of a killed server stays mounted and answers ENOTCONN. Unmounts it; true if there was
// one, and the mount point beneath it is a plain empty file.
bool removeDeadMount(const std::string& path) {
    struct stat attributes {};
    return stat(path.c_str(), &attributes) != 0 && errno == ENOTCONN &&
           umount2(path.c_str(), MNT_DETACH) == 0 && stat(path.c_str(), &attributes) == 0 &&
           S_ISREG(attributes.st_mode) && attributes.st_size == 0;
}

} // namespace

struct FramDevice::Operations {
    static FramDevice& device(fuse_req_t request) {
        return *static_cast<FramDevice*>(fuse_req_userdata(request));
    }

    static void getAttributes(fuse_req_t request, fuse_ino_t inode, fuse_file_info*) {
        const struct stat attributes = fileAttributes(inode);
        fuse_reply_attr(request, &attributes, 0.0);
    }

    // Truncation, for example, is as harmless as on a device node.
    static void setAttributes(fuse_req_t request, fuse_ino_t inode, struct stat*, int,
                              fuse_file_info* file) {
        getAttributes(request, inode, file);
    }

    static void open(fuse_req_t request, fuse_ino_t, fuse_file_info* file) {
        FramDevice& self = device(request);
        if (const int refusal = self.chip_.openRefusal(); refusal != 0) {
            fuse_reply_err(request, refusal);
            return;
        }
        file->fh = self.chip_.newOpener();
        file->direct_io = 1; // one request per call, nothing cached
        file->nonseekable = 1;
        file->noflush = 1; // a close never waits, not even one at the exit of our own process
        self.selectedSlaves_[file->fh] = 0;
        if (fuse_reply_open(request, file) != 0)
            self.selectedSlaves_.erase(file->fh); // the client has left; no release will come
    }

    static void release(fuse_req_t request, fuse_ino_t, fuse_file_info* file) {
        device(request).selectedSlaves_.erase(file->fh);
        fuse_reply_err(request, 0);
    }

    static void ioctl(fuse_req_t request, fuse_ino_t, unsigned int command, void* argument,
                      fuse_file_info* file, unsigned int, const void*, std::size_t, std::size_t) {
        const auto address = reinterpret_cast<std::uintptr_t>(argument); // passed by value
        if (command != I2C_SLAVE) {
            fuse_reply_err(request, ENOTTY);
        } else if (address > maxSlaveAddress) {
            fuse_reply_err(request, EINVAL);
        } else {
            device(request).selectedSlaves_[file->fh] = static_cast<std::uint8_t>(address);
            fuse_reply_ioctl(request, 0, nullptr, 0);
        }
    }

    static void read(fuse_req_t request, fuse_ino_t, std::size_t size, off_t,
                     fuse_file_info* file) {
        std::array<std::uint8_t, maxTransfer> data{};
        const Transfer done = device(request).transfer(file->fh, TransferKind::read, data.data(),
                                                       std::min(size, maxTransfer));
        if (done.result < 0)
            fuse_reply_err(request, -done.result);
        else
            fuse_reply_buf(request, reinterpret_cast<const char*>(data.data()), done.transferred);
    }

    static void write(fuse_req_t request, fuse_ino_t, const char* bytes, std::size_t size, off_t,
                      fuse_file_info* file) {
        std::array<std::uint8_t, maxTransfer> data{};
        const std::size_t length = std::min(size, maxTransfer);
        std::copy_n(bytes, length, data.begin());
        const Transfer done =
            device(request).transfer(file->fh, TransferKind::write, data.data(), length);
        if (done.result < 0)
            fuse_reply_err(request, -done.result);
        else
            fuse_reply_write(request, done.transferred);
    }

    static fuse_lowlevel_ops table() {
        fuse_lowlevel_ops operations{};
        operations.getattr = getAttributes;
        operations.setattr = setAttributes;
        operations.open = open;
        operations.release = release;
        operations.ioctl = ioctl;
        operations.read = read;
        operations.write = write;
        return operations;
    }
};

FramDevice::MountPoint::MountPoint(const std::string& path) {
    created_ = removeDeadMount(path);
    const qwk::FileDescriptor created(
        open(path.c_str(), O_RDONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (!created.isOpen() && errno != EEXIST)
        failWithErrno("Cannot create the mount point " + path);
    created_ = created_ || created.isOpen();
    path_ = std::filesystem::canonical(path).string();
    if (!std::filesystem::is_regular_file(path_))
        throw std::runtime_error("The mount point " + path_ + " is not a regular file");
}

FramDevice::MountPoint::~MountPoint() {
    if (created_)
        static_cast<void>(unlink(path_.c_str()));
}

void FramDevice::SessionEnd::operator()(fuse_session* session) const noexcept {
    if (!mountedAt.empty()) {
        // A forced unmount also fails the pending calls of clients. If it is not permitted, the
        // library's unmount below detaches the file as soon as it has closed the connection.
        static_cast<void>(umount2(mountedAt.c_str(), MNT_FORCE | MNT_DETACH));
        fuse_session_unmount(session);
    }
    fuse_session_destroy(session);
}

FramDevice::FramDevice(const std::string& path, FramChip& chip, DeviceOptions options)
    : chip_(chip), options_(std::move(options)), mountPoint_(path),
      stopEvent_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (!stopEvent_.isOpen())
        failWithErrno("Cannot create an event descriptor");
    mount();
    const AllSignalsBlocked inheritedByThread;
    thread_ = std::thread(&FramDevice::serve, this);
}

FramDevice::~FramDevice() {
    stop();
    wait();
}

void FramDevice::stop() noexcept {
    const int errnoBefore = errno;
    static_cast<void>(eventfd_write(stopEvent_.get(), 1));
    errno = errnoBefore;
}

void FramDevice::wait() {
    if (thread_.joinable())
        thread_.join();
}

void FramDevice::mount() {
    if (access("/dev/fuse", R_OK | W_OK) != 0)
        failWithErrno("Cannot use /dev/fuse, which the stand-in chip needs");
    MountArguments arguments;
    const fuse_lowlevel_ops operations = Operations::table();
    session_.reset(fuse_session_new(&arguments.value, &operations, sizeof operations, this));
    if (!session_)
        throw std::runtime_error("Cannot create a FUSE session");
    if (fuse_session_mount(session_.get(), mountPoint_.path().c_str()) != 0)
        throw std::runtime_error("Cannot mount a FUSE file over " + mountPoint_.path());
    session_.get_deleter().mountedAt = mountPoint_.path();

    // A request that its client withdraws between poll() and read() must not block us.
    const int connection = fuse_session_fd(session_.get());
    if (fcntl(connection, F_SETFD, FD_CLOEXEC) != 0 || fcntl(connection, F_SETFL, O_NONBLOCK) != 0)
        failWithErrno("Cannot set up the FUSE connection");
}

void FramDevice::serve() {
    ReceiveBuffer buffer;
    pollfd sources[] = {{fuse_session_fd(session_.get()), POLLIN, 0},
                        {stopEvent_.get(), POLLIN, 0}};
    while (fuse_session_exited(session_.get()) == 0) {
        if (poll(sources, std::size(sources), -1) < 0)
            continue; // EINTR is the only failure left: both descriptors are ours
        if (sources[1].revents != 0)
            return;
        const int received = fuse_session_receive_buf(session_.get(), &buffer.value);
        if (received > 0)
            fuse_session_process_buf(session_.get(), &buffer.value);
        else if (received != -EINTR && received != -EAGAIN)
            return; // unmounted by another process
    }
}

Transfer FramDevice::transfer(std::uint64_t opener, TransferKind kind, std::uint8_t* data,
                              std::size_t length) {
    const WireTime wireTime(options_.clockHz);
    Transfer done;
    if (selectedSlaves_[opener] != options_.slaveAddress)
        done = transferToNobody(opener, kind, length);
    else if (kind == TransferKind::read)
        done = chip_.read(data, length, opener);
    else
        done = chip_.write(data, length, opener);
    wireTime.sleepFor(done.transferred);
    if (options_.onTransfer)
        options_.onTransfer(done);
    return done;
}

Transfer FramDevice::transferToNobody(std::uint64_t opener, TransferKind kind,
                                      std::size_t length) const {
    Transfer unanswered;
    unanswered.kind = kind;
    unanswered.requested = length;
    unanswered.result = -ENXIO;
    unanswered.opener = opener;
    return unanswered;
}

} // namespace framEmulator
