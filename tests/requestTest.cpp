// The request line, word by word.

#include <gtest/gtest.h>
#include <string>
#include <tuple>

#include "server/request.h"

using qwk::Action;

TEST(RequestTest, wordsBecomeActionsOrAParseError) {
    const std::tuple<const char*, bool, Action, int> cases[] = {
        {"", false, Action::none, -1},
        {"quillwick", false, Action::none, -1},
        {"./quillwick --clear", false, Action::clear, -1},
        {"quillwick -p", false, Action::dump, -1},
        {"  quillwick   -f  ", false, Action::flush, -1},
        {"-f -f", false, Action::flush, -1}, // the first word is the program's name
        {"quillwick -g 1000", false, Action::deliver, 1000},
        {"quillwick -l -g 0", false, Action::deliver, 0},
        {"quillwick -g  \t+7", false, Action::deliver, 7},
        {"quillwick -g 2147483647", false, Action::deliver, 2147483647},
        {"quillwick -g 2147483648", false, Action::deliver, 2147483647},
        {"quillwick -g 99999999999999999999", false, Action::deliver, 2147483647},
        {"quillwick -g -99999999999999999999", false, Action::none, -2147483647 - 1},
        {"quillwick -g -5", false, Action::none, -5},
        {"quillwick -l", false, Action::none, -1},
        {"quillwick -p -f", false, Action::none, -1},
        {"quillwick -f -g 10", false, Action::none, 10},
        {"quillwick -g", true, Action::none, -1},
        {"quillwick -g ", true, Action::none, -1},
        {"quillwick -g 1000 ", true, Action::none, 1000},
        {"quillwick -g 10x", true, Action::none, 10},
        {"quillwick -g1000", true, Action::none, -1},
        {"quillwick -x", true, Action::none, -1},
        {"quillwick --clear --clear", true, Action::none, -1},
        {"quillwick -x -g 10", true, Action::none, 10},
        {"quillwick\t-f", false, Action::none, -1}, // only blanks part words
    };
    for (const auto& [line, parseError, action, maxsize] : cases) {
        std::string text = line;
        const qwk::Request request = qwk::parseRequest(text.data());
        EXPECT_EQ(request.parseError, parseError) << line;
        EXPECT_EQ(request.maxsize, maxsize) << line;
        if (!parseError)
            EXPECT_EQ(qwk::actionOf(request), action) << line;
    }
}
