// The request line, word by word.

#include <gtest/gtest.h>
#include <string>

#include "server/request.h"

using qwk::Action;

TEST(RequestTest, wordsBecomeActionsOrAParseError) {
    struct Case {
        const char* text;
        bool parseError;
        Action action; // without a parse error
        int maxsize = -1;
    };
    const Case cases[] = {
        {"", false, Action::none},
        {"   ", false, Action::none},
        {"quillwick", false, Action::none},
        {"./quillwick --clear", false, Action::clear},
        {"quillwick -p", false, Action::dump},
        {"  quillwick   -f  ", false, Action::flush},
        {"-f -f", false, Action::flush}, // the first word is the program's name
        {"quillwick -g 1000", false, Action::deliver, 1000},
        {"quillwick -l -g 0", false, Action::deliver, 0},
        {"quillwick -g  \t+7", false, Action::deliver, 7},
        {"quillwick -g 2147483647", false, Action::deliver, 2147483647},
        {"quillwick -g 2147483648", false, Action::deliver, 2147483647},
        {"quillwick -g 99999999999999999999", false, Action::deliver, 2147483647},
        {"quillwick -g -99999999999999999999", false, Action::none, -2147483647 - 1},
        {"quillwick -g -5", false, Action::none, -5},
        {"quillwick -l", false, Action::none},
        {"quillwick -p -f", false, Action::none},
        {"quillwick --clear -p", false, Action::none},
        {"quillwick --clear -l", false, Action::none},
        {"quillwick -f -g 10", false, Action::none, 10},
        {"quillwick -g", true, Action::none},
        {"quillwick -g ", true, Action::none},
        {"quillwick -g  ", true, Action::none, 0},
        {"quillwick -g abc", true, Action::none, 0},
        {"quillwick -g 1000 ", true, Action::none, 1000},
        {"quillwick -g 1000 -l", true, Action::none, 1000},
        {"quillwick -g 10x", true, Action::none, 10},
        {"quillwick -g1000", true, Action::none},
        {"quillwick -x", true, Action::none},
        {"quillwick -c", true, Action::none},
        {"quillwick --clear --clear", true, Action::none},
        {"quillwick -x -g 10", true, Action::none, 10},
        {"quillwick\t-f", false, Action::none}, // only blanks part words
    };
    for (const Case& one : cases) {
        std::string text = one.text;
        const qwk::Request request = qwk::parseRequest(text.data());
        EXPECT_EQ(request.parseError, one.parseError) << one.text;
        EXPECT_EQ(request.maxsize, one.maxsize) << one.text;
        if (!one.parseError)
            EXPECT_EQ(qwk::actionOf(request), one.action) << one.text;
    }
}
