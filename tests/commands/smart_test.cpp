#include "commands/smart.h"

#include <algorithm>

#include "common/options.h"
#include "support/records.h"

namespace mirvok {
namespace {

_smart_program program;

// Path, --all and -v as the command takes them from these words.
std::string options(std::vector<std::string> words) {
    std::vector<char*> argv(words.size() + 3);
    char name[][8] = {"mirvok", "smart"};
    argv[0] = name[0];
    argv[1] = name[1];
    std::transform(words.begin(), words.end(), argv.begin() + 2,
                   [](std::string& word) { return word.data(); });
    optreset = 1;
    init_program(&program);
    EXPECT_EQ(parse_command_line(static_cast<int>(words.size()) + 2, argv.data(), &program), 0);
    return program.profile_path + (" " + std::to_string(program.all_flag)) + " " +
           std::to_string(program.verbose_level);
}

TEST(Smart, TakeOptions) {
    const std::string long_path(5000, 'p');
    testing::internal::CaptureStderr();
    EXPECT_EQ(options({}), "talvex.bin 0 0");
    EXPECT_EQ(options({"-p", "a"}), "a 0 0");
    EXPECT_EQ(options({"--os", "1", "--profile=" + long_path, "--debug", "-hv4x"}), long_path + " 0 4");
    EXPECT_EQ(options({"--help", "--usage", "--all", "--verbose", "7", "-pb"}), "b 1 7");
    EXPECT_EQ(options({"-z", "--all=1", "-p"}), "talvex.bin 0 0");
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "mirvok: invalid option -- z\nmirvok: option `--all' doesn't accept an argument\n"
              "mirvok: option requires an argument -- p\n");
}

}  // namespace
}  // namespace mirvok
