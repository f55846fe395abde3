#include "common/options.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

namespace mirvok {
namespace {

int flag = 0;

// An exact name behind a longer one, abbreviations, every kind of argument, a flag, a val of the error's own.
const option long_options[] = {{"alphabet", OPTION_NO_ARGUMENT, nullptr, 'B'},
                               {"alpha", OPTION_REQUIRED_ARGUMENT, nullptr, 'A'},
                               {"alpine", OPTION_OPTIONAL_ARGUMENT, nullptr, 300},
                               {"flag", OPTION_NO_ARGUMENT, &flag, 7},
                               {"usage", OPTION_NO_ARGUMENT, nullptr, '?'},
                               {"must", OPTION_REQUIRED_ARGUMENT, &flag, '?'},
                               {nullptr, 0, nullptr, 0}};

// An argument vector as main gets it, and what calls on it answer.
struct command_line {
    std::vector<std::string> texts;
    std::vector<char*> argv;

    explicit command_line(const std::string& words) {
        std::istringstream stream("prog " + words);
        for (std::string word; stream >> word;) {
            texts.push_back(word == "''" ? "" : word);
        }
        for (std::string& text : texts) {
            argv.push_back(text.data());
        }
        argv.push_back(nullptr);
    }

    // One call as "result,optopt,optarg,optind[@longindex]".
    std::string call(const char* optstring, const option* longopts = long_options) {
        const auto show = [](int value) {
            return value > ' ' && value < 0x7F ? std::string(1, static_cast<char>(value))
                                               : std::to_string(value);
        };
        int index = -1;
        optopt = '.';
        const int result =
            getopt_long(static_cast<int>(texts.size()), argv.data(), optstring, longopts, &index);
        return show(result) + ',' + show(optopt) + ',' + (optarg != nullptr ? optarg : "-") + ',' +
               std::to_string(optind) + (index >= 0 ? '@' + std::to_string(index) : "");
    }

    // All calls up to and including the first that answers -1, and the order in which they leave the vector.
    std::string calls(const char* optstring) {
        std::string result;
        for (std::string next; next.rfind("-1", 0) != 0; result += next + ' ') {
            next = call(optstring);
        }
        result += '|';
        for (size_t i = 1; i < texts.size(); ++i) {
            result += ' ' + std::string(*argv[i] != '\0' ? argv[i] : "''");
        }
        return result;
    }
};

struct scan {
    const char* optstring;
    const char* words;
    const char* calls;
    const char* messages;
};

const scan scans[] = {
    {"a:b", "", "-1,.,-,1 |", ""},
    {"a:b", "x -ba 5", "b,b,-,2 a,a,5,4 -1,.,-,3 | -ba 5 x", ""},
    {"a:b", "x -b y -a5 z --  -b w", "b,b,-,3 a,a,5,5 -1,.,-,4 | -b -a5 -- x y z -b w", ""},
    {"a:b", "-a - - '' -b", "a,a,-,3 b,b,-,6 -1,.,-,4 | -a - -b - ''", ""},
    {"a:b", "-a -b -a", "a,a,-b,3 ?,a,-,4 -1,.,-,4 | -a -b -a", "prog: option requires an argument -- a\n"},
    {":a", "-xa -: -a", "?,x,-,1 a,a,-,2 ?,:,-,3 a,a,-,4 -1,.,-,4 | -xa -: -a",
     "prog: invalid option -- x\nprog: invalid option -- :\n"},
    {":a:", "x -a", ":,a,-,3 -1,.,-,2 | -a x", "prog: option requires an argument -- a\n"},
    {"-:a:", "x -a", "1,.,x,2 :,a,-,3 -1,.,-,3 | x -a", "prog: option requires an argument -- a\n"},
    {"a::b", "-a5 -a 6 -ba", "a,a,5,2 a,a,-,3 b,b,-,4 a,a,-,5 -1,.,-,4 | -a5 -a -ba 6", ""},
    {"-b", "x - -b -- y", "1,.,x,2 1,.,-,3 b,b,-,4 -1,.,-,5 | x - -b -- y", ""},
    {"b", "x -\xFF y -b", "?,255,-,3 b,b,-,5 -1,.,-,3 | -\xFF -b x y", "prog: invalid option -- \xFF\n"},
    {"", "x --alpha --alphabet y --alpha=v=w --alphab",
     "A,.,--alphabet,4@1 A,.,v=w,6@1 B,.,-,7@0 -1,.,-,5 | --alpha --alphabet --alpha=v=w --alphab x y", ""},
    {"", "--alpi x --alpine= --alpine=1",
     "300,.,-,2@2 300,.,,4@2 300,.,1,5@2 -1,.,-,4 | --alpi --alpine= --alpine=1 x", ""},
    {"", "--alph=3 y --alphas --alphabet=1 --alpha",
     "?,0,-,2 ?,0,-,4 ?,B,-,5@0 ?,A,-,6@1 -1,.,-,5 | --alph=3 --alphas --alphabet=1 --alpha y",
     "prog: option `--alph=3' is ambiguous\nprog: unrecognised option `--alphas'\n"
     "prog: option `--alphabet' doesn't accept an argument\nprog: option `--alpha' requires an argument\n"},
    {":", "--f --us --us=1 --mu", "0,.,-,2@3 ?,.,-,3@4 ?,?,-,4@4 :,?,-,5@5 -1,.,-,5 | --f --us --us=1 --mu",
     "prog: option `--usage' doesn't accept an argument\nprog: option `--must' requires an argument\n"},
};

TEST(Options, ScanWholeVectors) {
    for (const scan& row : scans) {
        SCOPED_TRACE(std::string(row.optstring) + " on " + row.words);
        command_line line(row.words);
        optreset = 1;
        flag = 0;
        testing::internal::CaptureStderr();
        EXPECT_EQ(line.calls(row.optstring), row.calls);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), row.messages);
        EXPECT_EQ(flag, std::string(row.words).rfind("--f", 0) == 0 ? 7 : 0);
        const int end = optind;
        EXPECT_EQ(line.call(row.optstring), "-1,.,-," + std::to_string(end)) << "the end stays the end";
    }
}

TEST(Options, FollowTheCaller) {
    command_line line("x -ab y z -b -a");
    EXPECT_EQ(line.call("ab"), "a,a,-,2");
    optind = 4;  // passes over the rest of the cluster and y
    EXPECT_EQ(line.call("ab"), "b,b,-,6");
    EXPECT_STREQ(line.argv[3], "x");
    EXPECT_EQ(line.calls("ab"), "a,a,-,7 -1,.,-,5 | -ab y -b -a x z");
    optind = 3;  // back to -b, before the first non-option
    EXPECT_EQ(line.calls("ab"), "b,b,-,4 a,a,-,5 -1,.,-,5 | -ab y -b -a x z");
    optind = 0;
    EXPECT_EQ(line.call("ab"), "a,a,-,1");
    optreset = 1;  // from inside a cluster
    EXPECT_EQ(line.call("ab"), "a,a,-,1");
    EXPECT_EQ(optreset, 0);
    optind = 99;
    EXPECT_EQ(line.call("ab"), "-1,.,-,7");
    opterr = 0;
    optind = 0;
    testing::internal::CaptureStderr();
    EXPECT_EQ(command_line("-x -a -b --f=1 --alpha").calls("a:"),
              "?,x,-,2 a,a,-b,4 ?,7,-,5@3 ?,A,-,6@1 -1,.,-,6 | -x -a -b --f=1 --alpha");
    optreset = 1;
    EXPECT_EQ(command_line("--flag").call(nullptr, nullptr), "?,0,-,2");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    char* nothing[] = {nullptr};
    EXPECT_EQ(getopt_long(0, nothing, "a", long_options, nullptr), -1);
}

// The convention is settled by the first call that meets a non-option, and for the whole process.
void expect_convention(const char* first, const std::string& stopped, const char* later, const char* rest) {
    command_line line("-a x -b");
    EXPECT_EQ(line.calls(first), stopped);
    EXPECT_EQ(line.calls(first), stopped.substr(stopped.find("-1")));
    optind = 3;  // the caller took the argument before it
    EXPECT_EQ(line.calls(later), rest);
    optreset = 1;
    EXPECT_EQ(command_line("x -b").calls("-b"), "1,.,x,2 b,b,-,3 -1,.,-,3 | x -b");
}

TEST(Options, StopAtNonOptionByPlus) {
    expect_convention("+ab", "a,a,-,2 -1,.,-,2 | -a x -b", "ab", "b,b,-,4 -1,.,-,4 | -a x -b");
}

TEST(Options, StopAtNonOptionByEnvironment) {
    setenv("POSIXLY_CORRECT", "", 1);
    expect_convention("ab", "a,a,-,2 -1,.,-,2 | -a x -b", "ab", "b,b,-,4 -1,.,-,4 | -a x -b");
}

TEST(Options, PermuteForTheWholeProcess) {
    expect_convention("ab", "a,a,-,2 b,b,-,4 -1,.,-,3 | -a -b x", "+ab", "-1,.,-,3 | -a -b x");
    optreset = 1;
    EXPECT_EQ(command_line("x -a").calls("+a"), "a,a,-,3 -1,.,-,2 | -a x");
}

}  // namespace
}  // namespace mirvok
