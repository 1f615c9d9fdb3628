#include "main/singleInstance.h"

#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <memory>
#include <string>

#include "support/fileDescriptor.h"

namespace qwk {

namespace {

struct CloseDirectory {
    void operator()(DIR* directory) const { closedir(directory); }
};

bool isProcessId(const char* name) {
    char* end = nullptr;
    static_cast<void>(std::strtol(name, &end, 10));
    return *end == '\0';
}

// The command line of a daemon is only the program's name; that of a client has arguments. A zero
// byte ends each argument.
bool isDaemon(const char* processId) {
    const std::string path = std::string("/proc/") + processId + "/cmdline";
    const FileDescriptor file = openForReading(path.c_str());
    if (!file.isOpen())
        return false;
    char arguments[256] = {};
    const ssize_t length = readSome(file.get(), arguments, sizeof arguments - 1);
    if (length < 1)
        return false;
    const char* slash = std::strrchr(arguments, '/');
    const char* baseName = slash != nullptr ? slash + 1 : arguments;
    int ends = 0;
    for (ssize_t i = 0; i < length; ++i)
        ends += arguments[i] == '\0' ? 1 : 0;
    return std::strcmp(baseName, "quillwick") == 0 && ends == 1;
}

} // namespace

bool isDaemonRunning() {
    const std::unique_ptr<DIR, CloseDirectory> directory(opendir("/proc"));
    if (!directory)
        return false;
    int daemons = 0;
    while (const dirent* entry = readdir(directory.get()))
        daemons += isProcessId(entry->d_name) && isDaemon(entry->d_name) ? 1 : 0;
    return daemons > 1;
}

} // namespace qwk
