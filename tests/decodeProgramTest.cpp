// quillwick-decode next to the daemon whose chip it reads.

#include "support/daemon.h"

using namespace testSupport;

using DecodeProgramTest = System;

TEST_F(DecodeProgramTest, printsWhatTheRestartedDaemonHasRead) {
    const auto decode = [](const std::string& input, const std::vector<std::string>& options) {
        std::vector<std::string> arguments = options;
        arguments.emplace_back("-");
        return run(buildPath("quillwick-decode"), arguments, input);
    };
    const auto rawImage = [this] {
        const framEmulator::Image image = chip.image();
        return std::string(image.begin(), image.end());
    };
    {
        Daemon daemon;
        log({"first", "of\nthree\n\nlines", "ends\n", "long " + std::string(300, 'x'),
             "escape \x1b[0m", "ends, too\n"});
        ASSERT_TRUE(arrives("ends, too"));
        EXPECT_EQ(daemon.end(), 0);
    }
    writeFile("/etc/quillwick.conf", "log4cplus.loglevel=1\n"); // the journal's entries come once
    Daemon daemon;
    const std::string dump = client({"-p"});
    const std::string lines = client({"-g", "100000"});
    EXPECT_NE(lines.find("first\n"), std::string::npos);
    for (const std::string& input : {dump, rawImage()}) {
        const RunResult result = decode(input, {});
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(result.output, lines);
    }
    client({"-f"});
    const RunResult flushed = decode(rawImage(), {"--damage"});
    EXPECT_EQ(flushed.status, 0);
    EXPECT_NE(flushed.output.find("(00000000)"), std::string::npos);

    std::string damaged = rawImage();
    damaged[0] = 'x';
    const std::tuple<std::string, std::vector<std::string>, int, const char*> cases[] = {
        {rawImage(), {}, 0, "The cache is empty"},
        {damaged, {}, 1, "Header copy 0 is damaged; copy 1 counts."},
        {std::string(8192, 'U'), {}, 2, "Every byte is 0x55"},
        {std::string(4096, '\0'), {}, 2, "The file has 4096 bytes"},
        {"", {"/missing"}, 2, "Usage"},
        {"", {"--unknown"}, 2, "Usage"},
        {"", {"--help"}, 0, "Usage"}};
    for (const auto& [input, options, status, text] : cases) {
        const RunResult result = decode(input, options);
        EXPECT_EQ(result.status, status) << text;
        EXPECT_NE(result.output.find(text), std::string::npos) << result.output;
    }
}
