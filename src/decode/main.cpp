// quillwick-decode: prints the entries in the image of a chip, without the daemon or the chip.

#include <cstdio>
#include <cstring>
#include <optional>
#include <string>
#include <unistd.h>

#include "decode/entryText.h"
#include "decode/imageFile.h"
#include "decode/imageReader.h"

namespace {

using namespace qwk::decode;

enum Status { intact = 0, damaged = 1, failed = 2 };

struct Options {
    std::string path;
    bool damage = false;
    bool help = false;
    qwk::TimeZone zone = qwk::TimeZone::local;
};

void printUsage(std::FILE* out) {
    std::fputs("Usage: quillwick-decode [--damage] [--utc] FILE|-\n"
               "\n"
               "       Print the log entries in the image of a FRAM chip. FILE has the\n"
               "       8192 bytes of the chip, the lines of \"quillwick -p\", or the text of\n"
               "       \"i2ctransfer -y 2 w2@0x50 0 0 r8192\"; - is standard input.\n"
               "\n"
               "       --damage  Print also what an older header copy tells, and what\n"
               "                 earlier flushes left in the chip.\n"
               "       --utc     Print times in UTC instead of the local time zone.\n"
               "       --help    Print this message to stdout.\n"
               "\n"
               "       The status is 0 for an intact image, 1 for a damaged one, and 2\n"
               "       when nothing could be read.\n",
               out);
}

// Nothing when the arguments are wrong.
std::optional<Options> parseArguments(int argc, char** argv) {
    Options options;
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        if (argument == "--damage")
            options.damage = true;
        else if (argument == "--utc")
            options.zone = qwk::TimeZone::utc;
        else if (argument == "--help" || argument == "-h")
            options.help = true;
        else if (argument.empty() || (argument[0] == '-' && argument != "-") ||
                 !options.path.empty())
            return std::nullopt;
        else
            options.path = argument;
    }
    if (options.path.empty() && !options.help)
        return std::nullopt;
    return options;
}

void complain(const Options& options, const std::string& sentence) {
    std::fprintf(stderr, "quillwick-decode: %s: %s\n", options.path.c_str(), sentence.c_str());
}

// False when standard output takes no more.
bool print(const Contents& contents, const Options& options) {
    std::string text = entriesText(contents.entries, options.zone);
    if (options.damage)
        text += sectionsText(contents.remains, options.zone);
    if (isatty(STDOUT_FILENO) != 0)
        text = harmless(text);
    return std::fwrite(text.data(), 1, text.size(), stdout) == text.size() &&
           std::fflush(stdout) == 0;
}

Status statusOf(const Contents& contents) {
    if (contents.damage.empty())
        return intact;
    return contents.entries.empty() && !contents.isEmptyCache ? failed : damaged;
}

Status decodeImage(const Options& options) {
    std::string error;
    const auto image = readImageFile(options.path, error);
    if (!image) {
        complain(options, error);
        return failed;
    }
    const Contents contents = readContents(*image);
    if (!print(contents, options)) {
        complain(options, "Standard output takes no more.");
        return failed;
    }
    for (const std::string& sentence : contents.damage)
        complain(options, sentence);
    if (contents.isEmptyCache && !options.damage)
        complain(options, contents.note);
    return statusOf(contents);
}

} // namespace

int main(int argc, char** argv) {
    const auto options = parseArguments(argc, argv);
    if (!options) {
        printUsage(stderr);
        return failed;
    }
    if (options->help) {
        printUsage(stdout);
        return intact;
    }
    return decodeImage(*options);
}
