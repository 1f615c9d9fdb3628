#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fcntl.h>
#include <getopt.h>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "framEmulator/failure.h"
#include "framEmulator/framChip.h"
#include "framEmulator/framDevice.h"
#include "support/fileDescriptor.h"

namespace {

using namespace framEmulator;
using qwk::FileDescriptor;

constexpr const char* usageText =
    "Usage: fram-emulator [OPTION]... DEVICE\n"
    "Serves an emulated 8 KiB FRAM chip on an I2C bus as the file DEVICE until SIGTERM,\n"
    "SIGINT or SIGHUP.\n"
    "\n"
    "  --image FILE    keep the chip's bytes in FILE, created if missing (default: memory)\n"
    "  --address ADDR  7-bit bus address of the chip (default: the board's)\n"
    "  --clock HZ      let transfers take their time at that bus clock (default: no delay)\n"
    "  --trace FILE    write one line per transfer to FILE: seconds since the start,\n"
    "                  R or W, address, bytes requested, bytes transferred, result\n"
    "  --help          show this text\n";

struct Settings {
    std::string device;
    std::string image; // empty: none
    std::string trace; // empty: none
    DeviceOptions deviceOptions;
    bool help = false;
};

struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

unsigned long parseNumber(const char* option, const std::string& text, unsigned long max) {
    char* end = nullptr;
    errno = 0;
    const unsigned long value = std::strtoul(text.c_str(), &end, 0);
    if (text.empty() || text[0] == '-' || *end != '\0' || errno != 0 || value == 0 || value > max) {
        throw UsageError(std::string(option) + " needs a number from 1 to " + std::to_string(max) +
                         ", not \"" + text + "\"");
    }
    return value;
}

Settings parseCommandLine(int argc, char** argv) {
    const option longOptions[] = {
        {"image", required_argument, nullptr, 'i'}, {"address", required_argument, nullptr, 'a'},
        {"clock", required_argument, nullptr, 'c'}, {"trace", required_argument, nullptr, 't'},
        {"help", no_argument, nullptr, 'h'},        {nullptr, 0, nullptr, 0}};
    Settings settings;
    for (int found = 0; (found = getopt_long(argc, argv, "", longOptions, nullptr)) != -1;) {
        switch (found) {
        case 'i':
            settings.image = optarg;
            break;
        case 'a':
            settings.deviceOptions.slaveAddress =
                static_cast<std::uint8_t>(parseNumber("--address", optarg, 0x7F));
            break;
        case 'c':
            settings.deviceOptions.clockHz =
                static_cast<std::uint32_t>(parseNumber("--clock", optarg, 10000000));
            break;
        case 't':
            settings.trace = optarg;
            break;
        case 'h':
            settings.help = true;
            return settings;
        default:
            throw UsageError("Unknown or incomplete option");
        }
    }
    if (optind + 1 != argc)
        throw UsageError("Exactly one DEVICE is needed");
    settings.device = argv[optind];
    return settings;
}

// The chip's memory, mapped so that each stored byte is in the file immediately: it survives even a
// SIGKILL of this process.
class ImageFile {
public:
    explicit ImageFile(const std::string& path) {
        const FileDescriptor file = open(path);
        struct stat attributes {};
        if (fstat(file.get(), &attributes) != 0)
            failWithErrno("Cannot examine the image " + path);
        if (attributes.st_size != static_cast<off_t>(chipSize)) {
            throw std::runtime_error("The image " + path + " has " +
                                     std::to_string(attributes.st_size) + " bytes instead of " +
                                     std::to_string(chipSize));
        }
        mapping_ = mmap(nullptr, chipSize, PROT_READ | PROT_WRITE, MAP_SHARED, file.get(), 0);
        if (mapping_ == MAP_FAILED)
            failWithErrno("Cannot map the image " + path);
    }
    ImageFile(const ImageFile&) = delete;
    ImageFile& operator=(const ImageFile&) = delete;
    ~ImageFile() { munmap(mapping_, chipSize); }

    Image& memory() { return *static_cast<Image*>(mapping_); }

private:
    static FileDescriptor open(const std::string& path) {
        FileDescriptor file(::open(path.c_str(), O_RDWR | O_CLOEXEC));
        if (!file.isOpen() && errno == ENOENT) {
            file =
                FileDescriptor(::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0644));
            if (file.isOpen() && ftruncate(file.get(), static_cast<off_t>(chipSize)) != 0)
                failWithErrno("Cannot extend the new image " + path);
        }
        if (!file.isOpen())
            failWithErrno("Cannot open the image " + path);
        return file;
    }

    void* mapping_ = nullptr;
};

class Trace {
public:
    explicit Trace(const std::string& path) : file_(std::fopen(path.c_str(), "we")) {
        if (!file_)
            failWithErrno("Cannot write the trace " + path);
    }

    void operator()(const Transfer& transfer) {
        const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start_;
        std::fprintf(file_.get(), "%.6f %c %04x %zu %zu %s\n", elapsed.count(),
                     transfer.kind == TransferKind::read ? 'R' : 'W', unsigned{transfer.address},
                     transfer.requested, transfer.transferred,
                     transfer.result < 0 ? std::strerror(-transfer.result) : "ok");
        std::fflush(file_.get());
    }

private:
    struct Close {
        void operator()(std::FILE* file) const { std::fclose(file); }
    };
    std::unique_ptr<std::FILE, Close> file_;
    std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

std::atomic<FramDevice*> servedDevice{nullptr};

// While it lives, the signals that end the program stop the device instead. Before that they are
// blocked, so that none can leave the file mounted.
class StopOnSignals {
public:
    static void holdBack() {
        const sigset_t signals = stopSignals();
        pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    }

    explicit StopOnSignals(FramDevice& device) {
        servedDevice = &device;
        struct sigaction action {};
        action.sa_handler = [](int) { servedDevice.load()->stop(); };
        for (const int signal : stopSignalNumbers)
            sigaction(signal, &action, nullptr);
        const sigset_t signals = stopSignals();
        pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
    }
    StopOnSignals(const StopOnSignals&) = delete;
    StopOnSignals& operator=(const StopOnSignals&) = delete;
    ~StopOnSignals() { holdBack(); }

private:
    static constexpr int stopSignalNumbers[] = {SIGINT, SIGTERM, SIGHUP};

    static sigset_t stopSignals() {
        sigset_t signals;
        sigemptyset(&signals);
        for (const int signal : stopSignalNumbers)
            sigaddset(&signals, signal);
        return signals;
    }
};

void serve(const Settings& settings) {
    std::optional<ImageFile> image;
    if (!settings.image.empty())
        image.emplace(settings.image);
    std::optional<Trace> trace;
    DeviceOptions options = settings.deviceOptions;
    if (!settings.trace.empty()) {
        trace.emplace(settings.trace);
        options.onTransfer = [&trace](const Transfer& transfer) { (*trace)(transfer); };
    }
    Image volatileMemory{};
    FramChip chip(image ? image->memory() : volatileMemory);
    chip.setRecording(false);

    StopOnSignals::holdBack();
    FramDevice device(settings.device, chip, options);
    const StopOnSignals stopOnSignals(device);
    std::printf("Serving %s\n", settings.device.c_str());
    std::fflush(stdout);
    device.wait();
}

} // namespace

int main(int argc, char** argv) {
    try {
        const Settings settings = parseCommandLine(argc, argv);
        if (settings.help) {
            std::fputs(usageText, stdout);
            return EXIT_SUCCESS;
        }
        serve(settings);
        return EXIT_SUCCESS;
    } catch (const UsageError& error) {
        std::fprintf(stderr, "fram-emulator: %s\n%s", error.what(), usageText);
        return 2;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "fram-emulator: %s\n", error.what());
        return EXIT_FAILURE;
    }
}
