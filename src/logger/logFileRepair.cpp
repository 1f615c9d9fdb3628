#include "logger/logFileRepair.h"

#include <fcntl.h>
#include <unistd.h>

#include "support/fileDescriptor.h"
#include "support/paths.h"

namespace qwk {

void endTornLine() {
    const FileDescriptor file(
        retryOnInterrupt([] { return ::open(logFilePath, O_RDWR | O_APPEND | O_CLOEXEC); }));
    char last = '\n';
    // If this fails, opening the log file fails, too, and that is reported.
    if (file.isOpen() && ::lseek(file.get(), -1, SEEK_END) >= 0 &&
        readSome(file.get(), &last, 1) == 1 && last != '\n')
        static_cast<void>(!::write(file.get(), "\n", 1));
}

} // namespace qwk
